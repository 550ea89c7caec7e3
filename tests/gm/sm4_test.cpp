// SM4: the standard examples, agreement with OpenSSL's SM4 in ECB and CBC
// (with and without padding), padding and length statuses, files.
#include <random>

#include <gtest/gtest.h>

#include "gm_test_util.hpp"

using namespace gm_test;

namespace {

const Bytes kKey = RandomBytes(16, 8), kIv = RandomBytes(16, 9);

// OpenSSL's SM4-ECB (iv empty) or SM4-CBC, with or without PKCS#7 padding.
Bytes EvpSm4(const Bytes &in, const Bytes &key, const Bytes &iv, bool pad = false) {
  return Sm4Encrypt(iv.empty() ? Sm4Mode::kEcb : Sm4Mode::kCbc, pad, key.data(), iv, in);
}

// Encrypts with padding, ECB (iv empty) or CBC.
Bytes EncryptPadded(const Bytes &in, const Bytes &iv) {
  Bytes out(BIVO_ComputeSm4EcbCipherLen(Len(in)));
  EXPECT_EQ(iv.empty() ? BIVO_Sm4EncryptWithAutoPadding(in.data(), Len(in), kKey.data(), out.data())
                       : BIVO_Sm4CbcEncryptWithAutoPadding(in.data(), Len(in), iv.data(), kKey.data(), out.data()),
            0u);
  return out;
}

// Decrypts with padding removal into a marked buffer; on failure the buffer must stay untouched.
uint32_t DecryptPadded(const Bytes &in, const Bytes &iv, Bytes &out) {
  out.assign(in.size() + 1, 0xEE);
  uint32_t n = 0xFFFF;
  const uint32_t rv =
      iv.empty() ? BIVO_Sm4DecryptWithAutoRemovePadding(in.data(), Len(in), kKey.data(), out.data(), &n)
                 : BIVO_Sm4CbcDecryptWithAutoRemovePadding(in.data(), Len(in), iv.data(), kKey.data(), out.data(), &n);
  if (rv == 0) out.resize(n);
  EXPECT_TRUE(rv == 0 || out == Bytes(in.size() + 1, 0xEE));
  return rv;
}

}  // namespace

// The exported single-block function, which every path leaves as it is.
TEST(Sm4, SingleBlockFunctionMillionEncryptions) {
  const Bytes key = FromHex("0123456789abcdeffedcba9876543210");
  uint32_t rk[32];
  ASSERT_EQ(SM4_set_key(key.data(), rk), 1);
  Bytes block = key, back(16);
  SM4_encrypt(block.data(), block.data(), rk);
  EXPECT_EQ(ToHex(block), "681EDF34D206965E86B3E94F536E4246");
  SM4_decrypt(block.data(), back.data(), rk);
  EXPECT_EQ(back, key);
  for (int i = 1; i < 1000000; ++i) SM4_encrypt(block.data(), block.data(), rk);
  EXPECT_EQ(ToHex(block), "595298C7C6FD271F0402F804C33D3F66");
}

using Sm4Path = OnEveryPath;
GM_ON_EVERY_PATH(Sm4Path);

TEST_P(Sm4Path, StandardExampleAndMillionEncryptions) {
  const Bytes key = FromHex("0123456789abcdeffedcba9876543210");
  Bytes blocks = Cat({key, key, key}), back(48);
  ASSERT_EQ(BIVO_sm4_encrypt(blocks.data(), 48, key.data(), blocks.data()), 0u);
  const std::string one = "681EDF34D206965E86B3E94F536E4246";
  EXPECT_EQ(ToHex(blocks), one + one + one);
  ASSERT_EQ(BIVO_sm4_decrypt(blocks.data(), 48, key.data(), back.data()), 0u);
  EXPECT_EQ(back, Cat({key, key, key}));
  // CBC over zero blocks with the example as IV chains E a million times.
  Bytes zeros(16 * 1000000, 0);
  ASSERT_EQ(BIVO_sm4_cbc_encrypt(zeros.data(), Len(zeros), key.data(), key.data(), zeros.data()), 0u);
  EXPECT_EQ(ToHex(zeros.data() + zeros.size() - 16, 16), "595298C7C6FD271F0402F804C33D3F66");
}

