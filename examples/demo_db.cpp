// Demo section: a service named by an alias in $HOME/.dbrc, borrowed from the
// pool, and retired by the reaper.
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionSyb.h>
#include <stcrypt/stcrypt.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include "examples/demo.h"
#include "examples/demo_util.h"

namespace {

void counts(const char* when) {
  const ConnectionPool::Counts c = ConnectionPool::instance()->counts();
  std::printf("   pool %-22s %d login(s): %d in use, %d free\n", when, c.records, c.inUse, c.free);
}

int run(const std::string& work) {
  // A parameters file with an enciphered password, in the demo's private HOME.
  char keyFile[1024];
  if (stkeyfile(keyFile, sizeof keyFile) != 0) return 1;
  struct stat st {};
  if (::stat(keyFile, &st) != 0 && stcreatekey(keyFile) != 0) return 1;
  char sealed[STCRYPT_BUF_SIZE];
  if (stencrypt("demo-password", sealed) != 0) return 1;
  const std::string dbrc = std::string(std::getenv("HOME")) + "/.dbrc";
  {
    std::ofstream out(dbrc);
    out << "# server  database  user  enciphered-password  alias\n"
        << demo::server(work, "demo.db") << " demo ops " << sealed << " DEMO\n";
  }
  std::printf("   wrote %s (key %s)\n", dbrc.c_str(), keyFile);

  ServiceConnectionSyb conn("DEMO");
  if (conn.acquire() != 0) return 1;
  std::printf("   alias DEMO -> server %s, user %s\n", conn.server().c_str(), conn.user().c_str());
  counts("after acquire:");

  ServiceConnectionSyb::ListOfFieldIndex fields;
  ServiceConnectionSyb::ResultSet rs;
  if (conn.executeSelect("select obs_id, target, seeing from observations order by obs_id", rs, fields) != 0)
    return 1;
  std::printf("   column map:");
  for (const auto& f : fields) std::printf(" %s=%d", f.first.c_str(), f.second);
  std::printf("\n");
  while (rs.next())
    std::printf("   %s by name: %s\n", rs.getStringValue(fields["obs_id"]).c_str(),
                rs.getStringValue(fields["target"]).c_str());

  // Nested, numbered transactions: the inner one is rolled back.
  conn.beginTransaction();
  conn.execute("update observations set target = 'NGC 253 (checked)' where obs_id = 1");
  conn.beginTransaction();
  conn.execute("delete observations where obs_id = 2");
  std::printf("   open transactions: %d\n", conn.transactionNumber());
  conn.rollbackTransaction();
  conn.commitTransaction();
  ServiceConnectionSyb::ResultSet left = conn.execute("select count(*) from observations");
  left.next();
  std::printf("   after commit A1 / rollback A2: %ld rows kept\n", left.getLongValue(1));

  conn.release();
  counts("after release:");

  // The reaper retires the free login once its idle lifetime is over.
  ConnectionPool* pool = ConnectionPool::instance();
  pool->setMaxIdleLifeTime(0);
  pool->setReaperSleepTimeMs(100);
  for (int i = 0; i < 50 && pool->counts().records > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  counts("after the reaper ran:");
  pool->setReaperSleepTime(5);
  pool->setMaxIdleLifeTime(60);
  return pool->counts().records == 0 ? 0 : 1;
}

}  // namespace

DEMO_SECTION(20, "Service connection by alias, pool and reaper", run);
