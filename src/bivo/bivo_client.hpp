// The co-signing client inside: the context, the service exchange, the
// sealed share and the request signer shared by the SM2 and RSA halves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include <openssl/x509.h>

#include "bivo/bivo_math.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/secure_bytes.hpp"
#include "zeph_c_bivo.h"
#include "zeph_c_status.h"

inline constexpr size_t kBivoTextBuffer = 130;

struct ZEPH_BIVO_CTX_st {
  char device_number[kBivoTextBuffer];
  char container_id[65];
  char url[kBivoTextBuffer];
  uint8_t d1[32];
  uint8_t d1_inv[32];
  uint8_t pubkey[65];
  uint32_t pubkey_len;
  std::string host;
  int port;
  std::string path;
  int tls;
  bool has_service;
  bool has_key;
};

extern "C" {

// What an RSAParm seals: the container, the public key and d1 (not exported).
typedef struct BivoRsaShare_st {
  ASN1_PRINTABLESTRING *container_id;
  ASN1_INTEGER *n;
  ASN1_INTEGER *e;
  ASN1_INTEGER *d1;
} BivoRsaShare;
DECLARE_ASN1_FUNCTIONS(BivoRsaShare);

// Takes a DER BIVOParm apart. Each output is written only when its pointer
// is given; its *len is the capacity on entry and the value's length on
// return. 0, or -1 when the DER does not decode (trailing bytes included) or
// a value does not fit its capacity.
int l_bivo_ResloveParm(const unsigned char *der, uint32_t der_len, unsigned char *pubkey_out, uint32_t *pubkey_len,
                       unsigned char *hash_out, uint32_t *hash_len, unsigned char *d1_out, uint32_t *d1_len,
                       unsigned char *d1_inv_out, uint32_t *d1_inv_len);

// The string value of key in a JSON text into out (out_size bytes, the
// terminator included). 0; ERR_JSON_INVALID when the text does not parse or
// has no string under key; ERR_BUFFER_TOO_SMALL when it does not fit.
uint32_t l_GetCStringFromJsonByKey(const char *json_text, const char *key, char *out, uint32_t out_size);

}  // extern "C"

namespace zeph::bivo {

// Buffers of the exchanges: requests of a key pair, of a signature or
// decryption, and every reply.
inline constexpr size_t kKeyPairRequest = 650;
inline constexpr size_t kShareRequest = 780;
inline constexpr size_t kReplyBuffer = 1024;

// Posts body to <path><method> and hands back the reply's "result" as JSON
// text (a string holding JSON text, or an object). ERR_COSIGN_FAILED without
// a service; ERR_HTTP_FAILED for the transport or a "status" other than 200;
// ERR_JSON_INVALID for a reply that is not JSON or has no "result".
uint32_t CallService(const ZEPH_BIVO_CTX &ctx, const char *method, std::string_view body, std::string *result,
                     size_t max_reply = kReplyBuffer);

// The "result" of a reply body: as CallService, without the exchange.
uint32_t ReadReply(std::string_view body, std::string *result);

// A base64 value of the result that decodes to exactly out.size() bytes, else
// ERR_COSIGN_FAILED (ERR_JSON_INVALID when the key is missing).
uint32_t ResultBytes(const std::string &result, const char *key, std::span<uint8_t> out);
// Any base64 value of the result of at most max bytes.
uint32_t ResultBytes(const std::string &result, const char *key, size_t max, std::vector<uint8_t> *out);

// A point of the result (65 bytes, 0x04, on the curve) and a scalar (32
// bytes in [1, n-1]), else ERR_COSIGN_FAILED.
uint32_t ResultPoint(const std::string &result, const char *key, Point *out);
uint32_t ResultScalar(const std::string &result, const char *key, Scalar *out);

// The DER of an ASN.1 object into der: 0 or ERR_ENCODE_FAILED.
template <class T>
uint32_t ToDer(int (*i2d)(const T *, unsigned char **), const T *obj, std::vector<uint8_t> *der) {
  const int n = i2d(obj, nullptr);
  if (n <= 0) return ERR_ENCODE_FAILED;
  der->resize(static_cast<size_t>(n));
  unsigned char *w = der->data();
  return i2d(obj, &w) == n ? 0 : ERR_ENCODE_FAILED;
}
// Upper-case hex, as the container identifiers are written.
std::string HexUpper(std::span<const uint8_t> bytes);

// The device-data seal: K = SM3(secret || device number), SM4-ECB under
// K[0..15] xor K[16..31], without padding (whole blocks) or with PKCS#7
// padding. Decoding with padding gives ERR_PIN_VERIFY_FAILED when the padding
// is wrong (a wrong secret).
uint32_t l_bivo_EnCodeDeviceData(std::span<const uint8_t> secret, const char *device_number,
                                 std::span<const uint8_t> data, bool padding, SecureBytes *out);
uint32_t l_bivo_DeCodeDeviceData(std::span<const uint8_t> secret, const char *device_number,
                                 std::span<const uint8_t> data, bool padding, SecureBytes *out);

// The SM2 share as a DER BIVOParm sealed under secret, and its length (the
// same for every share).
uint32_t EncodeShare(std::span<const uint8_t> secret, const char *device_number, const Scalar &d1, const Scalar &d1_inv,
                     const Point &p, std::vector<uint8_t> *der);
size_t ShareLength();
// The share opened with the secret and checked (SM3(d1) is its digest,
// d1·d1^-1 = 1): ERR_INVALID_PARAMETER for DER that is no share,
// ERR_PIN_VERIFY_FAILED for a secret that does not open it.
uint32_t OpenShare(std::span<const uint8_t> secret, const char *device_number, std::span<const uint8_t> der, Scalar *d1,
                   Scalar *d1_inv, Point *p, char container_id[65]);

// An SM2 public key (65 bytes) as an OpenSSL key, null when it is no point.
EvpPkeyPtr Sm2Key(const uint8_t pubkey65[65]);

// A PKCS#10 request for key with the subject dn, signed by sign over its
// DER to-be-signed part; sig_alg names the signature algorithm.
using TbsSigner = std::function<uint32_t(std::span<const uint8_t> tbs, std::vector<uint8_t> *sig)>;
uint32_t BuildCsr(EVP_PKEY *key, const char *dn, int sig_nid, const TbsSigner &sign, std::vector<uint8_t> *der);
// Room for such a request: the DER with a signature of sig_max bytes.
uint32_t CsrLength(EVP_PKEY *key, const char *dn, int sig_nid, size_t sig_max, size_t *len);

}  // namespace zeph::bivo
