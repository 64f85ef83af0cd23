#ifndef BENCH_BENCHUTIL_H
#define BENCH_BENCHUTIL_H

// Shared pieces of the benchmark programs: running Google Benchmark while
// keeping each benchmark's time, printing `ratio NAME VALUE GOAL` lines, and
// measuring the peak memory of a task in a child process.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace benchutil {

// Console output as usual, plus the best real time per iteration (ns) of each
// benchmark, keyed by its name without the "/..." arguments part.
class Collector : public benchmark::ConsoleReporter {
 public:
  // Plain tables: bench/run.sh greps the output for lines that start with "ratio".
  Collector() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.run_type != Run::RT_Iteration || r.iterations == 0) continue;
      std::string name = r.benchmark_name();
      const double ns = r.GetAdjustedRealTime();
      auto it = best.find(name);
      if (it == best.end() || ns < it->second) best[name] = ns;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double time(const std::string& prefix) const {
    for (const auto& b : best)
      if (b.first.compare(0, prefix.size(), prefix) == 0) return b.second;
    return 0;
  }
  std::map<std::string, double> best;
};

inline void printRatio(const std::string& name, double ours, double peer, const char* goal) {
  if (ours <= 0 || peer <= 0) {
    std::printf("ratio %s nan %s\n", name.c_str(), goal);
    return;
  }
  std::printf("ratio %s %.3f %s\n", name.c_str(), ours / peer, goal);
}

// Runs `task` in a forked child (fork from a single-threaded state: no
// pool or reaper running) and returns the child's peak resident set
// size in KiB (0 on failure).
inline long peakKiB(const std::function<void()>& task) {
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    task();
    _exit(0);
  }
  int status = 0;
  struct rusage ru {};
  if (pid < 0 || wait4(pid, &status, 0, &ru) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return 0;
  return ru.ru_maxrss;
}

}  // namespace benchutil

#endif
