// Server commands of the archive client: request paths, archiving and retrieval.
#include <sys/stat.h>

#include <filesystem>

#include "tests/tobasCClient/TobasTest.h"

namespace {

struct Commands : ::testing::Test {
  ArchiveServer srv;
  const int p = srv.port();
  tobasSTATUS st{};
  const char* host = "127.0.0.1";
  TempDir dir;
  tobasBIG_BUF final;
  void TearDown() override { tobasFreeStatus(&st); }
  // The path of the GET request `call` sent (the whole request when it posted).
  std::string sent(const std::function<int()>& call) {
    srv.push({kOk});
    tobasFreeStatus(&st);
    EXPECT_EQ(0, call());
    return srv.lastPath();
  }
  int retrieve(const archivetest::Reply& reply, const std::string& target, float timeout = 5) {
    srv.push(reply);
    tobasFreeStatus(&st);
    return tobasRetrieve2File(host, p, timeout, "f", -1, "", "", target.c_str(), final, &st);
  }
};
#define SENT(call) sent([&] { return call; })

}  // namespace

TEST_F(Commands, RequestPaths) {
  EXPECT_EQ(tobasERR_HOST, tobasStatus(std::string(1000, 'h').c_str(), p, 5, &st));  // a host name too long
  EXPECT_EQ("STATUS", SENT(tobasStatus(host, p, 5, &st)));
  const size_t inUse = heapInUse();
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
  EXPECT_EQ(
      "RESTORE?filename=\"http://h/x%3Fy\"&mime_type=\"\"&filename=\"http%3A//h/x%3Fy\"&"
      "file_id=\"id\"&file_version=\"4\"&time_out=\"-1\"",
      SENT(tobasRestore(host, p, -1.0f, "http://h/x?y", "id", 4, &st)));
  EXPECT_EQ(
      "ARCHIVE?filename=\"file:/data/x%3A1.fits\"&mime_type=\"image/fits\"&no_versioning=\"1\"&"
      "wait=\"0\"&time_out=\"2\"",
      SENT(tobasArchive(host, p, 2.4f, "file:/data/x:1.fits", "image/fits", 1, 0, &st)));
  const std::string file = dir.write("x.fits", "SIMPLE  = T");
  const std::string post =
      "POST /ARCHIVE HTTP/1.0\r\nUser-agent: TOB/AS C-API\r\nContent-type: "
      "kest/archive-request\r\nContent-length: ";
  EXPECT_EQ(post + "11\r\nContent-disposition: attachment; filename=\"" + file +
                "\"; no_versioning=\"0\"; wait=\"1\"; time_out=\"-1\"\r\n\nSIMPLE  = T",
            SENT(tobasArchive(host, p, -1.0f, file.c_str(), "", 0, 1, &st)));
  EXPECT_EQ(post +
                "5\r\nContent-disposition: attachment; filename=\"mem%3Ax.fits\"; wait=\"0\"; "
                "no_versioning=\"1\"; time_out\"3\"\r\n\n12345",
            SENT(tobasArchiveFromMem(host, p, 2.6f, "mem:x.fits", "12345", 5, "image/fits", 1, 0, &st)));

  tobasPAR_ARRAY pars;
  tobasResetParArray(&pars);
  for (const auto& [par, val] : {std::pair("disk_id", "x:y"), {"flag", ""}, {"a=b", "v"}})
    tobasAddParAndVal(&pars, par, val);
  for (int i = 0; i < 8; ++i)  // and each time gives back what it took
    EXPECT_EQ("REMDISK&disk_id=\"x%3Ay\"&flag&a%3Db=\"v\"",
              SENT(tobasGenSendCmd(host, p, 5, tobasCMD_REMDISK, &pars, &st)));
  tobasFreeStatus(&st);
  for (int bad : {-1, 17})
    EXPECT_EQ(std::make_pair(tobasGenSendCmd(host, p, 5, bad, &pars, &st),
                             tobasGenRetrieve2File(host, p, 5, bad, &pars, "/nowhere", final, &st)),
              std::make_pair(int{tobasERR_UNKNOWN_CMD}, int{tobasERR_UNKNOWN_CMD}));
  EXPECT_HAS(logText(), "[ERROR] tobasGenRetrieve2File(): request too long or illegal parameters");
  srv.push({httpReply(400, statusDoc("FAILURE", "TOBAS_ER_DAPI:4003:ERROR: bad file"))});
  EXPECT_EQ(400, tobasStatus(host, p, 5, &st));
  EXPECT_EQ(TOBAS_ER_DAPI_BAD_FILE, st.errorCode);
  EXPECT_STREQ("FAILURE", st.status);
  EXPECT_EQ(1, tobasLogCodeInStatus(&st, "TOBAS_ER_DAPI"));
  EXPECT_EQ(0, tobasLogCodeInStatus(&st, "OTHER"));
  EXPECT_NO_GROWTH(inUse, 65536);  // a command holds no memory after it

  tobasResetParArray(&pars);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(0, tobasAddParAndVal(&pars, "p", "v"));
  EXPECT_EQ(tobasERR_INV_PARS, tobasAddParAndVal(&pars, "p", "v"));
  EXPECT_HAS(logText(), "[ERROR] Cannot add parameter p: the array is full or a text is too long");
  tobasResetParArray(&pars);
  EXPECT_EQ(tobasERR_INV_PARS, tobasAddParAndVal(&pars, "p", std::string(256, 'v').c_str()));
  tobasHUGE_BUF enc;
  EXPECT_EQ(0, tobasEncodeUrlVal("ftp://h/a b\"c?", 1, enc));
  EXPECT_STREQ("ftp://h/a b\"c%3F", enc);
  // A path or a local file that cannot be sent is refused without a request.
  const size_t requests = srv.requests().size();
  tobasFreeStatus(&st);
  EXPECT_EQ(tobasERR_INV_PARS, tobasLabel(host, p, 5, std::string(6000, '=').c_str(), &st));
  EXPECT_EQ(tobasERR_INV_PARS, st.errorCode);
  EXPECT_STREQ("FAILURE", st.status);
  tobasFreeStatus(&st);
  EXPECT_EQ(tobasERR_INV_PARS, tobasRetrieve2File(host, p, 5, std::string(6000, '=').c_str(), -1, "", "",
                                                  dir.file("x").c_str(), final, &st));
  tobasFreeStatus(&st);
  tobasInitStatus(&st);
  EXPECT_EQ(tobasERR_INV_PARS, tobasRestore(host, p, 5, std::string(300, 'u').c_str(), "id", 1, &st));
  EXPECT_EQ(tobasERR_INV_PARS, st.errorCode);
  EXPECT_HAS(logText(), "[ERROR] tobasRestore(): request too long or illegal parameters");
  EXPECT_EQ(tobasERR_FILE, tobasArchive(host, p, 5, dir.file("missing").c_str(), "", 0, 0, &st));
  EXPECT_STREQ("Invalid filename specified", st.message);
  const long fds = testsupport::openFdCount();  // a folder is no file to send, and is closed again
  EXPECT_EQ(tobasERR_FILE, tobasArchive(host, p, 5, dir.path().c_str(), "", 0, 0, &st));
  EXPECT_EQ(fds, testsupport::openFdCount());
  EXPECT_EQ(requests, srv.requests().size());
}

