// Shared plumbing of the command groups that speak ZEPH_C_CI.
#include "ci_client.hpp"

#include <cstring>
#include <memory>

#include <cjson/cJSON.h>
#include <sys/stat.h>

#include "zeph_c_api.h"
#include "zeph_c_ci.h"
#include "zeph_c_device.h"
#include "zeph_c_utils.h"
#include "zeph_skf.h"

namespace zeph_cli {
namespace {

// Large enough for any reply of the library's commands (device files are
// small); the bounded entry refuses rather than overruns if one is not.
constexpr uint32_t kResponseCapacity = 8u << 20;

// What the common key statuses mean to someone at a shell.
const char *DeviceWords(uint32_t status) {
  switch (status) {
    case SAR_FAIL:
      return "the key refused";
    case SAR_DEVICE_REMOVED:
      return "no such key";
    case SAR_PIN_INCORRECT:
      return "wrong PIN";
    case SAR_PIN_LOCKED:
      return "PIN locked";
    case SAR_PIN_LEN_RANGE:
      return "PIN length out of range";
    case SAR_USER_NOT_LOGGED_IN:
      return "PIN not verified";
    case SAR_APPLICATION_NOT_EXISTS:
      return "no such area on the key";
    case SAR_FILE_NOT_EXIST:
      return "no such file";
    case SAR_KEYNOTFOUNTERR:
      return "no key pair in that area";
    case SAR_CERTNOTFOUNTERR:
      return "no certificate in that area";
    default:
      return nullptr;
  }
}

struct JsonFree {
  void operator()(cJSON *p) const { cJSON_Delete(p); }
};
using Json = std::unique_ptr<cJSON, JsonFree>;

}  // namespace

CiRequest::CiRequest(int type) : doc_(cJSON_CreateObject()) { Set("type", type); }
CiRequest::~CiRequest() { cJSON_Delete(doc_); }

CiRequest &CiRequest::Set(const char *key, const std::string &text) {
  cJSON_DeleteItemFromObjectCaseSensitive(doc_, key);
  cJSON_AddStringToObject(doc_, key, text.c_str());
  return *this;
}

CiRequest &CiRequest::Set(const char *key, int64_t number) {
  cJSON_DeleteItemFromObjectCaseSensitive(doc_, key);
  cJSON_AddNumberToObject(doc_, key, static_cast<double>(number));
  return *this;
}

std::string CiRequest::Text() const {
  char *text = cJSON_PrintUnformatted(doc_);
  std::string out = text != nullptr ? text : "";
  cJSON_free(text);
  return out;
}

bool SendCi(const std::string &request, CiReply *reply, std::string *error) {
  std::vector<char> buffer(kResponseCapacity);
  uint32_t required = 0;
  const uint32_t rv = ZEPH_C_CI_Ex(request.c_str(), buffer.data(), kResponseCapacity, &required);
  if (rv != 0 && rv != ERR_BUFFER_TOO_SMALL) {
    *error = "the library gave no response: " + StatusText(rv);
    return false;
  }
  reply->text = buffer.data();
  const Json doc(cJSON_Parse(reply->text.c_str()));
  const cJSON *code = cJSON_GetObjectItemCaseSensitive(doc.get(), "code");
  if (!cJSON_IsNumber(code)) {
    *error = "unreadable response: " + reply->text;
    return false;
  }
  reply->code = static_cast<int64_t>(code->valuedouble);
  if (rv == ERR_BUFFER_TOO_SMALL) {
    *error = "the response needs " + std::to_string(required) + " bytes; its data was dropped";
    return false;
  }
  const cJSON *data = cJSON_GetObjectItemCaseSensitive(doc.get(), "data");
  reply->has_data = data != nullptr;
  if (cJSON_IsString(data)) {
    reply->data = data->valuestring;
  } else if (data != nullptr) {
    char *text = cJSON_PrintUnformatted(data);
    reply->data = text != nullptr ? text : "";
    cJSON_free(text);
  }
  return true;
}

bool ApplyConfig(const Args &args, std::string *error) {
  if (!args.Has(kConfigOption)) return true;
  const std::string path = args.Get(kConfigOption);
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    *error = "no such configuration: " + path;
    return false;
  }
  if (S_ISDIR(st.st_mode)) {
    if (ZEPH_C_SetConfig(path.c_str()) != 0) {
      *error = "configuration directory path too long: " + path;
      return false;
    }
    return true;
  }
  std::vector<uint8_t> text;
  if (!ReadInput(path, &text, error)) return false;
  text.push_back(0);
  const uint32_t rv = ZEPH_C_SetConfigInfo(reinterpret_cast<const char *>(text.data()));
  if (rv != 0) {
    *error = "device configuration refused (" + StatusText(rv) + "): " + path;
    return false;
  }
  return true;
}

