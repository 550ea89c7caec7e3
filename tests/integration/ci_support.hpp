// Shared by the end-to-end tests of the JSON command interface: a software
// key made with the utility, served through the device configuration, and
// ZEPH_C_CI calls with their responses taken apart.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace ci_test {

struct Reply {
  std::string text;  // as printed
  int64_t type = 0;
  int64_t code = 0;
  bool has_data = false;
  bool data_is_string = false;
  std::string data;  // a string's value, or the JSON text of anything else
  uint32_t Status() const { return static_cast<uint32_t>(code); }
};

// One request through ZEPH_C_CI; the response must be a JSON object with
// numeric "type" and "code" (a failed expectation otherwise).
Reply Ci(const std::string &request);

// Status as a handler prints it (sign-extended from 32 bits).
inline int64_t Signed(uint32_t status) { return static_cast<int32_t>(status); }

std::string Base64(const std::vector<uint8_t> &bytes);
std::vector<uint8_t> FromBase64(const std::string &text);

// Device CI0001 (keySN ZS_CI0001) under a fresh root: application VorliEcc
// with container ECC holding an SM2 signing pair and its certificate.
class SoftKeyCi : public ::testing::Test {
 protected:
  static constexpr const char *kSerial = "CI0001";
  static constexpr const char *kKeySN = "ZS_CI0001";
  static constexpr const char *kUserPin = "87654321";
  static constexpr const char *kAdminPin = "12345678";
  static constexpr const char *kAuthCode = "1234567812345678";
  static constexpr int kRetries = 5;

  void SetUp() override;
  void TearDown() override;

  // zeph-softkey on this test's root; the exit status, output in *out.
  int Tool(const std::string &args, std::string *out = nullptr) const;
  void MustTool(const std::string &args) const;
  // Adds the RSA area (VorliRsa/RSA1, RSA 2048 with a certificate).
  void AddRsaArea() const;
  // DER certificate of a container's signing pair.
  std::vector<uint8_t> Certificate(const std::string &app, const std::string &container) const;
  // Replaces <keySN>, <pin>, <adminPin>, <authCode> and <cert> (SM2 signing
  // certificate, base64 DER) in a request text.
  std::string Fill(std::string request) const;

  zeph_test::TempDir root_;
  std::string cert_b64_;
};

}  // namespace ci_test
