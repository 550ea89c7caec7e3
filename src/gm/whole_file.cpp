// Whole-file helpers: a file's size, and the file read into one buffer.
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>

#include "foundation/owned.hpp"
#include "zeph_c_gm.h"

namespace {

// Size of an open regular file that fits the module's 32-bit lengths.
bool RegularFileSize(FILE *f, uint32_t *out_size) {
  struct stat st {};
  if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0 || st.st_size > UINT32_MAX) {
    return false;
  }
  *out_size = static_cast<uint32_t>(st.st_size);
  return true;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t GetFileLength(const char *path, uint32_t *out_len) {
  if (path == nullptr || out_len == nullptr) return BIVO_ERR_NULL_POINTER;
  zeph::FilePtr f(std::fopen(path, "rb"));
  if (!f || !RegularFileSize(f.get(), out_len)) return BIVO_ERR_FILE;
  return 0;
}

ZEPH_API uint32_t ReadFileIntoMemoryBuffer(const char *path, unsigned char **out_buffer, uint32_t *out_len) {
  if (path == nullptr || out_buffer == nullptr || out_len == nullptr) return BIVO_ERR_NULL_POINTER;
  zeph::FilePtr f(std::fopen(path, "rb"));
  uint32_t size = 0;
  if (!f || !RegularFileSize(f.get(), &size)) return BIVO_ERR_FILE;
  // One byte at least, so an empty file still yields a buffer to free.
  zeph::MallocPtr<unsigned char> buffer(static_cast<unsigned char *>(std::malloc(size == 0 ? 1 : size)));
  if (!buffer) return BIVO_ERR_NO_MEMORY;
  if (size != 0 && std::fread(buffer.get(), 1, size, f.get()) != size) return BIVO_ERR_FILE;
  *out_buffer = buffer.release();
  *out_len = size;
  return 0;
}

ZEPH_API void FreeFileInMemoryBuffer(unsigned char *buffer) { std::free(buffer); }

}  // extern "C"
