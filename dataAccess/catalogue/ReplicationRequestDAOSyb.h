#ifndef DATAACCESS_CATALOGUE_REPLICATIONREQUESTDAOSYB_H
#define DATAACCESS_CATALOGUE_REPLICATIONREQUESTDAOSYB_H

#include <string>
#include <vector>

#include <dataAccess/catalogue/ReplicationRequest.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

namespace dataAccess {
class InsertRow;
}

// Stores the replication queue in one table whose name the caller gives.
// Every operation takes the connection (a ServiceConnectionSyb, or the stub
// that only prints its SQL) and returns the affected-row count, the number of
// rows read, or -1. String values are quoted with their single quotes doubled.
// Vectors are appended to, never cleared.
// Thread safety: the object holds only its table names, so it may be used by several threads at once,
// each with its own connection.
class ReplicationRequestDAOSyb {
 public:
  static const std::string fileIdField;
  static const std::string fileVersionField;
  static const std::string diskIdField;
  static const std::string submitterIdField;
  static const std::string submissionTimeField;
  static const std::string priorityField;
  static const std::string statusIdField;
  static const std::string lastUpdateTimeField;
  static const std::string messageField;
  static const std::string statusStringField;

  explicit ReplicationRequestDAOSyb(const std::string& tableName);

  // Inserts one request; the table stamps submission and last-update times.
  // An empty file id is refused (-1) and nothing is executed.
  int insert(const ReplicationRequest& request, const ServiceConnectionSyb& conn);
  int insert(const ReplicationRequest& request, const ServiceConnectionStub& conn);
  // Inserts every request in one transaction, all or none, as
  // KestFileDAOSyb's batch insert does (same result, refusals and log).
  int insert(const std::vector<ReplicationRequest>& requests, const ServiceConnectionSyb& conn);
  int insert(const std::vector<ReplicationRequest>& requests, const ServiceConnectionStub& conn);

  // Every version and disk of the file gets the new status.
  int update(const std::string& fileId, ReplicationRequest::RequestStatus status, const std::string& message,
             const ServiceConnectionSyb& conn);
  int update(const std::string& fileId, ReplicationRequest::RequestStatus status, const std::string& message,
             const ServiceConnectionStub& conn);
  // A version above 0 and a non-empty disk narrow the rows changed.
  int update(const std::string& fileId, int fileVersion, const std::string& diskId,
             ReplicationRequest::RequestStatus status, const std::string& message,
             const ServiceConnectionSyb& conn);
  int update(const std::string& fileId, int fileVersion, const std::string& diskId,
             ReplicationRequest::RequestStatus status, const std::string& message,
             const ServiceConnectionStub& conn);

  int remove(const std::string& fileId, int fileVersion, const std::string& diskId,
             const ServiceConnectionSyb& conn);
  int remove(const std::string& fileId, int fileVersion, const std::string& diskId,
             const ServiceConnectionStub& conn);

  // Finders append the rows read, oldest submission first, and return how
  // many rows they read.
  int find(ReplicationRequest::RequestStatus status, std::vector<ReplicationRequest>& requests,
           const ServiceConnectionSyb& conn);
  int find(ReplicationRequest::RequestStatus status, std::vector<ReplicationRequest>& requests,
           const ServiceConnectionStub& conn);
  int find(const std::string& fileId, std::vector<ReplicationRequest>& requests,
           const ServiceConnectionSyb& conn);
  int find(const std::string& fileId, std::vector<ReplicationRequest>& requests,
           const ServiceConnectionStub& conn);
  int loadAll(std::vector<ReplicationRequest>& requests, const ServiceConnectionSyb& conn);
  int loadAll(std::vector<ReplicationRequest>& requests, const ServiceConnectionStub& conn);

 private:
  template <class Conn>
  int updateT(const std::string& fileId, int fileVersion, const std::string& diskId,
              ReplicationRequest::RequestStatus status, const std::string& message, const Conn& conn);
  template <class Conn>
  int removeT(const std::string& fileId, int fileVersion, const std::string& diskId, const Conn& conn);
  template <class Conn>
  int select_(const Conn& conn, std::vector<ReplicationRequest>& requests, const std::string& whereClause);
  template <class Conn>
  int executeQuery(const std::string& query, const Conn& conn);

  static std::string allFields();
  static ReplicationRequest convertResultSetToReplicationRequest(SybaseResultSet& res);
  static void fillRow(const ReplicationRequest& request, dataAccess::InsertRow& row);

  std::string tableName_;
};

#endif
