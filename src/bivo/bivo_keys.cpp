// Two-party key generation: the client's and the server's shares, the
// credential and its check; the wire forms and random sources every step
// shares; the module's version and status.
#include <cstring>

#include "bivo/bivo_math.hpp"
#include "foundation/status_flow.hpp"
#include "gm/sm2_nonce.hpp"
#include "zeph_c_sm2.h"

namespace zeph::bivo {

namespace sm2 = gm::sm2;

bool ReadPoint(const uint8_t *p65, Point *out) { return sm2::PointFromXY(p65 + 1, out); }

void ReadScalar(const uint8_t *b32, Scalar *out) { std::memcpy(out->b, b32, sm2::kScalarLen); }

void WriteScalar(const Scalar &k, uint8_t *out32) { std::memcpy(out32, k.b, sm2::kScalarLen); }

NonceSource PlainSource(uint32_t on_failure) {
  return [on_failure](Scalar *k) { return sm2::DrawPlain(k, on_failure); };
}

NonceSource DrbgSource(BIVO_HANDLE handle, uint32_t on_failure) {
  return [handle, on_failure](Scalar *k) { return sm2::DrawDrbg(handle, k, on_failure); };
}

NonceSource MixedSource(BIVO_HANDLE handle, const uint8_t *external32, uint32_t on_failure) {
  return [handle, external32, on_failure](Scalar *k) {
    if (external32 == nullptr) return BIVO_ERR_NULL_POINTER;
    return sm2::DrawMixed(handle, external32, sm2::kScalarLen, k, on_failure);
  };
}

uint32_t CreateClientKeyShare(const NonceSource &draw, ClientKeyShare *out) {
  Wiped<Scalar> d1, d1_inv;
  Point p1;
  ZEPH_TRY(draw(&d1));
  if (!sm2::ModInv(d1, &d1_inv) || !sm2::MulBase(d1_inv, &p1)) return BIVO_ERR_KEY_SHARE;
  out->d1 = d1;
  out->d1_inv = d1_inv;
  out->p1 = p1;
  return 0;
}

uint32_t CreateServerKeyShare(const NonceSource &draw, const Point &p1, ServerKeyShare *out) {
  Wiped<Scalar> d2, d2_inv;
  Point t, p;
  ZEPH_TRY(draw(&d2));
  // P at infinity would be the key d = 0.
  if (!sm2::ModInv(d2, &d2_inv) || !sm2::Mul(d2_inv, p1, &t) || !sm2::Sub(t, sm2::BaseG(), &p)) {
    return BIVO_ERR_KEY_SHARE;
  }
  out->d2 = d2;
  out->d2_inv = d2_inv;
  out->p = p;
  return 0;
}

uint32_t CreateCredential(const Scalar &d2_inv, Point *credential) {
  Point c;
  if (!sm2::InRange(d2_inv) || !sm2::MulBase(d2_inv, &c)) return BIVO_ERR_CREDENTIAL;
  *credential = c;
  return 0;
}

uint32_t VerifyKeyShares(const Scalar &d1, const Point &p, const Point &credential) {
  // P + G = (d1·d2)^-1·G, so d1·(P + G) = d2^-1·G exactly when P came from
  // this client's P1. P = -G (a key of n - 1) cannot come from any share.
  Point sum, expected;
  if (!sm2::InRange(d1) || !sm2::Add(p, sm2::BaseG(), &sum) || !sm2::Mul(d1, sum, &expected)) {
    return BIVO_ERR_KEY_SHARES;
  }
  return std::memcmp(&expected, &credential, sizeof expected) == 0 ? 0 : BIVO_ERR_KEY_SHARES;
}

}  // namespace zeph::bivo

