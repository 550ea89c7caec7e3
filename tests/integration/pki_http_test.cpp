// The HTTP and HTTPS senders against real servers on 127.0.0.1: the exact
// request bytes, reply and capacity rules, hostile servers under short
// deadlines, and TLS trust.
#include <algorithm>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "loopback.hpp"
#include "zeph_c.h"

namespace {

using zeph_test::Peer;

const std::string kAgent =
    "User-Agent: Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\r\nCache-Control: no-cache\r\nAccept: */*\r\n";

struct Sender {
  const char *name;
  bool tls;
};
const Sender kSenders[] = {{"http_post", false}, {"http_post_timestamp", false}, {"https_post", true}};

// One sender, seen through a common shape: body in, reply body out.
uint32_t Post(const Sender &s, int port, const std::string &path, const std::string &body, std::string *out,
              uint32_t capacity) {
  std::vector<char> buf(capacity + 1, '\x7f');
  uint32_t len = capacity;
  const auto n = static_cast<uint32_t>(body.size());
  const uint32_t rv = s.tls ? ZEPH_C_HttpsPost("127.0.0.1", port, path.c_str(), body.data(), n, buf.data(), &len)
                      : std::string(s.name) == "http_post"
                          ? ZEPH_C_HttpPost("127.0.0.1", port, path.c_str(), body.data(), n, buf.data(), &len)
                          : ZEPH_C_HttpTimeStampPost("127.0.0.1", port, path.c_str(),
                                                     reinterpret_cast<const unsigned char *>(body.data()), n,
                                                     reinterpret_cast<unsigned char *>(buf.data()), &len);
  if (rv == 0) out->assign(buf.data(), len);
  return rv;
}

class Http : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    plain_ = std::make_unique<Peer>(false);
    tls_ = std::make_unique<Peer>(true);
  }
  static void TearDownTestSuite() {
    plain_.reset();
    tls_.reset();
  }
  void TearDown() override {
    ZEPH_C_HttpSetTimeouts(0, 0);
    ZEPH_C_HttpsSetCAFile(nullptr);
  }
  static const Peer &For(const Sender &s) { return s.tls ? *tls_ : *plain_; }

  static std::unique_ptr<Peer> plain_, tls_;
};

std::unique_ptr<Peer> Http::plain_, Http::tls_;

