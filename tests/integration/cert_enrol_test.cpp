// Enrolment end to end through the JSON rows: a request made on a software
// key, checked by `openssl req -verify`, signed by an `openssl ca` CA, stored
// and read back; encryption pairs; the key's objects as JSON; key pairs in
// software and the public test key.
#include <openssl/x509.h>

#include "ci_support.hpp"
#include "loopback.hpp"
#include "test_ca.hpp"

namespace {

using ci_test::Base64;
using ci_test::FromBase64;
using ci_test::Reply;
using ci_test::Signed;
using zeph_test::TestCa;
using Bytes = std::vector<uint8_t>;
using Leaf = TestCa::LeafOptions;

using Texts = std::map<std::string, std::string>;
using ci_test::Member;
using ci_test::Row;

Texts With(Texts m, const std::string &k, const std::string &v) {
  m[k] = v;
  return m;
}

class Enrolment : public zeph_it::SoftkeyTest {
 protected:
  void SetUp() override {
    SoftkeyTest::SetUp();
    CreateStandardKey("EN01");
  }
  std::map<std::string, std::string> Key(const std::string &area_pin = zeph_it::kUserPin) const {
    return {{"keySN", "ZA_EN01"}, {"pin", area_pin}};
  }
  zeph_test::TempDir files_;
};

TEST_F(Enrolment, RequestSignedByTheKeyComesBackAsItsCertificate) {
  const struct {
    int area;
    TestCa::Alg alg;
    int bits;
    const char *dn, *verify, *cn;
  } areas[] = {
      {2, TestCa::Alg::kSm2, 256, "CN=张三,O=zeph test,C=CN", " -vfyopt distid:1234567812345678", "张三"},
      {1, TestCa::Alg::kRsa, 2048, "/CN=rsa holder/O=zeph test", "", "rsa holder"},
  };
  for (const auto &a : areas) {
    SCOPED_TRACE(a.area);
    TestCa ca(a.alg);
    const Reply csr = Row(400, With(Key(), "dn", a.dn), {{"asymid", a.area}, {"modLen", a.bits}});
    ASSERT_EQ(csr.code, 0) << csr.text;
    const std::string req = files_.file("req" + std::to_string(a.area) + ".der");
    zeph_test::WriteBytes(req, FromBase64(csr.data));
    std::string out;
    ASSERT_EQ(zeph_test::Shell("openssl req -inform DER -in '" + req + "' -noout -verify" + a.verify, &out), 0) << out;
    const Bytes cert = TestCa::Der(ca.Issue("holder" + std::to_string(a.area), Leaf().Request(req)));

    EXPECT_EQ(Row(401, With(Key(), "cert", Base64(cert)), {{"asymid", a.area}}).code, 0);
    const Reply back = Row(200, {{"keySN", "ZA_EN01"}}, {{"asymid", a.area}});
    EXPECT_EQ(back.data, Base64(cert));
    // The new pair signs what the certificate verifies.
    const Reply sig = Row(300, With(Key(), "signData", "hello"), {{"asymid", a.area}});
    EXPECT_EQ(Row(301, {{"cert", Base64(cert)}, {"signData", "hello"}, {"raw", sig.data}}).code, 0);
    // Someone else's certificate is refused and changes nothing.
    const Bytes foreign = TestCa::Der(ca.Issue("foreign" + std::to_string(a.area)));
    EXPECT_EQ(Row(401, With(Key(), "cert", Base64(foreign)), {{"asymid", a.area}}).code, Signed(ERR_UNSUPPORTED_VALUE));
    EXPECT_EQ(Row(200, {{"keySN", "ZA_EN01"}}, {{"asymid", a.area}, {"usage", 1}}).data, Base64(cert));

    // The chain: stored from PEM, read as a bundle, split, used to verify.
    const Reply stored =
        Row(402, With(Key(), "certChain", ci_test::FileText(ca.intermediate()) + ci_test::FileText(ca.root())),
            {{"asymid", a.area}});
    ASSERT_EQ(stored.code, 0) << stored.text;
    const Reply chain = Row(202, {{"keySN", "ZA_EN01"}}, {{"asymid", a.area}});
    EXPECT_EQ(chain.data, stored.data);
    const Reply split = Row(204, {{"certChain", chain.data}});
    EXPECT_EQ(split.data,
              "[\"" + Base64(TestCa::Der(ca.intermediate())) + "\",\"" + Base64(TestCa::Der(ca.root())) + "\"]");
    EXPECT_EQ(Row(201, {{"cert", Base64(cert)}, {"certChain", chain.data}}, {{"nocrl", 1}}).code, 0);
    EXPECT_EQ(Row(206, {{"cert", Base64(cert)}}, {{"itemNo", 0x31}}).data, a.cn);
  }
}

TEST_F(Enrolment, EncryptionPairsAreWrappedForTheKey) {
  const struct {
    int area;
    TestCa::Alg alg;
    int bits;
  } areas[] = {{2, TestCa::Alg::kSm2, 2}, {1, TestCa::Alg::kRsa, 1024}};
  for (const auto &a : areas) {
    SCOPED_TRACE(a.area);
    TestCa ca(a.alg);
    // A pair made in software, its request, the CA's certificate for it.
    const Reply pair = Row(700, {}, {{"algID", a.bits}});
    const std::string prikey = Member(pair.data, "prikey");
    const Reply csr = Row(702, {{"prikey", prikey}, {"dn", "CN=enc,O=zeph test"}});
    const std::string req = files_.file("enc" + std::to_string(a.area) + ".der");
    zeph_test::WriteBytes(req, FromBase64(csr.data));
    const Bytes cert = TestCa::Der(ca.Issue("enc" + std::to_string(a.area), Leaf().Request(req)));
    const auto request = With(With(Key(), "cert", Base64(cert)), "encKey", prikey);

    EXPECT_EQ(Row(403, With(request, "pin", "000000"), {{"asymid", a.area}}).code, Signed(0x0A000024u));
    EXPECT_EQ(Row(403, request, {{"asymid", a.area}}).code, 0);
    EXPECT_EQ(Row(200, {{"keySN", "ZA_EN01"}}, {{"asymid", a.area}, {"usage", 0}}).data, Base64(cert));
    zeph_it::Handle h("ZA_EN01");
    Bytes spki;
    ASSERT_EQ(zeph_it::Out(&spki, ZEPH_C_ExportPublicKeyInfo, h.get(), uint32_t(a.area), ZEPH_USAGE_ENCRYPTION), 0u);
    EXPECT_EQ(Base64(spki), Member(pair.data, "pubkey"));
    // A certificate for another key.
    const Reply other = Row(700, {}, {{"algID", a.bits}});
    EXPECT_EQ(Row(403, With(request, "encKey", Member(other.data, "prikey")), {{"asymid", a.area}}).code,
              Signed(ERR_UNSUPPORTED_VALUE));
  }
  // RSA pairs need the vendor's extended interface.
  const Reply pair = Row(700, {}, {{"algID", 1024}});
  zeph_it::Handle h("ZN_EN01");
  const Bytes key = FromBase64(Member(pair.data, "prikey"));
  EXPECT_EQ(ZEPH_C_ImportEncKeyPair(h.get(), zeph_it::kUserPin, ZEPH_AREA_RSA, key.data(), zeph_it::Len(key)),
            ERR_EXT_INTERFACE_MISSING);
  EXPECT_EQ(ZEPH_C_SaveEncCertAndKey(nullptr, zeph_it::kUserPin, ZEPH_AREA_SM2, key.data(), 1, key.data(), 1),
            0xFFFFFFFFu);
}

TEST_F(Enrolment, ObjectsAsJsonAndEverySessionClosed) {
  std::vector<char> json;
  const auto trace = Traced([&] {
    zeph_it::Handle h("ZA_EN01");
    uint32_t n = 0;
    ASSERT_EQ(ZEPH_C_EnumCryptoDeviceObjects(h.get(), nullptr, &n), 0u);
    json.resize(n);
    ASSERT_EQ(ZEPH_C_EnumCryptoDeviceObjects(h.get(), json.data(), &n), 0u);
    uint8_t csr[4096];
    n = sizeof csr;
    EXPECT_EQ(ZEPH_C_GenCSR(h.get(), "000000", ZEPH_AREA_SM2, "CN=x", 0, csr, &n), 0x0A000024u);
  });
  EXPECT_TRUE(zeph_it::AllClosed(trace));
  cJSON *doc = cJSON_Parse(json.data());
  ASSERT_NE(doc, nullptr);
  const cJSON *apps = cJSON_GetObjectItemCaseSensitive(doc, "applications");
  ASSERT_EQ(cJSON_GetArraySize(apps), 2);
  const cJSON *ecc = cJSON_GetArrayItem(apps, 0);
  EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(ecc, "name")), "VorliEcc");
  const cJSON *con = cJSON_GetArrayItem(cJSON_GetObjectItemCaseSensitive(ecc, "containers"), 0);
  EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(con, "type")), "SM2");
  const cJSON *certs = cJSON_GetObjectItemCaseSensitive(con, "certificates");
  ASSERT_EQ(cJSON_GetArraySize(certs), 2);  // signing and encryption
  const cJSON *sign = cJSON_GetArrayItem(certs, 0);
  EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(sign, "usage")), "sign");
  EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(sign, "subject")),
               "CN=EN01 ECC sign, O=zeph softkey");
  cJSON_Delete(doc);
}

