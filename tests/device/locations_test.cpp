// Object locations of both key layouts, and the DigestInfo encoder checked
// against OpenSSL's own RSA signing.
#include <cstring>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include "test_support.hpp"
#include "zeph_c_device.h"

namespace {

struct Location {
  uint32_t status;
  std::string application, container, file;
  uint32_t size;
};

Location Look(uint32_t layout, uint32_t index) {
  char app[ZEPH_DEVICE_NAME_MAX] = "-", con[ZEPH_DEVICE_NAME_MAX] = "-", file[ZEPH_DEVICE_NAME_MAX] = "-";
  uint32_t size = 7;
  const uint32_t rv = getDeviceInfoWithDeviceTypeFromConfig(0, layout, index, 0, app, con, file, &size);
  return {rv, app, con, file, size};
}

TEST(ObjectLocations, BothLayoutsRowByRow) {
  // "-" and 7 mark outputs the lookup must not touch.
  const struct {
    uint32_t layout, index;
    Location want;
  } rows[] = {
      {0, 1, {0, "VorliRsa", "RSA1", "-", 7}},
      {0, 2, {0, "VorliRsa", "RSA2", "-", 7}},
      {0, 3, {0, "VorliEcc", "ECC", "-", 7}},
      {0, 4, {0, "VorliEcc", "ECC", "-", 7}},
      {0, 5, {0, "VorliRsa", "-", "CertChain", 4096}},
      {0, 6, {0, "VorliRsa", "-", "Version", 4096}},
      {0, 7, {0, "VorliEcc", "-", "CertChain", 4096}},
      {0, 8, {0, "VorliEcc", "-", "Version", 4096}},
      {0, 9, {0, "VorliStamp", "-", "CertChain", 4096}},
      {0, 10, {0, "VorliStamp", "-", "Version", 4096}},
      {0, 11, {0, "VorliStamp", "-", "Picture", 4096}},
      {0, 12, {0, "VorliStamp", "-", "Cert", 4096}},
      {0, 13, {0, "VorliRsa", "RSA", "-", 7}},
      {0, 0, {0, "-", "-", "-", 7}},
      {0, 14, {0, "-", "-", "-", 7}},
      {0, 17, {0, "-", "-", "-", 7}},
      {1, 3, {0, "SM-Application", "SM-Application", "-", 7}},
      {1, 4, {0, "SM-Application", "SM-Application", "-", 7}},
      {1, 7, {0, "SM-Application", "-", "CertChain", 4096}},
      {1, 8, {0, "SM-Application", "-", "Version", 4096}},
      {1, 1, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
      {1, 2, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
      {1, 5, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
      {1, 11, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
      {1, 13, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
      {1, 0, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
      {1, 14, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
      {1, 0xFFFFFFFFu, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
      {2, 3, {ERR_UNSUPPORTED_VALUE, "-", "-", "-", 7}},
  };
  for (const auto &r : rows) {
    const Location got = Look(r.layout, r.index);
    SCOPED_TRACE("layout " + std::to_string(r.layout) + " index " + std::to_string(r.index));
    EXPECT_EQ(got.status, r.want.status);
    EXPECT_EQ(got.application, r.want.application);
    EXPECT_EQ(got.container, r.want.container);
    EXPECT_EQ(got.file, r.want.file);
    EXPECT_EQ(got.size, r.want.size);
  }
}

TEST(ObjectLocations, NullOutputsAreSkipped) {
  EXPECT_EQ(getDeviceInfoWithDeviceTypeFromConfig(0, 0, 5, 0, nullptr, nullptr, nullptr, nullptr), 0u);
  EXPECT_EQ(getDeviceInfoWithDeviceTypeFromConfig(0, 1, 3, 0, nullptr, nullptr, nullptr, nullptr), 0u);
}

// The DigestInfo that OpenSSL itself signs, recovered from an RSA signature.
std::vector<uint8_t> OpenSslDigestInfo(EVP_PKEY *key, const EVP_MD *md, const std::vector<uint8_t> &digest) {
  EVP_PKEY_CTX *sign = EVP_PKEY_CTX_new(key, nullptr);
  EVP_PKEY_sign_init(sign);
  EVP_PKEY_CTX_set_rsa_padding(sign, RSA_PKCS1_PADDING);
  EVP_PKEY_CTX_set_signature_md(sign, md);
  size_t sig_len = 0;
  EVP_PKEY_sign(sign, nullptr, &sig_len, digest.data(), digest.size());
  std::vector<uint8_t> sig(sig_len);
  EXPECT_EQ(EVP_PKEY_sign(sign, sig.data(), &sig_len, digest.data(), digest.size()), 1);
  EVP_PKEY_CTX_free(sign);

  EVP_PKEY_CTX *recover = EVP_PKEY_CTX_new(key, nullptr);
  EVP_PKEY_verify_recover_init(recover);
  EVP_PKEY_CTX_set_rsa_padding(recover, RSA_PKCS1_PADDING);
  std::vector<uint8_t> info(sig_len);
  size_t info_len = info.size();
  EXPECT_EQ(EVP_PKEY_verify_recover(recover, info.data(), &info_len, sig.data(), sig_len), 1);
  EVP_PKEY_CTX_free(recover);
  info.resize(info_len);
  return info;
}

TEST(RsaSignPad, MatchesTheDigestInfoOpenSslSigns) {
  EVP_PKEY *key = EVP_RSA_gen(2048);
  ASSERT_NE(key, nullptr);
  for (const EVP_MD *md : {EVP_sha1(), EVP_sha256(), EVP_sha384(), EVP_sha512(), EVP_md5()}) {
    SCOPED_TRACE(EVP_MD_get0_name(md));
    const std::vector<uint8_t> digest = zeph_test::RandomBytes(EVP_MD_get_size(md), 7);
    unsigned char buffer[128] = {0};
    std::memcpy(buffer, digest.data(), digest.size());
    uint32_t len = 0;
    ASSERT_EQ(zeph_c_utils_RSAsignpad(buffer, EVP_MD_get_type(md), static_cast<uint32_t>(digest.size()), &len), 0);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + len), OpenSslDigestInfo(key, md, digest));
  }
  EVP_PKEY_free(key);
  // OpenSSL signs SM3 digests bare; the encoding carries the SM3 OID 1.2.156.10197.1.401.
  unsigned char buffer[128] = {0};
  uint32_t len = 0;
  ASSERT_EQ(zeph_c_utils_RSAsignpad(buffer, NID_sm3, 32, &len), 0);
  EXPECT_EQ(zeph_test::ToHex(buffer, len),
            "3030300C06082A811CCF55018311050004200000000000000000000000000000000000000000000000000000000000000000");
}

TEST(RsaSignPad, RefusesWhatItCannotEncode) {
  unsigned char buffer[128];
  std::memset(buffer, 0xA5, sizeof buffer);
  uint32_t len = 99;
  // NID 114 carries a 32-byte value as it is, and only that.
  EXPECT_EQ(zeph_c_utils_RSAsignpad(buffer, 114, 32, &len), 0);
  EXPECT_EQ(len, 32u);
  EXPECT_EQ(buffer[0], 0xA5);
  len = 99;
  EXPECT_EQ(zeph_c_utils_RSAsignpad(buffer, 114, 36, &len), -1);
  EXPECT_EQ(zeph_c_utils_RSAsignpad(buffer, NID_undef, 32, &len), -1);
  // 100 digest bytes encode to 119 > 117: refused, buffer untouched.
  EXPECT_EQ(zeph_c_utils_RSAsignpad(buffer, NID_sha512, 100, &len), -1);
  EXPECT_EQ(len, 99u);
  for (unsigned char b : buffer) ASSERT_EQ(b, 0xA5);
  // 98 bytes encode to exactly 117.
  EXPECT_EQ(zeph_c_utils_RSAsignpad(buffer, NID_sha512, 98, &len), 0);
  EXPECT_EQ(len, 117u);
  EXPECT_EQ(zeph_c_utils_RSAsignpad(nullptr, NID_sha256, 32, &len), -1);
  EXPECT_EQ(zeph_c_utils_RSAsignpad(buffer, NID_sha256, 32, nullptr), -1);
}

}  // namespace
