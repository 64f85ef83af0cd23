#include <daLog/Log.h>
#include <dataAccess/condor/CondorJob.h>
#include <dataAccess/condor/CondorSupport.h>

#include <cstdlib>

using namespace dataAccess::condor;

CondorJob::CondorJob(const std::string& fileName) {
  if (!validPathName(fileName)) {
    DA_LOG_ERROR("CondorJob::CondorJob() - invalid job filename %s", fileName.c_str());
    std::abort();
  }
  fileName_ = completePath(fileName);
  id_ = leafName(fileName_);
  submitCommand_ = "condor_submit";
  universe_ = "vanilla";
  output_ = id_ + ".out";
  error_ = id_ + ".err";
  log_ = id_ + ".log";
  shouldTransferFiles_ = "NO";
  initialDir_ = directoryName(fileName_);
  notification_ = "NEVER";
  DA_LOG_DEBUG("Job filename is %s", fileName_.c_str());
}

std::string CondorJob::saveRefusal() const {
  if (executable_.empty()) return "CondorJob::save() - executable is not defined";
  const std::pair<const char*, const std::string*> values[] = {
      {"universe", &universe_},
      {"executable", &executable_},
      {"output", &output_},
      {"error", &error_},
      {"log", &log_},
      {"arguments", &arguments_},
      {"should_transfer_files", &shouldTransferFiles_},
      {"initialdir", &initialDir_},
      {"notification", &notification_}};
  for (const auto& v : values)
    if (v.second->find('\n') != std::string::npos)
      return std::string("CondorJob::save() - line feed in the ") + v.first + " value of " + fileName_;
  return std::string();
}

std::string CondorJob::contents() const {
  std::string text;
  // Keys are left-aligned in 22 columns, as Condor's own tools write them.
  text.append("universe              = ").append(universe_);
  text.append("\nexecutable            = ").append(executable_);
  text.append("\noutput                = ").append(output_);
  text.append("\nerror                 = ").append(error_);
  text.append("\nlog                   = ").append(log_);
  text.append("\narguments             = ").append(arguments_);
  text.append("\nshould_transfer_files = ").append(shouldTransferFiles_);
  text.append("\ninitialdir            = ").append(initialDir_);
  text.append("\nnotification          = ").append(notification_);
  text.append("\nqueue\n");
  return text;
}

int CondorJob::save() const {
  const std::string refusal = saveRefusal();
  if (!refusal.empty()) {
    DA_LOG_ERROR("%s", refusal.c_str());
    return -1;
  }
  return write();
}

int CondorJob::write() const {
  // Whether a file was there comes from the rename that puts the new one in
  // place: a look-up beforehand would cost as much as the write of a small
  // file, thousands of times for a large DAG. So the INFO line follows the
  // write instead of preceding it.
  bool replaced = false;
  if (reportSave(fileName_, dataAccess::replaceFile(fileName_, contents(), &replaced), "submit") != 0)
    return -1;
  if (replaced) DA_LOG_INFO("Overwriting condor submit file %s", fileName_.c_str());
  DA_LOG_DEBUG("Saved condor submit file %s", fileName_.c_str());
  return 0;
}

int CondorJob::submit() const {
  if (!fileExists(fileName_)) save();
  if (!fileExists(fileName_)) {
    DA_LOG_ERROR("Can't submit non-existent file %s", fileName_.c_str());
    return -1;
  }
  DA_LOG_DEBUG("Submitting condor job %s", fileName_.c_str());
  return runSubmitCommand(submitCommand_, fileName_, std::string());
}
