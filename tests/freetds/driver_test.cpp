#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sybconn/FreeTdsSettings.h>
#include <sybconn/SybaseConnection.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/TdsServer.h"
#include "tests/support/TempDir.h"

namespace {

using Mode = tdstest::TdsServer::Mode;

std::mutex g_seenMutex;
std::vector<SybaseStatus> g_seen;

void collect(const SybaseStatus& s) {
  std::lock_guard<std::mutex> lock(g_seenMutex);
  g_seen.push_back(s);
}

// A server message of that number (msgno 0: any client-library error) was
// seen since the last call.
bool saw(int msgno) {
  std::lock_guard<std::mutex> lock(g_seenMutex);
  bool found = false;
  for (const auto& s : g_seen) found = found || (s.msgno == msgno && (msgno != 0 || s.dberr != 0));
  g_seen.clear();
  return found;
}

class FreeTdsDriverTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    sybconn::FreeTdsSettings::setTdsVersion(GetParam());
    sybconn::FreeTdsSettings::setLoginTimeout(2);
    sybconn::FreeTdsSettings::setQueryTimeout(5);
    previous_ = SybaseConnection::setErrorHandler(&collect);
    saw(0);
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(db_.c_str(), &db));
    ASSERT_EQ(
        SQLITE_OK,
        sqlite3_exec(db,
                     "create table t (id integer, name varchar(40), score float, stamp datetime);"
                     "insert into t values (1, 'one', 1.5, '2026-11-22 23:59:59.998');"
                     "insert into t values (2, 'Grüße ☃ 𝄞', null, '2026-11-22 12:00:00');"
                     "insert into t values (3, null, -2.25, null);"
                     "create table big (n integer, pad varchar(100));"
                     "with recursive c(x) as (select 1 union all select x + 1 from c where x < 5000)"
                     "  insert into big select x, 'row ' || x || ' padding padding padding padding' from c;",
                     nullptr, nullptr, nullptr));
    sqlite3_close(db);
  }
  void TearDown() override {
    SybaseConnection::setErrorHandler(previous_);
    ConnectionPool::destroyInstance();
  }
  bool sybase() const { return std::string(GetParam()) == "5.0"; }
  // A server on the fixture's database, and a login to it.
  void login(Mode mode = Mode::Normal) {
    server_ = std::make_unique<tdstest::TdsServer>(db_, "u", "p", mode);
    ASSERT_NE(0, server_->start());
    ASSERT_EQ(0, conn_.connect(server_->address(), "u", "p"));
  }

  testsupport::TempDir dir_;
  std::string db_ = dir_.file("server.db");
  std::unique_ptr<tdstest::TdsServer> server_;
  SybaseConnection conn_;
  SybaseConnection::ErrorHandler previous_ = nullptr;
};

// A wrong password is refused with the server's message; a server that is
// gone or never answers fails the login or the command within its time-out,
// reported as a client error.
TEST_P(FreeTdsDriverTest, Logins) {
  tdstest::TdsServer server(db_, "alice", "s3cret");
  ASSERT_NE(0, server.start());
  EXPECT_EQ(-1, conn_.connect(server.address(), "alice", "wrong"));
  EXPECT_FALSE(conn_.isConnected());
  EXPECT_TRUE(saw(sybase() ? 4002 : 18456));
  ASSERT_EQ(0, conn_.connect(server.address(), "alice", "s3cret"));
  EXPECT_TRUE(saw(5701)) << "informational messages reach the handler too";
  EXPECT_EQ(server.tdsVersion.load(), sybase() ? 0u : 0x74000004u);
  int closedPort;
  {
    tdstest::TdsServer gone(db_, "u", "p");
    closedPort = gone.start();
  }
  sybconn::FreeTdsSettings::setLoginTimeout(1);
  sybconn::FreeTdsSettings::setQueryTimeout(1);
  for (Mode mode : {Mode::Normal, Mode::Silent, Mode::SilentAfterLogin}) {
    tdstest::TdsServer server(db_, "u", "p", mode);
    ASSERT_NE(0, server.start());
    SybaseConnection c;
    const auto t0 = std::chrono::steady_clock::now();
    if (mode == Mode::SilentAfterLogin) {
      ASSERT_EQ(0, c.connect(server.address(), "u", "p"));
      EXPECT_EQ(0, c.execute("select 1").commandSucceeded());
      EXPECT_FALSE(c.isConnected());
    } else {
      EXPECT_EQ(-1,
                c.connect(mode == Mode::Normal ? "127.0.0.1:" + std::to_string(closedPort) : server.address(),
                          "u", "p"));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(6)) << static_cast<int>(mode);
    EXPECT_TRUE(saw(0));
  }
}

