// The SM3 message schedule in vector registers, for the AVX and AVX-512 builds
// of the compression loop. Included last, inside the unit's target region;
// the anonymous namespace keeps each unit's copy to itself.
//
// Four words of W at a time from the previous sixteen (x0 holds W(j-16..j-13),
// x3 up to W(j-1)):
//   W(j) = P1(W(j-16) ^ W(j-9) ^ (W(j-3) <<< 15)) ^ (W(j-13) <<< 7) ^ W(j-6).
// W(j+3) needs W(j), so that lane is first computed with 0 in its place and
// then corrected by P1(W(j) <<< 15): P1 is linear. Each group of four rounds
// expands the words needed three groups later, so the rounds read W and
// W'(j) = W(j) ^ W(j+4) from memory long after they were stored, and the
// expansion overlaps the rounds instead of delaying them.
#pragma once

#include <cstdint>

#include <immintrin.h>

namespace zeph::gm {
namespace {

// Rot: a type with `template <int N> static __m128i Rotl(__m128i x)`, a
// rotation of 32-bit lanes.
template <class Rot>
struct VectorSchedule {
  alignas(16) uint32_t w[68];
  alignas(16) uint32_t wp[64];
  __m128i x0, x1, x2, x3;

  static __m128i P1(__m128i x) {
    return _mm_xor_si128(_mm_xor_si128(x, Rot::template Rotl<15>(x)), Rot::template Rotl<23>(x));
  }
  void Store(uint32_t *to, __m128i x) { _mm_store_si128(reinterpret_cast<__m128i *>(to), x); }

  explicit VectorSchedule(const uint8_t *p) {
    const __m128i bswap = _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
    const auto *in = reinterpret_cast<const __m128i *>(p);
    x0 = _mm_shuffle_epi8(_mm_loadu_si128(in), bswap);
    x1 = _mm_shuffle_epi8(_mm_loadu_si128(in + 1), bswap);
    x2 = _mm_shuffle_epi8(_mm_loadu_si128(in + 2), bswap);
    x3 = _mm_shuffle_epi8(_mm_loadu_si128(in + 3), bswap);
    Store(w, x0);
    Store(w + 4, x1);
    Store(w + 8, x2);
    Store(w + 12, x3);
    Store(wp, _mm_xor_si128(x0, x1));
    Store(wp + 4, _mm_xor_si128(x1, x2));
    Store(wp + 8, _mm_xor_si128(x2, x3));
    Publish();
  }

  // The rounds read W from memory: without this the compiler takes each word
  // back out of the vector registers instead, two micro-ops apiece.
  void Publish() { __asm__("" : : "r"(w) : "memory"); }

  uint32_t W(int j) const { return w[j]; }
  uint32_t Wp(int j, uint32_t) const { return wp[j]; }
  void Expand(int) {}

  // At round j: W(j+16..j+19) and W'(j+12..j+15).
  void Quad(int j) {
    if (j > 48) return;
    const __m128i w9 = _mm_alignr_epi8(x2, x1, 12), w3 = _mm_srli_si128(x3, 4);
    const __m128i w13 = _mm_alignr_epi8(x1, x0, 12), w6 = _mm_alignr_epi8(x3, x2, 8);
    __m128i n = _mm_xor_si128(_mm_xor_si128(x0, w9), Rot::template Rotl<15>(w3));
    n = _mm_xor_si128(_mm_xor_si128(P1(n), Rot::template Rotl<7>(w13)), w6);
    n = _mm_xor_si128(n, P1(Rot::template Rotl<15>(_mm_slli_si128(n, 12))));
    Store(w + j + 16, n);
    Store(wp + j + 12, _mm_xor_si128(x3, n));
    Publish();
    x0 = x1;
    x1 = x2;
    x2 = x3;
    x3 = n;
  }
};

template <class Rot>
void CompressWithVectorSchedule(uint32_t state[8], const uint8_t *blocks, size_t n) {
  for (; n != 0; --n, blocks += 64) {
    VectorSchedule<Rot> w(blocks);
    CompressBlock(state, w);
  }
}

}  // namespace
}  // namespace zeph::gm
