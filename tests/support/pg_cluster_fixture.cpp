// Starts and stops the PostgreSQL cluster that the "postgresql" runs of the
// database suites share within one CTest run (CTest fixture `pgcluster`):
//   da_pg_cluster start STATE   a fresh cluster; "HOST PORT" written to STATE
//   da_pg_cluster stop STATE    stops it and removes its folder
// A cluster that cannot start fails the fixture with the reason and its logs;
// CTest then runs none of the tests that need it.
#include <cstdio>
#include <cstring>

#include "tests/support/PgCluster.h"

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "stop") == 0) {
    testsupport::PgCluster::stopDetached(argv[2]);
    return 0;
  }
  if (argc != 3 || std::strcmp(argv[1], "start") != 0) {
    std::fprintf(stderr, "usage: da_pg_cluster start|stop STATE\n");
    return 2;
  }
  testsupport::PgCluster::stopDetached(argv[2]);  // one left by a run that was cut short
  testsupport::PgCluster cluster;
  if (!cluster.start() || !cluster.detach(argv[2])) {
    std::fprintf(stderr, "PostgreSQL test cluster: %s\n", cluster.error().c_str());
    return 1;
  }
  return 0;
}
