// Condor submit and DAG files and association-block submission, against tests/support's stand-ins.
#include <dataAccess/common/FileReplace.h>
#include <dataAccess/condor/CondorDag.h>
#include <dataAccess/condor/CondorSubmit.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <map>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

namespace fs = std::filesystem;
const std::string kStartDir = fs::current_path().string();  // taken at load, like the library's
const std::string kStandIn = std::string(DA_SOURCE_DIR) + "/tests/support/condor_submit";

std::string submitFile(const std::string& executable, const std::string& id, const std::string& dir,
                       const std::string& arguments = "", std::string log = "") {
  return "universe              = vanilla\nexecutable            = " + executable +
         "\noutput                = " + id + ".out\nerror                 = " + id +
         ".err\nlog                   = " + (log.empty() ? id : log) +
         ".log\narguments             = " + arguments +
         "\nshould_transfer_files = NO\ninitialdir            = " + dir +
         "\nnotification          = NEVER\nqueue\n";
}

class Condor : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("CONDOR_STANDIN_LOG", dir_.file("record").c_str(), 1);
    setenv("CONDOR_STANDIN_STATUS", "0", 1);
    CondorSubmit::setSubmitCommands(kStandIn, kStandIn + "_dag");
  }
  void TearDown() override { ASSERT_EQ(::chdir(kStartDir.c_str()), 0); }
  CondorJob job(const std::string& name) const {
    CondorJob j(dir_.file(name));
    j.setExecutable("/bin/true");
    j.setSubmitCommand(kStandIn);
    return j;
  }

  testsupport::TempDir dir_;
  testsupport::LogCapture log_;
};

TEST_F(Condor, SubmitFileBytesAndDefaultsFromARelativeNameAfterChdir) {
  const std::string rel = fs::relative(dir_.path(), kStartDir).string();
  ASSERT_EQ(::chdir("/"), 0);
  CondorJob j(rel + "/x.cmd");
  j.setExecutable("/bin/true");
  EXPECT_EQ(j.getFileName() + " " + j.getId(), kStartDir + "/" + rel + "/x.cmd x.cmd");
  EXPECT_EQ(j.save(), 0);
  EXPECT_FALSE(log_.containsFragment("Overwriting"));  // a new file replaces nothing
  EXPECT_EQ(j.save(), 0);
  EXPECT_EQ(testsupport::readFile(j.getFileName()), submitFile("/bin/true", "x.cmd", kStartDir + "/" + rel));
  EXPECT_TRUE(log_.contains("<D> DEBUG [ <t> ] Job filename is " + j.getFileName() + "\n"));
  EXPECT_EQ(log_.count("<D> DEBUG [ <t> ] Saved condor submit file " + j.getFileName() + "\n"), 2u);
  EXPECT_EQ(log_.count("<D> INFO  [ <t> ] Overwriting condor submit file " + j.getFileName() + "\n"), 1u);
}

TEST_F(Condor, DagBytesInIdOrderWithReplacedParents) {
  for (int i = 0; i < 40; ++i) {  // an uncommitted temporary: "<path>.<twelve letters or digits>.tmp"
    const dataAccess::FileReplacement pending(dir_.file("t"));
    const std::string name = fs::directory_iterator(dir_.path())->path().filename().string();
    EXPECT_TRUE(name.size() == 18 && name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789", 2) == 14);
  }
  CondorDag dag(dir_.file("g.dag"));
  const CondorJob a = job("a.cmd"), b = job("b.cmd"), j = job("j.cmd");
  dag.addJob(j, {a});
  dag.addJob(b);
  dag.addJob(a);
  dag.addJob(j, {b, a});
  for (const auto& name : {a.getFileName(), dag.getFileName()})  // dangling links: replaced, not followed
    ASSERT_EQ(::symlink(dir_.file("gone").c_str(), name.c_str()), 0);
  ASSERT_EQ(dag.save(), 0);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(a.getFileName())) && !fs::exists(dir_.file("gone")));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dag.getFileName())));
  const std::string sections = "JOB a.cmd " + a.getFileName() + "\nJOB b.cmd " + b.getFileName() +
                               "\nJOB j.cmd " + j.getFileName() + "\nPARENT b.cmd a.cmd CHILD j.cmd\n";
  EXPECT_EQ(testsupport::readFile(dag.getFileName()), sections);
  EXPECT_EQ(testsupport::readFile(b.getFileName()), submitFile("/bin/true", "b.cmd", dir_.path()));
  EXPECT_TRUE(log_.contains("<D> DEBUG [ <t> ] File contents:\n" + sections + "\n"));
  EXPECT_EQ(dag.save(), 0);
  EXPECT_EQ(log_.count("<D> INFO  [ <t> ] Overwriting condor dag file " + dag.getFileName() + "\n"), 1u);
}

