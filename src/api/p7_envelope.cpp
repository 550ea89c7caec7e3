// Envelopes: the GM layout (SM2_Envelope, SM4-ECB content) and PKCS#7
// enveloped-data (SM4-CBC content), built for a certificate and opened with
// whatever unwraps the content key.
#include <climits>
#include <cstring>

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "api/p7_internal.hpp"
#include "foundation/status_flow.hpp"
#include "gm/sm2_ciphertext.hpp"
#include "zeph_c_sm2.h"
#include "zeph_c_status.h"
#include "zeph_skf.h"

namespace zeph::p7 {
namespace {

constexpr size_t kContentKeyLen = 16;
constexpr size_t kIvLen = 16;
// The answer to a length query covers a later envelope, whose SM2 key
// ciphertext may come out a few bytes longer.
constexpr uint32_t kEnvelopeMargin = 128;

bool SetNullAlgorithm(X509_ALGOR *alg, const char *oid) {
  ASN1_OBJECT *obj = OBJ_txt2obj(oid, 1);
  if (obj == nullptr) return false;
  if (X509_ALGOR_set0(alg, obj, V_ASN1_NULL, nullptr) == 1) return true;
  ASN1_OBJECT_free(obj);
  return false;
}

bool SetOctets(ASN1_OCTET_STRING **field, Span bytes) {
  if (*field == nullptr) *field = ASN1_OCTET_STRING_new();
  return *field != nullptr && ASN1_OCTET_STRING_set(*field, bytes.data(), static_cast<int>(bytes.size())) == 1;
}

// Version 0, the recipient's issuer and serial number, the key-encryption
// algorithm with a NULL parameter, the encrypted key.
Pkcs7RecipInfoPtr RecipientInfo(const X509 *recipient, const char *key_alg, Span enc_key) {
  Pkcs7RecipInfoPtr ri(PKCS7_RECIP_INFO_new());
  if (!ri || ASN1_INTEGER_set(ri->version, 0) != 1 || !SetNullAlgorithm(ri->key_enc_algor, key_alg) ||
      !SetOctets(&ri->enc_key, enc_key) ||
      X509_NAME_set(&ri->issuer_and_serial->issuer, X509_get_issuer_name(recipient)) != 1) {
    return nullptr;
  }
  ASN1_INTEGER *serial = ASN1_INTEGER_dup(X509_get0_serialNumber(recipient));
  if (serial == nullptr) return nullptr;
  ASN1_INTEGER_free(ri->issuer_and_serial->serial);
  ri->issuer_and_serial->serial = serial;
  return ri;
}

// DER straight into the vector: the content may be megabytes.
template <class T>
bool Encode(const T *obj, int (*i2d)(const T *, unsigned char **), Bytes *der) {
  const int n = i2d(obj, nullptr);
  if (n <= 0) return false;
  der->resize(static_cast<size_t>(n));
  unsigned char *p = der->data();
  return i2d(obj, &p) == n;
}

// Lends the encrypted content to an OCTET STRING for the time of one
// encoding instead of copying it; declared after the structure that holds
// the string, so it hands the bytes back before that structure is freed.
class LentOctets {
 public:
  LentOctets(ASN1_OCTET_STRING **field, Span bytes) : field_(field) {
    if (*field_ == nullptr) *field_ = ASN1_OCTET_STRING_new();
    if (*field_ != nullptr) {
      ASN1_STRING_set0(*field_, const_cast<uint8_t *>(bytes.data()), static_cast<int>(bytes.size()));
    }
  }
  ~LentOctets() {
    // Not ASN1_STRING_set0, which would free the lent bytes.
    if (*field_ != nullptr) {
      (*field_)->data = nullptr;
      (*field_)->length = 0;
    }
  }
  LentOctets(const LentOctets &) = delete;
  LentOctets &operator=(const LentOctets &) = delete;
  bool ok() const { return *field_ != nullptr; }

