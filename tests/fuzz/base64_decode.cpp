// Both base64 decoders on arbitrary text: zeph::Base64Decode (with
// zeph_c_utils_b64tohex2 over it) and the block decoder File_PEMDecode; and
// every encoder path this CPU runs on the same bytes, against OpenSSL's.
#include <openssl/evp.h>

#include "check.hpp"
#include "foundation/helpers.hpp"
#include "zeph_c_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text = fuzz::Text(data, size);

  // Exactly sized (text and terminator): a write past them is caught.
  std::vector<unsigned char> want(zeph::Base64Length(size) + 1);
  const int want_len = EVP_EncodeBlock(want.data(), data, static_cast<int>(size));
  for (const zeph::Base64Encoder *encoder : zeph::Base64EncodersOnThisCpu()) {
    std::vector<char> got(want.size());
    fuzz::Check(encoder->encode(data, size, got.data()) == static_cast<size_t>(want_len) &&
                std::memcmp(got.data(), want.data(), want.size()) == 0);
  }

  unsigned char *decoded = nullptr;
  const int n = zeph::Base64Decode(text.c_str(), &decoded);
  fuzz::Check(n >= -1 && (n > 0) == (decoded != nullptr));

  uint32_t len = 0;
  const uint32_t rv = zeph_c_utils_b64tohex2(text.c_str(), nullptr, &len);
  fuzz::Check((rv == 0) == (n > 0) && (rv != 0 || len == static_cast<uint32_t>(n)));
  if (n > 0) {
    // Exactly sized, so a write past the reported length is caught.
    const std::unique_ptr<unsigned char[]> out(new unsigned char[n]);
    fuzz::Check(zeph_c_utils_b64tohex2(text.c_str(), out.get(), &len) == 0 &&
                std::memcmp(out.get(), decoded, len) == 0);
    len = static_cast<uint32_t>(n - 1);
    fuzz::Check(n == 1 || zeph_c_utils_b64tohex2(text.c_str(), out.get(), &len) == ERR_BUFFER_TOO_SMALL);

    // What decodes, encodes back to text that decodes to the same bytes.
    char *again = nullptr;
    fuzz::Check(zeph_c_utils_hex2b64(decoded, static_cast<uint32_t>(n), &again) == 0);
    unsigned char *twice = nullptr;
    fuzz::Check(zeph::Base64Decode(again, &twice) == n && std::memcmp(twice, decoded, static_cast<size_t>(n)) == 0);
    std::free(again);
    std::free(twice);
  }
  std::free(decoded);

  // The block decoder reads exactly `size` bytes: no terminator to lean on.
  const auto raw = fuzz::Exact(data, size);
  const auto *pem = reinterpret_cast<const char *>(raw.get());
  uint32_t pem_len = 0;
  if (File_PEMDecode(pem, static_cast<uint32_t>(size), nullptr, &pem_len) == 0) {
    std::vector<unsigned char> out(pem_len);
    fuzz::Check(File_PEMDecode(pem, static_cast<uint32_t>(size), out.data(), &pem_len) == 0);
  }
  return 0;
}
