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

Asn1TimePtr Time(const char *text) {
  Asn1TimePtr t(ASN1_TIME_new(), &ASN1_TIME_free);
  if (ASN1_TIME_set_string(t.get(), text) != 1) return {nullptr, &ASN1_TIME_free};
  return t;
}

std::string Standard(uint32_t (*fn)(const ASN1_TIME *, char *, uint32_t *), const ASN1_TIME *t) {
  char out[32];
  std::memset(out, 'X', sizeof out);
  uint32_t len = sizeof out;
  EXPECT_EQ(fn(t, out, &len), 0u);
  EXPECT_EQ(len, std::strlen(out));
  return out;
}

TEST(StandardTime, LocalTimeOfAnAsn1Time) {
  // POSIX zone rules without DST, so the results do not depend on the date.
  struct Case {
    const char *tz;
    const char *asn1;
    const char *local;
    const char *gmt_variant;  // offset added to the hour without normalising
  } cases[] = {
      {"UTC0", "20240131160000Z", "20240131160000", "20240131160000"},
      {"UTC0", "240131160000Z", "20240131160000", "20240131160000"},
      {"CST-8", "20240131160000Z", "20240201000000", "20240131240000"},
      {"CST-8", "20241231230000Z", "20250101070000", "20241231310000"},
      {"EST5", "20240301030000Z", "20240229220000", "20240301-20000"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.tz) + " " + c.asn1);
    ScopedEnv tz("TZ", c.tz);
    const auto t = Time(c.asn1);
    ASSERT_TRUE(t);
    EXPECT_EQ(Standard(zeph_c_utils_getStandardTime, t.get()), c.local);
    EXPECT_EQ(Standard(zeph_c_utils_GMTgetStandardTime, t.get()), c.gmt_variant);
  }
}

TEST(StandardTime, ZoneOffsetInHours) {
  struct Case {
    const char *tz;
    int hours;
  } cases[] = {{"UTC0", 0}, {"CST-8", 8}, {"EST5", -5}, {"XYZ-14", 14}, {"ABC12", -12}};
  for (const auto &c : cases) {
    ScopedEnv tz("TZ", c.tz);
    EXPECT_EQ(l_getLocalTimeZone(), c.hours) << c.tz;
  }
}

TEST(StandardTime, OutputProtocolAndFailures) {
  ScopedEnv tz("TZ", "UTC0");
  const auto t = Time("20240131160000Z");
  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_getStandardTime(t.get(), nullptr, &len), 0u);
  EXPECT_EQ(len, 15u);
  char out[15];
  std::memset(out, 'X', sizeof out);
  len = 14;
  EXPECT_EQ(zeph_c_utils_getStandardTime(t.get(), out, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 15u);
  EXPECT_EQ(out[0], 'X');
  EXPECT_EQ(zeph_c_utils_getStandardTime(nullptr, out, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(zeph_c_utils_GMTgetStandardTime(t.get(), out, nullptr), ERR_INVALID_PARAMETER);

  // A time that does not convert gives the empty text.
  Asn1TimePtr bad(ASN1_TIME_new(), &ASN1_TIME_free);
  ASSERT_EQ(ASN1_STRING_set(bad.get(), "2024-01-31", -1), 1);
  EXPECT_EQ(l_getTimeFromASN1(bad.get()), 0);
  EXPECT_EQ(Standard(zeph_c_utils_getStandardTime, bad.get()), "");
  EXPECT_EQ(Standard(zeph_c_utils_GMTgetStandardTime, bad.get()), "");
}

TEST(ParseUrl, SplitsSchemeHostAndPort) {
  struct Case {
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
      {"ftp://h", nullptr, nullptr, 0},
      {"HTTP://h", nullptr, nullptr, 0},
      {"http:h", nullptr, nullptr, 0},
      {"http:/h", nullptr, nullptr, 0},
      {"h:80", nullptr, nullptr, 0},
      {"no-colon", nullptr, nullptr, 0},
      {"https://[::1", nullptr, nullptr, 0},
      {"http://", nullptr, nullptr, 0},
      {"http://:80", nullptr, nullptr, 0},
      {"", nullptr, nullptr, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.url);
    char *host = reinterpret_cast<char *>(1);
    char *port = reinterpret_cast<char *>(1);
    int https = -1;
    const int ok = zeph_parse_url(c.url, &host, &port, &https);
    if (c.host == nullptr) {
      EXPECT_EQ(ok, 0);
      EXPECT_EQ(host, nullptr);
      EXPECT_EQ(port, nullptr);
      continue;
    }
    ASSERT_EQ(ok, 1);
    EXPECT_STREQ(host, c.host);
    EXPECT_STREQ(port, c.port);
    EXPECT_EQ(https, c.https);
    std::free(host);
    std::free(port);
  }
  char *host = nullptr;
  char *port = nullptr;
  EXPECT_EQ(zeph_parse_url(nullptr, &host, &port, nullptr), 0);
  EXPECT_EQ(zeph_parse_url("http://h", nullptr, &port, nullptr), 0);
  ASSERT_EQ(zeph_parse_url("http://h", &host, &port, nullptr), 1);  // the flag is optional
  std::free(host);
  std::free(port);
}

TEST(AlgName, SignatureAlgorithmNames) {
  struct Case {
    uint32_t code;
    const char *name;
  } cases[] = {{3, "SHA1withRSA"},          {4, "SHA256withRSA"},         {5, "SHA384withRSA"},
               {6, "SHA512withRSA"},        {7, "unknown signAlgoName"}, {0, "unknown signAlgoName"},
               {0xFFFFFFFF, "unknown signAlgoName"}};
  for (const auto &c : cases) {
    char out[21];
    EXPECT_EQ(zeph_getVorliAlgName(c.code, out), 0u);
    EXPECT_STREQ(out, c.name);
  }
  EXPECT_EQ(zeph_getVorliAlgName(3, nullptr), ERR_INVALID_PARAMETER);
}

}  // namespace
