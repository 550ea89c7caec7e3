// ZEPH_C_CI and ZEPH_C_CI_Ex on arbitrary request texts: no crash, no leak,
// no write past the stated capacity, and both entries agree.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zeph_c_ci.h"
#include "zeph_c_device.h"
#include "zeph_c_status.h"

// No vendor library: the device commands run their whole path up to the
// point where no key answers, the same on every machine.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ZEPH_C_SetConfigInfo("[]");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string request(reinterpret_cast<const char *>(data), size);

  // A capacity picked by the input, with a guard zone behind it.
  const uint32_t capacity = size == 0 ? 0 : data[0] % 96;
  std::vector<char> small(capacity + 64, '\x5a');
  uint32_t required = 0;
  const uint32_t rv = ZEPH_C_CI_Ex(request.c_str(), small.data(), capacity, &required);
  for (size_t i = capacity; i < small.size(); ++i) {
    if (small[i] != '\x5a') std::abort();
  }
  if (required < 2) std::abort();
  if (rv == 0 && (required > capacity || std::strlen(small.data()) + 1 != required)) std::abort();
  if (rv != 0 && rv != ERR_BUFFER_TOO_SMALL) std::abort();

  std::vector<char> full(required + 4096, '\x5a');
  if (ZEPH_C_CI(request.c_str(), full.data()) != 0) std::abort();
  if (std::strncmp(full.data(), "{\"type\":", 8) != 0) std::abort();
  return 0;
}
