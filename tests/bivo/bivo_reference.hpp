// The independent party of the two-party tests: scalars and points computed
// with OpenSSL's BN and EC, the standard one-party SM2 signature, and
// OpenSSL's verdict on a signature under a joint key.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include "cosign_service.hpp"
#include "test_support.hpp"
#include "zeph_c_bivo_math.h"
#include "zeph_c_sm2.h"

namespace bivo_test {

using Bytes = std::vector<uint8_t>;
using zeph_test::FromHex;
using zeph_test::RandomBytes;

inline uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }
inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

struct BnFree {
  void operator()(BIGNUM *b) const { BN_free(b); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;

// Scalars and points of the SM2 curve as 32- and 65-byte strings.
class Ref {
 public:
  Ref() : group_(EC_GROUP_new_by_curve_name(NID_sm2)), ctx_(BN_CTX_new()) {}
  ~Ref() {
    BN_CTX_free(ctx_);
    EC_GROUP_free(group_);
  }

  const BIGNUM *n() const { return EC_GROUP_get0_order(group_); }
  Bn Num(const Bytes &b) const { return Bn(BN_bin2bn(b.data(), static_cast<int>(b.size()), nullptr)); }
  Bytes Out(const BIGNUM *v) const {
    Bytes b(32);
    BN_bn2binpad(v, b.data(), 32);
    return b;
  }
  // A value in [2, n - 1] from seeded bytes.
  Bytes Scalar(uint32_t seed) const {
    Bn v = Num(RandomBytes(32, seed));
    BN_nnmod(v.get(), v.get(), n(), ctx_);
    if (BN_cmp(v.get(), BN_value_one()) <= 0) BN_set_word(v.get(), 2);
    return Out(v.get());
  }
  Bytes Mul(const Bytes &a, const Bytes &b) const { return Op(a, b, BN_mod_mul); }
  Bytes Add(const Bytes &a, const Bytes &b) const { return Op(a, b, BN_mod_add); }
  Bytes Sub(const Bytes &a, const Bytes &b) const { return Op(a, b, BN_mod_sub); }
  Bytes Inv(const Bytes &a) const {
    Bn v = Num(a);
    BN_mod_inverse(v.get(), v.get(), n(), ctx_);
    return Out(v.get());
  }
  // k·G + m·Q (Q empty: k·G only), 65 bytes.
  Bytes Point(const Bytes &k, const Bytes &q = {}, const Bytes &m = {}) const {
    EC_POINT *r = EC_POINT_new(group_), *p = q.empty() ? nullptr : EC_POINT_new(group_);
    if (p != nullptr) EC_POINT_oct2point(group_, p, q.data(), q.size(), ctx_);
    Bn kb = Num(k), mb = m.empty() ? nullptr : Num(m);
    EC_POINT_mul(group_, r, kb.get(), p, mb.get(), ctx_);
    Bytes out(65);
    EC_POINT_point2oct(group_, r, POINT_CONVERSION_UNCOMPRESSED, out.data(), out.size(), ctx_);
    EC_POINT_free(p);
    EC_POINT_free(r);
    return out;
  }
  // The standard SM2 signature with key d and nonce k on e, DER.
  Bytes Sign(const Bytes &d, const Bytes &k, const Bytes &e) const {
    const Bytes kg = Point(k), x1(kg.begin() + 1, kg.begin() + 33);
    const Bytes r = Add(e, x1);
    const Bytes s = Mul(Inv(Add(d, One())), Sub(k, Mul(r, d)));
    ECDSA_SIG *sig = ECDSA_SIG_new();
    ECDSA_SIG_set0(sig, Num(r).release(), Num(s).release());
    unsigned char *der = nullptr;
    const int len = i2d_ECDSA_SIG(sig, &der);
    Bytes out(der, der + len);
    OPENSSL_free(der);
    ECDSA_SIG_free(sig);
    return out;
  }
  static Bytes One() {
    Bytes one(32);
    one[31] = 1;
    return one;
  }
  static Bytes N() { return FromHex("FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123"); }

 private:
  template <class F>
  Bytes Op(const Bytes &a, const Bytes &b, F op) const {
    Bn x = Num(a), y = Num(b), r(BN_new());
    op(r.get(), x.get(), y.get(), n(), ctx_);
    return Out(r.get());
  }
  EC_GROUP *group_;
  BN_CTX *ctx_;
};

// A handle and its twin from the same entropy: the twin's next 32 bytes are
// the handle's next draw, so Steer chooses what a mixed-source draw yields.
struct Twins {
  BIVO_HANDLE h = nullptr, twin = nullptr;
  explicit Twins(uint32_t seed) {
    const Bytes entropy = RandomBytes(256, seed);
    InitializeBivoHandle(&h, entropy.data(), Len(entropy));
    InitializeBivoHandle(&twin, entropy.data(), Len(entropy));
  }
  ~Twins() {
    UninitializeBivoHandle(h);
    UninitializeBivoHandle(twin);
  }
  // External bytes that make the next draw equal want (below n).
  Bytes Steer(const Bytes &want) {
    Bytes ext(32);
    BIVO_generate_random_bytes(twin, 32, ext.data());
    for (size_t i = 0; i < 32; ++i) ext[i] ^= want[i];
    return ext;
  }
};

// True when OpenSSL verifies sig (DER) over msg under the 65-byte point,
// with the default identity.
inline bool OpenSslVerifies(const Bytes &point, const Bytes &msg, const Bytes &sig) {
  EVP_PKEY *key = zeph_test::Sm2PointKey(point);
  EVP_MD_CTX *md = EVP_MD_CTX_new();
  EVP_PKEY_CTX *pctx = nullptr;
  const bool ok = EVP_DigestVerifyInit(md, &pctx, EVP_sm3(), nullptr, key) == 1 &&
                  EVP_PKEY_CTX_set1_id(pctx, "1234567812345678", 16) == 1 &&
                  EVP_DigestVerify(md, sig.data(), sig.size(), msg.data(), msg.size()) == 1;
  EVP_MD_CTX_free(md);
  EVP_PKEY_free(key);
  return ok;
}

}  // namespace bivo_test
