// SM4 with padding: the padding helpers, ECB and CBC with automatic padding,
// and the variants that write the ciphertext to a file or read it back.
#include <cstdio>
#include <cstring>
#include <vector>

#include "foundation/owned.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "gm/sm4_internal.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

namespace {

using zeph::gm::kSm4Block;

bool ValidPadding(const uint8_t *buf, uint32_t len) {
  if (len == 0) return false;
  const uint8_t pad = buf[len - 1];
  if (pad < 1 || pad > kSm4Block || pad > len) return false;
  for (uint32_t i = 2; i <= pad; ++i) {
    if (buf[len - i] != pad) return false;
  }
  return true;
}

// Whole blocks straight from in to out; the padded last block is built on
// the stack, so no copy of the plaintext is left behind. iv is null for ECB.
uint32_t EncryptPadded(const uint8_t *in, uint32_t len, const uint8_t *iv, const uint8_t *key, uint8_t *out) {
  if (key == nullptr || out == nullptr || (in == nullptr && len != 0)) return ERR_INVALID_PARAMETER;
  if (BIVO_ComputeSm4EcbCipherLen(len) == 0) return ERR_INVALID_PARAMETER;
  const uint32_t whole = len / kSm4Block, rest = len % kSm4Block;
  const uint8_t pad = static_cast<uint8_t>(kSm4Block - rest);
  uint8_t last[kSm4Block];
  if (rest != 0) std::memcpy(last, in + whole * kSm4Block, rest);
  std::memset(last + rest, pad, pad);
  uint8_t *tail = out + whole * kSm4Block;
  if (iv == nullptr) {
    zeph::gm::Sm4EcbBlocks(in, out, whole, key, true);
    zeph::gm::Sm4EcbBlocks(last, tail, 1, key, true);
  } else {
    zeph::gm::Sm4CbcBlocks(in, out, whole, iv, key, true);
    zeph::gm::Sm4CbcBlocks(last, tail, 1, whole == 0 ? iv : tail - kSm4Block, key, true);
  }
  OPENSSL_cleanse(last, sizeof last);
  return 0;
}

// Decrypts into a wiped buffer, checks the padding, and only then hands the
// plaintext out: an invalid ciphertext leaves out untouched.
uint32_t DecryptPadded(const uint8_t *in, uint32_t len, const uint8_t *iv, const uint8_t *key, uint8_t *out,
                       uint32_t *out_len) {
  if (key == nullptr || out_len == nullptr || (in == nullptr && len != 0)) return ERR_INVALID_PARAMETER;
  if (len == 0 || len % kSm4Block != 0) return BIVO_ERR_LENGTH;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes plain(len);
        if (iv == nullptr) {
          zeph::gm::Sm4EcbBlocks(in, plain.data(), len / kSm4Block, key, false);
        } else {
          zeph::gm::Sm4CbcBlocks(in, plain.data(), len / kSm4Block, iv, key, false);
        }
        if (!ValidPadding(plain.data(), len)) return BIVO_ERR_PADDING;
        const uint32_t plain_len = len - plain[len - 1];
        if (out != nullptr && plain_len != 0) std::memcpy(out, plain.data(), plain_len);
        *out_len = plain_len;
        return 0;
      },
      BIVO_ERR_NO_MEMORY);
}

uint32_t CreateCipherFile(const uint8_t *in, uint32_t len, const uint8_t *iv, const uint8_t *key, const char *path) {
  if (path == nullptr) return ERR_INVALID_PARAMETER;
  const uint32_t n = BIVO_ComputeSm4EcbCipherLen(len);
  if (n == 0) return ERR_INVALID_PARAMETER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        std::vector<uint8_t> cipher(n);
        ZEPH_TRY(EncryptPadded(in, len, iv, key, cipher.data()));
        zeph::FilePtr f(std::fopen(path, "wb"));
        if (!f) return BIVO_ERR_FILE;
        // Compat: the write is not checked; the module has only ever
        // reported a file that does not open.
        std::fwrite(cipher.data(), 1, n, f.get());
        return 0;
      },
      BIVO_ERR_NO_MEMORY);
}

