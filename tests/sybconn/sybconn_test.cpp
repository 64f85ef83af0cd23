// SybaseConnection on real SQLite files (rows, counts, copies, errors, dates) and the SQL rewriter.
#include <gtest/gtest.h>
#include <sybconn/ArcSysUtils.h>
#include <sybconn/SqliteSettings.h>
#include <sybconn/SybUtils.h>
#include <sybconn/SybaseConnection.h>

#include <malloc.h>
#include <sqlite3.h>

#include <ctime>
#include <filesystem>
#include <vector>

#include "sybconn/drivers/Dialect.h"
#include "tests/support/TableRows.h"
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
    ASSERT_EQ(run("create table t (id int primary key, name varchar(20), size float, ignore int)"), 1);
  }
  void TearDown() override { SybaseConnection::setErrorHandler(previous_); }
  int run(const std::string& sql) { return conn_.execute(sql).commandSucceeded(); }
  static std::string first(SybaseConnection& conn, const std::string& sql) {
    SybaseResultSet rs = conn.execute(sql);
    return rs.next() ? rs.getStringValue(1) : "no row";
  }
  void expectOneError(const std::string& fragment, int severity) {
    ASSERT_EQ(g_seen.size(), 1u) << fragment;
    EXPECT_EQ(g_seen[0].srvSeverity, severity) << fragment;
    EXPECT_EQ(g_seen[0].srvname, server_);
    EXPECT_NE(g_seen[0].msgtext.find(fragment), std::string::npos) << g_seen[0].msgtext;
    g_seen.clear();
  }

  testsupport::TempDir dir_;
  const std::string server_ = "sqlite:" + dir_.file("main.db");
  SybaseConnection conn_;
  SybaseConnection::ErrorHandler previous_ = nullptr;
};

TEST_F(Connection, ReadsTypedColumnsAndNulls) {
  run("insert into t (id, name, size, ignore) values (1, 'O''Brien', 3.9, NULL)");
  SybaseResultSet rs = conn_.execute("select id, name, size, ignore from t");
  ASSERT_TRUE(rs.hasResultSet() && rs.next());
  EXPECT_EQ(
      rs.columnName(4) + std::to_string(rs.getLongValue(1)) + rs.getStringValue(2) + rs.getStringValue(9),
      "ignore1O'Brien");
  EXPECT_DOUBLE_EQ(rs.getDoubleValue(3), 3.9);
  // NULL, not NULL, no such column; no row after the last, twice.
  EXPECT_EQ(std::vector<bool>({rs.isNull(4), rs.isNull(1), rs.isNull(0), rs.next(), rs.next()}),
            std::vector<bool>({1, 0, 1, 0, 0}));
  EXPECT_FALSE(conn_.execute("update t set id = 1 where id = 2").hasResultSet());  // a write has no rows
}

using testsupport::Rows, testsupport::value;

// A bulk insert writes numbers, texts and NULLs in a level of its own: all rows, or none and the refused row.
TEST_F(Connection, BulkInsertsWriteAllRowsOrNone) {
  const std::vector<std::string> cols = {"id", "name", "ignore"};
  const testsupport::Row row = {value(-7), value("O'Brien''s"), sybconn::SqlValue()};
  std::string sql;
  sybconn::appendInsert(sql, "db..t", cols, row.data());
  EXPECT_EQ(sql, "insert into db..t (id,name,ignore) values (-7,'O''Brien''''s',NULL)");

  long failed = 9;
  Rows good, dup, none;
  good.rows = {row, {value(2), value("x"), value(5)}};
  EXPECT_EQ(conn_.insertRows("t", cols, good, failed), 2);
  EXPECT_EQ(failed, -1);
  EXPECT_EQ(first(conn_, "select group_concat(id || name || coalesce(ignore, 'N'), ' ') from t"),
            "-7O'Brien''sN 2x5");
  ASSERT_EQ(conn_.beginTransaction("outer").commandSucceeded(), 1);
  dup.rows = {
      {value(3), value("y"), value(0)}, {value(2), value("z"), value(0)}, {value(4), value("w"), value(0)}};
  EXPECT_EQ(conn_.insertRows("t", cols, dup, failed), -1);
  EXPECT_EQ(failed, 1);
  expectOneError("UNIQUE constraint failed", 16);
  EXPECT_EQ(conn_.transactionLevels(), 1u);  // its own level rolled back, the caller's kept
  EXPECT_EQ(first(conn_, "select count(*) from t"), "2");
  ASSERT_EQ(conn_.rollbackTransaction("outer").commandSucceeded(), 1);
  ASSERT_EQ(conn_.beginTransaction("left open").commandSucceeded(), 1);
  ASSERT_EQ(conn_.connect(server_, "u", "p"), 0);
  EXPECT_EQ(conn_.transactionLevels(), 0u);  // a new login starts without the old one's levels

  none.rows = {row};
  EXPECT_EQ(conn_.insertRows("missing", cols, none, failed), -1);  // no row to blame
  EXPECT_EQ(failed, -1);
  expectOneError("no such table", 16);
  SybaseConnection loggedOut;
  EXPECT_EQ(loggedOut.insertRows("t", cols, none, failed), -1);
  EXPECT_EQ(g_seen.size(), 1u);
}

