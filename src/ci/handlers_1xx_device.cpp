// Command handlers: Devices, random bytes and device files (1xx).
// Operations the library does not offer yet answer 0x8208005A.
#include "ci/ci_internal.hpp"

namespace zeph::ci {

uint32_t l_ci4getUKeyList(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4verifyUserPin(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4getVer(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4getUKeyDevErrStatus(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4doEnumRSAandSM2andSealInfo(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4getUKeyKeySNList(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4genRandomBytes(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4writeUkeyFile(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4readfile(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4deletefile(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