TEST_F(Http, ExactRequestBytesPerSender) {
  for (const Sender &s : kSenders) {
    const Peer &peer = For(s);
    const std::string host = "Host: 127.0.0.1:" + std::to_string(peer.port()) + "\r\n";
    const bool text = std::string(s.name) != "http_post_timestamp";
    const std::string block =
        text ? "Content-type: application/json\r\n" : "Content-Type:application/timestamp-query\r\n";
    std::string out;
    // The body as sent, and echoed back.
    const std::string body = text ? "{\"a\":1}" : std::string("\x30\x03\x02\x01\x00", 5);
    ASSERT_EQ(Post(s, peer.port(), "/echo/exact", body, &out, 1024), 0u) << s.name;
    EXPECT_EQ(out, body) << s.name;
    EXPECT_EQ(peer.Recorded("exact"), "POST /echo/exact HTTP/1.0\r\n" + host + kAgent + block +
                                          "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body)
        << s.name;
    // A zero byte ends a text body; Content-Length still states the whole.
    ASSERT_EQ(
        Post(s, peer.port(), "/cut/" + std::string(text ? "2" : "5") + "/zero", std::string("ab\0cd", 5), &out, 1024),
        0u);
    const std::string recorded = peer.Recorded("zero");
    EXPECT_EQ(recorded.substr(recorded.size() - (text ? 23 : 26)),
              text ? "Content-Length: 5\r\n\r\nab" : std::string("Content-Length: 5\r\n\r\nab\0cd", 26))
        << s.name;
  }
  // The header blocks are the host's to change.
  const char *saved = HttpsPostHeaders;
  HttpsPostHeaders = "X-Custom: yes\r\n";
  std::string out;
  ASSERT_EQ(Post(kSenders[0], plain_->port(), "/echo/custom", "x", &out, 64), 0u);
  HttpsPostHeaders = saved;
  EXPECT_NE(
      plain_->Recorded("custom").find(":" + std::to_string(plain_->port()) + "\r\nX-Custom: yes\r\nContent-Length"),
      std::string::npos);
}

TEST_F(Http, CapacityEdgesNeverWritePastTheBuffer) {
  const std::string head = "HTTP/1.0 200 OK\r\n\r\n";
  plain_->Can("body15", head + std::string(15, 'b'));
  plain_->Can("short9", "HTTP/1.0 ");
  plain_->Can("noend", "HTTP/1.0 200 OK\r\nServer: x\r\n");
  plain_->Can("ssh", "SSH-2.0-OpenSSH_9.2\r\n\r\nhello");
  const struct {
    const char *file;
    uint32_t capacity;
    uint32_t text_status, ts_status;
  } cases[] = {
      {"body15", 17, 0, 0},
      {"body15", 16, 0, 0},  // text and terminator fit exactly; the binary body is strictly shorter
      {"body15", 15, ERR_HTTP_FAILED, ERR_HTTP_FAILED},
      {"short9", 100, ERR_HTTP_FAILED, ERR_HTTP_FAILED},
      {"noend", 100, ERR_HTTP_FAILED, ERR_HTTP_FAILED},
      {"ssh", 100, ERR_HTTP_FAILED, ERR_HTTP_FAILED},
  };
  for (const auto &c : cases) {
    // Canaries after the stated capacity.
    std::vector<unsigned char> buf(c.capacity + 8, 0xA5);
    uint32_t len = c.capacity;
    const std::string path = std::string("/reply/") + c.file;
    EXPECT_EQ(
        ZEPH_C_HttpPost("127.0.0.1", plain_->port(), path.c_str(), "q", 1, reinterpret_cast<char *>(buf.data()), &len),
        c.text_status)
        << c.file << " " << c.capacity;
    if (c.text_status == 0) {
      EXPECT_EQ(len, 15u);
      EXPECT_EQ(buf[15], 0);
    }
    for (size_t i = c.capacity; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0xA5) << c.file << " at " << i;
    len = c.capacity;
    std::fill(buf.begin(), buf.end(), 0xA5);
    const unsigned char q[] = {0x30, 0x00};
    EXPECT_EQ(ZEPH_C_HttpTimeStampPost("127.0.0.1", plain_->port(), path.c_str(), q, 2, buf.data(), &len), c.ts_status)
        << c.file << " " << c.capacity;
    for (size_t i = c.capacity; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0xA5) << c.file << " at " << i;
  }
  // A capacity below 1 is refused before connecting.
  char one[1];
  uint32_t zero = 0;
  EXPECT_EQ(ZEPH_C_HttpsPost("127.0.0.1", tls_->port(), "/echo/never", "x", 1, one, &zero), 0xFFFFFFFFu);
  EXPECT_EQ(tls_->Recorded("never"), "");
}

// A loopback port nothing listens on, and a listener whose queue is full
// (backlog 0, one connection waiting): connections to it are never answered.
struct Ports {
  Ports() {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    const int closed = socket(AF_INET, SOCK_STREAM, 0);
    bind(closed, reinterpret_cast<sockaddr *>(&a), sizeof a);
    getsockname(closed, reinterpret_cast<sockaddr *>(&a), &n);
    refused = ntohs(a.sin_port);
    close(closed);
    a.sin_port = 0;
    bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a);
    listen(listener, 0);
    getsockname(listener, reinterpret_cast<sockaddr *>(&a), &n);
    full = ntohs(a.sin_port);
    connect(filler, reinterpret_cast<sockaddr *>(&a), sizeof a);
  }
  ~Ports() {
    close(filler);
    close(listener);
  }
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  int filler = socket(AF_INET, SOCK_STREAM, 0);
  int refused = 0, full = 0;
};

