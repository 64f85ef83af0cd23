// Many threads borrowing and returning logins through several aliases while
// the reaper runs short rounds: no login is ever held twice, none in use is
// removed, none leaks, and every refusal is the full pool's, logged.
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <stcrypt/stcrypt.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "tests/db/DbFixture.h"
#include "tests/support/LogCapture.h"

namespace {

class PoolConcurrency : public DbFixture {};

TEST_F(PoolConcurrency, SixteenThreadsThreeServerUserPairsOneReaper) {
  ASSERT_EQ(stcreatekey(dir_.file("key").c_str()), 0);
  char pw[STCRYPT_BUF_SIZE];
  ASSERT_EQ(stencrypt("pw", pw), 0);
  // Six aliases over three server/user pairs.
  std::string dbrc;
  const char* pairs[][2] = {{"a", "u1"}, {"b", "u2"}, {"a", "u3"}};
  const std::map<std::string, std::string> servers{{"a", server("a")}, {"b", server("b")}};
  for (int i = 0; i < 6; ++i)
    dbrc += servers.at(pairs[i % 3][0]) + " db " + pairs[i % 3][1] + " " + pw + " ALIAS" + std::to_string(i) +
            "\n";
  dir_.write(".dbrc", dbrc, 0600);

  ConnectionPool* pool = ConnectionPool::instance();
  pool->setMaxPoolSize(20);
  pool->setMaxIdleLifeTime(-1);  // every free login is fair game for the reaper
  pool->setReaperSleepTimeMs(1);

  // Sixteen threads over three pairs can fill the pool of 20 with free logins
  // of the other pairs faster than the reaper retires them; the pool then
  // refuses a login, by design and with its log line. Such refusals are
  // counted apart; every other failure is a fault.
  testsupport::LogCapture log;
  constexpr int kThreads = 16, kRounds = 40;
  std::mutex heldMutex;
  std::set<SybaseConnection*> held;
  std::atomic<int> doubleHolds{0}, failures{0}, acquired{0}, refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        if (i % 2 == 0) {
          // Through a service connection named by an alias.
          ServiceConnectionSyb conn("ALIAS" + std::to_string((t + i) % 6));
          if (conn.acquire() != 0) {
            ++refused;
            continue;
          }
          ++acquired;
          // The login's own temporary table shows whether another thread
          // holds the same login meanwhile.
          const std::string me = std::to_string(t);
          conn.execute("create temp table if not exists holder (t int)");
          if (conn.execute("insert into holder values (" + me + ")").commandSucceeded() != 1) ++failures;
          auto others = conn.execute("select count(*) from holder where t <> " + me);
          if (!others.next()) ++failures;
          if (others.getLongValue(1) != 0) ++doubleHolds;
          if (conn.execute("delete holder where t = " + me).commandSucceeded() != 1) ++failures;
          if (conn.release() != 0) ++failures;
          continue;
        }
        // Straight from the pool, so that the login itself can be watched.
        const auto& pair = pairs[(t + i) % 3];
        SybaseConnection* login =
            ConnectionPool::instance()->acquireConnection(servers.at(pair[0]), pair[1], "pw");
        if (login == nullptr) {
          ++refused;
          continue;
        }
        ++acquired;
        {
          std::lock_guard<std::mutex> lock(heldMutex);
          if (!held.insert(login).second) ++doubleHolds;
        }
        // Still open while held, whatever the reaper does meanwhile.
        if (!login->isConnected() || login->execute("select 1").commandSucceeded() != 1) ++failures;
        {
          std::lock_guard<std::mutex> lock(heldMutex);
          held.erase(login);
        }
        if (ConnectionPool::instance()->releaseConnection(login) != 0) ++failures;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(doubleHolds.load(), 0);
  EXPECT_GT(acquired.load(), 0);
  EXPECT_EQ(log.count("Can't allocate new connection. Pool size 20"), static_cast<size_t>(refused.load()));
  EXPECT_EQ(log.count("Could not connect"), 0u);
  EXPECT_EQ(pool->counts().inUse, 0);
  // The reaper empties the pool; the destructor (fixture) closes the rest.
  pool->reapNow();
  EXPECT_EQ(pool->counts().records, 0);
}

}  // namespace
