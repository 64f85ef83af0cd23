// A scripted archive server on loopback: records each request, answers with the queued replies.
#ifndef TESTS_SUPPORT_ARCHIVESERVER_H
#define TESTS_SUPPORT_ARCHIVESERVER_H

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
  std::vector<std::string> requests();  // one per connection: header and body bytes
  std::string lastPath();               // of the last request's GET line (the whole request when no GET)

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

// The port of a loopback listener whose backlog is full: a connect to it hangs until the client's time-out.
int fullBacklogPort();

std::string readFile(const std::string& path);
std::vector<std::string> listDir(const std::string& dir);  // sorted, hidden names too

}  // namespace archivetest

#endif
