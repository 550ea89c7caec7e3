// zeph-test-peer: the loopback server the tests talk to.
//
//   zeph-test-peer --dir DIR [--tls CERT KEY] [--tsa-config FILE]
//
// Listens on 127.0.0.1, a port the system picks, prints that port on a line
// and serves each connection on its own thread until standard input closes.
// Every request is saved as DIR/<name>.req, <name> being the last path
// segment. The first segments choose the answer:
//
//   /reply/<file>            the bytes of DIR/<file>, as they stand
//   /echo/<name>             200 with the request body
//   /cut/<n>/<name>          reads only n body bytes (a sender that cut its
//                            body), then answers as echo
//   /status/<code>/<name>    that status, a short text body
//   /pieces/<name>           200 "pieces of a reply", one byte per write
//   /tsa/<section>/<name>    the body is a time-stamp query; the reply is
//                            `openssl ts -reply -config FILE -section ...`
//   /hostile/<kind>/<name>   noheaderend  header lines, never the blank one
//                            dribble      a reply at one byte a second
//                            noclose      a whole reply, then no close
//                            huge         100 MB body, as fast as taken
//                            nonhttp      a status line that is not HTTP
//                            silent       no answer at all
//
// A connection that stalls for 20 s is dropped.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Options {
  std::string dir = ".";
  std::string cert, key;
  std::string tsa_config;
};

Options g_opt;
SSL_CTX *g_tls = nullptr;
std::mutex g_tsa_mu;  // `openssl ts -reply` keeps a serial file
std::atomic<unsigned> g_seq{0};

// One accepted connection, plain or TLS, with blocking I/O and a stall limit.
class Conn {
 public:
  explicit Conn(int fd) : fd_(fd) {
    timeval tv{20, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    const int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  ~Conn() {
    if (ssl_ != nullptr) {
      SSL_shutdown(ssl_);
      SSL_free(ssl_);
    }
    close(fd_);
  }
  bool Start() {
    if (g_tls == nullptr) return true;
    ssl_ = SSL_new(g_tls);
    SSL_set_fd(ssl_, fd_);
    return SSL_accept(ssl_) == 1;
  }
  long Read(char *p, size_t n) {
    if (ssl_ == nullptr) return recv(fd_, p, n, 0);
    size_t got = 0;
    return SSL_read_ex(ssl_, p, n, &got) == 1 ? static_cast<long>(got) : 0;
  }
  bool Write(const void *p, size_t n) {
    const auto *c = static_cast<const char *>(p);
    while (n > 0) {
      long w;
      if (ssl_ == nullptr) {
        w = send(fd_, c, n, MSG_NOSIGNAL);
      } else {
        size_t done = 0;
        w = SSL_write_ex(ssl_, c, n, &done) == 1 ? static_cast<long>(done) : -1;
      }
      if (w <= 0) return false;
      c += w;
      n -= static_cast<size_t>(w);
    }
    return true;
  }
  bool Write(const std::string &s) { return Write(s.data(), s.size()); }
  // Waits until the client closes (or the stall limit).
  void Drain() {
    char buf[4096];
    while (Read(buf, sizeof buf) > 0) {
    }
  }

 private:
  int fd_;
  SSL *ssl_ = nullptr;
};

struct Request {
  std::string head, body, path;
  size_t content_length = 0;
};

std::vector<std::string> Segments(const std::string &path) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < path.size()) {
    while (i < path.size() && path[i] == '/') ++i;
    const size_t j = path.find_first_of("/?", i);
    if (j == i) break;
    out.push_back(path.substr(i, j == std::string::npos ? std::string::npos : j - i));
    if (j == std::string::npos || path[j] == '?') break;
    i = j;
  }
  return out;
}

size_t ContentLength(const std::string &head) {
  std::string lower(head);
  for (char &c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const size_t at = lower.find("\r\ncontent-length:");
  return at == std::string::npos ? 0 : std::strtoul(head.c_str() + at + 17, nullptr, 10);
}

// The header, then the body: Content-Length bytes, or `body_limit` when the
// path says the sender cut its body short.
bool ReadRequest(Conn &c, Request *r) {
  std::string data;
  char buf[16384];
  size_t end;
  while ((end = data.find("\r\n\r\n")) == std::string::npos) {
    if (data.size() > (1u << 20)) return false;
    const long n = c.Read(buf, sizeof buf);
    if (n <= 0) return false;
    data.append(buf, static_cast<size_t>(n));
  }
  r->head = data.substr(0, end + 4);
  r->body = data.substr(end + 4);
  const size_t sp1 = r->head.find(' ');
  const size_t sp2 = r->head.find(' ', sp1 + 1);
  if (sp1 == std::string::npos || sp2 == std::string::npos) return false;
  r->path = r->head.substr(sp1 + 1, sp2 - sp1 - 1);
  r->content_length = ContentLength(r->head);
  size_t want = r->content_length;
  const std::vector<std::string> seg = Segments(r->path);
  if (seg.size() >= 2 && seg[0] == "cut") want = std::strtoul(seg[1].c_str(), nullptr, 10);
  while (r->body.size() < want) {
    const long n = c.Read(buf, std::min(sizeof buf, want - r->body.size()));
    if (n <= 0) return false;
    r->body.append(buf, static_cast<size_t>(n));
  }
  return true;
}

std::string SafeName(const std::string &s) {
  std::string out;
  for (const char ch : s) out.push_back(std::isalnum(static_cast<unsigned char>(ch)) || ch == '-' ? ch : '_');
  return out.empty() ? "request" : out;
}

std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string &path, const std::string &data) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(data.data(), static_cast<std::streamsize>(data.size()));
}

