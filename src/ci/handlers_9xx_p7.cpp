// Command handlers: Corvex co-signing, RSA key unwrapping and SM2 PKCS#7 (9xx).
// Operations the library does not offer yet answer 0x8208005A.
#include "ci/ci_device.hpp"
#include "zeph_c_p7.h"

namespace zeph::ci {
namespace {

using Sm2Sign = uint32_t (*)(void *, const char *, const unsigned char *, uint32_t, const unsigned char *, uint32_t,
                             unsigned char *, uint32_t *);

// The signed message: content, bundle and signature with room to spare.
size_t SignedCapacity(const SecureBytes &data, const SecureBytes &chain, const SecureBytes &cert) {
  return data.size() + chain.size() + cert.size() + 8192;
}

// "signData" signed into an SM2_Sign with "certChain"; the 903 variant also
// takes "algID" (SM3 when absent) and "cert" (the signer's certificate).
uint32_t SignForP7(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res, Sm2Sign sign) {
  SecureBytes data, chain, cert;
  ZEPH_TRY(SignedBytes(req, &data));
  ZEPH_TRY(DecodeBase64(req.value, &chain));
  if (sign == nullptr) ZEPH_TRY(DecodeBase64(req.cert, &cert));
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  const auto data_len = static_cast<uint32_t>(data.size());
  const auto chain_len = static_cast<uint32_t>(chain.size());
  return SetBase64Output(res, SignedCapacity(data, chain, cert), [&](uint8_t *out, uint32_t *out_len) {
    if (sign != nullptr)
      return sign(key.get(), req.pin.s, data.data(), data_len, chain.data(), chain_len, out, out_len);
    return ZEPH_C_DoSm2SignToPKCS7_EX(key.get(), req.pin.s, data.data(), data_len, chain.data(), chain_len,
                                      req.algID != 0 ? req.algID : 1, cert.data(), static_cast<uint32_t>(cert.size()),
                                      nullptr, 0, out, out_len);
  });
}

// "raw" (an SM2_Sign, or a PKCS#7 signed-data) verified over its own content
// or the detached "signData"; the content as data.
uint32_t VerifyForP7(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes msg, content;
  ZEPH_TRY(DecodeBase64(req.value, &msg));
  ZEPH_TRY(SignedBytes(req, &content));
  const auto msg_len = static_cast<uint32_t>(msg.size());
  const auto content_len = static_cast<uint32_t>(content.size());
  return SetBase64Output(res, msg.size() + content.size(), [&](uint8_t *out, uint32_t *out_len) {
    const uint32_t rv = ZEPH_C_VerifySm2SignPKCS7(msg.data(), msg_len, content.data(), content_len, out, out_len);
    if (rv != ERR_SIGNATURE_INVALID) return rv;
    return ZEPH_C_VerifyPKCS7(msg.data(), msg_len, content.data(), content_len, out, out_len);
  });
}

}  // namespace

uint32_t l_ci4doBIVO_doSignatureforCorvex(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4decodeRSASymkeyCipher(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, DecryptRaw(*req, res, [&](void *key, const uint8_t *in, uint32_t n, uint8_t *out, uint32_t *len) {
                  return ZEPH_C_DecodeRSASymkeyCipher(key, req->pin.s, in, n, out, len);
                }));
}
uint32_t l_ci4SM2SignForP7_301(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, SignForP7(*req, res, ZEPH_C_DoSm2SignToPKCS7_301));
}
uint32_t l_ci4SM2SignForP7_EX(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, SignForP7(*req, res, nullptr));
}
uint32_t l_ci4SM2VerifyForP7(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, VerifyForP7(*req, res)); }
uint32_t l_ci4SM2SignForP7_501(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, SignForP7(*req, res, ZEPH_C_DoSm2SignToPKCS7_501));
}

}  // namespace zeph::ci
