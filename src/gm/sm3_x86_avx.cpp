// SM3 compression with the message schedule in vector registers: AVX (VEX-encoded SSE), rotations as two shifts and an
// OR; the rounds with BMI2.
#include "gm/cpu_path.hpp"

#if ZEPH_GM_X86
#include <immintrin.h>

#include "gm/gm_internal.hpp"

ZEPH_TARGET_BEGIN("avx,bmi,bmi2")
#include "gm/sm3_rounds.hpp"
#include "gm/sm3_x86_schedule.hpp"

namespace zeph::gm {
namespace {

struct Rot {
  template <int N>
  static __m128i Rotl(__m128i x) {
    return _mm_or_si128(_mm_slli_epi32(x, N), _mm_srli_epi32(x, 32 - N));
  }
};

}  // namespace

void Sm3CompressAvx(uint32_t state[8], const uint8_t *blocks, size_t n) {
  CompressWithVectorSchedule<Rot>(state, blocks, n);
}

}  // namespace zeph::gm
ZEPH_TARGET_END
#endif
