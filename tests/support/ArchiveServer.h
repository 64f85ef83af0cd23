// A scripted archive server on loopback: records each request, answers with the queued replies.
#ifndef TESTS_SUPPORT_ARCHIVESERVER_H
#define TESTS_SUPPORT_ARCHIVESERVER_H

#include <unistd.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace archivetest {

struct Reply {
  std::string bytes;
  size_t cutAfter = std::string::npos;  // close after this many bytes
  size_t dripChunk = 0;                 // send in chunks of this size, 150 ms apart
  bool holdOpen = false;                // then keep the connection open until the client closes
};

class ArchiveServer {
 public:
  ArchiveServer();
  ~ArchiveServer();
  int port() const { return port_; }
  void push(const Reply& r);
  void push(const std::string& bytes) { push(Reply{bytes}); }
  std::vector<std::string> requests();  // one per connection: header and body bytes
  std::string lastPath();               // of the last request's GET line (the whole request when no GET)

 private:
  void run();
  int listenFd_ = -1, port_ = 0;
  std::mutex mutex_;
  std::deque<Reply> replies_;
  std::vector<std::string> requests_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::string httpReply(int code, const std::string& body, const std::string& extraHeaders = "");
std::string statusDoc(const std::string& status, const std::string& message);
std::string fileReply(const std::string& fileName, const std::string& content);

// A loopback listener whose backlog is full: a connect to it hangs until the client's time-out.
struct FullBacklogListener {
  FullBacklogListener();
  ~FullBacklogListener();
  int listenFd = -1, port = 0;
  std::vector<int> fillers;
};

// Ends the program by SIGALRM when not destroyed within `seconds`: a hang fails, not stalls.
struct HangGuard {
  explicit HangGuard(unsigned seconds) { alarm(seconds); }
  ~HangGuard() { alarm(0); }
};

std::string readFile(const std::string& path);
std::vector<std::string> listDir(const std::string& dir);  // sorted, hidden names too

}  // namespace archivetest

#endif
