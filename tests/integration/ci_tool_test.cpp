// The zeph groups that speak ZEPH_C_CI, run as a user would against a
// software key: output, files and exit status (0 only when the code is 0).
#include "ci_support.hpp"

namespace {

class CiTool : public ci_test::SoftKeyCi {
 protected:
  // "cd <dir>; [input |] zeph <line> --config <file>", standard error folded in;
  // <sig> stands for the first line of the last "sign" output.
  int Zeph(std::string line, const std::string &input, std::string *out) {
    if (const size_t at = line.find("<sig>"); at != std::string::npos) line.replace(at, 5, sig_);
    std::string text;
    const int code =
        zeph_test::Shell("cd '" + dir_.path().string() + "' && " + (input.empty() ? "" : "echo '" + input + "' | ") +
                             "'" + ZEPH_TOOL + "' " + line + " --config cfg.json",
                         &text);
    out->append(text);
    if (line.rfind("sign ", 0) == 0) sig_ = out->substr(0, out->find('\n'));
    return code;
  }
  zeph_test::TempDir dir_;
  std::string sig_;
};

TEST_F(CiTool, GroupsPrintTheirResultAndExitByTheCode) {
  const std::string cfg = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB + "\"}]";
  zeph_test::WriteBytes(dir_.file("cfg.json"), {cfg.begin(), cfg.end()});
  zeph_test::WriteBytes(dir_.file("in.bin"), {0, 1, 2, 0xFF, 0});
  MustTool("export-cert --serial CI0001 --app VorliEcc --container ECC --out '" + dir_.file("c.pem") + "'");
  const struct {
    std::string line, input;
    int code;
    std::string out;  // found in the output
  } steps[] = {
      {R"(ci '{"type":102}')", "", 0, "{\"type\":102,\"code\":0,\"data\":\"95560\"}\n"},
      {"ci -", R"({"type":150})", 1, "{\"type\":150,\"code\":2181562459}\n"},
      {"ci 'not json'", "", 1, "{\"type\":0,\"code\":2181562459}\n"},
      {R"(ci '{"type":101,"keySN":"ZS_CI0001","pin":"00000000","asymid":2}')", "", 1,
       R"({"type":101,"code":167772196,"data":"{\"retryCnt\":4}"})"},
      {"ci '{}' '{}'", "", 2, ""},
      {"keys", "", 0, "ZS_CI0001"},
      {"pin verify --pin 123456", "", 0, "(5 tries left)"},  // the only key: no --key needed
      {"pin verify --key ZS_CI0001 --pin 00000000", "", 1, "(4 tries left)"},
      {"sign --pin 123456 --data 'hello key'", "", 0, ""},
      {"verify --cert c.pem --data 'hello key' --sig <sig>", "", 0, "signature valid\n"},
      {"verify --cert c.pem --data 'hello kex' --sig <sig>", "", 1, "signature invalid\n"},
      {"sign --pin 123456 --in in.bin --out sig.der", "", 0, ""},
      {"verify --cert c.pem --in in.bin --sig-file sig.der", "", 0, "signature valid\n"},
      {"pin change --pin 123456 --new 11112222", "", 0, ""},
      {"pin unlock --admin-pin 12345678 --new 123456", "", 0, ""},
      {"pin verify --pin 123456", "", 0, ""},
      {"random --key ZS_CI0001 --format hex 8", "", 0, ""},
      {"file write --pin 123456 --name data.bin --in c.pem", "", 0, ""},
      {"file read --name data.bin --out back.pem", "", 0, ""},
      {"file write --pin 123456 --name t --data 'some text'", "", 0, ""},
      {"file read --name t", "", 0, "some text"},
      {"file delete --pin 123456 --name t", "", 0, ""},
      {"file read --name t", "", 1, "no such file"},
      // Usage mistakes.
      {"pin verify", "", 2, ""},
      {"sign --pin 1 --data x --in y", "", 2, ""},
      {"sign --pin 1 --data " + std::string(1025, 'x'), "", 2, ""},
      {"random 65537", "", 2, ""},
      {"file read --name x --idx 0", "", 2, ""},
  };
  for (const auto &s : steps) {
    std::string out;
    EXPECT_EQ(Zeph(s.line, s.input, &out), s.code) << s.line << "\n" << out;
    EXPECT_NE(out.find(s.out), std::string::npos) << s.line << "\n" << out;
    if (s.line.rfind("random --key ZS_CI0001", 0) == 0) {
      EXPECT_EQ(out.size(), 17u) << out;
    }
  }
  EXPECT_EQ(zeph_test::ReadBytes(dir_.file("back.pem")), zeph_test::ReadBytes(dir_.file("c.pem")));
  std::string out;
  EXPECT_EQ(Zeph("random 16", "", &out), 0);
  EXPECT_EQ(ci_test::FromBase64(out.substr(0, out.find('\n'))).size(), 16u);
  CreateDevice("CI0009");
  EXPECT_EQ(Zeph("pin verify --pin 123456", "", &out), 1);
  EXPECT_NE(out.find("--key"), std::string::npos) << out;
}

}  // namespace
