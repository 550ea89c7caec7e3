// Both assembly forms on arbitrary and on perturbed honest scalars, with
// fixed key shares. Input: a mode byte, k1, k2, k3 (32 bytes each), e, and
// five 32-byte masks XORed into d1, k1, r, s2, s3 after an honest round
// (mode bit 0: the values are the masks themselves). A 0 from the checked
// form means the signature verifies, here and in OpenSSL; an unperturbed
// honest round always gives 0; the two forms agree on every refusal other
// than 8.

#include "bivo/bivo_math.hpp"
#include "sm2_openssl.hpp"
#include "zeph_c_sm2.h"

namespace {

namespace bivo = zeph::bivo;
namespace sm2 = zeph::gm::sm2;

struct Key {
  sm2::Scalar d1, d2;
  uint8_t P[65];
  zeph::EvpPkeyPtr pkey;
  Key() {
    std::memset(d1.b, 0x5A, 32);
    std::memset(d2.b, 0x3C, 32);
    sm2::Scalar ab, inv, one{};
    one.b[31] = 1;
    sm2::ModMul(d1, d2, &ab);
    sm2::ModInv(ab, &inv);
    sm2::ModSub(inv, one, &ab);  // d = (d1·d2)^-1 - 1
    sm2::Point p;
    fuzz::Check(sm2::MulBase(ab, &p));
    sm2::PointTo65(p, P);
    pkey = fuzz::Sm2PublicKey(P);
    fuzz::Check(pkey != nullptr);
  }
};

// A nonce source that hands out one fixed value.
bivo::NonceSource Fixed(const uint8_t *b) {
  return [b](sm2::Scalar *k) {
    std::memcpy(k->b, b, 32);
    return sm2::InRange(*k) ? 0u : BIVO_ERR_SIG_SHARE;
  };
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size != 1 + 4 * 32 + 5 * 32) return 0;
  static const Key key;
  const uint8_t mode = data[0], *k = data + 1, *e = data + 97, *mask = data + 129;
  uint8_t v[5][32] = {};  // d1, k1, r, s2, s3
  bool honest = (mode & 1) == 0;
  if (honest) {
    sm2::Scalar k1;
    sm2::Point q1;
    bivo::SignatureShare share;
    if (bivo::CreateClientSigShare(Fixed(k), &k1, &q1) != 0 ||
        bivo::CreateServerSigShare(Fixed(k + 32), Fixed(k + 64), e, q1, key.d2, &share) != 0) {
      return 0;
    }
    const sm2::Scalar *honest_values[] = {&key.d1, &k1, &share.r, &share.s2, &share.s3};
    for (int i = 0; i < 5; ++i) std::memcpy(v[i], honest_values[i]->b, 32);
  }
  for (int i = 0; i < 5 * 32; ++i) {
    v[i / 32][i % 32] ^= mask[i];
    honest = honest && mask[i] == 0;
  }
  uint8_t sig[72], checked_sig[72];
  uint32_t len = 0, checked_len = 0;
  const uint32_t plain = BIVO_Client_AssemblySigEncode(v[0], v[1], v[2], v[3], v[4], sig, &len);
  const uint32_t checked =
      BIVO_Client_AssemblySigEncodeWithPubKey(v[0], v[1], v[2], v[3], v[4], e, key.P, 65, checked_sig, &checked_len);
  fuzz::Check(fuzz::OneOf(plain, {0, BIVO_ERR_ASSEMBLY, BIVO_ERR_ZERO_S}));
  fuzz::Check(checked == plain || (plain == 0 && checked == BIVO_ERR_VERIFY));
  if (honest) fuzz::Check(checked == 0);
  if (checked == 0) {
    fuzz::Check(checked_len == len && std::memcmp(sig, checked_sig, len) == 0);
    fuzz::Check(BIVO_VerifySm2SignatureOnDigestWithPubKey(e, key.P, 65, sig, len) == 0);
    fuzz::Check(fuzz::OpenSslVerifies(key.pkey.get(), e, sig, len));
  } else if (plain == 0) {
    fuzz::Check(BIVO_VerifySm2SignatureOnDigestWithPubKey(e, key.P, 65, sig, len) != 0);
  }
  return 0;
}
