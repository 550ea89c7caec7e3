// The seal operations: detection, pictures and details against the bytes a
// DER walk finds, the builders' exact output, every verify status, and the
// key's text form.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "seal_test.hpp"
#include "zeph_c_status.h"

using namespace seal_test;

namespace {

constexpr uint32_t kBad = ERR_INVALID_PARAMETER;
constexpr uint32_t kShort = ERR_BUFFER_TOO_SMALL;

// The subject Name of a DER certificate, found by walking it.
Bytes SubjectOf(const Bytes &cert) {
  const auto tbs = Children(Children(cert)[0]);
  return tbs[tbs[0][0] == 0xA0 ? 5 : 4];
}

TEST(SealOperations, DetectsTypeByLengthFirstThenByContent) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes text(968, 'x');
  const Bytes marker = Text("<I>info</I><P>p</P><C>c</C>");
  const struct {
    const char *what;
    const unsigned char *data;
    uint32_t len;
    int32_t type, type_ex;
  } cases[] = {
      {"968 arbitrary bytes", text.data(), 968, ZEPH_SEAL_TYPE_TEXT, ZEPH_SEAL_TYPE_UNKNOWN},
      {"null with 968", nullptr, 968, ZEPH_SEAL_TYPE_TEXT, ZEPH_SEAL_TYPE_UNKNOWN},
      {"five bytes", text.data(), 5, ZEPH_SEAL_TYPE_PICTURE, ZEPH_SEAL_TYPE_UNKNOWN},
      {"null with 5", nullptr, 5, ZEPH_SEAL_TYPE_PICTURE, ZEPH_SEAL_TYPE_UNKNOWN},
      {"null", nullptr, 100, ZEPH_SEAL_TYPE_UNKNOWN, ZEPH_SEAL_TYPE_UNKNOWN},
      {"text form", marker.data(), static_cast<uint32_t>(marker.size()), ZEPH_SEAL_TYPE_UNKNOWN, ZEPH_SEAL_TYPE_TEXT},
      {"GB seal", gb.data(), static_cast<uint32_t>(gb.size()), ZEPH_SEAL_TYPE_GB, ZEPH_SEAL_TYPE_GB},
      {"truncated GB seal", gb.data(), static_cast<uint32_t>(gb.size() - 1), ZEPH_SEAL_TYPE_UNKNOWN,
       ZEPH_SEAL_TYPE_UNKNOWN},
  };
  for (const auto &c : cases) {
    int32_t type = 99;
    EXPECT_EQ(ZEPH_C_CheckSealType(c.data, c.len, &type), 0u) << c.what;
    EXPECT_EQ(type, c.type) << c.what;
    EXPECT_EQ(chkSealTypeEx(c.data, c.len), c.type_ex) << c.what;
  }
  const Bytes ses = SesSeal();
  EXPECT_EQ(chkSealType(ses.data(), ses.size()), ZEPH_SEAL_TYPE_SES);
  const Bytes v1 = Sample("ses-v1-user.esl");
  EXPECT_EQ(chkSealType(v1.data(), v1.size()), ZEPH_SEAL_TYPE_UNKNOWN) << "wrapped certificates";
}

