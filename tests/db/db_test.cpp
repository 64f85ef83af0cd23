// The parameters file $HOME/.dbrc, the service connection and its stub, the pool and its reaper.
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionStub.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sybconn/PostgresSettings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "daLog/Log.h"
#include "tests/support/ArchiveServer.h"
#include "tests/support/Backend.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TableRows.h"
#include "tests/support/TempDir.h"

namespace {

// A fresh pool, a private HOME with a key file and "pw" sealed under it, the backend of the run.
class DbFixture : public ::testing::Test {
 protected:
  void TearDown() override {
    ConnectionPool::destroyInstance();
    backend().stopServers();
  }
  static testsupport::Backend& backend() { return testsupport::Backend::current(); }
  std::string server(const std::string& db = "main") const { return backend().server(dir_.file(db + ".db")); }

  testsupport::TempDir dir_;
  std::string pw_ = dir_.sealHome("pw");
};

using Map = ServiceConnectionSyb::ListOfFieldIndex;
using Ints = std::vector<long>;  // results of calls made in order, compared at once

// The next row of `rs` as "v1|v2|...", or "<none>".
template <class ResultSet>
std::string nextRow(ResultSet&& rs) {
  if (!rs.next()) return "<none>";
  std::string row;
  for (int col = 1; col <= rs.columnCount(); ++col) row += (col > 1 ? "|" : "") + rs.getStringValue(col);
  return row;
}

// On an acquired connection with none open: an inner transaction rolled back, an outer one committed.
template <class Conn>
void nestTransactions(Conn& c) {
  EXPECT_EQ(c.commitTransaction(), -1);  // none open: nothing executed
  ASSERT_EQ(c.beginTransaction(), 0);
  c.execute("insert into t values (3, 'z', 30)");
  ASSERT_EQ(c.beginTransaction(), 0);
  c.execute("insert into t values (4, 'w', 40)");
  ASSERT_EQ(c.rollbackTransaction(), 0);  // undoes row 4 only
  EXPECT_EQ(c.transactionNumber(), 1);
  ASSERT_EQ(c.commitTransaction(), 0);
  EXPECT_EQ(c.transactionNumber(), 0);
  EXPECT_EQ(c.rollbackTransaction(), -1);
  ASSERT_EQ(c.beginTransaction(), 0);
}

TEST_F(DbFixture, ParametersFileLinesServeAliasesAndFailuresMakeAcquireFail) {
  // An empty server name stands for FreeTDS's default server: one on loopback where nothing listens.
  setenv("TDSQUERY", "127.0.0.1:1", 1);
  const std::string p = " " + pw_ + " ", all = "get all connection parameters";
  // A line of the longest length allowed; its server names a file that cannot exist.
  const std::string tail = " db usr" + p + "A", head = "sqlite:" + dir_.path() + "/";
  const std::string fit = head + std::string(4096 - head.size() - tail.size(), 's') + tail;
  const std::string tooLong = "read " + dir_.file(".dbrc") + ": line ";
  const struct {
    std::string file, read;  // server, database, user and alias read for alias A, or "Could not <read>"
  } cases[] = {
      {"", "open " + dir_.file(".dbrc")},                                   // no file yet
      {"srv1 db1 u1" + p + "A\nsrv2 db2 u2" + p + "A\n", "srv1 db1 u1 A"},  // the first alias line wins
      {"srv1 db1 u1" + p + "B\nsrv0 db0 u0" + p + "\n", "srv0 db0 u0 A"},   // a default line serves any
      {"srv0 db0 u0" + p + "\nsrv1 db1 u1" + p + "A\n", "srv1 db1 u1 A"},   // alias line after a default
      {"s1 d1 u1" + p + "\ns2 d2 u2" + p + "\n", "s2 d2 u2 A"},             // the last default line wins
      {"s1 d1 u1" + p + "A\ns2 d2 u2" + p + "\n", "s1 d1 u1 A"},            // an alias line ends the search
      {"s1 d1 u1" + p + "a\ns2 d2 u2" + p + "\n", "s2 d2 u2 A"},            // aliases are case-sensitive
      // Comments, short lines, blank lines, tabs, extra fields.
      {"#srv db usr" + p + "A\n  # x y z w\n\nshort line\nsrv#1\tdb \t usr\t" + pw_ + "\tA extra\n",
       "srv#1 db usr A"},
      {"s1 d1 u1" + p + "B\n", all},  // another alias only
      // A password sealed under another key, or not sealed at all, is refused.
      {server() + " db usr plaintext A\n", "decipher the password for A in " + dir_.file(".dbrc")},
      // Lines are bounded, whatever they hold, and refused with their number.
      {"#c\n\n" + fit + "\n", fit.substr(0, fit.size() - 1 - pw_.size() - 1) + "A"},
      {"#c\n\n" + fit + "x\n", tooLong + "3 is longer than 4096 characters"},
      {std::string(100000, 's') + tail + "\n", tooLong + "1 is longer than 4096 characters"},
  };
  for (const auto& c : cases) {
    if (!c.file.empty()) dir_.write(".dbrc", c.file, 0600);
    testsupport::LogCapture log;
    ServiceConnectionSyb conn("A");
    if (log.contains("<D> DEBUG [ <t> ] Connection parameters successfully read\n")) {
      EXPECT_EQ(conn.server() + " " + conn.dbName() + " " + conn.user() + " " + conn.alias(), c.read);
      continue;
    }
    EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Could not " + c.read + "\n")) << c.file;
    EXPECT_EQ(log.count("Could not"), 1u) << c.file;
    EXPECT_EQ(conn.server() + conn.user(), "") << c.file;  // nothing left to log in with
    EXPECT_EQ(conn.acquire(), -1);
    EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Could not establish a connection\n"));
  }
  // A field of the file reaches a log as a short prefix only.
  dir_.write(".dbrc", fit + "\n", 0600);
  testsupport::LogCapture log;
  ServiceConnectionSyb conn("A");
  EXPECT_EQ(conn.acquire(), -1);
  EXPECT_EQ(log.count("server " + fit.substr(0, 128) + "... as user usr\n"), 2u);  // connecting, failed
  dir_.write(".dbrc", "s1 d1 u1" + p + "A\n", 0600);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // older than file times' resolution: kept
  EXPECT_EQ(ServiceConnectionSyb("A").user(), "u1");
  setenv("STCRYPT_KEY_FILE", dir_.file("no-key").c_str(), 1);  // kept only while the same key file is named
  EXPECT_EQ(ServiceConnectionSyb("A").user(), "");
}

class Service : public DbFixture {
 protected:
  void SetUp() override {
    DbFixture::SetUp();
    ASSERT_EQ(conn_.acquire(), 0);
    const char* setup =
        "create table t (a int, b varchar(10), c int); insert into t values (1, 'x', 10), (2, 'y', 20)";
    ASSERT_EQ(conn_.execute(setup).commandSucceeded(), 1);
  }
  void TearDown() override {
    conn_.release();  // before the pool goes
    DbFixture::TearDown();
  }
  ServiceConnectionSyb conn_{server(), "user", "pw", "db"};
};

TEST_F(Service, AcquireIsIdempotentAndReleaseOnlyOnce) {
  // acquire again, logins in the pool, release, release again
  EXPECT_EQ(
      Ints({conn_.acquire(), ConnectionPool::instance()->counts().records, conn_.release(), conn_.release()}),
      Ints({0, 1, 0, -1}));
  {
    ServiceConnectionSyb held(server(), "user", "pw", "db");  // without a login nothing runs
    testsupport::LogCapture log;
    Map map;
    ServiceConnectionSyb::ResultSet rs;
    long failed = 0;
    testsupport::Rows none;
    // release, a statement, a transaction, the row count, a select, a bulk insert
    EXPECT_EQ(Ints({held.release(), held.execute("select 1").commandSucceeded(), held.beginTransaction(),
                    held.rowCount(), held.executeSelect("select a from t", rs, map),
                    held.insertRows("t", {"a"}, none, failed)}),
              Ints({-1, 0, -1, -1, -1, -1}));
    EXPECT_EQ(log.count("No connection available"), 4u);
    EXPECT_EQ(log.count("<D> ERROR [ <t> ] Error executing SQL command select a from t\n"), 1u);
    ASSERT_EQ(held.acquire(), 0);
    EXPECT_EQ(ConnectionPool::instance()->counts().inUse, 1);
  }
  EXPECT_EQ(ConnectionPool::instance()->counts().inUse, 0);  // destruction gives a held login back
}

TEST_F(Service, SelectListMap) {
  const struct {
    std::string sql;
    int result;
    Map map, before = {};  // `before`: what the map held; earlier positions are kept
  } cases[] = {
      {"select a, b, c from t", 0, {{"a", 1}, {"b", 2}, {"c", 3}}},
      {"select a,b,c from t", 0, {{"a", 1}, {"b", 2}, {"c", 3}}},  // "b" without blanks
      {"SELECT a, b FROM t", 0, {{"a", 1}, {"b", 2}}},
      {"SELECT DISTINCT a , b FROM t", 0, {{"a", 1}, {"b", 2}}},
      {"SELECT DISTINCT+a, b FROM t", 0, {{"DISTINCT+a", 1}, {"b", 2}}},  // a longer word is no DISTINCT
      {"select t.a,b from t", 0, {{"t.a", 1}, {"b", 2}}},
      {"select a, a from t", 0, {{"a", 1}}},
      {"select a, from t", -1, {}},  // a syntax error: nothing mapped
      {"select a,b From t", 0, {}},  // neither "from" nor "FROM"
      {"select * from t", 0, {{"*", 1}}},
      {"select a as x, coalesce(a, c) from t", 0, {{"aasx", 1}, {"coalesce(a", 2}, {"c)", 3}}},
      {"update t set a = 1", -1, {}},  // not a select: neither executed nor logged
      {"select a, b from t order by a", 0, {{"a", 1}, {"b", 7}}, {{"b", 7}}},
  };
  ServiceConnectionStub stub("srv", "usr", "pw");
  ASSERT_EQ(stub.acquire(), 0);
  testsupport::LogCapture log;
  for (const auto& c : cases) {
    Map map = c.before, stubMap = c.before;
    ServiceConnectionSyb::ResultSet rs;
    EXPECT_EQ(conn_.executeSelect(c.sql, rs, map), c.result) << c.sql;
    EXPECT_EQ(map, c.map) << c.sql;
    if (c.sql.find("DISTINCT") != std::string::npos) continue;  // the only form the stub does not know
    EXPECT_EQ(stub.executeSelect(c.sql, rs, stubMap), c.result) << c.sql;  // given the same result
    EXPECT_EQ(stubMap, c.map) << c.sql;
  }
  EXPECT_EQ(log.count("update"), 0u);
  EXPECT_EQ(nextRow(conn_.execute("select sum(a) from t")), "3");
}

TEST_F(Service, ThreePartNamesReachSiblingFilesAndMapByPosition) {
  // X..table lives in X.db beside the home file, whatever the backend of the run.
  ServiceConnectionSyb maker("sqlite:" + dir_.file("home.db"), "maker", "p", "db");
  ASSERT_EQ(maker.acquire(), 0);
  const char* setup =
      "create table rep..cs (id int, u int); create table rep..ob (ob int, cs int); create table amb..see "
      "(fwhm float, dec float); create table D..N (OB varchar(9)); insert into rep..cs values (7, 70), (8, "
      "80); insert into rep..ob values (42, 8); insert into amb..see values (0.5, -2), (255, 2); insert "
      "into D..N values ('123'); create table t (id int, name varchar(9)); insert into t values (42, 'main')";
  ASSERT_EQ(maker.execute(setup).commandSucceeded(), 1);
  const struct {
    std::string sql, row, column, value;  // the row by position; `column` read through the map
  } cases[] = {
      {"select rep..cs.id,rep..cs.u from rep..cs,rep..ob where rep..ob.ob=42 AND rep..ob.cs=rep..cs.id",
       "8|80", "rep..cs.u", "80"},
      // Three sibling files and the home one in one statement.
      {"select t.name, rep..ob.cs, amb..see.dec, D..N.OB from t, rep..ob, amb..see, D..N where t.id = "
       "rep..ob.ob and amb..see.fwhm < 1",
       "main|8|-2.0|123", "amb..see.dec", "-2.0"},
  };
  // Another login attaches each file on first use, one to rep.db reads its own tables by the same names
  // (the first statement); each while the earlier ones hold a result open.
  ServiceConnectionSyb reader("sqlite:" + dir_.file("home.db"), "reader", "p", "db");
  ServiceConnectionSyb own("sqlite:" + dir_.file("rep.db"), "reader", "p", "db");
  testsupport::LogCapture log;
  for (ServiceConnectionSyb* conn : {&maker, &reader, &own}) {
    ASSERT_EQ(conn->acquire(), 0);
    for (size_t i = 0; i < (conn == &own ? 1u : 2u); ++i) {
      Map map;
      ServiceConnectionSyb::ResultSet rs;
      ASSERT_EQ(conn->executeSelect(cases[i].sql, rs, map), 0) << cases[i].sql;
      EXPECT_EQ(nextRow(rs), cases[i].row) << cases[i].sql;
      EXPECT_EQ(rs.getStringValue(map[cases[i].column]), cases[i].value) << cases[i].sql;
    }
  }
  // There rep..x and x are one table: one transaction writes it both ways.
  const char* both =
      "begin Tran A1; insert into cs values (9, 90); insert into rep..cs values (10, 100); commit A1";
  EXPECT_EQ(own.execute(both).commandSucceeded(), 1);
  EXPECT_FALSE(log.containsFragment("ERROR"));
}

TEST_F(Service, NumberedTransactionsAlikeOnTheStub) {
  ServiceConnectionStub stub("srv", "usr", "pw");
  testing::internal::CaptureStdout();  // before acquire the stub runs nothing
  EXPECT_EQ(Ints({stub.execute("select 1").commandSucceeded(), stub.beginTransaction()}), Ints({0, -1}));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  ASSERT_EQ(stub.acquire(), 0);
  int out[2];  // each statement is on its way at once: a child that ends without flushing still shows it
  ASSERT_EQ(::pipe(out), 0);
  if (::fork() == 0) ::dup2(out[1], 1), stub.execute("select 1"), ::_exit(0);
  ::close(out[1]);
  char shown[64] = {};
  EXPECT_EQ(std::string(shown, std::max(::read(out[0], shown, sizeof shown), ssize_t{0})),
            "EXECUTE : select 1\n");
  ::close(out[0]), ::wait(nullptr);
  nestTransactions(stub);
  EXPECT_EQ(Ints({stub.release(), stub.transactionNumber()}), Ints({0, 0}));
  testsupport::LogCapture log;
  long failed = 0;
  testsupport::Rows none;
  EXPECT_EQ(stub.insertRows("t", {"a"}, none, failed), -1);  // released: nothing runs
  nestTransactions(conn_);
  EXPECT_EQ(log.count("Sql Statement : "), 7u);  // nothing else ran
  for (const char* sql : {"begin Tran A1", "begin Tran A2", "rollback A2", "commit A1", "begin Tran A1"})
    EXPECT_TRUE(log.contains(std::string("<D> DEBUG [ <t> ] Sql Statement : ") + sql + "\n")) << sql;
  EXPECT_EQ(log.count("<D> ERROR [ <t> ] KestFileDAOSyb::executeQuery. No connection available\n"), 3u);
  EXPECT_EQ(nextRow(conn_.execute("select sum(a) from t where a > 2")), "3");
  // A commit that fails keeps the counter; release resets it.
  conn_.execute("commit tran A1");  // closes the level behind the counter's back
  // commit, level, release, level
  EXPECT_EQ(Ints({conn_.commitTransaction(), conn_.transactionNumber(), conn_.release(),
                  conn_.transactionNumber()}),
            Ints({-1, 1, 0, 0}));
}

TEST_F(Service, ErrorHandlerLogsServerAndClientErrors) {
  testsupport::LogCapture log;
  conn_.execute("select * from missing");
  // Over DB-Library the client library adds its note that the server reported an error.
  const bool tds = backend().isTds();
  const std::string message = tds ? "tdstest Error number: 102 no such table: missing"
                              : backend().isPostgres()
                                  ? server() + " Error number: 6844177 relation \"missing\" does not exist"
                                  : server() + " Error number: 1 no such table: missing";
  EXPECT_EQ(log.count("ERROR [ <t> ] " + message + " Severity: 16"), 1u);
  SybaseStatus info, client;
  info.msgno = 5701;  // informational, severity 0: ignored
  client.dbLibSeverity = 9, client.dberr = 20009;
  client.dberrstr = "Unable to connect", client.srvname = "SYB";
  for (const SybaseStatus& s : {info, client}) ArcSys::SimpleErrorHandler(s);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] SYB Error number: 20009 Unable to connect Severity: 9\n"));
  EXPECT_EQ(log.count("Error number:"), tds ? 3u : 2u);
}

