// The co-signing rows of the JSON interface end to end: a software key, the
// reference co-signing service on loopback, and the openssl tool checking
// every result; rows that fail, whatever the service does, leave the key's
// PIN and share as they were and end within the deadline.
#include <cstdlib>
#include <fstream>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "ci_support.hpp"
#include "cosign_server.hpp"
#include "cosign_service.hpp"
#include "loopback.hpp"
#include "test_support.hpp"
#include "zeph_c_corvex.h"
#include "zeph_c_pki.h"

namespace {

using ci_test::Ci;
using ci_test::Reply;
using ci_test::Signed;

using ci_test::Member;

class CosignRows : public ci_test::SoftKeyCi {
 protected:
  void SetUp() override {
    SoftKeyCi::SetUp();
    vars_["url"] = server.Url();
  }
  void TearDown() override {
    unsetenv("ZEPH_SOFTKEY_FAULT");
    ZEPH_C_HttpSetTimeouts(0, 0);
    SoftKeyCi::TearDown();
  }
  Reply Row(const std::string &request) {
    return Ci(Fill(R"({"keySN":"<keySN>","pin":"<pin>","url":"<url>","deviceID":"DEV-9",)" + request + "}"));
  }
  // The share file as the key holds it ("" when there is none).
  std::string Share(const char *file = "BivoShare", int row = 7) {
    const Reply r =
        Ci(Fill(R"({"type":108,"keySN":"<keySN>","idx":)" + std::to_string(row) + R"(,"filepath":")" + file + "\"}"));
    return r.code == 0 ? r.data : "";
  }
  // A member of a row's data, base64-decoded into a file of dir.
  void Save(const std::string &file, const Reply &row, const char *member) {
    zeph_test::WriteBytes(dir.file(file), ci_test::FromBase64(Member(row.data, member)));
  }
  std::string Openssl(const std::string &args) {
    std::string out;
    EXPECT_EQ(zeph_test::Shell("cd " + dir.path().string() + " && openssl " + args, &out), 0) << args << "\n" << out;
    return out;
  }

  zeph_test::CosignServer server;
  zeph_test::TempDir dir;
};

TEST_F(CosignRows, Sm2RowsAgainstOpenSsl) {
  const Reply created = Row(R"("type":600)");
  ASSERT_EQ(created.code, 0) << created.text;
  const std::string id = Member(created.data, "containerID");
  EXPECT_EQ(id.size(), 64u);
  zeph_test::WriteBytes(dir.file("pub.der"), zeph_it::Sm2Spki(ci_test::FromBase64(Member(created.data, "pubKey"))));
  EXPECT_FALSE(Share().empty());

  const zeph_test::Bytes msg = zeph_test::RandomBytes(333, 4);
  zeph_test::WriteBytes(dir.file("msg"), msg);
  const Reply signed_row = Row(R"("type":601,"signData":")" + ci_test::Base64(msg) + "\"");
  ASSERT_EQ(signed_row.code, 0) << signed_row.text;
  Save("sig", signed_row, "signature");
  Openssl("dgst -sm3 -verify pub.der -keyform DER -sigopt distid:1234567812345678 -signature sig msg");

  // 900: the same signature inside a Corvex signature that openssl parses.
  const Reply corvex = Row(R"("type":900,"cert":"<cert>","signData":")" + ci_test::Base64(msg) + "\"");
  ASSERT_EQ(corvex.code, 0) << corvex.text;
  const zeph_test::Bytes der = ci_test::FromBase64(Member(corvex.data, "signature"));
  zeph_test::WriteBytes(dir.file("corvex"), der);
  Openssl("asn1parse -inform DER -in corvex -noout");
  const unsigned char *p = der.data();
  Corvex_Signature *parsed = d2i_Corvex_Signature(nullptr, &p, static_cast<long>(der.size()));
  ASSERT_NE(parsed, nullptr);
  const ASN1_OCTET_STRING *inner = sk_SIGNATURE_INFO_value(sk_SignerInfo_value(parsed->signers, 0)->info, 0)->signature;
  zeph_test::WriteBytes(dir.file("sig"), {inner->data, inner->data + inner->length});
  Corvex_Signature_free(parsed);
  Openssl("dgst -sm3 -verify pub.der -keyform DER -sigopt distid:1234567812345678 -signature sig msg");
  EXPECT_EQ(Row(R"("type":900,"cert":"AAAA","signData":"AQID")").code, Signed(ERR_INVALID_PARAMETER));

  const Reply csr = Row(R"("type":602,"dn":"CN=co-signed user,O=zeph")");
  ASSERT_EQ(csr.code, 0) << csr.text;
  Save("csr", csr, "csr");
  Openssl("req -inform DER -in csr -verify -noout");

  zeph_test::WriteBytes(dir.file("plain"), {'c', 'o', '-', 's', 'i', 'g', 'n', 'e', 'd'});
  Openssl("pkeyutl -encrypt -pubin -keyform DER -inkey pub.der -in plain -out cipher");
  const Reply opened = Row(R"("type":604,"raw":")" + ci_test::Base64(zeph_test::ReadBytes(dir.file("cipher"))) + "\"");
  ASSERT_EQ(opened.code, 0) << opened.text;
  EXPECT_EQ(ci_test::FromBase64(Member(opened.data, "plain")), zeph_test::ReadBytes(dir.file("plain")));

  EXPECT_EQ(Row(R"("type":605)").code, 0);
  // A wrong PIN is refused by the key before the share is touched.
  EXPECT_NE(Ci(Fill(R"({"type":605,"keySN":"<keySN>","pin":"000000","deviceID":"DEV-9"})")).code, 0);

  // 609: the key's PIN and the share change together.
  ASSERT_EQ(Row(R"("type":609,"newPin":"654321")").code, 0);
  vars_["pin"] = "654321";
  const Reply again = Row(R"("type":601,"signData":")" + ci_test::Base64(msg) + "\"");
  ASSERT_EQ(again.code, 0) << again.text;
  Save("sig", again, "signature");
  Openssl("dgst -sm3 -verify pub.der -keyform DER -sigopt distid:1234567812345678 -signature sig msg");
}

