// The zeph command-line host, run as a user would: output, files, exit codes.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "test_support.hpp"

namespace {

struct ToolRun {
  int code;
  std::string out;
};

// Runs "zeph <args>" through the shell, standard error folded into the output.
ToolRun Zeph(const std::string &args) {
  std::string cmd(1, '\'');
  cmd += ZEPH_TOOL;
  cmd += "' " + args + " 2>&1";
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

class ZephTool : public testing::Test {
 protected:
  // The file's path, quoted for the shell.
  std::string Q(const std::string &name) const {
    std::string quoted(1, '\'');
    quoted += dir_.file(name);
    quoted += '\'';
    return quoted;
  }
  zeph_test::TempDir dir_;
};

TEST_F(ZephTool, HashPrintsLikeSha256sum) {
  zeph_test::WriteBytes(dir_.file("abc"), {'a', 'b', 'c'});
  const ToolRun sm3 = Zeph("hash " + Q("abc"));
  EXPECT_EQ(sm3.code, 0);
  EXPECT_EQ(sm3.out, "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0  " + dir_.file("abc") + "\n");
  const ToolRun md5 = Zeph("hash --alg=md5 - < " + Q("abc"));
  EXPECT_EQ(md5.out, "900150983cd24fb0d6963f7d28e17f72  -\n");
  zeph_test::WriteBytes(dir_.file("empty"), {});
  EXPECT_EQ(Zeph("hash --alg sha256 " + Q("empty")).code, 1);
  EXPECT_EQ(Zeph("hash --alg sha256 " + Q("missing")).code, 1);
  EXPECT_EQ(Zeph("hash --alg sha3 " + Q("abc")).code, 2);
  EXPECT_EQ(Zeph("hash --alg").code, 2);
}

TEST_F(ZephTool, Sm4FileRoundTripWithoutOverwriting) {
  const auto plain = zeph_test::RandomBytes(5000, 11);
  zeph_test::WriteBytes(dir_.file("doc"), plain);
  const std::string key = "--key 0123456789abcdeffedcba9876543210 ";
  const ToolRun enc = Zeph("sm4 encrypt " + key + Q("doc"));
  ASSERT_EQ(enc.code, 0) << enc.out;
  EXPECT_EQ(enc.out, dir_.file("doc.enc") + "\n");
  ASSERT_EQ(Zeph("sm4 decrypt " + key + Q("doc.enc")).code, 0);
  EXPECT_EQ(zeph_test::ReadBytes(dir_.file("doc.enc.dec")), plain);

  const ToolRun again = Zeph("sm4 encrypt " + key + Q("doc"));
  EXPECT_EQ(again.code, 1);
  EXPECT_NE(again.out.find("already exists"), std::string::npos) << again.out;
  EXPECT_EQ(Zeph("sm4 encrypt --key 0011 " + Q("doc")).code, 2);
  EXPECT_EQ(Zeph("sm4 encrypt " + Q("doc")).code, 2);
  EXPECT_EQ(Zeph("sm4 decrypt " + key + Q("doc")).code, 1);  // not whole blocks
}

TEST_F(ZephTool, Base64RoundTripThroughPipesAndFiles) {
  const auto data = zeph_test::RandomBytes(1000, 12);
  zeph_test::WriteBytes(dir_.file("bin"), data);
  const ToolRun enc = Zeph("base64 encode " + Q("bin"));
  ASSERT_EQ(enc.code, 0);
  EXPECT_EQ(enc.out.find('\n'), 1336u);  // one line
  ASSERT_EQ(Zeph("base64 encode < " + Q("bin") + " > " + Q("b64")).code, 0);
  ASSERT_EQ(Zeph("base64 decode " + Q("b64") + " > " + Q("back")).code, 0);
  EXPECT_EQ(zeph_test::ReadBytes(dir_.file("back")), data);

  // Wrapped input, as other tools write it, decodes too; garbage does not.
  const std::string wrapped = "YWJj\nZGVm\n";
  zeph_test::WriteBytes(dir_.file("wrapped"), {wrapped.begin(), wrapped.end()});
  EXPECT_EQ(Zeph("base64 decode < " + Q("wrapped")).out, "abcdef");
  const std::string bad = "not*base64\n";
  zeph_test::WriteBytes(dir_.file("bad"), {bad.begin(), bad.end()});
  EXPECT_EQ(Zeph("base64 decode " + Q("bad")).code, 1);
}

TEST_F(ZephTool, UsageAndUnknownGroups) {
  const ToolRun none = Zeph("");
  EXPECT_EQ(none.code, 2);
  EXPECT_NE(none.out.find("usage: zeph"), std::string::npos);
  EXPECT_EQ(Zeph("help sm4").code, 0);
  EXPECT_EQ(Zeph("base64 squash").code, 2);
  EXPECT_EQ(Zeph("frobnicate").code, 2);
}

}  // namespace
