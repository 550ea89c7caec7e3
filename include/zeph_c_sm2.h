/* SM2 public-key encryption (GM/T 0003.4) and the ciphertext forms devices
 * and toolkits exchange, SM2 signature verification, the curve and
 * certificate helpers they share, and the self-test of the module's own SM3,
 * SM4 and SM2.
 *
 * Public keys are 65-byte points 0x04 || x || y; the first byte is not read,
 * pubkey_len must be at least 65. Both coordinates must be below p and the
 * point must lie on the curve.
 *
 * Statuses of this module (0 is success; see also zeph_c_gm.h):
 *   1  a required pointer is null
 *   5  no public key could be taken from the certificate
 *   6  the identity is longer than 8191 bytes
 *   7  the signature is not one DER SEQUENCE { r INTEGER, s INTEGER }
 *   8  the signature does not verify, or r, s or the key is out of range
 *   9  encryption failed: a key not on the curve, an empty or too long
 *      message, an output capacity below the encoded length, any step
 *   26..30 the self-test named below failed
 * A certificate file that cannot be read gives 0xFFFFFFFF (as
 * zeph_c_utils_readFile does). Random-draw statuses of the generator
 * variants pass through (zeph_c_gm.h). */
#ifndef ZEPH_C_SM2_H
#define ZEPH_C_SM2_H

#include <openssl/asn1.h>
#include <openssl/ec.h>
#include <stddef.h>
#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_gm.h"

ZEPH_BEGIN_DECLS

#define BIVO_ERR_CERT_KEY         5u
#define BIVO_ERR_SIGNATURE_FORMAT 7u
#define BIVO_ERR_VERIFY           8u
#define BIVO_ERR_ENCRYPT          9u
#define BIVO_ERR_TEST_SM3         26u
#define BIVO_ERR_TEST_PREPROCESS  27u
#define BIVO_ERR_TEST_SM4_ENCRYPT 28u
#define BIVO_ERR_TEST_SM4_DECRYPT 29u
#define BIVO_ERR_TEST_SM2_ENCRYPT 30u
#define BIVO_ERR_KDF_LENGTH       0xFFFFFFFFu

/* ==== Curve and keys =================================================== */

/* A fresh OpenSSL group of the SM2 recommended curve, built from its
 * parameters on every call (the caller frees it with EC_GROUP_free); NULL on
 * failure. */
ZEPH_API EC_GROUP *CreateSm2EllipticCurveGroup(void);

/* The subject public key bit string of a DER certificate (for an SM2
 * certificate the 65-byte point). key_out NULL asks for the length; a short
 * *key_len gives ERR_BUFFER_TOO_SMALL with the length written back. 5 when
 * the certificate cannot be parsed or has no key. */
ZEPH_API uint32_t GetSm2PubKey(const unsigned char *cert_der, uint32_t cert_len, unsigned char *key_out,
                               uint32_t *key_len);
/* The same from a DER certificate file. */
ZEPH_API uint32_t GetSm2PubKeyFromCertFile(const char *path, unsigned char *key_out, uint32_t *key_len);

/* ==== Encryption ======================================================= */
/* C1 = k·G, t = KDF(x2 || y2, msg_len) with (x2, y2) = k·P, C2 = M xor t,
 * C3 = SM3(x2 || M || y2), written as DER SM2_Ciphertext_Structure (C1C3C2).
 * A key stream of all zeros draws a new k, as GM/T 0003.4 asks.
 *
 * *out_len is the capacity of out on entry (those bytes are zeroed first) and
 * the DER length on return. Size out with
 * BIVO_ComputeSm2CiphertextEncodeLength; a capacity below the encoded length
 * gives 9 with the required length in *out_len and nothing written. msg_len
 * must be 1 .. 2^30.
 *
 * Plain variants draw k with OpenSSL's generator, the Drbg variants in
 * [2, n-1] from the handle's generator, the MixedSource variants likewise
 * with the caller's 32 bytes XORed into every draw. The certificate variants
 * take the key from a DER certificate (5 when there is none). */
