#include <dataAccess/dataAccess.h>
#include <dataAccess/velmora/VelmoraSupport.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "tests/support/TempDir.h"
#include "tests/support/VelmoraTool.h"

namespace fs = std::filesystem;
namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct VelmoraTest : ::testing::Test {
  testsupport::TempDir dir;
  std::string base = dir.path();
  Velmora v;
  std::vector<VelmoraArchiveRequest> ok, err;
  VelmoraTest() {
    v.setPars("client", "sys", base);
    fs::create_directories(base + "/in/.usr");
    fs::create_directories(base + "/request");
  }
  std::string in(const std::string& name) const { return base + "/in/" + name; }
};

VelmoraArchiveRequest archReq(const std::string& id, const std::string& key) {
  VelmoraArchiveRequest r;
  r.setAll(key, "vol", "/d/" + id, "/d/" + id + ".lab", "/d/.usr/" + id + ".OK", "/d/.usr/" + id + ".ERR");
  return r;
}

TEST(VelmoraKeys, EncodingRoundTrips) {
  const struct {
    const char *plain, *encoded, *back;
  } cases[] = {{"A_B_C", "A&#95;B&#95;C", "A_B_C"}, {"ABC", "ABC", "ABC"},
               {"__", "&#95;&#95;", "__"},          {"a&#95;b", "a&#95;b", "a_b"},
               {"&#95_", "&#95&#95;", "&#95_"},     {"", "", ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(Velmora::encodeGlobalKey(c.plain), c.encoded) << c.plain;
    EXPECT_EQ(Velmora::decodeGlobalKey(c.encoded), c.back) << c.plain;
  }
}

TEST(VelmoraErrorLine, KeyThenTextOrMalformed) {
  using velmora::ErrorLine;
  const struct {
    const char* line;
    ErrorLine kind;
    const char *key, *text;
  } cases[] = {{"K&#95;1 no such file", ErrorLine::Entry, "K&#95;1", "no such file"},
               {"  K   spaced  text \r", ErrorLine::Entry, "K", "spaced  text "},
               {"", ErrorLine::Blank, "", ""},
               {"   \r", ErrorLine::Blank, "", ""},
               {"K", ErrorLine::Malformed, "", ""},
               {"K   ", ErrorLine::Malformed, "", ""},
               {"K\r", ErrorLine::Malformed, "", ""},
               {"K \r", ErrorLine::Malformed, "", ""}};
  for (const auto& c : cases) {
    std::string key, text;
    EXPECT_EQ(velmora::parseErrorLine(c.line, key, text), c.kind) << c.line;
    EXPECT_EQ(key, c.key) << c.line;
    EXPECT_EQ(text, c.text) << c.line;
  }
}

TEST(VelmoraArchReqsMap, RemovalByAnyKeyAndCollisions) {
  const VelmoraArchiveRequest a = archReq("a", "K"), b = archReq("b", "K");
  const std::string keys[] = {"K", a.getLabelFile(), a.getOkStatFile(), a.getErrStatFile()};
  for (const std::string& key : keys) {
    VelmoraArchReqsMap map;
    map.addEntry(a);
    ASSERT_EQ(map.size(), 4);
    for (const std::string& k : keys) EXPECT_EQ(map.fileConcerned(k), map.fileConcerned("K"));
    EXPECT_EQ(map.fileConcerned(a.getDataFile()), nullptr);
    map.removeEntry("unknown");
    map.removeEntry(key);
    EXPECT_EQ(map.size(), 0) << key;
  }
  // The first request keeps a shared key; each map is destroyed holding the rest.
  const struct {
    VelmoraArchiveRequest second;
    int added;
    std::string removeKey;
    int left;
    const char* ownerOfK;
  } cases[] = {{b, 7, b.getLabelFile(), 4, "/d/a"}, {b, 7, "K", 3, ""}, {a, 4, a.getOkStatFile(), 0, ""}};
  for (const auto& c : cases) {
    VelmoraArchReqsMap map;
    map.addEntry(a);
    map.addEntry(c.second);
    EXPECT_EQ(map.size(), c.added);
    map.removeEntry(c.removeKey);
    EXPECT_EQ(map.size(), c.left) << c.removeKey;
    VelmoraArchiveRequest* owner = map.fileConcerned("K");
    EXPECT_EQ(owner ? owner->getDataFile() : std::string(), c.ownerOfK);
  }
}

TEST_F(VelmoraTest, LabelFileBytesAndStatusFileNames) {
  const std::string longVolume(3000, 'v');  // label text beyond 2 KB is written whole
  const struct {
    std::string data, okFile, volume;
  } cases[] = {{in("x.fits"), in(".usr/x.fits.lab.OK"), "V_1"},
               {base + "/elsewhere/y", base + "/elsewhere/.usr/y.lab.OK", longVolume}};
  for (const auto& c : cases) {
    VelmoraArchiveRequest r;
    v.archive("CTX", "3600", "K_1", c.data, c.volume, r);
    const std::string label = in(fs::path(c.data).filename().string() + ".lab");
    EXPECT_EQ(
        slurp(label),
        "[LABELFILE]\nlabelfile_version | 2.0\n[CONTEXT]\ntop_level | CTX\n[ARCHIVE_OBJECT]\nobject | "
        "CTX\ntime_duration | 3600 | 3600\nglobal_key | K&#95;1\n[ARCHIVE_OBJECT_ATTRIBUTES]\nfilename | " +
            c.data + "\nvirtual_volume | " + c.volume + "\n\n");
    EXPECT_FALSE(fs::exists(label + ".tmp"));
    EXPECT_EQ(r.getLabelFile(), c.data + ".lab");
    EXPECT_EQ(r.getOkStatFile(), c.okFile);
    EXPECT_EQ(r.getErrStatFile(), c.okFile.substr(0, c.okFile.size() - 2) + "ERR");
    EXPECT_EQ(r.getGlobalKey() + r.getStatus(), "K_1");
  }
}

TEST_F(VelmoraTest, StatusFilesSortTheirRequests) {
  const struct {
    std::string data, status, file, text;
    bool ok;
  } cases[] = {{"a", "fine", "a.lab.OK", "fine", true},
               {"b", "tape full", "b.lab.ERR", "tape full", false},
               {"c", std::string(1024, 'x'), "c.lab.OK", std::string(1500, 'x'), true},
               {"d", "", "d.lab.ERR", "", false},
               {"e", "cut", "e.lab.OK", std::string("cut\0here", 8), true}};
  VelmoraArchReqsMap map;
  for (const auto& c : cases) {
    v.archive("C", "1", c.data, in(c.data), "V", map);
    dir.write("in/.usr/" + c.file, c.text);
  }
  dir.write("in/.usr/stray.OK", "not pending");
  v.checkArchStatus(true, map, ok, err);
  EXPECT_EQ(map.size(), 20);
  EXPECT_TRUE(fs::is_empty(in(".usr")));
  EXPECT_EQ(ok.size() + err.size(), 5u);
  for (const auto& c : cases) {
    const auto& list = c.ok ? ok : err;
    auto hit = std::find_if(list.begin(), list.end(), [&](auto& r) { return r.getGlobalKey() == c.data; });
    ASSERT_NE(hit, list.end()) << c.file;
    EXPECT_EQ(hit->getStatus(), c.status) << c.file;
    EXPECT_EQ(fs::exists(in(c.data + ".lab")), c.ok) << c.file;  // a failure drops its label
  }
  fs::remove(in(".usr"));
  EXPECT_THROW(v.checkArchStatus(false, map, ok, err), fs::filesystem_error);
  EXPECT_EQ(map.size(), 20);
}

TEST_F(VelmoraTest, RequestFileBytesNamesAndRefusals) {
  std::vector<VelmoraFileRequest> reqs = {
      {"K_1", "L1"}, {"K2", "L2"}, {"bad key", "L3"}, {"K4", "../x"}, {"K5", ""}};
  Velmora::PendingMap pending;
  std::string first, second;
  v.request("R", reqs, first, pending);
  EXPECT_EQ(slurp(first), "global_key | K&#95;1\nlink_name | L1\nglobal_key | K2\nlink_name | L2\n");
  EXPECT_EQ(pending.size(), 4u);
  EXPECT_EQ(pending.count(base + "/out/R/L1") + pending.count("K_1") + pending.count(base + "/out/R/L2"), 3u);
  for (size_t i = 0; i < reqs.size(); ++i)
    EXPECT_EQ(reqs[i].getStatus().rfind("refused", 0) == 0, i >= 2) << i;
  v.request("R", reqs, second, pending);
  const std::regex name(R"(R_\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}_(\d+)\.req)");
  std::smatch m1, m2;
  const std::string n1 = fs::path(first).filename(), n2 = fs::path(second).filename();
  ASSERT_TRUE(std::regex_match(n1, m1, name) && std::regex_match(n2, m2, name)) << n1 << " " << n2;
  EXPECT_EQ(std::stoul(m2[1]), std::stoul(m1[1]) + 1);
  EXPECT_EQ(fs::path(first).parent_path(), fs::path(base + "/request"));
  std::vector<VelmoraFileRequest> none;
  v.request("R", none, second, pending);
  EXPECT_EQ(second, "");
  EXPECT_EQ(pending.size(), 4u);
}

TEST_F(VelmoraTest, WholeCycleAgainstTheStandInTool) {
  testsupport::VelmoraTool tool(base);
  tool.refuse = {"K_c"};
  VelmoraArchReqsMap map;
  for (const std::string n : {"a", "b", "c"})
    v.archive("C", "1", "K_" + n, dir.write("in/" + n, n), "V", map);
  tool.runOnce();
  v.checkArchStatus(false, map, ok, err);
  ASSERT_EQ(ok.size() * 10 + err.size(), 21u);
  EXPECT_EQ(err[0].getStatus(), "refused K_c");
  for (auto* list : {&ok, &err})
    for (auto& r : *list) map.removeEntry(r.getOkStatFile());
  EXPECT_EQ(map.size(), 0);
  v.removeArchStatusFiles(err);
  EXPECT_FALSE(fs::exists(in("c")) || fs::exists(in(".usr/c.lab.ERR")));

  std::vector<VelmoraFileRequest> wanted = {{"K_a", "first"}, {"K_zz", "second"}}, delivered, failed;
  Velmora::PendingMap pending;
  std::string reqFile;
  v.request("R", wanted, reqFile, pending);
  bool done = true;
  v.checkReqStatus("R", reqFile, pending, delivered, failed, done);  // no output folder yet
  EXPECT_FALSE(done);
  tool.runOnce();
  for (int poll = 0; poll < 2; ++poll) {  // a second poll reports nothing twice
    v.checkReqStatus("R", reqFile, pending, delivered, failed, done);
    EXPECT_TRUE(done);
    ASSERT_EQ(delivered.size() * 10 + failed.size(), 11u);
  }
  EXPECT_EQ(delivered[0].getLinkName() + failed[0].getStatus(), "firstunknown global key");
  EXPECT_EQ(slurp(base + "/out/R/first"), "a");
  EXPECT_TRUE(fs::exists(reqFile + ".done") && fs::exists(fs::path(reqFile).replace_extension("done")));
  v.removeFileRequest("R", delivered[0], pending);
  EXPECT_FALSE(fs::exists(fs::symlink_status(base + "/out/R/first")));
  EXPECT_EQ(pending.size(), 2u);

  std::vector<VelmoraFileRequest> more = {{"K_b", "x"}};
  v.request("S", more, reqFile, pending);
  dir.write(fs::path(reqFile).filename().string().insert(0, "request/") + ".ERR", "K&#95;b lost\nbroken\n");
  try {
    v.checkReqErrorStatus("S", pending, failed);
    ADD_FAILURE() << "no exception";
  } catch (const ArcSysEx& e) {
    EXPECT_STREQ(e.what(),
                 "Velmora::checkReqFiles(): Illegal Error Status Message received from vel_mora: broken");
  }
  EXPECT_EQ(pending["K_b"].getStatus(), "lost");
  EXPECT_TRUE(fs::exists(reqFile + ".ERR"));
}

}  // namespace
