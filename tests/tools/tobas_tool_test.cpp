// The archive client's command-line tool, run as a child process against the scripted archive
// server: its options, the table of commands, what it prints and its exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/ArchiveServer.h"
#include "tests/support/TempDir.h"

namespace {

using archivetest::ArchiveServer;
using archivetest::httpReply;
using archivetest::readFile;
using archivetest::statusDoc;
using testsupport::TempDir;

struct ToolRun {
  int status = -1;  // -1: did not exit by itself
  std::string out, err;
};

// Runs the tool through the shell with `args` in `cwd` (PWD set to it) and waits for it; its standard
// error goes to the file `errTo` when one is given. A run of over 30 s is killed (status 124).
ToolRun tool(const std::string& args, const std::string& cwd = "", const std::string& errTo = "") {
  TempDir io;
  const std::string cmd = (cwd.empty() ? "" : "cd " + cwd + " && PWD=" + cwd + " ") +
                          "timeout 30 " TOBAS_TOOL " " + args + " >" + io.file("out") + " 2>" +
                          (errTo.empty() ? io.file("err") : errTo);
  const int st = std::system(cmd.c_str());
  ToolRun r;
  if (WIFEXITED(st)) r.status = WEXITSTATUS(st);
  r.out = readFile(io.file("out"));
  r.err = readFile(io.file("err"));
  return r;
}

struct TobasTool : ::testing::Test {
  ArchiveServer srv;
  ToolRun run(const std::string& args, const std::string& cwd = "", const std::string& errTo = "") {
    return tool("-host 127.0.0.1 -port " + std::to_string(srv.port()) + " " + args, cwd, errTo);
  }
};

TEST(TobasToolUsage, InformationAndWrongCommandLines) {
  ToolRun help = tool("-help");
  EXPECT_EQ(0, help.status);
  for (const char* word :
       {"SYNOPSIS", "RETRIEVE", "-servers", "-par <Parameter> [-val <Val>]", "EXIT STATUS"})
    EXPECT_NE(std::string::npos, help.out.find(word)) << word;
  EXPECT_EQ(0, tool("-version").status);
  EXPECT_NE(std::string::npos, tool("-license").out.find("Redistribution"));

  const std::string at1 = "-host 127.0.0.1 -port 1 -cmd ";
  std::string tooMany = at1 + "INIT";
  for (int i = 0; i < 17; ++i) tooMany += " -par p" + std::to_string(i);
  const std::vector<std::pair<std::string, std::string>> wrong{
      {"", "no command"},
      {"-bogus", "unknown option: -bogus"},
      {"-host", "-host needs a value"},
      {"-host 127.0.0.1 -port 99999 -cmd STATUS", "invalid port: 99999"},
      {"-cmd STATUS", "no server given"},
      {"-servers 127.0.0.1:1 -host 127.0.0.1 -cmd STATUS", "exclude each other"},
      {at1 + "FROBNICATE", "unknown command: FROBNICATE"},
      {at1 + "STATUS -val x", "-val must follow -par"},
      {at1 + "STATUS -timeOut soon", "invalid time-out: soon"},
      {at1 + "STATUS -target /tmp", "-target only goes with RETRIEVE"},
      {tooMany, "more than 16 parameters"},
      {at1 + "LABEL -par slot_id", "LABEL needs -par slot_id"},
      {at1 + "OFFLINE -par force -val yes", "parameter force: not a number: yes"},
      {at1 + "RETRIEVE -par file_version -val 2", "RETRIEVE needs -par file_id"},
  };
  for (const auto& [args, message] : wrong) {
    ToolRun r = tool(args);
    EXPECT_EQ(2, r.status) << message;
    EXPECT_NE(std::string::npos, r.err.find(message)) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("try 'tobasCClient -help'")) << r.err;
  }
}

