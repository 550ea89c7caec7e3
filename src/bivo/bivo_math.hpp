// Two-party SM2 on typed values: the steps behind the exported
// BIVO_Client_* / BIVO_Server_* functions, for the library's own callers (the
// co-signing client and its test service). Points here are already checked
// (coordinates below p, on the curve); scalars are checked by each step.
// Every step returns 0 or the status of its exported counterpart and writes
// its outputs only on success.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <openssl/crypto.h>

#include "gm/sm2_ciphertext.hpp"
#include "gm/sm2_curve.hpp"
#include "gm/sm2_encrypt.hpp"
#include "zeph_c_bivo_math.h"

namespace zeph::bivo {

using gm::sm2::Ciphertext;
using gm::sm2::NonceSource;
using gm::sm2::Point;
using gm::sm2::Scalar;

inline constexpr size_t kSignatureMax = 72;

// A value wiped when it goes out of scope; usable wherever a T is.
template <class T>
struct Wiped : T {
  Wiped() = default;
  Wiped(const Wiped &) = delete;
  Wiped &operator=(const Wiped &) = delete;
  ~Wiped() { OPENSSL_cleanse(static_cast<T *>(this), sizeof(T)); }
};

// ---- wire forms -----------------------------------------------------------

// 65 bytes, the first not read: false unless the coordinates are below p and
// on the curve.
bool ReadPoint(const uint8_t *p65, Point *out);
// 32 bytes big-endian, taken as they are (each step checks the range).
void ReadScalar(const uint8_t *b32, Scalar *out);
void WriteScalar(const Scalar &k, uint8_t *out32);

// The three random sources; a failing plain draw gives on_failure.
NonceSource PlainSource(uint32_t on_failure);
NonceSource DrbgSource(BIVO_HANDLE handle, uint32_t on_failure);
NonceSource MixedSource(BIVO_HANDLE handle, const uint8_t *external32, uint32_t on_failure);

// ---- key generation -------------------------------------------------------

struct ClientKeyShare {
  Scalar d1, d1_inv;  // secret
  Point p1;           // d1^-1·G, sent to the server
};
struct ServerKeyShare {
  Scalar d2, d2_inv;  // secret
  Point p;            // the joint public key d2^-1·P1 - G
};

uint32_t CreateClientKeyShare(const NonceSource &draw, ClientKeyShare *out);
uint32_t CreateServerKeyShare(const NonceSource &draw, const Point &p1, ServerKeyShare *out);
// d2^-1·G: 11 for d2^-1 outside [1, n-1].
uint32_t CreateCredential(const Scalar &d2_inv, Point *credential);
// 0 when d1·(P + G) is the credential, else 12.
uint32_t VerifyKeyShares(const Scalar &d1, const Point &p, const Point &credential);

// ---- signing --------------------------------------------------------------

struct SignatureShare {
  Scalar r, s2, s3;
};

// k1 and Q1 = k1·G.
uint32_t CreateClientSigShare(const NonceSource &draw, Scalar *k1, Point *q1);
// Draws k2 with draw_k2, then k3 with draw_k3, for every attempt.
uint32_t CreateServerSigShare(const NonceSource &draw_k2, const NonceSource &draw_k3, const uint8_t e[32],
                              const Point &q1, const Scalar &d2, SignatureShare *out);
// s of the signature (r, s): 14 for a value outside [1, n-1], 15 for s = 0.
uint32_t AssembleSignature(const Scalar &d1, const Scalar &k1, const SignatureShare &share, Scalar *s);
// The same, then 8 unless (r, s) verifies on e under key.
uint32_t AssembleVerifiedSignature(const Scalar &d1, const Scalar &k1, const SignatureShare &share, const uint8_t e[32],
                                   const Point &key, Scalar *s);
// DER SEQUENCE { r INTEGER, s INTEGER } in minimal form (as i2d_ECDSA_SIG
// writes it); returns its length.
size_t EncodeSignature(const Scalar &r, const Scalar &s, uint8_t out[kSignatureMax]);

// ---- decryption -----------------------------------------------------------

// The parts of one DER ciphertext: 18 when it is not one, 19 for a C3 other
// than 32 bytes, 17 for a negative coordinate or one beyond 32 bytes.
uint32_t SplitCiphertext(std::span<const uint8_t> der, Ciphertext *out);
// C1 of the parts as a point: 20 for x = y = 0 (the point at infinity), 17
// for coordinates not below p or off the curve.
uint32_t CiphertextC1(const Ciphertext &c, Point *c1);
// T1 = d1^-1·C1 and T2 = d2^-1·T1: 17 for a share outside [1, n-1].
uint32_t CreateClientPlaintextShare(const Point &c1, const Scalar &d1_inv, Point *t1);
uint32_t CreateServerPlaintextShare(const Point &t1, const Scalar &d2_inv, Point *t2);
// M into plain (c2.size() bytes) only when C3 matches; 21 otherwise.
uint32_t CombinePlaintextShares(const Point &c1, std::span<const uint8_t> c2, const uint8_t c3[32], const Point &t2,
                                uint8_t *plain);

}  // namespace zeph::bivo
