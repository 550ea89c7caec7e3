// GetPrivateProfileString / GetPrivateProfileInt over arbitrary file bytes.
// The first line names the section and key to ask for ("section|key").

#include <sys/mman.h>
#include <unistd.h>

#include "check.hpp"
#include "zeph_c_utils.h"

namespace {

// An anonymous in-memory file reached by its /proc/self/fd name: nothing is
// left behind however the fuzzer exits.
const int kFd = memfd_create("zeph-fuzz-ini", 0);
const std::string kPath = "/proc/self/fd/" + std::to_string(kFd);

void Ask(const char *section, const char *key) {
  // Heap buffers of the exact size, so a write past them is caught.
  for (uint32_t size : {1u, 16u, 4096u}) {
    const std::unique_ptr<char[]> out(new char[size]);
    const uint32_t n = GetPrivateProfileString(section, key, "dflt", out.get(), size, kPath.c_str());
    fuzz::Check(n < size && std::strlen(out.get()) < size && (n == 0 || std::strlen(out.get()) == n));
  }
  GetPrivateProfileInt(section, key, -1, kPath.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Check(kFd >= 0);
  if (ftruncate(kFd, 0) != 0 || pwrite(kFd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
  const std::string text = fuzz::Text(data, size);
  const std::string first = text.substr(0, std::min(text.find('\n'), size_t{300}));
  const size_t bar = first.find('|');
  Ask(first.substr(0, bar).c_str(), bar == std::string::npos ? "k" : first.substr(bar + 1).c_str());
  Ask("s", "k");
  Ask("", "");
  return 0;
}
