// The client's share at rest: the share structures, the device-data seal,
// opening a share with the user's secret, re-sealing it under a new one, and
// the envelope key of the configuration directory.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include <openssl/crypto.h>
#include <openssl/objects.h>

#include "bivo/bivo_client.hpp"
#include "bivo/bivo_math.hpp"
#include "foundation/output.hpp"
#include "foundation/owned.hpp"
#include "gm/gm_internal.hpp"
#include "zeph_c_p7.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace zeph::bivo {
namespace sm2 = gm::sm2;

using BivoParmPtr = std::unique_ptr<BIVOParm, Free<BIVOParm_free>>;

namespace {

constexpr uint32_t kSm4Ecb = 0x401;
constexpr long kShareVersion = 1;

// SM3(secret || device number), folded to the 16-byte SM4 key.
SecureBytes DeviceKey(std::span<const uint8_t> secret, const char *device_number) {
  const size_t number_len = std::strlen(device_number), n = secret.size() + number_len;
  // One byte at least, so that empty texts still hash from a real buffer.
  SecureBytes input(std::max<size_t>(n, 1));
  if (!secret.empty()) std::memcpy(input.data(), secret.data(), secret.size());
  if (number_len != 0) std::memcpy(input.data() + secret.size(), device_number, number_len);
  SecureBytes k(32);
  gm::Sm3(input.data(), n, k.data());
  SecureBytes key(16);
  for (size_t i = 0; i < 16; ++i) key[i] = k[i] ^ k[16 + i];
  return key;
}

using EcbFn = uint32_t (*)(uint32_t, const unsigned char *, uint32_t, const unsigned char *, uint32_t, unsigned char *,
                           uint32_t *);

uint32_t Ecb(EcbFn fn, std::span<const uint8_t> secret, const char *device_number, std::span<const uint8_t> data,
             size_t capacity, SecureBytes *out) {
  const SecureBytes key = DeviceKey(secret, device_number);
  SecureBytes buf(std::max<size_t>(capacity, 1));
  auto len = static_cast<uint32_t>(buf.size());
  ZEPH_TRY(fn(kSm4Ecb, data.data(), static_cast<uint32_t>(data.size()), key.data(), 16, buf.data(), &len));
  buf.resize(len);
  *out = std::move(buf);
  return 0;
}

bool SetBits(ASN1_BIT_STRING *bits, std::span<const uint8_t> bytes) {
  if (ASN1_BIT_STRING_set(bits, const_cast<uint8_t *>(bytes.data()), static_cast<int>(bytes.size())) != 1) {
    return false;
  }
  // All bits count: without this the encoder drops trailing zero bytes and the
  // sealed value would change length.
  bits->flags = (bits->flags & ~0x07L) | ASN1_STRING_FLAG_BITS_LEFT;
  return true;
}

bool IsObject(const ASN1_OBJECT *obj, const char *dotted) {
  char text[64];
  return obj != nullptr && OBJ_obj2txt(text, sizeof text, obj, 1) > 0 && std::strcmp(text, dotted) == 0;
}

// The DER as one BIVOParm of the expected shape (nothing after it).
BivoParmPtr ParseShare(std::span<const uint8_t> der) {
  const unsigned char *p = der.data();
  BivoParmPtr parm(d2i_BIVOParm(nullptr, &p, static_cast<long>(der.size())));
  if (!parm || p != der.data() + der.size() || ASN1_INTEGER_get(parm->version) != kShareVersion ||
      !IsObject(parm->alg->aignAlgID, ZEPH_OID_BIVO_SM2) || !IsObject(parm->hash->ID, ZEPH_OID_BIVO_SM3) ||
      ASN1_STRING_length(parm->pubkey) != 65 || ASN1_STRING_length(parm->d1) != 32 ||
      ASN1_STRING_length(parm->d1_inv) != 32 || ASN1_STRING_length(parm->hash->digest) != 32) {
    return nullptr;
  }
  return parm;
}

std::span<const uint8_t> Bytes(const ASN1_STRING *s) {
  return {ASN1_STRING_get0_data(s), static_cast<size_t>(ASN1_STRING_length(s))};
}

}  // namespace

