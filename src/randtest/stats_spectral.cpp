// Maurer's universal test and the discrete Fourier transform test.
#include <array>
#include <cmath>
#include <cstring>
#include <mutex>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

// Block length L by sequence length, and the expected value and variance of
// the statistic per L.
constexpr uint64_t kUniversalFrom[17] = {0,        0,         0,         0,         0,         0,
                                         387840,   904960,    2068480,   4654080,   10342400,  22753280,
                                         49643520, 107560960, 231669760, 496435200, 1059061760};
constexpr double kExpected[17] = {0,         0,         0,         0,         0,         0,
                                  5.2177052, 6.1962507, 7.1836656, 8.1764248, 9.1723243, 10.170032,
                                  11.168765, 12.168070, 13.167693, 14.167488, 15.167379};
constexpr double kVariance[17] = {0,     0,     0,     0,     0,     0,     2.954, 3.125, 3.238,
                                  3.311, 3.356, 3.384, 3.401, 3.410, 3.416, 3.419, 3.421};

// log2 of the short distances, computed as the reference code does.
constexpr size_t kLogTable = 4096;
const double *LogTable() {
  static double table[kLogTable];
  static std::once_flag once;
  std::call_once(once, [] {
    for (size_t i = 1; i < kLogTable; ++i) table[i] = std::log(static_cast<double>(i)) / std::log(2.0);
  });
  return table;
}

// +1 / -1 for the eight bits of each byte value, first bit first.
using Signs = std::array<double, 8>;
const std::array<Signs, 256> &SignTable() {
  static const std::array<Signs, 256> table = [] {
    std::array<Signs, 256> t{};
    for (int v = 0; v < 256; ++v) {
      for (int j = 0; j < 8; ++j) t[v][j] = (v >> (7 - j)) & 1 ? 1.0 : -1.0;
    }
    return t;
  }();
  return table;
}

}  // namespace

Outcome UniversalStat(const Sequence &b, Workspace &ws) {
  const uint64_t n = b.size();
  unsigned L = 0;
  for (unsigned l = 6; l <= 16; ++l) {
    if (n >= kUniversalFrom[l]) L = l;
  }
  if (L == 0) return Outcome{ZEPH_RANDTEST_ERR_TOO_SHORT, 0, {0, 0}};
  const uint64_t q = 10 * (uint64_t{1} << L);
  const uint64_t k = n / L - q;
  std::vector<uint64_t> &last = ws.last_seen;
  last.assign(uint64_t{1} << L, 0);
  // Blocks are numbered from 1; a block's value is its L bits.
  for (uint64_t i = 1; i <= q; ++i) last[b.Window((i - 1) * L, L)] = i;
  const double *logs = LogTable();
  double sum = 0.0;
  for (uint64_t i = q + 1; i <= q + k; ++i) {
    uint64_t &seen = last[b.Window((i - 1) * L, L)];
    const uint64_t distance = i - seen;
    sum += distance < kLogTable ? logs[distance] : std::log(static_cast<double>(distance)) / std::log(2.0);
    seen = i;
  }
  const double kd = static_cast<double>(k);
  const double c = 0.7 - 0.8 / L + (4 + 32.0 / L) * std::pow(kd, -3.0 / L) / 15;
  const double sigma = c * std::sqrt(kVariance[L] / kd);
  const double fn = sum / kd;
  return Outcome{0, 1, {std::erfc(std::fabs(fn - kExpected[L]) / (std::sqrt(2.0) * sigma)), 0}};
}

Outcome DiscreteFourierTransformStat(const Sequence &b, Workspace &ws) {
  const uint64_t n = b.size();
  ws.fft.Prepare(n);
  double *x = ws.fft.data();
  const uint64_t *w = b.words();
  uint64_t i = 0;
  const auto &signs = SignTable();
  for (; i + 8 <= n; i += 8)
    std::memcpy(x + i, signs[(w[i >> 6] >> (56 - (i & 63))) & 0xFF].data(), 8 * sizeof(double));
  for (; i < n; ++i) x[i] = b.Bit(i) ? 1.0 : -1.0;
  ws.fft.Transform();
  // Moduli of F(0) .. F(n/2 - 1) below the 95 % peak height; squares avoid
  // a root per term.
  const double threshold = 2.995732274 * static_cast<double>(n);
  uint64_t below = n / 2 > 0 && std::fabs(x[0]) < std::sqrt(threshold) ? 1 : 0;
  for (uint64_t k = 1; k < n / 2; ++k) below += x[2 * k - 1] * x[2 * k - 1] + x[2 * k] * x[2 * k] < threshold;
  const double expected = 0.95 * static_cast<double>(n) / 2.0;
  const double d = (static_cast<double>(below) - expected) / std::sqrt(static_cast<double>(n) * 0.95 * 0.05 / 4.0);
  return Outcome{0, 1, {std::erfc(std::fabs(d) / std::sqrt(2.0)), 0}};
}

}  // namespace zeph::randtest
