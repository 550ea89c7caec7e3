// SM2 nonces from the three random sources; the value passes through a
// BIGNUM in OpenSSL's secure heap and is wiped with it.
#include "gm/sm2_nonce.hpp"

#include "foundation/owned.hpp"

namespace zeph::gm::sm2 {
namespace {

template <class Draw>
uint32_t DrawWith(Scalar *k, uint32_t on_failure, Draw &&draw) {
  BnPtr order(BN_bin2bn(OrderN().b, kScalarLen, nullptr)), value(BN_secure_new());
  if (!order || !value) return on_failure;
  BN_set_flags(value.get(), BN_FLG_CONSTTIME);
  const uint32_t rv = draw(value.get(), order.get());
  if (rv != 0) return rv;
  return BN_bn2binpad(value.get(), k->b, kScalarLen) == kScalarLen ? 0 : on_failure;
}

}  // namespace

uint32_t DrawPlain(Scalar *k, uint32_t on_failure) {
  return DrawWith(k, on_failure, [&](BIGNUM *v, const BIGNUM *n) -> uint32_t {
    do {
      if (BN_rand_range(v, n) != 1) return on_failure;
    } while (BN_is_zero(v));
    return 0;
  });
}

uint32_t DrawDrbg(BIVO_HANDLE handle, Scalar *k, uint32_t on_failure) {
  return DrawWith(k, on_failure,
                  [&](BIGNUM *v, const BIGNUM *n) { return generate_rand_in_range_with_drbg(handle, v, n); });
}

uint32_t DrawMixed(BIVO_HANDLE handle, const uint8_t *external, uint32_t external_len, Scalar *k, uint32_t on_failure) {
  return DrawWith(k, on_failure, [&](BIGNUM *v, const BIGNUM *n) {
    return generate_rand_in_range_with_mixed_source(handle, external, external_len, v, n);
  });
}

}  // namespace zeph::gm::sm2
