// Pieces shared by the seal commands of several groups (2xx, 4xx, 8xx).
#pragma once

#include <cstdint>
#include <string>

#include "ci/ci_internal.hpp"

namespace zeph::ci {

// The key a seal command works on: "keySN", or when it is empty the first
// key plugged in (ERR_NO_KEY_FOUND when there is none).
uint32_t SealKeySN(const ZEPH_REQ_PARAM &req, std::string *key_sn);

// The slot "idx" names for the older reading rows (203, 205, 405), whose
// hosts send none for the first seal: 0 reads slot 1.
inline uint32_t SlotOrFirst(const ZEPH_REQ_PARAM &req) { return req.selector != 0 ? req.selector : 1; }

}  // namespace zeph::ci
