// Command handlers: Software key and seal parsing (7xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <string>

#include "ci/ci_device.hpp"
#include "seal/seal_store.hpp"
#include "zeph_c_p7.h"

namespace zeph::ci {
namespace {

// The summary of the seal in the request; no key is asked.
uint32_t ParseSealInfo(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  std::string summary;
  ZEPH_TRY(seal::l_parseSealInfo(req.value, &summary));
  return SetData(res, summary);
}

// "raw" (base64 envelope) opened with "prikey" (base64 PKCS#8, encrypted
// under "pin" when it is an EncryptedPrivateKeyInfo).
uint32_t FkeyDecodeEnveloper(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.prikey.s[0] != '\0', ERR_INVALID_PARAMETER);
  SecureBytes env, pkcs8;
  ZEPH_TRY(DecodeBase64(req.value, &env));
  ZEPH_TRY(DecodeBase64(req.prikey.s, &pkcs8));
  return SetBase64Output(res, env.size(), [&](uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_DecodeEnveloperWithPrivateKey(pkcs8.data(), static_cast<uint32_t>(pkcs8.size()),
                                                req.pin.s[0] != '\0' ? req.pin.s : nullptr, env.data(),
                                                static_cast<uint32_t>(env.size()), out, out_len);
  });
}

}  // namespace

uint32_t l_ci4fkeyGetKeypair(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyDoSignature(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyGenCSR(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4parseSealInfo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, ParseSealInfo(*req, res)); }
uint32_t l_ci4fkeyEncodeEnveloper(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, EncodeEnveloper(*req, res));
}
uint32_t l_ci4fkeyDecodeEnveloper(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, FkeyDecodeEnveloper(*req, res));
}

}  // namespace zeph::ci
