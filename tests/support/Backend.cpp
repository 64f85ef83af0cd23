#include "tests/support/Backend.h"

#include <cstdlib>
#include <stdexcept>

#include <sybconn/FreeTdsSettings.h>
#include <sybconn/PostgresSettings.h>

#include "tests/support/PgCluster.h"
#include "tests/support/TempDir.h"

namespace testsupport {

Backend& Backend::current() {
  static Backend backend([] {
    const std::string name = std::getenv("DA_TEST_BACKEND") ? std::getenv("DA_TEST_BACKEND") : "";
    if (name.empty() || name == "sqlite") return Kind::Sqlite;
    // A server that hangs fails the test instead.
    sybconn::PostgresSettings::setLoginTimeout(5), sybconn::FreeTdsSettings::setLoginTimeout(5);
    sybconn::PostgresSettings::setQueryTimeout(20), sybconn::FreeTdsSettings::setQueryTimeout(20);
    if (name == "postgresql") return Kind::Postgres;
    if (name != "tds50" && name != "tds74") throw std::invalid_argument("unknown DA_TEST_BACKEND " + name);
    sybconn::FreeTdsSettings::setTdsVersion(name == "tds50" ? "5.0" : "7.4");
    return Kind::Tds;
  }());
  return backend;
}

std::string Backend::server(const std::string& dbFile) {
  if (kind_ == Kind::Sqlite) return "sqlite:" + dbFile;
  if (kind_ == Kind::Tds) {
    auto& s = servers_[dbFile];
    if (!s) (s = std::make_unique<tdstest::TdsServer>(dbFile, "", ""))->start();
    return s->address();
  }
  const size_t slash = dbFile.rfind('/'), dot = dbFile.rfind('.');
  const std::string schema = dbFile.substr(slash + 1, dot - slash - 1);
  std::string& db = databases_[dbFile.substr(0, slash)];
  if (db.empty()) db = PgCluster::shared().createDatabase();
  PgCluster::shared().exec(db, "create schema if not exists " + schema);
  // Every login is the cluster's superuser, whatever user a test gives: the URI's own user wins.
  return PgCluster::shared().uri(db) + "&user=postgres&options=-csearch_path%3D" + schema;
}

std::string Backend::setupServer(const std::string& dbFile) {
  return kind_ == Kind::Postgres ? server(dbFile) : "sqlite:" + dbFile;
}

std::string Backend::schema(const std::string& name) const {
  return readFile(std::string(DA_SOURCE_DIR) + "/examples/schema/" + name +
                  (kind_ == Kind::Postgres ? ".postgresql.sql" : ".sqlite.sql"));
}

std::string Backend::unreachable() const {
  return kind_ == Kind::Tds ? "127.0.0.1:1"
         : isPostgres()     ? "postgresql://127.0.0.1:1/x"
                            : "sqlite:/no/such/dir.db";
}

void Backend::stopServers() {
  servers_.clear();
  for (const auto& [folder, db] : databases_)
    PgCluster::shared().exec("postgres", "drop database " + db + " with (force)");
  databases_.clear();
}

}  // namespace testsupport
