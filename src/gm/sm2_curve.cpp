// SM2 curve arithmetic over OpenSSL's BN/EC.
#include "gm/sm2_curve.hpp"

#include <cstring>

#include <openssl/crypto.h>
#include <openssl/obj_mac.h>

#include "foundation/owned.hpp"

namespace zeph::gm::sm2 {
namespace {

const EC_GROUP *Group() {
  static EC_GROUP *group = EC_GROUP_new_by_curve_name(NID_sm2);
  return group;
}

BnPtr ToBn(const uint8_t *b, size_t n) { return BnPtr(BN_bin2bn(b, static_cast<int>(n), nullptr)); }
BnPtr ToBn(const Scalar &k) {
  BnPtr v = ToBn(k.b, kScalarLen);
  if (v) BN_set_flags(v.get(), BN_FLG_CONSTTIME);
  return v;
}

bool FromBn(const BIGNUM *v, Scalar *out) { return BN_bn2binpad(v, out->b, kScalarLen) == kScalarLen; }

EcPointPtr ToEc(const Point &p) {
  EcPointPtr pt(EC_POINT_new(Group()));
  BnPtr x = ToBn(p.x, kCoordLen), y = ToBn(p.y, kCoordLen);
  if (!pt || !x || !y || EC_POINT_set_affine_coordinates(Group(), pt.get(), x.get(), y.get(), nullptr) != 1) {
    return nullptr;
  }
  return pt;
}

bool FromEc(const EC_POINT *pt, Point *out) {
  if (EC_POINT_is_at_infinity(Group(), pt) == 1) return false;
  BnPtr x(BN_new()), y(BN_new());
  if (!x || !y || EC_POINT_get_affine_coordinates(Group(), pt, x.get(), y.get(), nullptr) != 1) return false;
  return BN_bn2binpad(x.get(), out->x, kCoordLen) == kCoordLen && BN_bn2binpad(y.get(), out->y, kCoordLen) == kCoordLen;
}

bool MulGeneric(const BIGNUM *g_scalar, const EC_POINT *p, const BIGNUM *p_scalar, Point *out) {
  EcPointPtr r(EC_POINT_new(Group()));
  return r && EC_POINT_mul(Group(), r.get(), g_scalar, p, p_scalar, nullptr) == 1 && FromEc(r.get(), out);
}

template <class Op>
void ModOp(const Scalar &a, const Scalar &b, Scalar *out, Op op) {
  BnCtxPtr ctx(BN_CTX_secure_new());
  BnPtr x = ToBn(a), y = ToBn(b), r(BN_secure_new());
  if (ctx && x && y && r && op(r.get(), x.get(), y.get(), EC_GROUP_get0_order(Group()), ctx.get()) == 1) {
    FromBn(r.get(), out);
  } else {
    std::memset(out->b, 0, kScalarLen);
  }
}

}  // namespace

const Scalar &OrderN() {
  static const Scalar n = [] {
    Scalar s{};
    FromBn(EC_GROUP_get0_order(Group()), &s);
    return s;
  }();
  return n;
}

const Point &BaseG() {
  static const Point g = [] {
    Point p{};
    FromEc(EC_GROUP_get0_generator(Group()), &p);
    return p;
  }();
  return g;
}

bool PointFromXY(const uint8_t xy[2 * kCoordLen], Point *out) {
  Point p;
  std::memcpy(p.x, xy, kCoordLen);
  std::memcpy(p.y, xy + kCoordLen, kCoordLen);
  BnPtr x = ToBn(p.x, kCoordLen), y = ToBn(p.y, kCoordLen), prime(BN_new());
  if (!x || !y || !prime || EC_GROUP_get_curve(Group(), prime.get(), nullptr, nullptr, nullptr) != 1) return false;
  if (BN_cmp(x.get(), prime.get()) >= 0 || BN_cmp(y.get(), prime.get()) >= 0) return false;
  EcPointPtr pt = ToEc(p);
  if (!pt || EC_POINT_is_on_curve(Group(), pt.get(), nullptr) != 1) return false;
  *out = p;
  return true;
}

void PointTo65(const Point &p, uint8_t out[kPointLen]) {
  out[0] = 0x04;
  std::memcpy(out + 1, p.x, kCoordLen);
  std::memcpy(out + 1 + kCoordLen, p.y, kCoordLen);
}

bool MulBase(const Scalar &k, Point *out) {
  BnPtr v = ToBn(k);
  return v && MulGeneric(v.get(), nullptr, nullptr, out);
}

bool Mul(const Scalar &k, const Point &p, Point *out) {
  BnPtr v = ToBn(k);
  EcPointPtr pt = ToEc(p);
  return v && pt && MulGeneric(nullptr, pt.get(), v.get(), out);
}

bool MulBaseAdd(const Scalar &s, const Scalar &t, const Point &p, Point *out) {
  BnPtr a = ToBn(s.b, kScalarLen), b = ToBn(t.b, kScalarLen);
  EcPointPtr pt = ToEc(p);
  return a && b && pt && MulGeneric(a.get(), pt.get(), b.get(), out);
}

bool Add(const Point &a, const Point &b, Point *out) {
  EcPointPtr x = ToEc(a), y = ToEc(b), r(EC_POINT_new(Group()));
  return x && y && r && EC_POINT_add(Group(), r.get(), x.get(), y.get(), nullptr) == 1 && FromEc(r.get(), out);
}

bool Sub(const Point &a, const Point &b, Point *out) {
  EcPointPtr x = ToEc(a), y = ToEc(b), r(EC_POINT_new(Group()));
  return x && y && r && EC_POINT_invert(Group(), y.get(), nullptr) == 1 &&
         EC_POINT_add(Group(), r.get(), x.get(), y.get(), nullptr) == 1 && FromEc(r.get(), out);
}

bool InRange(const Scalar &k) {
  BnPtr v = ToBn(k);
  return v && !BN_is_zero(v.get()) && BN_cmp(v.get(), EC_GROUP_get0_order(Group())) < 0;
}

bool IsZero(const Scalar &k) {
  uint8_t acc = 0;
  for (uint8_t c : k.b) acc |= c;
  return acc == 0;
}

void Reduce(const uint8_t in[kScalarLen], Scalar *out) {
  Scalar zero{};
  Scalar v;
  std::memcpy(v.b, in, kScalarLen);
  ModOp(v, zero, out, BN_mod_add);
  Wipe(&v);
}

void ModAdd(const Scalar &a, const Scalar &b, Scalar *out) { ModOp(a, b, out, BN_mod_add); }
void ModSub(const Scalar &a, const Scalar &b, Scalar *out) { ModOp(a, b, out, BN_mod_sub); }
void ModMul(const Scalar &a, const Scalar &b, Scalar *out) { ModOp(a, b, out, BN_mod_mul); }

bool ModInv(const Scalar &a, Scalar *out) {
  if (IsZero(a)) return false;
  BnCtxPtr ctx(BN_CTX_secure_new());
  BnPtr x = ToBn(a), r(BN_secure_new());
  if (!ctx || !x || !r) return false;
  BN_nnmod(x.get(), x.get(), EC_GROUP_get0_order(Group()), ctx.get());
  if (BN_is_zero(x.get()) || BN_mod_inverse(r.get(), x.get(), EC_GROUP_get0_order(Group()), ctx.get()) == nullptr) {
    return false;
  }
  return FromBn(r.get(), out);
}

void Wipe(Scalar *k) { OPENSSL_cleanse(k->b, kScalarLen); }

}  // namespace zeph::gm::sm2
