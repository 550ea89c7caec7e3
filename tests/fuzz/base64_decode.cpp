// Both base64 decoders on arbitrary text: zeph::Base64Decode (with
// zeph_c_utils_b64tohex2 over it) and the block decoder File_PEMDecode; and
// every encoder path this CPU runs on the same bytes, against OpenSSL's.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "foundation/helpers.hpp"
#include "zeph_c_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);  // terminated copy

  // Exactly sized (text and terminator): a write past them is caught.
  std::vector<unsigned char> want(zeph::Base64Length(size) + 1);
  const int want_len = EVP_EncodeBlock(want.data(), data, static_cast<int>(size));
  for (const zeph::Base64Encoder *encoder : zeph::Base64EncodersOnThisCpu()) {
    std::vector<char> got(want.size());
    if (encoder->encode(data, size, got.data()) != static_cast<size_t>(want_len) ||
        std::memcmp(got.data(), want.data(), want.size()) != 0) {
      std::abort();
    }
  }

  unsigned char *decoded = nullptr;
  const int n = zeph::Base64Decode(text.c_str(), &decoded);
  if (n < -1 || (n <= 0 && decoded != nullptr) || (n > 0 && decoded == nullptr)) std::abort();

  uint32_t len = 0;
  const uint32_t rv = zeph_c_utils_b64tohex2(text.c_str(), nullptr, &len);
  if ((rv == 0) != (n > 0) || (rv == 0 && len != static_cast<uint32_t>(n))) std::abort();
  if (n > 0) {
    // Exactly sized, so a write past the reported length is caught.
    auto *out = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(n)));
    if (zeph_c_utils_b64tohex2(text.c_str(), out, &len) != 0 || std::memcmp(out, decoded, len) != 0) std::abort();
    if (n > 1) {
      len = static_cast<uint32_t>(n - 1);
      if (zeph_c_utils_b64tohex2(text.c_str(), out, &len) != ERR_BUFFER_TOO_SMALL) std::abort();
    }
    std::free(out);

    // What decodes, encodes back to text that decodes to the same bytes.
    char *again = nullptr;
    if (zeph_c_utils_hex2b64(decoded, static_cast<uint32_t>(n), &again) != 0) std::abort();
    unsigned char *twice = nullptr;
    if (zeph::Base64Decode(again, &twice) != n || std::memcmp(twice, decoded, static_cast<size_t>(n)) != 0) {
      std::abort();
    }
    std::free(again);
    std::free(twice);
  }
  std::free(decoded);

  // The block decoder reads exactly `size` bytes: no terminator to lean on.
  auto *raw = static_cast<char *>(std::malloc(size != 0 ? size : 1));
  if (size != 0) std::memcpy(raw, data, size);
  uint32_t pem_len = 0;
  const uint32_t pem = File_PEMDecode(raw, static_cast<uint32_t>(size), nullptr, &pem_len);
  if (pem == 0) {
    std::vector<unsigned char> out(pem_len);
    if (File_PEMDecode(raw, static_cast<uint32_t>(size), out.data(), &pem_len) != 0) std::abort();
  }
  std::free(raw);
  return 0;
}
