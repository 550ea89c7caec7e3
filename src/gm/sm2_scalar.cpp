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
using fp::InversionHead;
using fp::Opaque;
using fp::SubB;
using fp::u128;

using fp::Fe;

constexpr uint64_t kN0 = 0x327F9E8872350975;
// 2^512 mod n.
constexpr Fe kRR = {{0x901192AF7C114F20, 0x3464504ADE6FA2FA, 0x620FC84C3AFFE0D4, 0x1EB5E412A22B3D3B}};

// Subtracts n from (top, t) unless that goes negative; (top, t) < 2n.
void SubNUnlessNegative(uint64_t r[4], const uint64_t t[4], uint64_t top) {
  uint64_t borrow = 0, s[4];
  for (int i = 0; i < 4; ++i) s[i] = SubB(t[i], kN[i], borrow);
  SubB(top, 0, borrow);
  const uint64_t keep = Opaque(0 - borrow);
  for (int i = 0; i < 4; ++i) r[i] = Opaque(s[i] ^ ((t[i] ^ s[i]) & keep));
}

// r = a·b / 2^256 mod n, for a·b < n·2^256.
void MontMulPortable(Fe &r, const Fe &a, const Fe &b) {
  uint64_t t[6] = {};
  for (int i = 0; i < 4; ++i) {
    uint64_t carry = 0;
    for (int j = 0; j < 4; ++j) {
      const u128 x = static_cast<u128>(a.v[j]) * b.v[i] + t[j] + carry;
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
  SubNUnlessNegative(r.v, t, t[4]);
}

struct Portable {
  static void Mul(Fe &r, const Fe &a, const Fe &b) { MontMulPortable(r, a, b); }
  static void Sqr(Fe &r, const Fe &a) { MontMulPortable(r, a, a); }
};

#if defined(ZEPH_SM2_HAVE_ADX)
struct Adx {
  static void Mul(Fe &r, const Fe &a, const Fe &b) { zeph_sm2_fn_mul_adx(r.v, a.v, b.v); }
  static void Sqr(Fe &r, const Fe &a) { zeph_sm2_fn_sqr_adx(r.v, a.v); }
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

uint64_t ZeroMask(const uint64_t a[4]) { return fp::ZeroMask(a[0] | a[1] | a[2] | a[3]); }

// a^(n−2) in the Montgomery domain. Below its first 32 bits, the top half of
// n − 2 is 96 ones; the low 128 bits go by fixed 4-bit windows. The exponent
// is public, so its digits may index the table.
template <class M>
void Invert(Fe &r, const Fe &a) {
  static constexpr uint64_t kLow[2] = {0x53BBF40939D54121, 0x7203DF6B21C6052B};
  Fe pow[16], x30, x32, t;  // pow[i] = a^i, i ≥ 1
  InversionHead<M>(x30, x32, t, a);
  for (int i = 0; i < 3; ++i) {
    fp::SqrN<M>(t, t, 32);
    M::Mul(t, t, x32);
  }
  pow[1] = a;
  M::Sqr(pow[2], a);
  for (int i = 3; i < 16; ++i) M::Mul(pow[i], pow[i - 1], a);
  for (int i = 31; i >= 0; --i) {
    fp::SqrN<M>(t, t, 4);
    const unsigned digit = static_cast<unsigned>(kLow[i / 16] >> (4 * (i % 16))) & 15;
    if (digit != 0) M::Mul(t, t, pow[digit]);
  }
  r = t;
  OPENSSL_cleanse(pow, sizeof pow);
  OPENSSL_cleanse(&t, sizeof t);
  OPENSSL_cleanse(&x30, sizeof x30);
  OPENSSL_cleanse(&x32, sizeof x32);
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
  fp::Fe x, y;
  sc::Load(x.v, a.b);
  sc::Load(y.v, b.b);
  sc::WithMont([&]<class M>() {
    M::Mul(x, x, sc::kRR);  // a·2^256 mod n, for any a below 2^256
    M::Mul(x, x, y);        // (a·2^256)·b / 2^256
  });
  sc::Store(out->b, x.v);
  OPENSSL_cleanse(&x, sizeof x);
  OPENSSL_cleanse(&y, sizeof y);
}

bool ModInv(const Scalar &a, Scalar *out) {
  static constexpr fp::Fe kOne = {{1, 0, 0, 0}};
  fp::Fe x;
  sc::Load(x.v, a.b);
  sc::WithMont([&]<class M>() {
    M::Mul(x, x, sc::kRR);
    sc::Invert<M>(x, x);
    M::Mul(x, x, kOne);
  });
  const uint64_t nonzero = ~sc::ZeroMask(x.v) & 1;
  sc::Store(out->b, x.v);
  OPENSSL_cleanse(&x, sizeof x);
  return Opaque(nonzero) != 0;
}

void Wipe(Scalar *k) { OPENSSL_cleanse(k->b, kScalarLen); }

}  // namespace zeph::gm::sm2
