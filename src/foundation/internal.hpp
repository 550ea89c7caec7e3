// Internal building blocks shared by every module of the library: owners for
// OpenSSL and cJSON objects, the status-flow macros, the output-buffer
// protocol, wiped buffers and the exception barrier of exported functions.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include <cjson/cJSON.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "zeph_c_status.h"

namespace zeph {

// One deleter template; one alias per owned type.
template <auto Fn>
struct Free {
  template <class T>
  void operator()(T *p) const noexcept {
    if (p != nullptr) Fn(p);
  }
};

using BnPtr = std::unique_ptr<BIGNUM, Free<BN_clear_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, Free<BN_CTX_free>>;
using EcGroupPtr = std::unique_ptr<EC_GROUP, Free<EC_GROUP_free>>;
using EcPointPtr = std::unique_ptr<EC_POINT, Free<EC_POINT_free>>;
using EcKeyPtr = std::unique_ptr<EC_KEY, Free<EC_KEY_free>>;
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, Free<ECDSA_SIG_free>>;
using RsaPtr = std::unique_ptr<RSA, Free<RSA_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Free<EVP_PKEY_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, Free<EVP_MD_CTX_free>>;
using EvpCipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, Free<EVP_CIPHER_CTX_free>>;
using X509Ptr = std::unique_ptr<X509, Free<X509_free>>;
using BioPtr = std::unique_ptr<BIO, Free<BIO_free_all>>;
using JsonPtr = std::unique_ptr<cJSON, Free<cJSON_Delete>>;

inline void FreeCString(char *p) noexcept { cJSON_free(p); }
using JsonTextPtr = std::unique_ptr<char, Free<FreeCString>>;

inline void FreeMalloc(void *p) noexcept { std::free(p); }
template <class T>
using MallocPtr = std::unique_ptr<T, Free<FreeMalloc>>;

// A byte buffer that is wiped before its memory is released: PINs, keys,
// private scalars, session keys.
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

// The output-buffer protocol: a null buffer asks for the length; a capacity
// of at least the length receives the bytes; a smaller one gives
// ERR_BUFFER_TOO_SMALL. The length is written back in every case.
inline uint32_t PutOutput(std::span<const uint8_t> result, uint8_t *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  if (result.size() > UINT32_MAX) return ERR_INVALID_PARAMETER;
  const auto need = static_cast<uint32_t>(result.size());
  if (out == nullptr) {
    *in_out_len = need;
    return 0;
  }
  if (*in_out_len < need) {
    *in_out_len = need;
    return ERR_BUFFER_TOO_SMALL;
  }
  if (need != 0) std::memcpy(out, result.data(), need);
  *in_out_len = need;
  return 0;
}

// Runs the body of an exported function: no C++ exception crosses the C
// boundary; an allocation failure becomes the out-of-memory status.
template <class F>
uint32_t Guarded(F &&body, uint32_t on_oom = ERR_OUT_OF_MEMORY) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    return on_oom;
  } catch (...) {
    return on_oom;
  }
}

}  // namespace zeph

// The status flow: the first non-zero step ends the operation.
#define ZEPH_TRY(expr)                          \
  do {                                          \
    const uint32_t zeph_try_rv_ = (expr);       \
    if (zeph_try_rv_ != 0) return zeph_try_rv_; \
  } while (0)

#define ZEPH_ENSURE(cond, status) \
  do {                            \
    if (!(cond)) return (status); \
  } while (0)

// Debug record with this source file's name and line.
#define ZEPH_LOG(message, status) zeph_logger_debug((message), static_cast<int64_t>(status), __FILE_NAME__, __LINE__)
