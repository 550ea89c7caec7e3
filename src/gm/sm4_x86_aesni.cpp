// SM4 four blocks at a time: 128-bit registers, the S-box through AES-NI.
#include "gm/cpu_path.hpp"

#if ZEPH_GM_X86
#include <immintrin.h>

#include "gm/sm4_engine.hpp"

ZEPH_TARGET_BEGIN("ssse3,aes")
#include "gm/sm4_lanes.hpp"

namespace zeph::gm {
namespace {

struct V128 {
  using R = __m128i;
  static constexpr size_t kBlocks = 1;

  static R Load(const uint8_t *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); }
  static void Store(uint8_t *p, R r) { _mm_storeu_si128(reinterpret_cast<__m128i *>(p), r); }
  static R Splat16(const uint8_t (&b)[16]) { return Load(b); }
  static R Splat32(uint32_t w) { return _mm_set1_epi32(static_cast<int>(w)); }
  static uint32_t Low32(R r) { return static_cast<uint32_t>(_mm_cvtsi128_si32(r)); }
  static R Opaque(R a) {
    __asm__("" : "+x"(a));
    return a;
  }
  static R Xor(R a, R b) { return _mm_xor_si128(a, b); }
  static R And(R a, R b) { return _mm_and_si128(a, b); }
  static R Shr4(R a) { return _mm_srli_epi16(a, 4); }
  static R Shuffle(R table, R idx) { return _mm_shuffle_epi8(table, idx); }
  static R SubBytes(R a) { return _mm_aesenclast_si128(a, _mm_setzero_si128()); }
  static void Transpose(R &a, R &b, R &c, R &d) {
    const R t0 = _mm_unpacklo_epi32(a, b), t1 = _mm_unpackhi_epi32(a, b);
    const R t2 = _mm_unpacklo_epi32(c, d), t3 = _mm_unpackhi_epi32(c, d);
    a = _mm_unpacklo_epi64(t0, t2);
    b = _mm_unpackhi_epi64(t0, t2);
    c = _mm_unpacklo_epi64(t1, t3);
    d = _mm_unpackhi_epi64(t1, t3);
  }
};

}  // namespace

const Sm4Engine kSm4Aesni = MakeSm4Engine<V128, AesRound<V128>, 6>("aesni");

}  // namespace zeph::gm
ZEPH_TARGET_END
#endif
