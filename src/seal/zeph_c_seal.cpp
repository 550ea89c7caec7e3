// Seal operations on DER held by the caller: type detection, pictures and
// details, the to-be-signed content and the seal signature, verification with
// the specified structures, and the key's text form. Every call decodes its
// input afresh and keeps nothing.
#include "zeph_c_seal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <openssl/err.h>
#include <openssl/objects.h>

#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "seal/seal_internal.hpp"
#include "zeph_c_status.h"

namespace zeph::seal {

namespace {

// The key keeps a text-form seal's information in a record of this size, and
// a picture-only seal as a record of five bytes.
constexpr uint32_t kTextFormRecordLen = 968;
constexpr uint32_t kPictureOnlyRecordLen = 5;

SealFields FieldsOf(const SESeal &seal) {
  const SES_SealInfo_structure &info = *seal.SES_SealInfo;
  const SES_ESPropertyInfo_structure &prop = *info._prop;
  return SealFields{info._header->_ID,
                    info._header->version,
                    info._header->Vid,
                    info.esID,
                    prop.type,
                    prop.name,
                    prop.createDate,
                    prop.validStart,
                    prop.validEnd,
                    info.pic->type,
                    info.pic->data,
                    info.pic->width,
                    info.pic->height,
                    seal.SES_SignInfo->cert,
                    seal.SES_SignInfo->signatureAlgorithm};
}

SealFields FieldsOf(const GBSESeal &seal) {
  const GBSES_SealInfo_structure &info = *seal.eSealInfo;
  const GBSES_ESPropertyInfo_structure &prop = *info._prop;
  return SealFields{info._header->_ID, info._header->version, info._header->Vid, info.esID,     prop.type,
                    prop.name,         prop.createDate,       prop.validStart,   prop.validEnd, info.pic->type,
                    info.pic->data,    info.pic->width,       info.pic->height,  seal.cert,     seal.aignAlgID};
}

// True only when the DER walk shows that d2i_SESeal must fail: a SESeal is a
// SEQUENCE whose second member is a SEQUENCE, and a GB seal has an OCTET
// STRING there. Skipping the doomed decode spares OpenSSL's error path,
// which costs as much as decoding a whole GB seal. Anything the walk cannot
// read is left to the decoder.
bool CannotBeSesSeal(const unsigned char *data, uint32_t len) {
  const auto seal = der::ReadTlv({data, len});
  if (!seal) return false;
  if (seal->tag != der::kSequence) return true;
  der::Reader members(seal->content);
  members.Next();
  const auto second = members.Next();
  return second && second->tag != der::kSequence;
}

int32_t DetectDer(const unsigned char *data, uint32_t len) {
  if (data == nullptr) return ZEPH_SEAL_TYPE_UNKNOWN;
  if (!CannotBeSesSeal(data, len) && SESealPtr(Decode(d2i_SESeal, data, len))) return ZEPH_SEAL_TYPE_SES;
  if (GBSESealPtr(Decode(d2i_GBSESeal, data, len))) return ZEPH_SEAL_TYPE_GB;
  return ZEPH_SEAL_TYPE_UNKNOWN;
}

// ---- details --------------------------------------------------------------

struct Out {
  unsigned char *buf;
  uint32_t *len;
};

// The content octets of an INTEGER as DER writes them (sign octet included).
std::optional<std::vector<uint8_t>> ContentOctets(const ASN1_INTEGER *v) {
  const auto der = Encode(i2d_ASN1_INTEGER, v);
  const auto tlv = der ? der::ReadWhole(der->span()) : std::nullopt;
  if (!tlv) return std::nullopt;
  return std::vector<uint8_t>(tlv->content.begin(), tlv->content.end());
}

std::optional<Encoded> MakerSubject(const ASN1_OCTET_STRING *cert) {
  const auto der = Bytes(cert);
  const unsigned char *p = der.data();
  X509Ptr x509(der.empty() ? nullptr : d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  if (!x509) return std::nullopt;
  return Encode(i2d_X509_NAME, static_cast<const X509_NAME *>(X509_get_subject_name(x509.get())));
}

uint32_t Detail(Input kind, const unsigned char *seal, uint32_t seal_len, std::span<const Out, 10> out,
                const Out *alg) {
  const auto d = DecodeAs(kind, seal, seal_len);
  ZEPH_ENSURE(d, ERR_INVALID_PARAMETER);
  const SealFields &f = d->fields;
  const auto version = ContentOctets(f.version);
  const auto type = ContentOctets(f.type);
  ZEPH_ENSURE(version && type, ERR_INVALID_PARAMETER);
  ZEPH_TRY(PutOutput(Bytes(f.id), out[0].buf, out[0].len));
  ZEPH_TRY(PutOutput(*version, out[1].buf, out[1].len));
  ZEPH_TRY(PutOutput(Bytes(f.vid), out[2].buf, out[2].len));
  ZEPH_TRY(PutOutput(*type, out[3].buf, out[3].len));
  ZEPH_TRY(PutOutput(Bytes(f.name), out[4].buf, out[4].len));
  const auto cert = FirstCert(*d);
  ZEPH_ENSURE(cert, ERR_INVALID_PARAMETER);
  ZEPH_TRY(PutOutput(*cert, out[5].buf, out[5].len));
  // Validity before creation: the order callers have always received.
  ZEPH_TRY(PutOutput(Bytes(f.valid_start), out[6].buf, out[6].len));
  ZEPH_TRY(PutOutput(Bytes(f.valid_end), out[7].buf, out[7].len));
  ZEPH_TRY(PutOutput(Bytes(f.create_date), out[8].buf, out[8].len));
  const auto subject = MakerSubject(f.maker_cert);
  ZEPH_ENSURE(subject, ERR_INVALID_PARAMETER);
  ZEPH_TRY(PutOutput(subject->span(), out[9].buf, out[9].len));
  if (alg == nullptr) return 0;
  const auto oid = Encode(i2d_ASN1_OBJECT, f.maker_alg);
  ZEPH_ENSURE(oid, ERR_INVALID_PARAMETER);
  const uint32_t rv = PutOutput(oid->span(), alg->buf, alg->len);
  // Compat: a short buffer for the algorithm only learns its length; callers
  // treat the call as done.
  return rv == ERR_BUFFER_TOO_SMALL ? 0u : rv;
}

// ---- building ---------------------------------------------------------------

// Filled from whole octets: with no unused-bit count given, OpenSSL's DER
// drops trailing zero octets and counts the trailing zero bits of the last
// one. Other parties compare these bytes, so the rule stays.
bool SetBits(ASN1_BIT_STRING *bits, std::span<const uint8_t> value) {
  bits->flags &= ~(ASN1_STRING_FLAG_BITS_LEFT | 0x07);
  return ASN1_BIT_STRING_set(bits, const_cast<uint8_t *>(value.data()), static_cast<int>(value.size())) == 1;
}

bool SetString(ASN1_STRING *s, const void *data, uint32_t len) {
  return ASN1_STRING_set(s, data != nullptr ? data : "", data != nullptr ? static_cast<int>(len) : 0) == 1;
}

// Dotted text only: a name such as "SM2-with-SM3" is refused rather than
// leaving the member out of the encoding.
bool SetOid(ASN1_OBJECT **member, const char *dotted) {
  if (dotted == nullptr || *dotted == '\0') return false;
  Asn1ObjectPtr obj(OBJ_txt2obj(dotted, 1));
  if (!obj) return false;
  ASN1_OBJECT_free(*member);
  *member = obj.release();
  return true;
}

// The builders deliver through the output protocol, except that
// Compat: a short buffer does not learn the length it needs.
uint32_t PutBuilt(const std::optional<Encoded> &der, unsigned char *out, uint32_t *out_len) {
  ZEPH_ENSURE(der && out_len != nullptr, ERR_INVALID_PARAMETER);
  if (out != nullptr && *out_len < der->size) return ERR_BUFFER_TOO_SMALL;
  return PutOutput(der->span(), out, out_len);
}

uint32_t BuildSesTbs(uint32_t version, const unsigned char *seal, uint32_t seal_len, const unsigned char *time,
                     uint32_t time_len, const unsigned char *hash, uint32_t hash_len, const char *property,
                     uint32_t property_len, const unsigned char *cert, uint32_t cert_len, const char *alg_oid,
                     unsigned char *out, uint32_t *out_len) {
  ZEPH_ENSURE(seal && time && hash && property && cert, ERR_INVALID_PARAMETER);
  SESealPtr decoded(Decode(d2i_SESeal, seal, seal_len));
  TbsSignPtr tbs(TBS_Sign_new());
  ZEPH_ENSURE(decoded && tbs, ERR_INVALID_PARAMETER);
  SESeal_free(tbs->eseal);
  tbs->eseal = decoded.release();
  ZEPH_ENSURE(ASN1_INTEGER_set_uint64(tbs->version, version) == 1 && SetBits(tbs->timeInfo, {time, time_len}) &&
                  SetBits(tbs->dataHash, {hash, hash_len}) && SetString(tbs->propertyInfo, property, property_len) &&
                  SetString(tbs->cert, cert, cert_len) && SetOid(&tbs->signatureAlgorithm, alg_oid),
              ERR_INVALID_PARAMETER);
  return PutBuilt(Encode(i2d_TBS_Sign, tbs.get()), out, out_len);
}

uint32_t BuildGbTbs(uint32_t version, const unsigned char *seal, uint32_t seal_len, const char *time,
                    const unsigned char *hash, uint32_t hash_len, const char *property, uint32_t property_len,
                    unsigned char *out, uint32_t *out_len) {
  ZEPH_ENSURE(seal && time && hash && property, ERR_INVALID_PARAMETER);
  GBSESealPtr decoded(Decode(d2i_GBSESeal, seal, seal_len));
  GbTbsSignPtr tbs(GBTBS_Sign_new());
  ZEPH_ENSURE(decoded && tbs, ERR_INVALID_PARAMETER);
  GBSESeal_free(tbs->eseal);
  tbs->eseal = decoded.release();
  // Compat: the signing time travels as GeneralizedTime text inside a BIT
  // STRING, as seals already issued carry it; text OpenSSL refuses as
  // GeneralizedTime leaves the BIT STRING empty.
  std::unique_ptr<ASN1_GENERALIZEDTIME, Free<ASN1_GENERALIZEDTIME_free>> when(ASN1_GENERALIZEDTIME_new());
  ZEPH_ENSURE(when, ERR_INVALID_PARAMETER);
  ERR_set_mark();
  const bool valid_time = ASN1_GENERALIZEDTIME_set_string(when.get(), time) == 1;
  ERR_pop_to_mark();
  ZEPH_ENSURE(ASN1_INTEGER_set_uint64(tbs->version, version) == 1 &&
                  SetBits(tbs->timeInfo, valid_time ? Bytes(when.get()) : std::span<const uint8_t>{}) &&
                  SetBits(tbs->dataHash, {hash, hash_len}) && SetString(tbs->propertyInfo, property, property_len),
              ERR_INVALID_PARAMETER);
  return PutBuilt(Encode(i2d_GBTBS_Sign, tbs.get()), out, out_len);
}

uint32_t BuildSesSignature(const unsigned char *tbs_der, uint32_t tbs_len, const unsigned char *sig, uint32_t sig_len,
                           unsigned char *out, uint32_t *out_len) {
  ZEPH_ENSURE(tbs_der && sig, ERR_INVALID_PARAMETER);
  TbsSignPtr tbs(Decode(d2i_TBS_Sign, tbs_der, tbs_len));
  SesSignaturePtr signature(SES_Signature_new());
  ZEPH_ENSURE(tbs && signature, ERR_INVALID_PARAMETER);
  TBS_Sign_free(signature->toSign);
  signature->toSign = tbs.release();
  ZEPH_ENSURE(SetBits(signature->signature, {sig, sig_len}), ERR_INVALID_PARAMETER);
  return PutBuilt(Encode(i2d_SES_Signature, signature.get()), out, out_len);
}

uint32_t BuildGbSignature(const unsigned char *tbs_der, uint32_t tbs_len, const unsigned char *sig, uint32_t sig_len,
                          const unsigned char *cert, uint32_t cert_len, const char *alg_oid, unsigned char *out,
                          uint32_t *out_len) {
  ZEPH_ENSURE(tbs_der && sig, ERR_INVALID_PARAMETER);
  GbTbsSignPtr tbs(Decode(d2i_GBTBS_Sign, tbs_der, tbs_len));
  GbSignaturePtr signature(GBSES_Signature_new());
  ZEPH_ENSURE(tbs && signature, ERR_INVALID_PARAMETER);
  GBTBS_Sign_free(signature->toSign);
  signature->toSign = tbs.release();
  ZEPH_ENSURE(SetString(signature->cert, cert, cert_len) && SetOid(&signature->signatureAlgID, alg_oid) &&
                  SetBits(signature->signature, {sig, sig_len}),
              ERR_INVALID_PARAMETER);
  return PutBuilt(Encode(i2d_GBSES_Signature, signature.get()), out, out_len);
}

// ---- verification with the specified structures -----------------------------

uint32_t VerifySes(const unsigned char *seal, uint32_t seal_len, const unsigned char *signature,
                   uint32_t signature_len) {
  SesSignaturePtr sig(Decode(d2i_SES_Signature, signature, signature_len));
  ZEPH_ENSURE(sig, ERR_INVALID_PARAMETER);
  ZEPH_ENSURE(SESealPtr(Decode(d2i_SESeal, seal, seal_len)), ERR_INVALID_PARAMETER);
  const auto tbs = Encode(i2d_TBS_Sign, static_cast<const TBS_Sign *>(sig->toSign));
  ZEPH_ENSURE(tbs, ERR_INVALID_PARAMETER);
  const auto cert_bytes = Bytes(sig->toSign->cert);
  const std::vector<uint8_t> cert(cert_bytes.begin(), cert_bytes.end());
  char alg[128];
  // Compat: verification goes on only when the algorithm renders as one
  // character, which no ordinary OID does; callers rely on that answer.
  if (OBJ_obj2txt(alg, sizeof alg, sig->toSign->signatureAlgorithm, 1) != 1) return ERR_INVALID_PARAMETER;
  return VerifySm2WithCert(cert, {tbs->span()}, Bytes(sig->signature));
}

uint32_t VerifyGb(const unsigned char *seal, uint32_t seal_len, const unsigned char *signature,
                  uint32_t signature_len) {
  GbSignaturePtr sig(Decode(d2i_GBSES_Signature, signature, signature_len));
  ZEPH_ENSURE(sig, ZEPH_GBVERIFY_BAD_SIGNATURE);
  ZEPH_ENSURE(GBSESealPtr(Decode(d2i_GBSESeal, seal, seal_len)), ZEPH_GBVERIFY_BAD_SEAL);
  const auto tbs = Encode(i2d_GBTBS_Sign, static_cast<const GBTBS_Sign *>(sig->toSign));
  ZEPH_ENSURE(tbs, ZEPH_GBVERIFY_ENCODE_FAILED);
  const auto cert_bytes = Bytes(sig->cert);
  const std::vector<uint8_t> cert(cert_bytes.begin(), cert_bytes.end());
  return VerifySm2WithCert(cert, {tbs->span()}, Bytes(sig->signature));
}

uint32_t CertOfGbSignature(const unsigned char *signature, uint32_t signature_len, unsigned char *cert,
                           uint32_t *cert_len) {
  GbSignaturePtr sig(Decode(d2i_GBSES_Signature, signature, signature_len));
  ZEPH_ENSURE(sig && cert_len != nullptr, ERR_INVALID_PARAMETER);
  const auto bytes = Bytes(sig->cert);
  const auto need = static_cast<uint32_t>(bytes.size());
  if (cert == nullptr) {
    // Compat: the length is stored, yet the answer is a failure; callers
    // read the length anyway.
    *cert_len = need;
    return ERR_INVALID_PARAMETER;
  }
  // Compat: a short buffer does not learn the length it needs.
  if (*cert_len < need) return ERR_BUFFER_TOO_SMALL;
  if (need != 0) std::memcpy(cert, bytes.data(), need);
  *cert_len = need;
  return 0;
}

// ---- the key's text form -----------------------------------------------------

// "<I>info</I><P>pic</P><C>cert</C>": each part runs to the next '<' and the
// next part starts where the markers would put it, so text shaped otherwise
// is cut in the wrong places but never read past its end.
uint32_t TextFormToJson(const char *text, char **out_json) {
  ZEPH_ENSURE(text != nullptr && out_json != nullptr, ERR_INVALID_PARAMETER);
  const std::string_view s(text);
  ZEPH_ENSURE(s.starts_with("<I>"), ERR_INVALID_PARAMETER);
  const auto part = [&](size_t start) -> std::optional<std::string_view> {
    if (start > s.size()) return std::nullopt;
    const size_t end = s.find('<', start);
    if (end == std::string_view::npos) return std::nullopt;
    return s.substr(start, end - start);
  };
  const auto info = part(3);
  const auto pic = info ? part(info->size() + 10) : std::nullopt;
  const auto cert = pic ? part(info->size() + pic->size() + 17) : std::nullopt;
  ZEPH_ENSURE(cert && s.size() < INT32_MAX, ERR_INVALID_PARAMETER);
  const size_t cap = info->size() + pic->size() + cert->size() + 100;
  auto *json = static_cast<char *>(std::malloc(cap));
  // Compat: lack of memory answers "buffer too small" here.
  ZEPH_ENSURE(json != nullptr, ERR_BUFFER_TOO_SMALL);
  std::snprintf(json, cap, "{\"info\":\"%.*s\",\"pic\":\"%.*s\",\"cert\":\"%.*s\"}", static_cast<int>(info->size()),
                info->data(), static_cast<int>(pic->size()), pic->data(), static_cast<int>(cert->size()), cert->data());
  *out_json = json;
  return 0;
}

}  // namespace

std::optional<DecodedSeal> DecodeAs(Input kind, const unsigned char *data, uint32_t len) {
  DecodedSeal d;
  switch (kind) {
    case Input::kSesSeal:
      d.ses.reset(Decode(d2i_SESeal, data, len));
      d.ses_seal = d.ses.get();
      break;
    case Input::kGbSeal:
      d.gb.reset(Decode(d2i_GBSESeal, data, len));
      d.gb_seal = d.gb.get();
      break;
    case Input::kSesSignature:
      d.ses_signature.reset(Decode(d2i_SES_Signature, data, len));
      if (d.ses_signature) d.ses_seal = d.ses_signature->toSign->eseal;
      break;
    case Input::kGbSignature:
      d.gb_signature.reset(Decode(d2i_GBSES_Signature, data, len));
      if (d.gb_signature) d.gb_seal = d.gb_signature->toSign->eseal;
      break;
  }
  if (d.ses_seal != nullptr) {
    d.type = ZEPH_SEAL_TYPE_SES;
    d.fields = FieldsOf(*d.ses_seal);
  } else if (d.gb_seal != nullptr) {
    d.type = ZEPH_SEAL_TYPE_GB;
    d.fields = FieldsOf(*d.gb_seal);
  } else {
    return std::nullopt;
  }
  return d;
}

std::optional<DecodedSeal> DecodeSeal(const unsigned char *data, uint32_t len) {
  if (auto ses = DecodeAs(Input::kSesSeal, data, len)) return ses;
  return DecodeAs(Input::kGbSeal, data, len);
}

std::optional<std::vector<uint8_t>> FirstCert(const DecodedSeal &seal) {
  if (seal.ses_seal != nullptr) {
    const STACK_OF(X509) *certs = seal.ses_seal->SES_SealInfo->_prop->certList;
    if (sk_X509_num(certs) <= 0) return std::nullopt;
    const auto der = Encode(i2d_X509, static_cast<const X509 *>(sk_X509_value(certs, 0)));
    if (!der) return std::nullopt;
    return std::vector<uint8_t>(der->span().begin(), der->span().end());
  }
  const GBSES_CerList_structure *list = seal.gb_seal->eSealInfo->_prop->certList;
  if (list->type != GBSES_CERLIST_CERTS || sk_ASN1_OCTET_STRING_num(list->certs) <= 0) return std::nullopt;
  const auto first = Bytes(sk_ASN1_OCTET_STRING_value(list->certs, 0));
  return std::vector<uint8_t>(first.begin(), first.end());
}

uint32_t ToU32(const ASN1_INTEGER *v) { return static_cast<uint32_t>(ASN1_INTEGER_get(v)); }

}  // namespace zeph::seal

using zeph::Guarded;
using zeph::seal::Input;

namespace {

uint32_t Picture(Input kind, const unsigned char *data, uint32_t len, unsigned char *pic, uint32_t *pic_len,
                 uint32_t *out_width, uint32_t *out_height) {
  return Guarded(
      [&]() -> uint32_t {
        const auto d = zeph::seal::DecodeAs(kind, data, len);
        ZEPH_ENSURE(d, ERR_INVALID_PARAMETER);
        const uint32_t rv = zeph::PutOutput(zeph::seal::Bytes(d->fields.pic_data), pic, pic_len);
        if (out_width != nullptr) *out_width = zeph::seal::ToU32(d->fields.pic_width);
        if (out_height != nullptr) *out_height = zeph::seal::ToU32(d->fields.pic_height);
        return rv;
      },
      ERR_INVALID_PARAMETER);
}

}  // namespace

extern "C" {

ZEPH_API int32_t chkSealType(const unsigned char *data, uint32_t len) {
  // Compat: the key's record lengths decide before the bytes are looked at,
  // even without bytes; seal storage reads slot 1 this way.
  if (len == zeph::seal::kTextFormRecordLen) return ZEPH_SEAL_TYPE_TEXT;
  if (len == zeph::seal::kPictureOnlyRecordLen) return ZEPH_SEAL_TYPE_PICTURE;
  return zeph::seal::DetectDer(data, len);
}

ZEPH_API int32_t chkSealTypeEx(const unsigned char *data, uint32_t len) {
  if (data != nullptr && len >= 2 && data[0] == '<' && data[1] == 'I') return ZEPH_SEAL_TYPE_TEXT;
  return zeph::seal::DetectDer(data, len);
}

ZEPH_API uint32_t getSealPicFromSMSealStructure(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                uint32_t *pic_len) {
  return Picture(Input::kSesSeal, seal, seal_len, pic, pic_len, nullptr, nullptr);
}

ZEPH_API uint32_t getSealPicFromGBSealStructure(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                uint32_t *pic_len) {
  return Picture(Input::kGbSeal, seal, seal_len, pic, pic_len, nullptr, nullptr);
}

ZEPH_API uint32_t getSealPicDetailFromSMSealStructure(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                      uint32_t *pic_len, uint32_t *out_width, uint32_t *out_height) {
  return Picture(Input::kSesSeal, seal, seal_len, pic, pic_len, out_width, out_height);
}

ZEPH_API uint32_t getSealPicDetailFromGBSealStructure(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                      uint32_t *pic_len, uint32_t *out_width, uint32_t *out_height) {
  return Picture(Input::kGbSeal, seal, seal_len, pic, pic_len, out_width, out_height);
}

ZEPH_API uint32_t getSealPicDetailFromSMSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                     unsigned char *pic, uint32_t *pic_len, uint32_t *out_width,
                                                     uint32_t *out_height) {
  return Picture(Input::kSesSignature, signature, signature_len, pic, pic_len, out_width, out_height);
}

ZEPH_API uint32_t getSealPicDetailFromGBSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                     unsigned char *pic, uint32_t *pic_len, uint32_t *out_width,
                                                     uint32_t *out_height) {
  return Picture(Input::kGbSignature, signature, signature_len, pic, pic_len, out_width, out_height);
}

