// HTTP reply rules, kept apart from the socket loops so that they can be
// fed any bytes.
#include "pki/http_reply.hpp"

#include <algorithm>
#include <cstring>

#include "zeph_c_status.h"

namespace zeph::http {

namespace {

constexpr std::string_view kHeaderEnd = "\r\n\r\n";

std::string_view AsText(std::span<const uint8_t> bytes) {
  const auto *p = reinterpret_cast<const char *>(bytes.data());
  return {p, strnlen(p, bytes.size())};
}

bool StartsHttp(std::span<const uint8_t> reply) {
  return reply.size() >= 5 && std::memcmp(reply.data(), "HTTP/", 5) == 0;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; };
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// "HTTP/x.y SSS reason": the status code, or -1.
int StatusCode(std::string_view line) {
  if (line.substr(0, 5) != "HTTP/") return -1;
  const size_t sp = line.find(' ');
  if (sp == std::string_view::npos) return -1;
  std::string_view rest = line.substr(sp);
  while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  if (rest.size() < 3 || (rest.size() > 3 && rest[3] != ' ')) return -1;
  int code = 0;
  for (size_t i = 0; i < 3; ++i) {
    if (rest[i] < '0' || rest[i] > '9') return -1;
    code = code * 10 + (rest[i] - '0');
  }
  return code >= 100 ? code : -1;
}

// Decimal digits only, at most 15 of them.
std::optional<size_t> Length(std::string_view s) {
  if (s.empty() || s.size() > 15) return std::nullopt;
  size_t v = 0;
  for (const char c : s) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<size_t>(c - '0');
  }
  return v;
}

}  // namespace

size_t HeaderEnd(std::span<const uint8_t> reply) {
  const std::string_view text = AsText(reply);
  const size_t at = text.find(kHeaderEnd);
  return at == std::string_view::npos ? at : at + kHeaderEnd.size();
}

uint32_t TextReplyBody(std::span<const uint8_t> chunk, std::string_view *body) {
  if (!StartsHttp(chunk)) return ERR_HTTP_FAILED;
  const size_t end = HeaderEnd(chunk);
  if (end == std::string_view::npos) return ERR_HTTP_FAILED;
  *body = AsText(chunk.subspan(end));
  return 0;
}

uint32_t TimestampReplyBody(std::span<const uint8_t> buffer, size_t chunk, uint64_t received, uint32_t capacity,
                            std::span<const uint8_t> *body) {
  if (received <= 9 || chunk == 0 || buffer.empty() || buffer[0] == 0) return ERR_HTTP_FAILED;
  const std::span<const uint8_t> last = buffer.first(std::min(chunk, buffer.size()));
  if (!StartsHttp(last)) return ERR_HTTP_FAILED;
  const size_t end = HeaderEnd(last);
  if (end == std::string_view::npos) return ERR_HTTP_FAILED;
  // Compat: the length counts every read while the bytes are those of the
  // last one (zeros after it); a reply in one piece is what this reads.
  const uint64_t len = received - end;
  if (len < 1 || len >= capacity || len > buffer.size() - end) return ERR_HTTP_FAILED;
  *body = buffer.subspan(end, static_cast<size_t>(len));
  return 0;
}

ReplyParser::State ReplyParser::Fail(std::string why) {
  why_ = std::move(why);
  return state_ = State::kFailed;
}

ReplyParser::State ReplyParser::Feed(std::span<const uint8_t> bytes) {
  if (state_ == State::kBody) return TakeBody(bytes);
  if (state_ != State::kHeader) return state_;
  // The terminator may straddle two pieces: search from just before this one.
  size_t from = header_.size() >= 3 ? header_.size() - 3 : 0;
  header_.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  for (;;) {
    const size_t at = header_.find(kHeaderEnd, from);
    if (at == std::string::npos || at + kHeaderEnd.size() > kMaxHeaderBytes) {
      return header_.size() >= kMaxHeaderBytes ? Fail("the reply header exceeds 16 KiB") : state_;
    }
    const size_t end = at + kHeaderEnd.size();
    const State s = ParseHeader(end);
    std::string rest = header_.substr(end);
    header_.clear();
    if (s == State::kHeader) {  // an interim reply: the real one follows
      header_ = std::move(rest);
      from = 0;
      continue;
    }
    if (s != State::kBody) return s;
    return TakeBody({reinterpret_cast<const uint8_t *>(rest.data()), rest.size()});
  }
}

ReplyParser::State ReplyParser::ParseHeader(size_t end) {
  const std::string_view head(header_.data(), end - kHeaderEnd.size());
  const size_t eol = head.find("\r\n");
  const std::string_view status_line = head.substr(0, eol);
  status_ = StatusCode(status_line);
  if (status_ < 0) {
    status_ = 0;
    return Fail("not an HTTP reply");
  }
  std::string_view rest = eol == std::string_view::npos ? std::string_view() : head.substr(eol + 2);
  while (!rest.empty()) {
    const size_t next = rest.find("\r\n");
    const std::string_view line = rest.substr(0, next);
    rest = next == std::string_view::npos ? std::string_view() : rest.substr(next + 2);
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view name = Trim(line.substr(0, colon));
    const std::string_view value = Trim(line.substr(colon + 1));
    if (EqualsNoCase(name, "Content-Length")) {
      const std::optional<size_t> n = Length(value);
      if (!n || (content_length_ && *content_length_ != *n)) return Fail("bad Content-Length");
      content_length_ = n;
    } else if (EqualsNoCase(name, "Transfer-Encoding") && !EqualsNoCase(value, "identity")) {
      return Fail("unsupported Transfer-Encoding");
    }
  }
  if (status_ < 200) {
    content_length_.reset();
    return state_ = State::kHeader;
  }
  if (status_ == 204 || status_ == 304) content_length_ = 0;
  if (content_length_ && *content_length_ > max_body_) return state_ = State::kTooLarge;
  if (content_length_) body_.reserve(*content_length_);
  return state_ = State::kBody;
}

ReplyParser::State ReplyParser::TakeBody(std::span<const uint8_t> bytes) {
  if (content_length_) {
    const size_t take = std::min(bytes.size(), *content_length_ - body_.size());
    body_.insert(body_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(take));
    return state_ = body_.size() == *content_length_ ? State::kDone : State::kBody;
  }
  if (bytes.size() > max_body_ - body_.size()) {
    content_length_ = body_.size() + bytes.size();  // what is known to be needed
    body_ = {};
    return state_ = State::kTooLarge;
  }
  body_.insert(body_.end(), bytes.begin(), bytes.end());
  return state_;
}

ReplyParser::State ReplyParser::Close() {
  switch (state_) {
    case State::kHeader:
      return Fail(header_.empty() ? "the server closed without a reply" : "the server closed inside the header");
    case State::kBody:
      if (content_length_) return Fail("the server closed before Content-Length bytes arrived");
      return state_ = State::kDone;
    default:
      return state_;
  }
}

}  // namespace zeph::http
