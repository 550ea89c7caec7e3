// Two-party RSA: the service splits the private exponent d = d1 + d2 mod
// lambda(n) and keeps d2; the client keeps d1 sealed in an RSAParm and a
// signature is m^d1 · m^d2 mod n, released only when it verifies with e.
#include <cstring>
#include <string>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rand.h>

#include "bivo/bivo_client.hpp"
#include "foundation/helpers.hpp"
#include "foundation/output.hpp"
#include "gm/gm_internal.hpp"
#include "zeph_c_api.h"
#include "zeph_c_status.h"

namespace zeph::bivo {
namespace {

constexpr uint32_t kDefaultBits = 2048;
constexpr uint32_t kMaxBits = 4096;
// Requests and replies carry a 4096-bit value or two in base64.
constexpr size_t kRsaRequest = 1200;
constexpr size_t kRsaReply = 4096;

using RsaSharePtr = std::unique_ptr<BivoRsaShare, Free<BivoRsaShare_free>>;
using RsaParmPtr = std::unique_ptr<RSAParm, Free<RSAParm_free>>;

struct RsaKey {
  std::string container_id;
  BnPtr n, e, d1;
  size_t k() const { return static_cast<size_t>(BN_num_bytes(n.get())); }
};

BnPtr Bn(std::span<const uint8_t> bytes) {
  return BnPtr(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

// The service's values: n of exactly bits, e odd in [3, 2^64), d1 in
// [1, n-1].
uint32_t CheckKey(const RsaKey &key, uint32_t bits) {
  const BIGNUM *n = key.n.get(), *e = key.e.get(), *d1 = key.d1.get();
  ZEPH_ENSURE(n != nullptr && e != nullptr && d1 != nullptr, ERR_COSIGN_FAILED);
  ZEPH_ENSURE(BN_num_bits(n) == static_cast<int>(bits) && BN_is_odd(n), ERR_COSIGN_FAILED);
  ZEPH_ENSURE(BN_is_odd(e) && BN_num_bits(e) >= 2 && BN_num_bits(e) <= 64, ERR_COSIGN_FAILED);
  ZEPH_ENSURE(!BN_is_zero(d1) && BN_cmp(d1, n) < 0, ERR_COSIGN_FAILED);
  return 0;
}

EvpPkeyPtr PublicKey(const RsaKey &key) {
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!bld || OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, key.n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, key.e.get()) != 1) {
    return nullptr;
  }
  ParamPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY *raw = nullptr;
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return nullptr;
  }
  return EvpPkeyPtr(raw);
}

uint32_t SealKey(std::span<const uint8_t> secret, const char *device_number, const RsaKey &key,
                 std::vector<uint8_t> *der) {
  RsaSharePtr inner(BivoRsaShare_new());
  ZEPH_ENSURE(inner != nullptr, ERR_OUT_OF_MEMORY);
  ZEPH_ENSURE(
      ASN1_STRING_set(inner->container_id, key.container_id.data(), static_cast<int>(key.container_id.size())) == 1 &&
          BN_to_ASN1_INTEGER(key.n.get(), inner->n) != nullptr &&
          BN_to_ASN1_INTEGER(key.e.get(), inner->e) != nullptr &&
          BN_to_ASN1_INTEGER(key.d1.get(), inner->d1) != nullptr,
      ERR_OUT_OF_MEMORY);
  unsigned char *plain = nullptr;
  const int plain_len = i2d_BivoRsaShare(inner.get(), &plain);
  ZEPH_ENSURE(plain_len > 0, ERR_ENCODE_FAILED);
  SecureBytes body(plain, static_cast<size_t>(plain_len));
  OPENSSL_clear_free(plain, static_cast<size_t>(plain_len));
  SecureBytes sealed;
  ZEPH_TRY(l_bivo_EnCodeDeviceData(secret, device_number, body.span(), true, &sealed));
  RsaParmPtr parm(RSAParm_new());
  ZEPH_ENSURE(parm != nullptr, ERR_OUT_OF_MEMORY);
  ASN1_OBJECT_free(parm->encAlg->ID);
  parm->encAlg->ID = OBJ_txt2obj(ZEPH_OID_BIVO_SM4_ECB, 1);
  ZEPH_ENSURE(parm->encAlg->ID != nullptr &&
                  ASN1_OCTET_STRING_set(parm->encryptedData, sealed.data(), static_cast<int>(sealed.size())) == 1,
              ERR_OUT_OF_MEMORY);
  return ToDer(i2d_RSAParm, parm.get(), der);
}

uint32_t OpenKey(std::span<const uint8_t> secret, const char *device_number, std::span<const uint8_t> der,
                 RsaKey *key) {
  const unsigned char *p = der.data();
  RsaParmPtr parm(d2i_RSAParm(nullptr, &p, static_cast<long>(der.size())));
  char oid[32] = {};
  ZEPH_ENSURE(parm != nullptr && p == der.data() + der.size() &&
                  OBJ_obj2txt(oid, sizeof oid, parm->encAlg->ID, 1) > 0 && std::strcmp(oid, ZEPH_OID_BIVO_SM4_ECB) == 0,
              ERR_INVALID_PARAMETER);
  const std::span<const uint8_t> sealed{ASN1_STRING_get0_data(parm->encryptedData),
                                        static_cast<size_t>(ASN1_STRING_length(parm->encryptedData))};
  ZEPH_ENSURE(!sealed.empty() && sealed.size() % 16 == 0, ERR_INVALID_PARAMETER);
  SecureBytes body;
  ZEPH_TRY(l_bivo_DeCodeDeviceData(secret, device_number, sealed, true, &body));
  const unsigned char *q = body.data();
  RsaSharePtr inner(d2i_BivoRsaShare(nullptr, &q, static_cast<long>(body.size())));
  // Padding that happens to pass under a wrong secret still leaves no share.
  ZEPH_ENSURE(inner != nullptr && q == body.data() + body.size() && ASN1_STRING_length(inner->container_id) == 64,
              ERR_PIN_VERIFY_FAILED);
  key->container_id.assign(reinterpret_cast<const char *>(ASN1_STRING_get0_data(inner->container_id)), 64);
  key->n.reset(ASN1_INTEGER_to_BN(inner->n, nullptr));
  key->e.reset(ASN1_INTEGER_to_BN(inner->e, nullptr));
  key->d1.reset(ASN1_INTEGER_to_BN(inner->d1, nullptr));
  ZEPH_ENSURE(key->n && key->e && key->d1, ERR_OUT_OF_MEMORY);
  return CheckKey(*key, static_cast<uint32_t>(BN_num_bits(key->n.get()))) == 0 ? 0u : ERR_PIN_VERIFY_FAILED;
}

// DigestInfo prefixes of EMSA-PKCS1-v1_5 (RFC 8017, 9.2 note 1).
struct DigestPrefix {
  uint32_t id;
  const EVP_MD *(*md)();
  std::vector<uint8_t> prefix;
};
const DigestPrefix *FindDigest(uint32_t digest_id) {
  // clang-format off
  static const DigestPrefix kTable[] = {
      {ZEPH_DIGEST_SHA1, EVP_sha1, {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14}},
      {ZEPH_DIGEST_SHA256, EVP_sha256, {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20}},
      {ZEPH_DIGEST_SHA384, EVP_sha384, {0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02, 0x05, 0x00, 0x04, 0x30}},
      {ZEPH_DIGEST_SHA512, EVP_sha512, {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40}},
  };
  // clang-format on
  for (const auto &d : kTable) {
    if (d.id == digest_id) return &d;
  }
  return nullptr;
}

// 00 01 FF..FF 00 DigestInfo, k bytes.
uint32_t EncodeMessage(uint32_t digest_id, std::span<const uint8_t> msg, size_t k, std::vector<uint8_t> *em) {
  const DigestPrefix *d = FindDigest(digest_id == 0 ? ZEPH_DIGEST_SHA256 : digest_id);
  ZEPH_ENSURE(d != nullptr, ERR_ALG_UNSUPPORTED);
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned int digest_len = 0;
  ZEPH_ENSURE(EVP_Digest(msg.data(), msg.size(), digest, &digest_len, d->md(), nullptr) == 1, ERR_DIGEST_FAILED);
  const size_t t_len = d->prefix.size() + digest_len;
  ZEPH_ENSURE(k >= t_len + 11, ERR_ALG_UNSUPPORTED);
  em->assign(k, 0xFF);
  (*em)[0] = 0x00;
  (*em)[1] = 0x01;
  (*em)[k - t_len - 1] = 0x00;
  std::memcpy(em->data() + k - t_len, d->prefix.data(), d->prefix.size());
  std::memcpy(em->data() + k - digest_len, digest, digest_len);
  return 0;
}

// The signature of em: m^d1 · s2 mod n, released only when s^e = m.
uint32_t CoSign(const ZEPH_BIVO_CTX &ctx, const RsaKey &key, const std::vector<uint8_t> &em,
                std::vector<uint8_t> *sig) {
  const size_t k = key.k();
  char request[kRsaRequest];
  const int len = std::snprintf(request, sizeof request, R"({"containerID":"%s","m":"%s"})", key.container_id.c_str(),
                                zeph::Base64Text(em).c_str());
  ZEPH_ENSURE(len > 0 && static_cast<size_t>(len) < sizeof request, ERR_INVALID_PARAMETER);
  std::string result;
  ZEPH_TRY(CallService(ctx, "BIVORSASignature", request, &result, kRsaReply));
  std::vector<uint8_t> s2_raw(k);
  ZEPH_TRY(ResultBytes(result, "s2", s2_raw));
  BnCtxPtr bn(BN_CTX_new());
  BnPtr m = Bn(em), s2 = Bn(s2_raw), s(BN_new()), check(BN_new());
  ZEPH_ENSURE(bn && m && s2 && s && check, ERR_OUT_OF_MEMORY);
  ZEPH_ENSURE(!BN_is_zero(s2.get()) && BN_cmp(s2.get(), key.n.get()) < 0, ERR_COSIGN_FAILED);
  BN_set_flags(key.d1.get(), BN_FLG_CONSTTIME);
  ZEPH_ENSURE(BN_mod_exp_mont_consttime(s.get(), m.get(), key.d1.get(), key.n.get(), bn.get(), nullptr) == 1 &&
                  BN_mod_mul(s.get(), s.get(), s2.get(), key.n.get(), bn.get()) == 1 &&
                  BN_mod_exp(check.get(), s.get(), key.e.get(), key.n.get(), bn.get()) == 1,
              ERR_SIGN_FAILED);
  ZEPH_ENSURE(BN_cmp(check.get(), m.get()) == 0, ERR_COSIGN_FAILED);
  sig->resize(k);
  ZEPH_ENSURE(BN_bn2binpad(s.get(), sig->data(), static_cast<int>(k)) == static_cast<int>(k), ERR_SIGN_FAILED);
  return 0;
}

uint32_t NewContainerId(const char *device_number, std::string *id) {
  uint8_t seed[256 + 32];
  const size_t n = std::strlen(device_number);
  std::memcpy(seed, device_number, n);
  ZEPH_ENSURE(RAND_bytes(seed + n, 32) == 1, ERR_GEN_KEYPAIR_FAILED);
  uint8_t digest[32];
  gm::Sm3(seed, n + 32, digest);
  *id = HexUpper(digest);
  return 0;
}

// Bounds checked before the service is asked: the public key and the share
// of a key of bits.
size_t PublicKeyBound(uint32_t bits) { return bits / 8 + 64; }
size_t ShareBound(uint32_t bits) { return 2 * (bits / 8) + 160; }

}  // namespace
}  // namespace zeph::bivo

