// The shared library exports exactly the documented names: no mangled C++
// symbol, nothing unlisted, and every listed name present.
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "test_support.hpp"

namespace {

using zeph_test::DynamicSymbols;

std::set<std::string> ListedNames() {
  std::set<std::string> names;
  const std::filesystem::path dir = std::filesystem::path(ZEPH_SOURCE_DIR) / "tests/integration/exports";
  for (const auto &entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() != ".txt") continue;
    std::ifstream in(entry.path());
    std::string line;
    while (std::getline(in, line)) {
      if (const auto hash = line.find('#'); hash != std::string::npos) line.resize(hash);
      while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) line.pop_back();
      if (!line.empty()) names.insert(line);
    }
  }
  return names;
}

const std::set<std::string> kRuntime = {"_init", "_fini"};

}  // namespace

// Both directions: nothing exported that is not listed (nor mangled, nor a
// file-local helper), nothing listed that is not exported.
TEST(Exports, ExactlyTheListedUnmangledNames) {
  const auto exported = DynamicSymbols(ZEPH_LIB_PATH);
  ASSERT_FALSE(exported.empty()) << "nm found no dynamic symbols in " << ZEPH_LIB_PATH;
  const auto listed = ListedNames();
  for (const auto &name : exported) {
    if (kRuntime.count(name) != 0) continue;
    EXPECT_NE(name.rfind("_Z", 0), 0u) << "mangled C++ symbol exported: " << name;
    EXPECT_NE(name.rfind("l_", 0), 0u) << "file-local helper exported: " << name;
    EXPECT_TRUE(listed.count(name) != 0) << "unintended export: " << name;
  }
  for (const auto &name : listed) EXPECT_TRUE(exported.count(name) != 0) << "missing export: " << name;
}

// The self-test fault switch lives in the static twin only: the shared
// library carries the inert query but not the switch, not even hidden.
TEST(Exports, SelftestFaultSwitchIsAbsent) {
  std::string all;
  ASSERT_EQ(zeph_test::Shell("nm -C '" + std::string(ZEPH_LIB_PATH) + "'", &all), 0);
  ASSERT_NE(all.find("zeph::gm::selftest::Faulty"), std::string::npos) << "no symbol table to inspect";
  EXPECT_EQ(all.find("SetSelftestFault"), std::string::npos);
}
