// Arithmetic on the SM2 curve for the library's own SM2 code (encryption,
// verification, the two-party scheme): scalars modulo the order n and points
// as fixed-size big-endian bytes, so that callers never hold OpenSSL objects
// for secrets.
//
// Secret scalars (private keys, key shares, nonces and their inverses) may be
// passed only to the functions marked "constant time"; the others take public
// values (signatures, digests, received points).
#pragma once

#include <cstddef>
#include <cstdint>

namespace zeph::gm::sm2 {

inline constexpr size_t kScalarLen = 32;
inline constexpr size_t kCoordLen = 32;
inline constexpr size_t kPointLen = 65;  // 0x04 || x || y

// Big-endian, left-padded with zeros.
struct Scalar {
  uint8_t b[kScalarLen];
};

// An affine point other than the point at infinity; x and y big-endian.
struct Point {
  uint8_t x[kCoordLen];
  uint8_t y[kCoordLen];
};

// The curve: prime p, coefficients a and b, base point G and order n.
const Scalar &OrderN();
const Point &BaseG();

// ---- points -------------------------------------------------------------

// Reads x || y (64 bytes, no prefix). False unless both coordinates are below
// p and the point lies on the curve.
bool PointFromXY(const uint8_t xy[2 * kCoordLen], Point *out);
// 0x04 || x || y.
void PointTo65(const Point &p, uint8_t out[kPointLen]);

// k·G, constant time in k. False when k ≡ 0 (mod n).
bool MulBase(const Scalar &k, Point *out);
// k·P, constant time in k. False when the result is the point at infinity.
bool Mul(const Scalar &k, const Point &p, Point *out);
// (MulBase and Mul write *out even when they return false, then with
// meaningless contents, so that success and failure take the same path.)
// s·G + t·P for public s and t (signature verification). False at infinity.
bool MulBaseAdd(const Scalar &s, const Scalar &t, const Point &p, Point *out);
// Whether s·G + t·P is finite and its x coordinate is congruent to x_mod_n
// modulo n (public values): the verification check x1 ≡ r − e without
// bringing the point to affine form. False when x_mod_n ≥ n.
bool MulBaseAddXModN(const Scalar &s, const Scalar &t, const Point &p, const Scalar &x_mod_n);
// a + b and a − b. False when the result is the point at infinity.
bool Add(const Point &a, const Point &b, Point *out);
bool Sub(const Point &a, const Point &b, Point *out);

// ---- scalars modulo n (constant time) -----------------------------------

// 1 ≤ k ≤ n − 1.
bool InRange(const Scalar &k);
bool IsZero(const Scalar &k);
// Reduces any 32-byte value (an x coordinate, a digest) modulo n.
void Reduce(const uint8_t in[kScalarLen], Scalar *out);
void ModAdd(const Scalar &a, const Scalar &b, Scalar *out);
void ModSub(const Scalar &a, const Scalar &b, Scalar *out);
void ModMul(const Scalar &a, const Scalar &b, Scalar *out);
// a^(n−2) mod n. False when a ≡ 0.
bool ModInv(const Scalar &a, Scalar *out);

// Wipes a secret scalar.
void Wipe(Scalar *k);

}  // namespace zeph::gm::sm2
