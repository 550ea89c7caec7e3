// Device configuration, the process-wide library table and the fixed fallback
// vendor, shared by the configuration, table and detection sources.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "zeph_c_device.h"

namespace zeph::device {

// One element of the configuration array.
struct VendorEntry {
  int32_t type = 0;
  char vid[ZEPH_DEVICE_VID_MAX] = {};
  char skf_lib[ZEPH_DEVICE_SKFLIB_MAX] = {};
};

// The vendor entries of the current configuration text, read from the
// configuration file first when no text has been set or read yet:
// 0 or ERR_DEVICE_CONFIG_INVALID.
uint32_t ReadVendorEntries(std::vector<VendorEntry> *out_entries);

// One loaded (or failed) vendor library.
struct LibraryEntry {
  void *module = nullptr;
  char vid[ZEPH_DEVICE_VID_MAX] = {};
};

// One entry per vendor, in configuration order, plus an all-zero terminator.
struct LibraryTable {
  std::vector<LibraryEntry> entries;
  size_t count() const { return entries.size() - 1; }
};

// The table as built so far: null until loadAllOfCryptoDeviceHandle has
// built it (it is never freed; its libraries stay loaded for the process).
const LibraryTable *LoadedTable();
// The table, built first when it is not yet; null when building fails.
const LibraryTable *BuiltTable();

// The fixed fallback for keys of one vendor when no configuration serves
// them: loads `library`, enumerates the present devices and, when there is
// one, reports kTypeFallbackVendor, `library` and the first device name
// (buffers of ZEPH_DEVICE_SKFLIB_MAX and ZEPH_DEVICE_NAME_MAX bytes; each may
// be null). The library is unloaded again. ERR_NO_DEVICE_LIBRARY when it does
// not load or lacks SKF_EnumDev, the vendor status of a failed enumeration,
// ERR_NO_KEY_FOUND without a device. No library operation falls back on it:
// it stays for a caller that wires it in with kFallbackLibrary.
inline constexpr char kFallbackLibrary[] = "libEsVorliSKF.so";
uint32_t ConnectFallbackKey(const char *library, uint32_t *out_type, char *out_skf_lib, char *out_device_name);

// Bounded copy that always terminates.
template <size_t N>
void CopyText(char (&dst)[N], const char *src) {
  std::snprintf(dst, N, "%s", src);
}

}  // namespace zeph::device
