// The cost of borrowing and returning a pooled login (acquire + release of a
// ServiceConnectionSyb) on one thread and on eight, against the floor of a
// bare mutex lock/unlock pair; then borrowers waiting in line: four threads
// share two logins, each borrow held 10 ms, 2,000 borrows in all, with an
// acquire time-out of 1 s (no failure, the worst wait, and the CPU time the
// borrowers spend in acquire, waiting their turn, as a share of the run's
// wall time). DEBUG logging is off
// through ACE's priority mask, as a production host sets it.
#include <ace/Log_Msg.h>
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
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

// CPU seconds (user and system) the calling thread has used.
double threadCpuSeconds() {
  struct rusage ru {};
  getrusage(RUSAGE_THREAD, &ru);
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

void waitInLine() {
  using Clock = std::chrono::steady_clock;
  const int kThreads = 4, kBorrows = 2000;
  ConnectionPool::destroyInstance();  // a pool of its own, without the logins of the passes above
  ConnectionPool* pool = ConnectionPool::instance();
  pool->setMaxPoolSize(2);
  pool->setAcquireTimeoutMs(1000);
  std::atomic<int> failures{0};
  std::mutex m;
  double worstMs = 0, cpu = 0;
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      ServiceConnectionSyb conn(g_server, "bench", "pw", "db");
      double worst = 0, waiting = 0;
      for (int i = 0; i < kBorrows / kThreads; ++i) {
        const auto asked = Clock::now();
        const double before = threadCpuSeconds();
        const int got = conn.acquire();
        waiting += threadCpuSeconds() - before;
        if (got != 0) {
          ++failures;
          continue;
        }
        worst = std::max(worst, std::chrono::duration<double, std::milli>(Clock::now() - asked).count());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        conn.release();
      }
      std::lock_guard<std::mutex> lock(m);
      worstMs = std::max(worstMs, worst);
      cpu += waiting;
    });
  }
  for (auto& t : threads) t.join();
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf(
      "pool_wait: %d borrows on %d threads sharing 2 logins in %.2f s: %d failed, worst wait %.1f ms, "
      "borrowers' CPU %.4f s\n",
      kBorrows, kThreads, wall, failures.load(), worstMs, cpu);
  std::printf("ratio pool_wait_failures %d 0\n", failures.load());
  std::printf("ratio pool_wait_worst_ms %.1f 100\n", worstMs);
  std::printf("ratio pool_wait_cpu_share %.4f 0.01\n", cpu / wall);
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
                 "5");
  if (!benchutil::instructionMode()) waitInLine();
  ConnectionPool::destroyInstance();
  std::filesystem::remove_all(dir);
  return 0;
}