uint32_t l_bivo_EnCodeDeviceData(std::span<const uint8_t> secret, const char *device_number,
                                 std::span<const uint8_t> data, bool padding, SecureBytes *out) {
  return Ecb(padding ? zeph_c_utils_encrypt : zeph_c_utils_encryptNoPading, secret, device_number, data,
             data.size() + 16, out);
}

uint32_t l_bivo_DeCodeDeviceData(std::span<const uint8_t> secret, const char *device_number,
                                 std::span<const uint8_t> data, bool padding, SecureBytes *out) {
  const uint32_t rv =
      Ecb(padding ? zeph_c_utils_decrypt : zeph_c_utils_decryptNoPading, secret, device_number, data, data.size(), out);
  // With the wrong secret the padding is what fails.
  return rv == ERR_PADDING_INVALID ? ERR_PIN_VERIFY_FAILED : rv;
}

uint32_t EncodeShare(std::span<const uint8_t> secret, const char *device_number, const Scalar &d1, const Scalar &d1_inv,
                     const Point &p, std::vector<uint8_t> *der) {
  SecureBytes sealed_d1, sealed_inv;
  ZEPH_TRY(l_bivo_EnCodeDeviceData(secret, device_number, d1.b, false, &sealed_d1));
  ZEPH_TRY(l_bivo_EnCodeDeviceData(secret, device_number, d1_inv.b, false, &sealed_inv));
  uint8_t point[65], digest[32];
  sm2::PointTo65(p, point);
  gm::Sm3(d1.b, sizeof d1.b, digest);
  BivoParmPtr parm(BIVOParm_new());
  ZEPH_ENSURE(parm != nullptr, ERR_OUT_OF_MEMORY);
  ASN1_OBJECT_free(parm->alg->aignAlgID);
  parm->alg->aignAlgID = OBJ_txt2obj(ZEPH_OID_BIVO_SM2, 1);
  ASN1_OBJECT_free(parm->hash->ID);
  parm->hash->ID = OBJ_txt2obj(ZEPH_OID_BIVO_SM3, 1);
  ZEPH_ENSURE(ASN1_INTEGER_set(parm->version, kShareVersion) == 1 && parm->alg->aignAlgID != nullptr &&
                  parm->hash->ID != nullptr && ASN1_OCTET_STRING_set(parm->pubkey, point, sizeof point) == 1 &&
                  ASN1_OCTET_STRING_set(parm->hash->digest, digest, sizeof digest) == 1 &&
                  SetBits(parm->d1, sealed_d1.span()) && SetBits(parm->d1_inv, sealed_inv.span()),
              ERR_OUT_OF_MEMORY);
  return ToDer(i2d_BIVOParm, parm.get(), der);
}

size_t ShareLength() {
  // Every field has a fixed size, so any share measures them all.
  static const size_t length = [] {
    Scalar one{};
    one.b[31] = 1;
    std::vector<uint8_t> der;
    const uint8_t none = 0;
    return EncodeShare({&none, 0}, "", one, one, sm2::BaseG(), &der) == 0 ? der.size() : 0;
  }();
  return length;
}

