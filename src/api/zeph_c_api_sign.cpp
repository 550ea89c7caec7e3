// Raw signing with the key's private keys, and signature verification with
// certificates in software.
#include <cstring>

#include "api/cert.hpp"
#include "api/handle.hpp"
#include "device/vendor_quirks.hpp"
#include "foundation/helpers.hpp"
#include "foundation/owned.hpp"
#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_api.h"
#include "zeph_c_device.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

using zeph::api::SessionGuard;

namespace {

using zeph::kSignWorkLen;
using zeph::kSm2CoordLen;

// DER SEQUENCE { r, s } from raw r || s, into a buffer that holds
// kSm2DerSignatureMax bytes.
uint32_t EncodeSm2Signature(const uint8_t *raw, unsigned char *sig, uint32_t *sig_len) {
  zeph::EcdsaSigPtr der(ECDSA_SIG_new());
  BIGNUM *r = BN_bin2bn(raw, kSm2CoordLen, nullptr);
  BIGNUM *s = BN_bin2bn(raw + kSm2CoordLen, kSm2CoordLen, nullptr);
  if (!der || r == nullptr || s == nullptr || ECDSA_SIG_set0(der.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    return ERR_SIGN_FAILED;
  }
  unsigned char *p = sig;
  const int len = i2d_ECDSA_SIG(der.get(), &p);
  if (len <= 0) return ERR_SIGN_FAILED;
  *sig_len = static_cast<uint32_t>(len);
  return 0;
}

// RSA verification knows the SHA-2 identifiers; every other value means SHA-1.
const EVP_MD *RsaVerifyDigest(uint32_t digest_id) {
  const uint32_t id = digest_id & 0xFFFFu;
  const bool sha2 = id == ZEPH_DIGEST_SHA256 || id == ZEPH_DIGEST_SHA384 || id == ZEPH_DIGEST_SHA512;
  return zeph::DigestById(sha2 ? id : ZEPH_DIGEST_SHA1);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ZEPH_C_DoSm2Sign(void *handle, const char *pin, const unsigned char *data, uint32_t data_len,
                                   unsigned char *out_sig, uint32_t *out_sig_len) {
  // Compat: unlike the other device calls, a missing handle is a parameter
  // error and a missing context the no-library status.
  if (handle == nullptr) return ERR_INVALID_PARAMETER;
  GM_SKF_CTX *ctx = zeph::api::ContextWord(handle);
  if (ctx == nullptr) return ERR_NO_DEVICE_LIBRARY;
  if (out_sig == nullptr || out_sig_len == nullptr || (data == nullptr && data_len != 0)) return ERR_INVALID_PARAMETER;
  const unsigned char empty = 0;
  if (data == nullptr) data = &empty;

  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_SM2_SIGN));
  ZEPH_TRY(GM_SKF_CTX_VerifyPin(ctx, pin, pin != nullptr ? static_cast<uint32_t>(std::strlen(pin)) : 0));
  uint8_t raw[zeph::kSm2RawSignatureLen];
  uint32_t raw_len = sizeof raw;
  if (zeph::device::SignsWholeMessage(ctx)) {
    ZEPH_TRY(GM_SKF_CTX_SignHashEx(ctx, data, data_len, raw, &raw_len, nullptr));
  } else {
    uint8_t value[kSignWorkLen];
    uint32_t value_len = sizeof value;
    ZEPH_TRY(GM_SKF_CTX_DataOnPretreatment(ctx, data, data_len, value, &value_len, 0));
    ZEPH_TRY(GM_SKF_CTX_SignHash(ctx, value, value_len, raw, &raw_len));
  }
  // Compat: *out_sig_len is only written, never read as a capacity; hosts
  // have always given the signature kSm2DerSignatureMax bytes.
  return EncodeSm2Signature(raw, out_sig, out_sig_len);
}

ZEPH_API uint32_t ZEPH_C_DoRsaSign(void *handle, const char *pin, const unsigned char *data, uint32_t data_len,
                                   unsigned char *out_sig, uint32_t *in_out_sig_len, uint32_t digest_id) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (in_out_sig_len == nullptr || (data == nullptr && data_len != 0)) return ERR_INVALID_PARAMETER;
  const unsigned char empty = 0;
  if (data == nullptr) data = &empty;

  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_RSA_SIGN));
  ZEPH_TRY(GM_SKF_CTX_VerifyPin(ctx, pin, pin != nullptr ? static_cast<uint32_t>(std::strlen(pin)) : 0));
  if (zeph::device::SignsWholeMessage(ctx)) {
    uint32_t work_area[64] = {0};  // the vendor's own scratch space
    return GM_SKF_CTX_SignHashEx(ctx, data, data_len, out_sig, in_out_sig_len, work_area);
  }
  uint8_t value[kSignWorkLen];
  uint32_t value_len = sizeof value;
  ZEPH_TRY(GM_SKF_CTX_DataOnPretreatment(ctx, data, data_len, value, &value_len, digest_id));
  return GM_SKF_CTX_SignHash(ctx, value, value_len, out_sig, in_out_sig_len);
}

ZEPH_API uint32_t ZEPH_C_VerifySm2SignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                               uint32_t data_len, const unsigned char *sig, uint32_t sig_len) {
  return zeph_c_cert_VerifySm2SignWithCert(cert, cert_len, data, data_len, sig, sig_len);
}

ZEPH_API uint32_t ZEPH_C_VerifyRsaSignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                               uint32_t data_len, const unsigned char *sig, uint32_t sig_len,
                                               uint32_t digest_id) {
  return zeph::Guarded(
      [&]() -> uint32_t {
        if (sig == nullptr || (data == nullptr && data_len != 0)) return ERR_SIGNATURE_INVALID;
        zeph::X509Ptr x509 = zeph::api::DecodeCert(cert, cert_len);
        EVP_PKEY *key = x509 ? X509_get0_pubkey(x509.get()) : nullptr;
        if (key == nullptr || !EVP_PKEY_is_a(key, "RSA")) return ERR_SIGNATURE_INVALID;
        zeph::EvpMdCtxPtr md(EVP_MD_CTX_new());
        const unsigned char empty = 0;
        if (!md || EVP_DigestVerifyInit(md.get(), nullptr, RsaVerifyDigest(digest_id), nullptr, key) != 1 ||
            EVP_DigestVerify(md.get(), sig, sig_len, data != nullptr ? data : &empty, data_len) != 1) {
          return ERR_SIGNATURE_INVALID;
        }
        return 0;
      },
      ERR_SIGNATURE_INVALID);
}

ZEPH_API uint32_t ZEPH_C_VerifySignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                            uint32_t data_len, const unsigned char *sig, uint32_t sig_len,
                                            uint32_t digest_id) {
  uint32_t algo = ZEPH_CERT_ALG_OTHER;
  (void)zeph_c_cert_getAlgoIDWithCert(cert, cert_len, &algo);
  if (algo == ZEPH_CERT_ALG_SM2) return zeph_c_cert_VerifySm2SignWithCert(cert, cert_len, data, data_len, sig, sig_len);
  return ZEPH_C_VerifyRsaSignWithCert(cert, cert_len, data, data_len, sig, sig_len, digest_id);
}

ZEPH_API uint32_t ZEPH_C_HashDataWithAlgID(uint32_t digest_id, const unsigned char *data, uint32_t data_len,
                                           unsigned char *out, uint32_t *in_out_len) {
  return zeph_c_utils_digest(digest_id & 0xFFFFu, data, data_len, out, in_out_len, nullptr);
}

}  // extern "C"
