// The tests that count ones, changes and partial sums: frequency, block
// frequency, runs, cumulative sums, autocorrelation, binary derivative. All
// work on whole 64-bit words.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

Outcome One(double p) { return Outcome{0, 1, {p, 0}}; }

// erfc(|S| / sqrt(len) / sqrt 2) for S = ones - zeros.
double SumP(uint64_t ones, uint64_t len) {
  const double s = 2.0 * static_cast<double>(ones) - static_cast<double>(len);
  return std::erfc(std::fabs(s) / std::sqrt(static_cast<double>(len)) / std::sqrt(2.0));
}

// Per byte (first bit most significant): the change of the partial sum and
// its highest and lowest value after each of the eight steps.
struct ByteWalk {
  int8_t net, high, low;
};

constexpr std::array<ByteWalk, 256> MakeByteWalks() {
  std::array<ByteWalk, 256> t{};
  for (int b = 0; b < 256; ++b) {
    int s = 0, high = -8, low = 8;
    for (int i = 7; i >= 0; --i) {
      s += (b >> i) & 1 ? 1 : -1;
      high = s > high ? s : high;
      low = s < low ? s : low;
    }
    t[b] = {static_cast<int8_t>(s), static_cast<int8_t>(high), static_cast<int8_t>(low)};
  }
  return t;
}
constexpr std::array<ByteWalk, 256> kByteWalks = MakeByteWalks();

// 1 - sum1 + sum2 over the truncating-division bounds of the reference
// code. Terms whose two arguments are both beyond +-40 are exactly zero in
// double precision and are skipped, so the loops stay O(sqrt n) whatever z.
double CusumP(uint64_t n, int64_t z) {
  const auto nn = static_cast<int64_t>(n);
  const double root = std::sqrt(static_cast<double>(n));
  const int64_t reach = static_cast<int64_t>(40.0 * root / static_cast<double>(z) / 4.0) + 2;
  auto term = [&](int64_t k, int a, int b) {
    return Normal(static_cast<double>((4 * k + a) * z) / root) - Normal(static_cast<double>((4 * k + b) * z) / root);
  };
  double sum1 = 0.0;
  for (int64_t k = std::max((-nn / z + 1) / 4, -reach); k <= std::min((nn / z - 1) / 4, reach); ++k) {
    sum1 += term(k, 1, -1);
  }
  double sum2 = 0.0;
  for (int64_t k = std::max((-nn / z - 3) / 4, -reach); k <= std::min((nn / z - 1) / 4, reach); ++k) {
    sum2 += term(k, 3, 1);
  }
  return 1.0 - sum1 + sum2;
}

}  // namespace

Outcome FrequencyStat(const Sequence &b) { return One(SumP(b.Ones(0, b.size()), b.size())); }

Outcome BlockFrequencyStat(const Sequence &b, uint64_t M) {
  const uint64_t blocks = b.size() / M;
  double sum = 0.0;
  for (uint64_t i = 0; i < blocks; ++i) {
    const double v = static_cast<double>(b.Ones(i * M, (i + 1) * M)) / static_cast<double>(M) - 0.5;
    sum += v * v;
  }
  const double chi2 = 4.0 * static_cast<double>(M) * sum;
  return One(Igamc(static_cast<double>(blocks) / 2.0, chi2 / 2.0));
}

Outcome RunsStat(const Sequence &b) {
  const double n = static_cast<double>(b.size());
  const double pi = static_cast<double>(b.Ones(0, b.size())) / n;
  // Too far from balanced for the runs count to mean anything.
  if (std::fabs(pi - 0.5) > 2.0 / std::sqrt(n)) return Outcome{ZEPH_RANDTEST_FAIL_RUNS, 0, {0, 0}};
  const double runs = 1.0 + static_cast<double>(b.Differences(1));
  const double spread = 2.0 * std::sqrt(2.0 * n) * pi * (1.0 - pi);
  return One(std::erfc(std::fabs(runs - 2.0 * n * pi * (1.0 - pi)) / spread));
}

Outcome CumulativeSumsStat(const Sequence &b) {
  const uint64_t n = b.size();
  int64_t s = 0, high = 0, low = 0;
  const uint64_t bytes = n / 8;
  const uint64_t *w = b.words();
  for (uint64_t i = 0; i < bytes; ++i) {
    const ByteWalk &step = kByteWalks[(w[i >> 3] >> (56 - 8 * (i & 7))) & 0xFF];
    high = std::max(high, s + step.high);
    low = std::min(low, s + step.low);
    s += step.net;
  }
  for (uint64_t i = bytes * 8; i < n; ++i) {
    s += b.Bit(i) ? 1 : -1;
    high = std::max(high, s);
    low = std::min(low, s);
  }
  const int64_t forward = std::max(high, -low);
  const int64_t backward = std::max(high - s, s - low);
  return Outcome{0, 2, {CusumP(n, forward), CusumP(n, backward)}};
}

Outcome AutoCorrelationStat(const Sequence &b, uint64_t d) {
  const double len = static_cast<double>(b.size() - d);
  const double v = (2.0 * static_cast<double>(b.Differences(d)) - len) / std::sqrt(len);
  return One(std::erfc(std::fabs(v) / std::sqrt(2.0)));
}

// The k-th derivative bit i is the xor of bits i + j over the j whose
// binomial coefficient C(k, j) is odd, that is over the j inside k's bits:
// one shifted xor per set bit of k, O(n log k) for any k.
Outcome BinaryDerivativeStat(const Sequence &b, uint64_t k, Workspace &ws) {
  const uint64_t n = b.size();
  ws.bits.assign(b.words(), b.words() + n / 64 + 3);
  uint64_t *x = ws.bits.data();
  auto window = [x](uint64_t pos) {
    const uint64_t *p = x + (pos >> 6);
    const unsigned s = pos & 63;
    return (p[0] << s) | ((p[1] >> 1) >> (63 - s));
  };
  uint64_t len = n;
  for (uint64_t rest = k; rest != 0; rest &= rest - 1) {
    const uint64_t shift = rest & (~rest + 1);
    len -= shift;
    const uint64_t words = (len + 63) / 64;
    for (uint64_t i = 0; i < words; ++i) x[i] ^= window(i * 64 + shift);
    // Clear what lies past the new length, so later shifts read zeros.
    if (len % 64 != 0) x[words - 1] &= ~uint64_t{0} << (64 - len % 64);
    for (uint64_t i = words; i < n / 64 + 3; ++i) x[i] = 0;
  }
  uint64_t ones = 0;
  for (uint64_t i = 0; i < (len + 63) / 64; ++i) ones += Popcount(x[i]);
  return One(SumP(ones, len));
}

}  // namespace zeph::randtest