std::mutex g_log_mu;
std::vector<std::string> g_log;
void Collect(const char *record) {
  std::lock_guard lock(g_log_mu);
  g_log.emplace_back(record);
}

TEST_F(Http, HostileServersEndWithinTheDeadline) {
  // Each kind of server, and the reason its failure is logged with. Servers
  // that stall run under a short deadline, the others under a long one that
  // they must not need, so the reason never depends on the machine's speed.
  const struct {
    const char *kind, *reason;
    bool stalls, tls_only;
  } kinds[] = {
      {"noheaderend", "longer than", false, false},
      {"huge", "longer than", false, false},
      {"nonhttp", " reply", false, false},
      {"refused", "connect", false, false},
      {"backlog", "connect timed out", true, false},
      {"dribble", "timed out", true, false},
      {"noclose", "timed out", true, false},
      {"silent", "timed out", true, false},
      {"plain", "TLS handshake timed out", true, true},  // a server that never speaks TLS
  };
  const Ports ports;
  setLogCallback(Collect);
  std::vector<std::future<std::pair<std::string, uint32_t>>> runs;
  for (const bool stalls : {false, true}) {
    ZEPH_C_HttpSetTimeouts(stalls ? 300 : 20000, stalls ? 300 : 20000);
    // Every case of a phase at once: each must end on its own.
    for (const Sender &s : kSenders) {
      for (const auto &k : kinds) {
        if (k.stalls != stalls || (k.tls_only && !s.tls)) continue;
        const std::string kind = k.kind;
        const int port = kind == "refused"   ? ports.refused
                         : kind == "backlog" ? ports.full
                         : kind == "plain"   ? plain_->port()
                                             : For(s).port();
        runs.push_back(std::async(std::launch::async, [&s, kind = k.kind, port] {
          std::string out;
          return std::make_pair(std::string(s.name) + " " + kind,
                                Post(s, port, std::string("/hostile/") + kind + "/h", "q", &out, 4096));
        }));
      }
    }
    for (auto &r : runs) {
      const auto [what, status] = r.get();
      EXPECT_EQ(status, ERR_HTTP_FAILED) << what;
    }
    runs.clear();
  }
  setLogCallback(nullptr);
  for (const Sender &s : kSenders) {
    for (const auto &k : kinds) {
      if (k.tls_only && !s.tls) continue;
      const std::string tag = std::string("msg:'") + s.name + " 127.0.0.1:";
      const std::string path = std::string("/hostile/") + k.kind + "/h: ";
      const bool logged = std::any_of(g_log.begin(), g_log.end(), [&](const std::string &r) {
        return r.find(tag) != std::string::npos && r.find(path) != std::string::npos &&
               r.find(k.reason) != std::string::npos;
      });
      EXPECT_TRUE(logged) << s.name << " " << k.kind << " not logged with '" << k.reason << "'";
    }
  }
}

