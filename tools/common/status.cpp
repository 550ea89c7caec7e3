#include "status.hpp"

#include <cstdio>

#include "zeph_c_status.h"

namespace zeph_tools {

namespace {

struct Name {
  uint32_t value;
  const char *name;
};

// status_names.inc holds one X(ERR_...) per status the header defines.
constexpr Name kNames[] = {
#define X(name) {name, #name},
#include "status_names.inc"
#undef X
};

}  // namespace

const char *StatusName(uint32_t status) {
  for (const Name &n : kNames)
    if (n.value == status) return n.name;
  return nullptr;
}

std::string StatusText(uint32_t status) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08X", status);
  const char *name = StatusName(status);
  return name != nullptr ? std::string(hex) + " " + name : std::string(hex);
}

}  // namespace zeph_tools