TEST_F(CosignRows, FailedRowsLeaveTheKeyAsItWas) {
  ASSERT_EQ(Row(R"("type":600)").code, 0);
  const std::string share = Share();
  const std::string sign = R"("type":601,"signData":"AQID")";

  // The share cannot be written: the old one stays.
  setenv("ZEPH_SOFTKEY_FAULT", "SKF_WriteFile:1:0x0A000001", 1);
  EXPECT_EQ(Row(R"("type":600)").code, Signed(0x0A000001u));
  unsetenv("ZEPH_SOFTKEY_FAULT");
  EXPECT_EQ(Share(), share);
  EXPECT_EQ(Row(sign).code, 0);

  // 609 whose write fails: the PIN and the share are the old ones.
  setenv("ZEPH_SOFTKEY_FAULT", "pin,SKF_WriteFile:1:0x0A000001", 1);
  EXPECT_EQ(Row(R"("type":609,"newPin":"654321")").code, Signed(0x0A000001u));
  unsetenv("ZEPH_SOFTKEY_FAULT");
  EXPECT_EQ(Share(), share);
  EXPECT_EQ(Row(sign).code, 0);
}

// The service's test faults, one row each: the row's status, no data, and
// the share on the key unchanged.
TEST_F(CosignRows, ServiceFaults) {
  // Generous enough for a loaded machine; the delayed answer comes well after.
  ZEPH_C_HttpSetTimeouts(2000, 2500);
  struct Case {
    const char *fault, *row;
    int64_t code;
  };
  // clang-format off
  const Case cases[] = {
      {"BIVOGenKeyPair:bad_credential", R"("type":600)", 12},
      {"BIVOGenKeyPair:r_zero", R"("type":600)", Signed(ERR_COSIGN_FAILED)},
      {"BIVOGenKeyPair:drop", R"("type":600)", Signed(ERR_HTTP_FAILED)},
      {"BIVOSignature:bad_credential", R"("type":601,"signData":"AQID")", Signed(ERR_COSIGN_FAILED)},
      {"BIVOSignature:r_zero", R"("type":601,"signData":"AQID")", Signed(ERR_COSIGN_FAILED)},
      {"BIVOSignature:garbage", R"("type":601,"signData":"AQID")", Signed(ERR_JSON_INVALID)},
      {"BIVOSignature:drop", R"("type":601,"signData":"AQID")", Signed(ERR_HTTP_FAILED)},
      {"BIVOSignature:delay=6000", R"("type":601,"signData":"AQID")", Signed(ERR_HTTP_FAILED)},
      {"BIVODecrypt:bad_credential", nullptr, 21},
      {"BIVODecrypt:r_zero", nullptr, Signed(ERR_COSIGN_FAILED)},
  };
  // clang-format on
  for (const Case &c : cases) {
    SCOPED_TRACE(c.fault);
    zeph_test::CosignServer faulty({c.fault});
    vars_["url"] = faulty.Url();
    // A key the faulty service holds (the previous one when key creation is
    // the fault).
    std::string row = c.row != nullptr ? c.row : "";
    if (std::string(c.fault).rfind("BIVOGenKeyPair", 0) != 0) {
      const Reply made = Row(R"("type":600)");
      ASSERT_EQ(made.code, 0) << made.text;
      zeph_test::WriteBytes(dir.file("pub.der"), zeph_it::Sm2Spki(ci_test::FromBase64(Member(made.data, "pubKey"))));
      Openssl("pkeyutl -encrypt -pubin -keyform DER -inkey pub.der -in pub.der -out cipher");
      if (c.row == nullptr)
        row = R"("type":604,"raw":")" + ci_test::Base64(zeph_test::ReadBytes(dir.file("cipher"))) + "\"";
    }
    const std::string before = Share();
    const Reply r = Row(row);
    EXPECT_EQ(r.code, c.code) << r.text;
    EXPECT_FALSE(r.has_data) << r.text;
    EXPECT_EQ(Share(), before);
  }
}

