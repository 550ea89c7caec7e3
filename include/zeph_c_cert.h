/* Keys and certificates on a key, enrolment (PKCS#10 requests signed by the
 * key), certificate verification with CRL or OCSP, certificate fields, and
 * key pairs made in software.
 *
 * Areas: ZEPH_AREA_RSA (the RSA application: signing container RSA1,
 * encryption container RSA2, file CertChain) and ZEPH_AREA_SM2 (the SM2
 * application: one container for both pairs, file CertChain). Device
 * operations open their own session and close it on every path; those that
 * change the key verify the user PIN first.
 *
 * Certificates are taken as DER or PEM; certificate lists as PEM text (any
 * number of CERTIFICATE and PKCS7 blocks), a DER PKCS#7, or DER certificates
 * one after another. Outputs follow the library's protocol: a NULL buffer
 * asks for the length, a short one gives ERR_BUFFER_TOO_SMALL with the
 * length written back. Text outputs count their terminator. */
#ifndef ZEPH_C_CERT_H
#define ZEPH_C_CERT_H

#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_status.h"

ZEPH_BEGIN_DECLS

/* Which pair or certificate of an area. */
#define ZEPH_USAGE_ENCRYPTION 0u
#define ZEPH_USAGE_SIGNING    1u

/* ---- Keys on the key ----------------------------------------------------- */

/* A new signing pair in the area's signing container (it replaces the old
 * one): RSA of `bits` 1024 or 2048 (SKF_Ex_GenRSAKeyPair where the vendor
 * library has it, else SKF_GenRSAKeyPair), SM2 whatever `bits` says. Writes
 * the new public key as DER SubjectPublicKeyInfo. A NULL buffer asks for
 * the length without touching the key: 91 for SM2, bits / 8 + 39 for RSA
 * (enough for any exponent; the key written may be a byte or two shorter).
 * ERR_UNSUPPORTED_VALUE for another area or RSA size. */
ZEPH_API uint32_t ZEPH_C_GenKeyPair(void *handle, const char *pin, uint32_t area, uint32_t bits,
                                    unsigned char *out_spki, uint32_t *in_out_len);

/* The public key of the area's signing or encryption pair as DER
 * SubjectPublicKeyInfo (no PIN needed). */
ZEPH_API uint32_t ZEPH_C_ExportPublicKeyInfo(void *handle, uint32_t area, uint32_t usage, unsigned char *out_spki,
                                             uint32_t *in_out_len);

/* Imports an encryption pair given in the clear: PKCS#8 PrivateKeyInfo,
 * PEM, a DER RSAPrivateKey, or for SM2 the raw 32-byte scalar. The library
 * wraps it for the key: SM2 as a GM/T 0016 ENVELOPEDKEYBLOB (a fresh SM4 key
 * SM2-encrypted to the container's signing key, the private key SM4-ECB
 * under it) through SKF_ImportECCKeyPair; RSA as SKF_ImportRSAKeyPair (the
 * SM4 key under PKCS#1 v1.5 with the encryption container's signing key,
 * the DER RSAPrivateKey SM4-ECB with PKCS#5 padding). The container must
 * therefore hold a signing pair. ERR_UNSUPPORTED_VALUE for a key of the
 * other area's algorithm; ERR_EXT_INTERFACE_MISSING for RSA on a vendor
 * library without SKF_RSADecrypt. */
ZEPH_API uint32_t ZEPH_C_ImportEncKeyPair(void *handle, const char *pin, uint32_t area, const unsigned char *key,
                                          uint32_t key_len);

/* ---- Certificates on the key ---------------------------------------------- */

/* The certificate of the area's signing or encryption pair, DER. The vendor's
 * status when there is none. */
ZEPH_API uint32_t ZEPH_C_GetCertificate(void *handle, uint32_t area, uint32_t usage, unsigned char *out,
                                        uint32_t *in_out_len);

/* Stores the signing certificate. ERR_UNSUPPORTED_VALUE (nothing stored)
 * when its public key is not the container's signing key;
 * ERR_CERT_DECODE_FAILED when it does not decode. */
ZEPH_API uint32_t ZEPH_C_SaveSignCert(void *handle, const char *pin, uint32_t area, const unsigned char *cert,
                                      uint32_t cert_len);

