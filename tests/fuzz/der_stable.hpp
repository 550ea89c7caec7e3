// What an ASN.1 type decodes from arbitrary bytes encodes to bytes that
// decode again to the same encoding; the decoder never reads past the input.
#pragma once

#include <openssl/crypto.h>

#include "check.hpp"

namespace fuzz {

// The DER of an OpenSSL object; empty when it does not encode.
template <class T>
std::vector<uint8_t> Der(const T *obj, int (*i2d)(const T *, unsigned char **)) {
  unsigned char *der = nullptr;
  const int n = i2d(obj, &der);
  std::vector<uint8_t> out(der, der + std::max(n, 0));
  OPENSSL_free(der);
  return out;
}

template <class T>
std::vector<uint8_t> Reencode(const uint8_t *data, size_t size, T *(*d2i)(T **, const unsigned char **, long),
                              int (*i2d)(const T *, unsigned char **), void (*free_fn)(T *)) {
  const unsigned char *p = data;
  const std::unique_ptr<T, void (*)(T *)> obj(d2i(nullptr, &p, static_cast<long>(size)), free_fn);
  if (obj == nullptr) return {};
  Check(p > data && p <= data + size);
  return Der<T>(obj.get(), i2d);
}

template <class T>
void Stable(const uint8_t *data, size_t size, T *(*d2i)(T **, const unsigned char **, long),
            int (*i2d)(const T *, unsigned char **), void (*free_fn)(T *)) {
  const std::vector<uint8_t> once = Reencode(data, size, d2i, i2d, free_fn);
  if (once.empty()) return;
  // OpenSSL writes an empty ANY of a non-universal class (an algorithm's
  // parameters, say) as 00 00, which it then refuses to read: that round is
  // OpenSSL's and is let through; any other difference is ours.
  const std::vector<uint8_t> twice = Reencode(once.data(), once.size(), d2i, i2d, free_fn);
  Check(twice.empty() || twice == once);
}

}  // namespace fuzz
