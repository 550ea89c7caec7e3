// Operations with the private keys of a key, inside a session that the
// caller opened on the container (and verified the PIN for): the value to be
// signed, signing, decryption, public key export, device random.
#include <cstring>
#include <vector>

#include <openssl/core_names.h>
#include <openssl/param_build.h>

#include "device/vendor_quirks.hpp"
#include "device/vorli_gm_skf.hpp"
#include "foundation/log.hpp"
#include "foundation/output.hpp"
#include "foundation/owned.hpp"
#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_gm.h"
#include "zeph_c_utils.h"

using zeph::device::CallSkf;
using zeph::device::HasContainer;

namespace {

using zeph::kSignWorkLen;
using zeph::kSm2CoordLen;
using zeph::kSm2PointLen;

// 256-bit values sit right-aligned in the blobs' 64-byte fields.
const BYTE *Low32(const BYTE (&field)[64]) { return field + (sizeof field - kSm2CoordLen); }

void PointFromBlob(const ECCPUBLICKEYBLOB &blob, uint8_t (&point)[kSm2PointLen]) {
  point[0] = 0x04;
  std::memcpy(point + 1, Low32(blob.XCoordinate), kSm2CoordLen);
  std::memcpy(point + 1 + kSm2CoordLen, Low32(blob.YCoordinate), kSm2CoordLen);
}

// Closes the symmetric key handle on the way out of an operation.
struct DropKeyOnExit {
  GM_SKF_CTX *ctx;
  ~DropKeyOnExit() { zeph::device::DropKey(ctx); }
};

// A mutable copy for vendor prototypes that take non-const pointers.
std::vector<BYTE> Mutable(const unsigned char *p, uint32_t n) {
  return n != 0 ? std::vector<BYTE>(p, p + n) : std::vector<BYTE>(1, 0);
}

// Removes PKCS#1 v1.5 type-2 padding (00 02 PS 00 M, PS at least 8 non-zero
// bytes) in place; false when the block is not so padded.
bool Unpad2(unsigned char *block, uint32_t len, uint32_t *out_len) {
  if (len < 11 || block[0] != 0x00 || block[1] != 0x02) return false;
  uint32_t sep = 2;
  while (sep < len && block[sep] != 0x00) ++sep;
  if (sep == len || sep < 10) return false;
  const uint32_t msg_len = len - sep - 1;
  std::memmove(block, block + sep + 1, msg_len);
  *out_len = msg_len;
  return true;
}

// DER SubjectPublicKeyInfo of the RSA key in a device blob.
uint32_t RsaSpkiFromBlob(const BYTE *blob_bytes, uint32_t blob_len, std::vector<uint8_t> *der) {
  if (blob_len < sizeof(RSAPUBLICKEYBLOB)) return ERR_PUBKEY_CONVERT_FAILED;
  RSAPUBLICKEYBLOB blob;
  std::memcpy(&blob, blob_bytes, sizeof blob);
  zeph::BnPtr n(BN_bin2bn(blob.Modulus, sizeof blob.Modulus, nullptr));
  zeph::BnPtr e(BN_bin2bn(blob.PublicExponent, sizeof blob.PublicExponent, nullptr));
  if (!n || !e || BN_is_zero(n.get()) || BN_is_zero(e.get())) return ERR_PUBKEY_CONVERT_FAILED;
  zeph::ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!bld || OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return ERR_PUBKEY_CONVERT_FAILED;
  }
  zeph::ParamPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
  zeph::EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY *raw = nullptr;
  if (!params || !pctx || EVP_PKEY_fromdata_init(pctx.get()) != 1 ||
      EVP_PKEY_fromdata(pctx.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return ERR_PUBKEY_CONVERT_FAILED;
  }
  zeph::EvpPkeyPtr pkey(raw);
  const int len = i2d_PUBKEY(pkey.get(), nullptr);
  if (len <= 0) return ERR_PUBKEY_CONVERT_FAILED;
  der->resize(static_cast<size_t>(len));
  unsigned char *p = der->data();
  if (i2d_PUBKEY(pkey.get(), &p) != len) return ERR_PUBKEY_CONVERT_FAILED;
  return 0;
}

uint32_t SignSm2(PFN_SKF_ECCSignData sign, GM_SKF_CTX *ctx, const unsigned char *value, uint32_t value_len,
                 unsigned char *sig, uint32_t *in_out_sig_len) {
  std::vector<BYTE> in = Mutable(value, value_len);
  ECCSIGNATUREBLOB blob{};
  ZEPH_TRY(CallSkf(sign, ERR_SIGN_FAILED, ctx->container, in.data(), value_len, &blob));
  // Compat: r || s is written whatever the capacity; callers hand 64 bytes.
  std::memcpy(sig, Low32(blob.r), kSm2CoordLen);
  std::memcpy(sig + kSm2CoordLen, Low32(blob.s), kSm2CoordLen);
  *in_out_sig_len = zeph::kSm2RawSignatureLen;
  return 0;
}

// The two signers differ only in the vendor calls: SM2 keys give r || s,
// RSA keys the vendor's signature within the caller's capacity.
template <class RsaSign>
uint32_t SignValue(GM_SKF_CTX *ctx, const unsigned char *value, uint32_t value_len, unsigned char *sig,
                   uint32_t *in_out_sig_len, PFN_SKF_ECCSignData zeph::device::SkfFunctions::*sm2_sign,
                   RsaSign rsa_sign) {
  if (!HasContainer(ctx)) return ERR_SIGN_FAILED;
  if (value == nullptr || in_out_sig_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    if (ctx->key_kind == ZEPH_KEY_SM2_SIGN) {
      if (sig == nullptr) return ERR_INVALID_PARAMETER;
      return SignSm2(ctx->skf.*sm2_sign, ctx, value, value_len, sig, in_out_sig_len);
    }
    std::vector<BYTE> in = Mutable(value, value_len);
    ULONG len = *in_out_sig_len;
    const uint32_t rv = rsa_sign(in.data(), &len);
    if (rv == 0) *in_out_sig_len = len;
    return rv;
  });
}

}  // namespace

