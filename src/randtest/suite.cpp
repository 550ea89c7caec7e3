// The two suites, parameter checks and the pass rule.
#include <cmath>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

// clang-format off
constexpr Row kQuick[] = {{Test::kFrequency, 0}, {Test::kPoker, 2}};
constexpr Row kComplete[] = {
    {Test::kFrequency, 0},
    {Test::kPoker, 4}, {Test::kPoker, 8},
    {Test::kApproximateEntropy, 2}, {Test::kApproximateEntropy, 5},
    {Test::kAutoCorrelation, 1}, {Test::kAutoCorrelation, 2}, {Test::kAutoCorrelation, 8}, {Test::kAutoCorrelation, 16},
    {Test::kBinaryDerivative, 3}, {Test::kBinaryDerivative, 7},
    {Test::kBlockFrequency, 100},
    {Test::kCumulativeSums, 0},
    {Test::kDiscreteFourierTransform, 0},
    {Test::kLinearComplexity, 500},
    {Test::kLongestRunOfOnes, 0},
    {Test::kRank, 0},
    {Test::kRuns, 0},
    {Test::kRunsDistribution, 0},
    {Test::kSerial, 2}, {Test::kSerial, 5},
    {Test::kUniversal, 0},
};
// clang-format on

constexpr Outcome kTooShort{ZEPH_RANDTEST_ERR_TOO_SHORT, 0, {0, 0}};

bool Passes(Test test, const Outcome &o) {
  for (int i = 0; i < o.p_count; ++i) {
    if (!(o.p[i] >= kAlpha)) return false;  // NaN fails too
    if (test == Test::kLongestRunOfOnes && o.p[i] > 1.0) return false;
  }
  return true;
}

Outcome Compute(Test test, uint32_t param, const Sequence &b, Workspace &ws) {
  const uint64_t n = b.size();
  if (n == 0) return kTooShort;
  switch (test) {
    case Test::kFrequency:
      return FrequencyStat(b);
    case Test::kBlockFrequency:
      if (param == 0 || n / param == 0) return kTooShort;
      return BlockFrequencyStat(b, param);
    case Test::kPoker:
      if (param == 0 || param > kMaxPatternBits || n / param == 0) return kTooShort;
      return PokerStat(b, param);
    case Test::kSerial:
      if (param < 2 || param > kMaxPatternBits) return kTooShort;
      return SerialStat(b, param, ws);
    case Test::kApproximateEntropy:
      if (param == 0 || param > kMaxPatternBits) return kTooShort;
      return ApproximateEntropyStat(b, param, ws);
    case Test::kAutoCorrelation:
      if (param == 0 || param >= n) return kTooShort;
      return AutoCorrelationStat(b, param);
    case Test::kBinaryDerivative:
      if (param == 0 || param >= n) return kTooShort;
      return BinaryDerivativeStat(b, param, ws);
    case Test::kCumulativeSums:
      return CumulativeSumsStat(b);
    case Test::kDiscreteFourierTransform:
      return DiscreteFourierTransformStat(b, ws);
    case Test::kLinearComplexity:
      if (param == 0 || param > kMaxComplexityBlock || n / param == 0) return kTooShort;
      return LinearComplexityStat(b, param, ws);
    case Test::kLongestRunOfOnes:
      return LongestRunOfOnesStat(b);
    case Test::kRank:
      return RankStat(b);
    case Test::kRuns:
      return RunsStat(b);
    case Test::kRunsDistribution:
      return RunsDistributionStat(b, ws);
    case Test::kUniversal:
      return UniversalStat(b, ws);
  }
  return kTooShort;
}

}  // namespace

std::span<const Row> SuiteRows(uint32_t suite) {
  if (suite == kQuickSuite) return kQuick;
  if (suite == kCompleteSuite) return kComplete;
  return {};
}

const char *SuiteName(uint32_t suite) { return suite == kQuickSuite ? "quick" : "complete"; }

Outcome Evaluate(Test test, uint32_t param, const Sequence &bits, Workspace &ws) {
  Outcome o;
  try {
    o = Compute(test, param, bits, ws);
  } catch (...) {
    // Only allocation can fail inside; the derivative keeps its own status.
    o = Outcome{
        test == Test::kBinaryDerivative ? ZEPH_RANDTEST_ERR_DERIVATIVE_COPY : ZEPH_RANDTEST_ERR_NO_MEMORY, 0, {0, 0}};
  }
  if (o.status == 0 && !Passes(test, o)) o.status = Info(test).fail_status;
  return o;
}

uint32_t RunSuite(std::span<const Row> rows, const Sequence &bits, Workspace &ws, Outcome *out, bool stop_early) {
  uint32_t first = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    out[i] = Evaluate(rows[i].test, rows[i].param, bits, ws);
    if (out[i].status != 0 && first == 0) {
      first = out[i].status;
      if (stop_early) break;
    }
  }
  return first;
}

}  // namespace zeph::randtest