// Rows 700-702 against OpenSSL's own reading of what they return: the key
// (opened with the PIN) is the public key's, and it signed "hello" and the
// request.
TEST(SoftwareKeys, PairsSignaturesAndRequestsCheckWithOpenSsl) {
  const zeph_test::TempDir dir;
  for (const int alg : {2, 1024}) {
    for (const std::string pin : {"", "pass word"}) {
      SCOPED_TRACE(std::to_string(alg) + " '" + pin + "'");
      const Reply pair = Row(700, {{"pin", pin}}, {{"algID", alg}});
      ASSERT_EQ(pair.code, 0) << pair.text;
      const Texts base = {{"prikey", Member(pair.data, "prikey")}, {"pin", pin}};
      const Reply sig = Row(701, With(base, "signData", "aGVsbG8="), {{"signDataType", 1}});
      ASSERT_EQ(sig.code, 0) << sig.text;
      const Reply csr = Row(702, With(base, "dn", "/CN=soft/O=zeph"));
      for (const auto &[file, b64] : Texts{
               {"p8", base.at("prikey")}, {"pub", Member(pair.data, "pubkey")}, {"sig", sig.data}, {"csr", csr.data}}) {
        zeph_test::WriteBytes(dir.file(file), FromBase64(b64));
      }
      const std::string id = alg == 2 ? "distid:1234567812345678" : "";
      std::string out;
      EXPECT_EQ(zeph_test::Shell("cd '" + dir.path().string() + "' && printf hello >msg && openssl pkey -inform DER" +
                                     " -in p8 -passin 'pass:" + pin + "' -pubout -outform DER | cmp - pub &&" +
                                     " openssl pkeyutl -verify -pubin -keyform DER -inkey pub -rawin -in msg -sigfile" +
                                     (alg == 2 ? " sig -digest sm3 -pkeyopt " + id : " sig -digest sha256") +
                                     " && openssl req -inform DER -in csr -noout -verify" +
                                     (alg == 2 ? " -vfyopt " + id : "") +
                                     " && openssl req -inform DER -in csr -noout -pubkey |"
                                     " openssl pkey -pubin -outform DER | cmp - pub",
                                 &out),
                0)
          << out;
      if (!pin.empty()) {
        EXPECT_EQ(Row(701, With(base, "pin", "wrong")).code, Signed(ERR_PIN_VERIFY_FAILED));
      }
    }
  }
  EXPECT_EQ(Row(700, {}, {{"algID", 16}}).code, Signed(ERR_UNSUPPORTED_VALUE));
}

TEST(TestCommands, TheBuiltInKeyIsTheStandardsExamplePair) {
  const Reply p8 = Row(1, {}), pair = Row(2, {});
  const Bytes der = FromBase64(p8.data);
  const unsigned char *p = der.data();
  EVP_PKEY *key = d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size()));
  ASSERT_NE(key, nullptr);
  uint8_t point[65];
  size_t n = 0;
  ASSERT_EQ(EVP_PKEY_get_octet_string_param(key, "pub", point, sizeof point, &n), 1);
  EVP_PKEY_free(key);
  EXPECT_EQ(Member(pair.data, "pubkey"), Base64(Bytes(point, point + n)));
  EXPECT_EQ(zeph_test::ToHex(FromBase64(Member(pair.data, "prikey"))),
            "3945208F7B2144B13F36E38AC6D39F95889393692860B51A42FB81EF4DF7C5B8");
  EXPECT_EQ(zeph_test::ToHex(Bytes(point + 1, point + 33)),
            "09F9DF311E5421A150DD7D161E4BC5C672179FAD1833FC076BB08FF356F35020");
}

}  // namespace
