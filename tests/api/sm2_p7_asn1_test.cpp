// The SM2 signed-data and envelope types: exact bytes, round trips, order
// of certificates, and decoding of hand-built and broken DER.
#include <openssl/pem.h>

#include <gtest/gtest.h>

#include "loopback.hpp"
#include "zeph_c_p7.h"

namespace {

using Bytes = std::vector<uint8_t>;

template <class T>
Bytes Der(T *obj, int (*i2d)(const T *, unsigned char **)) {
  unsigned char *p = nullptr;
  const int n = i2d(obj, &p);
  Bytes out(p, p + std::max(n, 0));
  OPENSSL_free(p);
  return out;
}

X509 *LoadCert(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "r");
  X509 *x = f != nullptr ? PEM_read_X509(f, nullptr, nullptr, nullptr) : nullptr;
  if (f != nullptr) std::fclose(f);
  return x;
}

X509_ALGOR *Algorithm(const char *oid) {
  X509_ALGOR *a = X509_ALGOR_new();
  X509_ALGOR_set0(a, OBJ_txt2obj(oid, 1), V_ASN1_NULL, nullptr);
  return a;
}

std::string Oid(const ASN1_OBJECT *o) {
  char text[80];
  OBJ_obj2txt(text, sizeof text, o, 1);
  return text;
}

// One signed message: certificates B, A, then the signer; one signer info.
SM2_Sign *BuildSigned(const std::vector<X509 *> &certs) {
  SM2_Sign *msg = SM2_Sign_new();
  msg->ID = OBJ_txt2obj(ZEPH_OID_SM2_SIGNED_DATA, 1);
  msg->SM2_Sign_Infos = sk_SM2_SIGN_INFO_new_null();
  SM2_SIGN_INFO *info = SM2_SIGN_INFO_new();
  sk_SM2_SIGN_INFO_push(msg->SM2_Sign_Infos, info);
  ASN1_INTEGER_set(info->version, 1);
  sk_X509_ALGOR_push(info->md_algs, Algorithm("1.2.156.10197.1.401"));
  ASN1_OBJECT_free(info->contents->ID);
  info->contents->ID = OBJ_txt2obj(ZEPH_OID_SM2_DATA, 1);
  info->contents->Data = sk_ASN1_OCTET_STRING_new_null();
  ASN1_OCTET_STRING *data = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(data, reinterpret_cast<const unsigned char *>("signed bytes"), 12);
  sk_ASN1_OCTET_STRING_push(info->contents->Data, data);
  info->cert = sk_X509_new_null();
  for (X509 *c : certs) {
    X509_up_ref(c);
    sk_X509_push(info->cert, c);
  }
  PKCS7_SIGNER_INFO *si = PKCS7_SIGNER_INFO_new();
  ASN1_INTEGER_set(si->version, 1);
  X509_NAME_set(&si->issuer_and_serial->issuer, X509_get_issuer_name(certs.back()));
  ASN1_INTEGER_free(si->issuer_and_serial->serial);
  si->issuer_and_serial->serial = ASN1_INTEGER_dup(X509_get_serialNumber(certs.back()));
  X509_ALGOR_set0(si->digest_alg, OBJ_txt2obj("1.2.156.10197.1.401", 1), V_ASN1_NULL, nullptr);
  X509_ALGOR_set0(si->digest_enc_alg, OBJ_txt2obj(ZEPH_OID_SM2_SIGN_501, 1), V_ASN1_NULL, nullptr);
  ASN1_OCTET_STRING_set(si->enc_digest, reinterpret_cast<const unsigned char *>("\x30\x06\x02\x01\x01\x02\x01\x02"), 8);
  sk_PKCS7_SIGNER_INFO_push(info->signer_info, si);
  return msg;
}

