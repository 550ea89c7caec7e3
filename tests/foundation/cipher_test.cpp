// Digests by identifier, SM4-ECB buffers and files, PKCS#5 padding.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstring>
#include <string>

#include "foundation/helpers.hpp"
#include "test_support.hpp"
#include "zeph_c_utils.h"

namespace {

using zeph_test::FromHex;
using zeph_test::RandomBytes;
using zeph_test::ToHex;
using Bytes = std::vector<uint8_t>;

const Bytes kKey = FromHex("0123456789ABCDEFFEDCBA9876543210");
const unsigned char *K = kKey.data();
constexpr size_t kChunk = 4u << 20;

// OpenSSL's SM4-ECB with its own padding on or off: the independent reference.
Bytes Reference(const Bytes &in, bool padding) {
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  Bytes out(in.size() + 16);
  int n = 0, tail = 0;
  EVP_EncryptInit_ex(ctx, EVP_sm4_ecb(), nullptr, K, nullptr);
  EVP_CIPHER_CTX_set_padding(ctx, padding ? 1 : 0);
  EVP_EncryptUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(in.size()));
  EVP_EncryptFinal_ex(ctx, out.data() + n, &tail);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<size_t>(n + tail));
  return out;
}

TEST(Digest, KnownAnswersNidsAndFileChunks) {
  const struct {
    uint32_t id;
    int nid;
    const char *abc;
  } cases[] = {
      {1, 1143, "66C7F0F462EEEDD9D1F2D46BDC10E4E24167C4875CF2F7A2297DA02B8F4BA8E0"},
      {2, 64, "A9993E364706816ABA3E25717850C26C9CD0D89D"},
      {4, 672, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
      {8, 673, "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BAECA134C825A7"},
      {16, 674, "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80E2A9AC94FA54CA49F"},
      {128, 4, "900150983CD24FB0D6963F7D28E17F72"},
  };
  zeph_test::TempDir dir;
  zeph_test::WriteBytes(dir.file("abc"), {'a', 'b', 'c'});
  const auto *abc = reinterpret_cast<const unsigned char *>("abc");
  for (const auto &c : cases) {
    SCOPED_TRACE(c.id);
    const uint32_t want = static_cast<uint32_t>(std::strlen(c.abc) / 2);
    unsigned char out[64];
    uint32_t len = 0;
    int nid = 0;
    ASSERT_EQ(zeph_c_utils_digest(c.id, abc, 3, nullptr, &len, &nid), 0u);
    EXPECT_EQ(len, want);
    EXPECT_EQ(nid, c.nid);
    len = want - 1;
    EXPECT_EQ(zeph_c_utils_digest(c.id, abc, 3, out, &len, &nid), ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(len, want);
    ASSERT_EQ(zeph_c_utils_digest(c.id, abc, 3, out, &len, &nid), 0u);
    EXPECT_EQ(ToHex(out, len), c.abc);
    len = sizeof out;
    nid = 0;
    ASSERT_EQ(zeph_c_utils_digestWithFilePath(dir.file("abc").c_str(), c.id, out, &len, &nid), 0u);
    EXPECT_EQ(ToHex(out, len), c.abc);
    EXPECT_EQ(nid, c.nid);
  }
  // Files read in 4 MiB chunks hash as the whole buffer does.
  for (size_t n : {kChunk, kChunk + 1, 2 * kChunk + 5}) {
    const auto data = RandomBytes(n, static_cast<uint32_t>(n));
    zeph_test::WriteBytes(dir.file("f"), data);
    unsigned char a[32], b[32];
    uint32_t la = 32, lb = 32;
    ASSERT_EQ(zeph_c_utils_digest(1, data.data(), static_cast<uint32_t>(n), a, &la, nullptr), 0u);
    ASSERT_EQ(zeph_c_utils_digestWithFilePath(dir.file("f").c_str(), 1, b, &lb, nullptr), 0u);
    EXPECT_EQ(ToHex(a, la), ToHex(b, lb)) << n;
  }
}

TEST(Digest, RefusedInputs) {
  const unsigned char data[] = {1};
  unsigned char out[64];
  uint32_t len = sizeof out;
  for (uint32_t id : {0u, 3u, 32u, 129u, 0x10004u}) {
    EXPECT_EQ(zeph_c_utils_digest(id, data, 1, out, &len, nullptr), ERR_DIGEST_FAILED) << id;
  }
  EXPECT_EQ(zeph_c_utils_digest(4, data, 0, out, &len, nullptr), ERR_DIGEST_FAILED);
  EXPECT_EQ(zeph_c_utils_digest(4, nullptr, 1, out, &len, nullptr), ERR_DIGEST_FAILED);
  EXPECT_EQ(zeph_c_utils_digest(4, data, 1, out, nullptr, nullptr), ERR_INVALID_PARAMETER);
  zeph_test::TempDir dir;
  zeph_test::WriteBytes(dir.file("empty"), {});
  const auto file = [&](const std::string &p, uint32_t id) {
    return zeph_c_utils_digestWithFilePath(p.c_str(), id, out, &len, nullptr);
  };
  EXPECT_EQ(file(dir.file("empty"), 4), ERR_DIGEST_FAILED);
  EXPECT_EQ(file(dir.file("empty"), 5), ERR_DIGEST_FAILED);
  EXPECT_EQ(file(dir.file("missing"), 4), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(file(dir.path().string(), 4), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(zeph_c_utils_digestWithFilePath(nullptr, 4, out, &len, nullptr), ERR_INVALID_PARAMETER);
}

TEST(Sm4Ecb, StandardVectorAndOpenSslCrossCheck) {
  const Bytes cipher = FromHex("681EDF34D206965E86B3E94F536E4246");
  Bytes out(16);
  uint32_t len = 16;
  ASSERT_EQ(zeph_c_utils_encryptNoPading(0, K, 16, K, 16, out.data(), &len), 0u);
  EXPECT_EQ(out, cipher);
  ASSERT_EQ(zeph_c_utils_decryptNoPading(0, cipher.data(), 16, K, 16, out.data(), &len), 0u);
  EXPECT_EQ(out, kKey);

  for (size_t n = 1; n <= 70; ++n) {
    SCOPED_TRACE(n);
    const auto plain = RandomBytes(n, static_cast<uint32_t>(n));
    Bytes enc(n + 16);
    len = static_cast<uint32_t>(enc.size());
    // Whatever the identifier, the cipher is SM4-ECB with trailing PKCS#5.
    ASSERT_EQ(zeph_c_utils_encrypt(static_cast<uint32_t>(n * 0x401), plain.data(), static_cast<uint32_t>(n), K, 16,
                                   enc.data(), &len), 0u);
    enc.resize(len);
    EXPECT_EQ(enc, Reference(plain, true));
    Bytes back(enc.size());
    ASSERT_EQ(zeph_c_utils_decrypt(0, enc.data(), len, K, 16, back.data(), &len), 0u);
    back.resize(len);
    EXPECT_EQ(back, plain);
  }
}

TEST(Sm4Ecb, OutputBufferProtocolAndInPlace) {
  const auto plain = RandomBytes(20, 2);
  const Bytes cipher = Reference(plain, true);
  Bytes out(40, 0xEE);
  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_encrypt(0, plain.data(), 20, K, 16, nullptr, &len), 0u);
  EXPECT_EQ(len, 32u);
  len = 31;
  EXPECT_EQ(zeph_c_utils_encrypt(0, plain.data(), 20, K, 16, out.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 32u);
  EXPECT_EQ(out[0], 0xEE);
  // Decryption tells the plaintext length, also into a buffer shorter than the ciphertext.
  ASSERT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 32, K, 16, nullptr, &len), 0u);
  EXPECT_EQ(len, 20u);
  len = 19;
  EXPECT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 32, K, 16, out.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 20u);
  ASSERT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 32, K, 16, out.data(), &len), 0u);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 20), plain);
  EXPECT_EQ(out[20], 0xEE);

  Bytes inplace(plain);
  inplace.resize(32);
  len = 32;
  ASSERT_EQ(zeph_c_utils_encrypt(0, inplace.data(), 20, K, 16, inplace.data(), &len), 0u);
  EXPECT_EQ(inplace, cipher);
  ASSERT_EQ(zeph_c_utils_decrypt(0, inplace.data(), 32, K, 16, inplace.data(), &len), 0u);
  EXPECT_EQ(Bytes(inplace.begin(), inplace.begin() + len), plain);
}

