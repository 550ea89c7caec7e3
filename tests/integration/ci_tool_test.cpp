// The zeph groups that speak ZEPH_C_CI, run as a user would against a
// software key: output, files and exit status (0 only when the code is 0).
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "ci_support.hpp"

namespace {

struct ToolRun {
  int code;
  std::string out;
};

class CiTool : public ci_test::SoftKeyCi {
 protected:
  void SetUp() override {
    SoftKeyCi::SetUp();
    config_ = root_.file("vorli_ukey_cfg.json");
    zeph_test::WriteBytes(config_,
                          Bytes(std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB + "\"}]"));
  }

  static std::vector<uint8_t> Bytes(const std::string &s) { return {s.begin(), s.end()}; }

  // "zeph <group> --config <file> <args>"; standard error folded in.
  ToolRun Zeph(const std::string &group, const std::string &args, const std::string &input = "") const {
    std::string cmd;
    if (!input.empty()) cmd = "printf '%s' '" + input + "' | ";
    cmd += std::string("'") + ZEPH_TOOL + "' " + group + " --config '" + config_ + "' " + args + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    ToolRun r{-1, {}};
    if (p == nullptr) return r;
    char buf[4096];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, p)) != 0) r.out.append(buf, n);
    const int status = pclose(p);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
  }
  std::string Q(const std::string &name) const {
    std::string quoted(1, '\'');
    quoted += root_.file(name);
    quoted += '\'';
    return quoted;
  }

  std::string config_;
};

TEST_F(CiTool, CiPrintsTheResponseAndExitsByItsCode) {
  struct Case {
    std::string args, input;
    int code;
    std::string out;
  };
  const Case cases[] = {
      {R"('{"type":102}')", "", 0, "{\"type\":102,\"code\":0,\"data\":\"95560\"}\n"},
      {"", R"({"type":102})", 0, "{\"type\":102,\"code\":0,\"data\":\"95560\"}\n"},
      {"-", R"({"type":150})", 1, "{\"type\":150,\"code\":2181562459}\n"},
      {"'not json'", "", 1, "{\"type\":0,\"code\":2181562459}\n"},
      {R"('{"type":101,"keySN":"ZS_CI0001","pin":"00000000","asymid":2}')", "", 1,
       "{\"type\":101,\"code\":167772196,\"data\":\"{\\\"retryCnt\\\":4}\"}\n"},
      {"'{}' '{}'", "", 2, ""},
  };
  for (const auto &c : cases) {
    const ToolRun r = Zeph("ci", c.args, c.input);
    EXPECT_EQ(r.code, c.code) << c.args << "\n" << r.out;
    if (!c.out.empty()) {
      EXPECT_EQ(r.out, c.out) << c.args;
    }
  }
}

TEST_F(CiTool, KeysPinsAndSignatures) {
  ToolRun r = Zeph("keys", "");
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_NE(r.out.find("ZS_CI0001"), std::string::npos) << r.out;

  r = Zeph("pin", "verify --pin 87654321");  // the only key: no --key needed
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_NE(r.out.find("5 tries left"), std::string::npos) << r.out;
  r = Zeph("pin", "verify --key ZS_CI0001 --pin 00000000");
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_NE(r.out.find("4 tries left"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("wrong PIN"), std::string::npos) << r.out;

  // Sign with the key, verify with its certificate (PEM), base64 and DER forms.
  MustTool(std::string("export-cert --serial ") + kSerial + " --app VorliEcc --container ECC --out " + Q("c.pem"));
  r = Zeph("sign", "--pin 87654321 --data 'hello key'");
  ASSERT_EQ(r.code, 0) << r.out;
  const std::string sig = r.out.substr(0, r.out.find('\n'));
  EXPECT_EQ(Zeph("verify", "--cert " + Q("c.pem") + " --data 'hello key' --sig " + sig).out, "signature valid\n");
  r = Zeph("verify", "--cert " + Q("c.pem") + " --data 'hello kex' --sig " + sig);
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.out, "signature invalid\n");

  zeph_test::WriteBytes(root_.file("in.bin"), {0, 1, 2, 0xFF, 0});
  ASSERT_EQ(Zeph("sign", "--pin 87654321 --in " + Q("in.bin") + " --out " + Q("sig.der")).code, 0);
  const auto der = zeph_test::ReadBytes(root_.file("sig.der"));
  EXPECT_GE(der.size(), 70u);
  EXPECT_EQ(der[0], 0x30);
  EXPECT_EQ(Zeph("verify", "--cert " + Q("c.pem") + " --in " + Q("in.bin") + " --sig-file " + Q("sig.der")).code, 0);

  EXPECT_EQ(Zeph("pin", "change --pin 87654321 --new 11112222").code, 0);
  EXPECT_EQ(Zeph("pin", "verify --pin 11112222").code, 0);
  EXPECT_EQ(Zeph("pin", "unlock --admin-pin 12345678 --new 87654321").code, 0);
  EXPECT_EQ(Zeph("pin", "verify --pin 87654321").code, 0);

  MustTool("create-device --serial CI0009");
  r = Zeph("pin", "verify --pin 87654321");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.out.find("--key"), std::string::npos) << r.out;
}

TEST_F(CiTool, RandomAndFiles) {
  ToolRun r = Zeph("random", "16");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(ci_test::FromBase64(r.out.substr(0, r.out.find('\n'))).size(), 16u);
  r = Zeph("random", "--key ZS_CI0001 --format hex 8");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(r.out.size(), 17u);
  EXPECT_EQ(Zeph("random", "--key ZS_NOSUCHKEY 8").code, 1);

  std::vector<uint8_t> content(300);
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<uint8_t>(i * 7);
  zeph_test::WriteBytes(root_.file("content.bin"), content);
  r = Zeph("file", "write --pin 87654321 --name data.bin --in " + Q("content.bin"));
  ASSERT_EQ(r.code, 0) << r.out;
  ASSERT_EQ(Zeph("file", "read --name data.bin --out " + Q("back.bin")).code, 0);
  EXPECT_EQ(zeph_test::ReadBytes(root_.file("back.bin")), content);
  EXPECT_EQ(Zeph("file", "write --pin 87654321 --name t --data 'some text'").code, 0);
  EXPECT_EQ(Zeph("file", "read --name t").out, "some text");
  EXPECT_EQ(Zeph("file", "delete --pin 87654321 --name t").code, 0);
  r = Zeph("file", "read --name t");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.out.find("no such file"), std::string::npos) << r.out;
}

TEST_F(CiTool, UsageMistakesExitTwo) {
  const char *cases[][2] = {
      {"pin", "verify"},
      {"pin", "reset --pin 1"},
      {"sign", "--pin 1"},
      {"sign", "--pin 1 --data x --in y"},
      {"verify", "--data x --sig AAAA"},
      {"random", "65537"},
      {"file", "write --name x --data y"},
      {"file", "read --name x --idx 0"},
  };
  for (const auto &c : cases) {
    const ToolRun r = Zeph(c[0], c[1]);
    EXPECT_EQ(r.code, 2) << c[0] << " " << c[1] << "\n" << r.out;
  }
  const std::string big(1025, 'x');
  EXPECT_EQ(Zeph("sign", "--pin 1 --data " + big).code, 2);
}

}  // namespace
