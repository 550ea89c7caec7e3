// The library's HTTP client for its own services (time stamps, co-signing,
// certificate status): one request, one reassembled and bounded reply,
// within the process-wide deadlines and TLS trust.
//
//   zeph::http::Target target;
//   ZEPH_TRY(zeph::http::ParseUrl(url, &target));
//   zeph::http::Reply reply;
//   ZEPH_TRY(zeph::http::Exchange(target, {.content_type = "application/ocsp-request", .body = der}, 1 << 20,
//                                 &reply));
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zeph::http {

struct Target {
  std::string host;  // without brackets for an IPv6 literal
  int port = 0;
  std::string path;  // with the query, "/" at least
  bool tls = false;
};

// "http[s]://host[:port][/path]" as OpenSSL's URL parser reads it (default
// ports 80 and 443). 0, or ERR_INVALID_PARAMETER.
uint32_t ParseUrl(const char *url, Target *out);

struct Request {
  std::string_view method = "POST";
  std::string_view content_type;   // no Content-Type line when empty
  std::span<const uint8_t> body;   // Content-Length is sent for POST and for any body
  std::string_view extra_headers;  // complete lines, each ending "\r\n"
};

struct Reply {
  int status = 0;     // HTTP status code; 0 when no reply was parsed
  bool sent = false;  // the whole request went out (a failure came after)
  std::vector<uint8_t> body;
  bool complete = false;  // the whole reply arrived (body included)
  size_t needed = 0;      // with ERR_BUFFER_TOO_SMALL: the body length announced or seen
};

// Sends an HTTP/1.0 request and reads the reply until its Content-Length
// (or the close) within the deadlines.
//   0                     a 2xx reply, body in reply->body
//   ERR_HTTP_FAILED       connection, TLS (trust included), deadline,
//                         malformed or truncated reply, header above 16 KiB,
//                         or a non-2xx status (reply->body holds its body)
//   ERR_BUFFER_TOO_SMALL  the body exceeds max_body (reply->needed)
// Failures are logged with their reason.
uint32_t Exchange(const Target &target, const Request &request, size_t max_body, Reply *reply);

}  // namespace zeph::http
