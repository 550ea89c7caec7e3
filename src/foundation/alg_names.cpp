// Names of the RSA signature algorithms by the library's codes.
#include <cstring>

#include "zeph_c_status.h"
#include "zeph_c_utils.h"

extern "C" {

ZEPH_API uint32_t zeph_getVorliAlgName(uint32_t code, char *out) {
  if (out == nullptr) return ERR_INVALID_PARAMETER;
  const char *name = "unknown signAlgoName";
  switch (code) {
    case 3:
      name = "SHA1withRSA";
      break;
    case 4:
      name = "SHA256withRSA";
      break;
    case 5:
      name = "SHA384withRSA";
      break;
    case 6:
      name = "SHA512withRSA";
      break;
    default:
      break;
  }
  std::memcpy(out, name, std::strlen(name) + 1);
  return 0;
}

}  // extern "C"