TEST_F(Connection, RowCountsFollowTheCurrentCommand) {
  run("insert into t (id) values (1), (2), (3), (4), (5)");
  const std::pair<const char*, long> writes[] = {{"update t set name = 'x' where id > 2", 3},
                                                 {"update t set name = 'x' where id > 99", 0},
                                                 {"delete t where id = 5", 1}};
  for (const auto& [sql, count] : writes) {
    run(sql);
    EXPECT_EQ(conn_.rowCount(), count) << sql;
  }
  // A select counts rows as they are read, and all of them once released.
  SybaseResultSet rs = conn_.execute("select id from t");
  EXPECT_EQ(conn_.rowCount(), 0);
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(conn_.rowCount(), 1);
  rs.releaseResults();
  EXPECT_EQ(conn_.rowCount(), 4);
  EXPECT_FALSE(rs.next());
  EXPECT_EQ(run("select id from t where id > 99"), 1);
  EXPECT_EQ(conn_.rowCount(), 0);
  conn_.releaseResults();  // as before the login passes on: the next holder sees no count of this one's
  EXPECT_EQ(conn_.rowCount(), -1);
}

TEST_F(Connection, CopiesShareOneCursorThatEndsWithItsLogin) {
  run("insert into t (id) values (1), (2), (3)");
  SybaseResultSet a = conn_.execute("select id from t order by id");
  SybaseResultSet b = a;
  ASSERT_TRUE(a.next());
  ASSERT_TRUE(b.next());
  EXPECT_EQ(a.getLongValue(1), 2);
  // The next batch, or the end of the login, ends what is left.
  EXPECT_EQ(run("-- any batch, even one of comments only"), 1);
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
  run("insert into t (id) values (1)");
  std::filesystem::create_directory(dir_.file("bad.db"));  // a sibling file that cannot be opened
  // The last one is a batch, which stops at its first failing statement.
  const char* const cases[][2] = {
      {"insert into t (id) values (1)", "UNIQUE"},
      {"selec 1", "syntax error"},
      {"select * from bad..t", "unable to open database"},
      {"insert into t (id) values (7); insert into nowhere values (1); insert into t (id) values (8)",
       "nowhere"},
      {"select 1; /* not the last */ select * from nowhere", "nowhere"}};
  for (const auto& [sql, fragment] : cases) {
    EXPECT_EQ(run(sql), 0) << sql;
    expectOneError(fragment, 16);
  }
  EXPECT_EQ(first(conn_, "select count(*) from t where id in (7, 8)"), "1");
  EXPECT_EQ(first(conn_, "select 7; /* a*b/c */"), "7");  // a comment to the end is no statement
  long failed;
  Rows one;
  one.rows = {{value(1)}};
  EXPECT_EQ(conn_.insertRows("bad..t", {"id"}, one, failed), -1);
  expectOneError("unable to open database", 16);
  run("insert into t (id) values (1)");  // numbered by SQLite's extended code: SQLITE_CONSTRAINT_PRIMARYKEY
  EXPECT_EQ(g_seen.at(0).msgno, 1555);
}

