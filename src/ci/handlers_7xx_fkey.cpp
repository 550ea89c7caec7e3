// Command handlers: Software key and seal parsing (7xx).
// Operations the library does not offer yet answer 0x8208005A.
#include "ci/ci_internal.hpp"

namespace zeph::ci {

uint32_t l_ci4fkeyGetKeypair(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyDoSignature(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyGenCSR(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4parseSealInfo(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyEncodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyDecodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