uint32_t DecryptCipherFile(const char *path, const uint8_t *iv, const uint8_t *key, uint8_t *out, uint32_t *out_len) {
  if (path == nullptr || key == nullptr || out_len == nullptr) return ERR_INVALID_PARAMETER;
  unsigned char *cipher = nullptr;
  uint32_t cipher_len = 0;
  if (ReadFileIntoMemoryBuffer(path, &cipher, &cipher_len) != 0) return BIVO_ERR_FILE;
  const std::unique_ptr<unsigned char, zeph::Free<FreeFileInMemoryBuffer>> owner(cipher);
  return DecryptPadded(cipher, cipher_len, iv, key, out, out_len);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t BIVO_ComputeSm4EcbCipherLen(uint32_t len) {
  const uint64_t padded = uint64_t{len} + kSm4Block - len % kSm4Block;
  return padded > UINT32_MAX ? 0 : static_cast<uint32_t>(padded);
}

ZEPH_API uint32_t AddPadding(const unsigned char *in, uint32_t len, unsigned char *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr || (in == nullptr && len != 0)) return ERR_INVALID_PARAMETER;
  const uint32_t padded = BIVO_ComputeSm4EcbCipherLen(len);
  if (padded == 0) return ERR_INVALID_PARAMETER;
  if (out == nullptr) {
    *in_out_len = padded;
    return 0;
  }
  // Compat: the module's own buffer status, and the length is not written
  // back; callers of the padding helpers have always sized out themselves.
  if (*in_out_len < padded) return BIVO_ERR_BUFFER_TOO_SMALL;
  if (len != 0) std::memmove(out, in, len);
  std::memset(out + len, static_cast<int>(padded - len), padded - len);
  *in_out_len = padded;
  return 0;
}

ZEPH_API uint32_t RemovePadding(const unsigned char *in, uint32_t len, unsigned char *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr || (in == nullptr && len != 0)) return ERR_INVALID_PARAMETER;
  // Compat: the pad value itself is trusted (CheckPaddingValidity is the
  // checker, run first by the decrypting callers); only one that reaches past
  // the start of the input is refused.
  if (len == 0 || in[len - 1] > len) return BIVO_ERR_PADDING;
  const uint32_t new_len = len - in[len - 1];
  if (out == nullptr) {
    *in_out_len = new_len;
    return 0;
  }
  // Compat: as in AddPadding, the length is not written back.
  if (*in_out_len < new_len) return BIVO_ERR_BUFFER_TOO_SMALL;
  if (new_len != 0) std::memmove(out, in, new_len);
  *in_out_len = new_len;
  return 0;
}

ZEPH_API uint32_t CheckPaddingValidity(const unsigned char *buf, uint32_t len) {
  if (buf == nullptr && len != 0) return ERR_INVALID_PARAMETER;
  return ValidPadding(buf, len) ? 0 : BIVO_ERR_PADDING;
}

ZEPH_API uint32_t BIVO_Sm4EncryptWithAutoPadding(const unsigned char *in, uint32_t len, const unsigned char *key16,
                                                 unsigned char *out) {
  return EncryptPadded(in, len, nullptr, key16, out);
}

ZEPH_API uint32_t BIVO_Sm4DecryptWithAutoRemovePadding(const unsigned char *in, uint32_t len,
                                                       const unsigned char *key16, unsigned char *out,
                                                       uint32_t *out_len) {
  return DecryptPadded(in, len, nullptr, key16, out, out_len);
}

ZEPH_API uint32_t BIVO_Sm4CbcEncryptWithAutoPadding(const unsigned char *in, uint32_t len, const unsigned char *iv16,
                                                    const unsigned char *key16, unsigned char *out) {
  if (iv16 == nullptr) return ERR_INVALID_PARAMETER;
  return EncryptPadded(in, len, iv16, key16, out);
}

ZEPH_API uint32_t BIVO_Sm4CbcDecryptWithAutoRemovePadding(const unsigned char *in, uint32_t len,
                                                          const unsigned char *iv16, const unsigned char *key16,
                                                          unsigned char *out, uint32_t *out_len) {
  if (iv16 == nullptr) return ERR_INVALID_PARAMETER;
  return DecryptPadded(in, len, iv16, key16, out, out_len);
}

ZEPH_API uint32_t BIVO_CreateSm4EncryptFileWithAutoPadding(const unsigned char *in, uint32_t len,
                                                           const unsigned char *key16, const char *path) {
  return CreateCipherFile(in, len, nullptr, key16, path);
}

ZEPH_API uint32_t BIVO_CreateSm4CbcEncryptFileWithAutoPadding(const unsigned char *in, uint32_t len,
                                                              const unsigned char *iv16, const unsigned char *key16,
                                                              const char *path) {
  if (iv16 == nullptr) return ERR_INVALID_PARAMETER;
  return CreateCipherFile(in, len, iv16, key16, path);
}

ZEPH_API uint32_t BIVO_Sm4DecryptFileWithAutoRemovePadding(const char *path, const unsigned char *key16,
                                                           unsigned char *out, uint32_t *out_len) {
  return DecryptCipherFile(path, nullptr, key16, out, out_len);
}

ZEPH_API uint32_t BIVO_Sm4CbcDecryptFileWithAutoRemovePadding(const char *path, const unsigned char *iv16,
                                                              const unsigned char *key16, unsigned char *out,
                                                              uint32_t *out_len) {
  if (iv16 == nullptr) return ERR_INVALID_PARAMETER;
  return DecryptCipherFile(path, iv16, key16, out, out_len);
}

}  // extern "C"
