// The session context over one connected key: connecting, sessions on
// applications and containers, PINs, device authentication, enumeration.
#include "device/vorli_gm_skf.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "device/vendor_quirks.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/log.hpp"
#include "foundation/output.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "pki/cert_fields.hpp"
#include "zeph_c_device.h"
#include "zeph_c_utils.h"

using zeph::device::CallSkf;
using zeph::device::EnumNames;
using zeph::device::HasSession;
using zeph::device::ObjectLocation;

namespace {

constexpr uint32_t kAppListSize = 1024;
constexpr const char *kSmApplication = "SM-Application";
constexpr uint32_t kAuthBlockLen = 16;
constexpr uint32_t kAuthChallengeLen = 8;
// Device authentication keys are one block of a 128-bit cipher (SM1, SM4,
// SSF33).
constexpr uint32_t kAuthKeyLen = 16;
// What every key accepts for a new application: PINs of 6 to 16 characters
// and retry counters that fit the byte keys keep them in. GM/T 0016's DEVINFO
// carries no limits of its own to narrow these.
constexpr size_t kPinMin = 6, kPinMax = 16;
constexpr uint32_t kRetryMin = 1, kRetryMax = 255;

uint32_t KindForIndex(uint32_t index, bool encryption_container_counts) {
  switch (index) {
    case ZEPH_OBJ_SM2_SIGN:
      return ZEPH_KEY_SM2_SIGN;
    case ZEPH_OBJ_SM2_ENC:
      return ZEPH_KEY_SM2_ENC;
    case ZEPH_OBJ_RSA_ENC:
      return encryption_container_counts ? ZEPH_KEY_RSA_ENC : ZEPH_KEY_RSA_SIGN;
    default:
      return ZEPH_KEY_RSA_SIGN;
  }
}

// Application and container handles opened for an enumeration; closed on
// every path.
struct OpenApp {
  const zeph::device::SkfFunctions &skf;
  HAPPLICATION app = nullptr;
  ~OpenApp() {
    if (app != nullptr) CallSkf(skf.SKF_CloseApplication, 0, app);
  }
};
struct OpenContainer {
  const zeph::device::SkfFunctions &skf;
  HCONTAINER con = nullptr;
  ~OpenContainer() {
    if (con != nullptr) CallSkf(skf.SKF_CloseContainer, 0, con);
  }
};

// A new application's PINs and counters, checked before the old one is
// deleted: the key would refuse them only after that.
uint32_t CheckNewPins(const char *admin_pin, uint32_t admin_retry, const char *user_pin, uint32_t user_retry) {
  for (const char *pin : {admin_pin, user_pin}) {
    const size_t n = strnlen(pin, kPinMax + 1);
    ZEPH_ENSURE(n >= kPinMin && n <= kPinMax, SAR_PIN_LEN_RANGE);
  }
  for (const uint32_t retry : {admin_retry, user_retry}) {
    ZEPH_ENSURE(retry >= kRetryMin && retry <= kRetryMax, ERR_INVALID_PARAMETER);
  }
  return 0;
}

bool HasDevice(const GM_SKF_CTX *ctx) { return ctx != nullptr && ctx->module != nullptr && ctx->device != nullptr; }

const char *KindName(ULONG type) {
  switch (type) {
    case CONTAINER_TYPE_RSA:
      return "RSA";
    case CONTAINER_TYPE_ECC:
      return "SM2";
    default:
      return "empty";
  }
}

// The containers of an open application with their types, in the key's order;
// each container is opened only for the question and closed again.
uint32_t ContainerKinds(GM_SKF_CTX *ctx, HAPPLICATION app, std::vector<std::pair<std::string, ULONG>> *out) {
  const auto &skf = ctx->skf;
  std::vector<std::string> containers;
  ZEPH_TRY(EnumNames(skf.SKF_EnumContainer, app, ERR_OPEN_SESSION_FAILED, &containers));
  for (std::string &c : containers) {
    OpenContainer con{skf};
    ZEPH_TRY(CallSkf(skf.SKF_OpenContainer, ERR_OPEN_SESSION_FAILED, app, c.data(), &con.con));
    ULONG type = CONTAINER_TYPE_EMPTY;
    ZEPH_TRY(CallSkf(skf.SKF_GetConProperty, ERR_OPEN_SESSION_FAILED, con.con, &type));
    out->emplace_back(c, type);
  }
  return 0;
}

// Counts the containers of one type in an application that the key holds.
uint32_t CountContainers(GM_SKF_CTX *ctx, const std::vector<std::string> &apps, const char *app_name, ULONG wanted,
                         uint32_t *out_count) {
  *out_count = 0;
  if (std::find(apps.begin(), apps.end(), app_name) == apps.end()) return 0;
  const auto &skf = ctx->skf;
  std::string name = app_name;
  OpenApp app{skf};
  ZEPH_TRY(CallSkf(skf.SKF_OpenApplication, ERR_OPEN_SESSION_FAILED, ctx->device, name.data(), &app.app));
  std::vector<std::pair<std::string, ULONG>> kinds;
  ZEPH_TRY(ContainerKinds(ctx, app.app, &kinds));
  for (const auto &k : kinds) {
    if (k.second == wanted) ++*out_count;
  }
  return 0;
}

// Occupied seal slots, by the files that hold their pictures.
uint32_t CountSeals(GM_SKF_CTX *ctx, const std::vector<std::string> &apps, uint32_t *out_count) {
  *out_count = 0;
  if (std::find(apps.begin(), apps.end(), "VorliStamp") == apps.end()) return 0;
  const auto &skf = ctx->skf;
  std::string name = "VorliStamp";
  OpenApp app{skf};
  ZEPH_TRY(CallSkf(skf.SKF_OpenApplication, ERR_OPEN_SESSION_FAILED, ctx->device, name.data(), &app.app));
  std::vector<std::string> files;
  ZEPH_TRY(EnumNames(skf.SKF_EnumFiles, app.app, ERR_OPEN_SESSION_FAILED, &files));
  for (uint32_t slot = 1; slot <= zeph::device::kSealSlots; ++slot) {
    const zeph::device::SealFileName file = zeph::device::SealSlotFile(slot);
    if (std::find(files.begin(), files.end(), file.text) != files.end()) ++*out_count;
  }
  return 0;
}

// The container's certificates, signing first; one it lacks is left out.
uint32_t AddCertificates(const zeph::device::SkfFunctions &skf, HCONTAINER con, cJSON *list) {
  constexpr ULONG kMaxCertLen = 65536;
  for (const BOOL sign : {TRUE, FALSE}) {
    ULONG len = 0;
    if (CallSkf(skf.SKF_ExportCertificate, ERR_GET_CERT_FAILED, con, sign, nullptr, &len) != 0 || len == 0 ||
        len > kMaxCertLen) {
      continue;
    }
    std::vector<BYTE> der(len);
    if (CallSkf(skf.SKF_ExportCertificate, ERR_GET_CERT_FAILED, con, sign, der.data(), &len) != 0) continue;
    zeph::JsonPtr item =
        zeph::pki::CertificateJson({der.data(), std::min<size_t>(len, der.size())}, sign ? "sign" : "enc");
    if (!item || !cJSON_AddItemToArray(list, item.release())) return ERR_OUT_OF_MEMORY;
  }
  return 0;
}

// One application as JSON: its containers with their certificates, its files.
uint32_t ApplicationJson(GM_SKF_CTX *ctx, std::string &name, cJSON *out) {
  const auto &skf = ctx->skf;
  OpenApp app{skf};
  ZEPH_TRY(CallSkf(skf.SKF_OpenApplication, ERR_OPEN_SESSION_FAILED, ctx->device, name.data(), &app.app));
  cJSON *containers = cJSON_AddArrayToObject(out, "containers");
  cJSON *files = cJSON_AddArrayToObject(out, "files");
  if (containers == nullptr || files == nullptr) return ERR_OUT_OF_MEMORY;
  std::vector<std::string> names;
  ZEPH_TRY(EnumNames(skf.SKF_EnumContainer, app.app, ERR_OPEN_SESSION_FAILED, &names));
  for (std::string &c : names) {
    OpenContainer con{skf};
    ZEPH_TRY(CallSkf(skf.SKF_OpenContainer, ERR_OPEN_SESSION_FAILED, app.app, c.data(), &con.con));
    ULONG type = CONTAINER_TYPE_EMPTY;
    ZEPH_TRY(CallSkf(skf.SKF_GetConProperty, ERR_OPEN_SESSION_FAILED, con.con, &type));
    cJSON *item = cJSON_CreateObject();
    if (item == nullptr || !cJSON_AddItemToArray(containers, item)) {
      cJSON_Delete(item);
      return ERR_OUT_OF_MEMORY;
    }
    cJSON *certs = nullptr;
    if (cJSON_AddStringToObject(item, "name", c.c_str()) == nullptr ||
        cJSON_AddStringToObject(item, "type", KindName(type)) == nullptr ||
        (certs = cJSON_AddArrayToObject(item, "certificates")) == nullptr) {
      return ERR_OUT_OF_MEMORY;
    }
    ZEPH_TRY(AddCertificates(skf, con.con, certs));
  }
  ZEPH_TRY(EnumNames(skf.SKF_EnumFiles, app.app, ERR_OPEN_SESSION_FAILED, &names));
  for (std::string &f : names) {
    FILEATTRIBUTE attr{};
    ZEPH_TRY(CallSkf(skf.SKF_GetFileInfo, ERR_OPEN_SESSION_FAILED, app.app, f.data(), &attr));
    cJSON *item = cJSON_CreateObject();
    if (item == nullptr || !cJSON_AddItemToArray(files, item)) {
      cJSON_Delete(item);
      return ERR_OUT_OF_MEMORY;
    }
    if (cJSON_AddStringToObject(item, "name", f.c_str()) == nullptr ||
        cJSON_AddNumberToObject(item, "size", attr.FileSize) == nullptr) {
      return ERR_OUT_OF_MEMORY;
    }
  }
  return 0;
}

}  // namespace

