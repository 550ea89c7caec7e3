// Request builders of the one-shot senders (not exported).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "pki/transport.hpp"

extern "C" {

// "POST <path> HTTP/1.0\r\nHost: <host>:<port>\r\n" HttpsPostHeaders
// "Content-Length: <body_len>\r\n\r\n" and the body up to its first zero
// byte (at most body_len bytes), into `out` of out_size bytes with a zero
// byte after it. Returns the request length, or -1 when it does not fit.
int post_pack(const char *host, int port, const char *path, const char *body, uint32_t body_len, char *out,
              size_t out_size);

// The same with HttpsPostHeadersForTimeStamp and the body copied byte for
// byte (no terminator is added).
int post_pack_timestamp(const char *host, int port, const char *path, const unsigned char *body, uint32_t body_len,
                        char *out, size_t out_size);

}  // extern "C"

namespace zeph::http {

struct LastRead {
  size_t chunk = 0;     // bytes of the last non-empty read, at the buffer's start
  uint64_t total = 0;   // bytes of every read
  bool failed = false;  // a read failed (rather than timed out or overflowed)
};

// The read loop of the one-shot senders: reads until the server closes, each
// read over the start of `buffer` with zeros after it, so only the last one
// remains. ERR_HTTP_FAILED on expiry, on a failed read, or past `limit` bytes
// in all.
uint32_t ReadUntilClose(Stream &stream, std::span<uint8_t> buffer, uint64_t limit, LastRead *last);

}  // namespace zeph::http
