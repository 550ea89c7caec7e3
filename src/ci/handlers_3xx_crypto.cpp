// Command handlers: signing, envelopes, symmetric and file encryption (3xx).
// Operations the library does not offer yet answer 0x8208005A.
#include <algorithm>
#include <vector>

#include "ci/ci_device.hpp"
#include "zeph_c_api.h"
#include "zeph_c_status.h"

namespace zeph::ci {
namespace {

// The library's RSA digest identifier when the request names none: SHA-256.
constexpr uint32_t kDefaultRsaDigest = 4;
// Room for an RSA signature of up to 8,192 bits; SM2 needs at most 72 bytes.
constexpr uint32_t kMaxSignature = 1024;

uint32_t RsaDigest(const ZEPH_REQ_PARAM &req) { return req.algID != 0 ? req.algID : kDefaultRsaDigest; }

uint32_t DoSignature(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.asymid == ZEPH_AREA_RSA || req.asymid == ZEPH_AREA_SM2, ERR_UNSUPPORTED_VALUE);
  SecureBytes data;
  ZEPH_TRY(SignedBytes(req, &data));
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  std::vector<uint8_t> sig(kMaxSignature);
  uint32_t sig_len = kMaxSignature;
  const auto data_len = static_cast<uint32_t>(data.size());
  if (req.asymid == ZEPH_AREA_SM2) {
    ZEPH_TRY(ZEPH_C_DoSm2Sign(key.get(), req.pin.s, data.data(), data_len, sig.data(), &sig_len));
  } else {
    ZEPH_TRY(ZEPH_C_DoRsaSign(key.get(), req.pin.s, data.data(), data_len, sig.data(), &sig_len, RsaDigest(req)));
  }
  return SetBase64Data(res, sig.data(), std::min<size_t>(sig_len, sig.size()));
}

uint32_t VerifySignData(const ZEPH_REQ_PARAM &req) {
  ZEPH_ENSURE(req.cert != nullptr && req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes data, cert, sig;
  ZEPH_TRY(SignedBytes(req, &data));
  ZEPH_TRY(DecodeBase64(req.cert, &cert));
  ZEPH_TRY(DecodeBase64(req.value, &sig));
  return ZEPH_C_VerifySignWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(),
                                   static_cast<uint32_t>(data.size()), sig.data(), static_cast<uint32_t>(sig.size()),
                                   RsaDigest(req));
}

}  // namespace

uint32_t l_ci4doSignature(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, DoSignature(*req, res)); }
uint32_t l_ci4verifySignData(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, VerifySignData(*req)); }
uint32_t l_ci4encodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4decodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4decodeSM2SymkeyCipher(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4doSignatureToPKCS7(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4encodeRSAEnveloperByVORLI(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4doSymmetricAlgorithm(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_doCompositeEncryption(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_doCompositeDecryption(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_getHashForPath(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_doEncryptionForPath(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_doDecryptionForPath(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4encodeRsaVorliEnveloperWithCryptoDevice(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4decodeRsaVorliEnveloperWithCryptoDevice(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
