// The zeph command-line host, run as a user would: output, files, exit codes.
#include <gtest/gtest.h>

#include "cli_support.hpp"

namespace {

using zeph_it::ToolRun;
using zeph_it::Zeph;

class ZephTool : public testing::Test {
 protected:
  std::string Q(const std::string &name) const { return std::string(1, '\'').append(dir_.file(name)).append("'"); }
  void Put(const std::string &f, const std::string &s) { zeph_test::WriteBytes(dir_.file(f), {s.begin(), s.end()}); }
  zeph_test::TempDir dir_;
};

TEST_F(ZephTool, HashPrintsLikeSha256sumAndExitCodesTellUsageFromFailure) {
  Put("abc", "abc");
  Put("empty", "");
  EXPECT_EQ(Zeph("hash " + Q("abc")).out,
            "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0  " + dir_.file("abc") + "\n");
  EXPECT_EQ(Zeph("hash --alg=md5 - < " + Q("abc")).out, "900150983cd24fb0d6963f7d28e17f72  -\n");
  EXPECT_NE(Zeph("").out.find("usage: zeph"), std::string::npos);
  // 2 for usage errors, 1 for failures (a 3-byte file is not whole blocks).
  const std::pair<std::string, int> codes[] = {{"", 2},
                                               {"help sm4", 0},
                                               {"base64 squash", 2},
                                               {"frobnicate", 2},
                                               {"hash --alg", 2},
                                               {"hash --alg sha3 " + Q("abc"), 2},
                                               {"hash --alg sha256 " + Q("empty"), 1},
                                               {"hash --alg sha256 " + Q("missing"), 1},
                                               {"sm4 encrypt --key 0011 " + Q("abc"), 2},
                                               {"sm4 encrypt " + Q("abc"), 2},
                                               {"sm4 decrypt --key " + std::string(32, '0') + " " + Q("abc"), 1}};
  for (const auto &[args, code] : codes) EXPECT_EQ(Zeph(args).code, code) << args;
}

TEST_F(ZephTool, Sm4FileRoundTripWithoutOverwriting) {
  const auto plain = zeph_test::RandomBytes(5000, 11);
  zeph_test::WriteBytes(dir_.file("doc"), plain);
  const std::string key = "--key 0123456789abcdeffedcba9876543210 ";
  ASSERT_EQ(Zeph("sm4 encrypt " + key + Q("doc")).out, dir_.file("doc.enc") + "\n");
  ASSERT_EQ(Zeph("sm4 decrypt " + key + Q("doc.enc")).code, 0);
  EXPECT_EQ(zeph_test::ReadBytes(dir_.file("doc.enc.dec")), plain);
  const ToolRun again = Zeph("sm4 encrypt " + key + Q("doc"));
  EXPECT_EQ(again.code, 1);
  EXPECT_NE(again.out.find("already exists"), std::string::npos) << again.out;
}

TEST_F(ZephTool, Base64RoundTripThroughPipesAndFiles) {
  const auto data = zeph_test::RandomBytes(1000, 12);
  zeph_test::WriteBytes(dir_.file("bin"), data);
  // Wrapped input, as other tools write it, decodes too; garbage does not.
  Put("wrapped", "YWJj\nZGVm\n");
  Put("bad", "not*base64\n");
  EXPECT_EQ(Zeph("base64 encode " + Q("bin")).out.find('\n'), 1336u);  // one line
  ASSERT_EQ(Zeph("base64 encode < " + Q("bin") + " | '" ZEPH_TOOL "' base64 decode > " + Q("back")).code, 0);
  EXPECT_EQ(zeph_test::ReadBytes(dir_.file("back")), data);
  EXPECT_EQ(Zeph("base64 decode < " + Q("wrapped")).out, "abcdef");
  EXPECT_EQ(Zeph("base64 decode " + Q("bad")).code, 1);
}

TEST_F(ZephTool, RandtestTableJsonPlotAndExitCodes) {
  zeph_test::WriteBytes(dir_.file("random"), zeph_test::RandomBytes(3 * 2000 + 7, 3));
  Put("zeros", std::string(64, '\0'));
  const ToolRun quick = Zeph("randtest --quick " + Q("random"));
  EXPECT_EQ(quick.code, 0) << quick.out;
  EXPECT_NE(quick.out.find("Poker 2"), std::string::npos) << quick.out;
  EXPECT_NE(quick.out.find("status 0: every test passed"), std::string::npos) << quick.out;
  const ToolRun zeros = Zeph("randtest --quick --json - < " + Q("zeros"));
  EXPECT_EQ(zeros.code, 1);
  EXPECT_EQ(zeros.out.rfind("{\"suite\":\"quick\",\"bits\":512,\"alpha\":0.01,\"status\":33,", 0), 0u) << zeros.out;
  // Sequence mode through a pipe, with the picture.
  const ToolRun seq =
      Zeph("randtest --quick --seq-bytes 2000 --plot " + Q("seq.svg") + " - < " + Q("random") + " | cat");
  EXPECT_NE(seq.out.find("3 sequences of 16000 bits (7 bytes ignored)"), std::string::npos) << seq.out;
  EXPECT_EQ(zeph_test::ReadBytes(dir_.file("seq.svg")).size() > 500, true);
  ASSERT_EQ(Zeph("randtest --plot " + Q("one.svg") + " " + Q("zeros")).code, 1);
  const auto svg = zeph_test::ReadBytes(dir_.file("one.svg"));
  EXPECT_EQ(std::string(svg.begin(), svg.begin() + 4), "<svg");
  const std::pair<std::string, int> codes[] = {{"randtest", 2},
                                               {"randtest --seq-bytes 0 " + Q("random"), 2},
                                               {"randtest --bogus " + Q("random"), 2},
                                               {"randtest " + Q("missing"), 1},
                                               {"randtest " + dir_.path().string(), 1}};
  for (const auto &[args, code] : codes) EXPECT_EQ(Zeph(args).code, code) << args;
}

}  // namespace

