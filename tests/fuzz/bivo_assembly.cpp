// Both assembly forms on arbitrary and on perturbed honest scalars, with
// fixed key shares. Input: a mode byte, k1, k2, k3 (32 bytes each), e, and
// five 32-byte masks XORed into d1, k1, r, s2, s3 after an honest round
// (mode bit 0: the values are the masks themselves). A 0 from the checked
// form means the signature verifies, here and in OpenSSL; an unperturbed
// honest round always gives 0; the two forms agree on every refusal other
// than 8.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include "bivo/bivo_math.hpp"
#include "zeph_c_sm2.h"

namespace {

namespace bivo = zeph::bivo;
namespace sm2 = zeph::gm::sm2;

void Check(bool ok) {
  if (!ok) std::abort();
}

struct Key {
  uint8_t d1[32], d2[32], P[65];
  EVP_PKEY *pkey = nullptr;
  Key() {
    std::memset(d1, 0x5A, 32);
    std::memset(d2, 0x3C, 32);
    sm2::Scalar a, b, ab, inv, one{};
    one.b[31] = 1;
    std::memcpy(a.b, d1, 32);
    std::memcpy(b.b, d2, 32);
    sm2::ModMul(a, b, &ab);
    sm2::ModInv(ab, &inv);
    sm2::ModSub(inv, one, &ab);  // d = (d1·d2)^-1 - 1
    sm2::Point p;
    Check(sm2::MulBase(ab, &p));
    sm2::PointTo65(p, P);
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char *>("SM2"), 0),
                           OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, P, 65),
                           OSSL_PARAM_construct_end()};
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr);
    Check(ctx != nullptr && EVP_PKEY_fromdata_init(ctx) == 1 &&
          EVP_PKEY_fromdata(ctx, &pkey, EVP_PKEY_PUBLIC_KEY, params) == 1);
    EVP_PKEY_CTX_free(ctx);
  }
};

const Key &K() {
  static const Key key;
  return key;
}

bool OpenSslVerifies(const uint8_t *e, const uint8_t *sig, size_t len) {
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(K().pkey, nullptr);
  const bool ok = ctx != nullptr && EVP_PKEY_verify_init(ctx) == 1 && EVP_PKEY_verify(ctx, sig, len, e, 32) == 1;
  EVP_PKEY_CTX_free(ctx);
  return ok;
}

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
  const Key &key = K();
  const uint8_t mode = data[0], *k = data + 1, *e = data + 97, *mask = data + 129;
  uint8_t v[5][32] = {};  // d1, k1, r, s2, s3
  bool honest = (mode & 1) == 0;
  if (honest) {
    sm2::Scalar k1, d2;
    sm2::Point q1;
    bivo::SignatureShare share;
    std::memcpy(d2.b, key.d2, 32);
    if (bivo::CreateClientSigShare(Fixed(k), &k1, &q1) != 0 ||
        bivo::CreateServerSigShare(Fixed(k + 32), Fixed(k + 64), e, q1, d2, &share) != 0) {
      return 0;
    }
    std::memcpy(v[0], key.d1, 32);
    std::memcpy(v[1], k1.b, 32);
    std::memcpy(v[2], share.r.b, 32);
    std::memcpy(v[3], share.s2.b, 32);
    std::memcpy(v[4], share.s3.b, 32);
  }
  for (int i = 0; i < 5; ++i) {
    for (int j = 0; j < 32; ++j) {
      v[i][j] ^= mask[32 * i + j];
      if (mask[32 * i + j] != 0) honest = false;
    }
  }
  uint8_t sig[72], checked_sig[72];
  uint32_t len = 0, checked_len = 0;
  const uint32_t plain = BIVO_Client_AssemblySigEncode(v[0], v[1], v[2], v[3], v[4], sig, &len);
  const uint32_t checked =
      BIVO_Client_AssemblySigEncodeWithPubKey(v[0], v[1], v[2], v[3], v[4], e, key.P, 65, checked_sig, &checked_len);
  Check(plain == 0 || plain == BIVO_ERR_ASSEMBLY || plain == BIVO_ERR_ZERO_S);
  Check(checked == plain || (plain == 0 && checked == BIVO_ERR_VERIFY));
  if (honest) Check(checked == 0);
  if (checked == 0) {
    Check(checked_len == len && std::memcmp(sig, checked_sig, len) == 0);
    Check(BIVO_VerifySm2SignatureOnDigestWithPubKey(e, key.P, 65, sig, len) == 0);
    Check(OpenSslVerifies(e, sig, len));
  } else if (plain == 0) {
    Check(BIVO_VerifySm2SignatureOnDigestWithPubKey(e, key.P, 65, sig, len) != 0);
  }
  return 0;
}
