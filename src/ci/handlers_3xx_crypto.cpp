// Command handlers: signing, envelopes, symmetric and file encryption (3xx).
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <openssl/rand.h>

#include "ci/ci_device.hpp"
#include "zeph_c_api.h"
#include "zeph_c_device.h"
#include "zeph_c_gm.h"
#include "zeph_c_p7.h"
#include "zeph_c_pki.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"
#include "zeph_skf.h"

namespace zeph::ci {
namespace {

// The RSA digest when the request names none.
constexpr uint32_t kDefaultRsaDigest = ZEPH_DIGEST_SHA256;
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

// ---- PKCS#7 signing -----------------------------------------------------

// The library's time-stamp codes for the digests of a PKCS#7 signature; SM2
// signatures are stamped over SHA-256.
uint32_t StampAlgorithm(const ZEPH_REQ_PARAM &req) {
  if (req.asymid == ZEPH_AREA_SM2) return 0x10004;
  switch (RsaDigest(req)) {
    case 2:
      return 2;
    case 8:
      return 0x10008;
    case 16:
      return 0x10010;
    default:
      return 0x10004;
  }
}

// Room for a time-stamp reply as the time-stamp client takes it.
constexpr uint32_t kStampReplyMax = 16384;

uint32_t SignatureToPkcs7(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  SecureBytes data, chain;
  ZEPH_TRY(SignedBytes(req, &data));
  ZEPH_TRY(DecodeBase64(req.value, &chain));
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  std::vector<uint8_t> p7(data.size() + chain.size() + 16384);
  auto p7_len = static_cast<uint32_t>(p7.size());
  ZEPH_TRY(ZEPH_C_DoSignToPKCS7(key.get(), req.pin.s, req.asymid, req.algID, req.usage, data.data(),
                                static_cast<uint32_t>(data.size()), chain.data(), static_cast<uint32_t>(chain.size()),
                                p7.data(), &p7_len));
  p7.resize(p7_len);
  if (req.url.s[0] == '\0') return SetBase64Data(res, p7.data(), p7.size());

  std::vector<uint8_t> reply(kStampReplyMax);
  uint32_t reply_len = kStampReplyMax;
  ZEPH_TRY(ZEPH_C_GetTimeStamp(req.url.s, StampAlgorithm(req), p7_len, p7.data(), reply.data(), &reply_len));
  ZEPH_ENSURE(reply_len != 0, ERR_ENCODE_FAILED);  // the query could not be built
  return SetBase64Output(res, p7.size() + reply_len + 1024, [&](uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_GetTimeStampPKCS7(reply.data(), reply_len, p7.data(), p7_len, out, out_len);
  });
}

// ---- Envelopes ------------------------------------------------------------

uint32_t DecodeEnveloper(const ZEPH_REQ_PARAM &req, uint32_t asym_id, ZEPH_RES_PARAM *res) {
  return DecryptRaw(req, res, [&](void *key, const uint8_t *in, uint32_t in_len, uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_DecodeEnveloper(key, req.pin.s, asym_id, in, in_len, out, out_len);
  });
}

// The library's own RSA envelope: the GM layout for an RSA certificate, its
// content key from the host's generator or, with a handle, the key's.
uint32_t EncodeRsaGm(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res, bool key_from_device) {
  ZEPH_ENSURE(req.cert != nullptr && req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes cert, data;
  ZEPH_TRY(DecodeBase64(req.cert, &cert));
  ZEPH_TRY(DecodeBase64(req.value, &data));
  uint32_t algo = ZEPH_CERT_ALG_OTHER;
  ZEPH_TRY(zeph_c_cert_getAlgoIDWithCert(cert.data(), static_cast<uint32_t>(cert.size()), &algo));
  ZEPH_ENSURE(algo == ZEPH_CERT_ALG_RSA, ERR_UNSUPPORTED_VALUE);
  KeyHandle key;
  if (key_from_device) ZEPH_TRY(key.Open(req));
  return SetBase64Output(res, EnvelopeCapacity(cert.size(), data.size()), [&](uint8_t *out, uint32_t *out_len) {
    const auto cert_len = static_cast<uint32_t>(cert.size());
    const auto data_len = static_cast<uint32_t>(data.size());
    return key_from_device ? ZEPH_C_EncodeEnveloperWithCryptoDevice(key.get(), cert.data(), cert_len, data.data(),
                                                                    data_len, ZEPH_ENVELOPE_GM, out, out_len)
                           : ZEPH_C_EncodeEnveloperWithCert(cert.data(), cert_len, data.data(), data_len,
                                                            ZEPH_ENVELOPE_GM, out, out_len);
  });
}

// ---- Symmetric and file encryption ----------------------------------------

constexpr uint32_t kEncrypt = 1;
constexpr uint32_t kDecrypt = 2;
constexpr size_t kFileKeyLen = 16;

uint32_t SymmetricAlgorithm(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.usage == kEncrypt || req.usage == kDecrypt, ERR_INVALID_PARAMETER);
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes sym_key, data;
  ZEPH_TRY(DecodeBase64(req.symKey.s, &sym_key));
  ZEPH_TRY(DecodeBase64(req.value, &data));
  return SetBase64Output(res, data.size() + 64, [&](uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_DoSymmetricAlgorithm(req.algID, req.usage == kEncrypt ? 1 : 0, sym_key.data(),
                                       static_cast<uint32_t>(sym_key.size()), data.data(),
                                       static_cast<uint32_t>(data.size()), out, out_len);
  });
}

uint32_t HashForPath(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.cert != nullptr && req.cert[0] != '\0', ERR_INVALID_PARAMETER);
  uint8_t digest[64];
  uint32_t len = sizeof digest;
  int nid = 0;
  ZEPH_TRY(zeph_c_utils_digestWithFilePath(req.cert, req.algID != 0 ? req.algID : 1, digest, &len, &nid));
  return SetBase64Data(res, digest, len);
}

// The file key: the first 16 bytes of SM3 over the key text.
uint32_t FileKey(const ZEPH_REQ_PARAM &req, SecureBytes *key) {
  const size_t n = std::strlen(req.symKey.s);
  ZEPH_ENSURE(n != 0, ERR_INVALID_PARAMETER);
  SecureBytes digest(32);
  ZEPH_TRY(
      BIVO_sm3_digest(reinterpret_cast<const unsigned char *>(req.symKey.s), static_cast<uint32_t>(n), digest.data()));
  digest.resize(kFileKeyLen);
  *key = std::move(digest);
  return 0;
}

// FILE -> FILE<suffix>, the output's path as data.
uint32_t CryptFile(const ZEPH_REQ_PARAM &req, const SecureBytes &key, bool encrypt, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.cert != nullptr && req.cert[0] != '\0' && key.size() == kFileKeyLen, ERR_INVALID_PARAMETER);
  const auto key_len = static_cast<uint32_t>(key.size());
  ZEPH_TRY(encrypt ? zeph_c_utils_encryptWithFilePath(req.cert, nullptr, 0, key.data(), key_len)
                   : zeph_c_utils_decryptWithFilePath(req.cert, nullptr, 0, key.data(), key_len));
  return SetData(res, std::string(req.cert) + (encrypt ? ".enc" : ".dec"));
}

