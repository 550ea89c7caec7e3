// Cryptography of the software key, over OpenSSL: sealing secrets under PINs,
// SM2 and RSA key pairs, SKF blob conversion, the SM2 Z digest and
// self-signed certificates for the utility.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "foundation/owned.hpp"
#include "foundation/secure_bytes.hpp"
#include "store.hpp"

namespace softkey {

using zeph::EvpPkeyPtr;
using zeph::SecureBytes;
using ByteSpan = std::span<const uint8_t>;

constexpr uint32_t kPinIterations = 4096;
constexpr size_t kMinPin = 6, kMaxPin = 16;
constexpr char kDefaultId[] = "1234567812345678";

// Authenticated encryption under a 32-byte key: SM4-CBC with PKCS#7 padding,
// then HMAC-SM3 over IV and ciphertext. Open fails on any alteration.
Bytes Seal(ByteSpan key, ByteSpan plain);
bool Open(ByteSpan key, ByteSpan sealed, SecureBytes &plain);

// Every application has one random master key that seals its private keys;
// each PIN record holds it sealed under a key derived from the PIN.
SecureBytes NewMasterKey();
Pin MakePin(std::string_view pin, ByteSpan master, uint32_t max_retry);
bool UnwrapMaster(const Pin &rec, std::string_view pin, SecureBytes &master);
// Re-seals the master key under a new PIN, keeping the counters' maximum.
void RewrapPin(Pin &rec, std::string_view pin, ByteSpan master);

// SM4-ECB over whole blocks (n a multiple of 16), no padding.
bool Sm4Ecb(bool encrypt, ByteSpan key16, const uint8_t *in, size_t n, uint8_t *out);

// SM2 keys (OpenSSL type "SM2").
EvpPkeyPtr Sm2Generate();
EvpPkeyPtr Sm2FromScalar(ByteSpan d32);
EvpPkeyPtr Sm2FromPoint(ByteSpan point65);
bool Sm2Point(EVP_PKEY *k, Bytes &point65);
bool Sm2Scalar(EVP_PKEY *k, SecureBytes &d32);
bool Sm2OnCurve(ByteSpan x32, ByteSpan y32);
// Signs a 32-byte digest e as it is; r and s big-endian, 32 bytes each.
bool Sm2SignDigest(EVP_PKEY *k, ByteSpan e32, uint8_t r[32], uint8_t s[32]);
// C1 = (x, y), C3 = hash, C2 = cipher. False when C3 does not match.
bool Sm2Decrypt(EVP_PKEY *k, ByteSpan x32, ByteSpan y32, ByteSpan hash32, ByteSpan c2, SecureBytes &plain);
// Z = SM3(ENTL || ID || a || b || xG || yG || xA || yA).
bool Sm2Z(ByteSpan point65, ByteSpan id, uint8_t z[32]);

// RSA keys; public and private halves as PKCS#1 DER.
EvpPkeyPtr RsaGenerate(uint32_t bits);
EvpPkeyPtr RsaFromPublicDer(ByteSpan der);
EvpPkeyPtr RsaFromPrivateDer(ByteSpan der);
uint32_t RsaBits(EVP_PKEY *k);
// PKCS#1 v1.5 type 1 over the given bytes (a DigestInfo), no hashing.
bool RsaSignPkcs1(EVP_PKEY *k, ByteSpan data, Bytes &sig);
// padding: RSA_NO_PADDING (the whole block) or RSA_PKCS1_PADDING.
bool RsaDecrypt(EVP_PKEY *k, int padding, ByteSpan in, SecureBytes &out);

// Key pairs as stored: the private half sealed under the master key.
bool SealKeyPair(EVP_PKEY *k, ByteSpan master, KeyPair &out);
EvpPkeyPtr OpenKeyPair(const KeyPair &kp, ByteSpan master);
EvpPkeyPtr PublicKeyOf(const KeyPair &kp);

// SKF blobs: 256-bit values right-aligned in 64-byte fields.
void ToEccBlob(ByteSpan point65, ECCPUBLICKEYBLOB &blob);
// BitLen 256, zero upper halves and a point on the curve, or false.
bool FromEccBlob(const ECCPUBLICKEYBLOB &blob, Bytes &point65);
bool ToRsaBlob(EVP_PKEY *k, RSAPUBLICKEYBLOB &blob);

// A self-signed X.509 v3 certificate: SM2-with-SM3 (ID 1234567812345678)
// for SM2 keys, sha256WithRSAEncryption for RSA. Subject "CN=a,O=b" or
// "/CN=a/O=b". Empty on failure (bad subject).
Bytes SelfSignedCert(EVP_PKEY *k, const std::string &subject, int days, bool encryption);
bool IsCertificate(ByteSpan der);

}  // namespace softkey
