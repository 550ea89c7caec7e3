// Base64 and hex texts, buffer joining, whole files, the placeholders.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstring>
#include <string>

#include "foundation/helpers.hpp"
#include "test_support.hpp"
#include "zeph_c_utils.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(Base64, DecodedLengthFollowsTrailingEquals) {
  const struct {
    const char *text;
    int expected;  // -1: failure
    const char *bytes;
  } cases[] = {
      {"", 0, ""},           {"\n", 0, ""},           {"QQ==", 1, "A"},     {"QUI=", 2, "AB"},
      {"QUJD", 3, "ABC"},    {"QUJDRA==", 4, "ABCD"}, {"QQ==\r\n", 1, "A"}, {"  QQ==", 1, "A"},
      {"Q===", -1, nullptr}, {"====", -1, nullptr},   {"QUJ", -1, nullptr}, {"QU!D", -1, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    unsigned char *buf = reinterpret_cast<unsigned char *>(1);
    const int n = l_base64_decode(c.text, &buf);
    EXPECT_EQ(n, c.expected);
    EXPECT_EQ(buf == nullptr, n <= 0);
    if (n > 0) {
      EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), static_cast<size_t>(n)), c.bytes);
    }
    std::free(n > 0 ? buf : nullptr);

    uint32_t len = 0;
    EXPECT_EQ(zeph_c_utils_b64tohex2(c.text, nullptr, &len), n > 0 ? 0u : ERR_BASE64_INVALID);
    unsigned char *out = nullptr;
    EXPECT_EQ(zeph_c_utils_b64tohex(c.text, &out, &len), n > 0 ? 0u : 0xFFFFFFFFu);
    std::free(out);
  }
}

TEST(Base64, EncodersMatchOpenSslAndRoundTrip) {
  for (size_t n = 1; n <= 40; ++n) {
    SCOPED_TRACE(n);
    const auto data = zeph_test::RandomBytes(n, static_cast<uint32_t>(n));
    std::string ref(4 * ((n + 2) / 3) + 1, '\0');
    ref.resize(static_cast<size_t>(
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(ref.data()), data.data(), static_cast<int>(n))));

    char *text = nullptr;  // sized for the text: 2n + 1 would be short below two bytes
    ASSERT_EQ(zeph_c_utils_hex2b64(data.data(), static_cast<uint32_t>(n), &text), 0u);
    EXPECT_EQ(std::string(text), ref);
    uint32_t len = 0;
    ASSERT_EQ(File_PEMEncode(data.data(), static_cast<uint32_t>(n), nullptr, &len), 0u);
    EXPECT_EQ(len, ref.size() + 1);  // the terminator counts when asking
    std::string pem(len, 'X');
    ASSERT_EQ(File_PEMEncode(data.data(), static_cast<uint32_t>(n), pem.data(), &len), 0u);
    EXPECT_EQ(std::string(pem.c_str(), len), ref);

    Bytes back(n, 0);
    len = static_cast<uint32_t>(n - 1);
    EXPECT_EQ(zeph_c_utils_b64tohex2(text, back.data(), &len), ERR_BUFFER_TOO_SMALL);
    len = static_cast<uint32_t>(n);
    ASSERT_EQ(zeph_c_utils_b64tohex2(text, back.data(), &len), 0u);
    EXPECT_EQ(back, data);
    std::free(text);
  }
  char *text = reinterpret_cast<char *>(1);
  const unsigned char b = 0xFF;
  EXPECT_EQ(zeph_c_utils_hex2b64(&b, 0, &text), 0xFFFFFFFFu);
  EXPECT_EQ(text, nullptr);
  uint32_t len = 8;
  EXPECT_EQ(File_PEMEncode(&b, 0, nullptr, &len), 0xFFFFFFFFu);
  char small[4];
  len = sizeof small;
  EXPECT_EQ(File_PEMEncode(&b, 1, small, &len), ERR_BUFFER_TOO_SMALL);
}

