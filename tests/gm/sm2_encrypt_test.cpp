// SM2 encryption and its KDF: the GM/T 0003.5 example through the fixed and
// the mixed random sources, the all-zero key stream drawn again, statuses
// and the capacity rule; the KDF against OpenSSL's X9.63 KDF. Every variant
// against the openssl command line: tests/integration/sm2_openssl_test.cpp.
#include "gm/sm2_encrypt.hpp"

#include <openssl/kdf.h>

#include <gtest/gtest.h>

#include "gm/sm2_curve.hpp"
#include "gm_test_util.hpp"

using namespace gm_test;
namespace sm2 = zeph::gm::sm2;

TEST(Sm2Encrypt, StandardExampleFromFixedAndMixedSources) {
  const std::string k = "59276E27D506861A16680F3AD9C02DCCEF3CC1FA3CDBE4CE6D54B80DEAC1BC21";
  const Bytes cipher = FromHex(
      "307C 0220 04EBFC718E8D1798620432268E77FEB6415E2EDE0E073C0F4F640ECD2E149A73"
      "0221 00E858F9D81E5430A57B36DAAB8F950A3C64E6EE6A63094D99283AFF767E124DF0"
      "0420 59983C18F809E262923C53AEC295D30383B54E39D609D160AFCB1908D0BD8766"
      "0413 21886CA989CA9C7D58087307CA93092D651EFA");
  const Bytes msg = Text("encryption standard");
  const uint32_t capacity = BIVO_ComputeSm2CiphertextEncodeLength(Len(msg));  // the length rule is enough
  Bytes out(capacity);
  uint32_t n = capacity;
  ASSERT_EQ(start_fake_rand(k.c_str()), 1);
  const uint32_t rv = BIVO_Sm2EncryptWithPubKey(msg.data(), Len(msg), kExampleKey.data(), 65, out.data(), &n);
  ASSERT_EQ(restore_rand(), 1);
  ASSERT_EQ(rv, 0u);
  EXPECT_EQ(ToHex(out.data(), n), ToHex(cipher));
  // The generator's next 32 bytes XOR the external bytes give k itself.
  Handle probe(7), handle(7);
  const Bytes external = Xor(probe.Draw(32), FromHex(k));
  n = capacity;
  ASSERT_EQ(BIVO_Sm2EncryptWithPubKeyAndMixedSource(handle.h, external.data(), msg.data(), Len(msg), kExampleKey.data(),
                                                    65, out.data(), &n),
            0u);
  EXPECT_EQ(ToHex(out.data(), n), ToHex(cipher));
}

TEST(Sm2Encrypt, AllZeroKeyStreamDrawsAnotherNonce) {
  // Find a k whose key stream for a one-byte message is 00.
  sm2::Point key, shared, expected_c1;
  ASSERT_TRUE(sm2::PointFromXY(kExampleKey.data() + 1, &key));
  sm2::Scalar k1{}, k2{};
  for (uint32_t seed = 1;; ++seed) {
    const Bytes candidate = RandomBytes(32, seed);
    std::copy(candidate.begin(), candidate.end(), k1.b);
    uint8_t t = 1;
    if (!sm2::InRange(k1) || !sm2::Mul(k1, key, &shared)) continue;
    sm2::Kdf(Cat({Bytes(shared.x, shared.x + 32), Bytes(shared.y, shared.y + 32)}), {}, &t, 1);
    if (t == 0) break;
  }
  // Mixed source: each draw is the generator's next 32 bytes XOR the same
  // external bytes, so the first draw can be made k1 and the second foreseen.
  Handle probe(13), handle(13);
  const Bytes d1 = probe.Draw(32), d2 = probe.Draw(32);
  const Bytes external = Xor(d1, Bytes(k1.b, k1.b + 32)), second = Xor(d2, external);
  sm2::Reduce(second.data(), &k2);
  ASSERT_TRUE(sm2::MulBase(k2, &expected_c1));
  const Bytes msg = {0x5A};
  uint32_t n = 200, raw_len = 200;
  Bytes out(n), raw(raw_len);
  ASSERT_EQ(BIVO_Sm2EncryptWithPubKeyAndMixedSource(handle.h, external.data(), msg.data(), 1, kExampleKey.data(), 65,
                                                    out.data(), &n),
            0u);
  ASSERT_EQ(BIVO_Sm2CiphertextDerToRaw(out.data(), n, 0, raw.data(), &raw_len), 0u);
  EXPECT_EQ(ToHex(raw.data() + 1, 32), ToHex(expected_c1.x, 32));
  EXPECT_NE(raw[raw_len - 1], msg[0]);
}

