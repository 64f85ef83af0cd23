#ifndef DATAACCESS_CATALOGUE_DAOSUPPORT_H
#define DATAACCESS_CATALOGUE_DAOSUPPORT_H

// Pieces the catalogue DAOs share.

#include <string>

#include <daLog/Log.h>
#include <dataAccess/common/DaoCore.h>
#include <dataAccess/common/SqlText.h>

namespace dataAccess {

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

// The log line of an insert; the catalogue DAO words it as the replication
// DAO does, and log readers rely on that wording.
inline void logSubmitted(int result, const std::string& fileId) {
  if (result < 0) {
    DA_LOG_DEBUG("Could not submit replication request for file %s", fileId.c_str());
  } else {
    DA_LOG_DEBUG("Successfully submitted replication request for file %s", fileId.c_str());
  }
}

// The single-row insert of both DAOs: refused with `refusal`'s reason
// (logged, nothing run), else the statement of `fill`'s row, logged with the
// shared wording.
template <class Conn, class Record, class Refusal, class Fill>
int insertRecord(const std::string& table, const Record& record, const Conn& conn, Refusal refusal,
                 Fill fill) {
  if (const char* why = refusal(record)) {
    DA_LOG_ERROR("%s", why);
    return -1;
  }
  // One row a thread, refilled call after call: its value buffers and
  // column list are built once, not for every insert.
  thread_local InsertRow row;
  row.clear();
  fill(record, row);
  const int result = executeCounted(row.statement(table), conn);
  logSubmitted(result, record.fileId_);
  return result;
}

// "delete <table> where <file>='F'" with the optional version and disk
// clauses, executed and logged with the shared wording.
template <class Conn>
int removeFileRows(const std::string& table, const std::string& fileIdField, const std::string& versionField,
                   const std::string& diskField, const std::string& fileId, int fileVersion,
                   const std::string& diskId, const Conn& conn) {
  std::string description = "file=" + fileId;
  const std::string sql = "delete " + table + " where " + fileIdField + "='" + sqlQuoted(fileId) + "'" +
                          keyClauses(fileVersion, diskId, versionField, diskField, description);
  const int result = executeCounted(sql, conn);
  if (result < 0) {
    DA_LOG_DEBUG("Could not remove replication request %s", description.c_str());
  } else {
    DA_LOG_DEBUG("Successfully removed replication request %s", description.c_str());
  }
  return result;
}

}  // namespace dataAccess

#endif
