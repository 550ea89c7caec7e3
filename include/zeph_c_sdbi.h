/* The SDBI message cipher: IDEA (64-bit block, 128-bit key) in ECB mode over
 * the message followed by 0x01 and zero bytes up to a multiple of 8 (a whole
 * block 01 00 00 00 00 00 00 00 for aligned messages). No header, length or
 * IV. Long messages are processed in segments of 4096 bytes; the result
 * equals the layout over the whole message.
 *
 * Sizes: out holds in_len + 8 bytes to encrypt, in_len bytes to decrypt;
 * *out_len is an output only (the capacity is not asked for).
 *
 * Statuses: 0 success; 1 any failure (a NULL pointer, a key that is not 16
 * bytes, an empty or ragged ciphertext, no padding marker). The segment
 * functions report more: 195 a first or middle segment that is not 4096
 * bytes, 196 a last or single segment above 4096 bytes, 197 no 0x01 among
 * the last eight bytes after decryption, 255 an unknown mode. */
#ifndef ZEPH_C_SDBI_H
#define ZEPH_C_SDBI_H

#include <stdint.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

#define SDBI_ERR_FAILED         1u
#define SDBI_ERR_SEGMENT_LENGTH 195u
#define SDBI_ERR_LAST_TOO_LONG  196u
#define SDBI_ERR_NO_PADDING     197u
#define SDBI_ERR_MODE           255u

/* Segment modes. */
#define SDBI_MODE_FIRST  1 /* first 4096 bytes of a long message, no padding */
#define SDBI_MODE_MIDDLE 2 /* a further 4096 bytes, no padding */
#define SDBI_MODE_LAST   3 /* the rest of a long message (1..4096 bytes), padded */
#define SDBI_MODE_WHOLE  4 /* a message of at most 4096 bytes, padded */

/* The whole message with a 16-byte key. */
ZEPH_API uint32_t Crypt_Enc_Data_S(const unsigned char *in, uint32_t in_len, unsigned char *out, uint32_t *out_len,
                                   const unsigned char *key16);
ZEPH_API uint32_t Crypt_Dec_Data_S(const unsigned char *in, uint32_t in_len, unsigned char *out, uint32_t *out_len,
                                   const unsigned char *key16);
/* The same with the key length given (it must be 16). */
ZEPH_API uint32_t CSP_SDBIEncrypt(unsigned char *out, uint32_t *out_len, const unsigned char *in, uint32_t in_len,
                                  const unsigned char *key, uint32_t key_len);
ZEPH_API uint32_t CSP_SDBIDecrypt(unsigned char *out, uint32_t *out_len, const unsigned char *in, uint32_t in_len,
                                  const unsigned char *key, uint32_t key_len);
/* One segment in the given mode. */
ZEPH_API uint32_t Enc_Message_SDBI(int mode, const unsigned char *in, uint32_t len, unsigned char *out,
                                   uint32_t *out_len, const unsigned char *key16);
ZEPH_API uint32_t Dec_Message_SDBI(int mode, const unsigned char *in, uint32_t len, unsigned char *out,
                                   uint32_t *out_len, const unsigned char *key16);

ZEPH_END_DECLS

#endif
