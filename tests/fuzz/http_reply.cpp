// The HTTP reply rules on arbitrary bytes: the one-read rules of the plain
// senders, and the reassembling parser fed the reply whole and in pieces
// whose size the input chooses (the result must not depend on the cut).
#include "pki/http_reply.hpp"

#include "check.hpp"

namespace {

using zeph::http::ReplyParser;

bool Inside(const void *p, size_t n, const void *base, size_t size) {
  const auto *b = static_cast<const uint8_t *>(base);
  const auto *q = static_cast<const uint8_t *>(p);
  return q >= b && q + n <= b + size;
}

ReplyParser::State Run(ReplyParser &p, std::span<const uint8_t> reply, size_t piece) {
  ReplyParser::State s = p.state();
  for (size_t at = 0; at < reply.size(); at += piece) s = p.Feed(reply.subspan(at, std::min(piece, reply.size() - at)));
  if (s == ReplyParser::State::kHeader || s == ReplyParser::State::kBody) s = p.Close();
  return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const uint32_t capacity = data[0] * 37u + 1;
  const size_t piece = data[1] % 97 + 1;
  const std::span<const uint8_t> reply(data + 2, size - 2);

  std::string_view text;
  if (zeph::http::TextReplyBody(reply, &text) == 0) {
    fuzz::Check(Inside(text.data(), text.size(), reply.data(), reply.size()) &&
                !std::memchr(text.data(), 0, text.size()));
  }

  std::vector<uint8_t> buffer(capacity + 512, 0);
  const size_t chunk = std::min(reply.size(), buffer.size());
  std::memcpy(buffer.data(), reply.data(), chunk);
  const uint64_t received = reply.size() + (data[1] >= 128 ? data[0] * 11u : 0);
  std::span<const uint8_t> body;
  if (zeph::http::TimestampReplyBody(buffer, chunk, received, capacity, &body) == 0) {
    fuzz::Check(!body.empty() && body.size() < capacity &&
                Inside(body.data(), body.size(), buffer.data(), buffer.size()));
  }

  ReplyParser whole(capacity), cut(capacity);
  const ReplyParser::State a = Run(whole, reply, reply.size() + 1);
  fuzz::Check(a == Run(cut, reply, piece) && whole.status() == cut.status() && whole.body() == cut.body());
  fuzz::Check(a != ReplyParser::State::kDone || whole.body().size() <= capacity);
  fuzz::Check(a != ReplyParser::State::kTooLarge || whole.needed() > capacity);
  return 0;
}
