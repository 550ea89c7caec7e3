// The exported signed-message and envelope operations: certificates and
// signatures from the key, content keys unwrapped by the key's encryption
// pair, the rest by the builders and the opener of p7_internal.hpp.
#include <climits>
#include <cstring>

#include <openssl/err.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "api/handle.hpp"
#include "api/p7_internal.hpp"
#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_api.h"
#include "zeph_c_device.h"
#include "zeph_c_p7.h"
#include "zeph_c_sm2.h"
#include "zeph_c_status.h"

using zeph::api::SessionGuard;
using zeph::p7::Bytes;
using zeph::p7::KeyKind;
using zeph::p7::Span;

namespace {

constexpr size_t kContentKeyLen = 16;
constexpr size_t kSm2SignatureMax = 72;
constexpr size_t kRsaSignatureMax = 1024;  // up to 8,192-bit keys

Span In(const unsigned char *p, uint32_t n) { return p != nullptr ? Span(p, n) : Span(); }

uint32_t PinLen(const char *pin) { return pin != nullptr ? static_cast<uint32_t>(std::strlen(pin)) : 0; }

// The certificate of the open session's container.
uint32_t ExportCert(GM_SKF_CTX *ctx, bool sign, zeph::X509Ptr *cert) {
  uint32_t len = 0;
  ZEPH_TRY(GM_SKF_CTX_ExportCertificate(ctx, sign ? 1 : 0, nullptr, &len));
  Bytes der(len);
  ZEPH_TRY(GM_SKF_CTX_ExportCertificate(ctx, sign ? 1 : 0, der.data(), &len));
  der.resize(len);
  *cert = zeph::p7::DecodeCert(der);
  return *cert ? 0 : ERR_GET_CERT_FAILED;
}

uint32_t ReadKeyCert(GM_SKF_CTX *ctx, uint32_t row, zeph::X509Ptr *cert) {
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, row));
  return ExportCert(ctx, true, cert);
}

uint32_t SigningRow(KeyKind kind) { return kind == KeyKind::kSm2 ? ZEPH_OBJ_SM2_SIGN : ZEPH_OBJ_RSA_SIGN; }
uint32_t DecryptionRow(KeyKind kind) { return kind == KeyKind::kSm2 ? ZEPH_OBJ_SM2_ENC : ZEPH_OBJ_RSA_ENC; }

// The key's signature, or, for a length query, a placeholder of the longest
// signature the signer can make (no PIN, no device signature).
zeph::p7::Signer KeySigner(void *handle, const char *pin, KeyKind kind, uint32_t digest_id, const X509 *signer,
                           bool query) {
  if (query) {
    return [signer](Span, Bytes *sig) {
      *sig = zeph::p7::PlaceholderSignature(signer);
      return 0u;
    };
  }
  return [=](Span tbs, Bytes *sig) -> uint32_t {
    const unsigned char none = 0;
    const unsigned char *data = tbs.empty() ? &none : tbs.data();
    ZEPH_ENSURE(tbs.size() <= UINT32_MAX, ERR_INVALID_PARAMETER);
    const auto len = static_cast<uint32_t>(tbs.size());
    sig->assign(kind == KeyKind::kSm2 ? kSm2SignatureMax : kRsaSignatureMax, 0);
    auto sig_len = static_cast<uint32_t>(sig->size());
    ZEPH_TRY(kind == KeyKind::kSm2 ? ZEPH_C_DoSm2Sign(handle, pin, data, len, sig->data(), &sig_len)
                                   : ZEPH_C_DoRsaSign(handle, pin, data, len, sig->data(), &sig_len, digest_id));
    ZEPH_ENSURE(sig_len <= sig->size(), ERR_SIGN_FAILED);
    sig->resize(sig_len);
    return 0;
  };
}

struct Sm2SignArgs {
  const char *sig_oid;
  uint32_t hash_id;
  Span data, chain, sign_cert, crl;
};

