#include "softkey_fixture.hpp"

#include <stdlib.h>

// The build names the utility; without it the end-to-end suites cannot run.
#ifndef ZEPH_SOFTKEY_TOOL
#error "ZEPH_SOFTKEY_TOOL is not defined: the software key must be built with the tests"
#endif

namespace zeph_test {

namespace {

void HooksOff() {
  unsetenv("ZEPH_SOFTKEY_FAULT");
  unsetenv("ZEPH_SOFTKEY_TRACE");
}

}  // namespace

void SoftkeyFixture::SetUp() {
  setenv("ZEPH_SOFTKEY_ROOT", root.path().c_str(), 1);
  HooksOff();
}

void SoftkeyFixture::TearDown() { HooksOff(); }

int SoftkeyFixture::Tool(const std::string &args, std::string *out) const {
  return Shell(std::string("'") + ZEPH_SOFTKEY_TOOL + "' --root '" + root.path().string() + "' " + args, out);
}

void SoftkeyFixture::MustTool(const std::string &args) const {
  std::string out;
  EXPECT_EQ(Tool(args, &out), 0) << "zeph-softkey " << args << "\n" << out;
}

}  // namespace zeph_test
