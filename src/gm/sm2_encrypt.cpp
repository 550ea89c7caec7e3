// SM2 encryption (GM/T 0003.4) to a key, a certificate or a certificate
// file, with the three sources of the nonce; the X9.63 KDF with SM3.
#include "gm/sm2_encrypt.hpp"

#include <algorithm>
#include <cstring>

#include <openssl/crypto.h>

#include "foundation/status_flow.hpp"
#include "gm/gm_internal.hpp"
#include "gm/sm2_ciphertext.hpp"
#include "gm/sm2_keys.hpp"
#include "gm/sm2_nonce.hpp"
#include "zeph_c_sm2.h"

namespace zeph::gm::sm2 {
namespace {

constexpr uint32_t kFailed = BIVO_ERR_ENCRYPT;

// Wipes a secret on every way out of a scope.
template <class T>
struct WipeOnExit {
  T &secret;
  ~WipeOnExit() { OPENSSL_cleanse(&secret, sizeof secret); }
};

bool AllZero(std::span<const uint8_t> bytes) {
  uint8_t acc = 0;
  for (uint8_t b : bytes) acc |= b;
  return acc == 0;
}

// C2 = M xor t in place over t.
void XorInto(uint8_t *t, const uint8_t *msg, size_t n) {
  for (size_t i = 0; i < n; ++i) t[i] ^= msg[i];
}

}  // namespace

void Kdf(std::span<const uint8_t> z, std::span<const uint8_t> info, uint8_t *out, size_t out_len) {
  // z is absorbed once; each block then costs the counter and the info.
  BIVO_SM3_CTX base, ctx;
  uint8_t block[32];
  Sm3Init(&base);
  Sm3Update(&base, z.data(), z.size());
  uint32_t counter = 1;
  size_t done = 0;
  do {
    ctx = base;
    uint8_t be[4];
    store_u32_be(be, counter++);
    Sm3Update(&ctx, be, sizeof be);
    Sm3Update(&ctx, info.data(), info.size());
    const size_t n = std::min<size_t>(sizeof block, out_len - done);
    if (n == sizeof block) {
      Sm3Final(out + done, &ctx);
    } else {
      Sm3Final(block, &ctx);
      if (n != 0) std::memcpy(out + done, block, n);
    }
    done += n;
  } while (done < out_len);
  OPENSSL_cleanse(block, sizeof block);
  OPENSSL_cleanse(&ctx, sizeof ctx);
  OPENSSL_cleanse(&base, sizeof base);
}

uint32_t Encrypt(std::span<const uint8_t> msg, const Point &key, const NonceSource &draw, uint8_t *out,
                 uint32_t *out_len) {
  // An empty key stream would count as all zeros: nothing to encrypt.
  if (msg.empty() || msg.size() > kKdfMaxLen) return kFailed;
  return Guarded(
      [&]() -> uint32_t {
        Ciphertext c;
        c.c2.resize(msg.size());
        Scalar k;
        Point c1, shared;
        uint8_t x2y2[64];
        const WipeOnExit<Scalar> wipe_k{k};
        const WipeOnExit<Point> wipe_shared{shared};
        const WipeOnExit<uint8_t[64]> wipe_x2y2{x2y2};
        // A key stream of all zeros would hand out M itself: draw again.
        do {
          ZEPH_TRY(draw(&k));
          if (!MulBase(k, &c1) || !Mul(k, key, &shared)) return kFailed;
          std::memcpy(x2y2, shared.x, 32);
          std::memcpy(x2y2 + 32, shared.y, 32);
          Kdf(x2y2, {}, c.c2.data(), c.c2.size());
        } while (AllZero(c.c2));
        XorInto(c.c2.data(), msg.data(), msg.size());
        std::memcpy(c.x, c1.x, 32);
        std::memcpy(c.y, c1.y, 32);

        BIVO_SM3_CTX ctx;
        Sm3Init(&ctx);
        Sm3Update(&ctx, shared.x, 32);
        Sm3Update(&ctx, msg.data(), msg.size());
        Sm3Update(&ctx, shared.y, 32);
        Sm3Final(c.c3, &ctx);
        OPENSSL_cleanse(&ctx, sizeof ctx);

        const Sm2CiphertextPtr s = ToStructure(c);
        const int n = s ? i2d_SM2_Ciphertext_Structure(s.get(), nullptr) : -1;
        if (n <= 0) return kFailed;
        if (static_cast<uint32_t>(n) > *out_len) {
          *out_len = static_cast<uint32_t>(n);
          return kFailed;
        }
        unsigned char *p = out;
        if (i2d_SM2_Ciphertext_Structure(s.get(), &p) != n) return kFailed;
        *out_len = static_cast<uint32_t>(n);
        return 0;
      },
      kFailed);
}

}  // namespace zeph::gm::sm2

