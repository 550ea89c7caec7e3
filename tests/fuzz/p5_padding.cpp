// PKCS#5 padding check and removal on arbitrary bytes, both forms, and the
// decryption path that strips padding.

#include "check.hpp"
#include "foundation/helpers.hpp"
#include "zeph_c_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::unique_ptr<uint8_t[]> copy = fuzz::Exact(data, size);
  const unsigned char *in = copy.get();
  const auto len = static_cast<uint32_t>(size);

  for (int front = 0; front <= 1; ++front) {
    const uint32_t check = zeph::P5PaddingCheck(in, size, front);
    std::vector<unsigned char> out(size + 1);
    size_t kept = 0;
    fuzz::Check(zeph::P5Unpad(in, size, out.data(), &kept, front) == check);
    fuzz::Check(check != 0 || kept == size - (front ? in[0] : in[size - 1]));

    // Padding whatever data to the next block boundary comes back off.
    const size_t padded_len = (size + 16) & ~size_t{15};
    std::vector<unsigned char> padded(padded_len), back(padded_len);
    fuzz::Check(zeph::P5Pad(in, size, padded.data(), padded_len, front) == 0);
    fuzz::Check(zeph::P5Unpad(padded.data(), padded_len, back.data(), &kept, front) == 0 && kept == size);
    fuzz::Check(size == 0 || std::memcmp(back.data(), in, size) == 0);
  }

  unsigned char *plain = nullptr;
  uint32_t plain_len = 0;
  if (zeph_c_utils_del_P5_padding(in, len, &plain, &plain_len) == 0) {
    fuzz::Check(plain_len == zeph_c_utils_getPlaintextLengthFromPadding(in, len));
  }
  std::free(plain);

  if (size != 0 && size % 16 == 0 && size <= 4096) {
    static const unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    uint32_t need = 0;
    if (zeph_c_utils_decrypt(0, in, len, key, 16, nullptr, &need) == 0) {
      std::vector<unsigned char> out(std::max(need, 1u));
      uint32_t got = need;
      fuzz::Check(zeph_c_utils_decrypt(0, in, len, key, 16, out.data(), &got) == 0 && got == need);
    }
  }
  return 0;
}
