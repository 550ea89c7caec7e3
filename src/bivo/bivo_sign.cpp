// Two-party signing: the client's nonce share, the server's r, s2 and s3,
// and the client's assembly into an ordinary SM2 signature, optionally
// verified before it is released.
#include <cstring>

#include "bivo/bivo_math.hpp"
#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "gm/sm2_keys.hpp"
#include "gm/sm2_verify.hpp"
#include "zeph_c_sm2.h"

namespace zeph::bivo {

namespace sm2 = gm::sm2;

namespace {

// r = 0 or s3 = 0 happens with probability about 2^-255 per attempt; the
// bound only keeps a broken generator from holding the server forever.
constexpr int kMaxAttempts = 8;

// Appends one minimal DER INTEGER of a 32-byte unsigned value.
size_t PutInteger(const Scalar &v, uint8_t *out) {
  size_t skip = 0;
  while (skip < sm2::kScalarLen - 1 && v.b[skip] == 0) ++skip;
  const bool pad = (v.b[skip] & 0x80) != 0;
  const size_t len = sm2::kScalarLen - skip + (pad ? 1 : 0);
  out[0] = 0x02;
  out[1] = static_cast<uint8_t>(len);
  if (pad) out[2] = 0x00;
  std::memcpy(out + 2 + (pad ? 1 : 0), v.b + skip, sm2::kScalarLen - skip);
  return 2 + len;
}

}  // namespace

uint32_t CreateClientSigShare(const NonceSource &draw, Scalar *k1, Point *q1) {
  Wiped<Scalar> k;
  Point q;
  ZEPH_TRY(draw(&k));
  if (!sm2::MulBase(k, &q)) return BIVO_ERR_SIG_SHARE;
  *k1 = k;
  *q1 = q;
  return 0;
}

uint32_t CreateServerSigShare(const NonceSource &draw_k2, const NonceSource &draw_k3, const uint8_t e[32],
                              const Point &q1, const Scalar &d2, SignatureShare *out) {
  if (!sm2::InRange(d2)) return BIVO_ERR_SIG_SHARE;
  Scalar e_mod_n, x1, r;
  sm2::Reduce(e, &e_mod_n);
  Wiped<Scalar> k2, k3, r_plus_k2;
  Wiped<Point> q2, t;
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    ZEPH_TRY(draw_k2(&k2));
    if (!sm2::MulBase(k2, &q2)) return BIVO_ERR_SIG_SHARE;
    ZEPH_TRY(draw_k3(&k3));
    Point x;
    // X at infinity (k3·Q1 = -k2·G) is as unlikely as r = 0: draw again.
    if (!sm2::Mul(k3, q1, &t)) return BIVO_ERR_SIG_SHARE;
    if (!sm2::Add(t, q2, &x)) continue;
    sm2::Reduce(x.x, &x1);
    sm2::ModAdd(x1, e_mod_n, &r);
    sm2::ModAdd(r, k2, &r_plus_k2);
    if (sm2::IsZero(r) || sm2::IsZero(r_plus_k2)) continue;
    sm2::ModMul(d2, k3, &out->s2);
    sm2::ModMul(d2, r_plus_k2, &out->s3);
    out->r = r;
    return 0;
  }
  return BIVO_ERR_SIG_SHARE;
}

uint32_t AssembleSignature(const Scalar &d1, const Scalar &k1, const SignatureShare &share, Scalar *s) {
  // Every value from the server is checked: out-of-range values would let a
  // hostile server steer s.
  for (const Scalar *v : {&d1, &k1, &share.r, &share.s2, &share.s3}) {
    if (!sm2::InRange(*v)) return BIVO_ERR_ASSEMBLY;
  }
  // s = d1·k1·s2 + d1·s3 - r = (1 + d)^-1·(k - r·d), k = k1·k3 + k2.
  Wiped<Scalar> t, u;
  Scalar sum;
  sm2::ModMul(d1, k1, &t);
  sm2::ModMul(t, share.s2, &t);
  sm2::ModMul(d1, share.s3, &u);
  sm2::ModAdd(t, u, &sum);
  sm2::ModSub(sum, share.r, &sum);
  if (sm2::IsZero(sum)) return BIVO_ERR_ZERO_S;
  *s = sum;
  return 0;
}

uint32_t AssembleVerifiedSignature(const Scalar &d1, const Scalar &k1, const SignatureShare &share, const uint8_t e[32],
                                   const Point &key, Scalar *s) {
  Scalar sum;
  ZEPH_TRY(AssembleSignature(d1, k1, share, &sum));
  ZEPH_TRY(sm2::VerifyDigest(e, key, share.r, sum));
  *s = sum;
  return 0;
}

