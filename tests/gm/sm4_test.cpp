// SM4: the standard examples, agreement with OpenSSL's SM4 in ECB and CBC
// (with and without padding), padding edge cases, length checks and files.
#include <gtest/gtest.h>

#include <random>

#include "gm_test_util.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

using gm_test::Bytes;
using gm_test::EvpSm4;
using zeph_test::FromHex;
using zeph_test::RandomBytes;
using zeph_test::ReadBytes;
using zeph_test::TempDir;
using zeph_test::ToHex;
using zeph_test::WriteBytes;

namespace {

uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

// Encrypts with padding, ECB (iv empty) or CBC.
Bytes EncryptPadded(const Bytes &in, const Bytes &key, const Bytes &iv) {
  Bytes out(BIVO_ComputeSm4EcbCipherLen(Len(in)));
  EXPECT_EQ(iv.empty() ? BIVO_Sm4EncryptWithAutoPadding(in.data(), Len(in), key.data(), out.data())
                       : BIVO_Sm4CbcEncryptWithAutoPadding(in.data(), Len(in), iv.data(), key.data(), out.data()),
            0u);
  return out;
}

// Decrypts with padding removal into a marked buffer (or with a null output).
uint32_t DecryptPadded(const Bytes &in, const Bytes &key, const Bytes &iv, Bytes &out, bool null_out = false) {
  out.assign(in.size() + 1, 0xEE);
  uint8_t *dst = null_out ? nullptr : out.data();
  uint32_t n = 0xFFFF;
  const uint32_t rv = iv.empty() ? BIVO_Sm4DecryptWithAutoRemovePadding(in.data(), Len(in), key.data(), dst, &n)
                                 : BIVO_Sm4CbcDecryptWithAutoRemovePadding(in.data(), Len(in), iv.data(), key.data(),
                                                                           dst, &n);
  if (rv == 0) out.resize(n);
  return rv;
}

}  // namespace

TEST(Sm4, StandardExampleAndMillionEncryptions) {
  const Bytes key = FromHex("0123456789abcdeffedcba9876543210");
  uint32_t rk[32];
  ASSERT_EQ(SM4_set_key(key.data(), rk), 1);
  Bytes block(16), back(16), ecb(16);
  SM4_encrypt(key.data(), block.data(), rk);
  EXPECT_EQ(ToHex(block), "681EDF34D206965E86B3E94F536E4246");
  SM4_decrypt(block.data(), back.data(), rk);
  EXPECT_EQ(back, key);
  ASSERT_EQ(BIVO_sm4_encrypt(key.data(), 16, key.data(), ecb.data()), 0u);
  EXPECT_EQ(ecb, block);

  block = key;
  for (int i = 0; i < 1000000; ++i) SM4_encrypt(block.data(), block.data(), rk);
  EXPECT_EQ(ToHex(block), "595298C7C6FD271F0402F804C33D3F66");
}

TEST(Sm4, BlockModesAgreeWithOpenSsl) {
  std::mt19937 gen(6);
  for (uint32_t blocks : {1u, 2u, 17u, 256u}) {
    const Bytes key = RandomBytes(16, gen()), iv = RandomBytes(16, gen()), plain = RandomBytes(blocks * 16, gen());
    Bytes ecb(plain.size()), cbc(plain.size()), back(plain.size());
    ASSERT_EQ(BIVO_sm4_encrypt(plain.data(), Len(plain), key.data(), ecb.data()), 0u);
    EXPECT_EQ(ecb, EvpSm4(plain, key, {}, true));
    ASSERT_EQ(BIVO_sm4_decrypt(ecb.data(), Len(ecb), key.data(), back.data()), 0u);
    EXPECT_EQ(back, plain);
    ASSERT_EQ(BIVO_sm4_cbc_encrypt(plain.data(), Len(plain), iv.data(), key.data(), cbc.data()), 0u);
    EXPECT_EQ(cbc, EvpSm4(plain, key, iv, true));

    // CBC decryption in place must keep each ciphertext block for the next.
    ASSERT_EQ(BIVO_sm4_cbc_decrypt(cbc.data(), Len(cbc), iv.data(), key.data(), cbc.data()), 0u);
    EXPECT_EQ(cbc, plain);
  }
}