TEST_F(Service, LongMessagesAreWholeLinesFromEveryThread) {
  // Longer than ACE's 4 KiB record; a conversion in the text stays as it is.
  const std::string sql = "select '" + std::string(9000, 'x') + "%s' as a";
  testsupport::LogCapture log;
  EXPECT_EQ(conn_.execute(sql).commandSucceeded(), 1);
  conn_.execute("select 1");
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Sql Statement : " + sql + "\n"));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Sql Statement : select 1\n"));
  log.clear();
  std::vector<std::thread> threads;
  for (char c : {'a', 'b', 'c'})
    threads.emplace_back([c] {
      for (int i = 0; i < 20; ++i) DA_LOG_INFO("%s", std::string(5000 + i * 500, c).c_str());
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(log.count(""), 60u);
  for (char c : {'a', 'b', 'c'})
    for (int i = 0; i < 20; ++i)
      EXPECT_TRUE(log.contains("<D> INFO  [ <t> ] " + std::string(5000 + i * 500, c) + "\n"));
}

class Pool : public DbFixture {
 protected:
  void TearDown() override { pool()->setMaxPoolSize(20), DbFixture::TearDown(); }  // the size outlives a pool
  ConnectionPool* pool() { return ConnectionPool::instance(); }
  SybaseConnection* take(const std::string& user) { return pool()->acquireConnection(server(), user, "p"); }
  template <class Done>
  static void until(Done done) {
    for (int i = 0; i < 5000 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
};

TEST_F(Pool, ReuseLimitsAndFailures) {
  testsupport::LogCapture log;
  SybaseConnection* first = take("u");
  SybaseConnection* second = take("u");
  ASSERT_TRUE(first && second && first != second);
  EXPECT_EQ(Ints({pool()->releaseConnection(second), pool()->releaseConnection(first)}), Ints({0, 0}));
  // The earlier-created one comes first; the password is not compared.
  EXPECT_EQ(pool()->acquireConnection(server(), "u", "another password"), first);
  EXPECT_NE(take("v"), second);  // another user never shares a login
  for (int bad : {0, 21}) pool()->setMaxPoolSize(bad);
  EXPECT_EQ(pool()->maxPoolSize(), 20);
  pool()->setMaxPoolSize(3);
  EXPECT_EQ(pool()->maxPoolSize(), 3);
  EXPECT_EQ(take("w"), nullptr);  // two in use and one free: a third user finds the pool full
  pool()->setMaxPoolSize(20);
  const std::string nowhere = backend().unreachable();
  EXPECT_EQ(pool()->acquireConnection(nowhere, "u", "p"), nullptr);
  SybaseConnection foreign;
  EXPECT_EQ(pool()->releaseConnection(&foreign), -1);
  const auto n = pool()->counts();
  EXPECT_EQ(std::vector<int>({n.records, n.inUse, n.free}), std::vector<int>({3, 2, 1}));
  pool()->setReaperSleepTimeMs(250);
  pool()->setReaperSleepTime(-1);  // a reaper without a pause would spin: refused
  pool()->setReaperSleepTimeMs(0);
  EXPECT_EQ(pool()->reaperSleepTimeMs(), 250);
  for (const std::string& line : std::vector<std::string>{
           "DEBUG [ <t> ] Creating unique instance of ConnectionPool",
           "DEBUG [ <t> ] ConnectionPool::ConnectionPool: starting reaper thread",
           "DEBUG [ <t> ] Allocated new connection. Pool size 2",
           "DEBUG [ <t> ] Acquiring available connection to server " + server() + " as user u",
           "ERROR [ <t> ] Invalid maxPoolSize = 0", "ERROR [ <t> ] Invalid maxPoolSize = 21",
           "ERROR [ <t> ] Invalid reaper sleep time = -1000 ms",
           "ERROR [ <t> ] Invalid reaper sleep time = 0 ms",
           "ERROR [ <t> ] Can't allocate new connection. Pool size 3",
           "ERROR [ <t> ] Could not connect to server " + nowhere + " as user u",
           "ERROR [ <t> ] Could not release connection. This should never happen!"})
    EXPECT_TRUE(log.contains("<D> " + line + "\n")) << line;
}

TEST_F(Pool, ReaperRemovesIdleAndOldFreeLoginsOnly) {
  pool()->shutdownReaper();  // rounds are run by hand here
  ASSERT_EQ(pool()->releaseConnection(take("idle")), 0);
  SybaseConnection* busy = take("busy");
  EXPECT_EQ(pool()->reapNow(), 0);  // within both lifetimes nothing goes
  testsupport::LogCapture log;
  pool()->setMaxIdleLifeTime(-1);  // anything released before now is over it
  EXPECT_EQ(pool()->reapNow(), 1);
  EXPECT_TRUE(
      log.containsFragment("<D> INFO  [ <t> ] Reaper: removing connection " + server() + "/idle. LifeTime "));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Connection removed. Pool size 1\n"));
  // A login in use is never removed, however old; once released it goes.
  pool()->setMaxIdleLifeTime(60), pool()->setMaxLifeTime(-1);
  EXPECT_EQ(pool()->reapNow(), 0);
  pool()->releaseConnection(busy);
  EXPECT_EQ(pool()->reapNow(), 1);
}

TEST_F(Pool, ReaperThreadRunsRoundsAndStopsPromptly) {
  testsupport::LogCapture log;
  pool()->setMaxIdleLifeTime(-1);
  ASSERT_EQ(pool()->releaseConnection(take("u")), 0);
  pool()->setReaperSleepTimeMs(5);
  until([&] { return pool()->counts().records == 0; });
  EXPECT_EQ(pool()->counts().records, 0);
  EXPECT_TRUE(log.containsFragment("DEBUG [ <t> ] Reaper: looking for disused connections"));

  // A new interval re-arms the wait rather than ending it; stopped while it
  // waits, it runs no further round.
  const auto start = std::chrono::steady_clock::now();
  pool()->setReaperSleepTime(5);
  const size_t rounds = log.count("looking for disused connections");
  for (int i = 0; i < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pool()->setReaperSleepTime(5);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(log.count("looking for disused connections"), rounds);
  pool()->shutdownReaper();
  EXPECT_EQ(log.count("looking for disused connections"), rounds);
  EXPECT_FALSE(pool()->reaperRunning());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

  // The destructor ends the reaper and closes what is left.
  ASSERT_NE(take("u"), nullptr);
  ConnectionPool::destroyInstance();
  EXPECT_TRUE(log.contains("<D> INFO  [ <t> ] Reaper exit\n"));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Terminating reaper thread\n"));
}

// A full pool with a time-out serves waiters in order (room as it grows, logins as they come back, a dead
// one replaced), closes a free login of another user for one, and fails a wait in vain at its time-out.
TEST_F(Pool, WaitersAreServedInOrderAndTimeOut) {
  pool()->setMaxPoolSize(1), pool()->setAcquireTimeoutMs(5000),
      pool()->setAcquireTimeoutMs(-1);  // -1: refused
  EXPECT_EQ(pool()->acquireTimeoutMs(), 5000);
  SybaseConnection* held = take("u");
  std::vector<int> order;  // each waiter is served after the one before gave its login back
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&, i] {
      SybaseConnection* c = take("u");
      order.push_back(c != nullptr ? i : -1);
      if (i == 2) c->disconnect();  // dies while held: dropped on return, the next waiter gets a new one
      pool()->releaseConnection(c);
    });
    until([&] { return pool()->stats().waiting == i + 1; });  // the next one comes after this one waits
  }
  pool()->setMaxPoolSize(2);  // room for the first; each hands its login on
  for (auto& w : waiters) w.join();
  EXPECT_EQ(order, std::vector<int>({0, 1, 2, 3}));
  pool()->releaseConnection(held), pool()->setMaxPoolSize(1);
  EXPECT_NE(take("v"), nullptr);  // the two free "u" logins are closed to make room
  pool()->setAcquireTimeoutMs(100);
  testsupport::LogCapture log;
  // Never early; late by at most 50 ms in one of three tries (a loaded machine may wake a thread late).
  long best = 1000, tries = 0;
  for (; best >= 150 && tries < 3; ++tries) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(take("w"), nullptr);
    const long ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
    EXPECT_GE(ms, 100);
    best = std::min(best, ms);
  }
  EXPECT_LT(best, 150);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Can't allocate new connection. Pool size 1\n"));
  const auto s = pool()->stats();
  EXPECT_EQ(std::vector<long>({s.total, s.inUse, s.free, s.waiting, s.borrowed, s.timedOut, s.deadDropped}),
            std::vector<long>({1, 1, 0, 0, 6, tries, 1}));
}
// A borrow held past the threshold is reported once, within a reaper round, and when it comes back.
TEST_F(Pool, LeaksAreReportedOnceAndOnReturn) {
  testsupport::LogCapture log;
  pool()->setLeakThresholdMs(100), pool()->setLeakThresholdMs(-5),
      pool()->setAcquireTimeoutMs(-1);  // refused
  EXPECT_EQ(log.count("Invalid leak threshold = -5 ms") * 10 + log.count("Invalid acquire timeout = -1 ms"),
            11u);
  EXPECT_EQ(pool()->leakThresholdMs(), 100);
  pool()->setReaperSleepTimeMs(10);
  SybaseConnection* leaked = take("leaked");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(pool()->releaseConnection(take("brief")), 0);
  until([&] { return pool()->stats().leaksReported > 0; });
  const auto found = std::chrono::steady_clock::now() - start;  // the borrow's clock is a few ms coarse
  EXPECT_TRUE(found >= std::chrono::milliseconds(95) && found < std::chrono::milliseconds(160));
  pool()->reapNow(), pool()->reapNow();  // more rounds: reported once
  ASSERT_EQ(pool()->releaseConnection(leaked), 0);
  const std::string named = "[ <t> ] Connection to server " + server() + " as user leaked ";
  const std::string me = " by thread " + std::to_string(static_cast<unsigned long>(pthread_self()));
  EXPECT_EQ(log.count("<D> WARN  " + named + "held" + me + " for "), 1u);
  EXPECT_EQ(log.count("<D> INFO  " + named + "given back" + me + " after "), 1u);
  EXPECT_EQ(log.count("as user brief held"), 0u);
}

