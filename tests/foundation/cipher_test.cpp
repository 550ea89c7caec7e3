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
constexpr size_t kChunk = 4u << 20;

// SM4-ECB by OpenSSL, its own padding on or off: the independent reference.
Bytes OpenSslSm4(bool encrypt, const Bytes &key, const Bytes &in, bool padding) {
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  Bytes out(in.size() + 32);
  int n = 0;
  int tail = 0;
  EVP_CipherInit_ex(ctx, EVP_sm4_ecb(), nullptr, key.data(), nullptr, encrypt ? 1 : 0);
  EVP_CIPHER_CTX_set_padding(ctx, padding ? 1 : 0);
  EXPECT_EQ(EVP_CipherUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(in.size())), 1);
  EXPECT_EQ(EVP_CipherFinal_ex(ctx, out.data() + n, &tail), 1);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<size_t>(n + tail));
  return out;
}

Bytes Encrypt(const Bytes &in, uint32_t alg = 0) {
  Bytes out(in.size() + 16);
  uint32_t len = static_cast<uint32_t>(out.size());
  EXPECT_EQ(zeph_c_utils_encrypt(alg, in.data(), static_cast<uint32_t>(in.size()), kKey.data(), 16, out.data(), &len), 0u);
  out.resize(len);
  return out;
}

