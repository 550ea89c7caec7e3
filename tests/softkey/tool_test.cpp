// The zeph-softkey utility: its failures, and what it sets up is what the
// library sees.
#include <openssl/pem.h>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using ToolTest = SoftkeyTest;

TEST_F(ToolTest, FailuresExplainThemselvesAndExitNonZero) {
  MakeStandardKey();
  const std::string dev = std::string(" --serial ") + kSerial;
  struct Case {
    std::string args;
    const char *says;
  } const cases[] = {
      {"", "no command"},
      {"frobnicate", "unknown command"},
      {"create-device", "missing --serial"},
      {"create-device --serial ../x", "serial number"},
      {"create-device" + dev, "already exists"},
      {"create-device --serial N1 --auth-key 0011", "--auth-key"},
      {"show --serial NOPE", "no device NOPE"},
      {"create-app" + dev + " --app VorliEcc --admin-pin 12345678 --user-pin 87654321", "already has"},
      {"create-app" + dev + " --app A --admin-pin 123 --user-pin 87654321", "6 to 16"},
      {"create-app" + dev + " --app A --admin-pin 12345678 --user-pin 87654321 --user-retry 0", "--user-retry"},
      {"gen-key" + dev + " --app VorliEcc --container C --alg sm2 --user-pin 00000000", "wrong user PIN"},
      {"gen-key" + dev + " --app VorliEcc --container C --alg dsa --user-pin 87654321", "--alg"},
      {"gen-key" + dev + " --app VorliEcc --container ECC --alg rsa1024 --user-pin 87654321", "other algorithm"},
      {"gen-key" + dev + " --app Nope --container C --alg sm2 --user-pin 87654321", "no application Nope"},
      {"gen-key" + dev + " --app VorliEcc --container C --alg sm2 --user-pin 87654321 --subject junk", "subject"},
      {"import-cert" + dev + " --app VorliEcc --container ECC --cert /nonexistent", "cannot read"},
      {"read-file" + dev + " --app VorliEcc --file Nope", "no file Nope"},
      {"write-file" + dev + " --app VorliEcc --file F", "exactly one of"},
      {"list --app VorliEcc", "does not apply"},
      {"list --root", "needs a value"},
  };
  for (const auto &c : cases) {
    std::string out;
    EXPECT_NE(Tool(c.args, &out), 0) << c.args;
    EXPECT_NE(out.find(c.says), std::string::npos) << c.args << " said: " << out;
    EXPECT_EQ(out.rfind("zeph-softkey: ", 0), 0u) << out;
  }
}

TEST_F(ToolTest, WhatItSetsUpIsWhatTheLibrarySees) {
  MustTool("create-device --serial K1 --label L --auth-key 000102030405060708090a0b0c0d0e0f");
  MustTool("create-app --serial K1 --app SM-Application --admin-pin 11111111 --user-pin 22222222 --user-retry 5");
  MustTool("gen-key --serial K1 --app SM-Application --container SM-Application --alg sm2 --user-pin 22222222 "
           "--subject CN=tester,O=zeph,C=CN --no-cert");
  const std::vector<uint8_t> binary = {0, 1, 2, 0xFF, 0, 'x'};
  zeph_test::WriteBytes(root.file("in.bin"), binary);
  MustTool("write-file --serial K1 --app SM-Application --file Picture --in " + root.file("in.bin") +
           " --write-rights 0xFF");

  DEVHANDLE dev = Connect("K1");
  EXPECT_EQ(DevAuth(dev, "\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f"), SAR_OK);
  HAPPLICATION app = OpenApp(dev, "SM-Application");
  ULONG max = 0, remain = 0;
  BOOL def = FALSE;
  ASSERT_EQ(skf.SKF_GetPINInfo(app, USER_TYPE, &max, &remain, &def), SAR_OK);
  EXPECT_EQ(max, 5u);
  std::vector<uint8_t> got(16);
  ULONG len = 16;
  ASSERT_EQ(skf.SKF_ReadFile(app, const_cast<char *>("Picture"), 0, 16, got.data(), &len), SAR_OK);
  got.resize(len);
  EXPECT_EQ(got, binary);
  HCONTAINER con = OpenCon(app, "SM-Application");
  EXPECT_EQ(skf.SKF_ExportCertificate(con, TRUE, nullptr, &len), SAR_CERTNOTFOUNTERR);

  // A certificate in PEM goes in; the library exports the same DER.
  MustTool("gen-key --serial K1 --app SM-Application --container Other --alg sm2 --user-pin 22222222");
  MustTool("export-cert --serial K1 --app SM-Application --container Other --out " + root.file("c.pem"));
  MustTool("import-cert --serial K1 --app SM-Application --container SM-Application --cert " + root.file("c.pem"));
  MustTool("export-cert --serial K1 --app SM-Application --container Other --der --out " + root.file("c.der"));
  ASSERT_EQ(skf.SKF_ExportCertificate(con, TRUE, nullptr, &len), SAR_OK);
  got.resize(len);
  ASSERT_EQ(skf.SKF_ExportCertificate(con, TRUE, got.data(), &len), SAR_OK);
  EXPECT_EQ(got, zeph_test::ReadBytes(root.file("c.der")));

  std::string shown;
  ASSERT_EQ(Tool("show --serial K1", &shown), 0);
  for (const char *line : {"device K1 (present)", "application SM-Application", "user PIN: 5 of 5 tries left",
                           "container SM-Application (SM2)", "file Picture (6 bytes, read 0xFF, write 0xFF)"})
    EXPECT_NE(shown.find(line), std::string::npos) << line << "\n" << shown;
}

}  // namespace
}  // namespace sk_test
