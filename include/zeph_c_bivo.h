/* The co-signing client: SM2 (and RSA) keys that never exist whole. The
 * client keeps its share encrypted on the user's key, a co-signing service
 * keeps the other, and every result is an ordinary signature or plaintext
 * that any verifier accepts.
 *
 * A context (ZEPH_C_BIVO_Initialize) names the service and the device number
 * that, with the user's secret, seals the client share. Every exchange is one
 * JSON POST to the service's base path with the method name appended
 * ("BIVOInit", "BIVOGenKeyPair", "BIVOSignature", "BIVODecrypt",
 * "BIVORSAGenKeyPair", "BIVORSASignature"), bounded by the process-wide HTTP
 * deadlines (ZEPH_C_HttpSetTimeouts) and, for https URLs, the TLS trust of
 * ZEPH_C_HttpsSetCAFile. docs/cosign.md describes the wire.
 *
 * Nothing the service sends is used before it is checked: every value must
 * decode to exactly its size (65-byte points on the curve, 32-byte scalars in
 * [1, n-1], RSA values below the modulus), and a signature is released only
 * after it verifies under the public key. A value that fails gives
 * ERR_COSIGN_FAILED (0x82080073) and nothing is written.
 *
 * Statuses: 0; ZEPH_ERR_MISSING_HANDLE for a NULL context; ERR_HTTP_FAILED
 * (0x8208003C) for the transport, a deadline, or a service "status" other
 * than 200; ERR_JSON_INVALID (0x82080072) for a reply that is not JSON or
 * lacks a key; ERR_COSIGN_FAILED for a context without a key, a context
 * without a service, or a value the checks refuse; ERR_PIN_VERIFY_FAILED
 * (0x82080002) for a share that the secret does not open;
 * ERR_INVALID_PARAMETER for missing arguments; the collaborative statuses of
 * zeph_c_bivo_math.h (12 when the service's key does not match the client's
 * share, 17 to 21 for a ciphertext) pass through. */
#ifndef ZEPH_C_BIVO_H
#define ZEPH_C_BIVO_H

#include <openssl/asn1.h>
#include <stdint.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

/* The client's version, 1.0.0. */
#define ZEPH_BIVO_CLIENT_VERSION 0x00010000u

/* The envelope key of ZEPH_C_BIVO_DecodeEnveloper: a file of this name in the
 * configuration directory (the directory of the device configuration file,
 * see ZEPH_C_SetConfig) holding the base64 text of a DER ECPrivateKey on the
 * SM2 curve (121 bytes, 164 characters; blanks and line breaks ignored). */
#define ZEPH_BIVO_ENVELOPE_KEY_FILE "zeph_bivo_envelope.key"

/* Object identifiers of the share. */
#define ZEPH_OID_BIVO_SM2     "1.2.156.10197.1.301"   /* BIVOParm alg */
#define ZEPH_OID_BIVO_SM3     "1.2.156.10197.1.401"   /* BIVOParm hash */
#define ZEPH_OID_BIVO_SM4_ECB "1.2.156.10197.1.104.1" /* RSAParm encAlg */

typedef struct ZEPH_BIVO_CTX_st ZEPH_BIVO_CTX;

/* ---- The share structures ------------------------------------------------ */
/* clang-format off */

/* hash of BIVOParm: ID ZEPH_OID_BIVO_SM3, digest SM3(d1). */
typedef struct Digest_st {
  ASN1_OBJECT *ID;
  ASN1_OCTET_STRING *digest;
} Digest;

/* The field name is spelled so on the wire of other implementations. */
typedef struct AlgParm_st {
  ASN1_OBJECT *aignAlgID;
} AlgParm;

/* The protected SM2 share: version 1, alg ZEPH_OID_BIVO_SM2, the joint
 * public key (65 bytes), d1 and d1^-1 each as the 32 bytes of their sealed
 * form (SM4-ECB under K[0..15] xor K[16..31], K = SM3(secret || device
 * number)), and hash. */
typedef struct BIVOParm_st {
  ASN1_INTEGER *version;
  AlgParm *alg;
  ASN1_OCTET_STRING *pubkey;
  ASN1_BIT_STRING *d1;
  ASN1_BIT_STRING *d1_inv;
  Digest *hash;
} BIVOParm;

