// The seal structures on real bytes: every type decodes and encodes again to
// the same bytes, the families keep apart, and the CHOICE, boolean and
// diagnostics behave as callers expect.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "seal/seal_internal.hpp"
#include "seal_test.hpp"

using namespace seal_test;

namespace {

using RoundTripFn = bool (*)(std::span<const uint8_t>, std::vector<uint8_t> *);

struct TypeCase {
  const char *type;
  RoundTripFn round_trip;
};

// clang-format off
#define ZEPH_SEAL_CASE(T) {#T, ZEPH_SEAL_REENCODE(T)},
const TypeCase kTypes[] = {ZEPH_SEAL_ASN1_TYPES(ZEPH_SEAL_CASE)};
#undef ZEPH_SEAL_CASE
// clang-format on

RoundTripFn Of(const std::string &type) {
  for (const auto &t : kTypes) {
    if (type == t.type) return t.round_trip;
  }
  return nullptr;
}

template <typename T>
Bytes Encode(int (*i2d)(const T *, unsigned char **), const T *value) {
  unsigned char *der = nullptr;
  const int n = i2d(value, &der);
  Bytes out(der, der + std::max(n, 0));
  OPENSSL_free(der);
  return out;
}

TEST(SealAsn1, EveryTypeRoundTripsOnRealBytes) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes gif = Sample("gb-v4-seal-gif.der");
  const Bytes v1 = Sample("ses-v1-user.esl");
  const Bytes ses = SesSeal();
  const Signer signer;
  const Bytes gb_sig = GbSignature(signer, gb, Bytes(32, 0x5A));
  const Bytes hash(32, 0x11);
  const Bytes tbs = SesTbs(ses, Bytes(8, 0x11), hash, signer.cert);
  const Bytes ses_sig = SesSig(tbs, hash);

  const Bytes real_sig = Sample("gb-v4-signature.dat");
  const struct {
    const char *type;
    Bytes der;
    bool decodes = true;
  } cases[] = {
      {"GBSESeal", gb},
      {"GBSESeal", gif},  // extensions, two of them with an explicit FALSE
      {"GBSESeal", Sample("v5-user.esl")},
      {"GBSES_SealInfo_structure", TlvAt(gb, 4)},
      {"GBSES_Header_structure", TlvAt(gb, 8)},
      {"GBSES_ESPropertyInfo_structure", TlvAt(gb, 63)},
      {"GBSES_CerList_structure", TlvAt(gif, 90)},
      {"GBSES_ESPictrueInfo_structure", TlvAt(gb, 685)},
      {"GBVORLI_ExtData_structure", TlvAt(gif, 7334)},
      {"GBVORLI_ExtData_structure", TlvAt(gif, 7388)},
      {"GB_CertDigestList_structure", Tlv(0x30, {Tlv(0x13, {Text("SM3")}), Tlv(0x04, {Bytes(32, 7)})})},
      {"GBTBS_Sign", TlvAt(gb_sig, 4)},
      {"GBSES_Signature", gb_sig},
      {"SESeal", ses},
      {"SES_SealInfo_structure", TlvAt(ses, 4)},
      {"SES_ESPropertyInfo_structure", TlvAt(ses, 63)},
      {"SES_Header_structure", TlvAt(v1, 8)},
      {"SES_ESPictrueInfo_structure", TlvAt(v1, 673)},
      {"SES_SignInfo_structure", TlvAt(v1, 16385)},
      {"VORLI_ExtData_structure", TlvAt(gif, 7495)},
      {"TBS_Sign", tbs},
      {"SES_Signature", ses_sig},
      // The families keep apart; real SES seals wrap their certificates,
      // which the declared list refuses.
      {"SESeal", gb, false},
      {"GBSESeal", ses, false},
      {"SESeal", v1, false},
      {"GBSESeal", v1, false},
      {"SESeal", real_sig, false},
      {"GBSESeal", real_sig, false},
      {"GBSES_Signature", real_sig, false},  // its timeInfo is a GeneralizedTime
  };
  std::set<std::string> covered;
  for (const auto &c : cases) {
    Bytes again;
    ASSERT_NE(Of(c.type), nullptr) << c.type;
    EXPECT_EQ(Of(c.type)(c.der, &again), c.decodes) << c.type;
    if (c.decodes) {
      EXPECT_EQ(again, c.der) << c.type;
    }
    covered.insert(c.type);
  }
  EXPECT_EQ(covered.size(), std::size(kTypes));
}

