// The API handle record and the session guard shared by the API's sources.
#pragma once

#include <cstdint>

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

}  // namespace zeph::api

// NULL handle, then NULL context word: the missing-handle status.
#define ZEPH_API_CONTEXT(handle, ctx)                      \
  if ((handle) == nullptr) return ZEPH_ERR_MISSING_HANDLE; \
  GM_SKF_CTX *const ctx = zeph::api::ContextWord(handle);  \
  if (ctx == nullptr) return ZEPH_ERR_MISSING_HANDLE
