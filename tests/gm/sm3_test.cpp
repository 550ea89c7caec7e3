// SM3: standard vectors through every entry point, incremental splits, and
// agreement with OpenSSL's SM3 on many lengths.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "gm_test_util.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

using gm_test::Bytes;
using gm_test::EvpSm3;
using gm_test::Text;
using zeph_test::FromHex;
using zeph_test::RandomBytes;
using zeph_test::ToHex;

namespace {

Bytes OneShot(const Bytes &m) {
  Bytes out(32);
  EXPECT_EQ(BIVO_sm3_digest(m.data(), static_cast<uint32_t>(m.size()), out.data()), 0u);
  return out;
}

struct Known {
  std::string message;
  std::string digest;
};

const Known kKnown[] = {
    {"abc", "66C7F0F462EEEDD9D1F2D46BDC10E4E24167C4875CF2F7A2297DA02B8F4BA8E0"},
    {"abcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcd",
     "DEBE9FF92275B8A138604889C18E5A4D6FDB70E5387E5765293DCBA39C0C5732"},
    {"", "1AB21D8355CFA17F8E61194831E81A8F22BEC8C728FEFB747ED035EB5082AA2B"},
};

}  // namespace

TEST(Sm3, StandardVectorsThroughEveryInterface) {
  for (const Known &k : kKnown) {
    const Bytes m = Text(k.message);
    EXPECT_EQ(ToHex(OneShot(m)), k.digest) << k.message;

    BIVO_SM3_CTX *heap = nullptr;
    ASSERT_EQ(BIVO_sm3_digest_init(&heap), 0u);
    ASSERT_EQ(BIVO_sm3_digest_update(heap, m.data(), static_cast<uint32_t>(m.size())), 0u);
    Bytes streamed(32);
    ASSERT_EQ(BIVO_sm3_digest_final(heap, streamed.data()), 0u);
    EXPECT_EQ(ToHex(streamed), k.digest) << k.message;

    BIVO_SM3_CTX ctx;
    Bytes core(32);
    ASSERT_EQ(sm3_init(&ctx), 1);
    ASSERT_EQ(sm3_update(&ctx, m.data(), m.size()), 1);
    ASSERT_EQ(sm3_final(core.data(), &ctx), 1);
    EXPECT_EQ(ToHex(core), k.digest) << k.message;
    // The partial block is wiped and nothing is left pending.
    EXPECT_EQ(ctx.num, 0u);
    EXPECT_EQ(Bytes(ctx.data, ctx.data + 64), Bytes(64, 0));
  }
}

TEST(Sm3, TransformCompressesOnePaddedBlock) {
  // "abc" padded by hand: the bare compression must reach the known digest.
  Bytes block(64, 0);
  block[0] = 'a';
  block[1] = 'b';
  block[2] = 'c';
  block[3] = 0x80;
  block[63] = 24;
  BIVO_SM3_CTX ctx;
  sm3_init(&ctx);
  ASSERT_EQ(sm3_transform(&ctx, block.data()), 1);
  Bytes out;
  for (uint32_t w : ctx.state) {
    for (int s = 24; s >= 0; s -= 8) out.push_back(static_cast<uint8_t>(w >> s));
  }
  EXPECT_EQ(ToHex(out), kKnown[0].digest);

  // Two blocks in one call equal two single transforms.
  const Bytes two = RandomBytes(128, 7);
  BIVO_SM3_CTX a, b;
  sm3_init(&a);
  sm3_init(&b);
  sm3_block_data_order(&a, two.data(), 2);
  sm3_transform(&b, two.data());
  sm3_transform(&b, two.data() + 64);
  EXPECT_EQ(0, std::memcmp(a.state, b.state, sizeof a.state));
}

TEST(Sm3, EveryTwoUpdateSplitEqualsOneShot) {
  const Bytes m = RandomBytes(200, 1);  // crosses three block boundaries
  const Bytes expected = OneShot(m);
  for (size_t cut = 0; cut <= m.size(); ++cut) {
    BIVO_SM3_CTX ctx;
    sm3_init(&ctx);
    sm3_update(&ctx, m.data(), cut);
    sm3_update(&ctx, m.data() + cut, m.size() - cut);
    Bytes out(32);
    sm3_final(out.data(), &ctx);
    ASSERT_EQ(out, expected) << "cut at " << cut;
  }
}

TEST(Sm3, AgreesWithOpenSslOnLengthsUpTo1000) {
  // Covers every pending count at final, including 56..63 (two blocks).
  const Bytes data = RandomBytes(1000, 2);
  for (size_t n = 0; n <= data.size(); ++n) {
    const Bytes m(data.begin(), data.begin() + static_cast<long>(n));
    ASSERT_EQ(OneShot(m), EvpSm3({m})) << "length " << n;
  }
}

TEST(Sm3, RandomPiecesAgreeWithOpenSsl) {
  std::mt19937 gen(3);
  for (int round = 0; round < 200; ++round) {
    const Bytes m = RandomBytes(gen() % 5000, gen());
    BIVO_SM3_CTX *ctx = nullptr;
    ASSERT_EQ(BIVO_sm3_digest_init(&ctx), 0u);
    size_t at = 0;
    while (at < m.size()) {
      const size_t piece = std::min<size_t>(m.size() - at, gen() % 150);
      BIVO_sm3_digest_update(ctx, m.data() + at, static_cast<uint32_t>(piece));
      at += piece;
    }
    Bytes out(32);
    BIVO_sm3_digest_final(ctx, out.data());
    ASSERT_EQ(out, EvpSm3({m})) << "round " << round;
  }
}

TEST(Sm3, BitCountCarriesIntoHighWord) {
  BIVO_SM3_CTX ctx;
  sm3_init(&ctx);
  ctx.Nl = 0xFFFFFFF8u;
  const uint8_t byte = 0;
  sm3_update(&ctx, &byte, 1);
  EXPECT_EQ(ctx.Nl, 0u);
  EXPECT_EQ(ctx.Nh, 1u);
}

TEST(Sm3, BadArgumentsGiveStatuses) {
  Bytes out(32);
  EXPECT_EQ(BIVO_sm3_digest(nullptr, 5, out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_digest(Text("abc").data(), 3, nullptr), ERR_INVALID_PARAMETER);
  ASSERT_EQ(BIVO_sm3_digest(nullptr, 0, out.data()), 0u);  // empty message
  EXPECT_EQ(ToHex(out), kKnown[2].digest);
  EXPECT_EQ(BIVO_sm3_digest_init(nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_digest_update(nullptr, out.data(), 1), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_digest_final(nullptr, out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(sm3_init(nullptr), 0);
  EXPECT_EQ(sm3_final(out.data(), nullptr), 0);

  // final without an output still releases the context (the leak checker
  // would notice otherwise).
  BIVO_SM3_CTX *ctx = nullptr;
  ASSERT_EQ(BIVO_sm3_digest_init(&ctx), 0u);
  EXPECT_EQ(BIVO_sm3_digest_update(ctx, nullptr, 0), 0u);
  EXPECT_EQ(BIVO_sm3_digest_update(ctx, nullptr, 4), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_digest_final(ctx, nullptr), ERR_INVALID_PARAMETER);
}
