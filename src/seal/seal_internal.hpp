// Seal internals shared by the seal operations, the tolerant reader and seal
// storage on the key: owners for the seal structures, the members every
// operation reads from either family, and SM2 verification with the key of a
// certificate.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/err.h>

#include "foundation/owned.hpp"
#include "seal/der.hpp"
#include "zeph_c_seal.h"

// Every seal structure, for code that handles them all alike.
// clang-format off
#define ZEPH_SEAL_ASN1_TYPES(X)                                                                    \
  X(SES_Header_structure) X(SES_ESPropertyInfo_structure) X(SES_ESPictrueInfo_structure)         \
  X(VORLI_ExtData_structure) X(SES_SignInfo_structure) X(SES_SealInfo_structure) X(SESeal)       \
  X(TBS_Sign) X(SES_Signature)                                                                   \
  X(GBSES_Header_structure) X(GB_CertDigestList_structure) X(GBSES_CerList_structure)            \
  X(GBSES_ESPropertyInfo_structure) X(GBSES_ESPictrueInfo_structure) X(GBVORLI_ExtData_structure) \
  X(GBSES_SealInfo_structure) X(GBSESeal) X(GBTBS_Sign) X(GBSES_Signature)
// clang-format on

namespace zeph::seal {

#define ZEPH_SEAL_COUNT_TYPE(T) +1
inline constexpr int kAsn1TypeCount = 0 ZEPH_SEAL_ASN1_TYPES(ZEPH_SEAL_COUNT_TYPE);
#undef ZEPH_SEAL_COUNT_TYPE
static_assert(kAsn1TypeCount == 19, "nine SES and ten GB structures");

using SESealPtr = std::unique_ptr<SESeal, Free<SESeal_free>>;
using GBSESealPtr = std::unique_ptr<GBSESeal, Free<GBSESeal_free>>;
using TbsSignPtr = std::unique_ptr<TBS_Sign, Free<TBS_Sign_free>>;
using GbTbsSignPtr = std::unique_ptr<GBTBS_Sign, Free<GBTBS_Sign_free>>;
using SesSignaturePtr = std::unique_ptr<SES_Signature, Free<SES_Signature_free>>;
using GbSignaturePtr = std::unique_ptr<GBSES_Signature, Free<GBSES_Signature_free>>;
using Asn1ObjectPtr = std::unique_ptr<ASN1_OBJECT, Free<ASN1_OBJECT_free>>;

inline void FreeOpenSsl(unsigned char *p) noexcept { OPENSSL_free(p); }
// DER that an i2d_* call allocated.
struct Encoded {
  std::unique_ptr<unsigned char, Free<FreeOpenSsl>> bytes;
  size_t size = 0;
  std::span<const uint8_t> span() const { return {bytes.get(), size}; }
};

// i2d into a new buffer; nothing on failure.
template <class T>
std::optional<Encoded> Encode(int (*i2d)(const T *, unsigned char **), const T *obj) {
  unsigned char *der = nullptr;
  const int n = obj != nullptr ? i2d(obj, &der) : -1;
  if (n <= 0) return std::nullopt;
  return Encoded{decltype(Encoded::bytes)(der), static_cast<size_t>(n)};
}

// d2i of the first value in the bytes (OpenSSL ignores what follows it);
// null for null input or any mismatch. A failed attempt leaves OpenSSL's
// error queue as it was: trying one family and then the other is routine.
template <class T>
T *Decode(T *(*d2i)(T **, const unsigned char **, long), const unsigned char *data, uint32_t len) {
  if (data == nullptr) return nullptr;
  const unsigned char *p = data;
  ERR_set_mark();
  T *obj = d2i(nullptr, &p, static_cast<long>(len));
  if (obj != nullptr) {
    ERR_clear_last_mark();
  } else {
    ERR_pop_to_mark();
  }
  return obj;
}

inline std::span<const uint8_t> Bytes(const ASN1_STRING *s) {
  if (s == nullptr || s->data == nullptr || s->length <= 0) return {};
  return {s->data, static_cast<size_t>(s->length)};
}

// The members the seal operations read, the same for both families. Dates
// are UTCTime in SES seals and GeneralizedTime in GB seals.
struct SealFields {
  const ASN1_IA5STRING *id = nullptr;
  const ASN1_INTEGER *version = nullptr;
  const ASN1_IA5STRING *vid = nullptr;
  const ASN1_IA5STRING *es_id = nullptr;
  const ASN1_INTEGER *type = nullptr;
  const ASN1_UTF8STRING *name = nullptr;
  const ASN1_STRING *create_date = nullptr;
  const ASN1_STRING *valid_start = nullptr;
  const ASN1_STRING *valid_end = nullptr;
  const ASN1_IA5STRING *pic_type = nullptr;
  const ASN1_OCTET_STRING *pic_data = nullptr;
  const ASN1_INTEGER *pic_width = nullptr;
  const ASN1_INTEGER *pic_height = nullptr;
  const ASN1_OCTET_STRING *maker_cert = nullptr;
  const ASN1_OBJECT *maker_alg = nullptr;
};

// What an operation was handed: a seal or a seal signature of one family.
enum class Input { kSesSeal, kGbSeal, kSesSignature, kGbSignature };

// A decoded input and the seal in it; `type` is ZEPH_SEAL_TYPE_SES or _GB.
struct DecodedSeal {
  int32_t type = ZEPH_SEAL_TYPE_UNKNOWN;
  SESealPtr ses;
  GBSESealPtr gb;
  SesSignaturePtr ses_signature;
  GbSignaturePtr gb_signature;
  SealFields fields;
  const SESeal *ses_seal = nullptr;  // the SES seal, in `ses` or in the signature
  const GBSESeal *gb_seal = nullptr;
};

// Decodes the input as the structure `kind` names; nothing on failure.
std::optional<DecodedSeal> DecodeAs(Input kind, const unsigned char *data, uint32_t len);
// Decodes a seal the way type detection recognises it: SES first, then GB.
std::optional<DecodedSeal> DecodeSeal(const unsigned char *data, uint32_t len);
// DER of the holder's certificate (the first of the list): SES encodes the
// first certificate, GB gives the first OCTET STRING as it is. Nothing for
// an empty list.
std::optional<std::vector<uint8_t>> FirstCert(const DecodedSeal &seal);

// INTEGER to unsigned 32-bit, as the picture size outputs want it.
uint32_t ToU32(const ASN1_INTEGER *v);

// SM2 with SM3 and the default identity, with the public key of a DER
// certificate, over the concatenation of `message`. The signature is DER
// SEQUENCE { r, s }. 0, or ERR_SIGNATURE_INVALID for any failure: no SM2 key
// in the certificate, a malformed certificate or signature, a bad signature.
uint32_t VerifySm2WithCert(der::Bytes cert, std::initializer_list<der::Bytes> message, der::Bytes signature);

// Decodes with T's template and encodes again; false when either step fails.
template <class T, T *(*D2i)(T **, const unsigned char **, long), int (*I2d)(const T *, unsigned char **),
          void (*Release)(T *)>
bool ReEncode(std::span<const uint8_t> in, std::vector<uint8_t> *out) {
  std::unique_ptr<T, Free<Release>> obj(Decode(D2i, in.data(), static_cast<uint32_t>(in.size())));
  const auto der = obj ? Encode(I2d, static_cast<const T *>(obj.get())) : std::nullopt;
  if (!der) return false;
  out->assign(der->span().begin(), der->span().end());
  return true;
}
#define ZEPH_SEAL_REENCODE(T) ::zeph::seal::ReEncode<T, d2i_##T, i2d_##T, T##_free>

}  // namespace zeph::seal
