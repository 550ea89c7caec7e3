// Arbitrary bytes as an SM2 signed message: what decodes encodes to bytes
// that decode again to the same encoding, and verification (with and
// without detached content) answers 0 or ERR_SIGNATURE_INVALID, never more.
#include "api/p7_internal.hpp"
#include "der_stable.hpp"
#include "zeph_c_p7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Stable(data, size, d2i_SM2_Sign, i2d_SM2_Sign, SM2_Sign_free);
  fuzz::Stable(data, size, d2i_SM2_SIGN_INFO, i2d_SM2_SIGN_INFO, SM2_SIGN_INFO_free);
  zeph::p7::Bytes content;
  for (const zeph::p7::Bytes &detached : {zeph::p7::Bytes{}, zeph::p7::Bytes{'h', 'e', 'l', 'l', 'o'}}) {
    fuzz::Check(fuzz::OneOf(zeph::p7::VerifySm2Sign({data, size}, detached, &content), {0, ERR_SIGNATURE_INVALID}));
  }
  return 0;
}
