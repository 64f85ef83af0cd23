#include <dataAccess/catalogue/DaoSupport.h>
#include <dataAccess/catalogue/ReplicationRequestDAOSyb.h>
#include <dataAccess/common/DaoCore.h>

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

namespace {
const char* refusal(const ReplicationRequest& r) {
  return r.fileId_.empty() ? "Can't insert replication request with empty fileId" : nullptr;
}
}  // namespace

// The table stamps submission and last-update times; a disk or message left
// empty is left to the table too.
void ReplicationRequestDAOSyb::fillRow(const ReplicationRequest& r, dataAccess::InsertRow& row) {
  row.addText(fileIdField, r.fileId_);
  row.addInteger(fileVersionField, r.fileVersion_);
  if (!r.diskId_.empty()) row.addText(diskIdField, r.diskId_);
  row.addText(submitterIdField, r.submitterId_);
  row.addInteger(priorityField, r.priority_);
  row.addInteger(statusIdField, r.statusId_);
  if (!r.message_.empty()) row.addText(messageField, r.message_);
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
  if (!daLog::debugEnabled()) return result;
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
  return dataAccess::selectRows(conn, sql, requests, convertResultSetToReplicationRequest);
}

// NULLs read as the record's empty values (see DaoCore.h).
ReplicationRequest ReplicationRequestDAOSyb::convertResultSetToReplicationRequest(SybaseResultSet& res) {
  ReplicationRequest request(res.getStringValue(1));
  request.fileVersion_ = static_cast<int>(res.getLongValue(2));
  request.diskId_ = res.getStringValue(3);
  request.submitterId_ = res.getStringValue(4);
  request.submissionTime_ = res.getDateAsTimevalValue(5);
  request.priority_ = static_cast<int>(res.getLongValue(6));
  request.statusId(static_cast<int>(res.getLongValue(7)));
  request.lastUpdateTime_ = res.getDateAsTimevalValue(8);
  request.message_ = res.getStringValue(9);
  return request;
}

// One-line overloads: each public operation for both connection types.
int ReplicationRequestDAOSyb::insert(const ReplicationRequest& r, const ServiceConnectionSyb& c) {
  return dataAccess::insertRecord(tableName_, r, c, refusal, fillRow);
}
int ReplicationRequestDAOSyb::insert(const ReplicationRequest& r, const ServiceConnectionStub& c) {
  return dataAccess::insertRecord(tableName_, r, c, refusal, fillRow);
}
int ReplicationRequestDAOSyb::insert(const std::vector<ReplicationRequest>& r,
                                     const ServiceConnectionSyb& c) {
  return dataAccess::insertBatch(tableName_, r, c, refusal, fillRow);
}
int ReplicationRequestDAOSyb::insert(const std::vector<ReplicationRequest>& r,
                                     const ServiceConnectionStub& c) {
  return dataAccess::insertBatch(tableName_, r, c, refusal, fillRow);
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
