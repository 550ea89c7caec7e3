// Base64 and hex texts, and the null-pointer sweep.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/helpers.hpp"
#include "oracle.hpp"
#include "scoped.hpp"

namespace {

using namespace zeph_test;

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
    const int n = zeph::Base64Decode(c.text, &buf);
    EXPECT_EQ(n, c.expected);
    EXPECT_EQ(buf == nullptr, n <= 0);
    EXPECT_EQ(n > 0 ? std::string(reinterpret_cast<char *>(buf), static_cast<size_t>(n)) : "", c.bytes ? c.bytes : "");
    std::free(n > 0 ? buf : nullptr);
    uint32_t len = 0;
    EXPECT_EQ(zeph_c_utils_b64tohex2(c.text, nullptr, &len), n > 0 ? 0u : ERR_BASE64_INVALID);
    unsigned char *out = nullptr;
    EXPECT_EQ(zeph_c_utils_b64tohex(c.text, &out, &len), n > 0 ? 0u : 0xFFFFFFFFu);
    std::free(out);
  }
  // The block decoder keeps the padding zeros.
  unsigned char out[8];
  uint32_t len = sizeof out;
  ASSERT_EQ(File_PEMDecode("QQ==", 4, out, &len), 0u);
  EXPECT_EQ(Bytes(out, out + len), (Bytes{'A', 0, 0}));
}

TEST(Base64, EncodersMatchOpenSslAndRoundTrip) {
  for (size_t n : {1u, 2u, 3u, 4u, 5u, 40u, 1000u, 100000u}) {
    SCOPED_TRACE(n);
    const auto data = RandomBytes(n, static_cast<uint32_t>(n));
    const auto n32 = static_cast<uint32_t>(n);
    const std::string ref = Base64(data);
    char *text = nullptr;
    ASSERT_EQ(zeph_c_utils_hex2b64(data.data(), n32, &text), 0u);
    EXPECT_EQ(std::string(text), ref);
    std::string pem(ref.size() + 1, 'X');
    uint32_t len = static_cast<uint32_t>(pem.size());
    ASSERT_EQ(File_PEMEncode(data.data(), n32, pem.data(), &len), 0u);
    EXPECT_EQ(pem.substr(0, len), ref);
    Bytes back(n, 0);
    len = n32 - 1;
    EXPECT_EQ(zeph_c_utils_b64tohex2(text, back.data(), &len), ERR_BUFFER_TOO_SMALL);
    ASSERT_EQ(zeph_c_utils_b64tohex2(text, back.data(), &len), 0u);
    EXPECT_EQ(back, data);
    std::free(text);
  }
  char *text = reinterpret_cast<char *>(1);
  const unsigned char b = 0xFF;
  EXPECT_EQ(zeph_c_utils_hex2b64(&b, 0, &text), 0xFFFFFFFFu);
  EXPECT_EQ(text, nullptr);
}

// Each path ZEPH_CPU selects, against EVP_EncodeBlock: every length up to
// 300 (every tail and every start of the AVX2 loop), then long buffers, with
// the terminator after the text and nothing written past it.
TEST(Base64, EveryEncoderPathWritesWhatOpenSslWrites) {
  std::vector<std::string> paths;
  for (const char *cpu : {"portable", "avx2"}) {
    const ScopedEnv env("ZEPH_CPU", cpu);
    zeph::ReselectBase64ForTesting();
    const std::string name = zeph::ActiveBase64Encoder().name;
    paths.push_back(name);
    SCOPED_TRACE(name);
    std::vector<size_t> lengths(301);
    for (size_t n = 0; n <= 300; ++n) lengths[n] = n;
    lengths.insert(lengths.end(), {4095, 65536, 100003});
    for (const size_t n : lengths) {
      const Bytes data = RandomBytes(n, static_cast<uint32_t>(n) + 7);
      const std::string want = Base64(data);
      std::string got(zeph::Base64Length(n) + 2, '#');
      ASSERT_EQ(zeph::Base64Encode(data, got.data()), want.size()) << n;
      ASSERT_EQ(got.substr(0, want.size()), want) << n;
      ASSERT_EQ(got.substr(want.size()), std::string("\0#", 2)) << n;
      ASSERT_EQ(zeph::Base64Text(data), want) << n;
    }
  }
  zeph::ReselectBase64ForTesting();
  EXPECT_EQ(paths[0], "portable");
  // The AVX2 path runs wherever the CPU has it.
  EXPECT_EQ(paths[1], zeph::Base64EncodersOnThisCpu().back()->name);
}

