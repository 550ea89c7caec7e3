// The fixed fallback vendor, with the software key standing in for the
// vendor's library: the first present key, or the status that explains why
// there is none.
#include <cstdlib>
#include <string>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "device/detection.hpp"
#include "device/vendor_quirks.hpp"
#include "test_support.hpp"
#include "zeph_c_status.h"

namespace {

#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_TOOL)

// "status type library device", "-" for an output left alone.
std::string Fallback(const char *library) {
  uint32_t type = 0;
  char lib[ZEPH_DEVICE_SKFLIB_MAX] = "-", dev[ZEPH_DEVICE_NAME_MAX] = "-";
  const uint32_t rv = zeph::device::ConnectFallbackKey(library, &type, lib, dev);
  return std::to_string(rv) + " " + std::to_string(type) + " " + lib + " " + dev;
}

TEST(FallbackVendor, FirstPresentKeyOrWhyThereIsNone) {
  zeph_test::TempDir root;
  setenv("ZEPH_SOFTKEY_ROOT", root.path().c_str(), 1);
  const auto tool = [&](const std::string &args) {
    const std::string cmd = std::string("'") + ZEPH_SOFTKEY_TOOL + "' --root '" + root.path().native() + "' " + args;
    ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd;
  };
  const std::string lib = ZEPH_SOFTKEY_LIB;
  // The fallback unloads its library again; held here, the software key's
  // process-wide state stays reachable as it does under the library table.
  static void *const kept = dlopen(lib.c_str(), RTLD_NOW);
  ASSERT_NE(kept, nullptr);

  EXPECT_EQ(Fallback("/nonexistent/libskf-missing.so"), std::to_string(ERR_NO_DEVICE_LIBRARY) + " 0 - -");
  EXPECT_EQ(Fallback(lib.c_str()), std::to_string(ERR_NO_KEY_FOUND) + " 0 - -");
  tool("create-device --serial K1");
  tool("create-device --serial K2");
  tool("unplug --serial K1");  // listed only among all keys, not the present ones
  EXPECT_EQ(Fallback(lib.c_str()), "0 " + std::to_string(zeph::device::kTypeFallbackVendor) + " " + lib + " K2");
  setenv("ZEPH_SOFTKEY_FAULT", "SKF_EnumDev:*:0x0A000005", 1);
  EXPECT_EQ(Fallback(lib.c_str()), std::to_string(0x0A000005u) + " 0 - -");  // the vendor's status
  unsetenv("ZEPH_SOFTKEY_FAULT");
  unsetenv("ZEPH_SOFTKEY_ROOT");
}

#else

TEST(FallbackVendor, FirstPresentKeyOrWhyThereIsNone) { GTEST_SKIP() << "built without the software key"; }

#endif

}  // namespace