uint32_t PathWithKeyText(const ZEPH_REQ_PARAM &req, bool encrypt, ZEPH_RES_PARAM *res) {
  SecureBytes key;
  ZEPH_TRY(FileKey(req, &key));
  return CryptFile(req, key, encrypt, res);
}

// A fresh file key: the key enveloped to "certChain", then the file
// encrypted with it (a certificate that cannot take the key leaves no file).
uint32_t CompositeEncryption(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.cert != nullptr && req.cert[0] != '\0', ERR_INVALID_PARAMETER);
  SecureBytes cert, envelope;
  ZEPH_TRY(DecodeBase64(req.value, &cert));
  SecureBytes key(kFileKeyLen);
  ZEPH_ENSURE(RAND_bytes(key.data(), static_cast<int>(key.size())) == 1, ERR_ENCODE_FAILED);
  ZEPH_TRY(CollectOutput(
      EnvelopeCapacity(cert.size(), key.size()),
      [&](uint8_t *out, uint32_t *out_len) {
        return ZEPH_C_EncodeEnveloperWithCert(cert.data(), static_cast<uint32_t>(cert.size()), key.data(),
                                              static_cast<uint32_t>(key.size()), req.selector, out, out_len);
      },
      &envelope));
  ZEPH_TRY(zeph_c_utils_encryptWithFilePath(req.cert, nullptr, 0, key.data(), kFileKeyLen));
  return SetBase64Data(res, envelope.data(), envelope.size());
}

uint32_t CompositeDecryption(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes env;
  ZEPH_TRY(DecodeBase64(req.value, &env));
  KeyHandle handle;
  ZEPH_TRY(handle.Open(req));
  SecureBytes key(env.size());
  auto key_len = static_cast<uint32_t>(key.size());
  ZEPH_TRY(ZEPH_C_DecodeEnveloper(handle.get(), req.pin.s, req.asymid, env.data(), static_cast<uint32_t>(env.size()),
                                  key.data(), &key_len));
  key.resize(key_len);
  return CryptFile(req, key, false, res);
}

}  // namespace

uint32_t l_ci4doSignature(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, DoSignature(*req, res)); }
uint32_t l_ci4verifySignData(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, VerifySignData(*req)); }
uint32_t l_ci4encodeEnveloper(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, EncodeEnveloper(*req, res));
}
uint32_t l_ci4decodeEnveloper(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, DecodeEnveloper(*req, req->asymid, res));
}
uint32_t l_ci4decodeSM2SymkeyCipher(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, DecryptRaw(*req, res, [&](void *key, const uint8_t *in, uint32_t n, uint8_t *out, uint32_t *len) {
                  return ZEPH_C_DecodeSM2SymkeyCipher(key, req->pin.s, in, n, out, len);
                }));
}
uint32_t l_ci4doSignatureToPKCS7(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, SignatureToPkcs7(*req, res));
}
uint32_t l_ci4encodeRSAEnveloperByVORLI(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, EncodeRsaGm(*req, res, false));
}
uint32_t l_ci4doSymmetricAlgorithm(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, SymmetricAlgorithm(*req, res));
}
uint32_t l_doCompositeEncryption(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, CompositeEncryption(*req, res));
}
uint32_t l_doCompositeDecryption(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, CompositeDecryption(*req, res));
}
uint32_t l_getHashForPath(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, HashForPath(*req, res)); }
uint32_t l_doEncryptionForPath(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, PathWithKeyText(*req, true, res));
}
uint32_t l_doDecryptionForPath(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, PathWithKeyText(*req, false, res));
}
uint32_t l_ci4encodeRsaVorliEnveloperWithCryptoDevice(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, EncodeRsaGm(*req, res, true));
}
uint32_t l_ci4decodeRsaVorliEnveloperWithCryptoDevice(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, DecodeEnveloper(*req, ZEPH_AREA_RSA, res));
}
}  // namespace zeph::ci
