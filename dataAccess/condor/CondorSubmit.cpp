#include <daLog/Log.h>
#include <dataAccess/condor/CondorDag.h>
#include <dataAccess/condor/CondorJob.h>
#include <dataAccess/condor/CondorSubmit.h>
#include <dataAccess/condor/CondorSupport.h>
#include <sys/stat.h>

#include <cerrno>
#include <list>
#include <mutex>

using namespace dataAccess::condor;

namespace {

std::mutex g_commandsMutex;
std::string g_jobCommand = "condor_submit";
std::string g_dagCommand = "condor_submit_dag";

// Creates the folder `dir` unless one is there; true when it is a folder
// afterwards. Its parent is not created: that is a folder the caller named,
// checked to exist.
bool makeDirectory(const std::string& dir) {
  struct stat st {};
  return (::mkdir(dir.c_str(), 0777) == 0 || errno == EEXIST) && ::stat(dir.c_str(), &st) == 0 &&
         S_ISDIR(st.st_mode);
}

// The layout of one association block's submission: every choice the
// public header documents is made here.
struct AbLayout {
  std::string block, user, executable, workDir, base, inputDir, outputDir, logDir;

  std::string folders() const { return " -i " + inputDir + " -o " + outputDir; }
  CondorJob job(const std::string& suffix, const std::string& arguments, const std::string& command) const {
    CondorJob job(workDir + "/" + base + suffix);
    job.setExecutable(executable);
    job.setArguments("-a " + block + " -u " + user + arguments);
    job.setLog(logDir + "/" + job.getId() + ".log");
    job.setSubmitCommand(command);
    return job;
  }
};

std::string baseName(const std::string& block) {
  std::string leaf = leafName(block);
  const size_t dot = leaf.rfind('.');
  if (dot != std::string::npos && dot > 0) leaf.erase(dot);
  return leaf.empty() || leaf == "." ? "ab" : leaf;
}

}  // namespace

int CondorSubmit::checkPath(const std::string& path) {
  if (!validPathName(path)) {
    DA_LOG_ERROR("CondorSubmit - invalid path %s", path.c_str());
    return -1;
  }
  if (!pathExists(path)) {
    DA_LOG_ERROR("CondorSubmit - non-existent path %s", path.c_str());
    return -1;
  }
  return 0;
}

void CondorSubmit::setSubmitCommands(const std::string& jobCommand, const std::string& dagCommand) {
  std::lock_guard<std::mutex> lock(g_commandsMutex);
  g_jobCommand = jobCommand;
  g_dagCommand = dagCommand;
}

int CondorSubmit::submitAbToCondor(const std::string& path1, int nExtensions, const std::string& userName,
                                   const std::string& path3, const std::string& path4,
                                   const std::string& path5, const std::string& path6,
                                   const std::string& path7) {
  for (const std::string* path : {&path1, &path3, &path4, &path5, &path6, &path7})
    if (checkPath(*path) < 0) return -1;
  if (nExtensions < 0) {
    DA_LOG_ERROR("submitAbToCondor - invalid number of extensions");
    return -1;
  }
  if (userName.empty()) {
    DA_LOG_ERROR("submitAbToCondor - invalid user name");
    return -1;
  }
  AbLayout ab;
  ab.block = path1;
  ab.user = userName;
  ab.executable = completePath(path3);
  ab.base = baseName(ab.block);
  ab.workDir = completePath(path4) + "/" + ab.base;
  ab.inputDir = completePath(path5);
  ab.outputDir = completePath(path6);
  ab.logDir = completePath(path7);
  if (!makeDirectory(ab.workDir)) {
    DA_LOG_ERROR("submitAbToCondor - could not create directory %s", ab.workDir.c_str());
    return -1;
  }
  std::string jobCommand, dagCommand;
  {
    std::lock_guard<std::mutex> lock(g_commandsMutex);
    jobCommand = g_jobCommand;
    dagCommand = g_dagCommand;
  }
  if (nExtensions <= 1) return ab.job(".cmd", ab.folders(), jobCommand).submit();

  CondorDag dag(ab.workDir + "/" + ab.base + ".dag");
  dag.setSubmitCommand(dagCommand);
  std::list<CondorJob> extensions;
  for (int k = 1; k <= nExtensions; ++k) {
    const std::string n = std::to_string(k);
    extensions.push_back(ab.job("_" + n + ".cmd", " -e " + n, jobCommand));
    dag.addJob(extensions.back());
  }
  dag.addJob(ab.job("_join.cmd", " -j " + std::to_string(nExtensions) + ab.folders(), jobCommand),
             extensions);
  return dag.submit();
}