 private:
  ASN1_OCTET_STRING **field_;
};

uint32_t RsaEncrypt(X509 *recipient, Span key, Bytes *out) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(X509_get0_pubkey(recipient), nullptr));
  size_t len = 0;
  if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_encrypt(ctx.get(), nullptr, &len, key.data(), key.size()) != 1) {
    return ERR_ASYM_CRYPT_FAILED;
  }
  out->resize(len);
  if (EVP_PKEY_encrypt(ctx.get(), out->data(), &len, key.data(), key.size()) != 1) return ERR_ASYM_CRYPT_FAILED;
  out->resize(len);
  return 0;
}

uint32_t Sm2Encrypt(X509 *recipient, Span key, Bytes *out) {
  unsigned char *cert = nullptr;
  const int cert_len = i2d_X509(recipient, &cert);
  if (cert_len <= 0) return ERR_CERT_DECODE_FAILED;
  uint32_t len = BIVO_ComputeSm2CiphertextEncodeLength(static_cast<uint32_t>(key.size()));
  out->assign(len, 0);
  const uint32_t rv = BIVO_Sm2Encrypt(key.data(), static_cast<uint32_t>(key.size()), cert,
                                      static_cast<uint32_t>(cert_len), out->data(), &len);
  OPENSSL_free(cert);
  if (rv != 0) return ERR_ASYM_CRYPT_FAILED;
  out->resize(len);
  return 0;
}

uint32_t SealGm(X509 *recipient, KeyKind kind, Span key16, Span data, Bytes *der) {
  Bytes enc_key, enc_content;
  ZEPH_TRY(kind == KeyKind::kSm2 ? Sm2Encrypt(recipient, key16, &enc_key) : RsaEncrypt(recipient, key16, &enc_key));
  ZEPH_TRY(Sm4Encrypt(key16, nullptr, data, &enc_content));
  return EncodeSm2Envelope(recipient, static_cast<uint32_t>(kind), enc_key, enc_content, der);
}

uint32_t SealPkcs7(X509 *recipient, Span key16, Span data, Bytes *der) {
  uint8_t iv[kIvLen];
  ZEPH_ENSURE(RAND_bytes(iv, sizeof iv) == 1, ERR_ENVELOPE_FAILED);
  Bytes enc_key, enc_content;
  ZEPH_TRY(RsaEncrypt(recipient, key16, &enc_key));
  ZEPH_TRY(Sm4Encrypt(key16, iv, data, &enc_content));

  Pkcs7Ptr p7(PKCS7_new());
  ZEPH_ENSURE(p7 && PKCS7_set_type(p7.get(), NID_pkcs7_enveloped) == 1, ERR_OUT_OF_MEMORY);
  PKCS7_ENC_CONTENT *ec = p7->d.enveloped->enc_data;
  Asn1StringPtr iv_param(ASN1_OCTET_STRING_new());
  ZEPH_ENSURE(iv_param && ASN1_OCTET_STRING_set(iv_param.get(), iv, sizeof iv) == 1, ERR_OUT_OF_MEMORY);
  ZEPH_ENSURE(X509_ALGOR_set0(ec->algorithm, OBJ_nid2obj(NID_sm4_cbc), V_ASN1_OCTET_STRING, iv_param.get()) == 1,
              ERR_OUT_OF_MEMORY);
  iv_param.release();
  const LentOctets content(&ec->enc_data, enc_content);
  ZEPH_ENSURE(content.ok(), ERR_OUT_OF_MEMORY);
  Pkcs7RecipInfoPtr ri = RecipientInfo(recipient, ZEPH_OID_RSA_ENCRYPTION, enc_key);
  ZEPH_ENSURE(ri && PKCS7_add_recipient_info(p7.get(), ri.get()) == 1, ERR_OUT_OF_MEMORY);
  ri.release();
  return Encode(p7.get(), i2d_PKCS7, der) ? 0 : ERR_ENVELOPE_FAILED;
}

