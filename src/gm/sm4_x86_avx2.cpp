// SM4 8 blocks at a time: AVX2, the S-box through AES-NI on each 128-bit half.
#include "gm/cpu_path.hpp"

#if ZEPH_GM_X86
#include <immintrin.h>

#include "gm/sm4_engine.hpp"

ZEPH_TARGET_BEGIN("avx2,aes")
#include "gm/sm4_lanes.hpp"
#include "gm/sm4_x86_v256.hpp"

namespace zeph::gm {
namespace {

struct V : V256 {
  static R SubBytes(R a) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_aesenclast_si128(_mm256_castsi256_si128(a), zero);
    const __m128i hi = _mm_aesenclast_si128(_mm256_extracti128_si256(a, 1), zero);
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
  }
};

}  // namespace

const Sm4Engine kSm4Avx2 = MakeSm4Engine<V, AesRound<V>, 6>("avx2");

}  // namespace zeph::gm
ZEPH_TARGET_END
#endif
