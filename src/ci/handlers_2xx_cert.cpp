// Command handlers: Certificates and seal reading (2xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <string>
#include <vector>

#include "ci/ci_device.hpp"
#include "pki/cert_input.hpp"
#include "zeph_c_cert.h"

namespace zeph::ci {
namespace {

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
  std::vector<uint8_t> cert;
  ZEPH_TRY(FetchOutput(
      [&](uint8_t *out, uint32_t *n) { return ZEPH_C_GetCertificate(key.get(), req.asymid, usage, out, n); }, &cert));
  return SetBase64Data(res, cert.data(), cert.size());
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
  std::vector<uint8_t> bundle;
  ZEPH_TRY(FetchOutput([&](uint8_t *out, uint32_t *n) { return ZEPH_C_GetCertChain(key.get(), req.asymid, out, n); },
                       &bundle));
  return SetBase64Data(res, bundle.data(), bundle.size());
}

uint32_t SplitChain(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  pki::Bytes chain;
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  if (pki::TextBytes(req.value, &chain) != 0) return ERR_CERT_CHAIN_FAILED;
  std::vector<uint8_t> json;
  ZEPH_TRY(FetchOutput(
      [&](uint8_t *out, uint32_t *n) {
        return ZEPH_C_SplitCertChain(chain.data(), static_cast<uint32_t>(chain.size()), reinterpret_cast<char *>(out),
                                     n);
      },
      &json));
  return SetData(res, reinterpret_cast<const char *>(json.data()), kDataObject);
}

// "oid" names an extension or policy; without it "itemNo" picks the field.
uint32_t CertInfo(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  pki::Bytes cert;
  ZEPH_TRY(CertBytes(req.cert, &cert));
  const auto len = static_cast<uint32_t>(cert.size());
  std::vector<uint8_t> text;
  ZEPH_TRY(FetchOutput(
      [&](uint8_t *out, uint32_t *n) {
        char *chars = reinterpret_cast<char *>(out);
        return req.oid.s[0] != '\0' ? ZEPH_C_GetCertExtension(cert.data(), len, req.oid.s, chars, n)
                                    : ZEPH_C_GetCertInfo(cert.data(), len, req.selector, chars, n);
      },
      &text));
  return SetData(res, reinterpret_cast<const char *>(text.data()));
}

}  // namespace

uint32_t l_ci4getCertificate(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, GetCertificate(*req, res));
}
uint32_t l_ci4verifyCert(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, VerifyCert(*req)); }
uint32_t l_ci4getCertChain(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GetCertChain(*req, res)); }
uint32_t l_ci4getSealInfo(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4resolveEnveloperCertChain(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, SplitChain(*req, res));
}
uint32_t l_ci4getSealStruct(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4GetCertInfoWithItemNo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, CertInfo(*req, res));
}

}  // namespace zeph::ci
