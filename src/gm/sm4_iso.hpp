// The SM4 S-box through the AES and GFNI instructions, derived at compile time.
//
// SM4's S-box is S(x) = A·inv(A·x + c) + c, inv taken modulo
// x^8+x^7+x^6+x^5+x^4+x^2+1. A field isomorphism onto the AES field (modulo
// x^8+x^4+x^3+x+1) turns it into the AES S-box between two byte-wise affine
// maps, which AESENCLAST or GF2P8AFFINE(INV)QB then compute without a table
// lookup. Every constant below is computed from those definitions and checked
// against the SM4 table for all 256 inputs, so a wrong matrix fails the build.
#pragma once

#include <cstdint>

#include "gm/sm4_internal.hpp"

namespace zeph::gm::sm4iso {

// A GF(2)-linear map on bytes, given by the images of the eight bits.
struct ByteMap {
  uint8_t col[8];
};

constexpr uint8_t Apply(const ByteMap &m, unsigned x) {
  uint8_t y = 0;
  for (int j = 0; j < 8; ++j) {
    if ((x >> j) & 1) y ^= m.col[j];
  }
  return y;
}

constexpr ByteMap Compose(const ByteMap &outer, const ByteMap &inner) {
  ByteMap m{};
  for (int j = 0; j < 8; ++j) m.col[j] = Apply(outer, inner.col[j]);
  return m;
}

template <class F>
constexpr ByteMap LinearOf(F f) {
  ByteMap m{};
  for (int j = 0; j < 8; ++j) m.col[j] = f(static_cast<uint8_t>(1u << j));
  return m;
}

constexpr ByteMap Invert(const ByteMap &m) {
  ByteMap inv{};
  for (unsigned x = 0; x < 256; ++x) {
    for (int j = 0; j < 8; ++j) {
      if (Apply(m, x) == (1u << j)) inv.col[j] = static_cast<uint8_t>(x);
    }
  }
  return inv;
}

constexpr uint8_t GfMul(uint8_t a, uint8_t b, unsigned poly) {
  unsigned r = 0, x = a;
  for (; b != 0; b >>= 1) {
    if (b & 1) r ^= x;
    x <<= 1;
    if (x & 0x100) x ^= poly;
  }
  return static_cast<uint8_t>(r);
}

constexpr unsigned kAesPoly = 0x11B;

constexpr uint8_t AesInverse(uint8_t x) {  // x^254; 0 maps to 0
  uint8_t r = 1, p = x;
  for (unsigned e = 254; e != 0; e >>= 1) {
    if (e & 1) r = GfMul(r, p, kAesPoly);
    p = GfMul(p, p, kAesPoly);
  }
  return r;
}

constexpr uint8_t Rotl8(uint8_t x, int n) { return static_cast<uint8_t>((x << n) | (x >> (8 - n))); }
constexpr uint8_t AesAffineLinear(uint8_t x) { return x ^ Rotl8(x, 1) ^ Rotl8(x, 2) ^ Rotl8(x, 3) ^ Rotl8(x, 4); }
constexpr uint8_t AesSbox(uint8_t x) { return AesAffineLinear(AesInverse(x)) ^ 0x63; }
static_assert(AesSbox(0x00) == 0x63 && AesSbox(0x53) == 0xED && AesSbox(0xFF) == 0x16);

// SM4's affine map: output bit i is the parity of x masked with row i.
constexpr uint8_t kSm4Rows[8] = {0xA7, 0x4F, 0x9E, 0x3D, 0x7A, 0xF4, 0xE9, 0xD3};
constexpr uint8_t kSm4C = 0xD3;

constexpr ByteMap FromRows(const uint8_t (&rows)[8]) {
  ByteMap m{};
  for (int j = 0; j < 8; ++j) {
    for (int i = 0; i < 8; ++i) m.col[j] |= static_cast<uint8_t>(((rows[i] >> j) & 1) << i);
  }
  return m;
}
constexpr ByteMap kSm4A = FromRows(kSm4Rows);

// The isomorphism sends x to a root of SM4's field polynomial in the AES field.
constexpr uint8_t FindRoot() {
  for (unsigned b = 2; b < 256; ++b) {
    uint8_t pw[9] = {1};
    for (int e = 1; e <= 8; ++e) pw[e] = GfMul(pw[e - 1], static_cast<uint8_t>(b), kAesPoly);
    if ((pw[8] ^ pw[7] ^ pw[6] ^ pw[5] ^ pw[4] ^ pw[2] ^ pw[0]) == 0) return static_cast<uint8_t>(b);
  }
  return 0;
}
constexpr ByteMap MakeToAes() {
  ByteMap m{};
  uint8_t p = 1;
  for (int j = 0; j < 8; ++j, p = GfMul(p, FindRoot(), kAesPoly)) m.col[j] = p;
  return m;
}
constexpr ByteMap kToAes = MakeToAes();
constexpr ByteMap kFromAes = Invert(kToAes);

// Before the AES S-box: Pre(x) = kPre·x + kPreC. After it: S(x) = kPost·z + kPostC.
constexpr ByteMap kPre = Compose(kToAes, kSm4A);
constexpr uint8_t kPreC = Apply(kToAes, kSm4C);
constexpr ByteMap kPost = Compose(kSm4A, Compose(kFromAes, Invert(LinearOf(AesAffineLinear))));
constexpr uint8_t kPostC = Apply(kPost, 0x63) ^ kSm4C;

constexpr bool AesFormMatchesTable() {
  for (unsigned x = 0; x < 256; ++x) {
    if ((Apply(kPost, AesSbox(Apply(kPre, x) ^ kPreC)) ^ kPostC) != SM4_S[x]) return false;
  }
  return true;
}
static_assert(AesFormMatchesTable(), "SM4 S-box through the AES S-box");

// GF2P8AFFINEQB matrix operand: the row for output bit i sits in byte 7 - i.
constexpr uint64_t GfMatrix(const ByteMap &m) {
  uint64_t q = 0;
  for (int i = 0; i < 8; ++i) {
    uint64_t row = 0;
    for (int j = 0; j < 8; ++j) row |= static_cast<uint64_t>((m.col[j] >> i) & 1) << j;
    q |= row << (8 * (7 - i));
  }
  return q;
}
constexpr uint8_t GfAffine(uint8_t x, uint64_t matrix, uint8_t c) {  // the instruction, byte by byte
  uint8_t y = 0;
  for (int i = 0; i < 8; ++i) {
    const auto row = static_cast<uint8_t>(matrix >> (8 * (7 - i)));
    y |= static_cast<uint8_t>((__builtin_popcount(row & x) & 1) << i);
  }
  return y ^ c;
}

// S(x) = GF2P8AFFINEINVQB(GF2P8AFFINEQB(x, kGfPre, kPreC), kGfPost, kSm4C).
constexpr uint64_t kGfPre = GfMatrix(kPre);
constexpr uint64_t kGfPost = GfMatrix(Compose(kSm4A, kFromAes));

constexpr bool GfniFormMatchesTable() {
  for (unsigned x = 0; x < 256; ++x) {
    if (GfAffine(AesInverse(GfAffine(static_cast<uint8_t>(x), kGfPre, kPreC)), kGfPost, kSm4C) != SM4_S[x]) {
      return false;
    }
  }
  return true;
}
static_assert(GfniFormMatchesTable(), "SM4 S-box through GFNI");

// ---- The AES-instruction round, in the mapped domain ----------------------
//
// The multi-block AES paths keep each state word as M(X), M = kPre's linear
// part applied to every byte. The S-box input M(X1 ^ X2 ^ X3 ^ rk) + kPreC is
// then a plain XOR of state words and a prepared round key, so no map runs
// before AESENCLAST. After it, one set of nibble lookups yields M(L(S(x)))
// directly: with u(b) = b, v(b) = b << 2, w(b) = b >> 6 on each byte and R_k
// the rotation of a word by 8k bits,
//   L(y) = (u^v)(y) ^ R_1 (v^w)(y) ^ R_2 (v^w)(y) ^ R_3 (u^w)(y),
// and M commutes with the byte rotations. Words stay in memory byte order
// (big-endian), so R_k takes byte j + k of each word.

struct Nibbles {  // f(x) = lo[x & 15] ^ hi[x >> 4]
  uint8_t lo[16], hi[16];
};

constexpr Nibbles NibblesOf(const ByteMap &m, uint8_t c) {
  Nibbles t{};
  for (unsigned n = 0; n < 16; ++n) {
    t.lo[n] = Apply(m, n) ^ c;
    t.hi[n] = Apply(m, n << 4);
  }
  return t;
}

constexpr uint8_t ByteU(uint8_t b) { return b; }
constexpr uint8_t ByteV(uint8_t b) { return static_cast<uint8_t>(b << 2); }
constexpr uint8_t ByteW(uint8_t b) { return static_cast<uint8_t>(b >> 6); }

// z -> M(h(S-box output)) for one of the byte maps h above.
template <class H>
constexpr Nibbles RoundTerm(H h) {
  const ByteMap mh = Compose(kPre, LinearOf(h));
  return NibblesOf(Compose(mh, kPost), Apply(mh, kPostC));
}

constexpr Nibbles kTermUV = RoundTerm([](uint8_t b) -> uint8_t { return ByteU(b) ^ ByteV(b); });
constexpr Nibbles kTermVW = RoundTerm([](uint8_t b) -> uint8_t { return ByteV(b) ^ ByteW(b); });
constexpr Nibbles kTermUW = RoundTerm([](uint8_t b) -> uint8_t { return ByteU(b) ^ ByteW(b); });
constexpr Nibbles kEnter = NibblesOf(kPre, 0);          // X -> M(X)
constexpr Nibbles kLeave = NibblesOf(Invert(kPre), 0);  // M(X) -> X
constexpr Nibbles kPreNibbles = NibblesOf(kPre, kPreC);
constexpr Nibbles kPostNibbles = NibblesOf(kPost, kPostC);

// PSHUFB masks: R_k after undoing AESENCLAST's ShiftRows (which moves byte
// 4c + r to 4((c - r) mod 4) + r).
struct Shuffle16 {
  uint8_t idx[16];
};
constexpr Shuffle16 RotateAfterShiftRows(int k) {
  Shuffle16 s{};
  for (int q = 0; q < 16; ++q) {
    const int src = (q & ~3) | ((q + k) & 3);  // R_k: byte j + k of the same word
    const int col = src >> 2, row = src & 3;
    s.idx[q] = static_cast<uint8_t>(4 * ((col - row) & 3) + row);
  }
  return s;
}
constexpr Shuffle16 kRot0 = RotateAfterShiftRows(0), kRot1 = RotateAfterShiftRows(1), kRot2 = RotateAfterShiftRows(2),
                    kRot3 = RotateAfterShiftRows(3);
// Plain byte rotations, for a state whose four columns are equal (ShiftRows
// leaves it as it is).
constexpr Shuffle16 RotateWords(int k) {
  Shuffle16 s{};
  for (int q = 0; q < 16; ++q) s.idx[q] = static_cast<uint8_t>((q & ~3) | ((q + k) & 3));
  return s;
}
constexpr Shuffle16 kWordRot1 = RotateWords(1), kWordRot2 = RotateWords(2), kWordRot3 = RotateWords(3);
constexpr Shuffle16 kByteSwap32 = {{3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12}};

// M(word) byte by byte without a table: each bit plane of the four bytes
// times the image of that bit (products of 0/1 bytes do not carry).
constexpr uint32_t MapWord(const ByteMap &m, uint32_t w) {
  uint32_t y = 0;
  for (int j = 0; j < 8; ++j) y ^= ((w >> j) & 0x01010101u) * m.col[j];
  return y;
}
// A round key as the mapped-domain rounds consume it: M(rk) + kPreC per byte.
constexpr uint32_t MappedRoundKey(uint32_t rk) { return MapWord(kPre, rk) ^ (0x01010101u * kPreC); }

}  // namespace zeph::gm::sm4iso