TEST(SealOperations, PicturesAreTheBytesTheStructureHolds) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes gif = Sample("gb-v4-seal-gif.der");
  const Bytes v1 = Sample("ses-v1-user.esl");
  const Bytes ses = SesSeal();
  const Signer signer;
  const Bytes gif_sig = GbSignature(signer, gif, Bytes(32, 1));
  using Fn = uint32_t (*)(const unsigned char *, uint32_t, unsigned char *, uint32_t *, uint32_t *, uint32_t *);
  const struct {
    const char *what;
    Fn fn;
    const Bytes &in;
    Bytes picture;
    uint32_t width, height;
  } cases[] = {
      {"GB seal", ZEPH_C_GetPicDetailFromGBSeal, gb, Children(TlvAt(gb, 685))[1], 40, 40},
      {"GIF seal", getSealPicDetailFromGBSealStructure, gif, Children(TlvAt(gif, 1401))[1], 42, 42},
      {"GB signature", ZEPH_C_GetPicDetailFromGBSESSignature, gif_sig, Children(TlvAt(gif, 1401))[1], 42, 42},
      {"SES seal", ZEPH_C_GetPicDetailFromSMSeal, ses, Children(TlvAt(v1, 673))[1], 40, 40},
  };
  for (const auto &c : cases) {
    const Bytes want(c.picture.begin() + 4, c.picture.end());  // past the OCTET STRING header
    uint32_t len = 0, w = 0, h = 0;
    EXPECT_EQ(c.fn(c.in.data(), c.in.size(), nullptr, &len, &w, &h), 0u) << c.what;
    EXPECT_EQ(len, want.size()) << c.what;
    Bytes pic(len + 8, 0xEE);
    len = 1;
    w = h = 0;
    EXPECT_EQ(c.fn(c.in.data(), c.in.size(), pic.data(), &len, &w, &h), kShort) << c.what;
    EXPECT_EQ(len, want.size()) << c.what;
    EXPECT_EQ(pic[0], 0xEE) << c.what;
    EXPECT_EQ(w, c.width) << c.what;
    EXPECT_EQ(h, c.height) << c.what;
    len = static_cast<uint32_t>(pic.size());
    EXPECT_EQ(c.fn(c.in.data(), c.in.size(), pic.data(), &len, nullptr, nullptr), 0u) << c.what;
    EXPECT_EQ(Bytes(pic.begin(), pic.begin() + len), want) << c.what;
  }
  // The wrong family, and signatures of the other family: nothing is touched.
  uint32_t len = 7, w = 7, h = 7;
  EXPECT_EQ(ZEPH_C_GetPicFromSMSeal(gb.data(), gb.size(), nullptr, &len), kBad);
  EXPECT_EQ(ZEPH_C_GetPicFromGBSeal(ses.data(), ses.size(), nullptr, &len), kBad);
  EXPECT_EQ(ZEPH_C_GetPicDetailFromSMSESSignature(gif_sig.data(), gif_sig.size(), nullptr, &len, &w, &h), kBad);
  EXPECT_EQ(len + w + h, 21u);
  EXPECT_EQ(getSealPicFromGBSealStructure(gb.data(), gb.size(), nullptr, &len), 0u);
  EXPECT_EQ(len, 15693u);
}

TEST(SealOperations, GbDetailFillsElevenPairsInOrder) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes seal = GbSeal(TlvAt(gb, 98));
  const Bytes holder(gb.begin() + 102 + 4, gb.begin() + 102 + 4 + 528);
  const Bytes maker(gb.begin() + 16401, gb.begin() + 16927);
  const Bytes name(gb.begin() + 72, gb.begin() + 95);
  const std::vector<Bytes> want = {Text("ES"),
                                   {0x04},
                                   Text("OFDR&WTest"),
                                   {0x03},
                                   name,
                                   holder,
                                   Text("20200202000000Z"),
                                   Text("20200303000000Z"),
                                   Text("20200101000000Z"),
                                   SubjectOf(maker),
                                   Bytes(gb.begin() + 16927, gb.begin() + 16937)};
  std::vector<Bytes> out(11, Bytes(2048, 0xEE));
  std::vector<uint32_t> len(11, 2048);
  const auto call = [&](const unsigned char *s, size_t n) {
    return ZEPH_C_GetGBSealDetail(s, n, out[0].data(), &len[0], out[1].data(), &len[1], out[2].data(), &len[2],
                                  out[3].data(), &len[3], out[4].data(), &len[4], out[5].data(), &len[5], out[6].data(),
                                  &len[6], out[7].data(), &len[7], out[8].data(), &len[8], out[9].data(), &len[9],
                                  out[10].data(), &len[10]);
  };
  ASSERT_EQ(call(seal.data(), seal.size()), 0u);
  for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(Bytes(out[i].begin(), out[i].begin() + len[i]), want[i]) << i;

  // A short name buffer ends the call there; later outputs stay as they were.
  out.assign(11, Bytes(2048, 0xEE));
  len.assign(11, 2048);
  len[4] = 1;
  EXPECT_EQ(call(seal.data(), seal.size()), kShort);
  EXPECT_EQ(len[4], name.size());
  EXPECT_EQ(Bytes(out[3].begin(), out[3].begin() + len[3]), want[3]);
  for (size_t i = 5; i < 11; ++i) EXPECT_TRUE(len[i] == 2048 && out[i][0] == 0xEE) << i;

  // A short algorithm buffer only learns its length.
  len.assign(11, 2048);
  len[10] = 3;
  out[10].assign(2048, 0xEE);
  EXPECT_EQ(call(seal.data(), seal.size()), 0u);
  EXPECT_EQ(len[10], 10u);
  EXPECT_EQ(out[10][0], 0xEE);

  // An empty certificate list, or input of the other family.
  len.assign(11, 2048);
  const Bytes no_certs = GbSeal(Tlv(0x30, {}));
  EXPECT_EQ(call(no_certs.data(), no_certs.size()), kBad);
  EXPECT_EQ(len[4], name.size());
  EXPECT_EQ(len[5], 2048u);
  const Bytes ses = SesSeal();
  EXPECT_EQ(call(ses.data(), ses.size()), kBad);
}

