// Command handlers: Certificates and seal reading (2xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <string>

#include "ci/ci_internal.hpp"
#include "ci/ci_seal.hpp"
#include "seal/seal_store.hpp"

namespace zeph::ci {
namespace {

// The seal of the slot "idx" (the first one when absent) as a JSON text.
uint32_t SealJson(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res,
                  uint32_t (*text)(const seal::SlotSeal &, std::string *)) {
  std::string key_sn;
  ZEPH_TRY(SealKeySN(req, &key_sn));
  seal::SlotSeal seal;
  ZEPH_TRY(seal::ReadSealSlot(key_sn.c_str(), SlotOrFirst(req), &seal));
  std::string json;
  ZEPH_TRY(text(seal, &json));
  return SetData(res, json);
}

uint32_t GetSealDetail(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) { return SealJson(req, res, seal::SealDetail); }
uint32_t GetSealStruct(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  return SealJson(req, res, seal::SealStructure);
}

}  // namespace

uint32_t l_ci4getCertificate(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4verifyCert(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4getCertChain(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4getSealInfo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GetSealDetail(*req, res)); }
uint32_t l_ci4resolveEnveloperCertChain(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4getSealStruct(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GetSealStruct(*req, res)); }
uint32_t l_ci4GetCertInfoWithItemNo(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
