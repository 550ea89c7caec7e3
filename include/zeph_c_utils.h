/* Foundation: logging, configuration files, dynamic loading, encoding, file,
 * padding, time and URL helpers, software digests and SM4-ECB helpers. */
#ifndef ZEPH_C_UTILS_H
#define ZEPH_C_UTILS_H

#include <openssl/asn1.h>
#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_status.h"

ZEPH_BEGIN_DECLS

/* ---- Logging ---------------------------------------------------------- */
typedef void (*zeph_log_callback)(const char *record);

/* Installs the debug-record callback (NULL switches it off); returns the
 * address of the process-wide callback slot. */
ZEPH_API zeph_log_callback *setLogCallback(zeph_log_callback callback);
ZEPH_API void zeph_logger_debug(const char *message, int64_t status, const char *source_file, int line);
ZEPH_API int zeph_logger_debugHex(const unsigned char *data, uint32_t length, const char *source_file, int line);
ZEPH_API int se_getTimeString(char *out);
ZEPH_API int se_getLogPath(char *out);

/* ---- Dynamic loading and configuration ------------------------------- */
ZEPH_API void *LoadLibraryA(const char *file_name);
ZEPH_API int FreeLibrary(void *module);
ZEPH_API void *GetProcAddress(void *module, const char *name);
/* Sets the directory of the device configuration file (at most 1,024
 * characters); 0, or 0xFFFFFFFF leaving the directory unchanged. */
ZEPH_API uint32_t ZEPH_C_SetConfig(const char *directory);
/* Path of "vorli_ukey_cfg.json" into a 260-byte buffer: the configuration
 * directory's file if it exists, else the working directory's, else the bare
 * name. */
ZEPH_API int get_vorli_cfg_path(char *out);
/* Path of the deployment INI file into a 260-byte buffer:
 * "$KANDELOR_CONFIG_FILE_PATH//KandelorOstConfig.ini", or
 * "//etc//KandelorOstConfig.ini" when the variable is unset. A variable too
 * long for the buffer leaves it empty and gives ERR_INVALID_PARAMETER. */
ZEPH_API int GetKandelorOstConfigPath(char *out);
/* INI readers. The text reader returns the value's length, or 0 with the
 * default copied; both are cut to out_size - 1 characters and terminated. */
ZEPH_API uint32_t GetPrivateProfileString(const char *section, const char *key, const char *default_text, char *out,
                                          uint32_t out_size, const char *file_name);
ZEPH_API int32_t GetPrivateProfileInt(const char *section, const char *key, int32_t default_value,
                                      const char *file_name);

/* ---- Encoding, files, time, URLs ------------------------------------- */
/* Whole regular files. readFile with a NULL out reports the size; with a
 * buffer, *in_out_len is its capacity (ERR_BUFFER_TOO_SMALL if short).
 * Failures to open or read give 0xFFFFFFFF. */
