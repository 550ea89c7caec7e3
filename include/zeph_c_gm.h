/* The library's own GM algorithms: SM3 and the SM2 Z digest, the SM3 hash
 * DRBG and its module handle, SM4 modes with padding and file variants.
 *
 * Statuses of this module are small numbers (0 is success):
 *   1  a required pointer is null (generator and handle operations)
 *   2  a file cannot be opened, measured or read
 *   4  allocation failure
 *   6  digest failure, or an identity above 8191 bytes
 *   24 zero or malformed length (DRBG derivation, SM4 block lengths)
 *   25 output capacity too small (padding helpers)
 *   32 entropy length 0; range below 3 in range sampling
 *   48 entropy shorter than 256 bytes
 *   49 generate request above 65536 bytes
 *   50 reseed counter above 2^48: reseed first
 *   51 Hashgen failed (also a zero-length generate request)
 *   52 additional input given to generate (always refused)
 *   54, 55, 56 big-number context, reduction, copy failed in range sampling
 *   58 invalid padding after decryption
 * SM3 and SM4 operations given a null pointer return ERR_INVALID_PARAMETER
 * (zeph_c_status.h). */
#ifndef ZEPH_C_GM_H
#define ZEPH_C_GM_H

#include <openssl/bn.h>
#include <stddef.h>
#include <stdint.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

#define BIVO_ERR_NULL_POINTER     1u
#define BIVO_ERR_FILE             2u
#define BIVO_ERR_NO_MEMORY        4u
#define BIVO_ERR_DIGEST           6u
#define BIVO_ERR_LENGTH           24u
#define BIVO_ERR_BUFFER_TOO_SMALL 25u
#define BIVO_ERR_ZERO             32u
#define BIVO_ERR_SHORT_ENTROPY    48u
#define BIVO_ERR_REQUEST_TOO_LONG 49u
#define BIVO_ERR_RESEED_REQUIRED  50u
#define BIVO_ERR_HASHGEN          51u
#define BIVO_ERR_GENERATE         52u
#define BIVO_ERR_BN_CTX           54u
#define BIVO_ERR_BN_MOD           55u
#define BIVO_ERR_BN_COPY          56u
#define BIVO_ERR_PADDING          58u

/* ==== SM3 ============================================================== */

/* A running SM3 hash. Contexts from the _init operations below live on the
 * heap and are released by the matching _final, never by the caller. */
typedef struct bivo_sm3_ctx_st {
  uint32_t state[8];      /* chaining value */
  uint32_t Nl;            /* message bits modulo 2^32 */
  uint32_t Nh;            /* high word of the bit count */
  unsigned char data[64]; /* partial block */
  uint32_t num;           /* bytes pending in data, 0..63 */
} BIVO_SM3_CTX;

/* Core: each returns 1 (0 only for a null context). sm3_final writes the
 * digest first-argument-first, wipes the block buffer and leaves the context
 * finished: run sm3_init again to reuse it. */
ZEPH_API int sm3_init(BIVO_SM3_CTX *ctx);
ZEPH_API int sm3_update(BIVO_SM3_CTX *ctx, const void *data, uint64_t len);
ZEPH_API int sm3_final(unsigned char *out32, BIVO_SM3_CTX *ctx);
/* Compresses n whole 64-byte blocks into the chaining value. */
ZEPH_API int sm3_block_data_order(BIVO_SM3_CTX *ctx, const void *blocks, size_t n);
ZEPH_API int sm3_transform(BIVO_SM3_CTX *ctx, const unsigned char *block64);

ZEPH_API uint32_t BIVO_sm3_digest(const unsigned char *data, uint32_t len, unsigned char *out32);
ZEPH_API uint32_t BIVO_sm3_digest_init(BIVO_SM3_CTX **out_ctx);
ZEPH_API uint32_t BIVO_sm3_digest_update(BIVO_SM3_CTX *ctx, const unsigned char *data, uint32_t len);
/* Writes the digest and frees ctx. */
ZEPH_API uint32_t BIVO_sm3_digest_final(BIVO_SM3_CTX *ctx, unsigned char *out32);

/* ==== SM2 Z digest and e = SM3(Z || M) ================================= */
/* id is a NUL-terminated identity of at most 8191 bytes ("1234567812345678"
 * by default); pubkey65 is 0x04 || x || y, of which only x and y are read
 * (pubkey_len is not used). An identity above 8191 bytes gives 6. */

