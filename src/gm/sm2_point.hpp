// Point formulas on the SM2 curve y² = x³ − 3x + b in Jacobian coordinates
// (x = X/Z², y = Y/Z³, Z = 0 at infinity), templated over a field build.
//
// The plain formulas do not look at their inputs: an input at infinity or a
// sum that is really a doubling gives a meaningless result, and the caller
// either proves it cannot happen or replaces the result by masks (constant
// time) or by a test (public values).
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "gm/sm2_field.hpp"

namespace zeph::gm::sm2::ec {

using fp::Fe;

struct Jac {
  Fe x, y, z;
};

struct Aff {
  Fe x, y;
};

static_assert(sizeof(Jac) == 12 * sizeof(uint64_t) && sizeof(Aff) == 8 * sizeof(uint64_t));

// r = mask ? a : b, field by field.
inline void Select(Jac &r, uint64_t mask, const Jac &a, const Jac &b) {
  fp::Select(r.x, mask, a.x, b.x);
  fp::Select(r.y, mask, a.y, b.y);
  fp::Select(r.z, mask, a.z, b.z);
}

inline uint64_t AtInfinityMask(const Jac &a) { return fp::IsZeroMask(a.z); }

// Masks a sum formula reports about its operands: H = 0 means equal x
// coordinates, R = 0 then equal y as well (a doubling).
struct SumFlags {
  uint64_t h_zero, r_zero;
};

template <class F>
struct Curve {
  // r = 2a, a = −3 (4M + 4S, 10 linear operations). At infinity stays at
  // infinity. r may be a.
  //   Z3 = 2Y·Z, A = 3(X − Z²)(X + Z²), B = 4X·Y², X3 = A² − 2B,
  //   Y3 = A(B − X3) − 8Y⁴, with 4Y² = (2Y)² and 8Y⁴ = (4Y²)²/2.
  static void Dbl(Jac &r, const Jac &a) {
    Fe y2, y2sq, b, zz, t, u, alpha;
    F::Double(y2, a.y);
    F::Sqr(zz, a.z);
    F::Sqr(y2sq, y2);
    F::Mul(b, a.x, y2sq);
    F::Sub(t, a.x, zz);
    F::Add(u, a.x, zz);
    F::Mul(r.z, y2, a.z);
    F::Mul(alpha, t, u);
    F::Double(t, alpha);
    F::Add(alpha, alpha, t);
    F::Sqr(t, alpha);
    F::Double(u, b);
    F::Sub(r.x, t, u);
    F::Sub(t, b, r.x);
    F::Mul(t, alpha, t);
    F::Sqr(u, y2sq);
    F::Half(u, u);
    F::Sub(r.y, t, u);
  }

  // r = a + b (12M + 4S). r may be a or b.
  static SumFlags Add(Jac &r, const Jac &a, const Jac &b) {
    Fe z1z1, z2z2, u1, u2, s1, s2, h, rr, hh, hhh, v, t;
    F::Sqr(z1z1, a.z);
    F::Sqr(z2z2, b.z);
    F::Mul(u1, a.x, z2z2);
    F::Mul(u2, b.x, z1z1);
    F::Mul(s1, a.y, b.z);
    F::Mul(s1, s1, z2z2);
    F::Mul(s2, b.y, a.z);
    F::Mul(s2, s2, z1z1);
    F::Sub(h, u2, u1);
    F::Sub(rr, s2, s1);
    const SumFlags flags{fp::IsZeroMask(h), fp::IsZeroMask(rr)};
    F::Mul(t, a.z, b.z);
    F::Mul(r.z, t, h);
    F::Sqr(hh, h);
    F::Mul(hhh, h, hh);
    F::Mul(v, u1, hh);
    F::Sqr(t, rr);
    F::Sub(t, t, hhh);
    F::Sub(t, t, v);
    F::Sub(r.x, t, v);  // R² − H³ − 2V
    F::Sub(t, v, r.x);
    F::Mul(t, rr, t);
    F::Mul(s1, s1, hhh);
    F::Sub(r.y, t, s1);
    return flags;
  }

  // Co-Z addition: a and b share their Z. r = a + b, and a is rewritten to
  // share r's Z (5M + 2S), ready to be added again. a ≠ ±b; r is neither.
  static void AddCoZ(Jac &r, Jac &a, const Jac &b) {
    Fe h, hh, w1, w2, rr, t, e;
    F::Sub(h, a.x, b.x);
    F::Sqr(hh, h);
    F::Mul(w1, a.x, hh);  // a.x on the new Z
    F::Mul(w2, b.x, hh);
    F::Sub(rr, a.y, b.y);
    F::Sub(t, w1, w2);
    F::Mul(e, a.y, t);  // a.y on the new Z
    F::Mul(r.z, a.z, h);
    F::Sqr(t, rr);
    F::Sub(t, t, w1);
    F::Sub(r.x, t, w2);
    F::Sub(t, w1, r.x);
    F::Mul(t, rr, t);
    F::Sub(r.y, t, e);
    a = Jac{w1, e, r.z};
  }