TEST_F(Connection, ALockedFileIsAnErrorNotAHang) {
  sybconn::setSqliteBusyTimeoutMs(0);  // no waiting at all
  ASSERT_EQ(sybconn::sqliteBusyTimeoutMs(), 0);
  SybaseConnection other;
  ASSERT_EQ(other.connect(server_, "u", "p"), 0);
  sybconn::setSqliteBusyTimeoutMs(-1);
  EXPECT_EQ(sybconn::sqliteBusyTimeoutMs(), 5000);  // the default again
  // This connection holds the write lock; the other gives up after its time-out.
  ASSERT_EQ(run("begin Tran A1; insert into t (id) values (1)"), 1);
  EXPECT_EQ(other.execute("insert into t (id) values (2)").commandSucceeded(), 0);
  expectOneError("locked", 17);
  // Readers still see the last committed state meanwhile.
  EXPECT_EQ(first(other, "select count(*) from t"), "0");
  ASSERT_EQ(run("commit A1"), 1);
  EXPECT_EQ(other.execute("insert into t (id) values (2)").commandSucceeded(), 1);
  // A sibling file in the middle of a write cannot be switched to WAL: the statement fails, once.
  sqlite3* side = nullptr;
  ASSERT_EQ(sqlite3_open(dir_.file("side.db").c_str(), &side), SQLITE_OK);
  sqlite3_exec(side, "create table s (x); begin immediate; insert into s values (1)", nullptr, nullptr,
               nullptr);
  EXPECT_EQ(other.execute("select * from side..s").commandSucceeded(), 0);
  expectOneError("locked", 17);
  sqlite3_close_v2(side);
}

TEST_F(Connection, AStepThatFailsPartWayFailsTheResult) {
  ASSERT_EQ(run("insert into t (id, name) with recursive n(i) as (select 1 union all select i + 1 from n "
                "where i < 2000) select i, printf('%0200d', i) from n"),
            1);
  conn_.disconnect();
  // The last page, with the last rows, is damaged; rows are read to the end, or the rest dropped after one.
  dir_.scribble("main.db", static_cast<long>(std::filesystem::file_size(dir_.file("main.db"))) - 4096, 4096);
  for (const bool readAll : {true, false}) {
    ASSERT_EQ(conn_.connect(server_, "u", "p"), 0);
    SybaseResultSet rs = conn_.execute("select id, name from t");
    ASSERT_TRUE(rs.next());
    while (readAll && rs.next()) {
    }
    if (!readAll) rs.releaseResults();
    EXPECT_EQ(rs.commandSucceeded(), 0) << readAll;
    EXPECT_TRUE(conn_.rowCount() > 1 && conn_.rowCount() < 2000) << readAll;  // failed part-way
    expectOneError("malformed", 23);
  }
}

TEST_F(Connection, LoginFailuresAreReportedAsClientErrors) {
  for (const std::string& server : {"sqlite:" + dir_.file("no/such/dir/x.db"), std::string("sqlite:")}) {
    SybaseConnection bad;
    EXPECT_TRUE(bad.connect(server, "u", "p") == -1 && !bad.isConnected()) << server;
    ASSERT_EQ(g_seen.size(), 1u) << server;
    EXPECT_EQ(std::make_pair(g_seen[0].msgno, g_seen[0].dbLibSeverity), std::make_pair(0, 9));
    EXPECT_EQ(bad.execute("select 1").commandSucceeded(), 0);
    EXPECT_EQ(bad.rowCount(), -1);
    g_seen.clear();
  }
  SybaseConnection::setErrorHandler(nullptr);  // the fixture's keeps every message
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 200; ++i) SybaseConnection().connect("sqlite:" + dir_.file("no/x.db"), "u", "p");
  EXPECT_LT(mallinfo2().uordblks, before + 60000);  // the handle of each failed open is closed
  const long open = testsupport::openFdCount();
  for (int i = 0; i < 3; ++i) ASSERT_EQ(conn_.connect(server_, "user", "pw"), 0);
  EXPECT_EQ(testsupport::openFdCount(), open);  // a new login closes the one before
}

timeval local(const char* text, long usec = 0) {
  struct tm t {};
  strptime(text, "%Y-%m-%d %H:%M:%S", &t);
  t.tm_isdst = -1;
  return {mktime(&t), usec};
}

