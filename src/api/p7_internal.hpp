// Signed and enveloped messages inside: the certificate bundle, the SM2 and
// PKCS#7 signed-data builders and their verifier, the envelope layouts and
// their opener. Nothing here touches a device: signatures and key
// unwrapping come in as callbacks, so the same code serves the key, a
// software key, the length queries and the fuzz targets.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include "foundation/owned.hpp"
#include "foundation/secure_bytes.hpp"
#include "pki/pki_owned.hpp"
#include "zeph_c_p7.h"

namespace zeph {
using Sm2EnvelopePtr = std::unique_ptr<SM2_Envelope, Free<SM2_Envelope_free>>;
using Pkcs7SignerInfoPtr = std::unique_ptr<PKCS7_SIGNER_INFO, Free<PKCS7_SIGNER_INFO_free>>;
using Pkcs7RecipInfoPtr = std::unique_ptr<PKCS7_RECIP_INFO, Free<PKCS7_RECIP_INFO_free>>;
// A list that borrows its certificates: freeing it leaves them alone.
inline void FreeX509List(STACK_OF(X509) * list) noexcept { sk_X509_free(list); }
using X509ListPtr = std::unique_ptr<STACK_OF(X509), Free<FreeX509List>>;
}  // namespace zeph

namespace zeph::p7 {

using Bytes = std::vector<uint8_t>;
using Span = std::span<const uint8_t>;

// The public-key kind of a certificate; the numbers are the key-area
// selectors.
enum class KeyKind : uint32_t { kNone = 0, kRsa = 1, kSm2 = 2 };

KeyKind KindOf(const X509 *cert);

// One DER certificate that is the whole input, or null.
X509Ptr DecodeCert(Span der);

// A DER PKCS#7 certificate bundle (signed-data, usually without signers) or
// a single DER certificate, in the order they are encoded. No bytes: no
// certificates. Anything else: ERR_CERT_CHAIN_FAILED.
uint32_t ReadBundle(Span der, std::vector<X509Ptr> *certs);

// Makes the signature over `tbs` (DER SEQUENCE { r, s } for SM2, the
// PKCS#1 v1.5 block for RSA).
using Signer = std::function<uint32_t(Span tbs, Bytes *sig)>;

// An SM2 signed message in the GM layout: the building steps in order.
struct Sm2SignRequest {
  const char *sig_oid = ZEPH_OID_SM2_SIGN_501;
  uint32_t hash_id = 1;
  Span content;
  const std::vector<X509Ptr> *chain = nullptr;  // may be null
  X509 *signer = nullptr;
  X509_CRL *crl = nullptr;  // may be null
};
uint32_t BuildSm2Sign(const Sm2SignRequest &req, const Signer &sign, Bytes *der);

// A PKCS#7 signed-data with signed attributes.
struct Pkcs7SignRequest {
  KeyKind kind = KeyKind::kRsa;
  uint32_t digest_id = 4;
  bool detached = false;
  Span content;
  const std::vector<X509Ptr> *chain = nullptr;  // may be null
  X509 *signer = nullptr;
};
uint32_t BuildPkcs7Signed(const Pkcs7SignRequest &req, const Signer &sign, Bytes *der);

// A signature value standing in for the real one in a length query: the
// longest an SM2 signature can be, or the RSA modulus length.
Bytes PlaceholderSignature(const X509 *signer);

// Verification of either family; content receives the content that was
// verified. 0 or ERR_SIGNATURE_INVALID.
uint32_t VerifySm2Sign(Span msg, Span detached, Bytes *content);
uint32_t VerifyPkcs7Signed(Span p7, Span detached, Bytes *content);

// Hands out an envelope with the deliberate 128-byte margin: NULL out
// reports length + 128; a capacity below the length gives
// ERR_BUFFER_TOO_SMALL and also length + 128; otherwise the exact length.
uint32_t PutEnvelope(Span der, uint8_t *out, uint32_t *in_out_len);

// The GM envelope of one recipient from pieces already encrypted, handed out
// by PutEnvelope. key_type 1 RSA, 2 SM2, else ERR_UNSUPPORTED_VALUE.
uint32_t BuildSm2Envelope(const X509 *recipient, uint32_t key_type, Span enc_key, Span enc_content, uint8_t *out,
                          uint32_t *in_out_len);
// The same envelope as DER.
uint32_t EncodeSm2Envelope(const X509 *recipient, uint32_t key_type, Span enc_key, Span enc_content, Bytes *der);

// Seals data for a certificate under the 16-byte content key: wrapper
// ZEPH_ENVELOPE_DEFAULT or ZEPH_ENVELOPE_GM.
uint32_t Seal(X509 *recipient, uint32_t wrapper, Span key16, Span data, Bytes *der);

// One recipient of an envelope, as the opener offers it for unwrapping.
struct Recipient {
  KeyKind kind = KeyKind::kNone;
  const PKCS7_ISSUER_AND_SERIAL *id = nullptr;
  Span enc_key;
};
using Unwrap = std::function<uint32_t(const Recipient &r, SecureBytes *key)>;

// The key kind of the envelope's first recipient (kNone when it does not
// parse or is of neither kind).
KeyKind FirstRecipientKind(Span env);

// Opens either layout: recipients of kind `want`, the one naming `mine`
// (may be null) first; the first recipient whose key unwraps and decrypts
// the content wins. Unwrap failures pass through, except that the status
// of the last attempt is the one returned; ERR_ENVELOPE_FAILED when nothing
// decodes or no recipient fits.
uint32_t Open(Span env, KeyKind want, const X509 *mine, const Unwrap &unwrap, SecureBytes *plain);

// SM4 with PKCS#7 padding over whole messages (own SM4): ECB, or CBC with
// the IV given.
uint32_t Sm4Encrypt(Span key16, const uint8_t *iv16, Span in, Bytes *out);
uint32_t Sm4Decrypt(Span key16, const uint8_t *iv16, Span in, SecureBytes *out);

// The DER SM2 ciphertext as the device's ECCCIPHERBLOB (coordinates
// right-aligned in 64 bytes), or the raw C1C3C2 form that some producers
// put in an envelope. ERR_SM2_CIPHER_FORMAT when it is neither.
uint32_t Sm2CipherBlob(Span der, Bytes *blob);

}  // namespace zeph::p7