extern "C" {

ZEPH_API uint32_t GM_SKF_CTX_Initialize(GM_SKF_CTX **out_ctx, uint32_t reserved, const char *key_sn, uint32_t layout) {
  if (out_ctx == nullptr || key_sn == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    uint32_t device_type = 0;
    char skf_lib[ZEPH_DEVICE_SKFLIB_MAX] = {0};
    char device_name[ZEPH_DEVICE_NAME_MAX] = {0};
    uint32_t rv = ZEPH_C_ukey_detection_parseInfoWithKSN(key_sn, &device_type, skf_lib, device_name);
    ZEPH_LOG("ZEPH_C_ukey_detection_parseInfoWithKSN", rv);
    if (rv != 0) return rv;

    auto *ctx = new (std::nothrow) GM_SKF_CTX();
    *out_ctx = ctx;
    if (ctx == nullptr) return rv;

    ctx->module = getCryptoDeviceHandleWithKeySN(key_sn);
    if (ctx->module == nullptr) return ERR_NO_DEVICE_LIBRARY;
    ctx->skf = zeph::device::CachedSkf(ctx->module);

    rv = CallSkf(ctx->skf.SKF_ConnectDev, ERR_NO_DEVICE_LIBRARY, device_name, &ctx->device);
    ZEPH_LOG(device_name, 0);
    ZEPH_LOG("SKF_ConnectDevProc", rv);
    if (rv != 0) {
      ctx->device = nullptr;
      return rv;
    }
    // The first application tells the layout.
    std::vector<char> apps(kAppListSize + 1, '\0');
    ULONG size = kAppListSize;
    const uint32_t enum_rv =
        CallSkf(ctx->skf.SKF_EnumApplication, ERR_NO_DEVICE_LIBRARY, ctx->device, apps.data(), &size);
    ZEPH_LOG("SKF_EnumApplicationProc", enum_rv);
    ctx->layout = (enum_rv == 0 && std::strcmp(apps.data(), kSmApplication) == 0) ? ZEPH_LAYOUT_SM_APPLICATION : layout;
    ctx->device_type = device_type;
    return rv;
  });
}

