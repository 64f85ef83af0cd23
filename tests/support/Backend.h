#ifndef TESTS_SUPPORT_BACKEND_H
#define TESTS_SUPPORT_BACKEND_H

#include <map>
#include <memory>
#include <string>

#include "tests/support/TdsServer.h"

namespace testsupport {

// The backend of the process, from DA_TEST_BACKEND: "sqlite" (default) opens the files; "tds50", "tds74"
// reach them through a TDS test server; "postgresql" makes a folder a database of PgCluster::shared() and
// FOLDER/X.db its schema X (the login's search path), so that `X..table` reaches the sibling X as on SQLite.
class Backend {
 public:
  static Backend& current();  // the backend of this process
  bool isSqlite() const { return kind_ == Kind::Sqlite; }
  bool isTds() const { return kind_ == Kind::Tds; }
  bool isPostgres() const { return kind_ == Kind::Postgres; }
  std::string server(const std::string& dbFile);  // reaches FILE: sqlite:FILE, a TDS test server's, or a URI
  std::string setupServer(const std::string& dbFile);  // to fill FILE: sqlite:FILE (TDS too) or server(FILE)
  std::string schema(const std::string& name) const;   // examples/schema/NAME in the setup server's SQL
  std::string unreachable() const;  // logins fail at once: a missing folder, a port nobody uses
  void stopServers();               // between tests: stops the test servers, drops the databases made so far

 private:
  enum class Kind { Sqlite, Tds, Postgres };
  explicit Backend(Kind kind) : kind_(kind) {}
  Kind kind_;
  std::map<std::string, std::unique_ptr<tdstest::TdsServer>> servers_;
  std::map<std::string, std::string> databases_;  // PostgreSQL: the database of each folder
};

}  // namespace testsupport

#endif