typedef struct AlgIdentifier_st {
  ASN1_OBJECT *ID;
} AlgIdentifier;

/* The protected RSA share: encAlg ZEPH_OID_BIVO_SM4_ECB, encryptedData the
 * sealed (padded SM4-ECB, key as above) DER of the container identifier, n,
 * e and d1 (docs/cosign.md). */
typedef struct RSAParm_st {
  AlgIdentifier *encAlg;
  ASN1_OCTET_STRING *encryptedData;
} RSAParm;

/* clang-format on */

/* ---- Context ------------------------------------------------------------- */

/* A new context from device_json ({"DeviceNumber":"<text>"}, at most 129
 * bytes of text) and the service URL "http[s]://host[:port][/path]" (at most
 * 129 bytes). Only a URL longer than 10 characters names a service; it is
 * greeted with "BIVOInit" first, which must answer {"status":200}. Without a
 * service the context still serves the share operations (VerifyUserPin,
 * ChangeUserPin), and exchanges give ERR_COSIGN_FAILED. 0xFFFFFFFF for a URL
 * that does not parse; ERR_HTTP_FAILED when "BIVOInit" fails or answers
 * another status; ERR_JSON_INVALID when its reply or device_json is not JSON
 * or lacks its key. *out_ctx is set only on success. */
ZEPH_API uint32_t ZEPH_C_BIVO_Initialize(ZEPH_BIVO_CTX **out_ctx, const char *device_json, uint32_t device_json_len,
                                         const char *url, uint32_t url_len);
/* Wipes the key material and frees the context; NULL is allowed. 0. */
ZEPH_API uint32_t ZEPH_C_BIVO_Finalize(ZEPH_BIVO_CTX *ctx);

/* 0x00010000 into *out_version. */
ZEPH_API uint32_t ZEPH_C_BIVO_GetVersion(uint32_t *out_version);

/* ---- SM2 ------------------------------------------------------------------ */

/* Creates a key with the service and hands out the joint public key (65
 * bytes; *pubkey_len is the capacity, at least 65, else 0xFFFFFFFF), the
 * container identifier (SM3(d1) as 64 upper-case hex characters and a
 * terminator into container_id_out, which holds 65 bytes) and the share as a
 * DER BIVOParm sealed under secret. A NULL share_out asks for the share's
 * length; a smaller *share_len gives 0x82080001 with the length; both before
 * any exchange. On success the context holds the new key. 12 when the
 * service's credential does not match the client's share. */
ZEPH_API uint32_t ZEPH_C_BIVO_CreateKeyPair(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                            unsigned char *pubkey_out, uint32_t *pubkey_len, char *container_id_out,
                                            unsigned char *share_out, uint32_t *share_len);
/* Opens the share with secret and accepts it only when SM3(d1) is its stored
 * digest and d1·d1^-1 = 1 mod n; then d1, d1^-1, the public key and the
 * container identifier are the context's key. ERR_PIN_VERIFY_FAILED for a
 * wrong secret, ERR_INVALID_PARAMETER for a share that does not decode; the
 * context is unchanged on failure. */
ZEPH_API uint32_t ZEPH_C_BIVO_VerifyUserPin(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                            const unsigned char *share, uint32_t share_len);
/* The share sealed under new_secret instead of old_secret (checked as by
 * VerifyUserPin), by the output protocol of zeph_c_api.h. The context's key
 * is not changed. */
ZEPH_API uint32_t ZEPH_C_BIVO_ChangeUserPin(ZEPH_BIVO_CTX *ctx, const unsigned char *old_secret, uint32_t old_len,
                                            const unsigned char *new_secret, uint32_t new_len,
                                            const unsigned char *share, uint32_t share_len, unsigned char *out,
                                            uint32_t *in_out_len);

/* An SM2 signature (DER SEQUENCE { r, s }, SM3 with Z of the identity
 * "1234567812345678") over msg with the context's key. sig_out must hold 72
 * bytes (*sig_len the capacity; a NULL sig_out asks for 72), checked before
 * any exchange. ERR_COSIGN_FAILED, without any exchange, when the context
 * holds no key. */
ZEPH_API uint32_t ZEPH_C_BIVO_DoSignature(ZEPH_BIVO_CTX *ctx, const unsigned char *msg, uint32_t msg_len,
                                          unsigned char *sig_out, uint32_t *sig_len);
