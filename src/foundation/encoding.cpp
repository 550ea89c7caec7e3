// Base64 and hex text conversions, buffer joining and the GBK placeholders.
#include <climits>
#include <cstring>
#include <vector>

#include "foundation/helpers.hpp"
#include "foundation/output.hpp"
#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_utils.h"

namespace {

// Compat: the encoders' own failure is 0xFFFFFFFF, not a library status.
constexpr uint32_t kFailed = 0xFFFFFFFFu;

// The characters OpenSSL's block decoder drops from the end of a text.
bool DecoderIgnoresAtEnd(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '-'; }

}  // namespace

namespace zeph {

int Base64Decode(const char *text, unsigned char **out_buffer) {
  if (out_buffer == nullptr) return -1;
  *out_buffer = nullptr;
  if (text == nullptr) return -1;
  size_t len = std::strlen(text);
  // Count the '=' at the real end of the text, not behind a line break.
  while (len != 0 && DecoderIgnoresAtEnd(text[len - 1])) --len;
  if (len == 0) return 0;
  if (len > INT_MAX) return -1;
  size_t pads = 0;
  while (pads < len && text[len - 1 - pads] == '=') ++pads;
  if (pads >= 3) return -1;
  const size_t capacity = len / 4 * 3;
  if (capacity == 0) return -1;
  auto *buf = static_cast<unsigned char *>(std::malloc(capacity));
  if (buf == nullptr) return -1;
  const int decoded = EVP_DecodeBlock(buf, reinterpret_cast<const unsigned char *>(text), static_cast<int>(len));
  if (decoded < static_cast<int>(pads) + 1) {
    std::free(buf);
    return -1;
  }
  *out_buffer = buf;
  return decoded - static_cast<int>(pads);
}

}  // namespace zeph

extern "C" {

ZEPH_API uint32_t File_PEMEncode(const unsigned char *data, uint32_t length, char *out, uint32_t *in_out_len) {
  if (data == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  if (length == 0) return kFailed;
  const size_t text_len = zeph::Base64Length(length);
  if (text_len >= UINT32_MAX) return kFailed;
  // Encoded straight into the caller's buffer once it is known to fit.
  if (auto done = zeph::ReserveOutput(text_len + 1, out, in_out_len)) return *done;
  zeph::Base64Encode({data, length}, out);
  *in_out_len = static_cast<uint32_t>(text_len);
  return 0;
}

ZEPH_API uint32_t File_PEMDecode(const char *text, uint32_t length, unsigned char *out, uint32_t *in_out_len) {
  if (text == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  if (length == 0 || length > INT_MAX) return kFailed;
  return zeph::Guarded([&]() -> uint32_t {
    // The block decoder keeps the zero bytes that "=" padding stands for.
    std::vector<unsigned char> scratch(length / 4 * 3 + 3);
    const int n =
        EVP_DecodeBlock(scratch.data(), reinterpret_cast<const unsigned char *>(text), static_cast<int>(length));
    if (n <= 0) return kFailed;
    const uint32_t rv = zeph::PutOutput({scratch.data(), static_cast<size_t>(n)}, out, in_out_len);
    OPENSSL_cleanse(scratch.data(), scratch.size());
    return rv;
  });
}

ZEPH_API uint32_t zeph_c_utils_b64tohex(const char *text, unsigned char **out_buffer, uint32_t *out_len) {
  if (text == nullptr || out_buffer == nullptr || out_len == nullptr) return ERR_INVALID_PARAMETER;
  unsigned char *buf = nullptr;
  const int n = zeph::Base64Decode(text, &buf);
  *out_buffer = nullptr;
  if (n <= 0) {
    std::free(buf);
    return kFailed;
  }
  *out_buffer = buf;
  *out_len = static_cast<uint32_t>(n);
  return 0;
}

ZEPH_API uint32_t zeph_c_utils_b64tohex2(const char *text, unsigned char *out, uint32_t *in_out_len) {
  if (text == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  unsigned char *raw = nullptr;
  const int n = zeph::Base64Decode(text, &raw);
  const zeph::MallocPtr<unsigned char> buf(raw);
  if (n <= 0) return ERR_BASE64_INVALID;
  const uint32_t rv = zeph::PutOutput({buf.get(), static_cast<size_t>(n)}, out, in_out_len);
  OPENSSL_cleanse(buf.get(), static_cast<size_t>(n));
  return rv;
}

ZEPH_API uint32_t zeph_c_utils_hex2b64(const unsigned char *data, uint32_t length, char **out_text) {
  if (out_text == nullptr) return ERR_INVALID_PARAMETER;
  *out_text = nullptr;
  if (data == nullptr) return ERR_INVALID_PARAMETER;
  if (length == 0) return kFailed;
  // Sized for the base64 text itself: 2 * length + 1 would be short for one byte.
  auto *text = static_cast<char *>(std::malloc(zeph::Base64Length(length) + 1));
  if (text == nullptr) return kFailed;
  zeph::Base64Encode({data, length}, text);
  *out_text = text;
  return 0;
}

ZEPH_API uint32_t zeph_c_utils_hex2ascii(const unsigned char *data, uint32_t length, char *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr || (data == nullptr && length != 0)) return ERR_INVALID_PARAMETER;
  const size_t need = size_t{length} * 2;
  if (auto done = zeph::ReserveOutput(need, out, in_out_len)) return *done;
  static constexpr char kDigits[] = "0123456789ABCDEF";
  for (uint32_t i = 0; i < length; ++i) {
    out[2 * i] = kDigits[data[i] >> 4];
    out[2 * i + 1] = kDigits[data[i] & 0x0F];
  }
  *in_out_len = static_cast<uint32_t>(need);
  return 0;
}

// Kept for callers of the older interface; converts nothing.
ZEPH_API uint32_t zeph_c_utils_ascii2hex(const char *text, uint32_t length, unsigned char *out, uint32_t *in_out_len) {
  return 0;
}

// GBK to UTF-8 is not provided: both entries succeed without output.
ZEPH_API uint32_t zeph_c_gbk2utf8(char *out, const char *text, uint32_t length) { return 0; }

ZEPH_API uint32_t zeph_gbk2utf8_malloc(const char *text, uint32_t length, char **out_text) {
  if (out_text != nullptr) *out_text = nullptr;
  return 0;
}

ZEPH_API uint32_t zeph_c_utils_mergeBuffer(const unsigned char *first, uint32_t first_length,
                                           const unsigned char *second, uint32_t second_length,
                                           unsigned char **out_buffer, uint32_t *out_len) {
  if (out_buffer == nullptr || out_len == nullptr || (first == nullptr && first_length != 0) ||
      (second == nullptr && second_length != 0)) {
    return ERR_INVALID_PARAMETER;
  }
  *out_buffer = nullptr;
  const size_t total = size_t{first_length} + second_length;
  if (total > UINT32_MAX) return ERR_INVALID_PARAMETER;
  auto *buf = static_cast<unsigned char *>(std::malloc(total != 0 ? total : 1));
  if (buf == nullptr) return kFailed;
  if (first_length != 0) std::memcpy(buf, first, first_length);
  if (second_length != 0) std::memcpy(buf + first_length, second, second_length);
  *out_buffer = buf;
  *out_len = static_cast<uint32_t>(total);
  return 0;
}

}  // extern "C"