TEST(Hex, UpperCaseWithoutTerminator) {
  const unsigned char data[] = {0xAB, 0x01, 0xF0};
  char out[8] = "XXXXXXX";
  uint32_t len = 5;
  EXPECT_EQ(zeph_c_utils_hex2ascii(data, 3, out, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(out[0], 'X');  // nothing written
  len = sizeof out;
  ASSERT_EQ(zeph_c_utils_hex2ascii(data, 3, out, &len), 0u);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(std::string(out, 7), "AB01F0X");
}

// Every pointer a caller can leave out gets a status, not a crash.
TEST(NullArguments, GetAStatus) {
  const unsigned char b = 1;
  unsigned char *buf = nullptr;
  char *text = nullptr;
  uint32_t len = 0;
  const std::pair<uint32_t, uint32_t> statuses[] = {
      {static_cast<uint32_t>(zeph::Base64Decode(nullptr, &buf)), 0xFFFFFFFFu},
      {static_cast<uint32_t>(zeph::Base64Decode("QUJD", nullptr)), 0xFFFFFFFFu},
      {zeph_c_utils_b64tohex2(nullptr, nullptr, &len), ERR_INVALID_PARAMETER},
      {zeph_c_utils_b64tohex2("QUI=", nullptr, nullptr), ERR_INVALID_PARAMETER},
      {zeph_c_utils_b64tohex(nullptr, &buf, &len), ERR_INVALID_PARAMETER},
      {zeph_c_utils_hex2b64(nullptr, 1, &text), ERR_INVALID_PARAMETER},
      {zeph_c_utils_hex2b64(&b, 1, nullptr), ERR_INVALID_PARAMETER},
      {File_PEMEncode(nullptr, 1, nullptr, &len), ERR_INVALID_PARAMETER},
      {File_PEMEncode(&b, 0, nullptr, &len), 0xFFFFFFFFu},
      {File_PEMDecode(nullptr, 4, nullptr, &len), ERR_INVALID_PARAMETER},
      {zeph_c_utils_hex2ascii(nullptr, 3, nullptr, &len), ERR_INVALID_PARAMETER},
      {zeph_c_utils_hex2ascii(&b, 1, nullptr, nullptr), ERR_INVALID_PARAMETER},
      {zeph_c_utils_mergeBuffer(&b, 1, &b, 1, nullptr, &len), ERR_INVALID_PARAMETER},
      {zeph_c_utils_mergeBuffer(nullptr, 1, &b, 1, &buf, &len), ERR_INVALID_PARAMETER},
      {zeph_c_utils_readFile(nullptr, nullptr, &len), ERR_INVALID_PARAMETER},
      {zeph_c_utils_readFile("x", nullptr, nullptr), ERR_INVALID_PARAMETER},
      {zeph_c_utils_writeFile(nullptr, &b, 1), ERR_INVALID_PARAMETER},
      {zeph_c_utils_writeFile("x", nullptr, 1), ERR_INVALID_PARAMETER},
      {zeph_c_utils_add_P5_padding(nullptr, 4, &buf, &len), ERR_INVALID_PARAMETER},
      {zeph_c_utils_getPlaintextLengthFromPadding(nullptr, 4), 0u},
      {zeph_gbk2utf8_malloc("x", 1, nullptr), 0u},
      {zeph_getVorliAlgName(3, nullptr), ERR_INVALID_PARAMETER},
      {static_cast<uint32_t>(se_getTimeString(nullptr)), ERR_INVALID_PARAMETER},
      {static_cast<uint32_t>(se_getLogPath(nullptr)), 0u},
  };
  for (size_t i = 0; i < std::size(statuses); ++i) EXPECT_EQ(statuses[i].first, statuses[i].second) << "row " << i;
}

}  // namespace
