#ifndef TESTS_SUPPORT_PGCLUSTER_H
#define TESTS_SUPPORT_PGCLUSTER_H

#include <memory>
#include <string>

#include "tests/support/TempDir.h"

namespace testsupport {

// A throwaway PostgreSQL cluster (fsync off; user postgres's under root) in a temporary folder: trust logins
// on its socket there, password() logins on 127.0.0.1. start() fails with the reason and logs in error().
class PgCluster {
 public:
  PgCluster();  // not started; DA_TEST_PG_STATE names the file of a running one (see detach) instead
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
  std::string createDatabase();                                    // a fresh database; its name
  void exec(const std::string& db, const std::string& sql) const;  // as the superuser; throws on failure
  // Leaves it running, "HOST PORT" in `stateFile`, until stopDetached(stateFile); false if it cannot.
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