ZEPH_API uint32_t GM_SKF_CTX_OpenSession(GM_SKF_CTX *ctx, uint32_t index) {
  if (ctx == nullptr || ctx->module == nullptr) return ERR_OPEN_SESSION_FAILED;
  ObjectLocation loc;
  ZEPH_TRY(zeph::device::Locate(ctx, index, &loc));
  // Handles of a session left open would otherwise be lost.
  GM_SKF_CTX_CloseSession(ctx);

  ZEPH_LOG("SKF_OpenApplicationProc start:", 0);
  uint32_t rv =
      CallSkf(ctx->skf.SKF_OpenApplication, ERR_OPEN_SESSION_FAILED, ctx->device, loc.application, &ctx->application);
  ZEPH_LOG("SKF_OpenApplicationProc end:", rv);
  if (rv != 0) {
    ctx->application = nullptr;
    return rv;
  }
  if (loc.container[0] != '\0') {
    ZEPH_LOG("SKF_OpenContainerProc start:", 0);
    rv = CallSkf(ctx->skf.SKF_OpenContainer, ERR_OPEN_SESSION_FAILED, ctx->application, loc.container, &ctx->container);
    ZEPH_LOG("SKF_OpenContainerProc end:", rv);
    if (rv != 0) ctx->container = nullptr;
  }
  ctx->key_kind = KindForIndex(index, true);
  return rv;
}

