// zeph_parse_url on arbitrary text: a URL that parses has a host and a port
// no longer than the text, and https exactly for "https:"; one that does
// not hands out nothing.

#include "check.hpp"
#include "zeph_c_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string url = fuzz::Text(data, size);
  char *host = nullptr, *port = nullptr;
  int https = -1;
  const int ok = zeph_parse_url(url.c_str(), &host, &port, &https);
  if (ok == 1) {
    fuzz::Check(host != nullptr && port != nullptr && host[0] != '\0' &&
                https == (std::strncmp(url.c_str(), "https:", 6) == 0 ? 1 : 0) &&
                std::strlen(host) + std::strlen(port) <= url.size());
  } else {
    fuzz::Check(ok == 0 && host == nullptr && port == nullptr);
  }
  std::free(host);
  std::free(port);
  return 0;
}
