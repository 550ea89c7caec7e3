// The device configuration: the process-wide configuration text, set by the
// host or read once from the configuration file, its vendor entries, and the
// split of a keySN into the entry that serves it and the device name.
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "device/detection.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/log.hpp"
#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

constexpr const char *kCfgFileName = "vorli_ukey_cfg.json";

// Process-wide state. f_cfg always keeps a terminator in its last byte.
char f_cfg[ZEPH_DEVICE_CFG_MAX];
uint32_t f_cfg_len = 0;
std::mutex f_cfg_mutex;

// The vendor entries parsed from the configuration text g_entries_text.
std::mutex g_entries_mutex;
bool g_entries_valid = false;
std::string g_entries_text;
std::vector<zeph::device::VendorEntry> g_entries;

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
  const bool logging = zeph::LogEnabled();  // every device call passes here
  {
    std::lock_guard<std::mutex> lock(f_cfg_mutex);
    if (logging) before = f_cfg;
    if (f_cfg[0] == '\0') rv = ReadConfigFile();
    out->assign(f_cfg);  // up to the first terminator: an old tail may follow
  }
  if (logging) ZEPH_LOG(before.c_str(), 0);
  return rv;
}

}  // namespace

namespace zeph::device {

uint32_t ReadVendorEntries(std::vector<VendorEntry> *out_entries) {
  out_entries->clear();
  std::string text;
  ZEPH_TRY(CurrentConfigText(&text));
  // Every device call asks: the entries of the text last read are kept.
  {
    std::lock_guard<std::mutex> lock(g_entries_mutex);
    if (g_entries_valid && g_entries_text == text) {
      *out_entries = g_entries;
      return 0;
    }
  }
  // The parser takes the first complete value and ignores what follows it.
  JsonPtr root(cJSON_Parse(text.c_str()));
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
  std::lock_guard<std::mutex> lock(g_entries_mutex);
  g_entries_text = std::move(text);
  g_entries = *out_entries;
  g_entries_valid = true;
  return 0;
}

}  // namespace zeph::device

using zeph::device::ReadVendorEntries;
using zeph::device::VendorEntry;

extern "C" {

ZEPH_API uint32_t ZEPH_C_SetConfigInfo(const char *json_text) {
  if (json_text == nullptr) return ERR_INVALID_PARAMETER;
  const size_t n = std::strlen(json_text);
  if (n >= ZEPH_DEVICE_CFG_MAX) return ERR_DEVICE_CONFIG_INVALID;
  {
    std::lock_guard<std::mutex> lock(f_cfg_mutex);
    // Compat: copied without its terminator, so an old tail stays behind a
    // shorter text; the parser reads the first complete value only.
    std::memcpy(f_cfg, json_text, n);
    f_cfg_len = static_cast<uint32_t>(n);
  }
  ZEPH_LOG(n != 0 ? json_text : "read config file", 0);
  return 0;
}

ZEPH_API uint32_t ZEPH_C_ukey_detection_parseInfoWithKSN(const char *key_sn, uint32_t *out_type, char *out_skf_lib,
                                                         char *out_device_name) {
  if (key_sn == nullptr || out_type == nullptr || out_skf_lib == nullptr || out_device_name == nullptr) {
    return ERR_INVALID_PARAMETER;
  }
  if (std::strlen(key_sn) >= ZEPH_DEVICE_NAME_MAX) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<VendorEntry> vendors;
    ZEPH_TRY(ReadVendorEntries(&vendors));
    for (const VendorEntry &v : vendors) {
      // Compat: the vid may stand anywhere in the keySN, unlike the prefix
      // rule of the library lookup.
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

}  // extern "C"
