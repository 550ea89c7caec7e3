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

const Bytes kStdKey = FromHex("0123456789abcdeffedcba9876543210");

uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

// EVP SM4 with its PKCS#7 padding, which is the padding rule used here.
Bytes EvpSm4Padded(const Bytes &in, const Bytes &key, const Bytes &iv) {
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex(ctx, iv.empty() ? EVP_sm4_ecb() : EVP_sm4_cbc(), nullptr, key.data(),
                     iv.empty() ? nullptr : iv.data());
  Bytes out(in.size() + 16);
  int n1 = 0, n2 = 0;
  EVP_EncryptUpdate(ctx, out.data(), &n1, in.data(), static_cast<int>(in.size()));
  EVP_EncryptFinal_ex(ctx, out.data() + n1, &n2);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<size_t>(n1 + n2));
  return out;
}

// Encrypts with padding, ECB (iv empty) or CBC.
Bytes EncryptPadded(const Bytes &in, const Bytes &key, const Bytes &iv) {
  Bytes out(BIVO_ComputeSm4EcbCipherLen(Len(in)));
  const uint32_t rv = iv.empty() ? BIVO_Sm4EncryptWithAutoPadding(in.data(), Len(in), key.data(), out.data())
                                 : BIVO_Sm4CbcEncryptWithAutoPadding(in.data(), Len(in), iv.data(), key.data(),
                                                                     out.data());
  EXPECT_EQ(rv, 0u);
  return out;
}

uint32_t DecryptPadded(const Bytes &in, const Bytes &key, const Bytes &iv, Bytes &out) {
  out.assign(in.size() + 1, 0xEE);
  uint32_t n = 0;
  const uint32_t rv = iv.empty()
                          ? BIVO_Sm4DecryptWithAutoRemovePadding(in.data(), Len(in), key.data(), out.data(), &n)
                          : BIVO_Sm4CbcDecryptWithAutoRemovePadding(in.data(), Len(in), iv.data(), key.data(),
                                                                    out.data(), &n);
  if (rv == 0) out.resize(n);
  return rv;
}

}  // namespace

TEST(Sm4, StandardExampleAndMillionEncryptions) {
  uint32_t rk[32];
  ASSERT_EQ(SM4_set_key(kStdKey.data(), rk), 1);
  Bytes block = kStdKey, back(16);
  SM4_encrypt(block.data(), block.data(), rk);
  EXPECT_EQ(ToHex(block), "681EDF34D206965E86B3E94F536E4246");
  SM4_decrypt(block.data(), back.data(), rk);
  EXPECT_EQ(back, kStdKey);

  Bytes ecb(16);
  ASSERT_EQ(BIVO_sm4_encrypt(kStdKey.data(), 16, kStdKey.data(), ecb.data()), 0u);
  EXPECT_EQ(ecb, block);

  block = kStdKey;
  for (int i = 0; i < 1000000; ++i) SM4_encrypt(block.data(), block.data(), rk);
  EXPECT_EQ(ToHex(block), "595298C7C6FD271F0402F804C33D3F66");
}

TEST(Sm4, TableTransformEqualsBytewiseTransform) {
  std::mt19937 gen(5);
  for (int i = 0; i < 200000; ++i) {
    const uint32_t x = static_cast<uint32_t>(gen());
    ASSERT_EQ(SM4_T(x), SM4_T_slow(x)) << std::hex << x;
  }
  for (uint32_t b = 0; b < 256; ++b) {
    for (int shift = 0; shift < 32; shift += 8) ASSERT_EQ(SM4_T(b << shift), SM4_T_slow(b << shift));
  }
}

