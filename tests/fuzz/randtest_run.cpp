// The randomness suite over arbitrary bytes: both suites through a context
// and through the runners must agree, and single tests with parameters taken
// from the input must return a documented status. No crash, hang or leak.
#include "check.hpp"
#include "zeph_c_randtest.h"

namespace {

bool Documented(uint32_t status) {
  return status == 0 || status == ZEPH_RANDTEST_ERR_TOO_SHORT || status == ZEPH_RANDTEST_ERR_NULL_POINTER ||
         (status >= ZEPH_RANDTEST_FAIL_FREQUENCY && status <= ZEPH_RANDTEST_FAIL_UNIVERSAL);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 4) return 0;
  // Four bytes of parameters, the rest is the sequence.
  const uint32_t small = data[0] % 24, wide = static_cast<uint32_t>(data[1]) << 8 | data[2];
  const uint8_t *bits = data + 4;
  const uint64_t len = size - 4;
  ZEPH_RANDTEST_CTX *ctx = ZEPH_C_RandTest_New();
  if (ctx == nullptr) return 0;
  for (uint32_t suite : {0u, 1u}) {
    const uint32_t run = ZEPH_C_RandTest_Run(ctx, suite, bits, len);
    fuzz::Check(run == (suite == 0 ? QuickRandomnessTest(bits, len) : CompleteRandomnessTest(bits, len)) &&
                Documented(run));
  }
  ZEPH_C_RandTest_Free(ctx);
  for (uint32_t status :
       {BlockFrequencyTest(bits, len, wide), PokerTest(bits, len, small), SerialTest(bits, len, small),
        ApproximateEntropyTest(bits, len, small), BinaryDerivativeTest(bits, len, wide),
        AutoCorrelationTest(bits, len, wide), LinearComplexityTest(bits, len), RunsDistributionTest(bits, len),
        LongestRunOfOnesRunsTest(bits, len), DiscreteFourierTransformTest(bits, len)}) {
    fuzz::Check(Documented(status) && BIVO_epsilon == nullptr);
  }
  // The tests proper over an arbitrary bit count, not a multiple of 8.
  if (len > 0 && ReadBitsFromInput(bits, len) == 0) {
    const uint64_t n = len * 8 > wide ? len * 8 - wide % 8 : len * 8;
    fuzz::Check(Documented(LinearComplexity(wide % 600, n)) && Documented(DiscreteFourierTransform(n)) &&
                Documented(CumulativeSums(n)) && Documented(Universal(n)));
    FrequencyTest(bits, 1);  // frees the array
  }
  return 0;
}
