// Server commands of the archive client: request paths, archiving and retrieval.
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tobasCClient/tobasCClientLib.h>

#include "tests/support/ArchiveServer.h"
#include "tests/support/TempDir.h"

using archivetest::ArchiveServer;
using archivetest::httpReply;
using archivetest::statusDoc;
using testsupport::TempDir;

namespace {

const std::string kOk = httpReply(200, statusDoc("SUCCESS", "done"));

struct Commands : ::testing::Test {
  ArchiveServer srv;
  tobasSTATUS st{};
  const char* host = "127.0.0.1";
  void TearDown() override { tobasFreeStatus(&st); }
  template <class F>
  std::string sent(F call) {
    srv.push(kOk);
    tobasFreeStatus(&st);
    EXPECT_EQ(0, call());
    return srv.lastPath();
  }
};
#define SENT(call) sent([&] { return call; })

}  // namespace

TEST_F(Commands, RequestPaths) {
  int p = srv.port();
  EXPECT_EQ("STATUS", SENT(tobasStatus(host, p, 5, &st)));
  EXPECT_EQ(1, tobasSuccess(&st));
  EXPECT_STREQ("done", st.message);
  EXPECT_STREQ("arcsrv1", st.hostId);
  EXPECT_EQ("CLONE?wait=\"1\"&file_id=\"f\"", SENT(tobasClone(host, p, 5, "f", -1, "", "", 1, &st)));
  EXPECT_EQ("CLONE?wait=\"0\"&file_id=\"a:b\"&file_version=3&disk_id=\"d=1\"&target_disk_id=\"t\"",
            SENT(tobasClone(host, p, 5, "a:b", 3, "d=1", "t", 0, &st)));
  EXPECT_EQ("EXIT?wait=\"1\"", SENT(tobasExit(host, p, 5, 1, &st)));
  EXPECT_EQ("LABEL?slot_id=\"s%3A1\"", SENT(tobasLabel(host, p, 5, "s:1", &st)));
  EXPECT_EQ("ONLINE?wait=\"0\"", SENT(tobasOnline(host, p, 5, 0, &st)));
  EXPECT_EQ("OFFLINE?wait=\"1\"&force=1", SENT(tobasOffline(host, p, 5, 1, 1, &st)));
  EXPECT_EQ("REGISTER?wait=\"1\"&path=\"/a?b=c\"", SENT(tobasRegister(host, p, 5, "/a?b=c", 1, &st)));
  EXPECT_EQ("REMDISK?disk_id=\"d%261\"&execute=0", SENT(tobasRemDisk(host, p, 5, "d&1", 0, &st)));
  EXPECT_EQ("REMFILE?disk_id=\"d\"&file_id=\"a%3Db\"&file_version=2&execute=1",
            SENT(tobasRemFile(host, p, 5, "d", "a=b", 2, 1, &st)));
  EXPECT_EQ("UNSUBSCRIBE?url=\"http%3A//h%3A1/x\"", SENT(tobasUnsubscribe(host, p, 5, "http://h:1/x", &st)));
  EXPECT_EQ("SUBSCRIBE?url=\"u\"&priority=3", SENT(tobasSubscribe(host, p, 5, "u", 3, "", nullptr, "", &st)));
  // Each optional parameter given replaces what was built before.
  EXPECT_EQ("&start_date=\"2007-07-12T10%3A30\"",
            SENT(tobasSubscribe(host, p, 5, "u", 3, "2007-07-12T10:30", nullptr, nullptr, &st)));
  EXPECT_EQ("&plug_in_pars=\"a%3Db\"", SENT(tobasSubscribe(host, p, 5, "u", 3, "d", "f", "a=b", &st)));

  tobasPAR_ARRAY pars;
  tobasResetParArray(&pars);
  tobasAddParAndVal(&pars, "disk_id", "x:y");
  tobasAddParAndVal(&pars, "flag", "");
  tobasAddParAndVal(&pars, "a=b", "v");
  EXPECT_EQ("REMDISK&disk_id=\"x%3Ay\"&flag&a%3Db=\"v\"",
            SENT(tobasGenSendCmd(host, p, 5, tobasCMD_REMDISK, &pars, &st)));
  tobasFreeStatus(&st);
  for (int bad : {-1, 17}) {
    EXPECT_EQ(tobasERR_UNKNOWN_CMD, tobasGenSendCmd(host, p, 5, bad, &pars, &st));
    tobasFreeStatus(&st);
  }

  // A server's error document fills the status.
  srv.push(httpReply(400, statusDoc("FAILURE", "TOBAS_ER_DAPI:4003:ERROR: bad file")));
  EXPECT_EQ(400, tobasStatus(host, p, 5, &st));
  EXPECT_EQ(TOBAS_ER_DAPI_BAD_FILE, st.errorCode);
  EXPECT_STREQ("FAILURE", st.status);
  EXPECT_EQ(1, tobasLogCodeInStatus(&st, "TOBAS_ER_DAPI"));
  EXPECT_EQ(0, tobasLogCodeInStatus(&st, "OTHER"));
}