TEST(Base64, BlockDecoderKeepsPaddingZeros) {
  unsigned char out[8];
  uint32_t len = sizeof out;
  ASSERT_EQ(File_PEMDecode("QQ==", 4, out, &len), 0u);
  EXPECT_EQ(Bytes(out, out + len), (Bytes{'A', 0, 0}));
  len = 2;
  EXPECT_EQ(File_PEMDecode("QQ==", 4, out, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 3u);
  const char unterminated[4] = {'Q', 'U', 'J', 'D'};  // only `length` characters are read
  ASSERT_EQ(File_PEMDecode(unterminated, 4, out, &len), 0u);
  EXPECT_EQ(len, 3u);
  for (const char *bad : {"", "QQ=", "QQ?="}) {
    EXPECT_EQ(File_PEMDecode(bad, static_cast<uint32_t>(std::strlen(bad)), out, &len), 0xFFFFFFFFu) << bad;
  }
}

TEST(Hex, UpperCaseWithoutTerminator) {
  const unsigned char data[] = {0xAB, 0x01, 0xF0};
  char out[8];
  std::memset(out, 'X', sizeof out);
  uint32_t len = 5;
  EXPECT_EQ(zeph_c_utils_hex2ascii(data, 3, out, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(out[0], 'X');  // nothing written
  len = sizeof out;
  ASSERT_EQ(zeph_c_utils_hex2ascii(data, 3, out, &len), 0u);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(std::string(out, 7), "AB01F0X");
}

TEST(Helpers, MergeAndPlaceholders) {
  const unsigned char a[] = {1, 2}, b[] = {3};
  unsigned char *out = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_mergeBuffer(a, 2, b, 1, &out, &len), 0u);
  EXPECT_EQ(Bytes(out, out + len), (Bytes{1, 2, 3}));
  std::free(out);
  EXPECT_EQ(zeph_c_utils_mergeBuffer(nullptr, 1, b, 1, &out, &len), ERR_INVALID_PARAMETER);

  unsigned char untouched[2] = {7, 7};
  EXPECT_EQ(zeph_c_utils_ascii2hex("AB", 2, untouched, &len), 0u);
  EXPECT_EQ(untouched[0], 7);
  char *converted = reinterpret_cast<char *>(untouched);
  EXPECT_EQ(zeph_gbk2utf8_malloc("\xC4\xE3", 2, &converted), 0u);
  EXPECT_EQ(converted, nullptr);
}

TEST(Files, ReadAndWriteWholeFiles) {
  zeph_test::TempDir dir;
  const std::string path = dir.file("data.bin");
  const auto data = zeph_test::RandomBytes(1000, 9);
  ASSERT_EQ(zeph_c_utils_writeFile(path.c_str(), data.data(), 1000), 0u);
  ASSERT_EQ(zeph_c_utils_writeFile(path.c_str(), data.data(), 600), 0u);  // replaces
  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_readFile(path.c_str(), nullptr, &len), 0u);
  ASSERT_EQ(len, 600u);
  Bytes buf(601, 0xEE);
  len = 599;  // a stale size is refused, not written past
  EXPECT_EQ(zeph_c_utils_readFile(path.c_str(), buf.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(buf[0], 0xEE);
  ASSERT_EQ(zeph_c_utils_readFile(path.c_str(), buf.data(), &len), 0u);
  EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 600), Bytes(data.begin(), data.begin() + 600));
  EXPECT_EQ(buf[600], 0xEE);

  EXPECT_EQ(zeph_c_utils_readFile(dir.file("missing").c_str(), nullptr, &len), 0xFFFFFFFFu);
  EXPECT_EQ(zeph_c_utils_readFile(dir.path().c_str(), nullptr, &len), 0xFFFFFFFFu);
  EXPECT_EQ(zeph_c_utils_writeFile(dir.file("no/dir").c_str(), data.data(), 1), ERR_FILE_OPEN_FAILED);
  if (std::filesystem::exists("/dev/full")) {
    EXPECT_EQ(zeph_c_utils_writeFile("/dev/full", data.data(), 64), ERR_FILE_WRITE_FAILED);
  }
}

// Every pointer a caller can leave out gets a status, not a crash.
TEST(NullArguments, GetAStatus) {
  const unsigned char b = 1;
  unsigned char *buf = nullptr;
  char *text = nullptr;
  uint32_t len = 0;
  EXPECT_EQ(l_base64_decode(nullptr, &buf), -1);
  EXPECT_EQ(l_base64_decode("QUJD", nullptr), -1);
  EXPECT_EQ(zeph_c_utils_b64tohex2(nullptr, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_b64tohex2("QUI=", nullptr, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_b64tohex(nullptr, &buf, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_hex2b64(nullptr, 1, &text), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_hex2b64(&b, 1, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(File_PEMEncode(nullptr, 1, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(File_PEMDecode(nullptr, 4, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_hex2ascii(nullptr, 3, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_hex2ascii(&b, 1, nullptr, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_mergeBuffer(&b, 1, &b, 1, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_readFile(nullptr, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_readFile("x", nullptr, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_writeFile(nullptr, &b, 1), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_writeFile("x", nullptr, 1), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_gbk2utf8_malloc("x", 1, nullptr), 0u);
  EXPECT_EQ(zeph_getVorliAlgName(3, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(static_cast<uint32_t>(se_getTimeString(nullptr)), ERR_INVALID_PARAMETER);
  EXPECT_EQ(se_getLogPath(nullptr), 0);
}

}  // namespace
