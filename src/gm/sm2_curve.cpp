// The header's point functions over the library's own field and point code.
//
// k·G: 37 signed 7-bit windows of k, each one a full scan of its row of the
// base table and a mixed addition; k·P: 52 signed 5-bit windows, five
// doublings and a full scan of 16 multiples of P each. Both reduce k mod n
// and recode it so that every k runs the same operations on the same
// addresses. With k < n the running sum can meet the added point (a doubling
// in disguise) only in the last addition, which therefore also computes the
// doubling and selects; additions with the point at infinity are selected
// by masks throughout.
//
// s·G + t·P for public scalars: interleaved width-10 (G, precomputed) and
// width-5 (P) non-adjacent forms sharing one chain of doublings.
#include "gm/sm2_curve.hpp"

#include <algorithm>
#include <cstring>

#include <openssl/crypto.h>

#include "gm/sm2_field.hpp"
#include "gm/sm2_point.hpp"
#include "gm/sm2_scalar.hpp"
#include "gm/sm2_tables.hpp"

namespace zeph::gm::sm2 {
namespace {

using ec::Aff;
using ec::Jac;
using fp::Fe;
template <class F>
using Curve = ec::Curve<F>;

// Runs fn.template operator()<F>() with the active field build.
template <class Fn>
auto WithField(Fn &&fn) {
#if defined(ZEPH_SM2_HAVE_ADX)
  if (fp::ActiveBuild() == fp::Build::kAdx) return fn.template operator()<fp::Adx>();
#endif
  return fn.template operator()<fp::Portable>();
}

constexpr uint8_t kPBytes[kCoordLen] = {0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00,
                                        0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

template <class F>
void LoadAff(Aff &r, const Point &p) {
  Fe x, y;
  sc::Load(x.v, p.x);
  sc::Load(y.v, p.y);
  fp::ToMont<F>(r.x, x);
  fp::ToMont<F>(r.y, y);
}

template <class F>
Jac LoadJac(const Point &p) {
  Aff a;
  LoadAff<F>(a, p);
  return Jac{a.x, a.y, fp::kOne};
}

// Affine bytes of a; all-ones mask when a is finite. Writes (0, 0) at infinity.
template <class F>
uint64_t StoreJac(const Jac &a, Point *out) {
  Aff r;
  Curve<F>::ToAffine(r, a);
  Fe x, y;
  fp::FromMont<F>(x, r.x);
  fp::FromMont<F>(y, r.y);
  sc::Store(out->x, x.v);
  sc::Store(out->y, y.v);
  return ~ec::AtInfinityMask(a);
}

// What a constant-time multiplication holds that depends on the secret: k
// reduced mod n, the current signed digit, the point it selects and the
// running sum. Wiped when the multiplication ends.
template <class Q>
struct Secrets {
  uint64_t k[4];
  uint64_t magnitude = 0, negative = 0;
  Q q;
  Jac acc;

  explicit Secrets(const Scalar &scalar) {
    sc::Load(k, scalar.b);
    sc::ReduceOnce(k, k);
  }
  ~Secrets() { OPENSSL_cleanse(this, sizeof *this); }
  Secrets(const Secrets &) = delete;
  Secrets &operator=(const Secrets &) = delete;

  // Recodes the window at bit w·i and reads its point, negated for a negative
  // digit, from the N entries of table.
  template <int W, int N, class F>
  void ReadWindow(int i, const Q *table) {
    ec::BoothDigit<W>(ec::WindowBits(k, W * i, W), magnitude, negative);
    F::template Scan<N>(q, table, magnitude);
    Fe minus;
    F::Neg(minus, q.y);
    fp::Select(q.y, negative, minus, q.y);
  }
};

// ---- k·G -----------------------------------------------------------------

template <class F>
bool MulBaseCt(const Scalar &k, Point *out) {
  const ec::BaseTables &tables = ec::Tables();
  Secrets<Aff> s(k);
  for (int i = 0; i < ec::kCombRows; ++i) {
    s.template ReadWindow<ec::kCombWindow, ec::kCombEntries, F>(i, tables.comb[i]);
    const uint64_t q_inf = fp::ZeroMask(s.magnitude);
    if (i == 0) {
      s.acc = Jac{s.q.x, s.q.y, fp::kZero};
      fp::Select(s.acc.z, q_inf, fp::kZero, fp::kOne);
    } else {
      Curve<F>::AddCt(s.acc, s.acc, s.q, q_inf, i == ec::kCombRows - 1);
    }
  }
  return fp::Opaque(StoreJac<F>(s.acc, out) & 1) != 0;
}

// ---- k·P -----------------------------------------------------------------

constexpr int kVarWindow = 5;
constexpr int kVarEntries = 16;
constexpr int kVarRows = 52;  // 52·5 ≥ 257: the recoding can carry past bit 255

template <class F>
bool MulCt(const Scalar &k, const Point &p, Point *out) {
  using C = Curve<F>;
  // table[j] = (j + 1)·P: 2P by doubling, then P is carried along on each
  // sum's Z and added again. j·P ≠ ±P below 16, so no case is special.
  Jac table[kVarEntries];
  Aff pa;
  LoadAff<F>(pa, p);
  table[0] = C::AsJac(pa);
  C::Dbl(table[1], table[0]);
  Jac step;
  C::WithZ(step, pa, table[1].z);
  for (int j = 2; j < kVarEntries; ++j) C::AddCoZ(table[j], step, table[j - 1]);
  Secrets<Jac> s(k);
  s.template ReadWindow<kVarWindow, kVarEntries, F>(kVarRows - 1, table);
  s.acc = s.q;  // zeros, at infinity, for a zero digit
  for (int i = kVarRows - 2; i >= 0; --i) {
    s.template ReadWindow<kVarWindow, kVarEntries, F>(i, table);
    for (int d = 0; d < kVarWindow; ++d) C::Dbl(s.acc, s.acc);
    C::AddCt(s.acc, s.acc, s.q, fp::ZeroMask(s.magnitude), i == 0);
  }
  return fp::Opaque(StoreJac<F>(s.acc, out) & 1) != 0;
}

// ---- s·G + t·P, public scalars ------------------------------------------

constexpr int kNafMax = 257;
constexpr int kPWidth = 5;
constexpr int kPEntries = 1 << (kPWidth - 2);

// Width-w non-adjacent form of k, least significant digit first; returns the
// length. Digits are odd and below 2^(w−1) in magnitude, or zero; a run of
// zero bits is skipped one bit at a time, a nonzero digit takes w bits and
// leaves a carry when it is negative.
int Wnaf(int digits[kNafMax + 1], const uint64_t k[4], int w) {
  std::fill(digits, digits + kNafMax + 1, 0);
  int carry = 0, len = 0;
  for (int bit = 0; bit < 256;) {
    const int limb = bit / 64, shift = bit % 64;
    if (static_cast<int>((k[limb] >> shift) & 1) == carry) {
      ++bit;
      continue;
    }
    const int now = w < 256 - bit ? w : 256 - bit;
    uint64_t v = k[limb] >> shift;
    if (shift + now > 64) v |= k[limb + 1] << (64 - shift);
    int word = static_cast<int>(v & ((uint64_t{1} << now) - 1)) + carry;
    carry = (word >> (w - 1)) & 1;
    word -= carry << w;
    digits[bit] = word;
    len = bit + 1;
    bit += now;
  }
  if (carry != 0) {
    digits[256] = 1;
    len = 257;
  }
  return len;
}

template <class F>
Jac MulBaseAddJac(const Scalar &s, const Scalar &t, const Point &p) {
  using C = Curve<F>;
  const ec::BaseTables &tables = ec::Tables();
  uint64_t sl[4], tl[4];
  sc::Load(sl, s.b);
  sc::Load(tl, t.b);
  int sd[kNafMax + 1], td[kNafMax + 1];
  const int slen = Wnaf(sd, sl, ec::kOddWidth), tlen = Wnaf(td, tl, kPWidth);
  // Odd multiples of P: 2P carried along on each sum's Z.
  Jac odd[kPEntries], p2;
  Aff pa;
  LoadAff<F>(pa, p);
  C::Dbl(p2, C::AsJac(pa));
  C::WithZ(odd[0], pa, p2.z);
  for (int j = 1; j < kPEntries; ++j) C::AddCoZ(odd[j], p2, odd[j - 1]);
  Jac acc{fp::kZero, fp::kZero, fp::kZero};
  for (int i = (slen > tlen ? slen : tlen) - 1; i >= 0; --i) {
    C::Dbl(acc, acc);
    if (i < slen && sd[i] != 0) {
      Aff q = tables.odd[(sd[i] < 0 ? -sd[i] : sd[i]) / 2];
      if (sd[i] < 0) F::Neg(q.y, q.y);
      C::AddVar(acc, acc, q);
    }
    if (i < tlen && td[i] != 0) {
      Jac q = odd[(td[i] < 0 ? -td[i] : td[i]) / 2];
      if (td[i] < 0) F::Neg(q.y, q.y);
      C::AddVar(acc, acc, q);
    }
  }
  return acc;
}

template <class F>
bool MulBaseAddXModNImpl(const Scalar &s, const Scalar &t, const Point &p, const Scalar &x_mod_n) {
  const Jac r = MulBaseAddJac<F>(s, t, p);
  if (ec::AtInfinityMask(r) != 0 || (!InRange(x_mod_n) && !IsZero(x_mod_n))) return false;
  // x = X/Z² is below p < 2n, so x ≡ c (mod n) means x = c or x = c + n.
  Fe z2, c, cm, rhs;
  F::Sqr(z2, r.z);
  sc::Load(c.v, x_mod_n.b);
  for (int round = 0; round < 2; ++round) {
    if (round == 1) {
      uint64_t carry = 0, borrow = 0;
      for (int i = 0; i < 4; ++i) c.v[i] = fp::AddC(c.v[i], sc::kN[i], carry);
      for (int i = 0; i < 4; ++i) fp::SubB(c.v[i], fp::kP.v[i], borrow);
      if (carry != 0 || borrow == 0) return false;  // c + n ≥ p
    }
    fp::ToMont<F>(cm, c);
    F::Mul(rhs, cm, z2);
    if (fp::EqualMask(rhs, r.x) != 0) return true;
  }
  return false;
}

template <class F>
bool AddPoints(const Point &a, const Point &b, bool subtract, Point *out) {
  const Jac x = LoadJac<F>(a);
  Jac y = LoadJac<F>(b), r;
  if (subtract) F::Neg(y.y, y.y);
  Curve<F>::AddVar(r, x, y);
  if (ec::AtInfinityMask(r) != 0) return false;
  StoreJac<F>(r, out);
  return true;
}

}  // namespace

const Scalar &OrderN() {
  static constexpr Scalar n = {{0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x72, 0x03, 0xDF, 0x6B, 0x21, 0xC6,
                                0x05, 0x2B, 0x53, 0xBB, 0xF4, 0x09, 0x39, 0xD5, 0x41, 0x23}};
  return n;
}

const Point &BaseG() {
  static constexpr Point g = {
      {0x32, 0xC4, 0xAE, 0x2C, 0x1F, 0x19, 0x81, 0x19, 0x5F, 0x99, 0x04, 0x46, 0x6A, 0x39, 0xC9, 0x94,
       0x8F, 0xE3, 0x0B, 0xBF, 0xF2, 0x66, 0x0B, 0xE1, 0x71, 0x5A, 0x45, 0x89, 0x33, 0x4C, 0x74, 0xC7},
      {0xBC, 0x37, 0x36, 0xA2, 0xF4, 0xF6, 0x77, 0x9C, 0x59, 0xBD, 0xCE, 0xE3, 0x6B, 0x69, 0x21, 0x53,
       0xD0, 0xA9, 0x87, 0x7C, 0xC6, 0x2A, 0x47, 0x40, 0x02, 0xDF, 0x32, 0xE5, 0x21, 0x39, 0xF0, 0xA0}};
  return g;
}

bool PointFromXY(const uint8_t xy[2 * kCoordLen], Point *out) {
  if (std::memcmp(xy, kPBytes, kCoordLen) >= 0 || std::memcmp(xy + kCoordLen, kPBytes, kCoordLen) >= 0) return false;
  Point p;
  std::memcpy(p.x, xy, kCoordLen);
  std::memcpy(p.y, xy + kCoordLen, kCoordLen);
  const bool on_curve = WithField([&]<class F>() {
    Aff a;
    LoadAff<F>(a, p);
    Fe lhs, rhs, t;
    F::Sqr(lhs, a.y);
    F::Sqr(rhs, a.x);
    F::Mul(rhs, rhs, a.x);  // x³
    F::Double(t, a.x);
    F::Add(t, t, a.x);
    F::Sub(rhs, rhs, t);  // x³ − 3x
    F::Add(rhs, rhs, fp::kB);
    return fp::EqualMask(lhs, rhs) != 0;
  });
  if (!on_curve) return false;
  *out = p;
  return true;
}

void PointTo65(const Point &p, uint8_t out[kPointLen]) {
  out[0] = 0x04;
  std::memcpy(out + 1, p.x, kCoordLen);
  std::memcpy(out + 1 + kCoordLen, p.y, kCoordLen);
}

bool MulBase(const Scalar &k, Point *out) {
  return WithField([&]<class F>() { return MulBaseCt<F>(k, out); });
}

bool Mul(const Scalar &k, const Point &p, Point *out) {
  return WithField([&]<class F>() { return MulCt<F>(k, p, out); });
}

bool MulBaseAdd(const Scalar &s, const Scalar &t, const Point &p, Point *out) {
  return WithField([&]<class F>() {
    const Jac r = MulBaseAddJac<F>(s, t, p);
    if (ec::AtInfinityMask(r) != 0) return false;
    StoreJac<F>(r, out);
    return true;
  });
}

bool MulBaseAddXModN(const Scalar &s, const Scalar &t, const Point &p, const Scalar &x_mod_n) {
  return WithField([&]<class F>() { return MulBaseAddXModNImpl<F>(s, t, p, x_mod_n); });
}

bool Add(const Point &a, const Point &b, Point *out) {
  return WithField([&]<class F>() { return AddPoints<F>(a, b, false, out); });
}

bool Sub(const Point &a, const Point &b, Point *out) {
  return WithField([&]<class F>() { return AddPoints<F>(a, b, true, out); });
}

}  // namespace zeph::gm::sm2