TEST_P(Sm4Path, ModesAgreeWithOpenSslAndRoundTrip) {
  std::mt19937 gen(6);
  std::vector<uint32_t> counts;
  for (uint32_t n = 0; n <= 70; ++n) counts.push_back(n);  // every tail of one and two vector steps
  for (int i = 0; i < (kSanitized ? 4 : 30); ++i) counts.push_back(gen() % 257);
  for (uint32_t blocks : counts) {
    const Bytes key = RandomBytes(16, gen()), iv = RandomBytes(16, gen()), plain = RandomBytes(blocks * 16, gen());
    Bytes ecb(plain.size()), cbc(plain.size()), back(plain.size());
    ASSERT_EQ(BIVO_sm4_encrypt(plain.data(), Len(plain), key.data(), ecb.data()), 0u);
    ASSERT_EQ(ecb, EvpSm4(plain, key, {})) << blocks;
    ASSERT_EQ(BIVO_sm4_decrypt(ecb.data(), Len(ecb), key.data(), back.data()), 0u);
    ASSERT_EQ(back, plain);
    ASSERT_EQ(BIVO_sm4_cbc_encrypt(plain.data(), Len(plain), iv.data(), key.data(), cbc.data()), 0u);
    ASSERT_EQ(cbc, EvpSm4(plain, key, iv)) << blocks;
    // In place: each ciphertext block must be kept for the next.
    ASSERT_EQ(BIVO_sm4_cbc_decrypt(cbc.data(), Len(cbc), iv.data(), key.data(), cbc.data()), 0u);
    ASSERT_EQ(cbc, plain) << blocks;
  }
  // Every length up to 4096 through the padded modes.
  const Bytes data = RandomBytes(4096, 7);
  for (uint32_t len = 0; len <= 4096; len += kSanitized ? 61 : 1) {
    const Bytes plain(data.begin(), data.begin() + len);
    for (const Bytes &iv : {Bytes{}, kIv}) {
      const Bytes cipher = EncryptPadded(plain, iv);
      ASSERT_EQ(cipher, EvpSm4(plain, kKey, iv, true)) << len;
      Bytes back;
      ASSERT_EQ(DecryptPadded(cipher, iv, back), 0u) << len;
      ASSERT_EQ(back, plain);
    }
  }
  EXPECT_EQ(BIVO_ComputeSm4EcbCipherLen(0xFFFFFFF0u), 0u);  // does not fit 32 bits
}

