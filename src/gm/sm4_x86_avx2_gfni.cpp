// SM4 8 blocks at a time: AVX2, the S-box through GFNI.
#include "gm/cpu_path.hpp"

#if ZEPH_GM_X86
#include <immintrin.h>

#include "gm/sm4_engine.hpp"

ZEPH_TARGET_BEGIN("avx2,gfni")
#include "gm/sm4_lanes.hpp"
#include "gm/sm4_x86_v256.hpp"

namespace zeph::gm {
namespace {

struct V : V256 {
  static R Sbox(R a) {
    const R pre = _mm256_set1_epi64x(static_cast<long long>(sm4iso::kGfPre));
    const R post = _mm256_set1_epi64x(static_cast<long long>(sm4iso::kGfPost));
    return _mm256_gf2p8affineinv_epi64_epi8(_mm256_gf2p8affine_epi64_epi8(a, pre, sm4iso::kPreC), post, sm4iso::kSm4C);
  }
};

}  // namespace

const Sm4Engine kSm4Avx2Gfni = MakeSm4Engine<V, GfniRound<V>, 4>("avx2+gfni");

}  // namespace zeph::gm
ZEPH_TARGET_END
#endif
