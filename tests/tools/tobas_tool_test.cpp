// The archive client's command-line tool as a child process: its options, commands, output and exit status.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <tuple>

#include "tests/tobasCClient/TobasTest.h"

namespace {

using ToolRun = std::tuple<int, std::string, std::string>;  // exit status (-1: killed), out, err

// Runs the tool with `args` in `cwd` (PWD set to it), standard error into `errTo` if given.
ToolRun tool(const std::string& args, const std::string& cwd = "", const std::string& errTo = "") {
  TempDir io;
  const std::string cmd = (cwd.empty() ? "" : "cd " + cwd + " && PWD=" + cwd + " ") +
                          "timeout 30 " TOBAS_TOOL " " + args + " >" + io.file("out") + " 2>" +
                          (errTo.empty() ? io.file("err") : errTo);
  const int st = system(cmd.c_str());
  return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, readFile(io.file("out")), readFile(io.file("err"))};
}

TEST(TobasTool, InformationWrongCommandLinesCommandsAndTheirRequests) {
  const std::string at1 = "-host 127.0.0.1 -port 1 -cmd ";
  std::string tooMany = at1 + "INIT";
  for (int i = 0; i < 17; ++i) tooMany += " -par p" + std::to_string(i);
  const std::tuple<std::string, int, std::string> usage[] = {
      {"-help", 0, "-par <Parameter> [-val <Val>]"},
      {"-version", 0, ""},
      {"-license", 0, "Redistribution"},
      {"", 2, "no command"},
      {"-bogus", 2, "unknown option: -bogus"},
      {"-host", 2, "-host needs a value"},
      {"-host 127.0.0.1 -port 99999 -cmd STATUS", 2, "invalid port (1-65535): 99999"},
      {"-cmd STATUS", 2, "no server given"},
      {"-servers 127.0.0.1:1 -host 127.0.0.1 -cmd STATUS", 2, "exclude each other"},
      {at1 + "FROBNICATE", 2, "unknown command: FROBNICATE"},
      {at1 + "STATUS -val x", 2, "-val must follow -par"},
      {at1 + "STATUS -timeOut soon", 2, "invalid time-out: soon"},
      {at1 + "STATUS -target /tmp", 2, "-target only goes with RETRIEVE"},
      {tooMany, 2, "more than 16 parameters"},
      {at1 + "LABEL -par slot_id", 2, "LABEL needs -par slot_id"},
      {at1 + "OFFLINE -par force -val yes", 2, "parameter force: not a number: yes"},
      {at1 + "RETRIEVE -par file_version -val 2", 2, "RETRIEVE needs -par file_id"},
      {at1 + "STATUS --continue", 2, "-continue only goes with RETRIEVE"},
      {at1 + "ARCHIVE -retry 2 -par filename -val x", 2, "-retry only goes with RETRIEVE and STATUS"},
      {at1 + "STATUS --retry -1", 2, "invalid retry count (0-1000): -1"},
      {at1 + "STATUS -retry-max-time 5", 2, "-retry-max-time needs -retry"},
      {at1 + "STATUS -retry 1 -retry-max-time 2147484", 2, "retry time in seconds (0-2147483): 2147484"},
      {at1 + "RETRIEVE -checksum sha1:ab", 2,
       "invalid checksum: sha1:ab (<Method>:<Value>, the method one of"},
      {at1 + "RETRIEVE --checksum md5", 2, "invalid checksum: md5 "},
  };
  for (const auto& [args, want, message] : usage) {
    const auto [status, out, err] = tool(args);
    EXPECT_EQ(want, status) << args;
    EXPECT_HAS(want ? err : out, message);
    EXPECT_EQ(want != 0, err.find("try 'tobasCClient -help'") != std::string::npos) << err;
  }

  ArchiveServer srv;
  const std::string at = "-host 127.0.0.1 -port " + std::to_string(srv.port()) + " ";
  auto status = [](const std::string& s, const std::string& m) { return httpReply(200, statusDoc(s, m)); };
  const struct {
    std::string args, reply;
    int status;
    std::string path, shown;  // shown: on standard output or error
  } cases[] = {
      {at + "-cmd status -status -auth c2VjcmV0", status("SUCCESS", "all well"), 0, "STATUS",
       "\nError Code:     0\nHost ID:        arcsrv1\nMessage:        all well\n"
       "Status:         SUCCESS\nState:          ONLINE\nSub-State:      IDLE\nTOB/AS Version: v3.1\n\n"},
      // Own parameters take the command's path, others (and INIT) the generic form; failures exit 1.
      {at + "-cmd CLONE -noWait -par file_id -val f -par disk_id -val d=1", status("SUCCESS", "cloned"), 0,
       "CLONE?wait=\"0\"&file_id=\"f\"&disk_id=\"d=1\"", ""},
      {at + "-cmd ARCHIVE -timeOut 2.5 -par filename -val file:x -par mime_type -val a/b",
       status("SUCCESS", ""), 0,
       "ARCHIVE?filename=\"file:x\"&mime_type=\"a/b\"&no_versioning=\"0\"&wait=\"1\"&time_out=\"3\"", ""},
      {at + "-cmd INIT -par a -val b=c -par flag -d", status("SUCCESS", "ok"), 0, "INIT&a=\"b%3Dc\"&flag",
       "<Status Date="},
      {at + "-cmd ARCHIVE -timeOut 2.5 -par filename -val file:x -par tag -val t", status("SUCCESS", ""), 0,
       "ARCHIVE?filename=\"file:x\"&mime_type=\"\"&no_versioning=\"0\"&wait=\"1\"&time_out=\"3\"&tag=\"t\"",
       ""},
      {at + "-cmd REGISTER -par path -val /data", status("FAILURE", "disk is full"), 1,
       "REGISTER?wait=\"1\"&path=\"/data\"", "REGISTER failed: disk is full"},
      {at + "-cmd ONLINE", httpReply(400, "no such command"), 1, "ONLINE?wait=\"1\"", "ONLINE failed"},
      {"-servers 127.0.0.1:" + std::to_string(ArchiveServer().port()) +
           ",127.0.0.1:" + std::to_string(srv.port()) + " -cmd STATUS -status",
       status("SUCCESS", "second server"), 0, "STATUS", "second server"},
  };
  for (const auto& c : cases) {
    srv.push({c.reply});
    const auto [status, out, err] = tool(c.args);
    EXPECT_EQ(c.status, status) << c.args << ": " << err;
    EXPECT_EQ(c.path, srv.lastPath());
    EXPECT_HAS(out + err, c.shown);
  }
  EXPECT_HAS(srv.requests().front(), "Authorization: Basic%20c2VjcmV0");
}

