// The archive client's command-line tool, run as a child process against the
// scripted archive server: the requests it sends, what it prints and writes,
// its exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ArchiveServer.h"

namespace {

using archivetest::ArchiveServer;
using archivetest::readFile;
using archivetest::ScratchDir;

// A tool run that takes longer is killed, so that a hang fails instead of stalling the suite.
constexpr unsigned kWatchdogSecs = 30;

struct ToolRun {
  int status = -1;  // -1: did not exit by itself
  std::string out, err;
};

// Runs the tool with the blank-separated `args` in `cwd` (PWD set to it) and waits for it; its
// standard error goes to `errFd` when one is given.
ToolRun tool(const std::string& args, const std::string& cwd = "", int errFd = -1) {
  ScratchDir io;
  const std::string outFile = io.file("out"), errFile = io.file("err");
  std::istringstream line((cwd.empty() ? "" : "/usr/bin/env PWD=" + cwd + " ") + TOBAS_TOOL " " + args);
  std::vector<std::string> words{std::istream_iterator<std::string>(line), {}};
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int o = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = errFd >= 0 ? errFd : open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(o, 1);
    dup2(e, 2);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(127);
    alarm(kWatchdogSecs);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ToolRun r;
  int st = 0;
  if (pid > 0 && waitpid(pid, &st, 0) == pid && WIFEXITED(st)) r.status = WEXITSTATUS(st);
  r.out = readFile(outFile);
  r.err = readFile(errFile);
  return r;
}

// The path of a GET request line.
std::string pathOf(const std::string& request) {
  size_t end = request.find(" HTTP/1.0");
  return request.rfind("GET ", 0) == 0 && end != std::string::npos ? request.substr(4, end - 4) : request;
}

// The files (not folders) under `dir`, relative to it.
std::vector<std::string> filesUnder(const std::string& dir) {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir))
    if (!e.is_directory()) files.push_back(e.path().lexically_relative(dir).string());
  std::sort(files.begin(), files.end());
  return files;
}

