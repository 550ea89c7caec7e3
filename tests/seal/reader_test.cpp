// The tolerant reader over every sample and over hand-made seals in the
// forms found in the wild; what it refuses; its reports.
#include <string>

#include <cjson/cJSON.h>
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include "oracle.hpp"
#include "seal/seal_reader.hpp"
#include "seal_test.hpp"
#include "zeph_c_status.h"

using namespace seal_test;

namespace {

using JsonPtr = std::unique_ptr<cJSON, zeph::Free<cJSON_Delete>>;

const Bytes kSm2Sm3Oid = {0x06, 0x08, 0x2A, 0x81, 0x1C, 0xCF, 0x55, 0x01, 0x83, 0x75};

Bytes Int(uint8_t v) { return {0x02, 0x01, v}; }
Bytes Ia5(const std::string &s) { return Tlv(0x16, {Text(s)}); }
Bytes Octets(const Bytes &b) { return Tlv(0x04, {b}); }

// Seals and signatures as real files shape them, signed by test keys.
struct Made {
  Signer maker, signer;
  Bytes doc = Text("the signed document");

  // SES: certificates wrapped in OCTET STRINGs, UTCTime dates, the maker's
  // signature over SEQUENCE { information, certificate, algorithm }. GB: a
  // critical extension written out FALSE, the maker's signature over the
  // information.
  Bytes Seal(bool gb, bool list_signer = true) const {
    const auto when = [&](const char *full) { return Tlv(gb ? 0x18 : 0x17, {Text(gb ? full : full + 2)}); };
    const Bytes certs = Tlv(0x30, {Octets(list_signer ? signer.cert : maker.cert), Octets(maker.cert)});
    const Bytes prop = Tlv(0x30, {Int(2), Tlv(0x0C, {Text("合同专用章")}), gb ? Int(0) : Bytes{}, certs,
                                  when("20200101000000Z"), when("20200101000000Z"), when("20301231235959Z")});
    const Bytes pic = Tlv(0x30, {Ia5("PNG"), Octets(Text("\x89PNG picture")), Int(40), Int(30)});
    const Bytes ext = Tlv(0x30, {Tlv(0x30, {Tlv(0x06, {{0x2A, 0x03}}), {0x01, 0x01, 0x00}, Octets({1})})});
    const Bytes info = Tlv(0x30, {Tlv(0x30, {Ia5("ES"), Int(gb ? 4 : 1), Ia5("zeph")}), Ia5("esid"), prop, pic, ext});
    if (gb) return Tlv(0x30, {info, Octets(maker.cert), kSm2Sm3Oid, Bits(maker.Sign(info))});
    const Bytes tail = Cat({Octets(maker.cert), kSm2Sm3Oid});
    return Tlv(0x30, {info, Tlv(0x30, {tail, Bits(maker.Sign(Tlv(0x30, {info, tail})))})});
  }