TEST_F(Commands, ParameterArrayAndEncodingBounds) {
  tobasPAR_ARRAY pars;
  tobasResetParArray(&pars);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(0, tobasAddParAndVal(&pars, "p", "v"));
  EXPECT_EQ(tobasERR_INV_PARS, tobasAddParAndVal(&pars, "p", "v"));
  tobasResetParArray(&pars);
  EXPECT_EQ(tobasERR_INV_PARS, tobasAddParAndVal(&pars, "p", std::string(256, 'v').c_str()));

  tobasHUGE_BUF enc;
  EXPECT_EQ(0, tobasEncodeUrlVal("ftp://h/a b\"c?", 1, enc));
  EXPECT_STREQ("ftp://h/a b\"c%3F", enc);
  EXPECT_EQ(tobasERR_INV_PARS, tobasEncodeUrlVal(std::string(6000, ':').c_str(), 0, enc));

  // A path that cannot be built is refused without a request.
  EXPECT_EQ(tobasERR_INV_PARS, tobasLabel(host, srv.port(), 5, std::string(6000, '=').c_str(), &st));
  EXPECT_EQ(tobasERR_INV_PARS, st.errorCode);
  EXPECT_STREQ("FAILURE", st.status);
  EXPECT_TRUE(srv.requests().empty());
}

TEST_F(Commands, ArchivePullPushAndFromMemory) {
  TempDir dir;
  const std::string file = dir.write("x.fits", "SIMPLE  = T");
  int p = srv.port();
  EXPECT_EQ(
      "ARCHIVE?filename=\"file:/data/x%3A1.fits\"&mime_type=\"image/fits\"&no_versioning=\"1\"&wait=\"0\"&"
      "time_out=\"2\"",
      SENT(tobasArchive(host, p, 2.4f, "file:/data/x:1.fits", "image/fits", 1, 0, &st)));

  tobasFreeStatus(&st);
  srv.push(kOk);
  ASSERT_EQ(0, tobasArchive(host, p, -1.0f, file.c_str(), "", 0, 1, &st));
  EXPECT_EQ(
      "POST /ARCHIVE HTTP/1.0\r\nUser-agent: TOB/AS C-API\r\nContent-type: kest/archive-request\r\n"
      "Content-length: 11\r\nContent-disposition: attachment; filename=\"" +
          file + "\"; no_versioning=\"0\"; wait=\"1\"; time_out=\"-1\"\r\n\nSIMPLE  = T",
      srv.requests().back());
  tobasFreeStatus(&st);

  srv.push(kOk);
  ASSERT_EQ(0, tobasArchiveFromMem(host, p, 2.6f, "mem:x.fits", "12345", 5, "image/fits", 1, 0, &st));
  EXPECT_EQ(
      "POST /ARCHIVE HTTP/1.0\r\nUser-agent: TOB/AS C-API\r\nContent-type: kest/archive-request\r\n"
      "Content-length: 5\r\nContent-disposition: attachment; filename=\"mem%3Ax.fits\"; wait=\"0\"; "
      "no_versioning=\"1\"; time_out\"3\"\r\n\n12345",
      srv.requests().back());
  tobasFreeStatus(&st);

  EXPECT_EQ(
      "RESTORE?filename=\"http://h/x%3Fy\"&mime_type=\"\"&filename=\"http%3A//h/x%3Fy\"&file_id=\"id\"&"
      "file_version=\"4\"&time_out=\"-1\"",
      SENT(tobasRestore(host, p, -1.0f, "http://h/x?y", "id", 4, &st)));

  tobasFreeStatus(&st);
  EXPECT_EQ(tobasERR_FILE, tobasArchive(host, p, 5, dir.file("missing").c_str(), "", 0, 0, &st));
  EXPECT_STREQ("Invalid filename specified", st.message);
}

