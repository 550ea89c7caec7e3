// Command handlers: Software key and seal parsing (7xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <string>
#include <vector>

#include "ci/ci_device.hpp"
#include "foundation/owned.hpp"
#include "pki/cert_input.hpp"
#include "zeph_c_api.h"
#include "zeph_c_cert.h"

namespace zeph::ci {
namespace {

// RSA 4096 signatures and requests fit.
constexpr uint32_t kMaxSigned = 8192;

struct Released {
  unsigned char *p = nullptr;
  ~Released() { ZEPH_C_MALLOC_FREE(p); }
};

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
  Released p8, spki;
  uint32_t p8_len = 0, spki_len = 0;
  ZEPH_TRY(ZEPH_C_FKeyGenKeyPair(req.algID, req.pin.s, &p8.p, &p8_len, &spki.p, &spki_len));
  std::string text = "{\"prikey\":\"" + pki::Base64Text({p8.p, p8_len}) + "\",\"pubkey\":\"" +
                     pki::Base64Text({spki.p, spki_len}) + "\"}";
  OPENSSL_cleanse(p8.p, p8_len);
  const uint32_t rv = SetData(res, text);
  OPENSSL_cleanse(text.data(), text.size());
  return rv;
}

uint32_t Sign(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  SecureBytes key, data;
  ZEPH_TRY(PrivateKeyArg(req, &key));
  ZEPH_TRY(SignedBytes(req, &data));
  std::vector<uint8_t> sig(kMaxSigned);
  uint32_t len = kMaxSigned;
  ZEPH_TRY(ZEPH_C_FKeySign(key.data(), static_cast<uint32_t>(key.size()), req.pin.s, data.data(),
                           static_cast<uint32_t>(data.size()), req.algID, sig.data(), &len));
  return SetBase64Data(res, sig.data(), len);
}

uint32_t GenCsr(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  SecureBytes key;
  ZEPH_TRY(PrivateKeyArg(req, &key));
  std::vector<uint8_t> csr(kMaxSigned);
  uint32_t len = kMaxSigned;
  ZEPH_TRY(ZEPH_C_FKeyGenCSR(key.data(), static_cast<uint32_t>(key.size()), req.pin.s, req.value, csr.data(), &len));
  return SetBase64Data(res, csr.data(), len);
}

}  // namespace

uint32_t l_ci4fkeyGetKeypair(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, KeyPair(*req, res)); }
uint32_t l_ci4fkeyDoSignature(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, Sign(*req, res)); }
uint32_t l_ci4fkeyGenCSR(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GenCsr(*req, res)); }
uint32_t l_ci4parseSealInfo(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyEncodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4fkeyDecodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
