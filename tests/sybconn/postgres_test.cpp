// SybaseConnection on a throwaway PostgreSQL cluster: values, counts, streaming, transactions, failures
// and time-outs.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sybconn/PostgresSettings.h>
#include <sybconn/SybUtils.h>
#include <sybconn/SybaseConnection.h>

#include <chrono>
#include <ctime>
#include <vector>

#include "dataAccess/db/ServiceConnectionSyb.h"
#include "tests/support/ArchiveServer.h"
#include "tests/support/PgCluster.h"

namespace {

using testsupport::PgCluster;
std::vector<SybaseStatus> g_seen;
void record(const SybaseStatus& s) { g_seen.push_back(s); }

class Postgres : public ::testing::Test {
 protected:
  void SetUp() override {
    g_seen.clear();
    previous_ = SybaseConnection::setErrorHandler(&record);
    db_ = pg().createDatabase();
    ASSERT_EQ(conn_.connect(pg().uri(db_), "postgres", ""), 0) << (g_seen.empty() ? "" : g_seen[0].dberrstr);
  }
  void TearDown() override {
    SybaseConnection::setErrorHandler(previous_);
    sybconn::PostgresSettings::setLoginTimeout(15);
    sybconn::PostgresSettings::setQueryTimeout(0);
  }
  static PgCluster& pg() { return PgCluster::shared(); }
  bool run(const std::string& sql) { return conn_.execute(sql).commandSucceeded() != 0; }
  std::string first(const std::string& sql) {
    SybaseResultSet rs = conn_.execute(sql);
    return rs.next() ? rs.getStringValue(1) : "no row";
  }
  static double secondsSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
  }

  std::string db_;
  SybaseConnection conn_;
  SybaseConnection::ErrorHandler previous_ = nullptr;
};

TEST_F(Postgres, ValuesRoundTripThroughEveryReader) {
  ASSERT_TRUE(
      run("create table v (i int, n numeric(10,2), s varchar(20), ts timestamp, tz timestamptz, d date)"));
  ASSERT_TRUE(
      run("insert into v values (42, 1234.56, 'O''Brien', '2026-03-04 05:06:07.891', "
          "'2026-03-04 05:06:07.891+00', '2026-03-04'), (null, null, null, null, null, null)"));
  SybaseResultSet rs = conn_.execute("select i, n, s, ts, tz, d from v order by i");
  ASSERT_TRUE(rs.next());
  std::tm utc{};
  utc.tm_year = 126, utc.tm_mon = 2, utc.tm_mday = 4, utc.tm_hour = 5, utc.tm_min = 6, utc.tm_sec = 7;
  const timeval tz{timegm(&utc), 891000};
  timeval ts{0, 0}, d{0, 0};
  SybUtils::parseDate("20260304 05:06:07.891", ts);
  SybUtils::parseDate("20260304", d);
  const struct {
    int col;
    std::string text;
    long asLong;
    double asDouble;
    timeval date;
  } cases[] = {{1, "42", 42, 42, {0, 0}},
               {2, "1234.56", 1234, 1234.56, {0, 0}},
               {3, "O'Brien", 0, 0, {0, 0}},
               {4, "20260304 05:06:07.891", ts.tv_sec, 0, ts},
               {5, SybUtils::convertFromUnixTimeval(tz), tz.tv_sec, 0, tz},
               {6, "20260304 00:00:00.000", d.tv_sec, 0, d}};
  for (const auto& c : cases) {
    EXPECT_FALSE(rs.isNull(c.col)) << c.col;
    EXPECT_EQ(rs.getStringValue(c.col), c.text) << c.col;
    EXPECT_EQ(rs.getLongValue(c.col), c.asLong) << c.col;
    const timeval got = rs.getDateAsTimevalValue(c.col);
    if (c.col <= 3) {
      EXPECT_DOUBLE_EQ(rs.getDoubleValue(c.col), c.asDouble) << c.col;
    } else {
      EXPECT_EQ(got.tv_sec * 1000000 + got.tv_usec, c.date.tv_sec * 1000000 + c.date.tv_usec) << c.col;
    }
  }
  ASSERT_TRUE(rs.next());  // the row of NULLs reads as empty values
  for (int col = 1; col <= 7; ++col) {
    const timeval got = rs.getDateAsTimevalValue(col);
    EXPECT_TRUE(rs.isNull(col) && rs.getStringValue(col).empty() && rs.getLongValue(col) == 0 &&
                rs.getDoubleValue(col) == 0.0 && got.tv_sec == 0 && got.tv_usec == 0)
        << col;
  }
  EXPECT_FALSE(rs.next());
  EXPECT_TRUE(g_seen.empty());
}

