#ifndef BENCH_BENCHUTIL_H
#define BENCH_BENCHUTIL_H

// The one comparison engine of the benchmark programs. A comparison is a set
// of sides (ours, the raw loop, variants) that run in turns, one pass each per
// round, so that a moment of load on a shared machine meets every side alike.
// A ratio line compares two sides round by round:
//
//   ratio NAME MEDIAN GOAL LOWEST..HIGHEST
//
// MEDIAN is the median of the per-round ratios (ours / peer), LOWEST..HIGHEST
// their spread. Timed passes run through Google Benchmark (one table row a
// pass). Peak memory (RSS) is measured per pass too, each pass in a forked
// child.
//
// With BENCH_INSTRUCTIONS set (bench/run-instructions.sh, under callgrind),
// the programs take their smaller `counted` sizes, run each side once to warm
// up and once counted, and count instructions of the measured region only:
// collection is switched on around it (callgrind's client requests) and the
// count is dumped under the side's name. The script turns the dumps into the
// same ratio lines. Side names are unique within a program. Memory
// comparisons print nothing in that mode.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace benchutil {

inline bool instructionMode() {
  static const bool on = std::getenv("BENCH_INSTRUCTIONS") != nullptr;
  return on;
}

// The size of a workload: `timed` for the timed runs, `counted` under callgrind.
inline int size(int timed, int counted) { return instructionMode() ? counted : timed; }

// A fresh scratch folder under `parent` ("/tmp", "/dev/shm"). Under callgrind
// its name is fixed, so that two runs hash and compare the same path texts and
// count the same instructions; timed runs get a unique name.
inline std::string scratchDir(const std::string& parent, const std::string& name) {
  if (instructionMode()) {
    const std::string dir = parent + "/bench-counted-" + name;
    std::filesystem::remove_all(dir);
    return ::mkdir(dir.c_str(), 0700) == 0 ? dir : std::string();
  }
  std::string tmpl = parent + "/bench-" + name + "-XXXXXX";
  return ::mkdtemp(tmpl.data()) ? tmpl : std::string();
}

// One pass of one side. The side prepares what it needs, hands the work to be
// measured to measure() (more than once if it likes: the parts add up), and
// cleans up; only what measure() runs is timed or counted.
class Pass {
 public:
  explicit Pass(benchmark::State* state, bool counted) : state_(state), counted_(counted) {}
  template <class Work>
  void measure(Work&& work) {
    if (state_ && !failed_) state_->ResumeTiming();
    if (counted_) CALLGRIND_TOGGLE_COLLECT;
    work();
    if (counted_) CALLGRIND_TOGGLE_COLLECT;
    if (state_ && !failed_) state_->PauseTiming();
  }
  // The pass went wrong: its round gives no ratio (the line reads nan).
  // Google Benchmark stops timing a run with an error for good.
  void fail(const char* why) {
    if (state_ && !failed_) state_->SkipWithError(why);
    if (!state_) std::fprintf(stderr, "pass failed: %s\n", why);
    failed_ = true;
  }
  bool failed() const { return failed_; }

 private:
  benchmark::State* state_;
  bool counted_;
  bool failed_ = false;
};
using Side = std::function<void(Pass&)>;

// The per-round ratios of `ours` over `peer` as one ratio line (nan when a
// round is missing or not positive).
inline void printRatio(const std::string& name, const std::vector<double>& ours,
                       const std::vector<double>& peer, const char* goal) {
  std::vector<double> r;
  for (size_t i = 0; i < ours.size() && i < peer.size(); ++i) {
    if (!(ours[i] > 0) || !(peer[i] > 0)) {
      r.clear();
      break;
    }
    r.push_back(ours[i] / peer[i]);
  }
  if (r.empty() || ours.size() != peer.size()) {
    std::printf("ratio %s nan %s\n", name.c_str(), goal);
    return;
  }
  std::sort(r.begin(), r.end());
  const size_t n = r.size();
  const double median = n % 2 ? r[n / 2] : (r[n / 2 - 1] + r[n / 2]) / 2;
  std::printf("ratio %s %.3f %s %.3f..%.3f\n", name.c_str(), median, goal, r.front(), r.back());
}

