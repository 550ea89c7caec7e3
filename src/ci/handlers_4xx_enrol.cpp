// Command handlers: Enrolment: requests, storing certificates, keys and seals (4xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <string>

#include "ci/ci_device.hpp"
#include "ci/ci_internal.hpp"
#include "ci/ci_seal.hpp"
#include "seal/seal_store.hpp"

namespace zeph::ci {
namespace {

// Seal bytes (base64) written by ZEPH_C_SetSealInfo to the area "idx".
uint32_t SetSealInfo(const ZEPH_REQ_PARAM &req) {
  SecureBytes data;
  ZEPH_TRY(DecodeBase64(req.value, &data));
  ZEPH_ENSURE(!data.empty(), ERR_INVALID_PARAMETER);
  std::string key_sn;
  ZEPH_TRY(SealKeySN(req, &key_sn));
  return seal::StoreSealArea(key_sn.c_str(), req.pin.s, req.selector, data.span());
}

}  // namespace

uint32_t l_ci4genCSR(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4saveSignCert(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4saveCertChain(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4saveEncCertAndKey(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4setSealInfo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, SetSealInfo(*req)); }

}  // namespace zeph::ci
