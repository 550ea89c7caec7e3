// SM2 signature verification on a digest (GM/T 0003.2).
#pragma once

#include <cstdint>
#include <span>

#include "gm/sm2_curve.hpp"

namespace zeph::gm::sm2 {

// A DER SEQUENCE { r INTEGER, s INTEGER } and nothing after it, in minimal
// encodings: 0; 7 when it is not one; 8 when r or s is negative or longer
// than 32 bytes (out of range in any case).
uint32_t ParseSignature(std::span<const uint8_t> der, Scalar *r, Scalar *s);

// 0 when (r, s) signs the digest e under key; 8 otherwise, also for r or s
// outside [1, n - 1] or r + s = n.
uint32_t VerifyDigest(const uint8_t e[32], const Point &key, const Scalar &r, const Scalar &s);

}  // namespace zeph::gm::sm2