TEST_F(ZephTool, SealInfoPictureAndVerify) {
  const std::string seals = std::string(" '") + ZEPH_SOURCE_DIR + "/tests/data/seals/";
  const ToolRun info = Zeph("seal info" + seals + "gb-v4-signature.dat'");
  EXPECT_EQ(info.code, 0);
  EXPECT_EQ(info.out.rfind("signature    GB, version 4\nsigned at    20201012111403Z\nproperty     /D", 0), 0u);
  EXPECT_EQ(Zeph("seal info --json" + seals + "ses-v1-user.esl'").out.rfind(R"({"kind":"seal","family":"SES",)", 0),
            0u);

  const ToolRun picture = Zeph("seal picture" + seals + "gb-v4-seal-gif.der' --out " + Q("stamp"));
  EXPECT_EQ(picture.out, dir_.file("stamp.gif") + " (GIF, 5911 bytes)\n");
  const auto gif = zeph_test::ReadBytes(dir_.file("stamp.gif"));
  EXPECT_TRUE(gif.size() == 5911 && std::string(gif.begin(), gif.begin() + 6) == "GIF89a");

  const ToolRun valid = Zeph("seal verify" + seals + "v5-signature.dat'");
  EXPECT_EQ(valid.code, 0);
  EXPECT_NE(valid.out.find("document hash          not checked (no --doc)\n"), std::string::npos) << valid.out;
  Put("doc", "not the signed document");
  const ToolRun wrong_doc = Zeph("seal verify" + seals + "v5-signature.dat' --doc " + Q("doc"));
  EXPECT_EQ(wrong_doc.code, 1);
  EXPECT_NE(wrong_doc.out.find("document hash          FAILED\n"), std::string::npos) << wrong_doc.out;
  const std::pair<std::string, int> codes[] = {{"seal verify" + seals + "v5-user.esl'", 1},
                                               {"seal", 2},
                                               {"seal frob" + seals + "v5-user.esl'", 2},
                                               {"seal picture" + seals + "v5-user.esl'", 2}};
  for (const auto &[args, code] : codes) EXPECT_EQ(Zeph(args).code, code) << args;
}

TEST_F(ZephTool, Sm2SdbiAndSelftestCommands) {
  const std::string key =
      "--pubkey 0409F9DF311E5421A150DD7D161E4BC5C672179FAD1833FC076BB08FF356F35020"
      "CCEA490CE26775A52DC6EA718CC1AA600AED05FBF35E084A6632F6072DA9AD13 ";
  Put("msg", "encryption standard");
  Put("md", "message digest");
  zeph_test::WriteBytes(dir_.file("sig"), zeph_test::FromHex("3046022100F5A03B0648D2C4630EEAC513E1BB81A15944DA38"
                                                             "27D5B74143AC7EACEEE720B3022100B1B6AA29DF212FD8763182"
                                                             "BC0D421CA1BB9038FD1F7F42D4840B69C485BBC1AA"));
  ASSERT_EQ(Zeph("sm2 encrypt " + key + "--form c1c2c3 " + Q("msg") + " > " + Q("c.raw")).code, 0);
  EXPECT_EQ(zeph_test::ReadBytes(dir_.file("c.raw")).size(), 97u + 19u);
  ASSERT_EQ(Zeph("sm2 convert --from c1c2c3 --to der " + Q("c.raw") + " > " + Q("c.der")).code, 0);
  EXPECT_EQ(Zeph("sm2 convert --from der --to c1c2c3 " + Q("c.der") + " | cmp - " + Q("c.raw")).code, 0);
  EXPECT_EQ(Zeph("sm2 verify " + key + "--sig " + Q("sig") + " " + Q("md")).out, "signature verified\n");
  EXPECT_EQ(Zeph("sm2 verify " + key + "--id other --sig " + Q("sig") + " " + Q("md")).code, 1);
  const std::string sdbi_key = " --key 00010002000300040005000600070008 ";
  ASSERT_EQ(Zeph("sdbi encrypt" + sdbi_key + Q("msg") + " > " + Q("e")).code, 0);
  EXPECT_EQ(Zeph("sdbi decrypt" + sdbi_key + Q("e") + " | cmp - " + Q("msg")).code, 0);
  const struct {
    std::string args;
    int code;
  } cases[] = {{"sm2 encrypt " + Q("msg"), 2},
               {"sm2 encrypt --pubkey 0011 " + Q("msg"), 2},
               {"sm2 convert --from der --to xyz " + Q("msg"), 2},
               {"sm2 convert --from der --to c1c3c2 " + Q("msg"), 1},
               {"sdbi decrypt" + sdbi_key + Q("msg"), 1},
               {"selftest", 0}};
  for (const auto &c : cases) EXPECT_EQ(Zeph(c.args).code, c.code) << c.args;
}