TEST(SealOperations, SesDetailEncodesTheFirstCertificate) {
  const Bytes v1 = Sample("ses-v1-user.esl");
  const Bytes seal = SesSeal();
  std::vector<Bytes> out(10, Bytes(2048));
  std::vector<uint32_t> len(10, 2048);
  ASSERT_EQ(ZEPH_C_GetSMSealDetail(seal.data(), seal.size(), out[0].data(), &len[0], out[1].data(), &len[1],
                                   out[2].data(), &len[2], out[3].data(), &len[3], out[4].data(), &len[4],
                                   out[5].data(), &len[5], out[6].data(), &len[6], out[7].data(), &len[7],
                                   out[8].data(), &len[8], out[9].data(), &len[9]),
            0u);
  EXPECT_EQ(Bytes(out[5].begin(), out[5].begin() + len[5]), Bytes(v1.begin() + 100, v1.begin() + 628));
  EXPECT_EQ(Bytes(out[6].begin(), out[6].begin() + len[6]), Text("200422021807Z"));
  EXPECT_EQ(Bytes(out[9].begin(), out[9].begin() + len[9]), SubjectOf(Bytes(v1.begin() + 16393, v1.begin() + 16919)));
}

TEST(SealOperations, BuildersWriteExactBytes) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes ses = SesSeal();
  const Bytes hash = {0x12, 0x80, 0x00};  // the trailing zero octet goes, 7 unused bits
  const Bytes prop = Tlv(0x16, {Text("p")});
  const auto gb_tbs = [&](uint32_t version, const char *time) {
    return Out([&](uint8_t *out, uint32_t *len) {
      return ZEPH_C_GetGBTBSSignData(version, gb.data(), gb.size(), time, 0, hash.data(), 3, "p", 1, out, len);
    });
  };
  const Bytes hash_bits = {0x03, 0x03, 0x07, 0x12, 0x80};
  EXPECT_EQ(gb_tbs(4, "20240102030405Z"),
            Tlv(0x30, {{0x02, 0x01, 0x04}, gb, Tlv(0x03, {{0x01}, Text("20240102030405Z")}), hash_bits, prop}));
  EXPECT_EQ(gb_tbs(0x80000000u, "2024-13-01"),
            Tlv(0x30, {{0x02, 0x05, 0x00, 0x80, 0x00, 0x00, 0x00}, gb, {0x03, 0x01, 0x00}, hash_bits, prop}));

  const Signer signer;
  const Bytes tbs = gb_tbs(4, "20240102030405Z");
  const Bytes sig = {0x30, 0x02, 0x05, 0x00};
  const Bytes oid = {0x06, 0x08, 0x2A, 0x81, 0x1C, 0xCF, 0x55, 0x01, 0x83, 0x75};
  EXPECT_EQ(Out([&](uint8_t *out, uint32_t *len) {
              return ZEPH_C_GetGBSESSignature(tbs.data(), tbs.size(), sig.data(), 4, nullptr, 99, kSm2Sm3, out, len);
            }),
            Tlv(0x30, {tbs, {0x04, 0x00}, oid, {0x03, 0x04, 0x00, 0x30, 0x02, 0x05}}));
  const Bytes ses_tbs = Out([&](uint8_t *out, uint32_t *len) {
    return ZEPH_C_GetTBSSignData(7, ses.data(), ses.size(), hash.data(), 2, hash.data(), 3, "p", 1, signer.cert.data(),
                                 signer.cert.size(), kSm2Sm3, out, len);
  });
  EXPECT_EQ(
      ses_tbs,
      Tlv(0x30,
          {{0x02, 0x01, 0x07}, ses, {0x03, 0x03, 0x07, 0x12, 0x80}, hash_bits, prop, Tlv(0x04, {signer.cert}), oid}));
  EXPECT_EQ(Out([&](uint8_t *out, uint32_t *len) {
              return ZEPH_C_GetSESSignature(ses_tbs.data(), ses_tbs.size(), hash.data(), 1, out, len);
            }),
            Tlv(0x30, {ses_tbs, {0x03, 0x02, 0x01, 0x12}}));

  // Refusals, and the short buffer that does not learn the length.
  Bytes out(40000);
  uint32_t len = 0;
  const auto ses_tbs_status = [&](const char *oid_text, const unsigned char *cert, uint32_t capacity) {
    len = capacity;
    return getTBSSignData(1, ses.data(), ses.size(), hash.data(), 3, hash.data(), 3, "p", 1, cert, 1, oid_text,
                          capacity == 0 ? nullptr : out.data(), &len);
  };
  EXPECT_EQ(ses_tbs_status("SM2-with-SM3", hash.data(), 40000), kBad);
  EXPECT_EQ(ses_tbs_status("", hash.data(), 40000), kBad);
  EXPECT_EQ(ses_tbs_status(kSm2Sm3, nullptr, 40000), kBad);
  EXPECT_EQ(ses_tbs_status(kSm2Sm3, hash.data(), 10), kShort);
  EXPECT_EQ(len, 10u);
  EXPECT_EQ(ses_tbs_status(kSm2Sm3, hash.data(), 0), 0u);
  EXPECT_GT(len, ses.size());
  len = 40000;
  EXPECT_EQ(getGBTBSSignData(1, ses.data(), ses.size(), "20240102030405Z", 0, hash.data(), 3, "p", 1, out.data(), &len),
            kBad);
  EXPECT_EQ(getSESSignature(gb.data(), gb.size(), sig.data(), 4, out.data(), &len), kBad);
}

