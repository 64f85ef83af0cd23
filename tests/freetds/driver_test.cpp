#include <dataAccess/db/ConnectionPool.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sybconn/SybaseConnection.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sybconn/drivers/FreeTdsDriver.h"
#include "tests/support/TdsServer.h"
#include "tests/support/TempDir.h"

namespace {

std::mutex g_seenMutex;
std::vector<SybaseStatus> g_seen;

void collect(const SybaseStatus& s) {
  std::lock_guard<std::mutex> lock(g_seenMutex);
  g_seen.push_back(s);
}

bool sawServerMessage(int msgno) {
  std::lock_guard<std::mutex> lock(g_seenMutex);
  for (const auto& s : g_seen)
    if (s.msgno == msgno) return true;
  return false;
}

bool sawClientError() {
  std::lock_guard<std::mutex> lock(g_seenMutex);
  for (const auto& s : g_seen)
    if (s.msgno == 0 && s.dberr != 0) return true;
  return false;
}

class FreeTdsDriverTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    sybconn::FreeTdsSettings::setTdsVersion(GetParam());
    sybconn::FreeTdsSettings::setLoginTimeout(2);
    sybconn::FreeTdsSettings::setQueryTimeout(5);
    previous_ = SybaseConnection::setErrorHandler(&collect);
    std::lock_guard<std::mutex> lock(g_seenMutex);
    g_seen.clear();
    db_ = dir_.file("server.db");
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(db_.c_str(), &db));
    const char* schema =
        "create table t (id integer, name varchar(40), score float, stamp datetime);"
        "insert into t values (1, 'one', 1.5, '2026-11-22 23:59:59.998');"
        "insert into t values (2, 'Grüße ☃ 𝄞', null, '2026-11-22 23:59:59.999');"
        "insert into t values (3, null, -2.25, null);"
        "create table big (n integer, pad varchar(100));"
        "with recursive c(x) as (select 1 union all select x + 1 from c where x < 5000)"
        "  insert into big select x, 'row ' || x || ' padding padding padding padding' from c;";
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, schema, nullptr, nullptr, nullptr));
    sqlite3_close(db);
  }
  void TearDown() override { SybaseConnection::setErrorHandler(previous_); }

  testsupport::TempDir dir_;
  std::string db_;
  SybaseConnection::ErrorHandler previous_ = nullptr;
};

TEST_P(FreeTdsDriverTest, LoginChecksThePassword) {
  tdstest::TdsServer server(db_, "alice", "s3cret");
  ASSERT_NE(0, server.start());
  SybaseConnection bad;
  EXPECT_EQ(-1, bad.connect(server.address(), "alice", "wrong"));
  EXPECT_FALSE(bad.isConnected());
  // Sybase and SQL Server number the failed login differently.
  EXPECT_TRUE(sawServerMessage(std::string(GetParam()) == "5.0" ? 4002 : 18456));

  SybaseConnection good;
  ASSERT_EQ(0, good.connect(server.address(), "alice", "s3cret"));
  EXPECT_TRUE(good.isConnected());
  EXPECT_TRUE(sawServerMessage(5701)) << "informational messages reach the handler too";
  good.disconnect();
  EXPECT_FALSE(good.isConnected());
}

TEST_P(FreeTdsDriverTest, NothingListeningFailsAtOnce) {
  int port;
  {
    tdstest::TdsServer gone(db_, "u", "p");
    port = gone.start();
  }
  SybaseConnection c;
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, c.connect("127.0.0.1:" + std::to_string(port), "u", "p"));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
  EXPECT_TRUE(sawClientError());
}

TEST_P(FreeTdsDriverTest, SilentServerLoginIsBounded) {
  tdstest::TdsServer server(db_, "u", "p", tdstest::TdsServer::Mode::Silent);
  ASSERT_NE(0, server.start());
  sybconn::FreeTdsSettings::setLoginTimeout(1);
  SybaseConnection c;
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, c.connect(server.address(), "u", "p"));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(6));
  EXPECT_TRUE(sawClientError());
}

