#include <dataAccess/db/ServiceConnectionSyb.h>

#include <dlfcn.h>
#include <malloc.h>

#include <chrono>

#include "tests/freetds/FreeTdsFixture.h"
#include "tests/support/TableRows.h"

bool g_noLoginRecord = false;  // the next dblogin() fails, as it does when memory runs out
extern "C" void* dblogin() {
  return std::exchange(g_noLoginRecord, false) ? nullptr
                                               : reinterpret_cast<void* (*)()>(dlsym(RTLD_NEXT, "dblogin"))();
}

namespace {

using Mode = tdstest::TdsServer::Mode;

// A wrong password is refused with the server's message; a server gone or silent fails the login or the
// command within its time-out as a client error. Errors are logged, messages of severity 0 are not.
TEST_P(FreeTdsTest, Logins) {
  tdstest::TdsServer alice(db_, "alice", "s3cret");
  ASSERT_NE(0, alice.start());
  testsupport::LogCapture log;
  g_noLoginRecord = true;
  EXPECT_TRUE(conn_.connect(alice.address(), "alice", "s3cret") == -1 && saw(20010));  // SYBEMEM
  EXPECT_EQ(-1, conn_.connect(alice.address(), "alice", "wrong"));
  EXPECT_FALSE(conn_.isConnected());
  EXPECT_TRUE(saw(sybase() ? 4002 : 18456));
  ASSERT_EQ(0, conn_.connect(alice.address(), "alice", "s3cret"));
  EXPECT_TRUE(saw(5701)) << "informational messages reach the handler too";
  EXPECT_EQ(alice.tdsVersion.load(), sybase() ? 0u : 0x74000004u);
  sybconn::FreeTdsSettings::setLoginTimeout(0), sybconn::FreeTdsSettings::setQueryTimeout(1);
  // 0 is the least login time-out there is: 1 s; a query time-out of 1 s stays one.
  EXPECT_EQ(std::make_pair(1, 1), std::make_pair(sybconn::FreeTdsSettings::loginTimeout(),
                                                 sybconn::FreeTdsSettings::queryTimeout()));
  for (Mode mode : {Mode::Normal, Mode::Silent, Mode::SilentAfterLogin}) {
    tdstest::TdsServer server(db_, "u", "p", mode);
    ASSERT_NE(0, server.start());
    if (mode == Mode::Normal) server.stop();  // a server that is gone
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(mode == Mode::SilentAfterLogin ? 0 : -1, conn_.connect(server.address(), "u", "p"));
    EXPECT_EQ(0, conn_.execute("select 1").commandSucceeded());
    EXPECT_FALSE(conn_.isConnected());
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(6)) << static_cast<int>(mode);
    EXPECT_TRUE(saw(0));
  }
  EXPECT_EQ(1u, log.count(", severity 14: Login failed for user 'alice'."));
  EXPECT_TRUE(log.count("5701") == 0 && log.count("ERROR [ <t> ] Client error ") > 0);
}

