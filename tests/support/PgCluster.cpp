#include "tests/support/PgCluster.h"

#include <libpq-fe.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "tests/support/ArchiveServer.h"

namespace testsupport {

PgCluster::PgCluster() {
  if (const char* state = std::getenv("DA_TEST_PG_STATE"))
    external_ = static_cast<bool>(std::ifstream(state) >> host_ >> port_);
}

bool PgCluster::detach(const std::string& stateFile) {
  if (!running_ || external_ || !(std::ofstream(stateFile) << host_ << ' ' << port_ << '\n')) return false;
  dir_->keep();  // stopDetached removes it
  dir_.reset();
  running_ = false;
  return true;
}

void PgCluster::stopDetached(const std::string& stateFile) {
  PgCluster c;
  if (!(std::ifstream(stateFile) >> c.host_ >> c.port_)) return;
  c.dir_ = std::make_unique<TempDir>(c.host_);  // adopted: removed with the object
  c.running_ = true;
  c.stop();
  std::remove(stateFile.c_str());
}

bool PgCluster::run(const std::string& what, const std::string& command) {
  // The server refuses to run as root: the cluster is postgres's then.
  const std::string bin = "$(pg_config --bindir)/", as = ::geteuid() == 0 ? "runuser -u postgres -- " : "";
  const std::string log = dir_->file("setup.log"), serverLog = dir_->file("server.log");
  const int rc = std::system((as + bin + command + " >>" + log + " 2>&1").c_str());
  if (rc == 0) return true;
  const std::string text = readFile(log) + readFile(serverLog);
  error_ = what + " failed (status " + std::to_string(rc) +
           "): " + text.substr(text.size() > 500 ? text.size() - 500 : 0);
  return false;
}

bool PgCluster::start() {
  if (external_ || running_) return true;
  if (!dir_) {
    dir_ = std::make_unique<TempDir>();
    host_ = dir_->path();
    ::close(archivetest::listenLoopback(1, port_));  // a port free now
    const std::string pw = dir_->write("pw", password() + "\n", 0600);
    const passwd* pg = ::geteuid() == 0 ? ::getpwnam("postgres") : nullptr;
    if (pg && (::chown(host_.c_str(), pg->pw_uid, pg->pw_gid) || ::chown(pw.c_str(), pg->pw_uid, pg->pw_gid)))
      return error_ = "cannot give " + host_ + " to user postgres", false;
    if (!run("initdb", "initdb -D " + dir_->file("data") + " -U postgres --pwfile=" + pw +
                           " --auth-local=trust --auth-host=scram-sha-256 -E UTF8 --locale=C --no-sync"))
      return false;
  }
  running_ = run("pg_ctl start", "pg_ctl -D " + dir_->file("data") + " -l " + dir_->file("server.log") +
                                     " -w -t 30 -o '-c port=" + std::to_string(port_) +
                                     " -c listen_addresses=127.0.0.1 -c unix_socket_directories=" + host_ +
                                     " -c fsync=off -c full_page_writes=off' start");
  return running_;
}

void PgCluster::stop() {
  if (running_) run("pg_ctl stop", "pg_ctl -D " + dir_->file("data") + " -m fast -w stop");
  running_ = false;
}

void PgCluster::exec(const std::string& db, const std::string& sql) const {
  PGconn* c = PQconnectdb((uri(db) + "&user=postgres").c_str());
  PGresult* r = PQexec(c, sql.c_str());
  const std::string why = PQresultStatus(r) == PGRES_COMMAND_OK ? "" : PQerrorMessage(c);
  PQclear(r);
  PQfinish(c);
  if (!why.empty()) throw std::runtime_error(sql + " failed: " + why);
}

std::string PgCluster::createDatabase() {
  static int counter = 0;
  const std::string name = "da_test_" + std::to_string(::getpid()) + "_" + std::to_string(++counter);
  exec("postgres", "create database " + name);
  return name;
}

PgCluster& PgCluster::shared() {
  static PgCluster cluster;
  if (!cluster.start()) throw std::runtime_error("PostgreSQL test cluster: " + cluster.error());
  return cluster;
}

}  // namespace testsupport
