// PKCS#5 block padding over 16-byte blocks, trailing or in front of the data.
#include <cstring>

#include "foundation/helpers.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

constexpr size_t kBlock = 16;

size_t PaddedLength(size_t n) { return (n + kBlock) & ~(kBlock - 1); }

}  // namespace

namespace zeph {

int P5Pad(const unsigned char *data, size_t length, unsigned char *out, size_t out_size, int front) {
  if (out == nullptr || out_size <= length || (length != 0 && data == nullptr)) return -1;
  const size_t count = out_size - length;
  if (count > 0xFF) return -1;
  const auto value = static_cast<unsigned char>(count);
  if (front != 0) {
    if (length != 0) std::memmove(out + count, data, length);
    std::memset(out, value, count);
  } else {
    if (length != 0 && out != data) std::memmove(out, data, length);
    std::memset(out + length, value, count);
  }
  return 0;
}

uint32_t P5PaddingCheck(const unsigned char *data, size_t length, int front) {
  if (data == nullptr || length == 0) return ERR_PADDING_INVALID;
  const unsigned char value = front != 0 ? data[0] : data[length - 1];
  // Compat: a pad value of 0 passes and removes nothing; decryption has always
  // accepted such a last block.
  if (value > kBlock || value > length) return ERR_PADDING_INVALID;
  const unsigned char *pad = front != 0 ? data : data + length - value;
  for (size_t i = 0; i < value; ++i) {
    if (pad[i] != value) return ERR_PADDING_INVALID;
  }
  return 0;
}

uint32_t P5Unpad(const unsigned char *data, size_t length, unsigned char *out, size_t *out_len, int front) {
  if (out == nullptr || out_len == nullptr) return ERR_PADDING_INVALID;
  ZEPH_TRY(P5PaddingCheck(data, length, front));
  const size_t value = front != 0 ? data[0] : data[length - 1];
  const size_t kept = length - value;
  const unsigned char *from = front != 0 ? data + value : data;
  if (kept != 0 && out != from) std::memmove(out, from, kept);
  *out_len = kept;
  return 0;
}

}  // namespace zeph

extern "C" {

ZEPH_API uint32_t zeph_c_utils_add_P5_padding(const unsigned char *data, uint32_t length, unsigned char **out_buffer,
                                              uint32_t *out_len) {
  if (out_buffer == nullptr || out_len == nullptr || (data == nullptr && length != 0)) {
    return ERR_INVALID_PARAMETER;
  }
  *out_buffer = nullptr;
  const size_t padded = PaddedLength(length);
  if (padded > UINT32_MAX) return ERR_INVALID_PARAMETER;
  auto *buf = static_cast<unsigned char *>(std::malloc(padded));
  // Compat: a failed allocation reports the padding status.
  if (buf == nullptr) return ERR_PADDING_INVALID;
  zeph::P5Pad(data, length, buf, padded, 0);
  *out_buffer = buf;
  *out_len = static_cast<uint32_t>(padded);
  return 0;
}

ZEPH_API uint32_t zeph_c_utils_del_P5_padding(const unsigned char *data, uint32_t length, unsigned char **out_buffer,
                                              uint32_t *out_len) {
  if (out_buffer == nullptr || out_len == nullptr || data == nullptr || length == 0) {
    return ERR_INVALID_PARAMETER;
  }
  *out_buffer = nullptr;
  ZEPH_TRY(zeph::P5PaddingCheck(data, length, 0));
  const size_t kept = length - data[length - 1];
  // At least one byte so that an all-padding input still hands out a buffer to free.
  auto *buf = static_cast<unsigned char *>(std::malloc(kept != 0 ? kept : 1));
  if (buf == nullptr) return ERR_OUT_OF_MEMORY;
  if (kept != 0) std::memcpy(buf, data, kept);
  *out_buffer = buf;
  *out_len = static_cast<uint32_t>(kept);
  return 0;
}

ZEPH_API uint32_t zeph_c_utils_getPlaintextLengthFromPadding(const unsigned char *data, uint32_t length) {
  if (data == nullptr || length == 0) return 0;
  const uint32_t value = data[length - 1];
  return value < length ? length - value : 0;
}

}  // extern "C"
