// The fixed fallback vendor, with the software key standing in for the
// vendor's library: the first present key, or the status that explains why
// there is none.
#include <cstdlib>
#include <string>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "device/detection.hpp"
#include "device/vendor_quirks.hpp"
#include "softkey_fixture.hpp"
#include "zeph_c_status.h"

namespace {

// "status type library device", "-" for an output left alone.
std::string Fallback(const char *library) {
  uint32_t type = 0;
  char lib[ZEPH_DEVICE_SKFLIB_MAX] = "-", dev[ZEPH_DEVICE_NAME_MAX] = "-";
  const uint32_t rv = zeph::device::ConnectFallbackKey(library, &type, lib, dev);
  return std::to_string(rv) + " " + std::to_string(type) + " " + lib + " " + dev;
}

using FallbackVendor = zeph_test::SoftkeyFixture;

TEST_F(FallbackVendor, FirstPresentKeyOrWhyThereIsNone) {
  const std::string lib = ZEPH_SOFTKEY_LIB;
  // The fallback unloads its library again; held here, the software key's
  // process-wide state stays reachable as it does under the library table.
  static void *const kept = dlopen(lib.c_str(), RTLD_NOW);
  ASSERT_NE(kept, nullptr);

  EXPECT_EQ(Fallback("/nonexistent/libskf-missing.so"), std::to_string(ERR_NO_DEVICE_LIBRARY) + " 0 - -");
  EXPECT_EQ(Fallback(lib.c_str()), std::to_string(ERR_NO_KEY_FOUND) + " 0 - -");
  MustTool("create-device --serial K1");
  MustTool("create-device --serial K2");
  MustTool("unplug --serial K1");  // listed only among all keys, not the present ones
  EXPECT_EQ(Fallback(lib.c_str()), "0 " + std::to_string(zeph::device::kTypeFallbackVendor) + " " + lib + " K2");
  setenv("ZEPH_SOFTKEY_FAULT", "SKF_EnumDev:*:0x0A000005", 1);
  EXPECT_EQ(Fallback(lib.c_str()), std::to_string(0x0A000005u) + " 0 - -");  // the vendor's status
}

}  // namespace
