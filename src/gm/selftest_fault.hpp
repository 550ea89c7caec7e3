// Faults for the self-tests' own tests: the static twin of the library can
// alter the result of one primitive as a self-test sees it, so that each
// self-test is seen to fail with its status. The shared library is built
// without the switch: Faulty is always false there.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zeph::gm::selftest {

enum class Fault {
  kNone,
  kSm3,
  kSm3Streaming,
  kPreprocess,
  kPreprocessStreaming,
  kSm4Encrypt,
  kSm4Decrypt,
  kSm4EcbPaddedEncrypt,
  kSm4EcbPaddedDecrypt,
  kSm4CbcPaddedEncrypt,
  kSm4CbcPaddedDecrypt,
  kSm2Verify,
  kSm2Encrypt,
};

bool Faulty(Fault f);

// Flips a bit of the primitive's output when its fault is switched on.
inline void Spoil(Fault f, uint8_t *out, size_t n) {
  if (n != 0 && Faulty(f)) out[n - 1] ^= 0x01;
}

// Static twin only: switches one fault on (kNone switches all off).
void SetSelftestFault(Fault f);

}  // namespace zeph::gm::selftest
