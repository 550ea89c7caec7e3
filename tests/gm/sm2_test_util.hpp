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

// OpenSSL's SM2 encryption (DER C1C3C2) and signature (DER, SM3(Z || msg)
// with the identity), from the oracle; empty on failure.
inline Bytes EvpEncrypt(EVP_PKEY *key, const Bytes &in) { return zeph_test::Encrypt(key, in); }
inline Bytes EvpSign(EVP_PKEY *key, const Bytes &msg, const std::string &id) {
  return zeph_test::Sm2Sign(key, msg, id);
}

}  // namespace gm_test
