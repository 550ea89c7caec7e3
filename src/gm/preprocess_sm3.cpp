// The SM2 user-identity digest Z and the preprocessed digest e = SM3(Z || M).
#include <cstring>

#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "gm/gm_internal.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

namespace {

constexpr uint32_t kNoMemory = BIVO_ERR_NO_MEMORY;
constexpr uint32_t kDigestFailed = BIVO_ERR_DIGEST;
constexpr size_t kMaxIdLength = 8191;  // ENTL is a 16-bit bit count

// SM2 recommended curve: a, b, xG, yG (big-endian).
// clang-format off
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
// clang-format on

void FreeDigestBuffer(void *p) noexcept { CRYPTO_free(p, "preprocess_sm3", __LINE__); }

bool ArgumentsMissing(const char *id, const unsigned char *pubkey65, const unsigned char *out32) {
  return id == nullptr || pubkey65 == nullptr || out32 == nullptr;
}

// ENTL, the identity, the curve and the key, in the order Z hashes them.
// False for an identity above 8191 bytes or a failing absorb step.
template <class Absorb>
bool AbsorbZInput(const char *id, const unsigned char *pubkey65, Absorb &&absorb) {
  const size_t id_len = std::strlen(id);
  if (id_len > kMaxIdLength) return false;
  const uint16_t entl = static_cast<uint16_t>(id_len * 8);
  const uint8_t entl_hi = static_cast<uint8_t>(entl >> 8), entl_lo = static_cast<uint8_t>(entl);
  return absorb(&entl_hi, 1) && absorb(&entl_lo, 1) && absorb(id, id_len) &&
         absorb(kCurveParams, sizeof kCurveParams) && absorb(pubkey65 + 1, 32) && absorb(pubkey65 + 33, 32);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ComputeUserIdSm3Digest(const char *id, const unsigned char *pubkey65, uint32_t pubkey_len,
                                         unsigned char *out_z) {
  if (ArgumentsMissing(id, pubkey65, out_z)) return ERR_INVALID_PARAMETER;
  std::memset(out_z, 0, 32);
  BIVO_SM3_CTX ctx;
  zeph::gm::Sm3Init(&ctx);
  const bool absorbed = AbsorbZInput(id, pubkey65, [&](const void *p, size_t n) {
    zeph::gm::Sm3Update(&ctx, static_cast<const uint8_t *>(p), n);
    return true;
  });
  if (!absorbed) return kDigestFailed;
  zeph::gm::Sm3Final(out_z, &ctx);
  return 0;
}

ZEPH_API uint32_t ComputeUserIdSm3Digest_EVP(const char *id, const unsigned char *pubkey65, uint32_t pubkey_len,
                                             unsigned char *out_z) {
  if (ArgumentsMissing(id, pubkey65, out_z)) return ERR_INVALID_PARAMETER;
  std::memset(out_z, 0, 32);
  if (std::strlen(id) > kMaxIdLength) return kDigestFailed;
  zeph::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit(ctx.get(), EVP_sm3()) != 1) return kDigestFailed;
  const bool absorbed =
      AbsorbZInput(id, pubkey65, [&](const void *p, size_t n) { return EVP_DigestUpdate(ctx.get(), p, n) == 1; });
  unsigned int n = 0;
  if (!absorbed || EVP_DigestFinal(ctx.get(), out_z, &n) != 1) return kDigestFailed;
  return 0;
}

ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest(const char *id, const unsigned char *pubkey65, uint32_t pubkey_len,
                                                  const unsigned char *msg, uint32_t msg_len, unsigned char *out_e) {
  if (ArgumentsMissing(id, pubkey65, out_e) || (msg == nullptr && msg_len != 0)) return ERR_INVALID_PARAMETER;
  std::unique_ptr<uint8_t, zeph::Free<FreeDigestBuffer>> e(
      static_cast<uint8_t *>(CRYPTO_malloc(32, "preprocess_sm3", __LINE__)));
  if (!e) return kNoMemory;
  uint8_t z[32];
  ZEPH_TRY(ComputeUserIdSm3Digest(id, pubkey65, pubkey_len, z));
  BIVO_SM3_CTX ctx;
  zeph::gm::Sm3Init(&ctx);
  zeph::gm::Sm3Update(&ctx, z, sizeof z);
  zeph::gm::Sm3Update(&ctx, msg, msg_len);
  zeph::gm::Sm3Final(e.get(), &ctx);
  std::memcpy(out_e, e.get(), 32);
  return 0;
}

ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_EVP(const char *id, const unsigned char *pubkey65,
                                                      uint32_t pubkey_len, const unsigned char *msg, uint32_t msg_len,
                                                      unsigned char *out_e) {
  if (ArgumentsMissing(id, pubkey65, out_e) || (msg == nullptr && msg_len != 0)) return ERR_INVALID_PARAMETER;
  uint8_t z[32];
  ZEPH_TRY(ComputeUserIdSm3Digest_EVP(id, pubkey65, pubkey_len, z));
  zeph::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  uint8_t e[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (!ctx || EVP_DigestInit(ctx.get(), EVP_sm3()) != 1 || EVP_DigestUpdate(ctx.get(), z, sizeof z) != 1 ||
      EVP_DigestUpdate(ctx.get(), msg, msg_len) != 1 || EVP_DigestFinal(ctx.get(), e, &n) != 1) {
    return kDigestFailed;
  }
  std::memcpy(out_e, e, n);
  return 0;
}

ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_init(const char *id, const unsigned char *pubkey65,
                                                       uint32_t pubkey_len, BIVO_SM3_CTX **out_ctx) {
  if (id == nullptr || pubkey65 == nullptr || out_ctx == nullptr) return ERR_INVALID_PARAMETER;
  uint8_t z[32];
  ZEPH_TRY(ComputeUserIdSm3Digest(id, pubkey65, pubkey_len, z));
  BIVO_SM3_CTX *ctx = nullptr;
  ZEPH_TRY(BIVO_sm3_digest_init(&ctx));
  zeph::gm::Sm3Update(ctx, z, sizeof z);
  *out_ctx = ctx;
  return 0;
}

ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_update(BIVO_SM3_CTX *ctx, const unsigned char *data, uint32_t len) {
  return BIVO_sm3_digest_update(ctx, data, len);
}

ZEPH_API uint32_t BIVO_ComputePreprocessSm3Digest_final(BIVO_SM3_CTX *ctx, unsigned char *out_e) {
  return BIVO_sm3_digest_final(ctx, out_e);
}

}  // extern "C"