// 299 ticks of 1/300 s read back as .997; a float as the shortest text that reads back exactly.
TEST_P(FreeTdsTest, TypedValuesNullsUnicodeDatesLargeResultsAndErrorsInABatch) {
  ASSERT_EQ(0, conn_.connect(server_.address(), "u", "p"));
  SybaseResultSet rs = conn_.execute("select id, name, score, stamp from t order by id");
  EXPECT_EQ("id|name", rs.columnName(1) + "|" + rs.columnName(2));
  EXPECT_EQ("1|one|1.5|2026-11-22 23:59:59.997", nextRow(rs));
  EXPECT_EQ(1L, rs.getLongValue(1));
  EXPECT_DOUBLE_EQ(1.5, rs.getDoubleValue(3));
  EXPECT_EQ(997000, rs.getDateAsTimevalValue(4).tv_usec);
  EXPECT_EQ(rs.getDateAsTimevalValue(4).tv_sec, rs.getLongValue(4));  // a date as a number: its time
  EXPECT_EQ("2|Grüße ☃ 𝄞|NULL|2026-11-22 12:00:00.000", nextRow(rs));
  EXPECT_EQ("3|NULL|-2.25|NULL", nextRow(rs));
  EXPECT_EQ("end", nextRow(rs));
  EXPECT_EQ(3L, conn_.rowCount());
  EXPECT_EQ(1, conn_.execute("update t set score = 0.1 + 0.2 where id >= 2").commandSucceeded());
  EXPECT_EQ(2L, conn_.rowCount());
  EXPECT_EQ("0.81|0.30000000000000004|-1e-300|0.30000000000000004",  // the last from a nullable column
            nextRow(conn_.execute("select 0.81, 0.1 + 0.2, -1e-300, score from t where id = 2")));
  // A read that has no value gives the empty one: a number beyond a long, a column out of range, a text that
  // is no date, a date as a double.
  rs = conn_.execute("select 1e30, 'Nov 22 2026', '2026-11-22'");
  ASSERT_TRUE(rs.next());
  EXPECT_EQ(
      std::vector<double>({0, 0, 0, 0, 0}),
      std::vector<double>({static_cast<double>(rs.getLongValue(1)), static_cast<double>(rs.getLongValue(9)),
                           rs.getDoubleValue(9), static_cast<double>(rs.getDateAsTimevalValue(2).tv_sec),
                           rs.getDoubleValue(3)}));
  // A result read to its end, and one given up after two rows: the count is the server's, the login reusable.
  long sum = 0;
  for (rs = conn_.execute("select n, pad from big order by n"); rs.next();) sum += rs.getLongValue(1);
  EXPECT_EQ(5000L * 5001L / 2, sum);
  EXPECT_EQ(5000L, conn_.rowCount());
  for (const auto& [sql, count] :  // a batch gives its last command's count
       {std::pair<const char*, long>{"select n from big", 5000},
        {"select n from big; select n from big where n <= 3", 3}}) {
    ASSERT_TRUE((rs = conn_.execute(sql)).next() && rs.next() && conn_.rowCount() == 2);  // counted as read
    rs.releaseResults();
    EXPECT_TRUE(!rs.next() && rs.rowCount() == count) << sql;
  }
  ASSERT_TRUE((rs = conn_.execute("select n from big")).next());  // still held when the next batch runs
  EXPECT_EQ("3", nextRow(conn_.execute("select count(*) from t")));

  // The outcome of a batch is its last command's; the login stays usable.
  const std::pair<const char*, int> cases[] = {
      {"select * from missing; select 1", 0},
      {"update t set score = 1 where id = 1; select * from missing; delete from t where id = 3", 1},
      {"delete from t where id = 3; select * from missing", 0}};
  for (const auto& [sql, succeeded] : cases)
    EXPECT_EQ(succeeded, conn_.execute(sql).commandSucceeded()) << sql;
  EXPECT_TRUE(saw(102));
  EXPECT_EQ("2", nextRow(conn_.execute("select count(*) from t")));
}

TEST_P(FreeTdsTest, LoginsLeaveNoMemoryBehind) {
  SybaseConnection::setErrorHandler(nullptr);               // the fixture's keeps every message
  SybaseConnection().connect(server_.address(), "u", "p");  // the first one sets up the library
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 200; ++i) SybaseConnection().connect(server_.address(), "u", "p");
  server_.stop();                                   // its sessions end
  EXPECT_LT(mallinfo2().uordblks, before + 60000);  // 200 login records left behind take over 100 KB
}