namespace {

namespace bivo = zeph::bivo;
namespace sm2 = zeph::gm::sm2;

uint32_t ClientKeyShare(const bivo::NonceSource &draw, uint8_t *d1_out, uint8_t *d1_inv_out, uint8_t *p1_out) {
  if (d1_out == nullptr || d1_inv_out == nullptr || p1_out == nullptr) return BIVO_ERR_NULL_POINTER;
  bivo::Wiped<bivo::ClientKeyShare> share;
  ZEPH_TRY(bivo::CreateClientKeyShare(draw, &share));
  bivo::WriteScalar(share.d1, d1_out);
  bivo::WriteScalar(share.d1_inv, d1_inv_out);
  sm2::PointTo65(share.p1, p1_out);
  return 0;
}

uint32_t ServerKeyShare(const bivo::NonceSource &draw, const uint8_t *p1_in, uint8_t *d2_out, uint8_t *d2_inv_out,
                        uint8_t *p_out) {
  if (p1_in == nullptr || d2_out == nullptr || d2_inv_out == nullptr || p_out == nullptr) {
    return BIVO_ERR_NULL_POINTER;
  }
  bivo::Point p1;
  if (!bivo::ReadPoint(p1_in, &p1)) return BIVO_ERR_KEY_SHARE;
  bivo::Wiped<bivo::ServerKeyShare> share;
  ZEPH_TRY(bivo::CreateServerKeyShare(draw, p1, &share));
  bivo::WriteScalar(share.d2, d2_out);
  bivo::WriteScalar(share.d2_inv, d2_inv_out);
  sm2::PointTo65(share.p, p_out);
  return 0;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t BIVO_get_version(BIVO_HANDLE) { return BIVO_VERSION; }

ZEPH_API uint32_t BIVO_get_status(BIVO_HANDLE *handle) {
  ZEPH_TRY(BIVO_test_crypto_algorithm());
  if (handle == nullptr || *handle == nullptr) return BIVO_ERR_NULL_POINTER;
  int64_t counter = 0;
  ZEPH_TRY(BIVO_sm3_hash_drbg_get_reseed_counter((*handle)->drbg, &counter));
  return counter >= (int64_t{1} << 48) ? BIVO_ERR_RESEED_REQUIRED : 0;
}

ZEPH_API uint32_t BIVO_Client_CreateKeyShare(unsigned char *d1_out, unsigned char *d1_inv_out, unsigned char *P1_out) {
  return zeph::Guarded(
      [&] { return ClientKeyShare(bivo::PlainSource(BIVO_ERR_KEY_SHARE), d1_out, d1_inv_out, P1_out); },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateKeyShareWithDrbg(BIVO_HANDLE handle, unsigned char *d1_out,
                                                     unsigned char *d1_inv_out, unsigned char *P1_out) {
  return zeph::Guarded(
      [&] { return ClientKeyShare(bivo::DrbgSource(handle, BIVO_ERR_KEY_SHARE), d1_out, d1_inv_out, P1_out); },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateKeyShareWithMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                            unsigned char *d1_out, unsigned char *d1_inv_out,
                                                            unsigned char *P1_out) {
  return zeph::Guarded(
      [&] {
        return ClientKeyShare(bivo::MixedSource(handle, external32, BIVO_ERR_KEY_SHARE), d1_out, d1_inv_out, P1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Server_CreateKeyShare(const unsigned char *P1, unsigned char *d2_out, unsigned char *d2_inv_out,
                                             unsigned char *P_out) {
  return zeph::Guarded(
      [&] { return ServerKeyShare(bivo::PlainSource(BIVO_ERR_KEY_SHARE), P1, d2_out, d2_inv_out, P_out); },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Server_CreateKeyShareWithDrbg(BIVO_HANDLE handle, const unsigned char *P1, unsigned char *d2_out,
                                                     unsigned char *d2_inv_out, unsigned char *P_out) {
  return zeph::Guarded(
      [&] { return ServerKeyShare(bivo::DrbgSource(handle, BIVO_ERR_KEY_SHARE), P1, d2_out, d2_inv_out, P_out); },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Server_CreateKeyShareWithMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                            const unsigned char *P1, unsigned char *d2_out,
                                                            unsigned char *d2_inv_out, unsigned char *P_out) {
  return zeph::Guarded(
      [&] {
        return ServerKeyShare(bivo::MixedSource(handle, external32, BIVO_ERR_KEY_SHARE), P1, d2_out, d2_inv_out, P_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Server_CreateKeyShareCredential(const unsigned char *d2_inv, unsigned char *credential_out) {
  if (d2_inv == nullptr || credential_out == nullptr) return BIVO_ERR_NULL_POINTER;
  bivo::Wiped<bivo::Scalar> k;
  bivo::ReadScalar(d2_inv, &k);
  bivo::Point credential;
  ZEPH_TRY(bivo::CreateCredential(k, &credential));
  sm2::PointTo65(credential, credential_out);
  return 0;
}

ZEPH_API uint32_t BIVO_Client_VerifyKeyShares(const unsigned char *d1, const unsigned char *P,
                                              const unsigned char *credential) {
  if (d1 == nullptr || P == nullptr || credential == nullptr) return BIVO_ERR_NULL_POINTER;
  bivo::Point p, c;
  if (!bivo::ReadPoint(P, &p) || !bivo::ReadPoint(credential, &c)) return BIVO_ERR_KEY_SHARES;
  bivo::Wiped<bivo::Scalar> k;
  bivo::ReadScalar(d1, &k);
  return bivo::VerifyKeyShares(k, p, c);
}

}  // extern "C"