TEST_P(FreeTdsDriverTest, TypedValuesNullsUnicodeAndDates) {
  tdstest::TdsServer server(db_, "u", "p");
  ASSERT_NE(0, server.start());
  SybaseConnection c;
  ASSERT_EQ(0, c.connect(server.address(), "u", "p"));
  SybaseResultSet rs = c.execute("select id, name, score, stamp from t order by id");
  ASSERT_EQ(1, rs.commandSucceeded());
  ASSERT_TRUE(rs.hasResultSet());
  ASSERT_EQ(4, rs.columnCount());
  EXPECT_EQ("name", rs.columnName(2));

  ASSERT_TRUE(rs.next());
  EXPECT_EQ(1L, rs.getLongValue(1));
  EXPECT_EQ("one", rs.getStringValue(2));
  EXPECT_DOUBLE_EQ(1.5, rs.getDoubleValue(3));
  timeval tv = rs.getDateAsTimevalValue(4);
  // .998 is 299.4 ticks: stored as 299, read back as .997 on the same day.
  EXPECT_EQ("2026-11-22 23:59:59.997", rs.getStringValue(4));
  EXPECT_EQ(997000, tv.tv_usec);

  ASSERT_TRUE(rs.next());
  EXPECT_EQ("Grüße ☃ 𝄞", rs.getStringValue(2));
  EXPECT_TRUE(rs.isNull(3));
  EXPECT_FALSE(rs.isNull(2));
  // .999 rounds to the next day's midnight.
  EXPECT_EQ("2026-11-23 00:00:00.000", rs.getStringValue(4));
  EXPECT_EQ(tv.tv_sec + 1, rs.getDateAsTimevalValue(4).tv_sec);

  ASSERT_TRUE(rs.next());
  EXPECT_TRUE(rs.isNull(2));
  EXPECT_TRUE(rs.isNull(4));
  EXPECT_EQ("", rs.getStringValue(2));
  EXPECT_DOUBLE_EQ(-2.25, rs.getDoubleValue(3));
  EXPECT_FALSE(rs.next());
  EXPECT_EQ(3L, rs.rowCount());
  EXPECT_EQ(3L, c.rowCount());

  SybaseResultSet upd = c.execute("update t set score = 0 where id >= 2");
  EXPECT_EQ(1, upd.commandSucceeded());
  EXPECT_EQ(2L, c.rowCount());

  // Floats as text: the shortest form that reads back exactly.
  SybaseResultSet f = c.execute("select 0.81, 0.1 + 0.2, -1e-300");
  ASSERT_TRUE(f.next());
  EXPECT_EQ("0.81", f.getStringValue(1));
  EXPECT_EQ("0.30000000000000004", f.getStringValue(2));
  EXPECT_EQ("-1e-300", f.getStringValue(3));
}

TEST_P(FreeTdsDriverTest, LargeResultStreamsAndReleaseKeepsTheCount) {
  tdstest::TdsServer server(db_, "u", "p");
  ASSERT_NE(0, server.start());
  SybaseConnection c;
  ASSERT_EQ(0, c.connect(server.address(), "u", "p"));
  {
    SybaseResultSet rs = c.execute("select n, pad from big order by n");
    long sum = 0, rows = 0;
    while (rs.next()) {
      sum += rs.getLongValue(1);
      ++rows;
    }
    EXPECT_EQ(5000L, rows);
    EXPECT_EQ(5000L * 5001L / 2, sum);
    EXPECT_EQ(5000L, c.rowCount());
  }
  // Read a few rows, drop the rest: the count is the server's, the login reusable.
  SybaseResultSet rs = c.execute("select n from big");
  ASSERT_TRUE(rs.next());
  ASSERT_TRUE(rs.next());
  rs.releaseResults();
  EXPECT_FALSE(rs.next());
  EXPECT_EQ(5000L, c.rowCount());
  EXPECT_EQ(5000L, rs.rowCount());
  SybaseResultSet again = c.execute("select count(*) from t");
  ASSERT_TRUE(again.next());
  EXPECT_EQ(3L, again.getLongValue(1));
}

