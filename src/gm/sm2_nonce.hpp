// The draws of SM2 nonces: OpenSSL's generator, the module handle's
// generator, or that generator mixed with the caller's bytes.
#pragma once

#include <cstdint>

#include "gm/sm2_curve.hpp"
#include "zeph_c_gm.h"

namespace zeph::gm::sm2 {

// BN_rand_range over [0, n), a draw of 0 repeated. A failing draw or
// big-number step gives on_failure.
uint32_t DrawPlain(Scalar *k, uint32_t on_failure);
// [2, n - 1] from the handle's generator (generate_rand_in_range_with_drbg);
// the draw's statuses pass through, a failing big-number step gives
// on_failure.
uint32_t DrawDrbg(BIVO_HANDLE handle, Scalar *k, uint32_t on_failure);
// The same with external bytes XORed into every draw.
uint32_t DrawMixed(BIVO_HANDLE handle, const uint8_t *external, uint32_t external_len, Scalar *k, uint32_t on_failure);

}  // namespace zeph::gm::sm2
