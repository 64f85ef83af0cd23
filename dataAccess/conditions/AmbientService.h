#ifndef DATAACCESS_CONDITIONS_AMBIENTSERVICE_H
#define DATAACCESS_CONDITIONS_AMBIENTSERVICE_H

#include <string>

#include <dataAccess/conditions/SeeingDAOSyb.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

// The mean seeing of one site over a period.
// Thread safety: the service owns its connection, so one object is used by one thread at a time (its
// const calls included); different objects may be used on different threads at once.
class AmbientService {
 public:
  // The observatory sites whose seeing the ambient-conditions database holds.
  enum ObservationSite { TORVANE = 0, KA_VENNA = 1 };

  // The connection comes from the parameters-file entry of `alias`.
  AmbientService(std::string alias, ObservationSite site);
  // Server, user, password and database, in that order.
  AmbientService(std::string server, std::string user, std::string passwd, std::string dbName,
                 ObservationSite site);

  // The seeing table of a site: ambient..seeing_torvane, or ambient..ka_venna
  // for KA_VENNA (any other value gives Torvane's).
  static std::string seeingTable(ObservationSite site);

  // Mean fwhm (in arcseconds) of the valid measurements from startDate (MJD)
  // over durationSeconds; a period shorter than 120 s is widened to the two
  // minutes before its end. 0 with meanSeeing set, -1 (meanSeeing untouched)
  // when there is no connection, no measurement or a failed statement.
  int findMeanSeeingByDate(double startDate, double durationSeconds, double& meanSeeing) const;

 private:
  SeeingDAOSyb seeingDAO_;
  // acquire() and release() change it; the service is logically read-only.
  mutable ServiceConnectionSyb dsConnection_;
};

#endif