/* Z = SM3(ENTL || id || a || b || xG || yG || xA || yA), library SM3. */
ZEPH_API uint32_t ComputeUserIdSm3Digest(const char *id, const unsigned char *pubkey65, uint32_t pubkey_len,
                                         unsigned char *out_z);
/* The same Z through OpenSSL's EVP SM3. */
ZEPH_API uint32_t ComputeUserIdSm3Digest_EVP(const char *id, const unsigned char *pubkey65, uint32_t pubkey_len,
                                             unsigned char *out_z);

/* e = SM3(Z || M), library SM3. */
ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest(const char *id, const unsigned char *pubkey65, uint32_t pubkey_len,
                                                  const unsigned char *msg, uint32_t msg_len, unsigned char *out_e);
/* e = SM3(Z || M) through OpenSSL's EVP SM3. */
ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_EVP(const char *id, const unsigned char *pubkey65,
                                                      uint32_t pubkey_len, const unsigned char *msg, uint32_t msg_len,
                                                      unsigned char *out_e);
/* Streaming e: init once (computes Z, allocates the context), update any
 * number of times, final once (writes e, frees the context). */
ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_init(const char *id, const unsigned char *pubkey65,
                                                       uint32_t pubkey_len, BIVO_SM3_CTX **out_ctx);
ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_update(BIVO_SM3_CTX *ctx, const unsigned char *data, uint32_t len);
ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_final(BIVO_SM3_CTX *ctx, unsigned char *out_e);

/* ==== SM3 hash DRBG ==================================================== */
/* Hash_DRBG with SM3 and a 440-bit seed. Limits: entropy at least 256 bytes;
 * at most 65536 bytes per generate request; a request is refused once the
 * reseed counter exceeds 2^48; Hash_df outputs at most 8160 bytes. */
typedef struct bivo_sm3_hash_drbg_st BIVO_SM3_HASH_DRBG;

ZEPH_API uint32_t BIVO_sm3_hash_drbg_new(BIVO_SM3_HASH_DRBG **out_state);
/* Wipes and releases the state; a null state gives 1. */
ZEPH_API uint32_t BIVO_sm3_hash_drbg_free(BIVO_SM3_HASH_DRBG *state);
/* nonce and pers are optional (length 0). */
ZEPH_API uint32_t BIVO_sm3_hash_drbg_instantiate(BIVO_SM3_HASH_DRBG *state, const unsigned char *entropy,
                                                 uint32_t entropy_len, const unsigned char *nonce, uint32_t nonce_len,
                                                 const unsigned char *pers, uint32_t pers_len);
ZEPH_API uint32_t BIVO_sm3_hash_drbg_reseed(BIVO_SM3_HASH_DRBG *state, const unsigned char *entropy,
                                            uint32_t entropy_len, const unsigned char *additional,
                                            uint32_t additional_len);
/* One request of 1..65536 bytes. Additional input is not supported: a
 * non-empty one is refused with 52 and the state is left as it was. */
ZEPH_API uint32_t BIVO_sm3_hash_drbg_generate(BIVO_SM3_HASH_DRBG *state, const unsigned char *additional,
                                              uint32_t additional_len, uint32_t out_len, unsigned char *out);
/* Up to 65536 bytes: one request and its status. Longer: requests of 65536
 * bytes and a last shorter one whose statuses are not reported (the result
 * is 0; a refused request leaves its share of out zeroed). Check the
 * counter first if exhaustion matters. */
ZEPH_API uint32_t BIVO_sm3_hash_drbg_generate_arbitrary_bytes(BIVO_SM3_HASH_DRBG *state, uint32_t out_len,
                                                              unsigned char *out);
/* Writes size generated bytes to path (mode "wb"); size 0 makes an empty file. */
ZEPH_API uint32_t BIVO_sm3_hash_drbg_generate_file_of_arbitrary_bytes(BIVO_SM3_HASH_DRBG *state, uint32_t size,
                                                                      const char *path);
/* Wipes V and C and sets the counter to 1; the state must still be freed. */
ZEPH_API uint32_t BIVO_sm3_hash_drbg_uninstantiate(BIVO_SM3_HASH_DRBG *state);
/* Overwrites the reseed counter (used to reach the limits in tests); values
 * above 2^63 - 1 give ERR_INVALID_PARAMETER. */