ZEPH_API uint32_t getSMSealDetail(const unsigned char *seal, uint32_t seal_len, unsigned char *id, uint32_t *id_len,
                                  unsigned char *version, uint32_t *version_len, unsigned char *vid, uint32_t *vid_len,
                                  unsigned char *type, uint32_t *type_len, unsigned char *name, uint32_t *name_len,
                                  unsigned char *cert, uint32_t *cert_len, unsigned char *valid_start,
                                  uint32_t *valid_start_len, unsigned char *valid_end, uint32_t *valid_end_len,
                                  unsigned char *create_date, uint32_t *create_date_len, unsigned char *maker_subject,
                                  uint32_t *maker_subject_len) {
  const zeph::seal::Out out[10] = {{id, id_len},
                                   {version, version_len},
                                   {vid, vid_len},
                                   {type, type_len},
                                   {name, name_len},
                                   {cert, cert_len},
                                   {valid_start, valid_start_len},
                                   {valid_end, valid_end_len},
                                   {create_date, create_date_len},
                                   {maker_subject, maker_subject_len}};
  return Guarded([&] { return zeph::seal::Detail(Input::kSesSeal, seal, seal_len, out, nullptr); },
                 ERR_INVALID_PARAMETER);
}

ZEPH_API uint32_t getGBSealDetail(const unsigned char *seal, uint32_t seal_len, unsigned char *id, uint32_t *id_len,
                                  unsigned char *version, uint32_t *version_len, unsigned char *vid, uint32_t *vid_len,
                                  unsigned char *type, uint32_t *type_len, unsigned char *name, uint32_t *name_len,
                                  unsigned char *cert, uint32_t *cert_len, unsigned char *valid_start,
                                  uint32_t *valid_start_len, unsigned char *valid_end, uint32_t *valid_end_len,
                                  unsigned char *create_date, uint32_t *create_date_len, unsigned char *maker_subject,
                                  uint32_t *maker_subject_len, unsigned char *alg_oid, uint32_t *alg_oid_len) {
  const zeph::seal::Out out[10] = {{id, id_len},
                                   {version, version_len},
                                   {vid, vid_len},
                                   {type, type_len},
                                   {name, name_len},
                                   {cert, cert_len},
                                   {valid_start, valid_start_len},
                                   {valid_end, valid_end_len},
                                   {create_date, create_date_len},
                                   {maker_subject, maker_subject_len}};
  const zeph::seal::Out alg{alg_oid, alg_oid_len};
  return Guarded([&] { return zeph::seal::Detail(Input::kGbSeal, seal, seal_len, out, &alg); }, ERR_INVALID_PARAMETER);
}

