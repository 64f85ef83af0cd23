#include <dataAccess/dataAccess.h>
#include <dataAccess/velmora/VelmoraSupport.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>
#include <tuple>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/VelmoraTool.h"

// Request file names hold the time of day: a fixed clock lets a test predict them as an attacker would.
static std::atomic<const timeval*> fixedClock{nullptr};
extern "C" int gettimeofday(timeval* __restrict tv, void* __restrict) noexcept {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  *tv = fixedClock ? *fixedClock.load() : timeval{now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

namespace fs = std::filesystem;
namespace {

using testsupport::readFile;

struct VelmoraTest : ::testing::Test {
  testsupport::TempDir dir;
  std::string base = dir.path();
  testsupport::VelmoraTool tool{base};
  Velmora v;
  VelmoraArchReqsMap map;
  std::vector<VelmoraArchiveRequest> ok, err;
  void SetUp() override { v.setPars("c", "s", base), tool.runOnce(); }  // the tool makes its folders
  std::string in(const std::string& name) const { return base + "/in/" + name; }
};

TEST(VelmoraKeys, EncodingRoundTripsErrorFilesAndTheRequestMap) {
  const char* coded[][3] = {{"A_B_C", "A&#95;B&#95;C", "A_B_C"}, {"a&#95;b_", "a&#95;b&#95;", "a_b_"}};
  for (const auto& k : coded)
    EXPECT_EQ(Velmora::encodeGlobalKey(k[0]) + Velmora::decodeGlobalKey(k[1]), std::string(k[1]) + k[2]);
  std::vector<velmora::ErrorEntry> got;  // entries in order, blank lines skipped, the first malformed stops
  std::string bad;
  ASSERT_FALSE(
      velmora::parseErrorFile("K&#95;1 no such file\n K  two  words \r\n   \r\n\nK \r\nL x", got, bad));
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].key + "|" + got[0].text + "|" + got[1].key + "|" + got[1].text + "|" + bad,
            "K&#95;1|no such file|K|two  words |K \r");
  EXPECT_EQ(std::to_string(velmora::parseErrorFile("K   ", got, bad)) + bad + std::to_string(got.size()),
            "0K   2");
  EXPECT_TRUE(velmora::readRegularFile("/proc/self/mem", 8, bad) && bad.empty());  // its read fails at once

  // Removal by any key, and keys shared; each map is destroyed holding requests: every one freed once.
  VelmoraArchiveRequest a, b;  // b shares a's global key
  a.setAll("K", "vol", "/d/a", "/d/a.lab", "/d/.usr/a.OK", "/d/.usr/a.ERR");
  b.setAll("K", "vol", "/d/b", "/d/b.lab", "/d/.usr/b.OK", "/d/.usr/b.ERR");
  const std::string keys[] = {"K", a.getLabelFile(), a.getOkStatFile(), a.getErrStatFile(), "unknown"};
  // second request, key removed, entries after adding and after removal, owner of "K" after
  const std::tuple<VelmoraArchiveRequest, std::string, int, int, const char*> cases[] = {
      {a, keys[0], 4, 0, ""},     {a, keys[1], 4, 0, ""},
      {a, keys[2], 4, 0, ""},     {a, keys[3], 4, 0, ""},
      {a, keys[4], 4, 4, "/d/a"}, {b, b.getLabelFile(), 7, 4, "/d/a"},
      {b, "K", 7, 3, ""},         {b, b.getErrStatFile(), 7, 4, "/d/a"}};
  testsupport::LogCapture log;
  for (const auto& [second, removeKey, added, left, ownerOfK] : cases) {
    VelmoraArchReqsMap map;
    map.addEntry(a);
    map.addEntry(second);
    EXPECT_EQ(map.size(), added);
    for (const std::string& k : keys)
      EXPECT_EQ(map.fileConcerned(k), k == "unknown" ? nullptr : map.fileConcerned("K"));
    EXPECT_EQ(map.fileConcerned(a.getDataFile()), nullptr);
    map.removeEntry(removeKey);
    EXPECT_EQ(map.size(), left) << removeKey;
    VelmoraArchiveRequest* owner = map.fileConcerned("K");
    EXPECT_EQ(owner ? owner->getDataFile() : "", ownerOfK) << removeKey;
  }
  // Every removal, by the test or at a map's end, logs its reference key, and each key it looks up.
  EXPECT_EQ(log.count("Deleted all entries in connection with reference key: ") * 100 +
                log.count("Locating/deleting vel_mora Archive Request with key: /d/a.lab\n"),
            1108u);
}

TEST_F(VelmoraTest, LabelFileAndStatusFiles) {
  VelmoraArchiveRequest r;
  const std::string victim = dir.write("victim", "keep");
  for (const std::string& name : {in("y.lab"), in("y.lab.tmp")}) fs::create_symlink(victim, name);
  testsupport::LogCapture log;
  v.archive("C X", "3600", "K_1", base + "/elsewhere/y", std::string(3000, 'v'), r);   // beyond 2 KB
  EXPECT_EQ(readFile(victim) + std::to_string(fs::is_symlink(in("y.lab"))), "keep0");  // not written through
  EXPECT_EQ(
      readFile(in("y.lab")),
      "[LABELFILE]\nlabelfile_version | 2.0\n[CONTEXT]\ntop_level | C X\n[ARCHIVE_OBJECT]\nobject | C X\n"
      "time_duration | 3600 | 3600\nglobal_key | K&#95;1\n[ARCHIVE_OBJECT_ATTRIBUTES]\nfilename | " +
          base + "/elsewhere/y\nvirtual_volume | " + std::string(3000, 'v') + "\n\n");
  EXPECT_EQ(r.getLabelFile() + r.getOkStatFile() + r.getErrStatFile() + r.getGlobalKey(),
            base + "/elsewhere/y.lab" + base + "/elsewhere/.usr/y.lab.OK" + base +
                "/elsewhere/.usr/y.lab.ERR" + "K_1");
  EXPECT_EQ(log.count("DEBUG [ <t> ] Contents of Label File: "), 1u);
  for (int field = 0; field < 5; ++field) {  // a line feed in any value would inject label lines
    std::string f[] = {"C", "1", "K", in("z"), "V"};
    f[field] += "\nvirtual_volume | evil";
    VelmoraArchiveRequest fresh;
    v.archive(f[0], f[1], f[2], f[3], f[4], fresh).archive(f[0], f[1], f[2], f[3], f[4], map);
    EXPECT_EQ(fresh.getStatus().substr(0, 8) + std::to_string(map.size()), "refused:0");
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(in("")), {}) * 100 + log.count(" ERROR ["), 310);
  // key, status file, its text ("<fifo>", "<link>": not a regular file), status read, sorted as (-: not)
  const std::string cases[][5] = {{"a", "a.lab.OK", "fine", "fine", "1"},
                                  {"b", "b.lab.ERR", "tape full", "tape full", ""},
                                  {"c", "c.lab.OK", std::string(1500, 'x'), std::string(1024, 'x'), "1"},
                                  {"d", "d.lab.ERR", "", "", ""},
                                  {"e", "e.lab.OK", std::string("cut\0here", 8), "cut", "1"},
                                  {"f", "f.lab.ERR", "<fifo>", "", "-"},
                                  {"g", "g.lab.OK", "<link>", "", "-"}};
  for (const auto& c : cases) {
    v.archive("C", "1", c[0], in(c[0]), "V", map);
    if (c[2] == "<fifo>") mkfifo(in(".usr/" + c[1]).c_str(), 0600);
    if (c[2] == "<link>") fs::create_symlink(dir.write("secret", "secret"), in(".usr/" + c[1]));
    if (c[2][0] != '<') dir.write("in/.usr/" + c[1], c[2]);
  }
  dir.write("in/.usr/stray.OK", "not pending");
  v.checkArchStatus(true, map, ok, err);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Found matching status file: " + in(".usr/a.lab.OK") +
                           ". Loading it.\n"));
  EXPECT_EQ(log.count("Found matching status file"), 7u);  // not for the stray file
  EXPECT_TRUE(fs::is_empty(in(".usr")));
  EXPECT_EQ(ok.size() * 10 + err.size() + map.size() * 100, 2832u);
  for (const auto& c : cases) {
    const auto& list = c[4] == "1" ? ok : err;
    auto hit = std::find_if(list.begin(), list.end(), [&](auto& r) { return r.getGlobalKey() == c[0]; });
    ASSERT_EQ(hit != list.end(), c[4] != "-") << c[1];
    EXPECT_EQ(c[4] == "-" ? "" : hit->getStatus(), c[3]) << c[1];
    EXPECT_EQ(fs::exists(in(c[0] + ".lab")), !c[4].empty()) << c[1];  // a failure drops its label
  }
  fs::remove(in(".usr"));
  EXPECT_THROW(v.checkArchStatus(false, map, ok, err), fs::filesystem_error);
}

