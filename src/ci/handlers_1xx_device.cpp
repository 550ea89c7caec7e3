// Command handlers: devices, random bytes and device files (1xx).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ci/ci_device.hpp"
#include "foundation/json_owned.hpp"
#include "zeph_c_api.h"
#include "zeph_c_status.h"

namespace zeph::ci {
namespace {

// Upper bound of one random request (its base64 is a third longer).
constexpr uint32_t kMaxRandomBytes = 65536;
// The error-status list is cut to 1,023 characters by the detection layer.
constexpr uint32_t kErrStatusCapacity = 1024;

using ListFn = uint32_t (*)(char *, uint32_t *);

// Size query, then the list; once more if a key arrived in between.
uint32_t FetchList(ListFn list, std::vector<char> *out, uint32_t *out_len) {
  uint32_t rv = ERR_BUFFER_TOO_SMALL;
  for (int attempt = 0; attempt < 2 && rv == ERR_BUFFER_TOO_SMALL; ++attempt) {
    uint32_t need = 0;
    ZEPH_TRY(list(nullptr, &need));
    out->assign(static_cast<size_t>(need) + 1, '\0');
    *out_len = need;
    rv = list(out->data(), out_len);
  }
  return rv;
}

// A device file: the row ("idx") whose application holds it and its name
// ("filepath"); both are required.
uint32_t CheckFileTarget(const ZEPH_REQ_PARAM &req) {
  ZEPH_ENSURE(req.selector != 0 && req.cert != nullptr && req.cert[0] != '\0', ERR_INVALID_PARAMETER);
  return 0;
}

uint32_t GetUKeyList(ZEPH_RES_PARAM *res) {
  std::vector<char> text;
  uint32_t n = 0;
  ZEPH_TRY(FetchList(ZEPH_C_ListPluginDevice, &text, &n));
  return SetData(res, text.data());
}

uint32_t VerifyUserPin(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  uint32_t retry = 0;
  const uint32_t rv = ZEPH_C_VerifyUserPin(key.get(), req.asymid, req.pin.s, &retry);
  // The retry count goes out on failure too: that is what a host shows.
  char text[32];
  std::snprintf(text, sizeof text, "{\"retryCnt\":%u}", retry);
  ZEPH_TRY(SetData(res, text));
  return rv;
}

uint32_t GetVer(ZEPH_RES_PARAM *res) {
  uint32_t version = 0;
  ZEPH_TRY(ZEPH_C_GetVersion(&version));
  char text[16];
  std::snprintf(text, sizeof text, "%X", version);
  return SetData(res, text);
}

uint32_t GetDevErrStatus(ZEPH_RES_PARAM *res) {
  // The text arrives without a terminator; the zeroed tail supplies one.
  std::vector<char> text(kErrStatusCapacity + 1, '\0');
  uint32_t n = kErrStatusCapacity;
  ZEPH_TRY(ZEPH_C_GetDeviceErrStatus(text.data(), &n));
  return SetData(res, std::string_view(text.data(), std::min(n, kErrStatusCapacity)));
}

uint32_t EnumAreas(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  uint32_t rsa = 0, sm2 = 0, seal = 0;
  ZEPH_TRY(ZEPH_C_EnumRSAandSM2andSealInfo(key.get(), &rsa, &sm2, &seal));
  char text[96];
  std::snprintf(text, sizeof text, "{\"RSA\":%u,\"SM2\":%u,\"SEAL\":%u}", rsa, sm2, seal);
  return SetData(res, text);
}

uint32_t GetKeySNList(ZEPH_RES_PARAM *res) {
  std::vector<char> names;
  uint32_t n = 0;
  ZEPH_TRY(FetchList(ZEPH_C_ListKeySNDevice, &names, &n));
  // NUL-separated names ended by an empty one -> ["A1","B22"].
  JsonPtr array(cJSON_CreateArray());
  ZEPH_ENSURE(array != nullptr, ERR_OUT_OF_MEMORY);
  const char *end = names.data() + std::min<size_t>(n, names.size() - 1);
  for (const char *p = names.data(); p < end && *p != '\0'; p += std::strlen(p) + 1) {
    cJSON *name = cJSON_CreateString(p);
    ZEPH_ENSURE(name != nullptr, ERR_OUT_OF_MEMORY);
    cJSON_AddItemToArray(array.get(), name);
  }
  const JsonTextPtr text(cJSON_PrintUnformatted(array.get()));
  ZEPH_ENSURE(text != nullptr, ERR_OUT_OF_MEMORY);
  return SetData(res, text.get());
}

uint32_t GenRandom(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  const uint32_t n = req.algID;
  ZEPH_ENSURE(n != 0 && n <= kMaxRandomBytes, ERR_INVALID_PARAMETER);
  std::vector<uint8_t> bytes(n);
  if (req.keySN.s[0] == '\0') {
    // No key named: the host generator.
    ZEPH_TRY(ZEPH_C_GenRandomBytes(nullptr, n, bytes.data()));
  } else {
    KeyHandle key;
    ZEPH_TRY(key.Open(req));
    ZEPH_TRY(ZEPH_C_GenRandomBytes(key.get(), n, bytes.data()));
  }
  return SetBase64Data(res, bytes.data(), bytes.size());
}

uint32_t WriteFile(const ZEPH_REQ_PARAM &req) {
  ZEPH_TRY(CheckFileTarget(req));
  SecureBytes content;
  ZEPH_TRY(DecodeBase64(req.value, &content));
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return ZEPH_C_WriteUkeyFile(key.get(), req.pin.s, req.selector, req.cert, content.data(),
                              static_cast<uint32_t>(content.size()));
}

uint32_t ReadFile(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_TRY(CheckFileTarget(req));
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  uint32_t n = 0;
  ZEPH_TRY(ZEPH_C_ReadUkeyFile(key.get(), req.pin.s, req.selector, req.cert, nullptr, &n));
  SecureBytes content(std::max<uint32_t>(n, 1));
  ZEPH_TRY(ZEPH_C_ReadUkeyFile(key.get(), req.pin.s, req.selector, req.cert, content.data(), &n));
  return SetBase64Data(res, content.data(), std::min<size_t>(n, content.size()));
}

uint32_t DeleteFile(const ZEPH_REQ_PARAM &req) {
  ZEPH_TRY(CheckFileTarget(req));
  KeyHandle key;
  ZEPH_TRY(key.Open(req));
  return ZEPH_C_DeleteFile(key.get(), req.pin.s, req.selector, req.cert);
}

}  // namespace

uint32_t l_ci4getUKeyList(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return Answer(res, GetUKeyList(res)); }
uint32_t l_ci4verifyUserPin(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, VerifyUserPin(*req, res)); }
uint32_t l_ci4getVer(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return Answer(res, GetVer(res)); }
uint32_t l_ci4getUKeyDevErrStatus(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return Answer(res, GetDevErrStatus(res)); }
uint32_t l_ci4doEnumRSAandSM2andSealInfo(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, EnumAreas(*req, res));
}
uint32_t l_ci4getUKeyKeySNList(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return Answer(res, GetKeySNList(res)); }
uint32_t l_ci4genRandomBytes(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GenRandom(*req, res)); }
uint32_t l_ci4writeUkeyFile(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, WriteFile(*req)); }
uint32_t l_ci4readfile(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, ReadFile(*req, res)); }
uint32_t l_ci4deletefile(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, DeleteFile(*req)); }

}  // namespace zeph::ci
