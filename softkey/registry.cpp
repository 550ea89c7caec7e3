#include "registry.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace softkey {

namespace {

// Handles look like pointers but are only numbers in the registry.
constexpr uintptr_t kHandleBase = 0x5EC000000000;

// Test hooks, re-read from the environment on every call.
//   ZEPH_SOFTKEY_FAULT="SKF_OpenContainer:1:0x0A000005,SKF_VerifyPIN:*:0x0A000025"
//     the n-th call (counted since a call last saw another value; * = every
//     call) of the named function returns the status and does nothing else.
//     Malformed entries are ignored, so a tag can make a value new.
//   ZEPH_SOFTKEY_TRACE=/path/file   one line appended per call.
class Hooks {
 public:
  std::optional<ULONG> Fault(const char *fn) {
    const char *env = std::getenv("ZEPH_SOFTKEY_FAULT");
    const std::string text = env != nullptr ? env : "";
    if (text != text_) {
      text_ = text;
      Parse();
    }
    std::optional<ULONG> hit;
    bool named = false;
    for (const auto &r : rules_) {
      if (r.fn != fn) continue;
      if (!named) {
        ++counts_[r.fn];
        named = true;
      }
      if (!hit && (r.nth == 0 || r.nth == counts_[r.fn])) hit = r.status;
    }
    return hit;
  }

  static void Trace(const char *fn, In in, const void *out, ULONG rv) {
    const char *path = std::getenv("ZEPH_SOFTKEY_TRACE");
    if (path == nullptr || *path == '\0') return;
    char line[256];
    int n = std::snprintf(line, sizeof line, "%s", fn);
    if (in.present) n += std::snprintf(line + n, sizeof line - n, " in=0x%lx", reinterpret_cast<unsigned long>(in.h));
    if (out != nullptr)
      n += std::snprintf(line + n, sizeof line - n, " out=0x%lx", reinterpret_cast<unsigned long>(out));
    n += std::snprintf(line + n, sizeof line - n, " rv=0x%08X\n", rv);
    // One write per line with O_APPEND: lines of several processes never mix.
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const ssize_t w = ::write(fd, line, static_cast<size_t>(n));
    (void)w;
    ::close(fd);
  }

 private:
  struct Rule {
    std::string fn;
    uint64_t nth = 0;  // 0: every call
    ULONG status = 0;
  };

  void Parse() {
    rules_.clear();
    counts_.clear();
    size_t pos = 0;
    while (pos < text_.size()) {
      const size_t end = text_.find_first_of(",; \t\n", pos);
      const std::string entry = text_.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
      pos = end == std::string::npos ? text_.size() : end + 1;
      const size_t c1 = entry.find(':');
      const size_t c2 = c1 == std::string::npos ? c1 : entry.find(':', c1 + 1);
      if (c2 == std::string::npos || c1 == 0) continue;  // malformed entries are ignored
      Rule r;
      r.fn = entry.substr(0, c1);
      const std::string nth = entry.substr(c1 + 1, c2 - c1 - 1), status = entry.substr(c2 + 1);
      char *stop = nullptr;
      if (nth != "*") {
        r.nth = std::strtoull(nth.c_str(), &stop, 10);
        if (nth.empty() || *stop != '\0' || r.nth == 0) continue;
      }
      errno = 0;
      const unsigned long long st = std::strtoull(status.c_str(), &stop, 0);
      if (status.empty() || *stop != '\0' || errno != 0 || st > 0xFFFFFFFFull) continue;
      r.status = static_cast<ULONG>(st);
      rules_.push_back(std::move(r));
    }
  }

  std::string text_;
  std::vector<Rule> rules_;
  std::map<std::string, uint64_t> counts_;
};

struct Global {
  std::mutex mu;
  Registry handles;
  Hooks hooks;
};

Global &G() {
  // Never destroyed: entry points may run during process exit.
  static Global *g = new Global;
  return *g;
}

}  // namespace

// ---- registry ----------------------------------------------------------------

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

Registry &Handles() { return G().handles; }

