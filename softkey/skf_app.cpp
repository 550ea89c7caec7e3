// Applications and their PINs. Creating and deleting an application needs a
// device authenticated on the calling handle; a PIN verified on an
// application handle logs in that handle only.
#include <algorithm>
#include <vector>

#include "entry.hpp"

using namespace softkey;

namespace {

// A PIN must be 6 to 16 characters; longer texts are not read further.
ULONG ReadPin(const char *p, std::string_view &out) {
  switch (ReadText(p, kMaxPin, out)) {
    case Text::kNull:
      return SAR_INVALIDPARAMERR;
    case Text::kOk:
      return out.size() >= kMinPin ? SAR_OK : SAR_PIN_LEN_RANGE;
    default:
      return SAR_PIN_LEN_RANGE;
  }
}

ULONG ReadAppName(const char *p, std::string_view &out) {
  switch (ReadText(p, kMaxAppName, out)) {
    case Text::kNull:
      return SAR_INVALIDPARAMERR;
    case Text::kEmpty:
      return SAR_APPLICATION_NAME_INVALID;
    case Text::kTooLong:
      return SAR_NAMELENERR;
    case Text::kOk:
      break;
  }
  const bool printable = std::all_of(out.begin(), out.end(), [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return u >= 0x20 && u != 0x7F;
  });
  return printable ? SAR_OK : SAR_APPLICATION_NAME_INVALID;
}

void SetRetry(ULONG *out, uint32_t v) {
  if (out != nullptr) *out = v;
}

// Checks a PIN against its record, counting down on a mismatch. The status is
// the caller's; the record changes whenever the counter does.
ULONG CheckPin(Pin &rec, std::string_view pin, SecureBytes &master, ULONG *retry, bool &changed) {
  changed = false;
  if (rec.remain == 0) {
    SetRetry(retry, 0);
    return SAR_PIN_LOCKED;
  }
  if (UnwrapMaster(rec, pin, master)) {
    changed = rec.remain != rec.max_retry;
    rec.remain = rec.max_retry;
    SetRetry(retry, rec.remain);
    return SAR_OK;
  }
  --rec.remain;
  changed = true;
  SetRetry(retry, rec.remain);
  return rec.remain == 0 ? SAR_PIN_LOCKED : SAR_PIN_INCORRECT;
}

void LogOut(AppObj &a) {
  a.role = kRoleNone;
  a.master = SecureBytes();
}

}  // namespace

extern "C" {

ULONG SKF_CreateApplication(DEVHANDLE hDev, LPSTR szAppName, LPSTR szAdminPin, DWORD dwAdminPinRetryCount,
                            LPSTR szUserPin, DWORD dwUserPinRetryCount, DWORD dwCreateFileRights,
                            HAPPLICATION *phApplication) {
  return Call("SKF_CreateApplication", H(hDev), phApplication, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    ZEPH_ENSURE(phApplication != nullptr, SAR_INVALIDPARAMERR);
    std::string_view name, admin_pin, user_pin;
    ZEPH_TRY(ReadAppName(szAppName, name));
    ZEPH_TRY(ReadPin(szAdminPin, admin_pin));
    ZEPH_TRY(ReadPin(szUserPin, user_pin));
    ZEPH_ENSURE(dwAdminPinRetryCount >= 1 && dwAdminPinRetryCount <= 255 && dwUserPinRetryCount >= 1 &&
                    dwUserPinRetryCount <= 255 && dwCreateFileRights <= 0xFF,
                SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(d.obj->authenticated, SAR_USER_NOT_LOGGED_IN);
    ZEPH_ENSURE(d.dev->FindApp(name) == nullptr, SAR_APPLICATION_EXISTS);

    // Key derivation is slow; do it before taking the device lock.
    Application app;
    app.name = std::string(name);
    app.id = RandomId();
    app.create_file_rights = dwCreateFileRights;
    const SecureBytes master = NewMasterKey();
    app.admin = MakePin(admin_pin, master.span(), dwAdminPinRetryCount);
    app.user = MakePin(user_pin, master.span(), dwUserPinRetryCount);
    ZEPH_TRY(Change(d.obj->dir, [&](Device &dev) -> ULONG {
      ZEPH_ENSURE(dev.FindApp(app.name) == nullptr, SAR_APPLICATION_EXISTS);
      ZEPH_ENSURE(dev.apps.size() < kMaxApps, SAR_NO_ROOM);
      dev.apps.push_back(app);
      return SAR_OK;
    }));
    *phApplication = AddAppHandle(d.obj->dir, app.id, hDev);
    return SAR_OK;
  });
}

ULONG SKF_EnumApplication(DEVHANDLE hDev, LPSTR szAppName, ULONG *pulSize) {
  return Call("SKF_EnumApplication", H(hDev), nullptr, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    return PutNamesOf(d.dev->apps, szAppName, pulSize);
  });
}

ULONG SKF_DeleteApplication(DEVHANDLE hDev, LPSTR szAppName) {
  return Call("SKF_DeleteApplication", H(hDev), nullptr, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    std::string_view name;
    ZEPH_TRY(ReadAppName(szAppName, name));
    ZEPH_ENSURE(d.obj->authenticated, SAR_USER_NOT_LOGGED_IN);
    // Handles still open on it become stale: they name the application by id.
    return Change(d.obj->dir, [&](Device &dev) -> ULONG {
      auto it = std::find_if(dev.apps.begin(), dev.apps.end(), [&](const Application &a) { return a.name == name; });
      ZEPH_ENSURE(it != dev.apps.end(), SAR_APPLICATION_NOT_EXISTS);
      dev.apps.erase(it);
      return SAR_OK;
    });
  });
}

