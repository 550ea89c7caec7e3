// The algorithm self-tests: all pass; with one primitive altered each test
// returns its status and the aggregate the first failure; the fixed random
// source serves its bytes to its own thread only and is put back.
// The check reads OpenSSL's process-wide RAND_METHOD, deprecated in 3.0.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <thread>
#include <vector>

#include <openssl/rand.h>

#include <gtest/gtest.h>

#include "gm/selftest_fault.hpp"
#include "gm_test_util.hpp"
#include "zeph_c_sm2.h"

using namespace gm_test;
using zeph::gm::selftest::Fault;

namespace {

struct FaultScope {
  explicit FaultScope(Fault f) { zeph::gm::selftest::SetSelftestFault(f); }
  ~FaultScope() { zeph::gm::selftest::SetSelftestFault(Fault::kNone); }
};

using SelfTest = uint32_t (*)();

}  // namespace

TEST(Selftest, EachAlteredPrimitiveFailsItsTest) {
  const RAND_METHOD *before = RAND_get_rand_method();
  const struct {
    Fault fault;
    SelfTest test;
    uint32_t status;  // of the test and of the aggregate
  } cases[] = {
      {Fault::kNone, BIVO_test_sm4_million_encrypt, 0},
      {Fault::kSm3, BIVO_test_sm3_digest, 26},
      {Fault::kSm3Streaming, BIVO_test_sm3_digest, 26},
      {Fault::kPreprocess, BIVO_test_sm3_digest_with_preprocess, 27},
      {Fault::kPreprocessStreaming, BIVO_test_sm3_digest_with_preprocess, 27},
      {Fault::kSm4Encrypt, BIVO_test_sm4_encrypt_and_decrypt, 28},
      {Fault::kSm4Decrypt, BIVO_test_sm4_encrypt_and_decrypt, 29},
      {Fault::kSm4EcbPaddedEncrypt, BIVO_test_sm4_ecb_encrypt_with_padding, 28},
      {Fault::kSm4EcbPaddedDecrypt, BIVO_test_sm4_ecb_decrypt_with_auto_removing_padding, 29},
      {Fault::kSm4CbcPaddedEncrypt, BIVO_test_sm4_cbc_encrypt_with_padding, 28},
      {Fault::kSm4CbcPaddedDecrypt, BIVO_test_sm4_cbc_decrypt_with_auto_removing_padding, 29},
      {Fault::kSm2Verify, BIVO_test_sm2_verify_signature, 8},
      {Fault::kSm2Encrypt, BIVO_test_sm2_encrypt, 30},
  };
  for (const auto &c : cases) {
    const FaultScope scope(c.fault);
    EXPECT_EQ(c.test(), c.status) << static_cast<int>(c.fault);
    EXPECT_EQ(BIVO_test_crypto_algorithm(), c.status) << static_cast<int>(c.fault);
  }
  {
    const FaultScope scope(Fault::kSm4EcbPaddedEncrypt);
    EXPECT_EQ(BIVO_test_sm4_ecb_encrypt_and_decrypt_with_padding(), 28u);
    EXPECT_EQ(BIVO_test_sm4_cbc_encrypt_and_decrypt_with_padding(), 0u);
    EXPECT_EQ(BIVO_test_sm4_ecb_decrypt_with_auto_removing_padding(), 0u);
  }
  EXPECT_EQ(RAND_get_rand_method(), before);
}

TEST(Selftest, ConcurrentRunsAllPass) {
  std::vector<std::thread> threads;
  std::vector<uint32_t> results(4, 99);
  for (size_t i = 0; i < results.size(); ++i) {
    threads.emplace_back([&results, i] { results[i] = BIVO_test_crypto_algorithm(); });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(results, std::vector<uint32_t>(4, 0));
}

TEST(Selftest, FakeRandomSource) {
  const RAND_METHOD *before = RAND_get_rand_method();
  EXPECT_EQ(restore_rand(), 0);
  EXPECT_EQ(start_fake_rand("0G"), 0);
  ASSERT_EQ(start_fake_rand("A1B2C3"), 1);
  EXPECT_EQ(start_fake_rand("00"), 0);
  EXPECT_NE(RAND_get_rand_method(), before);
  uint8_t other[16] = {};
  std::thread([&] { RAND_bytes(other, sizeof other); }).join();
  uint8_t mine[2], rest[40];
  ASSERT_EQ(RAND_bytes(mine, 2), 1);
  ASSERT_EQ(RAND_bytes(rest, sizeof rest), 1);  // one fixed byte, then the real generator
  EXPECT_EQ(ToHex(mine, 2), "A1B2");
  EXPECT_EQ(rest[0], 0xC3);
  EXPECT_NE(Bytes(rest + 1, rest + 40), Bytes(39, 0));
  EXPECT_NE(ToHex(other, 3), "A1B2C3");
  EXPECT_EQ(restore_rand(), 1);
  EXPECT_EQ(RAND_get_rand_method(), before);
}
