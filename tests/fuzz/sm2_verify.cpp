// Arbitrary digests, keys and DER signatures through SM2 verification,
// checked against OpenSSL: a signature the library accepts OpenSSL accepts
// too, and one OpenSSL accepts (with both coordinates of the key below p)
// the library accepts. Statuses stay within 0, 7 and 8.

#include "sm2_openssl.hpp"
#include "zeph_c_sm2.h"

namespace {

// Both coordinates below p = FFFFFFFE FFFFFFFF ... 00000000 FFFFFFFF FFFFFFFF.
bool BelowP(const uint8_t *coordinate) {
  static const uint8_t p[32] = {0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00,
                                0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  return std::memcmp(coordinate, p, 32) < 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 97 || size > 4096) return 0;
  uint8_t pub[65];
  std::memcpy(pub, data + 32, 65);
  pub[0] = 0x04;
  const uint8_t *e = data, *sig = data + 97;
  const auto sig_len = static_cast<uint32_t>(size - 97);
  const uint32_t rv = BIVO_VerifySm2SignatureOnDigestWithPubKey(e, pub, 65, sig, sig_len);
  fuzz::Check(fuzz::OneOf(rv, {0, BIVO_ERR_SIGNATURE_FORMAT, BIVO_ERR_VERIFY}));
  const bool theirs = fuzz::OpenSslVerifies(fuzz::Sm2PublicKey(pub).get(), e, sig, sig_len);
  fuzz::Check(rv != 0 || theirs);
  fuzz::Check(!theirs || !BelowP(pub + 1) || !BelowP(pub + 33) || rv == 0);
  return 0;
}
