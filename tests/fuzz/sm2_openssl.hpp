// OpenSSL as the independent judge of SM2 signatures on a digest.
#pragma once

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include "check.hpp"
#include "foundation/owned.hpp"

namespace fuzz {

// The SM2 public key of a 65-byte point; null when OpenSSL refuses it.
inline zeph::EvpPkeyPtr Sm2PublicKey(const uint8_t *pub65) {
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char *>("SM2"), 0),
                         OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, const_cast<uint8_t *>(pub65), 65),
                         OSSL_PARAM_construct_end()};
  const zeph::EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr));
  EVP_PKEY *key = nullptr;
  if (ctx != nullptr && EVP_PKEY_fromdata_init(ctx.get()) == 1) {
    EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params);
  }
  return zeph::EvpPkeyPtr(key);
}

// OpenSSL accepts the DER signature over the 32-byte digest e.
inline bool OpenSslVerifies(EVP_PKEY *key, const uint8_t *e, const uint8_t *sig, size_t len) {
  const zeph::EvpPkeyCtxPtr ctx(key != nullptr ? EVP_PKEY_CTX_new(key, nullptr) : nullptr);
  return ctx != nullptr && EVP_PKEY_verify_init(ctx.get()) == 1 && EVP_PKEY_verify(ctx.get(), sig, len, e, 32) == 1;
}

}  // namespace fuzz
