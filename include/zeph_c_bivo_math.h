/* Two-party SM2: one SM2 private key split between a client (the user's
 * side) and a co-signing server, so that neither ever holds the whole key,
 * yet together they make ordinary SM2 signatures and decrypt ordinary SM2
 * ciphertexts under the joint public key.
 *
 *   client share  d1, d1^-1          P1 = d1^-1·G            client -> server
 *   server share  d2, d2^-1          P  = d2^-1·P1 - G        server -> client
 *   credential                       d2^-1·G                  server -> client
 *   joint key     d = (d1·d2)^-1 - 1 (never computed anywhere), P = d·G
 *
 * Encodings: scalars (d1, d1^-1, d2, d2^-1, k1, r, s2, s3, e) are 32 bytes
 * big-endian; points (P1, P, credential, Q1, T1, T2, C1) are 65 bytes
 * 0x04 || x || y. The first byte of a point argument is not read; both
 * coordinates must be below p and the point on the curve (the point at
 * infinity has no such encoding). Scalars received from the other side must
 * lie in [1, n-1]. Outputs are written only on success, except where a
 * function says otherwise. Secret values are d1, d1^-1, d2, d2^-1 and k1:
 * keep them, never send them.
 *
 * Random draws: the plain variants use OpenSSL's generator (a draw of 0 is
 * repeated); WithDrbg / AndDrbg take the module handle and draw in [2, n-1]
 * from its generator; WithMixedSource / AndMixedSource XOR the caller's
 * external bytes into every draw (zeph_c_gm.h). Their statuses pass through.
 *
 * Statuses (0 is success; 1, 4, 5, 6, 8, 50 and the draw statuses as in
 * zeph_c_gm.h and zeph_c_sm2.h):
 *   1  a required pointer is null
 *   5  no SM2 public key in the certificate
 *   6  the identity is longer than 8191 bytes
 *   8  the assembled signature does not verify (checked assembly)
 *  10  key share: a bad P1 or share, or a curve step failed
 *  11  credential: d2^-1 out of range
 *  12  the key shares do not match (or a value is out of range)
 *  13  signature share: a bad key, Q1 or d2, or a curve step failed
 *  14  assembly: d1, k1, r, s2 or s3 outside [1, n-1]
 *  15  assembly: s is 0
 *  16  the signature cannot be encoded
 *  17  plaintext share: a bad coordinate, point or inverse share
 *  18  the ciphertext is not one DER SM2_Ciphertext_Structure
 *  19  the ciphertext's C3 is not 32 bytes
 *  20  C1 is the point at infinity (encoded as x = y = 0)
 *  21  combine: a bad C1 or T2, T2 - C1 at infinity, an all-zero key
 *      stream, or C3 does not match
 *  25  C2_out is too small (plaintext share; the length is written back)
 *  50  BIVO_get_status: the generator must be reseeded */
#ifndef ZEPH_C_BIVO_MATH_H
#define ZEPH_C_BIVO_MATH_H

#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_gm.h"

ZEPH_BEGIN_DECLS

#define BIVO_ERR_KEY_SHARE       10u
#define BIVO_ERR_CREDENTIAL      11u
#define BIVO_ERR_KEY_SHARES      12u
#define BIVO_ERR_SIG_SHARE       13u
#define BIVO_ERR_ASSEMBLY        14u
#define BIVO_ERR_ZERO_S          15u
#define BIVO_ERR_SIG_ENCODE      16u
#define BIVO_ERR_PLAINTEXT_SHARE 17u
#define BIVO_ERR_CIPHER_DER      18u
#define BIVO_ERR_CIPHER_HASH     19u
#define BIVO_ERR_C1_INFINITY     20u
#define BIVO_ERR_COMBINE         21u
#define BIVO_VERSION             0x10000u

/* ==== Module =========================================================== */

/* 0x10000, whatever the handle. */
ZEPH_API uint32_t BIVO_get_version(BIVO_HANDLE handle);
/* Runs the algorithm self-test (BIVO_test_crypto_algorithm) and returns its
 * status when it fails; then 1 for a null handle, 50 when the handle's
 * generator has served 2^48 requests or more since its last seeding, else 0.
 * While the self-test runs, OpenSSL's random method is replaced. */
ZEPH_API uint32_t BIVO_get_status(BIVO_HANDLE *handle);

/* ==== Key generation ==================================================== */
/* Order: client CreateKeyShare (keeps d1 and d1^-1, sends P1); server
 * CreateKeyShare on P1 (keeps d2 and d2^-1, returns P); server
 * CreateKeyShareCredential on d2^-1; client VerifyKeyShares. Accept P only
 * when that returns 0, and use no other key for Z and e afterwards. */

ZEPH_API uint32_t BIVO_Client_CreateKeyShare(unsigned char *d1_out, unsigned char *d1_inv_out, unsigned char *P1_out);
ZEPH_API uint32_t BIVO_Client_CreateKeyShareWithDrbg(BIVO_HANDLE handle, unsigned char *d1_out,
                                                     unsigned char *d1_inv_out, unsigned char *P1_out);