TEST(Digest, KnownAnswersAndNids) {
  struct Case {
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
  const std::string abc_file = dir.file("abc");
  zeph_test::WriteBytes(abc_file, {'a', 'b', 'c'});
  for (const auto &c : cases) {
    SCOPED_TRACE(c.id);
    const size_t want = std::strlen(c.abc) / 2;
    uint32_t len = 0;
    int nid = 0;
    ASSERT_EQ(zeph_c_utils_digest(c.id, reinterpret_cast<const unsigned char *>("abc"), 3, nullptr, &len, &nid), 0u);
    EXPECT_EQ(len, want);
    EXPECT_EQ(nid, c.nid);

    unsigned char out[64];
    len = static_cast<uint32_t>(want - 1);
    EXPECT_EQ(zeph_c_utils_digest(c.id, reinterpret_cast<const unsigned char *>("abc"), 3, out, &len, &nid),
              ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(len, want);

    len = sizeof out;
    nid = 0;
    ASSERT_EQ(zeph_c_utils_digest(c.id, reinterpret_cast<const unsigned char *>("abc"), 3, out, &len, &nid), 0u);
    EXPECT_EQ(ToHex(out, len), c.abc);
    EXPECT_EQ(nid, c.nid);

    len = sizeof out;
    nid = 0;
    ASSERT_EQ(zeph_c_utils_digestWithFilePath(abc_file.c_str(), c.id, out, &len, &nid), 0u);
    EXPECT_EQ(ToHex(out, len), c.abc);
    EXPECT_EQ(nid, c.nid);
  }
}

TEST(Digest, RefusedInputs) {
  const unsigned char data[] = {1};
  unsigned char out[64];
  uint32_t len = sizeof out;
  for (uint32_t id : {0u, 3u, 32u, 64u, 129u, 0x10004u}) {
    EXPECT_EQ(zeph_c_utils_digest(id, data, 1, out, &len, nullptr), ERR_DIGEST_FAILED) << id;
  }
  EXPECT_EQ(zeph_c_utils_digest(4, data, 0, out, &len, nullptr), ERR_DIGEST_FAILED);
  EXPECT_EQ(zeph_c_utils_digest(4, nullptr, 1, out, &len, nullptr), ERR_DIGEST_FAILED);
  EXPECT_EQ(zeph_c_utils_digest(4, data, 1, out, nullptr, nullptr), ERR_INVALID_PARAMETER);

  zeph_test::TempDir dir;
  zeph_test::WriteBytes(dir.file("empty"), {});
  EXPECT_EQ(zeph_c_utils_digestWithFilePath(dir.file("empty").c_str(), 4, out, &len, nullptr), ERR_DIGEST_FAILED);
  EXPECT_EQ(zeph_c_utils_digestWithFilePath(dir.file("missing").c_str(), 4, out, &len, nullptr),
            ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(zeph_c_utils_digestWithFilePath(dir.path().c_str(), 4, out, &len, nullptr), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(zeph_c_utils_digestWithFilePath(dir.file("empty").c_str(), 5, out, &len, nullptr), ERR_DIGEST_FAILED);
  EXPECT_EQ(zeph_c_utils_digestWithFilePath(nullptr, 4, out, &len, nullptr), ERR_INVALID_PARAMETER);
}

TEST(Digest, FileChunksMatchOneShot) {
  zeph_test::TempDir dir;
  for (size_t n : {kChunk - 1, kChunk, kChunk + 1, 2 * kChunk + 5}) {
    SCOPED_TRACE(n);
    const auto data = RandomBytes(n, static_cast<uint32_t>(n));
    zeph_test::WriteBytes(dir.file("f"), data);
    unsigned char whole[32];
    unsigned char chunked[32];
    uint32_t a = 32;
    uint32_t b = 32;
    ASSERT_EQ(zeph_c_utils_digest(1, data.data(), static_cast<uint32_t>(n), whole, &a, nullptr), 0u);
    ASSERT_EQ(zeph_c_utils_digestWithFilePath(dir.file("f").c_str(), 1, chunked, &b, nullptr), 0u);
    EXPECT_EQ(ToHex(whole, a), ToHex(chunked, b));
  }
}

TEST(Sm4Ecb, StandardVectorWithoutPadding) {
  const Bytes cipher = FromHex("681EDF34D206965E86B3E94F536E4246");
  Bytes out(16);
  uint32_t len = 16;
  ASSERT_EQ(zeph_c_utils_encryptNoPading(0, kKey.data(), 16, kKey.data(), 16, out.data(), &len), 0u);
  EXPECT_EQ(out, cipher);
  ASSERT_EQ(zeph_c_utils_decryptNoPading(0, cipher.data(), 16, kKey.data(), 16, out.data(), &len), 0u);
  EXPECT_EQ(out, kKey);
}

TEST(Sm4Ecb, PaddedEncryptionMatchesOpenSslAndRoundTrips) {
  for (size_t n = 1; n <= 80; ++n) {
    SCOPED_TRACE(n);
    const auto plain = RandomBytes(n, static_cast<uint32_t>(n));
    const Bytes cipher = Encrypt(plain);
    ASSERT_EQ(cipher.size(), (n + 16) / 16 * 16);
    EXPECT_EQ(cipher, OpenSslSm4(true, kKey, plain, true));

    Bytes back(cipher.size());
    uint32_t len = static_cast<uint32_t>(back.size());
    ASSERT_EQ(zeph_c_utils_decrypt(0, cipher.data(), len, kKey.data(), 16, back.data(), &len), 0u);
    back.resize(len);
    EXPECT_EQ(back, plain);
  }
  // The algorithm identifier does not choose anything.
  const auto plain = RandomBytes(16, 1);
  EXPECT_EQ(Encrypt(plain, 0x401), Encrypt(plain, 0));
  EXPECT_EQ(Encrypt(plain, 0xFFFFFFFF).size(), 32u);  // a whole block of padding
}

TEST(Sm4Ecb, OutputBufferProtocol) {
  const auto plain = RandomBytes(20, 2);
  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_encrypt(0, plain.data(), 20, kKey.data(), 16, nullptr, &len), 0u);
  EXPECT_EQ(len, 32u);
  Bytes out(40, 0xEE);
  len = 31;
  EXPECT_EQ(zeph_c_utils_encrypt(0, plain.data(), 20, kKey.data(), 16, out.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 32u);
  EXPECT_EQ(out[0], 0xEE);

  // Decryption reports the plaintext length, also into a buffer shorter
  // than the ciphertext.
  const Bytes cipher = Encrypt(plain);
  ASSERT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 32, kKey.data(), 16, nullptr, &len), 0u);
  EXPECT_EQ(len, 20u);
  len = 19;
  EXPECT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 32, kKey.data(), 16, out.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 20u);
  std::fill(out.begin(), out.end(), 0xEE);
  len = 20;
  ASSERT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 32, kKey.data(), 16, out.data(), &len), 0u);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 20), plain);
  EXPECT_EQ(out[20], 0xEE);

  len = 16;
  ASSERT_EQ(zeph_c_utils_encryptNoPading(0, plain.data(), 16, kKey.data(), 16, nullptr, &len), 0u);
  EXPECT_EQ(len, 16u);
  len = 15;
  EXPECT_EQ(zeph_c_utils_decryptNoPading(0, cipher.data(), 16, kKey.data(), 16, out.data(), &len),
            ERR_BUFFER_TOO_SMALL);

  // In place: the output may be the input.
  Bytes inplace(32);
  std::copy(plain.begin(), plain.end(), inplace.begin());
  len = 32;
  ASSERT_EQ(zeph_c_utils_encrypt(0, inplace.data(), 20, kKey.data(), 16, inplace.data(), &len), 0u);
  EXPECT_EQ(inplace, cipher);
  ASSERT_EQ(zeph_c_utils_decrypt(0, inplace.data(), 32, kKey.data(), 16, inplace.data(), &len), 0u);
  EXPECT_EQ(Bytes(inplace.begin(), inplace.begin() + len), plain);
}

