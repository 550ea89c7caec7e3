/* PKI services: one-shot HTTP/1.0 and HTTPS POST, and RFC 3161 time stamps.
 *
 * Every exchange ends within the process-wide deadlines (10 s to connect,
 * 30 s for the whole exchange, see ZEPH_C_HttpSetTimeouts) and never reads
 * more than it can hold. Failures of the connection, the exchange or the
 * reply give ERR_HTTP_FAILED (0x8208003C); with a log callback installed a
 * record names the reason.
 *
 * HTTPS does not verify the server by default: the handshake accepts any
 * certificate. ZEPH_C_HttpsSetCAFile switches verification on for every
 * HTTPS exchange of the process. */
#ifndef ZEPH_C_PKI_H
#define ZEPH_C_PKI_H

#include <openssl/asn1.h>
#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_status.h"

ZEPH_BEGIN_DECLS

/* ---- HTTP and HTTPS POST --------------------------------------------- */

/* Header blocks inserted verbatim after the Host line of every request of
 * the text senders (HttpsPostHeaders) and of the time-stamp sender
 * (HttpsPostHeadersForTimeStamp). A host may point them at its own text
 * (each line ending "\r\n") before it starts posting; the defaults are
 *   "User-Agent: Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\r\n"
 *   "Cache-Control: no-cache\r\nAccept: * / *\r\n" (without the blanks)
 * followed by "Content-type: application/json\r\n" and
 * "Content-Type:application/timestamp-query\r\n" respectively: spelling
 * and spacing are sent exactly so. */
ZEPH_API extern const char *HttpsPostHeaders;
ZEPH_API extern const char *HttpsPostHeadersForTimeStamp;

/* The senders. Each connects to host:port, sends
 *   "POST <path> HTTP/1.0\r\nHost: <host>:<port>\r\n" <header block>
 *   "Content-Length: <body_len>\r\n\r\n" <body>
 * reads until the server closes and returns the body after the first
 * "\r\n\r\n". *in_out_len is the capacity of `out` on entry; below 1 the
 * call returns 0xFFFFFFFF before connecting.
 *
 * Text senders (http_post, https_post): the body is sent up to its first
 * zero byte although Content-Length states body_len. The reply body is
 * delivered as a text up to its first zero byte, terminated; the text and
 * its terminator must fit the capacity, else ERR_HTTP_FAILED.
 * *in_out_len gets the text length.
 *
 * http_post_timestamp sends the body byte for byte and delivers the reply
 * body as bytes; the body must be at least 1 byte and strictly shorter than
 * the capacity, else ERR_HTTP_FAILED. A reply of 9 bytes or fewer fails.
 *
 * Only the last read of a reply is examined: a reply that arrives in several
 * pieces fails (ERR_HTTP_FAILED) or loses its earlier pieces; use
 * ZEPH_C_HttpPostEx for replies of any shape. A reply that does not start
 * "HTTP/" or has no "\r\n\r\n" fails; so does one of more than capacity +
 * 512 + 16384 bytes. The HTTP status code is not checked.
 *
 * Statuses: 0; 0xFFFFFFFF (capacity below 1, or a read that failed on
 * http_post and http_post_timestamp); ERR_HTTP_FAILED (connection, TLS
 * handshake or trust, deadline, size limits, malformed reply);
 * ERR_INVALID_PARAMETER for a missing host, path or length pointer. */
ZEPH_API uint32_t http_post(const char *host, int port, const char *path, const char *body, uint32_t body_len,
                            char *out, uint32_t *in_out_len);
