// Arbitrary bytes as a private key from a host, with and without a
// password: a status, never a crash; a key that reads is RSA or SM2 and
// writes out as PKCS#8 that reads back to the same key.
#include <cstdint>
#include <cstdlib>

#include "pki/cert_input.hpp"
#include "zeph_c_status.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

bool Expected(uint32_t rv) {
  return rv == 0 || rv == ERR_INVALID_PARAMETER || rv == ERR_PIN_VERIFY_FAILED || rv == ERR_UNSUPPORTED_VALUE ||
         rv == ERR_OUT_OF_MEMORY;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  for (const char *pin : {static_cast<const char *>(nullptr), "fuzz"}) {
    zeph::EvpPkeyPtr key;
    const uint32_t rv = zeph::pki::ReadPrivateKey({data, size}, pin, &key);
    Check(Expected(rv));
    if (rv != 0) continue;
    Check(zeph::pki::IsRsaKey(key.get()) || zeph::pki::IsSm2Key(key.get()));
    zeph::SecureBytes p8;
    Check(zeph::pki::WritePrivateKey(key.get(), nullptr, &p8) == 0);
    zeph::EvpPkeyPtr again;
    Check(zeph::pki::ReadPrivateKey(p8.span(), nullptr, &again) == 0);
    Check(EVP_PKEY_eq(key.get(), again.get()) == 1);
  }
  return 0;
}
