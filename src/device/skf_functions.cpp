// Entry-point lookup and name-list splitting shared by detection and sessions.
#include "device/skf_functions.hpp"

#include <algorithm>
#include <mutex>
#include <vector>

#include "foundation/helpers.hpp"
#include "zeph_c_utils.h"

namespace zeph::device {

#define ZEPH_SKF_COUNT(name) +1
static_assert(0 ZEPH_SKF_LOOKUP_ORDER(ZEPH_SKF_COUNT) == 57, "every entry point is looked up");
#undef ZEPH_SKF_COUNT

SkfFunctions ResolveSkf(void *module) {
  SkfFunctions f;
  if (module == nullptr) return f;
#define ZEPH_SKF_RESOLVE(name) f.name = reinterpret_cast<PFN_##name>(GetProcAddress(module, #name));
  ZEPH_SKF_LOOKUP_ORDER(ZEPH_SKF_RESOLVE)
#undef ZEPH_SKF_RESOLVE
  return f;
}

namespace {

struct CachedLibrary {
  void *module;
  uint64_t unloads;  // LibraryUnloads() when it was looked up
  SkfFunctions functions;
};

// One entry per vendor library in use: a handful.
std::mutex g_cache_mutex;
std::vector<CachedLibrary> g_cache;

}  // namespace

SkfFunctions CachedSkf(void *module) {
  if (module == nullptr) return {};
  // Read before the lookup: an unload while it runs leaves the entry stale.
  const uint64_t unloads = zeph::LibraryUnloads();
  {
    std::lock_guard<std::mutex> lock(g_cache_mutex);
    for (const CachedLibrary &c : g_cache) {
      if (c.module == module && c.unloads == unloads) return c.functions;
    }
  }
  const SkfFunctions found = ResolveSkf(module);
  std::lock_guard<std::mutex> lock(g_cache_mutex);
  std::erase_if(g_cache, [&](const CachedLibrary &c) { return c.module == module || c.unloads != unloads; });
  g_cache.push_back({module, unloads, found});
  return found;
}

std::vector<std::string> SplitNames(const char *list, uint32_t size) {
  std::vector<std::string> names;
  uint32_t pos = 0;
  while (pos < size && list[pos] != '\0') {
    uint32_t end = pos;
    while (end < size && list[end] != '\0') ++end;
    if (end == size) break;
    names.emplace_back(list + pos, end - pos);
    pos = end + 1;
  }
  return names;
}

}  // namespace zeph::device
