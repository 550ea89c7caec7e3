// Arbitrary ciphertexts through SDBI decryption (whole messages and single
// segments in any mode): statuses stay within the documented ones, a
// decrypted message is at most 8 bytes shorter and re-encrypts to the same
// length; the input as a message round-trips.

#include "check.hpp"
#include "zeph_c_sdbi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 17) return 0;
  const uint8_t *key = data;
  const int mode = static_cast<int8_t>(data[16]);
  const uint8_t *in = data + 17;
  const auto len = static_cast<uint32_t>(size - 17);

  std::vector<uint8_t> out(len + 8), again(len + 16);
  uint32_t n = 0, m = 0;
  const uint32_t rv = CSP_SDBIDecrypt(out.data(), &n, in, len, key, 16);
  fuzz::Check(fuzz::OneOf(rv, {0, SDBI_ERR_FAILED}));
  if (rv == 0) {
    fuzz::Check(n < len && n + 8 >= len && CSP_SDBIEncrypt(again.data(), &m, out.data(), n, key, 16) == 0 && m == len);
  }
  fuzz::Check(fuzz::OneOf(
      Dec_Message_SDBI(mode, in, len, out.data(), &n, key),
      {0, SDBI_ERR_FAILED, SDBI_ERR_SEGMENT_LENGTH, SDBI_ERR_LAST_TOO_LONG, SDBI_ERR_NO_PADDING, SDBI_ERR_MODE}));
  fuzz::Check(Crypt_Enc_Data_S(in, len, again.data(), &m, key) == 0 &&
              Crypt_Dec_Data_S(again.data(), m, out.data(), &n, key) == 0 && n == len &&
              std::memcmp(out.data(), in, len) == 0);
  return 0;
}
