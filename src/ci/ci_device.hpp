// Pieces shared by the handlers that reach a key through the handle API.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ci/ci_internal.hpp"
#include "foundation/secure_bytes.hpp"

namespace zeph::ci {

// The request's key ("keySN", "devType") behind an API handle, finalised
// and released on every path, also after a failed open.
class KeyHandle {
 public:
  KeyHandle() = default;
  KeyHandle(const KeyHandle &) = delete;
  KeyHandle &operator=(const KeyHandle &) = delete;
  ~KeyHandle();

  uint32_t Open(const ZEPH_REQ_PARAM &req);
  void *get() const { return handle_; }

 private:
  void *handle_ = nullptr;
};

// Base64 text to bytes; an empty or absent text gives no bytes. The bytes
// may be keys or PINs, so they are wiped on release.
uint32_t DecodeBase64(const char *text, SecureBytes *out);
// Bytes as base64 response data (an empty text for no bytes).
uint32_t SetBase64Data(ZEPH_RES_PARAM *res, const uint8_t *data, size_t n);

}  // namespace zeph::ci
