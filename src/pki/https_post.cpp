// The one-shot senders: HTTP/1.0 POST of a text or a time-stamp query, and
// HTTPS POST of a text. Each connects, sends one request, reads until the
// server closes and hands back the body of the last read.
#include "pki/https_post.hpp"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <openssl/err.h>

#include "foundation/log.hpp"
#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "pki/http_reply.hpp"
#include "pki/transport.hpp"
#include "zeph_c_pki.h"

namespace {

using zeph::http::Deadline;
using zeph::http::Io;
using zeph::http::IoResult;
using zeph::http::LastRead;
using zeph::http::ReadUntilClose;
using zeph::http::Stream;

enum class Sender { kHttp, kTimestamp, kHttps };

constexpr uint32_t kStatusMinusOne = 0xFFFFFFFFu;
constexpr size_t kReplyMargin = 512;         // receive buffer beyond the capacity
constexpr uint64_t kReplySlack = 16 * 1024;  // bytes tolerated beyond the receive buffer
constexpr int kHttpsWriteAttempts = 100;

// The host may repoint a block while others post.
const char *HeaderBlock(const char *&slot) {
  const char *block = std::atomic_ref<const char *>(slot).load(std::memory_order_acquire);
  return block != nullptr ? block : "";
}

// Everything before the body.
std::string RequestHead(const char *host, int port, const char *path, const char *headers, uint32_t body_len) {
  std::string head = "POST ";
  head.append(path).append(" HTTP/1.0\r\nHost: ").append(host).append(":").append(std::to_string(port));
  head.append("\r\n").append(headers).append("Content-Length: ").append(std::to_string(body_len)).append("\r\n\r\n");
  return head;
}

// Room for any request: the fixed lines fit in 512 bytes.
size_t RequestRoom(const char *host, const char *path, const char *headers, uint32_t body_len) {
  return std::strlen(host) + std::strlen(path) + std::strlen(headers) + body_len + 512;
}

int Pack(const std::string &head, const char *body, size_t body_n, char *out, size_t out_size, bool terminate) {
  const size_t total = head.size() + body_n;
  if (out == nullptr || total > INT32_MAX || total + (terminate ? 1 : 0) > out_size) return -1;
  std::memcpy(out, head.data(), head.size());
  if (body_n != 0) std::memcpy(out + head.size(), body, body_n);
  if (terminate) out[total] = '\0';
  return static_cast<int>(total);
}

void Log(Sender which, const char *host, int port, const char *path, const std::string &why, uint32_t status) {
  static constexpr const char *kNames[] = {"http_post", "http_post_timestamp", "https_post"};
  const std::string text =
      std::string(kNames[static_cast<int>(which)]) + " " + host + ":" + std::to_string(port) + path + ": " + why;
  ZEPH_LOG(text.c_str(), status);
}

// The TLS sender reports any failure on standard error: OpenSSL's queue,
// or the system error when the queue is empty.
void ReportTlsFailure() {
  if (ERR_peek_error() != 0) {
    ERR_print_errors_fp(stderr);
    return;
  }
  const int err = errno;
  std::fprintf(stderr, "errno=%d ", err);
  std::fprintf(stderr, "error: %s\n", std::strerror(err));
}

void Nap() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

// The write loops. The text sender writes once; the time-stamp sender
// repeats a failed write until the deadline; the TLS sender gives up on a
// failed write after 100 attempts.
uint32_t SendRequest(Sender which, Stream &stream, std::span<const uint8_t> request, const Deadline &deadline) {
  int attempts = 0;
  while (!request.empty()) {
    const IoResult r = stream.Write(request);
    ++attempts;
    if (r.io == Io::kOk) {
      request = request.subspan(r.n);
      continue;
    }
    if (r.io == Io::kFailed && which == Sender::kTimestamp && deadline.TotalLeftMs() > 0) {
      // Compat: this sender never gave up on a failed write; the deadline
      // now ends the repetition.
      Nap();
      continue;
    }
    if (r.io == Io::kFailed && which == Sender::kHttps && attempts <= kHttpsWriteAttempts) continue;
    return ERR_HTTP_FAILED;
  }
  return 0;
}

// One request to host:port and everything the server sent back, read as
// the senders read: into `reply` (capacity + 512 bytes of zeros, and one
// more so that a full read still ends in a zero), the last read at its start.
struct Exchanged {
  zeph::MallocPtr<uint8_t> reply;
  size_t size = 0;
  LastRead last;
};

uint32_t SendAndReceive(Sender which, const char *host, int port, const char *path, const uint8_t *body,
                        uint32_t body_len, uint32_t capacity, Exchanged *got) {
  const bool text = which != Sender::kTimestamp;
  std::string request(
      RequestRoom(host, path, HeaderBlock(text ? HttpsPostHeaders : HttpsPostHeadersForTimeStamp), body_len), '\0');
  const int request_len =
      text ? post_pack(host, port, path, reinterpret_cast<const char *>(body), body_len, request.data(), request.size())
           : post_pack_timestamp(host, port, path, body, body_len, request.data(), request.size());
  if (request_len < 0) return kStatusMinusOne;

  const Deadline deadline = Deadline::Start();
  std::string why;
  const std::unique_ptr<Stream> stream = zeph::http::Connect(host, port, which == Sender::kHttps, deadline, &why);
  if (!stream) {
    Log(which, host, port, path, why, ERR_HTTP_FAILED);
    if (which != Sender::kHttps) std::fputs("Error connecting to server\n", stderr);
    return ERR_HTTP_FAILED;
  }
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t *>(request.data()),
                                       static_cast<size_t>(request_len));
  if (const uint32_t rv = SendRequest(which, *stream, bytes, deadline); rv != 0) {
    Log(which, host, port, path, stream->why(), rv);
    return rv;
  }