TEST(Sm4Ecb, DecryptionPaddingRules) {
  const struct {
    const char *name;
    uint8_t before, last;  // the last two plaintext bytes; the rest are 0x41
    uint32_t status;
    uint32_t plain_len;
  } cases[] = {
      {"pad value 0 passes and removes nothing", 0x41, 0x00, 0, 16},
      {"pad value 1", 0x41, 0x01, 0, 15},
      {"pad value 16 over other bytes", 0x10, 0x10, ERR_PADDING_INVALID, 0},
      {"pad value 17", 0x11, 0x11, ERR_PADDING_INVALID, 0},
      {"pad bytes differ", 0x03, 0x02, ERR_PADDING_INVALID, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Bytes block(16, 0x41);
    block[14] = c.before;
    block[15] = c.last;
    const Bytes cipher = Reference(block, false);
    Bytes out(16, 0xEE);
    uint32_t len = 16;
    EXPECT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 16, K, 16, out.data(), &len), c.status);
    if (c.status == 0) {
      EXPECT_EQ(Bytes(out.begin(), out.begin() + len), Bytes(block.begin(), block.begin() + c.plain_len));
    } else {
      EXPECT_EQ(out, Bytes(16, 0));  // no decrypted bytes are left behind
    }
  }
}

TEST(Sm4Ecb, RefusedInputs) {
  const Bytes data(32, 1);
  Bytes out(64);
  uint32_t len = 64;
  for (auto fn : {zeph_c_utils_encrypt, zeph_c_utils_decrypt, zeph_c_utils_encryptNoPading,
                  zeph_c_utils_decryptNoPading}) {
    EXPECT_EQ(fn(0, nullptr, 16, K, 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 0, K, 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, nullptr, 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, K, 15, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, K, 16, out.data(), nullptr), ERR_INVALID_PARAMETER);
    if (fn != zeph_c_utils_encrypt) {  // whole blocks only where no padding is added
      EXPECT_EQ(fn(0, data.data(), 17, K, 16, out.data(), &len), ERR_ALG_UNSUPPORTED);
    }
  }
}