/* Imports the encryption pair (as ZEPH_C_ImportEncKeyPair), then stores its
 * certificate. ERR_UNSUPPORTED_VALUE when the certificate's key is not the
 * private key's. 0xFFFFFFFF for a missing handle or context. */
ZEPH_API uint32_t ZEPH_C_SaveEncCertAndKey(void *handle, const char *pin, uint32_t area, const unsigned char *cert,
                                           uint32_t cert_len, const unsigned char *key, uint32_t key_len);

/* Stores a certificate list (any of the forms above) as the area's
 * "CertChain" file: a PKCS#7 certificates-only bundle, in the order given.
 * ERR_CERT_CHAIN_FAILED when the list holds no certificate. */
ZEPH_API uint32_t ZEPH_C_SaveCertChain(void *handle, const char *pin, uint32_t area, const unsigned char *chain,
                                       uint32_t chain_len);

/* The area's "CertChain" file as stored (no PIN needed). */
ZEPH_API uint32_t ZEPH_C_GetCertChain(void *handle, uint32_t area, unsigned char *out, uint32_t *in_out_len);

/* Everything on the key as JSON text:
 * {"applications":[{"name":"VorliEcc","containers":[{"name":"ECC","type":"SM2",
 *   "certificates":[{"usage":"sign","subject":"..","issuer":"..","serial":"..",
 *   "notBefore":"..","notAfter":"..","cert":"<base64 DER>"}]}],
 *   "files":[{"name":"CertChain","size":1234}]}]}
 * Container types "RSA", "SM2" or "empty"; usages "sign" and "enc". */
ZEPH_API uint32_t ZEPH_C_EnumCryptoDeviceObjects(void *handle, char *out_json, uint32_t *in_out_len);

/* ---- Enrolment ----------------------------------------------------------- */

/* A PKCS#10 request for the area's signing key, DER. With `new_key_bits`
 * non-zero a new signing pair is made first (RSA 1024 or 2048; SM2 any
 * non-zero value). Subject from `dn` ("CN=a,O=b" or "/CN=a/O=b", UTF-8, in
 * the order written). The key signs the request: sha256WithRSAEncryption,
 * or SM2-with-SM3 over the request info with the identity
 * "1234567812345678" (`openssl req -verify -vfyopt
 * distid:1234567812345678` accepts it). A NULL buffer asks for the length
 * (the request is signed to learn it; refused with ERR_INVALID_PARAMETER
 * when new_key_bits asks for a new pair); for SM2 the answer is the most a
 * request of that key and subject can need, as the length of an SM2
 * signature varies. */
ZEPH_API uint32_t ZEPH_C_GenCSR(void *handle, const char *pin, uint32_t area, const char *dn, uint32_t new_key_bits,
                                unsigned char *out, uint32_t *in_out_len);

/* ---- Verification -------------------------------------------------------- */

#define ZEPH_REVOCATION_NONE 0u
#define ZEPH_REVOCATION_CRL  1u /* the CRL of the certificate's http distribution points */
#define ZEPH_REVOCATION_OCSP 2u /* the responder at ocsp_url, else the one the certificate names */

/* Verifies `cert` against the CAs in `cas` (every one trusted; any order;
 * a chain may end at an intermediate) at the current time, then checks
 * revocation. SM2 signatures are checked with "1234567812345678".
 *   0                          valid (and not revoked)
 *   ERR_CERT_VERIFY_FAILED     `cert` does not decode
 *   ERR_CERT_CHAIN_FAILED      `cas` is given but holds no certificate
 *   ERR_ISSUER_NOT_FOUND       no CA given, or none issued the chain
 *   ERR_CERT_EXPIRED           expired, or a malformed validity time
 *   ERR_CERT_UNTRUSTED         any other chain error (bad signature, not
 *                              yet valid, ...)
 *   ERR_CERT_REVOKED           listed by the CRL, or revoked by OCSP
 *   ERR_CRL_FAILED             no CRL could be fetched, decoded, or trusted
 *                              (issuer, signature, currency)
 *   ERR_OCSP_CONNECT_FAILED    no responder URL; the request could not be
 *                              built or sent
 *   ERR_OCSP_RESPONSE_FAILED   no reply, or a response status other than
 *                              successful
 *   ERR_CERT_STATUS_UNKNOWN    the responder does not know the certificate
 *   ERR_CERT_STATUS_OTHER      any other certificate status
 *   ERR_OCSP_FAILED            any other OCSP failure (decoding, nonce,
 *                              responder, signature, times)
 * Downloads obey ZEPH_C_HttpSetTimeouts and stop at 16 MiB (CRL) and
 * 1 MiB (OCSP). */
