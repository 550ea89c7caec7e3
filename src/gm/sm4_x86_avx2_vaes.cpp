// SM4 8 blocks at a time: AVX2, the S-box through VAES.
#include "gm/cpu_path.hpp"

#if ZEPH_GM_X86
#include <immintrin.h>

#include "gm/sm4_engine.hpp"

ZEPH_TARGET_BEGIN("avx2,aes,vaes")
#include "gm/sm4_lanes.hpp"
#include "gm/sm4_x86_v256.hpp"

namespace zeph::gm {
namespace {

struct V : V256 {
  static R SubBytes(R a) { return _mm256_aesenclast_epi128(a, _mm256_setzero_si256()); }
};

}  // namespace

const Sm4Engine kSm4Avx2Vaes = MakeSm4Engine<V, AesRound<V>, 6>("avx2+vaes");

}  // namespace zeph::gm
ZEPH_TARGET_END
#endif
