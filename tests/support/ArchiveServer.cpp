#include "tests/support/ArchiveServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

namespace archivetest {

namespace {
// Every test program logs into a private folder, never the tree or the home folder.
struct LogEnv {
  testsupport::TempDir dir;
  LogEnv() {
    setenv("TOBAS_LOG_FILE", dir.file("tobas.log").c_str(), 1);
    setenv("TOBAS_LOG_LEVEL", "5", 1);
    unsetenv("TOBAS_VERBOSE_LEVEL");
  }
} logEnv;

// At the end of each program: every function traced as entered is traced as left as often.
struct TracesPair : testing::Environment {
  void TearDown() override {
    std::map<std::string, int> open;
    std::istringstream log(readFile(getenv("TOBAS_LOG_FILE")));
    const std::regex trace(R"(\] (Enter|Leav)ing (\w+)\(\))");
    for (std::string l; std::getline(log, l);)
      if (std::smatch m; std::regex_search(l, m, trace)) open[m[2]] += m[1] == "Enter" ? 1 : -1;
    for (const auto& [fn, n] : open) EXPECT_EQ(0, n) << fn << " entered and left unequally often";
  }
};
const auto* tracesPair = testing::AddGlobalTestEnvironment(new TracesPair);

int listenLoopback(int backlog, sockaddr_in& addr, int& port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  addr = sockaddr_in{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof addr;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, backlog) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
    throw std::runtime_error("cannot listen on loopback");
  port = ntohs(addr.sin_port);
  return fd;
}

// The header, then as many body bytes as its content length announces.
std::string readRequest(int fd) {
  std::string data;
  char buf[65536];
  for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 5000) > 0;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    data.append(buf, static_cast<size_t>(n));
    size_t end = data.find("\r\n\n");
    const char* cl = strcasestr(data.c_str(), "content-length:");
    if (end != std::string::npos && data.size() >= end + 3 + (cl ? std::atol(cl + 15) : 0)) break;
  }
  return data;
}
}  // namespace

ArchiveServer::ArchiveServer() {
  sockaddr_in addr;
  listenFd_ = listenLoopback(16, addr, port_);
  thread_ = std::thread([this] { run(); });
}

ArchiveServer::~ArchiveServer() {
  stop_ = true;
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

std::string ArchiveServer::lastPath() {
  const std::string r = requests().back();
  const size_t end = r.find(" HTTP/1.0");
  return r.rfind("GET ", 0) == 0 && end != std::string::npos ? r.substr(4, end - 4) : r;
}

void ArchiveServer::run() {
  while (!stop_) {
    Reply reply;  // none queued: closed unanswered
    pollfd p{listenFd_, POLLIN, 0};
    int fd = poll(&p, 1, 20) > 0 ? accept(listenFd_, nullptr, nullptr) : -1;
    if (fd < 0) continue;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(readRequest(fd));
      if (!replies_.empty()) reply = replies_.front(), replies_.pop_front();
    }
    const size_t total = std::min(reply.bytes.size(), reply.cutAfter);
    const size_t chunk = reply.dripChunk > 0 ? reply.dripChunk : total;
    for (size_t off = 0; off < total; off += chunk) {
      if (off > 0) std::this_thread::sleep_for(std::chrono::milliseconds(150));
      if (send(fd, reply.bytes.data() + off, std::min(chunk, total - off), MSG_NOSIGNAL) <= 0) break;
    }
    char c;
    for (pollfd h{fd, POLLIN, 0}; reply.holdOpen && !stop_;)
      if (poll(&h, 1, 50) > 0 && read(fd, &c, 1) <= 0) break;
    close(fd);
  }
}

std::string httpReply(int code, const std::string& body, const std::string& extraHeaders) {
  return "HTTP/1.0 " + std::to_string(code) + " Reply text\r\nContent-Type: text/xml\r\n" + extraHeaders +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
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
  listenFd = listenLoopback(0, addr, port);
  // A backlog of 0 still queues a connection or two: fill it, then wait until a further
  // connect no longer completes.
  for (int i = 0; i < 8; ++i) {
    fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    connect(fillers.back(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

FullBacklogListener::~FullBacklogListener() {
  for (int c : fillers) close(c);
  close(listenFd);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace archivetest
