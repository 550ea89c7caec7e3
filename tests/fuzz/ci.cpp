// ZEPH_C_CI and ZEPH_C_CI_Ex on arbitrary request texts: no crash, no leak,
// no write past the stated capacity, and both entries agree.

#include "check.hpp"
#include "zeph_c_ci.h"
#include "zeph_c_device.h"

// No vendor library: the device commands run their whole path up to the
// point where no key answers, the same on every machine.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ZEPH_C_SetConfigInfo("[]");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string request = fuzz::Text(data, size);

  // A capacity picked by the input, with a guard zone behind it.
  const uint32_t capacity = size == 0 ? 0 : data[0] % 96;
  fuzz::Guarded small(capacity);
  uint32_t required = 0;
  const uint32_t rv = ZEPH_C_CI_Ex(request.c_str(), small.text(), capacity, &required);
  fuzz::Check(small.Intact() && required >= 2 && fuzz::OneOf(rv, {0, ERR_BUFFER_TOO_SMALL}));
  fuzz::Check(rv != 0 || (required <= capacity && std::strlen(small.text()) + 1 == required));

  std::vector<char> full(required + 4096, '\x5a');
  fuzz::Check(ZEPH_C_CI(request.c_str(), full.data()) == 0 && std::strncmp(full.data(), "{\"type\":", 8) == 0);
  return 0;
}
