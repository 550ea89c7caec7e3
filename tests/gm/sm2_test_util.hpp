// OpenSSL as the independent SM2 party of the tests: keys, certificates,
// encryption, decryption and signatures through EVP.
#pragma once

#include <memory>
#include <string>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "gm_test_util.hpp"
#include "zeph_c_sm2.h"

namespace gm_test {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

inline Key NewSm2Key() { return Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2"), EVP_PKEY_free); }

inline Bytes PublicPoint(EVP_PKEY *key) {
  Bytes p(65);
  size_t n = 0;
  EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, p.data(), p.size(), &n);
  p.resize(n);
  return p;
}

// A self-signed DER certificate of the key.
inline Bytes CertificateOf(EVP_PKEY *key) {
  X509 *x = X509_new();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char *>("zeph-test"), -1, -1, 0);
  X509_set_issuer_name(x, X509_get_subject_name(x));
  X509_gmtime_adj(X509_getm_notBefore(x), 0);
  X509_gmtime_adj(X509_getm_notAfter(x), 3600);
  X509_set_pubkey(x, key);
  X509_sign(x, key, EVP_sm3());
  unsigned char *der = nullptr;
  const int n = i2d_X509(x, &der);
  Bytes out(der, der + (n > 0 ? n : 0));
  OPENSSL_free(der);
  X509_free(x);
  return out;
}

// OpenSSL's SM2 encryption (DER C1C3C2) or decryption; empty on failure.
inline Bytes EvpSm2(EVP_PKEY *key, const Bytes &in, bool encrypt) {
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key, nullptr);
  size_t n = 0;
  Bytes out;
  if ((encrypt ? EVP_PKEY_encrypt_init(ctx) : EVP_PKEY_decrypt_init(ctx)) == 1 &&
      (encrypt ? EVP_PKEY_encrypt(ctx, nullptr, &n, in.data(), in.size())
               : EVP_PKEY_decrypt(ctx, nullptr, &n, in.data(), in.size())) == 1) {
    out.resize(n);
    if ((encrypt ? EVP_PKEY_encrypt(ctx, out.data(), &n, in.data(), in.size())
                 : EVP_PKEY_decrypt(ctx, out.data(), &n, in.data(), in.size())) == 1) {
      out.resize(n);
    } else {
      out.clear();
    }
  }
  EVP_PKEY_CTX_free(ctx);
  return out;
}

// OpenSSL's SM2 signature (DER) on SM3(Z || msg) with the identity.
inline Bytes EvpSign(EVP_PKEY *key, const Bytes &msg, const std::string &id) {
  EVP_MD_CTX *md = EVP_MD_CTX_new();
  EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new(key, nullptr);
  EVP_PKEY_CTX_set1_id(pctx, id.data(), id.size());
  EVP_MD_CTX_set_pkey_ctx(md, pctx);
  Bytes sig(80);
  size_t n = sig.size();
  if (EVP_DigestSignInit(md, nullptr, EVP_sm3(), nullptr, key) != 1 ||
      EVP_DigestSign(md, sig.data(), &n, msg.data(), msg.size()) != 1) {
    n = 0;
  }
  sig.resize(n);
  EVP_MD_CTX_free(md);
  EVP_PKEY_CTX_free(pctx);
  return sig;
}

}  // namespace gm_test