TEST(Sm4, BlockModesAgreeWithOpenSsl) {
  std::mt19937 gen(6);
  for (uint32_t blocks : {1u, 2u, 3u, 17u, 256u}) {
    const Bytes key = RandomBytes(16, gen()), iv = RandomBytes(16, gen());
    const Bytes plain = RandomBytes(blocks * 16, gen());
    Bytes ecb(plain.size()), cbc(plain.size()), back(plain.size());

    ASSERT_EQ(BIVO_sm4_encrypt(plain.data(), Len(plain), key.data(), ecb.data()), 0u);
    EXPECT_EQ(ecb, EvpSm4(plain, key, {}, true));
    ASSERT_EQ(BIVO_sm4_decrypt(ecb.data(), Len(ecb), key.data(), back.data()), 0u);
    EXPECT_EQ(back, plain);

    ASSERT_EQ(BIVO_sm4_cbc_encrypt(plain.data(), Len(plain), iv.data(), key.data(), cbc.data()), 0u);
    EXPECT_EQ(cbc, EvpSm4(plain, key, iv, true));
    ASSERT_EQ(BIVO_sm4_cbc_decrypt(cbc.data(), Len(cbc), iv.data(), key.data(), back.data()), 0u);
    EXPECT_EQ(back, plain);

    // In place, both directions.
    Bytes work = plain;
    BIVO_sm4_cbc_encrypt(work.data(), Len(work), iv.data(), key.data(), work.data());
    EXPECT_EQ(work, cbc);
    BIVO_sm4_cbc_decrypt(work.data(), Len(work), iv.data(), key.data(), work.data());
    EXPECT_EQ(work, plain);
    BIVO_sm4_encrypt(work.data(), Len(work), key.data(), work.data());
    EXPECT_EQ(work, ecb);
    BIVO_sm4_decrypt(work.data(), Len(work), key.data(), work.data());
    EXPECT_EQ(work, plain);
  }
}

TEST(Sm4, PaddedRoundTripsMatchOpenSsl) {
  const Bytes key = RandomBytes(16, 8), iv = RandomBytes(16, 9);
  for (uint32_t len : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 4096u}) {
    const Bytes plain = RandomBytes(len, len + 100);
    EXPECT_EQ(BIVO_ComputeSm4EcbCipherLen(len), (len / 16 + 1) * 16);
    for (const Bytes &mode_iv : {Bytes{}, iv}) {
      const Bytes cipher = EncryptPadded(plain, key, mode_iv);
      EXPECT_EQ(cipher, EvpSm4Padded(plain, key, mode_iv)) << "length " << len;
      Bytes back;
      ASSERT_EQ(DecryptPadded(cipher, key, mode_iv, back), 0u) << "length " << len;
      EXPECT_EQ(back, plain);

      // A null output asks for the plaintext length only.
      uint32_t n = 12345;
      const uint32_t rv = mode_iv.empty()
                              ? BIVO_Sm4DecryptWithAutoRemovePadding(cipher.data(), Len(cipher), key.data(), nullptr, &n)
                              : BIVO_Sm4CbcDecryptWithAutoRemovePadding(cipher.data(), Len(cipher), mode_iv.data(),
                                                                        key.data(), nullptr, &n);
      EXPECT_EQ(rv, 0u);
      EXPECT_EQ(n, len);
    }
  }
  // A block-aligned input gains a whole block of 0x10.
  Bytes one_block(16), decrypted(32);
  const Bytes cipher = EncryptPadded(Bytes(16, 'a'), key, {});
  ASSERT_EQ(cipher.size(), 32u);
  BIVO_sm4_decrypt(cipher.data(), 32, key.data(), decrypted.data());
  EXPECT_EQ(Bytes(decrypted.begin() + 16, decrypted.end()), Bytes(16, 0x10));
}

