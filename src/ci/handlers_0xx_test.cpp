// Command handlers: Test commands (0xx).
#include <memory>
#include <string>

#include "ci/ci_device.hpp"
#include "ci/ci_internal.hpp"
#include "foundation/helpers.hpp"
#include "foundation/owned.hpp"
#include "pki/cert_input.hpp"
#include "zeph_c_cert.h"
#include "zeph_c_randtest.h"

namespace zeph::ci {
namespace {

using RandTestPtr = std::unique_ptr<ZEPH_RANDTEST_CTX, Free<ZEPH_C_RandTest_Free>>;

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
  const std::string text =
      "{\"prikey\":\"" + zeph::Base64Text(d) + "\",\"pubkey\":\"" + zeph::Base64Text(point) + "\"}";
  return SetData(res, text);
}

// The complete randomness suite over "raw"; the code is the suite's status
// and the data its report (sent by the dispatcher only when all passed).
uint32_t CompleteRandomnessTest(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  SecureBytes raw;
  ZEPH_TRY(DecodeBase64(req.value, &raw));
  ZEPH_ENSURE(!raw.empty(), ERR_INVALID_PARAMETER);
  RandTestPtr ctx(ZEPH_C_RandTest_New());
  ZEPH_ENSURE(ctx != nullptr, ERR_OUT_OF_MEMORY);
  const uint32_t status = ZEPH_C_RandTest_Run(ctx.get(), 1, raw.data(), raw.size());
  uint64_t n = 0;
  ZEPH_TRY(ZEPH_C_RandTest_Report(ctx.get(), nullptr, &n));
  std::string report(n, '\0');
  ZEPH_TRY(ZEPH_C_RandTest_Report(ctx.get(), report.data(), &n));
  report.resize(n);
  ZEPH_TRY(SetData(res, report, kDataObject));
  return status;
}

}  // namespace

uint32_t l_testGetP8Data(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return Answer(res, TestP8(res)); }
uint32_t l_testGetECCKeyPair(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return Answer(res, TestKeyPair(res)); }
uint32_t l_completeRandomnessTest(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, CompleteRandomnessTest(*req, res));
}

}  // namespace zeph::ci
