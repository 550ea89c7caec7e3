// The two suites, parameter checks and the pass rule.
#include <cmath>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

// clang-format off
constexpr Row kQuick[] = {{TestId::kFrequency, 0}, {TestId::kPoker, 2}};
constexpr Row kComplete[] = {
    {TestId::kFrequency, 0},
    {TestId::kPoker, 4}, {TestId::kPoker, 8},
    {TestId::kApproximateEntropy, 2}, {TestId::kApproximateEntropy, 5},
    {TestId::kAutoCorrelation, 1}, {TestId::kAutoCorrelation, 2}, {TestId::kAutoCorrelation, 8}, {TestId::kAutoCorrelation, 16},
    {TestId::kBinaryDerivative, 3}, {TestId::kBinaryDerivative, 7},
    {TestId::kBlockFrequency, 100},
    {TestId::kCumulativeSums, 0},
    {TestId::kDiscreteFourierTransform, 0},
    {TestId::kLinearComplexity, 500},
    {TestId::kLongestRunOfOnes, 0},
    {TestId::kRank, 0},
    {TestId::kRuns, 0},
    {TestId::kRunsDistribution, 0},
    {TestId::kSerial, 2}, {TestId::kSerial, 5},
    {TestId::kUniversal, 0},
};
// clang-format on

constexpr Outcome kTooShort{ZEPH_RANDTEST_ERR_TOO_SHORT, 0, {0, 0}};

bool Passes(TestId test, const Outcome &o) {
  for (int i = 0; i < o.p_count; ++i) {
    if (!(o.p[i] >= kAlpha)) return false;  // NaN fails too
    if (test == TestId::kLongestRunOfOnes && o.p[i] > 1.0) return false;
  }
  return true;
}

Outcome Compute(TestId test, uint32_t param, const Sequence &b, Workspace &ws) {
  const uint64_t n = b.size();
  if (n == 0) return kTooShort;
  switch (test) {
    case TestId::kFrequency:
      return FrequencyStat(b);
    case TestId::kBlockFrequency:
      if (param == 0 || n / param == 0) return kTooShort;
      return BlockFrequencyStat(b, param);
    case TestId::kPoker:
      if (param == 0 || param > kMaxPatternBits || n / param == 0) return kTooShort;
      return PokerStat(b, param);
    case TestId::kSerial:
      if (param < 2 || param > kMaxPatternBits) return kTooShort;
      return SerialStat(b, param, ws);
    case TestId::kApproximateEntropy:
      if (param == 0 || param > kMaxPatternBits) return kTooShort;
      return ApproximateEntropyStat(b, param, ws);
    case TestId::kAutoCorrelation:
      if (param == 0 || param >= n) return kTooShort;
      return AutoCorrelationStat(b, param);
    case TestId::kBinaryDerivative:
      if (param == 0 || param >= n) return kTooShort;
      return BinaryDerivativeStat(b, param, ws);
    case TestId::kCumulativeSums:
      return CumulativeSumsStat(b);
    case TestId::kDiscreteFourierTransform:
      return DiscreteFourierTransformStat(b, ws);
    case TestId::kLinearComplexity:
      if (param == 0 || param > kMaxComplexityBlock || n / param == 0) return kTooShort;
      return LinearComplexityStat(b, param, ws);
    case TestId::kLongestRunOfOnes:
      return LongestRunOfOnesStat(b);
    case TestId::kRank:
      return RankStat(b);
    case TestId::kRuns:
      return RunsStat(b);
    case TestId::kRunsDistribution:
      return RunsDistributionStat(b, ws);
    case TestId::kUniversal:
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

Outcome Evaluate(TestId test, uint32_t param, const Sequence &bits, Workspace &ws) {
  Outcome o;
  try {
    o = Compute(test, param, bits, ws);
  } catch (...) {
    // Only allocation can fail inside; the derivative keeps its own status.
    o = Outcome{
        test == TestId::kBinaryDerivative ? ZEPH_RANDTEST_ERR_DERIVATIVE_COPY : ZEPH_RANDTEST_ERR_NO_MEMORY, 0, {0, 0}};
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
