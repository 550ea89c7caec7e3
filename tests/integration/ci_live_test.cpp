// Every live command of ZEPH_C_CI end to end: the built library, a software
// key made with the utility, requests as a host sends them.
#include <gtest/gtest.h>
#include <cjson/cJSON.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <set>
#include <string>
#include <vector>

#include "ci_support.hpp"
#include "zeph_c_status.h"
#include "zeph_skf.h"

namespace {

using ci_test::Ci;
using ci_test::Reply;
using ci_test::Signed;

// Signature check by OpenSSL alone, with the certificate's key.
bool OpenSslVerifies(const std::vector<uint8_t> &cert_der, const std::vector<uint8_t> &data,
                     const std::vector<uint8_t> &sig, const EVP_MD *rsa_md) {
  const unsigned char *p = cert_der.data();
  X509 *cert = d2i_X509(nullptr, &p, static_cast<long>(cert_der.size()));
  if (cert == nullptr) return false;
  EVP_PKEY *key = X509_get_pubkey(cert);
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  EVP_PKEY_CTX *pctx = nullptr;
  const bool sm2 = EVP_PKEY_is_a(key, "SM2") || EVP_PKEY_get_base_id(key) == EVP_PKEY_EC;
  int ok = 0;
  if (sm2) {
    pctx = EVP_PKEY_CTX_new(key, nullptr);
    static const char kId[] = "1234567812345678";
    EVP_PKEY_CTX_set1_id(pctx, kId, 16);
    EVP_MD_CTX_set_pkey_ctx(ctx, pctx);
    ok = EVP_DigestVerifyInit(ctx, nullptr, EVP_sm3(), nullptr, key);
  } else {
    ok = EVP_DigestVerifyInit(ctx, nullptr, rsa_md, nullptr, key);
  }
  if (ok == 1) ok = EVP_DigestVerify(ctx, sig.data(), sig.size(), data.data(), data.size());
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_CTX_free(pctx);
  EVP_PKEY_free(key);
  X509_free(cert);
  return ok == 1;
}

std::vector<uint8_t> Bytes(const std::string &s) { return {s.begin(), s.end()}; }

class CiLive : public ci_test::SoftKeyCi {};

TEST_F(CiLive, VersionAndDeviceLists) {
  EXPECT_EQ(Ci(R"({"type":102})").text, R"({"type":102,"code":0,"data":"95560"})");

  MustTool("create-device --serial CI0000");  // listed before CI0001 (name order)
  MustTool("create-device --serial CI0002");
  MustTool("unplug --serial CI0002");

  const Reply list = Ci(R"({"type":100})");
  ASSERT_EQ(list.code, 0) << list.text;
  ASSERT_TRUE(list.data_is_string);
  const std::string lib = ZEPH_SOFTKEY_LIB;
  EXPECT_EQ(list.data, R"([{"keySN":"ZS_CI0000","vid":"ZS","skfLib":")" + lib + R"(","type":0},)" +
                           R"({"keySN":"ZS_CI0001","vid":"ZS","skfLib":")" + lib + R"(","type":0}])");
  EXPECT_EQ(Ci(R"({"type":105})").text, R"({"type":105,"code":0,"data":"[\"ZS_CI0000\",\"ZS_CI0001\"]"})");

  // The vendor whose library did not load.
  const Reply errs = Ci(R"({"type":103})");
  ASSERT_EQ(errs.code, 0) << errs.text;
  cJSON *vids = cJSON_Parse(errs.data.c_str());
  ASSERT_TRUE(cJSON_IsArray(vids)) << errs.data;
  ASSERT_EQ(cJSON_GetArraySize(vids), 1);
  EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetArrayItem(vids, 0)), "NOLIB");
  cJSON_Delete(vids);

  MustTool("delete-device --serial CI0000");
  MustTool("delete-device --serial CI0001");
  EXPECT_EQ(Ci(R"({"type":100})").text, R"({"type":100,"code":0,"data":"[]"})");
  EXPECT_EQ(Ci(R"({"type":105})").text, R"({"type":105,"code":)" + std::to_string(Signed(ERR_NO_KEY_FOUND)) + "}");
}