ZEPH_API uint32_t ZEPH_C_VerifyCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *cas,
                                    uint32_t cas_len, uint32_t revocation, const char *ocsp_url);

/* As ZEPH_C_VerifyCert with a CRL the caller has (DER or PEM). */
ZEPH_API uint32_t ZEPH_C_VerifyCertWithCRL(const unsigned char *cert, uint32_t cert_len, const unsigned char *cas,
                                           uint32_t cas_len, const unsigned char *crl, uint32_t crl_len);

/* ---- Fields and bundles ---------------------------------------------------- */

/* Item numbers of ZEPH_C_GetCertInfo (as GM/T 0006 numbers them). */
#define ZEPH_CERT_ITEM_VERSION                  0x01u /* "V3" */
#define ZEPH_CERT_ITEM_SERIAL                   0x02u /* upper-case hex */
#define ZEPH_CERT_ITEM_SIGNATURE_ALG            0x03u /* "SM2-with-SM3", "sha256WithRSAEncryption", or the OID */
#define ZEPH_CERT_ITEM_ISSUER                   0x05u /* "C=CN, O=zeph, CN=CA", in the certificate's order */
#define ZEPH_CERT_ITEM_VALIDITY                 0x06u /* "20240101000000Z - 20340101000000Z" (UTC) */
#define ZEPH_CERT_ITEM_SUBJECT                  0x07u
#define ZEPH_CERT_ITEM_PUBLIC_KEY               0x08u /* base64 DER SubjectPublicKeyInfo */
#define ZEPH_CERT_ITEM_EXTENSIONS               0x09u /* base64 DER Extensions */
#define ZEPH_CERT_ITEM_AUTHORITY_KEY_ID         0x11u /* extensions: OpenSSL's text of the extension */
#define ZEPH_CERT_ITEM_SUBJECT_KEY_ID           0x12u
#define ZEPH_CERT_ITEM_KEY_USAGE                0x13u
#define ZEPH_CERT_ITEM_PRIVATE_KEY_USAGE_PERIOD 0x14u
#define ZEPH_CERT_ITEM_CERTIFICATE_POLICIES     0x15u
#define ZEPH_CERT_ITEM_POLICY_MAPPINGS          0x16u
#define ZEPH_CERT_ITEM_BASIC_CONSTRAINTS        0x17u
#define ZEPH_CERT_ITEM_POLICY_CONSTRAINTS       0x18u
#define ZEPH_CERT_ITEM_EXT_KEY_USAGE            0x19u
#define ZEPH_CERT_ITEM_CRL_DISTRIBUTION_POINTS  0x1Au
#define ZEPH_CERT_ITEM_NETSCAPE_CERT_TYPE       0x1Bu
#define ZEPH_CERT_ITEM_ISSUER_CN                0x21u /* entries of one type, joined by ", " */
#define ZEPH_CERT_ITEM_ISSUER_O                 0x22u
#define ZEPH_CERT_ITEM_ISSUER_OU                0x23u
#define ZEPH_CERT_ITEM_SUBJECT_CN               0x31u
#define ZEPH_CERT_ITEM_SUBJECT_O                0x32u
#define ZEPH_CERT_ITEM_SUBJECT_OU               0x33u
#define ZEPH_CERT_ITEM_SUBJECT_EMAIL            0x34u /* emailAddress, else the first e-mail alternative name */
#define ZEPH_CERT_ITEM_NOT_BEFORE               0x35u /* "20240101000000Z" */
#define ZEPH_CERT_ITEM_NOT_AFTER                0x36u

/* One field as UTF-8 text. ERR_CERT_ITEM_NOT_FOUND for an unknown item or a
 * field the certificate lacks; ERR_CERT_DECODE_FAILED when it does not
 * decode. */
