// The archive client's command-line tool, run as a child process against the
// scripted archive server: the requests it sends, what it prints, its exit
// status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/ArchiveServer.h"

extern char** environ;

namespace {

using archivetest::ArchiveServer;
using archivetest::readFile;
using archivetest::ScratchDir;

struct ToolRun {
  int status = -1;
  std::string out, err;
};

// Runs the tool with `args` in `cwd` (PWD set to it) and waits for it.
ToolRun tool(const std::vector<std::string>& args, const std::string& cwd = "") {
  ScratchDir io;
  const std::string outFile = io.file("out"), errFile = io.file("err");
  std::vector<char*> argv{const_cast<char*>(TOBAS_TOOL)};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<std::string> envStore;
  for (char** e = environ; *e; ++e)
    if (std::string(*e).rfind("PWD=", 0) != 0) envStore.emplace_back(*e);
  if (!cwd.empty()) envStore.push_back("PWD=" + cwd);
  std::vector<char*> envp;
  for (auto& e : envStore) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  pid_t pid = fork();
  if (pid == 0) {
    int o = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(o, 1);
    dup2(e, 2);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(127);
    execve(argv[0], argv.data(), envp.data());
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

struct TobasTool : ::testing::Test {
  ArchiveServer srv;
  std::vector<std::string> at(std::vector<std::string> args) {
    args.insert(args.begin(), {"-host", "127.0.0.1", "-port", std::to_string(srv.port()), "-timeOut", "5"});
    return args;
  }
  std::string lastRequest() {
    auto r = srv.requests();
    return r.empty() ? std::string() : r.back();
  }
};

TEST(TobasToolUsage, InformationAndWrongCommandLines) {
  ToolRun help = tool({"-help"});
  EXPECT_EQ(0, help.status);
  for (const char* word :
       {"SYNOPSIS", "RETRIEVE", "-servers", "-par <Parameter> [-val <Val>]", "EXIT STATUS"})
    EXPECT_NE(std::string::npos, help.out.find(word)) << word;
  EXPECT_EQ(0, tool({"-version"}).status);
  EXPECT_NE(std::string::npos, tool({"-license"}).out.find("Redistribution"));

  std::vector<std::string> tooMany{"-host", "127.0.0.1", "-port", "1", "-cmd", "INIT"};
  for (int i = 0; i < 17; ++i) tooMany.insert(tooMany.end(), {"-par", "p" + std::to_string(i)});
  const std::vector<std::pair<std::vector<std::string>, std::string>> wrong{
      {{}, "no command"},
      {{"-bogus"}, "unknown option: -bogus"},
      {{"-host"}, "-host needs a value"},
      {{"-host", "127.0.0.1", "-port", "99999", "-cmd", "STATUS"}, "invalid port"},
      {{"-cmd", "STATUS"}, "no server given"},
      {{"-host", "127.0.0.1", "-port", "1", "-cmd", "FROBNICATE"}, "unknown command: FROBNICATE"},
      {{"-host", "127.0.0.1", "-port", "1", "-cmd", "STATUS", "-val", "x"}, "-val must follow -par"},
      {{"-host", "127.0.0.1", "-port", "1", "-cmd", "STATUS", "-timeOut", "soon"}, "invalid time-out"},
      {{"-host", "127.0.0.1", "-port", "1", "-cmd", "LABEL", "-par", "slot_id"}, "LABEL needs -par slot_id"},
      {tooMany, "more than 16 parameters"},
  };
  for (const auto& [args, message] : wrong) {
    ToolRun r = tool(args);
    EXPECT_EQ(2, r.status) << message;
    EXPECT_NE(std::string::npos, r.err.find(message)) << r.err;
  }
}

TEST_F(TobasTool, CommandsAndTheirRequests) {
  srv.push(archivetest::statusReply("SUCCESS", "all well"));
  ToolRun status = tool(at({"-cmd", "status", "-status", "-auth", "c2VjcmV0"}));
  EXPECT_EQ(0, status.status) << status.err;
  EXPECT_NE(std::string::npos, status.out.find("Message:        all well"));
  const std::string req = lastRequest();
  EXPECT_EQ(0u, req.rfind("GET STATUS HTTP/1.0\n", 0)) << req;
  EXPECT_NE(std::string::npos, req.find("Authorization: Basic%20c2VjcmV0"));

  // A command's own parameters take its own path; -noWait asks for an early reply.
  srv.push(archivetest::statusReply("SUCCESS", "cloned"));
  EXPECT_EQ(
      0,
      tool(at({"-cmd", "CLONE", "-noWait", "-par", "file_id", "-val", "f", "-par", "disk_id", "-val", "d=1"}))
          .status);
  EXPECT_EQ("CLONE?wait=\"0\"&file_id=\"f\"&disk_id=\"d=1\"", pathOf(lastRequest()));
  // Other parameters, and INIT, go in the generic form.
  srv.push(archivetest::statusReply("SUCCESS", "ok"));
  EXPECT_EQ(0, tool(at({"-cmd", "INIT", "-par", "a", "-val", "b=c", "-par", "flag", "-d"})).status);
  EXPECT_EQ("INIT&a=\"b%3Dc\"&flag", pathOf(lastRequest()));

  // A failure: the status text on standard error, exit status 1.
  srv.push(archivetest::statusReply("FAILURE", "disk is full"));
  ToolRun failed = tool(at({"-cmd", "REGISTER", "-par", "path", "-val", "/data"}));
  EXPECT_EQ(1, failed.status);
  EXPECT_NE(std::string::npos, failed.err.find("REGISTER failed: disk is full")) << failed.err;
  srv.push(archivetest::httpReply(400, "no such command"));
  EXPECT_EQ(1, tool(at({"-cmd", "ONLINE"})).status);
}

TEST_F(TobasTool, ArchivePushAndRetrieval) {
  ScratchDir dir;
  const std::string content(300000, 'k');
  archivetest::writeFile(dir.file("in.fits"), content);
  srv.push(archivetest::statusReply("SUCCESS", "archived"));
  ToolRun push = tool(at({"-cmd", "ARCHIVE", "-par", "filename", "-val", dir.file("in.fits"), "-par",
                          "mime_type", "-val", "image/fits"}));
  EXPECT_EQ(0, push.status) << push.err;
  const std::string req = lastRequest();
  EXPECT_EQ(0u, req.rfind("POST /ARCHIVE HTTP/1.0\r\n", 0)) << req.substr(0, 80);
  EXPECT_NE(std::string::npos, req.find("Content-type: image/fits"));
  EXPECT_EQ(content, req.substr(req.size() - content.size()));

  // Into a named file (its path printed), and by default into the working folder.
  const std::string body = "SIMPLE  =                    T";
  srv.push(archivetest::fileReply("x.fits", body));
  ToolRun toFile =
      tool(at({"-cmd", "RETRIEVE", "-par", "file_id", "-val", "X:1", "-target", dir.file("named")}));
  EXPECT_EQ(0, toFile.status) << toFile.err;
  EXPECT_EQ(dir.file("named") + "\n", toFile.out);
  EXPECT_EQ(body, readFile(dir.file("named")));
  EXPECT_EQ("RETRIEVE?file_id=\"X%3A1\"", pathOf(lastRequest()));

  ScratchDir work;
  srv.push(archivetest::fileReply("y.fits", body));
  ToolRun here = tool(at({"-cmd", "RETRIEVE", "-par", "file_id", "-val", "Y"}), work.path());
  EXPECT_EQ(0, here.status) << here.err;
  EXPECT_EQ(body, readFile(work.file("y.fits")));
}

// With standard error on a terminal, a long retrieval shows its progress there.
TEST_F(TobasTool, ProgressLineOnATerminal) {
  int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(0, grantpt(master));
  ASSERT_EQ(0, unlockpt(master));
  const std::string slave = ptsname(master);
  ScratchDir dir;
  archivetest::Reply drip{archivetest::fileReply("p.bin", std::string(3 << 20, 'p'))};
  drip.dripChunk = 256 << 10;
  drip.dripDelayMs = 110;  // about 1.3 s in all
  srv.push(drip);
  const std::vector<std::string> args =
      at({"-cmd", "RETRIEVE", "-par", "file_id", "-val", "p", "-target", dir.path()});
  std::vector<char*> argv{const_cast<char*>(TOBAS_TOOL)};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int tty = open(slave.c_str(), O_RDWR);
    int null = open("/dev/null", O_WRONLY);
    dup2(tty, 2);
    dup2(null, 1);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int st = 0;
  ASSERT_EQ(pid, waitpid(pid, &st, 0));
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  std::string shown;
  char buf[4096];
  pollfd p{master, POLLIN, 0};
  while (poll(&p, 1, 100) > 0) {
    ssize_t n = read(master, buf, sizeof buf);
    if (n <= 0) break;
    shown.append(buf, static_cast<size_t>(n));
  }
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
  ToolRun r = tool({"-servers",
                    "127.0.0.1:" + std::to_string(closedPort) + ",127.0.0.1:" + std::to_string(srv.port()),
                    "-cmd", "STATUS", "-status", "-timeOut", "5"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("second server"));
  EXPECT_EQ(2, tool({"-servers", "127.0.0.1:1", "-host", "127.0.0.1", "-cmd", "STATUS"}).status);
}

}  // namespace
