// SM2 ciphertexts taken apart, and the forms they travel in: DER
// (SM2_Ciphertext_Structure), raw 04 || C1 || C3 || C2 (or C2 before C3),
// and the flat record of device interfaces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "foundation/owned.hpp"
#include "zeph_c_sm2.h"

namespace zeph {
using Sm2CiphertextPtr = std::unique_ptr<SM2_Ciphertext_Structure, Free<SM2_Ciphertext_Structure_free>>;
}

namespace zeph::gm::sm2 {

inline constexpr size_t kHashLen = 32;
inline constexpr size_t kRawOverhead = 1 + 32 + 32 + kHashLen;  // 97
inline constexpr size_t kRecordHeader = 100;                    // X, Y, HASH, CipherLen

// C1's coordinates right-aligned in 32 bytes, C3 and C2.
struct Ciphertext {
  uint8_t x[32] = {};
  uint8_t y[32] = {};
  uint8_t c3[kHashLen] = {};
  std::vector<uint8_t> c2;
};

enum class RawOrder { kC1C3C2 = BIVO_SM2_ORDER_C1C3C2, kC1C2C3 = BIVO_SM2_ORDER_C1C2C3 };

// False unless the coordinates are non-negative and fit 32 bytes and C3 is
// 32 bytes long.
bool FromStructure(const SM2_Ciphertext_Structure &s, Ciphertext *out);
// The whole input must be one DER structure.
bool FromDer(std::span<const uint8_t> der, Ciphertext *out);
// 0x04 || x || y, then C3 and C2 in the given order; at least 97 bytes.
bool FromRaw(std::span<const uint8_t> raw, RawOrder order, Ciphertext *out);

// Null only when memory runs out.
Sm2CiphertextPtr ToStructure(const Ciphertext &c);
// Minimal INTEGERs; empty only when memory runs out.
std::vector<uint8_t> ToDer(const Ciphertext &c);
std::vector<uint8_t> ToRaw(const Ciphertext &c, RawOrder order);

}  // namespace zeph::gm::sm2