struct TobasTool : ::testing::Test {
  ArchiveServer srv;
  // Runs the tool against `srv` with the blank-separated `args`.
  ToolRun run(const std::string& args, const std::string& cwd = "", int errFd = -1) {
    return tool("-host 127.0.0.1 -port " + std::to_string(srv.port()) + " " + args, cwd, errFd);
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
  using archivetest::statusReply;
  struct Case {
    std::string args, reply;
    int status;
    std::string path, shown;  // shown: on standard output or error
  };
  const Case cases[] = {
      {"-cmd status -status -auth c2VjcmV0", statusReply("SUCCESS", "all well"), 0, "STATUS",
       "Message:        all well"},
      // A command's own parameters take its own path; -noWait asks for an early reply.
      {"-cmd CLONE -noWait -par file_id -val f -par disk_id -val d=1", statusReply("SUCCESS", "cloned"), 0,
       "CLONE?wait=\"0\"&file_id=\"f\"&disk_id=\"d=1\"", ""},
      {"-cmd ARCHIVE -timeOut 2.5 -par filename -val file:x -par mime_type -val a/b",
       statusReply("SUCCESS", ""), 0,
       "ARCHIVE?filename=\"file:x\"&mime_type=\"a/b\"&no_versioning=\"0\"&wait=\"1\"&time_out=\"3\"", ""},
      // Other parameters, and INIT, go in the generic form; an archive request takes them along.
      {"-cmd INIT -par a -val b=c -par flag -d", statusReply("SUCCESS", "ok"), 0, "INIT&a=\"b%3Dc\"&flag",
       "<Status Date="},
      {"-cmd ARCHIVE -timeOut 2.5 -par filename -val file:x -par tag -val t:1", statusReply("SUCCESS", ""), 0,
       "ARCHIVE?filename=\"file:x\"&mime_type=\"\"&no_versioning=\"0\"&wait=\"1\"&time_out=\"3\"&tag=\"t%"
       "3A1\"",
       ""},
      // A failure: the status text on standard error, exit status 1.
      {"-cmd REGISTER -par path -val /data", statusReply("FAILURE", "disk is full"), 1,
       "REGISTER?wait=\"1\"&path=\"/data\"", "REGISTER failed: disk is full"},
      {"-cmd ONLINE", archivetest::httpReply(400, "no such command"), 1, "ONLINE?wait=\"1\"",
       "ONLINE failed"},
  };
  for (const Case& c : cases) {
    srv.push(c.reply);
    ToolRun r = run(c.args);
    EXPECT_EQ(c.status, r.status) << c.args << ": " << r.err;
    EXPECT_EQ(c.path, pathOf(srv.requests().back()));
    EXPECT_NE(std::string::npos, (r.out + r.err).find(c.shown)) << r.out << r.err;
  }
  EXPECT_NE(std::string::npos, srv.requests().front().find("Authorization: Basic%20c2VjcmV0"));
}

// Retrieval into a named file, a folder, and by default the working folder "work" (which holds
// a folder "a"), with no time-out given. A served file name that leads elsewhere, and a body cut
// short, fail with nothing written anywhere.
TEST_F(TobasTool, Retrieval) {
  const std::string body(100000, 'r');
  constexpr size_t kWhole = std::string::npos;
  struct Case {
    std::string served;  // file name in the reply
    size_t sent;         // bytes of the body sent before the server closes
    std::string target;  // -target, under the scratch folder
    int status;
    std::string written;  // the file expected, under the scratch folder
  };
  const Case cases[] = {
      {"x.fits", kWhole, "work/named", 0, "work/named"},
      {"y.fits", kWhole, "work", 0, "work/y.fits"},
      {"z.fits", kWhole, "", 0, "work/z.fits"},
      {"../evil", kWhole, "work", 1, ""},
      {"a/b", kWhole, "", 1, ""},
      {"cut.bin", 12, "work", 1, ""},
  };
  for (const Case& c : cases) {
    ScratchDir root;
    ASSERT_EQ(0, mkdir(root.file("work").c_str(), 0700));
    ASSERT_EQ(0, mkdir(root.file("work/a").c_str(), 0700));
    archivetest::Reply reply{archivetest::fileReply(c.served, body)};
    if (c.sent != kWhole) reply.cutAfter = reply.bytes.size() - body.size() + c.sent;
    srv.push(reply);
    const std::string target = c.target.empty() ? "" : " -target " + root.file(c.target);
    ToolRun r = run("-cmd RETRIEVE -par file_id -val X:1" + target, root.file("work"));

    EXPECT_EQ(c.status, r.status) << c.served << ": " << r.err;
    EXPECT_EQ(c.written.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.written},
              filesUnder(root.path()))
        << c.served;
    EXPECT_EQ(c.status == 0 ? root.file(c.written) + "\n" : "", r.out);
    EXPECT_EQ(c.status != 0, r.err.find("RETRIEVE failed: ") != std::string::npos) << r.err;
    EXPECT_EQ(c.status == 0 ? body : "", c.written.empty() ? "" : readFile(root.file(c.written)));
  }
  EXPECT_EQ("RETRIEVE?file_id=\"X%3A1\"", pathOf(srv.requests().back()));
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
  ScratchDir dir;
  archivetest::Reply drip{archivetest::fileReply("p.bin", std::string(3 << 20, 'p'))};
  drip.dripChunk = 256 << 10;
  drip.dripDelayMs = 110;  // about 1.3 s in all
  srv.push(drip);
  ToolRun r = run("-cmd RETRIEVE -par file_id -val p -target " + dir.path(), "", tty);
  EXPECT_EQ(0, r.status);
  std::string shown;
  char buf[4096];
  pollfd p{master, POLLIN, 0};
  while (poll(&p, 1, 100) > 0) {
    ssize_t n = read(master, buf, sizeof buf);
    if (n <= 0) break;
    shown.append(buf, static_cast<size_t>(n));
  }
  close(tty);
  close(master);
  EXPECT_NE(std::string::npos, shown.find(" MiB in 1 s")) << shown;
  EXPECT_EQ(std::string::npos, shown.find("tobasCClient: 0.0 MiB")) << shown;
  EXPECT_EQ(size_t{3 << 20}, readFile(dir.file("p.bin")).size());
}

TEST_F(TobasTool, FailOverAcrossAServerList) {
  int closedPort;
  {
    ArchiveServer gone;
    closedPort = gone.port();
  }
  srv.push(archivetest::statusReply("SUCCESS", "second server"));
  ToolRun r = tool("-servers 127.0.0.1:" + std::to_string(closedPort) +
                   ",127.0.0.1:" + std::to_string(srv.port()) + " -cmd STATUS -status");
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("second server"));
}

}  // namespace