using namespace zeph::bivo;  // NOLINT: the exported functions below use the client's pieces throughout

extern "C" {

ZEPH_API uint32_t ZEPH_C_BIVO_RSACreateKeyPair(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                               uint32_t bits, unsigned char *pubkey_out, uint32_t *pubkey_len,
                                               char *container_id_out, unsigned char *share_out, uint32_t *share_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(secret != nullptr && pubkey_len != nullptr && share_len != nullptr, ERR_INVALID_PARAMETER);
    if (bits == 0) bits = kDefaultBits;
    ZEPH_ENSURE(bits >= kDefaultBits && bits <= kMaxBits && bits % 8 == 0, ERR_INVALID_PARAMETER);
    if (share_out == nullptr) {
      *share_len = static_cast<uint32_t>(ShareBound(bits));
      return 0;
    }
    // Compat: short buffers are 0x82080001, as for the SM2 key.
    if (*share_len < ShareBound(bits) || pubkey_out == nullptr || *pubkey_len < PublicKeyBound(bits)) {
      *share_len = static_cast<uint32_t>(ShareBound(bits));
      *pubkey_len = static_cast<uint32_t>(PublicKeyBound(bits));
      return ERR_OUT_OF_MEMORY;
    }
    ZEPH_ENSURE(container_id_out != nullptr, ERR_INVALID_PARAMETER);
    ZEPH_ENSURE(ctx->has_service, ERR_COSIGN_FAILED);

    RsaKey key;
    ZEPH_TRY(NewContainerId(ctx->device_number, &key.container_id));
    char request[kKeyPairRequest];
    const int n = std::snprintf(request, sizeof request, R"({"containerID":"%s","bits":%u,"deviceNumber":"%s"})",
                                key.container_id.c_str(), bits, ctx->device_number);
    ZEPH_ENSURE(n > 0 && static_cast<size_t>(n) < sizeof request, ERR_INVALID_PARAMETER);
    std::string result;
    ZEPH_TRY(CallService(*ctx, "BIVORSAGenKeyPair", request, &result, kRsaReply));
    std::vector<uint8_t> n_raw, e_raw;
    zeph::SecureBytes d1_raw(bits / 8);
    ZEPH_TRY(ResultBytes(result, "n", bits / 8, &n_raw));
    ZEPH_TRY(ResultBytes(result, "e", 8, &e_raw));
    {
      std::vector<uint8_t> d1_bytes;
      ZEPH_TRY(ResultBytes(result, "d1", bits / 8, &d1_bytes));
      key.d1 = Bn(d1_bytes);
      OPENSSL_cleanse(d1_bytes.data(), d1_bytes.size());
    }
    key.n = Bn(n_raw);
    key.e = Bn(e_raw);
    ZEPH_TRY(CheckKey(key, bits));
    const zeph::EvpPkeyPtr pub = PublicKey(key);
    ZEPH_ENSURE(pub != nullptr, ERR_COSIGN_FAILED);
    unsigned char *spki = nullptr;
    const int spki_len = i2d_PUBKEY(pub.get(), &spki);
    ZEPH_ENSURE(spki_len > 0, ERR_ENCODE_FAILED);
    const std::vector<uint8_t> spki_der(spki, spki + spki_len);
    OPENSSL_free(spki);
    std::vector<uint8_t> share;
    ZEPH_TRY(SealKey({secret, secret_len}, ctx->device_number, key, &share));
    ZEPH_ENSURE(spki_der.size() <= *pubkey_len && share.size() <= *share_len, ERR_OUT_OF_MEMORY);
    std::memcpy(pubkey_out, spki_der.data(), spki_der.size());
    *pubkey_len = static_cast<uint32_t>(spki_der.size());
    std::memcpy(container_id_out, key.container_id.c_str(), key.container_id.size() + 1);
    std::memcpy(share_out, share.data(), share.size());
    *share_len = static_cast<uint32_t>(share.size());
    return 0;
  });
}

