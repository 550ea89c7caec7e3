// Files on disk and base64 wrappers of the API, and the release of buffers
// the library hands out.
#include <cstdlib>
#include <cstring>

#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_api.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

extern "C" {

ZEPH_API uint32_t ZEPH_C_WriteFile(const char *path, const unsigned char *data, uint32_t length) {
  if (path == nullptr || (data == nullptr && length != 0)) return ERR_INVALID_PARAMETER;
  return zeph_c_utils_writeFile(path, data, length);
}

ZEPH_API uint32_t ZEPH_C_ReadFile(const char *path, unsigned char *out, uint32_t *in_out_len) {
  if (path == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  // The file reader sizes by the output protocol itself.
  return zeph_c_utils_readFile(path, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_Dob64tohex(const char *base64_text, unsigned char **out_buffer, uint32_t *out_len) {
  if (base64_text == nullptr || out_buffer == nullptr || out_len == nullptr) return ERR_INVALID_PARAMETER;
  uint32_t size = 0;
  (void)zeph_c_utils_b64tohex2(base64_text, nullptr, &size);
  // Compat: a text that decodes to nothing (or not at all) succeeds with
  // nothing allocated and the outputs untouched.
  if (size == 0) return 0;
  auto *buffer = static_cast<unsigned char *>(std::calloc(size, 1));
  if (buffer == nullptr) return ERR_OUT_OF_MEMORY;
  uint32_t len = size;
  const uint32_t rv = zeph_c_utils_b64tohex2(base64_text, buffer, &len);
  if (rv != 0) {
    std::free(buffer);
    return rv;
  }
  *out_buffer = buffer;
  *out_len = len;
  return 0;
}

ZEPH_API uint32_t ZEPH_C_Dohex2b64(const unsigned char *data, uint32_t length, char **out_text) {
  if (data == nullptr || out_text == nullptr) return ERR_INVALID_PARAMETER;
  char *text = nullptr;
  if (zeph_c_utils_hex2b64(data, length, &text) != 0 || text == nullptr) return ERR_ENCODE_FAILED;
  *out_text = text;
  return 0;
}

ZEPH_API uint32_t ZEPH_C_b64tohex(const char *base64_text, unsigned char *out, uint32_t *in_out_len) {
  if (base64_text == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph_c_utils_b64tohex2(base64_text, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_hex2b64(const unsigned char *data, uint32_t length, char *out) {
  if (data == nullptr || out == nullptr) return ERR_INVALID_PARAMETER;
  char *text = nullptr;
  if (zeph_c_utils_hex2b64(data, length, &text) != 0 || text == nullptr) return ERR_ENCODE_FAILED;
  zeph::MallocPtr<char> owned(text);
  // Compat: no terminator and no length; the caller zero-filled a buffer of
  // the base64 length.
  std::memcpy(out, text, std::strlen(text));
  return 0;
}

ZEPH_API uint32_t ZEPH_C_MALLOC_FREE(void *pointer) {
  std::free(pointer);
  return 0;
}

}  // extern "C"
