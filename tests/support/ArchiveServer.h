// A scripted archive server on loopback: records each request, answers with the queued replies.
#ifndef TESTS_SUPPORT_ARCHIVESERVER_H
#define TESTS_SUPPORT_ARCHIVESERVER_H

#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempDir.h"

namespace archivetest {

struct Reply {
  std::string bytes;
  size_t cutAfter = std::string::npos, dripChunk = 0;  // close after cutAfter bytes; drip chunks 150 ms apart
  bool holdOpen = false;  // then keep the connection open until the client closes
};

class ArchiveServer {
 public:
  ArchiveServer();
  ~ArchiveServer() {
    shutdown(listenFd_, SHUT_RDWR);
    thread_.join();
    close(listenFd_);
  }
  int port() const { return port_; }
  void push(const Reply& r) {
    std::lock_guard<std::mutex> lock(mutex_);
    replies_.push_back(r);
  }
  std::vector<std::string> requests() {  // one per connection: header and body bytes
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  std::string lastPath() {  // of the last request's GET line (the whole request when no GET)
    const std::string r = requests().back();
    return r.rfind("GET ", 0) == 0 ? r.substr(4, r.find(" HTTP/1.0") - 4) : r;
  }

 private:
  void run();
  int port_ = 0, listenFd_ = -1;
  std::mutex mutex_;
  std::deque<Reply> replies_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

inline std::string httpReply(int code, const std::string& body, const std::string& extraHeaders = "") {
  return "HTTP/1.0 " + std::to_string(code) + " Reply text\r\nContent-Type: text/xml\r\n" + extraHeaders +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
inline std::string statusDoc(const std::string& status, const std::string& message) {
  return "<?xml version=\"1.0\"?>\n<Status Date=\"2007-07-12T10:30:00.000\" HostId=\"arcsrv1\" Message=\"" +
         message + "\" State=\"ONLINE\" SubState=\"IDLE\" Status=\"" + status + "\" Version=\"v3.1\"/>\n";
}
inline std::string fileReply(const std::string& fileName, const std::string& content) {
  return httpReply(200, content, "content-disposition: attachment; filename=\"" + fileName + "\"\r\n");
}

int fullBacklogPort();  // a loopback listener's, backlog full: a connect to it hangs until the time-out
int listenLoopback(int backlog, int& port);  // on 127.0.0.1, a free port set in `port`; aborts if it cannot

using testsupport::readFile;
void expectTracesPaired(const std::string& log);  // each function the log traces as entered is left as often
std::vector<std::string> listDir(const std::string& dir);  // sorted, hidden names too

}  // namespace archivetest

#endif
