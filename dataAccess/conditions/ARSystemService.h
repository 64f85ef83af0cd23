#ifndef DATAACCESS_CONDITIONS_ARSYSTEMSERVICE_H
#define DATAACCESS_CONDITIONS_ARSYSTEMSERVICE_H

#include <string>
#include <vector>

#include <dataAccess/conditions/TORV2NightObs.h>
#include <dataAccess/conditions/TORV2NightObsDAOSyb.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

// The night log of the AR System database: the one night-log record of an
// observation block, read from <database>..TORV2_NightObs, the database being
// the connection's.
// Thread safety: the service owns its connection, so one object is used by one thread at a time (its
// const calls included); different objects may be used on different threads at once.
class ARSystemService {
 public:
  // The connection comes from the parameters-file entry of `alias`.
  explicit ARSystemService(std::string alias);
  // Server, user, password and database, in that order.
  ARSystemService(std::string server, std::string user, std::string passwd, std::string dbName);

  // 1 when exactly one record was found (and appended), 0 when none, -1 on
  // failure: no connection, statement failed, or more than one record (the
  // records read then stay in the vector).
  int findTORV2NightObsByObsId(int obsId, std::vector<TORV2NightObs>& records) const;

 private:
  TORV2NightObsDAOSyb nightObsDAO_;
  // acquire() and release() change it; the service is logically read-only.
  mutable ServiceConnectionSyb dsConnection_;
};

#endif
