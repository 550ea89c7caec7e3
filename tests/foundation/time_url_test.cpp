// ASN.1 times as local time texts, URL splitting, algorithm names.
#include <cstring>

#include <openssl/asn1.h>

#include <gtest/gtest.h>

#include "foundation/helpers.hpp"
#include "scoped.hpp"

namespace {

TEST(StandardTime, LocalTimeOfAnAsn1Time) {
  // POSIX zone rules without DST, so nothing depends on today's date. "" does not convert.
  const struct {
    const char *tz, *asn1, *local;
    const char *gmt_variant;  // offset added to the hour without normalising
  } cases[] = {
      {"CST-8", "20241231230000Z", "20250101070000", "20241231310000"},
      {"EST5", "20240301030000Z", "20240229220000", "20240301-20000"},
      {"UTC0", "2024-01-31", "", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.tz) + " " + c.asn1);
    zeph_test::ScopedEnv tz("TZ", c.tz);
    ASN1_TIME *t = ASN1_TIME_new();
    if (ASN1_TIME_set_string(t, c.asn1) != 1) {
      ASSERT_EQ(ASN1_STRING_set(t, c.asn1, -1), 1);
    }
    for (auto [fn, expected] : {std::pair{&zeph_c_utils_getStandardTime, c.local},
                                std::pair{&zeph_c_utils_GMTgetStandardTime, c.gmt_variant}}) {
      char out[32];
      uint32_t len = sizeof out;
      EXPECT_EQ(fn(t, out, &len), 0u);
      EXPECT_STREQ(out, expected);
      EXPECT_EQ(len, std::strlen(out));
    }
    ASN1_TIME_free(t);
  }
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
      {"ftp://h", nullptr, nullptr, 0},
      {"HTTP://h", nullptr, nullptr, 0},
      {"http:h", nullptr, nullptr, 0},
      {"http:/h", nullptr, nullptr, 0},
      {"no-colon", nullptr, nullptr, 0},
      {"https://[::1", nullptr, nullptr, 0},
      {"http://", nullptr, nullptr, 0},
      {"http://:80", nullptr, nullptr, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.url);
    char *host = reinterpret_cast<char *>(1), *port = reinterpret_cast<char *>(1);
    int https = -1;
    const int ok = zeph_parse_url(c.url, &host, &port, &https);
    EXPECT_EQ(ok, c.host != nullptr ? 1 : 0);
    EXPECT_STREQ(host, c.host);
    EXPECT_STREQ(port, c.port);
    EXPECT_EQ(https, ok == 1 ? c.https : -1);
    std::free(host);
    std::free(port);
  }
  char *host = nullptr, *port = nullptr;
  EXPECT_EQ(zeph_parse_url(nullptr, &host, &port, nullptr), 0);
  EXPECT_EQ(zeph_parse_url("http://h", nullptr, &port, nullptr), 0);
}

TEST(AlgName, SignatureAlgorithmNames) {
  const std::pair<uint32_t, const char *> cases[] = {{3, "SHA1withRSA"},          {4, "SHA256withRSA"},
                                                     {5, "SHA384withRSA"},        {6, "SHA512withRSA"},
                                                     {7, "unknown signAlgoName"}, {0, "unknown signAlgoName"}};
  for (const auto &[code, name] : cases) {
    char out[21];
    EXPECT_EQ(zeph_getVorliAlgName(code, out), 0u);
    EXPECT_STREQ(out, name);
  }
}

}  // namespace
