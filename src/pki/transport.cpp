// TCP and TLS connections on non-blocking sockets: every wait is a poll
// bounded by the exchange's deadline, so no server can hold a call.
#include "pki/transport.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "pki/pki_owned.hpp"
#include "zeph_c_status.h"

namespace zeph::http {

namespace {

std::atomic<uint32_t> g_connect_ms{0};
std::atomic<uint32_t> g_total_ms{0};

// ---- Trust ---------------------------------------------------------------

struct TlsClient {
  SslCtxPtr ctx;
  bool verify = false;
};

// Held for the life of the process and never destroyed, so that no exit
// handler frees a context after OpenSSL has shut down.
struct TrustState {
  std::mutex mu;
  std::shared_ptr<const TlsClient> client;
};

TrustState &Trust() {
  static auto *state = new TrustState;
  return *state;
}

uint32_t MakeClient(const char *pem_path, std::shared_ptr<const TlsClient> *out) {
  auto client = std::make_shared<TlsClient>();
  client->ctx.reset(SSL_CTX_new(TLS_client_method()));
  if (!client->ctx) return ERR_OUT_OF_MEMORY;
  SSL_CTX *ctx = client->ctx.get();
  // Many servers close without close_notify; replies with a length are
  // checked against it by the readers that need it.
  SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  if (pem_path != nullptr) {
    if (SSL_CTX_load_verify_file(ctx, pem_path) != 1) {
      ERR_clear_error();
      return ERR_FILE_OPEN_FAILED;
    }
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    client->verify = true;
  }
  *out = std::move(client);
  return 0;
}

std::shared_ptr<const TlsClient> CurrentClient() {
  TrustState &t = Trust();
  std::lock_guard lock(t.mu);
  if (!t.client) MakeClient(nullptr, &t.client);
  return t.client;
}

// ---- Sockets ---------------------------------------------------------------

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd &&o) noexcept : fd_(o.release()) {}
  Fd &operator=(Fd &&o) noexcept {
    reset(o.release());
    return *this;
  }
  ~Fd() { reset(); }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

// 1 ready, 0 the time is up, -1 poll failed.
int WaitFor(int fd, short events, int ms) {
  pollfd p{fd, events, 0};
  for (;;) {
    const int r = ::poll(&p, 1, ms);
    if (r >= 0) return r > 0 ? 1 : 0;
    if (errno != EINTR) return -1;
  }
}

std::string Errno(const char *what) { return std::string(what) + ": " + std::strerror(errno); }

// Non-blocking connect to the first address of host:port that answers
// within the connect deadline.
Fd OpenSocket(const std::string &host, int port, const Deadline &deadline, std::string *why) {
  if (port < 1 || port > 65535) {
    *why = "port " + std::to_string(port) + " out of range";
    return Fd();
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo *found = nullptr;
  if (const int rc = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found); rc != 0) {
    *why = "cannot resolve " + host + ": " + gai_strerror(rc);
    return Fd();
  }
  std::unique_ptr<addrinfo, Free<freeaddrinfo>> list(found);
  *why = "no address for " + host;
  for (const addrinfo *a = list.get(); a != nullptr; a = a->ai_next) {
    Fd fd(::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol));
    if (fd.get() < 0) {
      *why = Errno("socket");
      continue;
    }
    if (::connect(fd.get(), a->ai_addr, a->ai_addrlen) != 0) {
      if (errno != EINPROGRESS) {
        *why = Errno("connect");
        continue;
      }
      const int ready = WaitFor(fd.get(), POLLOUT, deadline.ConnectLeftMs());
      if (ready == 0) {
        *why = "connect timed out after " + std::to_string(deadline.connect_ms()) + " ms";
        return Fd();
      }
      int err = 0;
      socklen_t len = sizeof err;
      if (ready < 0 || ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
        errno = err != 0 ? err : errno;
        *why = Errno("connect");
        continue;
      }
    }
    const int one = 1;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
  }
  return Fd();
}

std::string TimedOut(const char *what, const Deadline &deadline) {
  return std::string(what) + " timed out: the exchange took more than " + std::to_string(deadline.total_ms()) + " ms";
}

// ---- Plain TCP ---------------------------------------------------------------

class PlainStream final : public Stream {
 public:
  PlainStream(Fd fd, const Deadline &deadline) : fd_(std::move(fd)), deadline_(deadline) {}

  IoResult Read(std::span<uint8_t> into) override {
    for (;;) {
      const ssize_t n = ::recv(fd_.get(), into.data(), into.size(), 0);
      if (n > 0) return {Io::kOk, static_cast<size_t>(n)};
      if (n == 0) return {Io::kClosed};
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return Failed(Errno("recv"));
      if (const IoResult r = Wait(POLLIN, "reading the reply"); r.io != Io::kOk) return r;
    }
  }