TEST(Sm4Ecb, DecryptionPaddingRules) {
  Bytes block(16, 0x41);
  struct Case {
    const char *name;
    uint8_t last;
    uint8_t before;  // the byte before the last
    uint32_t status;
    uint32_t plain_len;
  } cases[] = {
      {"pad value 0 passes and removes nothing", 0x00, 0x41, 0, 16},
      {"pad value 1", 0x01, 0x41, 0, 15},
      {"pad value 16", 0x10, 0x10, ERR_PADDING_INVALID, 0},  // the other 14 bytes are 0x41
      {"pad value 17", 0x11, 0x11, ERR_PADDING_INVALID, 0},
      {"pad value 0xFF", 0xFF, 0xFF, ERR_PADDING_INVALID, 0},
      {"pad bytes differ", 0x02, 0x03, ERR_PADDING_INVALID, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    block[15] = c.last;
    block[14] = c.before;
    const Bytes cipher = OpenSslSm4(true, kKey, block, false);
    Bytes out(16, 0xEE);
    uint32_t len = 16;
    EXPECT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 16, kKey.data(), 16, out.data(), &len), c.status);
    if (c.status == 0) {
      EXPECT_EQ(len, c.plain_len);
      EXPECT_EQ(Bytes(out.begin(), out.begin() + len), Bytes(block.begin(), block.begin() + len));
    } else {
      EXPECT_EQ(out, Bytes(16, 0));  // no decrypted bytes are left behind
    }
  }
}

TEST(Sm4Ecb, RefusedInputs) {
  const Bytes data(32, 1);
  Bytes out(64);
  uint32_t len = 64;
  using Fn = uint32_t (*)(uint32_t, const unsigned char *, uint32_t, const unsigned char *, uint32_t,
                          unsigned char *, uint32_t *);
  for (Fn fn : {zeph_c_utils_encrypt, zeph_c_utils_decrypt, zeph_c_utils_encryptNoPading,
                zeph_c_utils_decryptNoPading}) {
    EXPECT_EQ(fn(0, nullptr, 16, kKey.data(), 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 0, kKey.data(), 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, nullptr, 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, kKey.data(), 15, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, kKey.data(), 32, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, kKey.data(), 16, out.data(), nullptr), ERR_INVALID_PARAMETER);
  }
  // Whole blocks only where no padding is added.
  for (Fn fn : {zeph_c_utils_decrypt, zeph_c_utils_encryptNoPading, zeph_c_utils_decryptNoPading}) {
    len = 64;
    EXPECT_EQ(fn(0, data.data(), 17, kKey.data(), 16, out.data(), &len), ERR_ALG_UNSUPPORTED);
  }
}