TEST_F(VelmoraTest, SubmitterAndPollerShareMapAndIndex) {
  const unsigned n = 150;
  std::thread submitter([&] {
    for (unsigned i = 0; i < n; ++i, v.getUniqueIndex())
      v.archive("C", "1", "K" + std::to_string(i), dir.write("in/f" + std::to_string(i), "x"), "V", map);
  });
  unsigned polls = 0;
  for (size_t finished = 0; finished < n; finished += ok.size(), ++polls, v.getUniqueIndex(), ok.clear()) {
    tool.runOnce();
    v.checkArchStatus(false, map, ok, err);
    for (const auto& r : ok) map.removeEntry(r.getGlobalKey());
    v.removeArchStatusFiles(ok);
  }
  submitter.join();
  EXPECT_EQ(map.size() + err.size(), 0u);
  EXPECT_EQ(v.getUniqueIndex(), n + polls + 1);
}

TEST_F(VelmoraTest, WholeCycleAgainstTheStandInTool) {
  for (const std::string n : {"a", "b", "c"})  // c has no data file: the tool refuses it
    v.archive("C", "1", "K_" + n, n == "c" ? in(n) : dir.write("in/" + n, n), "V", map);
  tool.runOnce();
  v.checkArchStatus(false, map, ok, err);
  ASSERT_EQ(ok.size() * 10 + err.size(), 21u);
  for (auto* list : {&ok, &err})
    for (auto& r : *list) map.removeEntry(r.getOkStatFile());
  EXPECT_EQ(err[0].getStatus() + std::to_string(map.size()), "no file K_c0");

  std::vector<VelmoraFileRequest> wanted = {
      {"K_a", "first"}, {"K_zz", "second"}, {"a b", "L"}, {"K", "../x"}};
  std::vector<VelmoraFileRequest> none, delivered, failed, again;
  Velmora::PendingMap pending;
  std::string reqFile, empty = "x";
  const std::string victim = dir.write("victim", "keep"),
                    planted = base + "/request/R_2023-11-14T22:13:20.123456_1.req";
  for (const std::string& name : {planted, planted + ".tmp"}) fs::create_symlink(victim, name);
  const timeval at{1700000000, 123456};
  fixedClock = &at;
  v.request("R", wanted, reqFile, pending).request("R", none, empty, pending);
  fixedClock = nullptr;
  EXPECT_EQ(
      reqFile + readFile(victim) + readFile(reqFile),
      planted + "keepglobal_key | K&#95;a\nlink_name | first\nglobal_key | K&#95;zz\nlink_name | second\n");
  EXPECT_EQ(pending.size() * 10 + pending.count(base + "/out/R/first") + pending.count("K_zz"), 42u);
  EXPECT_EQ(wanted[2].getStatus().substr(0, 7) + wanted[3].getStatus().substr(0, 7) + readFile(empty) +
                std::to_string(fs::exists(empty)),
            "refusedrefused1");                                      // a request of no file is written too
  for (const std::string name : {"", ".", "..", "../x", "a\x7f"}) {  // would leave request/ and out/
    std::vector<VelmoraFileRequest> one = {{"K_a", "l"}};
    v.request(name, one, empty, pending);
    EXPECT_EQ(one[0].getStatus().substr(0, 8) + empty + std::to_string(pending.size()), "refused:4") << name;
  }
  bool done = true;
  v.checkReqStatus("R", reqFile, pending, delivered, failed, done);  // no output folder yet
  EXPECT_FALSE(done);
  tool.runOnce();
  v.checkReqStatus("R", reqFile, pending, delivered, failed, done);
  ASSERT_EQ(delivered.size() * 10 + failed.size() + done * 100, 111u);
  v.checkReqStatus("R", reqFile, pending, again, none, done);  // fresh vectors; the failure was read
  ASSERT_EQ(again.size() * 10 + none.size() + done * 100, 110u);
  EXPECT_EQ(delivered[0].getLinkName() + failed[0].getStatus() + readFile(base + "/out/R/first"),
            "firstunknown global keya");
  EXPECT_TRUE(fs::exists(reqFile + ".done") && fs::exists(fs::path(reqFile).replace_extension("done")));
  VelmoraFileRequest outside("K", "../../victim"), plain("K", "victim");
  v.removeFileRequest("R", delivered[0], pending).removeFileRequest("R", outside, pending);
  v.removeFileRequest("..", plain, pending);  // both would be <base>/victim
  EXPECT_EQ(pending.size() * 10 + fs::exists(fs::symlink_status(base + "/out/R/first")) + fs::exists(victim),
            21u);

  wanted = {{"K_b", "x"}};
  v.request("S", wanted, reqFile, pending);
  // The index counts on per object: the first request files had 1 and 2.
  EXPECT_TRUE(std::regex_match(
      reqFile, std::regex(base + R"(/request/S_\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}_3\.req)")))
      << reqFile;
  mkfifo((reqFile + ".ERR").c_str(), 0600);
  v.checkReqStatus("S", reqFile, pending, delivered, failed, done);  // not waited on, nor renamed
  EXPECT_TRUE(fs::is_fifo(reqFile + ".ERR") && fs::remove(reqFile + ".ERR"));
  std::ofstream(reqFile + ".ERR") << "K&#95;b lost\nK&#95;b again\nbroken\n";
  testsupport::LogCapture log;
  try {
    v.checkReqErrorStatus("S", pending, failed);
    ADD_FAILURE() << "no exception";
  } catch (const ArcSysEx& e) {
    EXPECT_STREQ(e.what(),
                 "Velmora::checkReqFiles(): Illegal Error Status Message received from vel_mora: broken");
    EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] " + std::string(e.what()) + "\n"));  // logged as thrown
  }
  EXPECT_EQ(pending["K_b"].getStatus() + std::to_string(fs::exists(reqFile + ".ERR")), "lost1");
}

}  // namespace