// A slow login holds its place in the pool but holds up no other borrower; then its place goes to a waiter.
TEST_F(Pool, OpeningALoginLeavesThePoolFree) {
  testsupport::LogCapture log;
  const std::string mine = server();  // made before the clock runs (on PostgreSQL, a new database)
  sybconn::PostgresSettings::setLoginTimeout(2);
  pool()->setMaxPoolSize(2), pool()->setAcquireTimeoutMs(5000);
  const std::string silent =
      "postgresql://127.0.0.1:" + std::to_string(archivetest::fullBacklogPort()) + "/x";
  std::atomic<bool> opened{false};
  std::thread slow([&] {
    EXPECT_EQ(pool()->acquireConnection(silent, "u", "p"), nullptr);
    opened = true;
  });
  until([&] { return log.containsFragment("Connecting to server " + silent); });
  EXPECT_NE(pool()->acquireConnection(mine, "u", "p"), nullptr);
  EXPECT_FALSE(opened);
  EXPECT_NE(pool()->acquireConnection(mine, "v", "p"), nullptr);  // the pool is full until the slow one fails
  EXPECT_GE(pool()->stats().longestWaitMs, 100);
  slow.join(), sybconn::PostgresSettings::setLoginTimeout(15);
}

// Threads borrow logins through aliases and the pool while the reaper runs: none held twice or reaped in use.
TEST_F(Pool, SixteenThreadsThreeServerUserPairsOneReaper) {
  const std::string pairs[][2] = {{server("a"), "u1"}, {server("b"), "u2"}, {server("a"), "u3"}};
  std::string dbrc;  // six aliases ALIAS0..5 over the three pairs
  for (int i = 0; i < 6; ++i)
    dbrc += pairs[i % 3][0] + " db " + pairs[i % 3][1] + " " + pw_ + " ALIAS" + std::to_string(i) + "\n";
  dir_.write(".dbrc", dbrc, 0600);
  pool()->setMaxIdleLifeTime(-1);  // every free login is fair game for the reaper
  pool()->setReaperSleepTimeMs(1);

  testsupport::LogCapture log;
  std::atomic<int> failures{0}, acquired{0};
  // Its own temporary table shows another thread holding the login meanwhile, or the reaper closing it.
  const auto useAlone = [&](auto* conn, int t, auto giveBack) {
    if (!conn) return;
    ++acquired;
    const std::string me = std::to_string(t);
    conn->execute("create temp table if not exists holder (t int)");
    if (conn->execute("insert into holder values (" + me + ")").commandSucceeded() != 1) ++failures;
    auto others = conn->execute("select count(*) from holder where t <> " + me);
    if (!others.next() || others.getLongValue(1) != 0) ++failures;
    if (conn->execute("delete holder where t = " + me).commandSucceeded() != 1) ++failures;
    if (giveBack() != 0) ++failures;
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&, t] {
      std::vector<ServiceConnectionSyb> aliases;  // kept: each takes its last login back first
      for (int a = 0; a < 6; ++a) aliases.emplace_back("ALIAS" + std::to_string(a));
      for (int i = 0; i < 40; ++i) {
        if (i % 2 == 0) {  // through a service connection named by an alias
          ServiceConnectionSyb& conn = aliases[(t + i) % 6];
          useAlone(conn.acquire() == 0 ? &conn : nullptr, t, [&] { return conn.release(); });
        } else {
          SybaseConnection* login =
              pool()->acquireConnection(pairs[(t + i) % 3][0], pairs[(t + i) % 3][1], "pw");
          useAlone(login, t, [&] { return pool()->releaseConnection(login); });
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GT(acquired.load(), 0);
  // Free logins of other pairs can fill the pool faster than the reaper retires them: refused, logged.
  EXPECT_EQ(log.count("Can't allocate new connection. Pool size 20"), 16u * 40 - acquired);
  EXPECT_EQ(log.count("Could not connect"), 0u);
  EXPECT_EQ(pool()->counts().inUse, 0);
}

}  // namespace
