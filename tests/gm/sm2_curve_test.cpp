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

#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define SECRET(x) VALGRIND_MAKE_MEM_UNDEFINED(&(x), sizeof(x))
#define PUBLIC(x) VALGRIND_MAKE_MEM_DEFINED(&(x), sizeof(x))
#else
#define SECRET(x)           ((void)0)
#define PUBLIC(x)           ((void)0)
#define RUNNING_ON_VALGRIND 0
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

void ExpectPoint(bool ok, const sm2::Point &got, const std::optional<sm2::Point> &want) {
  ASSERT_EQ(ok, want.has_value());
  if (ok) {
    EXPECT_TRUE(Same(got, *want));
  }
}

}  // namespace

TEST(Sm2Curve, ScalarMultiplesMatchOpenSsl) {
  ForEachBuild([] {
    const std::vector<sm2::Scalar> &e = EdgeScalars();
    const std::vector<sm2::Point> &pts = EdgePoints();
    sm2::Point got;
    for (size_t i = 0; i < e.size(); ++i) {
      ExpectPoint(sm2::MulBase(e[i], &got), got, Ref().Mul(&e[i], nullptr, nullptr));
      // Every scalar on ±G; a sample on the points with short coordinates.
      for (size_t pi = 0; pi < pts.size(); ++pi) {
        if (pi < 2 || i % 4 == 0) ExpectPoint(sm2::Mul(e[i], pts[pi], &got), got, Ref().Mul(nullptr, &pts[pi], &e[i]));
      }
    }
  });
}

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

TEST(Sm2Curve, PublicCombinationsMatchOpenSsl) {
  ForEachBuild([] {
    const std::vector<sm2::Scalar> &e = EdgeScalars();
    const std::vector<sm2::Point> &pts = EdgePoints();
    for (size_t pi = 0; pi < pts.size(); ++pi) {
      const sm2::Point &p = pts[pi];
      // With P = G the partners also cancel (t = n − s) and double (t = s).
      for (size_t i = 0; i < e.size(); i += pi == 0 ? 1 : 4) {
        std::vector<sm2::Scalar> partners = {e[(i * 7 + 3) % e.size()], Small(0)};
        if (pi == 0) partners.insert(partners.end(), {e[i], *Ref().Mod('-', Small(0), e[i])});
        for (const sm2::Scalar &t : partners) {
          const std::optional<sm2::Point> want = Ref().Mul(&e[i], &p, &t);
          sm2::Point got;
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

TEST(Sm2Curve, SumsAndDifferencesIncludingDoublingsAndCancellation) {
  ForEachBuild([] {
    const std::vector<sm2::Point> &pts = EdgePoints();
    for (const sm2::Point &a : pts) {
      for (const sm2::Point &b : pts) {  // a = b and b = −a are in the set
        for (bool subtract : {false, true}) {
          sm2::Point got;
          ExpectPoint(subtract ? sm2::Sub(a, b, &got) : sm2::Add(a, b, &got), got, Ref().Add(a, b, subtract));
        }
      }
    }
  });
}

TEST(Sm2Curve, PointDecodingChecksRangeAndCurve) {
  ForEachBuild([] {
    std::vector<std::vector<uint8_t>> inputs;
    for (const sm2::Point &p : EdgePoints()) {
      std::vector<uint8_t> xy(p.x, p.x + 32);
      xy.insert(xy.end(), p.y, p.y + 32);
      inputs.push_back(xy);
      xy[63] ^= 1;  // off the curve
      inputs.push_back(xy);
    }
    std::vector<uint8_t> all_ff(64, 0xFF), zeros(64, 0), x_is_p(64, 0), y_is_p(64, 0);
    const uint8_t p_bytes[32] = {0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0,    0,
                                 0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    std::memcpy(x_is_p.data(), p_bytes, 32);
    std::memcpy(x_is_p.data() + 32, sm2::BaseG().y, 32);
    std::memcpy(y_is_p.data(), sm2::BaseG().x, 32);
    std::memcpy(y_is_p.data() + 32, p_bytes, 32);
    inputs.insert(inputs.end(), {all_ff, zeros, x_is_p, y_is_p});
    for (const std::vector<uint8_t> &xy : inputs) {
      sm2::Point got;
      const bool ok = sm2::PointFromXY(xy.data(), &got);
      ASSERT_EQ(ok, Ref().Valid(xy.data()));
      if (ok) {
        uint8_t out[65];
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
    SECRET(d);
    SECRET(k);

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

    PUBLIC(kg);
    PUBLIC(kp);
    PUBLIC(ok_g);
    PUBLIC(ok_p);
    PUBLIC(in_range);
    PUBLIC(zero);
    PUBLIC(ok_inv);
    PUBLIC(r);
    PUBLIC(s);
    PUBLIC(d);
    PUBLIC(k);
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