TEST_P(FreeTdsDriverTest, ErrorsInABatch) {
  tdstest::TdsServer server(db_, "u", "p");
  ASSERT_NE(0, server.start());
  SybaseConnection c;
  ASSERT_EQ(0, c.connect(server.address(), "u", "p"));
  // The first command fails.
  EXPECT_EQ(0, c.execute("select * from missing; select 1").commandSucceeded());
  EXPECT_TRUE(sawServerMessage(102));
  // A failure in the middle does not hide a later success, nor the other way round.
  SybaseResultSet mid =
      c.execute("update t set score = 1 where id = 1; select * from missing; delete from t where id = 3");
  EXPECT_EQ(1, mid.commandSucceeded());
  EXPECT_EQ(1L, c.rowCount());
  SybaseResultSet last = c.execute("delete from t where id = 3; select * from missing");
  EXPECT_EQ(0, last.commandSucceeded());
  // The login is still usable.
  SybaseResultSet rs = c.execute("select count(*) from t");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(2L, rs.getLongValue(1));
}

TEST_P(FreeTdsDriverTest, DroppedConnectionMidResult) {
  tdstest::TdsServer server(db_, "u", "p", tdstest::TdsServer::Mode::DropMidResult);
  server.dropAfterRows = 100;
  ASSERT_NE(0, server.start());
  SybaseConnection c;
  ASSERT_EQ(0, c.connect(server.address(), "u", "p"));
  SybaseResultSet rs = c.execute("select n, pad from big");
  long rows = 0;
  while (rs.next()) ++rows;
  EXPECT_LE(rows, 101L);
  EXPECT_FALSE(c.isConnected());
  EXPECT_EQ(0, c.execute("select 1").commandSucceeded());
  EXPECT_TRUE(sawClientError());
}

// X..table names the table in the sibling file X.db of the server's database.
TEST_P(FreeTdsDriverTest, SiblingDatabases) {
  const char* siblings[][2] = {
      {"obrep2",
       "create table obs_blocks (ob_id integer, cs_id integer);"
       "create table constraint_sets (cs_id integer, user_id varchar(20));"
       "insert into obs_blocks values (42, 7); insert into constraint_sets values (7, 'u7');"},
      {"ambient",
       "create table seeing_torvane (start_date datetime, interval integer, fwhm float, ra float,"
       " dec float, airmass float, tau float, rfl float, tet float);"
       "insert into seeing_torvane values ('20260102 03:04:05.000', 60, 0.8, 1, 2, 1.1, 0.2, 3, 4);"},
      {"D",
       "create table TORV2_NightObs (Request_ID integer, OB_ID varchar(10), Sky_Transparency varchar(10),"
       " Transparency varchar(10));"
       "insert into TORV2_NightObs values (5, '123', 'CLR', 'THN');"
       "insert into TORV2_NightObs values (5, '123', 'CLR', 'THN');"}};
  for (auto& sib : siblings) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(dir_.file(std::string(sib[0]) + ".db").c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sib[1], nullptr, nullptr, nullptr));
    sqlite3_close(db);
  }
  tdstest::TdsServer server(db_, "u", "p");
  ASSERT_NE(0, server.start());
  SybaseConnection c;
  ASSERT_EQ(0, c.connect(server.address(), "u", "p"));
  const struct {
    const char* sql;
    const char* firstColumns;
  } cases[] = {
      {"select obrep2..constraint_sets.cs_id,obrep2..constraint_sets.user_id from obrep2..constraint_sets,"
       "obrep2..obs_blocks where obrep2..obs_blocks.ob_id=42 AND "
       "obrep2..obs_blocks.cs_id=obrep2..constraint_sets.cs_id",
       "7|u7"},
      {"select start_date,interval,fwhm,ra,dec,airmass,tau,rfl,tet from ambient..seeing_torvane where "
       "start_date >= '20260101 00:00:00' and start_date < '20260103 00:00:00'",
       "2026-01-02 03:04:05.000|60|0.8|1|2|1.1|0.2|3|4"},
      {"select distinct Request_ID,Sky_Transparency,Transparency from D..TORV2_NightObs where OB_ID='123'",
       "5|CLR|THN"},
  };
  for (const auto& k : cases) {
    SybaseResultSet rs = c.execute(k.sql);
    ASSERT_EQ(1, rs.commandSucceeded()) << k.sql;
    ASSERT_TRUE(rs.next()) << k.sql;
    std::string row;
    for (int col = 1; col <= rs.columnCount(); ++col) row += (col > 1 ? "|" : "") + rs.getStringValue(col);
    EXPECT_EQ(k.firstColumns, row);
    EXPECT_FALSE(rs.next()) << k.sql;
  }
}

