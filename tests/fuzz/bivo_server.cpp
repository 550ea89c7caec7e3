// Arbitrary client values into every server step. Input: a step byte, then
// the step's arguments (points of 65 bytes, scalars and e of 32), and 64
// external bytes. Statuses stay within each step's own and the draw's;
// whatever a step answers is a point of the curve and satisfies its
// relation to the inputs.

#include "bivo/bivo_math.hpp"
#include "check.hpp"

namespace {

namespace bivo = zeph::bivo;
namespace sm2 = zeph::gm::sm2;

BIVO_HANDLE Handle() {
  static const std::vector<uint8_t> entropy(256, 0x42);
  static BIVO_HANDLE h = nullptr;
  static const uint32_t made = InitializeBivoHandle(&h, entropy.data(), 256);
  fuzz::Check(made == 0);
  return h;
}

bool IsPoint(const uint8_t *p65) {
  sm2::Point p;
  return p65[0] == 0x04 && bivo::ReadPoint(p65, &p);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size != 1 + 65 + 32 + 32 + 64) return 0;
  const uint8_t *point = data + 1, *scalar = data + 66, *e = data + 98, *external = data + 130;
  uint8_t a[65], b[65], c[65];
  switch (data[0] % 4) {
    case 0: {  // key share on P1: P + G = d2^-1·P1
      const uint32_t rv = BIVO_Server_CreateKeyShareWithMixedSource(Handle(), external, point, a, b, c);
      fuzz::Check(fuzz::OneOf(rv, {0, BIVO_ERR_KEY_SHARE}));
      if (rv != 0) break;
      sm2::Point p1, p, sum, expected;
      sm2::Scalar d2_inv;
      bivo::ReadPoint(point, &p1);
      bivo::ReadPoint(c, &p);
      bivo::ReadScalar(b, &d2_inv);
      fuzz::Check(IsPoint(c) && sm2::Add(p, sm2::BaseG(), &sum) && sm2::Mul(d2_inv, p1, &expected) &&
                  std::memcmp(&sum, &expected, sizeof sum) == 0);
      break;
    }
    case 1: {  // credential of any 32 bytes
      const uint32_t rv = BIVO_Server_CreateKeyShareCredential(scalar, a);
      fuzz::Check(fuzz::OneOf(rv, {0, BIVO_ERR_CREDENTIAL}) && (rv != 0 || IsPoint(a)));
      break;
    }
    case 2: {  // signature share on (e, Q1) with any d2
      const uint32_t rv = BIVO_Server_CreateSigShareWithMixedSource(Handle(), e, point, external, scalar, a, b, c);
      fuzz::Check(fuzz::OneOf(rv, {0, BIVO_ERR_SIG_SHARE}));
      if (rv != 0) break;
      sm2::Scalar r, s3;
      bivo::ReadScalar(a, &r);
      bivo::ReadScalar(c, &s3);
      fuzz::Check(sm2::InRange(r) && sm2::InRange(s3));
      break;
    }
    default: {  // plaintext share on T1
      const uint32_t rv = BIVO_Server_CreatePlaintextShare(point, scalar, a);
      fuzz::Check(fuzz::OneOf(rv, {0, BIVO_ERR_PLAINTEXT_SHARE}) && (rv != 0 || IsPoint(a)));
      break;
    }
  }
  return 0;
}
