// Digests by identifier, SM4-ECB buffers and files, PKCS#5 padding.
#include <cstring>

#include <gtest/gtest.h>

#include "foundation/helpers.hpp"
#include "oracle.hpp"
#include "scoped.hpp"

namespace {

using namespace zeph_test;

const Bytes kKey = FromHex("0123456789ABCDEFFEDCBA9876543210");
const unsigned char *K = kKey.data();
constexpr size_t kChunk = 4u << 20;

// The oracle's SM4-ECB with its padding on or off.
Bytes Reference(const Bytes &in, bool padding) { return Sm4Encrypt(Sm4Mode::kEcb, padding, K, {}, in); }

std::string St(uint32_t status) { return "status " + std::to_string(status); }

// Hex of the digest of a buffer (path empty) or a file, with the NID; "status <n>" on failure.
std::string Digest(uint32_t id, const Bytes &data, const std::string &path = "", int *nid = nullptr) {
  unsigned char out[64];
  uint32_t len = sizeof out;
  const uint32_t rv = path.empty()
                          ? zeph_c_utils_digest(id, data.data(), static_cast<uint32_t>(data.size()), out, &len, nid)
                          : zeph_c_utils_digestWithFilePath(path.c_str(), id, out, &len, nid);
  return rv == 0 ? ToHex(out, len) : St(rv);
}

TEST(Digest, KnownAnswersNidsSizesAndFiles) {
  const struct {
    uint32_t id;
    int nid;
    const char *abc;
  } cases[] = {
      {1, 1143, "66C7F0F462EEEDD9D1F2D46BDC10E4E24167C4875CF2F7A2297DA02B8F4BA8E0"},
      {2, 64, "A9993E364706816ABA3E25717850C26C9CD0D89D"},
      {4, 672, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
      {8, 673, "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BAECA134C825A7"},
      {16, 674,
       "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80"
       "E2A9AC94FA54CA49F"},
      {128, 4, "900150983CD24FB0D6963F7D28E17F72"},
  };
  TempDir dir;
  const Bytes abc = {'a', 'b', 'c'};
  WriteBytes(dir.file("abc"), abc);
  for (const auto &c : cases) {
    int nid = 0, file_nid = 0;
    EXPECT_EQ(Digest(c.id, abc, "", &nid), c.abc);
    EXPECT_EQ(Digest(c.id, {}, dir.file("abc"), &file_nid), c.abc);
    EXPECT_EQ(nid, c.nid);
    EXPECT_EQ(file_nid, c.nid);
    // A null output asks for the size; a short one is refused with the size.
    const auto want = static_cast<uint32_t>(std::strlen(c.abc) / 2);
    unsigned char out[64];
    uint32_t len = 0;
    ASSERT_EQ(zeph_c_utils_digest(c.id, abc.data(), 3, nullptr, &len, nullptr), 0u);
    EXPECT_EQ(len, want);
    len = want - 1;
    EXPECT_EQ(zeph_c_utils_digest(c.id, abc.data(), 3, out, &len, nullptr), ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(len, want);
  }
  for (size_t n : {kChunk, 2 * kChunk + 5}) {  // files are read in 4 MiB chunks
    const auto data = RandomBytes(n, static_cast<uint32_t>(n));
    WriteBytes(dir.file("f"), data);
    EXPECT_EQ(Digest(1, {}, dir.file("f")), Digest(1, data)) << n;
  }
  const Bytes one = {1};
  for (uint32_t id : {0u, 3u, 32u, 129u, 0x10004u}) EXPECT_EQ(Digest(id, one), St(ERR_DIGEST_FAILED)) << id;
  EXPECT_EQ(Digest(4, {}), St(ERR_DIGEST_FAILED));
  WriteBytes(dir.file("empty"), {});
  EXPECT_EQ(Digest(4, {}, dir.file("empty")), St(ERR_DIGEST_FAILED));
  EXPECT_EQ(Digest(4, {}, dir.file("missing")), St(ERR_FILE_OPEN_FAILED));
  EXPECT_EQ(Digest(4, {}, dir.path().string()), St(ERR_FILE_OPEN_FAILED));
  uint32_t len = 0;
  EXPECT_EQ(zeph_c_utils_digest(4, one.data(), 1, nullptr, nullptr, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_digestWithFilePath(nullptr, 4, nullptr, &len, nullptr), ERR_INVALID_PARAMETER);
}

TEST(Sm4Ecb, MatchesOpenSslWithAndWithoutPadding) {
  Bytes out(16);
  uint32_t len = 16;
  ASSERT_EQ(zeph_c_utils_encryptNoPading(0, K, 16, K, 16, out.data(), &len), 0u);
  EXPECT_EQ(ToHex(out), "681EDF34D206965E86B3E94F536E4246");
  for (size_t n = 1; n <= 70; ++n) {
    SCOPED_TRACE(n);
    const auto plain = RandomBytes(n, static_cast<uint32_t>(n));
    const auto n32 = static_cast<uint32_t>(n);
    Bytes enc(n + 16), back(n + 16);
    len = n32 + 16;
    // Whatever the identifier, the cipher is SM4-ECB with trailing PKCS#5 (16 bytes give 32).
    ASSERT_EQ(zeph_c_utils_encrypt(n32 * 0x401, plain.data(), n32, K, 16, enc.data(), &len), 0u);
    enc.resize(len);
    EXPECT_EQ(enc, Reference(plain, true));
    ASSERT_EQ(zeph_c_utils_decrypt(0, enc.data(), len, K, 16, back.data(), &len), 0u);
    EXPECT_EQ(Bytes(back.begin(), back.begin() + len), plain);
    if (n % 16 != 0) continue;
    ASSERT_EQ(zeph_c_utils_encryptNoPading(n32, plain.data(), n32, K, 16, enc.data(), &len), 0u);
    EXPECT_EQ(Bytes(enc.begin(), enc.begin() + len), Reference(plain, false));
    ASSERT_EQ(zeph_c_utils_decryptNoPading(n32, enc.data(), n32, K, 16, enc.data(), &len), 0u);  // in place
    EXPECT_EQ(Bytes(enc.begin(), enc.begin() + len), plain);
  }
  // A null output asks for the length; a short one is refused with it and left untouched.
  const Bytes cipher = Reference(Bytes(20, 7), true);
  out.assign(19, 0xEE);
  ASSERT_EQ(zeph_c_utils_encrypt(0, out.data(), 20, K, 16, nullptr, &len), 0u);
  EXPECT_EQ(len, 32u);
  ASSERT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 32, K, 16, nullptr, &len), 0u);
  EXPECT_EQ(len, 20u);
  len = 19;
  EXPECT_EQ(zeph_c_utils_decrypt(0, cipher.data(), 32, K, 16, out.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 20u);
  EXPECT_EQ(out, Bytes(19, 0xEE));
}

TEST(Sm4Ecb, PaddingRulesAndRefusedInputs) {
  const struct {
    uint8_t before, last;  // the last two plaintext bytes; the rest are 0x41
    uint32_t status, plain_len;
  } cases[] = {{0x41, 0x00, 0, 16} /* pad value 0 passes and removes nothing */,
               {0x41, 0x01, 0, 15},
               {0x10, 0x10, ERR_PADDING_INVALID, 0},
               {0x11, 0x11, ERR_PADDING_INVALID, 0},
               {0x03, 0x02, ERR_PADDING_INVALID, 0}};
  for (const auto &c : cases) {
    Bytes block(16, 0x41), out(16, 0xEE);
    block[14] = c.before;
    block[15] = c.last;
    uint32_t len = 16;
    EXPECT_EQ(zeph_c_utils_decrypt(0, Reference(block, false).data(), 16, K, 16, out.data(), &len), c.status);
    block.resize(c.plain_len);
    out.resize(c.status ? 16 : len);
    EXPECT_EQ(out, c.status ? Bytes(16, 0) : block) << int{c.last};  // no decrypted bytes left on failure
  }
  const Bytes data(32, 1);
  Bytes out(64);
  uint32_t len = 64;
  for (auto fn :
       {zeph_c_utils_encrypt, zeph_c_utils_decrypt, zeph_c_utils_encryptNoPading, zeph_c_utils_decryptNoPading}) {
    EXPECT_EQ(fn(0, nullptr, 16, K, 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 0, K, 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, nullptr, 16, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, K, 15, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(fn(0, data.data(), 16, K, 16, out.data(), nullptr), ERR_INVALID_PARAMETER);
    // Whole blocks only where no padding is added.
    EXPECT_EQ(fn(0, data.data(), 17, K, 16, out.data(), &len), fn == zeph_c_utils_encrypt ? 0u : ERR_ALG_UNSUPPORTED);
  }
}

TEST(Padding, TrailingAndFrontForms) {
  const unsigned char abc[] = {'a', 'b', 'c'};
  unsigned char out[8];
  ASSERT_EQ(zeph::P5Pad(abc, 3, out, 8, 0), 0);
  EXPECT_EQ(ToHex(out, 8), "6162630505050505");
  ASSERT_EQ(zeph::P5Pad(abc, 3, out, 8, 1), 0);
  EXPECT_EQ(ToHex(out, 8), "0505050505616263");
  EXPECT_EQ(zeph::P5Pad(abc, 3, out, 3, 0), -1);
  const struct {
    const char *hex;
    int front;
    const char *kept;  // nullptr: ERR_PADDING_INVALID
  } checks[] = {
      {"6162630505050505", 0, "616263"},
      {"0505050505616263", 1, "616263"},
      {"6162630505050505", 1, nullptr},  // first byte 'a' is above 16
      {"6162630505050405", 0, nullptr},
      {"0505050405616263", 1, nullptr},
      {"61626300", 0, "61626300"},  // zero passes, nothing removed
      {"0606060606", 0, nullptr},   // more padding than data
      {"", 0, nullptr},
  };
  for (const auto &c : checks) {
    SCOPED_TRACE(std::string(c.hex) + (c.front ? " front" : " trailing"));
    const Bytes in = FromHex(c.hex);
    const uint32_t status = c.kept ? 0 : ERR_PADDING_INVALID;
    EXPECT_EQ(zeph::P5PaddingCheck(in.data(), in.size(), c.front), status);
    Bytes kept(in.size() + 1);
    size_t kept_len = 0;
    ASSERT_EQ(zeph::P5Unpad(in.data(), in.size(), kept.data(), &kept_len, c.front), status);
    EXPECT_EQ(c.kept ? ToHex(kept.data(), kept_len) : "", c.kept ? c.kept : "");
  }
  for (uint32_t n : {0u, 15u, 16u, 17u}) {  // the allocating helpers
    const auto data = RandomBytes(n, n + 1);
    unsigned char *padded = nullptr, *plain = nullptr;
    uint32_t padded_len = 0, plain_len = 0;
    ASSERT_EQ(zeph_c_utils_add_P5_padding(data.data(), n, &padded, &padded_len), 0u);
    EXPECT_EQ(padded_len, (n + 16) / 16 * 16);
    ASSERT_EQ(zeph_c_utils_del_P5_padding(padded, padded_len, &plain, &plain_len), 0u);
    EXPECT_EQ(Bytes(plain, plain + plain_len), data);
    std::free(padded);
    std::free(plain);
  }
}

TEST(FileCipher, RoundTripsAndNeverOverwrites) {
  TempDir dir;
  const auto enc = [](const std::string &name, const unsigned char *key = K, uint32_t key_len = 16) {
    return zeph_c_utils_encryptWithFilePath(name.c_str(), nullptr, 0, key, key_len);
  };
  const auto dec = [](const std::string &name, const unsigned char *key = K) {
    return zeph_c_utils_decryptWithFilePath(name.c_str(), nullptr, 0, key, 16);
  };
  for (size_t n : {size_t{0}, size_t{16}, kChunk - 1, kChunk, 2 * kChunk + 17}) {
    const std::string name = dir.file("f") + std::to_string(n);
    const auto plain = RandomBytes(n, static_cast<uint32_t>(n));
    WriteBytes(name, plain);
    ASSERT_EQ(enc(name), 0u);
    EXPECT_EQ(ReadBytes(name + ".enc"), Reference(plain, true)) << n;
    ASSERT_EQ(dec(name + ".enc"), 0u);
    EXPECT_EQ(ReadBytes(name + ".enc.dec"), plain) << n;
  }
  const std::string doc = dir.file("f16");
  const auto first = ReadBytes(doc + ".enc");
  const Bytes other(16, 0x5A);
  EXPECT_EQ(enc(doc, other.data()), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(ReadBytes(doc + ".enc"), first);
  WriteBytes(doc + ".dec", {'k'});
  EXPECT_EQ(dec(doc), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(ReadBytes(doc + ".dec"), Bytes{'k'});
  // Failures leave no output: wrong key (bad padding), missing input, not whole blocks, a directory.
  WriteBytes(dir.file("odd"), Bytes(17, 1));
  std::filesystem::create_directory(dir.file("dir"));
  std::filesystem::remove(doc + ".enc.dec");
  EXPECT_EQ(dec(doc + ".enc", other.data()), ERR_ALG_UNSUPPORTED);
  EXPECT_EQ(enc(dir.file("missing")), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(dec(dir.file("odd")), ERR_ALG_UNSUPPORTED);
  EXPECT_EQ(enc(dir.file("dir")), ERR_FILE_OPEN_FAILED);
  for (const char *made : {"f16.enc.dec", "missing.enc", "odd.dec", "dir.enc"}) {
    EXPECT_FALSE(std::filesystem::exists(dir.file(made))) << made;
  }
  EXPECT_EQ(enc(""), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_encryptWithFilePath(nullptr, nullptr, 0, K, 16), ERR_INVALID_PARAMETER);
  EXPECT_EQ(enc(dir.file("odd"), nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(enc(dir.file("odd"), K, 8), ERR_INVALID_PARAMETER);
}

}  // namespace
