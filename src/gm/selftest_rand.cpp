// The fixed random source of the SM2 encryption self-test: a copy of
// OpenSSL's random method whose byte function serves given bytes.
// Compat: swapping OpenSSL's process-wide random method is what the fixed
// source is; OpenSSL 3.0 offers it only through the deprecated RAND_METHOD
// interface, so this one unit asks for it without the deprecation warnings.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <algorithm>
#include <cstring>
#include <mutex>
#include <thread>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "zeph_c_sm2.h"

namespace {

// OpenSSL's random method is process-wide; so is this record of what
// replaced it.
struct FakeSource {
  std::mutex mu;
  bool installed = false;
  const RAND_METHOD *saved = nullptr;
  RAND_METHOD fake{};
  unsigned char *bytes = nullptr;
  long len = 0;
  long pos = 0;
  // Only the thread that installed the source gets the fixed bytes: a nonce
  // drawn meanwhile elsewhere in the process stays random.
  std::thread::id owner;

  void Clear() {
    OPENSSL_clear_free(bytes, static_cast<size_t>(len));
    bytes = nullptr;
    len = pos = 0;
    saved = nullptr;
    installed = false;
  }
};

FakeSource &Source() {
  static FakeSource source;
  return source;
}

}  // namespace

extern "C" {

ZEPH_API int start_fake_rand(const char *hex_text) {
  if (hex_text == nullptr) return 0;
  FakeSource &s = Source();
  const std::lock_guard<std::mutex> lock(s.mu);
  if (s.installed) return 0;
  const RAND_METHOD *current = RAND_get_rand_method();
  if (current == nullptr) return 0;
  long len = 0;
  unsigned char *bytes = OPENSSL_hexstr2buf(hex_text, &len);
  if (bytes == nullptr) return 0;
  s.saved = current;
  s.fake = *current;
  s.fake.bytes = get_faked_bytes;
  s.bytes = bytes;
  s.len = len;
  s.pos = 0;
  s.owner = std::this_thread::get_id();
  s.installed = true;
  if (RAND_set_rand_method(&s.fake) != 1) {
    s.Clear();
    return 0;
  }
  return 1;
}

ZEPH_API int restore_rand(void) {
  FakeSource &s = Source();
  const std::lock_guard<std::mutex> lock(s.mu);
  if (!s.installed) return 0;
  const int rv = RAND_set_rand_method(s.saved);
  s.Clear();
  return rv == 1 ? 1 : 0;
}

ZEPH_API int get_faked_bytes(unsigned char *buf, int num) {
  if (num < 0 || (buf == nullptr && num != 0)) return 0;
  FakeSource &s = Source();
  const RAND_METHOD *saved = nullptr;
  size_t served = 0;
  {
    const std::lock_guard<std::mutex> lock(s.mu);
    saved = s.saved;
    if (s.installed && std::this_thread::get_id() == s.owner) {
      served = static_cast<size_t>(std::min<long>(num, s.len - s.pos));
      if (served != 0) std::memcpy(buf, s.bytes + s.pos, served);
      s.pos += static_cast<long>(served);
    }
  }
  const size_t rest = static_cast<size_t>(num) - served;
  if (rest == 0) return 1;
  // Past the fixed bytes (OpenSSL's point multiplication draws blinding
  // values after k), or with no fake source: the real generator.
  if (saved == nullptr) return RAND_bytes(buf + served, static_cast<int>(rest));
  return saved->bytes != nullptr && saved->bytes(buf + served, static_cast<int>(rest)) == 1 ? 1 : 0;
}

}  // extern "C"
