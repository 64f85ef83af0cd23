// SybaseConnection on real SQLite files: execution, streaming, result-set
// copies, row counts, errors through the handler, attached databases.
#include <gtest/gtest.h>
#include <sybconn/ArcSysUtils.h>
#include <sybconn/SqliteSettings.h>
#include <sybconn/SybaseConnection.h>

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
    ASSERT_EQ(conn_.connect("sqlite:" + dir_.file("main.db"), "user", "pw"), 0);
    ASSERT_TRUE(conn_.isConnected());
    ASSERT_EQ(conn_.execute("create table t (id int primary key, name varchar(20), size float, ignore int)")
                  .commandSucceeded(),
              1);
  }
  void TearDown() override { SybaseConnection::setErrorHandler(previous_); }
  void fill(int n) {
    ASSERT_EQ(conn_.execute("begin Tran A1").commandSucceeded(), 1);
    for (int i = 1; i <= n; ++i)
      conn_.execute("insert into t (id, name, size, ignore) values (" + std::to_string(i) + ", 'n" +
                    std::to_string(i) + "', " + std::to_string(i) + ".5, 0)");
    ASSERT_EQ(conn_.execute("commit A1").commandSucceeded(), 1);
  }

  testsupport::TempDir dir_;
  SybaseConnection conn_;
  SybaseConnection::ErrorHandler previous_ = nullptr;
};

TEST_F(Connection, ReadsTypedColumnsAndNulls) {
  conn_.execute("insert into t (id, name, size, ignore) values (1, 'O''Brien', 3.9, NULL)");
  SybaseResultSet rs = conn_.execute("select id, name, size, ignore from t");
  ASSERT_EQ(rs.commandSucceeded(), 1);
  ASSERT_TRUE(rs.hasResultSet());
  EXPECT_EQ(rs.columnCount(), 4);
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
  conn_.execute("update t set name = 'x' where id > 2");
  EXPECT_EQ(conn_.rowCount(), 3);
  conn_.execute("update t set name = 'x' where id > 99");
  EXPECT_EQ(conn_.rowCount(), 0);
  conn_.execute("delete t where id = 5");
  EXPECT_EQ(conn_.rowCount(), 1);

  // A select counts rows as they are read, and all of them once released.
  SybaseResultSet rs = conn_.execute("select id from t");
  EXPECT_EQ(conn_.rowCount(), 0);
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(conn_.rowCount(), 1);
  rs.releaseResults();
  EXPECT_EQ(conn_.rowCount(), 4);
  EXPECT_FALSE(rs.next());
  // A select with no matching row succeeds with count 0.
  SybaseResultSet none = conn_.execute("select id from t where id > 99");
  EXPECT_EQ(none.commandSucceeded(), 1);
  none.releaseResults();
  EXPECT_EQ(conn_.rowCount(), 0);
}

TEST_F(Connection, CopiesShareOneStreamingCursor) {
  fill(3);
  SybaseResultSet a = conn_.execute("select id from t order by id");
  SybaseResultSet b = a;
  ASSERT_TRUE(a.next());
  EXPECT_EQ(a.getLongValue(1), 1);
  ASSERT_TRUE(b.next());
  EXPECT_EQ(b.getLongValue(1), 2);
  EXPECT_EQ(a.getLongValue(1), 2);
  // The next statement releases what is left of the previous one.
  conn_.execute("select 1");
  EXPECT_FALSE(a.next());
  EXPECT_FALSE(b.next());
}

TEST_F(Connection, ResultOutlivesItsConnection) {
  fill(3);
  SybaseResultSet rs;
  {
    SybaseConnection other;
    ASSERT_EQ(other.connect("sqlite:" + dir_.file("main.db"), "u", "p"), 0);
    rs = other.execute("select id from t");
    ASSERT_TRUE(rs.next());
  }
  EXPECT_FALSE(rs.next());
  EXPECT_EQ(rs.getStringValue(1), "");
}

TEST_F(Connection, ErrorsReachTheHandlerAndNeverThrow) {
  SybaseResultSet rs = conn_.execute("select * from missing_table");
  EXPECT_EQ(rs.commandSucceeded(), 0);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_NE(g_seen[0].msgno, 0);
  EXPECT_GT(g_seen[0].srvSeverity, 0);
  EXPECT_NE(g_seen[0].msgtext.find("missing_table"), std::string::npos);

  g_seen.clear();
  conn_.execute("insert into t (id) values (1)");
  EXPECT_EQ(conn_.execute("insert into t (id) values (1)").commandSucceeded(), 0);  // primary key
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_NE(g_seen[0].msgtext.find("UNIQUE"), std::string::npos);

  g_seen.clear();
  EXPECT_EQ(conn_.execute("selec 1").commandSucceeded(), 0);
  EXPECT_EQ(g_seen.size(), 1u);

  // A batch stops at its first failing statement.
  g_seen.clear();
  EXPECT_EQ(
      conn_
          .execute(
              "insert into t (id) values (7); insert into nowhere values (1); insert into t (id) values (8)")
          .commandSucceeded(),
      0);
  SybaseResultSet count = conn_.execute("select count(*) from t where id in (7, 8)");
  ASSERT_TRUE(count.next());
  EXPECT_EQ(count.getLongValue(1), 1);
}