TEST_F(Condor, RefusalsLogTheCauseAndWriteNothing) {
  CondorJob noExecutable(dir_.file("n.cmd")), lineFeed = job("lf.cmd");
  lineFeed.setArguments("1\nqueue");
  const CondorJob a = job("a"), dotted = job("x.y");
  // Each refusal returns -1, logs its cause and leaves the folder sub alone in the test's folder.
  const auto refused = [&](int result, const std::string& fragment) {
    EXPECT_EQ(result, -1) << fragment;
    EXPECT_TRUE(log_.containsFragment(fragment)) << fragment;
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), 1) << fragment;
  };
  const struct {
    std::function<int()> save;
    std::string error;
  } cases[] = {
      {[&] { return noExecutable.save(); }, "CondorJob::save() - executable is not defined"},
      {[&] { return lineFeed.save(); },
       "CondorJob::save() - line feed in the arguments value of " + lineFeed.getFileName()},
      {[&] { return CondorDag(dir_.file("g")).save(); }, "CondorDag::save() - empty DAG"},
      {[&] { return job(".").save(); }, "Can't open condor submit file " + dir_.file(".") + " for writing"},
      {[&] { return job("sub").save(); }, "Can't write condor submit file " + dir_.file("sub")},
      {[&] {
         CondorDag dag(dir_.file("x/.."));
         dag.addJob(a);
         return dag.save();
       },
       "Can't open condor DAG file " + dir_.file("x/..") + " for writing"},
  };
  ::mkdir(dir_.file("sub").c_str(), 0700);
  for (const auto& c : cases) refused(c.save(), "ERROR [ <t> ] " + c.error);
  const struct {
    std::vector<std::pair<std::string, std::vector<std::string>>> nodes;  // name, parents
    std::string error;
  } graphs[] = {
      {{{"a+b", {}}}, "invalid node name a+b"},
      {{{"x.y", {}}, {"Parent", {}}}, "invalid node name Parent"},
      {{{"chILD", {}}}, "invalid node name chILD"},
      {{{"a", {}}, {"b", {"a", "c"}}}, "parent c of node b has no JOB line"},
      {{{"a", {"b"}}, {"b", {"x.y"}}, {"x.y", {"a"}}}, "cycle through node a"},
      {{{"a", {"a"}}}, "cycle through node a"},
      {{{"a", {}}, {"sub/a", {}}}, "two jobs named a"},
      {{{"w x/a", {}}}, "white space in the submit file name of node a"},
      {{{"a", {}}, {"x/..", {}}}, "Can't open condor submit file " + dir_.file("x/..") + " for writing"},
      {{{"a", {}}, {"n.cmd", {"a"}}}, "CondorJob::save() - executable is not defined"},
  };
  for (const auto& g : graphs) {
    CondorDag dag(dir_.file("g.dag"));
    for (const auto& node : g.nodes) {
      std::list<CondorJob> parents;
      for (const auto& p : node.second) parents.push_back(job(p));
      dag.addJob(node.first == "n.cmd" ? noExecutable : job(node.first), parents);
    }
    refused(dag.save(), g.error);
  }
  CondorDag fine(dir_.file("g.dag"));
  fine.addJob(dotted);
  EXPECT_EQ(fine.save(), 0);
}

