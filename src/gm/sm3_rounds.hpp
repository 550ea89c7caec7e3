// The SM3 compression rounds (GM/T 0004), shared by every build of the
// compression loop; each build supplies the message schedule. The vector
// builds include this inside their target region (after every other header):
// the anonymous namespace keeps each unit's copy to itself.
#pragma once

#include <cstdint>

#include "gm/gm_internal.hpp"

namespace zeph::gm {
namespace {

// Round constants T(j) <<< (j mod 32).
constexpr uint32_t MakeK(int j) { return rotl(j < 16 ? 0x79CC4519u : 0x7A879D8Au, static_cast<unsigned>(j % 32)); }

// clang-format off
constexpr uint32_t kK[64] = {
    MakeK(0),  MakeK(1),  MakeK(2),  MakeK(3),  MakeK(4),  MakeK(5),  MakeK(6),  MakeK(7),
    MakeK(8),  MakeK(9),  MakeK(10), MakeK(11), MakeK(12), MakeK(13), MakeK(14), MakeK(15),
    MakeK(16), MakeK(17), MakeK(18), MakeK(19), MakeK(20), MakeK(21), MakeK(22), MakeK(23),
    MakeK(24), MakeK(25), MakeK(26), MakeK(27), MakeK(28), MakeK(29), MakeK(30), MakeK(31),
    MakeK(32), MakeK(33), MakeK(34), MakeK(35), MakeK(36), MakeK(37), MakeK(38), MakeK(39),
    MakeK(40), MakeK(41), MakeK(42), MakeK(43), MakeK(44), MakeK(45), MakeK(46), MakeK(47),
    MakeK(48), MakeK(49), MakeK(50), MakeK(51), MakeK(52), MakeK(53), MakeK(54), MakeK(55),
    MakeK(56), MakeK(57), MakeK(58), MakeK(59), MakeK(60), MakeK(61), MakeK(62), MakeK(63),
};
// clang-format on

inline uint32_t P0(uint32_t x) { return x ^ rotl(x, 9) ^ rotl(x, 17); }
inline uint32_t P1(uint32_t x) { return x ^ rotl(x, 15) ^ rotl(x, 23); }
inline uint32_t FF0(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
inline uint32_t FF1(uint32_t x, uint32_t y, uint32_t z) { return ((x ^ y) & (y ^ z)) ^ y; }  // majority
inline uint32_t GG0(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
inline uint32_t GG1(uint32_t x, uint32_t y, uint32_t z) { return ((y ^ z) & x) ^ z; }

// A partial sum computed on its own: otherwise the compiler folds it with the
// late operand into one three-part LEA, which is slower on the critical path.
inline uint32_t Early(uint32_t x) {
  __asm__("" : "+r"(x));
  return x;
}

// One round on renamed registers: instead of shifting the eight words, the
// caller rotates the names (A'..D' = D, A, B, C and E'..H' = H, E, F, G).
// W(j) and W'(j) = W(j) ^ W(j + 4) come from the schedule w, which may expand
// W(j + 4) in the round that first needs it (Expand) or four words at a time
// ahead of the rounds (Quad, at the start of every four rounds).
//
// The sums are grouped so that the words of the previous round (A and E)
// enter as late as possible: the round is bound by that dependency chain.
#define SM3_ROUND(A, B, C, D, E, F, G, H, j, FF, GG)                   \
  do {                                                                 \
    const uint32_t a12 = rotl(A, 12);                                  \
    const uint32_t ss1 = rotl(Early(a12 + kK[j]) + E, 7);              \
    const uint32_t ss2 = ss1 ^ a12;                                    \
    const uint32_t wj = w.W(j);                                        \
    const uint32_t tt1 = Early(FF(A, B, C) + (D + w.Wp(j, wj))) + ss2; \
    const uint32_t tt2 = Early(GG(E, F, G) + (H + wj)) + ss1;          \
    B = rotl(B, 9);                                                    \
    F = rotl(F, 19);                                                   \
    D = tt1;                                                           \
    H = P0(tt2);                                                       \
  } while (0)

#define SM3_R0(A, B, C, D, E, F, G, H, j) SM3_ROUND(A, B, C, D, E, F, G, H, j, FF0, GG0)
#define SM3_R1(A, B, C, D, E, F, G, H, j) \
  w.Expand((j) + 4);                      \
  SM3_ROUND(A, B, C, D, E, F, G, H, j, FF1, GG1)
#define SM3_R0X(A, B, C, D, E, F, G, H, j) \
  w.Expand((j) + 4);                       \
  SM3_ROUND(A, B, C, D, E, F, G, H, j, FF0, GG0)

// Four rounds bring the names back to their starting order.
#define SM3_QUAD(R, j)                \
  w.Quad(j);                          \
  R(A, B, C, D, E, F, G, H, (j));     \
  R(D, A, B, C, H, E, F, G, (j) + 1); \
  R(C, D, A, B, G, H, E, F, (j) + 2); \
  R(B, C, D, A, F, G, H, E, (j) + 3)

// One block into the chaining value s; the schedule w already holds W(0..15).
template <class Schedule>
[[gnu::always_inline]] inline void CompressBlock(uint32_t s[8], Schedule &w) {
  uint32_t A = s[0], B = s[1], C = s[2], D = s[3], E = s[4], F = s[5], G = s[6], H = s[7];

  SM3_QUAD(SM3_R0, 0);
  SM3_QUAD(SM3_R0, 4);
  SM3_QUAD(SM3_R0, 8);
  SM3_QUAD(SM3_R0X, 12);
  SM3_QUAD(SM3_R1, 16);
  SM3_QUAD(SM3_R1, 20);
  SM3_QUAD(SM3_R1, 24);
  SM3_QUAD(SM3_R1, 28);
  SM3_QUAD(SM3_R1, 32);
  SM3_QUAD(SM3_R1, 36);
  SM3_QUAD(SM3_R1, 40);
  SM3_QUAD(SM3_R1, 44);
  SM3_QUAD(SM3_R1, 48);
  SM3_QUAD(SM3_R1, 52);
  SM3_QUAD(SM3_R1, 56);
  SM3_QUAD(SM3_R1, 60);

  s[0] ^= A;
  s[1] ^= B;
  s[2] ^= C;
  s[3] ^= D;
  s[4] ^= E;
  s[5] ^= F;
  s[6] ^= G;
  s[7] ^= H;
}

#undef SM3_QUAD
#undef SM3_R0X
#undef SM3_R1
#undef SM3_R0
#undef SM3_ROUND

}  // namespace
}  // namespace zeph::gm
