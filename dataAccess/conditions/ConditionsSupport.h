#ifndef DATAACCESS_CONDITIONS_CONDITIONSSUPPORT_H
#define DATAACCESS_CONDITIONS_CONDITIONSSUPPORT_H

// Pieces the observation-condition DAOs share.

#include <string>
#include <vector>

#include <daLog/Log.h>

namespace dataAccess {

// Runs a select; a failed one is logged with its statement. Returns what
// executeSelect returned. The DAOs write their select lists themselves and
// read column i of a row at position i + 1, where executeSelect's select-list
// map would put it, without paying for the map.
template <class Conn>
int selectLogged(const Conn& conn, const std::string& sql, typename Conn::ResultSet& res) {
  const int selected = conn.executeSelect(sql, res);
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
