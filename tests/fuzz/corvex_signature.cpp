// Corvex signatures from arbitrary bytes: what decodes encodes, decodes
// again and encodes to the same bytes.
#include "der_stable.hpp"
#include "zeph_c_corvex.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Stable<Corvex_Signature>(data, size, d2i_Corvex_Signature, i2d_Corvex_Signature, Corvex_Signature_free);
  return 0;
}
