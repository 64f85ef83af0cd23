// Status document, code texts, utilities and the client log with its rotation.
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tobasCClient/tobasCClientLib.h>

#include "tests/support/ArchiveServer.h"
#include "tests/support/TempDir.h"

using archivetest::listDir;
using archivetest::readFile;
using archivetest::statusDoc;
using testsupport::TempDir;

TEST(TobasStatus, UnpackStatusDocuments) {
  const struct {
    std::string doc;
    int stat, errorCode;
  } cases[] = {
      {statusDoc("FAILURE", "TOBAS_ER_DAPI:4003:ERROR: bad file"), 0, 4003},
      {statusDoc("FAILURE", "disk full"), 0, 0},
      {statusDoc("SUCCESS", std::string(16383, 'm')), 0, 0},
      {statusDoc("OK", "x"), tobasERR_INV_REPLY, tobasERR_INV_REPLY},
      {statusDoc("SUCCESS", std::string(16384, 'm')), tobasERR_INV_REPLY, tobasERR_INV_REPLY},
      {"<Status Date=\"d\" HostId=\"h\" Message=\"m\" State=\"s\" SubState=\"u\" Status=\"SUCCESS\"/>",
       tobasERR_INV_REPLY, tobasERR_INV_REPLY},
  };
  for (const auto& c : cases) {
    tobasSTATUS st;
    tobasInitStatus(&st);
    char* doc = strdup(c.doc.c_str());
    EXPECT_EQ(c.stat, tobasUnpackStatus(doc, &st)) << c.doc.substr(0, 80);
    EXPECT_EQ(c.errorCode, st.errorCode);
    EXPECT_EQ(c.stat == 0 ? doc : nullptr, st.replyData[0]);  // the record owns what it unpacked
    if (c.stat != 0) {
      EXPECT_STREQ("Invalid reply from data server", st.message);
      free(doc);
    } else if (c.errorCode == 4003) {
      EXPECT_EQ("2007-07-12T10:30:00.000|arcsrv1|ONLINE|IDLE|FAILURE|v3.1",
                std::string(st.date) + "|" + st.hostId + "|" + st.state + "|" + st.subState + "|" +
                    st.status + "|" + st.version);
    }
    tobasFreeStatus(&st);
  }

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these check leaks themselves
  const size_t inUse = mallinfo2().uordblks;  // unpacking holds no memory once the record is freed
  for (int i = 0; i < 500; ++i) {
    tobasSTATUS st;
    tobasInitStatus(&st);
    tobasUnpackStatus(strdup(cases[0].doc.c_str()), &st);
    tobasFreeStatus(&st);
  }
  EXPECT_LT(mallinfo2().uordblks, inUse + 4096);
#endif
  char v[8];
  EXPECT_EQ(0, tobasGetXmlAttr("<A b=\"1234567\"/>", "A", "b", 8, v));
  EXPECT_STREQ("1234567", v);
  for (const char* bad : {"<A b=\"12345678\"/>", "<A b=\"unterminated", "<A b=", "<B b=\"1\"/>"})
    EXPECT_EQ(tobasERR_INV_REPLY, tobasGetXmlAttr(bad, "A", "b", 8, v)) << bad;
}

TEST(TobasStatus, HandleStatusAndTexts) {
  tobasSTATUS st;
  tobasHTTP_DATA none{nullptr, 0}, bad{strdup("not a document"), 0};
  _setReplyTimeoutFromFloat(2.5f);
  const struct {
    int code;
    const char *message, *status;
  } cases[] = {
      {tobasERR_TIMEOUT, "Timeout encountered while communicating with server. Timeout: 2.500s", "FAILURE"},
      {200, "Request sucessfully handled by server", "SUCCESS"},
      {-102, "Read error while reading data", "FAILURE"},
      {-2000, "Could not open specified log file", "FAILURE"},
      {tobasSTAT_FAILURE, "", "FAILURE"}};  // code 1 has no text
  for (const auto& c : cases) {
    tobasHandleStatus(c.code, &none, &st);
    EXPECT_STREQ(c.message, st.message);
    EXPECT_STREQ(c.status, st.status);
    EXPECT_EQ(c.code, st.errorCode);
  }
  tobasHandleStatus(0, &bad, &st);
  EXPECT_EQ(nullptr, bad.pdata);  // the record owns it now
  EXPECT_EQ(tobasERR_INV_REPLY, st.errorCode);
  tobasFreeStatus(&st);

  char buf[tobasBIG_BUF_SIZE] = "untouched";
  EXPECT_EQ(tobasERR_UNKNOWN_STAT, tobasStat2Str(1, buf));
  EXPECT_STREQ("untouched", buf);

  testing::internal::CaptureStdout();
  tobasInitStatus(&st);
  strcpy(st.status, "SUCCESS");
  tobasDumpStatStdout(&st);
  EXPECT_EQ("\nError Code:     0\nStatus:         SUCCESS\n\n", testing::internal::GetCapturedStdout());
}

