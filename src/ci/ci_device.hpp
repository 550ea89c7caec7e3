// Pieces shared by the handlers that reach a key through the handle API.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

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
// "signData" as the bytes to sign or verify: its text as it is
// ("signDataType" 0), or base64 (1).
uint32_t SignedBytes(const ZEPH_REQ_PARAM &req, SecureBytes *out);
// An output of the library's protocol: a length query, then the bytes.
uint32_t FetchOutput(const std::function<uint32_t(uint8_t *out, uint32_t *in_out_len)> &call,
                     std::vector<uint8_t> *out);
// Bytes as base64 response data (an empty text for no bytes).
uint32_t SetBase64Data(ZEPH_RES_PARAM *res, const uint8_t *data, size_t n);

}  // namespace zeph::ci
