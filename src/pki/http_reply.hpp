// Reading HTTP replies, apart from any socket: the one-read rules of the
// plain senders and the reassembling parser of the bounded client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zeph::http {

// Largest header block the reassembling parser accepts.
inline constexpr size_t kMaxHeaderBytes = 16 * 1024;

// Offset just past the first "\r\n\r\n", searched as in a text (the search
// stops at the first zero byte); npos when there is none.
size_t HeaderEnd(std::span<const uint8_t> reply);

// The body of a text sender's reply: the bytes after the header end up to
// the first zero byte. `chunk` is what the last read delivered. 0, or
// ERR_HTTP_FAILED when it does not start "HTTP/" or has no header end.
uint32_t TextReplyBody(std::span<const uint8_t> chunk, std::string_view *body);

// The body of the time-stamp sender's reply. `buffer` is the receive
// buffer, holding the last read in its first `chunk` bytes and zeros after
// them; `received` counts the bytes of every read. The body runs from the
// header end for `received` minus the header length bytes, which must be at
// least 1, below `capacity` and inside the buffer. 0, or ERR_HTTP_FAILED.
uint32_t TimestampReplyBody(std::span<const uint8_t> buffer, size_t chunk, uint64_t received, uint32_t capacity,
                            std::span<const uint8_t> *body);

// Reassembles one reply from pieces of any size: status line, headers (up
// to kMaxHeaderBytes), then a body of Content-Length bytes, or up to the
// close without one. Interim 1xx replies are skipped.
class ReplyParser {
 public:
  enum class State {
    kHeader,    // more header bytes needed
    kBody,      // more body bytes needed
    kDone,      // the reply is complete
    kFailed,    // malformed or truncated (why() tells)
    kTooLarge,  // the body exceeds max_body (needed() tells)
  };

  explicit ReplyParser(size_t max_body) : max_body_(max_body) {}

  State Feed(std::span<const uint8_t> bytes);
  // The peer closed the connection.
  State Close();

  State state() const { return state_; }
  int status() const { return status_; }
  const std::vector<uint8_t> &body() const { return body_; }
  // Body length announced, or received so far without an announcement.
  size_t needed() const { return content_length_.value_or(body_.size()); }
  const std::string &why() const { return why_; }

 private:
  State Fail(std::string why);
  State ParseHeader(size_t end);
  State TakeBody(std::span<const uint8_t> bytes);

  size_t max_body_;
  State state_ = State::kHeader;
  std::string header_;
  int status_ = 0;
  std::optional<size_t> content_length_;
  std::vector<uint8_t> body_;
  std::string why_;
};

}  // namespace zeph::http
