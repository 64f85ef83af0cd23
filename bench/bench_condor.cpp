// CondorDag::save of an association block's graph (10,000 extension jobs and
// a join job whose parents are all of them) against a raw loop writing the
// same 10,001 submit files and the same DAG bytes, with DEBUG logging masked
// by the host's ACE priority mask. Both sides write into an emptied folder (in
// /dev/shm) each pass, and both write each file as a careful program writes
// into a folder that others can write to: under a fresh name created
// exclusively, then renamed into place (a plain open would follow a link
// planted at the file's name).
#include <ace/Log_Msg.h>
#include <dataAccess/condor/CondorDag.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <sstream>
#include <string>

#include "bench/BenchUtil.h"

namespace {

const int kExtensions = benchutil::size(10000, 1000);
std::string g_dir;

std::string folder(char side) { return g_dir + "/" + side; }
std::string id(int k) { return k ? "ab_" + std::to_string(k) + ".cmd" : std::string("ab_join.cmd"); }
std::string arguments(int k) {
  return "-a /data/ab/AB_7.xml -u ops " +
         (k ? "-e " + std::to_string(k) : "-j " + std::to_string(kExtensions)) + " -i /data/in -o /data/out";
}

void empty(char side) {
  std::filesystem::remove_all(folder(side));
  ::mkdir(folder(side).c_str(), 0755);
}

CondorDag makeGraph() {
  CondorDag dag(folder('o') + "/ab.dag");
  std::list<CondorJob> extensions;
  auto make = [](int k) {
    CondorJob job(folder('o') + "/" + id(k));
    job.setExecutable("/opt/pipeline/bin/process_ab");
    job.setArguments(arguments(k));
    job.setLog("/data/logs/" + id(k) + ".log");
    return job;
  };
  for (int k = 1; k <= kExtensions; ++k) {
    extensions.push_back(make(k));
    dag.addJob(extensions.back());
  }
  dag.addJob(make(0), extensions);
  return dag;
}

void writeSafely(const std::string& file, const std::string& text) {
  std::string tmp = file + ".XXXXXX.tmp";
  const int fd = ::mkostemps(&tmp[0], 4, O_CLOEXEC);
  if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      ::close(fd) != 0 || std::rename(tmp.c_str(), file.c_str()) != 0)
    std::exit(1);
}

void rawSave() {
  const std::string dir = folder('r');
  std::map<std::string, int> order;  // the graph's id order
  for (int k = 0; k <= kExtensions; ++k) order[id(k)] = k;
  std::string jobs, parents;
  for (const auto& node : order) {
    const std::string& name = node.first;
    const std::string file = dir + "/" + name;
    writeSafely(file,
                "universe              = vanilla\nexecutable            = /opt/pipeline/bin/process_ab\n"
                "output                = " +
                    name + ".out\nerror                 = " + name +
                    ".err\nlog                   = /data/logs/" + name + ".log\narguments             = " +
                    arguments(node.second) + "\nshould_transfer_files = NO\ninitialdir            = " + dir +
                    "\nnotification          = NEVER\nqueue\n");
    jobs += "JOB " + name + " " + file + "\n";
  }
  for (int k = 1; k <= kExtensions; ++k) parents += id(k) + " ";
  writeSafely(dir + "/ab.dag", jobs + "PARENT " + parents + "CHILD ab_join.cmd\n");
}

void dagRaw(benchutil::Pass& pass) {
  empty('r');
  pass.measure(rawSave);
}

void dagOurs(benchutil::Pass& pass) {
  static const CondorDag dag = makeGraph();
  empty('o');
  pass.measure([] {
    if (dag.save() != 0) std::exit(1);
  });
}

std::string slurp(const std::string& path) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

// Both sides wrote the same bytes (folder names o and r have one length).
bool sameOutput() {
  for (const std::string& name : {std::string("ab.dag"), id(0), id(1), id(kExtensions)}) {
    std::string ours = slurp(folder('o') + "/" + name), raw = slurp(folder('r') + "/" + name);
    for (std::string* text : {&ours, &raw})
      for (size_t at = 0; (at = text->find(g_dir + "/", at)) != std::string::npos; at += g_dir.size())
        (*text)[at + g_dir.size() + 1] = '_';
    if (ours.empty() || ours != raw) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // The files go to tmpfs where there is one: 10,001 files written on a disk
  // that other work keeps busy take whatever the disk's queue makes of them
  // (single passes ran from a third to twelve times the other side).
  g_dir = benchutil::scratchDir(std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp", "condor");
  if (g_dir.empty()) return 1;
  // A production host masks DEBUG through ACE's process-wide priority mask.
  ACE_LOG_MSG->priority_mask(
      LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
      ACE_Log_Msg::PROCESS);
  benchmark::Initialize(&argc, argv);
  benchutil::Rounds rounds;
  rounds.side("BM_dag_raw", dagRaw).side("BM_dag_ours", dagOurs).run();
  benchmark::Shutdown();
  const bool same = sameOutput();
  if (same)
    rounds.ratio("condor_dag_save_10k_logoff", "BM_dag_ours", "BM_dag_raw", "1.25");
  else
    std::printf("condor: the two sides wrote different bytes\nratio condor_dag_save_10k_logoff nan 1.25\n");
  std::filesystem::remove_all(g_dir);
  return same ? 0 : 1;
}
