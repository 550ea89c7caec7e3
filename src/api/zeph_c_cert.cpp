// Certificate helpers of the verification functions: SM2 verification with
// the key of a certificate, and the algorithm of a certificate's key.
#include <cstring>

#include "api/cert.hpp"
#include "foundation/owned.hpp"
#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"

namespace zeph::api {

uint32_t CertKeyAlgo(const X509 *cert) {
  const EVP_PKEY *key = X509_get0_pubkey(cert);
  if (key == nullptr) return ZEPH_CERT_ALG_OTHER;
  if (EVP_PKEY_is_a(key, "SM2")) return ZEPH_CERT_ALG_SM2;
  if (EVP_PKEY_is_a(key, "RSA")) return ZEPH_CERT_ALG_RSA;
  char group[64] = {0};
  size_t n = 0;
  if (EVP_PKEY_is_a(key, "EC") && EVP_PKEY_get_group_name(key, group, sizeof group, &n) == 1 &&
      std::strcmp(group, "SM2") == 0) {
    return ZEPH_CERT_ALG_SM2;
  }
  return ZEPH_CERT_ALG_OTHER;
}

}  // namespace zeph::api

extern "C" {

ZEPH_API uint32_t zeph_c_cert_VerifySm2SignWithCert(const unsigned char *cert, uint32_t cert_len,
                                                    const unsigned char *data, uint32_t data_len,
                                                    const unsigned char *sig, uint32_t sig_len) {
  return zeph::Guarded(
      [&]() -> uint32_t {
        if (sig == nullptr || (data == nullptr && data_len != 0)) return ERR_SIGNATURE_INVALID;
        uint32_t algo = ZEPH_CERT_ALG_OTHER;
        if (zeph_c_cert_getAlgoIDWithCert(cert, cert_len, &algo) != 0 || algo != ZEPH_CERT_ALG_SM2) {
          return ERR_SIGNATURE_INVALID;
        }
        zeph::X509Ptr x509 = zeph::api::DecodeCert(cert, cert_len);
        EVP_PKEY *key = x509 ? X509_get0_pubkey(x509.get()) : nullptr;
        if (key == nullptr) return ERR_SIGNATURE_INVALID;
        zeph::EvpMdCtxPtr md(EVP_MD_CTX_new());
        zeph::EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new(key, nullptr));
        const unsigned char empty = 0;
        if (!md || !pctx || EVP_PKEY_CTX_set1_id(pctx.get(), zeph::kDefaultSm2Id, zeph::kDefaultSm2IdLen) <= 0)
          return ERR_SIGNATURE_INVALID;
        EVP_MD_CTX_set_pkey_ctx(md.get(), pctx.get());  // md borrows pctx
        const bool ok = EVP_DigestVerifyInit(md.get(), nullptr, EVP_sm3(), nullptr, key) == 1 &&
                        EVP_DigestVerify(md.get(), sig, sig_len, data != nullptr ? data : &empty, data_len) == 1;
        return ok ? 0u : ERR_SIGNATURE_INVALID;
      },
      ERR_SIGNATURE_INVALID);
}

ZEPH_API uint32_t zeph_c_cert_getAlgoIDWithCert(const unsigned char *cert, uint32_t cert_len, uint32_t *out_algo_id) {
  if (out_algo_id == nullptr) return ERR_INVALID_PARAMETER;
  *out_algo_id = ZEPH_CERT_ALG_OTHER;
  zeph::X509Ptr x509 = zeph::api::DecodeCert(cert, cert_len);
  if (!x509) return ERR_CERT_DECODE_FAILED;
  if (X509_get0_pubkey(x509.get()) == nullptr) return ERR_CERT_DECODE_FAILED;
  *out_algo_id = zeph::api::CertKeyAlgo(x509.get());
  return 0;
}

}  // extern "C"
