// The SM3 hash DRBG state. Callers outside the GM code see it only as an
// opaque pointer; the unit tests look inside.
#pragma once

#include <cstdint>

#include "zeph_c_gm.h"

struct bivo_sm3_hash_drbg_st {
  int64_t reseed_counter;
  uint8_t V[55];  // 440-bit big-endian numbers
  uint8_t C[55];
};

namespace zeph::gm {

inline constexpr size_t kSeedLength = 55;
inline constexpr uint32_t kMinEntropy = 256;
inline constexpr uint32_t kMaxRequest = 0x10000;
inline constexpr int64_t kReseedInterval = int64_t{1} << 48;
inline constexpr uint32_t kMaxDfOutput = 65280 / 8;

}  // namespace zeph::gm
