// What the targets share: a failed check ends the run (libFuzzer keeps the
// input), statuses checked against the library's list, the input as text,
// and buffers that make a read or write past a length visible.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "zeph_c_status.h"

namespace fuzz {

inline void Check(bool ok) {
  if (!ok) std::abort();
}

inline bool OneOf(uint32_t status, std::initializer_list<uint32_t> allowed) {
  return std::find(allowed.begin(), allowed.end(), status) != allowed.end();
}

// A terminated copy of the input.
inline std::string Text(const uint8_t *data, size_t size) { return {reinterpret_cast<const char *>(data), size}; }

// An exactly sized heap copy, never null: AddressSanitizer sees a read past
// the end.
inline std::unique_ptr<uint8_t[]> Exact(const uint8_t *data, size_t size) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[std::max<size_t>(size, 1)]);
  std::copy(data, data + size, copy.get());
  return copy;
}

// `capacity` bytes and a guard zone behind them that nothing may touch.
struct Guarded {
  static constexpr uint8_t kGuard = 0x5A;
  explicit Guarded(size_t cap) : capacity(cap), bytes(cap + 64, kGuard) {}
  uint8_t *data() { return bytes.data(); }
  char *text() { return reinterpret_cast<char *>(bytes.data()); }
  bool Intact() const {
    return std::all_of(bytes.begin() + static_cast<long>(capacity), bytes.end(), [](uint8_t b) { return b == kGuard; });
  }
  size_t capacity;
  std::vector<uint8_t> bytes;
};

}  // namespace fuzz
