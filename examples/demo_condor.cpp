// Demo section: batch submission to Condor. HTCondor is not packaged for
// Debian, so the demo submits with the stand-in condor_submit and
// condor_submit_dag scripts of tests/support: they record their arguments and
// the files they were given, and exit 0.
#include <dataAccess/condor/CondorDag.h>
#include <dataAccess/condor/CondorSubmit.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "examples/demo.h"

namespace {

void show(const std::string& path) {
  std::ifstream in(path);
  std::printf("   --- %s\n", path.c_str());
  for (std::string line; std::getline(in, line);) std::printf("   | %s\n", line.c_str());
}

int run(const std::string& work) {
  const std::string standIn = DA_STANDIN_DIR, dir = work + "/condor";
  std::printf(
      "   HTCondor is not installed here: jobs go to the stand-in scripts %s/condor_submit and\n"
      "   %s/condor_submit_dag, which only record what they are given.\n",
      standIn.c_str(), standIn.c_str());
  for (const char* sub : {"", "/in", "/out", "/logs", "/work"}) ::mkdir((dir + sub).c_str(), 0755);
  setenv("CONDOR_STANDIN_LOG", (dir + "/submitted.txt").c_str(), 1);
  setenv("CONDOR_STANDIN_STATUS", "0", 1);

  std::printf("   one job:\n");
  CondorJob job(dir + "/calibrate.cmd");
  job.setExecutable("/usr/bin/env");
  job.setArguments("calibrate --night 2026-11-22");
  job.setSubmitCommand(standIn + "/condor_submit");
  const int single = job.submit();
  std::printf("   submitted %s: exit status %d\n", job.getId().c_str(), WEXITSTATUS(single));
  show(job.getFileName());

  std::printf("   an association block with three extensions, as a DAG:\n");
  const std::string block = dir + "/in/AB_42.xml", exe = dir + "/process_ab";
  std::ofstream(block) << "<ab id=\"42\"/>\n";
  std::ofstream(exe) << "#!/bin/sh\n";
  CondorSubmit::setSubmitCommands(standIn + "/condor_submit", standIn + "/condor_submit_dag");
  const int dag = CondorSubmit::submitAbToCondor(block, 3, "ops", exe, dir + "/work", dir + "/in",
                                                 dir + "/out", dir + "/logs");
  std::printf("   submitted: exit status %d\n", WEXITSTATUS(dag));
  show(dir + "/work/AB_42/AB_42.dag");
  show(dir + "/work/AB_42/AB_42_join.cmd");

  std::printf("   a request naming a missing input folder is rejected (its ERROR line follows):\n");
  const int rejected = CondorSubmit::submitAbToCondor(block, 3, "ops", exe, dir + "/work", dir + "/missing",
                                                      dir + "/out", dir + "/logs");
  std::printf("   result %d\n", rejected);
  std::printf("   the stand-ins were called as:\n");
  std::ifstream record(dir + "/submitted.txt");
  for (std::string line; std::getline(record, line);)
    if (line.compare(0, 7, "condor_") == 0) std::printf("   %s\n", line.c_str());
  return single == 0 && dag == 0 && rejected < 0 ? 0 : 1;
}

}  // namespace

DEMO_SECTION(60, "Batch submission: a Condor job, an association block as a DAG, a rejected request", run);
