// da_pg_cluster start|stop STATE: the cluster the "postgresql" suites share (CTest fixture `pgcluster`, make
// demo-postgresql). One that cannot start fails the fixture with its reason; the tests needing it do not run.
#include <cstdio>
#include <string>

#include "tests/support/PgCluster.h"

int main(int argc, char** argv) {
  const std::string verb = argc == 3 ? argv[1] : "";
  if (verb != "start" && verb != "stop")
    return std::fprintf(stderr, "usage: da_pg_cluster start|stop STATE\n"), 2;
  testsupport::PgCluster::stopDetached(argv[2]);  // at start: one left by a run that was cut short
  testsupport::PgCluster cluster;
  if (verb == "start" && (!cluster.start() || !cluster.detach(argv[2])))
    return std::fprintf(stderr, "PostgreSQL test cluster: %s\n", cluster.error().c_str()), 1;
  return 0;
}
