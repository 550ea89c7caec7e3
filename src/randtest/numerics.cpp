// Special functions for the P-values: the regularised incomplete gamma
// functions by their power series and continued fraction, ln Gamma by
// Stirling's series, erf/erfc from libm. Nothing here writes global state
// (libm's lgamma sets signgam), so the tests run on any number of threads.
#include <cmath>
#include <limits>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

constexpr double kMachEp = 1.11022302462515654042e-16;  // 2^-53
constexpr double kMaxLog = 7.09782712893383996843e2;    // ln(DBL_MAX)
constexpr double kBig = 4.503599627370496e15;           // 2^52
constexpr double kBigInv = 2.22044604925031308085e-16;  // 2^-52
constexpr double kHalfLogTwoPi = 0.91893853320467274178;
constexpr double kPi = 3.14159265358979323846;
// Bounds the loops for arguments far outside the tests' use (a up to 2^20).
constexpr int kMaxIterations = 100000000;

// ln Gamma(x) - ((x - 1/2) ln x - x + ln sqrt(2 pi)) for x >= 10, below
// 1e-17 absolute after these terms.
double StirlingCorrection(double x) {
  const double r = 1.0 / x, r2 = r * r;
  return r * (1.0 / 12 +
              r2 * (-1.0 / 360 +
                    r2 * (1.0 / 1260 + r2 * (-1.0 / 1680 + r2 * (1.0 / 1188 + r2 * (-691.0 / 360360 + r2 / 156))))));
}

// x^a e^-x / Gamma(a). For large a the exponent is formed as
// a (log1p(t) - t) with t = (x - a) / a, which keeps its absolute error near
// sqrt(a) ulps instead of a ulps.
double PowerOverGamma(double a, double x) {
  if (a < 10) {
    const double ax = a * std::log(x) - x - Lgam(a);
    return ax < -kMaxLog ? 0.0 : std::exp(ax);
  }
  const double t = (x - a) / a;
  const double ax = a * (std::log1p(t) - t) - StirlingCorrection(a);
  return ax < -kMaxLog ? 0.0 : std::sqrt(a / (2 * kPi)) * std::exp(ax);
}

// P(a, x) by its power series; for x <= max(a, 1).
double IgamSeries(double a, double x) {
  const double ax = PowerOverGamma(a, x);
  if (ax == 0) return 0.0;
  double r = a, c = 1.0, ans = 1.0;
  for (int i = 0; i < kMaxIterations; ++i) {
    r += 1.0;
    c *= x / r;
    ans += c;
    if (!(c / ans > kMachEp)) break;
  }
  return ans * ax / a;
}

// Q(a, x) by its continued fraction; for x >= max(a, 1).
double IgamcFraction(double a, double x) {
  const double ax = PowerOverGamma(a, x);
  if (ax == 0) return 0.0;
  double y = 1.0 - a, z = x + y + 1.0, c = 0.0;
  double pkm2 = 1.0, qkm2 = x, pkm1 = x + 1.0, qkm1 = z * x;
  double ans = pkm1 / qkm1;
  for (int i = 0; i < kMaxIterations; ++i) {
    c += 1.0;
    y += 1.0;
    z += 2.0;
    const double yc = y * c;
    const double pk = pkm1 * z - pkm2 * yc;
    const double qk = qkm1 * z - qkm2 * yc;
    double t = 1.0;
    if (qk != 0) {
      const double r = pk / qk;
      t = std::fabs((ans - r) / r);
      ans = r;
    }
    pkm2 = pkm1;
    pkm1 = pk;
    qkm2 = qkm1;
    qkm1 = qk;
    if (std::fabs(pk) > kBig) {
      pkm2 *= kBigInv;
      pkm1 *= kBigInv;
      qkm2 *= kBigInv;
      qkm1 *= kBigInv;
    }
    if (!(t > kMachEp)) break;
  }
  return ans * ax;
}

}  // namespace

double Lgam(double x) {
  if (std::isnan(x)) return x;
  if (std::isinf(x)) return std::numeric_limits<double>::infinity();
  if (x <= 0 && x == std::floor(x)) return std::numeric_limits<double>::infinity();
  if (x < 0.5) {
    // Reflection: Gamma(x) Gamma(1 - x) = pi / sin(pi x).
    return std::log(kPi / std::fabs(std::sin(kPi * x))) - Lgam(1.0 - x);
  }
  double shift = 1.0;
  while (x < 10) {
    shift *= x;
    x += 1.0;
  }
  return (x - 0.5) * std::log(x) - x + kHalfLogTwoPi + StirlingCorrection(x) - std::log(shift);
}

double Igam(double a, double x) {
  if (std::isnan(a) || std::isnan(x)) return std::numeric_limits<double>::quiet_NaN();
  if (x <= 0 || a <= 0) return 0.0;
  if (std::isinf(x)) return 1.0;
  if (x > 1.0 && x > a) return 1.0 - Igamc(a, x);
  return IgamSeries(a, x);
}

double Igamc(double a, double x) {
  if (std::isnan(a) || std::isnan(x)) return std::numeric_limits<double>::quiet_NaN();
  if (x <= 0 || a <= 0) return 1.0;
  if (std::isinf(x)) return 0.0;
  if (x < 1.0 || x < a) return 1.0 - Igam(a, x);
  return IgamcFraction(a, x);
}

double Normal(double x) { return 0.5 * std::erfc(-x / std::sqrt(2.0)); }

}  // namespace zeph::randtest

using namespace zeph::randtest;

extern "C" {

ZEPH_API double cephes_igamc(double a, double x) { return Igamc(a, x); }
ZEPH_API double cephes_igam(double a, double x) { return Igam(a, x); }
ZEPH_API double cephes_lgam(double x) { return Lgam(x); }
ZEPH_API double cephes_erf(double x) { return std::erf(x); }
ZEPH_API double cephes_erfc(double x) { return std::erfc(x); }
ZEPH_API double cephes_normal(double x) { return Normal(x); }

ZEPH_API double cephes_polevl(double x, const double *coef, int N) {
  if (coef == nullptr || N < 0) return std::numeric_limits<double>::quiet_NaN();
  double ans = coef[0];
  for (int i = 1; i <= N; ++i) ans = ans * x + coef[i];
  return ans;
}

ZEPH_API double cephes_p1evl(double x, const double *coef, int N) {
  if (N == 0) return 1.0;
  if (coef == nullptr || N < 0) return std::numeric_limits<double>::quiet_NaN();
  double ans = x + coef[0];
  for (int i = 1; i < N; ++i) ans = ans * x + coef[i];
  return ans;
}

}  // extern "C"
