// Splitting "http[s]://host[:port]" into host, port and the https flag.
#include <cstring>
#include <string_view>

#include "foundation/owned.hpp"
#include "zeph_c_utils.h"

namespace {

char *NewText(std::string_view s) {
  auto *p = static_cast<char *>(std::malloc(s.size() + 1));
  if (p == nullptr) return nullptr;
  std::memcpy(p, s.data(), s.size());
  p[s.size()] = '\0';
  return p;
}

struct UrlParts {
  std::string_view host;
  std::string_view port;
  int is_https = 0;
};

// Compat: no path is split off. With an explicit port the port text runs to
// the end of the URL, without one the host does; callers pass
// scheme://host[:port].
bool SplitUrl(std::string_view url, UrlParts *parts) {
  const size_t colon = url.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string_view scheme = url.substr(0, colon);
  if (scheme == "http") {
    parts->port = "80";
    parts->is_https = 0;
  } else if (scheme == "https") {
    parts->port = "443";
    parts->is_https = 1;
  } else {
    return false;
  }
  std::string_view rest = url.substr(colon + 1);
  if (rest.substr(0, 2) != "//") return false;
  rest.remove_prefix(2);

  if (!rest.empty() && rest.front() == '[') {
    const size_t close = rest.find(']');
    if (close == std::string_view::npos) return false;
    parts->host = rest.substr(1, close - 1);
    rest.remove_prefix(close + 1);
    if (const size_t p = rest.find(':'); p != std::string_view::npos) parts->port = rest.substr(p + 1);
  } else if (const size_t p = rest.find(':'); p != std::string_view::npos) {
    parts->host = rest.substr(0, p);
    parts->port = rest.substr(p + 1);
  } else {
    parts->host = rest;
  }
  return !parts->host.empty();
}

}  // namespace

extern "C" {

ZEPH_API int zeph_parse_url(const char *url, char **out_host, char **out_port, int *out_is_https) {
  if (out_host != nullptr) *out_host = nullptr;
  if (out_port != nullptr) *out_port = nullptr;
  if (url == nullptr || out_host == nullptr || out_port == nullptr) return 0;
  UrlParts parts;
  if (!SplitUrl(url, &parts)) return 0;
  zeph::MallocPtr<char> host(NewText(parts.host));
  zeph::MallocPtr<char> port(NewText(parts.port));
  if (!host || !port) return 0;
  *out_host = host.release();
  *out_port = port.release();
  if (out_is_https != nullptr) *out_is_https = parts.is_https;
  return 1;
}

}  // extern "C"