ZEPH_API uint32_t BIVO_sm3_hash_drbg_set_reseed_counter(BIVO_SM3_HASH_DRBG *state, uint64_t value);
ZEPH_API uint32_t BIVO_sm3_hash_drbg_get_reseed_counter(const BIVO_SM3_HASH_DRBG *state, int64_t *out_value);

/* Hash_df with SM3: out_len bytes (1..8160) derived from input_len bytes (>= 1). */
ZEPH_API uint32_t ComputeSm3HashDerivationFunction(const unsigned char *input, uint32_t input_len, uint32_t out_len,
                                                   unsigned char *out);
/* Hashgen with SM3 from the state's V; does not change the state. */
ZEPH_API uint32_t IterationSm3HashGen(const BIVO_SM3_HASH_DRBG *state, uint32_t out_len, unsigned char *out);
/* Overwrites n bytes with a running pattern, then with zeros; returns 0. */
ZEPH_API uint32_t BIVO_cleanse_memory(void *buf, size_t n);

/* ==== Module handle and random sources ================================= */
/* The handle is a heap cell holding the generator behind every random draw.
 * One handle must not be used by two threads at once. */
typedef struct bivo_handle_st {
  BIVO_SM3_HASH_DRBG *drbg;
} BIVO_HANDLE_CELL;
typedef BIVO_HANDLE_CELL *BIVO_HANDLE;

/* Creates a handle whose generator is instantiated with the entropy alone
 * (at least 256 bytes); on failure *out_handle is NULL and the generator's
 * status is returned. */
ZEPH_API uint32_t InitializeBivoHandle(BIVO_HANDLE *out_handle, const unsigned char *entropy, uint32_t entropy_len);
ZEPH_API uint32_t UninitializeBivoHandle(BIVO_HANDLE handle);

ZEPH_API uint32_t BIVO_generate_random_bytes(BIVO_HANDLE handle, uint32_t len, unsigned char *out);
ZEPH_API uint32_t BIVO_generate_random_bytes_file(BIVO_HANDLE handle, uint32_t len, const char *path);
ZEPH_API uint32_t BIVO_reseed_generator(BIVO_HANDLE handle, const unsigned char *entropy, uint32_t entropy_len);
/* The generated bytes XOR the caller's len external bytes. */
ZEPH_API uint32_t BIVO_generate_random_bytes_with_mixed_source(BIVO_HANDLE handle, uint32_t len,
                                                               const unsigned char *external, unsigned char *out);
ZEPH_API uint32_t BIVO_generate_random_bytes_file_with_mixed_source(BIVO_HANDLE handle, uint32_t len,
                                                                    const unsigned char *external, const char *path);

/* A value in [2, range - 1]. The range must be at least 3: 0, 1, 2 (and
 * negative ranges) give 32, since with range 2 no value qualifies. The mixed
 * variant XORs the first min(n, external_len) bytes of every draw with the
 * external bytes. */
ZEPH_API uint32_t generate_rand_in_range_with_drbg(BIVO_HANDLE handle, BIGNUM *out_bn, const BIGNUM *range_bn);
ZEPH_API uint32_t generate_rand_in_range_with_mixed_source(BIVO_HANDLE handle, const unsigned char *external,
                                                           uint32_t external_len, BIGNUM *out_bn,
                                                           const BIGNUM *range_bn);

/* ==== SM4 ============================================================== */
/* Key schedule into 32 round keys; returns 1 (0 for a null pointer). */
ZEPH_API int SM4_set_key(const unsigned char *key16, uint32_t *rk32);
ZEPH_API void SM4_encrypt(const unsigned char *in16, unsigned char *out16, const uint32_t *rk32);
ZEPH_API void SM4_decrypt(const unsigned char *in16, unsigned char *out16, const uint32_t *rk32);
/* The round transform T: S-box then L, bytewise (slow) or from the table. */
ZEPH_API uint32_t SM4_T_slow(uint32_t x);
ZEPH_API uint32_t SM4_T(uint32_t x);

/* ECB and CBC over whole blocks: len must be a multiple of 16 (else 24 and
 * nothing written); 0 does nothing. in and out may be the same buffer. */
