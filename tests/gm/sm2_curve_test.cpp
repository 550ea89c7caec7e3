// SM2 curve arithmetic against OpenSSL's BN/EC on edge and random scalars and
// points, in every field build this machine runs; and the constant-time check
// that the valgrind test runs under memcheck.
#include "gm/sm2_curve.hpp"

#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include <openssl/rand.h>

#include <gtest/gtest.h>

#include "gm/sm2_field.hpp"
#include "sm2_oracle.hpp"
#include "test_support.hpp"

#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#else
#define VALGRIND_MAKE_MEM_UNDEFINED(p, n) ((void)(p), (void)(n))
#define VALGRIND_MAKE_MEM_DEFINED(p, n)   ((void)(p), (void)(n))
#define RUNNING_ON_VALGRIND               0
#endif

namespace sm2 = zeph::gm::sm2;
namespace fp = zeph::gm::sm2::fp;
using sm2_oracle::Ref;
using sm2_oracle::Same;

namespace {

sm2::Scalar Small(uint64_t v) {
  sm2::Scalar k{};
  for (int i = 0; i < 8; ++i) k.b[31 - i] = static_cast<uint8_t>(v >> (8 * i));
  return k;
}

sm2::Scalar Random() {
  sm2::Scalar k;
  RAND_bytes(k.b, sizeof k.b);
  return k;
}

// n + d for small signed d, as 32 bytes (wrapping past 2^256).
sm2::Scalar NPlus(int d) {
  sm2::Scalar k = sm2::OrderN();
  int carry = d;
  for (int i = 31; i >= 0 && carry != 0; --i) {
    const int v = k.b[i] + carry;
    k.b[i] = static_cast<uint8_t>(v & 0xFF);
    carry = v >> 8;
  }
  return k;
}

sm2::Scalar Filled(uint8_t top, uint8_t rest) {
  sm2::Scalar k;
  std::memset(k.b, rest, sizeof k.b);
  k.b[0] = top;
  return k;
}

// 0, 1, 2, n − 1, n − 2, n, n + 1, values past n up to 2^256 − 1, the
// sums that make a window ladder's last addition a doubling (n − 2m), small
// even values, and random ones.
const std::vector<sm2::Scalar> &EdgeScalars() {
  static const std::vector<sm2::Scalar> edges = [] {
    std::vector<sm2::Scalar> v = {Small(0),           Small(1),           Small(2),           Small(3),
                                  NPlus(-1),          NPlus(0),           NPlus(1),           NPlus(2),
                                  Filled(0xFF, 0xFF), Filled(0x80, 0x00), Filled(0xFF, 0x00), Filled(0x00, 0xFF),
                                  Small(~uint64_t{0})};
    for (int m = 1; m <= 17; ++m) {
      v.push_back(NPlus(-2 * m));
      v.push_back(Small(2 * m));
    }
    for (int i = 0; i < 8; ++i) v.push_back(Random());
    return v;
  }();
  return edges;
}

// G, −G, points whose x or y starts with a zero byte, a random point.
const std::vector<sm2::Point> &EdgePoints() {
  static const std::vector<sm2::Point> points = [] {
    const sm2::Scalar minus_one = NPlus(-1), r = Random();
    std::vector<sm2::Point> v = {sm2::BaseG(), *Ref().Mul(&minus_one, nullptr, nullptr),
                                 *Ref().Mul(&r, nullptr, nullptr)};
    bool x_zero = false, y_zero = false;
    for (uint64_t i = 1; !(x_zero && y_zero); ++i) {
      const sm2::Scalar k = Small(i);
      const sm2::Point p = *Ref().Mul(&k, nullptr, nullptr);
      if (!x_zero && p.x[0] == 0) v.push_back(p), x_zero = true;
      if (!y_zero && p.y[0] == 0) v.push_back(p), y_zero = true;
    }
    return v;
  }();
  return points;
}

// Runs fn once per field build: the portable one, and the assembly where the
// CPU runs it (always under valgrind, which emulates it).
void ForEachBuild(const std::function<void()> &fn) {
  const fp::Build before = fp::ActiveBuild();
  std::vector<fp::Build> builds = {fp::Build::kPortable};
#if defined(ZEPH_SM2_HAVE_ADX)
  if (fp::AdxAvailable() || RUNNING_ON_VALGRIND) builds.push_back(fp::Build::kAdx);
#endif
  for (fp::Build b : builds) {
    SCOPED_TRACE(b == fp::Build::kAdx ? "assembly build" : "portable build");
    fp::PinBuild(b);
    fn();
  }
  fp::PinBuild(before);
}

// Memcheck reports any branch or address that depends on a secret value.
void MarkSecret(void *p, size_t n) { VALGRIND_MAKE_MEM_UNDEFINED(p, n); }
void MarkPublic(void *p, size_t n) { VALGRIND_MAKE_MEM_DEFINED(p, n); }
template <class... T>
void Secret(T &...x) {
  (MarkSecret(&x, sizeof x), ...);
}
template <class... T>
void Public(T &...x) {
  (MarkPublic(&x, sizeof x), ...);
}

void ExpectPoint(bool ok, const sm2::Point &got, const std::optional<sm2::Point> &want) {
  ASSERT_EQ(ok, want.has_value());
  if (ok) {
    EXPECT_TRUE(Same(got, *want));
  }
}

}  // namespace

