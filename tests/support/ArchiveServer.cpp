#include "tests/support/ArchiveServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace archivetest {

namespace {
// Every test program logs into a private folder, never the tree or the home folder.
struct LogEnv {
  std::string dir;
  LogEnv() {
    char tmpl[] = "/tmp/tobas-log-XXXXXX";
    dir = mkdtemp(tmpl);
    setenv("TOBAS_LOG_FILE", (dir + "/tobas.log").c_str(), 1);
    setenv("TOBAS_LOG_LEVEL", "5", 1);
    unsetenv("TOBAS_VERBOSE_LEVEL");
  }
  ~LogEnv() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
} logEnv;

// A listening socket on 127.0.0.1, port chosen by the system; fills `addr`.
int listenLoopback(int backlog, sockaddr_in& addr) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  addr = sockaddr_in{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, backlog) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
    throw std::runtime_error("cannot listen on loopback");
  return fd;
}
}  // namespace

ArchiveServer::ArchiveServer() {
  sockaddr_in addr;
  listenFd_ = listenLoopback(16, addr);
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { run(); });
}

ArchiveServer::~ArchiveServer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  thread_.join();
  close(listenFd_);
}

void ArchiveServer::push(const Reply& r) {
  std::lock_guard<std::mutex> lock(mutex_);
  replies_.push_back(r);
}

std::vector<std::string> ArchiveServer::requests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::string ArchiveServer::last() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_.empty() ? std::string() : requests_.back();
}

std::string ArchiveServer::lastPath() {
  const std::string r = last();
  const size_t end = r.find(" HTTP/1.0");
  return r.rfind("GET ", 0) == 0 && end != std::string::npos ? r.substr(4, end - 4) : r;
}

std::string ArchiveServer::readRequest(int fd) {
  std::string data;
  char buf[65536];
  size_t headerEnd = std::string::npos;
  long bodyLen = 0;
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 5000) <= 0) break;
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    data.append(buf, static_cast<size_t>(n));
    if (headerEnd == std::string::npos) {
      size_t e = data.find("\r\n\n");
      if (e == std::string::npos) continue;
      headerEnd = e + 3;
      std::string lower = data.substr(0, headerEnd);
      std::transform(lower.begin(), lower.end(), lower.begin(),
                     [](unsigned char c) { return std::tolower(c); });
      size_t cl = lower.find("content-length:");
      if (cl != std::string::npos) bodyLen = std::atol(lower.c_str() + cl + 15);
    }
    if (data.size() >= headerEnd + static_cast<size_t>(bodyLen)) break;
  }
  return data;
}

void ArchiveServer::run() {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stop_) return;
    }
    pollfd p{listenFd_, POLLIN, 0};
    if (poll(&p, 1, 20) <= 0) continue;
    int fd = accept(listenFd_, nullptr, nullptr);
    if (fd < 0) continue;
    std::string req = readRequest(fd);
    Reply reply;  // none queued: closed unanswered
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(req);
      if (!replies_.empty()) {
        reply = replies_.front();
        replies_.pop_front();
      }
    }
    const size_t total = std::min(reply.bytes.size(), reply.cutAfter);
    for (size_t off = 0; off < total;) {
      size_t chunk = reply.dripChunk > 0 ? std::min(total - off, reply.dripChunk) : total - off;
      if (off > 0 && reply.dripChunk > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(reply.dripDelayMs));
      ssize_t n = send(fd, reply.bytes.data() + off, chunk, MSG_NOSIGNAL);
      if (n <= 0) break;
      off += static_cast<size_t>(n);
    }
    while (reply.holdOpen) {
      pollfd h{fd, POLLIN, 0};
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stop_) break;
      }
      char c;
      if (poll(&h, 1, 50) > 0 && read(fd, &c, 1) <= 0) break;
    }
    shutdown(fd, SHUT_WR);
    // Let the client read everything before the socket goes away.
    char sink[4096];
    pollfd q{fd, POLLIN, 0};
    while (poll(&q, 1, 200) > 0 && read(fd, sink, sizeof sink) > 0) {
    }
    close(fd);
  }
}

std::string httpReply(int code, const std::string& body, const std::string& extraHeaders) {
  std::ostringstream out;
  out << "HTTP/1.0 " << code << " Reply text\r\n"
      << "Content-Type: text/xml\r\n"
      << extraHeaders << "Content-Length: " << body.size() << "\r\n\r\n"
      << body;
  return out.str();
}

std::string statusDoc(const std::string& status, const std::string& message) {
  return "<?xml version=\"1.0\"?>\n<Status Date=\"2007-07-12T10:30:00.000\" HostId=\"arcsrv1\" Message=\"" +
         message + "\" State=\"ONLINE\" SubState=\"IDLE\" Status=\"" + status + "\" Version=\"v3.1\"/>\n";
}

std::string fileReply(const std::string& fileName, const std::string& content) {
  return httpReply(200, content, "content-disposition: attachment; filename=\"" + fileName + "\"\r\n");
}

FullBacklogListener::FullBacklogListener() {
  sockaddr_in addr;
  listenFd_ = listenLoopback(0, addr);
  port_ = ntohs(addr.sin_port);
  // A backlog of 0 still queues a connection or two: fill it, then wait until
  // a further connect no longer completes.
  for (int i = 0; i < 8; ++i) {
    int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    connect(c, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    fillers_.push_back(c);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

FullBacklogListener::~FullBacklogListener() {
  for (int c : fillers_) close(c);
  close(listenFd_);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace archivetest
