// Key pairs and certificates of a container, inside a session that the
// caller opened on it (and verified the PIN for, where the key asks):
// generation, import of encryption pairs, certificate import and export.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "device/vorli_gm_skf.hpp"
#include "foundation/log.hpp"
#include "foundation/output.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"

using zeph::device::CallSkf;
using zeph::device::HasContainer;

namespace {

// Certificates up to this size are read in one call.
constexpr ULONG kMaxCertLen = 65536;

// The fixed part of an enveloped key before its ciphertext bytes.
constexpr size_t kEnvelopeHead = offsetof(ENVELOPEDKEYBLOB, ECCCipherBlob) + offsetof(ECCCIPHERBLOB, Cipher);

}  // namespace

extern "C" {

ZEPH_API uint32_t GM_SKF_CTX_GenRSAKeyPair(GM_SKF_CTX *ctx, uint32_t bits) {
  if (!HasContainer(ctx)) return ERR_GEN_KEYPAIR_FAILED;
  ZEPH_LOG("GM_SKF_CTX_GenRSAKeyPair:", bits);
  RSAPUBLICKEYBLOB blob{};
  const auto &skf = ctx->skf;
  // The vendor's extended generator where it has one.
  return skf.SKF_Ex_GenRSAKeyPair != nullptr
             ? CallSkf(skf.SKF_Ex_GenRSAKeyPair, ERR_GEN_KEYPAIR_FAILED, ctx->container, bits, &blob)
             : CallSkf(skf.SKF_GenRSAKeyPair, ERR_GEN_KEYPAIR_FAILED, ctx->container, bits, &blob);
}

ZEPH_API uint32_t GM_SKF_CTX_GenECCKeyPair(GM_SKF_CTX *ctx) {
  if (!HasContainer(ctx)) return ERR_GEN_KEYPAIR_FAILED;
  ZEPH_LOG("GM_SKF_CTX_GenECCKeyPair:", 0);
  ECCPUBLICKEYBLOB blob{};
  return CallSkf(ctx->skf.SKF_GenECCKeyPair, ERR_GEN_KEYPAIR_FAILED, ctx->container, SGD_SM2_1, &blob);
}

ZEPH_API uint32_t GM_SKF_CTX_ImportECCKeyPair(GM_SKF_CTX *ctx, const unsigned char *blob, uint32_t blob_len) {
  if (!HasContainer(ctx)) return ERR_EXT_INTERFACE_MISSING;
  if (blob == nullptr || blob_len < kEnvelopeHead) return ERR_INVALID_PARAMETER;
  ULONG cipher_len = 0;
  std::memcpy(&cipher_len, blob + offsetof(ENVELOPEDKEYBLOB, ECCCipherBlob) + offsetof(ECCCIPHERBLOB, CipherLen),
              sizeof cipher_len);
  if (cipher_len > blob_len - kEnvelopeHead) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    // A private copy at least as large as the declared structure.
    zeph::SecureBytes copy(std::max<size_t>(blob_len, sizeof(ENVELOPEDKEYBLOB)));
    std::memcpy(copy.data(), blob, blob_len);
    ZEPH_LOG("GM_SKF_CTX_ImportECCKeyPair:", 0);
    return CallSkf(ctx->skf.SKF_ImportECCKeyPair, ERR_EXT_INTERFACE_MISSING, ctx->container,
                   reinterpret_cast<ENVELOPEDKEYBLOB *>(copy.data()));
  });
}

ZEPH_API uint32_t GM_SKF_CTX_ImportRSAKeyPair(GM_SKF_CTX *ctx, const unsigned char *wrapped_key, uint32_t wrapped_len,
                                              const unsigned char *encrypted_key, uint32_t encrypted_len) {
  if (!HasContainer(ctx)) return ERR_EXT_INTERFACE_MISSING;
  if (wrapped_key == nullptr || encrypted_key == nullptr || wrapped_len == 0 || encrypted_len == 0) {
    return ERR_INVALID_PARAMETER;
  }
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<BYTE> wrapped(wrapped_key, wrapped_key + wrapped_len);
    std::vector<BYTE> encrypted(encrypted_key, encrypted_key + encrypted_len);
    ZEPH_LOG("GM_SKF_CTX_ImportRSAKeyPair:", 0);
    return CallSkf(ctx->skf.SKF_ImportRSAKeyPair, ERR_EXT_INTERFACE_MISSING, ctx->container, SGD_SM4_ECB,
                   wrapped.data(), wrapped_len, encrypted.data(), encrypted_len);
  });
}

ZEPH_API uint32_t GM_SKF_CTX_ImportCertificate(GM_SKF_CTX *ctx, uint32_t sign_flag, const unsigned char *cert,
                                               uint32_t cert_len) {
  if (!HasContainer(ctx)) return ERR_DEVICE_FILE_WRITE_FAILED;
  if (cert == nullptr || cert_len == 0) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<BYTE> copy(cert, cert + cert_len);
    ZEPH_LOG("GM_SKF_CTX_ImportCertificate:", sign_flag);
    return CallSkf(ctx->skf.SKF_ImportCertificate, ERR_DEVICE_FILE_WRITE_FAILED, ctx->container,
                   static_cast<BOOL>(sign_flag != 0), copy.data(), cert_len);
  });
}

ZEPH_API uint32_t GM_SKF_CTX_ExportCertificate(GM_SKF_CTX *ctx, uint32_t sign_flag, unsigned char *out,
                                               uint32_t *in_out_len) {
  if (!HasContainer(ctx)) return ERR_GET_CERT_FAILED;
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    const BOOL sign = sign_flag != 0 ? TRUE : FALSE;
    ULONG len = 0;
    ZEPH_TRY(CallSkf(ctx->skf.SKF_ExportCertificate, ERR_GET_CERT_FAILED, ctx->container, sign, nullptr, &len));
    if (len > kMaxCertLen) return ERR_GET_CERT_FAILED;
    // Read the whole certificate even when the caller only asks for its
    // length: some libraries report a size query larger than the DER.
    std::vector<BYTE> der(len != 0 ? len : 1);
    ZEPH_TRY(CallSkf(ctx->skf.SKF_ExportCertificate, ERR_GET_CERT_FAILED, ctx->container, sign, der.data(), &len));
    if (len == 0 || len > der.size()) return ERR_GET_CERT_FAILED;
    return zeph::PutOutput({der.data(), len}, out, in_out_len);
  });
}

}  // extern "C"