TEST_F(CiLive, PinVerificationReportsTheRetryCountAlsoOnFailure) {
  struct Step {
    const char *request;
    int64_t code;
    const char *data;  // null: no "data"
  };
  const Step steps[] = {
      {R"({"type":101,"keySN":"<keySN>","pin":"<pin>","asymid":2})", 0, R"({"retryCnt":5})"},
      {R"({"type":101,"keySN":"<keySN>","pin":"00000000","asymid":2})", Signed(SAR_PIN_INCORRECT),
       R"({"retryCnt":4})"},
      {R"({"type":101,"keySN":"<keySN>","pin":"00000000","asymid":2})", Signed(SAR_PIN_INCORRECT),
       R"({"retryCnt":3})"},
      {R"({"type":101,"keySN":"<keySN>","pin":"<pin>","asymid":2})", 0, R"({"retryCnt":5})"},
      // No seal area on this key: the session fails, the count reads 0.
      {R"({"type":101,"keySN":"<keySN>","pin":"<pin>","asymid":4})", Signed(SAR_APPLICATION_NOT_EXISTS),
       R"({"retryCnt":0})"},
      // A key that is not there: no handle, so no count either.
      {R"({"type":101,"keySN":"ZS_NOSUCHKEY","pin":"<pin>","asymid":2})", Signed(SAR_DEVICE_REMOVED), nullptr},
  };
  for (const auto &s : steps) {
    const Reply r = Ci(Fill(s.request));
    EXPECT_EQ(r.code, s.code) << s.request << " -> " << r.text;
    EXPECT_EQ(r.has_data, s.data != nullptr) << r.text;
    if (s.data != nullptr) {
      EXPECT_TRUE(r.data_is_string) << r.text;
      EXPECT_EQ(r.data, s.data) << r.text;
    }
  }
}

TEST_F(CiLive, AreaCounts) {
  EXPECT_EQ(Ci(Fill(R"({"type":104,"keySN":"<keySN>"})")).text,
            R"({"type":104,"code":0,"data":"{\"RSA\":0,\"SM2\":1,\"SEAL\":0}"})");
  AddRsaArea();
  EXPECT_EQ(Ci(Fill(R"({"type":104,"keySN":"<keySN>"})")).text,
            R"({"type":104,"code":0,"data":"{\"RSA\":1,\"SM2\":1,\"SEAL\":0}"})");
}

TEST_F(CiLive, RandomBytesFromTheHostOrTheKey) {
  struct Case {
    std::string request;
    int64_t code;
    size_t bytes;
  };
  const Case cases[] = {
      {R"({"type":106,"randLen":1})", 0, 1},
      {R"({"type":106,"randLen":32})", 0, 32},
      {R"({"type":106,"randLen":65536})", 0, 65536},
      {R"({"type":106,"algID":48,"randLen":1})", 0, 48},  // "algID" comes first in its group
      {R"({"type":106,"randLen":16,"keySN":"<keySN>"})", 0, 16},
      {R"({"type":106})", Signed(ERR_INVALID_PARAMETER), 0},
      {R"({"type":106,"randLen":65537})", Signed(ERR_INVALID_PARAMETER), 0},
      {R"({"type":106,"randLen":-1})", Signed(ERR_INVALID_PARAMETER), 0},
      {R"({"type":106,"randLen":16,"keySN":"ZS_NOSUCHKEY"})", Signed(SAR_DEVICE_REMOVED), 0},
  };
  for (const auto &c : cases) {
    const Reply r = Ci(Fill(c.request));
    EXPECT_EQ(r.code, c.code) << c.request << " -> " << r.text.substr(0, 200);
    EXPECT_EQ(r.has_data, c.code == 0);
    if (c.code == 0) {
      EXPECT_EQ(ci_test::FromBase64(r.data).size(), c.bytes) << c.request;
    }
  }
  EXPECT_NE(Ci(R"({"type":106,"randLen":32})").data, Ci(R"({"type":106,"randLen":32})").data);
}

