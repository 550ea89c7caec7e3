// PKCS#10 requests, signatures with keys held in software, new key pairs and
// the library's public SM2 test key.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "pki/cert_input.hpp"

namespace zeph::pki {

// Signs the DER bytes given: an SM2 signature as DER SEQUENCE { r, s }
// (SM3 over Z || tbs with the default identity), an RSA one as the raw
// PKCS#1 v1.5 block over SHA-256.
using TbsSigner = std::function<uint32_t(std::span<const uint8_t> tbs, Bytes *out_sig)>;

// A version-1 request without attributes for `key` (its public half is all
// that is used), signed by `sign`: SM2-with-SM3 for an SM2 key,
// sha256WithRSAEncryption for RSA. ERR_CSR_FAILED when it cannot be built;
// the signer's status passes through.
uint32_t BuildCsr(const X509_NAME *subject, EVP_PKEY *key, const TbsSigner &sign, Bytes *out_der);

// A signature in software (see TbsSigner for the forms); RSA digests by the
// library's identifiers 2, 4 (and 0), 8, 16.
uint32_t SignWithKey(EVP_PKEY *key, std::span<const uint8_t> data, uint32_t digest_id, Bytes *out_sig);

// 2: SM2; 1024, 2048, 3072, 4096: RSA of that size; else ERR_UNSUPPORTED_VALUE.
uint32_t GenerateKey(uint32_t alg, EvpPkeyPtr *out);

// An SM2 public key from the 65-byte point 04 || x || y.
uint32_t Sm2PublicKey(std::span<const uint8_t> point, EvpPkeyPtr *out);

// The public SM2 test key (the GM/T 0003.5 signature example's pair).
extern const uint8_t kTestSm2PrivateKey[32];
extern const uint8_t kTestSm2PublicKey[65];
uint32_t TestSm2Key(EvpPkeyPtr *out);

}  // namespace zeph::pki
