/* The exported handle API: handle lifecycle, device listing, PINs, device
 * authentication and areas, random bytes, device files, encodings, raw
 * signing and verification.
 *
 * A handle comes from ZEPH_C_Initialize and names one key for its whole
 * life. Every device-bound call opens its own session on the key, verifies
 * the PIN where it needs one, works, and closes the session on every path:
 * no session stays open between calls. Two calls on one handle must not
 * overlap. The first failing step ends a call and its status is returned;
 * vendor SKF statuses (0x0A00xxxx) pass through unchanged. A NULL handle, or
 * a handle whose key context is gone, gives ZEPH_ERR_MISSING_HANDLE unless a
 * function says otherwise.
 *
 * Output buffers with an in_out_len follow one protocol unless a function
 * says otherwise: a NULL buffer asks for the length (written to *in_out_len,
 * status 0); otherwise *in_out_len is the buffer's capacity, a capacity
 * below the length gives ERR_BUFFER_TOO_SMALL with the length needed, and a
 * write stores the length written. Buffers the library allocates for the
 * caller are released with ZEPH_C_MALLOC_FREE. */
#ifndef ZEPH_C_API_H
#define ZEPH_C_API_H

#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_status.h"

ZEPH_BEGIN_DECLS

/* Key-area selectors (the `usage` of the PIN and version calls). */
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

/* Connects the key named by key_sn ("<vid>_<serial>", as the device list
 * reports it) through the vendor library that the device configuration names
 * for it. *out_handle receives a new handle whenever one was allocated, also
 * when connecting failed (the device layer's status is returned then): the
 * caller finalises and frees every handle it was given. A NULL or empty
 * key_sn, or a failed allocation, gives ERR_PIN_VERIFY_FAILED and leaves
 * *out_handle alone; a NULL out_handle gives ERR_INVALID_PARAMETER.
 * device_type is not used (the configuration tells the type); flags is the
 * key layout (0, or ZEPH_LAYOUT_SM_APPLICATION of zeph_c_device.h), replaced
 * by the SM-Application layout on keys whose first application has that
 * name. */
ZEPH_API uint32_t ZEPH_C_Initialize(void **out_handle, uint32_t device_type, const char *key_sn, uint32_t flags);

/* Disconnects the key and releases its context; always 0 (also for NULL or
 * a handle finalised before). The handle record itself stays allocated: the
 * host releases it afterwards with ZEPH_C_MALLOC_FREE. */
ZEPH_API uint32_t ZEPH_C_Finalize(void *handle);

/* ---- Device listing (no handle) --------------------------------------- */

/* The keys plugged in now, as a JSON array text of objects
 * {"keySN":..,"vid":..,"skfLib":..,"type":n} ("[]" for none), by the output
 * protocol with the terminator counted: the capacity must exceed the text
 * length, and the length written back includes the terminator. */
ZEPH_API uint32_t ZEPH_C_ListPluginDevice(char *out_text, uint32_t *in_out_len);

/* The keySNs of the keys plugged in now as NUL-separated names ended by one
 * more NUL ("A1\0B22\0\0", length 8). A NULL buffer asks for the length of
 * the JSON list, which the names never exceed; with a buffer the list is
 * fetched into it (as ZEPH_C_ListPluginDevice) and rewritten in place, and
 * *in_out_len receives the bytes of the names and their NULs. No key gives
 * ERR_NO_KEY_FOUND (the buffer then holds "[]"). */
ZEPH_API uint32_t ZEPH_C_ListKeySNDevice(char *out_text, uint32_t *in_out_len);

/* The vid of every configured vendor whose library did not load, as a
 * formatted JSON array text of at most 1,023 characters. The length leaves
 * the terminator out; it is written after the text only when the capacity
 * exceeds the length. */
ZEPH_API uint32_t ZEPH_C_GetDeviceErrStatus(char *out_text, uint32_t *in_out_len);

/* ---- PINs, device authentication, areas -------------------------------- */

/* Verifies the user PIN of an area: ZEPH_AREA_SM2, ZEPH_AREA_SEAL, and the
 * RSA area for ZEPH_AREA_RSA or any other value. *out_retry (may be NULL)
 * receives the tries the key has left, also after a wrong PIN. */
ZEPH_API uint32_t ZEPH_C_VerifyUserPin(void *handle, uint32_t usage, const char *pin, uint32_t *out_retry);

/* Changes the user PIN of an area (chosen as for ZEPH_C_VerifyUserPin); the
 * key checks the old PIN as part of the change. */
ZEPH_API uint32_t ZEPH_C_ChangeUserPin(void *handle, uint32_t usage, const char *old_pin, const char *new_pin);

