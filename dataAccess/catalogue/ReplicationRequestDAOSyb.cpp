#include <dataAccess/catalogue/DaoSupport.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>

using dataAccess::sqlQuoted;

const std::string ReplicationRequestDAOSyb::fileIdField = "file_id";
const std::string ReplicationRequestDAOSyb::fileVersionField = "file_version";
const std::string ReplicationRequestDAOSyb::diskIdField = "disk_id";
const std::string ReplicationRequestDAOSyb::submitterIdField = "submitter_id";
const std::string ReplicationRequestDAOSyb::submissionTimeField = "submission_time";
const std::string ReplicationRequestDAOSyb::priorityField = "priority";
const std::string ReplicationRequestDAOSyb::statusIdField = "status_id";
const std::string ReplicationRequestDAOSyb::lastUpdateTimeField = "last_update_time";
const std::string ReplicationRequestDAOSyb::messageField = "message";
const std::string ReplicationRequestDAOSyb::statusStringField = "status_string";

ReplicationRequestDAOSyb::ReplicationRequestDAOSyb(const std::string& tableName) : tableName_(tableName) {}

std::string ReplicationRequestDAOSyb::allFields() {
  return fileIdField + ", " + fileVersionField + ", " + diskIdField + ", " + submitterIdField + ", " +
         submissionTimeField + ", " + priorityField + ", " + statusIdField + ", " + lastUpdateTimeField +
         ", " + messageField;
}

template <class Conn>
int ReplicationRequestDAOSyb::executeQuery(const std::string& query, const Conn& conn) {
  return dataAccess::executeCounted(query, conn);
}

template <class Conn>
int ReplicationRequestDAOSyb::insertT(const ReplicationRequest& r, const Conn& conn) {
  if (r.fileId_.empty()) {
    DA_LOG_ERROR("Can't insert replication request with empty fileId");
    return -1;
  }
  std::string columns = fileIdField + "," + fileVersionField;
  std::string values = "'" + sqlQuoted(r.fileId_) + "'," + std::to_string(r.fileVersion_);
  if (!r.diskId_.empty()) {
    columns += "," + diskIdField;
    values += ",'" + sqlQuoted(r.diskId_) + "'";
  }
  columns += "," + submitterIdField + "," + priorityField + "," + statusIdField;
  values += ",'" + sqlQuoted(r.submitterId_) + "'," + std::to_string(r.priority_) + "," +
            std::to_string(r.statusId_);
  if (!r.message_.empty()) {
    columns += "," + messageField;
    values += ",'" + sqlQuoted(r.message_) + "'";
  }
  const int result =
      executeQuery("insert into " + tableName_ + " (" + columns + ") " + "values (" + values + ")", conn);
  dataAccess::logSubmitted(result, r.fileId_);
  return result;
}

template <class Conn>
int ReplicationRequestDAOSyb::updateT(const std::string& fileId, int fileVersion, const std::string& diskId,
                                      ReplicationRequest::RequestStatus status, const std::string& message,
                                      const Conn& conn) {
  std::string sql = "update " + tableName_ + " set " + statusIdField + " = " + std::to_string(status) + ", " +
                    lastUpdateTimeField + " = getdate()";
  if (!message.empty()) sql += ", " + messageField + " = '" + sqlQuoted(message) + "'";
  sql += " where " + fileIdField + "='" + sqlQuoted(fileId) + "'";
  std::string description = "file=" + fileId;
  sql += dataAccess::keyClauses(fileVersion, diskId, fileVersionField, diskIdField, description);
  const int result = executeQuery(sql, conn);
  if (!dataAccess::debugEnabled()) return result;
  const std::string statusText = ReplicationRequest::statusAsString(status);
  if (result < 0) {
    DA_LOG_DEBUG("Could not update replication request %s to status %s", description.c_str(),
                 statusText.c_str());
  } else {
    DA_LOG_DEBUG("Successfully updated replication request %s to status %s", description.c_str(),
                 statusText.c_str());
  }
  return result;
}

template <class Conn>
int ReplicationRequestDAOSyb::removeT(const std::string& fileId, int fileVersion, const std::string& diskId,
                                      const Conn& conn) {
  return dataAccess::removeFileRows(tableName_, fileIdField, fileVersionField, diskIdField, fileId,
                                    fileVersion, diskId, conn);
}