bool OidIs(const ASN1_OBJECT *obj, const char *oid) {
  Asn1ObjectPtr want(OBJ_txt2obj(oid, 1));
  return obj != nullptr && want && OBJ_cmp(obj, want.get()) == 0;
}

KeyKind RecipientKind(const PKCS7_RECIP_INFO *ri) {
  if (ri == nullptr || ri->key_enc_algor == nullptr) return KeyKind::kNone;
  const ASN1_OBJECT *alg = ri->key_enc_algor->algorithm;
  if (OidIs(alg, ZEPH_OID_RSA_ENCRYPTION)) return KeyKind::kRsa;
  if (OidIs(alg, ZEPH_OID_SM2_KEY_ENCRYPTION) || OidIs(alg, "1.2.156.10197.1.301")) return KeyKind::kSm2;
  return KeyKind::kNone;
}

// Either layout, decoded: who can open it and what is sealed how.
struct Parsed {
  Sm2EnvelopePtr gm;
  Pkcs7Ptr p7;
  STACK_OF(PKCS7_RECIP_INFO) *recipients = nullptr;
  const PKCS7_ENC_CONTENT *content = nullptr;
};

bool Parse(Span env, Parsed *out) {
  if (env.empty() || env.size() > LONG_MAX) return false;
  const unsigned char *p = env.data();
  out->gm.reset(d2i_SM2_Envelope(nullptr, &p, static_cast<long>(env.size())));
  if (out->gm && p == env.data() + env.size() && OidIs(out->gm->ID, ZEPH_OID_SM2_ENVELOPED_DATA)) {
    const SM2_Envelope_Item *item = sk_SM2_Envelope_Item_value(out->gm->SM2_Envelope_Items, 0);
    if (item == nullptr) return false;
    out->recipients = item->recipientinfo;
    out->content = item->enc_data;
    return out->content != nullptr;
  }
  out->gm.reset();
  p = env.data();
  out->p7.reset(d2i_PKCS7(nullptr, &p, static_cast<long>(env.size())));
  if (!out->p7 || p != env.data() + env.size() || !PKCS7_type_is_enveloped(out->p7.get()) ||
      out->p7->d.enveloped == nullptr) {
    return false;
  }
  out->recipients = out->p7->d.enveloped->recipientinfo;
  out->content = out->p7->d.enveloped->enc_data;
  return out->content != nullptr;
}

bool Names(const PKCS7_RECIP_INFO *ri, const X509 *cert) {
  const PKCS7_ISSUER_AND_SERIAL *id = ri->issuer_and_serial;
  return cert != nullptr && id != nullptr && id->issuer != nullptr && id->serial != nullptr &&
         X509_NAME_cmp(X509_get_issuer_name(cert), id->issuer) == 0 &&
         ASN1_INTEGER_cmp(X509_get0_serialNumber(cert), id->serial) == 0;
}

// The GM content: SM4-ECB, padded, under a 16-byte key.
uint32_t DecryptGm(const PKCS7_ENC_CONTENT &ec, Span key, SecureBytes *plain) {
  ZEPH_ENSURE(OidIs(ec.algorithm != nullptr ? ec.algorithm->algorithm : nullptr, ZEPH_OID_SM4), ERR_ENVELOPE_FAILED);
  ZEPH_ENSURE(key.size() == kContentKeyLen && ec.enc_data != nullptr, ERR_ENVELOPE_FAILED);
  const Span in(ASN1_STRING_get0_data(ec.enc_data), static_cast<size_t>(ASN1_STRING_length(ec.enc_data)));
  return Sm4Decrypt(key, nullptr, in, plain) == 0 ? 0 : ERR_ENVELOPE_FAILED;
}

