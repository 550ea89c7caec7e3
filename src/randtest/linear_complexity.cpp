// The linear complexity test. Berlekamp-Massey runs on 64 blocks at once,
// one block per bit of a word, and tracks no polynomials at all: only the
// discrepancy streams E = C(x) S(x) and F = x^(N-m) B(x) S(x) over the
// positions still to come. A step then reads E's next bit, adds F into E
// where it is set, and shifts F by one, which is the same shift for every
// block (a block whose length changes takes x E instead): one pass of
// word-wide xors and selects per step, no branches on the data.
#include <algorithm>
#include <bit>
#include <cmath>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

// The reference code's class probabilities (its first class is 0.01047).
constexpr double kClassPi[7] = {0.01047, 0.03125, 0.12500, 0.50000, 0.25000, 0.06250, 0.020833};

// For the positions still to come, one word per position (bit = block):
// E += F where D is set; F becomes E where R is set. f is indexed from the
// first position of e.
inline __attribute__((always_inline)) void SweepBody(uint64_t *__restrict e, uint64_t *__restrict f, size_t count,
                                                     uint64_t d, uint64_t r) {
  for (size_t i = 0; i < count; ++i) {
    const uint64_t ev = e[i], fv = f[i];
    e[i] = ev ^ (d & fv);
    f[i] = fv ^ (r & (ev ^ fv));
  }
}

using SweepFn = void (*)(uint64_t *, uint64_t *, size_t, uint64_t, uint64_t);

void SweepPortable(uint64_t *e, uint64_t *f, size_t count, uint64_t d, uint64_t r) { SweepBody(e, f, count, d, r); }

// A second build of the loop, four words at a time, for CPUs with AVX2.
// Chosen once, on first use (an ifunc resolver would run before sanitizer
// runtimes are up).
#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2"))) void SweepAvx2(uint64_t *e, uint64_t *f, size_t count, uint64_t d, uint64_t r) {
  SweepBody(e, f, count, d, r);
}

SweepFn PickSweep() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? SweepAvx2 : SweepPortable;
}
#else
SweepFn PickSweep() { return SweepPortable; }
#endif

void Sweep(uint64_t *e, uint64_t *f, size_t count, uint64_t d, uint64_t r) {
  static const SweepFn sweep = PickSweep();
  sweep(e, f, count, d, r);
}

// 64 x 64 bit transpose: bit 63 - c of row r trades places with bit 63 - r
// of row c.
void Transpose64(uint64_t a[64]) {
  uint64_t mask = 0x00000000FFFFFFFFu;
  for (unsigned j = 32; j != 0; j >>= 1, mask ^= mask << j) {
    for (unsigned k = 0; k < 64; k = ((k | j) + 1) & ~j) {
      const uint64_t t = (a[k] ^ (a[k | j] >> j)) & mask;
      a[k] ^= t;
      a[k | j] ^= t << j;
    }
  }
}

}  // namespace

void BlockComplexities(const Sequence &b, unsigned M, uint64_t first_block, unsigned count, Workspace &ws,
                       uint16_t *out) {
  std::vector<uint64_t> &e = ws.lc_e, &f = ws.lc_f, &due = ws.lc_due;
  e.assign(M, 0);
  due.assign(M, 0);
  // Block `lane` goes to bit 63 - lane of each position's word.
  for (unsigned t0 = 0; t0 < M; t0 += 64) {
    uint64_t rows[64] = {};
    for (unsigned lane = 0; lane < count; ++lane) rows[lane] = b.Window((first_block + lane) * M + t0, 64);
    Transpose64(rows);
    for (unsigned i = 0; i < 64 && t0 + i < M; ++i) e[t0 + i] = rows[i];
  }
  f = e;  // F = x S: f[p] is position p + N + 1 at step N
  uint16_t length[64] = {};
  uint64_t eligible = ~uint64_t{0};  // blocks with 2L <= N
  for (unsigned n = 0; n < M; ++n) {
    eligible |= due[n];
    const uint64_t d = e[n];
    const uint64_t r = d & eligible;
    eligible &= ~r;
    for (uint64_t rest = r; rest != 0; rest &= rest - 1) {
      const int bit = std::countr_zero(rest);
      length[bit] = static_cast<uint16_t>(n + 1 - length[bit]);
      if (2u * length[bit] < M) due[2u * length[bit]] |= uint64_t{1} << bit;
    }
    Sweep(e.data() + n + 1, f.data(), M - n - 1, d, r);
  }
  for (unsigned lane = 0; lane < count; ++lane) out[lane] = length[63 - lane];
}

int TextbookLinearComplexity(const uint8_t *s, int n) {
  std::vector<uint8_t> c(n + 1), b(n + 1), t;
  c[0] = b[0] = 1;
  int L = 0, m = -1;
  for (int N = 0; N < n; ++N) {
    uint8_t d = s[N];
    for (int i = 1; i <= L; ++i) d ^= c[i] & s[N - i];
    if (d) {
      t = c;
      for (int j = 0; j + N - m <= n; ++j) c[N - m + j] ^= b[j];
      if (L <= N / 2) {
        L = N + 1 - L;
        m = N;
        b = t;
      }
    }
  }
  return L;
}

Outcome LinearComplexityStat(const Sequence &b, unsigned M, Workspace &ws) {
  const uint64_t blocks = b.size() / M;
  // The reference code's mean and sign.
  const double mean = M / 2.0 + (9.0 + ((M + 1) % 2 == 0 ? -1.0 : 1.0)) / 36.0 -
                      1.0 / std::ldexp(1.0, static_cast<int>(M)) * (M / 3.0 + 2.0 / 9.0);
  const double sign = M % 2 == 0 ? 1.0 : -1.0;
  uint64_t nu[7] = {};
  uint16_t lengths[64];
  for (uint64_t g = 0; g < blocks; g += 64) {
    const auto count = static_cast<unsigned>(std::min<uint64_t>(64, blocks - g));
    BlockComplexities(b, M, g, count, ws, lengths);
    for (unsigned i = 0; i < count; ++i) {
      const double t = sign * (lengths[i] - mean) + 2.0 / 9.0;
      const int cls = t <= -2.5 ? 0 : t <= -1.5 ? 1 : t <= -0.5 ? 2 : t <= 0.5 ? 3 : t <= 1.5 ? 4 : t <= 2.5 ? 5 : 6;
      ++nu[cls];
    }
  }
  double chi2 = 0.0;
  const double total = static_cast<double>(blocks);
  for (int i = 0; i < 7; ++i) {
    const double diff = static_cast<double>(nu[i]) - total * kClassPi[i];
    chi2 += diff * diff / (total * kClassPi[i]);
  }
  return Outcome{0, 1, {Igamc(3.0, chi2 / 2.0), 0}};
}

}  // namespace zeph::randtest
