// Command handlers: PINs, areas and device authentication (5xx).
// Operations the library does not offer yet answer 0x8208005A.
#include "ci/ci_internal.hpp"

namespace zeph::ci {

uint32_t l_ci4changeUserPin(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4initDevice(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4unlockUserPin(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4changeDeviceAuthCode(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
