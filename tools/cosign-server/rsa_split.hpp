// Two-party RSA by an additive split of the private exponent:
// d = d1 + d2 mod lambda(n). The service makes the key, hands d1 out once,
// keeps d2 and answers partial signatures m^d2 mod n on PKCS#1 v1.5
// encoded messages only.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <openssl/evp.h>

#include "foundation/secure_bytes.hpp"

namespace zeph::cosign {

struct RsaSplitKey {
  std::vector<uint8_t> n, e;  // big-endian, no leading zeros
  SecureBytes d1, d2;         // big-endian, padded to the modulus length
};

// Splits a fresh RSA key: d1 uniform in [1, lambda(n) - 1], d2 = d - d1 mod
// lambda(n), never 0. False when the key is not a usable RSA key.
bool SplitRsaKey(EVP_PKEY *key, RsaSplitKey *out);

enum class RsaPartial { kOk, kBadMessage, kFailed };

// s2 = m^d2 mod n (modulus length, big-endian) when m is a whole EMSA-PKCS1-v1_5
// block: modulus length, below n, 00 01, at least 8 FF, 00, one DER DigestInfo.
RsaPartial RsaPartialSign(std::span<const uint8_t> n, std::span<const uint8_t> d2, std::span<const uint8_t> m,
                          std::vector<uint8_t> *s2);

}  // namespace zeph::cosign
