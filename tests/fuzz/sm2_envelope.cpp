// Arbitrary bytes as an SM2 envelope, as its item and as signed content:
// what decodes encodes to bytes that decode again to the same encoding.
#include "der_stable.hpp"
#include "zeph_c_p7.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Stable(data, size, d2i_SM2_Envelope, i2d_SM2_Envelope, SM2_Envelope_free);
  fuzz::Stable(data, size, d2i_SM2_Envelope_Item, i2d_SM2_Envelope_Item, SM2_Envelope_Item_free);
  fuzz::Stable(data, size, d2i_RAW_DATA_SM2, i2d_RAW_DATA_SM2, RAW_DATA_SM2_free);
  return 0;
}
