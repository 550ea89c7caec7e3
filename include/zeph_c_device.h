/* The device layer: which vendor SKF library serves which key (device
 * configuration and detection), the session context GM_SKF_CTX over one
 * connected key, and the key, file and seal-area operations that run inside
 * its sessions.
 *
 * Every GM_SKF_CTX_* operation follows one pattern: check its preconditions
 * (otherwise return its own failure status), call vendor entry points by
 * name, and stop at the first non-zero status, which is returned unchanged.
 * A vendor entry point that the library does not export leaves the
 * operation's own failure status; it is never called. */
#ifndef ZEPH_C_DEVICE_H
#define ZEPH_C_DEVICE_H

#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_status.h"

ZEPH_BEGIN_DECLS

/* Buffer sizes of the texts handed across this header. */
#define ZEPH_DEVICE_CFG_MAX    2048u /* configuration text, terminator included */
#define ZEPH_DEVICE_VID_MAX    16u   /* vendor identifier, terminator included */
#define ZEPH_DEVICE_SKFLIB_MAX 520u  /* vendor library path, terminator included */
#define ZEPH_DEVICE_NAME_MAX   260u  /* keySN, device name, object names */
#define ZEPH_DEVICE_FILE_SIZE  4096u /* size reported for every file location */

/* Object indexes (rows of the object location table). */
#define ZEPH_OBJ_RSA_SIGN        1u
#define ZEPH_OBJ_RSA_ENC         2u
#define ZEPH_OBJ_SM2_SIGN        3u
#define ZEPH_OBJ_SM2_ENC         4u
#define ZEPH_OBJ_RSA_CERTCHAIN   5u
#define ZEPH_OBJ_RSA_VERSION     6u
#define ZEPH_OBJ_SM2_CERTCHAIN   7u
#define ZEPH_OBJ_SM2_VERSION     8u
#define ZEPH_OBJ_STAMP_CERTCHAIN 9u
#define ZEPH_OBJ_STAMP_VERSION   10u
#define ZEPH_OBJ_STAMP_PICTURE   11u
#define ZEPH_OBJ_STAMP_CERT      12u
#define ZEPH_OBJ_RSA_CONTAINER   13u

/* Layouts: the standard one, and the one of keys whose first application
 * is "SM-Application". */
#define ZEPH_LAYOUT_STANDARD       0u
#define ZEPH_LAYOUT_SM_APPLICATION 1u

/* Key kinds of an open session. */
#define ZEPH_KEY_RSA_SIGN 1u
#define ZEPH_KEY_SM2_SIGN 2u
#define ZEPH_KEY_SM2_ENC  4u
#define ZEPH_KEY_RSA_ENC  8u

/* ---- Device configuration and detection -------------------------------- */

/* Replaces the device configuration text (a JSON array of
 * {"type":n,"vid":"..","skfLib":".."}); from then on the configuration file
 * is not read. The text is copied over the start of the process-wide
 * 2,048-byte buffer without its terminator, so a shorter text leaves the old
 * tail behind it (the parser reads the first complete value). A text of
 * 2,048 bytes or more is refused with ERR_DEVICE_CONFIG_INVALID and the
 * configuration stays as it was; NULL gives ERR_INVALID_PARAMETER. */
ZEPH_API uint32_t ZEPH_C_SetConfigInfo(const char *json_text);

/* Loads every vendor library of the configuration once per process (the
 * first successful call builds the table; later calls do nothing). */
ZEPH_API uint32_t loadAllOfCryptoDeviceHandle(void);

/* Module handle of the library serving keySN: the vendor prefix (the text
 * before the first "_", or the whole keySN) must begin a configured vid. The
 * walk stops at the first library that failed to load. NULL if none. */
ZEPH_API void *getCryptoDeviceHandleWithKeySN(const char *key_sn);

/* The keys plugged in now, as a JSON array of objects
 * {"keySN":..,"vid":..,"skfLib":..,"type":n}. A NULL buffer asks for the
 * length (text plus terminator); otherwise *in_out_len is the capacity and
 * must exceed the text length, else ERR_BUFFER_TOO_SMALL with the needed
 * length. On success the length written back counts the terminator. */