TEST_P(FreeTdsDriverTest, TypedValuesNullsUnicodeAndDates) {
  login();
  SybaseResultSet rs = conn_.execute("select id, name, score, stamp from t order by id");
  ASSERT_EQ(4, rs.columnCount());
  EXPECT_EQ("id|name", rs.columnName(1) + "|" + rs.columnName(2));
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(1L, rs.getLongValue(1));
  EXPECT_EQ("one", rs.getStringValue(2));
  EXPECT_DOUBLE_EQ(1.5, rs.getDoubleValue(3));
  // 299 ticks of 1/300 s read back as .997.
  EXPECT_EQ("2026-11-22 23:59:59.997", rs.getStringValue(4));
  EXPECT_EQ(997000, rs.getDateAsTimevalValue(4).tv_usec);
  ASSERT_TRUE(rs.next());
  EXPECT_EQ("Grüße ☃ 𝄞", rs.getStringValue(2));
  EXPECT_TRUE(rs.isNull(3));
  EXPECT_FALSE(rs.isNull(2));
  ASSERT_TRUE(rs.next());
  EXPECT_TRUE(rs.isNull(2));
  EXPECT_TRUE(rs.isNull(4));
  EXPECT_EQ("", rs.getStringValue(2));
  EXPECT_FALSE(rs.next());
  EXPECT_EQ(3L, conn_.rowCount());

  EXPECT_EQ(1, conn_.execute("update t set score = 0 where id >= 2").commandSucceeded());
  EXPECT_EQ(2L, conn_.rowCount());
  // Floats as text: the shortest form that reads back exactly.
  SybaseResultSet f = conn_.execute("select 0.81, 0.1 + 0.2, -1e-300");
  ASSERT_TRUE(f.next());
  EXPECT_EQ("0.81|0.30000000000000004|-1e-300",
            f.getStringValue(1) + "|" + f.getStringValue(2) + "|" + f.getStringValue(3));
}

TEST_P(FreeTdsDriverTest, LargeResultStreamsAndReleaseKeepsTheCount) {
  login();
  long sum = 0;
  for (SybaseResultSet rs = conn_.execute("select n, pad from big order by n"); rs.next();)
    sum += rs.getLongValue(1);
  EXPECT_EQ(5000L * 5001L / 2, sum);
  EXPECT_EQ(5000L, conn_.rowCount());
  // Read a few rows, drop the rest: the count is the server's, the login reusable.
  SybaseResultSet rs = conn_.execute("select n from big");
  ASSERT_TRUE(rs.next() && rs.next());
  rs.releaseResults();
  EXPECT_FALSE(rs.next());
  EXPECT_EQ(5000L, rs.rowCount());
  SybaseResultSet again = conn_.execute("select count(*) from t");
  ASSERT_TRUE(again.next());
  EXPECT_EQ(3L, again.getLongValue(1));
}

// The outcome of a batch is its last command's; the login stays usable.
TEST_P(FreeTdsDriverTest, ErrorsInABatch) {
  login();
  const struct {
    const char* sql;
    int succeeded;
  } cases[] = {{"select * from missing; select 1", 0},
               {"update t set score = 1 where id = 1; select * from missing; delete from t where id = 3", 1},
               {"delete from t where id = 3; select * from missing", 0}};
  for (const auto& k : cases) EXPECT_EQ(k.succeeded, conn_.execute(k.sql).commandSucceeded()) << k.sql;
  EXPECT_TRUE(saw(102));
  SybaseResultSet rs = conn_.execute("select count(*) from t");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(2L, rs.getLongValue(1));
}

