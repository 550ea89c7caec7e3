// Both verifications and the certificate lookup with arbitrary signatures,
// against a real seal and with the input as the seal.
#include "check.hpp"
#include "zeph_c_seal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto len = static_cast<uint32_t>(size);
  const unsigned char any = 1;
  const uint32_t ses = verifySESSignature(data, len, &any, 1, &any, 1, &any, 1, &any, 1, data, len, 0);
  fuzz::Check(fuzz::OneOf(ses, {0, ERR_INVALID_PARAMETER, ERR_SIGNATURE_INVALID}));
  const uint32_t gb = verifyGBSESSignature(data, len, &any, 1, &any, 1, &any, 1, &any, 1, data, len, 0);
  fuzz::Check(gb == 0 || gb == ERR_SIGNATURE_INVALID || gb >= ZEPH_GBVERIFY_MISSING_ARGUMENT);
  uint32_t need = 0;
  if (getCertWithGBSESSignature(data, len, nullptr, &need) == ERR_INVALID_PARAMETER && need != 0) {
    std::vector<unsigned char> cert(need);
    fuzz::Check(getCertWithGBSESSignature(data, len, cert.data(), &need) == 0 && need == cert.size());
  }
  return 0;
}