TEST(Padding, Primitives) {
  const unsigned char data[] = {'a', 'b', 'c'};
  unsigned char out[8];
  ASSERT_EQ(l_P5pad(data, 3, out, 8, 0), 0);
  EXPECT_EQ(ToHex(out, 8), "6162630505050505");
  ASSERT_EQ(l_P5pad(data, 3, out, 8, 1), 0);
  EXPECT_EQ(ToHex(out, 8), "0505050505616263");
  EXPECT_EQ(l_P5pad(data, 3, out, 3, 0), -1);
  EXPECT_EQ(l_P5pad(data, 3, out, 2, 1), -1);

  struct Check {
    const char *hex;
    int front;
    uint32_t status;
    size_t kept;
  } checks[] = {
      {"6162630505050505", 0, 0, 3},
      {"0505050505616263", 1, 0, 3},
      {"6162630505050505", 1, ERR_PADDING_INVALID, 0},  // first byte 'a' is above 16
      {"0505050505616263", 0, ERR_PADDING_INVALID, 0},  // last byte 'c' is above 16
      {"6162630505050405", 0, ERR_PADDING_INVALID, 0},
      {"0505050405616263", 1, ERR_PADDING_INVALID, 0},
      {"61626300", 0, 0, 4},        // zero passes, nothing removed
      {"00616263", 1, 0, 4},
      {"0606060606", 0, ERR_PADDING_INVALID, 0},  // more padding than data
      {"01", 0, 0, 0},
      {"", 0, ERR_PADDING_INVALID, 0},
  };
  for (const auto &c : checks) {
    SCOPED_TRACE(std::string(c.hex) + (c.front ? " front" : " trailing"));
    const Bytes in = FromHex(c.hex);
    EXPECT_EQ(l_P5padding_check(in.data(), in.size(), c.front), c.status);
    Bytes kept(in.size() + 1, 0xEE);
    size_t kept_len = 99;
    EXPECT_EQ(l_P5unpad(in.data(), in.size(), kept.data(), &kept_len, c.front), c.status);
    if (c.status == 0) {
      ASSERT_EQ(kept_len, c.kept);
      const size_t skip = c.front ? in.size() - c.kept : 0;
      EXPECT_EQ(Bytes(kept.begin(), kept.begin() + c.kept), Bytes(in.begin() + skip, in.begin() + skip + c.kept));
    }
  }
}

TEST(Padding, AllocatingHelpers) {
  for (uint32_t n : {0u, 1u, 15u, 16u, 17u}) {
    SCOPED_TRACE(n);
    const auto data = RandomBytes(n, n + 1);
    unsigned char *padded = nullptr;
    uint32_t padded_len = 0;
    ASSERT_EQ(zeph_c_utils_add_P5_padding(data.data(), n, &padded, &padded_len), 0u);
    EXPECT_EQ(padded_len, (n + 16) / 16 * 16);
    EXPECT_EQ(padded[padded_len - 1], padded_len - n);
    EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(padded, padded_len), n);
    unsigned char *plain = nullptr;
    uint32_t plain_len = 99;
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
  EXPECT_EQ(zeph_c_utils_del_P5_padding(nullptr, 4, &plain, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_add_P5_padding(nullptr, 4, &plain, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_add_P5_padding(bad, 4, nullptr, &len), ERR_INVALID_PARAMETER);

  // The length helper trusts the last byte without checking the padding.
  const unsigned char four[] = {9, 9, 9, 3};
  const unsigned char big[] = {9, 9, 9, 4};
  EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(four, 4), 1u);
  EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(big, 4), 0u);
  EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(nullptr, 4), 0u);
  EXPECT_EQ(zeph_c_utils_getPlaintextLengthFromPadding(four, 0), 0u);
}

class FileCipher : public testing::Test {
 protected:
  std::string Path(const std::string &name) const { return dir_.file(name); }
  zeph_test::TempDir dir_;
};

