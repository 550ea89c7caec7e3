// Command handlers: Certificates and seal reading (2xx).
#include <string>
#include <string_view>

#include "ci/ci_device.hpp"
#include "ci/ci_internal.hpp"
#include "ci/ci_seal.hpp"
#include "pki/cert_input.hpp"
#include "seal/seal_store.hpp"
#include "zeph_c_cert.h"

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

// A first guess at a certificate's or bundle's size; longer ones ask again.
constexpr size_t kCertRoom = 4096;

std::string_view AsText(const SecureBytes &b) { return {reinterpret_cast<const char *>(b.data()), b.size()}; }

// A certificate or list as a host sends it: base64 DER, or PEM text.
uint32_t CertBytes(const char *text, pki::Bytes *out) {
  ZEPH_ENSURE(text != nullptr && text[0] != '\0', ERR_INVALID_PARAMETER);
  return pki::TextBytes(text, out);
}

uint32_t GetCertificate(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  // "usage" 0 is the encryption certificate; absent means signing.
  const uint32_t usage = req.usageGiven ? req.usage : ZEPH_USAGE_SIGNING;
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return SetBase64Output(res, kCertRoom, [&](uint8_t *out, uint32_t *n) {
    return ZEPH_C_GetCertificate(key.get(), req.asymid, usage, out, n);
  });
}

uint32_t VerifyCert(const ZEPH_REQ_PARAM &req) {
  pki::Bytes cert, chain;
  ZEPH_TRY(CertBytes(req.cert, &cert));
  if (req.value != nullptr && req.value[0] != '\0') {
    if (pki::TextBytes(req.value, &chain) != 0) return ERR_CERT_CHAIN_FAILED;
  }
  const bool ocsp = req.url.s[0] != '\0';
  const uint32_t revocation = req.nocrl == 1 ? ZEPH_REVOCATION_NONE : ocsp ? ZEPH_REVOCATION_OCSP : ZEPH_REVOCATION_CRL;
  return ZEPH_C_VerifyCert(cert.data(), static_cast<uint32_t>(cert.size()), chain.data(),
                           static_cast<uint32_t>(chain.size()), revocation, req.url.s);
}

uint32_t GetCertChain(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return SetBase64Output(res, kCertRoom,
                         [&](uint8_t *out, uint32_t *n) { return ZEPH_C_GetCertChain(key.get(), req.asymid, out, n); });
}

uint32_t SplitChain(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  pki::Bytes chain;
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  if (pki::TextBytes(req.value, &chain) != 0) return ERR_CERT_CHAIN_FAILED;
  SecureBytes json;
  ZEPH_TRY(CollectOutput(
      chain.size() * 2,
      [&](uint8_t *out, uint32_t *n) {
        return ZEPH_C_SplitCertChain(chain.data(), static_cast<uint32_t>(chain.size()), reinterpret_cast<char *>(out),
                                     n);
      },
      &json));
  return SetData(res, AsText(json), kDataObject);
}

// "oid" names an extension or policy; without it "itemNo" picks the field.
uint32_t CertInfo(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  pki::Bytes cert;
  ZEPH_TRY(CertBytes(req.cert, &cert));
  const auto len = static_cast<uint32_t>(cert.size());
  SecureBytes text;
  ZEPH_TRY(CollectOutput(
      kCertRoom,
      [&](uint8_t *out, uint32_t *n) {
        char *chars = reinterpret_cast<char *>(out);
        return req.oid.s[0] != '\0' ? ZEPH_C_GetCertExtension(cert.data(), len, req.oid.s, chars, n)
                                    : ZEPH_C_GetCertInfo(cert.data(), len, req.selector, chars, n);
      },
      &text));
  return SetData(res, AsText(text));
}

}  // namespace

uint32_t l_ci4getCertificate(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, GetCertificate(*req, res));
}
uint32_t l_ci4verifyCert(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, VerifyCert(*req)); }
uint32_t l_ci4getCertChain(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GetCertChain(*req, res)); }
uint32_t l_ci4getSealInfo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GetSealDetail(*req, res)); }
uint32_t l_ci4resolveEnveloperCertChain(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, SplitChain(*req, res));
}
uint32_t l_ci4getSealStruct(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GetSealStruct(*req, res)); }
uint32_t l_ci4GetCertInfoWithItemNo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, CertInfo(*req, res));
}

}  // namespace zeph::ci
