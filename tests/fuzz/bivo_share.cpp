// Arbitrary bytes as a stored SM2 share (BIVOParm): decoding and re-encoding
// are stable, taking it apart never writes past a capacity, and opening it
// with a secret gives a status, never a crash.
#include "bivo/bivo_client.hpp"
#include "der_stable.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Stable(data, size, d2i_BIVOParm, i2d_BIVOParm, BIVOParm_free);
  fuzz::Stable(data, size, d2i_RSAParm, i2d_RSAParm, RSAParm_free);
  uint8_t pub[65], hash[32], d1[32], inv[32];
  uint32_t pub_len = sizeof pub, hash_len = sizeof hash, d1_len = sizeof d1, inv_len = sizeof inv;
  if (l_bivo_ResloveParm(data, static_cast<uint32_t>(size), pub, &pub_len, hash, &hash_len, d1, &d1_len, inv,
                         &inv_len) == 0) {
    fuzz::Check(pub_len <= sizeof pub && hash_len <= sizeof hash && d1_len <= sizeof d1 && inv_len <= sizeof inv);
  }
  static const uint8_t kSecret[] = {'1', '2', '3', '4', '5', '6'};
  zeph::bivo::Scalar a, b;
  zeph::bivo::Point p;
  char id[65];
  const uint32_t rv = zeph::bivo::OpenShare(kSecret, "DEV", {data, size}, &a, &b, &p, id);
  fuzz::Check(fuzz::OneOf(rv, {0, ERR_INVALID_PARAMETER, ERR_PIN_VERIFY_FAILED}));
  return 0;
}