/* Verifies the administrator PIN of an area, then unblocks the user PIN with
 * a new one. PINs are the given number of characters (no terminator needed).
 * An area other than the three ZEPH_AREA_* gives ERR_UNSUPPORTED_VALUE. */
ZEPH_API uint32_t ZEPH_C_UnLockUserPinByAdminPin(void *handle, uint32_t usage, const char *admin_pin,
                                                 uint32_t admin_pin_len, const char *new_user_pin,
                                                 uint32_t new_user_pin_len);

/* Device authentication with the key's 16-byte authentication code (a
 * shorter code is padded with zero bytes). */
ZEPH_API uint32_t ZEPH_C_DoDeviceAuth(void *handle, const unsigned char *auth_code, uint32_t auth_code_len);

/* Authenticates with the old code, then sets the new one. */
ZEPH_API uint32_t ZEPH_C_ChangeDeviceAuthCode(void *handle, const unsigned char *old_code, uint32_t old_len,
                                              const unsigned char *new_code, uint32_t new_len);

/* Authenticates, then deletes every application on the key. */
ZEPH_API uint32_t ZEPH_C_DelAllAppWithAuthCode(void *handle, const unsigned char *auth_code, uint32_t auth_code_len);

/* Area initialisation: authenticates with the device code, then deletes and
 * re-creates the area's application with the given PINs and retry counts
 * and its containers: "VorliRsa" with RSA1 and RSA2, "VorliEcc" with ECC,
 * "VorliStamp" without containers. Whatever the area held is gone. The last
 * argument is not used. */
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

/* The library version, 611680 (0x00095560); NULL gives
 * ERR_INVALID_PARAMETER. Needs no handle. */
ZEPH_API uint32_t ZEPH_C_GetVersion(uint32_t *out_version);

/* Writes data as the "Version" file of an area after verifying the user
 * PIN. An area other than the three ZEPH_AREA_* gives ERR_UNSUPPORTED_VALUE. */
ZEPH_API uint32_t ZEPH_C_SetVersion(void *handle, const char *pin, uint32_t usage, const unsigned char *data,
                                    uint32_t data_len);

/* Counts what the key holds: RSA containers of the RSA area, SM2 containers
 * of the SM2 area, occupied seal slots (1 to 10) of the seal area. An area
 * the key does not have counts 0. */
ZEPH_API uint32_t ZEPH_C_EnumRSAandSM2andSealInfo(void *handle, uint32_t *out_rsa, uint32_t *out_sm2,
                                                  uint32_t *out_seal);

/* A readable report of every application, container and file on the key,
 * by the output protocol with the terminator counted. */
ZEPH_API uint32_t ZEPH_C_EnumAllInfoInCryptoDevice(void *handle, char *out, uint32_t *in_out_len);

/* count random bytes into out: from the key, or from the host generator
 * when handle is NULL (ERR_INVALID_PARAMETER when it fails). A handle without
 * a key context gives ERR_INVALID_PARAMETER. */
ZEPH_API uint32_t ZEPH_C_GenRandomBytes(void *handle, uint32_t count, unsigned char *out);

/* ---- Files on the device (row = object index of zeph_c_device.h) ------- */

/* Verifies the user PIN in the application of row, then replaces the file
 * with data: it is deleted and re-created at exactly data_len bytes. */
ZEPH_API uint32_t ZEPH_C_WriteUkeyFile(void *handle, const char *pin, uint32_t row, const char *file_name,
                                       const unsigned char *data, uint32_t data_len);

/* Reads a whole file of the application of row; a NULL or empty PIN reads
 * without verification. A NULL out asks for the file size; otherwise
 * *in_out_len is the capacity handed to the vendor, which decides the status
 * of a short one, and receives the bytes read. */
ZEPH_API uint32_t ZEPH_C_ReadUkeyFile(void *handle, const char *pin, uint32_t row, const char *file_name,
                                      unsigned char *out, uint32_t *in_out_len);

/* Verifies the user PIN, then deletes the file (the vendor's status for a
 * file that does not exist). */
ZEPH_API uint32_t ZEPH_C_DeleteFile(void *handle, const char *pin, uint32_t row, const char *file_name);

/* ---- Files on disk and encodings (no handle) --------------------------- */

/* Replaces the file at path with data: ERR_FILE_OPEN_FAILED or
 * ERR_FILE_WRITE_FAILED. */
ZEPH_API uint32_t ZEPH_C_WriteFile(const char *path, const unsigned char *data, uint32_t length);

/* A whole regular file by the output protocol; 0xFFFFFFFF when it cannot be
 * opened or read. */
