// Arbitrary bytes as an SM2 envelope and as its item: what decodes encodes
// to bytes that decode again to the same encoding.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "zeph_c_p7.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

template <class T>
std::vector<uint8_t> Reencode(const uint8_t *data, size_t size, T *(*d2i)(T **, const unsigned char **, long),
                              int (*i2d)(const T *, unsigned char **), void (*free_fn)(T *)) {
  const unsigned char *p = data;
  T *obj = d2i(nullptr, &p, static_cast<long>(size));
  std::vector<uint8_t> out;
  if (obj == nullptr) return out;
  Check(p > data && p <= data + size);
  unsigned char *der = nullptr;
  const int n = i2d(obj, &der);
  if (n > 0) out.assign(der, der + n);
  OPENSSL_free(der);
  free_fn(obj);
  return out;
}

template <class T>
void Stable(const uint8_t *data, size_t size, T *(*d2i)(T **, const unsigned char **, long),
            int (*i2d)(const T *, unsigned char **), void (*free_fn)(T *)) {
  const std::vector<uint8_t> once = Reencode(data, size, d2i, i2d, free_fn);
  if (!once.empty()) Check(Reencode(once.data(), once.size(), d2i, i2d, free_fn) == once);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Stable(data, size, d2i_SM2_Envelope, i2d_SM2_Envelope, SM2_Envelope_free);
  Stable(data, size, d2i_SM2_Envelope_Item, i2d_SM2_Envelope_Item, SM2_Envelope_Item_free);
  Stable(data, size, d2i_RAW_DATA_SM2, i2d_RAW_DATA_SM2, RAW_DATA_SM2_free);
  return 0;
}
