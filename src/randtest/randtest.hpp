// The randomness tests inside: packed bit sequences, the fifteen statistics,
// the two suites and the per-caller work space. Nothing here touches the
// process-wide bit array, so any number of threads may run tests at once,
// each with its own Workspace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "randtest/fft.hpp"
#include "zeph_c_randtest.h"

namespace zeph::randtest {

inline constexpr double kAlpha = 0.01;

// Every test in failure-status order: name (the test function's), failure
// status, number of P-values.
// clang-format off
#define ZEPH_RANDTEST_TESTS(X)           \
  X(Frequency,                33, 1)     \
  X(Poker,                    34, 1)     \
  X(ApproximateEntropy,       35, 1)     \
  X(AutoCorrelation,          36, 1)     \
  X(BinaryDerivative,         37, 1)     \
  X(BlockFrequency,           38, 1)     \
  X(CumulativeSums,           39, 2)     \
  X(DiscreteFourierTransform, 40, 1)     \
  X(LinearComplexity,         41, 1)     \
  X(LongestRunOfOnes,         42, 1)     \
  X(Rank,                     43, 1)     \
  X(RunsDistribution,         44, 1)     \
  X(Runs,                     45, 1)     \
  X(Serial,                   46, 2)     \
  X(Universal,                47, 1)
// clang-format on

enum class TestId : uint8_t {
#define ZEPH_RANDTEST_ENUM(name, status, pvalues) k##name,
  ZEPH_RANDTEST_TESTS(ZEPH_RANDTEST_ENUM)
#undef ZEPH_RANDTEST_ENUM
};

struct TestInfo {
  const char *name;
  uint32_t fail_status;
  uint8_t p_values;
};

inline constexpr TestInfo kTests[] = {
#define ZEPH_RANDTEST_INFO(name, status, pvalues) {#name, status, pvalues},
    ZEPH_RANDTEST_TESTS(ZEPH_RANDTEST_INFO)
#undef ZEPH_RANDTEST_INFO
};
static_assert(std::size(kTests) == 15 && kTests[14].fail_status == ZEPH_RANDTEST_FAIL_UNIVERSAL);

constexpr const TestInfo &Info(TestId t) { return kTests[static_cast<size_t>(t)]; }

// ---- Packed bits ------------------------------------------------------------

// Ones in a word. Without a popcnt target the compiler calls a library
// routine per word; the bit-slicing sum inlines to a dozen operations.
inline unsigned Popcount(uint64_t x) {
#if defined(__POPCNT__)
  return static_cast<unsigned>(__builtin_popcountll(x));
#else
  x -= (x >> 1) & 0x5555555555555555u;
  x = (x & 0x3333333333333333u) + ((x >> 2) & 0x3333333333333333u);
  x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
  return static_cast<unsigned>((x * 0x0101010101010101u) >> 56);
#endif
}

// n bits in 64-bit words, bit i at word i / 64 counted from the most
// significant end, so a word holds 8 input bytes in reading order. Bits past
// n are zero and two zero words follow, so reads of up to 64 bits from any
// position below n + 64 need no bounds checks.
class Sequence {
 public:
  void AssignBytes(const uint8_t *bytes, size_t len);
  // One bit per byte; any non-zero byte is a one.
  void AssignEpsilon(const uint8_t *epsilon, uint64_t n);

  uint64_t size() const { return n_; }
  const uint64_t *words() const { return w_.data(); }
  // Unique per assignment (across all sequences); caches key on it.
  uint64_t generation() const { return generation_; }

  bool Bit(uint64_t i) const { return (w_[i >> 6] >> (63 - (i & 63))) & 1; }
  // Bits pos .. pos + m - 1 as a number, the first bit most significant;
  // 1 <= m <= 64.
  uint64_t Window(uint64_t pos, unsigned m) const {
    const uint64_t *p = w_.data() + (pos >> 6);
    const unsigned s = pos & 63;
    return ((p[0] << s) | ((p[1] >> 1) >> (63 - s))) >> (64 - m);
  }
  // Ones among bits [from, to).
  uint64_t Ones(uint64_t from, uint64_t to) const;
  // Positions i < n - d where bit i differs from bit i + d (d < n).
  uint64_t Differences(uint64_t d) const;