TEST(SealAsn1, CertificateListChoiceKeepsItsAlternativesApart) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes list = TlvAt(gb, 98);
  const unsigned char *p = list.data();
  std::unique_ptr<GBSES_CerList_structure, zeph::Free<GBSES_CerList_structure_free>> certs(
      d2i_GBSES_CerList_structure(nullptr, &p, static_cast<long>(list.size())));
  ASSERT_TRUE(certs);
  EXPECT_EQ(certs->type, GBSES_CERLIST_CERTS);
  EXPECT_EQ(sk_ASN1_OCTET_STRING_num(certs->certs), 1);
  EXPECT_EQ(certs->certDigestList, nullptr);

  // A digest list encodes under the same universal SEQUENCE tag, so a decoder
  // that tries "certs" first refuses it.
  std::unique_ptr<GBSES_CerList_structure, zeph::Free<GBSES_CerList_structure_free>> digests(
      GBSES_CerList_structure_new());
  GB_CertDigestList_structure *entry = GB_CertDigestList_structure_new();
  ASN1_STRING_set(entry->_type, "SM3", 3);
  ASN1_OCTET_STRING_set(entry->_value, reinterpret_cast<const unsigned char *>("0123456789abcdef"), 16);
  digests->type = GBSES_CERLIST_CERTDIGESTLIST;
  digests->certDigestList = sk_GB_CertDigestList_structure_new_null();
  sk_GB_CertDigestList_structure_push(digests->certDigestList, entry);
  const Bytes encoded = Encode(i2d_GBSES_CerList_structure, digests.get());
  EXPECT_EQ(encoded, Tlv(0x30, {Tlv(0x30, {Tlv(0x13, {Text("SM3")}), Tlv(0x04, {Text("0123456789abcdef")})})}));
  Bytes again;
  EXPECT_FALSE(Of("GBSES_CerList_structure")(encoded, &again));
  // The same list inside a whole seal makes the seal undecodable too.
  ASSERT_TRUE(Of("GBSESeal")(GbSeal(list), &again));
  EXPECT_FALSE(Of("GBSESeal")(GbSeal(encoded), &again));
}

TEST(SealAsn1, CriticalIsLeftOutUntilSet) {
  std::unique_ptr<VORLI_ExtData_structure, zeph::Free<VORLI_ExtData_structure_free>> ext(VORLI_ExtData_structure_new());
  EXPECT_EQ(ext->_critical, -1);
  ext->extnID = OBJ_txt2obj("1.2.156.112600.7.1", 1);
  ASN1_OCTET_STRING_set(ext->extnValue, reinterpret_cast<const unsigned char *>("v"), 1);
  const auto encode = [&] { return Encode(i2d_VORLI_ExtData_structure, ext.get()); };
  const Bytes oid = {0x06, 0x08, 0x2A, 0x81, 0x1C, 0x86, 0xEF, 0x58, 0x07, 0x01};
  const Bytes unset = Tlv(0x30, {oid, {0x04, 0x01, 'v'}});
  EXPECT_EQ(encode(), unset);
  Bytes again;
  EXPECT_TRUE(Of("VORLI_ExtData_structure")(unset, &again) && again == unset);
  ext->_critical = 0;
  EXPECT_EQ(encode(), Tlv(0x30, {oid, {0x01, 0x01, 0x00}, {0x04, 0x01, 'v'}}));
}

TEST(SealAsn1, DiagnosticsPrintOkOrNg) {
  const Bytes v1 = Sample("ses-v1-user.esl");
  const Bytes ses = SesSeal();
  const Bytes junk = {0x30, 0x03, 0x02, 0x01, 0x01};
  const struct {
    int (*fn)(const unsigned char *, uint32_t);
    Bytes good;
    const char *name;
  } cases[] = {
      {test_parse_pic_struc, TlvAt(v1, 673), "SES_ESPictrueInfo_structure"},
      {test_parse_header_struc, TlvAt(v1, 8), "SES_Header_structure"},
      {test_parse_prop_struc, TlvAt(ses, 63), "SES_ESPropertyInfo_structure"},
      {test_parse_sealInfo_struc, TlvAt(ses, 4), "SES_SealInfo_structure"},
      {test_parse_signInfo_struc, TlvAt(v1, 16385), "SES_SignInfo_structure"},
  };
  for (const auto &c : cases) {
    testing::internal::CaptureStdout();
    c.fn(c.good.data(), c.good.size());
    c.fn(junk.data(), junk.size());
    c.fn(nullptr, 0);
    const std::string name = c.name;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), name + " is OK.\n" + name + " is NG.\n" + name + " is NG.\n");
  }
}

}  // namespace
