// Device configuration texts and keySNs from outside: the configuration is
// parsed and a keySN split against it. No library is loaded (that would run
// whatever the text names), so the table is never built here.
#include "check.hpp"
#include "zeph_c_device.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input = fuzz::Text(data, size);
  const size_t cut = input.find('\n');
  const std::string config = input.substr(0, cut);
  const std::string key_sn = cut == std::string::npos ? "ES_0123ABCD" : input.substr(cut + 1);
  if (ZEPH_C_SetConfigInfo(config.c_str()) != 0) return 0;
  uint32_t type = 0;
  char lib[ZEPH_DEVICE_SKFLIB_MAX];
  char device[ZEPH_DEVICE_NAME_MAX];
  ZEPH_C_ukey_detection_parseInfoWithKSN(key_sn.c_str(), &type, lib, device);
  uint32_t algo = 0;
  zeph_c_cert_getAlgoIDWithCert(data, static_cast<uint32_t>(size), &algo);
  return 0;
}