ZEPH_API uint32_t ZEPH_C_ukey_detection_getList(char *out_text, uint32_t *in_out_len);

/* JSON array (formatted, at most 1,023 characters) of the vid of every
 * vendor whose library did not load. NULL buffer: length query; otherwise
 * *in_out_len is the capacity (ERR_BUFFER_TOO_SMALL when short). The
 * length written back excludes the terminator, which is added when there is
 * room. */
ZEPH_API uint32_t ZEPH_C_ukey_detection_getDevErrStatus(char *out_text, uint32_t *in_out_len);

/* Splits keySN into the device type and library of the first vendor entry
 * whose vid occurs in it, and the device name after "<vid>_". out_skf_lib
 * holds ZEPH_DEVICE_SKFLIB_MAX bytes and out_device_name
 * ZEPH_DEVICE_NAME_MAX; both are left untouched when nothing matches (still
 * status 0). A keySN of ZEPH_DEVICE_NAME_MAX characters or more gives
 * ERR_INVALID_PARAMETER. */
ZEPH_API uint32_t ZEPH_C_ukey_detection_parseInfoWithKSN(const char *key_sn, uint32_t *out_type, char *out_skf_lib,
                                                         char *out_device_name);

/* Location of an object index in a layout: application and container, or
 * application, file and ZEPH_DEVICE_FILE_SIZE. Text outputs hold
 * ZEPH_DEVICE_NAME_MAX bytes each and may be NULL when not wanted. */
ZEPH_API uint32_t getDeviceInfoWithDeviceTypeFromConfig(uint32_t reserved, uint32_t layout, uint32_t index,
                                                        uint32_t reserved2, char *out_application, char *out_container,
                                                        char *out_file, uint32_t *out_file_size);

/* ---- Session context ---------------------------------------------------- */

typedef struct GM_SKF_CTX GM_SKF_CTX;

/* Connects the key named by keySN. The context is stored in *out_ctx
 * whenever it was allocated, also when connecting failed: release it with
 * GM_SKF_CTX_Finalize in every case. `reserved` is not used; `layout` is the
 * caller's layout, replaced by ZEPH_LAYOUT_SM_APPLICATION on keys whose first
 * application is "SM-Application". */
ZEPH_API uint32_t GM_SKF_CTX_Initialize(GM_SKF_CTX **out_ctx, uint32_t reserved, const char *key_sn, uint32_t layout);
/* Deletes and re-creates the object's application (and container) with the
 * given PINs and opens it, the user PIN verified. */
ZEPH_API uint32_t GM_SKF_CTX_NewSession(GM_SKF_CTX *ctx, uint32_t index, const char *admin_pin,
                                        uint32_t admin_pin_retry, const char *user_pin, uint32_t user_pin_retry);
/* Opens the object's application and container (a session already open on
 * the context is closed first). */
ZEPH_API uint32_t GM_SKF_CTX_OpenSession(GM_SKF_CTX *ctx, uint32_t index);
ZEPH_API uint32_t GM_SKF_CTX_CloseSession(GM_SKF_CTX *ctx);
ZEPH_API void GM_SKF_CTX_Finalize(GM_SKF_CTX *ctx);

/* PINs need not be terminated: exactly pin_len characters are used. */
ZEPH_API uint32_t GM_SKF_CTX_VerifyPin(GM_SKF_CTX *ctx, const char *pin, uint32_t pin_len);
ZEPH_API uint32_t GM_SKF_CTX_VerifyPinRetryCnt(GM_SKF_CTX *ctx, const char *pin, uint32_t pin_len, uint32_t *out_retry);
ZEPH_API uint32_t GM_SKF_CTX_VerifyAdminPin(GM_SKF_CTX *ctx, const char *pin, uint32_t pin_len);
ZEPH_API uint32_t GM_SKF_CTX_UnLockUserPinByAdminPin(GM_SKF_CTX *ctx, const char *admin_pin, uint32_t admin_pin_len,
                                                     const char *new_user_pin, uint32_t new_user_pin_len,
                                                     uint32_t *out_retry);