TEST(Sm4, PaddedRoundTripsMatchOpenSsl) {
  const Bytes key = RandomBytes(16, 8), iv = RandomBytes(16, 9);
  for (uint32_t len : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 4096u}) {
    const Bytes plain = RandomBytes(len, len + 100);
    EXPECT_EQ(BIVO_ComputeSm4EcbCipherLen(len), (len / 16 + 1) * 16);
    for (const Bytes &mode_iv : {Bytes{}, iv}) {
      const Bytes cipher = EncryptPadded(plain, key, mode_iv);
      EXPECT_EQ(cipher, EvpSm4(plain, key, mode_iv, true, true)) << len;
      Bytes back;
      ASSERT_EQ(DecryptPadded(cipher, key, mode_iv, back), 0u) << len;
      EXPECT_EQ(back, plain);
      ASSERT_EQ(DecryptPadded(cipher, key, mode_iv, back, true), 0u);  // length only
      EXPECT_EQ(back.size(), len);
    }
  }
  EXPECT_EQ(BIVO_ComputeSm4EcbCipherLen(0xFFFFFFEFu), 0xFFFFFFF0u);
  EXPECT_EQ(BIVO_ComputeSm4EcbCipherLen(0xFFFFFFF0u), 0u);  // does not fit 32 bits
}