uint32_t DoSm2SignToPKCS7(void *handle, const char *pin, const Sm2SignArgs &a, unsigned char *out,
                          uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  ZEPH_ENSURE(in_out_len != nullptr && a.data.size() <= INT_MAX, ERR_INVALID_PARAMETER);
  ZEPH_ENSURE(getHashAlgOID(a.hash_id) != nullptr, ERR_ALG_UNSUPPORTED);
  std::vector<zeph::X509Ptr> chain;
  ZEPH_TRY(zeph::p7::ReadBundle(a.chain, &chain));
  zeph::X509CrlPtr crl;
  if (!a.crl.empty()) {
    const unsigned char *p = a.crl.data();
    crl.reset(d2i_X509_CRL(nullptr, &p, static_cast<long>(a.crl.size())));
    ZEPH_ENSURE(crl && p == a.crl.data() + a.crl.size(), ERR_CRL_FAILED);
  }
  zeph::X509Ptr signer;
  if (!a.sign_cert.empty()) {
    signer = zeph::p7::DecodeCert(a.sign_cert);
    ZEPH_ENSURE(signer, ERR_CERT_DECODE_FAILED);
  } else {
    ZEPH_TRY(ReadKeyCert(ctx, ZEPH_OBJ_SM2_SIGN, &signer));
  }
  zeph::p7::Sm2SignRequest req;
  req.sig_oid = a.sig_oid;
  req.hash_id = a.hash_id;
  req.content = a.data;
  req.chain = &chain;
  req.signer = signer.get();
  req.crl = crl.get();
  Bytes der;
  ZEPH_TRY(zeph::p7::BuildSm2Sign(req, KeySigner(handle, pin, KeyKind::kSm2, 0, signer.get(), out == nullptr), &der));
  return zeph::PutOutput(der, out, in_out_len);
}

// Content handed out by the output protocol, or not at all when the caller
// passes neither buffer nor length.
uint32_t PutContent(const Bytes &content, unsigned char *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr) return out == nullptr ? 0 : ERR_INVALID_PARAMETER;
  return zeph::PutOutput(content, out, in_out_len);
}

// Unwraps a content key with the encryption pair of the open session.
uint32_t DeviceUnwrap(GM_SKF_CTX *ctx, KeyKind kind, Span enc_key, zeph::SecureBytes *key) {
  ZEPH_ENSURE(!enc_key.empty() && enc_key.size() < UINT32_MAX, ERR_INVALID_PARAMETER);
  if (kind == KeyKind::kSm2) {
    Bytes blob;
    ZEPH_TRY(zeph::p7::Sm2CipherBlob(enc_key, &blob));
    zeph::SecureBytes plain(blob.size());
    auto len = static_cast<uint32_t>(plain.size());
    ZEPH_TRY(GM_SKF_CTX_SM2Decrypt(ctx, blob.data(), static_cast<uint32_t>(blob.size()), plain.data(), &len, 0));
    ZEPH_ENSURE(len <= plain.size(), ERR_ASYM_CRYPT_FAILED);
    plain.resize(len);
    *key = std::move(plain);
    return 0;
  }
  zeph::SecureBytes plain(enc_key.size());
  auto len = static_cast<uint32_t>(plain.size());
  ZEPH_TRY(GM_SKF_CTX_DoAsymDec(ctx, enc_key.data(), static_cast<uint32_t>(enc_key.size()), 1, plain.data(), &len));
  ZEPH_ENSURE(len <= plain.size(), ERR_ASYM_CRYPT_FAILED);
  plain.resize(len);
  *key = std::move(plain);
  return 0;
}

uint32_t DecodeSymkeyCipher(void *handle, const char *pin, KeyKind kind, Span cipher, unsigned char *out,
                            uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  ZEPH_ENSURE(in_out_len != nullptr && !cipher.empty(), ERR_INVALID_PARAMETER);
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, DecryptionRow(kind)));
  ZEPH_TRY(GM_SKF_CTX_VerifyPin(ctx, pin, PinLen(pin)));
  zeph::SecureBytes key;
  ZEPH_TRY(DeviceUnwrap(ctx, kind, cipher, &key));
  return zeph::PutOutput(key.span(), out, in_out_len);
}

