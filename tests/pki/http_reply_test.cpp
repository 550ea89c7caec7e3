// Reply rules of the HTTP senders and the reassembling parser, without sockets.
#include "pki/http_reply.hpp"

#include <cstring>
#include <deque>
#include <string>

#include <gtest/gtest.h>

#include "pki/https_post.hpp"
#include "zeph_c_status.h"

namespace {

using zeph::http::ReplyParser;
using State = ReplyParser::State;

std::span<const uint8_t> Bytes(const std::string &s) { return {reinterpret_cast<const uint8_t *>(s.data()), s.size()}; }

TEST(ReplyRules, OneReadSenders) {
  std::string_view body;
  const struct {
    std::string reply;
    uint32_t status;
    std::string body;
  } text_cases[] = {
      {"HTTP/1.1 500 Oops\r\n\r\nfailed", 0, "failed"},  // the status code is not checked
      {std::string("HTTP/1.0 200 OK\r\n\r\nab\0cd", 24), 0, "ab"},
      {"HTTP/1.0 200 OK\r\n\r\n", 0, ""},
      {std::string("HTTP/1.0 200\0\r\n\r\nhidden", 23), ERR_HTTP_FAILED, ""},
  };
  for (const auto &c : text_cases) {
    body = {};
    EXPECT_EQ(zeph::http::TextReplyBody(Bytes(c.reply), &body), c.status) << c.reply;
    EXPECT_EQ(body, c.body) << c.reply;
  }

  // Time-stamp replies. The capacity edges and a 9-byte reply through a real
  // socket: Http.CapacityEdgesNeverWritePastTheBuffer (tests/integration).
  const std::string head = "HTTP/1.0 200 OK\r\n\r\n";
  const struct {
    std::string reply;
    uint64_t received;
    uint32_t capacity;
    uint32_t status;
  } ts_cases[] = {
      {head, 0, 100, ERR_HTTP_FAILED},
      {head + std::string(5, '\0'), 0, 100, 0},   // binary bodies keep their zeros
      {head + "abc", head.size() + 10, 1000, 0},  // counted bytes past the last read are zeros
      {"HTTP/1.0 200 OK\r\nX: " + std::string(600, 'a') + "\r\n\r\nabc", 625 + 999, 1000, ERR_HTTP_FAILED},
  };
  for (const auto &c : ts_cases) {
    std::vector<uint8_t> buffer(c.capacity + 512, 0);
    std::memcpy(buffer.data(), c.reply.data(), c.reply.size());
    const uint64_t received = c.received != 0 ? c.received : c.reply.size();
    std::span<const uint8_t> out;
    EXPECT_EQ(zeph::http::TimestampReplyBody(buffer, c.reply.size(), received, c.capacity, &out), c.status)
        << c.reply.size() << " " << received;
    if (c.status == 0) {
      EXPECT_EQ(out.size(), received - head.size());
    }
  }
}

// A stream that hands out scripted pieces, then closes (or fails).
class ScriptedStream final : public zeph::http::Stream {
 public:
  ScriptedStream(std::deque<std::string> pieces, zeph::http::Io end) : pieces_(std::move(pieces)), end_(end) {}
  zeph::http::IoResult Read(std::span<uint8_t> into) override {
    if (pieces_.empty()) return {end_};
    const std::string p = pieces_.front();
    pieces_.pop_front();
    std::memcpy(into.data(), p.data(), std::min(p.size(), into.size()));
    return {zeph::http::Io::kOk, std::min(p.size(), into.size())};
  }
  zeph::http::IoResult Write(std::span<const uint8_t> from) override { return {zeph::http::Io::kOk, from.size()}; }
  const std::string &why() const override { return why_; }