TEST(Sm2Encrypt, StatusesAndCapacity) {
  const Bytes msg = RandomBytes(40, 1), cert = Text("not a certificate");
  Bytes off_curve = kExampleKey;
  off_curve[64] ^= 1;
  Handle handle(5);
  uint8_t out[300];
  uint32_t n = sizeof out;
  const struct {
    const char *what;
    const uint8_t *msg;
    uint32_t len;
    const Bytes &key;
    uint32_t key_len;
    uint8_t *out;
    uint32_t status;
  } cases[] = {
      {"null message", nullptr, 4, kExampleKey, 65, out, 1},
      {"null output", msg.data(), 40, kExampleKey, 65, nullptr, 1},
      {"empty message", msg.data(), 0, kExampleKey, 65, out, 9},
      {"over 2^30 bytes", msg.data(), (1u << 30) + 1, kExampleKey, 65, out, 9},
      {"key off the curve", msg.data(), 40, off_curve, 65, out, 9},
      {"short key", msg.data(), 40, kExampleKey, 64, out, 9},
  };
  for (const auto &c : cases) {
    n = sizeof out;
    EXPECT_EQ(BIVO_Sm2EncryptWithPubKey(c.msg, c.len, c.key.data(), c.key_len, c.out, &n), c.status) << c.what;
  }
  EXPECT_EQ(BIVO_Sm2Encrypt(msg.data(), 40, cert.data(), Len(cert), out, &n), 5u);
  EXPECT_EQ(BIVO_Sm2EncryptWithCertFile(msg.data(), 40, "/nonexistent/c.der", out, &n), 0xFFFFFFFFu);
  EXPECT_EQ(BIVO_Sm2EncryptWithPubKeyAndDrbg(nullptr, msg.data(), 40, kExampleKey.data(), 65, out, &n), 1u);
  EXPECT_EQ(BIVO_Sm2EncryptWithPubKeyAndMixedSource(handle.h, nullptr, msg.data(), 40, kExampleKey.data(), 65, out, &n),
            1u);
  // Short capacity: 9, the required length, zeros up to the capacity and
  // nothing beyond it.
  std::fill(std::begin(out), std::end(out), 0xEE);
  n = 100;
  ASSERT_EQ(BIVO_Sm2EncryptWithPubKey(msg.data(), 40, kExampleKey.data(), 65, out, &n), 9u);
  EXPECT_GT(n, 100u);
  EXPECT_LE(n, 152u);
  EXPECT_EQ(Bytes(out, out + 100), Bytes(100, 0));
  EXPECT_EQ(Bytes(out + 100, out + sizeof out), Bytes(sizeof out - 100, 0xEE));
  n = 152;
  EXPECT_EQ(BIVO_Sm2EncryptWithPubKey(msg.data(), 40, kExampleKey.data(), 65, out, &n), 0u);
}

TEST(Sm2Encrypt, KdfMatchesOpenSslX963) {
  EVP_KDF *kdf = EVP_KDF_fetch(nullptr, "X963KDF", nullptr);
  ASSERT_NE(kdf, nullptr);
  for (size_t len : {1u, 31u, 32u, 33u, 64u, 1000u}) {
    for (size_t info_len : {0u, 5u}) {
      const Bytes z = RandomBytes(64, static_cast<uint32_t>(len)), info = RandomBytes(info_len, 9);
      Bytes mine(len), theirs(len);
      OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string("digest", const_cast<char *>("SM3"), 0),
                             OSSL_PARAM_construct_octet_string("key", const_cast<uint8_t *>(z.data()), z.size()),
                             OSSL_PARAM_construct_octet_string("info", const_cast<uint8_t *>(info.data()), info.size()),
                             OSSL_PARAM_construct_end()};
      if (info.empty()) params[2] = OSSL_PARAM_construct_end();
      EVP_KDF_CTX *ctx = EVP_KDF_CTX_new(kdf);
      ASSERT_EQ(EVP_KDF_derive(ctx, theirs.data(), len, params), 1);
      EVP_KDF_CTX_free(ctx);
      ASSERT_EQ(ECDH_KDF_X9_62_COMPUTE(mine.data(), len, z.data(), z.size(), info.data(), info.size()), 0u);
      EXPECT_EQ(mine, theirs) << len << " bytes, info " << info_len;
    }
  }
  EVP_KDF_free(kdf);
  // Bounds come before any write.
  uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE}, z[4] = {};
  const size_t over = (size_t{1} << 30) + 1;
  EXPECT_EQ(ECDH_KDF_X9_62_COMPUTE(out, over, z, 4, nullptr, 0), 0xFFFFFFFFu);
  EXPECT_EQ(ECDH_KDF_X9_62_COMPUTE(out, 4, z, over, nullptr, 0), 0xFFFFFFFFu);
  EXPECT_EQ(ECDH_KDF_X9_62_COMPUTE(out, 4, z, 4, z, over), 0xFFFFFFFFu);
  EXPECT_EQ(ECDH_KDF_X9_62_COMPUTE(out, 4, nullptr, 4, nullptr, 0), 0xFFFFFFFFu);
  EXPECT_EQ(ECDH_KDF_X9_62_COMPUTE(out, 0, z, 4, nullptr, 0), 0u);
  EXPECT_EQ(Bytes(out, out + 4), Bytes(4, 0xEE));
}
