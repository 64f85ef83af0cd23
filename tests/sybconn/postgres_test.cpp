// SybaseConnection on a throwaway PostgreSQL cluster: values, counts, streams, transactions, failures.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sybconn/PostgresSettings.h>
#include <sybconn/SqlRows.h>
#include <sybconn/SybUtils.h>
#include <sybconn/SybaseConnection.h>

#include <chrono>
#include <climits>
#include <utility>
#include <vector>

#include "dataAccess/db/ConnectionPool.h"
#include "dataAccess/db/ServiceConnectionSyb.h"
#include "sybconn/drivers/PostgresDriver.h"
#include "tests/support/ArchiveServer.h"
#include "tests/support/PgCluster.h"
#include "tests/support/TableRows.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::PgCluster;
std::vector<SybaseStatus> g_seen;
void record(const SybaseStatus& s) { g_seen.push_back(s); }
PgCluster& pg() { return PgCluster::shared(); }

using testsupport::Row, testsupport::Rows, testsupport::value;

class Postgres : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_ = SybaseConnection::setErrorHandler(&record);
    ASSERT_EQ(conn_.connect(pg().uri(db_), "postgres", ""), 0);
    g_seen.clear();
  }
  void TearDown() override {
    SybaseConnection::setErrorHandler(previous_);
    sybconn::PostgresSettings::setLoginTimeout(15), sybconn::PostgresSettings::setQueryTimeout(0);
  }
  bool run(const std::string& sql) { return conn_.execute(sql).commandSucceeded() != 0; }
  std::string first(const std::string& sql) {
    SybaseResultSet rs = conn_.execute(sql);
    return rs.next() ? rs.getStringValue(1) : "no row";
  }
  std::string lastError() const { return g_seen.empty() ? "none" : g_seen.back().dberrstr; }

  const std::string db_ = pg().createDatabase();
  SybaseConnection conn_;
  SybaseConnection::ErrorHandler previous_ = nullptr;
};

// Values of the plain types are the suites' (db, catalogue) on PostgreSQL; here, the date types and
// numeric through every reader.
TEST_F(Postgres, DatesAndNumericsReadThroughEveryReader) {
  SybaseResultSet rs = conn_.execute(
      "select 1234.56::numeric(10,2), '2026-03-04 05:06:07.891+00'::timestamptz, '2026-03-04'::date, "
      "9223372036854775808.0, true");  // 2^63: beyond a long by one
  ASSERT_TRUE(rs.next());
  timeval day{0, 0};
  SybUtils::parseDate("20260304", day);
  const timeval utc{1772600767, 891000};  // 2026-03-04 05:06:07.891 UTC
  EXPECT_EQ(rs.getStringValue(1) + "|" + rs.getStringValue(2) + "|" + rs.getStringValue(3),
            "1234.56|" + SybUtils::convertFromUnixTimeval(utc) + "|20260304 00:00:00.000");
  EXPECT_EQ(std::make_tuple(rs.getLongValue(1), rs.getDoubleValue(1), rs.getLongValue(4), rs.getLongValue(5)),
            std::make_tuple(1234L, 1234.56, LONG_MAX, 1L));
  EXPECT_EQ(std::vector<long>({rs.getDateAsTimevalValue(2).tv_sec, rs.getDateAsTimevalValue(2).tv_usec,
                               rs.getDateAsTimevalValue(3).tv_sec, rs.getLongValue(3)}),
            std::vector<long>({utc.tv_sec, utc.tv_usec, day.tv_sec, day.tv_sec}));
}

TEST_F(Postgres, AMillionRowsStreamAndCountAsRead) {  // writes' counts: the suites' on PostgreSQL
  SybaseResultSet rs = conn_.execute("select g, 'row number ' || g from generate_series(1, 1000000) g");
  const size_t before = mallinfo2().uordblks;
  size_t midway = before;
  std::string last;
  for (long rows = 1; rs.next(); ++rows) {
    if (rows == 500000) midway = mallinfo2().uordblks;
    last = rs.getStringValue(2);
  }
  EXPECT_LT(midway, before + (8u << 20));  // never the whole result (some 100 MB) at once
  EXPECT_EQ(last + " " + std::to_string(conn_.rowCount()), "row number 1000000 1000000");
  // Released before its end, a select still counts all its rows.
  conn_.execute("select g from generate_series(1, 300000) g").releaseResults();
  EXPECT_EQ(conn_.rowCount(), 300000);
}

