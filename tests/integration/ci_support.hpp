// The end-to-end tests of the JSON command interface: one software key served
// through its own device configuration, and ZEPH_C_CI replies taken apart.
#pragma once

#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <cjson/cJSON.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "oracle.hpp"
#include "seal_record.hpp"
#include "softkey_env.hpp"
#include "zeph_c_ci.h"
#include "zeph_c_device.h"

namespace ci_test {

struct Reply {
  std::string text;  // as printed
  int64_t type = 0, code = 0;
  bool has_data = false;
  std::string data;  // a string's value, or the JSON text of anything else
};

inline Reply Ci(const std::string &request) {
  std::vector<char> out(1 << 20, '\0');
  EXPECT_EQ(ZEPH_C_CI(request.c_str(), out.data()), 0u);
  Reply r;
  r.text = out.data();
  cJSON *doc = cJSON_Parse(r.text.c_str());
  const cJSON *type = cJSON_GetObjectItemCaseSensitive(doc, "type");
  const cJSON *code = cJSON_GetObjectItemCaseSensitive(doc, "code");
  const cJSON *data = cJSON_GetObjectItemCaseSensitive(doc, "data");
  EXPECT_TRUE(cJSON_IsNumber(type) && cJSON_IsNumber(code)) << r.text;
  r.type = cJSON_IsNumber(type) ? static_cast<int64_t>(type->valuedouble) : -1;
  r.code = cJSON_IsNumber(code) ? static_cast<int64_t>(code->valuedouble) : -1;
  r.has_data = data != nullptr;
  if (cJSON_IsString(data)) {
    r.data = data->valuestring;
  } else if (data != nullptr) {
    char *text = cJSON_PrintUnformatted(data);
    r.data = text;
    cJSON_free(text);
  }
  cJSON_Delete(doc);
  return r;
}

// A request built from texts and numbers by key.
inline Reply Row(int type, const std::map<std::string, std::string> &texts,
                 const std::map<std::string, int> &numbers = {}) {
  cJSON *req = cJSON_CreateObject();
  cJSON_AddNumberToObject(req, "type", type);
  for (const auto &[k, v] : texts) cJSON_AddStringToObject(req, k.c_str(), v.c_str());
  for (const auto &[k, v] : numbers) cJSON_AddNumberToObject(req, k.c_str(), v);
  char *text = cJSON_PrintUnformatted(req);
  const Reply r = Ci(text);
  cJSON_free(text);
  cJSON_Delete(req);
  return r;
}

// A string member of a JSON text ("" when there is none).
inline std::string Member(const std::string &json, const char *key) {
  cJSON *doc = cJSON_Parse(json.c_str());
  const cJSON *item = cJSON_GetObjectItemCaseSensitive(doc, key);
  std::string out = cJSON_IsString(item) ? item->valuestring : "";
  cJSON_Delete(doc);
  return out;
}

inline std::string FileText(const std::string &path) {
  const std::vector<uint8_t> b = zeph_test::ReadBytes(path);
  return {b.begin(), b.end()};
}

// A status as a handler prints it (sign-extended from 32 bits).
inline int64_t Signed(uint32_t status) { return static_cast<int32_t>(status); }

using zeph_test::Base64;
using zeph_test::FromBase64;

// An SM2 pair made outside any key and a self-signed certificate for it:
// base64 of the certificate and of the PKCS#8 key.
inline std::pair<std::string, std::string> OutsideSm2Pair(const char *cn) {
  EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  X509 *x = X509_new();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), 7);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char *>(cn),
                             -1, -1, 0);
  X509_set_issuer_name(x, X509_get_subject_name(x));
  X509_gmtime_adj(X509_getm_notBefore(x), 0);
  X509_gmtime_adj(X509_getm_notAfter(x), 86400L * 365);
  X509_set_pubkey(x, key);
  X509_sign(x, key, EVP_sm3());
  unsigned char *cert = nullptr, *p8 = nullptr;
  const int cert_len = i2d_X509(x, &cert);
  PKCS8_PRIV_KEY_INFO *info = EVP_PKEY2PKCS8(key);
  const int p8_len = i2d_PKCS8_PRIV_KEY_INFO(info, &p8);
  std::pair<std::string, std::string> out{Base64({cert, cert + cert_len}), Base64({p8, p8 + p8_len})};
  OPENSSL_free(cert);
  OPENSSL_free(p8);
  PKCS8_PRIV_KEY_INFO_free(info);
  X509_free(x);
  EVP_PKEY_free(key);
  return out;
}

