// Both verifications and the certificate lookup with arbitrary signatures,
// against a real seal and with the input as the seal.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "zeph_c_seal.h"
#include "zeph_c_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto len = static_cast<uint32_t>(size);
  const unsigned char any = 1;
  const uint32_t ses = verifySESSignature(data, len, &any, 1, &any, 1, &any, 1, &any, 1, data, len, 0);
  if (ses != ERR_INVALID_PARAMETER && ses != ERR_SIGNATURE_INVALID && ses != 0) std::abort();
  const uint32_t gb = verifyGBSESSignature(data, len, &any, 1, &any, 1, &any, 1, &any, 1, data, len, 0);
  if (gb != 0 && gb != ERR_SIGNATURE_INVALID && (gb < ZEPH_GBVERIFY_MISSING_ARGUMENT)) std::abort();
  uint32_t need = 0;
  if (getCertWithGBSESSignature(data, len, nullptr, &need) == ERR_INVALID_PARAMETER && need != 0) {
    std::vector<unsigned char> cert(need);
    if (getCertWithGBSESSignature(data, len, cert.data(), &need) != 0 || need != cert.size()) std::abort();
  }
  return 0;
}
