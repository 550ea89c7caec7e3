// PKCS#5 padding check and removal on arbitrary bytes, both forms, and the
// decryption path that strips padding.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/helpers.hpp"
#include "zeph_c_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // An exactly sized copy, so reads past the end are caught.
  auto *in = static_cast<unsigned char *>(std::malloc(size != 0 ? size : 1));
  if (size != 0) std::memcpy(in, data, size);

  for (int front = 0; front <= 1; ++front) {
    const uint32_t check = zeph::P5PaddingCheck(in, size, front);
    std::vector<unsigned char> out(size + 1);
    size_t kept = 0;
    const uint32_t unpad = zeph::P5Unpad(in, size, out.data(), &kept, front);
    if (check != unpad) std::abort();
    if (check == 0 && kept != size - (front ? in[0] : in[size - 1])) std::abort();

    // Padding whatever data to the next block boundary comes back off.
    const size_t padded_len = (size + 16) & ~size_t{15};
    std::vector<unsigned char> padded(padded_len);
    if (zeph::P5Pad(in, size, padded.data(), padded_len, front) != 0) std::abort();
    std::vector<unsigned char> back(padded_len);
    if (zeph::P5Unpad(padded.data(), padded_len, back.data(), &kept, front) != 0 || kept != size) std::abort();
    if (size != 0 && std::memcmp(back.data(), in, size) != 0) std::abort();
  }

  unsigned char *plain = nullptr;
  uint32_t plain_len = 0;
  const uint32_t del = zeph_c_utils_del_P5_padding(in, static_cast<uint32_t>(size), &plain, &plain_len);
  if (del == 0 && plain_len != zeph_c_utils_getPlaintextLengthFromPadding(in, static_cast<uint32_t>(size))) {
    std::abort();
  }
  std::free(plain);

  if (size != 0 && size % 16 == 0 && size <= 4096) {
    static const unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    uint32_t len = 0;
    const uint32_t q = zeph_c_utils_decrypt(0, in, static_cast<uint32_t>(size), key, 16, nullptr, &len);
    if (q == 0) {
      std::vector<unsigned char> out(len != 0 ? len : 1);
      uint32_t cap = len;
      if (zeph_c_utils_decrypt(0, in, static_cast<uint32_t>(size), key, 16, out.data(), &cap) != 0 || cap != len) {
        std::abort();
      }
    }
  }
  std::free(in);
  return 0;
}