// Device CI0001 (keySN ZS_CI0001): VorliEcc with SM2 signing and encryption
// pairs in ECC, VorliRsa with an RSA 2048 signing pair in RSA1 and an RSA
// 1024 encryption pair in RSA2, 5 tries for every PIN. Vendor
// ZS is the software key, NOLIB a vendor whose library is missing.
class SoftKeyCi : public zeph_it::SoftkeyTest {
 protected:
  void SetUp() override {
    SoftkeyTest::SetUp();
    const std::string cfg = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB +
                            R"("},{"type":0,"vid":"NOLIB","skfLib":"/nonexistent/libzeph-nothing.so"}])";
    ASSERT_EQ(ZEPH_C_SetConfigInfo(cfg.c_str()), 0u);
    CreateDevice("CI0001");
    for (const char *app : {"VorliEcc", "VorliRsa"}) CreateApp("CI0001", app, 5);
    GenKey("CI0001", "VorliEcc", "ECC", "sm2", "both");
    GenKey("CI0001", "VorliRsa", "RSA1", "rsa2048");
    GenKey("CI0001", "VorliRsa", "RSA2", "rsa1024", "enc");
    sm2_cert_ = ExportCert("CI0001", "VorliEcc", "ECC");
    rsa_cert_ = ExportCert("CI0001", "VorliRsa", "RSA1");
    sm2_enc_cert_ = ExportCert("CI0001", "VorliEcc", "ECC", "enc");
    rsa_enc_cert_ = ExportCert("CI0001", "VorliRsa", "RSA2", "enc");
    vars_ = {{"keySN", "ZS_CI0001"},
             {"pin", zeph_it::kUserPin},
             {"adminPin", zeph_it::kAdminPin},
             {"authCode", "1234567812345678"},
             {"cert", Base64(sm2_cert_)},
             {"rsaCert", Base64(rsa_cert_)},
             {"encCert", Base64(sm2_enc_cert_)},
             {"rsaEncCert", Base64(rsa_enc_cert_)}};
    // Seals: the two samples and a text-form record named "电子印章" in GBK.
    const std::string seals = std::string(ZEPH_SOURCE_DIR) + "/tests/data/seals/";
    vars_["gbSeal"] = Base64(zeph_test::ReadBytes(seals + "gb-v4-user.esl"));
    vars_["sesSeal"] = Base64(zeph_test::ReadBytes(seals + "ses-v1-user.esl"));
    vars_["sealInfo"] =
        Base64(zeph_test::SealInfoRecord(4, 4000, 4000, "\xB5\xE7\xD7\xD3\xD3\xA1\xD5\xC2", {2024, 1, 1, 8, 0, 0},
                                         {2024, 1, 1, 8, 0, 0}, {2034, 1, 1, 8, 0, 0}));
    vars_["sealPic"] = "iVBORw0KGgo=";
    std::tie(vars_["impCert"], vars_["impKey"]) = OutsideSm2Pair("CI0001 imported");
  }

  // The request with every <name> of vars_ replaced by its value.
  std::string Fill(std::string text) const {
    for (const auto &[name, value] : vars_) {
      const std::string tag = "<" + name + ">";
      for (size_t at = text.find(tag); at != std::string::npos; at = text.find(tag, at + value.size())) {
        text.replace(at, tag.size(), value);
      }
    }
    return text;
  }

  std::vector<uint8_t> sm2_cert_, rsa_cert_, sm2_enc_cert_, rsa_enc_cert_;
  std::map<std::string, std::string> vars_;
};

}  // namespace ci_test
