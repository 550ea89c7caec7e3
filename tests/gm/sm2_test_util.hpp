// OpenSSL as the independent SM2 party of the tests: keys, encryption and
// signatures through EVP.
#pragma once

#include <memory>
#include <string>

#include <openssl/core_names.h>
#include <openssl/evp.h>

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

// OpenSSL's SM2 encryption (DER C1C3C2); empty on failure.
inline Bytes EvpEncrypt(EVP_PKEY *key, const Bytes &in) {
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key, nullptr);
  Bytes out(in.size() + 120);
  size_t n = out.size();
  if (EVP_PKEY_encrypt_init(ctx) != 1 || EVP_PKEY_encrypt(ctx, out.data(), &n, in.data(), in.size()) != 1) n = 0;
  out.resize(n);
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