// Into a named file, the working folder, a target folder (on a terminal: with progress); the path is printed.
TEST(TobasTool, Retrieval) {
  ArchiveServer srv;
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) GTEST_SKIP() << "no pseudo-terminal";
  const int tty = open(ptsname(master), O_RDWR | O_NOCTTY);  // keeps the terminal up between runs
  const std::string body(3 << 20, 'r'),
      at = "-host 127.0.0.1 -port " + std::to_string(srv.port()) + " -cmd RETRIEVE -par file_id -val X:1";
  for (const auto& [target, written, onTty] :
       {std::tuple{"work/named", "named", false}, {"", "z.fits", false}, {"work", "z.fits", true}}) {
    TempDir root;
    const std::string work = root.file("work");
    ASSERT_EQ(0, mkdir(work.c_str(), 0700));
    srv.push({fileReply("z.fits", body), std::string::npos, onTty ? size_t{256} << 10 : 0});
    const auto [status, out, err] =
        tool(at + (*target ? " -target " + root.file(target) : ""), work, onTty ? ptsname(master) : "");
    EXPECT_EQ(0, status) << err;
    EXPECT_EQ(std::vector<std::string>{written}, listDir(work));
    EXPECT_EQ(work + "/" + written + "\n", out);
    EXPECT_EQ(body, readFile(work + "/" + written));
  }
  EXPECT_EQ("RETRIEVE?file_id=\"X%3A1\"", srv.lastPath());
  // After a 503, the rest of the part; checked. A mismatch fails and leaves nothing, not even a part.
  TempDir root;
  root.write("named.part", "he");
  srv.push({httpReply(503, "busy")});
  srv.push({"HTTP/1.0 206 Partial\r\nContent-Range: bytes 2-4/5\r\nContent-Length: 3\r\n\r\nllo"});
  auto [status, out, err] = tool(at + " -target " + root.file("named") +
                                 " --continue -retry 1 --checksum md5:5d41402abc4b2a76b9719d911017c592");
  EXPECT_EQ(0, status) << err;
  EXPECT_EQ("hello", readFile(root.file("named")));
  EXPECT_HAS(srv.requests().back(), "Range: bytes=2-");
  srv.push({fileReply("z.fits", "hellO")});
  std::tie(status, out, err) =
      tool(at + " -target " + root.file("bad") + " -continue -checksum crc32:0x3610a686");
  EXPECT_EQ(1, status);
  EXPECT_HAS(err, "RETRIEVE failed");
  EXPECT_EQ(std::vector<std::string>{"named"}, listDir(root.path()));
  std::string shown;
  char buf[4096];
  pollfd p{master, POLLIN, 0};
  for (ssize_t n; poll(&p, 1, 100) > 0 && (n = read(master, buf, sizeof buf)) > 0;)
    shown.append(buf, static_cast<size_t>(n));
  close(tty);
  close(master);
  EXPECT_HAS(shown, " MiB in 1 s");
  EXPECT_EQ(std::string::npos, shown.find("tobasCClient: 0.0 MiB")) << shown;
}

}  // namespace