  got->size = static_cast<size_t>(capacity) + kReplyMargin;
  got->reply.reset(static_cast<uint8_t *>(std::calloc(got->size + 1, 1)));
  if (!got->reply) return ERR_OUT_OF_MEMORY;
  const uint64_t limit = got->size + kReplySlack;
  const uint32_t rv = ReadUntilClose(*stream, {got->reply.get(), got->size}, limit, &got->last);
  if (rv == 0) return 0;
  const std::string reason =
      got->last.total > limit ? "reply longer than " + std::to_string(limit) + " bytes" : stream->why();
  // Compat: a failed read ends the plain senders with the read's own
  // result, -1.
  const uint32_t status = got->last.failed && which != Sender::kHttps ? kStatusMinusOne : rv;
  Log(which, host, port, path, reason, status);
  return status;
}

uint32_t Post(Sender which, const char *host, int port, const char *path, const uint8_t *body, uint32_t body_len,
              uint8_t *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  const uint32_t capacity = *in_out_len;
  if (capacity < 1) return kStatusMinusOne;
  if (host == nullptr || path == nullptr || out == nullptr || (body == nullptr && body_len != 0)) {
    return ERR_INVALID_PARAMETER;
  }
  const uint32_t rv = zeph::Guarded([&]() -> uint32_t {
    Exchanged got;
    ZEPH_TRY(SendAndReceive(which, host, port, path, body, body_len, capacity, &got));
    const uint8_t *reply = got.reply.get();
    if (which == Sender::kTimestamp) {
      if (got.last.total > 9 && reply[0] != 0) {
        const std::string note = "http_post_timestamp rev_len = " + std::to_string(got.last.total);
        ZEPH_LOG(note.c_str(), 0);
      }
      std::span<const uint8_t> reply_body;
      if (zeph::http::TimestampReplyBody({reply, got.size}, got.last.chunk, got.last.total, capacity, &reply_body)) {
        Log(which, host, port, path, "no usable reply (" + std::to_string(got.last.total) + " bytes)", ERR_HTTP_FAILED);
        return ERR_HTTP_FAILED;
      }
      std::memcpy(out, reply_body.data(), reply_body.size());
      *in_out_len = static_cast<uint32_t>(reply_body.size());
      return 0;
    }
    std::string_view text;
    if (zeph::http::TextReplyBody({reply, got.last.chunk}, &text) != 0) {
      Log(which, host, port, path, "not an HTTP reply", ERR_HTTP_FAILED);
      return ERR_HTTP_FAILED;
    }
    if (text.size() >= capacity) {
      Log(which, host, port, path, "reply body of " + std::to_string(text.size()) + " bytes exceeds the buffer",
          ERR_HTTP_FAILED);
      return ERR_HTTP_FAILED;
    }
    std::memcpy(out, text.data(), text.size());
    out[text.size()] = 0;
    *in_out_len = static_cast<uint32_t>(text.size());
    return 0;
  });
  if (rv != 0 && which == Sender::kHttps) ReportTlsFailure();
  return rv;
}

}  // namespace

