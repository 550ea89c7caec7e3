/* GM/T SM2 signed-data and envelope messages: the PKCS#7 layout with the GM
 * content-type arc 1.2.156.10197.6.1.4.2 and SM2, SM3 and SM4 algorithms.
 *
 * Every type T is an OpenSSL ASN.1 template type: T_new, T_free, d2i_T,
 * i2d_T and the item T_it, all exported. Objects from T_new / d2i_T are
 * released with T_free, which frees every member. Members are the OpenSSL
 * PKCS#7 and X.509 types.
 *
 * Encoding notes:
 * - SM2_Sign and SM2_Envelope carry their body as [0] IMPLICIT SEQUENCE OF;
 *   builders put exactly one element there, which makes the bytes those of
 *   a PKCS#7-style [0] EXPLICIT wrapper. Readers take the first element.
 * - SM2_SIGN_INFO.cert is a SEQUENCE OF: certificates keep the order in
 *   which they were pushed. crl is a SET OF.
 * - Builders write every AlgorithmIdentifier with an explicit NULL
 *   parameter. */
#ifndef ZEPH_C_P7_H
#define ZEPH_C_P7_H

#include <openssl/asn1.h>
#include <openssl/pkcs7.h>
#include <openssl/safestack.h>
#include <openssl/x509.h>
#include <stdint.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

/* Identifiers the messages carry. */
#define ZEPH_OID_SM2_DATA           "1.2.156.10197.6.1.4.2.1" /* data; content of an SM2 envelope */
#define ZEPH_OID_SM2_SIGNED_DATA    "1.2.156.10197.6.1.4.2.2" /* SM2_Sign ID */
#define ZEPH_OID_SM2_ENVELOPED_DATA "1.2.156.10197.6.1.4.2.3" /* SM2_Envelope ID */
#define ZEPH_OID_SM2_SIGN_301       "1.2.156.10197.1.301.1"   /* signature algorithm, "301" variant */
#define ZEPH_OID_SM2_SIGN_501       "1.2.156.10197.1.501"     /* "501" and "EX" variants; SM2 with SM3 */
#define ZEPH_OID_SM2_KEY_ENCRYPTION "1.2.156.10197.1.301.3"   /* SM2 recipient */
#define ZEPH_OID_RSA_ENCRYPTION     "1.2.840.113549.1.1.1"    /* RSA recipient; RSA PKCS#7 signatures */
#define ZEPH_OID_PKCS7_DATA         "1.2.840.113549.1.7.1"    /* content of an RSA envelope */
#define ZEPH_OID_SM4                "1.2.156.10197.1.104"     /* content encryption of every envelope */

/* The structures follow the ASN.1 layouts field by field. */
/* clang-format off */

/* The signed content: ID is ZEPH_OID_SM2_DATA, Data holds the signed bytes
 * as one OCTET STRING ([0] IMPLICIT SEQUENCE OF OCTET STRING, OPTIONAL). */
typedef struct RAW_DATA_SM2_st {
  ASN1_OBJECT *ID;
  STACK_OF(ASN1_OCTET_STRING) *Data;
} RAW_DATA_SM2;

/* The signed-data body. version is written as 1; md_algs and signer_info
 * are SETs; cert is [0] IMPLICIT SEQUENCE OF Certificate, crl [1] IMPLICIT
 * SET OF CertificateList, both OPTIONAL. */
typedef struct SM2_SIGN_INFO_st {
  ASN1_INTEGER *version;
  STACK_OF(X509_ALGOR) *md_algs;
  RAW_DATA_SM2 *contents;
  STACK_OF(X509) *cert;
  STACK_OF(X509_CRL) *crl;
  STACK_OF(PKCS7_SIGNER_INFO) *signer_info;
} SM2_SIGN_INFO;

/* One recipient set and the encrypted content; version is left at 0. */
typedef struct SM2_Envelope_Item_st {
  ASN1_INTEGER *version;
  STACK_OF(PKCS7_RECIP_INFO) *recipientinfo;
  PKCS7_ENC_CONTENT *enc_data;
} SM2_Envelope_Item;

/* OpenSSL 3.0 has no stack functions for OCTET STRINGs. */
#ifndef ZEPH_SK_ASN1_OCTET_STRING_DEFINED
#define ZEPH_SK_ASN1_OCTET_STRING_DEFINED
DEFINE_STACK_OF(ASN1_OCTET_STRING)
#endif
SKM_DEFINE_STACK_OF(SM2_SIGN_INFO, SM2_SIGN_INFO, SM2_SIGN_INFO)
SKM_DEFINE_STACK_OF(SM2_Envelope_Item, SM2_Envelope_Item, SM2_Envelope_Item)

