// Device configuration and detection: which vendor library serves which
// key, the process-wide library table, the list of plugged-in keys and the
// object location table of both key layouts.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "device/skf_functions.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/log.hpp"
#include "foundation/output.hpp"
#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

using zeph::device::CallSkf;
using zeph::device::ResolveSkf;
using zeph::device::SplitNames;

// One element of the configuration array.
struct VendorEntry {
  int32_t type = 0;
  char vid[ZEPH_DEVICE_VID_MAX] = {};
  char skf_lib[ZEPH_DEVICE_SKFLIB_MAX] = {};
};

// One loaded (or failed) vendor library.
struct LibraryEntry {
  void *module = nullptr;
  char vid[ZEPH_DEVICE_VID_MAX] = {};
};

// The table proper: one entry per vendor plus an all-zero terminator.
struct LibraryTable {
  std::vector<LibraryEntry> entries;
  size_t count() const { return entries.size() - 1; }
};

// Process-wide state. f_cfg always keeps a terminator in its last byte.
char f_cfg[ZEPH_DEVICE_CFG_MAX];
uint32_t f_cfg_len = 0;
std::mutex f_cfg_mutex;

// Built once, never freed; its libraries stay loaded for the process.
std::atomic<const LibraryTable *> g_ZEPH_handle{nullptr};
std::mutex g_ZEPH_handle_mutex;

constexpr const char *kCfgFileName = "vorli_ukey_cfg.json";
constexpr uint32_t kEnumDevListSize = 4160;
constexpr const char *kFallbackLibrary = "libEsVorliSKF.so";
constexpr uint32_t kFallbackDeviceType = 41;

// Bounded copy that always terminates.
template <size_t N>
void CopyText(char (&dst)[N], const char *src) {
  std::snprintf(dst, N, "%s", src);
}

// Reads the configuration file into f_cfg (caller holds f_cfg_mutex). A file
// that does not fit the buffer is refused rather than cut.
uint32_t ReadConfigFile() {
  char path[260] = {0};
  get_vorli_cfg_path(path);
  path[sizeof path - 1] = '\0';
  zeph::FilePtr f(std::fopen(path[0] != '\0' ? path : kCfgFileName, "rb"));
  if (!f) return ERR_DEVICE_CONFIG_INVALID;
  char text[ZEPH_DEVICE_CFG_MAX];
  const size_t got = std::fread(text, 1, sizeof text, f.get());
  if (std::ferror(f.get()) || got == 0 || got >= sizeof text) return ERR_DEVICE_CONFIG_INVALID;
  std::memcpy(f_cfg, text, got);
  f_cfg[got] = '\0';
  f_cfg_len = static_cast<uint32_t>(got);
  return 0;
}

// The configuration text, from the file when nothing has been set yet.
uint32_t CurrentConfigText(std::string *out) {
  uint32_t rv = 0;
  std::string before;
  {
    std::lock_guard<std::mutex> lock(f_cfg_mutex);
    before = f_cfg;
    if (f_cfg[0] == '\0') rv = ReadConfigFile();
    out->assign(f_cfg);  // up to the first terminator: an old tail may follow
  }
  ZEPH_LOG(before.c_str(), 0);
  return rv;
}

// The vendor entries of the current configuration text.
uint32_t l_get_ukey_cfg_params(std::vector<VendorEntry> *out_entries) {
  out_entries->clear();
  std::string text;
  ZEPH_TRY(CurrentConfigText(&text));
  // The parser takes the first complete value and ignores what follows it.
  zeph::JsonPtr root(cJSON_Parse(text.c_str()));
  if (!root || !cJSON_IsArray(root.get())) return ERR_DEVICE_CONFIG_INVALID;
  const cJSON *item = nullptr;
  cJSON_ArrayForEach(item, root.get()) {
    VendorEntry e;
    const cJSON *type = cJSON_GetObjectItemCaseSensitive(item, "type");
    if (cJSON_IsNumber(type)) e.type = type->valueint;
    const cJSON *vid = cJSON_GetObjectItemCaseSensitive(item, "vid");
    if (cJSON_IsString(vid)) CopyText(e.vid, vid->valuestring);
    const cJSON *lib = cJSON_GetObjectItemCaseSensitive(item, "skfLib");
    // A path that does not fit is left empty (never loaded) rather than cut
    // into the name of some other file.
    if (cJSON_IsString(lib) && std::strlen(lib->valuestring) < sizeof e.skf_lib) CopyText(e.skf_lib, lib->valuestring);
    out_entries->push_back(e);
  }
  return 0;
}

