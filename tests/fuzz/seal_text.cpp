// The key's text form of seal information from arbitrary text: never read
// past the terminator; a result is a JSON object with the three members.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zeph_c_seal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  char *json = nullptr;
  if (parseVorliSealInfo(text.c_str(), static_cast<uint32_t>(size), &json) == 0) {
    if (json == nullptr || std::strncmp(json, "{\"info\":\"", 9) != 0) std::abort();
    if (std::strlen(json) > std::strlen(text.c_str()) + 100) std::abort();
  }
  std::free(json);
  return 0;
}