ULONG SKF_OpenApplication(DEVHANDLE hDev, LPSTR szAppName, HAPPLICATION *phApplication) {
  return Call("SKF_OpenApplication", H(hDev), phApplication, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    ZEPH_ENSURE(phApplication != nullptr, SAR_INVALIDPARAMERR);
    std::string_view name;
    ZEPH_TRY(ReadAppName(szAppName, name));
    const Application *app = d.dev->FindApp(name);
    ZEPH_ENSURE(app != nullptr, SAR_APPLICATION_NOT_EXISTS);
    *phApplication = AddAppHandle(d.obj->dir, app->id, hDev);
    return SAR_OK;
  });
}

ULONG SKF_CloseApplication(HAPPLICATION hApplication) {
  return Call("SKF_CloseApplication", H(hApplication), nullptr, [&] { return CloseAs<AppObj>(hApplication); });
}

ULONG SKF_VerifyPIN(HAPPLICATION hApp, ULONG ulPINType, LPSTR szPIN, ULONG *pulRetryCount) {
  return Call("SKF_VerifyPIN", H(hApp), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApp, a));
    ZEPH_ENSURE(ulPINType == ADMIN_TYPE || ulPINType == USER_TYPE, SAR_USER_TYPE_INVALID);
    std::string_view pin;
    ZEPH_TRY(ReadPin(szPIN, pin));
    ULONG result = SAR_FAIL;
    SecureBytes master;
    ZEPH_TRY(Change(a.obj->dir, [&](Device &dev) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      bool changed = false;
      result = CheckPin(ulPINType == USER_TYPE ? app->user : app->admin, pin, master, pulRetryCount, changed);
      return changed ? SAR_OK : kUnchanged;
    }));
    if (result != SAR_OK) {
      LogOut(*a.obj);  // a failed attempt ends the login
      return result;
    }
    a.obj->role = ulPINType == USER_TYPE ? kRoleUser : kRoleAdmin;
    a.obj->master = std::move(master);
    return SAR_OK;
  });
}

ULONG SKF_ChangePIN(HAPPLICATION hApp, ULONG ulPINType, LPSTR szOldPin, LPSTR szNewPin, ULONG *pulRetryCount) {
  return Call("SKF_ChangePIN", H(hApp), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApp, a));
    ZEPH_ENSURE(ulPINType == ADMIN_TYPE || ulPINType == USER_TYPE, SAR_USER_TYPE_INVALID);
    std::string_view old_pin, new_pin;
    ZEPH_TRY(ReadPin(szOldPin, old_pin));
    ZEPH_TRY(ReadPin(szNewPin, new_pin));
    ULONG result = SAR_FAIL;
    ZEPH_TRY(Change(a.obj->dir, [&](Device &dev) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      Pin &rec = ulPINType == USER_TYPE ? app->user : app->admin;
      SecureBytes master;
      bool changed = false;
      result = CheckPin(rec, old_pin, master, pulRetryCount, changed);
      if (result != SAR_OK) return changed ? SAR_OK : kUnchanged;
      RewrapPin(rec, new_pin, master.span());
      rec.is_default = false;
      return SAR_OK;
    }));
    return result;
  });
}

ULONG SKF_GetPINInfo(HAPPLICATION hApp, ULONG ulPINType, ULONG *pulMaxRetryCount, ULONG *pulRemainRetryCount,
                     BOOL *pbDefaultPin) {
  return Call("SKF_GetPINInfo", H(hApp), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApp, a));
    ZEPH_ENSURE(ulPINType == ADMIN_TYPE || ulPINType == USER_TYPE, SAR_USER_TYPE_INVALID);
    ZEPH_ENSURE(pulMaxRetryCount != nullptr && pulRemainRetryCount != nullptr && pbDefaultPin != nullptr,
                SAR_INVALIDPARAMERR);
    const Pin &rec = ulPINType == USER_TYPE ? a.app->user : a.app->admin;
    *pulMaxRetryCount = rec.max_retry;
    *pulRemainRetryCount = rec.remain;
    *pbDefaultPin = rec.is_default ? TRUE : FALSE;
    return SAR_OK;
  });
}

ULONG SKF_UnblockPIN(HAPPLICATION hApp, LPSTR szAdminPIN, LPSTR szNewUserPIN, ULONG *pulRetryCount) {
  return Call("SKF_UnblockPIN", H(hApp), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApp, a));
    std::string_view admin_pin, user_pin;
    ZEPH_TRY(ReadPin(szAdminPIN, admin_pin));
    ZEPH_TRY(ReadPin(szNewUserPIN, user_pin));
    ULONG result = SAR_FAIL;
    ZEPH_TRY(Change(a.obj->dir, [&](Device &dev) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      SecureBytes master;
      bool changed = false;
      result = CheckPin(app->admin, admin_pin, master, pulRetryCount, changed);
      if (result != SAR_OK) return changed ? SAR_OK : kUnchanged;
      RewrapPin(app->user, user_pin, master.span());
      app->user.is_default = false;
      return SAR_OK;
    }));
    return result;
  });
}

}  // extern "C"
