// The live commands end to end beyond the worked session of docs/ci.md
// (which ci_docs_test.cpp runs): signatures checked by OpenSSL alone, device
// lists with several keys, locked PINs, and every refusal with its status.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "ci_support.hpp"
#include "zeph_c_status.h"
#include "zeph_skf.h"

namespace {

using ci_test::Ci;
using ci_test::Reply;
using ci_test::Signed;

// Signature check by OpenSSL with the certificate's key (SM2 with the
// default identity, or RSA PKCS#1 v1.5 with md).
bool OpenSslVerifies(const std::vector<uint8_t> &cert_der, const std::string &data, const std::string &sig_b64,
                     const EVP_MD *md) {
  const auto sig = ci_test::FromBase64(sig_b64);
  const unsigned char *p = cert_der.data();
  X509 *cert = d2i_X509(nullptr, &p, static_cast<long>(cert_der.size()));
  EVP_PKEY *key = cert != nullptr ? X509_get_pubkey(cert) : nullptr;
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  EVP_PKEY_CTX *pctx = nullptr;
  int ok = key != nullptr ? 1 : 0;
  if (ok == 1 && md == nullptr) {
    pctx = EVP_PKEY_CTX_new(key, nullptr);
    EVP_PKEY_CTX_set1_id(pctx, "1234567812345678", 16);
    EVP_MD_CTX_set_pkey_ctx(ctx, pctx);
    md = EVP_sm3();
  }
  if (ok == 1) ok = EVP_DigestVerifyInit(ctx, nullptr, md, nullptr, key);
  if (ok == 1) {
    ok = EVP_DigestVerify(ctx, sig.data(), sig.size(), reinterpret_cast<const unsigned char *>(data.data()),
                          data.size());
  }
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_CTX_free(pctx);
  EVP_PKEY_free(key);
  X509_free(cert);
  return ok == 1;
}

class CiLive : public ci_test::SoftKeyCi {};

TEST_F(CiLive, SignaturesVerifyWithOpenSslAlone) {
  const auto sm2_cert = Certificate("VorliEcc", "ECC");
  const Reply a = Ci(Fill(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signData":"hello"})"));
  const Reply b = Ci(Fill(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signData":"hello"})"));
  ASSERT_EQ(a.code, 0) << a.text;
  EXPECT_NE(a.data, b.data);  // SM2 signatures are randomised
  EXPECT_TRUE(OpenSslVerifies(sm2_cert, "hello", a.data, nullptr));
  EXPECT_TRUE(OpenSslVerifies(sm2_cert, "hello", b.data, nullptr));
  EXPECT_FALSE(OpenSslVerifies(sm2_cert, "hellO", a.data, nullptr));
  const Reply bin = Ci(Fill(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signDataType":1,)"
                            R"("signData":"AP8QgAA="})"));
  EXPECT_TRUE(OpenSslVerifies(sm2_cert, std::string("\x00\xff\x10\x80\x00", 5), bin.data, nullptr));

  AddRsaArea();
  const auto rsa_cert = Certificate("VorliRsa", "RSA1");
  const struct {
    const char *alg;
    const EVP_MD *md;
  } digests[] = {{"", EVP_sha256()}, {R"(,"algID":8)", EVP_sha384()}, {R"(,"algID":16)", EVP_sha512()}};
  for (const auto &d : digests) {
    const Reply sig = Ci(
        Fill(std::string(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":1,"signData":"data")") + d.alg + "}"));
    ASSERT_EQ(sig.code, 0) << sig.text;
    EXPECT_TRUE(OpenSslVerifies(rsa_cert, "data", sig.data, d.md)) << d.alg;
  }
}

TEST_F(CiLive, DeviceListsFollowWhatIsPluggedIn) {
  MustTool("create-device --serial CI0000");
  MustTool("create-device --serial CI0002");
  MustTool("unplug --serial CI0002");
  const std::string lib = ZEPH_SOFTKEY_LIB;
  EXPECT_EQ(Ci(R"({"type":100})").data, R"([{"keySN":"ZS_CI0000","vid":"ZS","skfLib":")" + lib + R"(","type":0},)" +
                                            R"({"keySN":"ZS_CI0001","vid":"ZS","skfLib":")" + lib + R"(","type":0}])");
  EXPECT_EQ(Ci(R"({"type":105})").data, R"(["ZS_CI0000","ZS_CI0001"])");
  MustTool("delete-device --serial CI0000");
  MustTool("delete-device --serial CI0001");
  EXPECT_EQ(Ci(R"({"type":100})").text, R"({"type":100,"code":0,"data":"[]"})");
  EXPECT_EQ(Ci(R"({"type":105})").code, Signed(ERR_NO_KEY_FOUND));
}

TEST_F(CiLive, LockedPinsUnlockAndFilesSurviveRefusedWrites) {
  const std::string file = R"("keySN":"<keySN>","idx":7,"filepath":"blob")";
  std::vector<uint8_t> all(256);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
  const std::string all64 = ci_test::Base64(all);
  const struct {
    std::string request;
    int64_t code;
    std::string data;
  } steps[] = {
      {R"({"type":107,"pin":"<pin>",)" + file + R"(,"raw":")" + all64 + "\"}", 0, ""},
      {R"({"type":107,"pin":"00000000",)" + file + R"(,"raw":"AAAA"})", Signed(SAR_PIN_INCORRECT), ""},
      {R"({"type":108,)" + file + "}", 0, all64},
      {R"({"type":107,"pin":"<pin>",)" + file + R"(,"raw":"aGk="})", 0, ""},
      {R"({"type":108,)" + file + "}", 0, "aGk="},  // rewritten at its new length
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"00000000"})", Signed(SAR_PIN_INCORRECT), R"({"retryCnt":4})"},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"00000000"})", Signed(SAR_PIN_INCORRECT), R"({"retryCnt":3})"},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"00000000"})", Signed(SAR_PIN_INCORRECT), R"({"retryCnt":2})"},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"00000000"})", Signed(SAR_PIN_INCORRECT), R"({"retryCnt":1})"},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"00000000"})", Signed(SAR_PIN_LOCKED), R"({"retryCnt":0})"},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"<pin>"})", Signed(SAR_PIN_LOCKED), R"({"retryCnt":0})"},
      {R"({"type":300,"keySN":"<keySN>","asymid":2,"pin":"<pin>","signData":"x"})", Signed(SAR_PIN_LOCKED), ""},
      {R"({"type":502,"keySN":"<keySN>","asymid":2,"adminPin":"00000000","newPin":"33334444"})",
       Signed(SAR_PIN_INCORRECT), ""},
      {R"({"type":502,"keySN":"<keySN>","asymid":2,"adminPin":"<adminPin>","newPin":"33334444"})", 0, ""},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"33334444"})", 0, R"({"retryCnt":5})"},
  };
  for (const auto &s : steps) {
    const Reply r = Ci(Fill(s.request));
    EXPECT_EQ(r.code, s.code) << s.request << " -> " << r.text;
    EXPECT_EQ(r.data, s.data) << s.request;
  }
}

