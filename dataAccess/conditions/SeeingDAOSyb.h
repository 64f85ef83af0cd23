#ifndef DATAACCESS_CONDITIONS_SEEINGDAOSYB_H
#define DATAACCESS_CONDITIONS_SEEINGDAOSYB_H

#include <string>
#include <vector>

#include <dataAccess/conditions/Seeing.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

namespace dataAccessDef {
// The text of a string member that nothing has set: "NO_INIT".
extern const std::string NO_INIT_STRING_FIELD;
}  // namespace dataAccessDef

// Reads the seeing measurements of one site's table (fully qualified,
// db..table) over a period given in Modified Julian Days.
// Thread safety: the object holds only its table names, so it may be used by several threads at once,
// each with its own connection.
class SeeingDAOSyb {
 public:
  static const std::string START_DATE_FIELD;
  static const std::string INTERVAL_FIELD;
  static const std::string FWHM_FIELD;
  static const std::string RA_FIELD;
  static const std::string DEC_FIELD;
  static const std::string AIR_MASS_FIELD;
  static const std::string TAU_FIELD;
  static const std::string RFL_FIELD;
  static const std::string TET_DISTANCE_FIELD;

  explicit SeeingDAOSyb(std::string table);

  // The table's key for an MJD: -trunc((mjd - 44239) * 86400 + 0.5), the
  // negated seconds since 1980-01-01 rounded to the nearest second. False for
  // a NaN or infinite date, or one whose key does not fit in 64 bits.
  static bool dateKey(double mjd, long long& key);

  // Appends the valid measurements (fwhm neither 255 nor NULL) from startDate
  // to endDate and returns how many rows it read, or -1 when the statement
  // failed or a date has no key (nothing is executed then).
  int findByDate(double startDate, double endDate, std::vector<Seeing>& seeings,
                 const ServiceConnectionSyb& conn) const;
  int findByDate(double startDate, double endDate, std::vector<Seeing>& seeings,
                 const ServiceConnectionStub& conn) const;

  const std::string& table() const { return seeingTable_; }

 private:
  template <class Conn>
  int find(double startDate, double endDate, std::vector<Seeing>& seeings, const Conn& conn) const;

  std::string seeingTable_;
};

#endif