TEST_F(Postgres, RefusedLoginsReportTheServersReasonNeverThePassword) {
  const std::string tcp = pg().tcpUri(), at = "@" + tcp.substr(13);  // "@127.0.0.1:N/postgres"
  const std::pair<std::string, std::string> cases[] = {
      {tcp, "password authentication failed"},
      {pg().uri("no_such_db"), "\"no_such_db\" does not exist"},
      {"postgresql://127.0.0.1:1/x", "Connection refused"}};
  for (const auto& [server, reason] : cases) {
    g_seen.clear();
    EXPECT_EQ(SybaseConnection().connect(server, "postgres", "wrong-secret"), -1) << server;
    ASSERT_EQ(g_seen.size(), 1u) << server;
    EXPECT_TRUE(g_seen[0].dbLibSeverity == 9 && g_seen[0].dberr != 0) << server;
    EXPECT_NE(lastError().find(reason), std::string::npos) << lastError();
  }
  // The URI's password wins over the one given, and is shown nowhere.
  SybaseConnection other;
  ASSERT_EQ(other.connect("postgresql://postgres:" + PgCluster::password() + at, "x", "wrong-secret"), 0);
  EXPECT_FALSE(other.execute("select nothing").commandSucceeded());
  EXPECT_EQ(g_seen.back().srvname, "postgresql://postgres" + at);
}

TEST_F(Postgres, ServerMessagesCarryTheirStateAndSeverity) {
  const struct {
    const char *sql, *state;
    bool ok;
    int msgno, severity;
    const char* text;
  } cases[] = {{"select * from nothing", "42P01", false, 6844177, 16, "relation \"nothing\" does not exist"},
               {"do $$ begin raise warning 'careful'; end $$", "01000", true, 46656, 10, "careful"},
               {"do $$ begin raise notice 'note'; end $$", "00000", true, 1, 0, "note"}};
  for (const auto& c : cases) {
    g_seen.clear();
    EXPECT_EQ(run(c.sql), c.ok) << c.sql;
    ASSERT_EQ(g_seen.size(), 1u) << c.sql;
    const SybaseStatus& s = g_seen[0];
    EXPECT_TRUE(s.sqlstate == c.state && s.msgtext == c.text && s.srvname == pg().uri(db_)) << s.msgtext;
    EXPECT_EQ(std::make_pair(s.msgno, s.srvSeverity), std::make_pair(c.msgno, c.severity)) << c.sql;
  }
  // (Nested levels are the suites'.) A transaction with a failed statement stays open for its rollback.
  ASSERT_TRUE(run("create table t (id int)"));
  // COPY has no data here: from stdin it is refused, to stdout drained; the login goes on.
  EXPECT_EQ(std::make_tuple(run("copy t from stdin"), run("copy (select 1) to stdout"), first("select 2")),
            std::make_tuple(false, true, std::string("2")));
  ASSERT_TRUE(conn_.beginTransaction("A1").commandSucceeded());
  EXPECT_FALSE(run("insert into t values ('x')"));
  EXPECT_FALSE(conn_.commitTransaction("A1").commandSucceeded());
  EXPECT_NE(lastError().find("cannot commit"), std::string::npos) << lastError();
  EXPECT_TRUE(conn_.rollbackTransaction("A1").commandSucceeded());
}

// (Batches, NULLs, quotes and a refused duplicate are the suites'.) COPY's text format carries every byte, a
// refused row is named, a missing table names none, a server that stops reading times out; the login goes on.
TEST_F(Postgres, BulkInsertsCopyEveryByteAndFailWithTheLoginUsable) {
  ASSERT_TRUE(run(
      "create schema s; create table s.t (id bigint primary key, v text); create table slow (v text); "
      "create function nap() returns trigger language plpgsql as $$ begin perform pg_sleep(30); "
      "return new; end $$; create trigger nap before insert on slow for each row execute function nap()"));
  Rows good, bad, big;
  good.rows.push_back({value(LLONG_MIN), sybconn::SqlValue()});
  std::string all = "NULL";
  for (const char* v : {"a\tb", "line\nnext\r\n", "back\\slash\\", "\\N", "\\.", "", "\\\t\\n", "\xc3\xa9"})
    good.rows.push_back({value(static_cast<long long>(good.rows.size())), value(v)}),
        all += "|" + std::string(v);
  bad.rows = {
      {value(100), value("x")}, {value(101), value("y")}, {value("1e3"), value("z")}, {value(9), value("")}};
  big.rows.assign(2000, {value(std::string(4000, 'x'))});  // MBs more than the sockets hold
  const struct {
    const char* table;
    std::vector<std::string> columns;
    Rows& rows;
    long written, failedRow;
    const char* message;
  } cases[] = {
      {"s..t", {"id", "v"}, good, 9, -1, ""},  // "s..t": the table of schema s, as an insert writes it
      {"s..t", {"id", "v"}, bad, -1, 2, "invalid input syntax for type bigint: \"1e3\""},
      {"s..missing", {"id", "v"}, good, -1, -1, "relation \"s.missing\" does not exist"},
      {"slow", {"v"}, big, -1, -1, "timed out after 1 s; cancelled"}};
  sybconn::PostgresSettings::setQueryTimeout(1);
  for (const auto& c : cases) {
    g_seen.clear();
    c.rows.at = 0;
    long failed = 7;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(conn_.insertRows(c.table, c.columns, c.rows, failed), c.written) << c.table;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << c.table;
    EXPECT_EQ(failed, c.failedRow) << c.table;
    const std::string said = g_seen.empty() ? "" : g_seen[0].msgtext + g_seen[0].dberrstr;
    EXPECT_TRUE(g_seen.size() == (*c.message ? 1u : 0u) && said.find(c.message) != std::string::npos) << said;
    // The login goes on, with all of the batch written or none.
    EXPECT_EQ(first("select string_agg(coalesce(v, 'NULL'), '|' order by id) from s.t"), all) << c.table;
  }
}