  // GB: GeneralizedTime signing time, [0] EXPLICIT extensions, a trailing
  // [0] time stamp. SES: free-text signing time, raw r || s.
  Bytes Signature(bool gb, const std::string &time, bool list_signer = true) const {
    const Bytes seal = Seal(gb, list_signer);
    if (gb) {
      const Bytes tbs = Tlv(0x30, {Int(4), seal, Tlv(0x18, {Text(time)}), Bits(zeph_test::Sm3({doc})),
                                   Ia5("/Doc_0/Signature.xml"), Tlv(0xA0, {Tlv(0x30, {})})});
      return Tlv(0x30, {tbs, Octets(signer.cert), kSm2Sm3Oid, Bits(signer.Sign(tbs)), Tlv(0xA0, {Bits({1, 2, 3})})});
    }
    const Bytes tbs = Tlv(0x30, {Int(1), seal, Bits(Text(time)), Bits(zeph_test::Sm3({doc})),
                                 Ia5("/Doc_0/Signature.xml"), Octets(signer.cert), kSm2Sm3Oid});
    return Tlv(0x30, {tbs, Bits(signer.Raw(tbs))});
  }
};

JsonPtr Describe(const Bytes &in, uint32_t *status) {
  std::string out(64 * 1024, '\0');
  auto len = static_cast<uint32_t>(out.size());
  *status = ZEPH_C_SealDescribe(in.data(), in.size(), out.data(), &len);
  return JsonPtr(*status == 0 ? cJSON_Parse(out.c_str()) : nullptr);
}

std::string Field(const cJSON *obj, const std::string &path) {
  const cJSON *item = obj;
  for (size_t from = 0; item != nullptr && from <= path.size();) {
    const size_t dot = std::min(path.find('.', from), path.size());
    item = cJSON_GetObjectItemCaseSensitive(item, path.substr(from, dot - from).c_str());
    from = dot + 1;
  }
  if (cJSON_IsString(item)) return item->valuestring;
  if (cJSON_IsArray(item)) return std::string("[").append(std::to_string(cJSON_GetArraySize(item))).append("]");
  char *printed = item != nullptr ? cJSON_PrintUnformatted(item) : nullptr;
  std::string s = printed != nullptr ? printed : "<missing>";
  cJSON_free(printed);
  return s;
}

struct Report {
  uint32_t status;
  std::string json;
};

Report Verify(const Bytes &sig, const Bytes *doc) {
  std::string out(1024, '\0');
  auto len = static_cast<uint32_t>(out.size());
  const uint32_t status = ZEPH_C_SealVerify(sig.data(), sig.size(), doc != nullptr ? doc->data() : nullptr,
                                            doc != nullptr ? doc->size() : 0, out.data(), &len);
  return {status, out.substr(0, len)};
}

TEST(SealReader, DescribesEverySample) {
  const struct {
    const char *file;
    std::vector<std::pair<std::string, std::string>> fields;
  } cases[] = {
      {"ses-v1-user.esl",
       {{"kind", "seal"},
        {"family", "SES"},
        {"version", "1"},
        {"name", "OFDRW测试用印章"},
        {"certs", "[1]"},
        {"picture.type", "PNG"},
        {"picture.size", "15693"},
        {"validStart", "20200422021807Z"},
        {"validEnd", "20220422021807Z"},
        {"timeStamp", "false"}}},
      {"gb-v4-user.esl",
       {{"family", "GB"}, {"sealType", "3"}, {"esID", "51f044b76510434e9bc67a1185c2fba5"}, {"certs", "[1]"}}},
      {"gb-v4-seal-gif.der",
       {{"picture.type", "GIF"}, {"picture.width", "42"}, {"certs", "[2]"}, {"validEnd", "20210416094558Z"}}},
      {"v5-user.esl", {{"version", "5"}, {"vid", "OFDR&WTestV5"}, {"createDate", "20260424085323Z"}}},
      {"gb-v4-signature.dat",
       {{"kind", "signature"},
        {"family", "GB"},
        {"version", "4"},
        {"timeInfo", "20201012111403Z"},
        {"signatureForm", "der"},
        {"dataHash", std::string(64, '0')},
        {"propertyInfo", "/Doc_0/Signs/Sign_0/Signature.xml"},
        {"seal.kind", "seal"},
        {"seal.version", "4"}}},
      {"v5-signature.dat", {{"version", "5"}, {"seal.name", "OFD R&W V5测试用印章"}, {"timeStamp", "false"}}},
  };
  for (const auto &c : cases) {
    uint32_t status = 0;
    const JsonPtr doc = Describe(Sample(c.file), &status);
    ASSERT_EQ(status, 0u) << c.file;
    for (const auto &[path, value] : c.fields) EXPECT_EQ(Field(doc.get(), path), value) << c.file << " " << path;
  }
  uint32_t status = 0;
  const Made made;
  const JsonPtr ses = Describe(made.Signature(false, "2021-06-01T12:00:00+08:00"), &status);
  EXPECT_EQ(Field(ses.get(), "signatureForm"), "raw");
  EXPECT_EQ(Field(ses.get(), "timeInfo"), "20210601040000Z");
  EXPECT_EQ(Field(ses.get(), "seal.certs"), "[2]");
  EXPECT_EQ(Field(ses.get(), "seal.validEnd"), "20301231235959Z");
  const JsonPtr gb = Describe(made.Signature(true, "20210601120000Z"), &status);
  EXPECT_EQ(Field(gb.get(), "timeStamp"), "true");
  EXPECT_EQ(Field(gb.get(), "seal.picture.height"), "30");
}

TEST(SealReader, VerifiesSamplesAndHandMadeForms) {
  const Made made;
  const Bytes other = Text("another document");
  const struct {
    const char *what;
    Bytes sig;
    const Bytes *doc;
    uint32_t status;
    const char *report;
  } cases[] = {
      {"GB sample", Sample("gb-v4-signature.dat"), nullptr, 0,
       R"({"makerSignature":true,"signature":true,"sealValidAtSigning":true,"signerInCertList":true,)"
       R"("documentHash":null,"timeStamp":false,"valid":true})"},
      {"v5 sample, signed at the start of validity", Sample("v5-signature.dat"), nullptr, 0, nullptr},
      {"GB sample, some document", Sample("gb-v4-signature.dat"), &other, ERR_SIGNATURE_INVALID,
       R"({"makerSignature":true,"signature":true,"sealValidAtSigning":true,"signerInCertList":true,)"
       R"("documentHash":false,"timeStamp":false,"valid":false})"},
      {"GB, time stamp", made.Signature(true, "20210601120000Z"), &made.doc, 0,
       R"({"makerSignature":true,"signature":true,"sealValidAtSigning":true,"signerInCertList":true,)"
       R"("documentHash":true,"timeStamp":true,"valid":true})"},
      {"SES v1, raw value, local time", made.Signature(false, "2021-06-01 12:00:00"), &made.doc, 0, nullptr},
      {"SES v1, ISO time with zone", made.Signature(false, "2021-06-01T12:00:00.5+08:00"), &made.doc, 0, nullptr},
      {"at the end of validity", made.Signature(true, "20301231235959Z"), nullptr, 0, nullptr},
      {"after validity", made.Signature(false, "2031-01-01 00:00:00"), nullptr, ERR_SIGNATURE_INVALID,
       R"({"makerSignature":true,"signature":true,"sealValidAtSigning":false,"signerInCertList":true,)"
       R"("documentHash":null,"timeStamp":false,"valid":false})"},
      {"unreadable time", made.Signature(false, "next tuesday"), nullptr, ERR_SIGNATURE_INVALID, nullptr},
      {"signer not listed", made.Signature(true, "20210601120000Z", false), nullptr, ERR_SIGNATURE_INVALID,
       R"({"makerSignature":true,"signature":true,"sealValidAtSigning":true,"signerInCertList":false,)"
       R"("documentHash":null,"timeStamp":true,"valid":false})"},
  };
  for (const auto &c : cases) {
    const Report r = Verify(c.sig, c.doc);
    EXPECT_EQ(r.status, c.status) << c.what << ": " << r.json;
    if (c.report != nullptr) {
      EXPECT_EQ(r.json, c.report) << c.what;
    }
  }

  // One changed byte inside the seal breaks the maker's and the signer's
  // signatures; one in the signature value only the signer's.
  Bytes sig = Sample("gb-v4-signature.dat");
  sig[100] ^= 1;
  EXPECT_EQ(Verify(sig, nullptr).json.substr(0, 42), R"({"makerSignature":false,"signature":false,)");
  sig = Sample("v5-signature.dat");
  sig[sig.size() - 2] ^= 1;
  EXPECT_EQ(Verify(sig, nullptr).json.substr(0, 41), R"({"makerSignature":true,"signature":false,)");
}

TEST(SealReader, RefusesWhatIsNoSealAndKeepsTheBufferProtocol) {
  const Bytes gb = Sample("gb-v4-signature.dat");
  const Bytes pkcs7 = Tlv(0x30, {Tlv(0x06, {{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02}}),
                                 Tlv(0xA0, {Tlv(0x30, {Int(1), Tlv(0x31, {})})})});
  const Bytes bare = Tlv(0x30, {Int(5), Int(7)});
  const Bytes trailing = Cat({gb, {0x00}});
  const Bytes text(968, '<');
  const Bytes broken_sign_info = Tlv(0x30, {TlvAt(Sample("v5-user.esl"), 4), {0x30, 0x05, 0x00}});
  for (const Bytes *bad : {&pkcs7, &bare, &trailing, &text, &broken_sign_info}) {
    uint32_t len = 100;
    EXPECT_EQ(ZEPH_C_SealDescribe(bad->data(), bad->size(), nullptr, &len), ERR_SEAL_PARSE_FAILED);
    EXPECT_EQ(ZEPH_C_SealPicture(bad->data(), bad->size(), nullptr, &len), ERR_SEAL_PARSE_FAILED);
    EXPECT_EQ(ZEPH_C_SealVerify(bad->data(), bad->size(), nullptr, 0, nullptr, &len), ERR_SEAL_PARSE_FAILED);
    EXPECT_EQ(len, 100u);
  }
  // Every cut of a signature, seal inside included, is refused.
  for (size_t cut = 0; cut < gb.size(); cut += 61) {
    uint32_t len = 0;
    EXPECT_EQ(ZEPH_C_SealDescribe(gb.data(), cut, nullptr, &len), ERR_SEAL_PARSE_FAILED) << cut;
  }
  const Bytes seal = Sample("gb-v4-user.esl");
  uint32_t len = 0;
  EXPECT_EQ(ZEPH_C_SealVerify(seal.data(), seal.size(), nullptr, 0, nullptr, &len), ERR_SEAL_PARSE_FAILED);
  EXPECT_EQ(ZEPH_C_SealDescribe(nullptr, 0, nullptr, &len), ERR_SEAL_PARSE_FAILED);

  // Short buffers learn the size and receive nothing.
  std::string out(16, 'z');
  len = 16;
  EXPECT_EQ(ZEPH_C_SealDescribe(gb.data(), gb.size(), out.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(out, std::string(16, 'z'));
  uint32_t need = 0;
  EXPECT_EQ(ZEPH_C_SealDescribe(gb.data(), gb.size(), nullptr, &need), 0u);
  EXPECT_EQ(len, need);
  len = 16;
  EXPECT_EQ(ZEPH_C_SealVerify(gb.data(), gb.size(), nullptr, 0, out.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(out, std::string(16, 'z'));
  EXPECT_GT(len, 100u);
  Bytes pic(15693);
  len = 15692;
  EXPECT_EQ(ZEPH_C_SealPicture(gb.data(), gb.size(), pic.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 15693u);
}

TEST(SealReader, ReadsTimesAndSignatureValues) {
  using zeph::seal::reader::FormatTime;
  using zeph::seal::reader::TimeOf;
  const struct {
    uint8_t tag;
    const char *text;
    const char *want;  // nullptr: unreadable
  } times[] = {
      {0x17, "491231235959Z", "20491231235959Z"},
      {0x17, "500101000000Z", "19500101000000Z"},
      {0x18, "20240229120000Z", "20240229120000Z"},
      {0x18, "20230229120000Z", nullptr},
      {0x18, "2024010203Z", "20240102030000Z"},
      {0x16, "20240102030405.123Z", "20240102030405Z"},
      {0x16, "2024-01-02T03:04:05-05:30", "20240102083405Z"},
      {0x16, "2024-01-02 03:04:05", "20240102030405Z"},
      {0x16, "20240102030405+0800", "20240101190405Z"},
      {0x16, "2024-01-02T24:00:00Z", nullptr},
      {0x16, "2024-1-2 03:04:05", nullptr},
      {0x16, "20240102030405Zjunk", nullptr},
  };
  for (const auto &t : times) {
    const Bytes tlv = Tlv(t.tag, {Text(t.text)});
    const auto seconds = TimeOf({t.tag, tlv, {tlv.data() + 2, tlv.size() - 2}});
    EXPECT_EQ(seconds ? FormatTime(*seconds) : "", t.want != nullptr ? t.want : "") << t.text;
  }
  // A DER value that lost its trailing zero octet to the BIT STRING rule.
  const Bytes der = {0x30, 0x06, 0x02, 0x01, 0x05, 0x02, 0x01, 0x00};
  const auto restored = zeph::seal::reader::SignatureDer(Bytes(der.begin(), der.end() - 1));
  EXPECT_EQ(restored.der, der);
  EXPECT_FALSE(restored.raw);
  const auto raw = zeph::seal::reader::SignatureDer(Bytes(64, 0x11));
  EXPECT_TRUE(raw.raw);
  EXPECT_EQ(raw.der.size(), 70u);
}

}  // namespace