TEST_F(Condor, SubmitSavesFirstQuotesTheNameAndPassesTheResultBack) {
  for (const auto& [name, status] : {std::pair<std::string, int>{"Plain-az09AZ.cmd", 3},
                                     {"a b;touch gotcha;$(touch gotcha2).cmd", 0},
                                     {"it's.dag", 0}}) {
    setenv("CONDOR_STANDIN_STATUS", std::to_string(status).c_str(), 1);
    fs::remove(dir_.file("record"));
    const CondorJob j = job(name);
    CondorDag dag(dir_.file(name + ".dag"));
    dag.setSubmitCommand(kStandIn + "_dag");
    dag.addJob(job("n.cmd"));
    for (const int result : {j.submit(), dag.submit()}) {  // left to right
      ASSERT_TRUE(WIFEXITED(result)) << name;
      EXPECT_EQ(WEXITSTATUS(result), status) << name;
    }
    EXPECT_EQ(testsupport::readFile(dir_.file("record")),
              "condor_submit [" + j.getFileName() + "]\n" + submitFile("/bin/true", name, dir_.path()) +
                  "condor_submit_dag [" + dag.getFileName() + "]\n" +
                  testsupport::readFile(dag.getFileName()));
  }
  EXPECT_FALSE(fs::exists(kStartDir + "/gotcha") || fs::exists(kStartDir + "/gotcha2"));
  EXPECT_TRUE(log_.contains("<D> DEBUG [ <t> ] Executing shell command: " + kStandIn + " " + dir_.path() +
                            "/Plain-az09AZ.cmd\n"));
  for (const std::string& line :
       {"Submitting condor job " + dir_.file("it's.dag"), "Submitting DAG " + dir_.file("it's.dag.dag"),
        "DAG filename is " + dir_.file("it's.dag.dag"),
        "Saved condor DAG submit file " + dir_.file("it's.dag.dag")})
    EXPECT_TRUE(log_.contains("<D> DEBUG [ <t> ] " + line + "\n")) << line;
  CondorJob never(dir_.file("never.cmd"));
  EXPECT_EQ(never.submit() + CondorDag(dir_.file("never.dag")).submit(), -2);  // their saves fail
  EXPECT_TRUE(
      log_.contains("<D> ERROR [ <t> ] Can't submit non-existent file " + never.getFileName() + "\n"));
}

