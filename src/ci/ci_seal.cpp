// The key of a seal command.
#include "ci/ci_seal.hpp"

#include <vector>

#include "zeph_c_api.h"
#include "zeph_c_status.h"

namespace zeph::ci {

uint32_t SealKeySN(const ZEPH_REQ_PARAM &req, std::string *key_sn) {
  if (req.keySN.s[0] != '\0') {
    *key_sn = req.keySN.s;
    return 0;
  }
  // NUL-separated names, the first one first.
  uint32_t n = 0;
  ZEPH_ENSURE(ZEPH_C_ListKeySNDevice(nullptr, &n) == 0 && n != 0, ERR_NO_KEY_FOUND);
  std::vector<char> names(static_cast<size_t>(n) + 1, '\0');
  ZEPH_ENSURE(ZEPH_C_ListKeySNDevice(names.data(), &n) == 0 && names[0] != '\0', ERR_NO_KEY_FOUND);
  *key_sn = names.data();
  return 0;
}

}  // namespace zeph::ci