// PKCS#7 content: any cipher OpenSSL knows, its parameters from the
// algorithm identifier (the IV for the CBC modes).
uint32_t DecryptPkcs7(const PKCS7_ENC_CONTENT &ec, Span key, SecureBytes *plain) {
  ZEPH_ENSURE(ec.algorithm != nullptr && ec.enc_data != nullptr, ERR_ENVELOPE_FAILED);
  const EVP_CIPHER *cipher = EVP_get_cipherbyobj(ec.algorithm->algorithm);
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  ZEPH_ENSURE(cipher != nullptr && ctx, ERR_ENVELOPE_FAILED);
  const int in_len = ASN1_STRING_length(ec.enc_data);
  SecureBytes out(static_cast<size_t>(in_len) + EVP_MAX_BLOCK_LENGTH);
  int n = 0, tail = 0;
  const bool ok = EVP_DecryptInit_ex(ctx.get(), cipher, nullptr, nullptr, nullptr) == 1 &&
                  EVP_CIPHER_CTX_get_key_length(ctx.get()) == static_cast<int>(key.size()) &&
                  EVP_CIPHER_asn1_to_param(ctx.get(), ec.algorithm->parameter) > 0 &&
                  EVP_DecryptInit_ex(ctx.get(), nullptr, nullptr, key.data(), nullptr) == 1 &&
                  EVP_DecryptUpdate(ctx.get(), out.data(), &n, ASN1_STRING_get0_data(ec.enc_data), in_len) == 1 &&
                  EVP_DecryptFinal_ex(ctx.get(), out.data() + n, &tail) == 1;
  ERR_clear_error();
  ZEPH_ENSURE(ok, ERR_ENVELOPE_FAILED);
  out.resize(static_cast<size_t>(n + tail));
  *plain = std::move(out);
  return 0;
}

}  // namespace

// SM4 through OpenSSL's EVP: the bulk of every envelope, at OpenSSL's speed.
uint32_t Sm4Encrypt(Span key16, const uint8_t *iv16, Span in, Bytes *out) {
  ZEPH_ENSURE(key16.size() == kContentKeyLen && in.size() < INT_MAX - 16, ERR_INVALID_PARAMETER);
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  out->assign(in.size() + 16, 0);
  int n = 0, tail = 0;
  const uint8_t none = 0;
  const bool ok =
      ctx &&
      EVP_EncryptInit_ex(ctx.get(), iv16 != nullptr ? EVP_sm4_cbc() : EVP_sm4_ecb(), nullptr, key16.data(), iv16) ==
          1 &&
      EVP_EncryptUpdate(ctx.get(), out->data(), &n, in.empty() ? &none : in.data(), static_cast<int>(in.size())) == 1 &&
      EVP_EncryptFinal_ex(ctx.get(), out->data() + n, &tail) == 1;
  ZEPH_ENSURE(ok, ERR_ENVELOPE_FAILED);
  out->resize(static_cast<size_t>(n + tail));
  return 0;
}

uint32_t Sm4Decrypt(Span key16, const uint8_t *iv16, Span in, SecureBytes *out) {
  ZEPH_ENSURE(key16.size() == kContentKeyLen, ERR_INVALID_PARAMETER);
  ZEPH_ENSURE(!in.empty() && in.size() % 16 == 0 && in.size() < INT_MAX, ERR_PADDING_INVALID);
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  SecureBytes plain(in.size());
  int n = 0, tail = 0;
  const bool ok = ctx &&
                  EVP_DecryptInit_ex(ctx.get(), iv16 != nullptr ? EVP_sm4_cbc() : EVP_sm4_ecb(), nullptr, key16.data(),
                                     iv16) == 1 &&
                  EVP_DecryptUpdate(ctx.get(), plain.data(), &n, in.data(), static_cast<int>(in.size())) == 1 &&
                  EVP_DecryptFinal_ex(ctx.get(), plain.data() + n, &tail) == 1;
  ERR_clear_error();
  ZEPH_ENSURE(ok, ERR_PADDING_INVALID);
  plain.resize(static_cast<size_t>(n + tail));
  *out = std::move(plain);
  return 0;
}