TEST_F(CosignRows, RsaRowsAgainstOpenSsl) {
  const Reply created = Row(R"("type":606,"modLen":2048)");
  ASSERT_EQ(created.code, 0) << created.text;
  Save("pub.der", created, "pubKey");
  const zeph_test::Bytes msg = zeph_test::RandomBytes(100, 8);
  zeph_test::WriteBytes(dir.file("msg"), msg);
  const Reply signed_row = Row(R"("type":607,"algID":4,"signData":")" + ci_test::Base64(msg) + "\"");
  ASSERT_EQ(signed_row.code, 0) << signed_row.text;
  Save("sig", signed_row, "signature");
  Openssl("dgst -sha256 -verify pub.der -keyform DER -signature sig msg");
  const Reply csr = Row(R"("type":608,"dn":"/CN=rsa co-signed")");
  ASSERT_EQ(csr.code, 0) << csr.text;
  Save("csr", csr, "csr");
  Openssl("req -inform DER -in csr -verify -noout");
}

TEST_F(CosignRows, HttpsServiceAndItsTrust) {
  zeph_test::CosignServer tls({}, "/bivo/", true);
  vars_["url"] = tls.Url();
  ASSERT_EQ(ZEPH_C_HttpsSetCAFile(zeph_test::TestPki::Get().ca.c_str()), 0u);
  const Reply made = Row(R"("type":600)");
  EXPECT_EQ(made.code, 0) << made.text;
  EXPECT_EQ(Row(R"("type":601,"signData":"AQID")").code, 0);
  // A service the trusted certificates do not vouch for is not asked anything.
  ASSERT_EQ(ZEPH_C_HttpsSetCAFile(zeph_test::TestPki::Get().stray_ca.c_str()), 0u);
  EXPECT_EQ(Row(R"("type":601,"signData":"AQID")").code, Signed(ERR_HTTP_FAILED));
  ZEPH_C_HttpsSetCAFile(nullptr);
}

TEST_F(CosignRows, EnvelopeRowUsesTheConfiguredKey) {
  ASSERT_EQ(ZEPH_C_SetConfig(dir.path().c_str()), 0u);
  std::ofstream(dir.file("vorli_ukey_cfg.json")) << "[]";
  EXPECT_EQ(Row(R"("type":603,"raw":"MAMCAQE=")").code, Signed(ERR_UNSUPPORTED_VALUE));
  Openssl(
      "ecparam -name SM2 -genkey -noout -outform DER -out k.der && base64 -w 0 k.der > zeph_bivo_envelope.key"
      " && openssl req -new -x509 -key k.der -keyform DER -subj /CN=env -days 2 -outform DER -out c.der");
  const Reply env =
      Ci(R"({"type":302,"raw":"c2VjcmV0","cert":")" + ci_test::Base64(zeph_test::ReadBytes(dir.file("c.der"))) + "\"}");
  ASSERT_EQ(env.code, 0) << env.text;
  const Reply opened = Row(R"("type":603,"raw":")" + env.data + "\"");
  EXPECT_EQ(opened.code, 0) << opened.text;
  EXPECT_EQ(Member(opened.data, "plain"), "c2VjcmV0");
  ZEPH_C_SetConfig("");
}

}  // namespace
