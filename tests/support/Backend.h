#ifndef TESTS_SUPPORT_BACKEND_H
#define TESTS_SUPPORT_BACKEND_H

#include <map>
#include <memory>
#include <string>

#include "tests/support/TdsServer.h"

namespace testsupport {

// The database backend of the process, from DA_TEST_BACKEND: "sqlite" (the default) opens database
// files directly; "tds50" and "tds74" reach them through FreeTDS and a TDS test server that lets all in.
class Backend {
 public:
  static Backend& current();  // the backend of this process
  bool isTds() const { return !tdsVersion_.empty(); }
  // "sqlite:FILE", or the address of a TDS test server on FILE, started on first use.
  std::string server(const std::string& dbFile);
  // A server name whose logins fail at once: a missing folder, or a loopback port nobody listens on.
  std::string unreachable() const { return isTds() ? "127.0.0.1:1" : "sqlite:/no/such/dir.db"; }
  void stopServers() { servers_.clear(); }  // stops the test servers started so far (between tests)

 private:
  explicit Backend(std::string tdsVersion) : tdsVersion_(std::move(tdsVersion)) {}
  std::string tdsVersion_;  // empty for SQLite
  std::map<std::string, std::unique_ptr<tdstest::TdsServer>> servers_;
};

}  // namespace testsupport

#endif