namespace {

namespace sm2 = zeph::gm::sm2;

bool OutputUsable(const uint8_t *msg, uint32_t msg_len, const uint8_t *out, const uint32_t *out_len) {
  return (msg != nullptr || msg_len == 0) && out != nullptr && out_len != nullptr;
}

uint32_t EncryptToKey(const uint8_t *msg, uint32_t msg_len, const uint8_t *pubkey65, uint32_t pubkey_len,
                      const sm2::NonceSource &draw, uint8_t *out, uint32_t *out_len) {
  if (!OutputUsable(msg, msg_len, out, out_len) || pubkey65 == nullptr) return BIVO_ERR_NULL_POINTER;
  std::memset(out, 0, *out_len);
  sm2::Point key;
  if (!sm2::KeyFromArgument(pubkey65, pubkey_len, &key)) return sm2::kFailed;
  return sm2::Encrypt({msg, msg_len}, key, draw, out, out_len);
}

uint32_t EncryptToCert(const uint8_t *msg, uint32_t msg_len, const uint8_t *cert, uint32_t cert_len,
                       const sm2::NonceSource &draw, uint8_t *out, uint32_t *out_len) {
  if (!OutputUsable(msg, msg_len, out, out_len)) return BIVO_ERR_NULL_POINTER;
  uint8_t key[sm2::kPointLen];
  ZEPH_TRY(sm2::CertKey(cert, cert_len, key));
  return EncryptToKey(msg, msg_len, key, sizeof key, draw, out, out_len);
}

uint32_t EncryptToCertFile(const uint8_t *msg, uint32_t msg_len, const char *path, const sm2::NonceSource &draw,
                           uint8_t *out, uint32_t *out_len) {
  if (!OutputUsable(msg, msg_len, out, out_len) || path == nullptr) return BIVO_ERR_NULL_POINTER;
  uint8_t key[sm2::kPointLen];
  ZEPH_TRY(sm2::CertFileKey(path, key));
  return EncryptToKey(msg, msg_len, key, sizeof key, draw, out, out_len);
}

sm2::NonceSource Plain() {
  return [](sm2::Scalar *k) { return sm2::DrawPlain(k, sm2::kFailed); };
}

sm2::NonceSource FromDrbg(BIVO_HANDLE handle) {
  return [handle](sm2::Scalar *k) { return sm2::DrawDrbg(handle, k, sm2::kFailed); };
}

sm2::NonceSource FromMixed(BIVO_HANDLE handle, const uint8_t *external32) {
  return [handle, external32](sm2::Scalar *k) {
    if (external32 == nullptr) return BIVO_ERR_NULL_POINTER;
    return sm2::DrawMixed(handle, external32, 32, k, sm2::kFailed);
  };
}

}  // namespace

