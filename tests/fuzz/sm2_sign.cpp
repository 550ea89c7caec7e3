// Arbitrary bytes as an SM2 signed message: what decodes encodes to bytes
// that decode again to the same encoding, and verification (with and
// without detached content) answers 0 or ERR_SIGNATURE_INVALID, never more.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "api/p7_internal.hpp"
#include "zeph_c_p7.h"
#include "zeph_c_status.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

std::vector<uint8_t> Reencode(const uint8_t *data, size_t size) {
  const unsigned char *p = data;
  SM2_Sign *msg = d2i_SM2_Sign(nullptr, &p, static_cast<long>(size));
  std::vector<uint8_t> out;
  if (msg == nullptr) return out;
  Check(p > data && p <= data + size);
  unsigned char *der = nullptr;
  const int n = i2d_SM2_Sign(msg, &der);
  if (n > 0) out.assign(der, der + n);
  OPENSSL_free(der);
  SM2_Sign_free(msg);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<uint8_t> once = Reencode(data, size);
  if (!once.empty()) Check(Reencode(once.data(), once.size()) == once);
  zeph::p7::Bytes content;
  const uint32_t rv = zeph::p7::VerifySm2Sign({data, size}, {}, &content);
  Check(rv == 0 || rv == ERR_SIGNATURE_INVALID);
  const uint8_t detached[] = {'h', 'e', 'l', 'l', 'o'};
  const uint32_t rv2 = zeph::p7::VerifySm2Sign({data, size}, detached, &content);
  Check(rv2 == 0 || rv2 == ERR_SIGNATURE_INVALID);
  return 0;
}
