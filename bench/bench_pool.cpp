// The cost of borrowing and returning a pooled login (acquire + release of a
// ServiceConnectionSyb) on one thread and on eight, against the floor of a
// bare mutex lock/unlock pair. DEBUG logging is off through ACE's priority
// mask, as a production host sets it.
#include <ace/Log_Msg.h>
#include <dataAccess/db/ConnectionPool.h>
#include <dataAccess/db/ServiceConnectionSyb.h>

#include <mutex>
#include <string>

#include "bench/BenchUtil.h"

namespace {

std::string g_server;
std::mutex g_mutex;

void BM_mutex_pair(benchmark::State& state) {
  for (auto _ : state) {
    g_mutex.lock();
    g_mutex.unlock();
  }
}

void BM_acquire_release(benchmark::State& state) {
  ServiceConnectionSyb conn(g_server, "bench", "pw", "db");
  for (auto _ : state) {
    conn.acquire();
    conn.release();
  }
}

}  // namespace

BENCHMARK(BM_mutex_pair)->Threads(1)->Repetitions(3);
BENCHMARK(BM_mutex_pair)->Threads(8)->Repetitions(3);
BENCHMARK(BM_acquire_release)->Threads(1)->Repetitions(3);
BENCHMARK(BM_acquire_release)->Threads(8)->Repetitions(3);

int main(int argc, char** argv) {
  char tmpl[] = "/tmp/bench-pool-XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  g_server = std::string("sqlite:") + tmpl + "/pool.db";
  ACE_LOG_MSG->priority_mask(
      LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
      ACE_Log_Msg::PROCESS);
  benchmark::Initialize(&argc, argv);
  benchutil::Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  benchmark::Shutdown();
  // Per-pair wall time of each thread count; with 8 threads the real time per
  // iteration already accounts for the threads running together.
  benchutil::printRatio("pool_acquire_release_1thread",
                        collector.time("BM_acquire_release/repeats:3/threads:1"),
                        collector.time("BM_mutex_pair/repeats:3/threads:1"), "-");
  benchutil::printRatio("pool_acquire_release_8threads",
                        collector.time("BM_acquire_release/repeats:3/threads:8"),
                        collector.time("BM_mutex_pair/repeats:3/threads:8"), "-");
  ConnectionPool::destroyInstance();
  std::system((std::string("rm -rf ") + tmpl).c_str());
  return 0;
}
