// The special functions against closed forms and against values computed
// offline in 40-digit arithmetic (mpmath), and the real FFT against the
// definition for every length up to 300 and for lengths with large primes.
#include <atomic>
#include <cmath>
#include <complex>
#include <thread>

#include <gtest/gtest.h>

#include "randtest/fft.hpp"
#include "randtest/randtest.hpp"
#include "test_support.hpp"

namespace zeph::randtest {
namespace {

double Rel(double got, double want) { return std::fabs(got - want) / std::fabs(want); }

TEST(Numerics, IncompleteGammaClosedForms) {
  for (double x : {1e-6, 0.01, 0.3, 1.0, 2.5, 7.0, 30.0, 200.0}) {
    SCOPED_TRACE(x);
    EXPECT_LT(Rel(Igamc(1, x), std::exp(-x)), 1e-13);
    EXPECT_LT(Rel(Igamc(0.5, x), std::erfc(std::sqrt(x))), 1e-12);
    // Integer a: Q(n, x) = e^-x sum_{k<n} x^k / k!; half-integers add terms
    // x^(k+1/2) e^-x / Gamma(k + 3/2) to erfc(sqrt x).
    double term = 1, sum = 0, half = std::erfc(std::sqrt(x)), hterm = std::sqrt(x) / std::tgamma(1.5);
    for (int n = 1; n <= 12; ++n) {
      sum += term;
      term *= x / n;
      EXPECT_LT(Rel(Igamc(n, x), std::exp(-x) * sum), 1e-12) << "n = " << n;
      half += std::exp(-x) * hterm;
      hterm *= x / (n + 0.5);
      EXPECT_LT(Rel(Igamc(n + 0.5, x), half), 1e-12) << "n + 1/2 = " << n + 0.5;
      EXPECT_LT(std::fabs(Igam(n, x) + Igamc(n, x) - 1), 4e-15);
    }
  }
  // The reference code's domain: Q is 1 and P is 0 off the positive axis;
  // NaN stays NaN (and so never passes a test).
  EXPECT_EQ(cephes_igamc(0, 3), 1.0);
  EXPECT_EQ(cephes_igamc(2, -1), 1.0);
  EXPECT_EQ(cephes_igam(2, 0), 0.0);
  EXPECT_TRUE(std::isnan(cephes_igamc(2, NAN)));
  EXPECT_EQ(cephes_igamc(3, INFINITY), 0.0);
}

TEST(Numerics, IncompleteGammaAgainstArbitraryPrecision) {
  // a, x = a + c sqrt(a) for c = -3 .. 6, Q(a, x) to 17 digits.
  struct Value {
    double a, x, q;
  };
  // clang-format off
  const Value values[] = {
      {0.5, 2.6213203435596426, 0.022039795281218252}, {2.5, 11.986832980505138, 0.00021965739051698328},
      {12, 1.6076951545867362, 0.99999985788757561},   {12, 32.784609690826528, 1.0039490153270345e-5},
      {31.5, 25.887513919839088, 0.84281199302298137}, {31.5, 65.174916480965472, 1.3210452881726892e-6},
      {127.5, 127.5, 0.48822252177040634},             {127.5, 195.24953874381729, 9.547102943681571e-8},
      {512, 444.11774900609144, 0.99912294733544943},  {512, 534.62741699796952, 0.15857888426150218},
      {2047.5, 2002.2506906130049, 0.84136475720625731}, {2047.5, 2318.9958563219704, 4.1836999501094804e-9},
      {5000, 4787.8679656440357, 0.99881229870579591}, {5000, 5000.0, 0.49811936596618264},
      {5000, 5212.1320343559643, 0.0015218423714427073}, {10000, 9700.0, 0.99876582441553151},
      {10000, 9900.0, 0.84134880780643534},            {10000, 10000.0, 0.4986701916600448},
      {10000, 10100.0, 0.15865124955282038},           {10000, 10600.0, 1.9621924821330469e-9},
  };
  // clang-format on
  for (const Value &v : values) {
    EXPECT_LT(Rel(cephes_igamc(v.a, v.x), v.q), 1e-12) << "a = " << v.a << ", x = " << v.x;
    EXPECT_LT(std::fabs(cephes_igam(v.a, v.x) - (1 - v.q)), 1e-14) << "a = " << v.a << ", x = " << v.x;
  }
}

TEST(Numerics, LogGammaWithoutTheSignGlobal) {
  const std::pair<double, double> values[] = {
      {0.5, 0.57236494292470008707}, {1.5, -0.12078223763524522235}, {2.75, 0.47521466691493713031},
      {7.25, 7.0521854507385394449}, {13, 19.98721449566188615},     {100.5, 361.43554046777762156},
      {1e4, 82099.717496442377273},  {1e6, 12815504.56914761166},
  };
  for (const auto &[x, want] : values)
    EXPECT_LT(std::fabs(cephes_lgam(x) - want), 4e-15 * std::fmax(1, std::fabs(want)));
  EXPECT_LT(std::fabs(cephes_lgam(1)), 4e-15);
  EXPECT_LT(std::fabs(cephes_lgam(2)), 4e-15);
  EXPECT_LT(std::fabs(cephes_lgam(-2.5) - std::log(std::fabs(std::tgamma(-2.5)))), 1e-14);
  EXPECT_TRUE(std::isinf(cephes_lgam(-3)));
  // Threads hammering lgam and igamc see the serial values.
  const double want = cephes_igamc(40.5, 37.25);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) wrong += cephes_igamc(40.5, 37.25) != want || cephes_lgam(-2.5) > 0;
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(Numerics, NormalAndPolynomials) {
  EXPECT_EQ(cephes_normal(0), 0.5);
  EXPECT_NEAR(cephes_normal(1.959963984540054), 0.975, 1e-15);
  EXPECT_NEAR(cephes_normal(-8), 6.22096057427178e-16, 1e-28);  // no cancellation in the tail
  const double c[] = {2, -3, 5};                                // 2x^2 - 3x + 5
  EXPECT_EQ(cephes_polevl(2, c, 2), 7);
  EXPECT_EQ(cephes_p1evl(2, c, 3), 8 + 2 * 4 - 3 * 2 + 5);  // x^3 + 2x^2 - 3x + 5
  EXPECT_TRUE(std::isnan(cephes_polevl(2, nullptr, 2)));
}

// F(k) for k <= n/2 from the halfcomplex layout.
std::complex<double> Term(const std::vector<double> &r, size_t k) {
  const size_t n = r.size();
  if (k == 0) return r[0];
  if (2 * k == n) return r[n - 1];
  return {r[2 * k - 1], r[2 * k]};
}

double WorstError(const std::vector<double> &x, const std::vector<double> &r) {
  const size_t n = x.size();
  std::vector<std::complex<long double>> roots(n);
  for (size_t t = 0; t < n; ++t) roots[t] = std::polar(1.0L, -2 * M_PIl * t / n);
  double worst = 0;
  for (size_t k = 0; k <= n / 2; ++k) {
    std::complex<long double> sum = 0;
    for (size_t j = 0, t = 0; j < n; ++j, t = (t + k) % n) sum += static_cast<long double>(x[j]) * roots[t];
    const auto got = Term(r, k);
    worst = std::fmax(worst, std::abs(std::complex<double>(got.real() - static_cast<double>(sum.real()),
                                                           got.imag() - static_cast<double>(sum.imag()))));
  }
  return worst / std::sqrt(static_cast<double>(n));
}

TEST(Fft, EveryLengthAgainstTheDefinition) {
  std::vector<size_t> lengths;
  for (size_t n = 1; n <= 300; ++n) lengths.push_back(n);
  // Large prime factors (Bluestein), alone and with small ones.
  for (size_t n : {1009, 2 * 541, 8 * 131, 3 * 5 * 67, 1024, 7 * 11 * 13}) lengths.push_back(n);
  for (size_t n : lengths) {
    const auto bytes = zeph_test::RandomBytes(n, static_cast<uint32_t>(n));
    std::vector<double> x(n), r(n), wsave(2 * n);
    for (size_t i = 0; i < n; ++i) x[i] = bytes[i] & 1 ? 1.0 : -1.0;
    r = x;
    int ifac[15];
    __ogg_fdrffti(static_cast<int>(n), wsave.data(), ifac);
    __ogg_fdrfftf(static_cast<int>(n), r.data(), wsave.data(), ifac);
    ASSERT_LT(WorstError(x, r), 1e-13) << "n = " << n;
  }
}

TEST(Fft, FftpackFactorsAndPlanChecks) {
  int ifac[15] = {};
  std::vector<double> wsave(2 * 2 * 4 * 7 * 1009);
  __ogg_fdrffti(1200, wsave.data(), ifac);  // 4s, then 3, then 5s
  EXPECT_EQ(ifac[0], 1200);
  EXPECT_EQ(std::vector<int>(ifac + 1, ifac + 2 + ifac[1]), (std::vector<int>{5, 4, 4, 3, 5, 5}));
  __ogg_fdrffti(2 * 4 * 7 * 1009, wsave.data(), ifac);  // the lone 2 goes first
  EXPECT_EQ(std::vector<int>(ifac + 1, ifac + 2 + ifac[1]), (std::vector<int>{4, 2, 4, 7, 1009}));
  // A plan for another length leaves NaN instead of reading past the arrays.
  std::vector<double> r(600, 1.0);
  __ogg_fdrffti(1200, wsave.data(), ifac);
  __ogg_fdrfftf(600, r.data(), wsave.data(), ifac);
  EXPECT_TRUE(std::isnan(r[0]));
  EXPECT_EQ(FftFactors(2 * 3 * 999983), (std::vector<size_t>{2, 3, 999983}));
}

}  // namespace
}  // namespace zeph::randtest
