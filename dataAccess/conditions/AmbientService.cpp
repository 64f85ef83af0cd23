#include <daLog/Log.h>
#include <dataAccess/conditions/AmbientService.h>

#include <utility>
#include <vector>

AmbientService::AmbientService(std::string alias, ObservationSite site)
    : seeingDAO_(seeingTable(site)), dsConnection_(std::move(alias)) {}

AmbientService::AmbientService(std::string server, std::string user, std::string passwd, std::string dbName,
                               ObservationSite site)
    : seeingDAO_(seeingTable(site)),
      dsConnection_(std::move(server), std::move(user), std::move(passwd), std::move(dbName)) {}

std::string AmbientService::seeingTable(ObservationSite site) {
  return site == KA_VENNA ? "ambient..ka_venna" : "ambient..seeing_torvane";
}

int AmbientService::findMeanSeeingByDate(double startDate, double durationSeconds, double& meanSeeing) const {
  if (dsConnection_.acquire() != 0) {
    DA_LOG_ERROR("AmbientService::findMeanSeeingByDate.Could not acquire connection");
    return -1;
  }
  const double endDate = startDate + durationSeconds / 86400;
  // Too short a period is widened backwards to the two minutes before its end.
  if (durationSeconds < 120) startDate = endDate - 120.0 / 86400;
  std::vector<Seeing> list;
  const int n = seeingDAO_.findByDate(startDate, endDate, list, dsConnection_);
  int result;
  // The texts below ("occured", the blank before the line feed) are the ones
  // log readers match.
  if (n > 0) {
    DA_LOG_DEBUG("%d seeings successfully retrieved between %f and %f", n, startDate, endDate);
    double sum = 0.0;
    for (const Seeing& s : list) sum += s.fwhm_;
    meanSeeing = sum * (0.01 / static_cast<double>(list.size()));
    DA_LOG_DEBUG("Mean value equal to %f between %f and %f", meanSeeing, startDate, endDate);
    result = 0;
  } else if (n == 0) {
    DA_LOG_ERROR("no seeings retrieved between %f and %f ", startDate, endDate);
    result = -1;
  } else {
    DA_LOG_ERROR("An error occured when fetching seeings between %f and %f", startDate, endDate);
    result = -1;
  }
  dsConnection_.release();
  return result;
}