TEST_F(Postgres, RowCountsFollowTheCurrentCommand) {
  ASSERT_TRUE(run("create table t (id int primary key, name varchar(20))"));
  const std::pair<const char*, long> writes[] = {
      {"insert into t select g, null from generate_series(1, 5) g", 5},
      {"update t set name = 'x' where id > 2", 3},
      {"update t set name = 'x' where id > 99", 0},
      {"delete t where id = 5", 1}};
  for (const auto& [sql, count] : writes) {
    EXPECT_TRUE(run(sql)) << sql;
    EXPECT_EQ(conn_.rowCount(), count) << sql;
  }
  SybaseResultSet rs = conn_.execute("select id from t");
  ASSERT_TRUE(rs.hasResultSet() && rs.next());
  EXPECT_EQ(conn_.rowCount(), 1);
  rs.releaseResults();
  EXPECT_EQ(conn_.rowCount(), 4);
  EXPECT_FALSE(rs.next());
}

TEST_F(Postgres, AMillionRowsStreamInBoundedMemory) {
  SybaseResultSet rs = conn_.execute("select g, 'row number ' || g from generate_series(1, 1000000) g");
  const size_t before = mallinfo2().uordblks;
  size_t peak = before;
  long rows = 0;
  std::string last;
  while (rs.next()) {
    if (++rows % 100000 == 0) peak = std::max(peak, mallinfo2().uordblks);
    last = rs.getStringValue(2);
  }
  EXPECT_EQ(last, "row number 1000000");
  EXPECT_TRUE(rs.commandSucceeded());
  EXPECT_EQ(conn_.rowCount(), 1000000);
  EXPECT_LT(peak - before, 8u << 20);  // the whole result would take far more
  // Released before its end, a select still counts all its rows.
  conn_.execute("select g from generate_series(1, 300000) g").releaseResults();
  EXPECT_EQ(conn_.rowCount(), 300000);
}

TEST_F(Postgres, NestedTransactionsAreSavepointsInsideTheServersTransaction) {
  ASSERT_TRUE(run("create table t (id int)"));
  const struct {
    char step;  // b(egin), c(ommit), r(ollback) of the level `name`, or the statement `sql`
    const char* what;
  } steps[] = {{'b', "A1"},
               {'s', "insert into t values (1)"},
               {'b', "A2"},
               {'s', "insert into t values (2)"},
               {'r', "A2"},
               {'b', "A2"},
               {'s', "insert into t values (3)"},
               {'c', "A2"},
               {'c', "A1"},
               {'b', "A1"},
               {'s', "insert into t values (4)"},
               {'r', "A1"}};
  for (const auto& s : steps) {
    const SybaseResultSet rs = s.step == 'b'   ? conn_.beginTransaction(s.what)
                               : s.step == 'c' ? conn_.commitTransaction(s.what)
                               : s.step == 'r' ? conn_.rollbackTransaction(s.what)
                                               : conn_.execute(s.what);
    EXPECT_TRUE(rs.commandSucceeded()) << s.step << s.what;
  }
  EXPECT_EQ(first("select string_agg(id::text, ',' order by id) from t"), "1,3");
  // A transaction in which a statement failed is not committed: it stays open
  // for its rollback.
  ASSERT_TRUE(conn_.beginTransaction("A1").commandSucceeded());
  EXPECT_FALSE(run("insert into t values ('x')"));
  g_seen.clear();
  EXPECT_FALSE(conn_.commitTransaction("A1").commandSucceeded());
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_NE(g_seen[0].dberrstr.find("cannot commit"), std::string::npos) << g_seen[0].dberrstr;
  EXPECT_TRUE(conn_.rollbackTransaction("A1").commandSucceeded());
  EXPECT_EQ(conn_.transactionLevels(), 0u);
}

TEST_F(Postgres, SybaseFormsRunAsPostgresOnes) {
  ASSERT_TRUE(run("create schema other; create table other.t (id int); create table t (id int)"));
  EXPECT_TRUE(run("insert into other..t values (1); insert into " + db_ + "..t values (2)"));
  EXPECT_EQ(first("select n = convert(varchar(5), count(*)) from other..t"), "1");
  EXPECT_EQ(first("select n = id from " + db_ + "..t"), "2");
  EXPECT_TRUE(run("delete " + db_ + "..t where id = 2"));
  SybaseResultSet rs = conn_.execute("select now = getdate()");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.columnName(1), "now");
  EXPECT_LT(std::labs(rs.getDateAsTimevalValue(1).tv_sec - std::time(nullptr)), 60);
}

TEST_F(Postgres, RefusedLoginsReportTheServersReasonWithoutThePassword) {
  const std::string tcp = pg().tcpUri();
  const struct {
    std::string server, password, reason;
  } cases[] = {{tcp, "wrong-secret", "password authentication failed"},
               {pg().uri("no_such_db"), "", "\"no_such_db\" does not exist"},
               {"postgresql://127.0.0.1:1/x", "", "Connection refused"}};
  for (const auto& c : cases) {
    g_seen.clear();
    SybaseConnection other;
    EXPECT_EQ(other.connect(c.server, "postgres", c.password), -1) << c.server;
    ASSERT_EQ(g_seen.size(), 1u) << c.server;
    EXPECT_EQ(g_seen[0].dbLibSeverity, 9);
    EXPECT_NE(g_seen[0].dberr, 0);
    EXPECT_NE(g_seen[0].dberrstr.find(c.reason), std::string::npos) << g_seen[0].dberrstr;
  }
  // The password of the URI wins over the one given, and is shown nowhere.
  SybaseConnection other;
  const std::string withSecret = "postgresql://postgres:" + PgCluster::password() + "@" + tcp.substr(13);
  ASSERT_EQ(other.connect(withSecret, "nobody", "wrong-secret"), 0);
  g_seen.clear();
  EXPECT_FALSE(other.execute("select nothing").commandSucceeded());
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].srvname, "postgresql://postgres@" + tcp.substr(13));
}

