// Where the configuration files are: the settable configuration directory,
// the device configuration file and the deployment INI file.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "foundation/log.hpp"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

constexpr size_t kMaxConfigDir = 1024;
constexpr size_t kPathBuffer = 260;
constexpr char kDeviceConfigName[] = "vorli_ukey_cfg.json";
constexpr char kIniSuffix[] = "//KandelorOstConfig.ini";
constexpr char kIniDefault[] = "//etc//KandelorOstConfig.ini";

// The configuration directory, process-wide; 1,024 characters and the
// terminator. Set once by the host before the first device call.
char ConfigPath[kMaxConfigDir + 1] = {0};

// "<dir>/vorli_ukey_cfg.json" into a 260-byte buffer when it fits and the
// file exists. A path cut at the buffer would name some other file.
bool ExistingCandidate(const char *dir, char (&path)[kPathBuffer]) {
  const int n = std::snprintf(path, sizeof path, "%s/%s", dir, kDeviceConfigName);
  return n > 0 && static_cast<size_t>(n) < sizeof path && access(path, F_OK) == 0;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ZEPH_C_SetConfig(const char *directory) {
  // Compat: refusals are 0xFFFFFFFF, not a library status.
  if (directory == nullptr) return 0xFFFFFFFFu;
  const size_t n = strnlen(directory, kMaxConfigDir + 1);
  if (n > kMaxConfigDir) return 0xFFFFFFFFu;
  std::memcpy(ConfigPath, directory, n + 1);
  return 0;
}

ZEPH_API int get_vorli_cfg_path(char *out) {
  if (out == nullptr) return static_cast<int>(ERR_INVALID_PARAMETER);
  char path[kPathBuffer] = {0};
  char cwd[PATH_MAX];
  // Unset, the directory is empty and the first candidate is the root's file.
  if (!ExistingCandidate(ConfigPath, path) && !(getcwd(cwd, sizeof cwd) != nullptr && ExistingCandidate(cwd, path))) {
    std::memcpy(path, kDeviceConfigName, sizeof kDeviceConfigName);
  }
  std::memcpy(out, path, std::strlen(path) + 1);
  ZEPH_LOG(out, 0);
  return 0;
}

ZEPH_API int GetKandelorOstConfigPath(char *out) {
  if (out == nullptr) return static_cast<int>(ERR_INVALID_PARAMETER);
  std::memset(out, 0, kPathBuffer);
  const char *dir = std::getenv("KANDELOR_CONFIG_FILE_PATH");
  if (dir == nullptr) {
    std::memcpy(out, kIniDefault, sizeof kIniDefault);
    return 0;
  }
  // A directory too long for the 260-byte path is refused, not cut short into
  // the name of some other file; the output stays empty.
  const size_t n = strnlen(dir, kPathBuffer);
  if (n + sizeof kIniSuffix > kPathBuffer) return static_cast<int>(ERR_INVALID_PARAMETER);
  std::memcpy(out, dir, n);
  std::memcpy(out + n, kIniSuffix, sizeof kIniSuffix);
  return 0;
}

}  // extern "C"
