// The library's own SM3 (GM/T 0004): compression, streaming context and the
// one-shot and heap-context digests.
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

#include "gm/gm_internal.hpp"
#include "zeph_c_status.h"

namespace zeph::gm {
namespace {

// Round constants T(j) <<< (j mod 32).
constexpr uint32_t MakeK(int j) { return rotl(j < 16 ? 0x79CC4519u : 0x7A879D8Au, static_cast<unsigned>(j % 32)); }

// clang-format off
constexpr uint32_t kK[64] = {
    MakeK(0),  MakeK(1),  MakeK(2),  MakeK(3),  MakeK(4),  MakeK(5),  MakeK(6),  MakeK(7),
    MakeK(8),  MakeK(9),  MakeK(10), MakeK(11), MakeK(12), MakeK(13), MakeK(14), MakeK(15),
    MakeK(16), MakeK(17), MakeK(18), MakeK(19), MakeK(20), MakeK(21), MakeK(22), MakeK(23),
    MakeK(24), MakeK(25), MakeK(26), MakeK(27), MakeK(28), MakeK(29), MakeK(30), MakeK(31),
    MakeK(32), MakeK(33), MakeK(34), MakeK(35), MakeK(36), MakeK(37), MakeK(38), MakeK(39),
    MakeK(40), MakeK(41), MakeK(42), MakeK(43), MakeK(44), MakeK(45), MakeK(46), MakeK(47),
    MakeK(48), MakeK(49), MakeK(50), MakeK(51), MakeK(52), MakeK(53), MakeK(54), MakeK(55),
    MakeK(56), MakeK(57), MakeK(58), MakeK(59), MakeK(60), MakeK(61), MakeK(62), MakeK(63),
};
// clang-format on

inline uint32_t P0(uint32_t x) { return x ^ rotl(x, 9) ^ rotl(x, 17); }
inline uint32_t P1(uint32_t x) { return x ^ rotl(x, 15) ^ rotl(x, 23); }
inline uint32_t FF0(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
inline uint32_t FF1(uint32_t x, uint32_t y, uint32_t z) { return ((x ^ y) & (y ^ z)) ^ y; }  // majority
inline uint32_t GG0(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
inline uint32_t GG1(uint32_t x, uint32_t y, uint32_t z) { return ((y ^ z) & x) ^ z; }

// A partial sum computed on its own: otherwise the compiler folds it with the
// late operand into one three-part LEA, which is slower on the critical path.
inline uint32_t Early(uint32_t x) {
  __asm__("" : "+r"(x));
  return x;
}

// The message schedule lives in a 16-word window: W[j & 15] holds W(j) once
// computed. Each round needs W(j) and W(j + 4); W(j + 4) is expanded in the
// round that first needs it.
#define SM3_W(j) w[(j)&15]
#define SM3_EXPAND(j) \
  SM3_W(j) = P1(SM3_W((j)-16) ^ SM3_W((j)-9) ^ rotl(SM3_W((j)-3), 15)) ^ rotl(SM3_W((j)-13), 7) ^ SM3_W((j)-6)

// One round on renamed registers: instead of shifting the eight words, the
// caller rotates the names (A'..D' = D, A, B, C and E'..H' = H, E, F, G).
//
// The sums are grouped so that the words of the previous round (A and E)
// enter as late as possible: the round is bound by that dependency chain.
#define SM3_ROUND(A, B, C, D, E, F, G, H, j, FF, GG)                             \
  do {                                                                           \
    const uint32_t a12 = rotl(A, 12);                                            \
    const uint32_t ss1 = rotl(Early(a12 + kK[j]) + E, 7);                        \
    const uint32_t ss2 = ss1 ^ a12;                                              \
    const uint32_t wj = SM3_W(j);                                                \
    const uint32_t tt1 = Early(FF(A, B, C) + (D + (wj ^ SM3_W((j) + 4)))) + ss2; \
    const uint32_t tt2 = Early(GG(E, F, G) + (H + wj)) + ss1;                    \
    B = rotl(B, 9);                                                              \
    F = rotl(F, 19);                                                             \
    D = tt1;                                                                     \
    H = P0(tt2);                                                                 \
  } while (0)

#define SM3_R0(A, B, C, D, E, F, G, H, j) SM3_ROUND(A, B, C, D, E, F, G, H, j, FF0, GG0)
#define SM3_R1(A, B, C, D, E, F, G, H, j) \
  SM3_EXPAND((j) + 4);                    \
  SM3_ROUND(A, B, C, D, E, F, G, H, j, FF1, GG1)
#define SM3_R0X(A, B, C, D, E, F, G, H, j) \
  SM3_EXPAND((j) + 4);                     \
  SM3_ROUND(A, B, C, D, E, F, G, H, j, FF0, GG0)

// Four rounds bring the names back to their starting order.
#define SM3_QUAD(R, j)                \
  R(A, B, C, D, E, F, G, H, (j));     \
  R(D, A, B, C, H, E, F, G, (j) + 1); \
  R(C, D, A, B, G, H, E, F, (j) + 2); \
  R(B, C, D, A, F, G, H, E, (j) + 3)

[[gnu::always_inline]] inline void CompressOne(uint32_t s[8], const uint8_t *p) {
  uint32_t w[16];
  for (int i = 0; i < 16; ++i) w[i] = load_u32_be(p + 4 * i);
  uint32_t A = s[0], B = s[1], C = s[2], D = s[3], E = s[4], F = s[5], G = s[6], H = s[7];

  SM3_QUAD(SM3_R0, 0);
  SM3_QUAD(SM3_R0, 4);
  SM3_QUAD(SM3_R0, 8);
  SM3_QUAD(SM3_R0X, 12);
  SM3_QUAD(SM3_R1, 16);
  SM3_QUAD(SM3_R1, 20);
  SM3_QUAD(SM3_R1, 24);
  SM3_QUAD(SM3_R1, 28);
  SM3_QUAD(SM3_R1, 32);
  SM3_QUAD(SM3_R1, 36);
  SM3_QUAD(SM3_R1, 40);
  SM3_QUAD(SM3_R1, 44);
  SM3_QUAD(SM3_R1, 48);
  SM3_QUAD(SM3_R1, 52);
  SM3_QUAD(SM3_R1, 56);
  SM3_QUAD(SM3_R1, 60);

  s[0] ^= A;
  s[1] ^= B;
  s[2] ^= C;
  s[3] ^= D;
  s[4] ^= E;
  s[5] ^= F;
  s[6] ^= G;
  s[7] ^= H;
}

#undef SM3_QUAD
#undef SM3_R0X
#undef SM3_R1
#undef SM3_R0
#undef SM3_ROUND
#undef SM3_EXPAND
#undef SM3_W

}  // namespace

void Sm3CompressPortable(uint32_t state[8], const uint8_t *blocks, size_t n) {
  for (; n != 0; --n, blocks += 64) CompressOne(state, blocks);
}

namespace {

using CompressFn = void (*)(uint32_t *, const uint8_t *, size_t);

// A second build of the loop for CPUs with BMI1/BMI2: three-operand rotates
// and and-not, no register copies. Chosen once, on first use.
#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("bmi,bmi2"))) void CompressBmi2(uint32_t *state, const uint8_t *blocks, size_t n) {
  for (; n != 0; --n, blocks += 64) CompressOne(state, blocks);
}

CompressFn PickCompress() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2") ? CompressBmi2 : Sm3CompressPortable;
}
#else
CompressFn PickCompress() { return Sm3CompressPortable; }
#endif

}  // namespace

void Sm3Compress(uint32_t state[8], const uint8_t *blocks, size_t n) {
  static const CompressFn compress = PickCompress();
  compress(state, blocks, n);
}

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