// The share opened with the secret and checked: SM3(d1) is its digest and
// d1·d1^-1 = 1.
uint32_t OpenShare(std::span<const uint8_t> secret, const char *device_number, std::span<const uint8_t> der, Scalar *d1,
                   Scalar *d1_inv, Point *p, char container_id[65]) {
  const BivoParmPtr parm = ParseShare(der);
  ZEPH_ENSURE(parm != nullptr, ERR_INVALID_PARAMETER);
  ZEPH_ENSURE(ReadPoint(ASN1_STRING_get0_data(parm->pubkey), p), ERR_INVALID_PARAMETER);
  SecureBytes plain_d1, plain_inv;
  ZEPH_TRY(l_bivo_DeCodeDeviceData(secret, device_number, Bytes(parm->d1), false, &plain_d1));
  ZEPH_TRY(l_bivo_DeCodeDeviceData(secret, device_number, Bytes(parm->d1_inv), false, &plain_inv));
  Wiped<Scalar> a, b, product;
  ReadScalar(plain_d1.data(), &a);
  ReadScalar(plain_inv.data(), &b);
  sm2::ModMul(a, b, &product);
  Scalar one{};
  one.b[31] = 1;
  uint8_t digest[32];
  gm::Sm3(a.b, sizeof a.b, digest);
  const bool ok = sm2::InRange(a) && CRYPTO_memcmp(product.b, one.b, 32) == 0 &&
                  CRYPTO_memcmp(digest, ASN1_STRING_get0_data(parm->hash->digest), 32) == 0;
  ZEPH_ENSURE(ok, ERR_PIN_VERIFY_FAILED);
  *d1 = a;
  *d1_inv = b;
  const std::string hex = HexUpper(digest);
  std::memcpy(container_id, hex.c_str(), hex.size() + 1);
  return 0;
}

namespace {

// The envelope key file beside the device configuration, as PKCS#8 DER.
uint32_t EnvelopeKey(SecureBytes *pkcs8) {
  char cfg[260] = {};
  ZEPH_ENSURE(get_vorli_cfg_path(cfg) == 0, ERR_UNSUPPORTED_VALUE);
  std::string dir(cfg);
  const size_t slash = dir.find_last_of('/');
  dir = slash == std::string::npos ? "." : dir.substr(0, slash);
  const std::string path = dir + "/" + ZEPH_BIVO_ENVELOPE_KEY_FILE;
  uint32_t n = 0;
  ZEPH_ENSURE(zeph_c_utils_readFile(path.c_str(), nullptr, &n) == 0 && n > 0 && n < 4096, ERR_UNSUPPORTED_VALUE);
  SecureBytes text(n + 1);
  ZEPH_ENSURE(zeph_c_utils_readFile(path.c_str(), text.data(), &n) == 0, ERR_UNSUPPORTED_VALUE);
  SecureBytes b64(n + 1);
  size_t len = 0;
  for (uint32_t i = 0; i < n; ++i) {
    if (std::isspace(text[i]) == 0) b64[len++] = text[i];
  }
  SecureBytes der(len);
  const int got = EVP_DecodeBlock(der.data(), b64.data(), static_cast<int>(len));
  ZEPH_ENSURE(got > 0 && len % 4 == 0, ERR_UNSUPPORTED_VALUE);
  size_t pad = 0;
  while (pad < 2 && len > pad && b64[len - 1 - pad] == '=') ++pad;
  const unsigned char *p = der.data();
  const long der_len = got - static_cast<long>(pad);
  EvpPkeyPtr key(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &p, der_len));
  ZEPH_ENSURE(key != nullptr && p == der.data() + der_len, ERR_UNSUPPORTED_VALUE);
  char group[32] = {};
  size_t group_len = 0;
  ZEPH_ENSURE(
      EVP_PKEY_get_group_name(key.get(), group, sizeof group, &group_len) == 1 && std::strcmp(group, "SM2") == 0,
      ERR_UNSUPPORTED_VALUE);
  std::unique_ptr<PKCS8_PRIV_KEY_INFO, Free<PKCS8_PRIV_KEY_INFO_free>> info(EVP_PKEY2PKCS8(key.get()));
  ZEPH_ENSURE(info != nullptr, ERR_UNSUPPORTED_VALUE);
  unsigned char *out = nullptr;
  const int out_len = i2d_PKCS8_PRIV_KEY_INFO(info.get(), &out);
  ZEPH_ENSURE(out_len > 0, ERR_UNSUPPORTED_VALUE);
  *pkcs8 = SecureBytes(out, static_cast<size_t>(out_len));
  OPENSSL_clear_free(out, static_cast<size_t>(out_len));
  return 0;
}

}  // namespace
}  // namespace zeph::bivo

using namespace zeph::bivo;  // NOLINT: the exported functions below use the client's pieces throughout

