#ifndef TESTS_SUPPORT_TDSSERVER_H
#define TESTS_SUPPORT_TDSSERVER_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tdstest {

// A TDS 7.4 and 5.0 server on loopback: logins checked against one user (none if empty); each statement of a
// batch (to ';' or the next statement's start) runs on an SQLite file through the dialect rewriter.
class TdsServer {
 public:
  // Silent accepts connections and never answers; SilentAfterLogin logs in, then never answers a batch;
  // DropMidResult logs in, then cuts the connection inside any result of over dropAfterRows rows;
  // QuietRefusal refuses a statement by its DONE alone, no message; FirstOnly answers only a batch's first
  // statement; EchoInserts answers an insert with the rows it wrote too, as a trigger that selects them may.
  enum class Mode { Normal, Silent, SilentAfterLogin, DropMidResult, QuietRefusal, FirstOnly, EchoInserts };

  TdsServer(std::string dbPath, std::string user, std::string password, Mode mode = Mode::Normal)
      : dbPath_(std::move(dbPath)), user_(std::move(user)), password_(std::move(password)), mode_(mode) {}
  ~TdsServer() { stop(); }

  int start();  // listens on 127.0.0.1 at a port the system picks, returned (aborts if it cannot)
  void stop();
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

  int dropAfterRows = 100;
  // Milliseconds to wait before each answer after the login, as a long link would; may change live.
  std::atomic<int> roundTripDelayMs{0};
  std::atomic<int> logins{0};           // logins accepted so far
  std::atomic<uint32_t> tdsVersion{0};  // the version the last TDS 7 login asked for

 private:
  struct Session;

  std::string dbPath_, user_, password_;
  Mode mode_;
  int listenFd_ = -1, port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;
  std::mutex mutex_;
  std::vector<int> clients_;
  std::vector<std::thread> workers_;
};

}  // namespace tdstest

#endif