TEST_F(CiLive, DeviceFilesRoundTrip) {
  std::vector<uint8_t> content(256);
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<uint8_t>(i);
  const std::string b64 = ci_test::Base64(content);
  const std::string target = R"("keySN":"<keySN>","idx":7,"filepath":"blob")";

  struct Step {
    std::string request;
    int64_t code;
    const char *data;
  };
  const Step steps[] = {
      {R"({"type":107,"pin":"<pin>",)" + target + R"(,"raw":")" + b64 + "\"}", 0, nullptr},
      {R"({"type":108,)" + target + "}", 0, b64.c_str()},  // read rights: everyone
      {R"({"type":108,"pin":"<pin>",)" + target + "}", 0, b64.c_str()},
      {R"({"type":107,"pin":"00000000",)" + target + R"(,"raw":"AAAA"})", Signed(SAR_PIN_INCORRECT), nullptr},
      {R"({"type":108,)" + target + "}", 0, b64.c_str()},  // untouched by the refused write
      {R"({"type":107,"pin":"<pin>",)" + target + R"(,"raw":"aGk="})", 0, nullptr},
      {R"({"type":108,)" + target + "}", 0, "aGk="},  // rewritten at the new length
      {R"({"type":109,"pin":"<pin>",)" + target + "}", 0, nullptr},
      {R"({"type":108,)" + target + "}", Signed(SAR_FILE_NOT_EXIST), nullptr},
      {R"({"type":109,"pin":"<pin>",)" + target + "}", Signed(SAR_FILE_NOT_EXIST), nullptr},
      // What the handler refuses before touching the key.
      {R"({"type":107,"pin":"<pin>","keySN":"<keySN>","filepath":"blob","raw":"AAAA"})",
       Signed(ERR_INVALID_PARAMETER), nullptr},
      {R"({"type":108,"keySN":"<keySN>","idx":7})", Signed(ERR_INVALID_PARAMETER), nullptr},
      {R"({"type":109,"pin":"<pin>","keySN":"<keySN>","idx":7,"filepath":""})", Signed(ERR_INVALID_PARAMETER),
       nullptr},
      {R"({"type":107,"pin":"<pin>",)" + target + R"(,"raw":"A@A="})", Signed(ERR_BASE64_INVALID), nullptr},
      {R"({"type":107,"pin":"<pin>",)" + target + R"(,"raw":"QQ"})", Signed(ERR_BASE64_INVALID), nullptr},
      {R"({"type":108,"keySN":"<keySN>","idx":7,"filepath":"never-written"})", Signed(SAR_FILE_NOT_EXIST),
       nullptr},
  };
  for (const auto &s : steps) {
    const Reply r = Ci(Fill(s.request));
    EXPECT_EQ(r.code, s.code) << s.request << " -> " << r.text;
    EXPECT_EQ(r.has_data, s.data != nullptr) << r.text;
    if (s.data != nullptr) {
      EXPECT_EQ(r.data, s.data);
    }
  }
}

