// Arbitrary DER ciphertexts and server answers through the client's side of
// two-party decryption with fixed shares. Input: a mode byte, a 65-byte T2,
// the DER, with the C2 capacity taken from the mode. Mode bit 0 replaces T2 by
// the honest server answer, so real ciphertexts reach the plaintext. Every
// status is one of the documented ones; nothing is written beyond a buffer
// (the buffers are exact, AddressSanitizer watches); a decryption succeeds
// only with the honest answer.
#include "check.hpp"
#include "zeph_c_bivo_math.h"

namespace {

// Fixed shares: d1^-1 = 0x11.., d2^-1 = 0x22.. (both below n).
const std::vector<uint8_t> kD1Inv(32, 0x11), kD2Inv(32, 0x22);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 66 || size > 8192) return 0;
  const uint8_t mode = data[0];
  const uint8_t *t2_in = data + 1, *der = data + 66;
  const auto der_len = static_cast<uint32_t>(size - 66);
  // A capacity of der_len always suffices; mode bit 1 makes it tight.
  const uint32_t capacity = (mode & 2) != 0 && der_len > 0 ? der_len - 1 - (mode >> 2) % der_len : der_len;
  std::vector<uint8_t> T1(65), C1(65), C3(32), T2(t2_in, t2_in + 65), honest_t2(65);
  const std::unique_ptr<uint8_t[]> C2(new uint8_t[capacity]);  // exact, even when empty
  uint32_t c2_len = capacity;
  const uint32_t rv =
      BIVO_Client_CreatePlaintextShare(der, der_len, kD1Inv.data(), T1.data(), C1.data(), C2.get(), &c2_len, C3.data());
  fuzz::Check(fuzz::OneOf(rv, {0, BIVO_ERR_PLAINTEXT_SHARE, BIVO_ERR_CIPHER_DER, BIVO_ERR_CIPHER_HASH,
                               BIVO_ERR_C1_INFINITY, BIVO_ERR_BUFFER_TOO_SMALL}));
  if (rv == BIVO_ERR_BUFFER_TOO_SMALL) fuzz::Check(c2_len > capacity && c2_len <= der_len);
  if (rv != 0) return 0;
  fuzz::Check(c2_len <= capacity && BIVO_Server_CreatePlaintextShare(T1.data(), kD2Inv.data(), honest_t2.data()) == 0);
  if ((mode & 1) != 0) T2 = honest_t2;
  const std::unique_ptr<uint8_t[]> plain(new uint8_t[c2_len]);
  const uint32_t combined =
      BIVO_Client_CombinePlaintextShares(C1.data(), C2.get(), c2_len, C3.data(), T2.data(), plain.get());
  fuzz::Check(fuzz::OneOf(combined, {0, BIVO_ERR_COMBINE}) && (combined != 0 || T2 == honest_t2));
  return 0;
}
