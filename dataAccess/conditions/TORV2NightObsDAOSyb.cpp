#include <daLog/Log.h>
#include <dataAccess/conditions/ConditionsSupport.h>
#include <dataAccess/conditions/TORV2NightObsDAOSyb.h>

#include <utility>

const std::string TORV2NightObsDAOSyb::REQUEST_ID_FIELD = "Request_ID";
const std::string TORV2NightObsDAOSyb::OB_ID_FIELD = "OB_ID";
const std::string TORV2NightObsDAOSyb::SKY_TRANSPARENCY_FIELD = "Sky_Transparency";
const std::string TORV2NightObsDAOSyb::TRANSPARENCY_FIELD = "Transparency";

TORV2NightObsDAOSyb::TORV2NightObsDAOSyb(std::string table) : table_(std::move(table)) {}

template <class Conn>
int TORV2NightObsDAOSyb::find(int obsId, std::vector<TORV2NightObs>& records, const Conn& conn) const {
  const std::string obsIdText = std::to_string(obsId);
  // The block number is compared as text: the night log keeps it quoted.
  const std::string sql = "select distinct " + REQUEST_ID_FIELD + "," + SKY_TRANSPARENCY_FIELD + "," +
                          TRANSPARENCY_FIELD + " from " + table_ + " where " + OB_ID_FIELD + "='" +
                          obsIdText + "'";
  typename Conn::ResultSet res;
  const int selected = dataAccess::selectLogged(conn, sql, res);
  if (selected < 0) return selected;
  const auto before = records.size();
  int count = 0;
  if (res.hasResultSet()) {
    // A NULL column reads as an empty string or 0 (see ConditionsSupport.h).
    while (res.next()) {
      TORV2NightObs r;
      r.requestId_ = res.getStringValue(1);
      r.obId_ = obsIdText;
      r.skyTransparency_ = res.getStringValue(2);
      r.transparency_ = static_cast<int>(res.getLongValue(3));
      records.push_back(std::move(r));
      ++count;
    }
  }
  if (!dataAccess::rowsComplete(res, records, before, sql)) return -1;
  DA_LOG_DEBUG("%d night observation records were retrieved for %d", count, obsId);
  return count;
}

int TORV2NightObsDAOSyb::findByObsId(int obsId, std::vector<TORV2NightObs>& records,
                                     const ServiceConnectionSyb& conn) const {
  return find(obsId, records, conn);
}
int TORV2NightObsDAOSyb::findByObsId(int obsId, std::vector<TORV2NightObs>& records,
                                     const ServiceConnectionStub& conn) const {
  return find(obsId, records, conn);
}