TEST_F(CiLive, Sm2SignaturesVerifyHereAndWithOpenSsl) {
  const std::vector<uint8_t> cert = Certificate("VorliEcc", "ECC");
  const Reply first = Ci(Fill(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signData":"hello"})"));
  ASSERT_EQ(first.code, 0) << first.text;
  const Reply second = Ci(Fill(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signData":"hello"})"));
  ASSERT_EQ(second.code, 0) << second.text;
  EXPECT_NE(first.data, second.data);
  for (const Reply *r : {&first, &second}) {
    const auto der = ci_test::FromBase64(r->data);
    EXPECT_GE(der.size(), 70u);
    EXPECT_LE(der.size(), 72u);
    EXPECT_TRUE(OpenSslVerifies(cert, Bytes("hello"), der, nullptr));
    EXPECT_EQ(Ci(Fill(R"({"type":301,"cert":"<cert>","signData":"hello","raw":")" + r->data + "\"}")).text,
              R"({"type":301,"code":0})");
  }
  const std::string bad = std::to_string(Signed(ERR_SIGNATURE_INVALID));
  EXPECT_EQ(Ci(Fill(R"({"type":301,"cert":"<cert>","signData":"hellO","raw":")" + first.data + "\"}")).text,
            R"({"type":301,"code":)" + bad + "}");

  // Binary data travels in base64 ("signDataType":1).
  const std::vector<uint8_t> blob = {0x00, 0xFF, 0x10, 0x80, 0x00};
  const std::string blob64 = ci_test::Base64(blob);
  const Reply bin = Ci(Fill(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signDataType":1,"signData":")" +
                            blob64 + "\"}"));
  ASSERT_EQ(bin.code, 0) << bin.text;
  EXPECT_TRUE(OpenSslVerifies(cert, blob, ci_test::FromBase64(bin.data), nullptr));
  EXPECT_EQ(Ci(Fill(R"({"type":301,"cert":"<cert>","signDataType":1,"signData":")" + blob64 + R"(","raw":")" +
                    bin.data + "\"}"))
                .code,
            0);

  struct Refusal {
    const char *request;
    int64_t code;
  };
  const Refusal refusals[] = {
      {R"({"type":300,"keySN":"<keySN>","pin":"00000000","asymid":2,"signData":"x"})", Signed(SAR_PIN_INCORRECT)},
      {R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":4,"signData":"x"})", Signed(ERR_UNSUPPORTED_VALUE)},
      {R"({"type":300,"keySN":"<keySN>","pin":"<pin>","signData":"x"})", Signed(ERR_UNSUPPORTED_VALUE)},
      {R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signDataType":2,"signData":"x"})",
       Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":2,"signDataType":1,"signData":"Q"})",
       Signed(ERR_BASE64_INVALID)},
      {R"({"type":301,"signData":"x","raw":"AAAA"})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":301,"cert":"<cert>","signData":"x"})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":301,"cert":"AAAA","signData":"x","raw":"AAAA"})", Signed(ERR_SIGNATURE_INVALID)},
  };
  for (const auto &r : refusals) {
    const Reply reply = Ci(Fill(r.request));
    EXPECT_EQ(reply.code, r.code) << r.request << " -> " << reply.text;
    EXPECT_FALSE(reply.has_data) << reply.text;
  }
}

TEST_F(CiLive, RsaSignaturesByDigest) {
  AddRsaArea();
  const std::vector<uint8_t> cert = Certificate("VorliRsa", "RSA1");
  const std::string cert64 = ci_test::Base64(cert);
  struct Case {
    const char *alg;  // "" for the default
    const EVP_MD *md;
  };
  const Case cases[] = {{"", EVP_sha256()}, {R"(,"algID":4)", EVP_sha256()}, {R"(,"algID":8)", EVP_sha384()},
                        {R"(,"algID":16)", EVP_sha512()}};
  for (const auto &c : cases) {
    const Reply sig = Ci(Fill(std::string(R"({"type":300,"keySN":"<keySN>","pin":"<pin>","asymid":1,"signData":"data")") +
                              c.alg + "}"));
    ASSERT_EQ(sig.code, 0) << sig.text;
    EXPECT_EQ(ci_test::FromBase64(sig.data).size(), 256u);
    EXPECT_TRUE(OpenSslVerifies(cert, Bytes("data"), ci_test::FromBase64(sig.data), c.md)) << c.alg;
    EXPECT_EQ(Ci(std::string(R"({"type":301,"cert":")") + cert64 + R"(","signData":"data","raw":")" + sig.data +
                 "\"" + c.alg + "}")
                  .code,
              0)
        << c.alg;
  }
}

