// Public keys for the SM2 operations: from a 65-byte argument or from a
// certificate, checked against the curve.
#pragma once

#include <cstdint>

#include "gm/sm2_curve.hpp"

namespace zeph::gm::sm2 {

// A 65-byte point argument: the first byte is not read; the coordinates must
// be below p and on the curve. False also for a length below 65.
bool KeyFromArgument(const uint8_t *pubkey65, uint32_t pubkey_len, Point *out);

// The 65-byte key of a DER certificate: 0, or 5 (BIVO_ERR_CERT_KEY) when
// there is none or it is not 65 bytes.
uint32_t CertKey(const uint8_t *cert, uint32_t cert_len, uint8_t out[kPointLen]);
// The same from a file; file statuses pass through.
uint32_t CertFileKey(const char *path, uint8_t out[kPointLen]);

}  // namespace zeph::gm::sm2
