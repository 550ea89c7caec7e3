/* The library's own GM algorithms: SM3 and the SM2 Z digest, the SM3 hash
 * DRBG and its module handle, SM4 modes with padding and file variants. */
#ifndef ZEPH_C_GM_H
#define ZEPH_C_GM_H

#include <stdint.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

/* Z = SM3(ENTL || id || a || b || xG || yG || xA || yA) through OpenSSL's EVP SM3. */
ZEPH_API uint32_t ComputeUserIdSm3Digest_EVP(const char *id, const unsigned char *pubkey65, uint32_t pubkey_len,
                                             unsigned char *z_out32);

/* e = SM3(Z || M) through OpenSSL's EVP SM3; id is a NUL-terminated identity,
 * pubkey65 is 0x04 || x || y. Returns 0, or 6 on a digest failure or an
 * identity above 8191 bytes. */
ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_EVP(const char *id, const unsigned char *pubkey65,
                                                      uint32_t pubkey_len, const unsigned char *msg,
                                                      uint32_t msg_len, unsigned char *e_out32);

ZEPH_END_DECLS

#endif