/* The outer signed message: ID is ZEPH_OID_SM2_SIGNED_DATA. */
typedef struct SM2_Sign_st {
  ASN1_OBJECT *ID;
  STACK_OF(SM2_SIGN_INFO) *SM2_Sign_Infos;
} SM2_Sign;

/* The outer enveloped message: ID is ZEPH_OID_SM2_ENVELOPED_DATA. */
typedef struct SM2_Envelope_st {
  ASN1_OBJECT *ID;
  STACK_OF(SM2_Envelope_Item) *SM2_Envelope_Items;
} SM2_Envelope;

DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, RAW_DATA_SM2)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_SIGN_INFO)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_Sign)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_Envelope_Item)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_Envelope)
    /* clang-format on */

    /* The digest identifier of a library digest ID (1 SM3, 2 SHA-1, 4 SHA-256,
     * 8 SHA-384, 16 SHA-512, 32 SHA-224, 128 MD5) as dotted text; NULL for any
     * other value. The text is static. */
    ZEPH_API const char *getHashAlgOID(uint32_t hash_id);

/* ---- SM2 signed messages (SM2_Sign) ------------------------------------ */

/* Signs data with the SM2 signing key of the handle's key and wraps it as a
 * DER SM2_Sign: one SM2_SIGN_INFO (version 1, SM3), the data attached, the
 * certificates of cert_chain (a DER PKCS#7 certificate bundle, or a single
 * DER certificate; optional) in their order, then the signer's certificate
 * read from the key, and one SignerInfo whose signature algorithm is
 * 1.2.156.10197.1.301.1 (_301) or 1.2.156.10197.1.501 (_501). The signature
 * is the key's SM2 signature over the data (SM3 with Z, identity
 * "1234567812345678"), as ZEPH_C_DoSm2Sign makes it.
 *
 * Output: a NULL out asks for the length without signing (no PIN is
 * needed); the answer is an upper bound, since an SM2 signature is 70 to 72
 * bytes long, and the message may come out up to 2 bytes shorter. Otherwise
 * *in_out_len is the capacity (ERR_BUFFER_TOO_SMALL with the length when it
 * is short) and receives the length written.
 *
 * Statuses: those of the key (PIN, signing, a missing certificate)
 * unchanged; ERR_GET_CERT_FAILED when the key's library cannot export the
 * certificate or it does not decode; ERR_CERT_CHAIN_FAILED for a bundle
 * that does not decode; ZEPH_ERR_MISSING_HANDLE for a missing handle;
 * ERR_INVALID_PARAMETER for a missing length. */
