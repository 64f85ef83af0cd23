#ifndef TESTS_SUPPORT_PGCLUSTER_H
#define TESTS_SUPPORT_PGCLUSTER_H

#include <memory>
#include <string>

#include "tests/support/TempDir.h"

namespace testsupport {

// A throwaway PostgreSQL cluster in a temporary folder: trust logins on its
// Unix socket (in that folder), password (scram-sha-256) logins as
// `postgres` / password() on 127.0.0.1 at a free port; fsync off. Run as
// user postgres when the tests run as root. Stopped and removed on
// destruction.
class PgCluster {
 public:
  PgCluster();  // not started
  ~PgCluster();
  PgCluster(const PgCluster&) = delete;
  PgCluster& operator=(const PgCluster&) = delete;

  // Creates the cluster on first use and starts it (about a second); false
  // with error() naming the reason and the log file.
  bool start();
  void stop();
  bool restart();
  const std::string& error() const { return error_; }

  // "postgresql:///DB?host=<socket folder>&port=N": a trust login.
  std::string uri(const std::string& db = "postgres") const;
  // "postgresql://127.0.0.1:N/DB": a password login.
  std::string tcpUri(const std::string& db = "postgres") const;
  static std::string password() { return "da-test-secret"; }
  // A fresh database of a unique name; returns the name.
  std::string createDatabase();

  // The test process's cluster, started on first use (throws when it cannot
  // start). With DA_TEST_PG_HOST and DA_TEST_PG_PORT set, the cluster running
  // there instead.
  static PgCluster& shared();

 private:
  bool run(const std::string& what, const std::string& command);

  std::unique_ptr<TempDir> dir_;
  std::string bin_;
  std::string host_ = "127.0.0.1";  // the socket folder, or an external host
  int port_ = 0;
  bool external_ = false;
  bool created_ = false;
  bool running_ = false;
  std::string error_;
};

}  // namespace testsupport

#endif
