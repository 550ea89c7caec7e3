// Scalars modulo the SM2 group order n as four 64-bit limbs, least
// significant first, and the byte conversions shared with the point code.
// Everything here runs in constant time.
#pragma once

#include <cstdint>

#include "gm/sm2_field.hpp"

namespace zeph::gm::sm2::sc {

inline constexpr uint64_t kN[4] = {0x53BBF40939D54123, 0x7203DF6B21C6052B, 0xFFFFFFFFFFFFFFFF, 0xFFFFFFFEFFFFFFFF};

// 32 big-endian bytes to limbs and back.
inline void Load(uint64_t out[4], const uint8_t in[32]) {
  for (int i = 0; i < 4; ++i) {
    uint64_t w = 0;
    for (int j = 0; j < 8; ++j) w = (w << 8) | in[8 * (3 - i) + j];
    out[i] = w;
  }
}

inline void Store(uint8_t out[32], const uint64_t in[4]) {
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 8; ++j) out[8 * (3 - i) + j] = static_cast<uint8_t>(in[i] >> (56 - 8 * j));
  }
}

// a mod n for any a below 2^256 (< 2n, so one conditional subtraction).
void ReduceOnce(uint64_t r[4], const uint64_t a[4]);

#if defined(ZEPH_SM2_HAVE_ADX)
// Montgomery multiplication and squaring modulo n, from the assembly that
// also holds the field's.
extern "C" void zeph_sm2_fn_mul_adx(uint64_t r[4], const uint64_t a[4], const uint64_t b[4]);
extern "C" void zeph_sm2_fn_sqr_adx(uint64_t r[4], const uint64_t a[4]);
#endif

}  // namespace zeph::gm::sm2::sc
