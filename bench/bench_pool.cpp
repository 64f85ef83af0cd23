// The cost of borrowing and returning a pooled login (acquire + release of a
// ServiceConnectionSyb) on one thread and on eight, against the floor of a
// bare mutex lock/unlock pair. DEBUG logging is off through ACE's priority
// mask, as a production host sets it.
#include <ace/Log_Msg.h>
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchUtil.h"

namespace {

const int kPairs = benchutil::size(1000000, 20000);
std::string g_server;
std::mutex g_mutex;

// `threads` threads share kPairs borrow-and-return pairs (or bare lock/unlock
// pairs); the pass is timed from the first start to the last join.
template <class Pair>
benchutil::Side onThreads(int threads, Pair pair) {
  return [threads, pair](benchutil::Pass& pass) {
    pass.measure([&] {
      std::vector<std::thread> workers;
      for (int t = 1; t < threads; ++t) workers.emplace_back([&] { pair(kPairs / threads); });
      pair(kPairs / threads);
      for (auto& w : workers) w.join();
    });
  };
}

void mutexPairs(int n) {
  for (int i = 0; i < n; ++i) {
    g_mutex.lock();
    g_mutex.unlock();
  }
}

void acquireRelease(int n) {
  ServiceConnectionSyb conn(g_server, "bench", "pw", "db");
  for (int i = 0; i < n; ++i) {
    conn.acquire();
    conn.release();
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string dir = benchutil::scratchDir("/tmp", "pool");
  if (dir.empty()) return 1;
  g_server = "sqlite:" + dir + "/pool.db";
  ACE_LOG_MSG->priority_mask(
      LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
      ACE_Log_Msg::PROCESS);
  // The pool's logins exist before the first pass. Under callgrind one
  // thread makes one: how many eight threads make depends on the scheduling,
  // and each acquire walks the list.
  benchutil::Pass warmUp(nullptr, false);
  onThreads(benchutil::instructionMode() ? 1 : 8, acquireRelease)(warmUp);
  benchmark::Initialize(&argc, argv);
  benchutil::Rounds rounds(7, benchmark::kMicrosecond);
  rounds.side("BM_mutex_pair_1thread", onThreads(1, mutexPairs))
      .side("BM_acquire_release_1thread", onThreads(1, acquireRelease));
  // Eight threads under callgrind, which runs one at a time, would count
  // whatever the scheduling made of the contention: timed runs only.
  if (!benchutil::instructionMode())
    rounds.side("BM_mutex_pair_8threads", onThreads(8, mutexPairs))
        .side("BM_acquire_release_8threads", onThreads(8, acquireRelease));
  rounds.run();
  benchmark::Shutdown();
  // The wall time of the same number of pairs, on one thread and on eight.
  rounds.ratio("pool_acquire_release_1thread", "BM_acquire_release_1thread", "BM_mutex_pair_1thread", "-");
  if (!benchutil::instructionMode())
    rounds.ratio("pool_acquire_release_8threads", "BM_acquire_release_8threads", "BM_mutex_pair_8threads",
                 "-");
  ConnectionPool::destroyInstance();
  std::filesystem::remove_all(dir);
  return 0;
}