TEST(Dates, TextFormAndParsing) {
  setenv("TZ", "UTC0", 1), tzset();  // where the last second of 1969 is mktime's -1, and still a date
  const timeval tv = local("2026-11-22 13:05:09", 250999);
  EXPECT_EQ(SybUtils::convertFromUnixTimeval(tv), "20261122 13:05:09.250");
  // Microseconds out of range are carried into the seconds.
  EXPECT_EQ(SybUtils::convertFromUnixTimeval(timeval{tv.tv_sec - 1, 1250999}), "20261122 13:05:09.250");
  const std::pair<const char*, timeval> good[] = {
      {"20261122 13:05:09.250", {tv.tv_sec, 250000}},
      {"2026-11-22T13:05:09.123456789", {tv.tv_sec, 123456}},
      {"2026-11-22 13:05:09:500", {tv.tv_sec, 500000}},  // Sybase's colon before milliseconds
      {"2026-11-22", local("2026-11-22 00:00:00")},
      {"1969-12-31 23:59:59", {-1, 0}}};
  for (const auto& [text, want] : good) {
    timeval t{};
    EXPECT_TRUE(SybUtils::parseDate(text, t)) << text;
    EXPECT_EQ(t.tv_sec * 1000000L + t.tv_usec, want.tv_sec * 1000000L + want.tv_usec) << text;
  }
  for (const char* bad : {"", "2026", "2026-13-01", "20261122 25:00:00", "20261122 13:05:09.", "x20261122",
                          "20261122 13:05:09 junk", "2026-11-22 13", "2026-11-22 13:05:x"}) {
    timeval t{7, 7};
    EXPECT_FALSE(SybUtils::parseDate(bad, t) || t.tv_sec != 7) << bad;  // refused, the value left alone
  }
  unsetenv("TZ"), tzset();
}

TEST_F(Connection, DatesReadFromStorage) {
  run("create table d (id int, at datetime)");
  // getdate() is stored in that form and reads back as now; epoch numbers are dates; other text is 0.
  const time_t before = time(nullptr);
  run("insert into d values (99, getdate())");
  SybaseResultSet rs = conn_.execute("select at, 1700000000, 1700000000.25, 'soon' from d where id = 99");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(rs.getStringValue(1).size(), 21u);
  EXPECT_LE(std::labs(rs.getDateAsTimevalValue(1).tv_sec - before), 2);
  EXPECT_EQ(std::vector<long>({rs.getDateAsTimevalValue(2).tv_sec, rs.getDateAsTimevalValue(3).tv_usec,
                               rs.getDateAsTimevalValue(4).tv_sec}),
            std::vector<long>({1700000000, 250000, 0}));
}