ZEPH_API uint32_t ZEPH_C_GetCertInfo(const unsigned char *cert, uint32_t cert_len, uint32_t item, char *out,
                                     uint32_t *in_out_len);

/* The extension of that OID (dotted, or a name OpenSSL knows): OpenSSL's
 * text for extensions it knows, the text of a string value, else the value's
 * DER in base64. Without such an extension, the certificate policy of that
 * OID: its CPS URIs and notice texts one a line, or the OID when it has no
 * qualifier. ERR_CERT_EXT_NOT_FOUND when there is neither;
 * ERR_INVALID_PARAMETER for text that is no OID. */
ZEPH_API uint32_t ZEPH_C_GetCertExtension(const unsigned char *cert, uint32_t cert_len, const char *oid, char *out,
                                          uint32_t *in_out_len);

/* A certificate list (any form) as a JSON array of base64 DER certificates,
 * in the order given: ["MIIB...","MIIC..."]. */
ZEPH_API uint32_t ZEPH_C_SplitCertChain(const unsigned char *chain, uint32_t chain_len, char *out_json,
                                        uint32_t *in_out_len);

/* A certificate list (any form) as a DER PKCS#7 certificates-only bundle. */
ZEPH_API uint32_t ZEPH_C_MakeCertBundle(const unsigned char *chain, uint32_t chain_len, unsigned char *out,
                                        uint32_t *in_out_len);

/* ---- Key pairs in software ------------------------------------------------- */

/* A new pair: `alg` 2 is SM2, any other value the RSA modulus size (1024,
 * 2048, 3072 or 4096; else ERR_UNSUPPORTED_VALUE). *out_p8 receives the
 * private key as PKCS#8 DER, encrypted under `pin` when it is not empty
 * (PBES2: PBKDF2-HMAC-SHA256, 10,000 rounds; SM4-CBC for SM2, AES-256-CBC
 * for RSA), *out_spki the public key as DER SubjectPublicKeyInfo. Both are
 * allocated; release them with ZEPH_C_MALLOC_FREE. */
ZEPH_API uint32_t ZEPH_C_FKeyGenKeyPair(uint32_t alg, const char *pin, unsigned char **out_p8, uint32_t *out_p8_len,
                                        unsigned char **out_spki, uint32_t *out_spki_len);

/* A signature with a private key in any form ZEPH_C_ImportEncKeyPair takes
 * (PKCS#8 encrypted under `pin` too): SM2-with-SM3 with the identity
 * "1234567812345678" (DER r, s; at most 72 bytes), or RSA PKCS#1 v1.5 with
 * digest_id 4 SHA-256 (also for 0), 8 SHA-384, 16 SHA-512, 2 SHA-1.
 * ERR_PIN_VERIFY_FAILED when `pin` does not open the key. */
ZEPH_API uint32_t ZEPH_C_FKeySign(const unsigned char *key, uint32_t key_len, const char *pin,
                                  const unsigned char *data, uint32_t data_len, uint32_t digest_id,
                                  unsigned char *out_sig, uint32_t *in_out_len);

/* A PKCS#10 request signed by that key, as ZEPH_C_GenCSR makes them. */
ZEPH_API uint32_t ZEPH_C_FKeyGenCSR(const unsigned char *key, uint32_t key_len, const char *pin, const char *dn,
                                    unsigned char *out, uint32_t *in_out_len);

/* The library's built-in SM2 test key: the key pair of the GM/T 0003.5
 * signature example (d = 3945208F 7B2144B1 3F36E38A C6D39F95 88939369
 * 2860B51A 42FB81EF 4DF7C5B8). It is public: use it for tests and never to
 * protect anything. As PKCS#8 DER (unencrypted): */
ZEPH_API uint32_t ZEPH_C_TestGetP8Data(unsigned char *out, uint32_t *in_out_len);
/* As the 32-byte scalar and the 65-byte point 04 || x || y. */
ZEPH_API uint32_t ZEPH_C_TestGetECCKeyPair(unsigned char out_prikey[32], unsigned char out_pubkey[65]);

ZEPH_END_DECLS

#endif