ZEPH_API uint32_t BIVO_Client_CreateKeyShareWithMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                            unsigned char *d1_out, unsigned char *d1_inv_out,
                                                            unsigned char *P1_out);

/* P = d2^-1·P1 - G. 10 for a P1 off the curve. */
ZEPH_API uint32_t BIVO_Server_CreateKeyShare(const unsigned char *P1, unsigned char *d2_out, unsigned char *d2_inv_out,
                                             unsigned char *P_out);
ZEPH_API uint32_t BIVO_Server_CreateKeyShareWithDrbg(BIVO_HANDLE handle, const unsigned char *P1, unsigned char *d2_out,
                                                     unsigned char *d2_inv_out, unsigned char *P_out);
ZEPH_API uint32_t BIVO_Server_CreateKeyShareWithMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                            const unsigned char *P1, unsigned char *d2_out,
                                                            unsigned char *d2_inv_out, unsigned char *P_out);
/* credential = d2^-1·G. */
ZEPH_API uint32_t BIVO_Server_CreateKeyShareCredential(const unsigned char *d2_inv, unsigned char *credential_out);

/* 0 when d1·(P + G) equals the credential, that is when P was built from
 * this client's P1; else 12. */
ZEPH_API uint32_t BIVO_Client_VerifyKeyShares(const unsigned char *d1, const unsigned char *P,
                                              const unsigned char *credential);

/* ==== Signing =========================================================== */
/* Order: client CreateSigShare* (keeps k1 and e, sends e and Q1 = k1·G);
 * server CreateSigShare* with its d2 (returns r, s2, s3); client
 * AssemblySigEncode* with d1 and k1. Use each k1 for one signature only.
 * The result is the DER SEQUENCE { r, s } of an ordinary SM2 signature on e,
 * at most 72 bytes. */

/* e is not read: the nonce share does not depend on it. */
ZEPH_API uint32_t BIVO_Client_CreateSigShareOnDigest(const unsigned char *e, unsigned char *k1_out,
                                                     unsigned char *Q1_out);
ZEPH_API uint32_t BIVO_Client_CreateSigShareOnDigestWithDrbg(BIVO_HANDLE handle, const unsigned char *e,
                                                             unsigned char *k1_out, unsigned char *Q1_out);
ZEPH_API uint32_t BIVO_Client_CreateSigShareOnDigestWithMixedSource(BIVO_HANDLE handle, const unsigned char *e,
                                                                    const unsigned char *external32,
                                                                    unsigned char *k1_out, unsigned char *Q1_out);

/* e = SM3(Z || msg) with the NUL-terminated identity id and the joint key
 * (13 when it is not a curve point), then the nonce share; e is handed back. */
ZEPH_API uint32_t BIVO_Client_CreateSigShareWithPubKey(const char *id, const unsigned char *pubkey65,
                                                       uint32_t pubkey_len, const unsigned char *msg, uint32_t msg_len,
                                                       unsigned char *k1_out, unsigned char *e_out,
                                                       unsigned char *Q1_out);
/* The key from a DER certificate (file), identity "1234567812345678". */
ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCert(const unsigned char *cert_der, uint32_t cert_len,
                                                     const unsigned char *msg, uint32_t msg_len, unsigned char *k1_out,
                                                     unsigned char *e_out, unsigned char *Q1_out);
ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertFile(const char *path, const unsigned char *msg, uint32_t msg_len,
                                                         unsigned char *k1_out, unsigned char *e_out,
                                                         unsigned char *Q1_out);

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithPubKeyAndDrbg(BIVO_HANDLE handle, const char *id,
                                                              const unsigned char *pubkey65, uint32_t pubkey_len,
                                                              const unsigned char *msg, uint32_t msg_len,
                                                              unsigned char *k1_out, unsigned char *e_out,
                                                              unsigned char *Q1_out);
ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertAndDrbg(BIVO_HANDLE handle, const unsigned char *cert_der,
                                                            uint32_t cert_len, const unsigned char *msg,
                                                            uint32_t msg_len, unsigned char *k1_out,
                                                            unsigned char *e_out, unsigned char *Q1_out);
ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertFileAndDrbg(BIVO_HANDLE handle, const char *path,
                                                                const unsigned char *msg, uint32_t msg_len,
                                                                unsigned char *k1_out, unsigned char *e_out,
                                                                unsigned char *Q1_out);

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithPubKeyAndMixedSource(BIVO_HANDLE handle,
                                                                     const unsigned char *external32, const char *id,
                                                                     const unsigned char *pubkey65, uint32_t pubkey_len,
                                                                     const unsigned char *msg, uint32_t msg_len,
                                                                     unsigned char *k1_out, unsigned char *e_out,
                                                                     unsigned char *Q1_out);
ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertAndMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                                   const unsigned char *cert_der, uint32_t cert_len,
                                                                   const unsigned char *msg, uint32_t msg_len,
                                                                   unsigned char *k1_out, unsigned char *e_out,
                                                                   unsigned char *Q1_out);
ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertFileAndMixedSource(BIVO_HANDLE handle,
                                                                       const unsigned char *external32,
                                                                       const char *path, const unsigned char *msg,
                                                                       uint32_t msg_len, unsigned char *k1_out,
                                                                       unsigned char *e_out, unsigned char *Q1_out);