TEST(TobasUtil, Helpers) {
  tobasBIG_BUF dir, name;
  EXPECT_EQ(0, tobasSplitFilename("plain", dir, name));
  EXPECT_STREQ(".", dir);
  EXPECT_EQ(1, tobasSplitFilename((std::string(600, 'd') + "/f").c_str(), dir, name));  // too long a folder
  TempDir tmp;
  std::string data("bin\0ary", 7);
  ASSERT_EQ(0, tobasSaveInFile(tmp.file("f").c_str(), data.data(), data.size()));
  char* loaded = nullptr;
  size_t size = 0;
  ASSERT_EQ(0, tobasLoadFile(tmp.file("f").c_str(), &loaded, &size));
  EXPECT_EQ(data, std::string(loaded, size));
  free(loaded);
}

// The small helpers trace entering and leaving too (the traces' pairing is checked at the
// program's end); the first ones are looked for here.
TEST(TobasLog, EveryFunctionTraces) {
  int p[2];
  ASSERT_EQ(0, pipe(p));
  ASSERT_EQ(1, write(p[1], "x", 1));
  tobasSTATUS st;
  tobasPAR_ARRAY pars;
  char buf[tobasHUGE_BUF_SIZE] = " x ";
  int found = 0, port = 0, idx = -1, code = 0;
  tobasSRV_INFO* list = nullptr;
  _setReplyTimeoutFromFloat(1);
  _pollFd(p[0], _getTimeOut());
  tobasParseSrvListId("traced", "h:1");
  _tobasGetSrvInfoObj("traced", &found, &list);
  _tobasGetNextSrv(&idx, list, buf, &port);
  tobasSplitSrvAddr("h:1", buf, &port);
  tobasInitStatus(&st);
  tobasSuccess(&st);
  tobasStat2Str(0, buf);
  tobasCmd2Str(0, buf);
  tobasCmd2No("STATUS", &code);
  tobasResetParArray(&pars);
  tobasAddParAndVal(&pars, "a", "b");
  tobasGetParVal(&pars, "a");
  tobasEncodeUrlVal("a", 0, buf);
  tobasTrimString(buf, " ");
  close(p[0]);
  close(p[1]);
  std::string log = readFile(getenv("TOBAS_LOG_FILE"));
  for (const char* fn : {"_setReplyTimeoutFromFloat", "_getTimeOut", "_pollFd"})
    EXPECT_NE(std::string::npos, log.find(std::string("[DEBUG] Entering ") + fn + "() [")) << fn;
}

namespace {

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

// Local time-zone string that makes the local time of day `secs` now.
void setLocalTimeOfDay(long secs) {
  time_t now = time(nullptr);
  long utcTod = static_cast<long>(now % 86400);
  long offset = ((utcTod - secs) % 86400 + 86400) % 86400;  // local = UTC - offset
  char tz[64];
  snprintf(tz, sizeof tz, "XXX+%ld:%02ld:%02ld", offset / 3600, (offset / 60) % 60, offset % 60);
  setenv("TZ", tz, 1);
  tzset();
}

}  // namespace

TEST(TobasLog, LineFormatAndLevels) {
  TempDir dir;
  std::string log = dir.file("client.log");
  EXPECT_EQ(tobasERR_OPEN_LOG_FILE, tobasPrepLog(dir.file("no/dir/x.log").c_str(), LEV3, -1, -1));
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, -1, -1));
  tobasSetVerboseLevel(LEV1);
  setenv("TZ", "XXX-5:30", 1);  // the stamps stay UTC whatever the zone
  tzset();
  testing::internal::CaptureStdout();
  const time_t before = time(nullptr);
  tobasLogError("disk %s is full", "d1");
  tobasLogInfo(LEV3, "written %d", 3);
  tobasLogInfo(LEV4, "above the level");
  tobasLogDebug("not written");
  std::string echoed = testing::internal::GetCapturedStdout();
  tobasSetVerboseLevel(-1);
  unsetenv("TZ");
  tzset();
  struct tm utc;
  char hour[32];
  strftime(hour, sizeof hour, "%Y-%m-%dT%H:", gmtime_r(&before, &utc));
  auto l = lines(readFile(log));
  ASSERT_EQ(2u, l.size());
  std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} \[(\w+)\] (.*) \[(\d+)\])");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(l[0], m, line)) << l[0];
  EXPECT_EQ(0u, l[0].rfind(hour, 0)) << l[0];
  EXPECT_EQ("ERROR", m[1]);
  EXPECT_EQ("disk d1 is full", m[2]);
  EXPECT_EQ(std::to_string(static_cast<unsigned long>(pthread_self())), m[3]);
  ASSERT_TRUE(std::regex_match(l[1], m, line));
  EXPECT_EQ("INFO", m[1]);
  EXPECT_EQ(l[0] + "\n", echoed);  // only level 0 reaches standard output at verbose level 1

  // Error types reach the file at every level; DEBUG only above level 4.
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV0, -1, -1));
  tobasLogWarning("w");
  tobasLogDebug("d");
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV5, -1, -1));
  tobasLogDebug("d5");
  tobasLogEmerg("e");
  l = lines(readFile(log));
  ASSERT_GE(l.size(), 5u);
  EXPECT_NE(std::string::npos, l[2].find("[WARNING] w ["));
  EXPECT_NE(std::string::npos, l[3].find("[DEBUG] d5 ["));
  EXPECT_NE(std::string::npos, l.back().find("[EMERG] e ["));
}

