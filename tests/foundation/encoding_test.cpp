// Base64 and hex texts, buffer joining, whole files, the placeholders.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstring>
#include <string>

#include "foundation/helpers.hpp"
#include "test_support.hpp"
#include "zeph_c_utils.h"

namespace {

using zeph_test::RandomBytes;

std::string OpenSslBase64(const std::vector<uint8_t> &data) {
  std::string text(4 * ((data.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), data.data(),
                                static_cast<int>(data.size()));
  text.resize(static_cast<size_t>(n));
  return text;
}

TEST(Base64Decode, LengthFollowsTrailingEquals) {
  struct Case {
    const char *text;
    int expected;  // decoded length, -1 failure
    const char *bytes;
  } cases[] = {
      {"", 0, ""},
      {"QQ==", 1, "A"},
      {"QUI=", 2, "AB"},
      {"QUJD", 3, "ABC"},
      {"QUJDRA==", 4, "ABCD"},
      {"QUJD\r\n", 3, "ABC"},
      {"QQ==\n", 1, "A"},  // the '=' are counted before the line break
      {"  QQ==", 1, "A"},
      {"Q===", -1, nullptr},
      {"====", -1, nullptr},
      {"QUJ", -1, nullptr},
      {"QU!D", -1, nullptr},
      {"QUJDR", -1, nullptr},
      {"\n", 0, ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    unsigned char *buf = reinterpret_cast<unsigned char *>(1);
    const int n = l_base64_decode(c.text, &buf);
    EXPECT_EQ(n, c.expected);
    if (n > 0) {
      ASSERT_NE(buf, nullptr);
      EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), static_cast<size_t>(n)), c.bytes);
    } else {
      EXPECT_EQ(buf, nullptr);
    }
    std::free(buf);
  }
  unsigned char *buf = nullptr;
  EXPECT_EQ(l_base64_decode(nullptr, &buf), -1);
  EXPECT_EQ(l_base64_decode("QUJD", nullptr), -1);
}

TEST(Base64, RoundTripsAgainstOpenSsl) {
  for (size_t n = 1; n <= 70; ++n) {
    SCOPED_TRACE(n);
    const auto data = RandomBytes(n, static_cast<uint32_t>(n));
    char *text = nullptr;
    ASSERT_EQ(zeph_c_utils_hex2b64(data.data(), static_cast<uint32_t>(n), &text), 0u);
    EXPECT_EQ(std::string(text), OpenSslBase64(data));

    unsigned char *back = nullptr;
    uint32_t back_len = 0;
    ASSERT_EQ(zeph_c_utils_b64tohex(text, &back, &back_len), 0u);
    EXPECT_EQ(std::vector<uint8_t>(back, back + back_len), data);

    uint32_t len = 0;
    ASSERT_EQ(File_PEMEncode(data.data(), static_cast<uint32_t>(n), nullptr, &len), 0u);
    std::string pem(len, 'X');
    ASSERT_EQ(File_PEMEncode(data.data(), static_cast<uint32_t>(n), pem.data(), &len), 0u);
    EXPECT_EQ(len, std::strlen(text));
    EXPECT_STREQ(pem.c_str(), text);
    std::free(text);
    std::free(back);
  }
}

