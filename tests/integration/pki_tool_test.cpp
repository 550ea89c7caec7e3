// `zeph tsa` and `zeph http` as a user runs them against the loopback TSA.
#include <gtest/gtest.h>

#include "loopback.hpp"

namespace {

using zeph_test::Shell;

TEST(PkiTool, StampShowEmbedPostAndHttp) {
  const auto &pki = zeph_test::TestPki::Get();
  zeph_test::Peer peer;
  zeph_test::TempDir dir;
  const auto f = [&](const std::string &name) { return std::string(1, '\'').append(dir.file(name)).append("'"); };
  const std::string zeph = "'" ZEPH_TOOL "' ";
  const std::string url = "http://127.0.0.1:" + std::to_string(peer.port());
  zeph_test::WriteBytes(dir.file("data"), {'d', 'o', 'c'});
  ASSERT_EQ(Shell("openssl smime -sign -binary -in " + f("data") + " -signer " + pki.server_cert + " -inkey " +
                  pki.server_key + " -outform DER -out " + f("sig")),
            0);

  std::string out;
  ASSERT_EQ(Shell(zeph + "tsa stamp " + url + "/tsa/tsa_ok/a " + f("sig") + " --ca " + pki.ca + " --alg sm3 --out " +
                  f("stamped")),
            0);
  ASSERT_EQ(Shell(zeph + "tsa show " + f("stamped"), &out), 0) << out;
  EXPECT_NE(out.find("status: embedded token\ntime: "), std::string::npos) << out;
  EXPECT_NE(out.find("\npolicy: 1.2.3.4.1\nimprint: sm3 "), std::string::npos) << out;

  // The same in steps: a reply, shown, then embedded; an OpenSSL query posted.
  ASSERT_EQ(Shell(zeph + "tsa query " + url + "/tsa/tsa_ok/b " + f("sig") + " --alg sha384 --out " + f("reply")), 0);
  ASSERT_EQ(Shell(zeph + "tsa show " + f("reply"), &out), 0);
  EXPECT_EQ(out.rfind("status: granted (0)\n", 0), 0u) << out;
  EXPECT_NE(out.find("imprint: sha384 "), std::string::npos) << out;
  ASSERT_EQ(Shell(zeph + "tsa embed " + f("reply") + " " + f("sig") + " --out " + f("embedded")), 0);
  ASSERT_EQ(Shell("openssl ts -query -data " + f("data") + " -sha256 -cert -out " + f("q") + " && " + zeph +
                      "tsa post " + url + "/tsa/tsa_sha256/c " + f("q") + " | " + zeph + "tsa show -",
                  &out),
            0);
  EXPECT_NE(out.find("imprint: sha256 "), std::string::npos) << out;

  // Refusals and usage errors: 1 for a failure, 2 for a usage error.
  const std::pair<std::string, int> codes[] = {
      {"tsa stamp " + url + "/tsa/tsa_stray/d " + f("sig") + " --ca " + pki.ca, 1},
      {"tsa stamp " + url + "/tsa/tsa_ok/d " + f("sig"), 2},
      {"tsa query " + url + "/x " + f("sig") + " --alg md5", 2},
      {"tsa show " + f("data"), 1},
      {"tsa frobnicate x y", 2},
  };
  for (const auto &[args, code] : codes) EXPECT_EQ(Shell(zeph + args + " > /dev/null"), code) << args;

  EXPECT_EQ(Shell("printf '{\"k\":1}' | " + zeph + "http post " + url + "/echo/e", &out), 0);
  EXPECT_EQ(out, "{\"k\":1}");
  EXPECT_NE(peer.Recorded("e").find("\r\nContent-Type: application/json\r\n"), std::string::npos);
  EXPECT_EQ(Shell("printf x | " + zeph + "http post " + url + "/status/503/s", &out), 1);
  EXPECT_NE(out.find("HTTP status 503"), std::string::npos) << out;
  EXPECT_EQ(Shell("printf x | " + zeph + "http post " + url + "/x --ca /nonexistent", &out), 1);
}

}  // namespace