TEST_F(TobasTool, CommandsAndTheirRequests) {
  auto status = [](const std::string& s, const std::string& m) { return httpReply(200, statusDoc(s, m)); };
  struct Case {
    std::string args, reply;
    int status;
    std::string path, shown;  // shown: on standard output or error
  };
  const Case cases[] = {
      {"-cmd status -status -auth c2VjcmV0", status("SUCCESS", "all well"), 0, "STATUS",
       "Message:        all well"},
      // A command's own parameters take its own path; -noWait asks for an early reply.
      {"-cmd CLONE -noWait -par file_id -val f -par disk_id -val d=1", status("SUCCESS", "cloned"), 0,
       "CLONE?wait=\"0\"&file_id=\"f\"&disk_id=\"d=1\"", ""},
      {"-cmd ARCHIVE -timeOut 2.5 -par filename -val file:x -par mime_type -val a/b", status("SUCCESS", ""),
       0, "ARCHIVE?filename=\"file:x\"&mime_type=\"a/b\"&no_versioning=\"0\"&wait=\"1\"&time_out=\"3\"", ""},
      // Other parameters, and INIT, go in the generic form; an archive request takes them along.
      {"-cmd INIT -par a -val b=c -par flag -d", status("SUCCESS", "ok"), 0, "INIT&a=\"b%3Dc\"&flag",
       "<Status Date="},
      {"-cmd ARCHIVE -timeOut 2.5 -par filename -val file:x -par tag -val t:1", status("SUCCESS", ""), 0,
       "ARCHIVE?filename=\"file:x\"&mime_type=\"\"&no_versioning=\"0\"&wait=\"1\"&time_out=\"3\"&tag=\"t%"
       "3A1\"",
       ""},
      // A failure: the status text on standard error, exit status 1.
      {"-cmd REGISTER -par path -val /data", status("FAILURE", "disk is full"), 1,
       "REGISTER?wait=\"1\"&path=\"/data\"", "REGISTER failed: disk is full"},
      {"-cmd ONLINE", httpReply(400, "no such command"), 1, "ONLINE?wait=\"1\"", "ONLINE failed"},
  };
  for (const Case& c : cases) {
    srv.push(c.reply);
    ToolRun r = run(c.args);
    EXPECT_EQ(c.status, r.status) << c.args << ": " << r.err;
    EXPECT_EQ(c.path, srv.lastPath());
    EXPECT_NE(std::string::npos, (r.out + r.err).find(c.shown)) << r.out << r.err;
  }
  EXPECT_NE(std::string::npos, srv.requests().front().find("Authorization: Basic%20c2VjcmV0"));

  // -servers: the first server is closed, the second answers.
  const int closed = ArchiveServer().port();
  srv.push(status("SUCCESS", "second server"));
  ToolRun r = tool("-servers 127.0.0.1:" + std::to_string(closed) +
                   ",127.0.0.1:" + std::to_string(srv.port()) + " -cmd STATUS -status");
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("second server"));
}

// Retrieval into a named file and by default into the working folder "work": the path written
// on standard output.
TEST_F(TobasTool, Retrieval) {
  const std::string body(100000, 'r');
  for (const auto& [target, written] : {std::pair{"work/named", "named"}, std::pair{"", "z.fits"}}) {
    TempDir root;
    const std::string work = root.file("work");
    ASSERT_EQ(0, mkdir(work.c_str(), 0700));
    srv.push(archivetest::fileReply("z.fits", body));
    ToolRun r =
        run("-cmd RETRIEVE -par file_id -val X:1" + (*target ? " -target " + root.file(target) : ""), work);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(std::vector<std::string>{written}, archivetest::listDir(work));
    EXPECT_EQ(work + "/" + written + "\n", r.out);
    EXPECT_EQ(body, readFile(work + "/" + written));
  }
  EXPECT_EQ("RETRIEVE?file_id=\"X%3A1\"", srv.lastPath());
}

// With standard error on a terminal, a long retrieval shows its progress there.
TEST_F(TobasTool, ProgressLineOnATerminal) {
  int master = posix_openpt(O_RDWR | O_NOCTTY);
  int tty = master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0
                ? open(ptsname(master), O_RDWR | O_NOCTTY)
                : -1;
  if (tty < 0) {
    const std::string why = std::strerror(errno);
    if (master >= 0) close(master);
    GTEST_SKIP() << "no pseudo-terminal: " << why;
  }
  TempDir dir;
  srv.push(archivetest::Reply{archivetest::fileReply("p.bin", std::string(3 << 20, 'p')), std::string::npos,
                              256 << 10});
  ToolRun r = run("-cmd RETRIEVE -par file_id -val p -target " + dir.path(), "", ptsname(master));
  EXPECT_EQ(0, r.status);
  std::string shown;
  char buf[4096];
  pollfd p{master, POLLIN, 0};
  for (ssize_t n; poll(&p, 1, 100) > 0 && (n = read(master, buf, sizeof buf)) > 0;)
    shown.append(buf, static_cast<size_t>(n));
  close(tty);
  close(master);
  EXPECT_NE(std::string::npos, shown.find(" MiB in 1 s")) << shown;
  EXPECT_EQ(std::string::npos, shown.find("tobasCClient: 0.0 MiB")) << shown;
  EXPECT_EQ(size_t{3 << 20}, readFile(dir.file("p.bin")).size());
}

}  // namespace