uint32_t Sm2CipherBlob(Span der, Bytes *blob) {
  gm::sm2::Ciphertext c;
  ZEPH_ENSURE(gm::sm2::FromDer(der, &c) || gm::sm2::FromRaw(der, gm::sm2::RawOrder::kC1C3C2, &c),
              ERR_SM2_CIPHER_FORMAT);
  ZEPH_ENSURE(c.c2.size() <= UINT32_MAX - sizeof(ECCCIPHERBLOB), ERR_SM2_CIPHER_FORMAT);
  constexpr size_t kHeader = offsetof(ECCCIPHERBLOB, Cipher);
  blob->assign(kHeader + c.c2.size(), 0);
  ECCCIPHERBLOB head{};
  std::memcpy(head.XCoordinate + sizeof head.XCoordinate - 32, c.x, 32);
  std::memcpy(head.YCoordinate + sizeof head.YCoordinate - 32, c.y, 32);
  std::memcpy(head.HASH, c.c3, sizeof head.HASH);
  head.CipherLen = static_cast<ULONG>(c.c2.size());
  std::memcpy(blob->data(), &head, kHeader);
  if (!c.c2.empty()) std::memcpy(blob->data() + kHeader, c.c2.data(), c.c2.size());
  return 0;
}

uint32_t PutEnvelope(Span der, uint8_t *out, uint32_t *in_out_len) {
  ZEPH_ENSURE(in_out_len != nullptr, ERR_INVALID_PARAMETER);
  ZEPH_ENSURE(der.size() <= UINT32_MAX - kEnvelopeMargin, ERR_ENVELOPE_FAILED);
  const auto need = static_cast<uint32_t>(der.size());
  // Compat: the length reported for a query or a short buffer carries the
  // margin; a buffer of the exact length is enough.
  if (out == nullptr) {
    *in_out_len = need + kEnvelopeMargin;
    return 0;
  }
  if (*in_out_len < need) {
    *in_out_len = need + kEnvelopeMargin;
    return ERR_BUFFER_TOO_SMALL;
  }
  std::memcpy(out, der.data(), need);
  *in_out_len = need;
  return 0;
}

uint32_t BuildSm2Envelope(const X509 *recipient, uint32_t key_type, Span enc_key, Span enc_content, uint8_t *out,
                          uint32_t *in_out_len) {
  ZEPH_ENSURE(in_out_len != nullptr, ERR_INVALID_PARAMETER);
  Bytes der;
  ZEPH_TRY(EncodeSm2Envelope(recipient, key_type, enc_key, enc_content, &der));
  return PutEnvelope(der, out, in_out_len);
}

uint32_t EncodeSm2Envelope(const X509 *recipient, uint32_t key_type, Span enc_key, Span enc_content, Bytes *der) {
  ZEPH_ENSURE(recipient != nullptr, ERR_INVALID_PARAMETER);
  const char *key_alg = nullptr;
  const char *content_type = nullptr;
  switch (key_type) {
    case 1:
      key_alg = ZEPH_OID_RSA_ENCRYPTION;
      content_type = ZEPH_OID_PKCS7_DATA;
      break;
    case 2:
      key_alg = ZEPH_OID_SM2_KEY_ENCRYPTION;
      content_type = ZEPH_OID_SM2_DATA;
      break;
    default:
      return ERR_UNSUPPORTED_VALUE;
  }
  Sm2EnvelopePtr env(SM2_Envelope_new());
  SM2_Envelope_Item *item = SM2_Envelope_Item_new();
  if (!env || item == nullptr) {
    SM2_Envelope_Item_free(item);
    return ERR_OUT_OF_MEMORY;
  }
  env->SM2_Envelope_Items = sk_SM2_Envelope_Item_new_null();
  if (env->SM2_Envelope_Items == nullptr || sk_SM2_Envelope_Item_push(env->SM2_Envelope_Items, item) <= 0) {
    SM2_Envelope_Item_free(item);
    return ERR_OUT_OF_MEMORY;
  }
  Asn1ObjectPtr id(OBJ_txt2obj(ZEPH_OID_SM2_ENVELOPED_DATA, 1));
  Asn1ObjectPtr type(OBJ_txt2obj(content_type, 1));
  ZEPH_ENSURE(id && type && ASN1_INTEGER_set(item->version, 0) == 1, ERR_OUT_OF_MEMORY);
  ASN1_OBJECT_free(env->ID);
  env->ID = id.release();
  Pkcs7RecipInfoPtr ri = RecipientInfo(recipient, key_alg, enc_key);
  ZEPH_ENSURE(ri && sk_PKCS7_RECIP_INFO_push(item->recipientinfo, ri.get()) > 0, ERR_OUT_OF_MEMORY);
  ri.release();
  PKCS7_ENC_CONTENT *ec = item->enc_data;
  ASN1_OBJECT_free(ec->content_type);
  ec->content_type = type.release();
  const LentOctets content(&ec->enc_data, enc_content);
  ZEPH_ENSURE(SetNullAlgorithm(ec->algorithm, ZEPH_OID_SM4) && content.ok(), ERR_OUT_OF_MEMORY);

  return Encode(env.get(), i2d_SM2_Envelope, der) ? 0 : ERR_ENVELOPE_FAILED;
}