namespace zeph::http {

uint32_t ReadUntilClose(Stream &stream, std::span<uint8_t> buffer, uint64_t limit, LastRead *last) {
  for (;;) {
    const IoResult r = stream.Read(buffer);
    switch (r.io) {
      case Io::kOk:
        if (r.n < last->chunk) std::memset(buffer.data() + r.n, 0, last->chunk - r.n);
        last->chunk = r.n;
        last->total += r.n;
        if (last->total > limit) return ERR_HTTP_FAILED;
        break;
      case Io::kClosed:
        return 0;
      case Io::kExpired:
        return ERR_HTTP_FAILED;
      case Io::kFailed:
        last->failed = true;
        return ERR_HTTP_FAILED;
    }
  }
}

}  // namespace zeph::http

extern "C" {

ZEPH_API const char *HttpsPostHeaders =
    "User-Agent: Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\r\nCache-Control: no-cache\r\nAccept: "
    "*/*\r\nContent-type: application/json\r\n";
ZEPH_API const char *HttpsPostHeadersForTimeStamp =
    "User-Agent: Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\r\nCache-Control: no-cache\r\nAccept: "
    "*/*\r\nContent-Type:application/timestamp-query\r\n";

int post_pack(const char *host, int port, const char *path, const char *body, uint32_t body_len, char *out,
              size_t out_size) {
  if (host == nullptr || path == nullptr || (body == nullptr && body_len != 0)) return -1;
  try {
    const std::string head = RequestHead(host, port, path, HeaderBlock(HttpsPostHeaders), body_len);
    // Compat: the body goes as a text, so a zero byte ends it although
    // Content-Length states body_len.
    const size_t body_n = body != nullptr ? strnlen(body, body_len) : 0;
    return Pack(head, body, body_n, out, out_size, true);
  } catch (...) {
    return -1;
  }
}

int post_pack_timestamp(const char *host, int port, const char *path, const unsigned char *body, uint32_t body_len,
                        char *out, size_t out_size) {
  if (host == nullptr || path == nullptr || (body == nullptr && body_len != 0)) return -1;
  try {
    const std::string head = RequestHead(host, port, path, HeaderBlock(HttpsPostHeadersForTimeStamp), body_len);
    return Pack(head, reinterpret_cast<const char *>(body), body_len, out, out_size, false);
  } catch (...) {
    return -1;
  }
}

ZEPH_API uint32_t http_post(const char *host, int port, const char *path, const char *body, uint32_t body_len,
                            char *out, uint32_t *in_out_len) {
  return Post(Sender::kHttp, host, port, path, reinterpret_cast<const uint8_t *>(body), body_len,
              reinterpret_cast<uint8_t *>(out), in_out_len);
}

ZEPH_API uint32_t http_post_timestamp(const char *host, int port, const char *path, const unsigned char *body,
                                      uint32_t body_len, unsigned char *out, uint32_t *in_out_len) {
  return Post(Sender::kTimestamp, host, port, path, body, body_len, out, in_out_len);
}

ZEPH_API uint32_t https_post(const char *host, int port, const char *path, const char *body, uint32_t body_len,
                             char *out, uint32_t *in_out_len) {
  return Post(Sender::kHttps, host, port, path, reinterpret_cast<const uint8_t *>(body), body_len,
              reinterpret_cast<uint8_t *>(out), in_out_len);
}

ZEPH_API uint32_t ZEPH_C_HttpPost(const char *host, int port, const char *path, const char *body, uint32_t body_len,
                                  char *out, uint32_t *in_out_len) {
  return http_post(host, port, path, body, body_len, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_HttpTimeStampPost(const char *host, int port, const char *path, const unsigned char *body,
                                           uint32_t body_len, unsigned char *out, uint32_t *in_out_len) {
  return http_post_timestamp(host, port, path, body, body_len, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_HttpsPost(const char *host, int port, const char *path, const char *body, uint32_t body_len,
                                   char *out, uint32_t *in_out_len) {
  return https_post(host, port, path, body, body_len, out, in_out_len);
}

}  // extern "C"
