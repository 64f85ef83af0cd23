// The parameters file $HOME/.dbrc: which line serves an alias, and the
// enciphered password.
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <stcrypt/stcrypt.h>

#include "tests/db/DbFixture.h"
#include "tests/support/LogCapture.h"

namespace {

class Parameters : public DbFixture {
 protected:
  void SetUp() override {
    DbFixture::SetUp();
    ASSERT_EQ(stcreatekey(dir_.file("key").c_str()), 0);
    char out[STCRYPT_BUF_SIZE];
    ASSERT_EQ(stencrypt("pw", out), 0);
    pw_ = out;
  }
  void dbrc(const std::string& text) { dir_.write(".dbrc", text, 0600); }
  std::string pw_;
};

TEST_F(Parameters, WhichLineServesAnAlias) {
  struct Case {
    std::string file;
    std::string alias;
    std::string server, db, user;
  };
  const std::string p = " " + pw_ + " ";
  const Case cases[] = {
      // The first matching alias line wins.
      {"srv1 db1 u1" + p + "A\nsrv2 db2 u2" + p + "A\n", "A", "srv1", "db1", "u1"},
      // A line for another alias is skipped; a default line serves any alias, before or after.
      {"srv1 db1 u1" + p + "B\nsrv0 db0 u0" + p + "\n", "A", "srv0", "db0", "u0"},
      {"srv0 db0 u0" + p + "\nsrv1 db1 u1" + p + "A\n", "A", "srv1", "db1", "u1"},
      // A later default line replaces an earlier one; an alias line ends the search.
      {"s1 d1 u1" + p + "\ns2 d2 u2" + p + "\n", "A", "s2", "d2", "u2"},
      {"s1 d1 u1" + p + "A\ns2 d2 u2" + p + "\n", "A", "s1", "d1", "u1"},
      // Comments, short lines, blank lines, tabs, extra fields.
      {"#srv db usr" + p + "A\n  # x y z w\n\nshort line\nsrv#1\tdb \t usr\t" + pw_ + "\tA extra\n", "A",
       "srv#1", "db", "usr"},
      // Alias match is case-sensitive.
      {"s1 d1 u1" + p + "a\ns2 d2 u2" + p + "\n", "A", "s2", "d2", "u2"},
  };
  for (const Case& c : cases) {
    dbrc(c.file);
    testsupport::LogCapture log;
    ServiceConnectionSyb conn(c.alias);
    EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Connection parameters successfully read\n")) << c.file;
    EXPECT_EQ(conn.server(), c.server) << c.file;
    EXPECT_EQ(conn.dbName(), c.db) << c.file;
    EXPECT_EQ(conn.user(), c.user) << c.file;
    EXPECT_EQ(conn.alias(), c.alias);
  }
}

TEST_F(Parameters, FailuresAreLoggedAndMakeAcquireFail) {
  {
    testsupport::LogCapture log;
    ServiceConnectionSyb conn("A");  // no file yet
    EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Could not open " + dir_.file(".dbrc") + "\n"));
    EXPECT_EQ(conn.acquire(), -1);
    EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Could not establish a connection\n"));
  }
  for (const std::string& file : {std::string("s1 d1 u1 ") + pw_ + " B\n", std::string("# only a comment\n"),
                                  std::string("three fields only\n")}) {
    dbrc(file);
    testsupport::LogCapture log;
    ServiceConnectionSyb conn("A");
    EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Could not get all connection parameters\n")) << file;
    EXPECT_EQ(log.count("ERROR"), 1u) << file;
  }
  // A password sealed under another key, or not sealed at all, is refused.
  dbrc(server() + " db usr plaintext A\n");
  testsupport::LogCapture log;
  ServiceConnectionSyb conn("A");
  EXPECT_FALSE(log.containsFragment("Connection parameters successfully read"));
  EXPECT_EQ(conn.acquire(), -1);
}

}  // namespace