TEST_F(Commands, RetrievalIntoFileFolderAndWorkingFolder) {
  TempDir dir;
  std::string big(2 * 1024 * 1024 + 3, 'q');
  big[5] = '\0';
  setenv("PWD", dir.path().c_str(), 1);  // this program's working folder is not used otherwise
  tobasPAR_ARRAY pars;
  tobasResetParArray(&pars);
  tobasAddParAndVal(&pars, "internal", "ngas.xml");
  tobasAddParAndVal(&pars, "host_id", "h:1");
  const std::string in = dir.path(), named = dir.file("named.bin");
  const int p = srv.port();
  tobasBIG_BUF final;
  const struct {
    std::function<int()> call;
    std::string body, file, path;
  } cases[] = {
      {[&] { return tobasRetrieve2File(host, p, 5, "f:1", 2, "proc", "a=b", in.c_str(), final, &st); }, big,
       "x.fits",
       "RETRIEVE?file_id=\"f%3A1\"&processing=\"proc\"&processing_pars=\"a%3Db\"&file_version=\"2\""},
      {[&] { return tobasRetrieve2File(host, p, 5, "--TOB--LOG--", -1, "", "", named.c_str(), final, &st); },
       "abc", "named.bin", "RETRIEVE?tob_log"},
      {[&] { return tobasRetrieve2File(host, p, 5, "--CFG--", -1, nullptr, nullptr, "", final, &st); }, "pwd",
       "x.fits", "RETRIEVE?cfg"},
      {[&] { return tobasGenRetrieve2File(host, p, 5, tobasCMD_RETRIEVE, &pars, in.c_str(), final, &st); },
       "int", "x.fits", "RETRIEVE?internal=\"ngas.xml\"&host_id=h:1"},
  };
  [[maybe_unused]] const size_t inUse = mallinfo2().uordblks;
  for (const auto& c : cases) {
    srv.push(archivetest::fileReply("x.fits", c.body));
    tobasFreeStatus(&st);
    ASSERT_EQ(0, c.call()) << c.path;
    EXPECT_EQ(dir.file(c.file), final);
    EXPECT_EQ(c.body, archivetest::readFile(final));
    EXPECT_EQ(c.path, srv.lastPath());
    EXPECT_EQ("OK Successfully handled RETRIEVE command", std::string(st.status) + " " + st.message);
  }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these check leaks themselves
  EXPECT_LT(mallinfo2().uordblks, inUse + 65536);                    // a retrieval holds no memory after it
#endif
}

