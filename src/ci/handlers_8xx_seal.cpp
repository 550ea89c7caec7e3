// Command handlers: Seals on the key, extended slots (8xx).
#include <string>
#include <utility>

#include "ci/ci_seal.hpp"
#include "seal/seal_store.hpp"
#include "zeph_c_status.h"

namespace zeph::ci {
namespace {

uint32_t SetSealInfoEx(const ZEPH_REQ_PARAM &req) {
  std::string key_sn;
  ZEPH_TRY(SealKeySN(req, &key_sn));
  // Without a user PIN the seal PIN is taken unproven.
  if (req.pin.s[0] == '\0') return seal::l_setSealInfoSpec(key_sn.c_str(), req.selector, req.value);
  return seal::l_setSealInfo(key_sn.c_str(), req.pin.s, req.selector, req.value);
}

uint32_t GetSealInfoEx(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.selector >= ZEPH_SEAL_SLOT_FIRST && req.selector <= ZEPH_SEAL_SLOT_LAST, ERR_INVALID_PARAMETER);
  std::string key_sn;
  ZEPH_TRY(SealKeySN(req, &key_sn));
  int32_t type = ZEPH_SEAL_TYPE_UNKNOWN;
  std::string text;
  ZEPH_TRY(req.selector == 1 ? seal::l_getFirstSealInfo(key_sn.c_str(), &type, &text)
                             : seal::l_getSealInfo_NotFirst(key_sn.c_str(), req.selector, &type, &text));
  // The text form arrives as an object, a DER seal as its base64.
  return AdoptData(res, std::move(text), type == ZEPH_SEAL_TYPE_TEXT ? kDataObject : kDataPlain);
}

uint32_t CheckSealType(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.selector >= ZEPH_SEAL_SLOT_FIRST && req.selector <= ZEPH_SEAL_SLOT_LAST, ERR_INVALID_PARAMETER);
  std::string key_sn;
  ZEPH_TRY(SealKeySN(req, &key_sn));
  seal::SlotSeal seal;
  ZEPH_TRY(seal::ReadSealSlot(key_sn.c_str(), req.selector, &seal));
  switch (seal.type) {
    case ZEPH_SEAL_TYPE_TEXT:
      return SetData(res, "TYPE1");
    case ZEPH_SEAL_TYPE_SES:
      return SetData(res, "TYPE2");
    case ZEPH_SEAL_TYPE_GB:
      return SetData(res, "TYPE3");
    default:
      return ERR_DEVICE_FILE_READ_FAILED;
  }
}

uint32_t GetSealAll(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  std::string key_sn;
  ZEPH_TRY(SealKeySN(req, &key_sn));
  std::string list;
  ZEPH_TRY(seal::ListSeals(key_sn.c_str(), &list));
  return SetData(res, list);
}

}  // namespace

uint32_t l_ci4setSealInfoEx(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, SetSealInfoEx(*req)); }
uint32_t l_ci4getSealInfoEx(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GetSealInfoEx(*req, res)); }
uint32_t l_ci4CheckSealType(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, CheckSealType(*req, res)); }
uint32_t l_ci4getSealAll(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GetSealAll(*req, res)); }

}  // namespace zeph::ci
