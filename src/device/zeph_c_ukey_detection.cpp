// Detection: the keys plugged in now, under the keySN of the vendor entry
// that serves each; the vendors whose library did not load or cannot list
// its keys; the fixed fallback vendor.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "device/detection.hpp"
#include "device/skf_functions.hpp"
#include "device/vendor_quirks.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/log.hpp"
#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace zeph::device {
namespace {

// Adds the keys of one vendor library to the detection list: 0, or the
// vendor's status when it cannot list its devices at all. A device that does
// not answer is only skipped.
uint32_t ListDevicesOf(void *module, const VendorEntry &vendor, cJSON *list) {
  const SkfFunctions skf = CachedSkf(module);
  std::vector<std::string> names;
  ZEPH_TRY(EnumNames(skf.SKF_EnumDev, TRUE, ERR_NO_DEVICE_LIBRARY, &names));
  for (std::string &name : names) {
    DEVHANDLE dev = nullptr;
    DEVINFO info{};
    if (CallSkf(skf.SKF_ConnectDev, ERR_NO_DEVICE_LIBRARY, name.data(), &dev) == 0 &&
        CallSkf(skf.SKF_GetDevInfo, ERR_NO_DEVICE_LIBRARY, dev, &info) == 0) {
      char serial[sizeof info.SerialNumber + 1] = {0};
      std::memcpy(serial, info.SerialNumber, sizeof info.SerialNumber);
      char key_sn[ZEPH_DEVICE_NAME_MAX];
      std::snprintf(key_sn, sizeof key_sn, "%s_%s", vendor.vid, serial);
      cJSON *obj = cJSON_CreateObject();
      if (obj != nullptr) {
        cJSON_AddStringToObject(obj, "keySN", key_sn);
        cJSON_AddStringToObject(obj, "vid", vendor.vid);
        cJSON_AddStringToObject(obj, "skfLib", vendor.skf_lib);
        cJSON_AddNumberToObject(obj, "type", vendor.type);
        cJSON_AddItemToArray(list, obj);
      }
    }
    CallSkf(skf.SKF_DisConnectDev, 0, dev);
  }
  return 0;
}

// Whether a loaded vendor library can list its devices now.
bool EnumeratesDevices(void *module) {
  const auto enum_dev = reinterpret_cast<PFN_SKF_EnumDev>(GetProcAddress(module, "SKF_EnumDev"));
  ULONG size = 0;
  return CallSkf(enum_dev, ERR_NO_DEVICE_LIBRARY, TRUE, nullptr, &size) == 0;
}

}  // namespace

uint32_t ConnectFallbackKey(const char *library, uint32_t *out_type, char *out_skf_lib, char *out_device_name) {
  void *module = LoadLibraryA(library);
  if (module == nullptr) {
    std::printf("LoadLibrary error.\n.");
    return ERR_NO_DEVICE_LIBRARY;
  }
  const auto enum_dev = reinterpret_cast<PFN_SKF_EnumDev>(GetProcAddress(module, "SKF_EnumDev"));
  std::vector<std::string> found;
  uint32_t rv = EnumNames(enum_dev, TRUE, ERR_NO_DEVICE_LIBRARY, &found);
  if (rv != 0) {
    std::printf("SKF_EnumDevProc error.0x%08X\n.", rv);
  } else {
    if (found.empty() || found.front().size() >= ZEPH_DEVICE_NAME_MAX) {
      rv = ERR_NO_KEY_FOUND;
    } else {
      if (out_type != nullptr) *out_type = kTypeFallbackVendor;
      if (out_skf_lib != nullptr) std::snprintf(out_skf_lib, ZEPH_DEVICE_SKFLIB_MAX, "%s", library);
      if (out_device_name != nullptr) std::snprintf(out_device_name, ZEPH_DEVICE_NAME_MAX, "%s", found.front().c_str());
    }
  }
  FreeLibrary(module);
  return rv;
}

}  // namespace zeph::device

using zeph::device::LibraryTable;
using zeph::device::ReadVendorEntries;
using zeph::device::VendorEntry;

extern "C" {

ZEPH_API uint32_t ZEPH_C_ukey_detection_getList(char *out_text, uint32_t *in_out_len) {
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<VendorEntry> vendors;
    ZEPH_TRY(ReadVendorEntries(&vendors));
    ZEPH_TRY(loadAllOfCryptoDeviceHandle());
    zeph::JsonPtr list(cJSON_CreateArray());
    if (!list) return ERR_OUT_OF_MEMORY;
    uint32_t failed = 0;
    if (const LibraryTable *table = zeph::device::LoadedTable(); table != nullptr) {
      // Texts come from the configuration as it is now; libraries from the table.
      const size_t n = std::min(table->count(), vendors.size());
      for (size_t i = 0; i < n && table->entries[i].module != nullptr; ++i) {
        const uint32_t rv = zeph::device::ListDevicesOf(table->entries[i].module, vendors[i], list.get());
        if (rv != 0) ZEPH_LOG(vendors[i].skf_lib, rv);
        if (failed == 0) failed = rv;
      }
    }
    // A vendor that cannot list its keys shows in the error status; when no
    // key is listed at all, its status is the answer, never an empty list.
    if (failed != 0 && cJSON_GetArraySize(list.get()) == 0) return failed;
    std::string text = "[]";
    if (cJSON_GetArraySize(list.get()) != 0) {
      zeph::JsonTextPtr printed(cJSON_PrintUnformatted(list.get()));
      if (!printed) return ERR_OUT_OF_MEMORY;
      text = printed.get();
    }
    // The length written back counts the terminator, also after a write.
    return zeph::PutOutput({reinterpret_cast<const uint8_t *>(text.c_str()), text.size() + 1},
                           reinterpret_cast<uint8_t *>(out_text), in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_ukey_detection_getDevErrStatus(char *out_text, uint32_t *in_out_len) {
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<VendorEntry> vendors;
    (void)ReadVendorEntries(&vendors);
    const LibraryTable *table = zeph::device::BuiltTable();
    zeph::JsonPtr list(cJSON_CreateArray());
    if (!list) return ERR_OUT_OF_MEMORY;
    if (table != nullptr) {
      const size_t n = std::min(table->count(), vendors.size());
      for (size_t i = 0; i < n; ++i) {
        void *module = table->entries[i].module;
        if (module == nullptr || !zeph::device::EnumeratesDevices(module))
          cJSON_AddItemToArray(list.get(), cJSON_CreateString(table->entries[i].vid));
      }
    }
    zeph::JsonTextPtr printed(cJSON_Print(list.get()));
    if (!printed) return ERR_OUT_OF_MEMORY;
    const size_t n = std::min<size_t>(std::strlen(printed.get()), 1023);
    const uint32_t capacity = *in_out_len;
    ZEPH_TRY(zeph::PutOutput({reinterpret_cast<const uint8_t *>(printed.get()), n},
                             reinterpret_cast<uint8_t *>(out_text), in_out_len));
    // Compat: the text is handed out without its terminator and the length
    // leaves it out; hosts have always read it as counted characters. A
    // terminator is added only where the buffer has room for it.
    if (out_text != nullptr && capacity > n) out_text[n] = '\0';
    return 0;
  });
}

}  // extern "C"
