#ifndef DATAACCESS_CATALOGUE_REPLICATIONREQUEST_H
#define DATAACCESS_CATALOGUE_REPLICATIONREQUEST_H

#include <sys/time.h>

#include <string>

#include <sybconn/SybaseResultSet.h>

// One entry of the archive's replication queue: a request that a version of
// an archived file, on a given disk, be copied; who asked, when, at what
// priority, and how far the copy has got.
// Thread safety: a plain value; distinct objects may be used on different threads at once.
class ReplicationRequest {
 public:
  enum RequestStatus : int {
    Error = -1,
    Scheduled = 0,
    Pending = 1,
    Requested = 2,
    Ready = 3,
    Replicating = 4,
    Replicated = 5,
    Reported = 6
  };
  typedef SybaseResultSet ResultSet;

  explicit ReplicationRequest(const std::string& fileId);

  // Stores `id` when it is one of 0 to 6, otherwise Error (-1).
  void statusId(int id);
  int statusId() const { return statusId_; }
  // "Error", "Scheduled", ... "Reported"; "UNKNOWN" for any other value.
  static std::string statusAsString(RequestStatus s);

  // [diskId sep] fileId [sep version]: the disk when there is one, the
  // version when it is above 0. "D9:F1:2", or "F1" alone.
  std::string genKey(const std::string& sep) const;
  // One line with every field, for logs.
  std::string toString() const;

  std::string fileId_;
  int fileVersion_;
  std::string diskId_;
  std::string submitterId_;
  timeval submissionTime_;
  int priority_;
  int statusId_;
  std::string statusString_;
  timeval lastUpdateTime_;
  std::string message_;
};

typedef ReplicationRequest* pReplicationRequest;

#endif
