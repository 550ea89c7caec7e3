#include "ci_support.hpp"

#include <cjson/cJSON.h>
#include <openssl/evp.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "zeph_c_ci.h"
#include "zeph_c_device.h"

namespace ci_test {
namespace {

void Replace(std::string *text, const std::string &from, const std::string &to) {
  for (size_t at = text->find(from); at != std::string::npos; at = text->find(from, at + to.size())) {
    text->replace(at, from.size(), to);
  }
}

// One configuration for the whole process: the device table is built once.
// The second vendor's library does not exist, so it is the one error status.
void ConfigureOnce() {
  static const bool done = [] {
    const std::string cfg = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB +
                            R"("},{"type":0,"vid":"NOLIB","skfLib":"/nonexistent/libzeph-nothing.so"}])";
    return ZEPH_C_SetConfigInfo(cfg.c_str()) == 0;
  }();
  ASSERT_TRUE(done);
}

}  // namespace

Reply Ci(const std::string &request) {
  std::vector<char> out(1 << 20, '\0');
  EXPECT_EQ(ZEPH_C_CI(request.c_str(), out.data()), 0u);
  Reply r;
  r.text = out.data();
  cJSON *doc = cJSON_Parse(r.text.c_str());
  EXPECT_TRUE(cJSON_IsObject(doc)) << r.text;
  const cJSON *type = cJSON_GetObjectItemCaseSensitive(doc, "type");
  const cJSON *code = cJSON_GetObjectItemCaseSensitive(doc, "code");
  const cJSON *data = cJSON_GetObjectItemCaseSensitive(doc, "data");
  EXPECT_TRUE(cJSON_IsNumber(type) && cJSON_IsNumber(code)) << r.text;
  if (cJSON_IsNumber(type)) r.type = static_cast<int64_t>(type->valuedouble);
  if (cJSON_IsNumber(code)) r.code = static_cast<int64_t>(code->valuedouble);
  r.has_data = data != nullptr;
  r.data_is_string = cJSON_IsString(data);
  if (r.data_is_string) {
    r.data = data->valuestring;
  } else if (data != nullptr) {
    char *text = cJSON_PrintUnformatted(data);
    r.data = text;
    cJSON_free(text);
  }
  cJSON_Delete(doc);
  return r;
}

std::string Base64(const std::vector<uint8_t> &bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int n =
      EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()), bytes.data(), static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

std::vector<uint8_t> FromBase64(const std::string &text) {
  std::vector<uint8_t> out(text.size() / 4 * 3 + 3);
  const int n =
      EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
  if (n < 0) return {};
  size_t pads = 0;
  while (pads < 2 && pads < text.size() && text[text.size() - 1 - pads] == '=') ++pads;
  out.resize(static_cast<size_t>(n) - pads);
  return out;
}

void SoftKeyCi::SetUp() {
  ConfigureOnce();
  setenv("ZEPH_SOFTKEY_ROOT", root_.path().c_str(), 1);
  const std::string dev = std::string(" --serial ") + kSerial;
  MustTool("create-device" + dev);
  MustTool("create-app" + dev + " --app VorliEcc --admin-pin " + kAdminPin + " --user-pin " + kUserPin +
           " --admin-retry " + std::to_string(kRetries) + " --user-retry " + std::to_string(kRetries));
  MustTool("gen-key" + dev + " --app VorliEcc --container ECC --alg sm2 --usage sign --user-pin " + kUserPin);
  cert_b64_ = Base64(Certificate("VorliEcc", "ECC"));
}

void SoftKeyCi::TearDown() { unsetenv("ZEPH_SOFTKEY_ROOT"); }

int SoftKeyCi::Tool(const std::string &args, std::string *out) const {
  const std::string cmd = std::string(ZEPH_SOFTKEY_TOOL) + " --root '" + root_.path().string() + "' " + args + " 2>&1";
  FILE *p = popen(cmd.c_str(), "r");
  if (p == nullptr) return -1;
  std::string text;
  char buf[4096];
  size_t n = 0;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) text.append(buf, n);
  const int rc = pclose(p);
  if (out != nullptr) *out = text;
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

void SoftKeyCi::MustTool(const std::string &args) const {
  std::string out;
  ASSERT_EQ(Tool(args, &out), 0) << args << "\n" << out;
}

void SoftKeyCi::AddRsaArea() const {
  const std::string dev = std::string(" --serial ") + kSerial;
  MustTool("create-app" + dev + " --app VorliRsa --admin-pin " + kAdminPin + " --user-pin " + kUserPin);
  MustTool("gen-key" + dev + " --app VorliRsa --container RSA1 --alg rsa2048 --user-pin " + kUserPin);
}

std::vector<uint8_t> SoftKeyCi::Certificate(const std::string &app, const std::string &container) const {
  const std::string path = root_.file("cert-" + app + "-" + container + ".der");
  std::string out;
  EXPECT_EQ(Tool(std::string("export-cert --serial ") + kSerial + " --app " + app + " --container " + container +
                     " --der --out '" + path + "'",
                 &out),
            0)
      << out;
  return zeph_test::ReadBytes(path);
}

std::string SoftKeyCi::Fill(std::string request) const {
  Replace(&request, "<keySN>", kKeySN);
  Replace(&request, "<pin>", kUserPin);
  Replace(&request, "<adminPin>", kAdminPin);
  Replace(&request, "<authCode>", kAuthCode);
  Replace(&request, "<cert>", cert_b64_);
  return request;
}

}  // namespace ci_test
