// Handles of the software key and what they resolve to.
//
// A handle is an opaque number from a registry, never a pointer the caller
// could make up: a stale, foreign or null handle is simply not found. Closing
// a handle closes what was opened through it (a device closes its
// applications, an application its containers). The registry is touched only
// on the serialised entry path (entry.hpp).
#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include "crypto.hpp"
#include "store.hpp"

namespace softkey {

enum class Kind { kDevice, kApp, kContainer, kKey, kHash };

struct Object {
  explicit Object(Kind k) : kind(k) {}
  virtual ~Object() = default;
  const Kind kind;
  uintptr_t parent = 0;
  std::string dir;  // the device folder
};

struct DeviceObj : Object {
  DeviceObj() : Object(Kind::kDevice) {}
  std::optional<std::array<uint8_t, 8>> challenge;  // from the last SKF_GenRandom
  bool authenticated = false;
};

struct AppObj : Object {
  AppObj() : Object(Kind::kApp) {}
  std::string app_id;
  uint32_t role = kRoleNone;  // who verified a PIN on this handle
  SecureBytes master;         // unwrapped by that PIN
};

// A private key unwrapped once per handle, kept while its wrapped form is
// unchanged on the device.
struct KeyCache {
  Bytes wrapped;
  EvpPkeyPtr key;
};

struct ContainerObj : Object {
  ContainerObj() : Object(Kind::kContainer) {}
  std::string app_id, con_id;
  KeyCache sign_cache, enc_cache;
};

struct CipherOp {
  bool active = false;
  bool encrypt = false;
  bool padding = false;
  bool stream = false;  // CFB and OFB: no blocks held back, no padding
  zeph::EvpCipherCtxPtr ctx;
  Bytes pending;  // input not yet processed: less than a block, or the last block when unpadding
};

struct KeyObj : Object {
  KeyObj() : Object(Kind::kKey) {}
  uint32_t alg = 0;
  SecureBytes key;
  CipherOp op;
};

struct HashObj : Object {
  HashObj() : Object(Kind::kHash) {}
  zeph::EvpMdCtxPtr md;
  bool finished = false;
};

class Registry {
 public:
  HANDLE Add(std::unique_ptr<Object> obj, HANDLE parent);
  template <class T>
  T *Get(HANDLE h) {
    Object *o = Find(h);
    return o != nullptr && o->kind == KindOf<T>() ? static_cast<T *>(o) : nullptr;
  }
  Object *Find(HANDLE h);
  void Close(HANDLE h);  // with everything opened through it

 private:
  template <class T>
  static constexpr Kind KindOf() {
    if constexpr (std::is_same_v<T, DeviceObj>) return Kind::kDevice;
    if constexpr (std::is_same_v<T, AppObj>) return Kind::kApp;
    if constexpr (std::is_same_v<T, ContainerObj>) return Kind::kContainer;
    if constexpr (std::is_same_v<T, KeyObj>) return Kind::kKey;
    return Kind::kHash;
  }
  std::map<uintptr_t, std::unique_ptr<Object>> objects_;
  uintptr_t next_ = 0;
};

Registry &Handles();

// Resolution of handles to the current state of their objects:
// SAR_INVALIDHANDLEERR for a handle that is not (or no longer) there, else
// the status of loading the device.
struct DevRef {
  DeviceObj *obj = nullptr;
  std::shared_ptr<const Device> dev;
};
struct AppRef {
  AppObj *obj = nullptr;
  std::shared_ptr<const Device> dev;
  const Application *app = nullptr;
};
struct ConRef {
  ContainerObj *obj = nullptr;
  AppObj *app_obj = nullptr;
  std::shared_ptr<const Device> dev;
  const Application *app = nullptr;
  const Container *con = nullptr;
};
ULONG ResolveDevice(HANDLE h, DevRef &out_ref);
ULONG ResolveApp(HANDLE h, AppRef &out_ref);
ULONG ResolveContainer(HANDLE h, ConRef &out_ref);

// The application or container a handle names, in a device being changed;
// null when it was deleted meanwhile (the handle is then stale).
Application *AppIn(Device &dev, const AppObj &obj);
Container *ContainerIn(Device &dev, const ContainerObj &obj);

// New handles on an application or a container of the device folder `dir`.
HANDLE AddAppHandle(const std::string &dir, const std::string &app_id, HANDLE parent);
HANDLE AddContainerHandle(const std::string &dir, const std::string &app_id, const std::string &con_id, HANDLE parent);

// Closes a handle of kind T with everything opened through it.
template <class T>
ULONG CloseAs(HANDLE h) {
  if (Handles().Get<T>(h) == nullptr) return SAR_INVALIDHANDLEERR;
  Handles().Close(h);
  return SAR_OK;
}

// Symmetric keys: SM4 in ECB, CBC, CFB or OFB mode.
bool IsSymmAlg(ULONG alg);
HANDLE NewSymmKey(const std::string &dir, ULONG alg, ByteSpan key16, HANDLE parent);

}  // namespace softkey