TEST_F(Postgres, ServerMessagesCarryTheirStateAndSeverity) {
  const struct {
    const char* sql;
    bool ok;
    const char* state;
    int severity;
    const char* text;
  } cases[] = {
      {"select * from no_such_table", false, "42P01", 16, "relation \"no_such_table\" does not exist"},
      {"select 1/0", false, "22012", 16, "division by zero"},
      {"do $$ begin raise warning 'careful'; end $$", true, "01000", 10, "careful"},
      {"do $$ begin raise notice 'note'; end $$", true, "00000", 0, "note"}};
  for (const auto& c : cases) {
    g_seen.clear();
    EXPECT_EQ(run(c.sql), c.ok) << c.sql;
    ASSERT_EQ(g_seen.size(), 1u) << c.sql;
    const SybaseStatus& s = g_seen[0];
    EXPECT_EQ(s.sqlstate, c.state);
    EXPECT_EQ(s.srvSeverity, c.severity);
    EXPECT_EQ(s.msgtext, c.text);
    EXPECT_EQ(s.srvname, pg().uri(db_));
  }
  EXPECT_EQ(g_seen[0].msgno, 1);  // "00000" would read as 0, a client error
  run("select * from no_such_table");
  EXPECT_EQ(g_seen.back().msgno, ((((4 * 36 + 2) * 36 + 25) * 36 + 0) * 36 + 1));  // 42P01 in base 36
}

TEST_F(Postgres, LoginsDeadAfterARestartOrAKilledBackendAreDropped) {
  SybaseConnection killer;
  ASSERT_EQ(killer.connect(pg().uri(db_), "postgres", ""), 0);
  const std::string pid = first("select pg_backend_pid()");
  SybaseResultSet rs = conn_.execute("select g from generate_series(1, 5000000) g");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(killer.execute("select pg_terminate_backend(" + pid + ")").commandSucceeded(), 1);
  long rows = 1;
  while (rs.next()) ++rows;
  EXPECT_FALSE(rs.commandSucceeded());
  EXPECT_LT(rows, 5000000);
  EXPECT_FALSE(conn_.isConnected());

  ASSERT_TRUE(pg().restart()) << pg().error();
  EXPECT_FALSE(killer.execute("select 1").commandSucceeded());
  EXPECT_FALSE(killer.isConnected());
  ASSERT_EQ(conn_.connect(pg().uri(db_), "postgres", ""), 0);
  EXPECT_EQ(first("select 7"), "7");
}

TEST_F(Postgres, TimeOutsBoundTheLoginAndEachCommand) {
  sybconn::PostgresSettings::setLoginTimeout(1);
  sybconn::PostgresSettings::setQueryTimeout(1);
  auto start = std::chrono::steady_clock::now();
  SybaseConnection silent;
  EXPECT_EQ(silent.connect("postgresql://127.0.0.1:" + std::to_string(archivetest::fullBacklogPort()) + "/x",
                           "postgres", ""),
            -1);
  EXPECT_LT(secondsSince(start), 5);
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(run("select pg_sleep(10)"));
  EXPECT_LT(secondsSince(start), 5);
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].dberr, 20003);
  EXPECT_EQ(g_seen[1].dberr, 20003);
  EXPECT_EQ(first("select 8"), "8");  // the cancelled command left the login usable
}

TEST_F(Postgres, TheServiceConnectionLogsInToItsDatabase) {
  const struct {
    std::string uri, db, expected;
  } cases[] = {{"postgresql://h:5432?x=y", "my db", "postgresql://h:5432/my%20db?x=y"},
               {"postgres:///?host=/tmp", "d", "postgres:///d?host=/tmp"},
               {"postgresql://h/own", "d", "postgresql://h/own"},
               {"sqlite:/x.db", "d", "sqlite:/x.db"}};
  for (const auto& c : cases) EXPECT_EQ(sybconn::postgresUriWithDatabase(c.uri, c.db), c.expected);
  EXPECT_EQ(sybconn::serverForDisplay("postgresql://u:pw@h/d?password=x&port=1"),
            "postgresql://u@h/d?port=1");

  std::string socketOnly = pg().uri(db_);
  socketOnly.erase(13, db_.size() + 1);  // "postgresql://" then "/<db>"
  ServiceConnectionSyb service(socketOnly, "postgres", "", db_);
  ASSERT_EQ(service.acquire(), 0);
  ServiceConnectionSyb::ResultSet rs = service.execute("select current_database()");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.getStringValue(1), db_);
}

}  // namespace
