// The randomness suite over 10^6 random bits: the complete runner, a reused
// context, every row on its own, and the linear complexity's 2,000 blocks
// against a byte-per-bit textbook Berlekamp-Massey in the same run. Each
// benchmark repeats interleaved; the summary takes the best CPU time of each
// (the development machine is shared, so wall time carries other people's
// load) and checks the targets: complete suite <= 50 ms, linear complexity
// >= 40x the byte-per-bit model.
#include "randtest/randtest.hpp"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "zeph_c_gm.h"
#include "zeph_c_randtest.h"

namespace {

using namespace zeph::randtest;

constexpr size_t kBytes = 125000;  // 10^6 bits
constexpr unsigned kBlock = 500, kBlocks = 2000;

// 10^6 bits from the library's DRBG.
const std::vector<uint8_t> &Sample() {
  static const std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> entropy(256), out(kBytes);
    for (size_t i = 0; i < entropy.size(); ++i) entropy[i] = static_cast<uint8_t>(i * 167 + 13);
    BIVO_SM3_HASH_DRBG *drbg = nullptr;
    BIVO_sm3_hash_drbg_new(&drbg);
    BIVO_sm3_hash_drbg_instantiate(drbg, entropy.data(), 256, nullptr, 0, nullptr, 0);
    for (size_t at = 0; at < out.size(); at += 25000) {
      BIVO_sm3_hash_drbg_generate(drbg, nullptr, 0, 25000, out.data() + at);
    }
    BIVO_sm3_hash_drbg_free(drbg);
    return out;
  }();
  return bytes;
}

const Sequence &Bits() {
  static const Sequence s = [] {
    Sequence seq;
    seq.AssignBytes(Sample().data(), Sample().size());
    return seq;
  }();
  return s;
}

void Runner(benchmark::State &state) {
  for (auto _ : state) {
    const uint32_t status = CompleteRandomnessTest(Sample().data(), kBytes);
    benchmark::DoNotOptimize(status);
  }
}

void Context(benchmark::State &state) {
  ZEPH_RANDTEST_CTX *ctx = ZEPH_C_RandTest_New();
  ZEPH_C_RandTest_Run(ctx, 1, Sample().data(), kBytes);  // plan and arrays kept from here on
  for (auto _ : state) {
    const uint32_t status = ZEPH_C_RandTest_Run(ctx, 1, Sample().data(), kBytes);
    benchmark::DoNotOptimize(status);
  }
  ZEPH_C_RandTest_Free(ctx);
}

// Arrays and the FFT plan stay warm; pattern counts are recounted, as
// each suite run counts them once.
void OneRow(benchmark::State &state, Row row) {
  Workspace ws;
  Evaluate(row.test, row.param, Bits(), ws);
  for (auto _ : state) {
    ws.counts_generation = 0;
    const Outcome o = Evaluate(row.test, row.param, Bits(), ws);
    benchmark::DoNotOptimize(o);
  }
}

void ComplexityFast(benchmark::State &state) {
  Workspace ws;
  uint16_t lengths[64];
  for (auto _ : state) {
    for (unsigned g = 0; g < kBlocks; g += 64) {
      BlockComplexities(Bits(), kBlock, g, std::min(64u, kBlocks - g), ws, lengths);
      benchmark::DoNotOptimize(lengths);
    }
  }
}

void ComplexityBytePerBit(benchmark::State &state) {
  std::vector<uint8_t> bits(kBlock * kBlocks);
  for (size_t i = 0; i < bits.size(); ++i) bits[i] = Bits().Bit(i);
  for (auto _ : state) {
    int sum = 0;
    for (unsigned b = 0; b < kBlocks; ++b) sum += TextbookLinearComplexity(&bits[size_t{b} * kBlock], kBlock);
    benchmark::DoNotOptimize(sum);
  }
}

// Keeps the best CPU time (ms) of every benchmark for the summary.
class BestReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
      const double ms = run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e3;
      std::string name = run.benchmark_name();
      if (const auto cut = name.find("/min_time"); cut != std::string::npos) name.resize(cut);
      auto [it, fresh] = best_.emplace(name, ms);
      if (!fresh && ms < it->second) it->second = ms;
      if (fresh) order_.push_back(name);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Summary() const {
    std::printf("\n10^6 random bits (best CPU time of the repetitions)\n");
    for (const std::string &name : order_) {
      if (name.rfind("row/", 0) == 0) std::printf("  %-34s %8.3f ms\n", name.c_str() + 4, best_.at(name));
    }
    auto verdict = [](bool ok) { return ok ? "ok" : "MISSED"; };
    for (const char *name : {"suite/runner", "suite/context"}) {
      if (best_.count(name) == 0) continue;
      std::printf("complete suite, %-20s %8.3f ms   target <= 50 ms   %s\n", name + 6, best_.at(name),
                  verdict(best_.at(name) <= 50));
    }
    if (best_.count("complexity/fast") != 0 && best_.count("complexity/byte-per-bit") != 0) {
      const double fast = best_.at("complexity/fast"), slow = best_.at("complexity/byte-per-bit");
      std::printf("linear complexity, 2,000 blocks: %.3f ms vs byte-per-bit %.3f ms = %.1fx   target >= 40x   %s\n",
                  fast, slow, slow / fast, verdict(slow / fast >= 40));
    }
  }

 private:
  std::map<std::string, double> best_;
  std::vector<std::string> order_;
};

}  // namespace

int main(int argc, char **argv) {
  Sample();
  for (int rep = 0; rep < 3; ++rep) {
    benchmark::RegisterBenchmark("suite/runner", Runner)->Unit(benchmark::kMillisecond)->MinTime(0.3);
    benchmark::RegisterBenchmark("suite/context", Context)->Unit(benchmark::kMillisecond)->MinTime(0.3);
    benchmark::RegisterBenchmark("complexity/fast", ComplexityFast)->Unit(benchmark::kMillisecond)->MinTime(0.2);
    benchmark::RegisterBenchmark("complexity/byte-per-bit", ComplexityBytePerBit)
        ->Unit(benchmark::kMillisecond)
        ->MinTime(0.2);
  }
  for (const Row &row : SuiteRows(kCompleteSuite)) {
    std::string label = std::string("row/") + Info(row.test).name;
    if (row.param != 0) label.append(" ").append(std::to_string(row.param));
    benchmark::RegisterBenchmark(label.c_str(), OneRow, row)->Unit(benchmark::kMillisecond)->MinTime(0.05);
  }
  benchmark::Initialize(&argc, argv);
  BestReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Summary();
  benchmark::Shutdown();
  return 0;
}
