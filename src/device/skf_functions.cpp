// Entry-point lookup and name-list splitting shared by detection and sessions.
#include "device/skf_functions.hpp"

#include <vector>

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