TEST(SealOperations, VerifyKeepsItsStatuses) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const Bytes any = {1};
  const Signer signer;
  const Bytes good = GbSignature(signer, gb, Bytes(32, 9));
  Bytes bad = good;
  bad[bad.size() - 3] ^= 1;
  const Bytes real = Sample("gb-v4-signature.dat");
  const Bytes v1 = Sample("ses-v1-user.esl");
  const Bytes gif = Sample("gb-v4-seal-gif.der");
  const struct {
    const char *what;
    const Bytes *seal;
    const unsigned char *fourth;
    const Bytes *sig;
    uint32_t status;
  } cases[] = {
      {"valid", &gb, any.data(), &good, 0},
      {"seal not compared", &gif, any.data(), &good, 0},
      {"value changed", &gb, any.data(), &bad, ERR_SIGNATURE_INVALID},
      {"ninth argument null", &gb, nullptr, &good, ZEPH_GBVERIFY_MISSING_ARGUMENT},
      {"seal null", nullptr, any.data(), &good, ZEPH_GBVERIFY_MISSING_ARGUMENT},
      {"signature not decodable", &gb, any.data(), &real, ZEPH_GBVERIFY_BAD_SIGNATURE},
      {"seal not decodable", &v1, any.data(), &good, ZEPH_GBVERIFY_BAD_SEAL},
  };
  for (const auto &c : cases) {
    const unsigned char *seal = c.seal != nullptr ? c.seal->data() : nullptr;
    const uint32_t seal_len = c.seal != nullptr ? static_cast<uint32_t>(c.seal->size()) : 0;
    EXPECT_EQ(ZEPH_C_VerifyGBSESSignature(seal, seal_len, any.data(), 1, any.data(), 1, any.data(), 1, c.fourth, 1,
                                          c.sig->data(), c.sig->size(), 0),
              c.status)
        << c.what;
  }

  // SES: a well-formed signature stops at its algorithm's rendering.
  const Bytes ses = SesSeal();
  const Bytes tbs = SesTbs(ses, any, any, signer.cert);
  const Bytes sig = SesSig(tbs, signer.Sign(tbs));
  EXPECT_EQ(ZEPH_C_VerifySESSignature(ses.data(), ses.size(), any.data(), 1, any.data(), 1, any.data(), 1, any.data(),
                                      1, sig.data(), sig.size(), 0),
            kBad);
  EXPECT_EQ(verifySESSignature(ses.data(), ses.size(), any.data(), 1, nullptr, 1, any.data(), 1, any.data(), 1,
                               sig.data(), sig.size(), 0),
            kBad);
}

