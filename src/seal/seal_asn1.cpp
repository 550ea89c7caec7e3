// The SES and GB seal structures as OpenSSL templates: DER coding,
// allocation and deep freeing all come from OpenSSL's template engine.
#include <cstdio>

#include <openssl/asn1t.h>

#include "zeph_c_seal.h"

// clang-format off
extern "C" {

// ---- SES ------------------------------------------------------------------

ASN1_SEQUENCE(SES_Header_structure) = {
  ASN1_SIMPLE(SES_Header_structure, _ID, ASN1_IA5STRING),
  ASN1_SIMPLE(SES_Header_structure, version, ASN1_INTEGER),
  ASN1_SIMPLE(SES_Header_structure, Vid, ASN1_IA5STRING),
} ASN1_SEQUENCE_END(SES_Header_structure)
IMPLEMENT_ASN1_FUNCTIONS(SES_Header_structure)

ASN1_SEQUENCE(SES_ESPropertyInfo_structure) = {
  ASN1_SIMPLE(SES_ESPropertyInfo_structure, type, ASN1_INTEGER),
  ASN1_SIMPLE(SES_ESPropertyInfo_structure, name, ASN1_UTF8STRING),
  ASN1_SEQUENCE_OF(SES_ESPropertyInfo_structure, certList, X509),
  ASN1_SIMPLE(SES_ESPropertyInfo_structure, createDate, ASN1_UTCTIME),
  ASN1_SIMPLE(SES_ESPropertyInfo_structure, validStart, ASN1_UTCTIME),
  ASN1_SIMPLE(SES_ESPropertyInfo_structure, validEnd, ASN1_UTCTIME),
} ASN1_SEQUENCE_END(SES_ESPropertyInfo_structure)
IMPLEMENT_ASN1_FUNCTIONS(SES_ESPropertyInfo_structure)

ASN1_SEQUENCE(SES_ESPictrueInfo_structure) = {
  ASN1_SIMPLE(SES_ESPictrueInfo_structure, type, ASN1_IA5STRING),
  ASN1_SIMPLE(SES_ESPictrueInfo_structure, data, ASN1_OCTET_STRING),
  ASN1_SIMPLE(SES_ESPictrueInfo_structure, width, ASN1_INTEGER),
  ASN1_SIMPLE(SES_ESPictrueInfo_structure, height, ASN1_INTEGER),
} ASN1_SEQUENCE_END(SES_ESPictrueInfo_structure)
IMPLEMENT_ASN1_FUNCTIONS(SES_ESPictrueInfo_structure)

// _critical at -1 ("not set") is left out of the encoding. OpenSSL 3 refuses
// to encode a required member that is left out, so the member is optional in
// the template, as X509_EXTENSION declares its own; a FALSE that a seal maker
// wrote out decodes to 0 and is written out again.
ASN1_SEQUENCE(VORLI_ExtData_structure) = {
  ASN1_SIMPLE(VORLI_ExtData_structure, extnID, ASN1_OBJECT),
  ASN1_OPT(VORLI_ExtData_structure, _critical, ASN1_BOOLEAN),
  ASN1_SIMPLE(VORLI_ExtData_structure, extnValue, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(VORLI_ExtData_structure)
IMPLEMENT_ASN1_FUNCTIONS(VORLI_ExtData_structure)

ASN1_SEQUENCE(SES_SignInfo_structure) = {
  ASN1_SIMPLE(SES_SignInfo_structure, cert, ASN1_OCTET_STRING),
  ASN1_SIMPLE(SES_SignInfo_structure, signatureAlgorithm, ASN1_OBJECT),
  ASN1_SIMPLE(SES_SignInfo_structure, signData, ASN1_BIT_STRING),
} ASN1_SEQUENCE_END(SES_SignInfo_structure)
IMPLEMENT_ASN1_FUNCTIONS(SES_SignInfo_structure)

ASN1_SEQUENCE(SES_SealInfo_structure) = {
  ASN1_SIMPLE(SES_SealInfo_structure, _header, SES_Header_structure),
  ASN1_SIMPLE(SES_SealInfo_structure, esID, ASN1_IA5STRING),
  ASN1_SIMPLE(SES_SealInfo_structure, _prop, SES_ESPropertyInfo_structure),
  ASN1_SIMPLE(SES_SealInfo_structure, pic, SES_ESPictrueInfo_structure),
  ASN1_SEQUENCE_OF_OPT(SES_SealInfo_structure, extDatas, VORLI_ExtData_structure),
} ASN1_SEQUENCE_END(SES_SealInfo_structure)
IMPLEMENT_ASN1_FUNCTIONS(SES_SealInfo_structure)

ASN1_SEQUENCE(SESeal) = {
  ASN1_SIMPLE(SESeal, SES_SealInfo, SES_SealInfo_structure),
  ASN1_SIMPLE(SESeal, SES_SignInfo, SES_SignInfo_structure),
} ASN1_SEQUENCE_END(SESeal)
IMPLEMENT_ASN1_FUNCTIONS(SESeal)

ASN1_SEQUENCE(TBS_Sign) = {
  ASN1_SIMPLE(TBS_Sign, version, ASN1_INTEGER),
  ASN1_SIMPLE(TBS_Sign, eseal, SESeal),
  ASN1_SIMPLE(TBS_Sign, timeInfo, ASN1_BIT_STRING),
  ASN1_SIMPLE(TBS_Sign, dataHash, ASN1_BIT_STRING),
  ASN1_SIMPLE(TBS_Sign, propertyInfo, ASN1_IA5STRING),
  ASN1_SIMPLE(TBS_Sign, cert, ASN1_OCTET_STRING),
  ASN1_SIMPLE(TBS_Sign, signatureAlgorithm, ASN1_OBJECT),
} ASN1_SEQUENCE_END(TBS_Sign)
IMPLEMENT_ASN1_FUNCTIONS(TBS_Sign)

ASN1_SEQUENCE(SES_Signature) = {
  ASN1_SIMPLE(SES_Signature, toSign, TBS_Sign),
  ASN1_SIMPLE(SES_Signature, signature, ASN1_BIT_STRING),
} ASN1_SEQUENCE_END(SES_Signature)
IMPLEMENT_ASN1_FUNCTIONS(SES_Signature)

// ---- GB -------------------------------------------------------------------

ASN1_SEQUENCE(GBSES_Header_structure) = {
  ASN1_SIMPLE(GBSES_Header_structure, _ID, ASN1_IA5STRING),
  ASN1_SIMPLE(GBSES_Header_structure, version, ASN1_INTEGER),
  ASN1_SIMPLE(GBSES_Header_structure, Vid, ASN1_IA5STRING),
} ASN1_SEQUENCE_END(GBSES_Header_structure)
IMPLEMENT_ASN1_FUNCTIONS(GBSES_Header_structure)

ASN1_SEQUENCE(GB_CertDigestList_structure) = {
  ASN1_SIMPLE(GB_CertDigestList_structure, _type, ASN1_PRINTABLESTRING),
  ASN1_SIMPLE(GB_CertDigestList_structure, _value, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(GB_CertDigestList_structure)
IMPLEMENT_ASN1_FUNCTIONS(GB_CertDigestList_structure)

// Both alternatives are untagged SEQUENCE OFs: OpenSSL tries them in order
// and a list whose elements are not OCTET STRINGs fails in the first one.
ASN1_CHOICE(GBSES_CerList_structure) = {
  ASN1_SEQUENCE_OF(GBSES_CerList_structure, certs, ASN1_OCTET_STRING),
  ASN1_SEQUENCE_OF(GBSES_CerList_structure, certDigestList, GB_CertDigestList_structure),
} ASN1_CHOICE_END(GBSES_CerList_structure)
IMPLEMENT_ASN1_FUNCTIONS(GBSES_CerList_structure)

ASN1_SEQUENCE(GBSES_ESPropertyInfo_structure) = {
  ASN1_SIMPLE(GBSES_ESPropertyInfo_structure, type, ASN1_INTEGER),
  ASN1_SIMPLE(GBSES_ESPropertyInfo_structure, name, ASN1_UTF8STRING),
  ASN1_SIMPLE(GBSES_ESPropertyInfo_structure, cerListType, ASN1_INTEGER),
  ASN1_SIMPLE(GBSES_ESPropertyInfo_structure, certList, GBSES_CerList_structure),
  ASN1_SIMPLE(GBSES_ESPropertyInfo_structure, createDate, ASN1_GENERALIZEDTIME),
  ASN1_SIMPLE(GBSES_ESPropertyInfo_structure, validStart, ASN1_GENERALIZEDTIME),
  ASN1_SIMPLE(GBSES_ESPropertyInfo_structure, validEnd, ASN1_GENERALIZEDTIME),
} ASN1_SEQUENCE_END(GBSES_ESPropertyInfo_structure)
IMPLEMENT_ASN1_FUNCTIONS(GBSES_ESPropertyInfo_structure)

ASN1_SEQUENCE(GBSES_ESPictrueInfo_structure) = {
  ASN1_SIMPLE(GBSES_ESPictrueInfo_structure, type, ASN1_IA5STRING),
  ASN1_SIMPLE(GBSES_ESPictrueInfo_structure, data, ASN1_OCTET_STRING),
  ASN1_SIMPLE(GBSES_ESPictrueInfo_structure, width, ASN1_INTEGER),
  ASN1_SIMPLE(GBSES_ESPictrueInfo_structure, height, ASN1_INTEGER),
} ASN1_SEQUENCE_END(GBSES_ESPictrueInfo_structure)
IMPLEMENT_ASN1_FUNCTIONS(GBSES_ESPictrueInfo_structure)

ASN1_SEQUENCE(GBVORLI_ExtData_structure) = {
  ASN1_SIMPLE(GBVORLI_ExtData_structure, extnID, ASN1_OBJECT),
  ASN1_OPT(GBVORLI_ExtData_structure, _critical, ASN1_BOOLEAN),
  ASN1_SIMPLE(GBVORLI_ExtData_structure, extnValue, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(GBVORLI_ExtData_structure)
IMPLEMENT_ASN1_FUNCTIONS(GBVORLI_ExtData_structure)

ASN1_SEQUENCE(GBSES_SealInfo_structure) = {
  ASN1_SIMPLE(GBSES_SealInfo_structure, _header, GBSES_Header_structure),
  ASN1_SIMPLE(GBSES_SealInfo_structure, esID, ASN1_IA5STRING),
  ASN1_SIMPLE(GBSES_SealInfo_structure, _prop, GBSES_ESPropertyInfo_structure),
  ASN1_SIMPLE(GBSES_SealInfo_structure, pic, GBSES_ESPictrueInfo_structure),
  ASN1_SEQUENCE_OF_OPT(GBSES_SealInfo_structure, extDatas, GBVORLI_ExtData_structure),
} ASN1_SEQUENCE_END(GBSES_SealInfo_structure)
IMPLEMENT_ASN1_FUNCTIONS(GBSES_SealInfo_structure)

ASN1_SEQUENCE(GBSESeal) = {
  ASN1_SIMPLE(GBSESeal, eSealInfo, GBSES_SealInfo_structure),
  ASN1_SIMPLE(GBSESeal, cert, ASN1_OCTET_STRING),
  ASN1_SIMPLE(GBSESeal, aignAlgID, ASN1_OBJECT),
  ASN1_SIMPLE(GBSESeal, signedValue, ASN1_BIT_STRING),
} ASN1_SEQUENCE_END(GBSESeal)
IMPLEMENT_ASN1_FUNCTIONS(GBSESeal)

ASN1_SEQUENCE(GBTBS_Sign) = {
  ASN1_SIMPLE(GBTBS_Sign, version, ASN1_INTEGER),
  ASN1_SIMPLE(GBTBS_Sign, eseal, GBSESeal),
  ASN1_SIMPLE(GBTBS_Sign, timeInfo, ASN1_BIT_STRING),
  ASN1_SIMPLE(GBTBS_Sign, dataHash, ASN1_BIT_STRING),
  ASN1_SIMPLE(GBTBS_Sign, propertyInfo, ASN1_IA5STRING),
  ASN1_IMP_SEQUENCE_OF_OPT(GBTBS_Sign, extDatas, GBVORLI_ExtData_structure, 0),
} ASN1_SEQUENCE_END(GBTBS_Sign)
IMPLEMENT_ASN1_FUNCTIONS(GBTBS_Sign)

ASN1_SEQUENCE(GBSES_Signature) = {
  ASN1_SIMPLE(GBSES_Signature, toSign, GBTBS_Sign),
  ASN1_SIMPLE(GBSES_Signature, cert, ASN1_OCTET_STRING),
  ASN1_SIMPLE(GBSES_Signature, signatureAlgID, ASN1_OBJECT),
  ASN1_SIMPLE(GBSES_Signature, signature, ASN1_BIT_STRING),
  ASN1_IMP_SEQUENCE_OF_OPT(GBSES_Signature, timeStamp, ASN1_BIT_STRING, 0),
} ASN1_SEQUENCE_END(GBSES_Signature)
IMPLEMENT_ASN1_FUNCTIONS(GBSES_Signature)

}  // extern "C"
// clang-format on

namespace {

// One decode attempt and its OK/NG line. The decoded object is freed here:
// these are diagnostics, and a leak per call helps no one.
template <class T, T *(*Decode)(T **, const unsigned char **, long), void (*Release)(T *)>
int ParseAndPrint(const char *type_name, const unsigned char *data, uint32_t len) {
  const unsigned char *p = data;
  T *obj = data != nullptr ? Decode(nullptr, &p, static_cast<long>(len)) : nullptr;
  const int printed = std::printf("%s is %s.\n", type_name, obj != nullptr ? "OK" : "NG");
  Release(obj);
  return printed;
}

}  // namespace

extern "C" {

ZEPH_API int test_parse_pic_struc(const unsigned char *data, uint32_t len) {
  return ParseAndPrint<SES_ESPictrueInfo_structure, d2i_SES_ESPictrueInfo_structure, SES_ESPictrueInfo_structure_free>(
      "SES_ESPictrueInfo_structure", data, len);
}

ZEPH_API int test_parse_header_struc(const unsigned char *data, uint32_t len) {
  return ParseAndPrint<SES_Header_structure, d2i_SES_Header_structure, SES_Header_structure_free>(
      "SES_Header_structure", data, len);
}

ZEPH_API int test_parse_prop_struc(const unsigned char *data, uint32_t len) {
  return ParseAndPrint<SES_ESPropertyInfo_structure, d2i_SES_ESPropertyInfo_structure,
                       SES_ESPropertyInfo_structure_free>("SES_ESPropertyInfo_structure", data, len);
}

ZEPH_API int test_parse_sealInfo_struc(const unsigned char *data, uint32_t len) {
  return ParseAndPrint<SES_SealInfo_structure, d2i_SES_SealInfo_structure, SES_SealInfo_structure_free>(
      "SES_SealInfo_structure", data, len);
}

ZEPH_API int test_parse_signInfo_struc(const unsigned char *data, uint32_t len) {
  return ParseAndPrint<SES_SignInfo_structure, d2i_SES_SignInfo_structure, SES_SignInfo_structure_free>(
      "SES_SignInfo_structure", data, len);
}

}  // extern "C"
