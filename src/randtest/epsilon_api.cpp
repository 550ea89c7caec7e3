// The process-wide face of the suite: the bit array BIVO_epsilon, the test
// functions over it and the wrappers that fill and free it, plus the four
// runners. The runners work on a private packed copy, so they, unlike the
// rest of this file, may run on several threads at once.
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "foundation/status_flow.hpp"
#include "randtest/file_input.hpp"
#include "randtest/randtest.hpp"

using namespace zeph::randtest;

extern "C" {
ZEPH_API unsigned char *BIVO_epsilon = nullptr;
}

namespace {

// The array ReadBitsFromInput allocated (a host may point BIVO_epsilon at
// its own array; that one is never freed here).
unsigned char *g_owned = nullptr;

// Largest byte length whose bit count fits 64 bits.
constexpr uint64_t kMaxBytes = uint64_t{1} << 61;

// The eight bit bytes of each byte value, first bit first in memory.
constexpr std::array<uint64_t, 256> MakeSpread() {
  std::array<uint64_t, 256> t{};
  for (int v = 0; v < 256; ++v) {
    for (int j = 0; j < 8; ++j) t[v] |= static_cast<uint64_t>((v >> (7 - j)) & 1) << (8 * j);
  }
  return t;
}
constexpr std::array<uint64_t, 256> kSpread = MakeSpread();

void ReleaseOwned() {
  if (g_owned == nullptr) return;
  if (BIVO_epsilon == g_owned) BIVO_epsilon = nullptr;
  std::free(g_owned);
  g_owned = nullptr;
}

uint32_t Proper(TestId test, uint32_t param, uint64_t n) {
  if (BIVO_epsilon == nullptr) return ZEPH_RANDTEST_ERR_NULL_POINTER;
  return zeph::Guarded(
      [&] {
        Sequence bits;
        bits.AssignEpsilon(BIVO_epsilon, n);
        Workspace ws;
        return Evaluate(test, param, bits, ws).status;
      },
      ZEPH_RANDTEST_ERR_NO_MEMORY);
}

uint32_t Wrapper(TestId test, uint32_t param, const unsigned char *buf, uint64_t len) {
  ZEPH_TRY(ReadBitsFromInput(buf, len));
  const uint32_t rv = Proper(test, param, len * 8);
  ReleaseOwned();
  return rv;
}

uint32_t WrapperOnFile(TestId test, uint32_t param, const char *path) {
  return zeph::Guarded(
      [&] {
        std::vector<uint8_t> bytes;
        ZEPH_TRY(ReadWholeFile(path, &bytes));
        return Wrapper(test, param, bytes.data(), bytes.size());
      },
      ZEPH_RANDTEST_ERR_NO_MEMORY);
}

uint32_t Runner(uint32_t suite, const unsigned char *buf, uint64_t len) {
  if (buf == nullptr) return ZEPH_RANDTEST_ERR_NULL_POINTER;
  if (len == 0 || len > kMaxBytes) return ZEPH_RANDTEST_ERR_TOO_SHORT;
  return zeph::Guarded(
      [&] {
        Sequence bits;
        bits.AssignBytes(buf, len);
        Workspace ws;
        const auto rows = SuiteRows(suite);
        std::vector<Outcome> out(rows.size());
        return RunSuite(rows, bits, ws, out.data(), true);
      },
      ZEPH_RANDTEST_ERR_NO_MEMORY);
}

uint32_t RunnerOnFile(uint32_t suite, const char *path) {
  return zeph::Guarded(
      [&] {
        std::vector<uint8_t> bytes;
        ZEPH_TRY(ReadWholeFile(path, &bytes));
        return Runner(suite, bytes.data(), bytes.size());
      },
      ZEPH_RANDTEST_ERR_NO_MEMORY);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ReadBitsFromInput(const unsigned char *buf, uint64_t len) {
  if (buf == nullptr) return ZEPH_RANDTEST_ERR_NULL_POINTER;
  if (len == 0 || len > kMaxBytes) return ZEPH_RANDTEST_ERR_TOO_SHORT;
  ReleaseOwned();
  auto *bits = static_cast<unsigned char *>(std::malloc(len * 8));
  if (bits == nullptr) return ZEPH_RANDTEST_ERR_NO_MEMORY;
  for (uint64_t i = 0; i < len; ++i) std::memcpy(bits + 8 * i, &kSpread[buf[i]], 8);
  BIVO_epsilon = g_owned = bits;
  return 0;
}

ZEPH_API uint32_t QuickRandomnessTest(const unsigned char *buf, uint64_t len) { return Runner(kQuickSuite, buf, len); }
ZEPH_API uint32_t CompleteRandomnessTest(const unsigned char *buf, uint64_t len) {
  return Runner(kCompleteSuite, buf, len);
}
ZEPH_API uint32_t QuickRandomnessTestOnBinFile(const char *path) { return RunnerOnFile(kQuickSuite, path); }
ZEPH_API uint32_t CompleteRandomnessTestOnBinFile(const char *path) { return RunnerOnFile(kCompleteSuite, path); }

ZEPH_API uint32_t FrequencyTest(const unsigned char *buf, uint64_t len) {
  return Wrapper(TestId::kFrequency, 0, buf, len);
}
ZEPH_API uint32_t BlockFrequencyTest(const unsigned char *buf, uint64_t len, uint32_t M) {
  return Wrapper(TestId::kBlockFrequency, M, buf, len);
}
ZEPH_API uint32_t PokerTest(const unsigned char *buf, uint64_t len, uint32_t m) {
  return Wrapper(TestId::kPoker, m, buf, len);
}
ZEPH_API uint32_t SerialTest(const unsigned char *buf, uint64_t len, uint32_t m) {
  return Wrapper(TestId::kSerial, m, buf, len);
}
ZEPH_API uint32_t RunsTest(const unsigned char *buf, uint64_t len) { return Wrapper(TestId::kRuns, 0, buf, len); }
ZEPH_API uint32_t RunsDistributionTest(const unsigned char *buf, uint64_t len) {
  return Wrapper(TestId::kRunsDistribution, 0, buf, len);
}
ZEPH_API uint32_t LongestRunOfOnesRunsTest(const unsigned char *buf, uint64_t len) {
  return Wrapper(TestId::kLongestRunOfOnes, 0, buf, len);
}
ZEPH_API uint32_t BinaryDerivativeTest(const unsigned char *buf, uint64_t len, uint32_t k) {
  return Wrapper(TestId::kBinaryDerivative, k, buf, len);
}
ZEPH_API uint32_t AutoCorrelationTest(const unsigned char *buf, uint64_t len, uint32_t d) {
  return Wrapper(TestId::kAutoCorrelation, d, buf, len);
}
ZEPH_API uint32_t MatrixRankTest(const unsigned char *buf, uint64_t len) { return Wrapper(TestId::kRank, 0, buf, len); }
ZEPH_API uint32_t CumulativeSumsTest(const unsigned char *buf, uint64_t len) {
  return Wrapper(TestId::kCumulativeSums, 0, buf, len);
}
ZEPH_API uint32_t ApproximateEntropyTest(const unsigned char *buf, uint64_t len, uint32_t m) {
  return Wrapper(TestId::kApproximateEntropy, m, buf, len);
}
ZEPH_API uint32_t LinearComplexityTest(const unsigned char *buf, uint64_t len) {
  return Wrapper(TestId::kLinearComplexity, 500, buf, len);
}
ZEPH_API uint32_t UniversalTest(const unsigned char *buf, uint64_t len) {
  return Wrapper(TestId::kUniversal, 0, buf, len);
}
ZEPH_API uint32_t DiscreteFourierTransformTest(const unsigned char *buf, uint64_t len) {
  return Wrapper(TestId::kDiscreteFourierTransform, 0, buf, len);
}
ZEPH_API uint32_t FrequencyTestOnFile(const char *path) { return WrapperOnFile(TestId::kFrequency, 0, path); }
ZEPH_API uint32_t PokerTestOnFile(const char *path, uint32_t m) { return WrapperOnFile(TestId::kPoker, m, path); }

ZEPH_API uint32_t Frequency(uint64_t n) { return Proper(TestId::kFrequency, 0, n); }
ZEPH_API uint32_t BlockFrequency(uint32_t M, uint64_t n) { return Proper(TestId::kBlockFrequency, M, n); }
ZEPH_API uint32_t Poker(uint32_t m, uint64_t n) { return Proper(TestId::kPoker, m, n); }
ZEPH_API uint32_t Serial(uint32_t m, uint64_t n) { return Proper(TestId::kSerial, m, n); }
ZEPH_API uint32_t Runs(uint64_t n) { return Proper(TestId::kRuns, 0, n); }
ZEPH_API uint32_t RunsDistribution(uint64_t n) { return Proper(TestId::kRunsDistribution, 0, n); }
ZEPH_API uint32_t LongestRunOfOnes(uint64_t n) { return Proper(TestId::kLongestRunOfOnes, 0, n); }
ZEPH_API uint32_t BinaryDerivative(uint32_t k, uint64_t n) { return Proper(TestId::kBinaryDerivative, k, n); }
ZEPH_API uint32_t AutoCorrelation(uint32_t d, uint64_t n) { return Proper(TestId::kAutoCorrelation, d, n); }
ZEPH_API uint32_t Rank(uint64_t n) { return Proper(TestId::kRank, 0, n); }
ZEPH_API uint32_t CumulativeSums(uint64_t n) { return Proper(TestId::kCumulativeSums, 0, n); }
ZEPH_API uint32_t ApproximateEntropy(uint32_t m, uint64_t n) { return Proper(TestId::kApproximateEntropy, m, n); }
ZEPH_API uint32_t LinearComplexity(uint32_t M, uint64_t n) { return Proper(TestId::kLinearComplexity, M, n); }
ZEPH_API uint32_t Universal(uint64_t n) { return Proper(TestId::kUniversal, 0, n); }
ZEPH_API uint32_t DiscreteFourierTransform(uint64_t n) { return Proper(TestId::kDiscreteFourierTransform, 0, n); }

ZEPH_API double psi2(int m, uint64_t n) {
  if (m == 0 || m == -1 || m < -1 || m > static_cast<int>(kMaxPatternBits) || n == 0 || BIVO_epsilon == nullptr) {
    return 0.0;
  }
  try {
    Sequence bits;
    bits.AssignEpsilon(BIVO_epsilon, n);
    Workspace ws;
    return Psi2(CyclicCounts(bits, static_cast<unsigned>(m), ws), static_cast<unsigned>(m), n);
  } catch (...) {
    return std::numeric_limits<double>::quiet_NaN();
  }
}

ZEPH_API uint64_t ComputePower(uint64_t base, uint32_t exponent) {
  uint64_t result = 1;
  for (; exponent != 0; exponent >>= 1, base *= base) {
    if (exponent & 1) result *= base;
  }
  return result;
}

}  // extern "C"
