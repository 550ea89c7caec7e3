// Every packed-word fast path against a slow byte-per-bit textbook model on
// random inputs of many lengths, including lengths that are not multiples
// of 8, 64 or the block size, and a few degenerate sequences.
#include <algorithm>
#include <cmath>
#include <complex>
#include <string>

#include <gtest/gtest.h>

#include "randtest/randtest.hpp"
#include "test_support.hpp"

namespace zeph::randtest {
namespace {

using Bits = std::vector<uint8_t>;  // one bit per byte

Bits RandomBits(size_t n, uint32_t seed) {
  Bits b = zeph_test::RandomBytes(n, seed);
  for (auto &v : b) v &= 1;
  return b;
}

Sequence Pack(const Bits &b) {
  Sequence s;
  s.AssignEpsilon(b.data(), b.size());
  return s;
}

double SumP(int64_t s, size_t len) { return std::erfc(std::fabs(double(s)) / std::sqrt(double(len)) / std::sqrt(2.0)); }
Outcome P(double p0) { return Outcome{0, 1, {p0, 0}}; }

// ---- Textbook models -----------------------------------------------------------

std::vector<uint64_t> CyclicCountsSlow(const Bits &b, unsigned m) {
  std::vector<uint64_t> c(size_t{1} << m);
  for (size_t i = 0; i < b.size(); ++i) {
    size_t v = 0;
    for (unsigned j = 0; j < m; ++j) v = v << 1 | b[(i + j) % b.size()];
    ++c[v];
  }
  return c;
}

Outcome SlowCusum(const Bits &b) {
  int64_t s = 0, hi = 0, lo = 0;
  for (uint8_t v : b) {
    s += v ? 1 : -1;
    hi = std::max(hi, s);
    lo = std::min(lo, s);
  }
  const auto p = [n = int64_t(b.size())](int64_t z) {
    double s1 = 0, s2 = 0;
    for (int64_t k = (-n / z + 1) / 4; k <= (n / z - 1) / 4; ++k)
      s1 += Normal(double((4 * k + 1) * z) / std::sqrt(double(n))) -
            Normal(double((4 * k - 1) * z) / std::sqrt(double(n)));
    for (int64_t k = (-n / z - 3) / 4; k <= (n / z - 1) / 4; ++k)
      s2 += Normal(double((4 * k + 3) * z) / std::sqrt(double(n))) -
            Normal(double((4 * k + 1) * z) / std::sqrt(double(n)));
    return 1 - s1 + s2;
  };
  return Outcome{0, 2, {p(std::max(hi, -lo)), p(std::max(hi - s, s - lo))}};
}

Outcome SlowLongestRun(const Bits &b) {
  const size_t n = b.size(), M = n < 6272 ? 8 : n < 750000 ? 128 : 10000;
  const unsigned first = M == 8 ? 1 : M == 128 ? 4 : 10, classes = M == 8 ? 4 : M == 128 ? 6 : 7;
  const double pi8[] = {0.21484375, 0.3671875, 0.23046875, 0.1875};
  const double pi128[] = {0.1174035788, 0.242955959, 0.249363483, 0.17517706, 0.102701071, 0.112398847};
  const double *pi = M == 8 ? pi8 : pi128;
  std::vector<double> nu(classes);
  for (size_t i = 0; i < n / M; ++i) {
    unsigned run = 0, best = 0;
    for (size_t j = 0; j < M; ++j) best = std::max(best, run = b[i * M + j] ? run + 1 : 0);
    ++nu[std::min(best <= first ? 0 : best - first, classes - 1)];
  }
  double chi2 = 0, N = double(n / M);
  for (unsigned i = 0; i < classes; ++i) chi2 += (nu[i] - N * pi[i]) * (nu[i] - N * pi[i]) / (N * pi[i]);
  return P(Igamc((classes - 1) / 2.0, chi2 / 2));
}

Outcome SlowRunsDistribution(const Bits &b) {
  const size_t n = b.size();
  unsigned k = 0;
  for (unsigned i = 1; (double(n) - i + 3) / std::ldexp(1.0, i + 2) >= 5; ++i) k = i;
  std::vector<double> ones(k + 1), zeros(k + 1);
  double runs = 0;
  for (size_t i = 0; i < n;) {
    size_t j = i;
    while (j < n && b[j] == b[i]) ++j;
    ++(b[i] ? ones : zeros)[std::min<size_t>(j - i, k)];
    ++runs;
    i = j;
  }
  double chi2 = 0;
  for (unsigned i = 1; i <= k; ++i) {
    const double e = i < k ? runs / std::ldexp(1.0, i + 1) : runs / std::ldexp(1.0, k);
    chi2 += ((ones[i] - e) * (ones[i] - e) + (zeros[i] - e) * (zeros[i] - e)) / e;
  }
  return P(Igamc(k - 1.0, chi2 / 2));
}

Outcome SlowDerivative(Bits b, unsigned k) {
  for (unsigned r = 0; r < k; ++r) {
    for (size_t i = 0; i + 1 < b.size(); ++i) b[i] ^= b[i + 1];
    b.pop_back();
  }
  int64_t s = 0;
  for (uint8_t v : b) s += v ? 1 : -1;
  return P(SumP(s, b.size()));
}

Outcome SlowUniversal(const Bits &b, unsigned L, double expected, double variance) {
  const size_t q = 10 << L, k = b.size() / L - q;
  std::vector<size_t> last(size_t{1} << L);
  auto block = [&](size_t i) {
    size_t v = 0;
    for (unsigned j = 0; j < L; ++j) v = v << 1 | b[(i - 1) * L + j];
    return v;
  };
  for (size_t i = 1; i <= q; ++i) last[block(i)] = i;
  double sum = 0;
  for (size_t i = q + 1; i <= q + k; ++i) {
    sum += std::log(double(i - last[block(i)])) / std::log(2.0);
    last[block(i)] = i;
  }
  const double c = 0.7 - 0.8 / L + (4 + 32.0 / L) * std::pow(double(k), -3.0 / L) / 15;
  return P(std::erfc(std::fabs(sum / k - expected) / (std::sqrt(2.0) * c * std::sqrt(variance / k))));
}

Outcome SlowDft(const Bits &b) {
  const size_t n = b.size();
  size_t below = 0;
  for (size_t k = 0; k < n / 2; ++k) {
    std::complex<double> f = 0;
    for (size_t j = 0; j < n; ++j)
      f += (b[j] ? 1.0 : -1.0) * std::polar(1.0, -2 * M_PI * double((j * k) % n) / double(n));
    below += std::abs(f) < std::sqrt(2.995732274 * n);
  }
  return P(std::erfc(std::fabs((below - 0.95 * n / 2) / std::sqrt(n * 0.95 * 0.05 / 4)) / std::sqrt(2.0)));
}

void ExpectSame(const Outcome &fast, const Outcome &slow, const std::string &what) {
  ASSERT_EQ(fast.p_count, slow.p_count) << what;
  for (int i = 0; i < fast.p_count; ++i) {
    EXPECT_NEAR(fast.p[i], slow.p[i], 1e-12 + 1e-12 * std::fabs(slow.p[i])) << what << " P" << i + 1;
  }
}

// Random sequences of awkward lengths, plus all ones and 0101...
std::vector<Bits> Inputs() {
  std::vector<Bits> in;
  for (size_t n : {38, 63, 64, 65, 127, 128, 129, 200, 1023, 1031, 4097, 6271, 6300, 20011})
    in.push_back(RandomBits(n, uint32_t(n)));
  in.push_back(Bits(3000, 1));
  Bits alternating(2500);
  for (size_t i = 0; i < alternating.size(); ++i) alternating[i] = i & 1;
  in.push_back(alternating);
  return in;
}

TEST(FastPaths, PackingFromBytesAndFromBitsAgree) {
  const auto bytes = zeph_test::RandomBytes(37, 9);
  Bits eps;
  for (uint8_t v : bytes)
    for (int j = 7; j >= 0; --j) eps.push_back(((v >> j) & 1) * (j + 1));  // any non-zero byte is a one
  Sequence a, b;
  a.AssignBytes(bytes.data(), bytes.size());
  b.AssignEpsilon(eps.data(), eps.size());
  ASSERT_EQ(a.size(), 296u);
  EXPECT_TRUE(std::equal(a.words(), a.words() + 7, b.words()));
  for (uint64_t from : {0, 1, 63, 64, 100})
    for (uint64_t to : {from, from + 1, uint64_t(150), uint64_t(296)}) {
      uint64_t ones = 0;
      for (uint64_t i = from; i < to; ++i) ones += eps[i] != 0;
      EXPECT_EQ(a.Ones(from, to), ones) << from << ".." << to;
    }
}

TEST(FastPaths, LinearComplexityAgainstTextbookBerlekampMassey) {
  Workspace ws;
  for (unsigned M : {1, 2, 13, 63, 64, 65, 130, 500, 777}) {
    const unsigned blocks = M < 100 ? 70 : 3;  // a partial group of 64 too
    Bits b = RandomBits(size_t(M) * blocks + 5, M);
    for (unsigned i = 0; i < M; ++i) b[i] = 0;  // an all-zero block: L = 0
    const Sequence s = Pack(b);
    std::vector<uint16_t> got(64);
    for (unsigned g = 0; g < blocks; g += 64) {
      const unsigned count = std::min(64u, blocks - g);
      BlockComplexities(s, M, g, count, ws, got.data());
      for (unsigned i = 0; i < count; ++i)
        ASSERT_EQ(got[i], TextbookLinearComplexity(&b[size_t(g + i) * M], int(M)))
            << "M = " << M << ", block " << g + i;
    }
  }
}

TEST(FastPaths, RankAgainstByteMatrixElimination) {
  unsigned char **m = create_matrix(32, 32);
  ASSERT_NE(m, nullptr);
  for (uint32_t seed = 0; seed < 300; ++seed) {
    // Sparse and low-rank matrices as well as random ones.
    const auto bytes = zeph_test::RandomBytes(128 + 32, seed);
    uint32_t rows[32];
    for (int i = 0; i < 32; ++i) {
      rows[i] =
          uint32_t(bytes[4 * i]) << 24 | uint32_t(bytes[4 * i + 1]) << 16 | bytes[4 * i + 2] << 8 | bytes[4 * i + 3];
      if (seed % 3 == 1) rows[i] &= rows[i] >> 3 & rows[i] << 5;
      if (seed % 3 == 2 && i >= 20) rows[i] = rows[i - 7] ^ rows[i - 13];
      for (int j = 0; j < 32; ++j) m[i][j] = rows[i] >> (31 - j) & 1;
    }
    const int slow = computeRank(32, 32, m);
    ASSERT_EQ(Rank32(rows), slow) << "seed " << seed;
  }
  delete_matrix(32, m);
}

TEST(FastPaths, StatisticsAgainstByteModels) {
  Workspace ws;
  for (const Bits &b : Inputs()) {
    const Sequence s = Pack(b);
    const std::string n = "n = " + std::to_string(b.size()) + " ";
    int64_t sum = 0;
    for (uint8_t v : b) sum += v ? 1 : -1;
    ExpectSame(FrequencyStat(s), P(SumP(sum, b.size())), n + "frequency");
    ExpectSame(CumulativeSumsStat(s), SlowCusum(b), n + "cusum");
    if (b.size() >= 128) ExpectSame(LongestRunOfOnesStat(s), SlowLongestRun(b), n + "longest run");
    ExpectSame(RunsDistributionStat(s, ws), SlowRunsDistribution(b), n + "runs distribution");
    for (unsigned k : {1u, 3u, 7u, 37u})
      ExpectSame(BinaryDerivativeStat(s, k, ws), SlowDerivative(b, k), n + "derivative");
    for (unsigned d : {1u, 2u, 16u, 63u, 64u, 65u}) {
      if (d >= b.size()) continue;
      int64_t a = 0;
      for (size_t i = 0; i + d < b.size(); ++i) a += b[i] ^ b[i + d];
      const double v = (2.0 * a - double(b.size() - d)) / std::sqrt(double(b.size() - d));
      ExpectSame(AutoCorrelationStat(s, d), P(std::erfc(std::fabs(v) / std::sqrt(2.0))), n + "autocorrelation");
    }
    for (unsigned m : {9u, 6u, 3u, 1u}) {
      // Counts served from a wider cached count must equal direct ones.
      EXPECT_EQ(CyclicCounts(s, m, ws), CyclicCountsSlow(b, m)) << n << "m = " << m;
    }
    for (uint64_t M : {3u, 64u, 100u}) {
      if (b.size() < M) continue;
      double chi = 0;
      for (size_t i = 0; i < b.size() / M; ++i) {
        double ones = 0;
        for (size_t j = 0; j < M; ++j) ones += b[i * M + j];
        chi += (ones / double(M) - 0.5) * (ones / double(M) - 0.5);
      }
      ExpectSame(BlockFrequencyStat(s, M), P(Igamc(double(b.size() / M) / 2, 4.0 * M * chi / 2)),
                 n + "block frequency");
    }
    if (b.size() <= 2100) ExpectSame(DiscreteFourierTransformStat(s, ws), SlowDft(b), n + "spectral");
  }
}

TEST(FastPaths, UniversalAgainstByteModel) {
  const Bits b = RandomBits(387840 + 4099, 77);  // L = 6, not a multiple of 6 or 64
  Workspace ws;
  ExpectSame(UniversalStat(Pack(b), ws), SlowUniversal(b, 6, 5.2177052, 2.954), "universal");
}

}  // namespace
}  // namespace zeph::randtest