ZEPH_API uint32_t ZEPH_C_ReadFile(const char *path, unsigned char *out, uint32_t *in_out_len);

/* Decodes base64 text into a new buffer (*out_buffer, *out_len; release it
 * with ZEPH_C_MALLOC_FREE). A text that decodes to nothing, or does not
 * decode, returns 0 with nothing allocated and both outputs left alone, so a
 * caller sets *out_buffer to NULL first. ERR_OUT_OF_MEMORY when allocation
 * fails. */
ZEPH_API uint32_t ZEPH_C_Dob64tohex(const char *base64_text, unsigned char **out_buffer, uint32_t *out_len);

/* Encodes bytes as a new NUL-terminated base64 text (*out_text; release it
 * with ZEPH_C_MALLOC_FREE). No bytes, or a failed encoding, give
 * ERR_ENCODE_FAILED. */
ZEPH_API uint32_t ZEPH_C_Dohex2b64(const unsigned char *data, uint32_t length, char **out_text);

/* Decodes base64 text into the caller's buffer by the output protocol; a
 * text that decodes to nothing gives ERR_BASE64_INVALID. */
ZEPH_API uint32_t ZEPH_C_b64tohex(const char *base64_text, unsigned char *out, uint32_t *in_out_len);

/* Encodes bytes as base64 into out without a terminator and without a
 * length: out holds (length + 2) / 3 * 4 bytes and is zero-filled by the
 * caller beforehand. No bytes give ERR_ENCODE_FAILED. */
ZEPH_API uint32_t ZEPH_C_hex2b64(const unsigned char *data, uint32_t length, char *out);

/* Releases a buffer or handle record this library handed out; NULL is
 * accepted. Always 0. */
ZEPH_API uint32_t ZEPH_C_MALLOC_FREE(void *pointer);

/* ---- Raw signing and verification --------------------------------------- */

/* Signs data with the SM2 signing key of the SM2 area after verifying the
 * user PIN: e = SM3(Z || M) with the identity "1234567812345678" (keys whose
 * vendor library hashes by itself get the message). out_sig receives the DER
 * SEQUENCE { r, s } (70 to 72 bytes; it must hold 72, the length is not
 * checked) and *out_sig_len its length. A NULL handle gives
 * ERR_INVALID_PARAMETER and a handle without a key context
 * ERR_NO_DEVICE_LIBRARY. */
ZEPH_API uint32_t ZEPH_C_DoSm2Sign(void *handle, const char *pin, const unsigned char *data, uint32_t data_len,
                                   unsigned char *out_sig, uint32_t *out_sig_len);

/* Signs data with the RSA signing key (PKCS#1 v1.5 over the DigestInfo of
 * the digest_id digest, ZEPH_DIGEST_*) after verifying the user PIN.
 * *in_out_sig_len is the capacity handed to the vendor, which decides the
 * status of a short one, and receives the signature length. */
ZEPH_API uint32_t ZEPH_C_DoRsaSign(void *handle, const char *pin, const unsigned char *data, uint32_t data_len,
                                   unsigned char *out_sig, uint32_t *in_out_sig_len, uint32_t digest_id);

/* Verification in software with the public key of a DER certificate: 0, or
 * ERR_SIGNATURE_INVALID for any failure (an undecodable certificate as much
 * as a wrong signature). SM2: a DER signature over data with SM3 and the
 * identity "1234567812345678". RSA: PKCS#1 v1.5 with ZEPH_DIGEST_SHA256,
 * SHA384 or SHA512 by the low 16 bits of digest_id, SHA-1 for every other
 * value. ZEPH_C_VerifySignWithCert picks SM2 for a certificate with an SM2
 * key and RSA for any other. */
ZEPH_API uint32_t ZEPH_C_VerifySm2SignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                               uint32_t data_len, const unsigned char *sig, uint32_t sig_len);
ZEPH_API uint32_t ZEPH_C_VerifyRsaSignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                               uint32_t data_len, const unsigned char *sig, uint32_t sig_len,
                                               uint32_t digest_id);
ZEPH_API uint32_t ZEPH_C_VerifySignWithCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *data,
                                            uint32_t data_len, const unsigned char *sig, uint32_t sig_len,
                                            uint32_t digest_id);

/* The digest (ZEPH_DIGEST_* in the low 16 bits of digest_id) of data by the
 * output protocol; an unknown identifier or no data gives
 * ERR_DIGEST_FAILED. */
ZEPH_API uint32_t ZEPH_C_HashDataWithAlgID(uint32_t digest_id, const unsigned char *data, uint32_t data_len,
                                           unsigned char *out, uint32_t *in_out_len);

ZEPH_END_DECLS

#endif