// Each test runs in a fresh process, so here the base tables are built while
// four threads already want them.
TEST(Sm2Curve, BaseTablesSurviveConcurrentFirstUse) {
  std::vector<sm2::Scalar> k(4);
  std::vector<sm2::Point> got(4);
  std::vector<char> ok(4);
  for (sm2::Scalar &v : k) v = Random();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { ok[i] = sm2::MulBase(k[i], &got[i]); });
  for (std::thread &t : threads) t.join();
  for (int i = 0; i < 4; ++i) ExpectPoint(ok[i] != 0, got[i], Ref().Mul(&k[i], nullptr, nullptr));
}

TEST(Sm2Curve, MultiplesAndPublicCombinationsMatchOpenSsl) {
  ForEachBuild([] {
    const std::vector<sm2::Scalar> &e = EdgeScalars();
    const std::vector<sm2::Point> &pts = EdgePoints();
    sm2::Point got;
    for (const sm2::Scalar &k : e) ExpectPoint(sm2::MulBase(k, &got), got, Ref().Mul(&k, nullptr, nullptr));
    for (size_t pi = 0; pi < pts.size(); ++pi) {
      const sm2::Point &p = pts[pi];
      // Every scalar on ±G, a sample on the points with short coordinates;
      // with P = G the partners also cancel (t = n − s) and double (t = s).
      for (size_t i = 0; i < e.size(); i += pi < 2 ? 1 : 4) {
        ExpectPoint(sm2::Mul(e[i], p, &got), got, Ref().Mul(nullptr, &p, &e[i]));
        std::vector<sm2::Scalar> partners = {e[(i * 7 + 3) % e.size()], Small(0)};
        if (pi == 0) partners.insert(partners.end(), {e[i], *Ref().Mod('-', Small(0), e[i])});
        for (const sm2::Scalar &t : partners) {
          const std::optional<sm2::Point> want = Ref().Mul(&e[i], &p, &t);
          ExpectPoint(sm2::MulBaseAdd(e[i], t, p, &got), got, want);
          if (&t != &partners[0]) continue;
          if (!want) {
            EXPECT_FALSE(sm2::MulBaseAddXModN(e[i], t, p, Small(0)));
            continue;
          }
          sm2::Scalar x_mod_n, other;
          sm2::Reduce(want->x, &x_mod_n);
          sm2::ModAdd(x_mod_n, Small(1), &other);
          EXPECT_TRUE(sm2::MulBaseAddXModN(e[i], t, p, x_mod_n));
          EXPECT_FALSE(sm2::MulBaseAddXModN(e[i], t, p, other));
        }
      }
    }
    EXPECT_FALSE(sm2::MulBaseAddXModN(Small(1), Small(1), pts[0], sm2::OrderN()));
  });
}

// Sums and differences (a = b and b = −a are in the set), and decoding with
// its range and curve checks.
TEST(Sm2Curve, PointSumsDifferencesAndDecodingMatchOpenSsl) {
  ForEachBuild([] {
    const std::vector<sm2::Point> &pts = EdgePoints();
    std::vector<std::vector<uint8_t>> inputs;
    for (const sm2::Point &a : pts) {
      for (const sm2::Point &b : pts) {
        sm2::Point got;
        ExpectPoint(sm2::Add(a, b, &got), got, Ref().Add(a, b, false));
        ExpectPoint(sm2::Sub(a, b, &got), got, Ref().Add(a, b, true));
      }
      std::vector<uint8_t> xy(a.x, a.x + 32);
      xy.insert(xy.end(), a.y, a.y + 32);
      inputs.push_back(xy);
      xy[63] ^= 1;  // off the curve
      inputs.push_back(xy);
    }
    const std::vector<uint8_t> p =
        zeph_test::FromHex("FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFF");
    const sm2::Point &g = sm2::BaseG();
    std::vector<uint8_t> x_is_p(p), y_is_p(g.x, g.x + 32);
    x_is_p.insert(x_is_p.end(), g.y, g.y + 32);
    y_is_p.insert(y_is_p.end(), p.begin(), p.end());
    inputs.insert(inputs.end(), {std::vector<uint8_t>(64, 0xFF), std::vector<uint8_t>(64, 0), x_is_p, y_is_p});
    for (const std::vector<uint8_t> &xy : inputs) {
      sm2::Point got;
      uint8_t out[65];
      ASSERT_EQ(sm2::PointFromXY(xy.data(), &got), Ref().Valid(xy.data()));
      if (Ref().Valid(xy.data())) {
        sm2::PointTo65(got, out);
        EXPECT_EQ(out[0], 0x04);
        EXPECT_EQ(0, std::memcmp(out + 1, xy.data(), 64));
      }
    }
  });
}