// A login cut mid-result fails its commands; the pool logs in afresh instead of handing it out again.
TEST_P(FreeTdsTest, LoginDroppedMidResult) {
  tdstest::TdsServer server(db_, "u", "p", Mode::DropMidResult);
  ASSERT_NE(0, server.start());
  ConnectionPool* pool = ConnectionPool::instance();
  SybaseConnection* first = pool->acquireConnection(server.address(), "u", "p");
  ASSERT_NE(first, nullptr);
  long rows = 0;
  for (SybaseResultSet rs = first->execute("select n from big"); rs.next();) ++rows;
  EXPECT_TRUE(rows >= 1 && rows <= server.dropAfterRows + 1) << rows;  // the rows before the cut are read
  EXPECT_FALSE(saw(20047)) << "the dead login is not read off again";
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

// Under TDS 7.x the numbered transactions take SQL Server's forms (the server refuses Sybase's): @@trancount
// follows the level, an inner rollback undoes only the inner work, an outermost one undoes all.
TEST_P(FreeTdsTest, NumberedTransactionsOnSqlServer) {
  if (sybase()) GTEST_SKIP() << "Sybase takes the numbered forms as written";
  ServiceConnectionSyb conn(server_.address(), "u", "p", "");
  ASSERT_EQ(0, conn.acquire());
  // b(egin), c(ommit), r(ollback), i(nsert the next id); the level after each.
  const std::string ops = "bibibircbircbibirr", levels = "112233212210112210";
  for (size_t k = 0, id = 10; k < ops.size(); ++k) {
    if (ops[k] == 'i')
      ASSERT_EQ(1, conn.execute("insert into t (id) select " + std::to_string(id++)).commandSucceeded());
    else
      ASSERT_EQ(0, ops[k] == 'b'   ? conn.beginTransaction()
                   : ops[k] == 'c' ? conn.commitTransaction()
                                   : conn.rollbackTransaction())
          << "step " << k;
    EXPECT_EQ(levels.substr(k, 1), nextRow(conn.execute("select @@trancount"))) << "step " << k;
    EXPECT_EQ(levels[k] - '0', conn.transactionNumber()) << "step " << k;
  }
  EXPECT_EQ("10,11", nextRow(conn.execute("select group_concat(id) from t where id >= 10")));
}

// Statements one a line, split as a server splits them; a round-trip delay holds each answer back.
TEST_P(FreeTdsTest, StatementsOneALineAndARoundTripDelay) {
  ASSERT_EQ(0, conn_.connect(server_.address(), "u", "p"));
  server_.roundTripDelayMs = 200;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("2|a\nselect 1", nextRow(conn_.execute("insert into t (id, name) values (4, 'a\nselect 1')\n"
                                                   "insert into t (id) select 5 union select 6\n"
                                                   "delete from t where id = 6 -- insert\n"
                                                   "select count(*), max(name) from t where id > 3")));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

// A bulk insert's outcome comes from the commands the server finished: a refusal with no message still names
// the first row refused, an answer short of the batch's inserts fails it, inserts answered with rows (as a
// trigger may answer) are read to their end. A failed one leaves no level open.
TEST_P(FreeTdsTest, BulkInsertsOnServersThatRefuseQuietlyAnswerShortOrReturnRows) {
  const struct {
    Mode mode;
    const char* table;
    long written, failed;
  } cases[] = {{Mode::QuietRefusal, "missing", -1, 0},
               {Mode::FirstOnly, "t", -1, -1},
               {Mode::EchoInserts, "t", 3, -1}};
  for (const auto& c : cases) {
    tdstest::TdsServer server(db_, "u", "p", c.mode);
    ASSERT_NE(0, server.start());
    ASSERT_EQ(0, conn_.connect(server.address(), "u", "p"));
    saw(0);  // forgets the login's messages
    testsupport::Rows rows;
    rows.rows = {{testsupport::value(7)}, {testsupport::value(8)}, {testsupport::value(9)}};
    long failed = 9;
    EXPECT_EQ(c.written, conn_.insertRows(c.table, {"id"}, rows, failed)) << static_cast<int>(c.mode);
    EXPECT_EQ(c.failed, failed) << static_cast<int>(c.mode);
    EXPECT_EQ(c.mode == Mode::FirstOnly, saw(20018)) << static_cast<int>(c.mode);  // SYBESMSG
  }
  EXPECT_TRUE(conn_.commitTransaction("insertRows").commandSucceeded() == 0 && saw(20037));  // SYBERXID
}

INSTANTIATE_TEST_SUITE_P(Tds, FreeTdsTest, ::testing::Values(74, 50), ::testing::PrintToStringParamName());

}  // namespace
