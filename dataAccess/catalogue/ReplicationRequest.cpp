#include <dataAccess/catalogue/ReplicationRequest.h>

#include <sstream>

namespace {
double seconds(const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; }
}  // namespace

ReplicationRequest::ReplicationRequest(const std::string& fileId)
    : fileId_(fileId),
      fileVersion_(0),
      submissionTime_{0, 0},
      priority_(0),
      statusId_(0),
      lastUpdateTime_{0, 0} {}

void ReplicationRequest::statusId(int id) { statusId_ = id >= Scheduled && id <= Reported ? id : Error; }

std::string ReplicationRequest::statusAsString(RequestStatus s) {
  switch (s) {
    case Error:
      return "Error";
    case Scheduled:
      return "Scheduled";
    case Pending:
      return "Pending";
    case Requested:
      return "Requested";
    case Ready:
      return "Ready";
    case Replicating:
      return "Replicating";
    case Replicated:
      return "Replicated";
    case Reported:
      return "Reported";
  }
  return "UNKNOWN";
}

std::string ReplicationRequest::genKey(const std::string& sep) const {
  std::string key;
  if (!diskId_.empty()) key += diskId_ + sep;
  key += fileId_;
  if (fileVersion_ > 0) key += sep + std::to_string(fileVersion_);
  return key;
}

std::string ReplicationRequest::toString() const {
  std::ostringstream out;
  out << "file_id = \"" << fileId_ << "\"; "
      << "file_version = \"" << fileVersion_ << "\"; "
      << "disk_id = \"" << diskId_ << "\"; "
      << "submitter_id = \"" << submitterId_ << "\"; "
      << "submission_time = " << seconds(submissionTime_) << " "
      << "priority = \"" << priority_ << "\"; "
      << "status_id = \"" << statusId_ << "\"; "
      << "last_update_time = " << seconds(lastUpdateTime_) << " "
      << "message = \"" << message_ << "\"; ";
  return out.str();
}