TEST(Sm4, PaddingHelpers) {
  const Bytes in = RandomBytes(20, 12);
  uint32_t n = 0;
  ASSERT_EQ(AddPadding(in.data(), 20, nullptr, &n), 0u);
  EXPECT_EQ(n, 32u);
  Bytes out(32);
  n = 31;
  EXPECT_EQ(AddPadding(in.data(), 20, out.data(), &n), BIVO_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(n, 31u);  // not written back on this path
  n = 32;
  ASSERT_EQ(AddPadding(in.data(), 20, out.data(), &n), 0u);
  EXPECT_EQ(Bytes(out.begin() + 20, out.end()), Bytes(12, 12));
  ASSERT_EQ(AddPadding(nullptr, 0, out.data(), &n), 0u);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 16), Bytes(16, 16));

  ASSERT_EQ(RemovePadding(out.data(), 16, nullptr, &n), 0u);
  EXPECT_EQ(n, 0u);
  Bytes padded = in;
  padded.insert(padded.end(), 12, 12);
  Bytes stripped(20);
  n = 19;
  EXPECT_EQ(RemovePadding(padded.data(), 32, stripped.data(), &n), BIVO_ERR_BUFFER_TOO_SMALL);
  n = 20;
  ASSERT_EQ(RemovePadding(padded.data(), 32, stripped.data(), &n), 0u);
  EXPECT_EQ(stripped, in);
  const Bytes reaches_past = {1, 2, 9};
  EXPECT_EQ(RemovePadding(reaches_past.data(), 3, nullptr, &n), BIVO_ERR_PADDING);
  EXPECT_EQ(RemovePadding(nullptr, 0, nullptr, &n), BIVO_ERR_PADDING);

  struct Case {
    const char *what;
    Bytes buf;
    uint32_t status;
  };
  Bytes differing(16, 5);
  differing[12] = 4;  // inside the run of five 0x05 bytes
  const Case cases[] = {
      {"one pad byte", Bytes{7, 7, 7, 1}, 0},
      {"whole block", Bytes(16, 16), 0},
      {"last byte zero", Bytes(16, 0), BIVO_ERR_PADDING},
      {"last byte 17", Bytes(32, 17), BIVO_ERR_PADDING},
      {"one differing byte", differing, BIVO_ERR_PADDING},
      {"longer than buffer", Bytes{3, 3}, BIVO_ERR_PADDING},
      {"empty", Bytes{}, BIVO_ERR_PADDING},
  };
  for (const Case &c : cases) EXPECT_EQ(CheckPaddingValidity(c.buf.data(), Len(c.buf)), c.status) << c.what;
}

TEST(Sm4, InvalidPaddingAfterDecryptionIsRefused) {
  const Bytes key = RandomBytes(16, 13), iv = RandomBytes(16, 14);
  Bytes run(16, 6);
  run[11] = 7;
  for (const Bytes &last_block : {Bytes(16, 0), Bytes(16, 17), run}) {
    Bytes plain = RandomBytes(16, 15);
    plain.insert(plain.end(), last_block.begin(), last_block.end());
    Bytes ecb(32), cbc(32), out;
    BIVO_sm4_encrypt(plain.data(), 32, key.data(), ecb.data());
    BIVO_sm4_cbc_encrypt(plain.data(), 32, iv.data(), key.data(), cbc.data());
    EXPECT_EQ(DecryptPadded(ecb, key, {}, out), BIVO_ERR_PADDING);
    EXPECT_EQ(out, Bytes(33, 0xEE));  // nothing written
    EXPECT_EQ(DecryptPadded(cbc, key, iv, out), BIVO_ERR_PADDING);
    EXPECT_EQ(out, Bytes(33, 0xEE));
  }
}

TEST(Sm4, CiphertextLengthsAreChecked) {
  const Bytes key = RandomBytes(16, 16), iv = RandomBytes(16, 17);
  for (uint32_t len : {1u, 15u, 17u, 33u}) {
    const Bytes in = RandomBytes(len, len);
    Bytes out(len + 16, 0xEE);
    EXPECT_EQ(BIVO_sm4_encrypt(in.data(), len, key.data(), out.data()), BIVO_ERR_LENGTH);
    EXPECT_EQ(BIVO_sm4_decrypt(in.data(), len, key.data(), out.data()), BIVO_ERR_LENGTH);
    EXPECT_EQ(BIVO_sm4_cbc_encrypt(in.data(), len, iv.data(), key.data(), out.data()), BIVO_ERR_LENGTH);
    EXPECT_EQ(BIVO_sm4_cbc_decrypt(in.data(), len, iv.data(), key.data(), out.data()), BIVO_ERR_LENGTH);
    EXPECT_EQ(out, Bytes(len + 16, 0xEE));
  }
  for (uint32_t len : {0u, 1u, 15u, 17u, 33u}) {
    const Bytes in = RandomBytes(len, len);
    Bytes out;
    EXPECT_EQ(DecryptPadded(in, key, {}, out), BIVO_ERR_LENGTH) << len;
    EXPECT_EQ(DecryptPadded(in, key, iv, out), BIVO_ERR_LENGTH) << len;
  }
  // Zero-length block operations do nothing and succeed.
  EXPECT_EQ(BIVO_sm4_encrypt(nullptr, 0, key.data(), nullptr), 0u);
  EXPECT_EQ(BIVO_sm4_cbc_decrypt(nullptr, 0, iv.data(), key.data(), nullptr), 0u);
  // An input whose padded length does not fit 32 bits.
  EXPECT_EQ(BIVO_ComputeSm4EcbCipherLen(0xFFFFFFF0u), 0u);
  EXPECT_EQ(BIVO_ComputeSm4EcbCipherLen(0xFFFFFFEFu), 0xFFFFFFF0u);
}