ZEPH_API uint32_t GM_SKF_CTX_NewSession(GM_SKF_CTX *ctx, uint32_t index, const char *admin_pin,
                                        uint32_t admin_pin_retry, const char *user_pin, uint32_t user_pin_retry) {
  if (ctx == nullptr || ctx->module == nullptr) return ERR_OPEN_SESSION_FAILED;
  if (admin_pin == nullptr || user_pin == nullptr) return ERR_INVALID_PARAMETER;
  ZEPH_TRY(CheckNewPins(admin_pin, admin_pin_retry, user_pin, user_pin_retry));
  ObjectLocation loc;
  ZEPH_TRY(zeph::device::Locate(ctx, index, &loc));
  return zeph::Guarded([&]() -> uint32_t {
    GM_SKF_CTX_CloseSession(ctx);
    const auto &skf = ctx->skf;
    zeph::SecureBytes admin = zeph::TerminatedCopy(admin_pin, std::strlen(admin_pin));
    zeph::SecureBytes user = zeph::TerminatedCopy(user_pin, std::strlen(user_pin));

    // Whatever the application held is gone: a missing one is normal here.
    CallSkf(skf.SKF_DeleteApplication, 0, ctx->device, loc.application);
    ZEPH_TRY(CallSkf(skf.SKF_CreateApplication, ERR_OPEN_SESSION_FAILED, ctx->device, loc.application,
                     reinterpret_cast<char *>(admin.data()), admin_pin_retry, reinterpret_cast<char *>(user.data()),
                     user_pin_retry, SECURE_USER_ACCOUNT, &ctx->application));
    // Compat: a new RSA encryption container counts as a signing key here,
    // unlike an opened one.
    ctx->key_kind = KindForIndex(index, false);
    ULONG retry = 0;
    ZEPH_TRY(CallSkf(skf.SKF_VerifyPIN, ERR_PIN_VERIFY_FAILED, ctx->application, USER_TYPE,
                     reinterpret_cast<char *>(user.data()), &retry));
    if (loc.container[0] == '\0') return 0;
    if (index != ZEPH_OBJ_RSA_CONTAINER) {
      return CallSkf(skf.SKF_CreateContainer, ERR_OPEN_SESSION_FAILED, ctx->application, loc.container,
                     &ctx->container);
    }
    // The single-container RSA area gets both of the newer containers.
    char name[ZEPH_DEVICE_NAME_MAX + 1];
    std::snprintf(name, sizeof name, "%s2", loc.container);
    HCONTAINER second = nullptr;
    ZEPH_TRY(CallSkf(skf.SKF_CreateContainer, ERR_OPEN_SESSION_FAILED, ctx->application, name, &second));
    CallSkf(skf.SKF_CloseContainer, 0, second);
    std::snprintf(name, sizeof name, "%s1", loc.container);
    return CallSkf(skf.SKF_CreateContainer, ERR_OPEN_SESSION_FAILED, ctx->application, name, &ctx->container);
  });
}

