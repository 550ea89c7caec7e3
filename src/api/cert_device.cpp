// Keys and certificates on a key, and requests signed by it. Each call opens
// the session it needs (closed on every path); changes verify the PIN first.
#include <algorithm>
#include <cstring>
#include <string_view>

#include <openssl/err.h>
#include <openssl/rand.h>

#include "api/handle.hpp"
#include "device/vorli_gm_skf.hpp"
#include "foundation/output.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "pki/cert_input.hpp"
#include "pki/csr.hpp"
#include "zeph_c_api.h"
#include "zeph_c_cert.h"
#include "zeph_c_device.h"
#include "zeph_c_sm2.h"

using zeph::SecureBytes;
using zeph::api::SessionGuard;
using zeph::pki::Bytes;

namespace {

constexpr uint32_t kDeviceHashesItself = 10;  // this vendor's library hashes on the key
constexpr size_t kSignWorkLen = 1024;
constexpr size_t kSymKeyLen = 16;
constexpr char kChainFile[] = "CertChain";
constexpr uint32_t kSm2SpkiLen = 91;
constexpr uint32_t kRsaSpkiOverhead = 39;

// The object indexes of an area.
struct AreaRows {
  uint32_t sign = 0, enc = 0, chain = 0;
  bool sm2 = false;
};

uint32_t RowsOf(uint32_t area, AreaRows *rows) {
  switch (area) {
    case ZEPH_AREA_SM2:
      *rows = {ZEPH_OBJ_SM2_SIGN, ZEPH_OBJ_SM2_ENC, ZEPH_OBJ_SM2_CERTCHAIN, true};
      return 0;
    case ZEPH_AREA_RSA:
      *rows = {ZEPH_OBJ_RSA_SIGN, ZEPH_OBJ_RSA_ENC, ZEPH_OBJ_RSA_CERTCHAIN, false};
      return 0;
    default:
      return ERR_UNSUPPORTED_VALUE;
  }
}

uint32_t VerifyPin(GM_SKF_CTX *ctx, const char *pin) {
  return GM_SKF_CTX_VerifyPin(ctx, pin, pin != nullptr ? static_cast<uint32_t>(std::strlen(pin)) : 0);
}

// A public key of the open container as an OpenSSL key.
uint32_t DevicePublicKey(GM_SKF_CTX *ctx, bool sm2, bool sign, zeph::EvpPkeyPtr *out) {
  uint8_t blob[kSignWorkLen];
  uint32_t len = sizeof blob;
  ZEPH_TRY(GM_SKF_CTX_ExportPublicKeyEx(ctx, sign ? 1u : 0u, blob, &len));
  if (sm2) return zeph::pki::Sm2PublicKey({blob, len}, out);
  const unsigned char *p = blob;
  out->reset(d2i_PUBKEY(nullptr, &p, static_cast<long>(len)));
  ERR_clear_error();
  return *out ? 0 : ERR_PUBKEY_CONVERT_FAILED;
}

uint32_t DerSm2Signature(const uint8_t *raw, Bytes *out) {
  zeph::EcdsaSigPtr sig(ECDSA_SIG_new());
  BIGNUM *r = BN_bin2bn(raw, zeph::kSm2CoordLen, nullptr);
  BIGNUM *s = BN_bin2bn(raw + zeph::kSm2CoordLen, zeph::kSm2CoordLen, nullptr);
  if (!sig || r == nullptr || s == nullptr || ECDSA_SIG_set0(sig.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    return ERR_SIGN_FAILED;
  }
  unsigned char *der = nullptr;
  const int len = i2d_ECDSA_SIG(sig.get(), &der);
  if (len <= 0) return ERR_SIGN_FAILED;
  out->assign(der, der + len);
  OPENSSL_free(der);
  return 0;
}

// Signs with the open signing container: SM2 DER, or RSA over SHA-256.
uint32_t DeviceSign(GM_SKF_CTX *ctx, bool sm2, std::span<const uint8_t> data, Bytes *out) {
  const auto data_len = static_cast<uint32_t>(data.size());
  uint8_t sig[kSignWorkLen];
  uint32_t sig_len = sizeof sig;
  if (ctx->device_type == kDeviceHashesItself) {
    uint32_t work_area[64] = {0};  // the vendor's own scratch space
    ZEPH_TRY(GM_SKF_CTX_SignHashEx(ctx, data.data(), data_len, sig, &sig_len, sm2 ? nullptr : work_area));
  } else {
    uint8_t value[kSignWorkLen];
    uint32_t value_len = sizeof value;
    constexpr uint32_t kSha256 = 4;
    ZEPH_TRY(GM_SKF_CTX_DataOnPretreatment(ctx, data.data(), data_len, value, &value_len, sm2 ? 0 : kSha256));
    ZEPH_TRY(GM_SKF_CTX_SignHash(ctx, value, value_len, sig, &sig_len));
  }
  if (sm2) return DerSm2Signature(sig, out);
  out->assign(sig, sig + std::min<size_t>(sig_len, sizeof sig));
  return 0;
}

uint32_t Sm4Ecb(std::span<const uint8_t> key, std::span<const uint8_t> in, bool pad, SecureBytes *out) {
  zeph::EvpCipherCtxPtr c(EVP_CIPHER_CTX_new());
  SecureBytes buf(in.size() + 16);
  int n = 0, tail = 0;
  if (!c || EVP_EncryptInit_ex(c.get(), EVP_sm4_ecb(), nullptr, key.data(), nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(c.get(), pad ? 1 : 0) != 1 ||
      EVP_EncryptUpdate(c.get(), buf.data(), &n, in.data(), static_cast<int>(in.size())) != 1 ||
      EVP_EncryptFinal_ex(c.get(), buf.data() + n, &tail) != 1) {
    ERR_clear_error();
    return ERR_ENVELOPE_FAILED;
  }
  buf.resize(static_cast<size_t>(n + tail));
  *out = std::move(buf);
  return 0;
}

// 32 bytes right-aligned in a 64-byte blob field.
void PutCoordinate(BYTE (&field)[64], const uint8_t *value) {
  std::memset(field, 0, sizeof field);
  std::memcpy(field + sizeof field - zeph::kSm2CoordLen, value, zeph::kSm2CoordLen);
}

// GM/T 0016's ENVELOPEDKEYBLOB: a fresh SM4 key SM2-encrypted to the
// container's signing key, the 64-byte private key field (d right-aligned)
// SM4-ECB under it, and the pair's public key.
uint32_t EnvelopeSm2Key(EVP_PKEY *key, const uint8_t (&signing_point)[65], SecureBytes *out) {
  BIGNUM *d_raw = nullptr;
  if (EVP_PKEY_get_bn_param(key, "priv", &d_raw) != 1) return ERR_INVALID_PARAMETER;
  const zeph::BnPtr d(d_raw);
  uint8_t point[65];
  size_t point_len = 0;
  if (EVP_PKEY_get_octet_string_param(key, "pub", point, sizeof point, &point_len) != 1 || point_len != 65) {
    ERR_clear_error();
    return ERR_INVALID_PARAMETER;
  }
  SecureBytes field(64), sym(kSymKeyLen);
  if (BN_bn2binpad(d.get(), field.data() + 32, 32) != 32 || RAND_bytes(sym.data(), kSymKeyLen) != 1) {
    return ERR_ENVELOPE_FAILED;
  }
  SecureBytes wrapped_key;
  ZEPH_TRY(Sm4Ecb(sym.span(), field.span(), false, &wrapped_key));

  uint8_t der[256];
  uint32_t der_len = sizeof der;
  if (BIVO_Sm2EncryptWithPubKey(sym.data(), kSymKeyLen, signing_point, sizeof signing_point, der, &der_len) != 0) {
    return ERR_ENVELOPE_FAILED;
  }
  uint8_t raw[65 + 32 + kSymKeyLen];  // 04 || x || y || C3 || C2
  uint32_t raw_len = sizeof raw;
  if (BIVO_Sm2CiphertextDerToRaw(der, der_len, BIVO_SM2_ORDER_C1C3C2, raw, &raw_len) != 0 || raw_len != sizeof raw) {
    return ERR_SM2_CIPHER_FORMAT;
  }

  SecureBytes blob(sizeof(ENVELOPEDKEYBLOB) - 1 + kSymKeyLen);
  auto *env = reinterpret_cast<ENVELOPEDKEYBLOB *>(blob.data());
  env->Version = 1;
  env->ulSymmAlgID = SGD_SM4_ECB;
  env->ulBits = 256;
  std::memcpy(env->cbEncryptedPriKey, wrapped_key.data(), sizeof env->cbEncryptedPriKey);
  env->PubKey.BitLen = 256;
  PutCoordinate(env->PubKey.XCoordinate, point + 1);
  PutCoordinate(env->PubKey.YCoordinate, point + 33);
  PutCoordinate(env->ECCCipherBlob.XCoordinate, raw + 1);
  PutCoordinate(env->ECCCipherBlob.YCoordinate, raw + 33);
  std::memcpy(env->ECCCipherBlob.HASH, raw + 65, 32);
  env->ECCCipherBlob.CipherLen = kSymKeyLen;
  std::memcpy(env->ECCCipherBlob.Cipher, raw + 97, kSymKeyLen);
  *out = std::move(blob);
  return 0;
}

// The encryption pair into the open encryption container, wrapped for the
// container's signing key.
uint32_t ImportEncKey(GM_SKF_CTX *ctx, bool sm2, EVP_PKEY *key) {
  if (sm2) {
    uint8_t signing_point[65];
    uint32_t len = sizeof signing_point;
    ZEPH_TRY(GM_SKF_CTX_ExportPublicKeyEx(ctx, 1, signing_point, &len));
    SecureBytes blob;
    ZEPH_TRY(EnvelopeSm2Key(key, signing_point, &blob));
    return GM_SKF_CTX_ImportECCKeyPair(ctx, blob.data(), static_cast<uint32_t>(blob.size()));
  }
  zeph::EvpPkeyPtr wrapping;
  ZEPH_TRY(DevicePublicKey(ctx, false, true, &wrapping));
  SecureBytes sym(kSymKeyLen);
  if (RAND_bytes(sym.data(), kSymKeyLen) != 1) return ERR_ENVELOPE_FAILED;
  zeph::EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_pkey(nullptr, wrapping.get(), nullptr));
  uint8_t wrapped[512];
  size_t wrapped_len = sizeof wrapped;
  if (!pctx || EVP_PKEY_encrypt_init(pctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(pctx.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_encrypt(pctx.get(), wrapped, &wrapped_len, sym.data(), sym.size()) != 1) {
    ERR_clear_error();
    return ERR_ENVELOPE_FAILED;
  }
  unsigned char *der = nullptr;
  const int der_len = i2d_PrivateKey(key, &der);
  if (der_len <= 0) return ERR_ENCODE_FAILED;
  SecureBytes plain(der, static_cast<size_t>(der_len));
  OPENSSL_clear_free(der, static_cast<size_t>(der_len));
  SecureBytes encrypted;
  ZEPH_TRY(Sm4Ecb(sym.span(), plain.span(), true, &encrypted));
  return GM_SKF_CTX_ImportRSAKeyPair(ctx, wrapped, static_cast<uint32_t>(wrapped_len), encrypted.data(),
                                     static_cast<uint32_t>(encrypted.size()));
}

// A private key of the area's algorithm.
uint32_t ReadAreaKey(const AreaRows &rows, const unsigned char *key, uint32_t key_len, zeph::EvpPkeyPtr *out) {
  if (key == nullptr || key_len == 0) return ERR_INVALID_PARAMETER;
  ZEPH_TRY(zeph::pki::ReadPrivateKey({key, key_len}, nullptr, out));
  return zeph::pki::IsSm2Key(out->get()) == rows.sm2 ? 0 : ERR_UNSUPPORTED_VALUE;
}

uint32_t ReadCertArg(const unsigned char *cert, uint32_t cert_len, zeph::X509Ptr *out) {
  if (cert == nullptr || cert_len == 0) return ERR_INVALID_PARAMETER;
  return zeph::pki::ReadCert({cert, cert_len}, out);
}

uint32_t DerOf(X509 *cert, Bytes *out) {
  unsigned char *der = nullptr;
  const int len = i2d_X509(cert, &der);
  if (len <= 0) return ERR_ENCODE_FAILED;
  out->assign(der, der + len);
  OPENSSL_free(der);
  return 0;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ZEPH_C_GenKeyPair(void *handle, const char *pin, uint32_t area, uint32_t bits,
                                    unsigned char *out_spki, uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    AreaRows rows;
    ZEPH_TRY(RowsOf(area, &rows));
    if (!rows.sm2 && bits != 1024 && bits != 2048) return ERR_UNSUPPORTED_VALUE;
    if (out_spki == nullptr) {
      // Answered without touching the key; for RSA the most an exponent of
      // up to four bytes needs.
      *in_out_len = rows.sm2 ? kSm2SpkiLen : bits / 8 + kRsaSpkiOverhead;
      return 0;
    }
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, rows.sign));
    ZEPH_TRY(VerifyPin(ctx, pin));
    ZEPH_TRY(rows.sm2 ? GM_SKF_CTX_GenECCKeyPair(ctx) : GM_SKF_CTX_GenRSAKeyPair(ctx, bits));
    zeph::EvpPkeyPtr key;
    ZEPH_TRY(DevicePublicKey(ctx, rows.sm2, true, &key));
    Bytes spki;
    ZEPH_TRY(zeph::pki::WritePublicKey(key.get(), &spki));
    return zeph::PutOutput(spki, out_spki, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_ExportPublicKeyInfo(void *handle, uint32_t area, uint32_t usage, unsigned char *out_spki,
                                             uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    AreaRows rows;
    ZEPH_TRY(RowsOf(area, &rows));
    const bool sign = usage != ZEPH_USAGE_ENCRYPTION;
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, sign ? rows.sign : rows.enc));
    zeph::EvpPkeyPtr key;
    ZEPH_TRY(DevicePublicKey(ctx, rows.sm2, sign, &key));
    Bytes spki;
    ZEPH_TRY(zeph::pki::WritePublicKey(key.get(), &spki));
    return zeph::PutOutput(spki, out_spki, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_ImportEncKeyPair(void *handle, const char *pin, uint32_t area, const unsigned char *key,
                                          uint32_t key_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  return zeph::Guarded([&]() -> uint32_t {
    AreaRows rows;
    ZEPH_TRY(RowsOf(area, &rows));
    zeph::EvpPkeyPtr pair;
    ZEPH_TRY(ReadAreaKey(rows, key, key_len, &pair));
    uint32_t extended = 0;
    ZEPH_TRY(GM_SKF_CTX_IsExt4SKF(ctx, &extended));
    if (!rows.sm2 && extended == 0) return ERR_EXT_INTERFACE_MISSING;
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, rows.enc));
    ZEPH_TRY(VerifyPin(ctx, pin));
    return ImportEncKey(ctx, rows.sm2, pair.get());
  });
}

ZEPH_API uint32_t ZEPH_C_GetCertificate(void *handle, uint32_t area, uint32_t usage, unsigned char *out,
                                        uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  AreaRows rows;
  ZEPH_TRY(RowsOf(area, &rows));
  const bool sign = usage != ZEPH_USAGE_ENCRYPTION;
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, sign ? rows.sign : rows.enc));
  return GM_SKF_CTX_ExportCertificate(ctx, sign ? 1u : 0u, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_SaveSignCert(void *handle, const char *pin, uint32_t area, const unsigned char *cert,
                                      uint32_t cert_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  return zeph::Guarded([&]() -> uint32_t {
    AreaRows rows;
    ZEPH_TRY(RowsOf(area, &rows));
    zeph::X509Ptr x509;
    ZEPH_TRY(ReadCertArg(cert, cert_len, &x509));
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, rows.sign));
    zeph::EvpPkeyPtr key;
    ZEPH_TRY(DevicePublicKey(ctx, rows.sm2, true, &key));
    // A certificate for another key would make every signature unverifiable.
    if (EVP_PKEY_eq(X509_get0_pubkey(x509.get()), key.get()) != 1) {
      ERR_clear_error();
      return ERR_UNSUPPORTED_VALUE;
    }
    ZEPH_TRY(VerifyPin(ctx, pin));
    Bytes der;
    ZEPH_TRY(DerOf(x509.get(), &der));
    return GM_SKF_CTX_ImportCertificate(ctx, 1, der.data(), static_cast<uint32_t>(der.size()));
  });
}

ZEPH_API uint32_t ZEPH_C_SaveEncCertAndKey(void *handle, const char *pin, uint32_t area, const unsigned char *cert,
                                           uint32_t cert_len, const unsigned char *key, uint32_t key_len) {
  // Compat: a missing handle or context is 0xFFFFFFFF here, as it always was.
  ZEPH_API_CONTEXT(handle, ctx);
  return zeph::Guarded([&]() -> uint32_t {
    AreaRows rows;
    ZEPH_TRY(RowsOf(area, &rows));
    zeph::X509Ptr x509;
    ZEPH_TRY(ReadCertArg(cert, cert_len, &x509));
    zeph::EvpPkeyPtr pair;
    ZEPH_TRY(ReadAreaKey(rows, key, key_len, &pair));
    if (EVP_PKEY_eq(X509_get0_pubkey(x509.get()), pair.get()) != 1) {
      ERR_clear_error();
      return ERR_UNSUPPORTED_VALUE;
    }
    uint32_t extended = 0;
    ZEPH_TRY(GM_SKF_CTX_IsExt4SKF(ctx, &extended));
    if (!rows.sm2 && extended == 0) return ERR_EXT_INTERFACE_MISSING;
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, rows.enc));
    ZEPH_TRY(VerifyPin(ctx, pin));
    ZEPH_TRY(ImportEncKey(ctx, rows.sm2, pair.get()));
    Bytes der;
    ZEPH_TRY(DerOf(x509.get(), &der));
    return GM_SKF_CTX_ImportCertificate(ctx, 0, der.data(), static_cast<uint32_t>(der.size()));
  });
}

