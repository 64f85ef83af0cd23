// Status document, code texts, utilities and the client log with its rotation.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>
#include <tuple>

#include "tests/tobasCClient/TobasTest.h"

// The library here reads 10 November 2025, 07:05:09.123456 UTC: a day of two digits, the first of them 1.
extern "C" int gettimeofday(timeval* tv, void*) noexcept {
  *tv = {1762758309, 123456};
  return 0;
}

TEST(TobasStatus, DocumentsCodesAndHelpers) {
  const std::string longest(16383, 'm'), invalid = "Invalid reply from data server";
  const std::tuple<std::string, int, int, std::string> cases[] = {
      {statusDoc("FAILURE", "TOBAS_ER_DAPI:4003:ERROR: bad file"), 0, 4003,
       "TOBAS_ER_DAPI:4003:ERROR: bad file"},
      {statusDoc("FAILURE", "disk full"), 0, 0, "disk full"},
      {statusDoc("SUCCESS", longest), 0, 0, longest},
      {statusDoc("OK", "x"), tobasERR_INV_REPLY, tobasERR_INV_REPLY, invalid},
      {statusDoc("SUCCESS", longest + "m"), tobasERR_INV_REPLY, tobasERR_INV_REPLY, invalid},
      {"<Status Date=\"d\" HostId=\"h\" Message=\"m\" State=\"s\" SubState=\"u\" Status=\"SUCCESS\"/>",
       tobasERR_INV_REPLY, tobasERR_INV_REPLY, invalid},
  };
  size_t inUse = 0;
  for (int round = 0; round < 100; ++round) {  // no memory is held once the record is freed
    if (round == 1) inUse = heapInUse();
    for (const auto& [text, stat, errorCode, message] : cases) {
      tobasSTATUS st;
      tobasInitStatus(&st);
      char* doc = strdup(text.c_str());
      EXPECT_EQ(stat, tobasUnpackStatus(doc, &st)) << text.substr(0, 80);
      EXPECT_EQ(errorCode, st.errorCode);
      EXPECT_EQ(message, st.message);
      EXPECT_EQ(stat == 0 ? doc : nullptr, st.replyData[0]);  // the record owns what it unpacked
      if (stat != 0) free(doc);
      const std::string fields =
          std::string(st.date) + "|" + st.hostId + "|" + st.state + "|" + st.subState + "|" + st.version;
      EXPECT_TRUE(stat != 0 || fields == "2007-07-12T10:30:00.000|arcsrv1|ONLINE|IDLE|v3.1") << fields;
      tobasFreeStatus(&st);
    }
  }
  EXPECT_NO_GROWTH(inUse, 4096);
  char v[8];
  for (const char* bad : {"<A b=\"unterminated", "<A b=", "<B b=\"1\"/>"})  // the value's bound: in the table
    EXPECT_EQ(tobasERR_INV_REPLY, tobasGetXmlAttr(bad, "A", "b", 8, v)) << bad;
  EXPECT_EQ(0, tobasGetXmlAttr("<Ab=\"1\" b=\"2\"/>", "Ab", "b", 8, v));  // attributes start after the name
  EXPECT_STREQ("2", v);

  tobasSTATUS st;
  tobasHTTP_DATA none{nullptr, 0}, bad{strdup("not a document"), 0};
  _setReplyTimeoutFromFloat(2.5f);
  const std::tuple<int, const char*, const char*> codes[] = {
      {tobasERR_TIMEOUT, "Timeout encountered while communicating with server. Timeout: 2.500s", "FAILURE"},
      {200, "Request sucessfully handled by server", "SUCCESS"},
      {tobasSTAT_FAILURE, "", "FAILURE"}};  // code 1 has no text
  for (const auto& [code, message, status] : codes) {
    tobasHandleStatus(code, &none, &st);
    EXPECT_STREQ(message, st.message);
    EXPECT_STREQ(status, st.status);
    EXPECT_EQ(code, st.errorCode);
  }
  tobasHandleStatus(0, &bad, &st);
  EXPECT_EQ(nullptr, bad.pdata);  // the record owns it now
  EXPECT_STREQ("not a document", st.replyData[0]);
  EXPECT_EQ(tobasERR_INV_REPLY, st.errorCode);
  EXPECT_EQ(tobasERR_UNKNOWN_STAT, tobasStat2Str(1, st.message));
  tobasFreeStatus(&st);

  tobasBIG_BUF dir;
  std::string name(2 * tobasBIG_BUF_SIZE, 'x');  // room to see that a name cut at its bound ends within it
  EXPECT_EQ(1, tobasSplitFilename(("d/" + std::string(tobasBIG_BUF_SIZE, 'n')).c_str(), dir, &name[0]));
  EXPECT_EQ(std::string(tobasBIG_BUF_SIZE - 1, 'n'), name.c_str());
  EXPECT_EQ(0, tobasSplitFilename("plain", dir, &name[0]));
  const char* hay = "abcabc";  // the last occurrence; an empty needle is found at the end
  for (const auto& [needle, at] : {std::pair("bc", 4), {"abc", 3}, {"", 6}, {"cb", -1}})
    EXPECT_EQ(tobasStrRStr(hay, needle), at < 0 ? nullptr : hay + at) << needle;
  EXPECT_STREQ(".", dir);
  tobasMED_BUF host;  // $HOSTNAME, else $HOST
  for (const auto& [name, other, stat] : {std::tuple("a", "b", 0), {"", "b", 0}, {"", "", 1}}) {
    *name ? setenv("HOSTNAME", name, 1) : unsetenv("HOSTNAME");
    *other ? setenv("HOST", other, 1) : unsetenv("HOST");
    EXPECT_EQ(std::to_string(tobasGetHostName(host)) + host, std::to_string(stat) + (*name ? name : other));
  }
  EXPECT_EQ(1, tobasSplitFilename((std::string(600, 'd') + "/f").c_str(), dir, &name[0]));  // a long folder
  TempDir tmp;
  const std::string data("bin\0ary", 7);
  ASSERT_EQ(0, tobasSaveInFile(tmp.file("f").c_str(), data.data(), data.size()));
  char* loaded = nullptr;
  size_t size = 0;
  const long fds = testsupport::openFdCount();
  ASSERT_EQ(0, tobasLoadFile(tmp.file("f").c_str(), &loaded, &size));
  EXPECT_EQ(fds, testsupport::openFdCount());  // the file is closed again
  EXPECT_EQ(data, std::string(loaded, size));
  for (const char* what : {"Opening/loading file: ", "Opened/loaded file: "})
    EXPECT_HAS(logText(), what + tmp.file("f"));
  free(loaded);
  // Descriptor 0 is free in these tests (see the trace log): the file is opened as 0, still a file.
  EXPECT_EQ(0, tobasSaveInFile(tmp.file("g").c_str(), "z", 1) +
                   tobasLoadFile(tmp.file("g").c_str(), &loaded, &size));
  EXPECT_STREQ("z", loaded);
  free(loaded);
  EXPECT_EQ(tobasERR_CON, tobasPrepSock("127.0.0.1", -1));  // its socket, opened as 0, is moved off it
  {  // At the descriptor limit, a socket above 2 is used as it comes: nothing is duplicated.
    const int lis = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_TRUE(bind(lis, reinterpret_cast<sockaddr*>(&a), len) == 0 && listen(lis, 4) == 0 &&
                getsockname(lis, reinterpret_cast<sockaddr*>(&a), &len) == 0);
    std::vector<int> low;  // descriptors below 3 left free are filled, so the socket's is the last one
    int next;
    while ((next = open("/dev/null", O_RDONLY)) < 3) low.push_back(next);
    close(next);
    tobasBIG_BUF logFile;  // no tracing meanwhile: the log could not be opened at the limit
    int level, verbose, rotate, history;
    tobasGetLogSettings(logFile, &level, &verbose, &rotate, &history);
    tobasPrepLog(logFile, LEV0, rotate, history);
    rlimit was, limit;
    getrlimit(RLIMIT_NOFILE, &was);
    limit = {static_cast<rlim_t>(next) + 1, was.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
    const int fd = tobasPrepSock("127.0.0.1", ntohs(a.sin_port));
    setrlimit(RLIMIT_NOFILE, &was);
    tobasPrepLog(logFile, level, rotate, history);
    EXPECT_EQ(next, fd);
    for (int f : low) close(f);
    close(fd), close(lis);
  }
  inUse = heapInUse();
  EXPECT_EQ(tobasERR_FILE, tobasLoadFile(tmp.path().c_str(), &loaded, &size));  // a folder: reading fails
  EXPECT_EQ(tobasERR_FILE, tobasSaveInFile("/dev/full", "z", 1));               // a full disk: writing fails
  rlimit was, low;  // an endless file beyond the address space left: refused, its buffer freed
  getrlimit(RLIMIT_AS, &was);
  std::ifstream("/proc/self/statm") >> low.rlim_cur;  // pages mapped now
  low = {low.rlim_cur * 4096 + (64 << 20), was.rlim_max};
  if (kPlainMalloc && setrlimit(RLIMIT_AS, &low) == 0) {
    EXPECT_EQ(tobasERR_ALLOC_MEM, tobasLoadFile("/dev/zero", &loaded, &size));
    setrlimit(RLIMIT_AS, &was);
  }
  EXPECT_NO_GROWTH(inUse, 4096);

  tobasLibraryVersion();
  EXPECT_HAS(logText(), "[DEBUG] Entering tobasSaveInFile() [");  // traced, with the thread
  EXPECT_HAS(logText(), "[DEBUG] Leaving tobasLibraryVersion() [");
}

// Sets the time zone that makes the local time of day `secs` now.
static void setLocalTimeOfDay(long secs) {
  const long offset = (time(nullptr) - secs) % 86400;  // local = UTC - offset
  char tz[64];
  snprintf(tz, sizeof tz, "XXX+%ld:%02ld:%02ld", offset / 3600, (offset / 60) % 60, offset % 60);
  setenv("TZ", tz, 1);  // without tzset(): the rotation must read the zone anew itself
}

struct TobasLog : testing::Test {
  TempDir dir;
  const std::string log = dir.file("client.log");
};

TEST_F(TobasLog, LineFormatLevelsAndSettings) {
  EXPECT_EQ(tobasERR_OPEN_LOG_FILE, tobasPrepLog(dir.file("no/dir/x.log").c_str(), LEV3, -1, -1));
  const std::string tooLong =
      dir.path() + std::string(tobasBIG_BUF_SIZE - dir.path().size() - 5, '/') + "x.log";
  EXPECT_EQ(tobasERR_OPEN_LOG_FILE,
            tobasPrepLog(tooLong.c_str(), LEV3, -1, -1));  // a name that fits no buffer
  std::filesystem::create_directory(
      dir.file("gone"));  // a log that can no longer be opened drops each line whole
  ASSERT_EQ(0, tobasPrepLog(dir.file("gone/x.log").c_str(), LEV3, -1, -1));
  std::filesystem::remove_all(dir.file("gone"));
  const size_t inUse = heapInUse();
  for (int i = 0; i < 1000; ++i) tobasLogError("line %d", i);
  EXPECT_NO_GROWTH(inUse, 4096);
  ASSERT_EQ(0, tobasPrepLog("", LEV3, -1, -1));
  tobasSetVerboseLevel(LEV1);
  testing::internal::CaptureStdout();
  tobasLogInfo(LEV1, "no file");                                         // at the verbose level itself
  EXPECT_HAS(testing::internal::GetCapturedStdout(), "[INFO] no file");  // echoed without a file
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, -1, -1));
  setenv("TZ", "XXX-5:30", 1);  // the stamps stay UTC whatever the zone
  tzset();
  testing::internal::CaptureStdout();
  std::string errors;  // each echo leaves stdout usable by this thread, and then by the next
  for (const char* disk : {"d1", "d2"}) {
    std::thread other([disk] { tobasLogError("disk %s is full", disk); });
    errors += "T [ERROR] disk " + std::string(disk) + " is full [" +
              std::to_string(static_cast<unsigned long>(other.native_handle())) + "]\n";
    other.join();
    std::fflush(stdout);
  }
  tobasLogInfo(LEV3, "written %d", 3);
  tobasLogInfo(LEV4, "above the level");
  const std::string echoed = testing::internal::GetCapturedStdout(), first = readFile(log);
  const size_t info = first.rfind('\n', first.find("[INFO]")) + 1;  // where the INFO line begins
  EXPECT_EQ(first.substr(0, info), echoed);  // only level 0 is echoed at verbose level 1
  tobasSetVerboseLevel(-1);
  unsetenv("TZ");
  tzset();
  // Error types reach the file at every level; DEBUG only above level 4.
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV0, -1, -1));
  tobasLogWarning("w");
  tobasLogDebug("d");
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV5, 7200, 3));
  tobasLogDebug("d5");
  tobasLogEmerg("e");
  const std::string tid = " [" + std::to_string(static_cast<unsigned long>(pthread_self())) + "]\n";
  EXPECT_EQ(errors + "T [INFO] written 3" + tid + "T [WARNING] w" + tid + "T [DEBUG] d5" + tid +
                "T [EMERG] e" + tid,
            std::regex_replace(readFile(log), std::regex("2025-11-10T07:05:09\\.123 "), "T "));

  tobasBIG_BUF file;
  int level = -1, verbose = 0, rotate = -1, history = -1;
  tobasGetLogSettings(file, &level, &verbose, &rotate, &history);
  EXPECT_EQ(log, file);
  EXPECT_EQ((std::vector<int>{LEV5, -1, 7200, 3}), (std::vector<int>{level, verbose, rotate, history}));
}