TEST(Sm2Curve, ScalarArithmeticMatchesOpenSsl) {
  const std::vector<sm2::Scalar> &e = EdgeScalars();
  for (size_t i = 0; i < e.size(); ++i) {
    const sm2::Scalar &a = e[i];
    sm2::Scalar got;
    sm2::Reduce(a.b, &got);
    EXPECT_TRUE(Same(got, *Ref().Mod('r', a, a))) << i;
    EXPECT_EQ(sm2::IsZero(a), Same(a, Small(0))) << i;
    EXPECT_EQ(sm2::InRange(a), !Same(*Ref().Mod('r', a, a), Small(0)) && Same(*Ref().Mod('r', a, a), a)) << i;
    const std::optional<sm2::Scalar> inv = Ref().Mod('i', a, a);
    ASSERT_EQ(sm2::ModInv(a, &got), inv.has_value()) << i;
    if (inv) {
      EXPECT_TRUE(Same(got, *inv)) << i;
    }
    for (size_t j = 0; j < e.size(); j += 3) {
      const sm2::Scalar &b = e[j];
      sm2::ModAdd(a, b, &got);
      EXPECT_TRUE(Same(got, *Ref().Mod('+', a, b))) << i << "+" << j;
      sm2::ModSub(a, b, &got);
      EXPECT_TRUE(Same(got, *Ref().Mod('-', a, b))) << i << "-" << j;
      sm2::ModMul(a, b, &got);
      EXPECT_TRUE(Same(got, *Ref().Mod('*', a, b))) << i << "*" << j;
    }
  }
}

// Under memcheck (the valgrind test): the private key and the nonce are
// marked undefined, so any branch or memory index that depends on them is
// reported. Results are marked defined again before they are compared.
TEST(Sm2ConstantTime, SecretsSteerNoBranchOrAddress) {
  ForEachBuild([] {
    const sm2::Scalar d_pub = Random(), k_pub = Random(), e = Random();
    sm2::Point pub, want_kg, want_kp;
    ASSERT_TRUE(sm2::MulBase(d_pub, &pub));
    ASSERT_TRUE(sm2::MulBase(k_pub, &want_kg));
    ASSERT_TRUE(sm2::Mul(k_pub, pub, &want_kp));
    sm2::Scalar d = d_pub, k = k_pub;
    Secret(d, k);

    sm2::Point kg, kp;
    bool ok_g = sm2::MulBase(k, &kg), ok_p = sm2::Mul(k, pub, &kp);
    bool in_range = sm2::InRange(k), zero = sm2::IsZero(d);
    // A signature: r = e + x1, s = (1 + d)^−1 (k − r·d).
    sm2::Scalar x1, r, one_d, inv, rd, s;
    sm2::Reduce(kg.x, &x1);
    sm2::ModAdd(e, x1, &r);
    sm2::ModAdd(Small(1), d, &one_d);
    bool ok_inv = sm2::ModInv(one_d, &inv);
    sm2::ModMul(r, d, &rd);
    sm2::ModSub(k, rd, &s);
    sm2::ModMul(inv, s, &s);

    Public(kg, kp, ok_g, ok_p, in_range, zero, ok_inv, r, s, d, k);
    ASSERT_TRUE(ok_g && ok_p && in_range && ok_inv && !zero);
    EXPECT_TRUE(Same(kg, want_kg));
    EXPECT_TRUE(Same(kp, want_kp));
    // The signature verifies: s·G + (r + s)·P has x ≡ r − e.
    sm2::Scalar t, r_minus_e;
    sm2::ModAdd(r, s, &t);
    sm2::ModSub(r, e, &r_minus_e);
    EXPECT_TRUE(sm2::MulBaseAddXModN(s, t, pub, r_minus_e));
  });
}