ZEPH_API uint32_t ZEPH_C_BIVO_RSADoSignature(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                             const unsigned char *share, uint32_t share_len, uint32_t digest_id,
                                             const unsigned char *msg, uint32_t msg_len, unsigned char *sig_out,
                                             uint32_t *sig_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(secret != nullptr && share != nullptr && sig_len != nullptr && (msg != nullptr || msg_len == 0),
                ERR_INVALID_PARAMETER);
    RsaKey key;
    ZEPH_TRY(OpenKey({secret, secret_len}, ctx->device_number, {share, share_len}, &key));
    if (auto done = zeph::ReserveOutput(key.k(), sig_out, sig_len)) return *done;
    std::vector<uint8_t> em, sig;
    ZEPH_TRY(EncodeMessage(digest_id, {msg, msg_len}, key.k(), &em));
    ZEPH_TRY(CoSign(*ctx, key, em, &sig));
    return zeph::PutOutput(sig, sig_out, sig_len);
  });
}

ZEPH_API uint32_t ZEPH_C_BIVO_RSAGenCSR(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                        const unsigned char *share, uint32_t share_len, const char *dn,
                                        unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(secret != nullptr && share != nullptr && dn != nullptr && in_out_len != nullptr, ERR_INVALID_PARAMETER);
    RsaKey key;
    ZEPH_TRY(OpenKey({secret, secret_len}, ctx->device_number, {share, share_len}, &key));
    const zeph::EvpPkeyPtr pub = PublicKey(key);
    ZEPH_ENSURE(pub != nullptr, ERR_COSIGN_FAILED);
    size_t most = 0;
    ZEPH_TRY(CsrLength(pub.get(), dn, NID_sha256WithRSAEncryption, key.k(), &most));
    if (out == nullptr || *in_out_len < most) {
      if (auto done = zeph::ReserveOutput(most, out, in_out_len)) return *done;
    }
    const auto co_sign = [&](std::span<const uint8_t> tbs, std::vector<uint8_t> *sig) {
      std::vector<uint8_t> em;
      const uint32_t rv = EncodeMessage(ZEPH_DIGEST_SHA256, tbs, key.k(), &em);
      return rv != 0 ? rv : CoSign(*ctx, key, em, sig);
    };
    std::vector<uint8_t> der;
    ZEPH_TRY(BuildCsr(pub.get(), dn, NID_sha256WithRSAEncryption, co_sign, &der));
    return zeph::PutOutput(der, out, in_out_len);
  });
}

}  // extern "C"
