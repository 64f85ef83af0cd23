#include <daLog/Log.h>
#include <dataAccess/common/DaoCore.h>
#include <dataAccess/conditions/ConstraintSetDAOSyb.h>

#include <utility>

const std::string ConstraintSetDAOSyb::CS_ID_FIELD = "cs_id";
const std::string ConstraintSetDAOSyb::USER_ID_FIELD = "user_id";
const std::string ConstraintSetDAOSyb::ITEM_NAME_FIELD = "item_name";
const std::string ConstraintSetDAOSyb::ITEM_DESCRIPTION_FIELD = "item_description";
const std::string ConstraintSetDAOSyb::SEEING_FIELD = "seeing";
const std::string ConstraintSetDAOSyb::SKY_TRANSPARENCY_FIELD = "sky_transparency";
const std::string ConstraintSetDAOSyb::AIR_MASS_FIELD = "airmass";
const std::string ConstraintSetDAOSyb::FLI_FIELD = "fli";
const std::string ConstraintSetDAOSyb::MOON_DISTANCE_FIELD = "moon_distance";
const std::string ConstraintSetDAOSyb::LOCAL_STORAGE_ID_FIELD = "local_storage_id";
const std::string ConstraintSetDAOSyb::STREHL_RATIO_FIELD = "strehl_ratio";
const std::string ConstraintSetDAOSyb::BASELINE_ID_FIELD = "baseline_id";

ConstraintSetDAOSyb::ConstraintSetDAOSyb(std::string constraintSetTable, std::string obsBlockTable)
    : constraintSetTable_(std::move(constraintSetTable)), obsBlockTable_(std::move(obsBlockTable)) {}

template <class Conn>
int ConstraintSetDAOSyb::find(int obsId, std::vector<ConstraintSet>& constraintSets, const Conn& conn) const {
  const std::string OBS_BLOCK_TABLE_OB_ID_FIELD = "ob_id";
  const std::string* const columns[] = {
      &CS_ID_FIELD,         &USER_ID_FIELD,          &ITEM_NAME_FIELD,    &ITEM_DESCRIPTION_FIELD,
      &SEEING_FIELD,        &SKY_TRANSPARENCY_FIELD, &AIR_MASS_FIELD,     &FLI_FIELD,
      &MOON_DISTANCE_FIELD, &LOCAL_STORAGE_ID_FIELD, &STREHL_RATIO_FIELD, &BASELINE_ID_FIELD};
  const std::string& cs = constraintSetTable_;
  const std::string& ob = obsBlockTable_;
  const std::string obsIdText = std::to_string(obsId);
  std::string sql;
  sql += "select ";
  for (int i = 0; i < 12; ++i) sql.append(i > 0 ? "," : "").append(cs).append(".").append(*columns[i]);
  sql.append(" from ").append(cs).append(",").append(ob);
  sql.append(" where ").append(ob).append(".").append(OBS_BLOCK_TABLE_OB_ID_FIELD);
  sql.append("=").append(obsIdText).append(" AND ").append(ob).append(".").append(CS_ID_FIELD);
  sql.append("=").append(cs).append(".").append(CS_ID_FIELD);

  const int count = dataAccess::selectRows(conn, sql, constraintSets, [](typename Conn::ResultSet& res) {
    const auto integer = [&res](int c) { return static_cast<int>(res.getLongValue(c)); };
    const auto real = [&res](int c) { return static_cast<float>(res.getDoubleValue(c)); };
    const auto text = [&res](int c) { return res.getStringValue(c); };
    ConstraintSet s;
    s.csId_ = integer(1);
    s.userId_ = integer(2);
    s.itemName_ = text(3);
    s.itemDescription_ = text(4);
    s.seeing_ = real(5);
    s.skyTransparency_ = text(6);
    s.airMass_ = real(7);
    s.fli_ = real(8);
    s.moonDistance_ = integer(9);
    s.localStorageId_ = text(10);
    s.strehlRatio_ = real(11);
    s.baselineId_ = integer(12);
    return s;
  });
  if (count < 0) return -1;
  // "where" for "were": log readers rely on this wording.
  DA_LOG_DEBUG("%d constraint set where retrieved for %s", count, obsIdText.c_str());
  return count;
}

int ConstraintSetDAOSyb::findByObsId(int obsId, std::vector<ConstraintSet>& constraintSets,
                                     const ServiceConnectionSyb& conn) const {
  return find(obsId, constraintSets, conn);
}
int ConstraintSetDAOSyb::findByObsId(int obsId, std::vector<ConstraintSet>& constraintSets,
                                     const ServiceConnectionStub& conn) const {
  return find(obsId, constraintSets, conn);
}
