// zeph csr, zeph cert and zeph monitor run as a user would, on a software
// key: the request checked by OpenSSL, the CA's certificate stored and read
// back, verification, fields, exit codes.
#include <gtest/gtest.h>

#include "softkey_env.hpp"
#include "test_ca.hpp"
#include "test_support.hpp"

namespace {

using zeph_test::TestCa;

class CertTool : public zeph_it::SoftkeyTest {
 protected:
  void SetUp() override {
    SoftkeyTest::SetUp();
    CreateStandardKey("CT01", false);
    const std::string cfg = std::string(R"([{"type":1,"vid":"ZA","skfLib":")") + ZEPH_SOFTKEY_LIB + "\"}]";
    zeph_test::WriteBytes(dir_.file("vorli_ukey_cfg.json"), {cfg.begin(), cfg.end()});
  }
  // "zeph <group> --config <dir> <args>", standard error folded in.
  int Zeph(const std::string &group, const std::string &args, std::string *out = nullptr) {
    std::string text;
    const int code =
        zeph_test::Shell("'" ZEPH_TOOL "' " + group + " --config '" + dir_.path().string() + "' " + args, &text);
    if (out != nullptr) *out = text;
    return code;
  }
  std::string Q(const std::string &name) const { return "'" + dir_.file(name) + "'"; }
  std::string key_ = std::string("--key ZA_CT01 --pin ") + zeph_it::kUserPin + " ";
  zeph_test::TempDir dir_;
};

TEST_F(CertTool, EnrolStoreVerifyAndExitCodes) {
  TestCa ca(TestCa::Alg::kSm2);
  std::string out;
  ASSERT_EQ(Zeph("csr", key_ + "--dn 'CN=tool holder,O=zeph' --new-key 256 --out " + Q("req.der"), &out), 0) << out;
  const std::string cert = ca.Issue("tool", TestCa::LeafOptions().Request(dir_.file("req.der")));
  zeph_test::Shell("cat '" + ca.intermediate() + "' '" + ca.root() + "' > " + Q("cas.pem"));

  EXPECT_EQ(Zeph("cert", "save " + key_ + "'" + cert + "'", &out), 0) << out;
  EXPECT_EQ(Zeph("cert", "get --key ZA_CT01 --out " + Q("back.der")), 0);
  EXPECT_EQ(zeph_test::ReadBytes(dir_.file("back.der")), TestCa::Der(cert));
  EXPECT_EQ(Zeph("cert", "chain " + key_ + "--store " + Q("cas.pem")), 0);
  EXPECT_EQ(Zeph("cert", "chain --key ZA_CT01 --out " + Q("bundle.der")), 0);
  EXPECT_EQ(Zeph("cert", "verify --nocrl --ca " + Q("bundle.der") + " '" + cert + "'", &out), 0) << out;
  EXPECT_EQ(Zeph("cert", "info --item 0x31 '" + cert + "'", &out), 0);
  EXPECT_EQ(out, "tool holder\n");

  const std::pair<std::string, int> codes[] = {
      {"", 2},
      {"verify --ca " + Q("cas.pem"), 2},
      {"verify --nocrl --ocsp http://127.0.0.1:1/ --ca " + Q("cas.pem") + " '" + cert + "'", 2},
      {"info --item abc '" + cert + "'", 2},
      {"info --oid 1.2.3.4 '" + cert + "'", 1},
      {"verify --nocrl --ca '" + ca.root() + "' '" + cert + "'", 1},  // the intermediate missing
      {"save --key ZA_CT01 --pin 000000 '" + cert + "'", 1},
  };
  for (const auto &[args, code] : codes) EXPECT_EQ(Zeph("cert", args), code) << args;
  EXPECT_EQ(Zeph("csr", "--key ZA_CT01 --dn CN=x"), 2) << "no PIN";
}

TEST_F(CertTool, MonitorPrintsTheKeysPluggedIn) {
  setenv("ZEPH_MONITOR_INTERVAL_MS", "50", 1);
  std::string out;
  const int code = Zeph("monitor", "--count 1", &out);
  unsetenv("ZEPH_MONITOR_INTERVAL_MS");
  EXPECT_EQ(code, 0) << out;
  EXPECT_NE(out.find("\"keySN\":\"ZA_CT01\""), std::string::npos) << out;
}

}  // namespace
