// Object locations of both key layouts, and the DigestInfo encoder checked
// against OpenSSL's own RSA signing.
#include <cstring>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include "foundation/owned.hpp"
#include "test_support.hpp"
#include "zeph_c_device.h"

namespace {

// "status application container file size"; "-" and 7 mark outputs the lookup left alone.
std::string Look(uint32_t layout, uint32_t index) {
  char app[ZEPH_DEVICE_NAME_MAX] = "-", con[ZEPH_DEVICE_NAME_MAX] = "-", file[ZEPH_DEVICE_NAME_MAX] = "-";
  uint32_t size = 7;
  const uint32_t rv = getDeviceInfoWithDeviceTypeFromConfig(0, layout, index, 0, app, con, file, &size);
  return std::to_string(rv) + " " + app + " " + con + " " + file + " " + std::to_string(size);
}

TEST(ObjectLocations, BothLayoutsRowByRow) {
  const struct {
    uint32_t layout, index;
    const char *want;
  } rows[] = {
      {0, 1, "0 VorliRsa RSA1 - 7"},
      {0, 2, "0 VorliRsa RSA2 - 7"},
      {0, 3, "0 VorliEcc ECC - 7"},
      {0, 4, "0 VorliEcc ECC - 7"},
      {0, 5, "0 VorliRsa - CertChain 4096"},
      {0, 6, "0 VorliRsa - Version 4096"},
      {0, 7, "0 VorliEcc - CertChain 4096"},
      {0, 8, "0 VorliEcc - Version 4096"},
      {0, 9, "0 VorliStamp - CertChain 4096"},
      {0, 10, "0 VorliStamp - Version 4096"},
      {0, 11, "0 VorliStamp - Picture 4096"},
      {0, 12, "0 VorliStamp - Cert 4096"},
      {0, 13, "0 VorliRsa RSA - 7"},
      {1, 3, "0 SM-Application SM-Application - 7"},
      {1, 4, "0 SM-Application SM-Application - 7"},
      {1, 7, "0 SM-Application - CertChain 4096"},
      {1, 8, "0 SM-Application - Version 4096"},
  };
  for (const auto &r : rows) EXPECT_EQ(Look(r.layout, r.index), r.want) << r.layout << "/" << r.index;
  // Indexes a layout does not name: the first succeeds without an object,
  // the second refuses them; there is no third layout.
  for (const uint32_t index : {0u, 14u, 17u}) EXPECT_EQ(Look(0, index), "0 - - - 7") << index;
  const std::string unsupported = std::to_string(ERR_UNSUPPORTED_VALUE) + " - - - 7";
  for (const uint32_t index : {0u, 1u, 2u, 5u, 11u, 13u, 14u, 0xFFFFFFFFu})
    EXPECT_EQ(Look(1, index), unsupported) << index;
  EXPECT_EQ(Look(2, 3), unsupported);
  // Null outputs are skipped.
  EXPECT_EQ(getDeviceInfoWithDeviceTypeFromConfig(0, 0, 5, 0, nullptr, nullptr, nullptr, nullptr), 0u);
  EXPECT_EQ(getDeviceInfoWithDeviceTypeFromConfig(0, 1, 3, 0, nullptr, nullptr, nullptr, nullptr), 0u);
}

// The DigestInfo that OpenSSL itself signs, recovered from an RSA signature.
std::vector<uint8_t> OpenSslDigestInfo(EVP_PKEY *key, const EVP_MD *md, const std::vector<uint8_t> &digest) {
  zeph::EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
  size_t sig_len = EVP_PKEY_get_size(key), info_len = sig_len;
  std::vector<uint8_t> sig(sig_len), info(info_len);
  EVP_PKEY_sign_init(ctx.get());
  EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING);
  EVP_PKEY_CTX_set_signature_md(ctx.get(), md);
  EXPECT_EQ(EVP_PKEY_sign(ctx.get(), sig.data(), &sig_len, digest.data(), digest.size()), 1);
  EVP_PKEY_verify_recover_init(ctx.get());
  EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING);
  EXPECT_EQ(EVP_PKEY_verify_recover(ctx.get(), info.data(), &info_len, sig.data(), sig_len), 1);
  info.resize(info_len);
  return info;
}

TEST(RsaSignPad, MatchesTheDigestInfoOpenSslSigns) {
  const zeph::EvpPkeyPtr key(EVP_RSA_gen(2048));
  ASSERT_NE(key, nullptr);
  for (const EVP_MD *md : {EVP_sha1(), EVP_sha256(), EVP_sha384(), EVP_sha512(), EVP_md5()}) {
    SCOPED_TRACE(EVP_MD_get0_name(md));
    const std::vector<uint8_t> digest = zeph_test::RandomBytes(EVP_MD_get_size(md), 7);
    unsigned char buffer[128] = {0};
    std::memcpy(buffer, digest.data(), digest.size());
    uint32_t len = 0;
    ASSERT_EQ(zeph_c_utils_RSAsignpad(buffer, EVP_MD_get_type(md), static_cast<uint32_t>(digest.size()), &len), 0);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + len), OpenSslDigestInfo(key.get(), md, digest));
  }
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
