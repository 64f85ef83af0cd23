#include <daLog/Log.h>
#include <dataAccess/conditions/ConditionsSupport.h>
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
  sql.reserve(14 * (cs.size() + 18) + 3 * ob.size() + 64);
  sql += "select ";
  for (int i = 0; i < 12; ++i) sql.append(i > 0 ? "," : "").append(cs).append(".").append(*columns[i]);
  sql.append(" from ").append(cs).append(",").append(ob);
  sql.append(" where ").append(ob).append(".").append(OBS_BLOCK_TABLE_OB_ID_FIELD);
  sql.append("=").append(obsIdText).append(" AND ").append(ob).append(".").append(CS_ID_FIELD);
  sql.append("=").append(cs).append(".").append(CS_ID_FIELD);

  typename Conn::ResultSet res;
  typename Conn::ListOfFieldIndex fields;
  if (dataAccess::selectLogged(conn, sql, res, fields) < 0) return -1;
  const auto before = constraintSets.size();
  int count = 0;
  if (res.hasResultSet()) {
    // The position of each column under its qualified name, as the select
    // list wrote it; one pass over the map instead of a look-up a name.
    int col[12] = {};
    for (const auto& field : fields) {
      const std::string& name = field.first;
      if (name.size() <= cs.size() || name.compare(0, cs.size(), cs) != 0 || name[cs.size()] != '.') continue;
      const size_t length = name.size() - cs.size() - 1;
      for (int i = 0; i < 12; ++i)
        if (columns[i]->size() == length && name.compare(cs.size() + 1, length, *columns[i]) == 0) {
          col[i] = field.second;
          break;  // the twelve names differ
        }
    }
    // A NULL column reads as 0, 0.0 or an empty string, the defaults of a
    // record: one read a column (see ConditionsSupport.h).
    const auto integer = [&res](int c) { return static_cast<int>(res.getLongValue(c)); };
    const auto real = [&res](int c) { return static_cast<float>(res.getDoubleValue(c)); };
    const auto text = [&res](int c) { return res.getStringValue(c); };
    while (res.next()) {
      ConstraintSet s;
      s.csId_ = integer(col[0]);
      s.userId_ = integer(col[1]);
      s.itemName_ = text(col[2]);
      s.itemDescription_ = text(col[3]);
      s.seeing_ = real(col[4]);
      s.skyTransparency_ = text(col[5]);
      s.airMass_ = real(col[6]);
      s.fli_ = real(col[7]);
      s.moonDistance_ = integer(col[8]);
      s.localStorageId_ = text(col[9]);
      s.strehlRatio_ = real(col[10]);
      s.baselineId_ = integer(col[11]);
      constraintSets.push_back(std::move(s));
      ++count;
    }
  }
  if (!dataAccess::rowsComplete(res, constraintSets, before, sql)) return -1;
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
