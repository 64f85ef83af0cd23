// Password sealing: round trips, refusals, key-file rules and the tool.
#include <gtest/gtest.h>
#include <stcrypt/stcrypt.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

class Stcrypt : public ::testing::Test {
 protected:
  void SetUp() override {
    key_ = dir_.file("key");
    setenv("STCRYPT_KEY_FILE", key_.c_str(), 1);
    ASSERT_EQ(stcreatekey(key_.c_str()), 0);
  }
  void TearDown() override { unsetenv("STCRYPT_KEY_FILE"); }
  std::string seal(const std::string& clear) {
    char out[STCRYPT_BUF_SIZE];
    EXPECT_EQ(stencrypt(clear.c_str(), out), 0);
    return out;
  }
  testsupport::TempDir dir_;
  std::string key_;
};

TEST_F(Stcrypt, RoundTripsWithinTheBufferBound) {
  for (const std::string& pw : {std::string(""), std::string("x"), std::string("pa ss\tw\xc3\xb6rd"),
                                std::string(STCRYPT_MAX_PASSWORD, 'z')}) {
    const std::string text = seal(pw);
    EXPECT_LT(text.size(), 256u);
    EXPECT_EQ(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
              std::string::npos);
    char out[STCRYPT_BUF_SIZE];
    ASSERT_EQ(stdecrypt(text.c_str(), out), 0);
    EXPECT_EQ(std::string(out), pw);
  }
  // A fresh nonce each time: the same password never gives the same text.
  EXPECT_NE(seal("same"), seal("same"));
  char out[STCRYPT_BUF_SIZE] = "junk";
  EXPECT_EQ(stencrypt(std::string(STCRYPT_MAX_PASSWORD + 1, 'z').c_str(), out), -1);
  EXPECT_STREQ(out, "");
}

TEST_F(Stcrypt, BadTextsFailCleanlyWithOneLineNamingTheKey) {
  std::string tampered = seal("secret");
  tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';
  const std::string tooLong(300, 'A');
  for (const std::string& bad :
       {tampered, seal("secret").substr(0, 30), std::string("!!not base64!!"), std::string(""), tooLong}) {
    testsupport::LogCapture log;
    char out[STCRYPT_BUF_SIZE] = "junk";
    EXPECT_EQ(stdecrypt(bad.c_str(), out), -1) << bad;
    EXPECT_STREQ(out, "");
    ASSERT_EQ(log.lines().size(), 1u) << bad;
    EXPECT_NE(log.lines()[0].find("ERROR"), std::string::npos);
    EXPECT_NE(log.lines()[0].find(key_), std::string::npos);
  }
}

TEST_F(Stcrypt, KeyFileRules) {
  const std::string text = seal("secret");
  char out[STCRYPT_BUF_SIZE];

  // Another user's key, one of the wrong size, a missing one: refused with a line naming the file.
  ASSERT_EQ(stcreatekey(dir_.file("other").c_str()), 0);
  for (const std::string& bad :
       {dir_.file("other"), dir_.write("short", "0123456789", 0600), dir_.file("missing")}) {
    setenv("STCRYPT_KEY_FILE", bad.c_str(), 1);
    testsupport::LogCapture log;
    EXPECT_EQ(stdecrypt(text.c_str(), out), -1) << bad;
    EXPECT_TRUE(log.containsFragment(bad)) << bad;
  }
  setenv("STCRYPT_KEY_FILE", key_.c_str(), 1);

  // Readable by group or others: refused, as ssh does.
  ::chmod(key_.c_str(), 0640);
  {
    testsupport::LogCapture log;
    EXPECT_EQ(stdecrypt(text.c_str(), out), -1);
    EXPECT_TRUE(log.containsFragment("accessible by group or others"));
  }
  ::chmod(key_.c_str(), 0600);
  EXPECT_EQ(stdecrypt(text.c_str(), out), 0);

  // Never overwritten.
  EXPECT_EQ(stcreatekey(key_.c_str()), -1);

  // Without STCRYPT_KEY_FILE the key is $HOME/.dbrc.key.
  unsetenv("STCRYPT_KEY_FILE");
  const char* home = std::getenv("HOME");
  const std::string savedHome = home ? home : "";
  setenv("HOME", dir_.path().c_str(), 1);
  char path[512];
  ASSERT_EQ(stkeyfile(path, sizeof path), 0);
  EXPECT_EQ(std::string(path), dir_.file(".dbrc.key"));
  EXPECT_EQ(stkeyfile(path, 4), -1);
  setenv("HOME", savedHome.c_str(), 1);
}

TEST_F(Stcrypt, ToolPrintsALineThatDeciphers) {
  const std::string newKey = dir_.file("tool.key");
  const std::string cmd =
      "printf 'hunter2\\n' | STCRYPT_KEY_FILE=" + newKey + " " STENCRYPT_TOOL " SRV db usr ALIAS 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  char buf[512] = {0};
  ASSERT_NE(fgets(buf, sizeof buf, p), nullptr);
  EXPECT_EQ(pclose(p), 0);
  char server[64], db[64], user[64], text[300], alias[64];
  ASSERT_EQ(std::sscanf(buf, "%63s %63s %63s %299s %63s", server, db, user, text, alias), 5);
  EXPECT_STREQ(alias, "ALIAS");
  struct stat st {};
  ASSERT_EQ(::stat(newKey.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  setenv("STCRYPT_KEY_FILE", newKey.c_str(), 1);
  char out[STCRYPT_BUF_SIZE];
  ASSERT_EQ(stdecrypt(text, out), 0);
  EXPECT_STREQ(out, "hunter2");
}

}  // namespace
