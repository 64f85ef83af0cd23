#ifndef DATAACCESS_CATALOGUE_DAOSUPPORT_H
#define DATAACCESS_CATALOGUE_DAOSUPPORT_H

// Pieces the catalogue DAOs share.

#include <string>

#include <dataAccess/common/Log.h>
#include <dataAccess/common/SqlText.h>

namespace dataAccess {

// Logs the statement, executes it and returns the affected-row count, or -1
// when the statement failed or the count is unknown.
template <class Conn>
int executeCounted(const std::string& query, const Conn& conn) {
  DA_LOG_DEBUG("%s", query.c_str());
  typename Conn::ResultSet res = conn.execute(query);
  const long count = conn.rowCount();
  return res.commandSucceeded() == 1 && count >= 0 ? static_cast<int>(count) : -1;
}

// The optional part of a row key: " and <version>=N" when the version is
// above 0 and " and <disk>='D'" when the disk is given; `description` gets
// " version=N" and " disk=D" under the same conditions.
inline std::string keyClauses(int fileVersion, const std::string& diskId, const std::string& versionField,
                              const std::string& diskField, std::string& description) {
  std::string sql;
  if (fileVersion > 0) {
    sql += " and " + versionField + "=" + std::to_string(fileVersion);
    description += " version=" + std::to_string(fileVersion);
  }
  if (!diskId.empty()) {
    sql += " and " + diskField + "='" + sqlQuoted(diskId) + "'";
    description += " disk=" + diskId;
  }
  return sql;
}

}  // namespace dataAccess

#endif
