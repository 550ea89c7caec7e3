// Arbitrary bytes as a co-signing service's reply body, read as the client
// reads every reply: a status, never a crash; what is accepted has exactly
// the size and range the client needs.
#include "bivo/bivo_client.hpp"
#include "check.hpp"
#include "gm/sm2_curve.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string result;
  const uint32_t rv = zeph::bivo::ReadReply({reinterpret_cast<const char *>(data), size}, &result);
  fuzz::Check(fuzz::OneOf(rv, {0, ERR_JSON_INVALID, ERR_HTTP_FAILED}));
  if (rv != 0) return 0;
  for (const char *key : {"pubKey", "credential", "t2"}) {
    zeph::bivo::Point p;
    fuzz::Check(fuzz::OneOf(zeph::bivo::ResultPoint(result, key, &p), {0, ERR_COSIGN_FAILED, ERR_JSON_INVALID}));
  }
  for (const char *key : {"r", "s2", "s3"}) {
    zeph::bivo::Scalar k;
    const uint32_t got = zeph::bivo::ResultScalar(result, key, &k);
    fuzz::Check(fuzz::OneOf(got, {0, ERR_COSIGN_FAILED, ERR_JSON_INVALID}) && (got != 0 || zeph::gm::sm2::InRange(k)));
  }
  std::vector<uint8_t> n;
  fuzz::Check(zeph::bivo::ResultBytes(result, "n", 512, &n) != 0 || n.size() <= 512);
  return 0;
}
