#include "tests/support/Backend.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <sybconn/FreeTdsSettings.h>

namespace testsupport {

namespace {
Backend::Kind kindFromEnvironment() {
  const char* v = std::getenv("DA_TEST_BACKEND");
  if (!v || !*v || std::strcmp(v, "sqlite") == 0) return Backend::Kind::Sqlite;
  if (std::strcmp(v, "tds50") == 0) return Backend::Kind::Tds50;
  if (std::strcmp(v, "tds74") == 0) return Backend::Kind::Tds74;
  throw std::invalid_argument(std::string("DA_TEST_BACKEND: unknown backend ") + v);
}

// A loopback port that was free a moment ago; nothing listens on it.
int closedPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 1;
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  if (fd >= 0) ::close(fd);
  return port;
}
}  // namespace

Backend::Backend(Kind kind) : kind_(kind) {
  if (isTds()) {
    sybconn::FreeTdsSettings::setTdsVersion(kind == Kind::Tds50 ? "5.0" : "7.4");
    sybconn::FreeTdsSettings::setLoginTimeout(5);
    sybconn::FreeTdsSettings::setQueryTimeout(20);
  }
}

Backend& Backend::current() {
  static Backend backend(kindFromEnvironment());
  return backend;
}

std::string Backend::server(const std::string& dbFile) {
  if (!isTds()) return "sqlite:" + dbFile;
  auto& s = servers_[dbFile];
  if (!s) {
    s = std::make_unique<tdstest::TdsServer>(dbFile, "", "");
    if (s->start() == 0) throw std::runtime_error("cannot start the TDS test server");
  }
  return s->address();
}

std::string Backend::unreachable(const std::string& dir) const {
  if (!isTds()) return "sqlite:" + dir + "/no/such/dir.db";
  return "127.0.0.1:" + std::to_string(closedPort());
}

void Backend::stopServers() { servers_.clear(); }

}  // namespace testsupport
