// SM4-ECB over caller buffers, with and without PKCS#5 padding. Whatever
// algorithm identifier the caller passes, the cipher is SM4-ECB.
#include <initializer_list>

#include "foundation/helpers.hpp"
#include "foundation/output.hpp"
#include "foundation/owned.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_utils.h"

namespace {

constexpr size_t kBlock = 16;
constexpr size_t kKeyLength = 16;
// EVP takes int lengths; larger buffers go through in steps.
constexpr size_t kEvpStep = size_t{1} << 30;

bool KeyOk(const unsigned char *key, uint32_t key_length) { return key != nullptr && key_length == kKeyLength; }

struct Segment {
  const unsigned char *in;
  size_t n;            // a multiple of 16
  unsigned char *out;  // n bytes; may be `in`
};

// Runs SM4-ECB with OpenSSL's padding off over whole-block segments, one
// cipher context for all of them.
uint32_t EcbBlocks(int encrypt, const unsigned char *key, std::initializer_list<Segment> segments) {
  zeph::EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return ERR_OUT_OF_MEMORY;
  if (EVP_CipherInit_ex(ctx.get(), EVP_sm4_ecb(), nullptr, key, nullptr, encrypt) != 1 ||
      EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
    return ERR_ALG_UNSUPPORTED;
  }
  for (const Segment &s : segments) {
    for (size_t done = 0; done < s.n;) {
      const size_t step = std::min(s.n - done, kEvpStep);
      int got = 0;
      if (EVP_CipherUpdate(ctx.get(), s.out + done, &got, s.in + done, static_cast<int>(step)) != 1 ||
          static_cast<size_t>(got) != step) {
        return ERR_ALG_UNSUPPORTED;
      }
      done += step;
    }
  }
  unsigned char sink[kBlock];
  int tail = 0;
  if (EVP_CipherFinal_ex(ctx.get(), sink, &tail) != 1 || tail != 0) return ERR_ALG_UNSUPPORTED;
  return 0;
}

uint32_t EcbNoPadding(int encrypt, const unsigned char *data, uint32_t data_length, const unsigned char *key,
                      uint32_t key_length, unsigned char *out, uint32_t *out_length) {
  if (data == nullptr || data_length == 0 || !KeyOk(key, key_length) || out_length == nullptr) {
    return ERR_INVALID_PARAMETER;
  }
  if (data_length % kBlock != 0) return ERR_ALG_UNSUPPORTED;
  if (auto done = zeph::ReserveOutput(data_length, out, out_length)) return *done;
  ZEPH_TRY(EcbBlocks(encrypt, key, {{data, data_length, out}}));
  *out_length = data_length;
  return 0;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t zeph_c_utils_encrypt(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                       const unsigned char *key, uint32_t key_length, unsigned char *out,
                                       uint32_t *in_out_len) {
  if (data == nullptr || data_length == 0 || !KeyOk(key, key_length) || in_out_len == nullptr) {
    return ERR_INVALID_PARAMETER;
  }
  const size_t padded = (size_t{data_length} + kBlock) & ~(kBlock - 1);
  if (auto done = zeph::ReserveOutput(padded, out, in_out_len)) return *done;

  // Whole blocks go straight from the input; only the last block is padded
  // apart, so no copy of the whole input is needed.
  const size_t whole = data_length & ~(kBlock - 1);
  unsigned char last[kBlock];
  zeph::P5Pad(data + whole, data_length - whole, last, kBlock, 0);
  const uint32_t rv = EcbBlocks(1, key, {{data, whole, out}, {last, kBlock, out + whole}});
  OPENSSL_cleanse(last, sizeof last);
  if (rv != 0) return rv;
  *in_out_len = static_cast<uint32_t>(padded);
  return 0;
}

ZEPH_API uint32_t zeph_c_utils_decrypt(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                       const unsigned char *key, uint32_t key_length, unsigned char *out,
                                       uint32_t *in_out_len) {
  if (data == nullptr || data_length == 0 || !KeyOk(key, key_length) || in_out_len == nullptr) {
    return ERR_INVALID_PARAMETER;
  }
  if (data_length % kBlock != 0) return ERR_ALG_UNSUPPORTED;

  // A buffer that takes the whole decryption works in place; otherwise the
  // plaintext length is only known after decrypting into scratch space.
  if (out != nullptr && *in_out_len >= data_length) {
    uint32_t rv = EcbBlocks(0, key, {{data, data_length, out}});
    size_t plain = 0;
    if (rv == 0) rv = zeph::P5Unpad(out, data_length, out, &plain, 0);
    if (rv != 0) {
      OPENSSL_cleanse(out, data_length);
      return rv;
    }
    *in_out_len = static_cast<uint32_t>(plain);
    return 0;
  }
  return zeph::Guarded([&]() -> uint32_t {
    zeph::SecureBytes scratch(data_length);
    ZEPH_TRY(EcbBlocks(0, key, {{data, data_length, scratch.data()}}));
    size_t plain = 0;
    ZEPH_TRY(zeph::P5Unpad(scratch.data(), data_length, scratch.data(), &plain, 0));
    return zeph::PutOutput({scratch.data(), plain}, out, in_out_len);
  });
}

ZEPH_API uint32_t zeph_c_utils_encryptNoPading(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                               const unsigned char *key, uint32_t key_length, unsigned char *out,
                                               uint32_t *in_out_len) {
  return EcbNoPadding(1, data, data_length, key, key_length, out, in_out_len);
}

ZEPH_API uint32_t zeph_c_utils_decryptNoPading(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                               const unsigned char *key, uint32_t key_length, unsigned char *out,
                                               uint32_t *in_out_len) {
  return EcbNoPadding(0, data, data_length, key, key_length, out, in_out_len);
}

}  // extern "C"
