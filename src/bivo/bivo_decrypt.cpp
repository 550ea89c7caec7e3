// Two-party decryption: the client turns C1 into T1 with d1^-1, the server T1
// into T2 with d2^-1, and the client removes C1 (T2 - C1 = d·C1), derives the
// key stream and checks C3.
#include <algorithm>
#include <cstring>

#include <openssl/crypto.h>

#include "bivo/bivo_math.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "gm/gm_internal.hpp"

namespace {

// p of the curve, big-endian.
constexpr uint8_t kP[32] = {0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                            0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00,
                            0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// Both coordinates are field elements (public values).
bool BelowP(const zeph::bivo::Ciphertext &c) {
  return std::memcmp(c.x, kP, sizeof kP) < 0 && std::memcmp(c.y, kP, sizeof kP) < 0;
}

bool AllZero(std::span<const uint8_t> bytes) {
  uint8_t acc = 0;
  for (uint8_t b : bytes) acc |= b;
  return acc == 0;
}

}  // namespace

namespace zeph::bivo {

namespace sm2 = gm::sm2;

uint32_t SplitCiphertext(std::span<const uint8_t> der, Ciphertext *out) {
  if (der.empty() || der.size() > static_cast<size_t>(INT32_MAX)) return BIVO_ERR_CIPHER_DER;
  const unsigned char *p = der.data();
  const Sm2CiphertextPtr s(d2i_SM2_Ciphertext_Structure(nullptr, &p, static_cast<long>(der.size())));
  if (!s || p != der.data() + der.size()) return BIVO_ERR_CIPHER_DER;
  if (ASN1_STRING_length(s->C3) != static_cast<int>(sm2::kHashLen)) return BIVO_ERR_CIPHER_HASH;
  return sm2::FromStructure(*s, out) ? 0 : BIVO_ERR_PLAINTEXT_SHARE;
}

uint32_t CiphertextC1(const Ciphertext &c, Point *c1) {
  uint8_t xy[64];
  std::memcpy(xy, c.x, 32);
  std::memcpy(xy + 32, c.y, 32);
  if (AllZero(xy)) return BIVO_ERR_C1_INFINITY;
  return sm2::PointFromXY(xy, c1) ? 0 : BIVO_ERR_PLAINTEXT_SHARE;
}

uint32_t CreateClientPlaintextShare(const Point &c1, const Scalar &d1_inv, Point *t1) {
  Point t;
  if (!sm2::InRange(d1_inv) || !sm2::Mul(d1_inv, c1, &t)) return BIVO_ERR_PLAINTEXT_SHARE;
  *t1 = t;
  return 0;
}

uint32_t CreateServerPlaintextShare(const Point &t1, const Scalar &d2_inv, Point *t2) {
  return CreateClientPlaintextShare(t1, d2_inv, t2);
}

uint32_t CombinePlaintextShares(const Point &c1, std::span<const uint8_t> c2, const uint8_t c3[32], const Point &t2,
                                uint8_t *plain) {
  if (c2.size() > sm2::kKdfMaxLen) return BIVO_ERR_COMBINE;
  Wiped<Point> shared;  // (x2, y2) = d·C1
  if (!sm2::Sub(t2, c1, &shared)) return BIVO_ERR_COMBINE;
  return Guarded(
      [&]() -> uint32_t {
        SecureBytes m(c2.size());
        sm2::Kdf({shared.x, 64}, {}, m.data(), m.size());
        // An all-zero key stream would reveal C2 as the message (GM/T 0003.4
        // refuses it; so do OpenSSL and our encryption). Empty C2 counts too.
        if (AllZero(m.span())) return BIVO_ERR_COMBINE;
        for (size_t i = 0; i < m.size(); ++i) m[i] ^= c2[i];
        BIVO_SM3_CTX ctx;
        uint8_t u[32];
        gm::Sm3Init(&ctx);
        gm::Sm3Update(&ctx, shared.x, 32);
        gm::Sm3Update(&ctx, m.data(), m.size());
        gm::Sm3Update(&ctx, shared.y, 32);
        gm::Sm3Final(u, &ctx);
        OPENSSL_cleanse(&ctx, sizeof ctx);
        if (CRYPTO_memcmp(u, c3, sizeof u) != 0) return BIVO_ERR_COMBINE;
        if (!m.empty()) std::memcpy(plain, m.data(), m.size());
        return 0;
      },
      BIVO_ERR_NO_MEMORY);
}

}  // namespace zeph::bivo

namespace {

namespace bivo = zeph::bivo;
namespace sm2 = zeph::gm::sm2;

// 0x04 || x || y.
void PutC1(const bivo::Ciphertext &c, uint8_t *out) {
  out[0] = 0x04;
  std::memcpy(out + 1, c.x, 32);
  std::memcpy(out + 33, c.y, 32);
}

uint32_t ClientShare(const uint8_t *der, uint32_t der_len, const uint8_t *d1_inv_in, uint8_t *t1_out, uint8_t *c1_out,
                     uint8_t *c2_out, uint32_t *c2_len, uint8_t *c3_out) {
  if ((der == nullptr && der_len != 0) || d1_inv_in == nullptr || t1_out == nullptr || c1_out == nullptr ||
      c2_out == nullptr || c2_len == nullptr || c3_out == nullptr) {
    return BIVO_ERR_NULL_POINTER;
  }
  bivo::Wiped<bivo::Scalar> d1_inv;
  bivo::ReadScalar(d1_inv_in, &d1_inv);
  if (!sm2::InRange(d1_inv)) return BIVO_ERR_PLAINTEXT_SHARE;
  bivo::Ciphertext c;
  ZEPH_TRY(bivo::SplitCiphertext({der, der_len}, &c));
  if (c.c2.size() > *c2_len) {
    *c2_len = static_cast<uint32_t>(c.c2.size());
    return BIVO_ERR_BUFFER_TOO_SMALL;
  }
  if (!BelowP(c)) return BIVO_ERR_PLAINTEXT_SHARE;
  // The parts go out before C1 is checked against the curve: callers keep
  // them for the combine.
  std::memcpy(c3_out, c.c3, sizeof c.c3);
  if (!c.c2.empty()) std::memcpy(c2_out, c.c2.data(), c.c2.size());
  *c2_len = static_cast<uint32_t>(c.c2.size());
  PutC1(c, c1_out);
  bivo::Point c1, t1;
  ZEPH_TRY(bivo::CiphertextC1(c, &c1));
  ZEPH_TRY(bivo::CreateClientPlaintextShare(c1, d1_inv, &t1));
  sm2::PointTo65(t1, t1_out);
  return 0;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t BIVO_Client_CreatePlaintextShare(const unsigned char *cipher_der, uint32_t cipher_len,
                                                   const unsigned char *d1_inv, unsigned char *T1_out,
                                                   unsigned char *C1_out, unsigned char *C2_out, uint32_t *C2_len,
                                                   unsigned char *C3_out) {
  return zeph::Guarded(
      [&] { return ClientShare(cipher_der, cipher_len, d1_inv, T1_out, C1_out, C2_out, C2_len, C3_out); },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Server_CreatePlaintextShare(const unsigned char *T1, const unsigned char *d2_inv,
                                                   unsigned char *T2_out) {
  if (T1 == nullptr || d2_inv == nullptr || T2_out == nullptr) return BIVO_ERR_NULL_POINTER;
  bivo::Point t1, t2;
  if (!bivo::ReadPoint(T1, &t1)) return BIVO_ERR_PLAINTEXT_SHARE;
  bivo::Wiped<bivo::Scalar> k;
  bivo::ReadScalar(d2_inv, &k);
  ZEPH_TRY(bivo::CreateServerPlaintextShare(t1, k, &t2));
  sm2::PointTo65(t2, T2_out);
  return 0;
}

ZEPH_API uint32_t BIVO_Client_CombinePlaintextShares(const unsigned char *C1, const unsigned char *C2, uint32_t C2_len,
                                                     const unsigned char *C3, const unsigned char *T2,
                                                     unsigned char *plaintext_out) {
  if (C1 == nullptr || (C2 == nullptr && C2_len != 0) || C3 == nullptr || T2 == nullptr ||
      (plaintext_out == nullptr && C2_len != 0)) {
    return BIVO_ERR_NULL_POINTER;
  }
  bivo::Point c1, t2;
  if (!bivo::ReadPoint(C1, &c1) || !bivo::ReadPoint(T2, &t2)) return BIVO_ERR_COMBINE;
  return bivo::CombinePlaintextShares(c1, {C2, C2_len}, C3, t2, plaintext_out);
}

}  // extern "C"