bool AreaSelector(const Args &args, int *selector, std::string *error) {
  const std::string area = args.Get("--area", "sm2");
  if (area == "sm2") {
    *selector = ZEPH_AREA_SM2;
  } else if (area == "rsa") {
    *selector = ZEPH_AREA_RSA;
  } else if (area == "seal") {
    *selector = ZEPH_AREA_SEAL;
  } else {
    *error = "unknown area '" + area + "' (sm2, rsa or seal)";
    return false;
  }
  return true;
}

bool ResolveKey(const Args &args, std::string *key_sn, std::string *error) {
  if (args.Has("--key")) {
    *key_sn = args.Get("--key");
    return true;
  }
  CiReply reply;
  if (!SendCi(CiRequest(105).Text(), &reply, error)) return false;
  if (reply.Status() == ERR_NO_KEY_FOUND) {
    *error = "no key is plugged in";
    return false;
  }
  if (reply.code != 0) {
    *error = "cannot list keys: " + StatusText(reply.Status());
    return false;
  }
  const Json list(cJSON_Parse(reply.data.c_str()));
  if (cJSON_GetArraySize(list.get()) != 1) {
    *error = "several keys are plugged in; name one with --key";
    return false;
  }
  const char *only = cJSON_GetStringValue(cJSON_GetArrayItem(list.get(), 0));
  if (only == nullptr) {
    *error = "unreadable key list: " + reply.data;
    return false;
  }
  *key_sn = only;
  return true;
}

int FailReply(const Group &group, const std::string &what, const CiReply &reply) {
  std::string text = what + ": ";
  if (const char *words = DeviceWords(reply.Status()); words != nullptr) text += std::string(words) + ", ";
  return Fail(group, text + "code " + std::to_string(reply.code) + " (" + StatusText(reply.Status()) + ")");
}

std::string ToBase64(const std::vector<uint8_t> &bytes) {
  if (bytes.empty()) return "";
  char *text = nullptr;
  if (ZEPH_C_Dohex2b64(bytes.data(), static_cast<uint32_t>(bytes.size()), &text) != 0 || text == nullptr) return "";
  std::string out = text;
  ZEPH_C_MALLOC_FREE(text);
  return out;
}

bool FromBase64(const std::string &text, std::vector<uint8_t> *bytes) {
  bytes->clear();
  if (text.empty()) return true;
  unsigned char *decoded = nullptr;
  uint32_t n = 0;
  if (ZEPH_C_Dob64tohex(text.c_str(), &decoded, &n) != 0) return false;
  if (decoded != nullptr) bytes->assign(decoded, decoded + n);
  ZEPH_C_MALLOC_FREE(decoded);
  return true;
}

bool CertificateBase64(const std::string &path, std::string *b64, std::string *error) {
  std::vector<uint8_t> file;
  if (!ReadInput(path, &file, error)) return false;
  const std::string text(file.begin(), file.end());
  const size_t begin = text.find("-----BEGIN CERTIFICATE-----");
  if (begin == std::string::npos) {
    *b64 = ToBase64(file);  // DER as it is
  } else {
    // PEM: the base64 lines between the armour, joined.
    const size_t body = text.find('\n', begin);
    const size_t end = text.find("-----END CERTIFICATE-----", begin);
    if (body == std::string::npos || end == std::string::npos || end < body) {
      *error = "malformed PEM certificate: " + path;
      return false;
    }
    b64->clear();
    for (size_t i = body; i < end; ++i) {
      if (text[i] != '\n' && text[i] != '\r' && text[i] != ' ' && text[i] != '\t') b64->push_back(text[i]);
    }
  }
  if (b64->empty()) {
    *error = "empty certificate: " + path;
    return false;
  }
  return true;
}

}  // namespace zeph_cli