ZEPH_API uint32_t zeph_c_utils_readFile(const char *path, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t zeph_c_utils_writeFile(const char *path, const unsigned char *data, uint32_t length);
/* Base64 on one line. Texts written for the caller are terminated: a NULL
 * out asks for the bytes needed (terminator included); on success the length
 * is the text length. */
ZEPH_API uint32_t File_PEMEncode(const unsigned char *data, uint32_t length, char *out, uint32_t *in_out_len);
ZEPH_API uint32_t File_PEMDecode(const char *text, uint32_t length, unsigned char *out, uint32_t *in_out_len);
/* Buffers handed out (b64tohex, hex2b64, mergeBuffer, add/del_P5_padding,
 * zeph_parse_url) are released with free(). */
ZEPH_API uint32_t zeph_c_utils_b64tohex(const char *text, unsigned char **out_buffer, uint32_t *out_len);
ZEPH_API uint32_t zeph_c_utils_b64tohex2(const char *text, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t zeph_c_utils_hex2b64(const unsigned char *data, uint32_t length, char **out_text);
ZEPH_API uint32_t zeph_c_utils_hex2ascii(const unsigned char *data, uint32_t length, char *out, uint32_t *in_out_len);
/* Placeholders that succeed and convert nothing. */
ZEPH_API uint32_t zeph_c_utils_ascii2hex(const char *text, uint32_t length, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t zeph_c_gbk2utf8(char *out, const char *text, uint32_t length);
ZEPH_API uint32_t zeph_gbk2utf8_malloc(const char *text, uint32_t length, char **out_text);
ZEPH_API uint32_t zeph_c_utils_mergeBuffer(const unsigned char *first, uint32_t first_length,
                                           const unsigned char *second, uint32_t second_length,
                                           unsigned char **out_buffer, uint32_t *out_len);
/* "YYYYMMDDhhmmss" local time of an ASN.1 time (empty when it does not
 * convert); output texts as for File_PEMEncode. */
ZEPH_API uint32_t zeph_c_utils_getStandardTime(const ASN1_TIME *asn1_time, char *out, uint32_t *in_out_len);
ZEPH_API uint32_t zeph_c_utils_GMTgetStandardTime(const ASN1_TIME *asn1_time, char *out, uint32_t *in_out_len);
/* Writes the name (at most 21 bytes with the terminator) for codes 3..6. */
ZEPH_API uint32_t zeph_getVorliAlgName(uint32_t code, char *out);
/* "http[s]://host[:port]": 1 with new host and port texts, or 0 with both
 * NULL. A bracketed IPv6 host comes back without brackets. */
ZEPH_API int zeph_parse_url(const char *url, char **out_host, char **out_port, int *out_is_https);

/* ---- Digests, SM4-ECB and PKCS#5 ------------------------------------- */
/* algorithm: a digest identifier, ZEPH_DIGEST_SM3 ... ZEPH_DIGEST_MD5
 * (zeph_c_api.h). */
ZEPH_API uint32_t zeph_c_utils_digest(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                      unsigned char *out_digest, uint32_t *in_out_digest_len, int *out_nid);
ZEPH_API uint32_t zeph_c_utils_digestWithFilePath(const char *file_name, uint32_t algorithm, unsigned char *out_digest,
                                                  uint32_t *in_out_digest_len, int *out_nid);
/* SM4-ECB with a 16-byte key, whatever the algorithm identifier. Output
 * buffers follow the library convention: NULL out asks for the length;
 * *in_out_len is the capacity on entry and the result length on exit. */
ZEPH_API uint32_t zeph_c_utils_encrypt(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                       const unsigned char *key, uint32_t key_length, unsigned char *out,
                                       uint32_t *in_out_len);
ZEPH_API uint32_t zeph_c_utils_decrypt(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                       const unsigned char *key, uint32_t key_length, unsigned char *out,
                                       uint32_t *in_out_len);
ZEPH_API uint32_t zeph_c_utils_encryptNoPading(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                               const unsigned char *key, uint32_t key_length, unsigned char *out,
                                               uint32_t *in_out_len);
ZEPH_API uint32_t zeph_c_utils_decryptNoPading(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                               const unsigned char *key, uint32_t key_length, unsigned char *out,
                                               uint32_t *in_out_len);
/* FILE -> FILE.enc (FILE.dec), never overwriting an existing output; a
 * failed run leaves no output behind. */
ZEPH_API uint32_t zeph_c_utils_encryptWithFilePath(const char *file_name, const unsigned char *reserved,
                                                   uint32_t reserved_length, const unsigned char *key,
                                                   uint32_t key_length);
ZEPH_API uint32_t zeph_c_utils_decryptWithFilePath(const char *file_name, const unsigned char *reserved,
                                                   uint32_t reserved_length, const unsigned char *key,
                                                   uint32_t key_length);
ZEPH_API uint32_t zeph_c_utils_add_P5_padding(const unsigned char *data, uint32_t length, unsigned char **out_buffer,
                                              uint32_t *out_len);
ZEPH_API uint32_t zeph_c_utils_del_P5_padding(const unsigned char *data, uint32_t length, unsigned char **out_buffer,
                                              uint32_t *out_len);
ZEPH_API uint32_t zeph_c_utils_getPlaintextLengthFromPadding(const unsigned char *data, uint32_t length);

ZEPH_END_DECLS

#endif
