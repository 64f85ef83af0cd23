#include <daLog/Log.h>
#include <dataAccess/condor/CondorDag.h>
#include <dataAccess/condor/CondorSupport.h>

#include <strings.h>
#include <cstdlib>
#include <unordered_map>
#include <utility>
#include <vector>

using namespace dataAccess::condor;

namespace {

bool hasWhiteSpace(const std::string& s) { return s.find_first_of(" \t\n\r\v\f") != std::string::npos; }

// A name condor_submit_dag accepts for a node.
bool validNodeName(const std::string& id) {
  return !hasWhiteSpace(id) && id.find('+') == std::string::npos && strcasecmp(id.c_str(), "PARENT") != 0 &&
         strcasecmp(id.c_str(), "CHILD") != 0;
}

}  // namespace

CondorDag::CondorDag(const std::string& fileName) {
  if (!validPathName(fileName)) {
    DA_LOG_ERROR("CondorDag::CondorDag() - invalid dag filename %s", fileName.c_str());
    std::abort();
  }
  fileName_ = completePath(fileName);
  initialDir_ = directoryName(fileName_);
  submitCommand_ = "condor_submit_dag";
  DA_LOG_DEBUG("DAG filename is %s", fileName_.c_str());
}

void CondorDag::addJob(const CondorJob& job, const std::list<CondorJob>& parents) {
  const auto it = dag_.find(job);
  if (it == dag_.end())
    dag_.emplace(job, parents);
  else
    it->second = parents;
}

std::string CondorDag::graphRefusal() const {
  // Sized for every node up front: a graph of many thousand jobs is
  // indexed without rehashing or regrowing.
  std::unordered_map<std::string, size_t> index(dag_.size());
  std::vector<const std::list<CondorJob>*> parents(dag_.size());
  std::vector<const std::string*> names(dag_.size());
  const std::string dir = submitDir();
  for (const auto& node : dag_) {
    const CondorJob& job = node.first;
    const std::string refusal = job.saveRefusal();
    if (!refusal.empty()) return refusal;
    if (!validNodeName(job.id_)) return "CondorDag::save() - invalid node name " + job.id_;
    if (hasWhiteSpace(jobLineName(job, dir)))
      return "CondorDag::save() - white space in the submit file name of node " + job.id_;
    const size_t at = index.size();
    if (!index.emplace(job.id_, at).second) return "CondorDag::save() - two jobs named " + job.id_;
    parents[at] = &node.second;
    names[at] = &job.id_;
  }
  std::vector<std::vector<size_t>> edges(parents.size());
  auto node = dag_.begin();
  for (size_t i = 0; i < parents.size(); ++i, ++node) {
    for (const CondorJob& p : *parents[i]) {
      const auto found = index.find(p.id_);
      if (found == index.end())
        return "CondorDag::save() - parent " + p.id_ + " of node " + node->first.id_ + " has no JOB line";
      edges[i].push_back(found->second);
    }
  }
  // Depth-first search without recursion: a chain of many thousand jobs must
  // not exhaust the stack. 0 unvisited, 1 on the current path, 2 done.
  std::vector<char> state(parents.size(), 0);
  std::vector<std::pair<size_t, size_t>> stack;
  for (size_t root = 0; root < parents.size(); ++root) {
    if (state[root] != 0) continue;
    state[root] = 1;
    stack.emplace_back(root, 0);
    while (!stack.empty()) {
      auto& top = stack.back();
      if (top.second == edges[top.first].size()) {
        state[top.first] = 2;
        stack.pop_back();
        continue;
      }
      const size_t next = edges[top.first][top.second++];
      if (state[next] == 1) return "CondorDag::save() - cycle through node " + *names[next];
      if (state[next] == 0) {
        state[next] = 1;
        stack.emplace_back(next, 0);
      }
    }
  }
  return std::string();
}

std::string CondorDag::submitDir() const {
  const std::string dir = directoryName(fileName_);
  return hasWhiteSpace(dir) ? dir : std::string();
}

const std::string& CondorDag::jobLineName(const CondorJob& job, const std::string& submitDir) {
  return !submitDir.empty() && directoryName(job.fileName_) == submitDir ? job.id_ : job.fileName_;
}

int CondorDag::save() const {
  if (dag_.empty()) {
    DA_LOG_ERROR("CondorDag::save() - empty DAG");
    return -1;
  }
  const std::string refusal = graphRefusal();
  if (!refusal.empty()) {
    DA_LOG_ERROR("%s", refusal.c_str());
    return -1;
  }
  if (fileExists(fileName_)) DA_LOG_INFO("Overwriting condor dag file %s", fileName_.c_str());
  // The DAG file's temporary is created before any job file is written, so
  // that a DAG that cannot be written leaves no job files behind.
  dataAccess::FileReplacement dagFile(fileName_);
  if (!dagFile.created()) return reportSave(fileName_, dataAccess::FileReplace::CannotCreate, "DAG");
  const std::string dir = submitDir();
  std::string jobs, dependencies;
  for (const auto& node : dag_) {
    const CondorJob& job = node.first;
    if (job.write() != 0) return -1;
    jobs.append("JOB ").append(job.id_).append(" ").append(jobLineName(job, dir)).append("\n");
  }
  for (const auto& node : dag_) {
    if (node.second.empty()) continue;
    dependencies.append("PARENT ");
    for (const CondorJob& p : node.second) dependencies.append(p.id_).append(" ");
    dependencies.append("CHILD ").append(node.first.id_).append("\n");
  }
  if (reportSave(fileName_, dagFile.commit(jobs + dependencies), "DAG") != 0) return -1;
  DA_LOG_DEBUG("Saved condor DAG submit file %s", fileName_.c_str());
  if (daLog::debugEnabled()) DA_LOG_DEBUG("File contents:\n%s%s", jobs.c_str(), dependencies.c_str());
  return 0;
}

int CondorDag::submit() const {
  if (!fileExists(fileName_)) save();
  if (!fileExists(fileName_)) {
    DA_LOG_ERROR("Can't submit non-existent file %s", fileName_.c_str());
    return -1;
  }
  DA_LOG_DEBUG("Submitting DAG %s", fileName_.c_str());
  return runSubmitCommand(submitCommand_, fileName_, submitDir());
}
