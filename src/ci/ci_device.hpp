// Pieces shared by the handlers that reach a key through the handle API.
#pragma once

#include <algorithm>
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

// "signData" as bytes: its text as it is ("signDataType" 0), or base64 (1).
uint32_t SignedBytes(const ZEPH_REQ_PARAM &req, SecureBytes *out);

// Runs an operation of the output protocol, op(out, &len), into `capacity`
// bytes, once more at the length it asks for when that is short. The bytes
// may be keys or plaintext: they are wiped on release.
template <class Op>
uint32_t CollectOutput(size_t capacity, Op &&op, SecureBytes *result) {
  SecureBytes buf(std::max<size_t>(capacity, 1));
  auto len = static_cast<uint32_t>(std::min<size_t>(buf.size(), UINT32_MAX));
  uint32_t rv = op(buf.data(), &len);
  if (rv == ERR_BUFFER_TOO_SMALL && len > buf.size()) {
    buf = SecureBytes(len);
    rv = op(buf.data(), &len);
  }
  ZEPH_TRY(rv);
  buf.resize(std::min<size_t>(len, buf.size()));
  *result = std::move(buf);
  return 0;
}

// The same, the result set as base64 data.
template <class Op>
uint32_t SetBase64Output(ZEPH_RES_PARAM *res, size_t capacity, Op &&op) {
  SecureBytes result;
  ZEPH_TRY(CollectOutput(capacity, op, &result));
  return SetBase64Data(res, result.data(), result.size());
}

// "raw" (base64) decrypted by the request's key through
// op(handle, in, in_len, out, &out_len); the result, never longer than its
// input, as base64 data.
template <class Op>
uint32_t DecryptRaw(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res, Op &&op) {
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes in;
  ZEPH_TRY(DecodeBase64(req.value, &in));
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return SetBase64Output(res, in.size(), [&](uint8_t *out, uint32_t *out_len) {
    return op(key.get(), in.data(), static_cast<uint32_t>(in.size()), out, out_len);
  });
}

// Room for an envelope of n bytes to a certificate of cert_len bytes.
inline size_t EnvelopeCapacity(size_t cert_len, size_t n) { return n + cert_len + 1024; }

// Rows 302 and 704: "raw" (base64) sealed for "cert" (base64 DER) in the
// layout "wrapperType" asks for.
uint32_t EncodeEnveloper(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res);

}  // namespace zeph::ci