TEST(Padding, PrimitivesBothForms) {
  const unsigned char abc[] = {'a', 'b', 'c'};
  unsigned char out[8];
  ASSERT_EQ(l_P5pad(abc, 3, out, 8, 0), 0);
  EXPECT_EQ(ToHex(out, 8), "6162630505050505");
  ASSERT_EQ(l_P5pad(abc, 3, out, 8, 1), 0);
  EXPECT_EQ(ToHex(out, 8), "0505050505616263");
  EXPECT_EQ(l_P5pad(abc, 3, out, 3, 0), -1);

  const struct {
    const char *hex;
    int front;
    uint32_t status;
    const char *kept;
  } checks[] = {
      {"6162630505050505", 0, 0, "616263"},
      {"0505050505616263", 1, 0, "616263"},
      {"6162630505050505", 1, ERR_PADDING_INVALID, ""},  // first byte 'a' is above 16
      {"6162630505050405", 0, ERR_PADDING_INVALID, ""},
      {"0505050405616263", 1, ERR_PADDING_INVALID, ""},
      {"61626300", 0, 0, "61626300"},  // zero passes, nothing removed
      {"0606060606", 0, ERR_PADDING_INVALID, ""},  // more padding than data
      {"", 0, ERR_PADDING_INVALID, ""},
  };
  for (const auto &c : checks) {
    SCOPED_TRACE(std::string(c.hex) + (c.front ? " front" : " trailing"));
    const Bytes in = FromHex(c.hex);
    EXPECT_EQ(l_P5padding_check(in.data(), in.size(), c.front), c.status);
    Bytes kept(in.size() + 1);
    size_t kept_len = 0;
    ASSERT_EQ(l_P5unpad(in.data(), in.size(), kept.data(), &kept_len, c.front), c.status);
    if (c.status == 0) {
      EXPECT_EQ(ToHex(kept.data(), kept_len), c.kept);
    }
  }
}

