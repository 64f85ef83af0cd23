#include <daLog/Log.h>
#include <dataAccess/conditions/ObRep2Service.h>

#include <utility>

const std::string ObRep2Service::CONSTRAINT_SETS_TABLE = "obrep2..constraint_sets";
const std::string ObRep2Service::OBS_BLOCKS_TABLE = "obrep2..obs_blocks";

ObRep2Service::ObRep2Service(std::string connAlias)
    : connAlias_(std::move(connAlias)), constraintSetDAO_(CONSTRAINT_SETS_TABLE, OBS_BLOCKS_TABLE) {}

int ObRep2Service::findConstraintSetByObsId(int obsId, std::vector<ConstraintSet>& constraintSets) const {
  ServiceConnectionSyb connection(connAlias_);
  if (connection.acquire() != 0) {
    DA_LOG_ERROR("ObRep2Service::findConstraintSetByObsId.Could not acquire connection");
    return -1;
  }
  const int n = constraintSetDAO_.findByObsId(obsId, constraintSets, connection);
  int result;
  // The texts below (two blanks after "of", "occured") are the ones log
  // readers match.
  if (n < 0) {
    DA_LOG_ERROR("An error occured when retrieving constraint set of %d obs block", obsId);
    result = -1;
  } else if (n == 0) {
    DA_LOG_DEBUG("no constraint set associated to %d obs block", obsId);
    result = 0;
  } else if (n == 1) {
    DA_LOG_DEBUG("Constraint set of  %d obs block successfully retrieved", obsId);
    result = 1;
  } else {
    DA_LOG_ERROR("More than one constraint set associated to %d obs block", obsId);
    result = -1;
  }
  return result;  // the connection gives its login back as it goes
}
