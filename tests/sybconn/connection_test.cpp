// SybaseConnection on real SQLite files: execution, streaming, result-set
// copies, row counts, errors through the handler, attached databases.
#include <gtest/gtest.h>
#include <sybconn/ArcSysUtils.h>
#include <sybconn/SybaseConnection.h>

#include "sybconn/drivers/SqliteDriver.h"

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

TEST_F(Connection, NestedTransactions) {
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
}

// The first row of a statement as "a|b|c".
std::string firstRow(SybaseConnection& conn, const std::string& sql) {
  SybaseResultSet rs = conn.execute(sql);
  std::string row = rs.commandSucceeded() ? "" : "failed";
  if (!rs.next()) return row + "no row";
  for (int c = 1; c <= rs.columnCount(); ++c) row += (c > 1 ? "|" : "") + rs.getStringValue(c);
  return row;
}

TEST_F(Connection, ThreePartNamesReachSiblingFiles) {
  // X..table lives in X.db beside the main file; tables are made through those names.
  ASSERT_EQ(
      conn_
          .execute(
              "create table obrep2..constraint_sets (cs_id int, user_id int);"
              "create table obrep2..obs_blocks (ob_id int, cs_id int);"
              "create table ambient..seeing_torvane (start_date int, interval int, fwhm float, ra float, "
              "dec float, airmass float, tau float, rfl float, tet float);"
              "create table D..TORV2_NightObs (Request_ID int, Sky_Transparency varchar(9), "
              "Transparency varchar(9), OB_ID varchar(9));"
              "insert into obrep2..constraint_sets values (7, 70); insert into obrep2..constraint_sets "
              "values (8, 80); insert into obrep2..obs_blocks values (42, 8);"
              "insert into ambient..seeing_torvane values (-600, 60, 0.5, 1, -2, 1.5, 3, 4, 5);"
              "insert into ambient..seeing_torvane values (-300, 60, 255, 1, 2, 1, 1, 1, 1);"
              "insert into D..TORV2_NightObs values (5, 'CLEAR', 'PHO', '123');"
              "insert into D..TORV2_NightObs values (5, 'CLEAR', 'PHO', '123');"
              "insert into t (id, name) values (42, 'main')")
          .commandSucceeded(),
      1);
  const struct {
    std::string sql, row;
  } cases[] = {
      {"select obrep2..constraint_sets.cs_id,obrep2..constraint_sets.user_id from "
       "obrep2..constraint_sets,obrep2..obs_blocks where obrep2..obs_blocks.ob_id=42 AND "
       "obrep2..obs_blocks.cs_id=obrep2..constraint_sets.cs_id",
       "8|80"},
      {"select start_date,interval,fwhm,ra,dec,airmass,tau,rfl,tet from ambient..seeing_torvane where "
       "start_date between -86400 AND 0 AND fwhm <> 255 AND fwhm IS NOT NULL",
       "-600|60|0.5|1.0|-2.0|1.5|3.0|4.0|5.0"},
      {"select distinct Request_ID,Sky_Transparency,Transparency from D..TORV2_NightObs where OB_ID='123'",
       "5|CLEAR|PHO"},
      // Three files and the main one in one statement.
      {"select t.name, obrep2..obs_blocks.cs_id, ambient..seeing_torvane.dec, D..TORV2_NightObs.OB_ID from "
       "t, "
       "obrep2..obs_blocks, ambient..seeing_torvane, D..TORV2_NightObs where t.id = obrep2..obs_blocks.ob_id "
       "and ambient..seeing_torvane.fwhm < 1",
       "main|8|-2.0|123"},
  };
  SybaseConnection fresh;  // attaches each file on first use
  ASSERT_EQ(fresh.connect("sqlite:" + dir_.file("main.db"), "u", "p"), 0);
  for (const auto& c : cases) {
    EXPECT_EQ(firstRow(conn_, c.sql), c.row) << c.sql;
    EXPECT_EQ(firstRow(fresh, c.sql), c.row) << c.sql;
  }
  // A connection to obrep2.db names its own tables the same way.
  SybaseConnection own;
  ASSERT_EQ(own.connect("sqlite:" + dir_.file("obrep2.db"), "u", "p"), 0);
  EXPECT_EQ(firstRow(own, cases[0].sql), "8|80");
  for (auto& e : g_seen) ADD_FAILURE() << e.msgtext;
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
