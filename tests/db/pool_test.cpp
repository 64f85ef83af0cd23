// ConnectionPool: reuse, limits, release, and the reaper's rules.
#include <dataAccess/db/ConnectionPool.h>

#include <chrono>
#include <thread>

#include "tests/db/DbFixture.h"
#include "tests/support/LogCapture.h"

namespace {

class Pool : public DbFixture {
 protected:
  ConnectionPool* pool() { return ConnectionPool::instance(); }
  // Waits (bounded) until the pool holds `records` records.
  bool waitForRecords(int records) {
    for (int i = 0; i < 2000; ++i) {
      if (pool()->counts().records == records) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
};

TEST_F(Pool, ReusesTheEarliestFreeLoginOfTheSameServerAndUser) {
  testsupport::LogCapture log;
  SybaseConnection* first = pool()->acquireConnection(server(), "u", "p");
  SybaseConnection* second = pool()->acquireConnection(server(), "u", "p");
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Creating unique instance of ConnectionPool\n"));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Allocated new connection. Pool size 2\n"));
  EXPECT_EQ(pool()->releaseConnection(second), 0);
  EXPECT_EQ(pool()->releaseConnection(first), 0);
  // The earlier-created one comes first; the password is not compared.
  EXPECT_EQ(pool()->acquireConnection(server(), "u", "another password"), first);
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Acquiring available connection to server " + server() +
                           " as user u\n"));
  // Another user or server never shares a login.
  SybaseConnection* other = pool()->acquireConnection(server(), "v", "p");
  EXPECT_NE(other, second);
  EXPECT_EQ(pool()->counts().records, 3);
  EXPECT_EQ(pool()->counts().inUse, 2);
  EXPECT_EQ(pool()->counts().free, 1);
}

TEST_F(Pool, SizeLimitsAndFailures) {
  testsupport::LogCapture log;
  pool()->setMaxPoolSize(0);
  pool()->setMaxPoolSize(21);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Invalid maxPoolSize = 0\n"));
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Invalid maxPoolSize = 21\n"));
  EXPECT_EQ(pool()->maxPoolSize(), 20);
  pool()->setMaxPoolSize(1);
  EXPECT_EQ(pool()->maxPoolSize(), 1);
  // A reaper without a pause would spin: refused.
  pool()->setReaperSleepTimeMs(250);
  for (long bad : {0L, -1L}) {
    pool()->setReaperSleepTime(bad);
    pool()->setReaperSleepTimeMs(bad);
  }
  EXPECT_EQ(pool()->reaperSleepTimeMs(), 250);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Invalid reaper sleep time = -1000 ms\n"));
  EXPECT_EQ(log.count("Invalid reaper sleep time"), 4u);

  SybaseConnection* a = pool()->acquireConnection(server(), "u", "p");
  ASSERT_NE(a, nullptr);
  pool()->releaseConnection(a);
  // Free but not reaped yet: a second user finds the pool full.
  EXPECT_EQ(pool()->acquireConnection(server(), "v", "p"), nullptr);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Can't allocate new connection. Pool size 1\n"));

  pool()->setMaxPoolSize(20);
  const std::string nowhere = backend().unreachable(dir_.path());
  EXPECT_EQ(pool()->acquireConnection(nowhere, "u", "p"), nullptr);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Could not connect to server " + nowhere + " as user u\n"));
  EXPECT_EQ(pool()->counts().records, 1);

  SybaseConnection foreign;
  EXPECT_EQ(pool()->releaseConnection(&foreign), -1);
  EXPECT_TRUE(log.contains("<D> ERROR [ <t> ] Could not release connection. This should never happen!\n"));
  EXPECT_EQ(pool()->counts().records, 1);
}

TEST_F(Pool, ReaperRemovesIdleAndOldFreeLoginsOnly) {
  pool()->shutdownReaper();  // rounds are run by hand here
  SybaseConnection* idle = pool()->acquireConnection(server(), "idle", "p");
  SybaseConnection* busy = pool()->acquireConnection(server(), "busy", "p");
  ASSERT_NE(idle, nullptr);
  ASSERT_NE(busy, nullptr);
  pool()->releaseConnection(idle);

  // Within both lifetimes nothing goes.
  EXPECT_EQ(pool()->reapNow(), 0);

  // Idle lifetime -1: anything released before now is over it.
  testsupport::LogCapture log;
  pool()->setMaxIdleLifeTime(-1);
  EXPECT_EQ(pool()->reapNow(), 1);
  EXPECT_TRUE(
      log.containsFragment("<D> INFO  [ <t> ] Reaper: removing connection " + server() + "/idle. LifeTime "));
  EXPECT_TRUE(log.containsFragment(" s. IdleLifeTime "));
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Connection removed. Pool size 1\n"));

  // A login in use is never removed, however old; once released it goes.
  pool()->setMaxIdleLifeTime(60);
  pool()->setMaxLifeTime(-1);
  EXPECT_EQ(pool()->reapNow(), 0);
  pool()->releaseConnection(busy);
  EXPECT_EQ(pool()->reapNow(), 1);
  EXPECT_EQ(pool()->counts().records, 0);
}

TEST_F(Pool, ReaperThreadRunsRoundsAndStopsPromptly) {
  testsupport::LogCapture log;
  pool()->setMaxIdleLifeTime(-1);
  SybaseConnection* c = pool()->acquireConnection(server(), "u", "p");
  ASSERT_NE(c, nullptr);
  pool()->releaseConnection(c);
  pool()->setReaperSleepTimeMs(5);
  EXPECT_TRUE(waitForRecords(0));
  EXPECT_TRUE(log.containsFragment("DEBUG [ <t> ] Reaper: looking for disused connections"));

  // Stopped while it waits out its interval, it runs no further round.
  const auto start = std::chrono::steady_clock::now();
  pool()->setReaperSleepTime(5);
  const size_t rounds = log.count("looking for disused connections");
  pool()->shutdownReaper();
  EXPECT_EQ(log.count("looking for disused connections"), rounds);
  EXPECT_FALSE(pool()->reaperRunning());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_TRUE(log.contains("<D> INFO  [ <t> ] Reaper exit\n"));

  // The destructor ends the reaper and closes what is left.
  ConnectionPool::instance()->setReaperSleepTime(5);
  ASSERT_NE(pool()->acquireConnection(server(), "u", "p"), nullptr);
  ConnectionPool::destroyInstance();
  EXPECT_TRUE(log.contains("<D> DEBUG [ <t> ] Terminating reaper thread\n"));
}

}  // namespace
