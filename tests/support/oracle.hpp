// The independent reference of the tests: OpenSSL computes what the code under
// test must produce, so every comparison sets two implementations against
// each other. Use these instead of writing another EVP call into a test.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/rsa.h>

namespace zeph_test {

using Bytes = std::vector<uint8_t>;

// The digest of the parts one after the other.
Bytes Digest(const EVP_MD *md, const std::vector<Bytes> &parts);
inline Bytes Sm3(const std::vector<Bytes> &parts) { return Digest(EVP_sm3(), parts); }

// SM4 encryption in a mode, with PKCS#7 padding on request (ECB ignores iv).
enum class Sm4Mode { kEcb, kCbc, kCfb, kOfb };
Bytes Sm4Encrypt(Sm4Mode mode, bool padding, const uint8_t *key16, const Bytes &iv, const Bytes &in);

// Base64 without line breaks; an empty result for text that is not base64.
std::string Base64(const Bytes &bytes);
Bytes FromBase64(const std::string &text);

// True when the certificate's key verifies sig (DER) over data: SM2 with the
// default identity "1234567812345678" (md is then SM3), else RSA PKCS#1 v1.5.
bool Verifies(const Bytes &cert_der, const EVP_MD *md, const Bytes &data, const Bytes &sig);
// An SM2 signature (r, s: 32 bytes each, big-endian) as DER.
Bytes SignatureDer(const uint8_t *r, const uint8_t *s);
// OpenSSL's SM2 signature (DER) on SM3(Z || data) with the identity; empty on failure.
Bytes Sm2Sign(EVP_PKEY *key, const Bytes &data, const std::string &id = "1234567812345678");

// Public-key encryption: SM2 gives the DER SM2 ciphertext (x, y, C3, C2);
// RSA uses the padding given.
Bytes Encrypt(EVP_PKEY *key, const Bytes &plain, int rsa_padding = RSA_PKCS1_PADDING);
Bytes Encrypt(const Bytes &cert_der, const Bytes &plain, int rsa_padding = RSA_PKCS1_PADDING);

}  // namespace zeph_test
