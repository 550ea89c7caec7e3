// Handles of the software key and the path every entry point takes.
//
// A handle is an opaque number from a registry, never a pointer the caller
// could make up: a stale, foreign or null handle is simply not found. Closing
// a handle closes what was opened through it (a device closes its
// applications, an application its containers). One mutex serialises the
// library; the device lock in the store serialises processes.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "crypto.hpp"
#include "foundation/status_flow.hpp"
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
  SecureBytes master;         // unsealed by that PIN
};

// A private key unsealed once per handle, kept while its sealed form is
// unchanged on the device.
struct KeyCache {
  Bytes sealed;
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

// How a call names its handle argument in the trace.
struct In {
  bool present = false;
  const void *h = nullptr;
};
inline constexpr In kNoHandle{};
inline In H(const void *h) { return In{true, h}; }

using Body = ULONG (*)(void *);
ULONG Dispatch(const char *fn, In in, HANDLE *out, Body body, void *ctx);

// The path of every entry point: serialised, the fault hook first, the body
// behind an exception barrier, one trace line last.
template <class F>
ULONG Call(const char *fn, In in, HANDLE *out, F &&body) {
  return Dispatch(
      fn, in, out, [](void *c) -> ULONG { return (*static_cast<std::remove_reference_t<F> *>(c))(); }, &body);
}

// Output buffers: a null buffer asks for the size, a short one gets
// SAR_BUFFER_TOO_SMALL; the size is written back either way.
ULONG PutBytes(ByteSpan result, BYTE *out, ULONG *out_len);
// A name list: each name terminated, one more terminator at the end.
ULONG PutNameList(const std::vector<std::string> &names, LPSTR out, ULONG *out_len);
// A caller's text of at most max bytes (longer ones are reported, not read).
enum class Text { kOk, kNull, kEmpty, kTooLong };
Text ReadText(const char *p, size_t max, std::string_view &out);

// Resolution of handles to the current state of their objects.
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
ULONG ResolveDevice(HANDLE h, DevRef &out);
ULONG ResolveApp(HANDLE h, AppRef &out);
ULONG ResolveContainer(HANDLE h, ConRef &out);

// Symmetric keys: SM4 in ECB, CBC, CFB or OFB mode.
bool IsSymmAlg(ULONG alg);
HANDLE NewSymmKey(const std::string &dir, ULONG alg, ByteSpan key16, HANDLE parent);

// A change returning kUnchanged leaves the device file as it is.
constexpr ULONG kUnchanged = 0xFFFFFFFFu;
ULONG Change(const std::string &dir, const std::function<ULONG(Device &)> &change);

}  // namespace softkey