TEST_F(Condor, AssociationBlockRequests) {
  for (const char* d : {"in", "out", "logs", "work", "wo rk"}) ::mkdir(dir_.file(d).c_str(), 0700);
  const std::string ab = dir_.write("AB_7.xml", ""), exe = dir_.write("proc", ""), in = dir_.file("in");
  const std::string tail = " -i " + in + " -o " + dir_.file("out");
  const struct {
    int n;
    std::string user, in;
    size_t errors;
    std::string error, ab = "", root = "work";  // ab: relative to the current directory
  } cases[] = {
      {2, "", dir_.file("nowhere"), 1, "CondorSubmit - non-existent path " + dir_.file("nowhere")},
      {2, "ops", "", 1, "CondorSubmit - invalid path \n"},
      {-1, "", in, 1, "submitAbToCondor - invalid number of extensions"},
      {0, "", in, 1, "submitAbToCondor - invalid user name"},
      {0, "ops", in, 1, "could not create directory " + dir_.file("proc/AB_7"), "", "proc"},  // a file
      {0, "o\nq", in, 2, "Can't submit non-existent file " + dir_.file("work/AB_7/AB_7.cmd")},
      {2, "o\nq", in, 2, "Can't submit non-existent file " + dir_.file("work/AB_7/AB_7.dag")},
      {0, "ops", in, 0, ""},
      {1, "ops", in, 0, ""},
      {2, "ops", in, 0, "", "AB_7.xml"},
      {2, "ops", in, 0, "", "", "wo rk"},
      {11, "ops", in, 0, ""},
  };
  for (const auto& c : cases) {
    log_.clear();
    const std::string work = dir_.file(c.root + "/AB_7"),
                      head = "-a " + (c.ab.empty() ? ab : c.ab) + " -u ops";
    std::error_code ignored;  // under "proc", a file, there is nothing to remove
    fs::remove_all(work, ignored);
    fs::remove(dir_.file("record"));
    ASSERT_EQ(::chdir(c.ab.empty() ? kStartDir.c_str() : dir_.path().c_str()), 0);
    const int result =
        CondorSubmit::submitAbToCondor(c.ab.empty() ? ab : c.ab, c.n, c.user, exe, dir_.file(c.root), c.in,
                                       dir_.file("out"), dir_.file("logs"));
    EXPECT_EQ(result, c.error.empty() ? 0 : -1) << c.n;
    EXPECT_EQ(log_.count("ERROR"), c.errors) << c.n;
    EXPECT_TRUE(c.error.empty() || log_.containsFragment(c.error)) << c.error;
    EXPECT_EQ(fs::exists(work), c.errors != 1) << c.n;
    if (c.errors > 0) continue;
    auto expect = [&](const std::string& id, const std::string& arguments) {
      EXPECT_EQ(testsupport::readFile(work + "/" + id),
                submitFile(exe, id, work, head + arguments, dir_.file("logs/" + id)));
      return "JOB " + id + " " + (c.root == "work" ? work + "/" : "") + id + "\n";
    };
    if (c.n <= 1) {
      expect("AB_7.cmd", tail);
      EXPECT_EQ(testsupport::readFile(dir_.file("record")),
                "condor_submit [" + work + "/AB_7.cmd]\n" + testsupport::readFile(work + "/AB_7.cmd"));
      continue;
    }
    std::map<std::string, std::string> jobs;  // JOB lines in id order, the parents in number order
    std::string parents, dag;
    for (int k = 1; k <= c.n; ++k) {
      const std::string id = "AB_7_" + std::to_string(k) + ".cmd";
      jobs[id] = " -e " + std::to_string(k);
      parents += id + " ";
    }
    for (const auto& [id, arguments] : jobs) dag += expect(id, arguments);
    dag += expect("AB_7_join.cmd", " -j " + std::to_string(c.n) + tail) + "PARENT " + parents +
           "CHILD AB_7_join.cmd\n";
    EXPECT_EQ(testsupport::readFile(dir_.file("record")),
              "condor_submit_dag [" + work + "/AB_7.dag]\n" + dag);
  }
  dir_.write("work/AB_7/AB_7.cmd", "old\n");  // left by an earlier request: submitted as it stands
  EXPECT_EQ(CondorSubmit::submitAbToCondor(ab, 0, "ops", exe, dir_.file("work"), in, dir_.file("out"),
                                           dir_.file("logs")),
            0);
  EXPECT_TRUE(testsupport::readFile(dir_.file("record")).find("]\nold\n") != std::string::npos);
}

// A submit file that cannot be written whole (over the file size limit) leaves neither it nor its temporary.
bool saveBeyondTheFileSizeLimit(const std::string& dir) {
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{8, 8};
  ::setrlimit(RLIMIT_FSIZE, &small);  // stderr, a file of the death test, is bounded too: capture
  testsupport::LogCapture log;
  CondorJob j(dir + "/big.cmd");
  j.setExecutable("/bin/true");
  return j.save() == -1 && fs::is_empty(dir) &&
         log.count("ERROR [ <t> ] Can't write condor submit file") == 1;
}

TEST(CondorDeath, InvalidNamesStopTheProcessAndAFileCutShortLeavesNothing) {
  const std::string names[] = {"", std::string("a\0b", 3)};
  for (const auto& name : names) {
    EXPECT_DEATH(CondorJob{name}, "CondorJob::CondorJob\\(\\) - invalid job filename");
    EXPECT_DEATH(CondorDag{name}, "CondorDag::CondorDag\\(\\) - invalid dag filename");
  }
  testsupport::TempDir dir;
  EXPECT_EXIT(std::exit(saveBeyondTheFileSizeLimit(dir.path()) ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace
