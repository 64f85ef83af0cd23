// SybaseConnection on real SQLite files: execution, streaming, result-set
// copies, row counts, errors through the handler.
#include <gtest/gtest.h>
#include <sybconn/ArcSysUtils.h>
#include <sybconn/SqliteSettings.h>
#include <sybconn/SybaseConnection.h>

#include <filesystem>
#include <vector>

#include "tests/support/TempDir.h"

namespace {

std::vector<SybaseStatus> g_seen;
void record(const SybaseStatus& s) { g_seen.push_back(s); }

class Connection : public ::testing::Test {
 protected:
  void SetUp() override {
    g_seen.clear();
    previous_ = SybaseConnection::setErrorHandler(&record);
    ASSERT_EQ(conn_.connect(server_, "user", "pw"), 0);
    ASSERT_EQ(conn_.execute("create table t (id int primary key, name varchar(20), size float, ignore int)")
                  .commandSucceeded(),
              1);
  }
  void TearDown() override { SybaseConnection::setErrorHandler(previous_); }
  // Rows 1 to n, with a name of `width` digits.
  void fill(int n, int width = 2) {
    ASSERT_EQ(
        conn_
            .execute("insert into t (id, name) with recursive n(i) as (select 1 union all select i + 1 "
                     "from n where i < " +
                     std::to_string(n) + ") select i, printf('%0" + std::to_string(width) + "d', i) from n")
            .commandSucceeded(),
        1);
  }
  // The first row of a statement as "a|b|c".
  static std::string firstRow(SybaseConnection& conn, const std::string& sql) {
    SybaseResultSet rs = conn.execute(sql);
    if (!rs.next()) return rs.commandSucceeded() ? "no row" : "failed";
    std::string row;
    for (int c = 1; c <= rs.columnCount(); ++c) row += (c > 1 ? "|" : "") + rs.getStringValue(c);
    return row;
  }

  testsupport::TempDir dir_;
  const std::string server_ = "sqlite:" + dir_.file("main.db");
  SybaseConnection conn_;
  SybaseConnection::ErrorHandler previous_ = nullptr;
};

TEST_F(Connection, ReadsTypedColumnsAndNulls) {
  conn_.execute("insert into t (id, name, size, ignore) values (1, 'O''Brien', 3.9, NULL)");
  SybaseResultSet rs = conn_.execute("select id, name, size, ignore from t");
  ASSERT_TRUE(rs.hasResultSet());
  EXPECT_EQ(rs.columnName(4), "ignore");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.getLongValue(1), 1);
  EXPECT_EQ(rs.getStringValue(2), "O'Brien");
  EXPECT_DOUBLE_EQ(rs.getDoubleValue(3), 3.9);
  EXPECT_TRUE(rs.isNull(4));
  EXPECT_FALSE(rs.isNull(1));
  // Columns out of range read as NULL, never crash.
  EXPECT_TRUE(rs.isNull(0));
  EXPECT_EQ(rs.getStringValue(9), "");
  EXPECT_FALSE(rs.next());
  EXPECT_FALSE(rs.next());
}

TEST_F(Connection, RowCountsFollowTheCurrentCommand) {
  fill(5);
  const struct {
    const char* sql;
    long count;
  } writes[] = {{"update t set name = 'x' where id > 2", 3},
                {"update t set name = 'x' where id > 99", 0},
                {"delete t where id = 5", 1}};
  for (const auto& w : writes) {
    conn_.execute(w.sql);
    EXPECT_EQ(conn_.rowCount(), w.count) << w.sql;
  }
  // A select counts rows as they are read, and all of them once released.
  SybaseResultSet rs = conn_.execute("select id from t");
  EXPECT_EQ(conn_.rowCount(), 0);
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(conn_.rowCount(), 1);
  rs.releaseResults();
  EXPECT_EQ(conn_.rowCount(), 4);
  EXPECT_FALSE(rs.next());
  EXPECT_EQ(conn_.execute("select id from t where id > 99").commandSucceeded(), 1);
  EXPECT_EQ(conn_.rowCount(), 0);
}

TEST_F(Connection, CopiesShareOneCursorThatEndsWithItsLogin) {
  fill(3);
  SybaseResultSet a = conn_.execute("select id from t order by id");
  SybaseResultSet b = a;
  ASSERT_TRUE(a.next());
  ASSERT_TRUE(b.next());
  EXPECT_EQ(a.getLongValue(1), 2);
  // The next statement, or the end of the login, ends what is left.
  conn_.execute("select 1");
  EXPECT_FALSE(a.next());
  EXPECT_FALSE(b.next());
  {
    SybaseConnection other;
    ASSERT_EQ(other.connect(server_, "u", "p"), 0);
    a = other.execute("select id from t");
    ASSERT_TRUE(a.next());
  }
  EXPECT_FALSE(a.next());
  EXPECT_EQ(a.getStringValue(1), "");
}

TEST_F(Connection, ErrorsReachTheHandlerAndNeverThrow) {
  conn_.execute("insert into t (id) values (1)");
  // The last one is a batch, which stops at its first failing statement.
  for (const auto& [sql, fragment] : std::vector<std::pair<std::string, std::string>>{
           {"select * from missing_table", "missing_table"},
           {"insert into t (id) values (1)", "UNIQUE"},
           {"selec 1", "syntax error"},
           {"insert into t (id) values (7); insert into nowhere values (1); insert into t (id) values (8)",
            "nowhere"}}) {
    g_seen.clear();
    EXPECT_EQ(conn_.execute(sql).commandSucceeded(), 0) << sql;
    ASSERT_EQ(g_seen.size(), 1u) << sql;
    EXPECT_EQ(g_seen[0].srvSeverity, 16) << sql;
    EXPECT_EQ(g_seen[0].srvname, server_);
    EXPECT_NE(g_seen[0].msgtext.find(fragment), std::string::npos) << g_seen[0].msgtext;
  }
  EXPECT_EQ(firstRow(conn_, "select count(*) from t where id in (7, 8)"), "1");
}

TEST_F(Connection, ALockedFileIsAnErrorNotAHang) {
  const int saved = sybconn::sqliteBusyTimeoutMs();
  sybconn::setSqliteBusyTimeoutMs(20);
  SybaseConnection other;
  ASSERT_EQ(other.connect(server_, "u", "p"), 0);
  sybconn::setSqliteBusyTimeoutMs(saved);
  // This connection holds the write lock; the other gives up after its time-out.
  ASSERT_EQ(conn_.execute("begin Tran A1; insert into t (id) values (1)").commandSucceeded(), 1);
  g_seen.clear();
  EXPECT_EQ(other.execute("insert into t (id) values (2)").commandSucceeded(), 0);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_NE(g_seen[0].msgtext.find("locked"), std::string::npos);
  EXPECT_EQ(g_seen[0].srvSeverity, 17);
  // Readers still see the last committed state meanwhile.
  EXPECT_EQ(firstRow(other, "select count(*) from t"), "0");
  ASSERT_EQ(conn_.execute("commit A1").commandSucceeded(), 1);
  EXPECT_EQ(other.execute("insert into t (id) values (2)").commandSucceeded(), 1);
}

TEST_F(Connection, AStepThatFailsPartWayFailsTheResult) {
  fill(2000, 200);
  conn_.disconnect();
  // The last page holds the last rows.
  const long size = static_cast<long>(std::filesystem::file_size(dir_.file("main.db")));
  dir_.scribble("main.db", size - 4096, 4096);
  // Rows read to the end, or the rest discarded after the first.
  for (const bool readAll : {true, false}) {
    g_seen.clear();
    ASSERT_EQ(conn_.connect(server_, "u", "p"), 0);
    SybaseResultSet rs = conn_.execute("select id, name from t");
    ASSERT_TRUE(rs.next());
    if (readAll) {
      while (rs.next()) {
      }
    } else {
      rs.releaseResults();
    }
    EXPECT_EQ(rs.commandSucceeded(), 0) << readAll;
    EXPECT_GT(conn_.rowCount(), 1) << readAll;  // failed past the first row, before the last
    EXPECT_LT(conn_.rowCount(), 2000) << readAll;
    ASSERT_EQ(g_seen.size(), 1u) << readAll;
    EXPECT_NE(g_seen[0].msgtext.find("malformed"), std::string::npos) << g_seen[0].msgtext;
    EXPECT_EQ(g_seen[0].srvSeverity, 23);
  }
}

// X..t lives in the sibling file X.db, attached once per login.
TEST_F(Connection, SiblingFilesAreAttachedOnce) {
  for (const char* sql : {"create table obrep2..s (a int)", "insert into obrep2..s values (4)"})
    ASSERT_EQ(conn_.execute(sql).commandSucceeded(), 1) << sql;
  EXPECT_EQ(firstRow(conn_, "select a from obrep2..s"), "4");
  EXPECT_TRUE(g_seen.empty());
}

TEST_F(Connection, LoginFailuresAreReportedAsClientErrors) {
  for (const std::string& server : {"sqlite:" + dir_.file("no/such/dir/x.db"), std::string("sqlite:")}) {
    g_seen.clear();
    SybaseConnection bad;
    EXPECT_EQ(bad.connect(server, "u", "p"), -1);
    EXPECT_FALSE(bad.isConnected());
    ASSERT_EQ(g_seen.size(), 1u) << server;
    EXPECT_EQ(g_seen[0].msgno, 0);
    EXPECT_EQ(g_seen[0].dbLibSeverity, 9);
    EXPECT_EQ(bad.execute("select 1").commandSucceeded(), 0);
    EXPECT_EQ(bad.rowCount(), -1);
  }
}

TEST(Split, EveryOccurrenceAndAppends) {
  std::vector<std::string> out{"kept"};
  ArcSys::split("a|b||c|", "|", out);
  ArcSys::split("k1 :: k2", " :: ", out);
  ArcSys::split("", ",", out);
  ArcSys::split("abc", "", out);
  EXPECT_EQ(out, (std::vector<std::string>{"kept", "a", "b", "", "c", "", "k1", "k2", "", "abc"}));
}

}  // namespace