extern "C" {

ZEPH_API int zeph_c_utils_RSAsignpad(unsigned char *buffer, int digest_nid, uint32_t digest_len, uint32_t *out_len) {
  constexpr uint32_t kMaxEncoding = 117;  // fits a 1024-bit PKCS#1 v1.5 block
  if (buffer == nullptr || out_len == nullptr) return -1;
  // Compat: MD5+SHA-1 is taken as a 32-byte value and passed through
  // without a DigestInfo, as callers of this encoder have always relied on.
  if (digest_nid == NID_md5_sha1) {
    if (digest_len != 32) return -1;
    *out_len = digest_len;
    return 0;
  }
  ASN1_OBJECT *oid = OBJ_nid2obj(digest_nid);
  if (oid == nullptr || OBJ_length(oid) == 0 || digest_len > kMaxEncoding) return -1;
  zeph::X509SigPtr info(X509_SIG_new());
  if (!info) return -1;
  X509_ALGOR *alg = nullptr;
  ASN1_OCTET_STRING *digest = nullptr;
  X509_SIG_getm(info.get(), &alg, &digest);
  if (X509_ALGOR_set0(alg, OBJ_dup(oid), V_ASN1_NULL, nullptr) != 1 ||
      ASN1_OCTET_STRING_set(digest, buffer, static_cast<int>(digest_len)) != 1) {
    return -1;
  }
  const int len = i2d_X509_SIG(info.get(), nullptr);
  if (len <= 0 || static_cast<uint32_t>(len) > kMaxEncoding) return -1;
  unsigned char encoded[kMaxEncoding];
  unsigned char *p = encoded;
  if (i2d_X509_SIG(info.get(), &p) != len) return -1;
  std::memcpy(buffer, encoded, static_cast<size_t>(len));
  *out_len = static_cast<uint32_t>(len);
  return 0;
}

ZEPH_API uint32_t GM_SKF_CTX_DataOnPretreatment(GM_SKF_CTX *ctx, const unsigned char *msg, uint32_t msg_len,
                                                unsigned char *out, uint32_t *in_out_len, uint32_t digest_id) {
  if (!HasContainer(ctx)) return ERR_PRETREATMENT_FAILED;
  if (in_out_len == nullptr || (msg == nullptr && msg_len != 0)) return ERR_INVALID_PARAMETER;
  DropKeyOnExit drop{ctx};
  return zeph::Guarded([&]() -> uint32_t {
    if (ctx->key_kind != ZEPH_KEY_SM2_SIGN) {
      uint8_t work[kSignWorkLen];
      uint32_t work_len = sizeof work;
      int nid = NID_undef;
      if (zeph_c_utils_digest(digest_id & 0xFFFFu, msg, msg_len, work, &work_len, &nid) != 0) {
        return ERR_PRETREATMENT_FAILED;
      }
      uint32_t encoded_len = 0;
      if (zeph_c_utils_RSAsignpad(work, nid, work_len, &encoded_len) != 0) return ERR_PRETREATMENT_FAILED;
      return zeph::PutOutput({work, encoded_len}, out, in_out_len);
    }
    ECCPUBLICKEYBLOB blob{};
    ULONG blob_len = sizeof blob;
    ZEPH_TRY(CallSkf(ctx->skf.SKF_ExportPublicKey, ERR_PRETREATMENT_FAILED, ctx->container, TRUE,
                     reinterpret_cast<BYTE *>(&blob), &blob_len));
    uint8_t point[kSm2PointLen];
    PointFromBlob(blob, point);
    uint8_t e[32];
    const unsigned char empty = 0;
    if (BIVO_ComputePreprocessSm3Digest_EVP(zeph::kDefaultSm2Id, point, sizeof point, msg != nullptr ? msg : &empty,
                                            msg_len, e) != 0) {
      return ERR_PRETREATMENT_FAILED;
    }
    return zeph::PutOutput({e, sizeof e}, out, in_out_len);
  });
}

ZEPH_API uint32_t GM_SKF_CTX_SignHash(GM_SKF_CTX *ctx, const unsigned char *value, uint32_t value_len,
                                      unsigned char *out_sig, uint32_t *in_out_sig_len) {
  return SignValue(
      ctx, value, value_len, out_sig, in_out_sig_len, &zeph::device::SkfFunctions::SKF_ECCSignData,
      [&](BYTE *in, ULONG *len) {
        const auto &skf = ctx->skf;
        return skf.SKF_Ex_RSASignData != nullptr
                   ? CallSkf(skf.SKF_Ex_RSASignData, ERR_SIGN_FAILED, ctx->container, 1u, in, value_len, out_sig, len)
                   : CallSkf(skf.SKF_RSASignData, ERR_SIGN_FAILED, ctx->container, in, value_len, out_sig, len);
      });
}

ZEPH_API uint32_t GM_SKF_CTX_SignHashEx(GM_SKF_CTX *ctx, const unsigned char *value, uint32_t value_len,
                                        unsigned char *out_sig, uint32_t *in_out_sig_len, uint32_t *extra) {
  return SignValue(ctx, value, value_len, out_sig, in_out_sig_len, &zeph::device::SkfFunctions::SKF_Eu_ECCSignData,
                   [&](BYTE *in, ULONG *len) {
                     return CallSkf(ctx->skf.SKF_Eu_RSASignData, ERR_SIGN_FAILED, ctx->container, in, value_len,
                                    out_sig, len, extra);
                   });
}

ZEPH_API uint32_t GM_SKF_CTX_DoAsymDec(GM_SKF_CTX *ctx, const unsigned char *cipher, uint32_t cipher_len,
                                       uint32_t padding, unsigned char *out, uint32_t *in_out_len) {
  if (!HasContainer(ctx)) return ERR_ASYM_CRYPT_FAILED;
  if (ctx->skf.SKF_RSADecrypt == nullptr) return ERR_UNSUPPORTED_VALUE;
  if (cipher == nullptr || out == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<BYTE> in = Mutable(cipher, cipher_len);
    const ULONG mode = zeph::device::RsaDecryptMode(ctx, padding);
    ULONG len = *in_out_len;
    ZEPH_LOG("SKF_RSADecryptProc uiInDataLen:", cipher_len);
    const uint32_t rv = ctx->skf.SKF_RSADecrypt(ctx->container, in.data(), cipher_len, out, &len, mode);
    ZEPH_LOG("SKF_RSADecryptProc end:", rv);
    if (rv != 0) return rv;
    if (len > *in_out_len) return ERR_ASYM_CRYPT_FAILED;  // the vendor overran what it was given
    if (zeph::device::UnpadsRsaItself(ctx)) {
      *in_out_len = len;
      return 0;
    }
    uint32_t plain_len = 0;
    if (!Unpad2(out, len, &plain_len)) return ERR_PADDING_INVALID;
    *in_out_len = plain_len;
    return 0;
  });
}

