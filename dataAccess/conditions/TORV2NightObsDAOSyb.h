#ifndef DATAACCESS_CONDITIONS_TORV2NIGHTOBSDAOSYB_H
#define DATAACCESS_CONDITIONS_TORV2NIGHTOBSDAOSYB_H

#include <string>
#include <vector>

#include <dataAccess/conditions/TORV2NightObs.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

// Reads the night-log rows of an observation block from one table (fully
// qualified, db..TORV2_NightObs).
// Thread safety: the object holds only its table names, so it may be used by several threads at once,
// each with its own connection.
class TORV2NightObsDAOSyb {
 public:
  static const std::string REQUEST_ID_FIELD;
  static const std::string OB_ID_FIELD;
  static const std::string SKY_TRANSPARENCY_FIELD;
  static const std::string TRANSPARENCY_FIELD;

  explicit TORV2NightObsDAOSyb(std::string table);

  // Appends the distinct rows of block `obsId` and returns how many it read,
  // or -1 when the statement failed. Duplicates are no error here.
  int findByObsId(int obsId, std::vector<TORV2NightObs>& records, const ServiceConnectionSyb& conn) const;
  int findByObsId(int obsId, std::vector<TORV2NightObs>& records, const ServiceConnectionStub& conn) const;

  const std::string& table() const { return table_; }

 private:
  template <class Conn>
  int find(int obsId, std::vector<TORV2NightObs>& records, const Conn& conn) const;

  std::string table_;
};

#endif
