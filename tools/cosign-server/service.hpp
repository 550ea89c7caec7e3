// The co-signing service apart from any socket: one request (method name and
// JSON body) in, one answer (HTTP status and JSON body) out. The HTTP front
// end (main.cpp) and the fuzz target both drive it through Handle.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "foundation/owned.hpp"
#include "store.hpp"

namespace zeph::cosign {

// Largest request body the service reads.
inline constexpr size_t kMaxRequestBytes = 16 * 1024;

// Test-only misbehaviour of one method (--fault METHOD:KIND).
enum class FaultKind {
  kNone,
  kDrop,           // the connection is closed without an answer
  kGarbage,        // 200 with a body that is not JSON
  kDelay,          // the right answer, delay_ms late
  kBadCredential,  // a well-formed answer computed wrongly
  kRZero,          // the answer's first value is zero
};

struct Fault {
  FaultKind kind = FaultKind::kNone;
  uint32_t delay_ms = 0;
};

// "METHOD:drop|garbage|delay=MS|bad_credential|r_zero". False with a reason.
bool ParseFault(std::string_view text, std::string *method, Fault *out, std::string *why);

struct Answer {
  int status = 200;
  std::string body;
  bool drop = false;      // close the connection instead of answering
  uint32_t delay_ms = 0;  // answer this late
};

// Makes the RSA key of a "BIVORSAGenKeyPair" (OpenSSL by default; the fuzz
// target hands out one prepared key).
using RsaKeyMaker = std::function<EvpPkeyPtr(int bits)>;

class Service {
 public:
  explicit Service(ShareStore *store, RsaKeyMaker rsa_key_maker = nullptr);

  void SetFault(const std::string &method, Fault fault) { faults_[method] = fault; }

  // `method` is the path below the base path ("BIVOSignature").
  Answer Handle(std::string_view method, std::string_view body) const;

 private:
  ShareStore *store_;
  RsaKeyMaker rsa_key_maker_;
  std::map<std::string, Fault, std::less<>> faults_;
};

}  // namespace zeph::cosign
