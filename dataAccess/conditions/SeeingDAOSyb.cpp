#include <daLog/Log.h>
#include <dataAccess/common/DaoCore.h>
#include <dataAccess/conditions/SeeingDAOSyb.h>

#include <cmath>
#include <utility>

const std::string dataAccessDef::NO_INIT_STRING_FIELD = "NO_INIT";

const std::string SeeingDAOSyb::START_DATE_FIELD = "start_date";
const std::string SeeingDAOSyb::INTERVAL_FIELD = "interval";
const std::string SeeingDAOSyb::FWHM_FIELD = "fwhm";
const std::string SeeingDAOSyb::RA_FIELD = "ra";
const std::string SeeingDAOSyb::DEC_FIELD = "dec";
const std::string SeeingDAOSyb::AIR_MASS_FIELD = "airmass";
const std::string SeeingDAOSyb::TAU_FIELD = "tau";
const std::string SeeingDAOSyb::RFL_FIELD = "rfl";
const std::string SeeingDAOSyb::TET_DISTANCE_FIELD = "tet";

SeeingDAOSyb::SeeingDAOSyb(std::string table) : seeingTable_(std::move(table)) {}

bool SeeingDAOSyb::dateKey(double mjd, long long& key) {
  // 44239 is the MJD of 1980-01-01, the origin of the table's key.
  const double rounded = std::trunc((mjd - 44239.0) * 86400.0 + 0.5);
  // 2^63 bounds the conversion; NaN fails the comparison too.
  if (!(std::fabs(rounded) < 9223372036854775808.0)) return false;
  key = -static_cast<long long>(rounded);
  return true;
}

template <class Conn>
int SeeingDAOSyb::find(double startDate, double endDate, std::vector<Seeing>& seeings,
                       const Conn& conn) const {
  long long startKey = 0;
  long long endKey = 0;
  if (!dateKey(startDate, startKey) || !dateKey(endDate, endKey)) {
    DA_LOG_ERROR("Invalid period from %f to %f: dates must be finite Modified Julian Dates", startDate,
                 endDate);
    return -1;
  }
  const std::string* const columns[] = {&START_DATE_FIELD, &INTERVAL_FIELD, &FWHM_FIELD,
                                        &RA_FIELD,         &DEC_FIELD,      &AIR_MASS_FIELD,
                                        &TAU_FIELD,        &RFL_FIELD,      &TET_DISTANCE_FIELD};
  std::string sql;
  sql += "select ";
  for (int i = 0; i < 9; ++i) {
    if (i > 0) sql += ',';
    sql += *columns[i];
  }
  // The keys are negated seconds: the end of the period is the lower bound.
  sql += " from " + seeingTable_ + " where " + START_DATE_FIELD + " between " + std::to_string(endKey) +
         " AND " + std::to_string(startKey) + " AND fwhm <> " + "255" + " AND fwhm IS NOT NULL";

  const int count = dataAccess::selectRows(conn, sql, seeings, [](typename Conn::ResultSet& res) {
    const auto value = [&res](int c) { return static_cast<int>(res.getLongValue(c)); };
    Seeing s;
    s.startDate_ = value(1);
    s.interval_ = value(2);
    s.fwhm_ = value(3);
    s.ra_ = value(4);
    s.dec_ = value(5);
    s.airmass_ = value(6);
    s.tau_ = value(7);
    s.rfl_ = value(8);
    s.tet_ = value(9);
    return s;
  });
  if (count < 0) return -1;
  // "where" for "were": log readers rely on this wording.
  DA_LOG_DEBUG("%d seeings values where retrieved between %f and %f", count, startDate, endDate);
  return count;
}

int SeeingDAOSyb::findByDate(double startDate, double endDate, std::vector<Seeing>& seeings,
                             const ServiceConnectionSyb& conn) const {
  return find(startDate, endDate, seeings, conn);
}
int SeeingDAOSyb::findByDate(double startDate, double endDate, std::vector<Seeing>& seeings,
                             const ServiceConnectionStub& conn) const {
  return find(startDate, endDate, seeings, conn);
}
