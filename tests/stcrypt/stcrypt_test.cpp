// Password sealing: round trips, refusals, key-file rules and the tool.
#include <gtest/gtest.h>
#include <stcrypt/stcrypt.h>

#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

class Stcrypt : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("STCRYPT_KEY_FILE", key_.c_str(), 1);
    ASSERT_EQ(stcreatekey(key_.c_str()), 0);
  }
  // What `fn` writes; "<refused>" when it fails and leaves an empty text.
  static std::string run(int (*fn)(const char*, char*), const std::string& in) {
    char out[STCRYPT_BUF_SIZE] = "junk";
    return fn(in.c_str(), out) == 0 ? out : out[0] == '\0' ? "<refused>" : "<refused, text left>";
  }
  testsupport::TempDir dir_;
  const std::string key_ = dir_.file("key");
};

TEST_F(Stcrypt, RoundTripsKeyFileRulesAndRefusalsThatLogOneErrorLineNamingTheKeyFileAndReason) {
  for (const std::string& pw : {std::string(""), std::string("x"), std::string("pa ss\tw\xc3\xb6rd"),
                                std::string(STCRYPT_MAX_PASSWORD, 'z')}) {
    const std::string text = run(stencrypt, pw);
    EXPECT_TRUE(std::regex_match(text, std::regex("[A-Za-z0-9_-]{1,255}"))) << text;
    EXPECT_EQ(run(stdecrypt, text), pw);
  }
  EXPECT_NE(run(stencrypt, "same"), run(stencrypt, "same"));  // a fresh nonce each time
  EXPECT_EQ(run(stencrypt, std::string(STCRYPT_MAX_PASSWORD + 1, 'z')), "<refused>");
  char out[STCRYPT_BUF_SIZE];
  for (auto* f : {stencrypt, stdecrypt}) EXPECT_EQ(f(nullptr, out), -1);  // no text at all

  const std::string good = run(stencrypt, "secret");
  ASSERT_EQ(stcreatekey(dir_.file("other").c_str()), 0);
  const auto expectRefused = [](const std::string& text, const std::string& key, const std::string& why) {
    key.empty() ? unsetenv("STCRYPT_KEY_FILE") : setenv("STCRYPT_KEY_FILE", key.c_str(), 1);
    testsupport::LogCapture log;
    EXPECT_EQ(run(stdecrypt, text), "<refused>") << text << " " << key;
    for (const std::string& part : {std::string(), std::string("ERROR"), key, why})
      EXPECT_EQ(log.count(part), 1u) << text << " " << key << " " << part;
  };
  const std::string tampered = std::string(good).replace(20, 1, good[20] == 'A' ? "B" : "A");
  for (const std::string& text :
       {tampered, good.substr(0, 30), std::string("!!not base64!!"), std::string(), std::string(300, 'A')})
    expectRefused(text, key_, "");
  // Another user's key, one of the wrong size, a missing one, one readable by the group.
  for (const std::string& key :
       {dir_.file("other"), dir_.write("short", "0123456789", 0600), dir_.file("missing")})
    expectRefused(good, key, "");
  std::filesystem::permissions(key_, std::filesystem::perms(0640));
  expectRefused(good, key_, "accessible by group or others");
  expectRefused(good, dir_.path(), "is not a regular file");
  // Never overwritten; without STCRYPT_KEY_FILE the key is $HOME/.dbrc.key.
  EXPECT_EQ(stcreatekey(key_.c_str()), -1);
  {  // A key that cannot be written whole (over the file size limit) leaves no file.
    testsupport::LogCapture log;
    rlimit was{};
    ::getrlimit(RLIMIT_FSIZE, &was);
    const rlimit small{8, was.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN), ::setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_EQ(stcreatekey(dir_.file("big").c_str()), -1);
    ::setrlimit(RLIMIT_FSIZE, &was);
    EXPECT_EQ(log.count("cannot write key file " + dir_.file("big")), 1u);
    EXPECT_FALSE(std::filesystem::exists(dir_.file("big")));
  }
  unsetenv("STCRYPT_KEY_FILE");
  setenv("HOME", dir_.path().c_str(), 1);
  char path[512];
  ASSERT_EQ(stkeyfile(path, sizeof path), 0);
  EXPECT_EQ(std::string(path), dir_.file(".dbrc.key"));
  EXPECT_EQ(stkeyfile(path, 4), -1);
  unsetenv("HOME");
  expectRefused(good, "", "neither STCRYPT_KEY_FILE nor HOME");
}

TEST_F(Stcrypt, ToolPrintsALineThatDeciphersAndRefusesFieldsThatWouldBreakIt) {
  const std::string key = dir_.file("tool.key");
  // Exit status and standard output (with standard error) of the tool given `args`.
  const auto tool = [&](const std::string& args) {
    FILE* p = popen(
        ("echo hunter2 | STCRYPT_KEY_FILE=" + key + " " STENCRYPT_TOOL " " + args + " 2>&1").c_str(), "r");
    std::string out;
    char buf[512];
    while (p && fgets(buf, sizeof buf, p)) out += buf;
    return std::make_pair(p ? WEXITSTATUS(pclose(p)) : -1, out);
  };
  const std::string refused[] = {"'SR V' db usr A", "SRV 'd\nb' usr A",
                                 "SRV db '' A",     "SRV db usr 'A\t'",
                                 "'#SRV' db usr A", "SRV db usr " + std::string(3900, 'a')};
  for (const std::string& args : refused) {
    const auto [status, out] = tool(args);
    EXPECT_EQ(status, 2) << args;
    EXPECT_TRUE(std::regex_match(out, std::regex("stencrypt: [^\n]*\\.dbrc[^\n]*\n"))) << args << ": " << out;
  }
  EXPECT_FALSE(std::filesystem::exists(key));  // refused before anything was done
  const auto [status, out] = tool("SRV db usr ALIAS");
  EXPECT_EQ(status, 0);
  std::smatch m;
  ASSERT_TRUE(std::regex_search(out, m, std::regex("(^|\n)SRV db usr (\\S+) ALIAS\n$"))) << out;
  EXPECT_EQ(std::filesystem::status(key).permissions(), std::filesystem::perms(0600));
  setenv("STCRYPT_KEY_FILE", key.c_str(), 1);
  EXPECT_EQ(run(stdecrypt, m.str(2)), "hunter2");
}

}  // namespace