 private:
  std::deque<std::string> pieces_;
  zeph::http::Io end_;
  std::string why_;
};

TEST(ReplyRules, OnlyTheLastReadRemains) {
  using zeph::http::Io;
  const struct {
    std::deque<std::string> pieces;
    Io end;
    uint64_t limit;
    uint32_t status;
    std::string kept;
  } cases[] = {
      {{"HTTP/1.0 200 OK\r\n\r\nfirst and long", "tail"}, Io::kClosed, 1000, 0, "tail"},
      {{"HTTP/1.0 200 OK\r\n\r\nwhole"}, Io::kClosed, 1000, 0, "HTTP/1.0 200 OK\r\n\r\nwhole"},
      {{"HTTP/1.0 200 OK\r\n\r\nwhole"}, Io::kExpired, 1000, ERR_HTTP_FAILED, ""},
      {{"HTTP/1.0 200 OK\r\n\r\nwhole"}, Io::kFailed, 1000, ERR_HTTP_FAILED, ""},
      {{std::string(600, 'a'), std::string(600, 'a')}, Io::kClosed, 1000, ERR_HTTP_FAILED, ""},
  };
  for (const auto &c : cases) {
    ScriptedStream stream(c.pieces, c.end);
    std::vector<uint8_t> buffer(700, 0);
    zeph::http::LastRead last;
    EXPECT_EQ(zeph::http::ReadUntilClose(stream, buffer, c.limit, &last), c.status) << c.pieces.front();
    EXPECT_EQ(last.failed, c.end == Io::kFailed && c.status != 0);
    if (c.status == 0) {
      EXPECT_EQ(std::string(reinterpret_cast<const char *>(buffer.data())), c.kept);
      EXPECT_EQ(last.chunk, c.kept.size());
    }
  }
}

// Feeds a reply cut at every point and byte by byte: the result never depends on the cut.
void ExpectSameAtEverySplit(const std::string &reply, size_t max_body, State want, int status, const std::string &body,
                            bool close = true) {
  for (size_t cut = 0; cut <= reply.size(); ++cut) {
    ReplyParser p(max_body);
    p.Feed(Bytes(reply.substr(0, cut)));
    State s = p.Feed(Bytes(reply.substr(cut)));
    if (close && (s == State::kHeader || s == State::kBody)) s = p.Close();
    ASSERT_EQ(s, want) << "cut " << cut << ": " << p.why();
    EXPECT_EQ(p.status(), status);
    if (want == State::kDone) {
      EXPECT_EQ(std::string(p.body().begin(), p.body().end()), body);
    }
  }
  ReplyParser p(max_body);
  State s = State::kHeader;
  for (const char ch : reply) s = p.Feed(Bytes(std::string(1, ch)));
  if (close && (s == State::kHeader || s == State::kBody)) s = p.Close();
  EXPECT_EQ(s, want);
}

TEST(ReplyParser, ReassemblesAtEverySplit) {
  ExpectSameAtEverySplit("HTTP/1.1 200 OK\r\ncontent-LENGTH:  5 \r\n\r\nhello", 5, State::kDone, 200, "hello", false);
  ExpectSameAtEverySplit("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nhello and more", 5, State::kDone, 200, "hello",
                         false);
  ExpectSameAtEverySplit("HTTP/1.0 404 Not Found\r\nServer: x\r\n\r\nno such thing", 100, State::kDone, 404,
                         "no such thing");
  ExpectSameAtEverySplit("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 201 Created\r\nContent-Length: 2\r\n\r\nok", 10,
                         State::kDone, 201, "ok", false);
  ExpectSameAtEverySplit("HTTP/1.0 204 No Content\r\nContent-Length: 9\r\n\r\n", 10, State::kDone, 204, "", false);
  ExpectSameAtEverySplit("HTTP/1.0 200 OK\r\nContent-Length: 6\r\n\r\nhello", 10, State::kFailed, 200, "");
  ExpectSameAtEverySplit("HTTP/1.0 200 OK\r\nContent-Length: 11\r\n\r\nhello", 10, State::kTooLarge, 200, "", false);
  ExpectSameAtEverySplit("HTTP/1.0 200 OK\r\n\r\n" + std::string(11, 'x'), 10, State::kTooLarge, 200, "", false);
}

TEST(ReplyParser, RefusesMalformedReplies) {
  const std::string refused[] = {
      "SSH-2.0-OpenSSH_9.2\r\n\r\n",
      "HTTP/1.0 2x0 OK\r\n\r\n",
      "HTTP/1.0 200OK\r\n\r\n",
      "HTTP/1.0 200 OK\r\nContent-Length: -1\r\n\r\n",
      "HTTP/1.0 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n",
      "HTTP/1.0 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n",
      "HTTP/1.0 200 OK\r\n" + std::string(zeph::http::kMaxHeaderBytes, 'h') + "\r\n\r\n",
      "HTTP/1.0 200 OK\r\nX: y\r\n",  // closed inside the header
      "",
  };
  for (const auto &reply : refused) {
    ReplyParser p(1 << 20);
    State s = p.Feed(Bytes(reply));
    if (s == State::kHeader) s = p.Close();
    EXPECT_EQ(s, State::kFailed) << reply.substr(0, 80);
    EXPECT_FALSE(p.why().empty());
  }
}

}  // namespace
