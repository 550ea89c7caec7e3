// Software keys for a test: a private root folder of devices, set up with the
// zeph-softkey utility as a user would, and the test hooks switched off
// around every test. The software key's own tests and the end-to-end suites
// derive their fixtures from this one.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "test_support.hpp"

namespace zeph_test {

class SoftkeyFixture : public ::testing::Test {
 protected:
  void SetUp() override;     // ZEPH_SOFTKEY_ROOT is this test's folder
  void TearDown() override;  // no fault injection, no trace left behind

  // "zeph-softkey --root <root> <args>": its exit code, its words in *out.
  int Tool(const std::string &args, std::string *out = nullptr) const;
  // The same, failing the test (with the utility's words) unless it succeeds.
  void MustTool(const std::string &args) const;

  TempDir root;
};

}  // namespace zeph_test