ZEPH_API uint32_t getTBSSignData(uint32_t version, const unsigned char *seal, uint32_t seal_len,
                                 const unsigned char *time, uint32_t time_len, const unsigned char *hash,
                                 uint32_t hash_len, const char *property, uint32_t property_len,
                                 const unsigned char *cert, uint32_t cert_len, const char *alg_oid, unsigned char *out,
                                 uint32_t *out_len) {
  return Guarded(
      [&] {
        return zeph::seal::BuildSesTbs(version, seal, seal_len, time, time_len, hash, hash_len, property, property_len,
                                       cert, cert_len, alg_oid, out, out_len);
      },
      ERR_INVALID_PARAMETER);
}

ZEPH_API uint32_t getGBTBSSignData(uint32_t version, const unsigned char *seal, uint32_t seal_len, const char *time,
                                   uint32_t time_len, const unsigned char *hash, uint32_t hash_len,
                                   const char *property, uint32_t property_len, unsigned char *out, uint32_t *out_len) {
  return Guarded(
      [&] {
        return zeph::seal::BuildGbTbs(version, seal, seal_len, time, hash, hash_len, property, property_len, out,
                                      out_len);
      },
      ERR_INVALID_PARAMETER);
}

ZEPH_API uint32_t getSESSignature(const unsigned char *tbs, uint32_t tbs_len, const unsigned char *sig,
                                  uint32_t sig_len, unsigned char *out, uint32_t *out_len) {
  return Guarded([&] { return zeph::seal::BuildSesSignature(tbs, tbs_len, sig, sig_len, out, out_len); },
                 ERR_INVALID_PARAMETER);
}