TEST_F(Commands, RetrievalIntoFileFolderAndWorkingFolder) {
  const std::string big = "bin\0"s + std::string(2 << 20, 'q');
  setenv("PWD", dir.path().c_str(), 1);  // this program's working folder is not used otherwise
  tobasPAR_ARRAY pars, both;
  for (auto* a : {&pars, &both}) tobasResetParArray(a), tobasAddParAndVal(a, "internal", "ngas.xml");
  tobasAddParAndVal(&pars, "host_id", "h:1");
  tobasAddParAndVal(&both, "file_id", "f");  // wins over the internal name
  const std::string in = dir.path(), named = dir.file("named.bin");
  const std::tuple<std::function<int()>, std::string, std::string, std::string> cases[] = {
      {[&] { return tobasRetrieve2File(host, p, 5, "f:1", 2, "proc", "a=b", in.c_str(), final, &st); }, big,
       "x.fits",
       "RETRIEVE?file_id=\"f%3A1\"&processing=\"proc\"&processing_pars=\"a%3Db\"&file_version=\"2\""},
      {[&] { return tobasRetrieve2File(host, p, 5, "--TOB--LOG--", -1, "", "", named.c_str(), final, &st); },
       "abc", "named.bin", "RETRIEVE?tob_log"},
      {[&] { return tobasRetrieve2File(host, p, 5, "--CFG--", -1, nullptr, nullptr, "", final, &st); }, "pwd",
       "x.fits", "RETRIEVE?cfg"},
      {[&] { return tobasGenRetrieve2File(host, p, 5, tobasCMD_RETRIEVE, &pars, in.c_str(), final, &st); },
       "int", "x.fits", "RETRIEVE?internal=\"ngas.xml\"&host_id=h:1"},
      {[&] { return tobasGenRetrieve2File(host, p, 5, tobasCMD_RETRIEVE, &both, in.c_str(), final, &st); },
       "fid", "x.fits", "RETRIEVE?file_id=\"f\""},
  };
  // Temporary names taken already are skipped and left alone; when all the hundred names a retrieval tries
  // (the first this process tries) are taken, it fails and writes nothing.
  std::string taken;
  for (int n = 0; n < 100; ++n)
    taken = dir.write(".x.fits.part-" + std::to_string(getpid()) + "-" + std::to_string(n), "not ours");
  srv.push({fileReply("x.fits", "data")});
  EXPECT_NE(0, std::get<0>(cases[0])());
  EXPECT_FALSE(std::filesystem::exists(dir.file("x.fits")));
  const size_t inUse = heapInUse();
  for (const auto& [call, body, file, path] : cases) {
    srv.push({fileReply("x.fits", body)});
    tobasFreeStatus(&st);
    ASSERT_EQ(0, call()) << path;
    EXPECT_EQ(dir.file(file), final);
    EXPECT_EQ(body, readFile(final));
    EXPECT_EQ(path, srv.lastPath());
    EXPECT_EQ("OK Successfully handled RETRIEVE command", std::string(st.status) + " " + st.message);
  }
  EXPECT_NO_GROWTH(inUse, 65536);  // a retrieval holds no memory after it
  EXPECT_EQ("not ours", readFile(taken));
}

