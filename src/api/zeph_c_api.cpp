// The handle API: handle lifecycle, device listing, PINs, device
// authentication and areas, version, enumeration, random bytes and files on
// the device. Every device-bound call opens its own session and closes it on
// every path; nothing stays open between calls.
#include "zeph_c_api.h"

#include <climits>
#include <cstring>
#include <string>

#include <openssl/rand.h>

#include "api/handle.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"

using zeph::api::SessionGuard;

namespace {

constexpr uint32_t kLibraryVersion = 611680;  // printed as 95560 in hex

// Selector to object index. Compat: PIN verification and change fall back to
// the RSA area for an unknown selector, while unlock and version writing
// refuse it (0); hosts rely on both.
uint32_t PinRow(uint32_t usage) {
  switch (usage) {
    case ZEPH_AREA_SM2:
      return ZEPH_OBJ_SM2_SIGN;
    case ZEPH_AREA_SEAL:
      return ZEPH_OBJ_STAMP_PICTURE;
    default:
      return ZEPH_OBJ_RSA_SIGN;
  }
}

uint32_t StrictPinRow(uint32_t usage) {
  switch (usage) {
    case ZEPH_AREA_RSA:
      return ZEPH_OBJ_RSA_SIGN;
    case ZEPH_AREA_SM2:
      return ZEPH_OBJ_SM2_SIGN;
    case ZEPH_AREA_SEAL:
      return ZEPH_OBJ_STAMP_PICTURE;
    default:
      return 0;
  }
}

uint32_t VersionRow(uint32_t usage) {
  switch (usage) {
    case ZEPH_AREA_RSA:
      return ZEPH_OBJ_RSA_VERSION;
    case ZEPH_AREA_SM2:
      return ZEPH_OBJ_SM2_VERSION;
    case ZEPH_AREA_SEAL:
      return ZEPH_OBJ_STAMP_VERSION;
    default:
      return 0;
  }
}

uint32_t TextLen(const char *text) { return text != nullptr ? static_cast<uint32_t>(std::strlen(text)) : 0; }

// Device authentication, then a fresh area; the session NewSession leaves
// open is closed here so that no call keeps one.
uint32_t InitArea(void *handle, uint32_t row, const unsigned char *auth_code, uint32_t auth_code_len,
                  const char *admin_pin, uint32_t admin_pin_retry, const char *user_pin, uint32_t user_pin_retry) {
  ZEPH_API_CONTEXT(handle, ctx);
  ZEPH_TRY(GM_SKF_CTX_DoDeviceAuth(ctx, auth_code, auth_code_len));
  SessionGuard session{ctx};
  return GM_SKF_CTX_NewSession(ctx, row, admin_pin, admin_pin_retry, user_pin, user_pin_retry);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ZEPH_C_Initialize(void **out_handle, uint32_t device_type, const char *key_sn, uint32_t flags) {
  // Compat: a missing keySN and a failed allocation report the PIN status.
  if (key_sn == nullptr || key_sn[0] == '\0') return ERR_PIN_VERIFY_FAILED;
  if (out_handle == nullptr) return ERR_INVALID_PARAMETER;
  // calloc, so that ZEPH_C_MALLOC_FREE can release the record.
  void *record = std::calloc(zeph::api::kHandleWords, sizeof(void *));
  if (record == nullptr) return ERR_PIN_VERIFY_FAILED;
  const uint32_t rv = GM_SKF_CTX_Initialize(&zeph::api::ContextWord(record), device_type, key_sn, flags);
  *out_handle = record;
  return rv;
}

ZEPH_API uint32_t ZEPH_C_Finalize(void *handle) {
  GM_SKF_CTX *ctx = zeph::api::ContextOf(handle);
  if (ctx == nullptr) return 0;
  GM_SKF_CTX_Finalize(ctx);
  // Compat: the record itself stays with the caller, who releases it with
  // ZEPH_C_MALLOC_FREE; a second Finalize finds no context.
  zeph::api::ContextWord(handle) = nullptr;
  return 0;
}

ZEPH_API uint32_t ZEPH_C_ListPluginDevice(char *out_text, uint32_t *in_out_len) {
  return ZEPH_C_ukey_detection_getList(out_text, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_ListKeySNDevice(char *out_text, uint32_t *in_out_len) {
  if (out_text == nullptr) return ZEPH_C_ukey_detection_getList(nullptr, in_out_len);
  ZEPH_TRY(ZEPH_C_ukey_detection_getList(out_text, in_out_len));
  return zeph::Guarded([&]() -> uint32_t {
    zeph::JsonPtr list(cJSON_Parse(out_text));
    if (!cJSON_IsArray(list.get())) return ERR_JSON_INVALID;
    if (cJSON_GetArraySize(list.get()) == 0) return ERR_NO_KEY_FOUND;
    // Never longer than the JSON it replaces: each keySN came quoted in it.
    std::string multi;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, list.get()) {
      const cJSON *key_sn = cJSON_GetObjectItemCaseSensitive(item, "keySN");
      if (!cJSON_IsString(key_sn)) continue;
      multi += key_sn->valuestring;
      multi += '\0';
    }
    multi += '\0';
    std::memcpy(out_text, multi.data(), multi.size());
    *in_out_len = static_cast<uint32_t>(multi.size());
    return 0;
  });
}

ZEPH_API uint32_t ZEPH_C_GetDeviceErrStatus(char *out_text, uint32_t *in_out_len) {
  return ZEPH_C_ukey_detection_getDevErrStatus(out_text, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_VerifyUserPin(void *handle, uint32_t usage, const char *pin, uint32_t *out_retry) {
  ZEPH_API_CONTEXT(handle, ctx);
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, PinRow(usage)));
  return GM_SKF_CTX_VerifyPinRetryCnt(ctx, pin, TextLen(pin), out_retry);
}

ZEPH_API uint32_t ZEPH_C_ChangeUserPin(void *handle, uint32_t usage, const char *old_pin, const char *new_pin) {
  ZEPH_API_CONTEXT(handle, ctx);
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, PinRow(usage)));
  return GM_SKF_CTX_ChangeUserPin(ctx, old_pin, TextLen(old_pin), new_pin, TextLen(new_pin));
}

ZEPH_API uint32_t ZEPH_C_UnLockUserPinByAdminPin(void *handle, uint32_t usage, const char *admin_pin,
                                                 uint32_t admin_pin_len, const char *new_user_pin,
                                                 uint32_t new_user_pin_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  SessionGuard session{ctx};
  const uint32_t row = StrictPinRow(usage);
  if (row == 0) return ERR_UNSUPPORTED_VALUE;
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, row));
  ZEPH_TRY(GM_SKF_CTX_VerifyAdminPin(ctx, admin_pin, admin_pin_len));
  uint32_t discarded_retry = 0;
  return GM_SKF_CTX_UnLockUserPinByAdminPin(ctx, admin_pin, admin_pin_len, new_user_pin, new_user_pin_len,
                                            &discarded_retry);
}