// A login cut in the middle of a result fails its commands; the pool does not
// hand it out again but logs in afresh.
TEST_P(FreeTdsDriverTest, LoginDroppedMidResult) {
  tdstest::TdsServer server(db_, "u", "p", Mode::DropMidResult);
  server.dropAfterRows = 100;
  ASSERT_NE(0, server.start());
  ConnectionPool* pool = ConnectionPool::instance();
  SybaseConnection* first = pool->acquireConnection(server.address(), "u", "p");
  ASSERT_NE(first, nullptr);
  long rows = 0;
  for (SybaseResultSet rs = first->execute("select n from big"); rs.next();) ++rows;
  EXPECT_GE(rows, 1L);  // the rows that came before the cut are read
  EXPECT_LE(rows, 101L);
  {
    std::lock_guard<std::mutex> lock(g_seenMutex);
    for (const auto& s : g_seen) EXPECT_NE(s.dberr, 20047) << "the dead login is not read off again";
  }
  EXPECT_FALSE(first->isConnected());
  EXPECT_EQ(0, first->execute("select 1").commandSucceeded());
  EXPECT_TRUE(saw(0));
  pool->releaseConnection(first);
  SybaseConnection* second = pool->acquireConnection(server.address(), "u", "p");
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(1, second->execute("select 1").commandSucceeded());
  EXPECT_EQ(2, server.logins.load());
  EXPECT_EQ(1, pool->counts().records);
  pool->releaseConnection(second);
}

// Under TDS 7.x the numbered transactions take SQL Server's forms (the test
// server refuses Sybase's, as SQL Server does): @@trancount follows the level,
// an inner rollback undoes only the inner work, an outermost one undoes all.
TEST_P(FreeTdsDriverTest, NumberedTransactionsOnSqlServer) {
  if (sybase()) GTEST_SKIP() << "Sybase takes the numbered forms as written";
  tdstest::TdsServer server(db_, "u", "p");
  ASSERT_NE(0, server.start());
  ServiceConnectionSyb conn(server.address(), "u", "p", "");
  ASSERT_EQ(0, conn.acquire());
  // b(egin), c(ommit), r(ollback), i(nsert the next id); the level after each.
  const std::string ops = "bibibircbircbibirr", levels = "112233212210112210";
  int id = 10;
  for (size_t k = 0; k < ops.size(); ++k) {
    if (ops[k] == 'i') {
      ASSERT_EQ(1,
                conn.execute("insert into t (id) values (" + std::to_string(id++) + ")").commandSucceeded());
    } else {
      const int rc = ops[k] == 'b'   ? conn.beginTransaction()
                     : ops[k] == 'c' ? conn.commitTransaction()
                                     : conn.rollbackTransaction();
      ASSERT_EQ(0, rc) << "step " << k;
    }
    SybaseResultSet rs = conn.execute("select @@trancount");
    ASSERT_TRUE(rs.next());
    EXPECT_EQ(levels[k] - '0', rs.getLongValue(1)) << "step " << k;
    EXPECT_EQ(levels[k] - '0', conn.transactionNumber()) << "step " << k;
  }
  std::string kept;
  for (SybaseResultSet rs = conn.execute("select id from t where id >= 10 order by id"); rs.next();)
    kept += rs.getStringValue(1) + " ";
  EXPECT_EQ("10 11 ", kept);
}

INSTANTIATE_TEST_SUITE_P(Tds, FreeTdsDriverTest, ::testing::Values("7.4", "5.0"),
                         [](const ::testing::TestParamInfo<const char*>& i) {
                           return std::string(i.param) == "5.0" ? "Sybase50" : "SqlServer74";
                         });

}  // namespace
