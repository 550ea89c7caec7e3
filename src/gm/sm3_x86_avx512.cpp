// SM3 compression with the message schedule in vector registers: AVX-512VL, rotations in one instruction;
// the rounds with BMI2.
#include "gm/cpu_path.hpp"

#if ZEPH_GM_X86
#include <immintrin.h>

#include "gm/gm_internal.hpp"

ZEPH_TARGET_BEGIN("avx512f,avx512vl,bmi,bmi2")
#include "gm/sm3_rounds.hpp"
#include "gm/sm3_x86_schedule.hpp"

namespace zeph::gm {
namespace {

struct Rot {
  template <int N>
  static __m128i Rotl(__m128i x) {
    return _mm_rol_epi32(x, N);
  }
};

}  // namespace

void Sm3CompressAvx512(uint32_t state[8], const uint8_t *blocks, size_t n) {
  CompressWithVectorSchedule<Rot>(state, blocks, n);
}

}  // namespace zeph::gm
ZEPH_TARGET_END
#endif