TEST_F(Connection, ALockedFileIsAnErrorNotAHang) {
  const int saved = sybconn::sqliteBusyTimeoutMs();
  sybconn::setSqliteBusyTimeoutMs(20);
  SybaseConnection other;
  ASSERT_EQ(other.connect("sqlite:" + dir_.file("main.db"), "u", "p"), 0);
  sybconn::setSqliteBusyTimeoutMs(saved);
  // This connection holds the write lock; the other gives up after its time-out.
  ASSERT_EQ(conn_.execute("begin Tran A1").commandSucceeded(), 1);
  conn_.execute("insert into t (id) values (1)");
  g_seen.clear();
  EXPECT_EQ(other.execute("insert into t (id) values (2)").commandSucceeded(), 0);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_NE(g_seen[0].msgtext.find("locked"), std::string::npos);
  EXPECT_GT(g_seen[0].srvSeverity, 16);
  // Readers still see the last committed state meanwhile.
  SybaseResultSet rs = other.execute("select count(*) from t");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.getLongValue(1), 0);
  ASSERT_EQ(conn_.execute("commit A1").commandSucceeded(), 1);
  EXPECT_EQ(other.execute("insert into t (id) values (2)").commandSucceeded(), 1);
}

TEST_F(Connection, LoginFailuresAreReportedAsClientErrors) {
  SybaseConnection bad;
  EXPECT_EQ(bad.connect("sqlite:" + dir_.file("no/such/dir/x.db"), "u", "p"), -1);
  EXPECT_FALSE(bad.isConnected());
  ASSERT_FALSE(g_seen.empty());
  EXPECT_EQ(g_seen.back().msgno, 0);
  EXPECT_GT(g_seen.back().dbLibSeverity, 0);
  EXPECT_EQ(bad.execute("select 1").commandSucceeded(), 0);
  EXPECT_EQ(bad.rowCount(), -1);
  // Server names that select no embedded database go to the TDS driver.
  g_seen.clear();
  SybaseConnection tds;
  EXPECT_EQ(tds.connect("sqlite:", "u", "p"), -1);
  EXPECT_EQ(g_seen.size(), 1u);
}

TEST_F(Connection, NestedTransactionsAndSiblingDatabases) {
  ASSERT_EQ(conn_.execute("begin Tran A1").commandSucceeded(), 1);
  conn_.execute("insert into t (id) values (1)");
  ASSERT_EQ(conn_.execute("begin Tran A2").commandSucceeded(), 1);
  conn_.execute("insert into t (id) values (2)");
  ASSERT_EQ(conn_.execute("rollback A2").commandSucceeded(), 1);
  ASSERT_EQ(conn_.execute("commit A1").commandSucceeded(), 1);
  EXPECT_EQ(conn_.execute("commit A1").commandSucceeded(), 0);  // nothing open any more
  SybaseResultSet rs = conn_.execute("select id from t");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.getLongValue(1), 1);
  EXPECT_FALSE(rs.next());

  // obrep2..x lives in obrep2.db beside the main file.
  ASSERT_EQ(
      conn_
          .execute("create table obrep2..constraint_sets (cs_id int); insert into obrep2..constraint_sets "
                   "values (42)")
          .commandSucceeded(),
      1);
  SybaseConnection second;
  ASSERT_EQ(second.connect("sqlite:" + dir_.file("obrep2.db"), "u", "p"), 0);
  SybaseResultSet cs = second.execute("select cs_id from constraint_sets");
  ASSERT_TRUE(cs.next());
  EXPECT_EQ(cs.getLongValue(1), 42);
}

TEST(Split, EveryOccurrenceAndAppends) {
  std::vector<std::string> out{"kept"};
  ArcSys::split("a|b||c|", "|", out);
  EXPECT_EQ(out, (std::vector<std::string>{"kept", "a", "b", "", "c", ""}));
  out.clear();
  ArcSys::split("k1 :: k2", " :: ", out);
  EXPECT_EQ(out, (std::vector<std::string>{"k1", "k2"}));
  out.clear();
  ArcSys::split("", ",", out);
  ArcSys::split("abc", "", out);
  EXPECT_EQ(out, (std::vector<std::string>{"", "abc"}));
}

}  // namespace
