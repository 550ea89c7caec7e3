// Symmetric encryption by algorithm ID: SM4 ECB and CBC with PKCS#7
// padding, and the IDEA-based SDBI cipher.
#include <algorithm>

#include <openssl/rand.h>

#include "api/p7_internal.hpp"
#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_p7.h"
#include "zeph_c_sdbi.h"
#include "zeph_c_status.h"
#include "zeph_skf.h"

namespace {

constexpr size_t kKeyLen = 16;
constexpr size_t kIvLen = 16;
constexpr size_t kSdbiBlock = 8;

using zeph::p7::Span;

uint32_t Sm4(bool cbc, bool encrypt, Span key, Span in, zeph::SecureBytes *out) {
  if (encrypt) {
    uint8_t iv[kIvLen] = {};
    ZEPH_ENSURE(!cbc || RAND_bytes(iv, sizeof iv) == 1, ERR_ENCODE_FAILED);
    zeph::p7::Bytes cipher;
    ZEPH_TRY(zeph::p7::Sm4Encrypt(key, cbc ? iv : nullptr, in, &cipher));
    // CBC travels with its IV in front.
    *out = zeph::SecureBytes((cbc ? kIvLen : 0) + cipher.size());
    if (cbc) std::copy(iv, iv + kIvLen, out->data());
    std::copy(cipher.begin(), cipher.end(), out->data() + (cbc ? kIvLen : 0));
    return 0;
  }
  if (!cbc) return zeph::p7::Sm4Decrypt(key, nullptr, in, out);
  ZEPH_ENSURE(in.size() > kIvLen, ERR_PADDING_INVALID);
  return zeph::p7::Sm4Decrypt(key, in.data(), in.subspan(kIvLen), out);
}

uint32_t Sdbi(bool encrypt, Span key, Span in, zeph::SecureBytes *out) {
  ZEPH_ENSURE(in.size() <= UINT32_MAX - kSdbiBlock, ERR_INVALID_PARAMETER);
  const uint8_t none = 0;
  const uint8_t *src = in.empty() ? &none : in.data();
  const auto len = static_cast<uint32_t>(in.size());
  zeph::SecureBytes result(in.size() + kSdbiBlock);
  uint32_t result_len = 0;
  if (encrypt) {
    ZEPH_ENSURE(Crypt_Enc_Data_S(src, len, result.data(), &result_len, key.data()) == 0, ERR_ENCODE_FAILED);
  } else {
    ZEPH_ENSURE(Crypt_Dec_Data_S(src, len, result.data(), &result_len, key.data()) == 0, ERR_PADDING_INVALID);
  }
  ZEPH_ENSURE(result_len <= result.size(), ERR_ENCODE_FAILED);
  result.resize(result_len);
  *out = std::move(result);
  return 0;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ZEPH_C_DoSymmetricAlgorithm(uint32_t alg_id, uint32_t encrypt, const unsigned char *key,
                                              uint32_t key_len, const unsigned char *in, uint32_t in_len,
                                              unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(in_out_len != nullptr && (in != nullptr || in_len == 0), ERR_INVALID_PARAMETER);
    ZEPH_ENSURE(alg_id == SGD_SM4_ECB || alg_id == SGD_SM4_CBC || alg_id == ZEPH_ALG_IDEA_SDBI, ERR_UNSUPPORTED_VALUE);
    ZEPH_ENSURE(key != nullptr && key_len == kKeyLen, ERR_INVALID_PARAMETER);
    const Span k(key, key_len);
    const Span data = in != nullptr ? Span(in, in_len) : Span();
    zeph::SecureBytes result;
    if (alg_id == ZEPH_ALG_IDEA_SDBI) {
      ZEPH_TRY(Sdbi(encrypt != 0, k, data, &result));
    } else {
      ZEPH_TRY(Sm4(alg_id == SGD_SM4_CBC, encrypt != 0, k, data, &result));
    }
    return zeph::PutOutput(result.span(), out, in_out_len);
  });
}

}  // extern "C"
