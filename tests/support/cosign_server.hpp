// The reference co-signing service (tools/zeph-cosign-server) for the tests:
// started on 127.0.0.1, port 0, a store in a temporary folder; stopped (and
// reaped) when the object goes.
//
//   zeph_test::CosignServer server({"BIVOSignature:r_zero"});
//   ... post to server.Url("BIVOSignature") ...
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "loopback.hpp"

namespace zeph_test {

class CosignServer {
 public:
  // faults: each "METHOD:KIND"; tls: HTTPS with the test PKI's server
  // certificate.
  explicit CosignServer(std::vector<std::string> faults = {}, std::string base_path = "/", bool tls = false);

  int port() const { return port_; }
  // "http://127.0.0.1:PORT" + base path (+ method).
  std::string Url(const std::string &method = "") const;
  std::string db() const { return dir_.file("shares.db"); }

  // SIGKILL, as a crash would; Start() brings it back on the same store (on
  // a new port).
  void Kill();
  void Start();

 private:
  std::vector<std::string> faults_;
  std::string base_path_;
  bool tls_;
  TempDir dir_;
  std::unique_ptr<Child> child_;
  int port_ = 0;
};

}  // namespace zeph_test