TEST(Sm4, PaddingLengthBufferAndNullStatuses) {
  Bytes run(16, 6), out;
  run[11] = 7;
  for (const Bytes &last_block : {Bytes(16, 0), Bytes(16, 17), run}) {
    const Bytes plain = Cat({RandomBytes(16, 15), last_block});
    for (const Bytes &iv : {Bytes{}, kIv}) {
      EXPECT_EQ(DecryptPadded(EvpSm4(plain, kKey, iv), iv, out), BIVO_ERR_PADDING);
    }
  }
  for (uint32_t len : {0u, 1u, 15u, 17u, 33u}) {
    const Bytes in = RandomBytes(len, len);
    EXPECT_EQ(DecryptPadded(in, {}, out), BIVO_ERR_LENGTH) << len;
    EXPECT_EQ(DecryptPadded(in, kIv, out), BIVO_ERR_LENGTH) << len;
    if (len == 0) continue;
    out.assign(len + 16, 0xEE);
    EXPECT_EQ(BIVO_sm4_encrypt(in.data(), len, kKey.data(), out.data()), BIVO_ERR_LENGTH);
    EXPECT_EQ(BIVO_sm4_decrypt(in.data(), len, kKey.data(), out.data()), BIVO_ERR_LENGTH);
    EXPECT_EQ(BIVO_sm4_cbc_encrypt(in.data(), len, kIv.data(), kKey.data(), out.data()), BIVO_ERR_LENGTH);
    EXPECT_EQ(BIVO_sm4_cbc_decrypt(in.data(), len, kIv.data(), kKey.data(), out.data()), BIVO_ERR_LENGTH);
    EXPECT_EQ(out, Bytes(len + 16, 0xEE));
  }
  const Bytes in = RandomBytes(20, 12);
  Bytes padded(32), stripped(20);
  uint32_t n = 31;
  EXPECT_EQ(AddPadding(in.data(), 20, padded.data(), &n), BIVO_ERR_BUFFER_TOO_SMALL);
  n = 32;
  ASSERT_EQ(AddPadding(in.data(), 20, padded.data(), &n), 0u);
  EXPECT_EQ(padded, Cat({in, Bytes(12, 12)}));
  n = 19;
  EXPECT_EQ(RemovePadding(padded.data(), 32, stripped.data(), &n), BIVO_ERR_BUFFER_TOO_SMALL);
  n = 20;
  ASSERT_EQ(RemovePadding(padded.data(), 32, stripped.data(), &n), 0u);
  EXPECT_EQ(stripped, in);
  EXPECT_EQ(RemovePadding(Bytes{1, 2, 9}.data(), 3, nullptr, &n), BIVO_ERR_PADDING);  // reaches past the start
  n = 32;
  EXPECT_EQ(SM4_set_key(nullptr, nullptr), 0);
  EXPECT_EQ(BIVO_sm4_encrypt(kKey.data(), 16, nullptr, out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4CbcEncryptWithAutoPadding(kKey.data(), 16, nullptr, kKey.data(), out.data()),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4DecryptWithAutoRemovePadding(kKey.data(), 16, kKey.data(), out.data(), nullptr),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(nullptr, kKey.data(), out.data(), &n), ERR_INVALID_PARAMETER);
  EXPECT_EQ(AddPadding(kKey.data(), 16, out.data(), nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm4_cbc_decrypt(nullptr, 0, kIv.data(), kKey.data(), nullptr), 0u);  // nothing to do
}

TEST(Sm4, FilesHoldTheCiphertextOnly) {
  TempDir dir;
  const std::string ecb = dir.file("ecb.bin"), cbc = dir.file("cbc.bin"), no_dir = dir.file("no/dir.bin");
  for (uint32_t len : {0u, 5u, 16u, 4096u}) {
    const Bytes plain = RandomBytes(len, len + 7);
    Bytes out(len + 16);
    uint32_t n = 0;
    ASSERT_EQ(BIVO_CreateSm4EncryptFileWithAutoPadding(plain.data(), len, kKey.data(), ecb.c_str()), 0u);
    ASSERT_EQ(BIVO_CreateSm4CbcEncryptFileWithAutoPadding(plain.data(), len, kIv.data(), kKey.data(), cbc.c_str()), 0u);
    EXPECT_EQ(ReadBytes(ecb), EncryptPadded(plain, {}));
    EXPECT_EQ(ReadBytes(cbc), EncryptPadded(plain, kIv));
    ASSERT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(ecb.c_str(), kKey.data(), out.data(), &n), 0u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + n), plain);
    ASSERT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(cbc.c_str(), kIv.data(), kKey.data(), out.data(), &n), 0u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + n), plain);
  }
  const auto dec = [&](const std::string &path) {
    uint32_t n = 0;
    const uint32_t a = BIVO_Sm4DecryptFileWithAutoRemovePadding(path.c_str(), kKey.data(), nullptr, &n);
    EXPECT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(path.c_str(), kIv.data(), kKey.data(), nullptr, &n), a);
    return a;
  };
  EXPECT_EQ(dec(dir.file("missing")), BIVO_ERR_FILE);
  EXPECT_EQ(dec(dir.path().string()), BIVO_ERR_FILE);
  for (size_t len : {0u, 7u, 17u}) {  // empty, short and ragged files
    WriteBytes(ecb, RandomBytes(len, 25));
    EXPECT_EQ(dec(ecb), BIVO_ERR_LENGTH) << len;
  }
  EXPECT_EQ(BIVO_CreateSm4EncryptFileWithAutoPadding(kIv.data(), 10, kKey.data(), no_dir.c_str()), BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_CreateSm4CbcEncryptFileWithAutoPadding(kIv.data(), 10, kIv.data(), kKey.data(), no_dir.c_str()),
            BIVO_ERR_FILE);
}