ZEPH_API uint32_t GM_SKF_CTX_ChangeUserPin(GM_SKF_CTX *ctx, const char *old_pin, uint32_t old_pin_len,
                                           const char *new_pin, uint32_t new_pin_len);
/* GM/T 0016 device authentication with the 16-byte authentication key (a
 * shorter key is padded with zero bytes). */
ZEPH_API uint32_t GM_SKF_CTX_DoDeviceAuth(GM_SKF_CTX *ctx, const unsigned char *key, uint32_t key_len);
ZEPH_API uint32_t GM_SKF_CTX_ChangeDevAuthKey(GM_SKF_CTX *ctx, const unsigned char *key, uint32_t key_len);
/* *out_flag = 1 when the vendor library offers SKF_RSADecrypt. */
ZEPH_API uint32_t GM_SKF_CTX_IsExt4SKF(GM_SKF_CTX *ctx, uint32_t *out_flag);

/* Readable report of the key: one line per application, then its
 * containers ("  container <name>: <RSA|SM2|empty>") and files
 * ("  file <name>: <size> bytes"). Output protocol: NULL buffer asks for the
 * length (terminator included), a short capacity gives ERR_BUFFER_TOO_SMALL. */
ZEPH_API uint32_t GM_SKF_CTX_EnumAllInfo(GM_SKF_CTX *ctx, char *out, uint32_t *in_out_len);
/* Counts: RSA containers in the RSA application, SM2 containers in the SM2
 * application, occupied seal slots (1 to 10) in the stamp application. An
 * application that is not on the key counts 0. */
ZEPH_API uint32_t GM_SKF_CTX_EnumRSAandSM2andSealInfo(GM_SKF_CTX *ctx, uint32_t *out_rsa, uint32_t *out_sm2,
                                                      uint32_t *out_seal);
/* Deletes every application on the key (needs device authentication). */
ZEPH_API uint32_t GM_SKF_CTX_DelAllApp(GM_SKF_CTX *ctx);

/* ---- Key operations (inside a session on the key's container) ---------- */

/* The value to sign: SM3(Z || M) for an SM2 signing session, otherwise the
 * DER DigestInfo of the message digest (the low 16 bits of digest_id are a
 * ZEPH_DIGEST_* identifier of zeph_c_api.h). */
ZEPH_API uint32_t GM_SKF_CTX_DataOnPretreatment(GM_SKF_CTX *ctx, const unsigned char *msg, uint32_t msg_len,
                                                unsigned char *out, uint32_t *in_out_len, uint32_t digest_id);
/* RSA: the vendor's signature, *in_out_sig_len is the capacity. SM2: 64
 * bytes r || s are always written; out_sig must hold 64 bytes. */
ZEPH_API uint32_t GM_SKF_CTX_SignHash(GM_SKF_CTX *ctx, const unsigned char *value, uint32_t value_len,
                                      unsigned char *out_sig, uint32_t *in_out_sig_len);
ZEPH_API uint32_t GM_SKF_CTX_SignHashEx(GM_SKF_CTX *ctx, const unsigned char *value, uint32_t value_len,
                                        unsigned char *out_sig, uint32_t *in_out_sig_len, uint32_t *extra);
/* RSA decryption with PKCS#1 type-2 padding removed (device type 10 returns
 * the vendor's output as it is). */
ZEPH_API uint32_t GM_SKF_CTX_DoAsymDec(GM_SKF_CTX *ctx, const unsigned char *cipher, uint32_t cipher_len,
                                       uint32_t padding, unsigned char *out, uint32_t *in_out_len);
/* cipher is an ECCCIPHERBLOB of cipher_len bytes. */
ZEPH_API uint32_t GM_SKF_CTX_SM2Decrypt(GM_SKF_CTX *ctx, const unsigned char *cipher, uint32_t cipher_len,
                                        unsigned char *out, uint32_t *in_out_len, uint32_t key_flag);
/* The signing public key: DER SubjectPublicKeyInfo for RSA, the 65-byte
 * point 04 || x || y for SM2. *in_out_len is the capacity handed to the
 * vendor as the blob length (at least 132 for SM2, 268 for RSA). */
