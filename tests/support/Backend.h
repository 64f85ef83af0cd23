#ifndef TESTS_SUPPORT_BACKEND_H
#define TESTS_SUPPORT_BACKEND_H

#include <map>
#include <memory>
#include <string>

#include "tests/support/TdsServer.h"

namespace testsupport {

// The database backend a suite runs on, chosen by the environment variable
// DA_TEST_BACKEND: "sqlite" (the default) opens the database files directly;
// "tds50" and "tds74" reach the same files through the FreeTDS driver and a
// TDS test server that speaks TDS 5.0 or 7.4 and lets every user in.
class Backend {
 public:
  enum class Kind { Sqlite, Tds50, Tds74 };

  // The backend of this process.
  static Backend& current();

  bool isTds() const { return kind_ != Kind::Sqlite; }

  // The server name under which `dbFile` is reached: "sqlite:FILE", or the
  // address of a TDS test server backed by FILE, started on first use.
  std::string server(const std::string& dbFile);
  // A server name whose logins fail at once: a missing folder for SQLite, a
  // loopback port nobody listens on for TDS.
  std::string unreachable(const std::string& dir) const;
  // Stops the test servers started so far (between tests).
  void stopServers();

 private:
  explicit Backend(Kind kind);
  Kind kind_;
  std::map<std::string, std::unique_ptr<tdstest::TdsServer>> servers_;
};

}  // namespace testsupport

#endif