// Names a reply may give that lead out of the target folder, or name no file at all.
TEST_F(Commands, RetrievalRefusesFileNamesOutsideTheTargetFolder) {
  TempDir dir;
  const std::string folder = dir.file("in");
  mkdir(folder.c_str(), 0755);
  const char nul[] = "a\0b";
  const std::string log = getenv("TOBAS_LOG_FILE");
  const size_t logged = archivetest::readFile(log).size();
  for (const std::string& name :
       std::vector<std::string>{"../out", "a/b", "/tmp/abs", "", ".", "..", std::string(nul, 3)}) {
    srv.push(httpReply(200, "data", "Content-Disposition: attachment; filename=\"" + name + "\"\r\n"));
    tobasBIG_BUF final;
    EXPECT_EQ(tobasERR_INV_REPLY,
              tobasRetrieve2File(host, srv.port(), 5, "f", -1, "", "", folder.c_str(), final, &st))
        << name;
    EXPECT_STREQ("", final);
    tobasFreeStatus(&st);
  }
  EXPECT_EQ(std::vector<std::string>{"in"}, archivetest::listDir(dir.path()));
  EXPECT_TRUE(archivetest::listDir(folder).empty());
  EXPECT_NE(std::string::npos, archivetest::readFile(log).find(
                                   "[ERROR] Reply names an illegal file to write: \"../out\"", logged));
}

TEST_F(Commands, RetrievalFailuresLeaveNoFile) {
  TempDir dir;
  tobasBIG_BUF final;
  srv.push(httpReply(400, statusDoc("FAILURE", "TOBAS_ER_RETRIEVE:4022:WARNING: not here")));
  EXPECT_EQ(400, tobasRetrieve2File(host, srv.port(), 5, "f", -1, "", "", dir.path().c_str(), final, &st));
  EXPECT_EQ(TOBAS_WA_BUF_DATA, st.errorCode);
  tobasFreeStatus(&st);
  srv.push(httpReply(200, "data", "Content-Disposition: attachment; size=4\r\n"));  // no file name
  EXPECT_EQ(tobasERR_INV_REPLY,
            tobasRetrieve2File(host, srv.port(), 5, "f", -1, "", "", dir.path().c_str(), final, &st));
  EXPECT_STREQ("FAILURE", st.status);
  srv.push(httpReply(200, "data"));
  EXPECT_EQ(tobasERR_INV_TARG_FILE, tobasRetrieve2File(host, srv.port(), 5, "f", -1, "", "",
                                                       dir.file("no/such/dir/f").c_str(), final, &st));

  // A slow peer: the reply time-out runs from the last data received, not from the start.
  srv.push(archivetest::Reply{archivetest::fileReply("d", std::string(2000, 'd')), std::string::npos,
                              200});  // 1.5 s
  EXPECT_EQ(0, tobasRetrieve2File(host, srv.port(), 1, "f", -1, "", "", dir.path().c_str(), final, &st));
  EXPECT_EQ(std::string(2000, 'd'), archivetest::readFile(dir.file("d")));
  ASSERT_EQ(0, remove(final));

  // Peers that stop within the header or the body, closing or holding the connection. Without a
  // reply time-out a closed connection ends the call at once; nothing is left under the final
  // name (an older file of that name stays as it was), nor any temporary file.
  const std::string full = "HTTP/1.0 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(100000, 'x');
  const struct {
    size_t cut;
    bool hold;
    float timeout;
    int stat;
  } stops[] = {{30, false, 0, tobasERR_INV_REPLY},
               {30, true, 0.3f, tobasERR_TIMEOUT},
               {full.size() - 99988, false, 0, tobasERR_RD_DATA},
               {full.size() - 99988, true, 0.3f, tobasERR_TIMEOUT}};
  archivetest::HangGuard guard(30);
  dir.write("old", "old");
  for (const auto& s : stops) {
    archivetest::Reply cut{full};
    cut.cutAfter = s.cut;
    cut.holdOpen = s.hold;
    for (const char* name : {"part", "old"}) {
      srv.push(cut);
      EXPECT_EQ(s.stat, tobasRetrieve2File(host, srv.port(), s.timeout, "f", -1, "", "",
                                           dir.file(name).c_str(), final, &st))
          << s.cut << " " << s.hold;
      tobasFreeStatus(&st);
    }
    EXPECT_EQ((std::vector<std::string>{"old"}), archivetest::listDir(dir.path()));
    EXPECT_EQ("old", archivetest::readFile(dir.file("old")));
  }
}
