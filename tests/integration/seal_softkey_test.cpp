// A seal signature signed with a software key through the handle API, as a
// host builds one: OpenSSL accepts it, and so does the library.
#include "oracle.hpp"
#include "softkey_env.hpp"

namespace zeph_it {
namespace {

using SealSignTest = SoftkeyTest;

TEST_F(SealSignTest, KeySignedGbSignatureVerifiesWithOpenSsl) {
  CreateStandardKey("SEAL1", false);
  const Bytes cert = ExportCert("SEAL1", "VorliEcc", "ECC");
  const Bytes seal = zeph_test::ReadBytes(std::string(ZEPH_SOURCE_DIR) + "/tests/data/seals/gb-v4-user.esl");
  const Bytes hash(32, 0x5C);
  Bytes tbs(seal.size() + 512);
  auto len = static_cast<uint32_t>(tbs.size());
  ASSERT_EQ(ZEPH_C_GetGBTBSSignData(1, seal.data(), seal.size(), "20210601000000Z", 0, hash.data(), 32, "p", 1,
                                    tbs.data(), &len),
            0u);
  tbs.resize(len);
  // A value ending in 0x00 loses that octet in the seal's BIT STRING (kept
  // encoding rule) and no longer verifies: sign again until it does not.
  Bytes value;
  {
    Handle h("ZA_SEAL1");
    do {
      value.assign(72, 0);
      len = 0;
      ASSERT_EQ(ZEPH_C_DoSm2Sign(h.get(), kUserPin, tbs.data(), tbs.size(), value.data(), &len), 0u);
      value.resize(len);
    } while (value.back() == 0);
  }
  Bytes sig(tbs.size() + 1024);
  len = static_cast<uint32_t>(sig.size());
  ASSERT_EQ(ZEPH_C_GetGBSESSignature(tbs.data(), tbs.size(), value.data(), value.size(), cert.data(), cert.size(),
                                     "1.2.156.10197.1.501", sig.data(), &len),
            0u);
  sig.resize(len);

  EXPECT_TRUE(zeph_test::Verifies(cert, EVP_sm3(), tbs, value)) << "OpenSSL refuses the signature value";

  const Bytes any = {1};
  EXPECT_EQ(ZEPH_C_VerifyGBSESSignature(seal.data(), seal.size(), any.data(), 1, any.data(), 1, any.data(), 1,
                                        any.data(), 1, sig.data(), sig.size(), 0),
            0u);
  char report[512];
  len = sizeof report;
  EXPECT_EQ(ZEPH_C_SealVerify(sig.data(), sig.size(), nullptr, 0, report, &len), ERR_SIGNATURE_INVALID);
  EXPECT_EQ(std::string(report).substr(0, 40), R"({"makerSignature":true,"signature":true,)");
}

}  // namespace
}  // namespace zeph_it
