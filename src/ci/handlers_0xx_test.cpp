// Command handlers: Test commands (0xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <memory>
#include <string>

#include "ci/ci_device.hpp"
#include "ci/ci_internal.hpp"
#include "foundation/owned.hpp"
#include "zeph_c_randtest.h"

namespace zeph::ci {
namespace {

using RandTestPtr = std::unique_ptr<ZEPH_RANDTEST_CTX, Free<ZEPH_C_RandTest_Free>>;

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

uint32_t l_testGetP8Data(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_testGetECCKeyPair(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_completeRandomnessTest(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, CompleteRandomnessTest(*req, res));
}

}  // namespace zeph::ci
