// Arithmetic modulo the group order n: Montgomery multiplication (n has no
// special form, so the classic word-by-word reduction with n0 = −n^−1 mod
// 2^64) and inversion by Fermat's little theorem, a^(n−2).
#include "gm/sm2_scalar.hpp"

#include <cstring>

#include <openssl/crypto.h>

#include "gm/sm2_curve.hpp"
#include "gm/sm2_field.hpp"

namespace zeph::gm::sm2 {
namespace sc {
namespace {

using fp::AddC;
using fp::Opaque;
using fp::SubB;
using fp::u128;

constexpr uint64_t kN0 = 0x327F9E8872350975;
// 2^512 mod n.
constexpr uint64_t kRR[4] = {0x901192AF7C114F20, 0x3464504ADE6FA2FA, 0x620FC84C3AFFE0D4, 0x1EB5E412A22B3D3B};

// Subtracts n from (top, t) unless that goes negative; (top, t) < 2n.
void SubNUnlessNegative(uint64_t r[4], const uint64_t t[4], uint64_t top) {
  uint64_t borrow = 0, s[4];
  for (int i = 0; i < 4; ++i) s[i] = SubB(t[i], kN[i], borrow);
  SubB(top, 0, borrow);
  const uint64_t keep = Opaque(0 - borrow);
  for (int i = 0; i < 4; ++i) r[i] = Opaque(s[i] ^ ((t[i] ^ s[i]) & keep));
}

// r = a·b / 2^256 mod n, for a·b < n·2^256.
void MontMulPortable(uint64_t r[4], const uint64_t a[4], const uint64_t b[4]) {
  uint64_t t[6] = {};
  for (int i = 0; i < 4; ++i) {
    uint64_t carry = 0;
    for (int j = 0; j < 4; ++j) {
      const u128 x = static_cast<u128>(a[j]) * b[i] + t[j] + carry;
      t[j] = static_cast<uint64_t>(x);
      carry = static_cast<uint64_t>(x >> 64);
    }
    uint64_t c = 0;
    t[4] = AddC(t[4], carry, c);
    t[5] = c;
    const uint64_t m = t[0] * kN0;
    u128 x = static_cast<u128>(m) * kN[0] + t[0];
    carry = static_cast<uint64_t>(x >> 64);
    for (int j = 1; j < 4; ++j) {
      x = static_cast<u128>(m) * kN[j] + t[j] + carry;
      t[j - 1] = static_cast<uint64_t>(x);
      carry = static_cast<uint64_t>(x >> 64);
    }
    c = 0;
    t[3] = AddC(t[4], carry, c);
    t[4] = t[5] + c;
  }
  SubNUnlessNegative(r, t, t[4]);
}

struct Portable {
  static void Mul(uint64_t r[4], const uint64_t a[4], const uint64_t b[4]) { MontMulPortable(r, a, b); }
  static void Sqr(uint64_t r[4], const uint64_t a[4]) { MontMulPortable(r, a, a); }
};

#if defined(ZEPH_SM2_HAVE_ADX)
struct Adx {
  static void Mul(uint64_t r[4], const uint64_t a[4], const uint64_t b[4]) { zeph_sm2_fn_mul_adx(r, a, b); }
  static void Sqr(uint64_t r[4], const uint64_t a[4]) { zeph_sm2_fn_sqr_adx(r, a); }
};
#endif

// Runs fn.template operator()<M>() with the multiplier of the active build.
template <class Fn>
auto WithMont(Fn &&fn) {
#if defined(ZEPH_SM2_HAVE_ADX)
  if (fp::ActiveBuild() == fp::Build::kAdx) return fn.template operator()<Adx>();
#endif
  return fn.template operator()<Portable>();
}

template <class M>
void SqrN(uint64_t r[4], const uint64_t a[4], int n) {
  M::Sqr(r, a);
  while (--n > 0) M::Sqr(r, r);
}

uint64_t ZeroMask(const uint64_t a[4]) { return fp::ZeroMask(a[0] | a[1] | a[2] | a[3]); }

// a^(n−2) in the Montgomery domain. The top 128 bits of n − 2 are 31 ones, a
// zero and 96 ones (an addition chain); the low 128 bits go by fixed 4-bit
// windows. The exponent is public, so its digits may index the table.
template <class M>
void Invert(uint64_t r[4], const uint64_t a[4]) {
  static constexpr uint64_t kLow[2] = {0x53BBF40939D54121, 0x7203DF6B21C6052B};
  uint64_t pow[16][4];  // pow[i] = a^i, i ≥ 1
  std::memcpy(pow[1], a, 32);
  M::Sqr(pow[2], a);
  for (int i = 3; i < 16; ++i) M::Mul(pow[i], pow[i - 1], a);
  uint64_t x6[4], x12[4], x24[4], x30[4], x31[4], x32[4], t[4];
  SqrN<M>(t, pow[7], 3);  // a^(2^3 − 1) = a^7
  M::Mul(x6, t, pow[7]);
  SqrN<M>(t, x6, 6);
  M::Mul(x12, t, x6);
  SqrN<M>(t, x12, 12);
  M::Mul(x24, t, x12);
  SqrN<M>(t, x24, 6);
  M::Mul(x30, t, x6);
  M::Sqr(t, x30);
  M::Mul(x31, t, a);
  M::Sqr(t, x31);
  M::Mul(x32, t, a);
  M::Sqr(t, x31);  // 31 ones, a zero
  for (int i = 0; i < 3; ++i) {
    SqrN<M>(t, t, 32);
    M::Mul(t, t, x32);
  }
  for (int i = 31; i >= 0; --i) {
    SqrN<M>(t, t, 4);
    const unsigned digit = static_cast<unsigned>(kLow[i / 16] >> (4 * (i % 16))) & 15;
    if (digit != 0) M::Mul(t, t, pow[digit]);
  }
  std::memcpy(r, t, 32);
  OPENSSL_cleanse(pow, sizeof pow);
  OPENSSL_cleanse(t, sizeof t);
  OPENSSL_cleanse(x30, sizeof x30);
  OPENSSL_cleanse(x31, sizeof x31);
  OPENSSL_cleanse(x32, sizeof x32);
}

}  // namespace

void ReduceOnce(uint64_t r[4], const uint64_t a[4]) { SubNUnlessNegative(r, a, 0); }

}  // namespace sc

// ---- the header's scalar functions -------------------------------------

using fp::AddC;
using fp::Opaque;
using fp::SubB;

bool InRange(const Scalar &k) {
  uint64_t v[4], borrow = 0;
  sc::Load(v, k.b);
  for (int i = 0; i < 4; ++i) SubB(v[i], sc::kN[i], borrow);  // borrow: k < n
  const uint64_t ok = Opaque(borrow & ~sc::ZeroMask(v) & 1);
  OPENSSL_cleanse(v, sizeof v);
  return ok != 0;
}

bool IsZero(const Scalar &k) {
  uint64_t acc = 0;
  for (uint8_t c : k.b) acc |= c;
  return (fp::ZeroMask(acc) & 1) != 0;
}

void Reduce(const uint8_t in[kScalarLen], Scalar *out) {
  uint64_t v[4];
  sc::Load(v, in);
  sc::ReduceOnce(v, v);
  sc::Store(out->b, v);
  OPENSSL_cleanse(v, sizeof v);
}

void ModAdd(const Scalar &a, const Scalar &b, Scalar *out) {
  uint64_t x[4], y[4], carry = 0;
  sc::Load(x, a.b);
  sc::Load(y, b.b);
  sc::ReduceOnce(x, x);
  sc::ReduceOnce(y, y);
  for (int i = 0; i < 4; ++i) x[i] = AddC(x[i], y[i], carry);
  sc::SubNUnlessNegative(x, x, carry);
  sc::Store(out->b, x);
  OPENSSL_cleanse(x, sizeof x);
  OPENSSL_cleanse(y, sizeof y);
}

void ModSub(const Scalar &a, const Scalar &b, Scalar *out) {
  uint64_t x[4], y[4], borrow = 0, carry = 0;
  sc::Load(x, a.b);
  sc::Load(y, b.b);
  sc::ReduceOnce(x, x);
  sc::ReduceOnce(y, y);
  for (int i = 0; i < 4; ++i) x[i] = SubB(x[i], y[i], borrow);
  const uint64_t mask = Opaque(0 - borrow);
  for (int i = 0; i < 4; ++i) x[i] = AddC(x[i], sc::kN[i] & mask, carry);
  sc::Store(out->b, x);
  OPENSSL_cleanse(x, sizeof x);
  OPENSSL_cleanse(y, sizeof y);
}

void ModMul(const Scalar &a, const Scalar &b, Scalar *out) {
  uint64_t x[4], y[4];
  sc::Load(x, a.b);
  sc::Load(y, b.b);
  sc::WithMont([&]<class M>() {
    M::Mul(x, x, sc::kRR);  // a·2^256 mod n, for any a below 2^256
    M::Mul(x, x, y);        // (a·2^256)·b / 2^256
  });
  sc::Store(out->b, x);
  OPENSSL_cleanse(x, sizeof x);
  OPENSSL_cleanse(y, sizeof y);
}

bool ModInv(const Scalar &a, Scalar *out) {
  static constexpr uint64_t kOne[4] = {1, 0, 0, 0};
  uint64_t x[4];
  sc::Load(x, a.b);
  sc::WithMont([&]<class M>() {
    M::Mul(x, x, sc::kRR);
    sc::Invert<M>(x, x);
    M::Mul(x, x, kOne);
  });
  const uint64_t nonzero = ~sc::ZeroMask(x) & 1;
  sc::Store(out->b, x);
  OPENSSL_cleanse(x, sizeof x);
  return Opaque(nonzero) != 0;
}

void Wipe(Scalar *k) { OPENSSL_cleanse(k->b, kScalarLen); }

}  // namespace zeph::gm::sm2
