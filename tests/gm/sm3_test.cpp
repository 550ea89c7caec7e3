// SM3: standard vectors, incremental splits, agreement with OpenSSL's SM3.
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "gm/gm_internal.hpp"
#include "gm_test_util.hpp"

using namespace gm_test;

namespace {

Bytes OneShot(const Bytes &m) {
  Bytes out(32);
  EXPECT_EQ(BIVO_sm3_digest(m.data(), Len(m), out.data()), 0u);
  return out;
}

// Streams m through the heap context, cut at the given points.
Bytes Streamed(const Bytes &m, const std::vector<size_t> &cuts) {
  BIVO_SM3_CTX *ctx = nullptr;
  EXPECT_EQ(BIVO_sm3_digest_init(&ctx), 0u);
  size_t at = 0;
  for (size_t cut : cuts) {
    BIVO_sm3_digest_update(ctx, m.data() + at, static_cast<uint32_t>(cut - at));
    at = cut;
  }
  BIVO_sm3_digest_update(ctx, m.data() + at, static_cast<uint32_t>(m.size() - at));
  Bytes out(32);
  EXPECT_EQ(BIVO_sm3_digest_final(ctx, out.data()), 0u);
  return out;
}

}  // namespace

using Sm3Path = OnEveryPath;
GM_ON_EVERY_PATH(Sm3Path);

TEST_P(Sm3Path, StandardVectorsThroughEveryInterface) {
  const std::pair<std::string, const char *> known[] = {
      {"abc", "66C7F0F462EEEDD9D1F2D46BDC10E4E24167C4875CF2F7A2297DA02B8F4BA8E0"},
      {"abcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcd",
       "DEBE9FF92275B8A138604889C18E5A4D6FDB70E5387E5765293DCBA39C0C5732"},
      {"", "1AB21D8355CFA17F8E61194831E81A8F22BEC8C728FEFB747ED035EB5082AA2B"},
  };
  for (const auto &[text, digest] : known) {
    const Bytes m = Text(text);
    EXPECT_EQ(ToHex(OneShot(m)), digest);
    BIVO_SM3_CTX ctx;
    Bytes core(32);
    ASSERT_EQ(sm3_init(&ctx), 1);
    ASSERT_EQ(sm3_update(&ctx, m.data(), m.size()), 1);
    ASSERT_EQ(sm3_final(core.data(), &ctx), 1);  // output first, context second
    EXPECT_EQ(ToHex(core), digest);
  }
}

TEST_P(Sm3Path, SplitsAndLengthsAgreeWithOpenSsl) {
  const Bytes m = RandomBytes(200, 1);  // every two-update split across three block boundaries
  for (size_t cut = 0; cut <= m.size(); ++cut) ASSERT_EQ(Streamed(m, {cut}), OneShot(m)) << cut;
  const Bytes data = RandomBytes(4096, 2);  // every pending count at final, 56..63 need two final blocks
  for (size_t n = 0; n <= data.size(); n += kSanitized && n > 300 ? 37 : 1) {
    const Bytes prefix(data.begin(), data.begin() + static_cast<long>(n));
    ASSERT_EQ(OneShot(prefix), Sm3({prefix})) << n;
  }
  std::mt19937 gen(3);
  for (int round = 0; round < (kSanitized ? 40 : 200); ++round) {
    const Bytes msg = RandomBytes(gen() % 5000, gen());
    std::vector<size_t> cuts;
    for (size_t at = gen() % 150; at < msg.size(); at += gen() % 150) cuts.push_back(at);
    ASSERT_EQ(Streamed(msg, cuts), Sm3({msg})) << round;
  }
  // The portable compression loop agrees with the dispatched one; the bit count carries into the high word.
  const Bytes blocks = RandomBytes(64 * 50, 4);
  uint32_t a[8], b[8];
  std::memcpy(a, zeph::gm::kSm3Iv, sizeof a);
  std::memcpy(b, zeph::gm::kSm3Iv, sizeof b);
  zeph::gm::Sm3Compress(a, blocks.data(), 50);
  zeph::gm::Sm3CompressPortable(b, blocks.data(), 50);
  EXPECT_EQ(0, std::memcmp(a, b, sizeof a));
  BIVO_SM3_CTX ctx;
  sm3_init(&ctx);
  ctx.Nl = 0xFFFFFFF8u;
  sm3_update(&ctx, "x", 1);
  EXPECT_EQ(ctx.Nh * 0x100000000ull + ctx.Nl, 0x100000000ull);
}

TEST(Sm3, BadArgumentsGiveStatuses) {
  Bytes out(32);
  EXPECT_EQ(BIVO_sm3_digest(nullptr, 5, out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_digest(out.data(), 3, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_digest_init(nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_digest_final(nullptr, out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(sm3_init(nullptr), 0);
  EXPECT_EQ(sm3_final(out.data(), nullptr), 0);
  // final without an output still releases the context (the leak checker would notice otherwise).
  BIVO_SM3_CTX *ctx = nullptr;
  ASSERT_EQ(BIVO_sm3_digest_init(&ctx), 0u);
  EXPECT_EQ(BIVO_sm3_digest_update(ctx, nullptr, 4), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_digest_final(ctx, nullptr), ERR_INVALID_PARAMETER);
}
