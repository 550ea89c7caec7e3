#include "handles.hpp"

#include <vector>

#include "foundation/status_flow.hpp"

namespace softkey {

namespace {

// Handles look like pointers but are only numbers in the registry.
constexpr uintptr_t kHandleBase = 0x5EC000000000;

}  // namespace

HANDLE Registry::Add(std::unique_ptr<Object> obj, HANDLE parent) {
  obj->parent = reinterpret_cast<uintptr_t>(parent);
  next_ += 0x10;
  const uintptr_t h = kHandleBase + next_;
  objects_.emplace(h, std::move(obj));
  return reinterpret_cast<HANDLE>(h);
}

Object *Registry::Find(HANDLE h) {
  auto it = objects_.find(reinterpret_cast<uintptr_t>(h));
  return it == objects_.end() ? nullptr : it->second.get();
}

void Registry::Close(HANDLE h) {
  std::vector<uintptr_t> doomed{reinterpret_cast<uintptr_t>(h)};
  for (size_t i = 0; i < doomed.size(); ++i)
    for (const auto &[k, o] : objects_)
      if (o->parent == doomed[i]) doomed.push_back(k);
  for (uintptr_t k : doomed) objects_.erase(k);
}

Registry &Handles() {
  // Never destroyed: entry points may run during process exit.
  static Registry *registry = new Registry;
  return *registry;
}

ULONG ResolveDevice(HANDLE h, DevRef &out_ref) {
  out_ref.obj = Handles().Get<DeviceObj>(h);
  if (out_ref.obj == nullptr) return SAR_INVALIDHANDLEERR;
  return LoadDevice(out_ref.obj->dir, out_ref.dev);
}

ULONG ResolveApp(HANDLE h, AppRef &out_ref) {
  out_ref.obj = Handles().Get<AppObj>(h);
  if (out_ref.obj == nullptr) return SAR_INVALIDHANDLEERR;
  ZEPH_TRY(LoadDevice(out_ref.obj->dir, out_ref.dev));
  out_ref.app = out_ref.dev->AppById(out_ref.obj->app_id);
  // The application was deleted (perhaps re-created) since this handle opened it.
  return out_ref.app != nullptr ? SAR_OK : SAR_INVALIDHANDLEERR;
}

ULONG ResolveContainer(HANDLE h, ConRef &out_ref) {
  out_ref.obj = Handles().Get<ContainerObj>(h);
  if (out_ref.obj == nullptr) return SAR_INVALIDHANDLEERR;
  out_ref.app_obj = Handles().Get<AppObj>(reinterpret_cast<HANDLE>(out_ref.obj->parent));
  if (out_ref.app_obj == nullptr) return SAR_INVALIDHANDLEERR;
  ZEPH_TRY(LoadDevice(out_ref.obj->dir, out_ref.dev));
  out_ref.app = out_ref.dev->AppById(out_ref.obj->app_id);
  out_ref.con = out_ref.app != nullptr ? out_ref.app->ContainerById(out_ref.obj->con_id) : nullptr;
  return out_ref.con != nullptr ? SAR_OK : SAR_INVALIDHANDLEERR;
}

Application *AppIn(Device &dev, const AppObj &obj) { return dev.AppById(obj.app_id); }

Container *ContainerIn(Device &dev, const ContainerObj &obj) {
  Application *app = dev.AppById(obj.app_id);
  return app != nullptr ? app->ContainerById(obj.con_id) : nullptr;
}

HANDLE AddAppHandle(const std::string &dir, const std::string &app_id, HANDLE parent) {
  auto obj = std::make_unique<AppObj>();
  obj->dir = dir;
  obj->app_id = app_id;
  return Handles().Add(std::move(obj), parent);
}

HANDLE AddContainerHandle(const std::string &dir, const std::string &app_id, const std::string &con_id, HANDLE parent) {
  auto obj = std::make_unique<ContainerObj>();
  obj->dir = dir;
  obj->app_id = app_id;
  obj->con_id = con_id;
  return Handles().Add(std::move(obj), parent);
}

}  // namespace softkey