ZEPH_API uint32_t http_post_timestamp(const char *host, int port, const char *path, const unsigned char *body,
                                      uint32_t body_len, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t https_post(const char *host, int port, const char *path, const char *body, uint32_t body_len,
                             char *out, uint32_t *in_out_len);

/* The same three senders under their API names. */
ZEPH_API uint32_t ZEPH_C_HttpPost(const char *host, int port, const char *path, const char *body, uint32_t body_len,
                                  char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_HttpTimeStampPost(const char *host, int port, const char *path, const unsigned char *body,
                                           uint32_t body_len, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_HttpsPost(const char *host, int port, const char *path, const char *body, uint32_t body_len,
                                   char *out, uint32_t *in_out_len);

/* POSTs body_len bytes to an "http://" or "https://" URL
 * (host[:port][/path]) with the given Content-Type (NULL:
 * "application/json") and delivers the reply body, however many reads it
 * arrives in, as soon as Content-Length bytes have arrived (or the server
 * closed, without Content-Length). *out_http_status (if not NULL) gets the
 * reply's status code, 0 when no reply was parsed.
 *   0                     2xx reply, body in out, length in *in_out_len
 *   ERR_HTTP_FAILED       no connection, deadline, malformed or truncated
 *                         reply, a header above 16 KiB, or a non-2xx
 *                         status (its body is still delivered when it fits)
 *   ERR_BUFFER_TOO_SMALL  the body exceeds the capacity; *in_out_len gets
 *                         the length announced (or received so far)
 *   ERR_INVALID_PARAMETER missing URL or length, or a URL that does not
 *                         parse
 * Other failures leave *in_out_len at 0. `out` may be NULL only with a
 * capacity of 0. */
ZEPH_API uint32_t ZEPH_C_HttpPostEx(const char *url, const char *content_type, const unsigned char *body,
                                    uint32_t body_len, unsigned char *out, uint32_t *in_out_len, int *out_http_status);

/* Deadlines of every later exchange in the process, in milliseconds: one to
 * establish the connection, one for the whole exchange (connection, TLS
 * handshake, writing and reading). 0 restores the default of either
 * (10000 and 30000). Returns 0. Expiry gives ERR_HTTP_FAILED. Host names
 * are resolved by the system resolver, under its own time limits. */
ZEPH_API uint32_t ZEPH_C_HttpSetTimeouts(uint32_t connect_ms, uint32_t total_ms);

/* Makes every later HTTPS exchange of the process (the senders above, the
 * co-signing client included) verify the server: its chain must lead to a
 * certificate of the PEM file and its name must match the host (an IP
 * literal against the certificate's IP addresses). A server that fails
 * gives ERR_HTTP_FAILED before any request byte is sent. NULL or ""
 * restores the default (no verification). A file that does not load (no
 * certificate in it) gives ERR_FILE_OPEN_FAILED and changes nothing. */
ZEPH_API uint32_t ZEPH_C_HttpsSetCAFile(const char *pem_path);

/* ---- RFC 3161 time stamps -------------------------------------------- */

/* A new positive INTEGER of (bits - 1) / 8 + 1 random bytes, leading zero
 * bytes dropped; NULL for more than 160 bits or when the generator fails.
 * Release it with ASN1_INTEGER_free. */
ZEPH_API ASN1_INTEGER *create_nonce(int bits);

/* Asks the time-stamp server at `url` to stamp a signature and delivers its
 * reply (DER TimeStampResp, unexamined) by the length-query protocol (NULL
 * out asks for the length; short: ERR_BUFFER_TOO_SMALL).
 *
 * alg 1: `sig` is an SM2 signed message (SM2_Sign, zeph_c_p7.h) and its
 * first signer's signature is stamped with SM3; a missing piece gives
 * ERR_INVALID_PARAMETER. Any other alg: `sig` is a PKCS#7 signed-data and its
 * first signer's signature is stamped; a missing piece gives 0xFFFFFFFF.
 * The value is hashed with the digest of the low 16 bits of alg (1 SM3,
 * 2 SHA-1, 4 SHA-256, 8 SHA-384, 16 SHA-512, 128 MD5; other values
 * ERR_DIGEST_FAILED) and labelled by alg: 1 SM3, 0x10004 SHA-256, 0x10008
 * SHA-384, 0x10010 SHA-512, every other code SHA-1 (so 4 sends a SHA-256
 * value labelled SHA-1, which a server refuses).
 * The query: version 1, that imprint (NULL parameter), a 64-bit nonce,
 * certReq true, no policy, no extensions. It is posted by
 * http_post_timestamp over plain HTTP even for an "https" URL (to the port
 * the URL names, else 443); a URL that does not parse gives
 * ERR_INVALID_PARAMETER. Replies up to 16383 bytes are taken.
 * A query that cannot be built returns 0 with *in_out_len set to 0 and no
 * data: check the length. */
ZEPH_API uint32_t ZEPH_C_GetTimeStamp(const char *url, uint32_t alg, uint32_t sig_len, const unsigned char *sig,
                                      unsigned char *out, uint32_t *in_out_len);

/* Posts a ready DER query to the deployment's time-stamp server,
 * http://<ServerIP>:<ServerPort>/timestamp/Timestamp/rfctime.do, where
 * ServerIP (an IPv4 literal, default 127.0.0.1) and ServerPort (default 80)
 * are read from section [TimeStamp] of the INI file named by
 * GetKandelorOstConfigPath. On success *out is a new buffer holding the
 * reply body (release it with free) and *out_len its length. A ServerIP
 * that is not an IPv4 literal gives ERR_INVALID_PARAMETER. */
ZEPH_API uint32_t ZEPH_C_GetTimeStampBySeq(const unsigned char *query, uint32_t query_len, unsigned char **out,
                                           uint32_t *out_len);

/* Embeds the token of a time-stamp reply into a PKCS#7 signed-data: the
 * token becomes the unsigned attribute id-smime-aa-timeStampToken (a
 * SEQUENCE) of the first signer (replacing an earlier one). The reply is
 * not verified (see ZEPH_C_StampPKCS7). Output by the length-query
 * protocol. 0xFFFFFFFF: the reply does not decode, is not granted (status
 * 0 or 1) or has no token; the PKCS#7 does not decode, is not signed-data
 * or has no signer. */
ZEPH_API uint32_t ZEPH_C_GetTimeStampPKCS7(const unsigned char *resp, uint32_t resp_len, const unsigned char *p7,
                                           uint32_t p7_len, unsigned char *out, uint32_t *in_out_len);

/* Time-stamps a PKCS#7 signed-data in one checked call: queries `url` over
 * the first signer's signature (alg 1 SM3, 2 SHA-1, 0x10004 SHA-256,
 * 0x10008 SHA-384, 0x10010 SHA-512; other codes ERR_UNSUPPORTED_VALUE), then
 * embeds the token only if the reply is granted, its version, nonce and
 * imprint match the query, and the token's signature verifies with a
 * signer certificate that chains to a certificate of `tsa_ca_file` (PEM)
 * and carries the timeStamping extended key usage. Nothing is written on
 * failure.
 *   0xFFFFFFFF             the server did not grant the request
 *   ERR_SIGNATURE_INVALID  reply or token malformed, a field that does not
 *                          match, a signature that does not verify
 *   ERR_CERT_UNTRUSTED     the signer does not chain to tsa_ca_file or is
 *                          not a time-stamping certificate
 *   ERR_FILE_OPEN_FAILED   tsa_ca_file does not load
 *   ERR_BUFFER_TOO_SMALL   output length query as usual; every call makes
 *                          a new stamp, whose length may differ by a few
 *                          bytes, so size the buffer with a margin
 * and the HTTP statuses of ZEPH_C_HttpPostEx. The PKCS#7 errors are those
 * of ZEPH_C_GetTimeStampPKCS7. */
ZEPH_API uint32_t ZEPH_C_StampPKCS7(const char *url, uint32_t alg, const unsigned char *p7, uint32_t p7_len,
                                    const char *tsa_ca_file, unsigned char *out, uint32_t *in_out_len);

ZEPH_END_DECLS

#endif
