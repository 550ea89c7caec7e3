// Reading test input files: only non-empty regular files, opened without
// blocking so a FIFO or device cannot hang the caller, read to the size
// measured at open (a file that shrinks meanwhile is an error).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zeph::randtest {

class InputFile {
 public:
  InputFile() = default;
  InputFile(const InputFile &) = delete;
  InputFile &operator=(const InputFile &) = delete;
  ~InputFile();

  // 0; 1 for a null path; 2 when missing, unreadable, not a regular file or
  // empty.
  uint32_t Open(const char *path);
  uint64_t size() const { return size_; }
  // Exactly n bytes, else 2.
  uint32_t Read(uint8_t *out, size_t n);

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

// The whole file (statuses as Open and Read; a file too large for memory
// throws std::bad_alloc).
uint32_t ReadWholeFile(const char *path, std::vector<uint8_t> *out);

}  // namespace zeph::randtest
