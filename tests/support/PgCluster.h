#ifndef TESTS_SUPPORT_PGCLUSTER_H
#define TESTS_SUPPORT_PGCLUSTER_H

#include <memory>
#include <string>

#include "tests/support/TempDir.h"

namespace testsupport {

// A throwaway PostgreSQL cluster in a temporary folder, fsync off: trust
// logins on its Unix socket (in that folder), password logins (postgres /
// password()) on 127.0.0.1. Run as user postgres when the tests run as root.
// Stopped and removed on destruction.
class PgCluster {
 public:
  PgCluster();  // not started
  ~PgCluster() { stop(); }
  // Creates the cluster on first use and starts it; false with error()
  // naming the reason and the log files.
  bool start();
  void stop();
  bool restart() { return stop(), start(); }
  const std::string& error() const { return error_; }
  std::string uri(const std::string& db = "postgres") const;     // "postgresql:///DB?host=DIR&port=N"
  std::string tcpUri(const std::string& db = "postgres") const;  // "postgresql://127.0.0.1:N/DB"
  static std::string password() { return "da-test-secret"; }
  std::string createDatabase();  // a fresh database; its name
  // One per test process, started on first use (throws if it cannot start);
  // with DA_TEST_PG_HOST and DA_TEST_PG_PORT set, the cluster running there.
  static PgCluster& shared();

 private:
  bool run(const std::string& what, const std::string& command);

  std::unique_ptr<TempDir> dir_;
  std::string host_;
  int port_ = 0;
  bool external_ = false, running_ = false;
  std::string error_;
};

}  // namespace testsupport

#endif
