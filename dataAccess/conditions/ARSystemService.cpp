#include <daLog/Log.h>
#include <dataAccess/conditions/ARSystemService.h>

#include <utility>

namespace {
const char kNightObsTable[] = "..TORV2_NightObs";
}

ARSystemService::ARSystemService(std::string alias) : nightObsDAO_(""), dsConnection_(std::move(alias)) {
  nightObsDAO_ = TORV2NightObsDAOSyb(dsConnection_.dbName() + kNightObsTable);
}

ARSystemService::ARSystemService(std::string server, std::string user, std::string passwd, std::string dbName)
    : nightObsDAO_(dbName + kNightObsTable),
      dsConnection_(std::move(server), std::move(user), std::move(passwd), std::move(dbName)) {}

int ARSystemService::findTORV2NightObsByObsId(int obsId, std::vector<TORV2NightObs>& records) const {
  if (dsConnection_.acquire() != 0) {
    DA_LOG_ERROR("ARSystemService::findTORV2NightObsByObsId.Could not acquire connection");
    return -1;
  }
  const int n = nightObsDAO_.findByObsId(obsId, records, dsConnection_);
  int result = 0;
  // "successfuly" and "occured" are the texts log readers match. No record is
  // no error and logs nothing here.
  if (n == 1) {
    DA_LOG_DEBUG("observation night conditions of %d successfuly retrieved", obsId);
    result = 1;
  } else if (n > 1) {
    DA_LOG_ERROR("More than one night condition record retrieved for %d", obsId);
    result = -1;
  } else if (n < 0) {
    DA_LOG_ERROR("An error occured when retrieving night conditions of %d", obsId);
    result = -1;
  }
  dsConnection_.release();
  return result;
}
