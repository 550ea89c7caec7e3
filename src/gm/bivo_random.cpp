// The module handle and the random sources behind it: plain and mixed-source
// bytes, files, reseeding, and sampling in [2, range - 1].
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/owned.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "gm/sm3_hash_drbg.hpp"

namespace {

bool Usable(BIVO_HANDLE handle) { return handle != nullptr && handle->drbg != nullptr; }

void XorInto(uint8_t *dst, const uint8_t *src, size_t n) {
  for (size_t i = 0; i < n; ++i) dst[i] ^= src[i];
}

uint32_t WriteWholeFile(const char *path, const uint8_t *data, size_t n) {
  zeph::FilePtr f(std::fopen(path, "wb"));
  if (!f) return BIVO_ERR_FILE;
  // Compat: the write is not checked, as for every file of the module.
  if (n != 0) std::fwrite(data, 1, n, f.get());
  return 0;
}

// Draws until the value reduced modulo the range is neither 0 nor 1. The
// range is at least 3, so every draw has a fair chance to qualify.
uint32_t SampleInRange(BIVO_HANDLE handle, const uint8_t *external, uint32_t external_len, BIGNUM *out,
                       const BIGNUM *range) {
  if (!Usable(handle) || out == nullptr || range == nullptr || (external == nullptr && external_len != 0)) {
    return BIVO_ERR_NULL_POINTER;
  }
  // Only [2, range - 1] qualifies: a range of 2 or less (or a negative one)
  // would never finish.
  if (BN_is_negative(range) || BN_num_bits(range) < 2 || BN_is_word(range, 2)) return BIVO_ERR_ZERO;
  const size_t n = static_cast<size_t>(BN_num_bits(range) + 7) / 8;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes draw(n);
        zeph::BnCtxPtr ctx(BN_CTX_secure_new());
        zeph::BnPtr value(BN_secure_new());
        if (!ctx || !value) return BIVO_ERR_BN_CTX;
        const size_t mixed = external_len < n ? external_len : n;
        for (;;) {
          ZEPH_TRY(BIVO_generate_random_bytes(handle, static_cast<uint32_t>(n), draw.data()));
          XorInto(draw.data(), external, mixed);
          if (BN_bin2bn(draw.data(), static_cast<int>(n), value.get()) == nullptr ||
              BN_nnmod(value.get(), value.get(), range, ctx.get()) != 1) {
            return BIVO_ERR_BN_MOD;
          }
          if (BN_is_zero(value.get()) || BN_is_one(value.get())) continue;
          if (BN_copy(out, value.get()) == nullptr) return BIVO_ERR_BN_COPY;
          return 0;
        }
      },
      BIVO_ERR_NO_MEMORY);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t InitializeBivoHandle(BIVO_HANDLE *out_handle, const unsigned char *entropy, uint32_t entropy_len) {
  if (out_handle == nullptr) return BIVO_ERR_NULL_POINTER;
  *out_handle = nullptr;
  std::unique_ptr<BIVO_HANDLE_CELL, zeph::Free<UninitializeBivoHandle>> cell(
      static_cast<BIVO_HANDLE_CELL *>(std::calloc(1, sizeof(BIVO_HANDLE_CELL))));
  if (!cell) return BIVO_ERR_NO_MEMORY;
  ZEPH_TRY(BIVO_sm3_hash_drbg_new(&cell->drbg));
  ZEPH_TRY(BIVO_sm3_hash_drbg_instantiate(cell->drbg, entropy, entropy_len, nullptr, 0, nullptr, 0));
  *out_handle = cell.release();
  return 0;
}

ZEPH_API uint32_t UninitializeBivoHandle(BIVO_HANDLE handle) {
  if (handle == nullptr) return BIVO_ERR_NULL_POINTER;
  uint32_t status = BIVO_sm3_hash_drbg_uninstantiate(handle->drbg);
  if (status == 0)
    status = BIVO_sm3_hash_drbg_free(handle->drbg);
  else if (handle->drbg != nullptr)
    BIVO_sm3_hash_drbg_free(handle->drbg);
  std::free(handle);
  return status;
}

ZEPH_API uint32_t BIVO_generate_random_bytes(BIVO_HANDLE handle, uint32_t len, unsigned char *out) {
  if (!Usable(handle) || out == nullptr) return BIVO_ERR_NULL_POINTER;
  return BIVO_sm3_hash_drbg_generate_arbitrary_bytes(handle->drbg, len, out);
}

ZEPH_API uint32_t BIVO_generate_random_bytes_file(BIVO_HANDLE handle, uint32_t len, const char *path) {
  if (!Usable(handle) || path == nullptr) return BIVO_ERR_NULL_POINTER;
  return BIVO_sm3_hash_drbg_generate_file_of_arbitrary_bytes(handle->drbg, len, path);
}

ZEPH_API uint32_t BIVO_reseed_generator(BIVO_HANDLE handle, const unsigned char *entropy, uint32_t entropy_len) {
  if (!Usable(handle)) return BIVO_ERR_NULL_POINTER;
  return BIVO_sm3_hash_drbg_reseed(handle->drbg, entropy, entropy_len, nullptr, 0);
}

ZEPH_API uint32_t BIVO_generate_random_bytes_with_mixed_source(BIVO_HANDLE handle, uint32_t len,
                                                               const unsigned char *external, unsigned char *out) {
  if (!Usable(handle) || out == nullptr || (external == nullptr && len != 0)) return BIVO_ERR_NULL_POINTER;
  if (len == 0) return BIVO_generate_random_bytes(handle, 0, out);  // the generator's own answer
  return zeph::Guarded(
      [&]() -> uint32_t {
        // Drawn aside first: out may be the external buffer itself.
        zeph::SecureBytes bytes(len);
        ZEPH_TRY(BIVO_generate_random_bytes(handle, len, bytes.data()));
        XorInto(bytes.data(), external, len);
        std::memcpy(out, bytes.data(), len);
        return 0;
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_generate_random_bytes_file_with_mixed_source(BIVO_HANDLE handle, uint32_t len,
                                                                    const unsigned char *external, const char *path) {
  if (!Usable(handle) || path == nullptr || (external == nullptr && len != 0)) return BIVO_ERR_NULL_POINTER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes bytes(len);
        if (len != 0) ZEPH_TRY(BIVO_generate_random_bytes(handle, len, bytes.data()));
        XorInto(bytes.data(), external, len);
        return WriteWholeFile(path, bytes.data(), len);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t generate_rand_in_range_with_drbg(BIVO_HANDLE handle, BIGNUM *out_bn, const BIGNUM *range_bn) {
  return SampleInRange(handle, nullptr, 0, out_bn, range_bn);
}

ZEPH_API uint32_t generate_rand_in_range_with_mixed_source(BIVO_HANDLE handle, const unsigned char *external,
                                                           uint32_t external_len, BIGNUM *out_bn,
                                                           const BIGNUM *range_bn) {
  return SampleInRange(handle, external, external_len, out_bn, range_bn);
}

}  // extern "C"
