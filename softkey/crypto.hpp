// Cryptography of the software key. It does SM2, SM3 and SM4 through OpenSSL
// and never through the library's own src/gm code, so that the end-to-end
// tests set two independent implementations against each other.
//
// Here: wrapping secrets under PINs, SM2 and RSA key pairs, SKF blob
// conversion, the SM2 Z digest and self-signed certificates for the utility.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "foundation/owned.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/sm2_params.hpp"
#include "model.hpp"

namespace softkey {

using zeph::EvpPkeyPtr;
using zeph::SecureBytes;
using ByteSpan = std::span<const uint8_t>;

constexpr uint32_t kPinIterations = 4096;
constexpr size_t kMinPin = 6, kMaxPin = 16;
inline const ByteSpan kDefaultId(reinterpret_cast<const uint8_t *>(zeph::kDefaultSm2Id), zeph::kDefaultSm2IdLen);

// Authenticated encryption under a 32-byte key: SM4-CBC with PKCS#7 padding,
// then HMAC-SM3 over IV and ciphertext. Unwrap fails on any alteration.
Bytes Wrap(ByteSpan key, ByteSpan plain);
bool Unwrap(ByteSpan key, ByteSpan wrapped, SecureBytes &out_plain);

// Every application has one random master key that wraps its private keys;
// each PIN record holds it wrapped under a key derived from the PIN.
SecureBytes NewMasterKey();
Pin MakePin(std::string_view pin, ByteSpan master, uint32_t max_retry);
bool UnwrapMaster(const Pin &rec, std::string_view pin, SecureBytes &out_master);
// Re-wraps the master key under a new PIN, keeping the counters' maximum.
void RewrapPin(Pin &rec, std::string_view pin, ByteSpan master);

// SM4-ECB over whole blocks (a multiple of 16 bytes), no padding; out holds
// in.size() bytes.
bool Sm4EcbUnpadded(bool encrypt, ByteSpan key16, ByteSpan in, uint8_t *out);

// SM2 keys (OpenSSL type "SM2").
EvpPkeyPtr Sm2Generate();
EvpPkeyPtr Sm2FromScalar(ByteSpan d32);
EvpPkeyPtr Sm2FromPoint(ByteSpan point65);
bool Sm2Point(EVP_PKEY *k, Bytes &out_point65);
bool Sm2Scalar(EVP_PKEY *k, SecureBytes &out_d32);
bool Sm2OnCurve(ByteSpan x32, ByteSpan y32);
// Signs a 32-byte digest e as it is; r and s big-endian, 32 bytes each.
bool Sm2SignDigest(EVP_PKEY *k, ByteSpan e32, uint8_t out_r[32], uint8_t out_s[32]);
// C1 = (x, y), C3 = hash, C2 = cipher. False when C3 does not match.
bool Sm2Decrypt(EVP_PKEY *k, ByteSpan x32, ByteSpan y32, ByteSpan hash32, ByteSpan c2, SecureBytes &out_plain);
// Z = SM3(ENTL || ID || a || b || xG || yG || xA || yA).
bool Sm2Z(ByteSpan point65, ByteSpan id, uint8_t out_z[32]);

// RSA keys; public and private halves as PKCS#1 DER.
EvpPkeyPtr RsaGenerate(uint32_t bits);
EvpPkeyPtr RsaFromPublicDer(ByteSpan der);
EvpPkeyPtr RsaFromPrivateDer(ByteSpan der);
uint32_t RsaBits(EVP_PKEY *k);
// PKCS#1 v1.5 type 1 over the given bytes (a DigestInfo), no hashing.
bool RsaSignPkcs1(EVP_PKEY *k, ByteSpan data, Bytes &out_sig);
// padding: RSA_NO_PADDING (the whole block) or RSA_PKCS1_PADDING.
bool RsaDecrypt(EVP_PKEY *k, int padding, ByteSpan in, SecureBytes &out_plain);

// Key pairs as stored: the private half wrapped under the master key.
bool WrapKeyPair(EVP_PKEY *k, ByteSpan master, KeyPair &out_pair);
EvpPkeyPtr UnwrapKeyPair(const KeyPair &kp, ByteSpan master);
EvpPkeyPtr PublicKeyOf(const KeyPair &kp);

// SKF blobs: 256-bit values right-aligned in 64-byte fields.
void ToEccBlob(ByteSpan point65, ECCPUBLICKEYBLOB &out_blob);
// BitLen 256, zero upper halves and a point on the curve, or false.
bool FromEccBlob(const ECCPUBLICKEYBLOB &blob, Bytes &out_point65);
bool ToRsaBlob(EVP_PKEY *k, RSAPUBLICKEYBLOB &out_blob);

// A self-signed X.509 v3 certificate: SM2-with-SM3 (the default identity)
// for SM2 keys, sha256WithRSAEncryption for RSA. Subject "CN=a,O=b" or
// "/CN=a/O=b". Empty on failure (bad subject).
Bytes SelfSignedCert(EVP_PKEY *k, const std::string &subject, int days, bool encryption);
// A certificate file's DER: PEM or DER in, empty when it is neither.
Bytes CertificateDer(ByteSpan file);
bool IsCertificate(ByteSpan der);

}  // namespace softkey