ZEPH_API uint32_t getGBSESSignature(const unsigned char *tbs, uint32_t tbs_len, const unsigned char *sig,
                                    uint32_t sig_len, const unsigned char *cert, uint32_t cert_len, const char *alg_oid,
                                    unsigned char *out, uint32_t *out_len) {
  return Guarded(
      [&] { return zeph::seal::BuildGbSignature(tbs, tbs_len, sig, sig_len, cert, cert_len, alg_oid, out, out_len); },
      ERR_INVALID_PARAMETER);
}

ZEPH_API uint32_t verifySESSignature(const unsigned char *seal, uint32_t seal_len, const unsigned char *in1,
                                     uint32_t in1_len, const unsigned char *in2, uint32_t in2_len,
                                     const unsigned char *in3, uint32_t in3_len, const unsigned char *in4,
                                     uint32_t in4_len, const unsigned char *signature, uint32_t signature_len,
                                     uint32_t reserved) {
  if (!seal || !in1 || !in2 || !in3 || !in4 || !signature) return ERR_INVALID_PARAMETER;
  return Guarded([&] { return zeph::seal::VerifySes(seal, seal_len, signature, signature_len); },
                 ERR_INVALID_PARAMETER);
}

ZEPH_API uint32_t verifyGBSESSignature(const unsigned char *seal, uint32_t seal_len, const unsigned char *in1,
                                       uint32_t in1_len, const unsigned char *in2, uint32_t in2_len,
                                       const unsigned char *in3, uint32_t in3_len, const unsigned char *in4,
                                       uint32_t in4_len, const unsigned char *signature, uint32_t signature_len,
                                       uint32_t reserved) {
  if (!seal || !in1 || !in2 || !in3 || !in4 || !signature) return ZEPH_GBVERIFY_MISSING_ARGUMENT;
  return Guarded([&] { return zeph::seal::VerifyGb(seal, seal_len, signature, signature_len); },
                 ZEPH_GBVERIFY_NO_MEMORY);
}

ZEPH_API uint32_t getCertWithGBSESSignature(const unsigned char *signature, uint32_t signature_len, unsigned char *cert,
                                            uint32_t *cert_len) {
  return Guarded([&] { return zeph::seal::CertOfGbSignature(signature, signature_len, cert, cert_len); },
                 ERR_INVALID_PARAMETER);
}

ZEPH_API uint32_t parseVorliSealInfo(const char *text, uint32_t len, char **out_json) {
  return zeph::seal::TextFormToJson(text, out_json);
}

ZEPH_API uint32_t getJSONStringOfSealInfo(const unsigned char *data, uint32_t len, char **out_json) { return 0; }

}  // extern "C"