TEST(Sm4, FilesHoldTheCiphertextOnly) {
  TempDir dir;
  const Bytes key = RandomBytes(16, 18), iv = RandomBytes(16, 19);
  for (uint32_t len : {0u, 5u, 16u, 4096u}) {
    const Bytes plain = RandomBytes(len, len + 7);
    const std::string ecb_path = dir.file("ecb.bin"), cbc_path = dir.file("cbc.bin");
    ASSERT_EQ(BIVO_CreateSm4EncryptFileWithAutoPadding(plain.data(), len, key.data(), ecb_path.c_str()), 0u);
    ASSERT_EQ(BIVO_CreateSm4CbcEncryptFileWithAutoPadding(plain.data(), len, iv.data(), key.data(), cbc_path.c_str()),
              0u);
    EXPECT_EQ(ReadBytes(ecb_path), EncryptPadded(plain, key, {}));
    EXPECT_EQ(ReadBytes(cbc_path), EncryptPadded(plain, key, iv));

    Bytes out(len + 16);
    uint32_t n = 0;
    ASSERT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(ecb_path.c_str(), key.data(), out.data(), &n), 0u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + n), plain);
    n = 0;
    ASSERT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(cbc_path.c_str(), iv.data(), key.data(), nullptr, &n), 0u);
    EXPECT_EQ(n, len);
  }

  // Another IV changes only the first plaintext block...
  const Bytes plain = RandomBytes(40, 20);
  const Bytes cipher = EncryptPadded(plain, key, iv);
  Bytes wrong_iv = iv;
  wrong_iv[15] ^= 0x20;
  Bytes right(48), wrong(48);
  BIVO_sm4_cbc_decrypt(cipher.data(), 48, iv.data(), key.data(), right.data());
  BIVO_sm4_cbc_decrypt(cipher.data(), 48, wrong_iv.data(), key.data(), wrong.data());
  EXPECT_NE(Bytes(right.begin(), right.begin() + 16), Bytes(wrong.begin(), wrong.begin() + 16));
  EXPECT_EQ(Bytes(right.begin() + 16, right.end()), Bytes(wrong.begin() + 16, wrong.end()));
  // ...which, for a one-block file, breaks the padding (0x0B becomes 0x2B).
  const std::string short_path = dir.file("short.bin");
  const Bytes five = RandomBytes(5, 21);
  ASSERT_EQ(BIVO_CreateSm4CbcEncryptFileWithAutoPadding(five.data(), 5, iv.data(), key.data(), short_path.c_str()), 0u);
  uint32_t n = 0;
  EXPECT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(short_path.c_str(), wrong_iv.data(), key.data(), nullptr, &n),
            BIVO_ERR_PADDING);
}

