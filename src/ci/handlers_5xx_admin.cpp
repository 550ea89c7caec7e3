// Command handlers: PINs, areas and device authentication (5xx).
#include <cstring>

#include "ci/ci_device.hpp"
#include "zeph_c_api.h"
#include "zeph_c_status.h"

namespace zeph::ci {
namespace {

// Retries given to both PINs of a new area when the request names none.
constexpr uint32_t kDefaultPinRetries = 10;

uint32_t TextLen(const char *s) { return static_cast<uint32_t>(std::strlen(s)); }
const unsigned char *Bytes(const char *s) { return reinterpret_cast<const unsigned char *>(s); }

uint32_t ChangeUserPin(const ZEPH_REQ_PARAM &req) {
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return ZEPH_C_ChangeUserPin(key.get(), req.asymid, req.pin.s, req.value);
}

uint32_t InitArea(const ZEPH_REQ_PARAM &req) {
  using InitFn =
      uint32_t (*)(void *, const unsigned char *, uint32_t, const char *, uint32_t, const char *, uint32_t, uint32_t);
  InitFn init = nullptr;
  switch (req.asymid) {
    case ZEPH_AREA_RSA:
      init = ZEPH_C_InitVorliRsaArea;
      break;
    case ZEPH_AREA_SM2:
      init = ZEPH_C_InitVorliSm2Area;
      break;
    case ZEPH_AREA_SEAL:
      init = ZEPH_C_InitVorliStampArea;
      break;
    default:
      return ERR_UNSUPPORTED_VALUE;
  }
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  const uint32_t retries = req.selector != 0 ? req.selector : kDefaultPinRetries;
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return init(key.get(), Bytes(req.value), req.valueLen, req.oid.s, retries, req.pin.s, retries, 0);
}

uint32_t UnlockUserPin(const ZEPH_REQ_PARAM &req) {
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return ZEPH_C_UnLockUserPinByAdminPin(key.get(), req.asymid, req.oid.s, TextLen(req.oid.s), req.value, req.valueLen);
}

uint32_t ChangeDeviceAuthCode(const ZEPH_REQ_PARAM &req) {
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return ZEPH_C_ChangeDeviceAuthCode(key.get(), Bytes(req.pin.s), TextLen(req.pin.s), Bytes(req.value), req.valueLen);
}

}  // namespace

uint32_t l_ci4changeUserPin(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, ChangeUserPin(*req)); }
uint32_t l_ci4initDevice(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, InitArea(*req)); }
uint32_t l_ci4unlockUserPin(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, UnlockUserPin(*req)); }
uint32_t l_ci4changeDeviceAuthCode(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, ChangeDeviceAuthCode(*req));
}

}  // namespace zeph::ci
