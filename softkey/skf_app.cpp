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

// Checks a PIN as a card does: the lowered counter is on disk before the PIN
// is compared, so no answer goes uncounted, and an attempt whose counter
// cannot be saved is refused unanswered, the right PIN included. A match
// restores the counter; a record of an older form moves to the current one
// while its PIN is at hand.
ULONG CheckPin(Device &dev, Pin &rec, std::string_view pin, const SaveStep &save, SecureBytes &out_master,
               ULONG *retry) {
  if (rec.remain == 0) {
    SetRetry(retry, 0);
    return SAR_PIN_LOCKED;
  }
  --rec.remain;
  ZEPH_TRY(save(dev));
  SetRetry(retry, rec.remain);
  if (!UnwrapMaster(rec, pin, out_master)) return rec.remain == 0 ? SAR_PIN_LOCKED : SAR_PIN_INCORRECT;
  rec.remain = rec.max_retry;
  SetRetry(retry, rec.remain);
  if (!IsCurrentForm(rec)) RewrapPin(rec, pin, out_master.span());
  return SAR_OK;
}

// What a change returns after CheckPin: a refused PIN is on disk already.
ULONG Settle(ULONG checked) { return checked == SAR_PIN_INCORRECT || checked == SAR_PIN_LOCKED ? kUnchanged : checked; }

// A new PIN comes with a new master key and every private key re-wrapped, so
// a copy of the device file from before the change, opened with the old PIN,
// reaches no current key. The other PIN's record takes the new master key
// through its public half; when that record is of the old form the master
// key stays until its PIN is next verified.
ULONG RenewPin(Application &app, Pin &rec, Pin &other, std::string_view pin, SecureBytes &master) {
  if (other.pub.empty()) {
    RewrapPin(rec, pin, master.span());
    return SAR_OK;
  }
  SecureBytes next = NewMasterKey();
  ZEPH_ENSURE(RewrapKeys(app, master.span(), next.span()), SAR_FILEERR);
  RewrapPin(rec, pin, next.span());
  SealMaster(other, next.span());
  master = std::move(next);
  return SAR_OK;
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
    const ULONG rv = ChangeInSteps(a.obj->dir, [&](Device &dev, const SaveStep &save) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      result = CheckPin(dev, ulPINType == USER_TYPE ? app->user : app->admin, pin, save, master, pulRetryCount);
      return Settle(result);
    });
    if (rv != SAR_OK || result != SAR_OK) {
      LogOut(*a.obj);  // a failed attempt ends the login
      return rv != SAR_OK ? rv : result;
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
    SecureBytes master;
    const ULONG rv = ChangeInSteps(a.obj->dir, [&](Device &dev, const SaveStep &save) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      const bool user = ulPINType == USER_TYPE;
      Pin &rec = user ? app->user : app->admin;
      result = CheckPin(dev, rec, old_pin, save, master, pulRetryCount);
      if (result != SAR_OK) return Settle(result);
      ZEPH_TRY(RenewPin(*app, rec, user ? app->admin : app->user, new_pin, master));
      rec.is_default = false;
      return SAR_OK;
    });
    ZEPH_TRY(rv);
    if (result == SAR_OK && a.obj->role != kRoleNone) a.obj->master = std::move(master);  // still logged in
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
    SecureBytes master;
    const ULONG rv = ChangeInSteps(a.obj->dir, [&](Device &dev, const SaveStep &save) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      result = CheckPin(dev, app->admin, admin_pin, save, master, pulRetryCount);
      if (result != SAR_OK) return Settle(result);
      ZEPH_TRY(RenewPin(*app, app->user, app->admin, user_pin, master));
      app->user.is_default = false;
      return SAR_OK;
    });
    ZEPH_TRY(rv);
    if (result == SAR_OK && a.obj->role != kRoleNone) a.obj->master = std::move(master);
    return result;
  });
}

}  // extern "C"
