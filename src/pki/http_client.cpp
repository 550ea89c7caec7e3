// The reassembling HTTP client: the library's own services and the bounded
// ZEPH_C_HttpPostEx, plus the process-wide deadline and trust settings.
#include "pki/http_client.hpp"

#include <algorithm>
#include <cstring>

#include <openssl/err.h>
#include <openssl/http.h>

#include "foundation/log.hpp"
#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "pki/http_reply.hpp"
#include "pki/transport.hpp"
#include "zeph_c_pki.h"

namespace zeph::http {

namespace {

constexpr size_t kReadPiece = 16 * 1024;

void OpenSslFree(char *p) { OPENSSL_free(p); }
using OsslText = std::unique_ptr<char, Free<OpenSslFree>>;

std::string HostLine(const Target &t) {
  const bool v6 = t.host.find(':') != std::string::npos;
  return (v6 ? "[" + t.host + "]" : t.host) + ":" + std::to_string(t.port);
}

std::string RequestHead(const Target &t, const Request &r) {
  std::string head(r.method);
  head.append(" ").append(t.path).append(" HTTP/1.0\r\nHost: ").append(HostLine(t));
  head.append("\r\nUser-Agent: zeph\r\nAccept: */*\r\nConnection: close\r\n");
  if (!r.content_type.empty()) head.append("Content-Type: ").append(r.content_type).append("\r\n");
  head.append(r.extra_headers);
  if (r.method == "POST" || !r.body.empty()) {
    head.append("Content-Length: ").append(std::to_string(r.body.size())).append("\r\n");
  }
  return head.append("\r\n");
}

uint32_t Failed(const Target &t, const std::string &why, uint32_t status = ERR_HTTP_FAILED) {
  const std::string text = "http " + HostLine(t) + t.path + ": " + why;
  ZEPH_LOG(text.c_str(), status);
  ERR_clear_error();
  return status;
}

uint32_t WriteAll(Stream &stream, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const IoResult r = stream.Write(bytes);
    if (r.io != Io::kOk) return ERR_HTTP_FAILED;
    bytes = bytes.subspan(r.n);
  }
  return 0;
}

}  // namespace

uint32_t ParseUrl(const char *url, Target *out) {
  if (url == nullptr || out == nullptr) return ERR_INVALID_PARAMETER;
  char *host = nullptr;
  char *port = nullptr;
  char *path = nullptr;
  int port_num = 0;
  int tls = 0;
  const int ok = OSSL_HTTP_parse_url(url, &tls, nullptr, &host, &port, &port_num, &path, nullptr, nullptr);
  const OsslText host_owner(host), port_owner(port), path_owner(path);
  if (ok != 1) {
    ERR_clear_error();
    return ERR_INVALID_PARAMETER;
  }
  std::string h = host;
  if (h.size() >= 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
  if (h.empty()) return ERR_INVALID_PARAMETER;
  out->host = std::move(h);
  out->port = port_num;
  out->path = path;
  out->tls = tls != 0;
  return 0;
}

uint32_t Exchange(const Target &target, const Request &request, size_t max_body, Reply *reply) {
  *reply = Reply{};
  const Deadline deadline = Deadline::Start();
  std::string why;
  const std::unique_ptr<Stream> stream = Connect(target.host, target.port, target.tls, deadline, &why);
  if (!stream) return Failed(target, why);

  const std::string head = RequestHead(target, request);
  if (WriteAll(*stream, {reinterpret_cast<const uint8_t *>(head.data()), head.size()}) != 0 ||
      WriteAll(*stream, request.body) != 0) {
    return Failed(target, stream->why());
  }
  reply->sent = true;

  ReplyParser parser(max_body);
  std::vector<uint8_t> piece(kReadPiece);
  ReplyParser::State state = parser.state();
  while (state == ReplyParser::State::kHeader || state == ReplyParser::State::kBody) {
    const IoResult r = stream->Read(piece);
    if (r.io == Io::kOk) {
      state = parser.Feed({piece.data(), r.n});
    } else if (r.io == Io::kClosed) {
      state = parser.Close();
    } else {
      return Failed(target, stream->why());
    }
  }
  reply->status = parser.status();
  if (state == ReplyParser::State::kTooLarge) {
    reply->needed = parser.needed();
    return Failed(target,
                  "reply body of " + std::to_string(reply->needed) + " bytes exceeds " + std::to_string(max_body),
                  ERR_BUFFER_TOO_SMALL);
  }
  if (state == ReplyParser::State::kFailed) return Failed(target, parser.why());
  reply->body = parser.body();
  reply->complete = true;
  if (reply->status < 200 || reply->status > 299) {
    return Failed(target, "HTTP status " + std::to_string(reply->status));
  }
  return 0;
}

}  // namespace zeph::http

extern "C" {

ZEPH_API uint32_t ZEPH_C_HttpSetTimeouts(uint32_t connect_ms, uint32_t total_ms) {
  zeph::http::SetTimeouts(connect_ms, total_ms);
  return 0;
}

ZEPH_API uint32_t ZEPH_C_HttpsSetCAFile(const char *pem_path) {
  return zeph::Guarded([&] { return zeph::http::SetTrustFile(pem_path); });
}

ZEPH_API uint32_t ZEPH_C_HttpPostEx(const char *url, const char *content_type, const unsigned char *body,
                                    uint32_t body_len, unsigned char *out, uint32_t *in_out_len, int *out_http_status) {
  if (out_http_status != nullptr) *out_http_status = 0;
  if (url == nullptr || in_out_len == nullptr || (body == nullptr && body_len != 0) ||
      (out == nullptr && *in_out_len != 0)) {
    return ERR_INVALID_PARAMETER;
  }
  return zeph::Guarded([&]() -> uint32_t {
    zeph::http::Target target;
    ZEPH_TRY(zeph::http::ParseUrl(url, &target));
    zeph::http::Request request;
    request.content_type = content_type != nullptr ? content_type : "application/json";
    request.body = {body, body_len};
    zeph::http::Reply reply;
    const uint32_t rv = zeph::http::Exchange(target, request, *in_out_len, &reply);
    if (out_http_status != nullptr) *out_http_status = reply.status;
    if (rv == ERR_BUFFER_TOO_SMALL) {
      *in_out_len = static_cast<uint32_t>(std::min<size_t>(reply.needed, UINT32_MAX));
      return rv;
    }
    if (rv != 0 && !reply.complete) {
      *in_out_len = 0;
      return rv;
    }
    // A non-2xx reply still hands over its body (services explain there).
    if (!reply.body.empty()) std::memcpy(out, reply.body.data(), reply.body.size());
    *in_out_len = static_cast<uint32_t>(reply.body.size());
    return rv;
  });
}

}  // extern "C"