uint32_t Seal(X509 *recipient, uint32_t wrapper, Span key16, Span data, Bytes *der) {
  ZEPH_ENSURE(recipient != nullptr && key16.size() == kContentKeyLen, ERR_INVALID_PARAMETER);
  ZEPH_ENSURE(wrapper == ZEPH_ENVELOPE_DEFAULT || wrapper == ZEPH_ENVELOPE_GM, ERR_UNSUPPORTED_VALUE);
  ZEPH_ENSURE(data.size() <= INT_MAX - 64, ERR_INVALID_PARAMETER);
  const KeyKind kind = KindOf(recipient);
  ZEPH_ENSURE(kind != KeyKind::kNone, ERR_UNSUPPORTED_VALUE);
  if (kind == KeyKind::kSm2 || wrapper == ZEPH_ENVELOPE_GM) return SealGm(recipient, kind, key16, data, der);
  return SealPkcs7(recipient, key16, data, der);
}

KeyKind FirstRecipientKind(Span env) {
  Parsed parsed;
  if (!Parse(env, &parsed)) return KeyKind::kNone;
  return RecipientKind(sk_PKCS7_RECIP_INFO_value(parsed.recipients, 0));
}

uint32_t Open(Span env, KeyKind want, const X509 *mine, const Unwrap &unwrap, SecureBytes *plain) {
  Parsed parsed;
  ZEPH_ENSURE(Parse(env, &parsed), ERR_ENVELOPE_FAILED);
  std::vector<const PKCS7_RECIP_INFO *> order;
  const int count = sk_PKCS7_RECIP_INFO_num(parsed.recipients);
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i < count; ++i) {
      const PKCS7_RECIP_INFO *ri = sk_PKCS7_RECIP_INFO_value(parsed.recipients, i);
      const KeyKind kind = RecipientKind(ri);
      if (kind == KeyKind::kNone || (want != KeyKind::kNone && kind != want) || ri->enc_key == nullptr) continue;
      if (Names(ri, mine) == (pass == 0)) order.push_back(ri);
    }
  }
  uint32_t last = ERR_ENVELOPE_FAILED;
  for (const PKCS7_RECIP_INFO *ri : order) {
    Recipient r;
    r.kind = RecipientKind(ri);
    r.id = ri->issuer_and_serial;
    r.enc_key = Span(ASN1_STRING_get0_data(ri->enc_key), static_cast<size_t>(ASN1_STRING_length(ri->enc_key)));
    SecureBytes key;
    last = unwrap(r, &key);
    if (last != 0) continue;
    last = parsed.gm ? DecryptGm(*parsed.content, key.span(), plain) : DecryptPkcs7(*parsed.content, key.span(), plain);
    if (last == 0) return 0;
  }
  return last;
}

}  // namespace zeph::p7
