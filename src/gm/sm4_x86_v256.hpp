// The 256-bit vector type of the AVX2 SM4 units (see sm4_lanes.hpp), two
// blocks per register; each unit adds its S-box. Included last, inside the
// unit's target region.
#pragma once

#include <immintrin.h>

#include "gm/sm4_iso.hpp"

namespace zeph::gm {
namespace {

struct V256 {
  using R = __m256i;
  static constexpr size_t kBlocks = 2;

  static R Load(const uint8_t *p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)); }
  static void Store(uint8_t *p, R r) { _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), r); }
  static R Splat16(const uint8_t (&b)[16]) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(b)));
  }
  static R Splat32(uint32_t w) { return _mm256_set1_epi32(static_cast<int>(w)); }
  static uint32_t Low32(R r) { return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm256_castsi256_si128(r))); }
  static R Opaque(R a) {
    __asm__("" : "+x"(a));
    return a;
  }
  static R Xor(R a, R b) { return _mm256_xor_si256(a, b); }
  static R And(R a, R b) { return _mm256_and_si256(a, b); }
  static R Shr4(R a) { return _mm256_srli_epi16(a, 4); }
  static R Shuffle(R table, R idx) { return _mm256_shuffle_epi8(table, idx); }
  static void Transpose(R &a, R &b, R &c, R &d) {
    const R t0 = _mm256_unpacklo_epi32(a, b), t1 = _mm256_unpackhi_epi32(a, b);
    const R t2 = _mm256_unpacklo_epi32(c, d), t3 = _mm256_unpackhi_epi32(c, d);
    a = _mm256_unpacklo_epi64(t0, t2);
    b = _mm256_unpackhi_epi64(t0, t2);
    c = _mm256_unpacklo_epi64(t1, t3);
    d = _mm256_unpackhi_epi64(t1, t3);
  }
  // Whole-byte rotations are one shuffle (lanes are little-endian words: byte
  // j takes byte j - N/8).
  template <int N>
  static R Rotl(R a) {
    if constexpr (N % 8 == 0) {
      return Shuffle(a, Splat16(sm4iso::RotateWords(4 - N / 8).idx));
    } else {
      return _mm256_or_si256(_mm256_slli_epi32(a, N), _mm256_srli_epi32(a, 32 - N));
    }
  }
};

}  // namespace
}  // namespace zeph::gm
