// GetPrivateProfileString / GetPrivateProfileInt over arbitrary file bytes.
// The first line names the section and key to ask for ("section|key").
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "zeph_c_utils.h"

namespace {

// One unlinked scratch file per process, reached by its /proc/self/fd name:
// nothing is left behind however the fuzzer exits.
struct Scratch {
  int fd = -1;
  std::string path;
};

const Scratch &IniFile() {
  static const Scratch scratch = [] {
    Scratch s;
    for (const char *dir : {"/dev/shm", "/tmp"}) {
      std::string tmpl = std::string(dir) + "/zeph-fuzz-ini-XXXXXX";
      s.fd = mkstemp(tmpl.data());
      if (s.fd >= 0) {
        unlink(tmpl.c_str());
        break;
      }
    }
    if (s.fd < 0) std::abort();
    s.path = "/proc/self/fd/" + std::to_string(s.fd);
    return s;
  }();
  return scratch;
}

void Ask(const char *section, const char *key, const char *file) {
  // Heap buffers of the exact size, so a write past them is caught.
  for (uint32_t size : {1u, 16u, 4096u}) {
    char *out = static_cast<char *>(std::malloc(size));
    const uint32_t n = GetPrivateProfileString(section, key, "dflt", out, size, file);
    if (n >= size || std::strlen(out) >= size) std::abort();
    if (n != 0 && std::strlen(out) != n) std::abort();
    std::free(out);
  }
  GetPrivateProfileInt(section, key, -1, file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const Scratch &file = IniFile();
  if (ftruncate(file.fd, 0) != 0 || pwrite(file.fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
  const std::string &path = file.path;

  const std::string text(reinterpret_cast<const char *>(data), size);
  const std::string first = text.substr(0, std::min(text.find('\n'), size_t{300}));
  const size_t bar = first.find('|');
  const std::string section = first.substr(0, bar);
  const std::string key = bar == std::string::npos ? "k" : first.substr(bar + 1);
  Ask(section.c_str(), key.c_str(), path.c_str());
  Ask("s", "k", path.c_str());
  Ask("", "", path.c_str());
  return 0;
}