ZEPH_API uint32_t GM_SKF_CTX_CloseSession(GM_SKF_CTX *ctx) {
  if (ctx == nullptr || ctx->module == nullptr) return 0;
  zeph::device::DropKey(ctx);
  if (ctx->container != nullptr) {
    CallSkf(ctx->skf.SKF_CloseContainer, 0, ctx->container);
    ctx->container = nullptr;
  }
  if (ctx->application != nullptr) {
    CallSkf(ctx->skf.SKF_CloseApplication, 0, ctx->application);
    ctx->application = nullptr;
  }
  return 0;
}

ZEPH_API void GM_SKF_CTX_Finalize(GM_SKF_CTX *ctx) {
  if (ctx == nullptr) return;
  if (ctx->module != nullptr) {
    GM_SKF_CTX_CloseSession(ctx);
    if (ctx->device != nullptr) CallSkf(ctx->skf.SKF_DisConnectDev, 0, ctx->device);
    ctx->device = nullptr;
  }
  delete ctx;
}

ZEPH_API uint32_t GM_SKF_CTX_VerifyPinRetryCnt(GM_SKF_CTX *ctx, const char *pin, uint32_t pin_len,
                                               uint32_t *out_retry) {
  if (!HasSession(ctx)) return ERR_PIN_VERIFY_FAILED;
  if (pin == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes copy = zeph::TerminatedCopy(pin, pin_len);
        char *text = reinterpret_cast<char *>(copy.data());
        ULONG local_retry = 0;
        ULONG *retry = out_retry != nullptr ? out_retry : &local_retry;
        const uint32_t rv =
            CallSkf(ctx->skf.SKF_VerifyPIN, ERR_PIN_VERIFY_FAILED, ctx->application, USER_TYPE, text, retry);
        ULONG max_retry = 0;
        BOOL is_default = FALSE;
        CallSkf(ctx->skf.SKF_GetPINInfo, 0, ctx->application, USER_TYPE, &max_retry, retry, &is_default);
        // Compat: the record is complete, PIN included, as hosts' logs have
        // always shown it; it goes to the host's log callback only.
        const int n = std::snprintf(nullptr, 0,
                                    "{\"SKF_VerifyPIN: maxretryCnt\":\"%d\",\"retryCnt\":\"%d\","
                                    "\"IsDefaultPin\":\"%d\",\"UserPin\":\"%s\"}",
                                    static_cast<int>(max_retry), static_cast<int>(*retry), is_default, text);
        zeph::SecureBytes record(static_cast<size_t>(n) + 1);
        std::snprintf(reinterpret_cast<char *>(record.data()), record.size(),
                      "{\"SKF_VerifyPIN: maxretryCnt\":\"%d\",\"retryCnt\":\"%d\","
                      "\"IsDefaultPin\":\"%d\",\"UserPin\":\"%s\"}",
                      static_cast<int>(max_retry), static_cast<int>(*retry), is_default, text);
        ZEPH_LOG(reinterpret_cast<const char *>(record.data()), rv);
        return rv;
      },
      ERR_PIN_VERIFY_FAILED);
}

