// Scripted loopback HTTP peer for the archive client tests: records each request's bytes and
// answers with the bytes a test queued.
#ifndef TESTS_TOBASCCLIENT_TOBASTESTSERVER_H
#define TESTS_TOBASCCLIENT_TOBASTESTSERVER_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tobastest {

struct Reply {
  std::string bytes;        // sent as is
  bool readRequest = true;  // read the request before answering
  int delayMs = 0;          // wait before answering
  bool closeEarly = false;  // close without answering
};

class TestServer {
 public:
  TestServer();
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  int port() const { return port_; }
  void push(const Reply& r);
  void push(const std::string& bytes) { push(Reply{bytes}); }
  // Requests received so far (each: header and body bytes as read).
  std::vector<std::string> requests();
  size_t connections();

 private:
  void run();
  std::string readRequest(int fd);

  int listenFd_ = -1;
  int port_ = 0;
  std::mutex mutex_;
  std::deque<Reply> replies_;
  std::vector<std::string> requests_;
  size_t connections_ = 0;
  bool stop_ = false;
  std::thread thread_;
};

// "HTTP/1.0 <code> <text>" reply with a content length and an optional extra header block.
std::string httpReply(int code, const std::string& body, const std::string& extraHeaders = "");
// A status document with the seven attributes of the status element.
std::string statusDoc(const std::string& status, const std::string& message);

// A fresh folder removed with its contents at destruction.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace tobastest

#endif