TEST(TobasLog, RotationDrivenByMarkerAndTimeOfDay) {
  TempDir dir;
  std::string log = dir.file("client.log");
  char rotated[tobasBIG_BUF_SIZE];

  // Rotated 86000 s ago: not yet, whatever the time of day.
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, 0, -1));
  dir.write("client.log", "2007-07-12T10:30:00.000 [INFO] LOG-ROTATE: " +
                              std::to_string(time(nullptr) - 86000) + " - SYSTEM-ID: s [1]\n");
  EXPECT_EQ(0, tobasLogFileRotate(LEV3, "sys", rotated));
  EXPECT_STREQ("", rotated);
  EXPECT_EQ(1u, listDir(dir.path()).size());

  // Due, but before the configured time of day.
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, 3600, -1));
  dir.write("client.log", "no marker yet\n");
  setLocalTimeOfDay(1800);
  EXPECT_EQ(0, tobasLogFileRotate(LEV3, "sys", rotated));
  EXPECT_EQ(1u, listDir(dir.path()).size());

  // At the configured time: rotated, the new log starts with the marker.
  setLocalTimeOfDay(3605);
  time_t now = time(nullptr);
  ASSERT_EQ(0, tobasLogFileRotate(LEV3, "sys-7", rotated));
  unsetenv("TZ");
  tzset();
  std::string name = rotated;
  long stamp = std::atol(name.c_str() + dir.path().size() + 12);
  EXPECT_LE(std::labs(stamp - static_cast<long>(now)), 2);
  EXPECT_EQ(dir.path() + "/LOG-ROTATE_" + std::to_string(stamp) + "_client.log", name);
  std::string old = readFile(rotated);
  EXPECT_EQ(0u, old.find("no marker yet\n"));
  EXPECT_NE(std::string::npos, old.find("[INFO] Rotating log file ..."));
  auto fresh = lines(readFile(log));
  ASSERT_EQ(1u, fresh.size());
  EXPECT_NE(std::string::npos,
            fresh[0].find("[INFO] LOG-ROTATE: " + std::to_string(stamp) + " - SYSTEM-ID: sys-7 ["));
  // The marker just written keeps the next call from rotating again.
  EXPECT_EQ(0, tobasLogFileRotate(LEV3, "sys-7", rotated));
  EXPECT_STREQ("", rotated);

  // A log that cannot be renamed (it is gone) reports the failure through the log itself.
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, 0, -1));
  ASSERT_EQ(0, remove(log.c_str()));
  EXPECT_EQ(1, tobasLogFileRotate(LEV4, "s", rotated));  // LEV4: nothing re-creates the file first
  std::string text = readFile(log);
  EXPECT_NE(std::string::npos, text.find("[ERROR] Serious error ocurred rotating log file: " + log +
                                         " - rotated log file: " + rotated + "!"))
      << text;
}

TEST(TobasLog, CleanUpOfRotatedFiles) {
  TempDir dir;
  std::string log = dir.file("client.log");
  long now = static_cast<long>(time(nullptr));
  auto rotatedName = [&](long age) { return "LOG-ROTATE_" + std::to_string(now - age) + "_client.log"; };
  dir.write(rotatedName(3 * 86400 + 5), "old");
  dir.write(rotatedName(2 * 86400 + 5), "exactly two days");
  dir.write(rotatedName(86400 + 5), "one day");
  dir.write("LOG-ROTATE", "too short to carry a time");
  dir.write("other.txt", "kept");
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, -1, -1));
  EXPECT_EQ(0, tobasCleanUpRotLogFiles(LEV3));  // no history: nothing removed
  EXPECT_EQ(6u, listDir(dir.path()).size());
  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, -1, 2));
  EXPECT_EQ(0, tobasCleanUpRotLogFiles(LEV3));
  auto names = listDir(dir.path());
  EXPECT_EQ(4u, names.size());
  for (const auto& n : names)
    EXPECT_TRUE(n != rotatedName(3 * 86400 + 5) && n != rotatedName(2 * 86400 + 5)) << n;
  EXPECT_NE(std::string::npos,
            readFile(log).find("Removing rotated log file: " + dir.file(rotatedName(3 * 86400 + 5))));

  ASSERT_EQ(0, tobasPrepLog(log.c_str(), LEV3, -1, 2));
  ASSERT_EQ(0, rename(dir.path().c_str(), (dir.path() + "-moved").c_str()));
  EXPECT_EQ(1, tobasCleanUpRotLogFiles(LEV3));
  rename((dir.path() + "-moved").c_str(), dir.path().c_str());
}
