#ifndef DATAACCESS_CONDITIONS_CONSTRAINTSETDAOSYB_H
#define DATAACCESS_CONDITIONS_CONSTRAINTSETDAOSYB_H

#include <string>
#include <vector>

#include <dataAccess/conditions/ConstraintSet.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

// Reads the constraint set of an observation block by joining the
// constraint-set table with the observation-block table on cs_id. Both names
// are given fully qualified (db..table); columns are written qualified with the
// constraint-set table's name. Read-only.
// Thread safety: the object holds only its table names, so it may be used by several threads at once,
// each with its own connection.
class ConstraintSetDAOSyb {
 public:
  ConstraintSetDAOSyb(std::string constraintSetTable, std::string obsBlockTable);

  // Appends the constraint sets of block `obsId` and returns how many it
  // appended, or -1 when the statement failed (the vector is then unchanged).
  // The count is not judged: ObRep2Service decides what 0 or 2 mean.
  int findByObsId(int obsId, std::vector<ConstraintSet>& constraintSets,
                  const ServiceConnectionSyb& conn) const;
  int findByObsId(int obsId, std::vector<ConstraintSet>& constraintSets,
                  const ServiceConnectionStub& conn) const;

 private:
  template <class Conn>
  int find(int obsId, std::vector<ConstraintSet>& constraintSets, const Conn& conn) const;

  static const std::string CS_ID_FIELD;
  static const std::string USER_ID_FIELD;
  static const std::string ITEM_NAME_FIELD;
  static const std::string ITEM_DESCRIPTION_FIELD;
  static const std::string SEEING_FIELD;
  static const std::string SKY_TRANSPARENCY_FIELD;
  static const std::string AIR_MASS_FIELD;
  static const std::string FLI_FIELD;
  static const std::string MOON_DISTANCE_FIELD;
  static const std::string LOCAL_STORAGE_ID_FIELD;
  static const std::string STREHL_RATIO_FIELD;
  static const std::string BASELINE_ID_FIELD;

  std::string constraintSetTable_;
  std::string obsBlockTable_;
};

#endif