extern "C" {

ZEPH_API uint32_t BIVO_Sm2EncryptWithPubKey(const unsigned char *msg, uint32_t msg_len, const unsigned char *pubkey65,
                                            uint32_t pubkey_len, unsigned char *out, uint32_t *out_len) {
  return EncryptToKey(msg, msg_len, pubkey65, pubkey_len, Plain(), out, out_len);
}

ZEPH_API uint32_t BIVO_Sm2Encrypt(const unsigned char *msg, uint32_t msg_len, const unsigned char *cert_der,
                                  uint32_t cert_len, unsigned char *out, uint32_t *out_len) {
  return EncryptToCert(msg, msg_len, cert_der, cert_len, Plain(), out, out_len);
}

ZEPH_API uint32_t BIVO_Sm2EncryptWithCertFile(const unsigned char *msg, uint32_t msg_len, const char *path,
                                              unsigned char *out, uint32_t *out_len) {
  return EncryptToCertFile(msg, msg_len, path, Plain(), out, out_len);
}

ZEPH_API uint32_t BIVO_Sm2EncryptWithPubKeyAndDrbg(BIVO_HANDLE handle, const unsigned char *msg, uint32_t msg_len,
                                                   const unsigned char *pubkey65, uint32_t pubkey_len,
                                                   unsigned char *out, uint32_t *out_len) {
  return EncryptToKey(msg, msg_len, pubkey65, pubkey_len, FromDrbg(handle), out, out_len);
}

ZEPH_API uint32_t BIVO_Sm2EncryptWithDrbg(BIVO_HANDLE handle, const unsigned char *msg, uint32_t msg_len,
                                          const unsigned char *cert_der, uint32_t cert_len, unsigned char *out,
                                          uint32_t *out_len) {
  return EncryptToCert(msg, msg_len, cert_der, cert_len, FromDrbg(handle), out, out_len);
}

ZEPH_API uint32_t BIVO_Sm2EncryptWithCertFileAndDrbg(BIVO_HANDLE handle, const unsigned char *msg, uint32_t msg_len,
                                                     const char *path, unsigned char *out, uint32_t *out_len) {
  return EncryptToCertFile(msg, msg_len, path, FromDrbg(handle), out, out_len);
}

ZEPH_API uint32_t BIVO_Sm2EncryptWithPubKeyAndMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                          const unsigned char *msg, uint32_t msg_len,
                                                          const unsigned char *pubkey65, uint32_t pubkey_len,
                                                          unsigned char *out, uint32_t *out_len) {
  return EncryptToKey(msg, msg_len, pubkey65, pubkey_len, FromMixed(handle, external32), out, out_len);
}

ZEPH_API uint32_t BIVO_Sm2EncryptWithMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                 const unsigned char *msg, uint32_t msg_len,
                                                 const unsigned char *cert_der, uint32_t cert_len, unsigned char *out,
                                                 uint32_t *out_len) {
  return EncryptToCert(msg, msg_len, cert_der, cert_len, FromMixed(handle, external32), out, out_len);
}

ZEPH_API uint32_t BIVO_Sm2EncryptWithCertFileAndMixedSource(BIVO_HANDLE handle, const unsigned char *external32,
                                                            const unsigned char *msg, uint32_t msg_len,
                                                            const char *path, unsigned char *out, uint32_t *out_len) {
  return EncryptToCertFile(msg, msg_len, path, FromMixed(handle, external32), out, out_len);
}

ZEPH_API uint32_t ECDH_KDF_X9_62_COMPUTE(unsigned char *out, size_t out_len, const unsigned char *z, size_t z_len,
                                         const unsigned char *shared_info, size_t shared_info_len) {
  if (out_len > sm2::kKdfMaxLen || z_len > sm2::kKdfMaxLen || shared_info_len > sm2::kKdfMaxLen) {
    return BIVO_ERR_KDF_LENGTH;
  }
  if ((out == nullptr && out_len != 0) || (z == nullptr && z_len != 0) ||
      (shared_info == nullptr && shared_info_len != 0)) {
    return BIVO_ERR_KDF_LENGTH;
  }
  sm2::Kdf({z, z_len}, {shared_info, shared_info_len}, out, out_len);
  return 0;
}

}  // extern "C"
