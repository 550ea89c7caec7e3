// zeph_parse_url on arbitrary text.
#include <cstdlib>
#include <cstring>
#include <string>

#include "zeph_c_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string url(reinterpret_cast<const char *>(data), size);
  char *host = nullptr;
  char *port = nullptr;
  int https = -1;
  const int ok = zeph_parse_url(url.c_str(), &host, &port, &https);
  if (ok == 1) {
    if (host == nullptr || port == nullptr || host[0] == '\0') std::abort();
    if (https != (std::strncmp(url.c_str(), "https:", 6) == 0 ? 1 : 0)) std::abort();
    if (std::strlen(host) + std::strlen(port) > url.size()) std::abort();
  } else if (ok != 0 || host != nullptr || port != nullptr) {
    std::abort();
  }
  std::free(host);
  std::free(port);
  return 0;
}
