// What every benchmark shares. Each bench/*.cpp measures zeph and a reference
// (OpenSSL, cJSON) in the same run and prints their ratio:
//   - Interleaved() times both sides in every iteration, the order swapped
//     each time, for pairs that should cost the same;
//   - RatioReporter keeps every run's time per iteration and best rate, so
//     the summary printed after the runs compares benchmarks by name;
//   - BenchSoftkey sets up a software key in a temporary root.
#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace zeph_bench {

struct SideSeconds {
  double ours = 0, reference = 0;
};

// Wall-clock time, or this thread's CPU time (on a shared machine wall-clock
// time mostly measures the other processes; CPU time misses waiting, so it
// suits only work done in this thread).
enum class Timer { kWall, kThreadCpu };

inline double Now(Timer timer) {
  if (timer == Timer::kWall)
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Runs `ours` and `reference` once per iteration, alternating which goes
// first so neither always meets a warm cache; the iteration's time (manual
// time) is ours. Returns the total seconds of each side.
template <class Ours, class Reference>
SideSeconds Interleaved(benchmark::State &state, Ours ours, Reference reference, Timer timer = Timer::kWall) {
  SideSeconds total;
  bool ours_first = true;
  for (auto _ : state) {
    const double t0 = Now(timer);
    ours_first ? ours() : reference();
    const double t1 = Now(timer);
    ours_first ? reference() : ours();
    const double t2 = Now(timer);
    const double first = t1 - t0, second = t2 - t1;
    const double mine = ours_first ? first : second;
    total.ours += mine;
    total.reference += ours_first ? second : first;
    state.SetIterationTime(mine);
    ours_first = !ours_first;
  }
  return total;
}

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override;
  // Seconds per iteration of the last run of that name; 0 when none ran.
  double Seconds(const std::string &name) const;
  // The best items or bytes per second of every run of that name
  // (repetitions registered under one name included); 0 when none ran.
  double BestRate(const std::string &name) const;

 private:
  std::map<std::string, double> seconds_, best_rate_;
};

// One comparison of the summary: our benchmark's best rate against theirs.
struct RatioRow {
  const char *what, *ours, *theirs;
  double target = 0;          // the ratio to reach; 0: none
  const char *unit = "op/s";  // of the rates as printed
  double scale = 1;           // rate * scale is printed (1e-6 for MB/s)
};

// The summary table: both rates, their ratio, and "ok" or "BELOW" against
// the target. Rows whose benchmarks did not run are left out.
void PrintRatios(const RatioReporter &reporter, const std::vector<RatioRow> &rows);

// Runs the registered benchmarks with a RatioReporter, then the summary.
int RunWithRatios(int argc, char **argv, const std::function<void(const RatioReporter &)> &summary);

// A software key in a temporary root (ZEPH_SOFTKEY_ROOT points there), made
// with zeph-softkey; removed at exit.
class BenchSoftkey {
 public:
  BenchSoftkey();
  ~BenchSoftkey();
  BenchSoftkey(const BenchSoftkey &) = delete;
  BenchSoftkey &operator=(const BenchSoftkey &) = delete;
  // "zeph-softkey --root <root> <args>", quietly; false when it fails.
  bool Tool(const std::string &args) const;
  // One device with one application and an SM2 key pair in container ECC.
  bool MakeSm2Key(const std::string &serial, const std::string &app, const std::string &user_pin) const;
  bool ok() const { return !root_.empty(); }

 private:
  std::string root_;
};

}  // namespace zeph_bench