size_t EncodeSignature(const Scalar &r, const Scalar &s, uint8_t out[kSignatureMax]) {
  uint8_t body[kSignatureMax];
  size_t n = PutInteger(r, body);
  n += PutInteger(s, body + n);
  out[0] = 0x30;
  out[1] = static_cast<uint8_t>(n);
  std::memcpy(out + 2, body, n);
  return n + 2;
}

}  // namespace zeph::bivo

namespace {

namespace bivo = zeph::bivo;
namespace sm2 = zeph::gm::sm2;

bool Writable(const uint8_t *k1_out, const uint8_t *q1_out) { return k1_out != nullptr && q1_out != nullptr; }

uint32_t ClientOnDigest(const bivo::NonceSource &draw, uint8_t *k1_out, uint8_t *q1_out) {
  if (!Writable(k1_out, q1_out)) return BIVO_ERR_NULL_POINTER;
  bivo::Wiped<bivo::Scalar> k1;
  bivo::Point q1;
  ZEPH_TRY(bivo::CreateClientSigShare(draw, &k1, &q1));
  bivo::WriteScalar(k1, k1_out);
  sm2::PointTo65(q1, q1_out);
  return 0;
}

// e from the identity, the key and the message, then the nonce share.
uint32_t ClientWithKey(const bivo::NonceSource &draw, const char *id, const uint8_t *pubkey65, uint32_t pubkey_len,
                       const uint8_t *msg, uint32_t msg_len, uint8_t *k1_out, uint8_t *e_out, uint8_t *q1_out) {
  if (id == nullptr || pubkey65 == nullptr || (msg == nullptr && msg_len != 0) || e_out == nullptr ||
      !Writable(k1_out, q1_out)) {
    return BIVO_ERR_NULL_POINTER;
  }
  // Z must come from a key that is a point of the curve.
  sm2::Point key;
  if (!sm2::KeyFromArgument(pubkey65, pubkey_len, &key)) return BIVO_ERR_SIG_SHARE;
  uint8_t e[32];
  ZEPH_TRY(BIVO_ComputePreprocessSm3Digest(id, pubkey65, pubkey_len, msg, msg_len, e));
  ZEPH_TRY(ClientOnDigest(draw, k1_out, q1_out));
  std::memcpy(e_out, e, sizeof e);
  return 0;
}

uint32_t ClientWithCert(const bivo::NonceSource &draw, const uint8_t *cert, uint32_t cert_len, const uint8_t *msg,
                        uint32_t msg_len, uint8_t *k1_out, uint8_t *e_out, uint8_t *q1_out) {
  uint8_t key[sm2::kPointLen];
  ZEPH_TRY(sm2::CertKey(cert, cert_len, key));
  return ClientWithKey(draw, zeph::kDefaultSm2Id, key, sizeof key, msg, msg_len, k1_out, e_out, q1_out);
}

uint32_t ClientWithCertFile(const bivo::NonceSource &draw, const char *path, const uint8_t *msg, uint32_t msg_len,
                            uint8_t *k1_out, uint8_t *e_out, uint8_t *q1_out) {
  if (path == nullptr) return BIVO_ERR_NULL_POINTER;
  uint8_t key[sm2::kPointLen];
  ZEPH_TRY(sm2::CertFileKey(path, key));
  return ClientWithKey(draw, zeph::kDefaultSm2Id, key, sizeof key, msg, msg_len, k1_out, e_out, q1_out);
}

uint32_t Server(const bivo::NonceSource &draw_k2, const bivo::NonceSource &draw_k3, const uint8_t *e,
                const uint8_t *q1_in, const uint8_t *d2_in, uint8_t *r_out, uint8_t *s2_out, uint8_t *s3_out) {
  if (e == nullptr || q1_in == nullptr || d2_in == nullptr || r_out == nullptr || s2_out == nullptr ||
      s3_out == nullptr) {
    return BIVO_ERR_NULL_POINTER;
  }
  bivo::Point q1;
  if (!bivo::ReadPoint(q1_in, &q1)) return BIVO_ERR_SIG_SHARE;
  bivo::Wiped<bivo::Scalar> d2;
  bivo::ReadScalar(d2_in, &d2);
  bivo::SignatureShare share;
  ZEPH_TRY(bivo::CreateServerSigShare(draw_k2, draw_k3, e, q1, d2, &share));
  bivo::WriteScalar(share.r, r_out);
  bivo::WriteScalar(share.s2, s2_out);
  bivo::WriteScalar(share.s3, s3_out);
  return 0;
}

// The scalars of an assembly; null when a pointer is missing.
struct AssemblyInput {
  bivo::Wiped<bivo::Scalar> d1, k1;
  bivo::SignatureShare share;
};

bool ReadAssembly(const uint8_t *d1, const uint8_t *k1, const uint8_t *r, const uint8_t *s2, const uint8_t *s3,
                  const uint8_t *sig_out, const uint32_t *sig_len, AssemblyInput *in) {
  if (d1 == nullptr || k1 == nullptr || r == nullptr || s2 == nullptr || s3 == nullptr || sig_out == nullptr ||
      sig_len == nullptr) {
    return false;
  }
  bivo::ReadScalar(d1, &in->d1);
  bivo::ReadScalar(k1, &in->k1);
  bivo::ReadScalar(r, &in->share.r);
  bivo::ReadScalar(s2, &in->share.s2);
  bivo::ReadScalar(s3, &in->share.s3);
  return true;
}

uint32_t PutSignature(const bivo::Scalar &r, const bivo::Scalar &s, uint8_t *sig_out, uint32_t *sig_len) {
  *sig_len = static_cast<uint32_t>(bivo::EncodeSignature(r, s, sig_out));
  return 0;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t BIVO_Client_CreateSigShareOnDigest(const unsigned char *, unsigned char *k1_out,
                                                     unsigned char *Q1_out) {
  return zeph::Guarded([&] { return ClientOnDigest(bivo::PlainSource(BIVO_ERR_SIG_SHARE), k1_out, Q1_out); },
                       BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareOnDigestWithDrbg(BIVO_HANDLE handle, const unsigned char *,
                                                             unsigned char *k1_out, unsigned char *Q1_out) {
  return zeph::Guarded([&] { return ClientOnDigest(bivo::DrbgSource(handle, BIVO_ERR_SIG_SHARE), k1_out, Q1_out); },
                       BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareOnDigestWithMixedSource(BIVO_HANDLE handle, const unsigned char *,
                                                                    const unsigned char *external32,
                                                                    unsigned char *k1_out, unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] { return ClientOnDigest(bivo::MixedSource(handle, external32, BIVO_ERR_SIG_SHARE), k1_out, Q1_out); },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithPubKey(const char *id, const unsigned char *pubkey65,
                                                       uint32_t pubkey_len, const unsigned char *msg, uint32_t msg_len,
                                                       unsigned char *k1_out, unsigned char *e_out,
                                                       unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithKey(bivo::PlainSource(BIVO_ERR_SIG_SHARE), id, pubkey65, pubkey_len, msg, msg_len, k1_out,
                             e_out, Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCert(const unsigned char *cert_der, uint32_t cert_len,
                                                     const unsigned char *msg, uint32_t msg_len, unsigned char *k1_out,
                                                     unsigned char *e_out, unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithCert(bivo::PlainSource(BIVO_ERR_SIG_SHARE), cert_der, cert_len, msg, msg_len, k1_out, e_out,
                              Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertFile(const char *path, const unsigned char *msg, uint32_t msg_len,
                                                         unsigned char *k1_out, unsigned char *e_out,
                                                         unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithCertFile(bivo::PlainSource(BIVO_ERR_SIG_SHARE), path, msg, msg_len, k1_out, e_out, Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithPubKeyAndDrbg(BIVO_HANDLE handle, const char *id,
                                                              const unsigned char *pubkey65, uint32_t pubkey_len,
                                                              const unsigned char *msg, uint32_t msg_len,
                                                              unsigned char *k1_out, unsigned char *e_out,
                                                              unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithKey(bivo::DrbgSource(handle, BIVO_ERR_SIG_SHARE), id, pubkey65, pubkey_len, msg, msg_len,
                             k1_out, e_out, Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertAndDrbg(BIVO_HANDLE handle, const unsigned char *cert_der,
                                                            uint32_t cert_len, const unsigned char *msg,
                                                            uint32_t msg_len, unsigned char *k1_out,
                                                            unsigned char *e_out, unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithCert(bivo::DrbgSource(handle, BIVO_ERR_SIG_SHARE), cert_der, cert_len, msg, msg_len, k1_out,
                              e_out, Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertFileAndDrbg(BIVO_HANDLE handle, const char *path,
                                                                const unsigned char *msg, uint32_t msg_len,
                                                                unsigned char *k1_out, unsigned char *e_out,
                                                                unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithCertFile(bivo::DrbgSource(handle, BIVO_ERR_SIG_SHARE), path, msg, msg_len, k1_out, e_out,
                                  Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithPubKeyAndMixedSource(BIVO_HANDLE handle,
                                                                     const unsigned char *external32, const char *id,
                                                                     const unsigned char *pubkey65, uint32_t pubkey_len,
                                                                     const unsigned char *msg, uint32_t msg_len,
                                                                     unsigned char *k1_out, unsigned char *e_out,
                                                                     unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithKey(bivo::MixedSource(handle, external32, BIVO_ERR_SIG_SHARE), id, pubkey65, pubkey_len, msg,
                             msg_len, k1_out, e_out, Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertAndMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                                   const unsigned char *cert_der, uint32_t cert_len,
                                                                   const unsigned char *msg, uint32_t msg_len,
                                                                   unsigned char *k1_out, unsigned char *e_out,
                                                                   unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithCert(bivo::MixedSource(handle, external32, BIVO_ERR_SIG_SHARE), cert_der, cert_len, msg,
                              msg_len, k1_out, e_out, Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_CreateSigShareWithCertFileAndMixedSource(BIVO_HANDLE handle,
                                                                       const unsigned char *external32,
                                                                       const char *path, const unsigned char *msg,
                                                                       uint32_t msg_len, unsigned char *k1_out,
                                                                       unsigned char *e_out, unsigned char *Q1_out) {
  return zeph::Guarded(
      [&] {
        return ClientWithCertFile(bivo::MixedSource(handle, external32, BIVO_ERR_SIG_SHARE), path, msg, msg_len, k1_out,
                                  e_out, Q1_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Server_CreateSigShare(const unsigned char *e, const unsigned char *Q1, const unsigned char *d2,
                                             unsigned char *r_out, unsigned char *s2_out, unsigned char *s3_out) {
  return zeph::Guarded(
      [&] {
        const bivo::NonceSource draw = bivo::PlainSource(BIVO_ERR_SIG_SHARE);
        return Server(draw, draw, e, Q1, d2, r_out, s2_out, s3_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Server_CreateSigShareWithDrbg(BIVO_HANDLE handle, const unsigned char *e,
                                                     const unsigned char *Q1, const unsigned char *d2,
                                                     unsigned char *r_out, unsigned char *s2_out,
                                                     unsigned char *s3_out) {
  return zeph::Guarded(
      [&] {
        const bivo::NonceSource draw = bivo::DrbgSource(handle, BIVO_ERR_SIG_SHARE);
        return Server(draw, draw, e, Q1, d2, r_out, s2_out, s3_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Server_CreateSigShareWithMixedSource(BIVO_HANDLE handle, const unsigned char *e,
                                                            const unsigned char *Q1, const unsigned char *external64,
                                                            const unsigned char *d2, unsigned char *r_out,
                                                            unsigned char *s2_out, unsigned char *s3_out) {
  if (external64 == nullptr) return BIVO_ERR_NULL_POINTER;
  return zeph::Guarded(
      [&] {
        return Server(bivo::MixedSource(handle, external64, BIVO_ERR_SIG_SHARE),
                      bivo::MixedSource(handle, external64 + 32, BIVO_ERR_SIG_SHARE), e, Q1, d2, r_out, s2_out, s3_out);
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_Client_AssemblySigEncode(const unsigned char *d1, const unsigned char *k1,
                                                const unsigned char *r, const unsigned char *s2,
                                                const unsigned char *s3, unsigned char *sig_out, uint32_t *sig_len) {
  AssemblyInput in;
  if (!ReadAssembly(d1, k1, r, s2, s3, sig_out, sig_len, &in)) return BIVO_ERR_NULL_POINTER;
  bivo::Scalar s;
  ZEPH_TRY(bivo::AssembleSignature(in.d1, in.k1, in.share, &s));
  return PutSignature(in.share.r, s, sig_out, sig_len);
}

ZEPH_API uint32_t BIVO_Client_AssemblySigEncodeWithPubKey(const unsigned char *d1, const unsigned char *k1,
                                                          const unsigned char *r, const unsigned char *s2,
                                                          const unsigned char *s3, const unsigned char *e,
                                                          const unsigned char *pubkey65, uint32_t pubkey_len,
                                                          unsigned char *sig_out, uint32_t *sig_len) {
  AssemblyInput in;
  if (e == nullptr || pubkey65 == nullptr || !ReadAssembly(d1, k1, r, s2, s3, sig_out, sig_len, &in)) {
    return BIVO_ERR_NULL_POINTER;
  }
  sm2::Point key;
  if (!sm2::KeyFromArgument(pubkey65, pubkey_len, &key)) return BIVO_ERR_VERIFY;
  bivo::Scalar s;
  ZEPH_TRY(bivo::AssembleVerifiedSignature(in.d1, in.k1, in.share, e, key, &s));
  return PutSignature(in.share.r, s, sig_out, sig_len);
}

}  // extern "C"
