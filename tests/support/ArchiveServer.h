// A scripted archive server on a loopback port of its own, for the archive
// client's tests and its command-line tool: records each request's bytes and
// answers each connection with the next reply a test queued (a connection
// with no reply queued is closed unanswered).
#ifndef TESTS_SUPPORT_ARCHIVESERVER_H
#define TESTS_SUPPORT_ARCHIVESERVER_H

#include <unistd.h>

#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace archivetest {

struct Reply {
  std::string bytes;                    // sent as is
  size_t cutAfter = std::string::npos;  // close after this many bytes of `bytes`
  size_t dripChunk = 0;                 // send in chunks of this size ...
  int dripDelayMs = 0;                  // ... with this pause between them
  bool holdOpen = false;                // after the bytes, keep the connection open until the client closes
};

class ArchiveServer {
 public:
  ArchiveServer();
  ~ArchiveServer();
  ArchiveServer(const ArchiveServer&) = delete;
  ArchiveServer& operator=(const ArchiveServer&) = delete;

  int port() const { return port_; }
  void push(const Reply& r);
  void push(const std::string& bytes) { push(Reply{bytes}); }
  // Requests received so far, one per connection (each: header and body bytes as read).
  std::vector<std::string> requests();
  // The last request, and the path of its GET line (the whole request when it is no GET).
  std::string last();
  std::string lastPath();

 private:
  void run();
  std::string readRequest(int fd);

  int listenFd_ = -1;
  int port_ = 0;
  std::mutex mutex_;
  std::deque<Reply> replies_;
  std::vector<std::string> requests_;
  bool stop_ = false;
  std::thread thread_;
};

// "HTTP/1.0 <code> <text>" reply with a content length and an optional extra header block.
std::string httpReply(int code, const std::string& body, const std::string& extraHeaders = "");
// A status document with the seven attributes of the status element.
std::string statusDoc(const std::string& status, const std::string& message);
// A 200 reply whose body is a file named `fileName` in its content-disposition.
std::string fileReply(const std::string& fileName, const std::string& content);

// A loopback listener that never accepts and whose backlog is full: a connect
// to it hangs until the client's own time-out.
class FullBacklogListener {
 public:
  FullBacklogListener();
  ~FullBacklogListener();
  FullBacklogListener(const FullBacklogListener&) = delete;
  FullBacklogListener& operator=(const FullBacklogListener&) = delete;
  int port() const { return port_; }

 private:
  int listenFd_ = -1;
  int port_ = 0;
  std::vector<int> fillers_;
};

// Ends the program by SIGALRM when not destroyed within `seconds`: a call that hangs fails the
// test instead of stalling the suite.
struct HangGuard {
  explicit HangGuard(unsigned seconds) { alarm(seconds); }
  ~HangGuard() { alarm(0); }
};

std::string readFile(const std::string& path);
// Names in a folder (hidden ones too, not "." and ".."), sorted.
std::vector<std::string> listDir(const std::string& dir);

}  // namespace archivetest

#endif
