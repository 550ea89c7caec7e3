// The SM2 prime field, p = 2^256 − 2^224 − 2^96 + 2^64 − 1. Elements are four
// 64-bit limbs, least significant first, in Montgomery form a·2^256 mod p and
// always fully reduced. Nothing here branches on or indexes by a value.
//
// The arithmetic comes in two builds with the same results, each a policy
// struct (Mul, Sqr, Add, Sub, Half, Double, Neg, Scan) that the point
// formulas are templates over: Portable, C++ over unsigned __int128, compiled
// everywhere; and Adx, on x86-64 CPUs with BMI2, ADX and AVX2, with
// multiplication and squaring in assembly (mulx with two carry chains), the
// linear operations in inline assembly (carry chains and cmov, a third of the
// instructions the compiler makes of the portable forms) and table scans
// with 256-bit masks.
#pragma once

#include <cstdint>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

// The assembly is written for x86-64 under the System V calling convention.
#if defined(__x86_64__) && defined(__ELF__)
#define ZEPH_SM2_HAVE_ADX 1
#endif

namespace zeph::gm::sm2::fp {

using u128 = unsigned __int128;

struct Fe {
  uint64_t v[4];
};

inline constexpr Fe kP = {{0xFFFFFFFFFFFFFFFF, 0xFFFFFFFF00000000, 0xFFFFFFFFFFFFFFFF, 0xFFFFFFFEFFFFFFFF}};
inline constexpr Fe kZero = {{0, 0, 0, 0}};
// 1 in Montgomery form: 2^256 mod p.
inline constexpr Fe kOne = {{0x0000000000000001, 0x00000000FFFFFFFF, 0x0000000000000000, 0x0000000100000000}};
// 2^512 mod p: a Montgomery product with it enters the Montgomery domain.
inline constexpr Fe kRR = {{0x0000000200000003, 0x00000002FFFFFFFF, 0x0000000100000001, 0x0000000400000002}};
// The curve coefficient b in Montgomery form (a is −3).
inline constexpr Fe kB = {{0x90D230632BC0DD42, 0x71CF379AE9B537AB, 0x527981505EA51C3C, 0x240FE188BA20E2C8}};

// ---- constant-time words -----------------------------------------------

// Hides a value from the optimiser so that masks stay masks, not branches.
inline uint64_t Opaque(uint64_t x) {
  __asm__("" : "+r"(x));
  return x;
}

// All ones when x == 0, else zero.
inline uint64_t ZeroMask(uint64_t x) { return Opaque(((x | (0 - x)) >> 63) - 1); }
inline uint64_t EqMask(uint64_t a, uint64_t b) { return ZeroMask(a ^ b); }

inline uint64_t AddC(uint64_t a, uint64_t b, uint64_t &carry) {
#if defined(__x86_64__)
  unsigned long long r;
  carry = _addcarry_u64(static_cast<unsigned char>(carry), a, b, &r);
  return r;
#else
  const u128 s = static_cast<u128>(a) + b + carry;
  carry = static_cast<uint64_t>(s >> 64);
  return static_cast<uint64_t>(s);
#endif
}

inline uint64_t SubB(uint64_t a, uint64_t b, uint64_t &borrow) {
#if defined(__x86_64__)
  unsigned long long r;
  borrow = _subborrow_u64(static_cast<unsigned char>(borrow), a, b, &r);
  return r;
#else
  const u128 d = static_cast<u128>(a) - b - borrow;
  borrow = static_cast<uint64_t>(d >> 64) & 1;
  return static_cast<uint64_t>(d);
#endif
}

// ---- elements ------------------------------------------------------------

inline uint64_t IsZeroMask(const Fe &a) { return ZeroMask(a.v[0] | a.v[1] | a.v[2] | a.v[3]); }
inline uint64_t EqualMask(const Fe &a, const Fe &b) {
  return ZeroMask((a.v[0] ^ b.v[0]) | (a.v[1] ^ b.v[1]) | (a.v[2] ^ b.v[2]) | (a.v[3] ^ b.v[3]));
}

// r = mask ? a : b, mask all ones or zero.
inline void Select(Fe &r, uint64_t mask, const Fe &a, const Fe &b) {
  for (int i = 0; i < 4; ++i) r.v[i] = (a.v[i] & mask) | (b.v[i] & ~mask);
}

// Subtracts p from (top, t) unless that goes negative; (top, t) < 2p.
inline void Normalize(Fe &r, const uint64_t t[4], uint64_t top) {
  uint64_t borrow = 0, s[4];
  for (int i = 0; i < 4; ++i) s[i] = SubB(t[i], kP.v[i], borrow);
  SubB(top, 0, borrow);
  const uint64_t keep = Opaque(0 - borrow);
  // Word by word in general registers: a vector select here would reload
  // words just stored one at a time.
  for (int i = 0; i < 4; ++i) r.v[i] = Opaque(s[i] ^ ((t[i] ^ s[i]) & keep));
}

// ---- portable build -------------------------------------------------------

inline void AddPortable(Fe &r, const Fe &a, const Fe &b) {
  uint64_t carry = 0, t[4];
  for (int i = 0; i < 4; ++i) t[i] = AddC(a.v[i], b.v[i], carry);
  Normalize(r, t, carry);
}

inline void SubPortable(Fe &r, const Fe &a, const Fe &b) {
  uint64_t borrow = 0, t[4];
  for (int i = 0; i < 4; ++i) t[i] = SubB(a.v[i], b.v[i], borrow);
  const uint64_t mask = Opaque(0 - borrow);
  uint64_t carry = 0;
  for (int i = 0; i < 4; ++i) r.v[i] = AddC(t[i], kP.v[i] & mask, carry);
}

inline void HalfPortable(Fe &r, const Fe &a) {
  const uint64_t mask = Opaque(0 - (a.v[0] & 1));
  uint64_t carry = 0, t[4];
  for (int i = 0; i < 4; ++i) t[i] = AddC(a.v[i], kP.v[i] & mask, carry);
  for (int i = 0; i < 3; ++i) r.v[i] = (t[i] >> 1) | (t[i + 1] << 63);
  r.v[3] = (t[3] >> 1) | (carry << 63);
}

// One word of Montgomery reduction, (w + m·p) / 2^64 with m = w0. Because
// p ≡ −1 mod 2^64, m needs no multiplication, and m·p / 2^64 folds into
// (w1, w2, w3, 0) + (m, 0, 0, m) − (m·2^32, m/2^32, m·2^32, m/2^32): the
// result stays below 2^256, so the last carry and borrow are dropped. The
// reduced window comes back rotated: (w1, w2, w3, w0).
inline void ReduceStep(uint64_t &w0, uint64_t &w1, uint64_t &w2, uint64_t &w3) {
  const uint64_t m = w0, lo = m << 32, hi = m >> 32;
  uint64_t carry = 0, borrow = 0;
  w1 = AddC(w1, m, carry);
  w2 = AddC(w2, 0, carry);
  w3 = AddC(w3, 0, carry);
  w0 = m + carry;
  w1 = SubB(w1, lo, borrow);
  w2 = SubB(w2, hi, borrow);
  w3 = SubB(w3, lo, borrow);
  w0 = SubB(w0, hi, borrow);
}

// r = t / 2^256 mod p for a 512-bit t below p·2^256.
inline void Reduce(Fe &r, const uint64_t t[8]) {
  uint64_t w0 = t[0], w1 = t[1], w2 = t[2], w3 = t[3];
  ReduceStep(w0, w1, w2, w3);
  ReduceStep(w1, w2, w3, w0);
  ReduceStep(w2, w3, w0, w1);
  ReduceStep(w3, w0, w1, w2);
  uint64_t carry = 0, s[4];
  s[0] = AddC(w0, t[4], carry);
  s[1] = AddC(w1, t[5], carry);
  s[2] = AddC(w2, t[6], carry);
  s[3] = AddC(w3, t[7], carry);
  Normalize(r, s, carry);
}

inline void MulPortable(Fe &r, const Fe &a, const Fe &b) {
  uint64_t t[8] = {};
  for (int i = 0; i < 4; ++i) {
    uint64_t carry = 0;
    for (int j = 0; j < 4; ++j) {
      const u128 x = static_cast<u128>(a.v[j]) * b.v[i] + t[i + j] + carry;
      t[i + j] = static_cast<uint64_t>(x);
      carry = static_cast<uint64_t>(x >> 64);
    }
    t[i + 4] = carry;
  }
  Reduce(r, t);
}

inline void SqrPortable(Fe &r, const Fe &a) {
  // Cross products once, doubled, then the squares on the diagonal.
  uint64_t t[8] = {};
  for (int i = 0; i < 3; ++i) {
    uint64_t carry = 0;
    for (int j = i + 1; j < 4; ++j) {
      const u128 x = static_cast<u128>(a.v[i]) * a.v[j] + t[i + j] + carry;
      t[i + j] = static_cast<uint64_t>(x);
      carry = static_cast<uint64_t>(x >> 64);
    }
    t[i + 4] = carry;
  }
  t[7] = t[6] >> 63;
  for (int i = 6; i > 0; --i) t[i] = (t[i] << 1) | (t[i - 1] >> 63);
  t[0] = 0;
  uint64_t carry = 0;
  for (int i = 0; i < 4; ++i) {
    const u128 sq = static_cast<u128>(a.v[i]) * a.v[i];
    t[2 * i] = AddC(t[2 * i], static_cast<uint64_t>(sq), carry);
    t[2 * i + 1] = AddC(t[2 * i + 1], static_cast<uint64_t>(sq >> 64), carry);
  }
  Reduce(r, t);
}

// table[idx − 1] of n entries of `words` 64-bit words, read by touching
// every entry; all zeros when idx is 0.
inline void ScanPortable(uint64_t *out, const uint64_t *table, int n, int words, uint64_t idx) {
  uint64_t acc[12] = {};
  for (int j = 0; j < n; ++j) {
    const uint64_t mask = EqMask(static_cast<uint64_t>(j + 1), idx);
    for (int w = 0; w < words; ++w) acc[w] |= table[j * words + w] & mask;
  }
  for (int w = 0; w < words; ++w) out[w] = acc[w];
}

// Double and Neg from a build's Add and Sub; Scan over whole entries.
template <class Self>
struct Derived {
  template <int N, class Entry>
  static void Scan(Entry &out, const Entry *table, uint64_t idx) {
    static_assert(sizeof(Entry) % 32 == 0 && sizeof(Entry) <= 96);
    Self::ScanWords(reinterpret_cast<uint64_t *>(&out), reinterpret_cast<const uint64_t *>(table), N,
                    sizeof(Entry) / sizeof(uint64_t), idx);
  }
  static void Double(Fe &r, const Fe &a) { Self::Add(r, a, a); }
  static void Neg(Fe &r, const Fe &a) { Self::Sub(r, kZero, a); }
};

struct Portable : Derived<Portable> {
  static void Mul(Fe &r, const Fe &a, const Fe &b) { MulPortable(r, a, b); }
  static void Sqr(Fe &r, const Fe &a) { SqrPortable(r, a); }
  static void Add(Fe &r, const Fe &a, const Fe &b) { AddPortable(r, a, b); }
  static void Sub(Fe &r, const Fe &a, const Fe &b) { SubPortable(r, a, b); }
  static void Half(Fe &r, const Fe &a) { HalfPortable(r, a); }
  static void ScanWords(uint64_t *out, const uint64_t *table, int n, int words, uint64_t idx) {
    ScanPortable(out, table, n, words, idx);
  }
};

// ---- x86-64 build ---------------------------------------------------------

#if defined(ZEPH_SM2_HAVE_ADX)
extern "C" void zeph_sm2_fp_mul_adx(uint64_t r[4], const uint64_t a[4], const uint64_t b[4]);
extern "C" void zeph_sm2_fp_sqr_adx(uint64_t r[4], const uint64_t a[4]);
// ScanPortable with 256-bit AVX2 masks, for entries of 8 or 12 words.
void ScanAvx2(uint64_t *out, const uint64_t *table, int n, int words, uint64_t idx);

inline void AddX86(Fe &r, const Fe &a, const Fe &b) {
  uint64_t r0 = a.v[0], r1 = a.v[1], r2 = a.v[2], r3 = a.v[3], s0, s1, s2, s3, top;
  __asm__(
      "xor %k[top], %k[top]\n\t"
      "add %[b0], %[r0]\n\t"
      "adc %[b1], %[r1]\n\t"
      "adc %[b2], %[r2]\n\t"
      "adc %[b3], %[r3]\n\t"
      "adc $0, %[top]\n\t"
      "mov %[r0], %[s0]\n\t"
      "mov %[r1], %[s1]\n\t"
      "mov %[r2], %[s2]\n\t"
      "mov %[r3], %[s3]\n\t"
      "sub $-1, %[s0]\n\t"
      "sbb %[p1], %[s1]\n\t"
      "sbb $-1, %[s2]\n\t"
      "sbb %[p3], %[s3]\n\t"
      "sbb $0, %[top]\n\t"
      "cmovnc %[s0], %[r0]\n\t"
      "cmovnc %[s1], %[r1]\n\t"
      "cmovnc %[s2], %[r2]\n\t"
      "cmovnc %[s3], %[r3]"
      : [r0] "+&r"(r0), [r1] "+&r"(r1), [r2] "+&r"(r2), [r3] "+&r"(r3), [s0] "=&r"(s0), [s1] "=&r"(s1), [s2] "=&r"(s2),
        [s3] "=&r"(s3), [top] "=&r"(top)
      : [b0] "rm"(b.v[0]), [b1] "rm"(b.v[1]), [b2] "rm"(b.v[2]), [b3] "rm"(b.v[3]), [p1] "m"(kP.v[1]), [p3] "m"(kP.v[3])
      : "cc");
  r.v[0] = r0;
  r.v[1] = r1;
  r.v[2] = r2;
  r.v[3] = r3;
}

inline void SubX86(Fe &r, const Fe &a, const Fe &b) {
  uint64_t r0 = a.v[0], r1 = a.v[1], r2 = a.v[2], r3 = a.v[3], mask, m1, m3;
  __asm__(
      "sub %[b0], %[r0]\n\t"
      "sbb %[b1], %[r1]\n\t"
      "sbb %[b2], %[r2]\n\t"
      "sbb %[b3], %[r3]\n\t"
      "sbb %[mask], %[mask]\n\t"
      "mov %[p1], %[m1]\n\t"
      "mov %[p3], %[m3]\n\t"
      "and %[mask], %[m1]\n\t"
      "and %[mask], %[m3]\n\t"
      "add %[mask], %[r0]\n\t"
      "adc %[m1], %[r1]\n\t"
      "adc %[mask], %[r2]\n\t"
      "adc %[m3], %[r3]"
      :
      [r0] "+&r"(r0), [r1] "+&r"(r1), [r2] "+&r"(r2), [r3] "+&r"(r3), [mask] "=&r"(mask), [m1] "=&r"(m1), [m3] "=&r"(m3)
      : [b0] "rm"(b.v[0]), [b1] "rm"(b.v[1]), [b2] "rm"(b.v[2]), [b3] "rm"(b.v[3]), [p1] "m"(kP.v[1]), [p3] "m"(kP.v[3])
      : "cc");
  r.v[0] = r0;
  r.v[1] = r1;
  r.v[2] = r2;
  r.v[3] = r3;
}

// a/2: a + p when a is odd, then one bit right.
inline void HalfX86(Fe &r, const Fe &a) {
  uint64_t r0 = a.v[0], r1 = a.v[1], r2 = a.v[2], r3 = a.v[3], mask, m1, m3, top;
  __asm__(
      "mov %[r0], %[mask]\n\t"
      "and $1, %[mask]\n\t"
      "neg %[mask]\n\t"
      "mov %[p1], %[m1]\n\t"
      "mov %[p3], %[m3]\n\t"
      "and %[mask], %[m1]\n\t"
      "and %[mask], %[m3]\n\t"
      "xor %k[top], %k[top]\n\t"
      "add %[mask], %[r0]\n\t"
      "adc %[m1], %[r1]\n\t"
      "adc %[mask], %[r2]\n\t"
      "adc %[m3], %[r3]\n\t"
      "adc $0, %[top]\n\t"
      "shrd $1, %[r1], %[r0]\n\t"
      "shrd $1, %[r2], %[r1]\n\t"
      "shrd $1, %[r3], %[r2]\n\t"
      "shrd $1, %[top], %[r3]"
      : [r0] "+&r"(r0), [r1] "+&r"(r1), [r2] "+&r"(r2), [r3] "+&r"(r3), [mask] "=&r"(mask), [m1] "=&r"(m1),
        [m3] "=&r"(m3), [top] "=&r"(top)
      : [p1] "m"(kP.v[1]), [p3] "m"(kP.v[3])
      : "cc");
  r.v[0] = r0;
  r.v[1] = r1;
  r.v[2] = r2;
  r.v[3] = r3;
}

struct Adx : Derived<Adx> {
  static void Mul(Fe &r, const Fe &a, const Fe &b) { zeph_sm2_fp_mul_adx(r.v, a.v, b.v); }
  static void Sqr(Fe &r, const Fe &a) { zeph_sm2_fp_sqr_adx(r.v, a.v); }
  static void Add(Fe &r, const Fe &a, const Fe &b) { AddX86(r, a, b); }
  static void Sub(Fe &r, const Fe &a, const Fe &b) { SubX86(r, a, b); }
  static void Half(Fe &r, const Fe &a) { HalfX86(r, a); }
  static void ScanWords(uint64_t *out, const uint64_t *table, int n, int words, uint64_t idx) {
    ScanAvx2(out, table, n, words, idx);
  }
};
#endif

// Which build runs: the assembly where the CPU has BMI2, ADX and AVX2. Tests pin
// one build to check both on the same machine; pin kAdx only where
// AdxAvailable() or under valgrind (which emulates the instructions but hides
// them from cpuid). Builds without the assembly always run the portable one.
enum class Build { kPortable, kAdx };
bool AdxAvailable();
Build ActiveBuild();
void PinBuild(Build b);

// ---- exponentiation, over any Montgomery multiplier M ------------------------

template <class M>
inline void SqrN(Fe &r, const Fe &a, int n) {
  M::Sqr(r, a);
  while (--n > 0) M::Sqr(r, r);
}

// The shared start of the Fermat inversions modulo p and modulo n, whose
// exponents p − 2 and n − 2 both begin with 31 ones and a zero:
// x30 = a^(2^30 − 1), x32 = a^(2^32 − 1), head = a^(2^32 − 2).
template <class M>
void InversionHead(Fe &x30, Fe &x32, Fe &head, const Fe &a) {
  Fe x2, x3, x6, x12, x15, x31, t;
  M::Sqr(t, a);
  M::Mul(x2, t, a);
  M::Sqr(t, x2);
  M::Mul(x3, t, a);
  SqrN<M>(t, x3, 3);
  M::Mul(x6, t, x3);
  SqrN<M>(t, x6, 6);
  M::Mul(x12, t, x6);
  SqrN<M>(t, x12, 3);
  M::Mul(x15, t, x3);
  SqrN<M>(t, x15, 15);
  M::Mul(x30, t, x15);
  M::Sqr(t, x30);
  M::Mul(x31, t, a);
  M::Sqr(t, x31);
  M::Mul(x32, t, a);
  M::Sqr(head, x31);
}

// a^(p−2) = a^−1 (0 stays 0): a fixed chain of 256 squarings and 15
// multiplications. p − 2 in bits: 31 ones, a zero, 128 ones, 32 zeros,
// 62 ones, a zero, a one.
template <class F>
void Invert(Fe &r, const Fe &a) {
  Fe x30, x32, t;
  InversionHead<F>(x30, x32, t, a);
  for (int i = 0; i < 4; ++i) {
    SqrN<F>(t, t, 32);
    F::Mul(t, t, x32);
  }
  SqrN<F>(t, t, 32);  // 32 zeros
  SqrN<F>(t, t, 32);
  F::Mul(t, t, x32);
  SqrN<F>(t, t, 30);
  F::Mul(t, t, x30);
  SqrN<F>(t, t, 2);
  F::Mul(r, t, a);
}

// Into and out of the Montgomery domain, from and to plain limbs.
template <class F>
inline void ToMont(Fe &r, const Fe &a) {
  F::Mul(r, a, kRR);
}
template <class F>
inline void FromMont(Fe &r, const Fe &a) {
  static constexpr Fe kPlainOne = {{1, 0, 0, 0}};
  F::Mul(r, a, kPlainOne);
}

}  // namespace zeph::gm::sm2::fp
