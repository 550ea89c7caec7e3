// OpenSSL's BN/EC as an independent reference for the SM2 curve arithmetic,
// shared by the unit test and the fuzz target.
#pragma once

#include <cstring>
#include <optional>

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>

#include "foundation/owned.hpp"
#include "gm/sm2_curve.hpp"

namespace sm2_oracle {

namespace sm2 = zeph::gm::sm2;

class Oracle {
 public:
  Oracle() : group_(EC_GROUP_new_by_curve_name(NID_sm2)), ctx_(BN_CTX_new()) {}

  // g·G + k·P with either term left out by a null scalar; nullopt at infinity.
  std::optional<sm2::Point> Mul(const sm2::Scalar *g, const sm2::Point *p, const sm2::Scalar *k) const {
    zeph::BnPtr gb = g != nullptr ? Reduced(*g) : nullptr, kb = k != nullptr ? Reduced(*k) : nullptr;
    zeph::EcPointPtr pt = p != nullptr ? ToEc(*p) : nullptr, r(EC_POINT_new(group_.get()));
    EC_POINT_mul(group_.get(), r.get(), gb.get(), pt.get(), kb.get(), ctx_.get());
    return FromEc(r.get());
  }

  std::optional<sm2::Point> Add(const sm2::Point &a, const sm2::Point &b, bool subtract) const {
    zeph::EcPointPtr x = ToEc(a), y = ToEc(b), r(EC_POINT_new(group_.get()));
    if (subtract) EC_POINT_invert(group_.get(), y.get(), ctx_.get());
    EC_POINT_add(group_.get(), r.get(), x.get(), y.get(), ctx_.get());
    return FromEc(r.get());
  }

  // Both coordinates below p and the point on the curve.
  bool Valid(const uint8_t xy[64]) const {
    zeph::BnPtr x(BN_bin2bn(xy, 32, nullptr)), y(BN_bin2bn(xy + 32, 32, nullptr)), p(BN_new());
    EC_GROUP_get_curve(group_.get(), p.get(), nullptr, nullptr, ctx_.get());
    if (BN_cmp(x.get(), p.get()) >= 0 || BN_cmp(y.get(), p.get()) >= 0) return false;
    zeph::EcPointPtr pt(EC_POINT_new(group_.get()));
    return EC_POINT_set_affine_coordinates(group_.get(), pt.get(), x.get(), y.get(), ctx_.get()) == 1 &&
           EC_POINT_is_on_curve(group_.get(), pt.get(), ctx_.get()) == 1;
  }

  // a op b modulo n for op in "+-*", a mod n for 'r', a^−1 for 'i' (nullopt
  // when a ≡ 0).
  std::optional<sm2::Scalar> Mod(char op, const sm2::Scalar &a, const sm2::Scalar &b) const {
    zeph::BnPtr x = Reduced(a), y = Reduced(b), r(BN_new());
    const BIGNUM *n = EC_GROUP_get0_order(group_.get());
    switch (op) {
      case '+':
        BN_mod_add(r.get(), x.get(), y.get(), n, ctx_.get());
        break;
      case '-':
        BN_mod_sub(r.get(), x.get(), y.get(), n, ctx_.get());
        break;
      case '*':
        BN_mod_mul(r.get(), x.get(), y.get(), n, ctx_.get());
        break;
      case 'i':
        if (BN_is_zero(x.get())) return std::nullopt;
        BN_mod_inverse(r.get(), x.get(), n, ctx_.get());
        break;
      default:
        BN_copy(r.get(), x.get());
    }
    sm2::Scalar out;
    BN_bn2binpad(r.get(), out.b, 32);
    return out;
  }

  const EC_GROUP *group() const { return group_.get(); }

 private:
  zeph::BnPtr Reduced(const sm2::Scalar &k) const {
    zeph::BnPtr v(BN_bin2bn(k.b, 32, nullptr));
    BN_nnmod(v.get(), v.get(), EC_GROUP_get0_order(group_.get()), ctx_.get());
    return v;
  }

  zeph::EcPointPtr ToEc(const sm2::Point &p) const {
    zeph::BnPtr x(BN_bin2bn(p.x, 32, nullptr)), y(BN_bin2bn(p.y, 32, nullptr));
    zeph::EcPointPtr pt(EC_POINT_new(group_.get()));
    EC_POINT_set_affine_coordinates(group_.get(), pt.get(), x.get(), y.get(), ctx_.get());
    return pt;
  }

  std::optional<sm2::Point> FromEc(const EC_POINT *pt) const {
    if (EC_POINT_is_at_infinity(group_.get(), pt) == 1) return std::nullopt;
    zeph::BnPtr x(BN_new()), y(BN_new());
    EC_POINT_get_affine_coordinates(group_.get(), pt, x.get(), y.get(), ctx_.get());
    sm2::Point out;
    BN_bn2binpad(x.get(), out.x, 32);
    BN_bn2binpad(y.get(), out.y, 32);
    return out;
  }

  zeph::EcGroupPtr group_;
  zeph::BnCtxPtr ctx_;
};

// One oracle per process.
inline const Oracle &Ref() {
  static const Oracle oracle;
  return oracle;
}

inline bool Same(const sm2::Point &a, const sm2::Point &b) { return std::memcmp(&a, &b, sizeof a) == 0; }
inline bool Same(const sm2::Scalar &a, const sm2::Scalar &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace sm2_oracle
