// SM4 16 blocks at a time: AVX-512, the S-box through GFNI.
#include "gm/cpu_path.hpp"

#if ZEPH_GM_X86
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12's AVX-512 intrinsics start from a self-initialised "undefined"
// register, which its own uninitialised-use warnings then report.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include "gm/sm4_engine.hpp"

ZEPH_TARGET_BEGIN("avx512f,avx512bw,avx512vl,gfni")
#include "gm/sm4_lanes.hpp"

namespace zeph::gm {
namespace {

struct V512 {
  using R = __m512i;
  static constexpr size_t kBlocks = 4;

  static R Load(const uint8_t *p) { return _mm512_loadu_si512(p); }
  static void Store(uint8_t *p, R r) { _mm512_storeu_si512(p, r); }
  static R Splat16(const uint8_t (&b)[16]) {
    return _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i *>(b)));
  }
  static R Splat32(uint32_t w) { return _mm512_set1_epi32(static_cast<int>(w)); }
  static uint32_t Low32(R r) { return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm512_castsi512_si128(r))); }
  static R Opaque(R a) {
    __asm__("" : "+v"(a));
    return a;
  }
  static R Xor(R a, R b) { return _mm512_xor_si512(a, b); }
  static R And(R a, R b) { return _mm512_and_si512(a, b); }
  static R Shr4(R a) { return _mm512_srli_epi32(a, 4); }
  static R Shuffle(R table, R idx) { return _mm512_shuffle_epi8(table, idx); }
  static void Transpose(R &a, R &b, R &c, R &d) {
    const R t0 = _mm512_unpacklo_epi32(a, b), t1 = _mm512_unpackhi_epi32(a, b);
    const R t2 = _mm512_unpacklo_epi32(c, d), t3 = _mm512_unpackhi_epi32(c, d);
    a = _mm512_unpacklo_epi64(t0, t2);
    b = _mm512_unpackhi_epi64(t0, t2);
    c = _mm512_unpacklo_epi64(t1, t3);
    d = _mm512_unpackhi_epi64(t1, t3);
  }
  template <int N>
  static R Rotl(R a) {
    return _mm512_rol_epi32(a, N);
  }
  static R Sbox(R a) {
    const R pre = _mm512_set1_epi64(static_cast<long long>(sm4iso::kGfPre));
    const R post = _mm512_set1_epi64(static_cast<long long>(sm4iso::kGfPost));
    return _mm512_gf2p8affineinv_epi64_epi8(_mm512_gf2p8affine_epi64_epi8(a, pre, sm4iso::kPreC), post, sm4iso::kSm4C);
  }
};

}  // namespace

const Sm4Engine kSm4Avx512Gfni = MakeSm4Engine<V512, GfniRound<V512>, 4>("avx512+gfni");

}  // namespace zeph::gm
ZEPH_TARGET_END
#endif
