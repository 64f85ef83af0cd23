#include "tests/support/ArchiveServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>

#include <gtest/gtest.h>

namespace archivetest {

void expectTracesPaired(const std::string& log) {
  std::map<std::string, int> open;
  const std::regex trace(R"(\] (Enter|Leav)ing (\w+)\(\))");
  for (std::sregex_iterator m(log.begin(), log.end(), trace), end; m != end; ++m)
    open[(*m)[2]] += (*m)[1] == "Enter" ? 1 : -1;
  const std::regex lock(R"(\] Entering _tobas(Lock|Unlock)SrvInfoSem\(\))");
  for (std::sregex_iterator m(log.begin(), log.end(), lock), end; m != end; ++m)
    open["_tobasLockSrvInfoSem/_tobasUnlockSrvInfoSem"] += (*m)[1] == "Lock" ? 1 : -1;
  for (const auto& [fn, n] : open) EXPECT_EQ(0, n) << fn << " entered and left unequally often";
}

namespace {
testsupport::TempDir logDir;  // removed at exit; the environment below never is

// Logs into a private folder; at the end, every function traced as entered is traced as left as often.
struct TraceLog : testing::Environment {
  void SetUp() override {
    setenv("TOBAS_LOG_FILE", logDir.file("tobas.log").c_str(), 1);
    setenv("TOBAS_LOG_LEVEL", "5", 1);
    unsetenv("TOBAS_VERBOSE_LEVEL");
    alarm(120);           // a hang ends the program by SIGALRM instead of stalling it
    close(STDIN_FILENO);  // as in a daemon: the files the client opens get descriptor 0 too
  }
  void TearDown() override { expectTracesPaired(readFile(getenv("TOBAS_LOG_FILE"))); }
};
const auto* traceLog = testing::AddGlobalTestEnvironment(new TraceLog);

int aboveStdin(int fd) {  // keeps the test's sockets off descriptor 0, left to the files the client opens
  if (fd != 0) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  return moved;
}

}  // namespace

int listenLoopback(int backlog, int& port) {
  const int fd = aboveStdin(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  auto* sa = reinterpret_cast<sockaddr*>(&addr);
  socklen_t len = sizeof addr;
  if (bind(fd, sa, len) != 0 || listen(fd, backlog) != 0 || getsockname(fd, sa, &len) != 0) abort();
  port = ntohs(addr.sin_port);
  return fd;
}

ArchiveServer::ArchiveServer() : listenFd_(listenLoopback(16, port_)), thread_([this] { run(); }) {}

void ArchiveServer::run() {
  char buf[65536];
  // Polled before each accept: a blocked accept() holds the lowest free descriptor, 0, from the client.
  pollfd l{listenFd_, POLLIN, 0};
  for (int fd; poll(&l, 1, -1) >= 0 && (fd = aboveStdin(accept(listenFd_, nullptr, nullptr))) >= 0;
       close(fd)) {
    Reply reply;  // none queued: closed unanswered
    std::unique_lock<std::mutex> lock(mutex_);
    std::string& req = requests_.emplace_back();  // the header, then the body its length announces
    pollfd r{fd, POLLIN, 0};
    for (ssize_t n; poll(&r, 1, 5000) > 0 && (n = read(fd, buf, sizeof buf)) > 0;) {
      req.append(buf, static_cast<size_t>(n));
      const size_t end = req.find("\r\n\n"), cl = req.find("Content-length: ");
      const size_t body = cl < end ? std::strtoul(req.c_str() + cl + 16, nullptr, 10) : 0;
      if (end != std::string::npos && req.size() >= end + 3 + body) break;
    }
    if (!replies_.empty()) reply = replies_.front(), replies_.pop_front();
    lock.unlock();
    const size_t total = std::min(reply.bytes.size(), reply.cutAfter),
                 chunk = reply.dripChunk ? reply.dripChunk : total;
    for (size_t off = 0; off < total; off += chunk) {
      if (off > 0) usleep(150000);
      if (send(fd, reply.bytes.data() + off, std::min(chunk, total - off), MSG_NOSIGNAL) <= 0) break;
    }
    while (reply.holdOpen && read(fd, buf, sizeof buf) > 0) continue;
  }
}

int fullBacklogPort() {
  int port;
  listenLoopback(0, port);  // open until the program ends; a backlog of 0 still queues a connection or two

  sockaddr_in addr{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  for (int i = 0; i < 8; ++i)
    connect(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  usleep(50000);
  return port;
}

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace archivetest
