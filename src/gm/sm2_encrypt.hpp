// SM2 public-key encryption and its key derivation function.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "gm/sm2_curve.hpp"

namespace zeph::gm::sm2 {

inline constexpr size_t kKdfMaxLen = size_t{1} << 30;

// X9.63 KDF with SM3: out_len bytes of SM3(z || counter || info), counter
// from 1. Lengths are the caller's to check.
void Kdf(std::span<const uint8_t> z, std::span<const uint8_t> info, uint8_t *out, size_t out_len);

// Draws the nonce k of one attempt: 0, or the status that ends the
// encryption.
using NonceSource = std::function<uint32_t(Scalar *k)>;

// DER C1C3C2 of msg under key into out, whose capacity *out_len the caller
// has already zeroed. 9 for an empty or too long message, a failing step, or
// a capacity below the encoded length (then *out_len is that length).
uint32_t Encrypt(std::span<const uint8_t> msg, const Point &key, const NonceSource &draw, uint8_t *out,
                 uint32_t *out_len);

}  // namespace zeph::gm::sm2
