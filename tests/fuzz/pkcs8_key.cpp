// Arbitrary bytes as a private key from a host, with and without a
// password: a status, never a crash; a key that reads is RSA or SM2 and
// writes out as PKCS#8 that reads back to the same key.
#include "check.hpp"
#include "pki/cert_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  for (const char *pin : {static_cast<const char *>(nullptr), "fuzz"}) {
    zeph::EvpPkeyPtr key;
    const uint32_t rv = zeph::pki::ReadPrivateKey({data, size}, pin, &key);
    fuzz::Check(
        fuzz::OneOf(rv, {0, ERR_INVALID_PARAMETER, ERR_PIN_VERIFY_FAILED, ERR_UNSUPPORTED_VALUE, ERR_OUT_OF_MEMORY}));
    if (rv != 0) continue;
    fuzz::Check(zeph::pki::IsRsaKey(key.get()) || zeph::pki::IsSm2Key(key.get()));
    zeph::SecureBytes p8;
    zeph::EvpPkeyPtr again;
    fuzz::Check(zeph::pki::WritePrivateKey(key.get(), nullptr, &p8) == 0 &&
                zeph::pki::ReadPrivateKey(p8.span(), nullptr, &again) == 0 && EVP_PKEY_eq(key.get(), again.get()) == 1);
  }
  return 0;
}