TEST_F(Http, BoundedPostReassemblesAndBounds) {
  ZEPH_C_HttpSetTimeouts(0, 1500);
  const std::string plain = "http://127.0.0.1:" + std::to_string(plain_->port());
  const struct {
    std::string url;
    uint32_t capacity, status;
    int http_status;
    std::string body;
  } cases[] = {
      {plain + "/pieces/p", 64, 0, 200, "pieces of a reply"},
      {plain + "/hostile/noclose/n", 64, 0, 200, "hello"},
      {"https://127.0.0.1:" + std::to_string(tls_->port()) + "/echo/e", 64, 0, 200, "{}"},
      {plain + "/status/404/s", 64, ERR_HTTP_FAILED, 404, "status 404"},
      {plain + "/hostile/huge/h", 1 << 20, ERR_BUFFER_TOO_SMALL, 200, ""},
      {plain + "/echo/big", 1, ERR_BUFFER_TOO_SMALL, 200, ""},
      {plain + "/hostile/nonhttp/x", 64, ERR_HTTP_FAILED, 0, ""},
      {plain + "/hostile/noheaderend/x", 64, ERR_HTTP_FAILED, 0, ""},
      {"ftp://127.0.0.1/x", 64, ERR_INVALID_PARAMETER, 0, ""},
  };
  for (const auto &c : cases) {
    std::vector<unsigned char> out(c.capacity);
    uint32_t len = c.capacity;
    int http_status = -1;
    EXPECT_EQ(ZEPH_C_HttpPostEx(c.url.c_str(), "application/x-test", reinterpret_cast<const unsigned char *>("{}"), 2,
                                out.data(), &len, &http_status),
              c.status)
        << c.url;
    EXPECT_EQ(http_status, c.http_status) << c.url;
    if (!c.body.empty()) {
      EXPECT_EQ(std::string(out.begin(), out.begin() + len), c.body) << c.url;
    }
    if (c.status == ERR_BUFFER_TOO_SMALL) {
      EXPECT_EQ(len, c.url.find("huge") != std::string::npos ? 104857600u : 2u) << c.url;
    }
  }
  EXPECT_NE(tls_->Recorded("e").find("\r\nContent-Type: application/x-test\r\n"), std::string::npos);
}

TEST_F(Http, TrustIsCheckedBeforeAnyRequestByte) {
  const auto &pki = zeph_test::TestPki::Get();
  const struct {
    const char *name;
    std::string cert, key;
    bool trust;
    uint32_t status;
  } cases[] = {
      {"good", pki.server_cert, pki.server_key, false, 0},
      {"good, trusted", pki.server_cert, pki.server_key, true, 0},
      {"wrong host", pki.other_cert, pki.other_key, false, 0},
      {"wrong host, trusted", pki.other_cert, pki.other_key, true, ERR_HTTP_FAILED},
      {"self-signed", pki.self_cert, pki.self_key, false, 0},
      {"self-signed, trusted", pki.self_cert, pki.self_key, true, ERR_HTTP_FAILED},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(ZEPH_C_HttpsSetCAFile(c.trust ? pki.ca.c_str() : ""), 0u);
    zeph_test::OneShotTlsServer server(c.cert, c.key, "HTTP/1.0 200 OK\r\n\r\nsecure");
    char out[64];
    uint32_t len = sizeof out;
    EXPECT_EQ(ZEPH_C_HttpsPost("127.0.0.1", server.port(), "/t", "{}", 2, out, &len), c.status) << c.name;
    const std::string request = server.Request();
    if (c.status == 0) {
      EXPECT_EQ(std::string(out, len), "secure") << c.name;
      EXPECT_EQ(request.rfind("POST /t HTTP/1.0\r\n", 0), 0u) << c.name;
    } else {
      EXPECT_EQ(request, "") << c.name;
    }
  }
  // An unloadable file changes nothing; the co-signing road (PostEx) obeys the trust too.
  ASSERT_EQ(ZEPH_C_HttpsSetCAFile(pki.ca.c_str()), 0u);
  EXPECT_EQ(ZEPH_C_HttpsSetCAFile("/nonexistent/ca.pem"), ERR_FILE_OPEN_FAILED);
  EXPECT_EQ(ZEPH_C_HttpsSetCAFile(pki.server_key.c_str()), ERR_FILE_OPEN_FAILED);
  zeph_test::OneShotTlsServer stray(pki.self_cert, pki.self_key, "HTTP/1.0 200 OK\r\n\r\n");
  unsigned char out[16];
  uint32_t len = sizeof out;
  const std::string url = "https://127.0.0.1:" + std::to_string(stray.port()) + "/cosign";
  EXPECT_EQ(ZEPH_C_HttpPostEx(url.c_str(), nullptr, nullptr, 0, out, &len, nullptr), ERR_HTTP_FAILED);
  EXPECT_EQ(stray.Request(), "");
}

}  // namespace