const LibraryTable *LoadedTable() { return g_ZEPH_handle.load(std::memory_order_acquire); }

uint32_t BuildTable() {
  std::lock_guard<std::mutex> lock(g_ZEPH_handle_mutex);
  if (LoadedTable() != nullptr) return 0;  // another thread won the race
  ZEPH_LOG("libs be loading.", 0);
  std::vector<VendorEntry> vendors;
  ZEPH_TRY(l_get_ukey_cfg_params(&vendors));
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

// The library table, built on first use.
const LibraryTable *Table() {
  if (loadAllOfCryptoDeviceHandle() != 0) return nullptr;
  return LoadedTable();
}

// Adds the keys of one vendor library to the detection list.
void ListDevicesOf(void *module, const VendorEntry &vendor, cJSON *list) {
  const zeph::device::SkfFunctions skf = ResolveSkf(module);
  std::vector<char> names(kEnumDevListSize, '\0');
  ULONG size = kEnumDevListSize;
  if (CallSkf(skf.SKF_EnumDev, ERR_NO_DEVICE_LIBRARY, TRUE, names.data(), &size) != 0) return;
  for (std::string &name : SplitNames(names.data(), std::min<uint32_t>(size, kEnumDevListSize))) {
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
}

// Fixed fallback for one vendor's keys when no configuration exists; kept
// for hosts that wire it in, not used by the library itself.
[[maybe_unused]] uint32_t l_auto_connect_wdc_ukey(uint32_t *out_type, char *out_skf_lib, char *out_device_name) {
  void *module = LoadLibraryA(kFallbackLibrary);
  if (module == nullptr) {
    std::printf("LoadLibrary error.\n.");
    return ERR_NO_DEVICE_LIBRARY;
  }
  const auto enum_dev = reinterpret_cast<PFN_SKF_EnumDev>(GetProcAddress(module, "SKF_EnumDev"));
  std::vector<char> names(kEnumDevListSize, '\0');
  ULONG size = kEnumDevListSize;
  uint32_t rv = CallSkf(enum_dev, ERR_NO_DEVICE_LIBRARY, TRUE, names.data(), &size);
  if (rv != 0) {
    std::printf("SKF_EnumDevProc error.0x%08X\n.", rv);
  } else {
    const auto found = SplitNames(names.data(), std::min<uint32_t>(size, kEnumDevListSize));
    if (found.empty() || found.front().size() >= ZEPH_DEVICE_NAME_MAX) {
      rv = ERR_NO_KEY_FOUND;
    } else {
      if (out_type != nullptr) *out_type = kFallbackDeviceType;
      if (out_skf_lib != nullptr) std::snprintf(out_skf_lib, ZEPH_DEVICE_SKFLIB_MAX, "%s", kFallbackLibrary);
      if (out_device_name != nullptr) std::snprintf(out_device_name, ZEPH_DEVICE_NAME_MAX, "%s", found.front().c_str());
    }
  }
  FreeLibrary(module);
  return rv;
}

// Object locations. Rows 1..13 are the standard layout; the
// "SM-Application" layout keeps its rows at index + 14.
struct Row {
  const char *application;
  const char *container;
  const char *file;
};
constexpr uint32_t kSmRowOffset = 14;
constexpr Row device_cfg_table[] = {
    {"", "", ""},
    {"VorliRsa", "RSA1", ""},
    {"VorliRsa", "RSA2", ""},
    {"VorliEcc", "ECC", ""},
    {"VorliEcc", "ECC", ""},
    {"VorliRsa", "", "CertChain"},
    {"VorliRsa", "", "Version"},
    {"VorliEcc", "", "CertChain"},
    {"VorliEcc", "", "Version"},
    {"VorliStamp", "", "CertChain"},
    {"VorliStamp", "", "Version"},
    {"VorliStamp", "", "Picture"},
    {"VorliStamp", "", "Cert"},
    {"VorliRsa", "RSA", ""},
    {"", "", ""},
    {"", "", ""},
    {"", "", ""},
    {"SM-Application", "SM-Application", ""},
    {"SM-Application", "SM-Application", ""},
    {"", "", ""},
    {"", "", ""},
    {"SM-Application", "", "CertChain"},
    {"SM-Application", "", "Version"},
    {"", "", ""},
    {"", "", ""},
    {"", "", ""},
    {"", "", ""},
    {"", "", ""},
};
constexpr uint32_t kLastIndex = 13;

void PutName(char *out, const char *text) {
  if (out != nullptr) std::snprintf(out, ZEPH_DEVICE_NAME_MAX, "%s", text);
}

bool IsContainerIndex(uint32_t index) { return (index >= 1 && index <= 4) || index == kLastIndex; }

}  // namespace

extern "C" {

ZEPH_API uint32_t ZEPH_C_SetConfigInfo(const char *json_text) {
  if (json_text == nullptr) return ERR_INVALID_PARAMETER;
  const size_t n = std::strlen(json_text);
  if (n >= ZEPH_DEVICE_CFG_MAX) return ERR_DEVICE_CONFIG_INVALID;
  {
    std::lock_guard<std::mutex> lock(f_cfg_mutex);
    std::memcpy(f_cfg, json_text, n);  // without terminator: an old tail stays
    f_cfg_len = static_cast<uint32_t>(n);
  }
  ZEPH_LOG(n != 0 ? json_text : "read config file", 0);
  return 0;
}

ZEPH_API uint32_t loadAllOfCryptoDeviceHandle(void) {
  if (LoadedTable() != nullptr) {
    ZEPH_LOG("libs has been loaded.", 0);
    return 0;
  }
  return zeph::Guarded([] { return BuildTable(); });
}

ZEPH_API void *getCryptoDeviceHandleWithKeySN(const char *key_sn) {
  if (key_sn == nullptr) return nullptr;
  const LibraryTable *table = Table();
  if (table == nullptr) return nullptr;
  const char *sep = std::strchr(key_sn, '_');
  const size_t prefix_len = sep != nullptr ? static_cast<size_t>(sep - key_sn) : std::strlen(key_sn);
  if (prefix_len == 0) return nullptr;
  // A library that failed to load ends the walk: vendors after it are hidden.
  for (const LibraryEntry &entry : table->entries) {
    if (entry.module == nullptr) break;
    if (std::strncmp(entry.vid, key_sn, prefix_len) == 0) return entry.module;
  }
  return nullptr;
}

ZEPH_API uint32_t ZEPH_C_ukey_detection_getList(char *out_text, uint32_t *in_out_length) {
  if (in_out_length == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<VendorEntry> vendors;
    ZEPH_TRY(l_get_ukey_cfg_params(&vendors));
    ZEPH_TRY(loadAllOfCryptoDeviceHandle());
    zeph::JsonPtr list(cJSON_CreateArray());
    if (!list) return ERR_OUT_OF_MEMORY;
    if (const LibraryTable *table = LoadedTable(); table != nullptr) {
      // Texts come from the configuration as it is now; libraries from the table.
      const size_t n = std::min(table->count(), vendors.size());
      for (size_t i = 0; i < n && table->entries[i].module != nullptr; ++i) {
        ListDevicesOf(table->entries[i].module, vendors[i], list.get());
      }
    }
    std::string text = "[]";
    if (cJSON_GetArraySize(list.get()) != 0) {
      zeph::JsonTextPtr printed(cJSON_PrintUnformatted(list.get()));
      if (!printed) return ERR_OUT_OF_MEMORY;
      text = printed.get();
    }
    // The length written back counts the terminator, also after a write.
    return zeph::PutOutput({reinterpret_cast<const uint8_t *>(text.c_str()), text.size() + 1},
                           reinterpret_cast<uint8_t *>(out_text), in_out_length);
  });
}

ZEPH_API uint32_t ZEPH_C_ukey_detection_getDevErrStatus(char *out_text, uint32_t *in_out_length) {
  if (in_out_length == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<VendorEntry> vendors;
    (void)l_get_ukey_cfg_params(&vendors);
    const LibraryTable *table = Table();
    zeph::JsonPtr list(cJSON_CreateArray());
    if (!list) return ERR_OUT_OF_MEMORY;
    if (table != nullptr) {
      const size_t n = std::min(table->count(), vendors.size());
      for (size_t i = 0; i < n; ++i) {
        if (table->entries[i].module == nullptr)
          cJSON_AddItemToArray(list.get(), cJSON_CreateString(table->entries[i].vid));
      }
    }
    zeph::JsonTextPtr printed(cJSON_Print(list.get()));
    if (!printed) return ERR_OUT_OF_MEMORY;
    const size_t n = std::min<size_t>(std::strlen(printed.get()), 1023);
    const uint32_t capacity = *in_out_length;
    ZEPH_TRY(zeph::PutOutput({reinterpret_cast<const uint8_t *>(printed.get()), n},
                             reinterpret_cast<uint8_t *>(out_text), in_out_length));
    // Compat: the text is handed out without its terminator and the length
    // leaves it out; hosts have always read it as counted characters. A
    // terminator is added only where the buffer has room for it.
    if (out_text != nullptr && capacity > n) out_text[n] = '\0';
    return 0;
  });
}

