// The session context behind the opaque GM_SKF_CTX, and helpers shared by
// the context's source files.
#pragma once

#include <cstdint>

#include "device/skf_functions.hpp"
#include "zeph_c_device.h"

struct GM_SKF_CTX {
  uint32_t device_type = 0;
  void *module = nullptr;  // vendor library (owned by the process-wide table)
  DEVHANDLE device = nullptr;
  HAPPLICATION application = nullptr;
  HCONTAINER container = nullptr;
  HANDLE key = nullptr;  // symmetric key of device authentication
  uint32_t key_kind = 0;
  uint32_t layout = 0;
  zeph::device::SkfFunctions skf;  // resolved once, when the module is found
};

namespace zeph::device {

// Where an object index lives in a layout.
struct ObjectLocation {
  char application[ZEPH_DEVICE_NAME_MAX] = {};
  char container[ZEPH_DEVICE_NAME_MAX] = {};
  char file[ZEPH_DEVICE_NAME_MAX] = {};
  uint32_t file_size = 0;
};

inline uint32_t Locate(const GM_SKF_CTX *ctx, uint32_t index, ObjectLocation *loc) {
  return getDeviceInfoWithDeviceTypeFromConfig(ctx->device_type, ctx->layout, index, 0, loc->application,
                                               loc->container, loc->file, &loc->file_size);
}

inline bool HasSession(const GM_SKF_CTX *ctx) {
  return ctx != nullptr && ctx->module != nullptr && ctx->device != nullptr && ctx->application != nullptr;
}

inline bool HasContainer(const GM_SKF_CTX *ctx) { return HasSession(ctx) && ctx->container != nullptr; }

// Closes the symmetric key handle the context may hold.
inline void DropKey(GM_SKF_CTX *ctx) {
  if (ctx->key != nullptr) {
    if (ctx->skf.SKF_CloseHandle != nullptr) ctx->skf.SKF_CloseHandle(ctx->key);
    ctx->key = nullptr;
  }
}

}  // namespace zeph::device