ZEPH_API uint32_t GM_SKF_CTX_ExportPublicKey(GM_SKF_CTX *ctx, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t GM_SKF_CTX_GenRandom(GM_SKF_CTX *ctx, uint32_t length, unsigned char *out);
/* The DER certificate of the session's container: the signing one
 * (sign_flag 1) or the encryption one (0). NULL out asks for the length;
 * otherwise *in_out_len is the capacity (ERR_BUFFER_TOO_SMALL with the
 * length when short). Vendor statuses pass unchanged; a library without
 * the entry point gives ERR_GET_CERT_FAILED. */
ZEPH_API uint32_t GM_SKF_CTX_ExportCertificate(GM_SKF_CTX *ctx, uint32_t sign_flag, unsigned char *out,
                                               uint32_t *in_out_len);

/* In-place DigestInfo encoding: buffer holds digest_len bytes of a digest of
 * the given NID on entry and the DER DigestInfo on success, so it must have
 * room for 117 bytes. NID 114 takes a 32-byte value as it is. Returns 0, or
 * -1 (buffer untouched) for an unknown NID, a wrong length or an encoding
 * over 117 bytes. */
ZEPH_API int zeph_c_utils_RSAsignpad(unsigned char *buffer, int digest_nid, uint32_t digest_len, uint32_t *out_len);

/* ---- Files and seal areas (inside a session on the application) -------- */

ZEPH_API uint32_t GM_SKF_CTX_SetFileIntoCryptoDevice(GM_SKF_CTX *ctx, const char *name, const unsigned char *data,
                                                     uint32_t data_len);
/* NULL buffer: *in_out_len receives the file size. Otherwise *in_out_len is
 * the capacity and receives the number of bytes read. */
ZEPH_API uint32_t GM_SKF_CTX_GetFileFromCryptoDevice(GM_SKF_CTX *ctx, const char *name, unsigned char *out,
                                                     uint32_t *in_out_len);
ZEPH_API uint32_t GM_SKF_CTX_DeleteFile(GM_SKF_CTX *ctx, const char *name);
/* Seal areas: 2 "Picture", 3 "CertChain", any other "Cert". Slots of the
 * extended form: "Picture<n>". */
ZEPH_API uint32_t GM_SKF_CTX_SetSealInfo(GM_SKF_CTX *ctx, uint32_t area, const unsigned char *data, uint32_t data_len);
ZEPH_API uint32_t GM_SKF_CTX_GetSealInfo(GM_SKF_CTX *ctx, uint32_t area, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t GM_SKF_CTX_SetSealInfoEx(GM_SKF_CTX *ctx, uint32_t slot, const unsigned char *data,
                                           uint32_t data_len);
ZEPH_API uint32_t GM_SKF_CTX_GetSealInfoEx(GM_SKF_CTX *ctx, uint32_t slot, unsigned char *out, uint32_t *in_out_len);

/* ---- Certificate helpers ------------------------------------------------ */

/* 0, or ERR_SIGNATURE_INVALID for any failure: DER SM2 signature over data
 * with SM3 and the identity "1234567812345678", key from the certificate. */
ZEPH_API uint32_t zeph_c_cert_VerifySm2SignWithCert(const unsigned char *cert, uint32_t cert_len,
                                                    const unsigned char *data, uint32_t data_len,
                                                    const unsigned char *sig, uint32_t sig_len);
/* Algorithm of the certificate's public key: ZEPH_CERT_ALG_RSA,
 * ZEPH_CERT_ALG_SM2 or ZEPH_CERT_ALG_OTHER. An undecodable certificate gives
 * ERR_CERT_DECODE_FAILED (and ZEPH_CERT_ALG_OTHER). */
#define ZEPH_CERT_ALG_OTHER 0u
#define ZEPH_CERT_ALG_RSA   1u
#define ZEPH_CERT_ALG_SM2   2u
ZEPH_API uint32_t zeph_c_cert_getAlgoIDWithCert(const unsigned char *cert, uint32_t cert_len, uint32_t *out_algo_id);

/* ---- Key pairs and certificates (inside a session on the container) ----- */

/* A new signing pair (it replaces the old one): RSA of `bits` through
 * SKF_Ex_GenRSAKeyPair where the library has it, else SKF_GenRSAKeyPair;
 * SM2 through SKF_GenECCKeyPair. Export the public key afterwards. */
ZEPH_API uint32_t GM_SKF_CTX_GenRSAKeyPair(GM_SKF_CTX *ctx, uint32_t bits);
ZEPH_API uint32_t GM_SKF_CTX_GenECCKeyPair(GM_SKF_CTX *ctx);
/* Encryption pairs wrapped for the container's signing key: a GM/T 0016
 * ENVELOPEDKEYBLOB of blob_len bytes (its ciphertext may run past the
 * declared structure), or an SM4 key wrapped with RSA and the DER private
 * key under SM4-ECB (SGD_SM4_ECB). ERR_EXT_INTERFACE_MISSING when the
 * library lacks the entry point. */
ZEPH_API uint32_t GM_SKF_CTX_ImportECCKeyPair(GM_SKF_CTX *ctx, const unsigned char *blob, uint32_t blob_len);
ZEPH_API uint32_t GM_SKF_CTX_ImportRSAKeyPair(GM_SKF_CTX *ctx, const unsigned char *wrapped_key, uint32_t wrapped_len,
                                              const unsigned char *encrypted_key, uint32_t encrypted_len);
/* Stores the signing (sign_flag non-zero) or encryption certificate, DER;
 * GM_SKF_CTX_ExportCertificate reads it back. */
ZEPH_API uint32_t GM_SKF_CTX_ImportCertificate(GM_SKF_CTX *ctx, uint32_t sign_flag, const unsigned char *cert,
                                               uint32_t cert_len);
/* The signing or encryption public key in the forms of
 * GM_SKF_CTX_ExportPublicKey (SM2 for sessions on an SM2 object), with the
 * output protocol. */
ZEPH_API uint32_t GM_SKF_CTX_ExportPublicKeyEx(GM_SKF_CTX *ctx, uint32_t sign_flag, unsigned char *out,
                                               uint32_t *in_out_len);
/* Applications, containers (type, certificates) and files as JSON text
 * (the form of ZEPH_C_EnumCryptoDeviceObjects in zeph_c_cert.h); text
 * output protocol. Needs no session. */
ZEPH_API uint32_t GM_SKF_CTX_EnumObjects(GM_SKF_CTX *ctx, char *out_json, uint32_t *in_out_len);

/* ---- Device monitor ------------------------------------------------------ */

/* Called on the monitor thread with the device list text (the output of
 * ZEPH_C_ListPluginDevice, NUL-terminated). The buffer is reused on the next
 * poll: copy what you keep. The callback runs concurrently with the host's
 * other calls into the library and must be thread-safe. */
typedef void (*ZEPH_MONITOR_CALLBACK)(const char *device_list);

/* Starts the monitor thread: 0 when it was created; 1 (and nothing started)
 * when a monitor is already running; 0xFFFFFFFF when the thread could not be
 * created (later starts then answer 1 until stopCryptoDeviceMonitor). The
 * thread lists the keys every 3 seconds and calls `callback` whenever the
 * SHA-256 of the list text differs from that of the last list reported; the
 * first poll after start reports unless that digest is already the last one
 * reported (it survives stop and start). An empty list ("[]") is reported
 * like any other list. A NULL callback: the thread logs "cb is null." and
 * ends at once. */
ZEPH_API uint32_t startCryptoDeviceMonitor(ZEPH_MONITOR_CALLBACK callback);
/* Returns at once; the thread ends at its next check, within one poll
 * interval. A start in between finds the monitor stopped and creates a
 * second thread, and the first keeps running until the next stop. */
ZEPH_API uint32_t stopCryptoDeviceMonitor(void);

/* A POSIX thread running function(argument), with the given stack size
 * where the platform accepts it (0 or a size below its minimum: the default
 * stack). 0, or 0xFFFFFFFF when the thread was not created. The thread is
 * neither joined nor detached. */
ZEPH_API uint32_t _beginthread(void (*function)(void *), uint32_t stack_size, void *argument);
ZEPH_API void zeph_c_sleep(uint32_t seconds);

ZEPH_END_DECLS

#endif
