#include "tests/support/Backend.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include <sybconn/FreeTdsSettings.h>
#include <sybconn/PostgresSettings.h>
#include <sybconn/SybaseConnection.h>

#include "tests/support/PgCluster.h"
#include "tests/support/TempDir.h"

namespace testsupport {

namespace {

// Runs `sql` on the cluster's maintenance database; throws with the reason when it fails.
void administer(const std::string& sql) {
  SybaseConnection admin;
  if (admin.connect(PgCluster::shared().uri("postgres"), "postgres", "") != 0 ||
      admin.execute(sql).commandSucceeded() != 1)
    throw std::runtime_error("PostgreSQL test cluster: cannot run: " + sql);
}

}  // namespace

Backend& Backend::current() {
  static Backend backend([] {
    const std::string name = std::getenv("DA_TEST_BACKEND") ? std::getenv("DA_TEST_BACKEND") : "";
    if (name.empty() || name == "sqlite") return Kind::Sqlite;
    if (name == "postgresql") {
      sybconn::PostgresSettings::setLoginTimeout(5);
      sybconn::PostgresSettings::setQueryTimeout(20);
      return Kind::Postgres;
    }
    if (name != "tds50" && name != "tds74") throw std::invalid_argument("unknown DA_TEST_BACKEND " + name);
    sybconn::FreeTdsSettings::setTdsVersion(name == "tds50" ? "5.0" : "7.4");
    sybconn::FreeTdsSettings::setLoginTimeout(5);
    sybconn::FreeTdsSettings::setQueryTimeout(20);
    return Kind::Tds;
  }());
  return backend;
}

std::string Backend::server(const std::string& dbFile) {
  if (kind_ == Kind::Sqlite) return "sqlite:" + dbFile;
  if (kind_ == Kind::Tds) {
    auto& s = servers_[dbFile];
    if (!s) {
      s = std::make_unique<tdstest::TdsServer>(dbFile, "", "");
      if (s->start() == 0) throw std::runtime_error("cannot start the TDS test server");
    }
    return s->address();
  }
  const size_t slash = dbFile.rfind('/');
  const std::string folder = dbFile.substr(0, slash + 1);
  const std::string leaf = dbFile.substr(slash + 1);
  const std::string schema = leaf.substr(0, leaf.rfind('.'));
  std::string& db = databases_[folder];
  if (db.empty()) {
    db = "t" + std::to_string(::getpid()) + "_" + std::to_string(databases_.size());
    administer("create database " + db);
  }
  const std::string uri = PgCluster::shared().uri(db);
  SybaseConnection owner;
  if (owner.connect(uri, "postgres", "") != 0 ||
      owner.execute("create schema if not exists " + schema).commandSucceeded() != 1)
    throw std::runtime_error("PostgreSQL test cluster: cannot make schema " + schema + " in " + db);
  // Every login is the cluster's superuser, whatever user a test gives: the URI's own user wins.
  return uri + "&user=postgres&options=-csearch_path%3D" + schema;
}

std::string Backend::setupServer(const std::string& dbFile) {
  return kind_ == Kind::Postgres ? server(dbFile) : "sqlite:" + dbFile;
}

std::string Backend::schema(const std::string& name) const {
  return readFile(std::string(DA_SOURCE_DIR) + "/examples/schema/" + name +
                  (kind_ == Kind::Postgres ? ".postgresql.sql" : ".sqlite.sql"));
}

std::string Backend::unreachable() const {
  switch (kind_) {
    case Kind::Tds:
      return "127.0.0.1:1";
    case Kind::Postgres:
      return "postgresql://127.0.0.1:1/none";
    default:
      return "sqlite:/no/such/dir.db";
  }
}

void Backend::stopServers() {
  servers_.clear();
  for (const auto& [folder, db] : databases_) administer("drop database if exists " + db + " with (force)");
  databases_.clear();
}

}  // namespace testsupport
