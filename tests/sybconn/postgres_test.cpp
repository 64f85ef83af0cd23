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
  EXPECT_EQ(rs.columnName(0) + rs.columnName(1) + rs.columnName(5) + rs.columnName(6), "numeric?column?");
  // $TZ names the session's zone, also with libc's leading ':'.
  const std::string tz = std::getenv("TZ") ? std::getenv("TZ") : "";
  setenv("TZ", ":Europe/Paris", 1);
  EXPECT_EQ(conn_.connect(pg().uri(db_), "postgres", ""), 0);
  tz.empty() ? unsetenv("TZ") : setenv("TZ", tz.c_str(), 1);
  EXPECT_EQ(first("show timezone"), "Europe/Paris");
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
  conn_.disconnect();
  EXPECT_EQ(conn_.rowCount(), -1);  // a closed login counts nothing
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
    EXPECT_TRUE(g_seen.size() == 1 && g_seen[0].dbLibSeverity == 9 && g_seen[0].dberr != 0) << server;
    EXPECT_NE(lastError().find(reason), std::string::npos) << lastError();
  }
  // The URI's password wins over the one given, and is shown nowhere.
  SybaseConnection other;
  ASSERT_EQ(other.connect("postgresql://postgres:" + PgCluster::password() + at, "x", "wrong-secret"), 0);
  EXPECT_FALSE(other.execute("select nothing").commandSucceeded());
  EXPECT_EQ(g_seen.back().srvname, "postgresql://postgres" + at);
}