inline double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// Console output as usual, plus every pass's real time (in the benchmark's
// display unit) in running order, keyed by the name without its "/..." part.
class Collector : public benchmark::ConsoleReporter {
 public:
  // Plain tables: bench/run.sh greps the output for lines that start with "ratio".
  Collector() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Iteration && r.iterations > 0 && !r.error_occurred) {
        const std::string name = r.benchmark_name();
        times[name.substr(0, name.find('/'))].push_back(r.GetAdjustedRealTime());
      }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, std::vector<double>> times;
};

// The sides of one comparison, run `rounds` times in turns.
class Rounds {
 public:
  explicit Rounds(int rounds = 7, benchmark::TimeUnit unit = benchmark::kMillisecond)
      : rounds_(rounds), unit_(unit) {}

  Rounds& side(const std::string& name, Side fn) {
    sides_.emplace_back(name, std::move(fn));
    return *this;
  }

  // Timed: every pass is one Google Benchmark run of one iteration.
  // Counted: each side once uncounted (first calls bind symbols, fill caches),
  // then once counted and dumped.
  void run() {
    if (instructionMode()) {
      for (auto& s : sides_) {
        Pass warm(nullptr, false);
        s.second(warm);
        Pass counted(nullptr, true);
        CALLGRIND_ZERO_STATS;
        s.second(counted);
        CALLGRIND_DUMP_STATS_AT(s.first.c_str());
      }
      return;
    }
    // Odd rounds run the sides in reverse order, so that no side always
    // follows the same one.
    for (int round = 0; round < rounds_; ++round)
      for (size_t k = 0; k < sides_.size(); ++k) {
        auto& s = sides_[round % 2 ? sides_.size() - 1 - k : k];
        Side* fn = &s.second;
        benchmark::RegisterBenchmark(s.first.c_str(),
                                     [fn](benchmark::State& state) {
                                       for (auto _ : state) {
                                         state.PauseTiming();
                                         Pass pass(&state, false);
                                         (*fn)(pass);
                                         if (!pass.failed()) state.ResumeTiming();
                                       }
                                     })
            ->Unit(unit_)
            ->UseRealTime()
            ->Iterations(1);
      }
    benchmark::RunSpecifiedBenchmarks(&collector_);
    benchmark::ClearRegisteredBenchmarks();
  }

  // Prints the ratio line of side `ours` against side `peer`. Counted: a
  // `counted NAME OURS PEER GOAL` line instead, which bench/run-instructions.sh
  // joins with the dumps of the two sides.
  void ratio(const std::string& name, const std::string& ours, const std::string& peer,
             const char* goal) const {
    if (instructionMode())
      std::printf("counted %s %s %s %s\n", name.c_str(), ours.c_str(), peer.c_str(), goal);
    else
      printRatio(name, times(ours), times(peer), goal);
  }

  // The pass times of a side in the display unit (empty when it did not run).
  std::vector<double> times(const std::string& side) const {
    auto it = collector_.times.find(side);
    return it == collector_.times.end() ? std::vector<double>() : it->second;
  }

 private:
  int rounds_;
  benchmark::TimeUnit unit_;
  std::vector<std::pair<std::string, Side>> sides_;
  Collector collector_;
};

// Runs `task` in a forked child and returns the child's peak resident set
// size in KiB (0 on failure). Fork from a single-threaded state: no pool or
// reaper running.
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

// Peak memory of two tasks, each pass in a child, `pairs` pairs in turns, as
// one ratio line. With `lessBareChild`, each figure is taken less the peak of
// a child that does nothing (measured once per pair). Prints the medians too.
inline void comparePeak(const std::string& name, const char* goal, const std::function<void()>& ours,
                        const std::function<void()>& peer, bool lessBareChild = false, int pairs = 7) {
  if (instructionMode()) return;
  std::vector<double> o, p;
  for (int i = 0; i < pairs; ++i) {
    const long base = lessBareChild ? peakKiB([] {}) : 0;
    o.push_back(static_cast<double>(peakKiB(ours) - base));
    p.push_back(static_cast<double>(peakKiB(peer) - base));
  }
  std::printf("%s: median peak RSS%s: ours %.0f KiB, peer %.0f KiB\n", name.c_str(),
              lessBareChild ? " above a bare child" : "", median(o), median(p));
  printRatio(name, o, p, goal);
}

}  // namespace benchutil

#endif
