#include <daLog/Log.h>
#include <dataAccess/common/DaoCore.h>
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
  const int count = dataAccess::selectRows(conn, sql, records, [&obsIdText](typename Conn::ResultSet& res) {
    TORV2NightObs r;
    r.requestId_ = res.getStringValue(1);
    r.obId_ = obsIdText;
    r.skyTransparency_ = res.getStringValue(2);
    r.transparency_ = static_cast<int>(res.getLongValue(3));
    return r;
  });
  if (count < 0) return -1;
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