  IoResult Write(std::span<const uint8_t> from) override {
    for (;;) {
      const ssize_t n = ::send(fd_.get(), from.data(), from.size(), MSG_NOSIGNAL);
      if (n >= 0) return {Io::kOk, static_cast<size_t>(n)};
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return Failed(Errno("send"));
      if (const IoResult r = Wait(POLLOUT, "sending the request"); r.io != Io::kOk) return r;
    }
  }

  const std::string &why() const override { return why_; }

 private:
  IoResult Failed(std::string why) {
    why_ = std::move(why);
    return {Io::kFailed};
  }
  IoResult Wait(short events, const char *what) {
    const int ready = WaitFor(fd_.get(), events, deadline_.TotalLeftMs());
    if (ready > 0) return {Io::kOk};
    if (ready < 0) return Failed(Errno("poll"));
    why_ = TimedOut(what, deadline_);
    return {Io::kExpired};
  }

  Fd fd_;
  Deadline deadline_;
  std::string why_;
};

// ---- TLS -----------------------------------------------------------------------

// A socket BIO that sends with MSG_NOSIGNAL: a server that resets the
// connection must not raise SIGPIPE in the host process.
int FdOf(BIO *b) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(b))); }

int NoSignalWrite(BIO *b, const char *data, size_t n, size_t *written) {
  BIO_clear_retry_flags(b);
  const ssize_t r = ::send(FdOf(b), data, n, MSG_NOSIGNAL);
  if (r >= 0) {
    *written = static_cast<size_t>(r);
    return 1;
  }
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) BIO_set_retry_write(b);
  return 0;
}

int NoSignalRead(BIO *b, char *data, size_t n, size_t *got) {
  BIO_clear_retry_flags(b);
  const ssize_t r = ::recv(FdOf(b), data, n, 0);
  if (r > 0) {
    *got = static_cast<size_t>(r);
    return 1;
  }
  if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) BIO_set_retry_read(b);
  return 0;
}

long NoSignalCtrl(BIO *, int cmd, long, void *) { return cmd == BIO_CTRL_FLUSH ? 1 : 0; }

const BIO_METHOD *NoSignalSocketMethod() {
  static const BIO_METHOD *method = [] {
    BIO_METHOD *m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "zeph socket");
    if (m != nullptr) {
      BIO_meth_set_write_ex(m, NoSignalWrite);
      BIO_meth_set_read_ex(m, NoSignalRead);
      BIO_meth_set_ctrl(m, NoSignalCtrl);
    }
    return m;
  }();
  return method;
}

std::string TlsError(SSL *ssl, const char *what) {
  std::string s = std::string(what) + " failed";
  const long verify = SSL_get_verify_result(ssl);
  if (verify != X509_V_OK) return s + ": " + X509_verify_cert_error_string(verify);
  if (const unsigned long e = ERR_peek_error(); e != 0) {
    char text[256];
    ERR_error_string_n(e, text, sizeof text);
    return s + ": " + text;
  }
  return errno != 0 ? s + ": " + std::strerror(errno) : s + ": connection closed";
}

bool IsIpLiteral(const std::string &host) {
  unsigned char addr[16];
  return inet_pton(AF_INET, host.c_str(), addr) == 1 || inet_pton(AF_INET6, host.c_str(), addr) == 1;
}

class TlsStream final : public Stream {
 public:
  TlsStream(Fd fd, SslPtr ssl, const Deadline &deadline)
      : fd_(std::move(fd)), ssl_(std::move(ssl)), deadline_(deadline) {}
  ~TlsStream() override { ssl_.reset(); }  // before the descriptor closes

  IoResult Handshake() {
    for (;;) {
      ERR_clear_error();
      errno = 0;
      const int r = SSL_connect(ssl_.get());
      if (r == 1) return {Io::kOk};
      if (const IoResult w = WaitAfter(r, "TLS handshake"); w.io != Io::kOk) return w;
    }
  }

  IoResult Read(std::span<uint8_t> into) override {
    for (;;) {
      ERR_clear_error();
      errno = 0;
      size_t n = 0;
      const int r = SSL_read_ex(ssl_.get(), into.data(), into.size(), &n);
      if (r == 1) return {Io::kOk, n};
      if (SSL_get_error(ssl_.get(), r) == SSL_ERROR_ZERO_RETURN) return {Io::kClosed};
      if (const IoResult w = WaitAfter(r, "reading the reply"); w.io != Io::kOk) return w;
    }
  }

