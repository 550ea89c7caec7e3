// The command groups that drive the library through ZEPH_C_CI: building
// requests, sending them, reading the response, and the options they share.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli.hpp"

typedef struct cJSON cJSON;

namespace zeph_cli {

// One request document; values are escaped by cJSON.
class CiRequest {
 public:
  explicit CiRequest(int type);
  ~CiRequest();
  CiRequest(const CiRequest &) = delete;
  CiRequest &operator=(const CiRequest &) = delete;

  CiRequest &Set(const char *key, const std::string &text);
  CiRequest &Set(const char *key, int64_t number);
  std::string Text() const;

 private:
  cJSON *doc_;
};

struct CiReply {
  std::string text;   // the response document as printed
  int64_t code = -1;  // as printed; compare the low 32 bits
  bool has_data = false;
  std::string data;  // a string's value, or an object's unformatted text
  uint32_t Status() const { return static_cast<uint32_t>(code); }
};

// Sends the request through ZEPH_C_CI. False (with a message) only when the
// response cannot be had or read; a failing command is a reply with a code.
bool SendCi(const std::string &request, CiReply *reply, std::string *error);

// "--config PATH": a directory holding vorli_ukey_cfg.json, or such a file
// whose text becomes the device configuration.
inline const char *kConfigOption = "--config";
bool ApplyConfig(const Args &args, std::string *error);

// "--area sm2|rsa|seal" (default sm2) as the key-area selector 2, 1 or 4.
bool AreaSelector(const Args &args, int *selector, std::string *error);

// "--key SN", or the only key plugged in.
bool ResolveKey(const Args &args, std::string *key_sn, std::string *error);

// Reports a command that answered with a failure code; returns kFailed.
int FailReply(const Group &group, const std::string &what, const CiReply &reply);

// Base64 of bytes and back, through the library.
std::string ToBase64(const std::vector<uint8_t> &bytes);
bool FromBase64(const std::string &text, std::vector<uint8_t> *bytes);
// A certificate file (PEM or DER) as base64 of its DER.
bool CertificateBase64(const std::string &path, std::string *b64, std::string *error);

}  // namespace zeph_cli
