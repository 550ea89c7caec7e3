// Whole-file reading and writing.
#include <cstdio>

#include <sys/stat.h>

#include "foundation/output.hpp"
#include "foundation/owned.hpp"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

// Compat: files that do not open or read give 0xFFFFFFFF, not a library status.
constexpr uint32_t kFailed = 0xFFFFFFFFu;

}  // namespace

extern "C" {

ZEPH_API uint32_t zeph_c_utils_readFile(const char *path, unsigned char *out, uint32_t *in_out_len) {
  if (path == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  zeph::FilePtr f(std::fopen(path, "rb"));
  if (!f) return kFailed;
  // Only a regular file has a size to announce before reading.
  struct stat st {};
  if (fstat(fileno(f.get()), &st) != 0 || !S_ISREG(st.st_mode)) return kFailed;
  if (static_cast<uint64_t>(st.st_size) > UINT32_MAX) return kFailed;
  const auto size = static_cast<uint32_t>(st.st_size);
  // Callers size the out with a first call; a stale length is refused
  // rather than written past.
  if (auto done = zeph::ReserveOutput(size, out, in_out_len)) return *done;
  *in_out_len = size;
  if (size != 0 && std::fread(out, 1, size, f.get()) != size) return kFailed;
  return 0;
}

ZEPH_API uint32_t zeph_c_utils_writeFile(const char *path, const unsigned char *data, uint32_t length) {
  if (path == nullptr || (data == nullptr && length != 0)) return ERR_INVALID_PARAMETER;
  zeph::FilePtr f(std::fopen(path, "wb"));
  if (!f) return ERR_FILE_OPEN_FAILED;
  if (length != 0 && std::fwrite(data, 1, length, f.get()) != length) return ERR_FILE_WRITE_FAILED;
  if (std::fclose(f.release()) != 0) return ERR_FILE_WRITE_FAILED;
  return 0;
}

}  // extern "C"
