// Command handlers: Test commands (0xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <string>

#include "ci/ci_device.hpp"
#include "pki/cert_input.hpp"
#include "zeph_c_cert.h"

namespace zeph::ci {
namespace {

// The library's public SM2 test key: PKCS#8, and the pair in base64.
uint32_t TestP8(ZEPH_RES_PARAM *res) {
  uint8_t p8[256];
  uint32_t len = sizeof p8;
  ZEPH_TRY(ZEPH_C_TestGetP8Data(p8, &len));
  return SetBase64Data(res, p8, len);
}

uint32_t TestKeyPair(ZEPH_RES_PARAM *res) {
  uint8_t d[32], point[65];
  ZEPH_TRY(ZEPH_C_TestGetECCKeyPair(d, point));
  const std::string text = "{\"prikey\":\"" + pki::Base64Text(d) + "\",\"pubkey\":\"" + pki::Base64Text(point) + "\"}";
  return SetData(res, text);
}

}  // namespace

uint32_t l_testGetP8Data(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return Answer(res, TestP8(res)); }
uint32_t l_testGetECCKeyPair(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return Answer(res, TestKeyPair(res)); }
uint32_t l_completeRandomnessTest(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