ZEPH_API uint32_t GM_SKF_CTX_VerifyPin(GM_SKF_CTX *ctx, const char *pin, uint32_t pin_len) {
  // The remaining count is only logged here.
  uint32_t retry = 0;
  return GM_SKF_CTX_VerifyPinRetryCnt(ctx, pin, pin_len, &retry);
}

ZEPH_API uint32_t GM_SKF_CTX_VerifyAdminPin(GM_SKF_CTX *ctx, const char *pin, uint32_t pin_len) {
  if (!HasSession(ctx)) return ERR_PIN_VERIFY_FAILED;
  if (pin == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes copy = zeph::TerminatedCopy(pin, pin_len);
        ULONG retry = 0;
        return CallSkf(ctx->skf.SKF_VerifyPIN, ERR_PIN_VERIFY_FAILED, ctx->application, ADMIN_TYPE,
                       reinterpret_cast<char *>(copy.data()), &retry);
      },
      ERR_PIN_VERIFY_FAILED);
}

ZEPH_API uint32_t GM_SKF_CTX_UnLockUserPinByAdminPin(GM_SKF_CTX *ctx, const char *admin_pin, uint32_t admin_pin_len,
                                                     const char *new_user_pin, uint32_t new_user_pin_len,
                                                     uint32_t *out_retry) {
  if (!HasSession(ctx)) return ERR_UNLOCK_PIN_FAILED;
  if (admin_pin == nullptr || new_user_pin == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes admin = zeph::TerminatedCopy(admin_pin, admin_pin_len);
        zeph::SecureBytes user = zeph::TerminatedCopy(new_user_pin, new_user_pin_len);
        ULONG local_retry = 0;
        return CallSkf(ctx->skf.SKF_UnblockPIN, ERR_UNLOCK_PIN_FAILED, ctx->application,
                       reinterpret_cast<char *>(admin.data()), reinterpret_cast<char *>(user.data()),
                       out_retry != nullptr ? out_retry : &local_retry);
      },
      ERR_UNLOCK_PIN_FAILED);
}

ZEPH_API uint32_t GM_SKF_CTX_ChangeUserPin(GM_SKF_CTX *ctx, const char *old_pin, uint32_t old_pin_len,
                                           const char *new_pin, uint32_t new_pin_len) {
  if (!HasSession(ctx)) return ERR_PIN_VERIFY_FAILED;
  if (old_pin == nullptr || new_pin == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes old_copy = zeph::TerminatedCopy(old_pin, old_pin_len);
        zeph::SecureBytes new_copy = zeph::TerminatedCopy(new_pin, new_pin_len);
        ULONG retry = 0;
        return CallSkf(ctx->skf.SKF_ChangePIN, ERR_PIN_VERIFY_FAILED, ctx->application, USER_TYPE,
                       reinterpret_cast<char *>(old_copy.data()), reinterpret_cast<char *>(new_copy.data()), &retry);
      },
      ERR_PIN_VERIFY_FAILED);
}