// A COPY error's context names the refused row (from 0), also after a function's line or in another language.
TEST(PostgresCopyContext, NamesTheRefusedRowOrNone) {
  const std::pair<const char*, long> cases[] = {{nullptr, -1},
                                                {"PL/pgSQL function nap() line 3", -1},  // no COPY line
                                                {"COPY t, line 5, column v: \"x\"", 4},
                                                {"PL/pgSQL function nap() line 3\nCOPY slow, line 2", 1},
                                                {"COPY t, Zeile 7", 6},   // the first number after the table
                                                {"COPY t, line 11", -1},  // beyond the 10 rows sent
                                                {"COPY t, line 0", -1},
                                                {"COPY t", -1}};
  for (const auto& [context, row] : cases)
    EXPECT_EQ(sybconn::copyFailedRow(context, 10), row) << (context ? context : "");
}

TEST_F(Postgres, LoginsDeadAfterAKilledBackendOrARestartAreDropped) {
  SybaseConnection killer;
  ASSERT_EQ(killer.connect(pg().uri(db_), "postgres", ""), 0);
  const std::string pid = first("select pg_backend_pid()");
  SybaseResultSet rs = conn_.execute("select g from generate_series(1, 5000000) g");
  ASSERT_TRUE(rs.next());
  EXPECT_TRUE(killer.execute("select pg_terminate_backend(" + pid + ")").commandSucceeded());
  while (rs.next()) {
  }
  EXPECT_FALSE(rs.commandSucceeded());
  EXPECT_LT(conn_.rowCount(), 5000000);
  EXPECT_FALSE(conn_.isConnected());

  ASSERT_TRUE(pg().restart()) << pg().error();
  EXPECT_FALSE(killer.execute("select 1").commandSucceeded());
  EXPECT_FALSE(killer.isConnected());
  ASSERT_EQ(conn_.connect(pg().uri(db_), "postgres", ""), 0);
  EXPECT_EQ(first("select 7"), "7");
}

TEST_F(Postgres, TimeOutsBoundTheLoginAndEachCommand) {
  sybconn::PostgresSettings::setLoginTimeout(1), sybconn::PostgresSettings::setQueryTimeout(1);
  const auto start = std::chrono::steady_clock::now();
  const std::string silent =
      "postgresql://127.0.0.1:" + std::to_string(archivetest::fullBacklogPort()) + "/x";
  const long fds = testsupport::openFdCount();
  EXPECT_EQ(SybaseConnection().connect(silent, "postgres", ""), -1);
  EXPECT_EQ(testsupport::openFdCount(), fds);  // the abandoned login's socket is closed
  EXPECT_FALSE(run("select pg_sleep(10)"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
  ASSERT_EQ(g_seen.size(), 2u);
  EXPECT_EQ(g_seen[0].dberr + g_seen[1].dberr, 2 * 20003);
  EXPECT_EQ(first("select 8"), "8");  // the cancelled command left the login usable
  // Rows that stop coming part-way: the rows read stand, the command fails.
  SybaseResultSet rs =
      conn_.execute("select g, case when g = 100000 then pg_sleep(3) end from generate_series(1, 100000) g");
  long rows = 0;
  while (rs.next()) ++rows;
  EXPECT_TRUE(rows > 0 && rows < 100000 && !rs.commandSucceeded()) << rows;
}

TEST_F(Postgres, TheServiceConnectionLogsInToItsDatabase) {
  EXPECT_EQ(sybconn::postgresUriWithDatabase("postgresql://h:5432?x=y", "my db"),
            "postgresql://h:5432/my%20db?x=y");
  EXPECT_EQ(sybconn::postgresUriWithDatabase("postgresql://h/own", "d"), "postgresql://h/own");
  std::string noDatabase = pg().uri(db_);
  noDatabase.erase(13, db_.size() + 1);  // "postgresql://?host=..."
  ServiceConnectionSyb service(noDatabase, "postgres", "", db_);
  ASSERT_EQ(service.acquire(), 0);
  ServiceConnectionSyb::ResultSet rs = service.execute("select current_database()");
  EXPECT_EQ(rs.next() ? rs.getStringValue(1) : "", db_);
  service.release();
  ConnectionPool::destroyInstance();
}

}  // namespace
