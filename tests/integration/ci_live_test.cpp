// The live commands beyond the worked session of docs/ci.md: signatures
// checked by OpenSSL alone, every refusal, locked PINs and device lists.
#include "ci_support.hpp"
#include "zeph_c_status.h"

namespace {

using ci_test::Ci;
using ci_test::Reply;
using ci_test::Signed;

// The oracle's check of a base64 signature: SM2 when md is null, else RSA with md.
bool OpenSslVerifies(const std::vector<uint8_t> &cert_der, const std::string &data, const std::string &sig_b64,
                     const EVP_MD *md) {
  return zeph_test::Verifies(cert_der, md, {data.begin(), data.end()}, ci_test::FromBase64(sig_b64));
}

class CiLive : public ci_test::SoftKeyCi {};

TEST_F(CiLive, SignaturesVerifyWithOpenSslAlone) {
  const struct {
    const char *keys;
    std::string data;
    const EVP_MD *md;
  } cases[] = {
      {R"("asymid":2,"signData":"hello")", "hello", nullptr},
      {R"("asymid":2,"signDataType":1,"signData":"AP8QgAA=")", std::string("\0\xff\x10\x80\0", 5), nullptr},
      {R"("asymid":1,"signData":"hello")", "hello", EVP_sha256()},
      {R"("asymid":1,"algID":8,"signData":"hello")", "hello", EVP_sha384()},
      {R"("asymid":1,"algID":16,"signData":"hello")", "hello", EVP_sha512()},
  };
  std::vector<std::string> sm2;
  for (const auto &c : cases) {
    const Reply r = Ci(Fill(std::string(R"({"type":300,"keySN":"<keySN>","pin":"<pin>",)") + c.keys + "}"));
    ASSERT_EQ(r.code, 0) << r.text;
    EXPECT_TRUE(OpenSslVerifies(c.md ? rsa_cert_ : sm2_cert_, c.data, r.data, c.md)) << c.keys;
    EXPECT_FALSE(OpenSslVerifies(c.md ? rsa_cert_ : sm2_cert_, c.data + "!", r.data, c.md)) << c.keys;
    if (c.md == nullptr) sm2.push_back(r.data);
  }
  EXPECT_NE(Ci(Fill(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signData":"hello"})")).data, sm2[0]);
}

// Refusals first, then files, then the user PIN locked and unblocked.
TEST_F(CiLive, StepsBeyondTheSessionAnswerTheirStatusAndData) {
  const std::string file = R"("keySN":"<keySN>","idx":7,"filepath":"blob")", wrong = R"("pin":"00000000")";
  const std::string verify = R"({"type":101,"keySN":"<keySN>","asymid":2,)",
                    key = R"("keySN":"<keySN>","pin":"<pin>",)";
  std::vector<uint8_t> all(256);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
  const std::string all64 = ci_test::Base64(all);
  const struct {
    std::string request;
    uint32_t code;
    std::string data = "-";  // "-": no data
  } steps[] = {
      {R"({"type":101})", ERR_PIN_VERIFY_FAILED},  // nothing but the code
      {R"({"type":104})", ERR_PIN_VERIFY_FAILED},
      {R"({"type":106})", ERR_INVALID_PARAMETER},
      {R"({"type":107})", ERR_INVALID_PARAMETER},
      {R"({"type":108})", ERR_INVALID_PARAMETER},
      {R"({"type":109})", ERR_INVALID_PARAMETER},
      {R"({"type":300})", ERR_UNSUPPORTED_VALUE},
      {R"({"type":301})", ERR_INVALID_PARAMETER},
      {R"({"type":500})", ERR_INVALID_PARAMETER},
      {R"({"type":501})", ERR_UNSUPPORTED_VALUE},
      {R"({"type":502})", ERR_INVALID_PARAMETER},
      {R"({"type":503})", ERR_INVALID_PARAMETER},
      {R"({"type":101,"keySN":"ZS_NOSUCHKEY","pin":"<pin>","asymid":2})", SAR_DEVICE_REMOVED},
      {R"({"type":106,"randLen":16,"keySN":"ZS_NOSUCHKEY"})", SAR_DEVICE_REMOVED},
      {R"({"type":106,"randLen":65537})", ERR_INVALID_PARAMETER},
      {R"({"type":106,"randLen":-1})", ERR_INVALID_PARAMETER},
      {R"({"type":107,)" + key + R"("filepath":"f","raw":"AAAA"})", ERR_INVALID_PARAMETER},
      {R"({"type":109,)" + key + R"("idx":7,"filepath":""})", ERR_INVALID_PARAMETER},
      {R"({"type":107,)" + key + R"("idx":7,"filepath":"f","raw":"QQ"})", ERR_BASE64_INVALID},
      {R"({"type":109,)" + key + R"("idx":7,"filepath":"f"})", SAR_FILE_NOT_EXIST},
      {R"({"type":300,)" + key + R"("asymid":2,"signDataType":2,"signData":"x"})", ERR_INVALID_PARAMETER},
      {R"({"type":300,)" + key + R"("asymid":2,"signDataType":1,"signData":"Q"})", ERR_BASE64_INVALID},
      {R"({"type":301,"cert":"<cert>","signData":"x"})", ERR_INVALID_PARAMETER},
      {R"({"type":301,"cert":"AAAA","signData":"x","raw":"AAAA"})", ERR_SIGNATURE_INVALID},
      {R"({"type":502,"keySN":"<keySN>","asymid":7,"adminPin":"<adminPin>","newPin":"33334444"})",
       ERR_UNSUPPORTED_VALUE},
      {R"({"type":501,"keySN":"<keySN>","asymid":3,"authCode":"<authCode>","adminPin":"<adminPin>","pin":"<pin>"})",
       ERR_UNSUPPORTED_VALUE},
      {R"({"type":107,"pin":"<pin>",)" + file + R"(,"raw":")" + all64 + "\"}", 0},
      {R"({"type":107,)" + wrong + "," + file + R"(,"raw":"AAAA"})", SAR_PIN_INCORRECT},
      {R"({"type":108,)" + file + "}", 0, all64},
      {R"({"type":107,"pin":"<pin>",)" + file + R"(,"raw":"aGk="})", 0},
      {R"({"type":108,)" + file + "}", 0, "aGk="},  // rewritten at its new length
      {verify + wrong + "}", SAR_PIN_INCORRECT, R"({"retryCnt":4})"},
      {verify + wrong + "}", SAR_PIN_INCORRECT, R"({"retryCnt":3})"},
      {verify + wrong + "}", SAR_PIN_INCORRECT, R"({"retryCnt":2})"},
      {verify + wrong + "}", SAR_PIN_INCORRECT, R"({"retryCnt":1})"},
      {verify + wrong + "}", SAR_PIN_LOCKED, R"({"retryCnt":0})"},
      {verify + R"("pin":"<pin>"})", SAR_PIN_LOCKED, R"({"retryCnt":0})"},
      {R"({"type":300,)" + key + R"("asymid":2,"signData":"x"})", SAR_PIN_LOCKED},
      {R"({"type":502,"keySN":"<keySN>","asymid":2,"adminPin":"00000000","newPin":"33334444"})", SAR_PIN_INCORRECT},
      {R"({"type":502,"keySN":"<keySN>","asymid":2,"adminPin":"<adminPin>","newPin":"33334444"})", 0},
      {verify + R"("pin":"33334444"})", 0, R"({"retryCnt":5})"},
  };
  for (const auto &s : steps) {
    const Reply r = Ci(Fill(s.request));
    EXPECT_EQ(r.code, Signed(s.code)) << s.request << " -> " << r.text;
    EXPECT_EQ(r.has_data ? r.data : "-", s.data) << s.request;
  }
  // Random sizes at both ends, and two draws differ.
  EXPECT_EQ(ci_test::FromBase64(Ci(R"({"type":106,"randLen":1})").data).size(), 1u);
  EXPECT_EQ(ci_test::FromBase64(Ci(R"({"type":106,"randLen":65536})").data).size(), 65536u);
  EXPECT_NE(Ci(R"({"type":106,"randLen":32})").data, Ci(R"({"type":106,"randLen":32})").data);
}

TEST_F(CiLive, DeviceListsFollowWhatIsPluggedIn) {
  for (const char *serial : {"CI0000", "CI0002"}) CreateDevice(serial);
  MustTool("unplug --serial CI0002");
  const auto entry = [](const char *sn) {
    return std::string(R"({"keySN":")") + sn + R"(","vid":"ZS","skfLib":")" + ZEPH_SOFTKEY_LIB + R"(","type":0})";
  };
  EXPECT_EQ(Ci(R"({"type":100})").data, "[" + entry("ZS_CI0000") + "," + entry("ZS_CI0001") + "]");
  EXPECT_EQ(Ci(R"({"type":105})").data, R"(["ZS_CI0000","ZS_CI0001"])");
  for (const char *serial : {"CI0000", "CI0001"}) MustTool(std::string("delete-device --serial ") + serial);
  EXPECT_EQ(Ci(R"({"type":100})").text, R"({"type":100,"code":0,"data":"[]"})");
  EXPECT_EQ(Ci(R"({"type":105})").code, Signed(ERR_NO_KEY_FOUND));
}

}  // namespace
