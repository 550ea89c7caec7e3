// The SM2 Z digest and e = SM3(Z || M): the GM/T 0003 example, the identity
// length bound, and agreement of the library, EVP and streaming variants.
#include <random>

#include <gtest/gtest.h>

#include "gm_test_util.hpp"

using namespace gm_test;

namespace {

// Z computed from first principles with OpenSSL's SM3.
Bytes ReferenceZ(const std::string &id, const Bytes &key) {
  const size_t bits = id.size() * 8;
  const Bytes curve = FromHex(
      "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFC"
      "28E9FA9E9D9F5E344D5A9E4BCF6509A7F39789F515AB8F92DDBCBD414D940E93"
      "32C4AE2C1F1981195F9904466A39C9948FE30BBFF2660BE1715A4589334C74C7"
      "BC3736A2F4F6779C59BDCEE36B692153D0A9877CC62A474002DF32E52139F0A0");
  return Sm3({{uint8_t(bits >> 8), uint8_t(bits)}, Text(id), curve, Bytes(key.begin() + 1, key.end())});
}

using ZFn = uint32_t (*)(const char *, const unsigned char *, uint32_t, unsigned char *);
using EFn = uint32_t (*)(const char *, const unsigned char *, uint32_t, const unsigned char *, uint32_t,
                         unsigned char *);
const ZFn kZ[] = {ComputeUserIdSm3Digest, ComputeUserIdSm3Digest_EVP};
const EFn kE[] = {BIVO_ComputePreprocessSm3Digest, BIVO_ComputePreprocessSm3Digest_EVP};

// e through the streaming interface, the message cut at the given points.
uint32_t StreamedE(const char *id, const Bytes &key, const Bytes &msg, const std::vector<size_t> &cuts, Bytes &e) {
  BIVO_SM3_CTX *ctx = nullptr;
  const uint32_t rv = BIVO_ComputePreprocessSm3Digest_init(id, key.data(), 65, &ctx);
  if (rv != 0) return rv;
  size_t at = 0;
  for (size_t cut : cuts) {
    BIVO_ComputePreprocessSm3Digest_update(ctx, msg.data() + at, static_cast<uint32_t>(cut - at));
    at = cut;
  }
  BIVO_ComputePreprocessSm3Digest_update(ctx, msg.data() + at, static_cast<uint32_t>(msg.size() - at));
  e.assign(32, 0);
  return BIVO_ComputePreprocessSm3Digest_final(ctx, e.data());
}

}  // namespace

TEST(ZDigest, StandardExampleIdentityBoundAndNullArguments) {
  const std::string z_hex = "B2E14C5C79C6DF5B85F4FE7ED8DB7A262B9DA7E07CCB0EA9F4747B8CCDA8A4F3";
  const std::string e_hex = "F0B43E94BA45ACCAACE692ED534382EB17E6AB5A19CE7B31F4486FDFC0D28640";
  const Bytes msg = Text("message digest"), &key = kExampleKey;
  const std::string longest(8191, 'i'), too_long(8192, 'i');
  Bytes z(32), e(32);
  for (ZFn z_fn : kZ) {
    ASSERT_EQ(z_fn(kDefaultId, key.data(), 65, z.data()), 0u);
    EXPECT_EQ(ToHex(z), z_hex);
    ASSERT_EQ(z_fn(longest.c_str(), key.data(), 65, z.data()), 0u);
    EXPECT_EQ(z, ReferenceZ(longest, key));  // ENTL 0xFFF8
    EXPECT_EQ(z_fn(too_long.c_str(), key.data(), 65, z.data()), BIVO_ERR_DIGEST);
    EXPECT_EQ(z, Bytes(32, 0));
    EXPECT_EQ(z_fn(nullptr, key.data(), 65, z.data()), ERR_INVALID_PARAMETER);
    EXPECT_EQ(z_fn(kDefaultId, nullptr, 65, z.data()), ERR_INVALID_PARAMETER);
    EXPECT_EQ(z_fn(kDefaultId, key.data(), 65, nullptr), ERR_INVALID_PARAMETER);
  }
  for (EFn e_fn : kE) {
    ASSERT_EQ(e_fn(kDefaultId, key.data(), 65, msg.data(), Len(msg), e.data()), 0u);
    EXPECT_EQ(ToHex(e), e_hex);
    EXPECT_EQ(e_fn(too_long.c_str(), key.data(), 65, msg.data(), 1, e.data()), BIVO_ERR_DIGEST);
    EXPECT_EQ(e_fn(kDefaultId, key.data(), 65, nullptr, 1, e.data()), ERR_INVALID_PARAMETER);
    EXPECT_EQ(e_fn(nullptr, key.data(), 65, msg.data(), 1, e.data()), ERR_INVALID_PARAMETER);
    EXPECT_EQ(ToHex(e), e_hex);  // untouched
  }
  ASSERT_EQ(StreamedE(kDefaultId, key, msg, {3, 3, 9}, e), 0u);
  EXPECT_EQ(ToHex(e), e_hex);
  BIVO_SM3_CTX *ctx = nullptr;
  EXPECT_EQ(BIVO_ComputePreprocessSm3Digest_init(too_long.c_str(), key.data(), 65, &ctx), BIVO_ERR_DIGEST);
  EXPECT_EQ(ctx, nullptr);
  EXPECT_EQ(BIVO_ComputePreprocessSm3Digest_init(kDefaultId, key.data(), 65, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_ComputePreprocessSm3Digest_update(nullptr, msg.data(), 1), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_ComputePreprocessSm3Digest_final(nullptr, e.data()), ERR_INVALID_PARAMETER);
  // Only the coordinates count: the leading byte and the length are not read.
  Bytes other_prefix = key;
  other_prefix[0] = 0x02;
  ASSERT_EQ(ComputeUserIdSm3Digest(kDefaultId, other_prefix.data(), 0, z.data()), 0u);
  EXPECT_EQ(ToHex(z), z_hex);
}

// SM3 itself is checked on every path in sm3_test.cpp.
TEST(ZDigest, VariantsAgreeOnRandomInputs) {
  std::mt19937 gen(11);
  for (int round = 0; round < 100; ++round) {
    std::string id(round == 0 ? 0 : gen() % 300, '\0');         // ENTL 0x0000 first
    for (char &c : id) c = static_cast<char>(1 + gen() % 255);  // no terminator inside
    Bytes key = RandomBytes(65, gen());
    key[0] = 0x04;
    const Bytes msg = RandomBytes(round == 0 ? 0 : gen() % 2000, gen());
    const Bytes z_ref = ReferenceZ(id, key), e_ref = Sm3({z_ref, msg});
    Bytes out(32);
    for (ZFn z_fn : kZ) {
      ASSERT_EQ(z_fn(id.c_str(), key.data(), 65, out.data()), 0u);
      ASSERT_EQ(out, z_ref);
    }
    for (EFn e_fn : kE) {
      ASSERT_EQ(e_fn(id.c_str(), key.data(), 65, msg.data(), Len(msg), out.data()), 0u);
      ASSERT_EQ(out, e_ref);
    }
    std::vector<size_t> cuts;
    for (size_t at = 0; !msg.empty() && (at += gen() % 300) < msg.size();) cuts.push_back(at);
    ASSERT_EQ(StreamedE(id.c_str(), key, msg, cuts, out), 0u);
    ASSERT_EQ(out, e_ref);
  }
}