TEST_F(CiLive, RefusalsCarryTheirStatusAndNoData) {
  const struct {
    const char *request;
    int64_t code;
  } cases[] = {
      // Requests with nothing but their code.
      {R"({"type":101})", Signed(ERR_PIN_VERIFY_FAILED)},  // no keySN: no handle
      {R"({"type":104})", Signed(ERR_PIN_VERIFY_FAILED)},
      {R"({"type":106})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":107})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":108})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":109})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":300})", Signed(ERR_UNSUPPORTED_VALUE)},
      {R"({"type":301})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":500})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":501})", Signed(ERR_UNSUPPORTED_VALUE)},
      {R"({"type":502})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":503})", Signed(ERR_INVALID_PARAMETER)},
      // A key that is not there.
      {R"({"type":101,"keySN":"ZS_NOSUCHKEY","pin":"<pin>","asymid":2})", Signed(SAR_DEVICE_REMOVED)},
      {R"({"type":106,"randLen":16,"keySN":"ZS_NOSUCHKEY"})", Signed(SAR_DEVICE_REMOVED)},
      // Out of range or malformed.
      {R"({"type":106,"randLen":65537})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":106,"randLen":-1})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":107,"pin":"<pin>","keySN":"<keySN>","filepath":"f","raw":"AAAA"})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":109,"pin":"<pin>","keySN":"<keySN>","idx":7,"filepath":""})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":107,"pin":"<pin>","keySN":"<keySN>","idx":7,"filepath":"f","raw":"QQ"})", Signed(ERR_BASE64_INVALID)},
      {R"({"type":109,"pin":"<pin>","keySN":"<keySN>","idx":7,"filepath":"f"})", Signed(SAR_FILE_NOT_EXIST)},
      {R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signDataType":2,"signData":"x"})",
       Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signDataType":1,"signData":"Q"})",
       Signed(ERR_BASE64_INVALID)},
      {R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":1,"signData":"x"})", Signed(SAR_APPLICATION_NOT_EXISTS)},
      {R"({"type":301,"cert":"<cert>","signData":"x"})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":301,"cert":"AAAA","signData":"x","raw":"AAAA"})", Signed(ERR_SIGNATURE_INVALID)},
      {R"({"type":502,"keySN":"<keySN>","asymid":7,"adminPin":"<adminPin>","newPin":"33334444"})",
       Signed(ERR_UNSUPPORTED_VALUE)},
      {R"({"type":501,"keySN":"<keySN>","asymid":3,"authCode":"<authCode>","adminPin":"<adminPin>","pin":"<pin>"})",
       Signed(ERR_UNSUPPORTED_VALUE)},
  };
  for (const auto &c : cases) {
    const Reply r = Ci(Fill(c.request));
    EXPECT_EQ(r.code, c.code) << c.request << " -> " << r.text;
    EXPECT_FALSE(r.has_data) << r.text;
  }
  // Random sizes at both ends, and two draws differ.
  EXPECT_EQ(ci_test::FromBase64(Ci(R"({"type":106,"randLen":1})").data).size(), 1u);
  EXPECT_EQ(ci_test::FromBase64(Ci(R"({"type":106,"randLen":65536})").data).size(), 65536u);
  EXPECT_NE(Ci(R"({"type":106,"randLen":32})").data, Ci(R"({"type":106,"randLen":32})").data);
}

}  // namespace
