#ifndef DATAACCESS_CATALOGUE_KESTFILESSAFEDAOSYB_H
#define DATAACCESS_CATALOGUE_KESTFILESSAFEDAOSYB_H

#include <string>

#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

// Counts the rows of a table or view (the catalogue's safe copies) that match
// one version of one file. Writes no log line of its own.
// Thread safety: the object holds only its table names, so it may be used by several threads at once,
// each with its own connection.
class KestFilesSafeDAOSyb {
 public:
  explicit KestFilesSafeDAOSyb(const std::string& tableName);

  // The number of matching rows, or -1 when the statement failed.
  int find(const std::string& fileId, int fileVersion, const ServiceConnectionSyb& conn);
  int find(const std::string& fileId, int fileVersion, const ServiceConnectionStub& conn);

 private:
  template <class Conn>
  int select(const Conn& conn, const std::string& whereClause);
  template <class Conn>
  int executeQuery(const std::string& query, const Conn& conn);
  static std::string allFields();

  static const std::string fileIdField;
  static const std::string fileVersionField;

  std::string tableName_;
};

#endif