TEST(Sm4, PaddingHelpers) {
  const Bytes in = RandomBytes(20, 12);
  Bytes out(32);
  uint32_t n = 0;
  ASSERT_EQ(AddPadding(in.data(), 20, nullptr, &n), 0u);
  EXPECT_EQ(n, 32u);
  n = 31;
  EXPECT_EQ(AddPadding(in.data(), 20, out.data(), &n), BIVO_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(n, 31u);  // not written back on this path
  n = 32;
  ASSERT_EQ(AddPadding(in.data(), 20, out.data(), &n), 0u);
  EXPECT_EQ(Bytes(out.begin() + 20, out.end()), Bytes(12, 12));

  Bytes stripped(20);
  n = 19;
  EXPECT_EQ(RemovePadding(out.data(), 32, stripped.data(), &n), BIVO_ERR_BUFFER_TOO_SMALL);
  n = 20;
  ASSERT_EQ(RemovePadding(out.data(), 32, stripped.data(), &n), 0u);
  EXPECT_EQ(stripped, in);
  EXPECT_EQ(RemovePadding(Bytes{1, 2, 9}.data(), 3, nullptr, &n), BIVO_ERR_PADDING);  // reaches past the start
  EXPECT_EQ(RemovePadding(nullptr, 0, nullptr, &n), BIVO_ERR_PADDING);

  Bytes differing(16, 5);
  differing[12] = 4;  // inside the run of five 0x05 bytes
  const std::pair<Bytes, uint32_t> cases[] = {
      {{7, 7, 7, 1}, 0},         {Bytes(16, 16), 0},          {Bytes(16, 0), BIVO_ERR_PADDING},
      {Bytes(32, 17), BIVO_ERR_PADDING}, {differing, BIVO_ERR_PADDING}, {{3, 3}, BIVO_ERR_PADDING},
      {{}, BIVO_ERR_PADDING},
  };
  for (const auto &[buf, status] : cases) EXPECT_EQ(CheckPaddingValidity(buf.data(), Len(buf)), status) << ToHex(buf);
}

TEST(Sm4, BadPaddingAndBadLengthsAreRefused) {
  const Bytes key = RandomBytes(16, 13), iv = RandomBytes(16, 14);
  Bytes run(16, 6);
  run[11] = 7;
  for (const Bytes &last_block : {Bytes(16, 0), Bytes(16, 17), run}) {
    Bytes plain = RandomBytes(16, 15), ecb(32), cbc(32), out;
    plain.insert(plain.end(), last_block.begin(), last_block.end());
    BIVO_sm4_encrypt(plain.data(), 32, key.data(), ecb.data());
    BIVO_sm4_cbc_encrypt(plain.data(), 32, iv.data(), key.data(), cbc.data());
    EXPECT_EQ(DecryptPadded(ecb, key, {}, out), BIVO_ERR_PADDING);
    EXPECT_EQ(out, Bytes(33, 0xEE));  // nothing written
    EXPECT_EQ(DecryptPadded(cbc, key, iv, out), BIVO_ERR_PADDING);
    EXPECT_EQ(out, Bytes(33, 0xEE));
  }
  for (uint32_t len : {0u, 1u, 15u, 17u, 33u}) {
    const Bytes in = RandomBytes(len, len);
    Bytes out(len + 16, 0xEE);
    if (len != 0) {
      EXPECT_EQ(BIVO_sm4_encrypt(in.data(), len, key.data(), out.data()), BIVO_ERR_LENGTH);
      EXPECT_EQ(BIVO_sm4_decrypt(in.data(), len, key.data(), out.data()), BIVO_ERR_LENGTH);
      EXPECT_EQ(BIVO_sm4_cbc_encrypt(in.data(), len, iv.data(), key.data(), out.data()), BIVO_ERR_LENGTH);
      EXPECT_EQ(BIVO_sm4_cbc_decrypt(in.data(), len, iv.data(), key.data(), out.data()), BIVO_ERR_LENGTH);
      EXPECT_EQ(out, Bytes(len + 16, 0xEE));
    }
    EXPECT_EQ(DecryptPadded(in, key, {}, out), BIVO_ERR_LENGTH) << len;
    EXPECT_EQ(DecryptPadded(in, key, iv, out), BIVO_ERR_LENGTH) << len;
  }
  EXPECT_EQ(BIVO_sm4_cbc_decrypt(nullptr, 0, iv.data(), key.data(), nullptr), 0u);  // nothing to do
}

TEST(Sm4, FilesHoldTheCiphertextOnly) {
  TempDir dir;
  const Bytes key = RandomBytes(16, 18), iv = RandomBytes(16, 19);
  const std::string ecb_path = dir.file("ecb.bin"), cbc_path = dir.file("cbc.bin");
  for (uint32_t len : {0u, 5u, 16u, 4096u}) {
    const Bytes plain = RandomBytes(len, len + 7);
    ASSERT_EQ(BIVO_CreateSm4EncryptFileWithAutoPadding(plain.data(), len, key.data(), ecb_path.c_str()), 0u);
    ASSERT_EQ(BIVO_CreateSm4CbcEncryptFileWithAutoPadding(plain.data(), len, iv.data(), key.data(), cbc_path.c_str()),
              0u);
    EXPECT_EQ(ReadBytes(ecb_path), EncryptPadded(plain, key, {}));
    EXPECT_EQ(ReadBytes(cbc_path), EncryptPadded(plain, key, iv));
    Bytes out(len + 16);
    uint32_t n = 0;
    ASSERT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(ecb_path.c_str(), key.data(), out.data(), &n), 0u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + n), plain);
    ASSERT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(cbc_path.c_str(), iv.data(), key.data(), out.data(), &n), 0u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + n), plain);
  }

  // Another IV changes only the first plaintext block...
  const Bytes cipher = EncryptPadded(RandomBytes(40, 20), key, iv);
  Bytes wrong_iv = iv, right(48), wrong(48);
  wrong_iv[15] ^= 0x20;
  BIVO_sm4_cbc_decrypt(cipher.data(), 48, iv.data(), key.data(), right.data());
  BIVO_sm4_cbc_decrypt(cipher.data(), 48, wrong_iv.data(), key.data(), wrong.data());
  EXPECT_NE(Bytes(right.begin(), right.begin() + 16), Bytes(wrong.begin(), wrong.begin() + 16));
  EXPECT_EQ(Bytes(right.begin() + 16, right.end()), Bytes(wrong.begin() + 16, wrong.end()));
  // ...which, for a one-block file, breaks the padding (0x0B becomes 0x2B).
  ASSERT_EQ(BIVO_CreateSm4CbcEncryptFileWithAutoPadding(cipher.data(), 5, iv.data(), key.data(), cbc_path.c_str()), 0u);
  uint32_t n = 0;
  EXPECT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(cbc_path.c_str(), wrong_iv.data(), key.data(), nullptr, &n),
            BIVO_ERR_PADDING);
}

