#include "tests/support/PgCluster.h"

#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace testsupport {
namespace {

// A loopback port free at the time of the call.
int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof addr;
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

std::string binDir() {
  if (std::filesystem::exists("/usr/lib/postgresql/15/bin/pg_ctl")) return "/usr/lib/postgresql/15/bin";
  std::string out;
  if (FILE* p = ::popen("pg_config --bindir 2>/dev/null", "r")) {
    char buf[512];
    if (std::fgets(buf, sizeof buf, p)) out = buf;
    ::pclose(p);
  }
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

}  // namespace

PgCluster::PgCluster() {
  const char* host = std::getenv("DA_TEST_PG_HOST");
  const char* port = std::getenv("DA_TEST_PG_PORT");
  if (host && port) {
    external_ = true;
    host_ = host;
    port_ = std::atoi(port);
  }
}

PgCluster::~PgCluster() { stop(); }

bool PgCluster::run(const std::string& what, const std::string& command) {
  // The server refuses to run as root: the cluster belongs to postgres then.
  const std::string prefix = ::geteuid() == 0 ? "runuser -u postgres -- " : "";
  const std::string log = dir_->file("setup.log");
  const int rc = std::system((prefix + bin_ + "/" + command + " >>" + log + " 2>&1").c_str());
  if (rc == 0) return true;
  const std::string text = readFile(log) + readFile(dir_->file("server.log"));
  const size_t tail = text.size() > 600 ? text.size() - 600 : 0;
  error_ = what + " failed (status " + std::to_string(rc) + "); see " + log + " and " +
           dir_->file("server.log") + ": " + text.substr(tail);
  return false;
}

bool PgCluster::start() {
  if (external_ || running_) return true;
  if (!created_) {
    dir_ = std::make_unique<TempDir>();
    bin_ = binDir();
    host_ = dir_->path();
    port_ = freePort();
    dir_->write("pw", password() + "\n", 0600);
    if (::geteuid() == 0) {
      const passwd* pg = ::getpwnam("postgres");
      if (!pg) return error_ = "running as root and no user postgres to run the cluster", false;
      for (const char* f : {"", "pw"})
        if (::chown(dir_->file(f).c_str(), pg->pw_uid, pg->pw_gid) != 0)
          return error_ = "cannot give " + dir_->path() + " to user postgres", false;
    }
    if (!run("initdb", "initdb -D " + dir_->file("data") + " -U postgres --pwfile=" + dir_->file("pw") +
                           " --auth-local=trust --auth-host=scram-sha-256 -E UTF8 --locale=C --no-sync"))
      return false;
    created_ = true;
  }
  running_ =
      run("pg_ctl start", "pg_ctl -D " + dir_->file("data") + " -l " + dir_->file("server.log") +
                              " -w -t 30 -o '-c port=" + std::to_string(port_) +
                              " -c listen_addresses=127.0.0.1 -c unix_socket_directories=" + dir_->path() +
                              " -c fsync=off -c full_page_writes=off' start");
  return running_;
}

void PgCluster::stop() {
  if (!running_) return;
  run("pg_ctl stop", "pg_ctl -D " + dir_->file("data") + " -m fast -w stop");
  running_ = false;
}

bool PgCluster::restart() {
  stop();
  return start();
}

std::string PgCluster::uri(const std::string& db) const {
  return "postgresql:///" + db + "?host=" + host_ + "&port=" + std::to_string(port_);
}

std::string PgCluster::tcpUri(const std::string& db) const {
  return "postgresql://127.0.0.1:" + std::to_string(port_) + "/" + db;
}

std::string PgCluster::createDatabase() {
  static std::atomic<int> counter{0};
  const std::string name = "da_test_" + std::to_string(::getpid()) + "_" + std::to_string(++counter);
  const std::string conninfo = uri() + "&user=postgres";
  PGconn* c = PQconnectdb(conninfo.c_str());
  PGresult* r = PQexec(c, ("create database " + name).c_str());
  const bool ok = PQresultStatus(r) == PGRES_COMMAND_OK;
  const std::string why = PQerrorMessage(c);
  PQclear(r);
  PQfinish(c);
  if (!ok) throw std::runtime_error("create database " + name + " failed: " + why);
  return name;
}

PgCluster& PgCluster::shared() {
  static PgCluster cluster;
  if (!cluster.start()) throw std::runtime_error("PostgreSQL test cluster: " + cluster.error());
  return cluster;
}

}  // namespace testsupport