TEST(Base64, DecodeIntoCallerBuffer) {
  uint32_t len = 0;
  EXPECT_EQ(zeph_c_utils_b64tohex2("", nullptr, &len), ERR_BASE64_INVALID);
  EXPECT_EQ(zeph_c_utils_b64tohex2("Q===", nullptr, &len), ERR_BASE64_INVALID);
  EXPECT_EQ(zeph_c_utils_b64tohex2("QUI*", nullptr, &len), ERR_BASE64_INVALID);
  EXPECT_EQ(zeph_c_utils_b64tohex2(nullptr, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_b64tohex2("QUI=", nullptr, nullptr), ERR_INVALID_PARAMETER);

  ASSERT_EQ(zeph_c_utils_b64tohex2("QUJDRA==", nullptr, &len), 0u);
  EXPECT_EQ(len, 4u);
  unsigned char out[8];
  std::memset(out, 'X', sizeof out);
  len = 3;
  EXPECT_EQ(zeph_c_utils_b64tohex2("QUJDRA==", out, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 4u);
  EXPECT_EQ(out[0], 'X');
  len = 4;
  EXPECT_EQ(zeph_c_utils_b64tohex2("QUJDRA==", out, &len), 0u);
  EXPECT_EQ(len, 4u);
  EXPECT_EQ(std::memcmp(out, "ABCDX", 5), 0);
}

TEST(Base64, PemBlockCodec) {
  uint32_t len = 0;
  const unsigned char one = 'A';
  EXPECT_EQ(File_PEMEncode(&one, 0, nullptr, &len), 0xFFFFFFFFu);
  char small[4];
  len = sizeof small;  // "QQ==" needs its terminator too
  EXPECT_EQ(File_PEMEncode(&one, 1, small, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 5u);

  // The block decoder keeps the zero bytes that stand for "=".
  unsigned char out[8];
  len = sizeof out;
  ASSERT_EQ(File_PEMDecode("QQ==", 4, out, &len), 0u);
  ASSERT_EQ(len, 3u);
  EXPECT_EQ(std::memcmp(out, "A\0\0", 3), 0);
  len = 2;
  EXPECT_EQ(File_PEMDecode("QQ==", 4, out, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(File_PEMDecode("QQ==", 0, out, &len), 0xFFFFFFFFu);
  EXPECT_EQ(File_PEMDecode("QQ=", 3, out, &len), 0xFFFFFFFFu);
  EXPECT_EQ(File_PEMDecode("QQ?=", 4, out, &len), 0xFFFFFFFFu);
  // Only `length` characters are read: the text needs no terminator.
  const char unterminated[4] = {'Q', 'U', 'J', 'D'};
  len = sizeof out;
  EXPECT_EQ(File_PEMDecode(unterminated, 4, out, &len), 0u);
  EXPECT_EQ(len, 3u);
}

TEST(Base64, HexToBase64OfOneByteFitsItsBuffer) {
  const unsigned char b = 0xFF;
  char *text = nullptr;
  ASSERT_EQ(zeph_c_utils_hex2b64(&b, 1, &text), 0u);
  EXPECT_STREQ(text, "/w==");
  std::free(text);
  text = reinterpret_cast<char *>(1);
  EXPECT_EQ(zeph_c_utils_hex2b64(&b, 0, &text), 0xFFFFFFFFu);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(zeph_c_utils_hex2b64(nullptr, 1, &text), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_hex2b64(&b, 1, nullptr), ERR_INVALID_PARAMETER);

  unsigned char *buf = reinterpret_cast<unsigned char *>(1);
  uint32_t len = 7;
  EXPECT_EQ(zeph_c_utils_b64tohex("", &buf, &len), 0xFFFFFFFFu);
  EXPECT_EQ(buf, nullptr);
  EXPECT_EQ(zeph_c_utils_b64tohex("@@@@", &buf, &len), 0xFFFFFFFFu);
  EXPECT_EQ(zeph_c_utils_b64tohex(nullptr, &buf, &len), ERR_INVALID_PARAMETER);
}

TEST(Hex, UpperCaseWithoutTerminator) {
  const unsigned char data[] = {0xAB, 0x01, 0xF0};
  char out[8];
  std::memset(out, 'X', sizeof out);
  uint32_t len = sizeof out;
  ASSERT_EQ(zeph_c_utils_hex2ascii(data, 3, out, &len), 0u);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(std::string(out, 7), "AB01F0X");

  std::memset(out, 'X', sizeof out);
  len = 5;
  EXPECT_EQ(zeph_c_utils_hex2ascii(data, 3, out, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(out[0], 'X');  // nothing written
  EXPECT_EQ(zeph_c_utils_hex2ascii(data, 3, nullptr, &len), 0u);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(zeph_c_utils_hex2ascii(data, 3, out, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_hex2ascii(nullptr, 3, out, &len), ERR_INVALID_PARAMETER);
}

TEST(Placeholders, SucceedWithoutOutput) {
  unsigned char out[4] = {1, 2, 3, 4};
  uint32_t len = 4;
  EXPECT_EQ(zeph_c_utils_ascii2hex("AB", 2, out, &len), 0u);
  EXPECT_EQ(out[0], 1);
  EXPECT_EQ(len, 4u);
  char text[4] = "abc";
  EXPECT_EQ(zeph_c_gbk2utf8(text, "\xC4\xE3", 2), 0u);
  EXPECT_STREQ(text, "abc");
  char *converted = text;
  EXPECT_EQ(zeph_gbk2utf8_malloc("\xC4\xE3", 2, &converted), 0u);
  EXPECT_EQ(converted, nullptr);
  EXPECT_EQ(zeph_gbk2utf8_malloc("x", 1, nullptr), 0u);
}

TEST(MergeBuffer, JoinsInOrder) {
  const unsigned char a[] = {1, 2};
  const unsigned char b[] = {3};
  unsigned char *out = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_mergeBuffer(a, 2, b, 1, &out, &len), 0u);
  EXPECT_EQ(std::vector<uint8_t>(out, out + len), (std::vector<uint8_t>{1, 2, 3}));
  std::free(out);
  ASSERT_EQ(zeph_c_utils_mergeBuffer(nullptr, 0, nullptr, 0, &out, &len), 0u);
  EXPECT_EQ(len, 0u);
  std::free(out);
  EXPECT_EQ(zeph_c_utils_mergeBuffer(nullptr, 1, b, 1, &out, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_mergeBuffer(a, 2, b, 1, nullptr, &len), ERR_INVALID_PARAMETER);
}

TEST(Files, ReadAndWriteWholeFiles) {
  zeph_test::TempDir dir;
  const std::string path = dir.file("data.bin");
  const auto data = RandomBytes(1000, 9);
  ASSERT_EQ(zeph_c_utils_writeFile(path.c_str(), data.data(), 1000), 0u);
  ASSERT_EQ(zeph_c_utils_writeFile(path.c_str(), data.data(), 600), 0u);  // replaces, not appends

  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_readFile(path.c_str(), nullptr, &len), 0u);
  ASSERT_EQ(len, 600u);
  std::vector<uint8_t> buf(len + 1, 0xEE);
  len = 599;  // a stale size is refused, not written past
  EXPECT_EQ(zeph_c_utils_readFile(path.c_str(), buf.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 600u);
  EXPECT_EQ(buf[0], 0xEE);
  ASSERT_EQ(zeph_c_utils_readFile(path.c_str(), buf.data(), &len), 0u);
  EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 600), std::vector<uint8_t>(data.begin(), data.begin() + 600));
  EXPECT_EQ(buf[600], 0xEE);

  ASSERT_EQ(zeph_c_utils_writeFile(path.c_str(), nullptr, 0), 0u);
  ASSERT_EQ(zeph_c_utils_readFile(path.c_str(), nullptr, &len), 0u);
  EXPECT_EQ(len, 0u);

  EXPECT_EQ(zeph_c_utils_readFile(dir.file("missing").c_str(), nullptr, &len), 0xFFFFFFFFu);
  EXPECT_EQ(zeph_c_utils_readFile(dir.path().c_str(), nullptr, &len), 0xFFFFFFFFu);
  EXPECT_EQ(zeph_c_utils_readFile(nullptr, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_readFile(path.c_str(), nullptr, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_writeFile(dir.file("no/such/dir").c_str(), data.data(), 1), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(zeph_c_utils_writeFile(path.c_str(), nullptr, 1), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_writeFile(nullptr, data.data(), 1), ERR_INVALID_PARAMETER);
}

TEST(Files, ShortWriteIsReported) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP();
  const auto data = RandomBytes(64, 1);
  EXPECT_EQ(zeph_c_utils_writeFile("/dev/full", data.data(), 64), ERR_FILE_WRITE_FAILED);
}

}  // namespace
