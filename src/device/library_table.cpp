// The device library table: every vendor library of the configuration,
// loaded once per process and never unloaded, and the library that serves a
// keySN.
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "device/detection.hpp"
#include "foundation/log.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace zeph::device {
namespace {

// Built once, never freed; its libraries stay loaded for the process.
std::atomic<const LibraryTable *> g_ZEPH_handle{nullptr};
std::mutex g_ZEPH_handle_mutex;

uint32_t BuildTable() {
  std::lock_guard<std::mutex> lock(g_ZEPH_handle_mutex);
  if (LoadedTable() != nullptr) return 0;  // another thread won the race
  ZEPH_LOG("libs be loading.", 0);
  std::vector<VendorEntry> vendors;
  ZEPH_TRY(ReadVendorEntries(&vendors));
  if (vendors.empty()) return 0;
  auto table = std::make_unique<LibraryTable>();
  table->entries.resize(vendors.size() + 1);
  for (size_t i = 0; i < vendors.size(); ++i) {
    LibraryEntry &entry = table->entries[i];
    CopyText(entry.vid, vendors[i].vid);
    // dlopen("") would hand back the host program itself.
    if (vendors[i].skf_lib[0] != '\0') entry.module = LoadLibraryA(vendors[i].skf_lib);
    ZEPH_LOG(vendors[i].skf_lib, entry.module != nullptr ? 0 : 1);
  }
  g_ZEPH_handle.store(table.release(), std::memory_order_release);
  return 0;
}

}  // namespace

const LibraryTable *LoadedTable() { return g_ZEPH_handle.load(std::memory_order_acquire); }

const LibraryTable *BuiltTable() {
  if (loadAllOfCryptoDeviceHandle() != 0) return nullptr;
  return LoadedTable();
}

}  // namespace zeph::device

using zeph::device::BuiltTable;
using zeph::device::LibraryEntry;
using zeph::device::LibraryTable;
using zeph::device::LoadedTable;

extern "C" {

ZEPH_API uint32_t loadAllOfCryptoDeviceHandle(void) {
  if (LoadedTable() != nullptr) {
    ZEPH_LOG("libs has been loaded.", 0);
    return 0;
  }
  return zeph::Guarded([] { return zeph::device::BuildTable(); });
}

ZEPH_API void *getCryptoDeviceHandleWithKeySN(const char *key_sn) {
  if (key_sn == nullptr) return nullptr;
  const LibraryTable *table = BuiltTable();
  if (table == nullptr) return nullptr;
  const char *sep = std::strchr(key_sn, '_');
  const size_t prefix_len = sep != nullptr ? static_cast<size_t>(sep - key_sn) : std::strlen(key_sn);
  if (prefix_len == 0) return nullptr;
  // Compat: a library that failed to load ends the walk, so the vendors
  // listed after it are hidden; detection stops at the same place.
  for (const LibraryEntry &entry : table->entries) {
    if (entry.module == nullptr) break;
    if (std::strncmp(entry.vid, key_sn, prefix_len) == 0) return entry.module;
  }
  return nullptr;
}

}  // extern "C"