TEST(Padding, AllocatingHelpers) {
  for (uint32_t n : {0u, 15u, 16u, 17u}) {
    const auto data = RandomBytes(n, n + 1);
    unsigned char *padded = nullptr, *plain = nullptr;
    uint32_t padded_len = 0, plain_len = 0;
    ASSERT_EQ(zeph_c_utils_add_P5_padding(data.data(), n, &padded, &padded_len), 0u);
    EXPECT_EQ(padded_len, (n + 16) / 16 * 16);
    EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(padded, padded_len), n);
    ASSERT_EQ(zeph_c_utils_del_P5_padding(padded, padded_len, &plain, &plain_len), 0u);
    EXPECT_EQ(Bytes(plain, plain + plain_len), data);
    std::free(padded);
    std::free(plain);
  }
  const unsigned char bad[] = {1, 2, 3, 0x11};
  unsigned char *plain = nullptr;
  uint32_t len = 0;
  EXPECT_EQ(zeph_c_utils_del_P5_padding(bad, 4, &plain, &len), ERR_PADDING_INVALID);
  EXPECT_EQ(plain, nullptr);
  EXPECT_EQ(zeph_c_utils_add_P5_padding(nullptr, 4, &plain, &len), ERR_INVALID_PARAMETER);
  // The length helper trusts the last byte without checking the padding.
  const unsigned char three[] = {9, 9, 9, 3}, four[] = {9, 9, 9, 4};
  EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(three, 4), 1u);
  EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(four, 4), 0u);
  EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(nullptr, 4), 0u);
}

class FileCipher : public testing::Test {
 protected:
  uint32_t Encrypt(const std::string &name, const unsigned char *key = K, uint32_t key_len = 16) {
    return zeph_c_utils_encryptWithFilePath(name.c_str(), nullptr, 0, key, key_len);
  }
  uint32_t Decrypt(const std::string &name, const unsigned char *key = K) {
    return zeph_c_utils_decryptWithFilePath(name.c_str(), nullptr, 0, key, 16);
  }
  zeph_test::TempDir dir_;
};

TEST_F(FileCipher, RoundTripAcrossChunkBoundaries) {
  for (size_t n : {size_t{0}, size_t{16}, kChunk - 1, kChunk, 2 * kChunk + 17}) {
    SCOPED_TRACE(n);
    const std::string name = dir_.file("f") + std::to_string(n);
    const auto plain = RandomBytes(n, static_cast<uint32_t>(n));
    zeph_test::WriteBytes(name, plain);
    ASSERT_EQ(Encrypt(name), 0u);
    EXPECT_EQ(zeph_test::ReadBytes(name + ".enc"), Reference(plain, true));
    ASSERT_EQ(Decrypt(name + ".enc"), 0u);
    EXPECT_EQ(zeph_test::ReadBytes(name + ".enc.dec"), plain);
  }
}

TEST_F(FileCipher, NeverOverwritesAndFailuresLeaveNoOutput) {
  const std::string doc = dir_.file("doc");
  zeph_test::WriteBytes(doc, Bytes(5000, 'z'));
  ASSERT_EQ(Encrypt(doc), 0u);
  const auto first = zeph_test::ReadBytes(doc + ".enc");
  const Bytes other(16, 0x5A);
  EXPECT_EQ(Encrypt(doc, other.data()), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(zeph_test::ReadBytes(doc + ".enc"), first);
  zeph_test::WriteBytes(doc + ".dec", {'k'});
  EXPECT_EQ(Decrypt(doc), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(zeph_test::ReadBytes(doc + ".dec"), Bytes{'k'});

  // Wrong key (malformed padding at the end), missing input, not whole blocks, a directory.
  EXPECT_EQ(Decrypt(doc + ".enc", other.data()), ERR_ALG_UNSUPPORTED);
  EXPECT_FALSE(std::filesystem::exists(doc + ".enc.dec"));
  EXPECT_EQ(Encrypt(dir_.file("missing")), ERR_FILE_OPEN_FAILED);
  EXPECT_FALSE(std::filesystem::exists(dir_.file("missing.enc")));
  zeph_test::WriteBytes(dir_.file("odd"), Bytes(17, 1));
  EXPECT_EQ(Decrypt(dir_.file("odd")), ERR_ALG_UNSUPPORTED);
  EXPECT_FALSE(std::filesystem::exists(dir_.file("odd.dec")));
  std::filesystem::create_directory(dir_.file("dir"));
  EXPECT_EQ(Encrypt(dir_.file("dir")), ERR_FILE_OPEN_FAILED);
  EXPECT_FALSE(std::filesystem::exists(dir_.file("dir.enc")));

  EXPECT_EQ(Encrypt(""), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_encryptWithFilePath(nullptr, nullptr, 0, K, 16), ERR_INVALID_PARAMETER);
  EXPECT_EQ(Encrypt(dir_.file("odd"), nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(Encrypt(dir_.file("odd"), K, 8), ERR_INVALID_PARAMETER);
}

}  // namespace