TEST_F(Commands, RetrievalFailuresLeaveNoFile) {
  const std::string folder = dir.file("in"), cd = "Content-Disposition: attachment; ";
  mkdir(folder.c_str(), 0755);
  std::vector<std::string> replies;
  for (const std::string& d :
       {"filename=\"../out\""s, "filename=\"a/b\""s, "filename=\"/tmp/abs\""s, "filename=\"\""s,
        "filename=\".\""s, "filename=\"..\""s, "filename=\"a\0b\""s, "size=4"s, "xfilename=\"x\""s})
    replies.push_back(httpReply(200, "data", cd + d + "\r\n"));
  // Not a 200 reply, or a body of no announced length: refused, though the file is named.
  for (const char* line : {"HTTP/1.0 500 Err\r\n", "HTTP/1.0 200 OK\r\n"})
    replies.push_back(line + cd + "filename=\"x\"\r\nX-A: y content-length: 4\r\n\r\ndata");
  for (const std::string& r : replies) {
    std::snprintf(final, sizeof final, "left from an earlier call");
    EXPECT_EQ(tobasERR_INV_REPLY, retrieve({r}, folder)) << r;
    EXPECT_STREQ("", final);
    EXPECT_STREQ("FAILURE", st.status);
  }
  EXPECT_TRUE(listDir(folder).empty());
  EXPECT_HAS(logText(), "[ERROR] Reply names an illegal file to write: \"../out\"");
  EXPECT_HAS(logText(), "[ERROR] Retrieval refused by the server: 500 ");
  EXPECT_HAS(logText(), "[ERROR] Reply announces no length of the file");  // the last row
  EXPECT_HAS(logText(), "[ERROR] Reply names no file to write");
  EXPECT_EQ(400, retrieve({httpReply(400, statusDoc("FAILURE", "TOBAS_ER_RETRIEVE:4022:WARNING: not here"))},
                          folder));
  EXPECT_EQ(TOBAS_WA_BUF_DATA, st.errorCode);
  EXPECT_EQ(tobasERR_INV_TARG_FILE, retrieve({httpReply(200, "data")}, dir.file("no/such/dir/f")));
  EXPECT_HAS(logText(), "[ERROR] Cannot create target file: " + dir.file("no/such/dir/f"));
  EXPECT_EQ(std::vector<std::string>{"in"}, listDir(dir.path()));

  // A slow peer: the reply time-out runs from the last data received, not from the start (1.5 s).
  ASSERT_EQ(0, retrieve({fileReply("d", std::string(2000, 'd')), std::string::npos, 200}, folder, 1));
  EXPECT_EQ(std::string(2000, 'd'), readFile(final));
  ASSERT_EQ(0, remove(final));

  // Peers stopping in the header (30) or body (56), closing or holding on: no file left, an older one kept.
  const std::string full = "HTTP/1.0 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(100000, 'x');
  const std::tuple<size_t, bool, float, int> stops[] = {{30, false, 0, tobasERR_INV_REPLY},
                                                        {30, true, 0.3f, tobasERR_TIMEOUT},
                                                        {56, false, 0, tobasERR_RD_DATA},
                                                        {56, true, 0.3f, tobasERR_TIMEOUT}};
  dir.write("in/old", "old");
  for (const auto& [cut, hold, timeout, stat] : stops)
    for (const char* name : {"in/part", "in/old"})
      EXPECT_EQ(stat, retrieve({full, cut, 0, hold}, dir.file(name), timeout)) << cut << " " << hold;
  // A refused target: the rest of the body is awaited no longer than the time-out.
  EXPECT_EQ(tobasERR_INV_TARG_FILE, retrieve({full, 56, 0, true}, dir.file("no/such/dir/f"), 0.3f));
  EXPECT_EQ(std::vector<std::string>{"old"}, listDir(folder));
  EXPECT_EQ("old", readFile(folder + "/old"));
}