ULONG Dispatch(const char *fn, In in, HANDLE *out, Body body, void *ctx) {
  Global &g = G();
  std::lock_guard<std::mutex> guard(g.mu);
  if (const auto fault = g.hooks.Fault(fn)) {
    Hooks::Trace(fn, in, nullptr, *fault);
    return *fault;
  }
  ULONG rv;
  try {
    rv = body(ctx);
  } catch (const std::bad_alloc &) {
    rv = SAR_MEMORYERR;
  } catch (...) {
    rv = SAR_UNKNOWNERR;
  }
  Hooks::Trace(fn, in, rv == SAR_OK && out != nullptr ? *out : nullptr, rv);
  return rv;
}

// ---- common helpers ------------------------------------------------------------

ULONG PutBytes(ByteSpan result, BYTE *out, ULONG *out_len) {
  if (out_len == nullptr) return SAR_INVALIDPARAMERR;
  if (result.size() > UINT32_MAX) return SAR_INDATALENERR;
  const auto need = static_cast<ULONG>(result.size());
  if (out == nullptr) {
    *out_len = need;
    return SAR_OK;
  }
  if (*out_len < need) {
    *out_len = need;
    return SAR_BUFFER_TOO_SMALL;
  }
  if (need != 0) std::memcpy(out, result.data(), need);
  *out_len = need;
  return SAR_OK;
}

ULONG PutNameList(const std::vector<std::string> &names, LPSTR out, ULONG *out_len) {
  Bytes list;
  for (const auto &n : names) {
    list.insert(list.end(), n.begin(), n.end());
    list.push_back(0);
  }
  list.push_back(0);
  if (names.empty()) list.push_back(0);  // an empty list is still "\0\0"
  return PutBytes(list, reinterpret_cast<BYTE *>(out), out_len);
}

Text ReadText(const char *p, size_t max, std::string_view &out) {
  if (p == nullptr) return Text::kNull;
  const size_t n = strnlen(p, max + 1);
  if (n == 0) return Text::kEmpty;
  if (n > max) return Text::kTooLong;
  out = std::string_view(p, n);
  return Text::kOk;
}

ULONG ResolveDevice(HANDLE h, DevRef &out) {
  out.obj = Handles().Get<DeviceObj>(h);
  if (out.obj == nullptr) return SAR_INVALIDHANDLEERR;
  return LoadDevice(out.obj->dir, out.dev);
}

ULONG ResolveApp(HANDLE h, AppRef &out) {
  out.obj = Handles().Get<AppObj>(h);
  if (out.obj == nullptr) return SAR_INVALIDHANDLEERR;
  ZEPH_TRY(LoadDevice(out.obj->dir, out.dev));
  out.app = out.dev->AppById(out.obj->app_id);
  // The application was deleted (perhaps re-created) since this handle opened it.
  return out.app != nullptr ? SAR_OK : SAR_INVALIDHANDLEERR;
}

ULONG ResolveContainer(HANDLE h, ConRef &out) {
  out.obj = Handles().Get<ContainerObj>(h);
  if (out.obj == nullptr) return SAR_INVALIDHANDLEERR;
  out.app_obj = Handles().Get<AppObj>(reinterpret_cast<HANDLE>(out.obj->parent));
  if (out.app_obj == nullptr) return SAR_INVALIDHANDLEERR;
  ZEPH_TRY(LoadDevice(out.obj->dir, out.dev));
  out.app = out.dev->AppById(out.obj->app_id);
  out.con = out.app != nullptr ? out.app->ContainerById(out.obj->con_id) : nullptr;
  return out.con != nullptr ? SAR_OK : SAR_INVALIDHANDLEERR;
}

ULONG Change(const std::string &dir, const std::function<ULONG(Device &)> &change) {
  if (DevicePresence(dir) != Presence::kPresent) return SAR_DEVICE_REMOVED;
  const ULONG rv = UpdateDevice(dir, change);
  return rv == kUnchanged ? SAR_OK : rv;
}

}  // namespace softkey
