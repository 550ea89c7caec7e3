#include "bench_support.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#ifndef ZEPH_SOFTKEY_TOOL
#error "ZEPH_SOFTKEY_TOOL is not defined: the software key must be built with the benchmarks"
#endif

namespace zeph_bench {

void RatioReporter::ReportRuns(const std::vector<Run> &runs) {
  for (const Run &r : runs) {
    if (r.run_type != Run::RT_Iteration || r.error_occurred || r.iterations == 0) continue;
    const std::string name = r.benchmark_name();
    seconds_[name] = r.real_accumulated_time / static_cast<double>(r.iterations);
    for (const char *rate : {"items_per_second", "bytes_per_second"}) {
      if (const auto it = r.counters.find(rate); it != r.counters.end()) {
        double &best = best_rate_[name];
        if (it->second.value > best) best = it->second.value;
      }
    }
  }
  ConsoleReporter::ReportRuns(runs);
}

double RatioReporter::Seconds(const std::string &name) const {
  const auto it = seconds_.find(name);
  return it == seconds_.end() ? 0 : it->second;
}

double RatioReporter::BestRate(const std::string &name) const {
  const auto it = best_rate_.find(name);
  return it == best_rate_.end() ? 0 : it->second;
}

void PrintRatios(const RatioReporter &reporter, const std::vector<RatioRow> &rows) {
  std::printf("\n%-48s %16s %16s %8s %7s\n", "comparison", "zeph", "reference", "ratio", "target");
  for (const RatioRow &r : rows) {
    const double ours = reporter.BestRate(r.ours), theirs = reporter.BestRate(r.theirs);
    if (ours == 0 || theirs == 0) continue;
    const double ratio = ours / theirs;
    std::printf("%-48s %11.1f %-4s %11.1f %-4s %7.2fx", r.what, ours * r.scale, r.unit, theirs * r.scale, r.unit,
                ratio);
    if (r.target > 0) std::printf(" %6.2fx %s", r.target, ratio >= r.target ? "ok" : "BELOW");
    std::printf("\n");
  }
}

int RunWithRatios(int argc, char **argv, const std::function<void(const RatioReporter &)> &summary) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  summary(reporter);
  benchmark::Shutdown();
  return 0;
}

BenchSoftkey::BenchSoftkey() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "zeph-bench-XXXXXX").string();
  if (mkdtemp(tmpl.data()) == nullptr) return;
  root_ = tmpl;
  setenv("ZEPH_SOFTKEY_ROOT", root_.c_str(), 1);
}

BenchSoftkey::~BenchSoftkey() {
  std::error_code ec;
  if (!root_.empty()) std::filesystem::remove_all(root_, ec);
}

bool BenchSoftkey::Tool(const std::string &args) const {
  const std::string cmd = std::string("'") + ZEPH_SOFTKEY_TOOL + "' --root '" + root_ + "' " + args + " >/dev/null";
  return ok() && std::system(cmd.c_str()) == 0;
}

bool BenchSoftkey::MakeSm2Key(const std::string &serial, const std::string &app, const std::string &user_pin) const {
  const std::string dev = " --serial " + serial + " --app " + app;
  return Tool("create-device --serial " + serial) &&
         Tool("create-app" + dev + " --admin-pin 12345678 --user-pin " + user_pin) &&
         Tool("gen-key" + dev + " --container ECC --alg sm2 --user-pin " + user_pin);
}

}  // namespace zeph_bench
