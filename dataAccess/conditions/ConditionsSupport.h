#ifndef DATAACCESS_CONDITIONS_CONDITIONSSUPPORT_H
#define DATAACCESS_CONDITIONS_CONDITIONSSUPPORT_H

// Pieces the observation-condition DAOs share.

#include <map>
#include <string>
#include <vector>

#include <daLog/Log.h>

namespace dataAccess {

// The position executeSelect entered for a select-list name; 0 (a column
// every result set reads as NULL) when the name is not in the map. Looked up
// once per statement, not once per row.
inline int columnPosition(const std::map<std::string, int>& fields, const std::string& name) {
  const auto it = fields.find(name);
  return it == fields.end() ? 0 : it->second;
}

// Runs a select through the connection's select-list map; a failed one is
// logged with its statement. Returns what executeSelect returned.
template <class Conn>
int selectLogged(const Conn& conn, const std::string& sql, typename Conn::ResultSet& res,
                 typename Conn::ListOfFieldIndex& fields) {
  const int selected = conn.executeSelect(sql, res, fields);
  if (selected < 0) DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
  return selected;
}

// A select whose rows stopped coming part-way (a lock, an I/O error) has
// failed like one that never ran: the records it appended are taken back, the
// statement is logged, and the DAO returns -1.
template <class ResultSet, class Record>
bool rowsComplete(const ResultSet& res, std::vector<Record>& records,
                  typename std::vector<Record>::size_type before, const std::string& sql) {
  if (res.commandSucceeded()) return true;
  records.resize(before);
  DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
  return false;
}

// NULL columns: the connection library reads a NULL column as 0, 0.0 or an
// empty string, which are exactly the values the records take for NULL. The
// DAOs therefore read each column once instead of asking isNull() first: every
// read of a result set costs a lock of the login, and a select can return
// millions of rows.

}  // namespace dataAccess

#endif
