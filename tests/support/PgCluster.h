#ifndef TESTS_SUPPORT_PGCLUSTER_H
#define TESTS_SUPPORT_PGCLUSTER_H

#include <memory>
#include <string>

#include "tests/support/TempDir.h"

namespace testsupport {

// A throwaway PostgreSQL cluster in a temporary folder, fsync off: trust logins on its Unix socket (in
// that folder), password logins (postgres / password()) on 127.0.0.1. Run as user postgres when the
// tests run as root. start() creates it on first use (false with error() naming the reason and the
// logs); the destructor stops and removes it.
class PgCluster {
 public:
  // Not started. A running cluster is used instead when DA_TEST_PG_HOST and DA_TEST_PG_PORT name
  // one, or when DA_TEST_PG_STATE names a file that detach() wrote ("HOST PORT").
  PgCluster();
  ~PgCluster() { stop(); }
  bool start();
  void stop();
  bool restart() { return stop(), start(); }
  const std::string& error() const { return error_; }
  std::string uri(const std::string& db = "postgres") const {  // a trust login
    return "postgresql:///" + db + "?host=" + host_ + "&port=" + std::to_string(port_);
  }
  std::string tcpUri(const std::string& db = "postgres") const {  // a password login
    return "postgresql://127.0.0.1:" + std::to_string(port_) + "/" + db;
  }
  static std::string password() { return "da-test-secret"; }
  std::string createDatabase();  // a fresh database; its name
  // Leaves the running cluster running after this object is gone and writes "HOST PORT" to `stateFile`,
  // for the processes that use it; stopDetached(stateFile) stops and removes it. False if it is not
  // running or the file cannot be written.
  bool detach(const std::string& stateFile);
  static void stopDetached(const std::string& stateFile);
  static PgCluster& shared();  // one per test process, started on first use (throws if it cannot)

 private:
  bool run(const std::string& what, const std::string& command);

  std::unique_ptr<TempDir> dir_;
  std::string host_, error_;
  int port_ = 0;
  bool external_ = false, running_ = false;
};

}  // namespace testsupport

#endif
