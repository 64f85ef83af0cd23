#ifndef TESTS_SUPPORT_TDSSERVER_H
#define TESTS_SUPPORT_TDSSERVER_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tdstest {

// A small TDS 7.4 and 5.0 server on a loopback port of its own, for tests of the
// DB-Library driver. Logins are checked against one user and password; SQL
// batches run on an SQLite file through the library's dialect rewriter, each
// ';'-separated statement as one command.
class TdsServer {
 public:
  enum class Mode {
    Normal,
    // Accepts connections and never answers.
    Silent,
    // Logs in normally, then never answers a batch.
    SilentAfterLogin,
    // Logs in normally, then closes the connection after the first rows of
    // any select that returns more than `dropAfterRows` rows.
    DropMidResult,
  };

  // An empty `user` lets every user in, whatever the password.
  TdsServer(std::string dbPath, std::string user, std::string password, Mode mode = Mode::Normal);
  ~TdsServer();
  TdsServer(const TdsServer&) = delete;
  TdsServer& operator=(const TdsServer&) = delete;

  // Listens on 127.0.0.1, port chosen by the system. Returns the port, 0 on failure.
  int start();
  void stop();
  int port() const { return port_; }
  // "127.0.0.1:PORT"
  std::string address() const;

  int dropAfterRows = 10;
  // Number of logins accepted so far.
  std::atomic<int> logins{0};
  // The TDS version of the last TDS 7 login, as the client sent it.
  std::atomic<uint32_t> tdsVersion{0};

 private:
  struct Session;
  class Wire;
  void acceptLoop();
  void serve(int fd);
  // Reads user and password from a login (after a TDS 7 pre-login).
  bool credentials(int fd, uint8_t type, std::string msg, bool tds5, std::string& user,
                   std::string& password);
  // Answers the login; false when it failed.
  bool login(int fd, uint8_t type, const std::string& msg, Session& s);
  // Answers one client message; false when the connection is to end.
  bool command(int fd, uint8_t type, const std::string& msg, Session& s);
  // Runs one statement of a batch; false when the connection is to drop.
  bool statement(const std::string& stmt, uint16_t more, Wire& w, Session& s);

  std::string dbPath_, user_, password_;
  Mode mode_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;
  std::mutex mutex_;
  std::vector<int> clients_;
  std::vector<std::thread> workers_;
};

}  // namespace tdstest

#endif
