// Command handlers: Enrolment: requests, storing certificates, keys and seals (4xx).
#include <string>

#include "ci/ci_device.hpp"
#include "ci/ci_internal.hpp"
#include "ci/ci_seal.hpp"
#include "pki/cert_input.hpp"
#include "seal/seal_store.hpp"
#include "zeph_c_cert.h"

namespace zeph::ci {
namespace {

// Seal bytes (base64) written by ZEPH_C_SetSealInfo to the area "idx".
uint32_t SetSealInfo(const ZEPH_REQ_PARAM &req) {
  SecureBytes data;
  ZEPH_TRY(DecodeBase64(req.value, &data));
  ZEPH_ENSURE(!data.empty(), ERR_INVALID_PARAMETER);
  std::string key_sn;
  ZEPH_TRY(SealKeySN(req, &key_sn));
  return seal::StoreSealArea(key_sn.c_str(), req.pin.s, req.selector, data.span());
}

// Room for an RSA 2048 request with a long subject, or any SM2 one.
constexpr uint32_t kMaxRequest = 8192;

// Base64 DER or PEM text of a certificate, chain or key; required.
uint32_t TextArg(const char *text, pki::Bytes *out) {
  ZEPH_ENSURE(text != nullptr && text[0] != '\0', ERR_INVALID_PARAMETER);
  return pki::TextBytes(text, out);
}

uint32_t GenCsr(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return SetBase64Output(res, kMaxRequest, [&](uint8_t *out, uint32_t *n) {
    return ZEPH_C_GenCSR(key.get(), req.pin.s, req.asymid, req.value, req.algID, out, n);
  });
}

uint32_t SaveSignCert(const ZEPH_REQ_PARAM &req) {
  pki::Bytes cert;
  ZEPH_TRY(TextArg(req.cert, &cert));
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return ZEPH_C_SaveSignCert(key.get(), req.pin.s, req.asymid, cert.data(), static_cast<uint32_t>(cert.size()));
}

// Stores the chain and answers with the bundle as the key now holds it.
uint32_t SaveCertChain(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  pki::Bytes chain;
  if (TextArg(req.value, &chain) != 0) return ERR_CERT_CHAIN_FAILED;
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  ZEPH_TRY(ZEPH_C_SaveCertChain(key.get(), req.pin.s, req.asymid, chain.data(), static_cast<uint32_t>(chain.size())));
  return SetBase64Output(res, chain.size() + 64,
                         [&](uint8_t *out, uint32_t *n) { return ZEPH_C_GetCertChain(key.get(), req.asymid, out, n); });
}

uint32_t SaveEncCertAndKey(const ZEPH_REQ_PARAM &req) {
  pki::Bytes cert;
  ZEPH_TRY(TextArg(req.cert, &cert));
  pki::Bytes text;
  ZEPH_TRY(TextArg(req.value, &text));
  const SecureBytes enc_key(text.data(), text.size());
  OPENSSL_cleanse(text.data(), text.size());
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return ZEPH_C_SaveEncCertAndKey(key.get(), req.pin.s, req.asymid, cert.data(), static_cast<uint32_t>(cert.size()),
                                  enc_key.data(), static_cast<uint32_t>(enc_key.size()));
}

}  // namespace

uint32_t l_ci4genCSR(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GenCsr(*req, res)); }
uint32_t l_ci4saveSignCert(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, SaveSignCert(*req)); }
uint32_t l_ci4saveCertChain(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, SaveCertChain(*req, res)); }
uint32_t l_ci4saveEncCertAndKey(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, SaveEncCertAndKey(*req));
}
uint32_t l_ci4setSealInfo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, SetSealInfo(*req)); }

}  // namespace zeph::ci