ZEPH_API uint32_t BIVO_sm4_encrypt(const unsigned char *in, uint32_t len, const unsigned char *key16,
                                   unsigned char *out);
ZEPH_API uint32_t BIVO_sm4_decrypt(const unsigned char *in, uint32_t len, const unsigned char *key16,
                                   unsigned char *out);
ZEPH_API uint32_t BIVO_sm4_cbc_encrypt(const unsigned char *in, uint32_t len, const unsigned char *iv16,
                                       const unsigned char *key16, unsigned char *out);
ZEPH_API uint32_t BIVO_sm4_cbc_decrypt(const unsigned char *in, uint32_t len, const unsigned char *iv16,
                                       const unsigned char *key16, unsigned char *out);

/* len + 16 - len % 16 (ECB and CBC alike); 0 when that overflows 32 bits. */
ZEPH_API uint32_t BIVO_ComputeSm4EcbCipherLen(uint32_t len);

/* Pad (1..16 bytes of value pad) and encrypt; out holds
 * BIVO_ComputeSm4EcbCipherLen(len) bytes. */
ZEPH_API uint32_t BIVO_Sm4EncryptWithAutoPadding(const unsigned char *in, uint32_t len, const unsigned char *key16,
                                                 unsigned char *out);
/* Decrypt, check and strip the padding. The ciphertext length must be a
 * non-zero multiple of 16 (else 24); invalid padding gives 58. out may be
 * NULL (only *out_len is set); otherwise it must hold len - 1 bytes, since
 * its capacity is not asked for. */
ZEPH_API uint32_t BIVO_Sm4DecryptWithAutoRemovePadding(const unsigned char *in, uint32_t len,
                                                       const unsigned char *key16, unsigned char *out,
                                                       uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm4CbcEncryptWithAutoPadding(const unsigned char *in, uint32_t len, const unsigned char *iv16,
                                                    const unsigned char *key16, unsigned char *out);
ZEPH_API uint32_t BIVO_Sm4CbcDecryptWithAutoRemovePadding(const unsigned char *in, uint32_t len,
                                                          const unsigned char *iv16, const unsigned char *key16,
                                                          unsigned char *out, uint32_t *out_len);

/* Files hold the padded ciphertext only: no header, no length, no IV. */
ZEPH_API uint32_t BIVO_CreateSm4EncryptFileWithAutoPadding(const unsigned char *in, uint32_t len,
                                                           const unsigned char *key16, const char *path);
ZEPH_API uint32_t BIVO_CreateSm4CbcEncryptFileWithAutoPadding(const unsigned char *in, uint32_t len,
                                                              const unsigned char *iv16, const unsigned char *key16,
                                                              const char *path);
ZEPH_API uint32_t BIVO_Sm4DecryptFileWithAutoRemovePadding(const char *path, const unsigned char *key16,
                                                           unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(const char *path, const unsigned char *iv16,
                                                              const unsigned char *key16, unsigned char *out,
                                                              uint32_t *out_len);

/* Padding helpers. AddPadding and RemovePadding: NULL out stores the result
 * length in *in_out_len; otherwise *in_out_len is the capacity (25 when too small,
 * *in_out_len then left alone) and receives the length. RemovePadding trusts
 * the pad value (run CheckPaddingValidity first) but gives 58 when it
 * exceeds len. CheckPaddingValidity: 0 or 58. */
ZEPH_API uint32_t AddPadding(const unsigned char *in, uint32_t len, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t RemovePadding(const unsigned char *in, uint32_t len, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t CheckPaddingValidity(const unsigned char *buf, uint32_t len);

/* ==== Whole-file helpers =============================================== */
/* Size of a regular file: 0, or 1 for a null pointer, 2 when it cannot be
 * measured or exceeds 4 GiB - 1. */
ZEPH_API uint32_t GetFileLength(const char *path, uint32_t *out_len);
/* Reads a file whole into a buffer allocated here (released with
 * FreeFileInMemoryBuffer): 0, 1 null pointer, 2 file error, 4 no memory.
 * An empty file gives a valid buffer and length 0. */
ZEPH_API uint32_t ReadFileIntoMemoryBuffer(const char *path, unsigned char **out_buffer, uint32_t *out_len);
ZEPH_API void FreeFileInMemoryBuffer(unsigned char *buffer);

ZEPH_END_DECLS

#endif
