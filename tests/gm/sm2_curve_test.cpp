// SM2 curve arithmetic: group laws and scalar identities on random values.
#include "gm/sm2_curve.hpp"

#include <cstring>

#include <openssl/rand.h>

#include <gtest/gtest.h>

namespace sm2 = zeph::gm::sm2;

namespace {

sm2::Scalar RandomScalar() {
  sm2::Scalar k;
  do {
    RAND_bytes(k.b, sizeof k.b);
  } while (!sm2::InRange(k));
  return k;
}

bool Same(const sm2::Point &a, const sm2::Point &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

TEST(Sm2Curve, GroupLawsAndScalarIdentities) {
  sm2::Scalar one{};
  one.b[31] = 1;
  for (int i = 0; i < 8; ++i) {
    const sm2::Scalar a = RandomScalar(), b = RandomScalar();
    sm2::Point aG, bG, sum, viaMul, abG, diff, combo;
    ASSERT_TRUE(sm2::MulBase(a, &aG));
    ASSERT_TRUE(sm2::MulBase(b, &bG));
    ASSERT_TRUE(sm2::Mul(a, sm2::BaseG(), &viaMul));
    EXPECT_TRUE(Same(aG, viaMul));
    sm2::Scalar ab, a_plus_b, inv, check;
    sm2::ModAdd(a, b, &a_plus_b);
    ASSERT_TRUE(sm2::Add(aG, bG, &sum));
    ASSERT_TRUE(sm2::MulBase(a_plus_b, &viaMul));
    EXPECT_TRUE(Same(sum, viaMul));
    ASSERT_TRUE(sm2::Sub(sum, bG, &diff));
    EXPECT_TRUE(Same(diff, aG));
    sm2::ModMul(a, b, &ab);
    ASSERT_TRUE(sm2::Mul(b, aG, &abG));
    ASSERT_TRUE(sm2::MulBase(ab, &viaMul));
    EXPECT_TRUE(Same(abG, viaMul));
    ASSERT_TRUE(sm2::MulBaseAdd(a, b, aG, &combo));  // a·G + b·(a·G) = (a + ab)·G
    sm2::Scalar a_ab;
    sm2::ModAdd(a, ab, &a_ab);
    ASSERT_TRUE(sm2::MulBase(a_ab, &viaMul));
    EXPECT_TRUE(Same(combo, viaMul));
    ASSERT_TRUE(sm2::ModInv(a, &inv));
    sm2::ModMul(a, inv, &check);
    EXPECT_EQ(0, std::memcmp(check.b, one.b, 32));
    uint8_t xy[64];
    std::memcpy(xy, aG.x, 32);
    std::memcpy(xy + 32, aG.y, 32);
    sm2::Point back;
    EXPECT_TRUE(sm2::PointFromXY(xy, &back));
    xy[63] ^= 1;
    EXPECT_FALSE(sm2::PointFromXY(xy, &back));
  }
  EXPECT_FALSE(sm2::InRange(sm2::OrderN()));
  sm2::Point at_infinity;
  EXPECT_FALSE(sm2::MulBase(sm2::OrderN(), &at_infinity));
  sm2::Scalar zero{};
  EXPECT_FALSE(sm2::ModInv(zero, &zero));
}
