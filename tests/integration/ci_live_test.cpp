// The live commands beyond the worked session of docs/ci.md: signatures
// checked by OpenSSL alone, every refusal, locked PINs and device lists.
#include <algorithm>
#include <cstdio>
#include <filesystem>

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
  };
  for (const auto &c : cases) {
    const Reply r = Ci(Fill(std::string(R"({"type":300,"keySN":"<keySN>","pin":"<pin>",)") + c.keys + "}"));
    ASSERT_EQ(r.code, 0) << r.text;
    EXPECT_TRUE(OpenSslVerifies(c.md ? rsa_cert_ : sm2_cert_, c.data, r.data, c.md)) << c.keys;
    EXPECT_FALSE(OpenSslVerifies(c.md ? rsa_cert_ : sm2_cert_, c.data + "!", r.data, c.md)) << c.keys;
  }
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

// Refused before anything is deleted: the area keeps its keys, certificates
// and PINs, the device its authentication code.
TEST_F(CiLive, RefusedAreaParametersAndOverlongCodesChangeNothing) {
  const std::string init = R"({"type":501,"keySN":"<keySN>","asymid":2,)",
                    good = R"("authCode":"<authCode>","adminPin":"<adminPin>",)";
  const struct {
    std::string request;
    uint32_t code;
  } rows[] = {
      {init + good + R"("pin":"123"})", SAR_PIN_LEN_RANGE},
      {init + good + R"("pin":"12345678901234567"})", SAR_PIN_LEN_RANGE},
      {init + R"("authCode":"<authCode>","adminPin":"1234","pin":"<pin>"})", SAR_PIN_LEN_RANGE},
      {init + good + R"("pin":"<pin>","retryCnt":300})", ERR_INVALID_PARAMETER},
      {init + good + R"("pin":"<pin>","retryCnt":-1})", ERR_INVALID_PARAMETER},
      {init + R"("authCode":"1234567812345678-and-anything-after","adminPin":"<adminPin>","pin":"<pin>"})",
       ERR_INVALID_PARAMETER},
      {R"({"type":503,"keySN":"<keySN>","pin":"1234567812345678-and-anything-after","authCode":"8765432187654321"})",
       ERR_INVALID_PARAMETER},
  };
  for (const auto &r : rows) EXPECT_EQ(Ci(Fill(r.request)).code, Signed(r.code)) << r.request;
  const Reply sig = Ci(Fill(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signData":"kept"})"));
  ASSERT_EQ(sig.code, 0) << sig.text;
  EXPECT_TRUE(OpenSslVerifies(sm2_cert_, "kept", sig.data, nullptr));
  EXPECT_EQ(ExportCert("CI0001", "VorliEcc", "ECC"), sm2_cert_);
  EXPECT_EQ(Ci(Fill(R"({"type":503,"keySN":"<keySN>","pin":"<authCode>","authCode":"<authCode>"})")).code, 0);
}

// Device names longer than any fixed buffer: 140 keys of 30-character
// serials, made by writing their records directly (the utility would take
// seconds). A vendor that cannot list them is an error, never "no keys".
TEST_F(CiLive, ManyKeysAreListedAndAVendorThatCannotListIsAnError) {
  const std::filesystem::path &dir = root.path();
  const std::vector<uint8_t> bytes = zeph_test::ReadBytes((dir / "CI0001" / "device.json").string());
  const std::string record(bytes.begin(), bytes.end());
  std::vector<std::string> want = {"ZS_CI0001"};
  for (int i = 0; i < 140; ++i) {
    char serial[32];
    std::snprintf(serial, sizeof serial, "MANY%03d-abcdefghijklmnopqrstu", i);
    std::string text = record;
    text.replace(text.find("CI0001"), 6, serial);
    std::filesystem::create_directory(dir / serial);
    std::filesystem::permissions(dir / serial, std::filesystem::perms::owner_all);
    zeph_test::WriteBytes((dir / serial / "device.json").string(), {text.begin(), text.end()});
    std::filesystem::permissions(dir / serial / "device.json",
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    want.push_back(std::string("ZS_") + serial);
  }
  const Reply list = Ci(R"({"type":105})");
  ASSERT_EQ(list.code, 0) << list.text.substr(0, 200);
  std::vector<std::string> got;
  cJSON *names = cJSON_Parse(list.data.c_str());
  for (const cJSON *n = names != nullptr ? names->child : nullptr; n != nullptr; n = n->next) {
    got.push_back(n->valuestring);
  }
  cJSON_Delete(names);
  std::sort(got.begin(), got.end());
  std::sort(want.begin(), want.end());
  EXPECT_EQ(got, want);

  setenv("ZEPH_SOFTKEY_FAULT", "SKF_EnumDev:*:0x0A000001", 1);
  EXPECT_EQ(Ci(R"({"type":100})").text, R"({"type":100,"code":167772161})");
  EXPECT_EQ(Ci(R"({"type":103})").data, R"(["ZS", "NOLIB"])");
  unsetenv("ZEPH_SOFTKEY_FAULT");
  EXPECT_EQ(Ci(R"({"type":103})").data, R"(["NOLIB"])");
}

TEST_F(CiLive, DeviceListsFollowWhatIsPluggedIn) {
  CreateDevice("CI0000");
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