TEST(Sm4, FileFailures) {
  TempDir dir;
  const Bytes key = RandomBytes(16, 22), iv = RandomBytes(16, 23), data = RandomBytes(10, 24);
  const std::string missing = dir.file("missing.bin"), no_dir = dir.file("no/such/dir.bin");
  uint32_t n = 0;
  for (const std::string &path : {missing, dir.path().string()}) {
    EXPECT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(path.c_str(), key.data(), nullptr, &n), BIVO_ERR_FILE);
    EXPECT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(path.c_str(), iv.data(), key.data(), nullptr, &n),
              BIVO_ERR_FILE);
  }
  EXPECT_EQ(BIVO_CreateSm4EncryptFileWithAutoPadding(data.data(), 10, key.data(), no_dir.c_str()), BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_CreateSm4CbcEncryptFileWithAutoPadding(data.data(), 10, iv.data(), key.data(), no_dir.c_str()),
            BIVO_ERR_FILE);
  for (size_t len : {0u, 7u, 17u}) {  // empty, short and ragged files
    WriteBytes(missing, RandomBytes(len, 25));
    EXPECT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(missing.c_str(), key.data(), nullptr, &n), BIVO_ERR_LENGTH);
    EXPECT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(missing.c_str(), iv.data(), key.data(), nullptr, &n),
              BIVO_ERR_LENGTH);
  }

  // The whole-file helpers underneath.
  WriteBytes(missing, data);
  unsigned char *buf = nullptr;
  ASSERT_EQ(GetFileLength(missing.c_str(), &n), 0u);
  EXPECT_EQ(n, 10u);
  ASSERT_EQ(ReadFileIntoMemoryBuffer(missing.c_str(), &buf, &n), 0u);
  EXPECT_EQ(Bytes(buf, buf + n), data);
  FreeFileInMemoryBuffer(buf);
  WriteBytes(missing, {});
  ASSERT_EQ(ReadFileIntoMemoryBuffer(missing.c_str(), &buf, &n), 0u);
  EXPECT_EQ(n, 0u);
  FreeFileInMemoryBuffer(buf);
  EXPECT_EQ(GetFileLength(dir.path().c_str(), &n), BIVO_ERR_FILE);
  EXPECT_EQ(ReadFileIntoMemoryBuffer(no_dir.c_str(), &buf, &n), BIVO_ERR_FILE);
  EXPECT_EQ(GetFileLength(nullptr, &n), BIVO_ERR_NULL_POINTER);
}

TEST(Sm4, NullArgumentsGiveStatuses) {
  const Bytes key(16, 1), block(16, 3);
  Bytes out(32);
  uint32_t n = 32;
  EXPECT_EQ(SM4_set_key(nullptr, nullptr), 0);
  EXPECT_EQ(BIVO_sm4_encrypt(block.data(), 16, nullptr, out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4CbcEncryptWithAutoPadding(block.data(), 16, nullptr, key.data(), out.data()),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4DecryptWithAutoRemovePadding(block.data(), 16, key.data(), out.data(), nullptr),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(nullptr, key.data(), out.data(), &n), ERR_INVALID_PARAMETER);
  EXPECT_EQ(AddPadding(block.data(), 16, out.data(), nullptr), ERR_INVALID_PARAMETER);
}
