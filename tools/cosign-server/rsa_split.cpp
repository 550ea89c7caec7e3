#include "rsa_split.hpp"

#include <openssl/core_names.h>
#include <openssl/x509.h>

#include "foundation/owned.hpp"

namespace zeph::cosign {

namespace {

using MontPtr = std::unique_ptr<BN_MONT_CTX, Free<BN_MONT_CTX_free>>;
using X509SigOwner = std::unique_ptr<X509_SIG, Free<X509_SIG_free>>;

BnPtr Param(EVP_PKEY *key, const char *name) {
  BIGNUM *bn = nullptr;
  if (EVP_PKEY_get_bn_param(key, name, &bn) != 1) return nullptr;
  return BnPtr(bn);
}

BnPtr NewSecret() {
  BnPtr bn(BN_secure_new());
  if (bn) BN_set_flags(bn.get(), BN_FLG_CONSTTIME);
  return bn;
}

SecureBytes Padded(const BIGNUM *bn, size_t len) {
  SecureBytes out(len);
  if (BN_bn2binpad(bn, out.data(), static_cast<int>(len)) < 0) return SecureBytes();
  return out;
}

std::vector<uint8_t> Plain(const BIGNUM *bn) {
  std::vector<uint8_t> out(static_cast<size_t>(BN_num_bytes(bn)));
  BN_bn2bin(bn, out.data());
  return out;
}

bool IsPkcs1Type1(std::span<const uint8_t> m) {
  if (m.size() < 11 || m[0] != 0x00 || m[1] != 0x01) return false;
  size_t i = 2;
  while (i < m.size() && m[i] == 0xFF) ++i;
  if (i - 2 < 8 || i >= m.size() || m[i] != 0x00) return false;
  const uint8_t *info = m.data() + i + 1;
  const long info_len = static_cast<long>(m.size() - i - 1);
  const uint8_t *p = info;
  X509SigOwner sig(d2i_X509_SIG(nullptr, &p, info_len));
  return sig != nullptr && p == info + info_len;
}

}  // namespace

bool SplitRsaKey(EVP_PKEY *key, RsaSplitKey *out) {
  BnPtr n = Param(key, OSSL_PKEY_PARAM_RSA_N), e = Param(key, OSSL_PKEY_PARAM_RSA_E),
        d = Param(key, OSSL_PKEY_PARAM_RSA_D), p = Param(key, OSSL_PKEY_PARAM_RSA_FACTOR1),
        q = Param(key, OSSL_PKEY_PARAM_RSA_FACTOR2);
  BnCtxPtr ctx(BN_CTX_secure_new());
  BnPtr p1 = NewSecret(), q1 = NewSecret(), g = NewSecret(), phi = NewSecret(), lambda = NewSecret(), top = NewSecret(),
        d1 = NewSecret(), d2 = NewSecret();
  if (!n || !e || !d || !p || !q || !ctx || !p1 || !q1 || !g || !phi || !lambda || !top || !d1 || !d2) return false;
  BN_set_flags(d.get(), BN_FLG_CONSTTIME);
  // lambda(n) = lcm(p - 1, q - 1).
  if (!BN_sub(p1.get(), p.get(), BN_value_one()) || !BN_sub(q1.get(), q.get(), BN_value_one()) ||
      !BN_gcd(g.get(), p1.get(), q1.get(), ctx.get()) || !BN_mul(phi.get(), p1.get(), q1.get(), ctx.get()) ||
      !BN_div(lambda.get(), nullptr, phi.get(), g.get(), ctx.get()) ||
      !BN_sub(top.get(), lambda.get(), BN_value_one())) {
    return false;
  }
  do {
    if (!BN_priv_rand_range(d1.get(), top.get()) || !BN_add_word(d1.get(), 1) ||
        !BN_mod_sub(d2.get(), d.get(), d1.get(), lambda.get(), ctx.get())) {
      return false;
    }
  } while (BN_is_zero(d2.get()));
  const size_t k = static_cast<size_t>(BN_num_bytes(n.get()));
  out->n = Plain(n.get());
  out->e = Plain(e.get());
  out->d1 = Padded(d1.get(), k);
  out->d2 = Padded(d2.get(), k);
  return out->d1.size() == k && out->d2.size() == k;
}

RsaPartial RsaPartialSign(std::span<const uint8_t> n_bytes, std::span<const uint8_t> d2_bytes,
                          std::span<const uint8_t> m_bytes, std::vector<uint8_t> *s2) {
  BnPtr n(BN_bin2bn(n_bytes.data(), static_cast<int>(n_bytes.size()), nullptr));
  if (!n || BN_is_zero(n.get())) return RsaPartial::kFailed;
  const size_t k = static_cast<size_t>(BN_num_bytes(n.get()));
  if (m_bytes.size() != k || !IsPkcs1Type1(m_bytes)) return RsaPartial::kBadMessage;
  BnPtr m(BN_bin2bn(m_bytes.data(), static_cast<int>(k), nullptr));
  if (!m) return RsaPartial::kFailed;
  if (BN_cmp(m.get(), n.get()) >= 0) return RsaPartial::kBadMessage;
  BnPtr d2 = NewSecret(), s(BN_new());
  BnCtxPtr ctx(BN_CTX_new());
  MontPtr mont(BN_MONT_CTX_new());
  if (!d2 || !s || !ctx || !mont || !BN_bin2bn(d2_bytes.data(), static_cast<int>(d2_bytes.size()), d2.get()) ||
      !BN_MONT_CTX_set(mont.get(), n.get(), ctx.get()) ||
      !BN_mod_exp_mont_consttime(s.get(), m.get(), d2.get(), n.get(), ctx.get(), mont.get())) {
    return RsaPartial::kFailed;
  }
  s2->assign(k, 0);
  return BN_bn2binpad(s.get(), s2->data(), static_cast<int>(k)) == static_cast<int>(k) ? RsaPartial::kOk
                                                                                       : RsaPartial::kFailed;
}

}  // namespace zeph::cosign
