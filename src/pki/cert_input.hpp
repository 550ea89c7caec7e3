// Certificates, names and private keys from outside the library: every
// reader takes untrusted bytes and answers with a status, never more than
// the bytes it was given.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/secure_bytes.hpp"
#include "pki/pki_owned.hpp"

namespace zeph::pki {

using Bytes = std::vector<uint8_t>;

// One certificate: DER (exactly the bytes given) or one PEM block.
// ERR_CERT_DECODE_FAILED otherwise.
uint32_t ReadCert(std::span<const uint8_t> bytes, X509Ptr *out);

// Several certificates: PEM text (CERTIFICATE and PKCS7 blocks), a DER
// PKCS#7 (any content type that carries certificates), or DER certificates
// one after another. The order of the input is kept. ERR_CERT_CHAIN_FAILED
// when the bytes are none of these or hold no certificate.
uint32_t ReadCertList(std::span<const uint8_t> bytes, std::vector<X509Ptr> *out);

// A degenerate PKCS#7 signed-data holding the certificates (a
// "certificates-only" bundle, as `openssl crl2pkcs7 -nocrl` writes), DER.
uint32_t BuildCertBundle(std::span<X509 *const> certs, Bytes *out_der);

// Text handed in by a host: PEM as it is, anything else as base64.
// ERR_BASE64_INVALID when it is neither.
uint32_t TextBytes(std::string_view text, Bytes *out);

// A name from "CN=a,O=b" or "/CN=a/O=b" (UTF-8; a backslash escapes the
// next character; blanks around types and values are dropped). The entries
// keep the order written. Types are OpenSSL short or long names or dotted
// OIDs. ERR_INVALID_PARAMETER for an empty name, an entry without "=", an
// unknown type or an empty value.
uint32_t ParseDn(std::string_view text, X509NamePtr *out);

// A private key: PKCS#8 (encrypted under `pin` when it is an
// EncryptedPrivateKeyInfo), PEM, a DER RSAPrivateKey or EC private key, or
// a raw 32-byte SM2 scalar. Only RSA and SM2 keys are accepted.
//   ERR_INVALID_PARAMETER   not a key of those forms
//   ERR_PIN_VERIFY_FAILED   encrypted and `pin` does not open it
//   ERR_UNSUPPORTED_VALUE   another algorithm or curve, or a password
//                           scheme other than PBES2/PBKDF2 or PKCS#5/#12
//                           PBE, or more than kMaxPbeIterations rounds
uint32_t ReadPrivateKey(std::span<const uint8_t> bytes, const char *pin, EvpPkeyPtr *out);
inline constexpr long kMaxPbeIterations = 1000000;

// PKCS#8 PrivateKeyInfo DER; with a non-empty pin an EncryptedPrivateKeyInfo
// (PBES2: PBKDF2-HMAC-SHA256 with 10,000 rounds and a 16-byte salt, SM4-CBC
// for SM2 keys and AES-256-CBC for RSA keys).
uint32_t WritePrivateKey(EVP_PKEY *key, const char *pin, SecureBytes *out_der);

// DER SubjectPublicKeyInfo.
uint32_t WritePublicKey(EVP_PKEY *key, Bytes *out_der);

bool IsSm2Key(const EVP_PKEY *key);
bool IsRsaKey(const EVP_PKEY *key);

// Signatures by SM2 keys are made and checked with the default identity:
// set it on a certificate whose signature is SM2-with-SM3 (others untouched).
uint32_t UseDefaultSm2Id(X509 *cert);
bool SignedWithSm2(const X509_ALGOR *alg);

}  // namespace zeph::pki