TEST_F(Postgres, ServerMessagesCarryTheirStateAndSeverity) {
  const std::tuple<const char*, const char*, bool, int, int, const char*> cases[] = {
      {"select * from nothing", "42P01", false, 6844177, 16, "relation \"nothing\" does not exist"},
      {"do $$ begin raise warning 'careful'; end $$", "01000", true, 46656, 10, "careful"},
      {"do $$ begin raise notice 'note'; end $$", "00000", true, 1, 0, "note"}};
  for (const auto& [sql, state, ok, msgno, severity, text] : cases) {
    g_seen.clear();
    EXPECT_EQ(run(sql), ok) << sql;
    ASSERT_EQ(g_seen.size(), 1u) << sql;
    const SybaseStatus& s = g_seen[0];
    EXPECT_TRUE(s.sqlstate == state && s.msgtext == text && s.srvname == pg().uri(db_)) << s.msgtext;
    EXPECT_EQ(std::make_pair(s.msgno, s.srvSeverity), std::make_pair(msgno, severity)) << sql;
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

// (Batches, NULLs, quotes, a refused duplicate: the suites'.) COPY's text format carries every byte, a
// refused row is named, no row when the table is missing or its name ends the statement; a stopped server
// times out.
TEST_F(Postgres, BulkInsertsCopyEveryByteAndFailWithTheLoginUsable) {
  ASSERT_TRUE(run(
      "create schema s; create table s.t (id bigint primary key, v text); create table slow (v text); "
      "create function nap() returns trigger language plpgsql as $$ begin perform pg_sleep(30); "
      "return new; end $$; create trigger nap before insert on slow for each row execute function nap()"));
  Rows good, bad, big, none;
  std::string all = "NULL";
  good.rows.push_back({value(LLONG_MIN), sybconn::SqlValue()});
  for (const char* v : {"a\tb", "line\nnext\r\n", "back\\slash\\", "\\N", "\\.", "", "\\\t\\n", "\xc3\xa9"})
    good.rows.push_back({value(static_cast<long long>(good.rows.size())), value(v)}),
        all += "|" + std::string(v);
  bad.rows = {
      {value(100), value("x")}, {value(101), value("y")}, {value("1e3"), value("z")}, {value(9), value("")}};
  big.rows.assign(2000, {value(std::string(4000, 'x'))});  // MBs more than the sockets hold
  using Case = std::tuple<const char*, std::vector<std::string>, Rows&, long, int, size_t, const char*>;
  const Case cases[] = {
      {"s..t", {"id", "v"}, good, 9, -1, 0, ""},
      {"s..t", {"id", "v"}, bad, -1, 2, 1, "invalid input syntax for type bigint: \"1e3\""},
      {"s..missing", {"id", "v"}, good, -1, -1, 1, "relation \"s.missing\" does not exist"},
      {"slow", {"v"}, big, -1, -1, 1, "timed out after 1 s; cancelled"},
      {"s.t (id) to stdout --", {"v"}, none, -1, -1, 1, "did not start"},
      {"s.t to '/dev/null'; copy s.t", {"v"}, none, -1, -1, 2, "did not start|COPY from stdin failed"},
      {"s.t from stdin; copy s.t to stdout; copy s.t", {"v"}, none, -1, -1, 1, "not supported by"}};
  sybconn::PostgresSettings::setQueryTimeout(1);
  for (const auto& [table, columns, rows, written, failedRow, messages, message] : cases) {
    g_seen.clear();
    rows.at = 0;
    long failed = 7;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(conn_.insertRows(table, columns, rows, failed), written) << table;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << table;
    EXPECT_EQ(failed, failedRow) << table;
    std::string said;
    for (const SybaseStatus& s : g_seen) said += s.msgtext + s.dberrstr + "|";
    EXPECT_TRUE(g_seen.size() == messages && said.find(message) != std::string::npos) << said;
    // The login goes on, with all of the batch written or none.
    EXPECT_EQ(first("select string_agg(coalesce(v, 'NULL'), '|' order by id) from s.t"), all) << table;
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
  while (rs.next()) continue;
  EXPECT_TRUE(!rs.commandSucceeded() && conn_.rowCount() < 5000000 && !conn_.isConnected())
      << conn_.rowCount();
  // The last word is libpq's own, for the closed connection (the server's reason may come before it).
  EXPECT_TRUE(!g_seen.empty() && g_seen.back().dberr == 20017 &&
              lastError().find("server closed the connection unexpectedly") == 0)
      << lastError();

  ASSERT_TRUE(pg().restart()) << pg().error();
  EXPECT_FALSE(killer.execute("select 1").commandSucceeded() || killer.isConnected());
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
  EXPECT_TRUE(g_seen.size() == 2 && g_seen[0].dberr + g_seen[1].dberr == 2 * 20003) << g_seen.size();
  EXPECT_EQ(first("select 8"), "8");  // the cancelled command left the login usable
  // Rows that stop coming part-way: the rows read stand, the command fails.
  SybaseResultSet rs =
      conn_.execute("select g, case when g = 100000 then pg_sleep(3) end from generate_series(1, 100000) g");
  long rows = 0;
  while (rs.next()) ++rows;
  EXPECT_TRUE(rows > 0 && rows < 100000 && !rs.commandSucceeded()) << rows;
}

// The driver sends no command while another is open: insertRows reads an open select off first; a command
// sent while a COPY's rows are made is refused with libpq's reason, and the COPY goes on.
TEST_F(Postgres, TheDriverSendsNoCommandWhileAnotherIsOpen) {
  struct Reentrant : Rows {  // at its second row, sends a select, then a COPY, on its own login
    std::unique_ptr<sybconn::Driver> driver = sybconn::makePostgresDriver();
    long nested = 0, failed = 0;
    const sybconn::SqlValue* next() override {
      if (at == 1)
        nested = driver->execute("select 1")->succeeded() ? 0 : driver->insertRows("t", {"v"}, *this, failed);
      return Rows::next();
    }
  } rows;
  rows.rows = {{value(1)}, {value(2)}, {value(3)}};
  EXPECT_EQ(rows.driver->insertRows("t", {"v"}, rows, rows.failed), -1);  // not logged in
  ASSERT_TRUE(run("create table t (v int)") && rows.driver->connect(pg().uri(db_), "postgres", ""));
  const auto open = rows.driver->execute("select g from generate_series(1, 1000) g");  // its first row read
  const long written = rows.driver->insertRows("t", {"v"}, rows, rows.failed);
  EXPECT_TRUE(written == 3 && rows.nested == -1 && !open->next()) << written << " " << rows.nested;
  const std::string busy = "another command is already in progress";
  EXPECT_EQ(g_seen.size() == 3 ? g_seen[0].dberrstr + "|" + g_seen[2].dberrstr : "",
            "Not connected to |" + busy + "\n" + busy);
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
