// Constant time on the vector paths: under valgrind's memcheck (the ctest
// gm.Sm4ConstantTimeUnderValgrind runs this test there), with the key and the
// data marked undefined, no vector engine may branch on them or use them to
// form an address. The portable engine, whose tables are indexed by key and
// data, must be caught the same way, which shows the check can see.
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "gm/sm4_engine.hpp"
#include "gm_test_util.hpp"

#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define GM_HAVE_MEMCHECK 1
#else
#define GM_HAVE_MEMCHECK 0
#endif

using namespace gm_test;
using namespace zeph::gm;

namespace {

#if GM_HAVE_MEMCHECK
// Memcheck errors raised while every mode runs on one engine with secrets it
// cannot see.
unsigned ErrorsWithSecretInputs(const Sm4Engine &engine) {
  Bytes key = RandomBytes(16, 1), iv = RandomBytes(16, 2), data = RandomBytes(16 * 37, 3), out(data.size());
  VALGRIND_MAKE_MEM_UNDEFINED(key.data(), key.size());
  VALGRIND_MAKE_MEM_UNDEFINED(data.data(), data.size());
  const unsigned before = VALGRIND_COUNT_ERRORS;
  {
    const Sm4Key enc(key.data(), true, engine), dec(key.data(), false, engine);
    enc.Ecb(data.data(), out.data(), 37);
    dec.Ecb(data.data(), out.data(), 37);
    enc.CbcEncrypt(iv.data(), data.data(), out.data(), 37);
    dec.CbcDecrypt(iv.data(), data.data(), out.data(), 37);
  }
  const unsigned errors = VALGRIND_COUNT_ERRORS - before;
  VALGRIND_MAKE_MEM_DEFINED(out.data(), out.size());
  return errors;
}
#endif

}  // namespace

TEST(Sm4ConstantTime, SecretsReachNoBranchOrAddress) {
#if GM_HAVE_MEMCHECK
  if (RUNNING_ON_VALGRIND == 0) GTEST_SKIP() << "runs under valgrind: ctest gm.Sm4ConstantTimeUnderValgrind";
  EXPECT_GT(ErrorsWithSecretInputs(kSm4Portable), 0u) << "memcheck did not see the portable engine's table lookups";
  std::string checked;
  const CpuFeatures cpu = DetectCpuFeatures();  // as valgrind's virtual CPU reports them
  for (CpuPath path : {CpuPath::kAesni, CpuPath::kAvx2, CpuPath::kAvx512}) {
    if (ChooseCpuPath(cpu, CpuPathName(path)) != path) continue;
    const Sm4Engine &engine = *DispatchFor(path, cpu).sm4;
    EXPECT_EQ(ErrorsWithSecretInputs(engine), 0u) << engine.name;
    checked += std::string(" ") + engine.name;
  }
  ASSERT_FALSE(checked.empty()) << "valgrind's CPU runs no vector path";
  std::printf("vector engines checked:%s\n", checked.c_str());
#else
  GTEST_SKIP() << "built without valgrind's client requests";
#endif
}
