#include <gtest/gtest.h>

extern "C" int zeph_c_header_check(void);

TEST(CHeaders, CompileAsCAndCallThrough) { EXPECT_EQ(zeph_c_header_check(), 0); }