ZEPH_API uint32_t ZEPH_C_DoDeviceAuth(void *handle, const unsigned char *auth_code, uint32_t auth_code_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  return GM_SKF_CTX_DoDeviceAuth(ctx, auth_code, auth_code_len);
}

ZEPH_API uint32_t ZEPH_C_ChangeDeviceAuthCode(void *handle, const unsigned char *old_code, uint32_t old_len,
                                              const unsigned char *new_code, uint32_t new_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  ZEPH_TRY(GM_SKF_CTX_DoDeviceAuth(ctx, old_code, old_len));
  return GM_SKF_CTX_ChangeDevAuthKey(ctx, new_code, new_len);
}

ZEPH_API uint32_t ZEPH_C_DelAllAppWithAuthCode(void *handle, const unsigned char *auth_code, uint32_t auth_code_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  ZEPH_TRY(GM_SKF_CTX_DoDeviceAuth(ctx, auth_code, auth_code_len));
  return GM_SKF_CTX_DelAllApp(ctx);
}

ZEPH_API uint32_t ZEPH_C_InitVorliRsaArea(void *handle, const unsigned char *auth_code, uint32_t auth_code_len,
                                          const char *admin_pin, uint32_t admin_pin_retry, const char *user_pin,
                                          uint32_t user_pin_retry, uint32_t reserved) {
  return InitArea(handle, ZEPH_OBJ_RSA_CONTAINER, auth_code, auth_code_len, admin_pin, admin_pin_retry, user_pin,
                  user_pin_retry);
}

ZEPH_API uint32_t ZEPH_C_InitVorliSm2Area(void *handle, const unsigned char *auth_code, uint32_t auth_code_len,
                                          const char *admin_pin, uint32_t admin_pin_retry, const char *user_pin,
                                          uint32_t user_pin_retry, uint32_t reserved) {
  return InitArea(handle, ZEPH_OBJ_SM2_SIGN, auth_code, auth_code_len, admin_pin, admin_pin_retry, user_pin,
                  user_pin_retry);
}

