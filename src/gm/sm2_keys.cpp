// The SM2 curve as an OpenSSL group, and public keys from arguments and
// certificates.
#include "gm/sm2_keys.hpp"

#include <vector>

#include "api/cert.hpp"
#include "foundation/output.hpp"
#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_sm2.h"
#include "zeph_c_utils.h"

namespace zeph::gm::sm2 {

bool KeyFromArgument(const uint8_t *pubkey65, uint32_t pubkey_len, Point *out) {
  return pubkey65 != nullptr && pubkey_len >= kPointLen && PointFromXY(pubkey65 + 1, out);
}

namespace {

// A key of other than 65 bytes (an RSA certificate) is no SM2 key either.
uint32_t Sm2KeyStatus(uint32_t rv, uint32_t len) {
  if (rv == ERR_BUFFER_TOO_SMALL || (rv == 0 && len != kPointLen)) return BIVO_ERR_CERT_KEY;
  return rv;
}

}  // namespace

uint32_t CertKey(const uint8_t *cert, uint32_t cert_len, uint8_t out[kPointLen]) {
  uint32_t len = kPointLen;
  return Sm2KeyStatus(GetSm2PubKey(cert, cert_len, out, &len), len);
}

uint32_t CertFileKey(const char *path, uint8_t out[kPointLen]) {
  uint32_t len = kPointLen;
  return Sm2KeyStatus(GetSm2PubKeyFromCertFile(path, out, &len), len);
}

}  // namespace zeph::gm::sm2

extern "C" {

ZEPH_API EC_GROUP *CreateSm2EllipticCurveGroup(void) {
  static constexpr const char *kHex[] = {
      "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFF",  // p
      "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFC",  // a
      "28E9FA9E9D9F5E344D5A9E4BCF6509A7F39789F515AB8F92DDBCBD414D940E93",  // b
      "32C4AE2C1F1981195F9904466A39C9948FE30BBFF2660BE1715A4589334C74C7",  // xG
      "BC3736A2F4F6779C59BDCEE36B692153D0A9877CC62A474002DF32E52139F0A0",  // yG
      "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123",  // n
  };
  zeph::BnPtr v[6];
  for (int i = 0; i < 6; ++i) {
    BIGNUM *bn = nullptr;
    if (BN_hex2bn(&bn, kHex[i]) == 0) return nullptr;
    v[i].reset(bn);
  }
  zeph::BnCtxPtr ctx(BN_CTX_new());
  if (!ctx) return nullptr;
  zeph::EcGroupPtr group(EC_GROUP_new_curve_GFp(v[0].get(), v[1].get(), v[2].get(), ctx.get()));
  if (!group) return nullptr;
  zeph::EcPointPtr g(EC_POINT_new(group.get()));
  zeph::BnPtr one(BN_new());
  if (!g || !one || BN_one(one.get()) != 1 ||
      EC_POINT_set_affine_coordinates(group.get(), g.get(), v[3].get(), v[4].get(), ctx.get()) != 1 ||
      EC_GROUP_set_generator(group.get(), g.get(), v[5].get(), one.get()) != 1) {
    return nullptr;
  }
  return group.release();
}

ZEPH_API uint32_t GetSm2PubKey(const unsigned char *cert_der, uint32_t cert_len, unsigned char *key_out,
                               uint32_t *key_len) {
  const zeph::X509Ptr cert = zeph::api::DecodeCert(cert_der, cert_len);
  const ASN1_BIT_STRING *key = cert ? X509_get0_pubkey_bitstr(cert.get()) : nullptr;
  if (key == nullptr || ASN1_STRING_length(key) <= 0) return BIVO_ERR_CERT_KEY;
  return zeph::PutOutput({ASN1_STRING_get0_data(key), static_cast<size_t>(ASN1_STRING_length(key))}, key_out, key_len);
}

ZEPH_API uint32_t GetSm2PubKeyFromCertFile(const char *path, unsigned char *key_out, uint32_t *key_len) {
  if (path == nullptr) return ERR_INVALID_PARAMETER;
  uint32_t size = 0;
  ZEPH_TRY(zeph_c_utils_readFile(path, nullptr, &size));
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<uint8_t> cert(size);
    ZEPH_TRY(zeph_c_utils_readFile(path, cert.data(), &size));
    return GetSm2PubKey(cert.data(), size, key_out, key_len);
  });
}

}  // extern "C"
