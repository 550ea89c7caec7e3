// Shared internals of the GM algorithms: byte order helpers, the SM3
// compression on a bare chaining value, and the SM3 initial value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zeph_c_gm.h"

namespace zeph::gm {

inline constexpr uint32_t rotl(uint32_t x, unsigned n) { return (x << (n & 31)) | (x >> ((32 - n) & 31)); }

inline uint32_t load_u32_be(const uint8_t *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return __builtin_bswap32(v);
}

inline void store_u32_be(uint8_t *p, uint32_t v) {
  v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}

inline constexpr uint32_t kSm3Iv[8] = {0x7380166F, 0x4914B2B9, 0x172442D7, 0xDA8A0600,
                                       0xA96F30BC, 0x163138AA, 0xE38DEE4D, 0xB0FB0E4E};

// Compresses n consecutive 64-byte blocks into the chaining value, through
// the build of the loop chosen for this CPU (cpu_path.hpp). The builds:
// portable C; the same with BMI1/BMI2; the message expanded with AVX or
// AVX-512VL before BMI2 rounds.
void Sm3Compress(uint32_t state[8], const uint8_t *blocks, size_t n);
void Sm3CompressPortable(uint32_t state[8], const uint8_t *blocks, size_t n);
#if defined(__x86_64__) && defined(__GNUC__)
void Sm3CompressBmi2(uint32_t state[8], const uint8_t *blocks, size_t n);
void Sm3CompressAvx(uint32_t state[8], const uint8_t *blocks, size_t n);
void Sm3CompressAvx512(uint32_t state[8], const uint8_t *blocks, size_t n);
#endif

// The streaming steps behind sm3_init/update/final, for the library's own
// callers (direct calls, no null checks).
void Sm3Init(BIVO_SM3_CTX *ctx);
void Sm3Update(BIVO_SM3_CTX *ctx, const uint8_t *data, uint64_t len);
void Sm3Final(uint8_t out32[32], BIVO_SM3_CTX *ctx);

// One-shot SM3; the stack context is wiped afterwards.
void Sm3(const uint8_t *data, size_t len, uint8_t out32[32]);

}  // namespace zeph::gm
