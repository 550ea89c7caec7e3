// The SM2 user-identity digest Z and the preprocessed digest e = SM3(Z || M).
#include <cstring>

#include "foundation/internal.hpp"
#include "zeph_c_gm.h"

namespace {

constexpr uint32_t kDigestFailed = 6;
constexpr size_t kMaxIdLength = 8191;  // ENTL is a 16-bit bit count

// SM2 recommended curve: a, b, xG, yG (big-endian).
constexpr uint8_t kCurveParams[128] = {
    0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
    0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFC,
    0x28, 0xE9, 0xFA, 0x9E, 0x9D, 0x9F, 0x5E, 0x34, 0x4D, 0x5A, 0x9E, 0x4B, 0xCF, 0x65, 0x09, 0xA7,
    0xF3, 0x97, 0x89, 0xF5, 0x15, 0xAB, 0x8F, 0x92, 0xDD, 0xBC, 0xBD, 0x41, 0x4D, 0x94, 0x0E, 0x93,
    0x32, 0xC4, 0xAE, 0x2C, 0x1F, 0x19, 0x81, 0x19, 0x5F, 0x99, 0x04, 0x46, 0x6A, 0x39, 0xC9, 0x94,
    0x8F, 0xE3, 0x0B, 0xBF, 0xF2, 0x66, 0x0B, 0xE1, 0x71, 0x5A, 0x45, 0x89, 0x33, 0x4C, 0x74, 0xC7,
    0xBC, 0x37, 0x36, 0xA2, 0xF4, 0xF6, 0x77, 0x9C, 0x59, 0xBD, 0xCE, 0xE3, 0x6B, 0x69, 0x21, 0x53,
    0xD0, 0xA9, 0x87, 0x7C, 0xC6, 0x2A, 0x47, 0x40, 0x02, 0xDF, 0x32, 0xE5, 0x21, 0x39, 0xF0, 0xA0,
};

}  // namespace

extern "C" {

ZEPH_API uint32_t ComputeUserIdSm3Digest_EVP(const char *id, const unsigned char *pubkey65, uint32_t pubkey_len,
                                             unsigned char *z_out32) {
  uint32_t status = kDigestFailed;
  uint8_t xa[32], ya[32];
  std::memcpy(xa, pubkey65 + 1, 32);
  std::memcpy(ya, pubkey65 + 33, 32);
  std::memset(z_out32, 0, 32);
  const size_t id_len = std::strlen(id);
  if (id_len > kMaxIdLength) return status;
  const uint16_t entl = static_cast<uint16_t>(id_len * 8);
  const uint8_t entl_hi = static_cast<uint8_t>(entl >> 8), entl_lo = static_cast<uint8_t>(entl);

  zeph::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  unsigned int n = 0;
  if (ctx && EVP_DigestInit(ctx.get(), EVP_sm3()) == 1 && EVP_DigestUpdate(ctx.get(), &entl_hi, 1) == 1 &&
      EVP_DigestUpdate(ctx.get(), &entl_lo, 1) == 1 && EVP_DigestUpdate(ctx.get(), id, id_len) == 1 &&
      EVP_DigestUpdate(ctx.get(), kCurveParams, sizeof kCurveParams) == 1 &&
      EVP_DigestUpdate(ctx.get(), xa, 32) == 1 && EVP_DigestUpdate(ctx.get(), ya, 32) == 1 &&
      EVP_DigestFinal(ctx.get(), z_out32, &n) == 1) {
    status = 0;
  }
  return status;
}

ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_EVP(const char *id, const unsigned char *pubkey65,
                                                      uint32_t pubkey_len, const unsigned char *msg,
                                                      uint32_t msg_len, unsigned char *e_out32) {
  uint8_t z[32];
  const uint32_t zs = ComputeUserIdSm3Digest_EVP(id, pubkey65, pubkey_len, z);
  if (zs != 0) return zs;
  zeph::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  uint8_t e[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (!ctx || EVP_DigestInit(ctx.get(), EVP_sm3()) != 1 || EVP_DigestUpdate(ctx.get(), z, sizeof z) != 1 ||
      EVP_DigestUpdate(ctx.get(), msg, msg_len) != 1 || EVP_DigestFinal(ctx.get(), e, &n) != 1) {
    return kDigestFailed;
  }
  std::memcpy(e_out32, e, n);
  return 0;
}

}  // extern "C"
