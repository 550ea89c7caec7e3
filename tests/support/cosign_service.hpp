// An in-process co-signing service on 127.0.0.1 for the client's tests: it
// passes each request to its own reference service (tools/zeph-cosign-server),
// one connection at a time on its own thread, and lets a test spoil any
// answer before it goes out.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include <openssl/evp.h>

#include "cosign_server.hpp"
#include "test_support.hpp"

namespace zeph_test {

// A 65-byte SM2 point (a co-signed key) as an OpenSSL public key; the caller
// frees it.
EVP_PKEY *Sm2PointKey(const Bytes &point);

class CosignService {
 public:
  // Called with the method and the result's members (base64 values) before
  // the reply is written; it may change them, or set *raw to a whole reply
  // body (sent with HTTP status *http_status) instead.
  using Tamper = std::function<void(const std::string &method, std::map<std::string, std::string> *result,
                                    std::string *raw, int *http_status)>;

  CosignService();
  ~CosignService();
  CosignService(const CosignService &) = delete;
  CosignService &operator=(const CosignService &) = delete;

  int port() const { return port_; }
  // The base URL the client is given.
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/cosign/"; }
  void set_tamper(Tamper t);
  // Answer "result" as an object instead of a string holding JSON text.
  void set_result_as_object(bool on) { result_object_ = on; }
  // Read requests but never answer (a service that hangs).
  void set_silent(bool on) { silent_ = on; }
  // Requests seen for a method.
  int Count(const std::string &method) const;
  // The last request body of a method.
  std::string LastRequest(const std::string &method) const;
  // Containers the service holds keys for.
  size_t Containers() const;

 private:
  void Serve();
  std::string Answer(const std::string &method, const std::string &body, int *http_status);

  int listen_fd_ = -1, stop_[2] = {-1, -1};
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mu_;
  Tamper tamper_;
  std::atomic<bool> result_object_{false}, silent_{false};
  std::map<std::string, int> counts_;
  std::map<std::string, std::string> last_;
  std::set<std::string> containers_;
  CosignServer server_;
};

}  // namespace zeph_test