TEST_F(TobasLog, RotationDrivenByMarkerAndTimeOfDay) {
  char rotated[tobasBIG_BUF_SIZE];
  // Not yet: rotated 86000 s ago (whatever the time of day), or due but before the time of day set.
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, 0, -1));
  dir.write("client.log", "2007-07-12T10:30:00.000 [INFO] LOG-ROTATE: " +
                              std::to_string(time(nullptr) - 86000) + " - SYSTEM-ID: s [1]\n");
  const long fds = testsupport::openFdCount();
  EXPECT_EQ(0, tobasLogFileRotate(LEV3, "sys", rotated));
  EXPECT_EQ(fds, testsupport::openFdCount());  // the marker is read, and the log closed again
  EXPECT_STREQ("", rotated);
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, 3600, -1));
  dir.write("client.log", "no marker yet\n");
  setLocalTimeOfDay(1800);
  EXPECT_EQ(0, tobasLogFileRotate(LEV3, "sys", rotated));
  EXPECT_STREQ("", rotated);
  // At the configured time: rotated; the new log starts with the marker, which stops a second rotation.
  setLocalTimeOfDay(3605);
  ASSERT_EQ(0, tobasLogFileRotate(LEV3, "sys-7", rotated));
  unsetenv("TZ");
  tzset();
  const long stamp = std::atol(rotated + dir.path().size() + 12);
  EXPECT_LE(std::labs(stamp - static_cast<long>(time(nullptr))), 2);
  EXPECT_EQ(dir.path() + "/LOG-ROTATE_" + std::to_string(stamp) + "_client.log", rotated);
  EXPECT_EQ(0u, readFile(rotated).find("no marker yet\n"));
  EXPECT_HAS(readFile(rotated), "[INFO] Rotating log file ...");
  const std::string fresh = readFile(log);
  EXPECT_EQ(1, std::count(fresh.begin(), fresh.end(), '\n'));
  EXPECT_HAS(fresh, "[INFO] LOG-ROTATE: " + std::to_string(stamp) + " - SYSTEM-ID: sys-7 [");
  EXPECT_EQ(0, tobasLogFileRotate(LEV3, "sys-7", rotated));
  EXPECT_STREQ("", rotated);

  // A log that cannot be renamed (it is gone) reports the failure through the log itself.
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, 0, -1));
  ASSERT_EQ(0, remove(log.c_str()));
  EXPECT_EQ(1, tobasLogFileRotate(LEV4, "s", rotated));  // LEV4: nothing re-creates the file first
  EXPECT_HAS(readFile(log), "[ERROR] Serious error ocurred rotating log file: " + log +
                                " - rotated log file: " + rotated + "!");
  // Nor one whose rotated name would be too long: 500 characters, with a folder of two levels.
  const std::string deep = dir.file(std::string(240, 'd') + "/" + std::string(247 - dir.path().size(), 'e'));
  std::filesystem::create_directories(deep);
  ASSERT_EQ(0, tobasPrepLog((deep + "/client.log").c_str(), LEV3, 0, -1));
  EXPECT_EQ(1, tobasLogFileRotate(LEV4, "s", rotated));
  EXPECT_HAS(readFile(deep + "/client.log"), "[ERROR] Serious error ocurred rotating log file: " + deep);
}