ZEPH_API uint32_t GM_SKF_CTX_SM2Decrypt(GM_SKF_CTX *ctx, const unsigned char *cipher, uint32_t cipher_len,
                                        unsigned char *out, uint32_t *in_out_len, uint32_t key_flag) {
  if (!HasContainer(ctx)) return ERR_INVALID_PARAMETER;
  if (cipher == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  // The blob must hold its own CipherLen bytes of ciphertext.
  constexpr uint32_t kHeader = offsetof(ECCCIPHERBLOB, Cipher);
  if (cipher_len < kHeader) return ERR_INVALID_PARAMETER;
  ULONG body = 0;
  std::memcpy(&body, cipher + offsetof(ECCCIPHERBLOB, CipherLen), sizeof body);
  if (body > cipher_len - kHeader) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<BYTE> blob(std::max<size_t>(cipher_len, sizeof(ECCCIPHERBLOB)), 0);
    std::memcpy(blob.data(), cipher, cipher_len);
    ULONG len = *in_out_len;
    const uint32_t rv = CallSkf(ctx->skf.SKF_ECCDecrypt, ERR_UNSUPPORTED_VALUE, ctx->container,
                                static_cast<BOOL>(key_flag), reinterpret_cast<ECCCIPHERBLOB *>(blob.data()), out, &len);
    if (rv == 0) *in_out_len = len;
    return rv;
  });
}