ZEPH_API uint32_t ZEPH_C_ukey_detection_parseInfoWithKSN(const char *key_sn, uint32_t *out_type, char *out_skf_lib,
                                                         char *out_device_name) {
  if (key_sn == nullptr || out_type == nullptr || out_skf_lib == nullptr || out_device_name == nullptr) {
    return ERR_INVALID_PARAMETER;
  }
  if (std::strlen(key_sn) >= ZEPH_DEVICE_NAME_MAX) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<VendorEntry> vendors;
    ZEPH_TRY(l_get_ukey_cfg_params(&vendors));
    for (const VendorEntry &v : vendors) {
      // Anywhere in the keySN, unlike the prefix rule of the library lookup.
      const char *at = std::strstr(key_sn, v.vid);
      if (at == nullptr) continue;
      const char *rest = at + std::strlen(v.vid);
      if (std::strlen(rest) > 1) {
        *out_type = static_cast<uint32_t>(v.type);
        std::snprintf(out_skf_lib, ZEPH_DEVICE_SKFLIB_MAX, "%s", v.skf_lib);
        std::snprintf(out_device_name, ZEPH_DEVICE_NAME_MAX, "%s", rest + 1);
      }
      break;
    }
    return 0;
  });
}

ZEPH_API uint32_t getDeviceInfoWithDeviceTypeFromConfig(uint32_t reserved, uint32_t layout, uint32_t index,
                                                        uint32_t reserved2, char *out_application, char *out_container,
                                                        char *out_file, uint32_t *out_file_size) {
  uint32_t row = 0;
  if (layout == ZEPH_LAYOUT_STANDARD) {
    if (index < 1 || index > kLastIndex) return 0;
    row = index;
  } else if (layout == ZEPH_LAYOUT_SM_APPLICATION) {
    if (index < 1 || index > kLastIndex || device_cfg_table[index + kSmRowOffset].application[0] == '\0') {
      return ERR_UNSUPPORTED_VALUE;
    }
    row = index + kSmRowOffset;
  } else {
    return ERR_UNSUPPORTED_VALUE;
  }
  const Row &r = device_cfg_table[row];
  PutName(out_application, r.application);
  if (IsContainerIndex(index)) {
    PutName(out_container, r.container);
  } else {
    PutName(out_file, r.file);
    if (out_file_size != nullptr) *out_file_size = ZEPH_DEVICE_FILE_SIZE;
  }
  return 0;
}

}  // extern "C"
