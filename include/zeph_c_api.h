/* The exported handle API: handle lifecycle, device listing, PINs, device
 * authentication and areas, random bytes, device files, encodings, raw
 * signing and verification. A handle comes from ZEPH_C_Initialize and is
 * released with ZEPH_C_Finalize. Buffers the library allocates for the
 * caller are released with ZEPH_C_MALLOC_FREE. */
#ifndef ZEPH_C_API_H
#define ZEPH_C_API_H

#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_status.h"

ZEPH_BEGIN_DECLS

/* Key-area selectors */
#define ZEPH_AREA_RSA  1u
#define ZEPH_AREA_SM2  2u
#define ZEPH_AREA_SEAL 4u

/* Digest identifiers (the library's own numbering; hashing and RSA signing
 * use the low 16 bits of a digest_id). */
#define ZEPH_DIGEST_SM3    1u
#define ZEPH_DIGEST_SHA1   2u
#define ZEPH_DIGEST_SHA256 4u
#define ZEPH_DIGEST_SHA384 8u
#define ZEPH_DIGEST_SHA512 16u
#define ZEPH_DIGEST_MD5    128u

/* ---- Handle lifecycle ------------------------------------------------- */
ZEPH_API uint32_t ZEPH_C_Initialize(void **out_handle, uint32_t device_type, const char *key_sn, uint32_t flags);
ZEPH_API uint32_t ZEPH_C_Finalize(void *handle);

/* ---- Device listing (no handle) --------------------------------------- */
ZEPH_API uint32_t ZEPH_C_ListPluginDevice(char *out_text, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_ListKeySNDevice(char *out_text, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_GetDeviceErrStatus(char *out_text, uint32_t *in_out_len);

/* ---- PINs, device authentication, areas -------------------------------- */
ZEPH_API uint32_t ZEPH_C_VerifyUserPin(void *handle, uint32_t usage, const char *pin, uint32_t *out_retry);
ZEPH_API uint32_t ZEPH_C_ChangeUserPin(void *handle, uint32_t usage, const char *old_pin, const char *new_pin);
ZEPH_API uint32_t ZEPH_C_UnLockUserPinByAdminPin(void *handle, uint32_t usage, const char *admin_pin,
                                                 uint32_t admin_pin_len, const char *new_user_pin,
                                                 uint32_t new_user_pin_len);
ZEPH_API uint32_t ZEPH_C_DoDeviceAuth(void *handle, const unsigned char *auth_code, uint32_t auth_code_len);
ZEPH_API uint32_t ZEPH_C_ChangeDeviceAuthCode(void *handle, const unsigned char *old_code, uint32_t old_len,
                                              const unsigned char *new_code, uint32_t new_len);
ZEPH_API uint32_t ZEPH_C_DelAllAppWithAuthCode(void *handle, const unsigned char *auth_code, uint32_t auth_code_len);
ZEPH_API uint32_t ZEPH_C_InitVorliRsaArea(void *handle, const unsigned char *auth_code, uint32_t auth_code_len,
                                          const char *admin_pin, uint32_t admin_pin_retry, const char *user_pin,
                                          uint32_t user_pin_retry, uint32_t reserved);
ZEPH_API uint32_t ZEPH_C_InitVorliSm2Area(void *handle, const unsigned char *auth_code, uint32_t auth_code_len,
                                          const char *admin_pin, uint32_t admin_pin_retry, const char *user_pin,
                                          uint32_t user_pin_retry, uint32_t reserved);
ZEPH_API uint32_t ZEPH_C_InitVorliStampArea(void *handle, const unsigned char *auth_code, uint32_t auth_code_len,
                                            const char *admin_pin, uint32_t admin_pin_retry, const char *user_pin,
                                            uint32_t user_pin_retry, uint32_t reserved);

/* ---- Version, enumeration, random -------------------------------------- */
ZEPH_API uint32_t ZEPH_C_GetVersion(uint32_t *out_version);
ZEPH_API uint32_t ZEPH_C_SetVersion(void *handle, const char *pin, uint32_t usage, const unsigned char *data,
                                    uint32_t data_len);
ZEPH_API uint32_t ZEPH_C_EnumRSAandSM2andSealInfo(void *handle, uint32_t *out_rsa, uint32_t *out_sm2,
                                                  uint32_t *out_seal);
ZEPH_API uint32_t ZEPH_C_EnumAllInfoInCryptoDevice(void *handle, char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_GenRandomBytes(void *handle, uint32_t count, unsigned char *out);

/* ---- Files on the device (row = object index) -------------------------- */
ZEPH_API uint32_t ZEPH_C_WriteUkeyFile(void *handle, const char *pin, uint32_t row, const char *file_name,
                                       const unsigned char *data, uint32_t data_len);
ZEPH_API uint32_t ZEPH_C_ReadUkeyFile(void *handle, const char *pin, uint32_t row, const char *file_name,
                                      unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_DeleteFile(void *handle, const char *pin, uint32_t row, const char *file_name);

/* ---- Files on disk and encodings --------------------------------------- */
ZEPH_API uint32_t ZEPH_C_WriteFile(const char *path, const unsigned char *data, uint32_t length);
ZEPH_API uint32_t ZEPH_C_ReadFile(const char *path, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_Dob64tohex(const char *base64_text, unsigned char **out_buffer, uint32_t *out_len);
ZEPH_API uint32_t ZEPH_C_Dohex2b64(const unsigned char *data, uint32_t length, char **out_text);
ZEPH_API uint32_t ZEPH_C_b64tohex(const char *base64_text, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_hex2b64(const unsigned char *data, uint32_t length, char *out);
ZEPH_API uint32_t ZEPH_C_MALLOC_FREE(void *pointer);

/* ---- Raw signing and verification --------------------------------------- */
/* SM2: DER SEQUENCE { r, s } (70..72 bytes). RSA digest identifiers: 4
 * SHA-256, 8 SHA-384, 16 SHA-512 (verification: anything else SHA-1). */
ZEPH_API uint32_t ZEPH_C_DoSm2Sign(void *handle, const char *pin, const unsigned char *data, uint32_t data_len,
                                   unsigned char *out_sig, uint32_t *out_sig_len);
ZEPH_API uint32_t ZEPH_C_DoRsaSign(void *handle, const char *pin, const unsigned char *data, uint32_t data_len,
                                   unsigned char *out_sig, uint32_t *in_out_sig_len, uint32_t digest_id);
ZEPH_API uint32_t ZEPH_C_VerifySm2SignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                               uint32_t data_len, const unsigned char *sig, uint32_t sig_len);
ZEPH_API uint32_t ZEPH_C_VerifyRsaSignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                               uint32_t data_len, const unsigned char *sig, uint32_t sig_len,
                                               uint32_t digest_id);
ZEPH_API uint32_t ZEPH_C_VerifySignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                            uint32_t data_len, const unsigned char *sig, uint32_t sig_len,
                                            uint32_t digest_id);
ZEPH_API uint32_t ZEPH_C_HashDataWithAlgID(uint32_t digest_id, const unsigned char *data, uint32_t data_len,
                                           unsigned char *out, uint32_t *in_out_len);

ZEPH_END_DECLS

#endif
