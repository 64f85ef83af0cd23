#ifndef DATAACCESS_CONDITIONS_OBREP2SERVICE_H
#define DATAACCESS_CONDITIONS_OBREP2SERVICE_H

#include <string>
#include <vector>

#include <dataAccess/conditions/ConstraintSet.h>
#include <dataAccess/conditions/ConstraintSetDAOSyb.h>

// The observation repository for a calling program: the one constraint set of
// an observation block, with one call that borrows a pooled connection for the
// database service named by its alias ($HOME/.dbrc) and gives it back.
// Thread safety: each call uses a connection of its own, so one object may be used by several threads
// at once.
class ObRep2Service {
 public:
  static const std::string CONSTRAINT_SETS_TABLE;  // obrep2..constraint_sets
  static const std::string OBS_BLOCKS_TABLE;       // obrep2..obs_blocks

  explicit ObRep2Service(std::string connAlias);

  // 1 when exactly one constraint set was found (and appended), 0 when none,
  // -1 on failure: no connection, statement failed, or more than one set (the
  // records read then stay in the vector but are no result).
  int findConstraintSetByObsId(int obsId, std::vector<ConstraintSet>& constraintSets) const;

 private:
  std::string connAlias_;
  ConstraintSetDAOSyb constraintSetDAO_;
};

#endif