uint32_t SealWithKey(Span cert, Span data, uint32_t wrapper, const zeph::SecureBytes &key, unsigned char *out,
                     uint32_t *in_out_len) {
  ZEPH_ENSURE(in_out_len != nullptr, ERR_INVALID_PARAMETER);
  zeph::X509Ptr recipient = zeph::p7::DecodeCert(cert);
  ZEPH_ENSURE(recipient, ERR_CERT_DECODE_FAILED);
  Bytes der;
  ZEPH_TRY(zeph::p7::Seal(recipient.get(), wrapper, key.span(), data, &der));
  return zeph::p7::PutEnvelope(der, out, in_out_len);
}

// A software private key from DER PKCS#8, encrypted or not.
zeph::EvpPkeyPtr LoadPkcs8(Span der, const char *password) {
  if (der.empty() || der.size() > LONG_MAX) return nullptr;
  const unsigned char *p = der.data();
  std::unique_ptr<PKCS8_PRIV_KEY_INFO, zeph::Free<PKCS8_PRIV_KEY_INFO_free>> info(
      d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(der.size())));
  if (!info || p != der.data() + der.size()) {
    p = der.data();
    zeph::X509SigPtr sealed(d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size())));
    if (!sealed || p != der.data() + der.size() || password == nullptr) return nullptr;
    info.reset(PKCS8_decrypt(sealed.get(), password, static_cast<int>(std::strlen(password))));
    if (!info) return nullptr;
  }
  return zeph::EvpPkeyPtr(EVP_PKCS82PKEY(info.get()));
}

KeyKind KindOfKey(const EVP_PKEY *key) {
  if (EVP_PKEY_is_a(key, "RSA")) return KeyKind::kRsa;
  if (EVP_PKEY_is_a(key, "SM2")) return KeyKind::kSm2;
  return KeyKind::kNone;
}

uint32_t SoftwareUnwrap(EVP_PKEY *key, const zeph::p7::Recipient &r, zeph::SecureBytes *out) {
  Bytes der;
  Span in = r.enc_key;
  if (r.kind == KeyKind::kSm2 && !r.enc_key.empty() && r.enc_key[0] == 0x04) {
    // Raw C1C3C2 as some producers write it: OpenSSL decrypts DER only.
    uint32_t len = 0;
    const auto n = static_cast<uint32_t>(r.enc_key.size());
    ZEPH_TRY(BIVO_Sm2CiphertextRawToDer(r.enc_key.data(), n, BIVO_SM2_ORDER_C1C3C2, nullptr, &len));
    der.resize(len);
    ZEPH_TRY(BIVO_Sm2CiphertextRawToDer(r.enc_key.data(), n, BIVO_SM2_ORDER_C1C3C2, der.data(), &len));
    in = Span(der.data(), len);
  }
  zeph::EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
  size_t len = 0;
  bool ok = ctx && EVP_PKEY_decrypt_init(ctx.get()) == 1 &&
            (r.kind != KeyKind::kRsa || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1) &&
            EVP_PKEY_decrypt(ctx.get(), nullptr, &len, in.data(), in.size()) == 1;
  zeph::SecureBytes plain(len);
  ok = ok && EVP_PKEY_decrypt(ctx.get(), plain.data(), &len, in.data(), in.size()) == 1;
  ERR_clear_error();
  ZEPH_ENSURE(ok, ERR_ASYM_CRYPT_FAILED);
  plain.resize(len);
  *out = std::move(plain);
  return 0;
}

