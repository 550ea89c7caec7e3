// Arbitrary ciphertexts through SM4 decryption with padding removal, and
// arbitrary identities through the Z digest. Whatever decrypts must encrypt
// back to the same bytes; the library and EVP Z digests must agree.

#include "check.hpp"
#include "zeph_c_gm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 33) return 0;
  const uint8_t *key = data, *iv = data + 16;
  const bool cbc = (data[32] & 1) != 0;
  const uint8_t *cipher = data + 33;
  const auto len = static_cast<uint32_t>(size - 33);

  std::vector<uint8_t> plain(len + 1);
  uint32_t plain_len = 0;
  const uint32_t rv = cbc ? BIVO_Sm4CbcDecryptWithAutoRemovePadding(cipher, len, iv, key, plain.data(), &plain_len)
                          : BIVO_Sm4DecryptWithAutoRemovePadding(cipher, len, key, plain.data(), &plain_len);
  fuzz::Check(fuzz::OneOf(rv, {0, BIVO_ERR_LENGTH, BIVO_ERR_PADDING}));
  if (rv == 0) {
    std::vector<uint8_t> again(BIVO_ComputeSm4EcbCipherLen(plain_len));
    fuzz::Check(plain_len < len && again.size() == len);
    const uint32_t erv = cbc ? BIVO_Sm4CbcEncryptWithAutoPadding(plain.data(), plain_len, iv, key, again.data())
                             : BIVO_Sm4EncryptWithAutoPadding(plain.data(), plain_len, key, again.data());
    fuzz::Check(erv == 0 && std::memcmp(again.data(), cipher, len) == 0);
  }
  uint32_t n = 0;
  RemovePadding(cipher, len, nullptr, &n);
  CheckPaddingValidity(cipher, len);

  // The tail as an identity, the head as a public key.
  const std::string id(reinterpret_cast<const char *>(cipher), len);
  uint8_t pub[65];
  std::memcpy(pub, data, 33);
  std::memcpy(pub + 33, data, 32);
  uint8_t z1[32], z2[32];
  const uint32_t s1 = ComputeUserIdSm3Digest(id.c_str(), pub, 65, z1);
  fuzz::Check(s1 == ComputeUserIdSm3Digest_EVP(id.c_str(), pub, 65, z2) && (s1 != 0 || std::memcmp(z1, z2, 32) == 0));
  return 0;
}