std::string Reply(int code, const std::string &type, const std::string &body) {
  return "HTTP/1.0 " + std::to_string(code) + " Peer\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// `openssl ts -reply` over the query; false when it fails.
bool TimeStamp(const std::string &section, const std::string &query, std::string *reply) {
  std::lock_guard lock(g_tsa_mu);
  const std::string base = g_opt.dir + "/tsa-" + std::to_string(g_seq++);
  WriteFile(base + ".tsq", query);
  const pid_t pid = fork();
  if (pid == 0) {
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    dup2(devnull, 2);
    execlp("openssl", "openssl", "ts", "-reply", "-config", g_opt.tsa_config.c_str(), "-section", section.c_str(),
           "-queryfile", (base + ".tsq").c_str(), "-out", (base + ".tsr").c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  int status = 0;
  const bool ok = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  *reply = ok ? ReadFile(base + ".tsr") : "";
  unlink((base + ".tsq").c_str());
  unlink((base + ".tsr").c_str());
  return ok && !reply->empty();
}

void Hostile(Conn &c, const std::string &kind) {
  const std::string good = Reply(200, "text/plain", "hello");
  if (kind == "noheaderend") {
    c.Write("HTTP/1.0 200 OK\r\n");
    const std::string line = "X-Filler: " + std::string(1000, 'a') + "\r\n";
    while (c.Write(line)) {
    }
  } else if (kind == "dribble") {
    for (const char ch : good) {
      if (!c.Write(&ch, 1)) return;
      sleep(1);
    }
  } else if (kind == "noclose") {
    if (c.Write(good)) c.Drain();
  } else if (kind == "huge") {
    if (!c.Write("HTTP/1.0 200 OK\r\nContent-Length: 104857600\r\n\r\n")) return;
    const std::string block(64 * 1024, 'A');
    for (int i = 0; i < 1600 && c.Write(block); ++i) {
    }
  } else if (kind == "nonhttp") {
    c.Write("SSH-2.0-OpenSSH_9.2\r\n\r\nwelcome");
  } else {  // silent
    c.Drain();
  }
}

void Serve(int fd) {
  Conn c(fd);
  Request r;
  if (!c.Start() || !ReadRequest(c, &r)) return;
  const std::vector<std::string> seg = Segments(r.path);
  WriteFile(g_opt.dir + "/" + SafeName(seg.empty() ? "" : seg.back()) + ".req", r.head + r.body);
  const std::string mode = seg.empty() ? "" : seg[0];
  if (mode == "reply" && seg.size() >= 2) {
    c.Write(ReadFile(g_opt.dir + "/" + SafeName(seg[1])));
  } else if (mode == "echo" || mode == "cut") {
    c.Write(Reply(200, "application/octet-stream", r.body));
  } else if (mode == "status" && seg.size() >= 2) {
    c.Write(Reply(std::atoi(seg[1].c_str()), "text/plain", "status " + seg[1]));
  } else if (mode == "pieces") {
    for (const char ch : Reply(200, "text/plain", "pieces of a reply")) {
      if (!c.Write(&ch, 1)) return;
      usleep(1000);
    }
  } else if (mode == "tsa" && seg.size() >= 2) {
    std::string reply;
    c.Write(TimeStamp(seg[1], r.body, &reply) ? Reply(200, "application/timestamp-reply", reply)
                                              : Reply(500, "text/plain", "openssl ts -reply failed"));
  } else if (mode == "hostile" && seg.size() >= 2) {
    Hostile(c, seg[1]);
  } else {
    c.Write(Reply(404, "text/plain", "no such mode"));
  }
}

int Usage() {
  std::fprintf(stderr, "usage: zeph-test-peer --dir DIR [--tls CERT KEY] [--tsa-config FILE]\n");
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--dir" && i + 1 < argc) {
      g_opt.dir = argv[++i];
    } else if (a == "--tls" && i + 2 < argc) {
      g_opt.cert = argv[++i];
      g_opt.key = argv[++i];
    } else if (a == "--tsa-config" && i + 1 < argc) {
      g_opt.tsa_config = argv[++i];
    } else {
      return Usage();
    }
  }
  std::signal(SIGPIPE, SIG_IGN);
  if (!g_opt.cert.empty()) {
    g_tls = SSL_CTX_new(TLS_server_method());
    if (g_tls == nullptr || SSL_CTX_use_certificate_chain_file(g_tls, g_opt.cert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(g_tls, g_opt.key.c_str(), SSL_FILETYPE_PEM) != 1) {
      ERR_print_errors_fp(stderr);
      return 1;
    }
  }
  const int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(lfd, 64) != 0 ||
      getsockname(lfd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
    std::perror("zeph-test-peer: listen");
    return 1;
  }
  std::printf("%u\n", ntohs(addr.sin_port));
  std::fflush(stdout);

  // Serve until standard input closes: the test that started us is done.
  pollfd fds[2] = {{lfd, POLLIN, 0}, {0, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0) continue;
    if (fds[1].revents != 0) {
      char ch;
      if (read(0, &ch, 1) <= 0) break;
    }
    if (fds[0].revents & POLLIN) {
      const int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) std::thread(Serve, fd).detach();
    }
  }
  // Threads may still be serving: leave without running destructors.
  std::fflush(nullptr);
  _exit(0);
}