// A login that died while free is not handed out again: the pool drops it and
// logs in afresh.
TEST_P(FreeTdsDriverTest, PoolDropsALoginThatDied) {
  tdstest::TdsServer server(db_, "u", "p", tdstest::TdsServer::Mode::DropMidResult);
  server.dropAfterRows = 100;
  ASSERT_NE(0, server.start());
  ConnectionPool::destroyInstance();
  ConnectionPool* pool = ConnectionPool::instance();
  SybaseConnection* first = pool->acquireConnection(server.address(), "u", "p");
  ASSERT_NE(first, nullptr);
  {
    SybaseResultSet rs = first->execute("select n from big");
    while (rs.next()) {
    }
  }
  pool->releaseConnection(first);
  SybaseConnection* second = pool->acquireConnection(server.address(), "u", "p");
  ASSERT_NE(second, nullptr);
  EXPECT_TRUE(second->isConnected());
  EXPECT_EQ(1, second->execute("select 1").commandSucceeded());
  EXPECT_EQ(2, server.logins.load());
  EXPECT_EQ(1, pool->counts().records);
  pool->releaseConnection(second);
  ConnectionPool::destroyInstance();
}

}  // namespace

namespace {
TEST_P(FreeTdsDriverTest, UnansweredQueryIsBounded) {
  tdstest::TdsServer server(db_, "u", "p", tdstest::TdsServer::Mode::SilentAfterLogin);
  ASSERT_NE(0, server.start());
  sybconn::FreeTdsSettings::setQueryTimeout(1);
  SybaseConnection c;
  ASSERT_EQ(0, c.connect(server.address(), "u", "p"));
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(0, c.execute("select 1").commandSucceeded());
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(6));
  EXPECT_TRUE(sawClientError());
  EXPECT_FALSE(c.isConnected());
}
}  // namespace

namespace {
// Each thread has its own login; DB-Library's process-wide state is shared.
TEST_P(FreeTdsDriverTest, ThreadsWithTheirOwnLogins) {
  tdstest::TdsServer server(db_, "u", "p");
  ASSERT_NE(0, server.start());
  std::vector<long> sums(4, 0);
  std::vector<std::thread> threads;
  for (size_t k = 0; k < sums.size(); ++k)
    threads.emplace_back([&server, &sums, k] {
      SybaseConnection c;
      if (c.connect(server.address(), "u", "p") != 0) return;
      for (int round = 0; round < 5; ++round) {
        SybaseResultSet rs = c.execute("select n from big where n <= " + std::to_string(100 * (k + 1)));
        while (rs.next()) sums[k] += rs.getLongValue(1);
      }
    });
  for (auto& t : threads) t.join();
  for (size_t k = 0; k < sums.size(); ++k) {
    long n = 100L * static_cast<long>(k + 1);
    EXPECT_EQ(5 * n * (n + 1) / 2, sums[k]) << "thread " << k;
  }
  EXPECT_EQ(4, server.logins.load());
}
}  // namespace

namespace {
INSTANTIATE_TEST_SUITE_P(Tds, FreeTdsDriverTest, ::testing::Values("7.4", "5.0"),
                         [](const ::testing::TestParamInfo<const char*>& i) {
                           return std::string(i.param) == "5.0" ? "Sybase50" : "SqlServer74";
                         });
}  // namespace