  IoResult Write(std::span<const uint8_t> from) override {
    for (;;) {
      ERR_clear_error();
      errno = 0;
      size_t n = 0;
      const int r = SSL_write_ex(ssl_.get(), from.data(), from.size(), &n);
      if (r == 1) return {Io::kOk, n};
      if (const IoResult w = WaitAfter(r, "sending the request"); w.io != Io::kOk) return w;
    }
  }

  const std::string &why() const override { return why_; }

 private:
  // After a call that did not complete: wait for what TLS asks, or fail.
  IoResult WaitAfter(int r, const char *what) {
    const int e = SSL_get_error(ssl_.get(), r);
    if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) {
      why_ = TlsError(ssl_.get(), what);
      return {Io::kFailed};
    }
    const int ready = WaitFor(fd_.get(), e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline_.TotalLeftMs());
    if (ready > 0) return {Io::kOk};
    if (ready < 0) {
      why_ = Errno("poll");
      return {Io::kFailed};
    }
    why_ = TimedOut(what, deadline_);
    return {Io::kExpired};
  }

  Fd fd_;
  SslPtr ssl_;
  Deadline deadline_;
  std::string why_;
};

std::unique_ptr<Stream> StartTls(Fd fd, const std::string &host, const Deadline &deadline, std::string *why) {
  const std::shared_ptr<const TlsClient> client = CurrentClient();
  if (!client) {
    *why = "no TLS context";
    return nullptr;
  }
  SslPtr ssl(SSL_new(client->ctx.get()));
  BIO *bio = NoSignalSocketMethod() != nullptr ? BIO_new(NoSignalSocketMethod()) : nullptr;
  if (!ssl || bio == nullptr) {
    BIO_free(bio);
    *why = "out of memory";
    return nullptr;
  }
  BIO_set_data(bio, reinterpret_cast<void *>(static_cast<intptr_t>(fd.get())));
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl.get(), bio, bio);
  // The name the certificate must carry; an IP literal is matched against
  // the certificate's IP addresses. Checked only when trust is set.
  if (SSL_set1_host(ssl.get(), host.c_str()) != 1) {
    *why = "cannot register host name " + host;
    return nullptr;
  }
  if (!IsIpLiteral(host)) SSL_set_tlsext_host_name(ssl.get(), host.c_str());
  SSL_set_connect_state(ssl.get());
  auto stream = std::make_unique<TlsStream>(std::move(fd), std::move(ssl), deadline);
  if (stream->Handshake().io != Io::kOk) {
    *why = stream->why();
    return nullptr;
  }
  return stream;
}

}  // namespace

void SetTimeouts(uint32_t connect_ms, uint32_t total_ms) {
  g_connect_ms.store(connect_ms, std::memory_order_relaxed);
  g_total_ms.store(total_ms, std::memory_order_relaxed);
}

Deadline Deadline::Start() {
  Deadline d;
  const uint32_t c = g_connect_ms.load(std::memory_order_relaxed);
  const uint32_t t = g_total_ms.load(std::memory_order_relaxed);
  d.connect_ms_ = c != 0 ? c : kDefaultConnectMs;
  d.total_ms_ = t != 0 ? t : kDefaultTotalMs;
  const Clock::time_point now = Clock::now();
  d.connect_by_ = now + std::chrono::milliseconds(d.connect_ms_);
  d.total_by_ = now + std::chrono::milliseconds(d.total_ms_);
  return d;
}

int Deadline::LeftMs(Clock::time_point until) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

int Deadline::ConnectLeftMs() const { return LeftMs(std::min(connect_by_, total_by_)); }
int Deadline::TotalLeftMs() const { return LeftMs(total_by_); }

uint32_t SetTrustFile(const char *pem_path) {
  const bool none = pem_path == nullptr || pem_path[0] == '\0';
  std::shared_ptr<const TlsClient> client;
  if (const uint32_t rv = MakeClient(none ? nullptr : pem_path, &client); rv != 0) return rv;
  TrustState &t = Trust();
  std::lock_guard lock(t.mu);
  t.client = std::move(client);
  return 0;
}

std::unique_ptr<Stream> Connect(const std::string &host, int port, bool tls, const Deadline &deadline,
                                std::string *why) {
  Fd fd = OpenSocket(host, port, deadline, why);
  if (fd.get() < 0) return nullptr;
  if (tls) return StartTls(std::move(fd), host, deadline, why);
  return std::make_unique<PlainStream>(std::move(fd), deadline);
}

}  // namespace zeph::http
