// Command handlers: Software key and seal parsing (7xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <string>

#include "ci/ci_internal.hpp"
#include "seal/seal_store.hpp"

namespace zeph::ci {
namespace {

// The summary of the seal in the request; no key is asked.
uint32_t ParseSealInfo(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  std::string summary;
  ZEPH_TRY(seal::l_parseSealInfo(req.value, &summary));
  return SetData(res, summary);
}

}  // namespace

uint32_t l_ci4fkeyGetKeypair(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyDoSignature(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyGenCSR(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4parseSealInfo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, ParseSealInfo(*req, res)); }
uint32_t l_ci4fkeyEncodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyDecodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
