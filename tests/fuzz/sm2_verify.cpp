// Arbitrary digests, keys and DER signatures through SM2 verification,
// checked against OpenSSL: a signature the library accepts OpenSSL accepts
// too, and one OpenSSL accepts (with both coordinates of the key below p)
// the library accepts. Statuses stay within 0, 7 and 8.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include "zeph_c_sm2.h"

namespace {

// 1 verified, 0 not, -1 no such key.
int OpenSslVerify(const uint8_t *e, const uint8_t *pub, const uint8_t *sig, size_t sig_len) {
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char *>("SM2"), 0),
                         OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, const_cast<uint8_t *>(pub), 65),
                         OSSL_PARAM_construct_end()};
  EVP_PKEY_CTX *from = EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr);
  EVP_PKEY *key = nullptr;
  int result = -1;
  if (from != nullptr && EVP_PKEY_fromdata_init(from) == 1 &&
      EVP_PKEY_fromdata(from, &key, EVP_PKEY_PUBLIC_KEY, params) == 1) {
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key, nullptr);
    result = ctx != nullptr && EVP_PKEY_verify_init(ctx) == 1 && EVP_PKEY_verify(ctx, sig, sig_len, e, 32) == 1;
    EVP_PKEY_CTX_free(ctx);
  }
  EVP_PKEY_free(key);
  EVP_PKEY_CTX_free(from);
  return result;
}

// Both coordinates below p = FFFFFFFE FFFFFFFF ... 00000000 FFFFFFFF FFFFFFFF.
bool BelowP(const uint8_t *coordinate) {
  static const uint8_t p[32] = {0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00,
                                0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  return std::memcmp(coordinate, p, 32) < 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 97 || size > 4096) return 0;
  uint8_t pub[65];
  std::memcpy(pub, data + 32, 65);
  pub[0] = 0x04;
  const uint8_t *e = data, *sig = data + 97;
  const auto sig_len = static_cast<uint32_t>(size - 97);
  const uint32_t rv = BIVO_VerifySm2SignatureOnDigestWithPubKey(e, pub, 65, sig, sig_len);
  if (rv != 0 && rv != BIVO_ERR_SIGNATURE_FORMAT && rv != BIVO_ERR_VERIFY) std::abort();
  const int theirs = OpenSslVerify(e, pub, sig, sig_len);
  if (rv == 0 && theirs != 1) std::abort();
  if (theirs == 1 && BelowP(pub + 1) && BelowP(pub + 33) && rv != 0) std::abort();
  return 0;
}
