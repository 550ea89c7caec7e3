// Certificate decoding shared by the verification functions.
#pragma once

#include <cstdint>

#include "foundation/owned.hpp"

namespace zeph::api {

// A DER certificate of exactly the given bytes, or null.
inline X509Ptr DecodeCert(const unsigned char *cert, uint32_t cert_len) {
  if (cert == nullptr || cert_len == 0 || cert_len > static_cast<uint32_t>(INT32_MAX)) return nullptr;
  const unsigned char *p = cert;
  return X509Ptr(d2i_X509(nullptr, &p, static_cast<long>(cert_len)));
}

// The kind of the certificate's public key: ZEPH_CERT_ALG_RSA,
// ZEPH_CERT_ALG_SM2 (also an EC key on the SM2 curve) or ZEPH_CERT_ALG_OTHER.
uint32_t CertKeyAlgo(const X509 *cert);

}  // namespace zeph::api
