// The library's own SM3 (GM/T 0004): compression, streaming context and the
// one-shot and heap-context digests.
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

#include "gm/cpu_path.hpp"
#include "gm/gm_internal.hpp"
#include "gm/sm3_rounds.hpp"
#include "zeph_c_status.h"

namespace zeph::gm {
namespace {

// The message schedule in a 16-word window: W[j & 15] holds W(j) once
// computed; W(j + 4) is expanded in the round that first needs it.
struct WindowSchedule {
  uint32_t w[16];
  explicit WindowSchedule(const uint8_t *p) {
    for (int i = 0; i < 16; ++i) w[i] = load_u32_be(p + 4 * i);
  }
  uint32_t W(int j) const { return w[j & 15]; }
  uint32_t Wp(int j, uint32_t wj) const { return wj ^ w[(j + 4) & 15]; }
  void Quad(int) {}
  void Expand(int j) { w[j & 15] = P1(W(j - 16) ^ W(j - 9) ^ rotl(W(j - 3), 15)) ^ rotl(W(j - 13), 7) ^ W(j - 6); }
};

[[gnu::always_inline]] inline void CompressOne(uint32_t s[8], const uint8_t *p) {
  WindowSchedule w(p);
  CompressBlock(s, w);
}

}  // namespace

void Sm3CompressPortable(uint32_t state[8], const uint8_t *blocks, size_t n) {
  for (; n != 0; --n, blocks += 64) CompressOne(state, blocks);
}

#if ZEPH_GM_X86
// The same loop for CPUs with BMI1/BMI2: three-operand rotates and and-not,
// no register copies.
__attribute__((target("bmi,bmi2"))) void Sm3CompressBmi2(uint32_t state[8], const uint8_t *blocks, size_t n) {
  for (; n != 0; --n, blocks += 64) CompressOne(state, blocks);
}
#endif

void Sm3Compress(uint32_t state[8], const uint8_t *blocks, size_t n) { ActiveGm().sm3(state, blocks, n); }

void Sm3Init(BIVO_SM3_CTX *ctx) {
  std::memset(ctx, 0, sizeof *ctx);
  std::memcpy(ctx->state, kSm3Iv, sizeof kSm3Iv);
}

void Sm3Update(BIVO_SM3_CTX *ctx, const uint8_t *data, uint64_t len) {
  if (len == 0) return;
  const uint32_t low = ctx->Nl + static_cast<uint32_t>(len << 3);
  if (low < ctx->Nl) ++ctx->Nh;
  ctx->Nh += static_cast<uint32_t>(len >> 29);
  ctx->Nl = low;

  if (ctx->num != 0) {
    const uint32_t room = 64 - ctx->num;
    if (len < room) {
      std::memcpy(ctx->data + ctx->num, data, static_cast<size_t>(len));
      ctx->num += static_cast<uint32_t>(len);
      return;
    }
    std::memcpy(ctx->data + ctx->num, data, room);
    Sm3Compress(ctx->state, ctx->data, 1);
    std::memset(ctx->data, 0, sizeof ctx->data);
    ctx->num = 0;
    data += room;
    len -= room;
  }
  const uint64_t whole = len / 64;
  if (whole != 0) {
    Sm3Compress(ctx->state, data, static_cast<size_t>(whole));
    data += whole * 64;
    len -= whole * 64;
  }
  if (len != 0) {
    std::memcpy(ctx->data, data, static_cast<size_t>(len));
    ctx->num = static_cast<uint32_t>(len);
  }
}

void Sm3Final(uint8_t out32[32], BIVO_SM3_CTX *ctx) {
  uint8_t *b = ctx->data;
  size_t n = ctx->num;
  b[n++] = 0x80;
  if (n > 56) {
    std::memset(b + n, 0, 64 - n);
    Sm3Compress(ctx->state, b, 1);
    n = 0;
  }
  std::memset(b + n, 0, 56 - n);
  store_u32_be(b + 56, ctx->Nh);
  store_u32_be(b + 60, ctx->Nl);
  Sm3Compress(ctx->state, b, 1);
  for (int i = 0; i < 8; ++i) store_u32_be(out32 + 4 * i, ctx->state[i]);
  OPENSSL_cleanse(ctx->data, sizeof ctx->data);
  ctx->num = 0;
}

void Sm3(const uint8_t *data, size_t len, uint8_t out32[32]) {
  BIVO_SM3_CTX ctx;
  Sm3Init(&ctx);
  Sm3Update(&ctx, data, len);
  Sm3Final(out32, &ctx);
  OPENSSL_cleanse(&ctx, sizeof ctx);
}

}  // namespace zeph::gm

using namespace zeph::gm;

extern "C" {

ZEPH_API int sm3_init(BIVO_SM3_CTX *ctx) {
  if (ctx == nullptr) return 0;
  Sm3Init(ctx);
  return 1;
}

ZEPH_API int sm3_update(BIVO_SM3_CTX *ctx, const void *data, uint64_t len) {
  if (len == 0) return 1;
  if (ctx == nullptr || data == nullptr) return 0;
  Sm3Update(ctx, static_cast<const uint8_t *>(data), len);
  return 1;
}

ZEPH_API int sm3_final(unsigned char *out32, BIVO_SM3_CTX *ctx) {
  if (out32 == nullptr || ctx == nullptr || ctx->num > 63) return 0;
  Sm3Final(out32, ctx);
  return 1;
}

ZEPH_API int sm3_block_data_order(BIVO_SM3_CTX *ctx, const void *blocks, size_t n) {
  if (n == 0) return 1;
  if (ctx == nullptr || blocks == nullptr) return 0;
  Sm3Compress(ctx->state, static_cast<const uint8_t *>(blocks), n);
  return 1;
}

ZEPH_API int sm3_transform(BIVO_SM3_CTX *ctx, const unsigned char *block64) {
  return sm3_block_data_order(ctx, block64, 1);
}

ZEPH_API uint32_t BIVO_sm3_digest(const unsigned char *data, uint32_t len, unsigned char *out32) {
  if (out32 == nullptr || (data == nullptr && len != 0)) return ERR_INVALID_PARAMETER;
  Sm3(data, len, out32);
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_digest_init(BIVO_SM3_CTX **out_ctx) {
  if (out_ctx == nullptr) return ERR_INVALID_PARAMETER;
  auto *ctx = static_cast<BIVO_SM3_CTX *>(std::malloc(sizeof(BIVO_SM3_CTX)));
  if (ctx == nullptr) return BIVO_ERR_NO_MEMORY;
  Sm3Init(ctx);
  *out_ctx = ctx;
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_digest_update(BIVO_SM3_CTX *ctx, const unsigned char *data, uint32_t len) {
  if (ctx == nullptr || (data == nullptr && len != 0)) return ERR_INVALID_PARAMETER;
  Sm3Update(ctx, data, len);
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_digest_final(BIVO_SM3_CTX *ctx, unsigned char *out32) {
  if (ctx == nullptr) return ERR_INVALID_PARAMETER;
  // The context is released even when there is nowhere to write the digest:
  // final is the only way the caller can give it back.
  if (out32 != nullptr) Sm3Final(out32, ctx);
  OPENSSL_cleanse(ctx, sizeof *ctx);
  std::free(ctx);
  return out32 == nullptr ? ERR_INVALID_PARAMETER : 0;
}

}  // extern "C"