 private:
  void Resize(uint64_t n);
  std::vector<uint64_t> w_;
  uint64_t n_ = 0;
  uint64_t generation_ = 0;
};

// ---- Results ------------------------------------------------------------------

struct Outcome {
  uint32_t status = 0;  // 0, the test's failure status, 32, 4 or 0xFFFFFFFF
  uint8_t p_count = 0;  // P-values computed (0 when the test stopped before one)
  double p[2] = {0, 0};
};

// Work arrays kept between tests and runs; one per thread.
struct Workspace {
  std::vector<uint64_t> bits;  // derivative and complement copies
  std::vector<uint64_t> counts;
  uint64_t counts_generation = 0;  // cyclic pattern counts of counts_m bits
  unsigned counts_m = 0;
  std::vector<uint64_t> lc_e, lc_f, lc_due;
  std::vector<uint64_t> last_seen;
  RealFft fft;
};

// Runs one test: the outcome's status is 0 when every P-value passes. Work
// arrays that cannot be allocated give 4 (0xFFFFFFFF for the derivative).
Outcome Evaluate(TestId test, uint32_t param, const Sequence &bits, Workspace &ws);

// ---- Suites ------------------------------------------------------------------

struct Row {
  TestId test;
  uint32_t param;  // m, M, d or k; 500 for the linear complexity; 0 when none
};

inline constexpr uint32_t kQuickSuite = 0;
inline constexpr uint32_t kCompleteSuite = 1;
// The rows of a suite in running order; empty for an unknown suite.
std::span<const Row> SuiteRows(uint32_t suite);
const char *SuiteName(uint32_t suite);

// Runs a suite over one sequence, filling one outcome per row; with
// stop_early it ends at the first failing row (later rows stay empty).
// Returns the first non-zero row status.
uint32_t RunSuite(std::span<const Row> rows, const Sequence &bits, Workspace &ws, Outcome *out, bool stop_early);

// ---- The statistics (one per test; param validated by Evaluate) ----------------

Outcome FrequencyStat(const Sequence &b);
Outcome BlockFrequencyStat(const Sequence &b, uint64_t M);
Outcome RunsStat(const Sequence &b);
Outcome CumulativeSumsStat(const Sequence &b);
Outcome AutoCorrelationStat(const Sequence &b, uint64_t d);
Outcome BinaryDerivativeStat(const Sequence &b, uint64_t k, Workspace &ws);
Outcome PokerStat(const Sequence &b, unsigned m);
Outcome SerialStat(const Sequence &b, unsigned m, Workspace &ws);
Outcome ApproximateEntropyStat(const Sequence &b, unsigned m, Workspace &ws);
Outcome LongestRunOfOnesStat(const Sequence &b);
Outcome RunsDistributionStat(const Sequence &b, Workspace &ws);
Outcome RankStat(const Sequence &b);
Outcome LinearComplexityStat(const Sequence &b, unsigned M, Workspace &ws);
Outcome UniversalStat(const Sequence &b, Workspace &ws);
Outcome DiscreteFourierTransformStat(const Sequence &b, Workspace &ws);

// Counts of the 2^m cyclic m-bit windows (the last m - 1 wrap to the start),
// derived from a wider count kept in ws when there is one.
std::vector<uint64_t> CyclicCounts(const Sequence &b, unsigned m, Workspace &ws);
// psi^2_m from cyclic counts of n windows.
double Psi2(const std::vector<uint64_t> &counts, unsigned m, uint64_t n);

// Linear complexities of `count` (at most 64) consecutive M-bit blocks from
// block first_block on.
void BlockComplexities(const Sequence &b, unsigned M, uint64_t first_block, unsigned count, Workspace &ws,
                       uint16_t *out);
// Berlekamp-Massey as the textbooks write it, one byte per bit: the model
// the packed version is checked and timed against.
int TextbookLinearComplexity(const uint8_t *bits, int n);
// GF(2) rank of 32 rows of 32 bits.
int Rank32(uint32_t rows[32]);

// ---- Numerics -------------------------------------------------------------------

double Igamc(double a, double x);
double Igam(double a, double x);
double Lgam(double x);
double Normal(double x);

// ---- Parameter ranges ------------------------------------------------------------

inline constexpr unsigned kMaxPatternBits = 20;        // poker, serial, entropy
inline constexpr unsigned kMaxComplexityBlock = 5000;  // linear complexity

}  // namespace zeph::randtest