ZEPH_API uint32_t BIVO_Sm2EncryptWithPubKey(const unsigned char *msg, uint32_t msg_len, const unsigned char *pubkey65,
                                            uint32_t pubkey_len, unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm2Encrypt(const unsigned char *msg, uint32_t msg_len, const unsigned char *cert_der,
                                  uint32_t cert_len, unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm2EncryptWithCertFile(const unsigned char *msg, uint32_t msg_len, const char *path,
                                              unsigned char *out, uint32_t *out_len);

ZEPH_API uint32_t BIVO_Sm2EncryptWithPubKeyAndDrbg(BIVO_HANDLE handle, const unsigned char *msg, uint32_t msg_len,
                                                   const unsigned char *pubkey65, uint32_t pubkey_len,
                                                   unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm2EncryptWithDrbg(BIVO_HANDLE handle, const unsigned char *msg, uint32_t msg_len,
                                          const unsigned char *cert_der, uint32_t cert_len, unsigned char *out,
                                          uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm2EncryptWithCertFileAndDrbg(BIVO_HANDLE handle, const unsigned char *msg, uint32_t msg_len,
                                                     const char *path, unsigned char *out, uint32_t *out_len);

ZEPH_API uint32_t BIVO_Sm2EncryptWithPubKeyAndMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                          const unsigned char *msg, uint32_t msg_len,
                                                          const unsigned char *pubkey65, uint32_t pubkey_len,
                                                          unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm2EncryptWithMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                 const unsigned char *msg, uint32_t msg_len,
                                                 const unsigned char *cert_der, uint32_t cert_len, unsigned char *out,
                                                 uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm2EncryptWithCertFileAndMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                            const unsigned char *msg, uint32_t msg_len,
                                                            const char *path, unsigned char *out, uint32_t *out_len);

/* The ANSI X9.63 key derivation with SM3 (the KDF of GM/T 0003): out_len
 * bytes of SM3(z || counter || shared_info), counter from 1, big-endian.
 * 0, or 0xFFFFFFFF when a length exceeds 2^30 or a pointer with a non-zero
 * length is NULL (checked before anything is written). */
ZEPH_API uint32_t ECDH_KDF_X9_62_COMPUTE(unsigned char *out, size_t out_len, const unsigned char *z, size_t z_len,
                                         const unsigned char *shared_info, size_t shared_info_len);

/* ==== Ciphertext encodings ============================================= */

/* DER SEQUENCE { C1x INTEGER, C1y INTEGER, C3 OCTET STRING, C2 OCTET STRING }. */
typedef struct SM2_Ciphertext_st {
  ASN1_INTEGER *C1x;
  ASN1_INTEGER *C1y;
  ASN1_OCTET_STRING *C3; /* SM3(x2 || M || y2), 32 bytes */
  ASN1_OCTET_STRING *C2; /* M xor t, as long as M */
} SM2_Ciphertext_Structure;

DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_Ciphertext_Structure)

    /* Sizing only: plain_len + 112 is the DER length for messages below 65,428
     * bytes and can be up to 4 bytes short above (longer DER length fields).
     * Encryption reports the exact length when the capacity is short. */
    ZEPH_API uint32_t BIVO_ComputeSm2CiphertextEncodeLength(uint32_t plain_len);
/* cipher_len - 106, or 0 below 107. */
ZEPH_API uint32_t BIVO_ComputeSm2PlaintextLength(uint32_t cipher_len);

/* The flat record: X (32 bytes, right-aligned), Y (32), HASH = C3 (32),
 * CipherLen (4 bytes, host order), Cipher = C2 (CipherLen bytes).
 * i2a allocates a block of CipherLen + 104 bytes and sets *out_len to
 * 100 + CipherLen; a2d reads a record of exactly 100 + CipherLen bytes and
 * allocates its DER. Both blocks are freed with ZEPH_C_MALLOC_FREE. Both
 * return 0 or ERR_SM2_CIPHER_FORMAT (0x8208003A): a NULL argument, a
 * coordinate beyond 32 bytes or negative, a C3 that is not 32 bytes, or a
 * CipherLen that disagrees with record_len. */
ZEPH_API uint32_t i2a_SM2Cipher2ECCEncryptData(const SM2_Ciphertext_Structure *ct, unsigned char **out_record,
                                               uint32_t *out_len);
ZEPH_API uint32_t a2d_SM2Cipher(const unsigned char *record, uint32_t record_len, unsigned char **out_der,
                                uint32_t *out_der_len);

/* Raw ciphertexts: 0x04 || x || y (C1, 65 bytes), then C3 || C2. */
#define BIVO_SM2_ORDER_C1C3C2 0 /* GM/T 0003.4 today */
#define BIVO_SM2_ORDER_C1C2C3 1 /* the older order many Java and device tools still emit */

/* DER to raw and back. A NULL out asks for the length; a short *out_len
 * gives ERR_BUFFER_TOO_SMALL with the length written back. Malformed input
 * (no 0x04 prefix, shorter than 97 bytes, undecodable or trailing bytes in
 * the DER) gives ERR_SM2_CIPHER_FORMAT; an unknown order
 * ERR_INVALID_PARAMETER. DER -> raw -> DER returns the same bytes for every
 * DER-encoded ciphertext. */
ZEPH_API uint32_t BIVO_Sm2CiphertextDerToRaw(const unsigned char *der, uint32_t der_len, int order, unsigned char *out,
                                             uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm2CiphertextRawToDer(const unsigned char *raw, uint32_t raw_len, int order, unsigned char *out,
                                             uint32_t *out_len);

/* ==== Signature verification =========================================== */
/* sig_der is DER SEQUENCE { r, s } exactly (no trailing bytes, minimal
 * encodings): otherwise 7. r and s must lie in [1, n-1] with r + s != n; the
 * key's coordinates below p and on the curve: otherwise 8. */
ZEPH_API uint32_t BIVO_VerifySm2SignatureOnDigestWithPubKey(const unsigned char *e32, const unsigned char *pubkey65,
                                                            uint32_t pubkey_len, const unsigned char *sig_der,
                                                            uint32_t sig_len);
/* e = SM3(Z || M) with the NUL-terminated identity id, then as above. */
ZEPH_API uint32_t BIVO_VerifySm2SignatureWithPubKey(const unsigned char *msg, uint32_t msg_len, const char *id,
                                                    const unsigned char *pubkey65, uint32_t pubkey_len,
                                                    const unsigned char *sig_der, uint32_t sig_len);
/* The key from a DER certificate (file), identity "1234567812345678". */
ZEPH_API uint32_t BIVO_VerifySm2Signature(const unsigned char *msg, uint32_t msg_len, const unsigned char *cert_der,
                                          uint32_t cert_len, const unsigned char *sig_der, uint32_t sig_len);
ZEPH_API uint32_t BIVO_VerifySm2SignatureWithCertFile(const unsigned char *msg, uint32_t msg_len, const char *path,
                                                      const unsigned char *sig_der, uint32_t sig_len);

/* ==== Self-tests ======================================================= */
/* Known answers from GM/T 0002, 0003 and 0004. Each returns 0 when it passes.
 * Self-tests exclude each other within the process; while the SM2
 * encryption test runs, OpenSSL's random method is replaced (see below), so
 * do not run it beside other work that draws from OpenSSL's generator. */

/* Runs, stopping at the first failure: sm3_digest, sm3_digest_with_preprocess,
 * sm4_encrypt_and_decrypt, sm4_ecb_..._with_padding,
 * sm4_cbc_..._with_padding, sm2_verify_signature, sm2_encrypt. */
ZEPH_API uint32_t BIVO_test_crypto_algorithm(void);
ZEPH_API uint32_t BIVO_test_sm3_digest(void);                               /* 26 */
ZEPH_API uint32_t BIVO_test_sm3_digest_with_preprocess(void);               /* 27 */
ZEPH_API uint32_t BIVO_test_sm4_encrypt_and_decrypt(void);                  /* 28, 29 */
ZEPH_API uint32_t BIVO_test_sm4_ecb_encrypt_and_decrypt_with_padding(void); /* 28, 29 */
ZEPH_API uint32_t BIVO_test_sm4_cbc_encrypt_and_decrypt_with_padding(void); /* 28, 29 */
ZEPH_API uint32_t BIVO_test_sm2_verify_signature(void);                     /* the verification's */
ZEPH_API uint32_t BIVO_test_sm2_encrypt(void);                              /* 30, 4, the encryption's */
/* Not part of BIVO_test_crypto_algorithm: */
ZEPH_API uint32_t BIVO_test_sm4_million_encrypt(void);                        /* 28 */
ZEPH_API uint32_t BIVO_test_sm4_ecb_encrypt_with_padding(void);               /* 28 */
ZEPH_API uint32_t BIVO_test_sm4_ecb_decrypt_with_auto_removing_padding(void); /* 29 */
ZEPH_API uint32_t BIVO_test_sm4_cbc_encrypt_with_padding(void);               /* 28 */
ZEPH_API uint32_t BIVO_test_sm4_cbc_decrypt_with_auto_removing_padding(void); /* 29 */

/* The fixed random source of the SM2 encryption test. start_fake_rand saves
 * OpenSSL's random method and installs a copy whose byte function is
 * get_faked_bytes, serving the bytes of hex_text in order to the calling
 * thread, then (and to every other thread) bytes of the saved method.
 * Returns 1, or 0 for bad hex or when a fake source is already installed.
 * restore_rand reinstalls the saved method and frees the bytes: 1, or 0 when
 * none was installed. */
ZEPH_API int start_fake_rand(const char *hex_text);
ZEPH_API int restore_rand(void);
ZEPH_API int get_faked_bytes(unsigned char *buf, int num);

ZEPH_END_DECLS

#endif