ZEPH_API uint32_t GM_SKF_CTX_ExportPublicKey(GM_SKF_CTX *ctx, unsigned char *out, uint32_t *in_out_len) {
  if (!HasContainer(ctx)) return ERR_EXPORT_PUBKEY_FAILED;
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    BYTE blob[kSignWorkLen] = {0};
    // The caller's capacity is what the vendor is told; a short one gets the
    // vendor's own buffer status.
    ULONG blob_len = std::min<uint32_t>(*in_out_len, sizeof blob);
    ZEPH_TRY(CallSkf(ctx->skf.SKF_ExportPublicKey, ERR_EXPORT_PUBKEY_FAILED, ctx->container, TRUE, blob, &blob_len));
    blob_len = std::min<ULONG>(blob_len, sizeof blob);
    if (ctx->key_kind == ZEPH_KEY_SM2_SIGN) {
      if (out == nullptr) return ERR_INVALID_PARAMETER;
      ECCPUBLICKEYBLOB ecc{};
      std::memcpy(&ecc, blob, std::min<size_t>(blob_len, sizeof ecc));
      uint8_t point[kSm2PointLen];
      PointFromBlob(ecc, point);
      std::memcpy(out, point, sizeof point);
      *in_out_len = sizeof point;
      return 0;
    }
    std::vector<uint8_t> der;
    ZEPH_TRY(RsaSpkiFromBlob(blob, blob_len, &der));
    return zeph::PutOutput(der, out, in_out_len);
  });
}

ZEPH_API uint32_t GM_SKF_CTX_ExportPublicKeyEx(GM_SKF_CTX *ctx, uint32_t sign_flag, unsigned char *out,
                                               uint32_t *in_out_len) {
  if (!HasContainer(ctx)) return ERR_EXPORT_PUBKEY_FAILED;
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    BYTE blob[kSignWorkLen] = {0};
    ULONG blob_len = sizeof blob;
    ZEPH_TRY(CallSkf(ctx->skf.SKF_ExportPublicKey, ERR_EXPORT_PUBKEY_FAILED, ctx->container,
                     static_cast<BOOL>(sign_flag != 0), blob, &blob_len));
    blob_len = std::min<ULONG>(blob_len, sizeof blob);
    if (ctx->key_kind == ZEPH_KEY_SM2_SIGN || ctx->key_kind == ZEPH_KEY_SM2_ENC) {
      ECCPUBLICKEYBLOB ecc{};
      std::memcpy(&ecc, blob, std::min<size_t>(blob_len, sizeof ecc));
      uint8_t point[kSm2PointLen];
      PointFromBlob(ecc, point);
      return zeph::PutOutput(point, out, in_out_len);
    }
    std::vector<uint8_t> der;
    ZEPH_TRY(RsaSpkiFromBlob(blob, blob_len, &der));
    return zeph::PutOutput(der, out, in_out_len);
  });
}

ZEPH_API uint32_t GM_SKF_CTX_GenRandom(GM_SKF_CTX *ctx, uint32_t length, unsigned char *out) {
  if (ctx == nullptr || ctx->module == nullptr || ctx->device == nullptr) return ERR_INVALID_PARAMETER;
  if (out == nullptr && length != 0) return ERR_INVALID_PARAMETER;
  return CallSkf(ctx->skf.SKF_GenRandom, ERR_INVALID_PARAMETER, ctx->device, out, length);
}

}  // extern "C"