TEST(Sm2Types, SignedMessageBytesOrderAndRoundTrip) {
  const auto &pki = zeph_test::TestPki::Get();
  std::vector<X509 *> certs = {LoadCert(pki.other_cert), LoadCert(pki.server_cert), LoadCert(pki.ca)};
  for (X509 *c : certs) ASSERT_NE(c, nullptr);
  SM2_Sign *msg = BuildSigned(certs);
  const Bytes der = Der(msg, i2d_SM2_Sign);
  ASSERT_GT(der.size(), 200u);

  // SEQUENCE { OID 1.2.156.10197.6.1.4.2.2, [0] constructed { SM2_SIGN_INFO } }: the bytes
  // of a PKCS#7-style explicit wrapper around the one element.
  const Bytes oid = {0x06, 0x0A, 0x2A, 0x81, 0x1C, 0xCF, 0x55, 0x06, 0x01, 0x04, 0x02, 0x02};
  ASSERT_EQ(der[0], 0x30);
  const size_t at = der[1] == 0x82 ? 4 : 2;
  EXPECT_EQ(Bytes(der.begin() + at, der.begin() + at + oid.size()), oid);
  const Bytes body = Der(sk_SM2_SIGN_INFO_value(msg->SM2_Sign_Infos, 0), i2d_SM2_SIGN_INFO);
  const size_t wrap = at + oid.size();
  EXPECT_EQ(der[wrap], 0xA0);
  EXPECT_EQ(Bytes(der.end() - body.size(), der.end()), body);

  // Decoding and encoding again gives the same bytes; certificates keep their order.
  const unsigned char *p = der.data();
  SM2_Sign *back = d2i_SM2_Sign(nullptr, &p, static_cast<long>(der.size()));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(Der(back, i2d_SM2_Sign), der);
  const SM2_SIGN_INFO *info = sk_SM2_SIGN_INFO_value(back->SM2_Sign_Infos, 0);
  ASSERT_EQ(sk_X509_num(info->cert), 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(X509_cmp(sk_X509_value(info->cert, i), certs[i]), 0) << i;
  EXPECT_EQ(Oid(info->contents->ID), ZEPH_OID_SM2_DATA);
  EXPECT_EQ(info->crl, nullptr);

  // Every truncation is refused.
  for (size_t n = 0; n < der.size(); n += 7) {
    p = der.data();
    SM2_Sign *cut = d2i_SM2_Sign(nullptr, &p, static_cast<long>(n));
    EXPECT_EQ(cut, nullptr) << n;
    SM2_Sign_free(cut);
  }
  SM2_Sign_free(back);
  SM2_Sign_free(msg);
  for (X509 *c : certs) X509_free(c);
}

TEST(Sm2Types, HandBuiltVectorDecodes) {
  // The outer wrapper alone, with an empty [0]: a message without a body.
  const Bytes empty = zeph_test::FromHex("300E 060A2A811CCF550601040202 A000");
  const unsigned char *p = empty.data();
  SM2_Sign *msg = d2i_SM2_Sign(nullptr, &p, static_cast<long>(empty.size()));
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(Oid(msg->ID), ZEPH_OID_SM2_SIGNED_DATA);
  EXPECT_EQ(sk_SM2_SIGN_INFO_num(msg->SM2_Sign_Infos), 0);
  EXPECT_EQ(Der(msg, i2d_SM2_Sign), empty);
  SM2_Sign_free(msg);
}

TEST(Sm2Types, EnvelopeForAnRsaRecipientRoundTrips) {
  // The RSA identifiers inside the GM wrapper, mixed by design.
  SM2_Envelope *env = SM2_Envelope_new();
  env->ID = OBJ_txt2obj(ZEPH_OID_SM2_ENVELOPED_DATA, 1);
  env->SM2_Envelope_Items = sk_SM2_Envelope_Item_new_null();
  SM2_Envelope_Item *item = SM2_Envelope_Item_new();
  sk_SM2_Envelope_Item_push(env->SM2_Envelope_Items, item);
  PKCS7_RECIP_INFO *ri = PKCS7_RECIP_INFO_new();
  X509_ALGOR_set0(ri->key_enc_algor, OBJ_txt2obj(ZEPH_OID_RSA_ENCRYPTION, 1), V_ASN1_NULL, nullptr);
  ASN1_OCTET_STRING_set(ri->enc_key, reinterpret_cast<const unsigned char *>("key"), 3);
  sk_PKCS7_RECIP_INFO_push(item->recipientinfo, ri);
  ASN1_OBJECT_free(item->enc_data->content_type);
  item->enc_data->content_type = OBJ_txt2obj(ZEPH_OID_PKCS7_DATA, 1);
  X509_ALGOR_set0(item->enc_data->algorithm, OBJ_txt2obj(ZEPH_OID_SM4, 1), V_ASN1_NULL, nullptr);
  item->enc_data->enc_data = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(item->enc_data->enc_data, reinterpret_cast<const unsigned char *>("sealed"), 6);

  const Bytes der = Der(env, i2d_SM2_Envelope);
  const unsigned char *p = der.data();
  SM2_Envelope *back = d2i_SM2_Envelope(nullptr, &p, static_cast<long>(der.size()));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(Der(back, i2d_SM2_Envelope), der);
  const SM2_Envelope_Item *got = sk_SM2_Envelope_Item_value(back->SM2_Envelope_Items, 0);
  EXPECT_EQ(ASN1_INTEGER_get(got->version), 0);
  EXPECT_EQ(Oid(back->ID), ZEPH_OID_SM2_ENVELOPED_DATA);
  EXPECT_EQ(Oid(sk_PKCS7_RECIP_INFO_value(got->recipientinfo, 0)->key_enc_algor->algorithm), ZEPH_OID_RSA_ENCRYPTION);
  EXPECT_EQ(Oid(got->enc_data->content_type), ZEPH_OID_PKCS7_DATA);
  EXPECT_EQ(Oid(got->enc_data->algorithm->algorithm), ZEPH_OID_SM4);
  EXPECT_EQ(ASN1_TYPE_get(got->enc_data->algorithm->parameter), V_ASN1_NULL);
  SM2_Envelope_free(back);
  SM2_Envelope_free(env);
}

}  // namespace