template <class Conn>
int ReplicationRequestDAOSyb::select_(const Conn& conn, std::vector<ReplicationRequest>& requests,
                                      const std::string& whereClause) {
  std::string sql = "select " + allFields() + " from " + tableName_;
  if (!whereClause.empty()) sql += " where " + whereClause;
  sql += " order by " + submissionTimeField;
  DA_LOG_DEBUG("%s", sql.c_str());
  SybaseResultSet res = conn.execute(sql);
  if (!res.commandSucceeded()) {
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return -1;
  }
  int count = 0;
  if (res.hasResultSet()) {
    while (res.next()) {
      ReplicationRequest request("");
      convertResultSetToReplicationRequest(res, request);
      requests.push_back(request);
      ++count;
    }
  }
  // A row that could not be read fails the whole select.
  if (!res.commandSucceeded()) {
    DA_LOG_ERROR("Error executing SQL command %s", sql.c_str());
    return -1;
  }
  return count;
}

void ReplicationRequestDAOSyb::convertResultSetToReplicationRequest(SybaseResultSet& res,
                                                                    ReplicationRequest& request) {
  request.fileId_ = res.getStringValue(1);
  request.fileVersion_ = res.isNull(2) ? 0 : static_cast<int>(res.getLongValue(2));
  request.diskId_ = res.isNull(3) ? std::string() : res.getStringValue(3);
  request.submitterId_ = res.getStringValue(4);
  request.submissionTime_ = res.getDateAsTimevalValue(5);
  request.priority_ = static_cast<int>(res.getLongValue(6));
  request.statusId(static_cast<int>(res.getLongValue(7)));
  request.lastUpdateTime_ = res.getDateAsTimevalValue(8);
  request.message_ = res.isNull(9) ? std::string() : res.getStringValue(9);
}

// One-line overloads: each public operation for both connection types.
int ReplicationRequestDAOSyb::insert(const ReplicationRequest& r, const ServiceConnectionSyb& c) {
  return insertT(r, c);
}
int ReplicationRequestDAOSyb::insert(const ReplicationRequest& r, const ServiceConnectionStub& c) {
  return insertT(r, c);
}
int ReplicationRequestDAOSyb::update(const std::string& f, ReplicationRequest::RequestStatus s,
                                     const std::string& m, const ServiceConnectionSyb& c) {
  return updateT(f, 0, "", s, m, c);
}
int ReplicationRequestDAOSyb::update(const std::string& f, ReplicationRequest::RequestStatus s,
                                     const std::string& m, const ServiceConnectionStub& c) {
  return updateT(f, 0, "", s, m, c);
}
int ReplicationRequestDAOSyb::update(const std::string& f, int v, const std::string& d,
                                     ReplicationRequest::RequestStatus s, const std::string& m,
                                     const ServiceConnectionSyb& c) {
  return updateT(f, v, d, s, m, c);
}
int ReplicationRequestDAOSyb::update(const std::string& f, int v, const std::string& d,
                                     ReplicationRequest::RequestStatus s, const std::string& m,
                                     const ServiceConnectionStub& c) {
  return updateT(f, v, d, s, m, c);
}
int ReplicationRequestDAOSyb::remove(const std::string& f, int v, const std::string& d,
                                     const ServiceConnectionSyb& c) {
  return removeT(f, v, d, c);
}
int ReplicationRequestDAOSyb::remove(const std::string& f, int v, const std::string& d,
                                     const ServiceConnectionStub& c) {
  return removeT(f, v, d, c);
}
int ReplicationRequestDAOSyb::find(ReplicationRequest::RequestStatus s, std::vector<ReplicationRequest>& r,
                                   const ServiceConnectionSyb& c) {
  return select_(c, r, statusIdField + "=" + std::to_string(s));
}
int ReplicationRequestDAOSyb::find(ReplicationRequest::RequestStatus s, std::vector<ReplicationRequest>& r,
                                   const ServiceConnectionStub& c) {
  return select_(c, r, statusIdField + "=" + std::to_string(s));
}
int ReplicationRequestDAOSyb::find(const std::string& f, std::vector<ReplicationRequest>& r,
                                   const ServiceConnectionSyb& c) {
  return select_(c, r, fileIdField + "='" + sqlQuoted(f) + "'");
}
int ReplicationRequestDAOSyb::find(const std::string& f, std::vector<ReplicationRequest>& r,
                                   const ServiceConnectionStub& c) {
  return select_(c, r, fileIdField + "='" + sqlQuoted(f) + "'");
}
int ReplicationRequestDAOSyb::loadAll(std::vector<ReplicationRequest>& r, const ServiceConnectionSyb& c) {
  return select_(c, r, "");
}
int ReplicationRequestDAOSyb::loadAll(std::vector<ReplicationRequest>& r, const ServiceConnectionStub& c) {
  return select_(c, r, "");
}
