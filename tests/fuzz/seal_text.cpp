// The key's text form of seal information from arbitrary text: never read
// past the terminator; a result opens as the "info" object and is at most
// 100 bytes longer than the text.

#include "check.hpp"
#include "zeph_c_seal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text = fuzz::Text(data, size);
  char *json = nullptr;
  if (parseVorliSealInfo(text.c_str(), static_cast<uint32_t>(size), &json) == 0) {
    fuzz::Check(json != nullptr && std::strncmp(json, "{\"info\":\"", 9) == 0 &&
                std::strlen(json) <= std::strlen(text.c_str()) + 100);
  }
  std::free(json);
  return 0;
}