ZEPH_API uint32_t ZEPH_C_SaveCertChain(void *handle, const char *pin, uint32_t area, const unsigned char *chain,
                                       uint32_t chain_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  return zeph::Guarded([&]() -> uint32_t {
    AreaRows rows;
    ZEPH_TRY(RowsOf(area, &rows));
    if (chain == nullptr || chain_len == 0) return ERR_CERT_CHAIN_FAILED;
    std::vector<zeph::X509Ptr> certs;
    ZEPH_TRY(zeph::pki::ReadCertList({chain, chain_len}, &certs));
    std::vector<X509 *> list;
    for (const auto &x : certs) list.push_back(x.get());
    Bytes bundle;
    ZEPH_TRY(zeph::pki::BuildCertBundle(list, &bundle));
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, rows.chain));
    ZEPH_TRY(VerifyPin(ctx, pin));
    return GM_SKF_CTX_SetFileIntoCryptoDevice(ctx, kChainFile, bundle.data(), static_cast<uint32_t>(bundle.size()));
  });
}

ZEPH_API uint32_t ZEPH_C_GetCertChain(void *handle, uint32_t area, unsigned char *out, uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    AreaRows rows;
    ZEPH_TRY(RowsOf(area, &rows));
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, rows.chain));
    uint32_t size = 0;
    ZEPH_TRY(GM_SKF_CTX_GetFileFromCryptoDevice(ctx, kChainFile, nullptr, &size));
    if (size == 0) return ERR_CERT_CHAIN_FAILED;
    Bytes bundle(size);
    ZEPH_TRY(GM_SKF_CTX_GetFileFromCryptoDevice(ctx, kChainFile, bundle.data(), &size));
    bundle.resize(std::min<size_t>(size, bundle.size()));
    return zeph::PutOutput(bundle, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_EnumCryptoDeviceObjects(void *handle, char *out_json, uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  return GM_SKF_CTX_EnumObjects(ctx, out_json, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_GenCSR(void *handle, const char *pin, uint32_t area, const char *dn, uint32_t new_key_bits,
                                unsigned char *out, uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (in_out_len == nullptr || dn == nullptr) return ERR_INVALID_PARAMETER;
  // A length query must not replace the key.
  if (out == nullptr && new_key_bits != 0) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    AreaRows rows;
    ZEPH_TRY(RowsOf(area, &rows));
    if (!rows.sm2 && new_key_bits != 0 && new_key_bits != 1024 && new_key_bits != 2048) return ERR_UNSUPPORTED_VALUE;
    zeph::X509NamePtr subject;
    ZEPH_TRY(zeph::pki::ParseDn(dn, &subject));
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, rows.sign));
    ZEPH_TRY(VerifyPin(ctx, pin));
    if (new_key_bits != 0) {
      ZEPH_TRY(rows.sm2 ? GM_SKF_CTX_GenECCKeyPair(ctx) : GM_SKF_CTX_GenRSAKeyPair(ctx, new_key_bits));
    }
    zeph::EvpPkeyPtr key;
    ZEPH_TRY(DevicePublicKey(ctx, rows.sm2, true, &key));
    Bytes csr;
    size_t sig_len = 0;
    ZEPH_TRY(zeph::pki::BuildCsr(
        subject.get(), key.get(),
        [&](std::span<const uint8_t> tbs, Bytes *sig) {
          const uint32_t rv = DeviceSign(ctx, rows.sm2, tbs, sig);
          sig_len = sig->size();
          return rv;
        },
        &csr));
    if (out == nullptr && rows.sm2) {
      // Another signature may be longer: answer the most a request can need.
      *in_out_len = static_cast<uint32_t>(csr.size() + zeph::kSm2DerSignatureMax - sig_len + 1);
      return 0;
    }
    return zeph::PutOutput(csr, out, in_out_len);
  });
}

}  // extern "C"