TEST_F(FileCipher, RoundTripAcrossChunkBoundaries) {
  for (size_t n : {size_t{0}, size_t{1}, size_t{16}, kChunk - 1, kChunk, kChunk + 1, 2 * kChunk + 17}) {
    SCOPED_TRACE(n);
    const std::string name = Path("f") + std::to_string(n);
    const auto plain = RandomBytes(n, static_cast<uint32_t>(n));
    zeph_test::WriteBytes(name, plain);
    ASSERT_EQ(zeph_c_utils_encryptWithFilePath(name.c_str(), nullptr, 0, kKey.data(), 16), 0u);
    EXPECT_EQ(zeph_test::ReadBytes(name + ".enc"), OpenSslSm4(true, kKey, plain, true));
    ASSERT_EQ(zeph_c_utils_decryptWithFilePath((name + ".enc").c_str(), nullptr, 0, kKey.data(), 16), 0u);
    EXPECT_EQ(zeph_test::ReadBytes(name + ".enc.dec"), plain);
  }
}

TEST_F(FileCipher, NeverOverwritesAnExistingOutput) {
  const std::string name = Path("doc");
  zeph_test::WriteBytes(name, RandomBytes(100, 5));
  ASSERT_EQ(zeph_c_utils_encryptWithFilePath(name.c_str(), nullptr, 0, kKey.data(), 16), 0u);
  const auto first = zeph_test::ReadBytes(name + ".enc");
  const Bytes other_key(16, 7);
  EXPECT_EQ(zeph_c_utils_encryptWithFilePath(name.c_str(), nullptr, 0, other_key.data(), 16), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(zeph_test::ReadBytes(name + ".enc"), first);

  zeph_test::WriteBytes(name + ".dec", {'k', 'e', 'e', 'p'});
  EXPECT_EQ(zeph_c_utils_decryptWithFilePath(name.c_str(), nullptr, 0, kKey.data(), 16), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(zeph_test::ReadBytes(name + ".dec"), (Bytes{'k', 'e', 'e', 'p'}));
}

TEST_F(FileCipher, FailuresLeaveNoOutput) {
  const std::string missing = Path("missing");
  EXPECT_EQ(zeph_c_utils_encryptWithFilePath(missing.c_str(), nullptr, 0, kKey.data(), 16), ERR_FILE_OPEN_FAILED);
  EXPECT_FALSE(std::filesystem::exists(missing + ".enc"));

  // A wrong key meets malformed padding in the last block.
  const std::string name = Path("secret");
  zeph_test::WriteBytes(name, Bytes(5000, 'z'));
  ASSERT_EQ(zeph_c_utils_encryptWithFilePath(name.c_str(), nullptr, 0, kKey.data(), 16), 0u);
  const Bytes wrong(16, 0x5A);
  EXPECT_EQ(zeph_c_utils_decryptWithFilePath((name + ".enc").c_str(), nullptr, 0, wrong.data(), 16),
            ERR_ALG_UNSUPPORTED);
  EXPECT_FALSE(std::filesystem::exists(name + ".enc.dec"));

  // Not a whole number of blocks.
  zeph_test::WriteBytes(Path("odd"), Bytes(17, 1));
  EXPECT_EQ(zeph_c_utils_decryptWithFilePath(Path("odd").c_str(), nullptr, 0, kKey.data(), 16), ERR_ALG_UNSUPPORTED);
  EXPECT_FALSE(std::filesystem::exists(Path("odd.dec")));

  // A directory opens but does not read.
  std::filesystem::create_directory(Path("dir"));
  EXPECT_EQ(zeph_c_utils_encryptWithFilePath(Path("dir").c_str(), nullptr, 0, kKey.data(), 16), ERR_FILE_OPEN_FAILED);
  EXPECT_FALSE(std::filesystem::exists(Path("dir.enc")));
}

TEST_F(FileCipher, RefusedArguments) {
  const std::string name = Path("x");
  zeph_test::WriteBytes(name, {1});
  for (auto fn : {zeph_c_utils_encryptWithFilePath, zeph_c_utils_decryptWithFilePath}) {
    EXPECT_EQ(fn(nullptr, nullptr, 0, kKey.data(), 16), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn("", nullptr, 0, kKey.data(), 16), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(name.c_str(), nullptr, 0, nullptr, 16), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(name.c_str(), nullptr, 0, kKey.data(), 0), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(name.c_str(), nullptr, 0, kKey.data(), 8), ERR_INVALID_PARAMETER);
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()) || !std::filesystem::exists(name + ".enc"));
}

}  // namespace