ZEPH_API uint32_t GM_SKF_CTX_DoDeviceAuth(GM_SKF_CTX *ctx, const unsigned char *key, uint32_t key_len) {
  if (!HasDevice(ctx)) return ERR_DEVICE_AUTH_FAILED;
  // A longer code would authenticate by its first block alone.
  if (key == nullptr || key_len == 0 || key_len > kAuthKeyLen) return ERR_INVALID_PARAMETER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        const auto &skf = ctx->skf;
        // The vendor reads a whole block of key: a short key is zero-padded.
        zeph::SecureBytes key_copy(kAuthKeyLen);
        std::memcpy(key_copy.data(), key, key_len);
        struct KeyGuard {
          GM_SKF_CTX *ctx;
          ~KeyGuard() { zeph::device::DropKey(ctx); }
        } key_guard{ctx};

        DEVINFO info{};
        ZEPH_TRY(CallSkf(skf.SKF_GetDevInfo, ERR_DEVICE_AUTH_FAILED, ctx->device, &info));
        BYTE block[kAuthBlockLen] = {0};
        ZEPH_TRY(CallSkf(skf.SKF_GenRandom, ERR_DEVICE_AUTH_FAILED, ctx->device, block, kAuthChallengeLen));
        zeph::device::DropKey(ctx);
        ZEPH_TRY(CallSkf(skf.SKF_SetSymmKey, ERR_DEVICE_AUTH_FAILED, ctx->device, key_copy.data(), info.DevAuthAlgId,
                         &ctx->key));
        BLOCKCIPHERPARAM ecb{};  // no IV, no padding, no feedback: ECB
        ZEPH_TRY(CallSkf(skf.SKF_EncryptInit, ERR_DEVICE_AUTH_FAILED, ctx->key, ecb));
        BYTE cipher[2 * kAuthBlockLen] = {0};
        ULONG cipher_len = sizeof cipher;
        ZEPH_TRY(CallSkf(skf.SKF_Encrypt, ERR_DEVICE_AUTH_FAILED, ctx->key, block, kAuthBlockLen, cipher, &cipher_len));
        return CallSkf(skf.SKF_DevAuth, ERR_DEVICE_AUTH_FAILED, ctx->device, cipher, kAuthBlockLen);
      },
      ERR_DEVICE_AUTH_FAILED);
}

ZEPH_API uint32_t GM_SKF_CTX_ChangeDevAuthKey(GM_SKF_CTX *ctx, const unsigned char *key, uint32_t key_len) {
  if (!HasDevice(ctx)) return ERR_DEVICE_AUTH_FAILED;
  if (key == nullptr || key_len == 0) return ERR_INVALID_PARAMETER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes copy(key, key_len);
        return CallSkf(ctx->skf.SKF_ChangeDevAuthKey, ERR_DEVICE_AUTH_FAILED, ctx->device, copy.data(), key_len);
      },
      ERR_DEVICE_AUTH_FAILED);
}

ZEPH_API uint32_t GM_SKF_CTX_IsExt4SKF(GM_SKF_CTX *ctx, uint32_t *out_flag) {
  if (ctx == nullptr || ctx->module == nullptr) return ERR_NO_DEVICE_LIBRARY;
  if (out_flag == nullptr) return ERR_INVALID_PARAMETER;
  *out_flag = ctx->skf.SKF_RSADecrypt != nullptr ? 1 : 0;
  return 0;
}

ZEPH_API uint32_t GM_SKF_CTX_EnumAllInfo(GM_SKF_CTX *ctx, char *out, uint32_t *in_out_len) {
  if (!HasDevice(ctx)) return ERR_OPEN_SESSION_FAILED;
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    const auto &skf = ctx->skf;
    std::vector<std::string> apps;
    ZEPH_TRY(EnumNames(skf.SKF_EnumApplication, ctx->device, ERR_OPEN_SESSION_FAILED, &apps));
    std::string report;
    for (std::string &app_name : apps) {
      report += "application " + app_name + "\n";
      OpenApp app{skf};
      ZEPH_TRY(CallSkf(skf.SKF_OpenApplication, ERR_OPEN_SESSION_FAILED, ctx->device, app_name.data(), &app.app));
      std::vector<std::pair<std::string, ULONG>> kinds;
      ZEPH_TRY(ContainerKinds(ctx, app.app, &kinds));
      for (const auto &k : kinds) report += "  container " + k.first + ": " + KindName(k.second) + "\n";
      std::vector<std::string> files;
      ZEPH_TRY(EnumNames(skf.SKF_EnumFiles, app.app, ERR_OPEN_SESSION_FAILED, &files));
      for (std::string &f : files) {
        FILEATTRIBUTE attr{};
        ZEPH_TRY(CallSkf(skf.SKF_GetFileInfo, ERR_OPEN_SESSION_FAILED, app.app, f.data(), &attr));
        char size[16];
        std::snprintf(size, sizeof size, "%u", static_cast<unsigned>(attr.FileSize));
        report += "  file " + f + ": " + size + " bytes\n";
      }
    }
    return zeph::PutOutput({reinterpret_cast<const uint8_t *>(report.c_str()), report.size() + 1},
                           reinterpret_cast<uint8_t *>(out), in_out_len);
  });
}

