// Command handlers: Software key and seal parsing (7xx).
#include <string>

#include "ci/ci_device.hpp"
#include "foundation/helpers.hpp"
#include "foundation/owned.hpp"
#include "pki/cert_input.hpp"
#include "seal/seal_store.hpp"
#include "zeph_c_api.h"
#include "zeph_c_cert.h"
#include "zeph_c_p7.h"

namespace zeph::ci {
namespace {

// The summary of the seal in the request; no key is asked.
uint32_t ParseSealInfo(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  std::string summary;
  ZEPH_TRY(seal::l_parseSealInfo(req.value, &summary));
  return SetData(res, summary);
}

// "raw" (base64 envelope) opened with "prikey" (base64 PKCS#8, encrypted
// under "pin" when it is an EncryptedPrivateKeyInfo).
uint32_t FkeyDecodeEnveloper(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.prikey.s[0] != '\0', ERR_INVALID_PARAMETER);
  SecureBytes env, pkcs8;
  ZEPH_TRY(DecodeBase64(req.value, &env));
  ZEPH_TRY(DecodeBase64(req.prikey.s, &pkcs8));
  return SetBase64Output(res, env.size(), [&](uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_DecodeEnveloperWithPrivateKey(pkcs8.data(), static_cast<uint32_t>(pkcs8.size()),
                                                req.pin.s[0] != '\0' ? req.pin.s : nullptr, env.data(),
                                                static_cast<uint32_t>(env.size()), out, out_len);
  });
}

// A first guess that RSA 4096 signatures and requests fit.
constexpr size_t kMaxSigned = 8192;

// "prikey": base64 PKCS#8 (or a raw key) in base64, or PEM text.
uint32_t PrivateKeyArg(const ZEPH_REQ_PARAM &req, SecureBytes *out) {
  ZEPH_ENSURE(req.prikey.s[0] != '\0', ERR_INVALID_PARAMETER);
  pki::Bytes bytes;
  ZEPH_TRY(pki::TextBytes(req.prikey.s, &bytes));
  *out = SecureBytes(bytes.data(), bytes.size());
  OPENSSL_cleanse(bytes.data(), bytes.size());
  return 0;
}

uint32_t KeyPair(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  unsigned char *p8_out = nullptr, *spki_out = nullptr;
  uint32_t p8_len = 0, spki_len = 0;
  const uint32_t made = ZEPH_C_FKeyGenKeyPair(req.algID, req.pin.s, &p8_out, &p8_len, &spki_out, &spki_len);
  const MallocPtr<unsigned char> p8(p8_out), spki(spki_out);
  ZEPH_TRY(made);
  std::string text = "{\"prikey\":\"" + zeph::Base64Text({p8.get(), p8_len}) + "\",\"pubkey\":\"" +
                     zeph::Base64Text({spki.get(), spki_len}) + "\"}";
  OPENSSL_cleanse(p8.get(), p8_len);
  const uint32_t rv = SetData(res, text);
  OPENSSL_cleanse(text.data(), text.size());
  return rv;
}

uint32_t Sign(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  SecureBytes key, data;
  ZEPH_TRY(PrivateKeyArg(req, &key));
  ZEPH_TRY(SignedBytes(req, &data));
  return SetBase64Output(res, kMaxSigned, [&](uint8_t *out, uint32_t *n) {
    return ZEPH_C_FKeySign(key.data(), static_cast<uint32_t>(key.size()), req.pin.s, data.data(),
                           static_cast<uint32_t>(data.size()), req.algID, out, n);
  });
}

uint32_t GenCsr(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  SecureBytes key;
  ZEPH_TRY(PrivateKeyArg(req, &key));
  return SetBase64Output(res, kMaxSigned, [&](uint8_t *out, uint32_t *n) {
    return ZEPH_C_FKeyGenCSR(key.data(), static_cast<uint32_t>(key.size()), req.pin.s, req.value, out, n);
  });
}

}  // namespace

uint32_t l_ci4fkeyGetKeypair(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, KeyPair(*req, res)); }
uint32_t l_ci4fkeyDoSignature(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, Sign(*req, res)); }
uint32_t l_ci4fkeyGenCSR(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GenCsr(*req, res)); }
uint32_t l_ci4parseSealInfo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, ParseSealInfo(*req, res)); }
uint32_t l_ci4fkeyEncodeEnveloper(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, EncodeEnveloper(*req, res));
}
uint32_t l_ci4fkeyDecodeEnveloper(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, FkeyDecodeEnveloper(*req, res));
}

}  // namespace zeph::ci