ZEPH_API uint32_t ZEPH_C_InitVorliStampArea(void *handle, const unsigned char *auth_code, uint32_t auth_code_len,
                                            const char *admin_pin, uint32_t admin_pin_retry, const char *user_pin,
                                            uint32_t user_pin_retry, uint32_t reserved) {
  return InitArea(handle, ZEPH_OBJ_STAMP_PICTURE, auth_code, auth_code_len, admin_pin, admin_pin_retry, user_pin,
                  user_pin_retry);
}

ZEPH_API uint32_t ZEPH_C_GetVersion(uint32_t *out_version) {
  if (out_version == nullptr) return ERR_INVALID_PARAMETER;
  *out_version = kLibraryVersion;
  return 0;
}

ZEPH_API uint32_t ZEPH_C_SetVersion(void *handle, const char *pin, uint32_t usage, const unsigned char *data,
                                    uint32_t data_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  SessionGuard session{ctx};
  const uint32_t row = VersionRow(usage);
  if (row == 0) return ERR_UNSUPPORTED_VALUE;
  if (data == nullptr && data_len != 0) return ERR_INVALID_PARAMETER;
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, row));
  ZEPH_TRY(GM_SKF_CTX_VerifyPin(ctx, pin, TextLen(pin)));
  return GM_SKF_CTX_SetFileIntoCryptoDevice(ctx, "Version", data, data_len);
}

ZEPH_API uint32_t ZEPH_C_EnumRSAandSM2andSealInfo(void *handle, uint32_t *out_rsa, uint32_t *out_sm2,
                                                  uint32_t *out_seal) {
  ZEPH_API_CONTEXT(handle, ctx);
  return GM_SKF_CTX_EnumRSAandSM2andSealInfo(ctx, out_rsa, out_sm2, out_seal);
}

ZEPH_API uint32_t ZEPH_C_EnumAllInfoInCryptoDevice(void *handle, char *out, uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  return GM_SKF_CTX_EnumAllInfo(ctx, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_GenRandomBytes(void *handle, uint32_t count, unsigned char *out) {
  if (out == nullptr && count != 0) return ERR_INVALID_PARAMETER;
  if (handle == nullptr) {
    if (count > static_cast<uint32_t>(INT_MAX)) return ERR_INVALID_PARAMETER;
    return RAND_bytes(out, static_cast<int>(count)) == 1 ? 0 : ERR_INVALID_PARAMETER;
  }
  // Compat: a handle without a context is a parameter error here, not the
  // missing-handle status.
  GM_SKF_CTX *ctx = zeph::api::ContextWord(handle);
  if (ctx == nullptr) return ERR_INVALID_PARAMETER;
  return GM_SKF_CTX_GenRandom(ctx, count, out);
}

ZEPH_API uint32_t ZEPH_C_WriteUkeyFile(void *handle, const char *pin, uint32_t row, const char *file_name,
                                       const unsigned char *data, uint32_t data_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (file_name == nullptr || (data == nullptr && data_len != 0)) return ERR_INVALID_PARAMETER;
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, row));
  ZEPH_TRY(GM_SKF_CTX_VerifyPin(ctx, pin, TextLen(pin)));
  return GM_SKF_CTX_SetFileIntoCryptoDevice(ctx, file_name, data, data_len);
}

ZEPH_API uint32_t ZEPH_C_ReadUkeyFile(void *handle, const char *pin, uint32_t row, const char *file_name,
                                      unsigned char *out, uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (file_name == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, row));
  // Compat: files readable by everyone need no PIN, so an empty one skips
  // verification here, while writing and deleting always verify.
  if (pin != nullptr && pin[0] != '\0') ZEPH_TRY(GM_SKF_CTX_VerifyPin(ctx, pin, TextLen(pin)));
  return GM_SKF_CTX_GetFileFromCryptoDevice(ctx, file_name, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_DeleteFile(void *handle, const char *pin, uint32_t row, const char *file_name) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (file_name == nullptr) return ERR_INVALID_PARAMETER;
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, row));
  ZEPH_TRY(GM_SKF_CTX_VerifyPin(ctx, pin, TextLen(pin)));
  return GM_SKF_CTX_DeleteFile(ctx, file_name);
}

}  // extern "C"
