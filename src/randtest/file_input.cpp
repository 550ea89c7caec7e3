#include "randtest/file_input.hpp"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zeph_c_randtest.h"

namespace zeph::randtest {

InputFile::~InputFile() {
  if (fd_ >= 0) close(fd_);
}

uint32_t InputFile::Open(const char *path) {
  if (path == nullptr) return ZEPH_RANDTEST_ERR_NULL_POINTER;
  fd_ = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) return ZEPH_RANDTEST_ERR_FILE;
  struct stat st {};
  if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) return ZEPH_RANDTEST_ERR_FILE;
  size_ = static_cast<uint64_t>(st.st_size);
  return 0;
}

uint32_t InputFile::Read(uint8_t *out, size_t n) {
  while (n > 0) {
    const ssize_t got = read(fd_, out, n);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return ZEPH_RANDTEST_ERR_FILE;
    out += got;
    n -= static_cast<size_t>(got);
  }
  return 0;
}

uint32_t ReadWholeFile(const char *path, std::vector<uint8_t> *out) {
  InputFile f;
  if (const uint32_t rv = f.Open(path); rv != 0) return rv;
  out->resize(f.size());
  return f.Read(out->data(), out->size());
}

}  // namespace zeph::randtest