TEST_F(CiLive, PinChangeUnlockAndDeviceAuthentication) {
  struct Step {
    const char *request;
    int64_t code;
  };
  const Step steps[] = {
      {R"({"type":500,"keySN":"<keySN>","asymid":2,"pin":"<pin>","newPin":"11112222"})", 0},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"<pin>"})", Signed(SAR_PIN_INCORRECT)},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"11112222"})", 0},
      {R"({"type":500,"keySN":"<keySN>","asymid":2,"pin":"11112222"})", Signed(ERR_INVALID_PARAMETER)},
      // Lock the PIN, then unblock it with the administrator PIN.
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"99999999"})", Signed(SAR_PIN_INCORRECT)},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"99999999"})", Signed(SAR_PIN_INCORRECT)},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"99999999"})", Signed(SAR_PIN_INCORRECT)},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"99999999"})", Signed(SAR_PIN_INCORRECT)},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"99999999"})", Signed(SAR_PIN_LOCKED)},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"11112222"})", Signed(SAR_PIN_LOCKED)},
      {R"({"type":502,"keySN":"<keySN>","asymid":2,"adminPin":"00000000","newPin":"33334444"})",
       Signed(SAR_PIN_INCORRECT)},
      {R"({"type":502,"keySN":"<keySN>","asymid":2,"adminPin":"<adminPin>","newPin":"33334444"})", 0},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"33334444"})", 0},
      {R"({"type":502,"keySN":"<keySN>","asymid":7,"adminPin":"<adminPin>","newPin":"33334444"})",
       Signed(ERR_UNSUPPORTED_VALUE)},
      // A new device authentication code: the old one no longer opens the device.
      {R"({"type":503,"keySN":"<keySN>","pin":"<authCode>","authCode":"8765432187654321"})", 0},
      {R"({"type":503,"keySN":"<keySN>","pin":"<authCode>","authCode":"1111111111111111"})", Signed(SAR_FAIL)},
      {R"({"type":503,"keySN":"<keySN>","pin":"8765432187654321"})", Signed(ERR_INVALID_PARAMETER)},
      {R"({"type":501,"keySN":"<keySN>","asymid":2,"authCode":"<authCode>","adminPin":"<adminPin>","pin":"<pin>"})",
       Signed(SAR_FAIL)},
      // A fresh SM2 area under the new code: new PINs, no key pair any more.
      {R"({"type":501,"keySN":"<keySN>","asymid":2,"authCode":"8765432187654321","adminPin":"<adminPin>",)"
       R"("pin":"55556666","retryCnt":3})",
       0},
      {R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"55556666"})", 0},
      {R"({"type":300,"keySN":"<keySN>","asymid":2,"pin":"55556666","signData":"x"})", Signed(SAR_KEYNOTFOUNTERR)},
      {R"({"type":501,"keySN":"<keySN>","asymid":4,"authCode":"8765432187654321","adminPin":"<adminPin>",)"
       R"("pin":"55556666"})",
       0},
      {R"({"type":101,"keySN":"<keySN>","asymid":4,"pin":"55556666"})", 0},
      {R"({"type":501,"keySN":"<keySN>","asymid":3,"authCode":"8765432187654321","adminPin":"<adminPin>",)"
       R"("pin":"55556666"})",
       Signed(ERR_UNSUPPORTED_VALUE)},
  };
  for (const auto &s : steps) {
    const Reply r = Ci(Fill(s.request));
    EXPECT_EQ(r.code, s.code) << s.request << " -> " << r.text;
  }
  // The retry count of the fresh area is the one asked for.
  EXPECT_EQ(Ci(Fill(R"({"type":101,"keySN":"<keySN>","asymid":2,"pin":"55556666"})")).data, R"({"retryCnt":3})");
}

TEST_F(CiLive, BareRequestsNeverCrashAndFailCleanly) {
  // Each live command with nothing but its code.
  struct Case {
    int type;
    int64_t code;
  };
  const Case cases[] = {
      {100, 0},
      {101, Signed(ERR_PIN_VERIFY_FAILED)},  // no keySN: no handle
      {102, 0},
      {103, 0},
      {104, Signed(ERR_PIN_VERIFY_FAILED)},
      {105, 0},
      {106, Signed(ERR_INVALID_PARAMETER)},
      {107, Signed(ERR_INVALID_PARAMETER)},
      {108, Signed(ERR_INVALID_PARAMETER)},
      {109, Signed(ERR_INVALID_PARAMETER)},
      {300, Signed(ERR_UNSUPPORTED_VALUE)},
      {301, Signed(ERR_INVALID_PARAMETER)},
      {500, Signed(ERR_INVALID_PARAMETER)},
      {501, Signed(ERR_UNSUPPORTED_VALUE)},
      {502, Signed(ERR_INVALID_PARAMETER)},
      {503, Signed(ERR_INVALID_PARAMETER)},
  };
  for (const auto &c : cases) {
    const Reply r = Ci(R"({"type":)" + std::to_string(c.type) + "}");
    EXPECT_EQ(r.code, c.code) << r.text;
  }
}

}  // namespace