extern "C" {

int l_bivo_ResloveParm(const unsigned char *der, uint32_t der_len, unsigned char *pubkey_out, uint32_t *pubkey_len,
                       unsigned char *hash_out, uint32_t *hash_len, unsigned char *d1_out, uint32_t *d1_len,
                       unsigned char *d1_inv_out, uint32_t *d1_inv_len) {
  return zeph::Guarded(
             [&]() -> uint32_t {
               ZEPH_ENSURE(der != nullptr, 1u);
               const unsigned char *p = der;
               const BivoParmPtr parm(d2i_BIVOParm(nullptr, &p, static_cast<long>(der_len)));
               ZEPH_ENSURE(parm != nullptr && p == der + der_len, 1u);
               const struct {
                 const ASN1_STRING *value;
                 unsigned char *out;
                 uint32_t *len;
               } fields[] = {{parm->pubkey, pubkey_out, pubkey_len},
                             {parm->hash->digest, hash_out, hash_len},
                             {parm->d1, d1_out, d1_len},
                             {parm->d1_inv, d1_inv_out, d1_inv_len}};
               for (const auto &f : fields) {
                 if (f.out == nullptr) continue;
                 const auto n = static_cast<uint32_t>(ASN1_STRING_length(f.value));
                 ZEPH_ENSURE(f.len != nullptr && *f.len >= n, 1u);
               }
               for (const auto &f : fields) {
                 if (f.out == nullptr) continue;
                 const auto n = static_cast<uint32_t>(ASN1_STRING_length(f.value));
                 if (n != 0) std::memcpy(f.out, ASN1_STRING_get0_data(f.value), n);
                 *f.len = n;
               }
               return 0;
             },
             1u) == 0
             ? 0
             : -1;
}

ZEPH_API uint32_t ZEPH_C_BIVO_VerifyUserPin(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                            const unsigned char *share, uint32_t share_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(secret != nullptr && share != nullptr, ERR_INVALID_PARAMETER);
    Wiped<Scalar> d1, d1_inv;
    Point p;
    char container_id[65];
    ZEPH_TRY(OpenShare({secret, secret_len}, ctx->device_number, {share, share_len}, &d1, &d1_inv, &p, container_id));
    WriteScalar(d1, ctx->d1);
    WriteScalar(d1_inv, ctx->d1_inv);
    zeph::gm::sm2::PointTo65(p, ctx->pubkey);
    ctx->pubkey_len = 65;
    std::memcpy(ctx->container_id, container_id, sizeof container_id);
    ctx->has_key = true;
    return 0;
  });
}

ZEPH_API uint32_t ZEPH_C_BIVO_ChangeUserPin(ZEPH_BIVO_CTX *ctx, const unsigned char *old_secret, uint32_t old_len,
                                            const unsigned char *new_secret, uint32_t new_len,
                                            const unsigned char *share, uint32_t share_len, unsigned char *out,
                                            uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(old_secret != nullptr && new_secret != nullptr && share != nullptr, ERR_INVALID_PARAMETER);
    if (auto done = zeph::ReserveOutput(ShareLength(), out, in_out_len)) return *done;
    Wiped<Scalar> d1, d1_inv;
    Point p;
    char container_id[65];
    ZEPH_TRY(OpenShare({old_secret, old_len}, ctx->device_number, {share, share_len}, &d1, &d1_inv, &p, container_id));
    std::vector<uint8_t> der;
    ZEPH_TRY(EncodeShare({new_secret, new_len}, ctx->device_number, d1, d1_inv, p, &der));
    return zeph::PutOutput(der, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_BIVO_DecodeEnveloper(const unsigned char *env, uint32_t env_len, unsigned char *out,
                                              uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(env != nullptr && in_out_len != nullptr, ERR_INVALID_PARAMETER);
    zeph::SecureBytes pkcs8;
    ZEPH_TRY(EnvelopeKey(&pkcs8));
    return ZEPH_C_DecodeEnveloperWithPrivateKey(pkcs8.data(), static_cast<uint32_t>(pkcs8.size()), nullptr, env,
                                                env_len, out, in_out_len);
  });
}

}  // extern "C"