/* Decrypts a DER SM2 ciphertext (SM2_Ciphertext_Structure) made for the
 * context's key. The plaintext is as long as C2: a NULL plain_out asks for
 * it, a short capacity gives ERR_BUFFER_TOO_SMALL, both before any
 * exchange. ERR_COSIGN_FAILED, without any exchange, when the context holds
 * no key; 18 to 21 for a ciphertext that does not decode or decrypt. */
ZEPH_API uint32_t ZEPH_C_BIVO_SM2Decrypt(ZEPH_BIVO_CTX *ctx, const unsigned char *cipher, uint32_t cipher_len,
                                         unsigned char *plain_out, uint32_t *plain_len);
/* A DER PKCS#10 request for the context's key with the subject dn
 * ("CN=a,O=b" or "/CN=a/O=b", UTF-8), signed SM2-with-SM3 (identity
 * "1234567812345678") by the service and the client together. Output by the
 * protocol of zeph_c_api.h; a length query signs nothing and answers an
 * upper bound. ERR_INVALID_PARAMETER for a dn that does not parse. */
ZEPH_API uint32_t ZEPH_C_BIVO_GenCSR(ZEPH_BIVO_CTX *ctx, const char *dn, unsigned char *out, uint32_t *in_out_len);
/* Opens an SM2 envelope (either layout of ZEPH_C_DecodeEnveloper) with the
 * envelope key of ZEPH_BIVO_ENVELOPE_KEY_FILE. Output by the protocol of
 * zeph_c_api.h. ERR_UNSUPPORTED_VALUE (0x8208005A) when the file is missing
 * or does not hold such a key; ERR_ENVELOPE_FAILED when the envelope does
 * not open. */
ZEPH_API uint32_t ZEPH_C_BIVO_DecodeEnveloper(const unsigned char *env, uint32_t env_len, unsigned char *out,
                                              uint32_t *in_out_len);

/* ---- RSA ------------------------------------------------------------------ */
/* The service makes the pair and splits the private exponent,
 * d = d1 + d2 mod lambda(n); it keeps d2 and hands d1 to the client once. A
 * signature is m^d1 · m^d2 mod n, released only when it verifies with e. */

/* Creates an RSA key of bits (2048 when 0; 2048 to 4096) with the service:
 * the public key as DER SubjectPublicKeyInfo into pubkey_out (*pubkey_len
 * the capacity; 0x82080001 when short, before any exchange), the container
 * identifier (64 hex characters and a terminator into 65 bytes) and the
 * share as a DER RSAParm sealed under secret (a NULL share_out asks for an
 * upper bound of its length; a short one gives 0x82080001, before any
 * exchange). */
ZEPH_API uint32_t ZEPH_C_BIVO_RSACreateKeyPair(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                               uint32_t bits, unsigned char *pubkey_out, uint32_t *pubkey_len,
                                               char *container_id_out, unsigned char *share_out, uint32_t *share_len);
/* A PKCS#1 v1.5 signature over msg with digest_id (ZEPH_DIGEST_SHA1,
 * _SHA256 (also for 0), _SHA384, _SHA512 of zeph_c_api.h; others
 * ERR_ALG_UNSUPPORTED) and the share opened with secret
 * (ERR_PIN_VERIFY_FAILED when it does not open). Output: the modulus length,
 * by the protocol of zeph_c_api.h, checked before any exchange. */
ZEPH_API uint32_t ZEPH_C_BIVO_RSADoSignature(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                             const unsigned char *share, uint32_t share_len, uint32_t digest_id,
                                             const unsigned char *msg, uint32_t msg_len, unsigned char *sig_out,
                                             uint32_t *sig_len);
/* A DER PKCS#10 request for the share's key with the subject dn (as
 * ZEPH_C_BIVO_GenCSR), signed sha256WithRSAEncryption by the two parties. */
ZEPH_API uint32_t ZEPH_C_BIVO_RSAGenCSR(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                        const unsigned char *share, uint32_t share_len, const char *dn,
                                        unsigned char *out, uint32_t *in_out_len);

/* new, free, DER encode and decode, and the item of each share structure. */
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, Digest);
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, AlgParm);
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, BIVOParm);
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, AlgIdentifier);
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, RSAParm);

ZEPH_END_DECLS

#endif