TEST_F(TobasLog, CleanUpOfRotatedFiles) {
  const long now = static_cast<long>(time(nullptr));
  auto rotatedName = [&](long days) {
    return "LOG-ROTATE_" + std::to_string(now - days * 86400 - 5) + "_client.log";
  };
  for (long days : {3, 2, 1}) dir.write(rotatedName(days), "rotated");
  dir.write("LOG-ROTATE_", "too short to carry a time");
  dir.write("other.txt", "kept");
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, -1, -1));
  EXPECT_EQ(0, tobasCleanUpRotLogFiles(LEV3));  // no history: nothing removed
  EXPECT_EQ(6u, listDir(dir.path()).size());
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV5, -1, 2));  // traced
  const long open = testsupport::openFdCount();
  EXPECT_EQ(0, tobasCleanUpRotLogFiles(LEV3));  // two days old and older go
  EXPECT_EQ(open, testsupport::openFdCount());  // the folder is closed again
  EXPECT_EQ((std::vector<std::string>{"LOG-ROTATE_", rotatedName(1), "client.log", "other.txt"}),
            listDir(dir.path()));
  EXPECT_HAS(readFile(log), "Removing rotated log file: " + dir.file(rotatedName(3)));
  ASSERT_EQ(0, rename(dir.path().c_str(), (dir.path() + "-moved").c_str()));
  EXPECT_EQ(1, tobasCleanUpRotLogFiles(LEV3));
  rename((dir.path() + "-moved").c_str(), dir.path().c_str());
  expectTracesPaired(readFile(log));
}