ZEPH_API uint32_t ZEPH_C_DoSm2SignToPKCS7_301(void *handle, const char *pin, const unsigned char *data,
                                              uint32_t data_len, const unsigned char *cert_chain,
                                              uint32_t cert_chain_len, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_DoSm2SignToPKCS7_501(void *handle, const char *pin, const unsigned char *data,
                                              uint32_t data_len, const unsigned char *cert_chain,
                                              uint32_t cert_chain_len, unsigned char *out, uint32_t *in_out_len);
/* The 501 layout with a choice of digest identifier (hash_id, labelling
 * md_algs and the SignerInfo; the signature stays SM3 with Z), an optional
 * signer certificate (DER; used instead of the one on the key; one that does
 * not decode gives ERR_CERT_DECODE_FAILED) and an optional DER CRL (carried
 * in crl; one that does not decode gives ERR_CRL_FAILED). A hash_id that
 * getHashAlgOID does not know gives ERR_ALG_UNSUPPORTED. */
ZEPH_API uint32_t ZEPH_C_DoSm2SignToPKCS7_EX(void *handle, const char *pin, const unsigned char *data,
                                             uint32_t data_len, const unsigned char *cert_chain,
                                             uint32_t cert_chain_len, uint32_t hash_id, const unsigned char *sign_cert,
                                             uint32_t sign_cert_len, const unsigned char *crl, uint32_t crl_len,
                                             unsigned char *out, uint32_t *in_out_len);

/* Verifies a DER SM2_Sign: its first SM2_SIGN_INFO, every SignerInfo in it
 * (at least one), each signer's certificate found by issuer and serial
 * number among the certificates the message carries. The signature is SM2
 * with identity "1234567812345678" over the content, or, when the SignerInfo
 * has authenticated attributes, over their DER SET (whose message-digest
 * must then be the SM3 of the content). The content is the attached one;
 * for a detached message (no Data) pass it as content. When both are there
 * they must be equal. The certificates are not checked for trust.
 *
 * out_content receives the content by the output protocol above; pass NULL
 * for both out_content and in_out_content_len to verify only.
 * 0, or ERR_SIGNATURE_INVALID for anything that does not verify or decode. */
ZEPH_API uint32_t ZEPH_C_VerifySm2SignPKCS7(const unsigned char *msg, uint32_t msg_len, const unsigned char *content,
                                            uint32_t content_len, unsigned char *out_content,
                                            uint32_t *in_out_content_len);

/* ---- Standard PKCS#7 signed-data ---------------------------------------- */

#define ZEPH_P7_ATTACHED 0u
#define ZEPH_P7_DETACHED 1u

/* PKCS#7 signed-data (1.2.840.113549.1.7.2) made with the key of area
 * asym_id (ZEPH_AREA_RSA or ZEPH_AREA_SM2): version 1, the data attached or
 * not (ZEPH_P7_DETACHED), the bundle's certificates then the signer's, and
 * one SignerInfo with the signed attributes content-type, signing-time,
 * message-digest and ESS signing-certificate-v2 (SHA-256 of the signer's
 * certificate, with its issuer and serial number).
 * RSA: digest_id 2 (SHA-1), 4 (SHA-256, the default when 0), 8 or 16 hashes the data
 * and the attributes; PKCS#1 v1.5, digest-encryption algorithm rsaEncryption.
 * SM2: SM3 only (digest_id 0 or 1); the SM2 signature over the DER of the
 * attribute SET with identity "1234567812345678", algorithm
 * 1.2.156.10197.1.501.
 * Output and statuses as for ZEPH_C_DoSm2SignToPKCS7_301 (the length query
 * is exact for RSA); ERR_UNSUPPORTED_VALUE for another area or digest. */
ZEPH_API uint32_t ZEPH_C_DoSignToPKCS7(void *handle, const char *pin, uint32_t asym_id, uint32_t digest_id,
                                       uint32_t detached, const unsigned char *data, uint32_t data_len,
                                       const unsigned char *cert_chain, uint32_t cert_chain_len, unsigned char *out,
                                       uint32_t *in_out_len);

/* Verifies a DER PKCS#7 signed-data with RSA or SM2 signers, as
 * ZEPH_C_VerifySm2SignPKCS7 does for SM2_Sign: every signer, its certificate
 * among those carried, message-digest against the content, the signature
 * over the attribute SET (or the content when there are no attributes), and
 * an ESS signing-certificate(-v2) attribute when present must name the
 * signer's certificate. Trust is not checked. Same outputs and statuses. */
ZEPH_API uint32_t ZEPH_C_VerifyPKCS7(const unsigned char *p7, uint32_t p7_len, const unsigned char *content,
                                     uint32_t content_len, unsigned char *out_content, uint32_t *in_out_content_len);

/* ---- Envelopes ---------------------------------------------------------- */

/* Layouts of ZEPH_C_EncodeEnveloperWithCert. */
#define ZEPH_ENVELOPE_DEFAULT 0u /* SM2 certificate: GM layout; RSA: PKCS#7 enveloped-data */
#define ZEPH_ENVELOPE_GM      1u /* the GM layout (SM2_Envelope) for either kind */

/* Seals data for the holder of a DER certificate (SM2 or RSA) under a fresh
 * 16-byte SM4 key.
 * GM layout: SM2_Envelope with one item; the content is SM4-ECB with PKCS#7
 * padding, algorithm 1.2.156.10197.1.104 with a NULL parameter; the key is
 * the DER SM2 ciphertext (key-encryption 1.2.156.10197.1.301.3) or RSA
 * PKCS#1 v1.5 (1.2.840.113549.1.1.1, content type 1.2.840.113549.1.7.1).
 * PKCS#7 enveloped-data (RSA only): PKCS#1 v1.5 key transport, SM4-CBC
 * content with a random IV, as `openssl cms -decrypt` reads it.
 *
 * Output: a NULL out reports the length plus 128 (a new envelope may differ
 * by a few bytes, since SM2 ciphertexts vary in length); a capacity below
 * the length gives ERR_BUFFER_TOO_SMALL and also reports the length plus
 * 128; otherwise the exact length.
 * Statuses: ERR_CERT_DECODE_FAILED (not a certificate),
 * ERR_UNSUPPORTED_VALUE (neither RSA nor SM2 key, or an unknown
 * wrapper_type), ERR_ENVELOPE_FAILED, ERR_ASYM_CRYPT_FAILED. */
ZEPH_API uint32_t ZEPH_C_EncodeEnveloperWithCert(const unsigned char *cert, uint32_t cert_len,
                                                 const unsigned char *data, uint32_t data_len, uint32_t wrapper_type,
                                                 unsigned char *out, uint32_t *in_out_len);
/* The same with the content key drawn from the key's random generator. */
ZEPH_API uint32_t ZEPH_C_EncodeEnveloperWithCryptoDevice(void *handle, const unsigned char *cert, uint32_t cert_len,
                                                         const unsigned char *data, uint32_t data_len,
                                                         uint32_t wrapper_type, unsigned char *out,
                                                         uint32_t *in_out_len);

/* Opens an envelope of either layout (GM SM2_Envelope, or PKCS#7 /
 * CMS enveloped-data with key transport to an RSA or SM2 recipient and any
 * content cipher OpenSSL knows) with the encryption key pair of the key's
 * area asym_id (ZEPH_AREA_RSA or ZEPH_AREA_SM2; 0 takes the area from the
 * envelope's first recipient). The recipient whose issuer and serial number
 * are those of the area's encryption certificate is tried first, then the
 * others of the area's kind; the PIN is verified once.
 * Output by the protocol above (a length query decrypts too).
 * Statuses: those of the key unchanged (PIN, decryption);
 * ERR_ENVELOPE_FAILED for an envelope that does not decode, has no
 * recipient of the area's kind, or whose content does not decrypt. */
ZEPH_API uint32_t ZEPH_C_DecodeEnveloper(void *handle, const char *pin, uint32_t asym_id, const unsigned char *env,
                                         uint32_t env_len, unsigned char *out, uint32_t *in_out_len);
/* The same with a software private key: DER PKCS#8 (RSA or SM2), encrypted
 * under password when it is an EncryptedPrivateKeyInfo (password may be NULL
 * otherwise). A key that does not load gives ERR_INVALID_PARAMETER. */
ZEPH_API uint32_t ZEPH_C_DecodeEnveloperWithPrivateKey(const unsigned char *pkcs8, uint32_t pkcs8_len,
                                                       const char *password, const unsigned char *env, uint32_t env_len,
                                                       unsigned char *out, uint32_t *in_out_len);

/* Raw key unwrapping with the key's encryption pair: an SM2 ciphertext (DER
 * SM2_Ciphertext_Structure) with the SM2 area, an RSA PKCS#1 v1.5 block with
 * the RSA area. Output by the protocol above; statuses of the key unchanged,
 * ERR_SM2_CIPHER_FORMAT for an SM2 ciphertext that does not decode. */
ZEPH_API uint32_t ZEPH_C_DecodeSM2SymkeyCipher(void *handle, const char *pin, const unsigned char *cipher,
                                               uint32_t cipher_len, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_DecodeRSASymkeyCipher(void *handle, const char *pin, const unsigned char *cipher,
                                               uint32_t cipher_len, unsigned char *out, uint32_t *in_out_len);

/* ---- Symmetric encryption by algorithm ID -------------------------------- */

/* The IDEA-based SDBI cipher (zeph_c_sdbi.h) under the library's own ID. */
#define ZEPH_ALG_IDEA_SDBI 0x00001001u

/* Encrypts (encrypt 1) or decrypts (0) with a 16-byte key:
 *   SGD_SM4_ECB (0x401)      SM4-ECB, PKCS#7 padding
 *   SGD_SM4_CBC (0x402)      SM4-CBC, PKCS#7 padding; encryption draws a
 *                            random IV and writes IV || ciphertext,
 *                            decryption reads the IV from the front
 *   ZEPH_ALG_IDEA_SDBI       the SDBI layout
 * Output by the protocol above. ERR_UNSUPPORTED_VALUE for another ID,
 * ERR_INVALID_PARAMETER for a key that is not 16 bytes,
 * ERR_PADDING_INVALID for a ciphertext that does not decrypt. */
ZEPH_API uint32_t ZEPH_C_DoSymmetricAlgorithm(uint32_t alg_id, uint32_t encrypt, const unsigned char *key,
                                              uint32_t key_len, const unsigned char *in, uint32_t in_len,
                                              unsigned char *out, uint32_t *in_out_len);

ZEPH_END_DECLS

#endif
