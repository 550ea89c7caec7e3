// The API handle record and the session guard shared by the API's sources.
#pragma once

#include <cstdint>

#include "zeph_c_api.h"
#include "zeph_c_device.h"

namespace zeph::api {

// Six pointer-sized words; the second holds the session context, the rest
// are reserved and stay zero.
constexpr int kHandleWords = 6;
constexpr int kContextWord = 1;

inline GM_SKF_CTX *&ContextWord(void *handle) { return reinterpret_cast<GM_SKF_CTX **>(handle)[kContextWord]; }

inline GM_SKF_CTX *ContextOf(void *handle) { return handle != nullptr ? ContextWord(handle) : nullptr; }

// Closes the session on every path out of an operation.
struct SessionGuard {
  explicit SessionGuard(GM_SKF_CTX *c) : ctx(c) {}
  GM_SKF_CTX *ctx;
  SessionGuard(const SessionGuard &) = delete;
  SessionGuard &operator=(const SessionGuard &) = delete;
  ~SessionGuard() { GM_SKF_CTX_CloseSession(ctx); }
};

// An API handle the library opens for its own use (the JSON commands, seal
// storage), finalised and released on every path, also after a failed open.
class OwnedHandle {
 public:
  OwnedHandle() = default;
  OwnedHandle(const OwnedHandle &) = delete;
  OwnedHandle &operator=(const OwnedHandle &) = delete;
  ~OwnedHandle() {
    if (handle_ == nullptr) return;
    ZEPH_C_Finalize(handle_);
    // Finalize leaves the record itself allocated.
    ZEPH_C_MALLOC_FREE(handle_);
  }

  uint32_t Open(uint32_t device_type, const char *key_sn) {
    return ZEPH_C_Initialize(&handle_, device_type, key_sn, 0);
  }
  void *get() const { return handle_; }
  GM_SKF_CTX *ctx() const { return ContextOf(handle_); }

 private:
  void *handle_ = nullptr;
};

}  // namespace zeph::api

// NULL handle, then NULL context word: the missing-handle status.
#define ZEPH_API_CONTEXT(handle, ctx)                      \
  if ((handle) == nullptr) return ZEPH_ERR_MISSING_HANDLE; \
  GM_SKF_CTX *const ctx = zeph::api::ContextWord(handle);  \
  if (ctx == nullptr) return ZEPH_ERR_MISSING_HANDLE