TEST(Sm4, FileFailures) {
  TempDir dir;
  const Bytes key = RandomBytes(16, 22), iv = RandomBytes(16, 23);
  const Bytes data = RandomBytes(10, 24);
  uint32_t n = 0;
  const std::string missing = dir.file("missing.bin"), no_dir = dir.file("no/such/dir.bin");
  EXPECT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(missing.c_str(), key.data(), nullptr, &n), BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(missing.c_str(), iv.data(), key.data(), nullptr, &n),
            BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(dir.path().c_str(), key.data(), nullptr, &n), BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_CreateSm4EncryptFileWithAutoPadding(data.data(), 10, key.data(), no_dir.c_str()), BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_CreateSm4CbcEncryptFileWithAutoPadding(data.data(), 10, iv.data(), key.data(), no_dir.c_str()),
            BIVO_ERR_FILE);

  for (size_t len : {0u, 7u, 17u}) {  // empty, short, ragged files
    const std::string path = dir.file("ragged.bin");
    WriteBytes(path, RandomBytes(len, 25));
    EXPECT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(path.c_str(), key.data(), nullptr, &n), BIVO_ERR_LENGTH);
    EXPECT_EQ(BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(path.c_str(), iv.data(), key.data(), nullptr, &n),
              BIVO_ERR_LENGTH);
  }
}

TEST(Sm4, WholeFileHelpers) {
  TempDir dir;
  const std::string path = dir.file("f.bin"), empty = dir.file("empty.bin");
  const Bytes data = RandomBytes(1000, 26);
  WriteBytes(path, data);
  WriteBytes(empty, {});
  uint32_t n = 0;
  ASSERT_EQ(GetFileLength(path.c_str(), &n), 0u);
  EXPECT_EQ(n, 1000u);
  EXPECT_EQ(GetFileLength(dir.file("missing").c_str(), &n), BIVO_ERR_FILE);
  EXPECT_EQ(GetFileLength(dir.path().c_str(), &n), BIVO_ERR_FILE);
  EXPECT_EQ(GetFileLength(nullptr, &n), BIVO_ERR_NULL_POINTER);

  unsigned char *buf = nullptr;
  ASSERT_EQ(ReadFileIntoMemoryBuffer(path.c_str(), &buf, &n), 0u);
  EXPECT_EQ(Bytes(buf, buf + n), data);
  FreeFileInMemoryBuffer(buf);
  buf = nullptr;
  ASSERT_EQ(ReadFileIntoMemoryBuffer(empty.c_str(), &buf, &n), 0u);
  EXPECT_NE(buf, nullptr);
  EXPECT_EQ(n, 0u);
  FreeFileInMemoryBuffer(buf);
  EXPECT_EQ(ReadFileIntoMemoryBuffer(dir.file("missing").c_str(), &buf, &n), BIVO_ERR_FILE);
  FreeFileInMemoryBuffer(nullptr);
}

TEST(Sm4, NullArgumentsGiveStatuses) {
  const Bytes key(16, 1), iv(16, 2), block(16, 3);
  Bytes out(32);
  uint32_t n = 32;
  EXPECT_EQ(SM4_set_key(nullptr, nullptr), 0);
  EXPECT_EQ(BIVO_sm4_encrypt(block.data(), 16, nullptr, out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm4_decrypt(nullptr, 16, key.data(), out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm4_cbc_encrypt(block.data(), 16, nullptr, key.data(), out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm4_cbc_decrypt(block.data(), 16, iv.data(), key.data(), nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4EncryptWithAutoPadding(block.data(), 16, key.data(), nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4EncryptWithAutoPadding(nullptr, 3, key.data(), out.data()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4CbcEncryptWithAutoPadding(block.data(), 16, nullptr, key.data(), out.data()),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4DecryptWithAutoRemovePadding(block.data(), 16, key.data(), out.data(), nullptr),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4CbcDecryptWithAutoRemovePadding(block.data(), 16, iv.data(), nullptr, out.data(), &n),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_CreateSm4EncryptFileWithAutoPadding(block.data(), 16, key.data(), nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_Sm4DecryptFileWithAutoRemovePadding(nullptr, key.data(), out.data(), &n), ERR_INVALID_PARAMETER);
  EXPECT_EQ(AddPadding(block.data(), 16, out.data(), nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(RemovePadding(nullptr, 16, out.data(), &n), ERR_INVALID_PARAMETER);
  EXPECT_EQ(CheckPaddingValidity(nullptr, 16), ERR_INVALID_PARAMETER);
}