/* Draws k2 then k3 (fresh for every attempt), X = k3·Q1 + k2·G,
 * r = (x(X) + e) mod n, s2 = d2·k3, s3 = d2·(r + k2), all mod n. Attempts
 * with r = 0 or s3 = 0 are drawn again, a bounded number of times. The mixed
 * variant's 64 external bytes go 0..31 into k2 and 32..63 into k3. 13 for a
 * Q1 off the curve or a d2 outside [1, n-1]. */
ZEPH_API uint32_t BIVO_Server_CreateSigShare(const unsigned char *e, const unsigned char *Q1, const unsigned char *d2,
                                             unsigned char *r_out, unsigned char *s2_out, unsigned char *s3_out);
ZEPH_API uint32_t BIVO_Server_CreateSigShareWithDrbg(BIVO_HANDLE handle, const unsigned char *e,
                                                     const unsigned char *Q1, const unsigned char *d2,
                                                     unsigned char *r_out, unsigned char *s2_out,
                                                     unsigned char *s3_out);
ZEPH_API uint32_t BIVO_Server_CreateSigShareWithMixedSource(BIVO_HANDLE handle, const unsigned char *e,
                                                            const unsigned char *Q1, const unsigned char *external64,
                                                            const unsigned char *d2, unsigned char *r_out,
                                                            unsigned char *s2_out, unsigned char *s3_out);

/* s = (d1·k1·s2 + d1·s3 - r) mod n; sig_out must hold 72 bytes, *sig_len
 * receives the DER length. 14 when d1, k1, r, s2 or s3 lies outside
 * [1, n-1]; 15 when s is 0. Nothing is written unless the status is 0. */
ZEPH_API uint32_t BIVO_Client_AssemblySigEncode(const unsigned char *d1, const unsigned char *k1,
                                                const unsigned char *r, const unsigned char *s2,
                                                const unsigned char *s3, unsigned char *sig_out, uint32_t *sig_len);
/* The same, and the signature is released only when it verifies on e under
 * the joint key: 8 otherwise (also for a key that is not a curve point).
 * Hosts should prefer this form: a faulty or hostile server cannot make it
 * hand out a signature that does not verify. */
ZEPH_API uint32_t BIVO_Client_AssemblySigEncodeWithPubKey(const unsigned char *d1, const unsigned char *k1,
                                                          const unsigned char *r, const unsigned char *s2,
                                                          const unsigned char *s3, const unsigned char *e,
                                                          const unsigned char *pubkey65, uint32_t pubkey_len,
                                                          unsigned char *sig_out, uint32_t *sig_len);

/* ==== Decryption ======================================================== */
/* Order: client CreatePlaintextShare (keeps C1, C2, C3, sends T1); server
 * CreatePlaintextShare (returns T2); client CombinePlaintextShares. The
 * ciphertext is DER SM2_Ciphertext_Structure (C1C3C2, zeph_c_sm2.h). */

/* T1 = d1^-1·C1. *C2_len is the capacity of C2_out on entry (cipher_len
 * bytes always suffice) and the length of C2 on return; a short capacity
 * gives 25 with the length written back and nothing else written.
 * Unlike the other steps, C3_out, C2_out and C1_out are written as soon as
 * the ciphertext has been taken apart, before C1 is checked against the
 * curve: use them only when the status is 0. Coordinates that do not fit
 * 32 bytes or are not below p give 17 with nothing written. */
ZEPH_API uint32_t BIVO_Client_CreatePlaintextShare(const unsigned char *cipher_der, uint32_t cipher_len,
                                                   const unsigned char *d1_inv, unsigned char *T1_out,
                                                   unsigned char *C1_out, unsigned char *C2_out, uint32_t *C2_len,
                                                   unsigned char *C3_out);
/* T2 = d2^-1·T1. 17 for a T1 off the curve or d2^-1 outside [1, n-1]. */
ZEPH_API uint32_t BIVO_Server_CreatePlaintextShare(const unsigned char *T1, const unsigned char *d2_inv,
                                                   unsigned char *T2_out);
/* (x2, y2) = T2 - C1, t = KDF(x2 || y2, C2_len), M = C2 xor t; plaintext_out
 * receives the C2_len bytes of M only when SM3(x2 || M || y2) equals C3.
 * An all-zero key stream (also an empty C2) is refused, as GM/T 0003.4
 * asks. */
ZEPH_API uint32_t BIVO_Client_CombinePlaintextShares(const unsigned char *C1, const unsigned char *C2, uint32_t C2_len,
                                                     const unsigned char *C3, const unsigned char *T2,
                                                     unsigned char *plaintext_out);

ZEPH_END_DECLS

#endif