  // The affine point a as a Jacobian point with the given Z (3M + 1S).
  static void WithZ(Jac &r, const Aff &a, const Fe &z) {
    Fe zz, zzz;
    F::Sqr(zz, z);
    F::Mul(zzz, zz, z);
    F::Mul(r.x, a.x, zz);
    F::Mul(r.y, a.y, zzz);
    r.z = z;
  }

  // r = a + b with b affine (8M + 3S). r may be a.
  static SumFlags Add(Jac &r, const Jac &a, const Aff &b) {
    Fe z1z1, u2, s2, h, rr, hh, hhh, v, t;
    F::Sqr(z1z1, a.z);
    F::Mul(u2, b.x, z1z1);
    F::Mul(s2, b.y, a.z);
    F::Mul(s2, s2, z1z1);
    F::Sub(h, u2, a.x);
    F::Sub(rr, s2, a.y);
    const SumFlags flags{fp::IsZeroMask(h), fp::IsZeroMask(rr)};
    F::Mul(r.z, a.z, h);
    F::Sqr(hh, h);
    F::Mul(hhh, h, hh);
    F::Mul(v, a.x, hh);
    F::Mul(s2, a.y, hhh);  // s2 now Y1·H³
    F::Sqr(t, rr);
    F::Sub(t, t, hhh);
    F::Sub(t, t, v);
    F::Sub(r.x, t, v);
    F::Sub(t, v, r.x);
    F::Mul(t, rr, t);
    F::Sub(r.y, t, s2);
    return flags;
  }

  // ---- sums where an operand may be at infinity or the sum a doubling ----
  // B is Jac or Aff; an Aff operand is never at infinity.

  // Constant time: r = a + b with every case decided by masks (b_inf all
  // ones when b is at infinity). Without `exact`, a + b must not be a
  // doubling; with it the doubling is computed too and selected when needed.
  template <class B>
  static void AddCt(Jac &r, const Jac &a, const B &b, uint64_t b_inf, bool exact) {
    const Jac bj = AsJac(b);
    Jac sum, twice;
    const SumFlags f = Add(sum, a, b);
    const uint64_t a_inf = AtInfinityMask(a);
    if (exact) {
      Dbl(twice, bj);
      Select(sum, f.h_zero & f.r_zero & ~a_inf & ~b_inf, twice, sum);
    }
    Select(sum, a_inf, bj, sum);
    Select(r, b_inf, a, sum);
  }

  // Public operands: the cases decided by tests.
  template <class B>
  static void AddVar(Jac &r, const Jac &a, const B &b) {
    if (AtInfinityMask(a) != 0) {
      r = AsJac(b);
      return;
    }
    if constexpr (std::is_same_v<B, Jac>) {
      if (AtInfinityMask(b) != 0) {
        r = a;
        return;
      }
    }
    Jac sum;
    const SumFlags f = Add(sum, a, b);
    if (f.h_zero != 0 && f.r_zero != 0) {
      Dbl(r, a);
    } else {
      r = sum;  // H = 0 alone gives Z = 0: a + (−a) at infinity
    }
  }

  static Jac AsJac(const Jac &a) { return a; }
  static Jac AsJac(const Aff &a) { return Jac{a.x, a.y, fp::kOne}; }

  // Affine coordinates (still Montgomery form); (0, 0) at infinity.
  static void ToAffine(Aff &r, const Jac &a) {
    Fe zi, zi2;
    fp::Invert<F>(zi, a.z);
    F::Sqr(zi2, zi);
    F::Mul(r.x, a.x, zi2);
    F::Mul(zi2, zi2, zi);
    F::Mul(r.y, a.y, zi2);
  }
};

// ---- constant-time table reads ------------------------------------------

// Regular signed-digit (Booth) recoding of a w-bit window: `bits` holds the
// window and, below it, the top bit of the window before. Gives |digit| and
// an all-ones mask when the digit is negative.
template <int W>
inline void BoothDigit(uint64_t bits, uint64_t &magnitude, uint64_t &negative) {
  const uint64_t s = fp::Opaque(0 - (bits >> W));
  uint64_t d = ((uint64_t{1} << (W + 1)) - bits - 1) & s;
  d |= bits & ~s;
  magnitude = (d >> 1) + (d & 1);
  negative = s;
}

// w + 1 bits of k (4 limbs) starting at bit pos − 1; bits outside k are 0.
inline uint64_t WindowBits(const uint64_t k[4], int pos, int w) {
  const uint64_t mask = (uint64_t{1} << (w + 1)) - 1;
  if (pos == 0) return (k[0] << 1) & mask;
  const int bit = pos - 1, limb = bit / 64, shift = bit % 64;
  uint64_t v = limb < 4 ? k[limb] >> shift : 0;
  if (shift != 0 && limb + 1 < 4) v |= k[limb + 1] << (64 - shift);
  return v & mask;
}

}  // namespace zeph::gm::sm2::ec
