// ASN.1 times as local time texts, URL splitting, algorithm names.
#include <gtest/gtest.h>

#include <openssl/asn1.h>

#include <cstring>
#include <memory>
#include <string>

#include "foundation/helpers.hpp"
#include "scoped.hpp"
#include "zeph_c_utils.h"

namespace {

using zeph_test::ScopedEnv;
using Asn1TimePtr = std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)>;
using TimeFn = uint32_t (*)(const ASN1_TIME *, char *, uint32_t *);

std::string Standard(TimeFn fn, const ASN1_TIME *t) {
  char out[32];
  uint32_t len = sizeof out;
  EXPECT_EQ(fn(t, out, &len), 0u);
  EXPECT_EQ(len, std::strlen(out));
  return out;
}

TEST(StandardTime, LocalTimeOfAnAsn1Time) {
  // POSIX zone rules without DST, so nothing depends on today's date.
  const struct {
    const char *tz, *asn1, *local;
    const char *gmt_variant;  // offset added to the hour without normalising
    int offset;
  } cases[] = {
      {"UTC0", "20240131160000Z", "20240131160000", "20240131160000", 0},
      {"UTC0", "240131160000Z", "20240131160000", "20240131160000", 0},
      {"CST-8", "20240131160000Z", "20240201000000", "20240131240000", 8},
      {"CST-8", "20241231230000Z", "20250101070000", "20241231310000", 8},
      {"EST5", "20240301030000Z", "20240229220000", "20240301-20000", -5},
      {"XYZ-14", "20240101000000Z", "20240101140000", "20240101140000", 14},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.tz) + " " + c.asn1);
    ScopedEnv tz("TZ", c.tz);
    EXPECT_EQ(l_getLocalTimeZone(), c.offset);
    Asn1TimePtr t(ASN1_TIME_new(), &ASN1_TIME_free);
    ASSERT_EQ(ASN1_TIME_set_string(t.get(), c.asn1), 1);
    EXPECT_EQ(Standard(zeph_c_utils_getStandardTime, t.get()), c.local);
    EXPECT_EQ(Standard(zeph_c_utils_GMTgetStandardTime, t.get()), c.gmt_variant);
  }
}

TEST(StandardTime, OutputProtocolAndFailures) {
  ScopedEnv tz("TZ", "UTC0");
  Asn1TimePtr t(ASN1_TIME_new(), &ASN1_TIME_free);
  ASSERT_EQ(ASN1_TIME_set_string(t.get(), "20240131160000Z"), 1);
  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_getStandardTime(t.get(), nullptr, &len), 0u);
  EXPECT_EQ(len, 15u);  // 14 digits and the terminator
  char out[15] = "untouched";
  len = 14;
  EXPECT_EQ(zeph_c_utils_getStandardTime(t.get(), out, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_STREQ(out, "untouched");
  EXPECT_EQ(zeph_c_utils_getStandardTime(nullptr, out, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_GMTgetStandardTime(t.get(), out, nullptr), ERR_INVALID_PARAMETER);

  // A time that does not convert gives the empty text.
  ASSERT_EQ(ASN1_STRING_set(t.get(), "2024-01-31", -1), 1);
  EXPECT_EQ(l_getTimeFromASN1(t.get()), 0);
  EXPECT_EQ(Standard(zeph_c_utils_getStandardTime, t.get()), "");
  EXPECT_EQ(Standard(zeph_c_utils_GMTgetStandardTime, t.get()), "");
}

TEST(ParseUrl, SplitsSchemeHostAndPort) {
  const struct {
    const char *url;
    const char *host;  // nullptr: failure
    const char *port;
    int https;
  } cases[] = {
      {"http://ca.example.cn", "ca.example.cn", "80", 0},
      {"https://ca.example.cn", "ca.example.cn", "443", 1},
      {"http://10.0.0.1:8080", "10.0.0.1", "8080", 0},
      {"https://[2001:db8::1]:8443", "2001:db8::1", "8443", 1},
      {"https://[::1]", "::1", "443", 1},
      // No path is split off: it stays with the port, or with the host.
      {"http://h:81/tsa", "h", "81/tsa", 0},
      {"http://h/tsa", "h/tsa", "80", 0},
      {"ftp://h", nullptr, nullptr, 0},     {"HTTP://h", nullptr, nullptr, 0},
      {"http:h", nullptr, nullptr, 0},      {"http:/h", nullptr, nullptr, 0},
      {"no-colon", nullptr, nullptr, 0},    {"https://[::1", nullptr, nullptr, 0},
      {"http://", nullptr, nullptr, 0},     {"http://:80", nullptr, nullptr, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.url);
    char *host = reinterpret_cast<char *>(1);
    char *port = reinterpret_cast<char *>(1);
    int https = -1;
    const int ok = zeph_parse_url(c.url, &host, &port, &https);
    EXPECT_EQ(ok, c.host != nullptr ? 1 : 0);
    if (ok == 1) {
      EXPECT_STREQ(host, c.host);
      EXPECT_STREQ(port, c.port);
      EXPECT_EQ(https, c.https);
    } else {
      EXPECT_EQ(host, nullptr);
      EXPECT_EQ(port, nullptr);
    }
    std::free(ok == 1 ? host : nullptr);
    std::free(ok == 1 ? port : nullptr);
  }
  char *host = nullptr, *port = nullptr;
  EXPECT_EQ(zeph_parse_url(nullptr, &host, &port, nullptr), 0);
  EXPECT_EQ(zeph_parse_url("http://h", nullptr, &port, nullptr), 0);
}

TEST(AlgName, SignatureAlgorithmNames) {
  const struct {
    uint32_t code;
    const char *name;
  } cases[] = {{3, "SHA1withRSA"},   {4, "SHA256withRSA"},        {5, "SHA384withRSA"},
               {6, "SHA512withRSA"}, {7, "unknown signAlgoName"}, {0, "unknown signAlgoName"}};
  for (const auto &c : cases) {
    char out[21];
    EXPECT_EQ(zeph_getVorliAlgName(c.code, out), 0u);
    EXPECT_STREQ(out, c.name);
  }
}

}  // namespace
