// Buffers for secrets (PINs, keys, private scalars, session keys): wiped
// before their memory is released.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include <openssl/crypto.h>

namespace zeph {

class SecureBytes {
 public:
  SecureBytes() = default;
  explicit SecureBytes(size_t n) : v_(n) {}
  SecureBytes(const uint8_t *p, size_t n) : v_(p, p + n) {}
  SecureBytes(const SecureBytes &) = delete;
  SecureBytes &operator=(const SecureBytes &) = delete;
  SecureBytes(SecureBytes &&o) noexcept = default;
  SecureBytes &operator=(SecureBytes &&o) noexcept {
    Wipe();
    v_ = std::move(o.v_);
    return *this;
  }
  ~SecureBytes() { Wipe(); }

  // Growing copies into a fresh block and wipes the old one, so no stale
  // copy is left behind by a reallocation.
  void resize(size_t n) {
    if (n < v_.size()) OPENSSL_cleanse(v_.data() + n, v_.size() - n);
    std::vector<uint8_t> grown(n);
    std::memcpy(grown.data(), v_.data(), std::min(n, v_.size()));
    Wipe();
    v_ = std::move(grown);
  }
  uint8_t *data() noexcept { return v_.data(); }
  const uint8_t *data() const noexcept { return v_.data(); }
  size_t size() const noexcept { return v_.size(); }
  bool empty() const noexcept { return v_.empty(); }
  uint8_t &operator[](size_t i) noexcept { return v_[i]; }
  std::span<const uint8_t> span() const noexcept { return {v_.data(), v_.size()}; }

 private:
  void Wipe() noexcept {
    if (!v_.empty()) OPENSSL_cleanse(v_.data(), v_.size());
  }
  std::vector<uint8_t> v_;
};

// A NUL-terminated copy of a text of known length (a PIN that the caller did
// not terminate), wiped on release.
inline SecureBytes TerminatedCopy(const void *p, size_t n) {
  SecureBytes s(n + 1);
  if (n != 0) std::memcpy(s.data(), p, n);
  s[n] = 0;
  return s;
}

}  // namespace zeph
