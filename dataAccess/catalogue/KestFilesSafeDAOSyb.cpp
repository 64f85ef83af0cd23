#include <dataAccess/catalogue/KestFilesSafeDAOSyb.h>
#include <dataAccess/common/SqlText.h>

const std::string KestFilesSafeDAOSyb::fileIdField = "file_id";
const std::string KestFilesSafeDAOSyb::fileVersionField = "file_version";

KestFilesSafeDAOSyb::KestFilesSafeDAOSyb(const std::string& tableName) : tableName_(tableName) {}

std::string KestFilesSafeDAOSyb::allFields() { return fileIdField + ", " + fileVersionField; }

template <class Conn>
int KestFilesSafeDAOSyb::executeQuery(const std::string& query, const Conn& conn) {
  typename Conn::ResultSet res = conn.execute(query);
  // The rows are not needed, only how many there were.
  res.releaseResults();
  if (!res.commandSucceeded()) return -1;
  const long count = conn.rowCount();
  return count < 0 ? -1 : static_cast<int>(count);
}

template <class Conn>
int KestFilesSafeDAOSyb::select(const Conn& conn, const std::string& whereClause) {
  std::string sql = "select " + allFields() + " from " + tableName_;
  if (!whereClause.empty()) sql += " where " + whereClause;
  return executeQuery(sql, conn);
}

int KestFilesSafeDAOSyb::find(const std::string& fileId, int fileVersion, const ServiceConnectionSyb& conn) {
  return select(conn, fileIdField + "='" + dataAccess::sqlQuoted(fileId) + "' AND " + fileVersionField + "=" +
                          std::to_string(fileVersion));
}

int KestFilesSafeDAOSyb::find(const std::string& fileId, int fileVersion, const ServiceConnectionStub& conn) {
  return select(conn, fileIdField + "='" + dataAccess::sqlQuoted(fileId) + "' AND " + fileVersionField + "=" +
                          std::to_string(fileVersion));
}