TEST(Dialect, RewritesAndSplits) {
  const std::string now = "strftime('%Y%m%d %H:%M:%f','now','localtime')";
  // An empty `out` means unchanged; `home`, the login's own database, needs no attaching.
  using sybconn::DialectTarget;
  const struct {
    std::string in, out, home = "";
    std::vector<std::string> databases = {};
    DialectTarget target = DialectTarget::Sqlite;
  } cases[] = {
      {"insert into t values ('x'); delete T where a='delete T where'",
       "insert into t values ('x'); delete from T where a='delete T where'"},
      {"begin Tran A1", "SAVEPOINT A1"},
      {"commit tran A2;", "RELEASE A2;"},
      {"rollback", "ROLLBACK TO sybtran; RELEASE sybtran"},
      {"commit work", "RELEASE sybtran"},
      {"select distinct x=a+1, b from t", "select distinct a+1 AS x, b from t"},
      {"select @x = 1", ""},
      {"update t set d = getdate() where x='getdate()'", "update t set d = " + now + " where x='getdate()'"},
      {"select 'it''s a..b', \"delete T where\", 'x=getdate()' -- begin Tran A1\n/* commit A1 */", ""},
      // A comment runs to the end of its line, and no further.
      {"select 1 -- getdate() a..b\n", ""},
      {"select '' -- x\n, getdate()", "select '' -- x\n, " + now},
      {"select 'abc getdate()", ""},  // an unterminated literal runs to the end
      {"select count(*) / 2 from x..t", "select count(*) / 2 from x.t", "", {"x"}},  // no comment starts here
      {"select a = 1, b = 'x", ""},  // and no alias is written after it
      {"SELECT X = (select y = 1; DELETE t), z=w /*c*/ FROM T",
       "SELECT (select 1 AS y; DELETE from t) AS X, w AS z /*c*/ FROM T"},
      {"select a = select b = 2 , c from t", "select select 2 AS b AS a , c from t"},
      // A clause word ends the select list at its depth only, even after "X..".
      {"select (y..order), x..from t", "select (y.order), x..from t", "", {"y"}},
      {"select a from \x80q..t", "select a from \x80q.t", "", {"\x80q"}},  // a byte above ASCII starts a name
      {"select x..cs.cs_id from obrep2..cs c, ambient.dbo.s, x..y, obrep2..z",
       "select x.cs.cs_id from main.cs c, ambient.s, x.y, main.z",
       "obrep2",
       {"x", "ambient"}},
      // PostgreSQL: schemas for databases, the home database's tables unqualified, its own clock, and
      // transaction statements as written; a convert with a style or without a type as written.
      {"select a from obrep2..cs, x.dbo.t where d < getdate()",
       "select a from cs, x.t where d < LOCALTIMESTAMP(3)",
       "obrep2",
       {"x"},
       DialectTarget::Postgres},
      {"select convert(varchar(10), a + 1), n = convert(int, '1,2') from x..t",
       "select CAST(a + 1 AS varchar(10)), CAST('1,2' AS int) AS n from x.t",
       "",
       {"x"},
       DialectTarget::Postgres},
      {"select convert(char, d, 112), convert(int); begin tran A1", "", "", {}, DialectTarget::Postgres},
  };
  for (const auto& c : cases) {
    // The character scan and the token rewrite agree.
    for (const auto& r : {sybconn::rewriteSybase(c.in, c.target, c.home),
                          sybconn::rewriteSybaseByTokens(c.in, c.target, c.home)}) {
      EXPECT_EQ(r.sql, c.out.empty() ? c.in : c.out) << c.in;
      EXPECT_EQ(r.databases, c.databases) << c.in;
    }
    EXPECT_TRUE(sybconn::mayNeedRewrite(c.in) || (c.out.empty() && c.databases.empty())) << c.in;
  }
  // The quick test skips what the rewrite leaves: an "=" or literal outside select lists, a number's dots.
  std::string lists;  // as many open lists as it tracks
  for (int i = 0; i < 16; ++i) lists += "select ";
  const std::pair<std::string, bool> quick[] = {
      {"select a, b from t where a = 1 and b in (select c from u where c = 2)", false},
      {"select (b), c from t where d = 1", false},
      {"select a from t where x = '..getdate()' -- begin\n/* x..y */", false},
      {"(select a), b = 1; select c; d = 2", false},
      {"update t set a = 1.5 where b = 1..2", false},
      {"x.dbx.t", false},
      {lists + "a from t where b = 1", false},
      {"select " + lists + "a from t", true},
      {"select 1from, n=2 from t", true},
      {"select (select b from u), n = 1 from t", true},
      {"select a, 'x' from t", true}};
  for (const auto& [in, want] : quick) {
    EXPECT_EQ(sybconn::mayNeedRewrite(in), want) << in;
    EXPECT_TRUE(want || sybconn::rewriteSybase(in, DialectTarget::Sqlite).sql == in) << in;
  }
  // Nesting as deep as the text is long neither overflows the stack nor rescans the text for every level.
  std::string deep, want;
  for (int i = 0; i < 200000; ++i) deep += "select a=(", want += "select (";
  for (int i = 0; i < 200000; ++i) want += " AS a";
  EXPECT_EQ(sybconn::rewriteSybase(deep, DialectTarget::Sqlite).sql, want);
  std::vector<std::string> out{"kept"};
  for (const auto& [s, by] : {std::pair{"a|b||c|", "|"}, {"k1 :: k2", " :: "}, {"", ","}, {"abc", ""}})
    ArcSys::split(s, by, out);
  EXPECT_EQ(out, (std::vector<std::string>{"kept", "a", "b", "", "c", "", "k1", "k2", "", "abc"}));
}

}  // namespace
