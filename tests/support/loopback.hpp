// Real servers on 127.0.0.1 for the tests: child processes that are always
// reaped, the loopback peer (tools/zeph-test-peer), one-shot
// `openssl s_server` exchanges, and a test PKI made with the openssl tool.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include "test_support.hpp"

namespace zeph_test {

// A child process with pipes on its standard input and output. The
// destructor closes its input, terminates it and reaps it.
class Child {
 public:
  explicit Child(const std::vector<std::string> &argv, bool quiet_stderr = false);
  ~Child();
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  pid_t pid() const { return pid_; }
  bool Write(const std::string &data);
  void CloseInput();
  std::string ReadLine();
  // Reads standard output until `done` says the bytes so far are complete,
  // or the output ends.
  std::string ReadUntil(const std::function<bool(const std::string &)> &done);

 private:
  pid_t pid_ = -1;
  int in_ = -1, out_ = -1;
};

// The port the child listens on (looked up through /proc); throws when it
// exits first.
int ListeningPort(pid_t pid);

// CA, server, TSA and stray certificates (ECDSA P-256), made once for all
// the test processes of a build. `tsa_config` serves the sections
// tsa_ok (SHA-1, SHA-2 and SM3 imprints), tsa_sha256 (SHA-256 imprints only)
// and tsa_stray (a TSA certificate under stray_ca).
struct TestPki {
  static const TestPki &Get();
  std::string ca;                       // the test CA certificate
  std::string server_cert, server_key;  // for 127.0.0.1 and localhost
  std::string other_cert, other_key;    // for other.example only
  std::string self_cert, self_key;      // for 127.0.0.1, self-signed
  std::string stray_ca;                 // a CA nobody trusts
  std::string tsa_config;
};

// tools/zeph-test-peer, plain or TLS (test PKI server certificate).
class Peer {
 public:
  explicit Peer(bool tls = false);
  int port() const { return port_; }
  // The request the peer saved for <name>.
  std::string Recorded(const std::string &name) const;
  // A canned reply: /reply/<file> answers with these bytes.
  void Can(const std::string &file, const std::string &bytes) const;

 private:
  TempDir dir_;
  Child child_;
  int port_ = 0;
};

// One exchange through `openssl s_server -naccept 1 -quiet`: the request
// arrives on its output; `reply` goes to its input, which is then closed.
class OneShotTlsServer {
 public:
  OneShotTlsServer(const std::string &cert, const std::string &key, std::string reply);
  ~OneShotTlsServer();
  int port() const { return port_; }
  // Waits for the exchange to end; the request bytes that arrived.
  std::string Request();

 private:
  Child child_;
  int port_ = 0;
  std::string reply_, request_;
  std::thread thread_;
};

}  // namespace zeph_test