uint32_t Verified(uint32_t (*verify)(Span, Span, Bytes *), Span msg, Span content, unsigned char *out,
                  uint32_t *in_out_len) {
  Bytes verified;
  ZEPH_TRY(verify(msg, content, &verified));
  return PutContent(verified, out, in_out_len);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ZEPH_C_DoSm2SignToPKCS7_301(void *handle, const char *pin, const unsigned char *data,
                                              uint32_t data_len, const unsigned char *cert_chain,
                                              uint32_t cert_chain_len, unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&] {
    const Sm2SignArgs args{ZEPH_OID_SM2_SIGN_301, 1, In(data, data_len), In(cert_chain, cert_chain_len), {}, {}};
    return DoSm2SignToPKCS7(handle, pin, args, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_DoSm2SignToPKCS7_501(void *handle, const char *pin, const unsigned char *data,
                                              uint32_t data_len, const unsigned char *cert_chain,
                                              uint32_t cert_chain_len, unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&] {
    const Sm2SignArgs args{ZEPH_OID_SM2_SIGN_501, 1, In(data, data_len), In(cert_chain, cert_chain_len), {}, {}};
    return DoSm2SignToPKCS7(handle, pin, args, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_DoSm2SignToPKCS7_EX(void *handle, const char *pin, const unsigned char *data,
                                             uint32_t data_len, const unsigned char *cert_chain,
                                             uint32_t cert_chain_len, uint32_t hash_id, const unsigned char *sign_cert,
                                             uint32_t sign_cert_len, const unsigned char *crl, uint32_t crl_len,
                                             unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&] {
    const Sm2SignArgs args{ZEPH_OID_SM2_SIGN_501,        hash_id,
                           In(data, data_len),           In(cert_chain, cert_chain_len),
                           In(sign_cert, sign_cert_len), In(crl, crl_len)};
    return DoSm2SignToPKCS7(handle, pin, args, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_VerifySm2SignPKCS7(const unsigned char *msg, uint32_t msg_len, const unsigned char *content,
                                            uint32_t content_len, unsigned char *out_content,
                                            uint32_t *in_out_content_len) {
  return zeph::Guarded([&] {
    return Verified(zeph::p7::VerifySm2Sign, In(msg, msg_len), In(content, content_len), out_content,
                    in_out_content_len);
  });
}

ZEPH_API uint32_t ZEPH_C_DoSignToPKCS7(void *handle, const char *pin, uint32_t asym_id, uint32_t digest_id,
                                       uint32_t detached, const unsigned char *data, uint32_t data_len,
                                       const unsigned char *cert_chain, uint32_t cert_chain_len, unsigned char *out,
                                       uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_API_CONTEXT(handle, ctx);
    ZEPH_ENSURE(in_out_len != nullptr && (data != nullptr || data_len == 0), ERR_INVALID_PARAMETER);
    ZEPH_ENSURE(asym_id == ZEPH_AREA_RSA || asym_id == ZEPH_AREA_SM2, ERR_UNSUPPORTED_VALUE);
    const auto kind = static_cast<KeyKind>(asym_id);
    if (digest_id == 0) digest_id = kind == KeyKind::kSm2 ? 1 : 4;
    std::vector<zeph::X509Ptr> chain;
    ZEPH_TRY(zeph::p7::ReadBundle(In(cert_chain, cert_chain_len), &chain));
    zeph::X509Ptr signer;
    ZEPH_TRY(ReadKeyCert(ctx, SigningRow(kind), &signer));
    ZEPH_ENSURE(zeph::p7::KindOf(signer.get()) == kind, ERR_GET_CERT_FAILED);
    zeph::p7::Pkcs7SignRequest req;
    req.kind = kind;
    req.digest_id = digest_id;
    req.detached = detached != 0;
    req.content = In(data, data_len);
    req.chain = &chain;
    req.signer = signer.get();
    Bytes der;
    ZEPH_TRY(
        zeph::p7::BuildPkcs7Signed(req, KeySigner(handle, pin, kind, digest_id, signer.get(), out == nullptr), &der));
    return zeph::PutOutput(der, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_VerifyPKCS7(const unsigned char *p7, uint32_t p7_len, const unsigned char *content,
                                     uint32_t content_len, unsigned char *out_content, uint32_t *in_out_content_len) {
  return zeph::Guarded([&] {
    return Verified(zeph::p7::VerifyPkcs7Signed, In(p7, p7_len), In(content, content_len), out_content,
                    in_out_content_len);
  });
}

ZEPH_API uint32_t ZEPH_C_EncodeEnveloperWithCert(const unsigned char *cert, uint32_t cert_len,
                                                 const unsigned char *data, uint32_t data_len, uint32_t wrapper_type,
                                                 unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(data != nullptr || data_len == 0, ERR_INVALID_PARAMETER);
    zeph::SecureBytes key(kContentKeyLen);
    ZEPH_ENSURE(RAND_bytes(key.data(), static_cast<int>(key.size())) == 1, ERR_ENVELOPE_FAILED);
    return SealWithKey(In(cert, cert_len), In(data, data_len), wrapper_type, key, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_EncodeEnveloperWithCryptoDevice(void *handle, const unsigned char *cert, uint32_t cert_len,
                                                         const unsigned char *data, uint32_t data_len,
                                                         uint32_t wrapper_type, unsigned char *out,
                                                         uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_API_CONTEXT(handle, ctx);
    ZEPH_ENSURE(data != nullptr || data_len == 0, ERR_INVALID_PARAMETER);
    zeph::SecureBytes key(kContentKeyLen);
    ZEPH_TRY(GM_SKF_CTX_GenRandom(ctx, static_cast<uint32_t>(key.size()), key.data()));
    return SealWithKey(In(cert, cert_len), In(data, data_len), wrapper_type, key, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_DecodeEnveloper(void *handle, const char *pin, uint32_t asym_id, const unsigned char *env,
                                         uint32_t env_len, unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_API_CONTEXT(handle, ctx);
    ZEPH_ENSURE(in_out_len != nullptr, ERR_INVALID_PARAMETER);
    const Span envelope = In(env, env_len);
    auto want = static_cast<KeyKind>(asym_id);
    if (asym_id == 0) want = zeph::p7::FirstRecipientKind(envelope);
    ZEPH_ENSURE(want == KeyKind::kRsa || want == KeyKind::kSm2,
                asym_id == 0 ? ERR_ENVELOPE_FAILED : ERR_UNSUPPORTED_VALUE);
    SessionGuard session{ctx};
    ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, DecryptionRow(want)));
    // The area's encryption certificate picks our recipient first; a key
    // without one still tries every recipient of its kind.
    zeph::X509Ptr mine;
    (void)ExportCert(ctx, false, &mine);
    ZEPH_TRY(GM_SKF_CTX_VerifyPin(ctx, pin, PinLen(pin)));
    zeph::SecureBytes plain;
    ZEPH_TRY(zeph::p7::Open(
        envelope, want, mine.get(),
        [ctx](const zeph::p7::Recipient &r, zeph::SecureBytes *key) {
          return DeviceUnwrap(ctx, r.kind, r.enc_key, key);
        },
        &plain));
    return zeph::PutOutput(plain.span(), out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_DecodeEnveloperWithPrivateKey(const unsigned char *pkcs8, uint32_t pkcs8_len,
                                                       const char *password, const unsigned char *env, uint32_t env_len,
                                                       unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(in_out_len != nullptr, ERR_INVALID_PARAMETER);
    zeph::EvpPkeyPtr key = LoadPkcs8(In(pkcs8, pkcs8_len), password);
    ERR_clear_error();
    ZEPH_ENSURE(key, ERR_INVALID_PARAMETER);
    const KeyKind kind = KindOfKey(key.get());
    ZEPH_ENSURE(kind != KeyKind::kNone, ERR_UNSUPPORTED_VALUE);
    zeph::SecureBytes plain;
    ZEPH_TRY(zeph::p7::Open(
        In(env, env_len), kind, nullptr,
        [&key](const zeph::p7::Recipient &r, zeph::SecureBytes *k) { return SoftwareUnwrap(key.get(), r, k); },
        &plain));
    return zeph::PutOutput(plain.span(), out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_DecodeSM2SymkeyCipher(void *handle, const char *pin, const unsigned char *cipher,
                                               uint32_t cipher_len, unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded(
      [&] { return DecodeSymkeyCipher(handle, pin, KeyKind::kSm2, In(cipher, cipher_len), out, in_out_len); });
}

ZEPH_API uint32_t ZEPH_C_DecodeRSASymkeyCipher(void *handle, const char *pin, const unsigned char *cipher,
                                               uint32_t cipher_len, unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded(
      [&] { return DecodeSymkeyCipher(handle, pin, KeyKind::kRsa, In(cipher, cipher_len), out, in_out_len); });
}

}  // extern "C"
