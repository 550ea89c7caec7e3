// Arbitrary bytes as a co-signing service's reply body, read as the client
// reads every reply: a status, never a crash; what is accepted has exactly
// the size and range the client needs.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bivo/bivo_client.hpp"
#include "gm/sm2_curve.hpp"
#include "zeph_c_status.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string result;
  const uint32_t rv = zeph::bivo::ReadReply({reinterpret_cast<const char *>(data), size}, &result);
  Check(rv == 0 || rv == ERR_JSON_INVALID || rv == ERR_HTTP_FAILED);
  if (rv != 0) return 0;
  for (const char *key : {"pubKey", "credential", "t2"}) {
    zeph::bivo::Point p;
    const uint32_t got = zeph::bivo::ResultPoint(result, key, &p);
    Check(got == 0 || got == ERR_COSIGN_FAILED || got == ERR_JSON_INVALID);
  }
  for (const char *key : {"r", "s2", "s3"}) {
    zeph::bivo::Scalar k;
    const uint32_t got = zeph::bivo::ResultScalar(result, key, &k);
    Check(got == 0 || got == ERR_COSIGN_FAILED || got == ERR_JSON_INVALID);
    if (got == 0) Check(zeph::gm::sm2::InRange(k));
  }
  std::vector<uint8_t> n;
  if (zeph::bivo::ResultBytes(result, "n", 512, &n) == 0) Check(n.size() <= 512);
  return 0;
}