ZEPH_API uint32_t GM_SKF_CTX_EnumObjects(GM_SKF_CTX *ctx, char *out, uint32_t *in_out_len) {
  if (!HasDevice(ctx)) return ERR_OPEN_SESSION_FAILED;
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<std::string> apps;
    ZEPH_TRY(EnumNames(ctx->skf.SKF_EnumApplication, ctx->device, ERR_OPEN_SESSION_FAILED, &apps));
    zeph::JsonPtr doc(cJSON_CreateObject());
    cJSON *list = doc ? cJSON_AddArrayToObject(doc.get(), "applications") : nullptr;
    if (list == nullptr) return ERR_OUT_OF_MEMORY;
    for (std::string &name : apps) {
      cJSON *app = cJSON_CreateObject();
      if (app == nullptr || !cJSON_AddItemToArray(list, app)) {
        cJSON_Delete(app);
        return ERR_OUT_OF_MEMORY;
      }
      if (cJSON_AddStringToObject(app, "name", name.c_str()) == nullptr) return ERR_OUT_OF_MEMORY;
      ZEPH_TRY(ApplicationJson(ctx, name, app));
    }
    const zeph::JsonTextPtr text(cJSON_PrintUnformatted(doc.get()));
    if (!text) return ERR_OUT_OF_MEMORY;
    return zeph::PutText(text.get(), std::strlen(text.get()), out, in_out_len);
  });
}

ZEPH_API uint32_t GM_SKF_CTX_EnumRSAandSM2andSealInfo(GM_SKF_CTX *ctx, uint32_t *out_rsa, uint32_t *out_sm2,
                                                      uint32_t *out_seal) {
  if (!HasDevice(ctx)) return ERR_OPEN_SESSION_FAILED;
  if (out_rsa == nullptr || out_sm2 == nullptr || out_seal == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<std::string> apps;
    ZEPH_TRY(EnumNames(ctx->skf.SKF_EnumApplication, ctx->device, ERR_OPEN_SESSION_FAILED, &apps));
    const char *sm2_app = ctx->layout == ZEPH_LAYOUT_SM_APPLICATION ? kSmApplication : "VorliEcc";
    uint32_t rsa = 0, sm2 = 0, seal = 0;
    ZEPH_TRY(CountContainers(ctx, apps, "VorliRsa", CONTAINER_TYPE_RSA, &rsa));
    ZEPH_TRY(CountContainers(ctx, apps, sm2_app, CONTAINER_TYPE_ECC, &sm2));
    ZEPH_TRY(CountSeals(ctx, apps, &seal));
    *out_rsa = rsa;
    *out_sm2 = sm2;
    *out_seal = seal;
    return 0;
  });
}

ZEPH_API uint32_t GM_SKF_CTX_DelAllApp(GM_SKF_CTX *ctx) {
  if (!HasDevice(ctx)) return ERR_OPEN_SESSION_FAILED;
  return zeph::Guarded([&]() -> uint32_t {
    // The session's own application would go with the rest.
    GM_SKF_CTX_CloseSession(ctx);
    std::vector<std::string> apps;
    ZEPH_TRY(EnumNames(ctx->skf.SKF_EnumApplication, ctx->device, ERR_OPEN_SESSION_FAILED, &apps));
    for (std::string &app : apps) {
      ZEPH_TRY(CallSkf(ctx->skf.SKF_DeleteApplication, ERR_OPEN_SESSION_FAILED, ctx->device, app.data()));
    }
    return 0;
  });
}

}  // extern "C"