TEST(SealOperations, CertificateOfAGbSignatureKeepsItsQuirks) {
  const Signer signer;
  const Bytes sig = GbSignature(signer, Sample("gb-v4-user.esl"), Bytes(32, 3));
  Bytes cert(1024, 0xEE);
  uint32_t len = 0;
  EXPECT_EQ(ZEPH_C_GetCertWithGBSESSignature(sig.data(), sig.size(), nullptr, &len), kBad);
  EXPECT_EQ(len, signer.cert.size());
  len = 5;
  EXPECT_EQ(ZEPH_C_GetCertWithGBSESSignature(sig.data(), sig.size(), cert.data(), &len), kShort);
  EXPECT_EQ(len, 5u);
  len = static_cast<uint32_t>(cert.size());
  EXPECT_EQ(ZEPH_C_GetCertWithGBSESSignature(sig.data(), sig.size(), cert.data(), &len), 0u);
  EXPECT_EQ(Bytes(cert.begin(), cert.begin() + len), signer.cert);
  EXPECT_EQ(ZEPH_C_GetCertWithGBSESSignature(sig.data(), sig.size() - 1, cert.data(), &len), kBad);
}

TEST(SealOperations, TextFormBecomesJson) {
  const struct {
    const char *text;
    uint32_t status;
    const char *json;
  } cases[] = {
      {"<I>aaa</I><P>bbbb</P><C>cc</C>", 0, R"({"info":"aaa","pic":"bbbb","cert":"cc"})"},
      {"<I></I><P></P><C></C>", 0, R"({"info":"","pic":"","cert":""})"},
      // A '<' inside the info part cuts every part in the wrong place.
      {"<I>a<b</I><P>pp</P><C>cc</C>", 0, R"({"info":"a","pic":"P>pp","cert":"cc"})"},
      {"info only", kBad, nullptr},
      {"<I>abc", kBad, nullptr},
      {"<I>a</I>", kBad, nullptr},
      {"<I>a</I><P>b</P>", kBad, nullptr},
  };
  for (const auto &c : cases) {
    char *json = nullptr;
    EXPECT_EQ(parseVorliSealInfo(c.text, 0, &json), c.status) << c.text;
    EXPECT_EQ(json != nullptr ? std::string(json) : "", c.json != nullptr ? c.json : "") << c.text;
    free(json);
  }
  char *json = nullptr;
  EXPECT_EQ(parseVorliSealInfo(nullptr, 0, &json), kBad);
  EXPECT_EQ(getJSONStringOfSealInfo(reinterpret_cast<const unsigned char *>("x"), 1, &json), 0u);
  EXPECT_EQ(json, nullptr);
}

}  // namespace
