// Debug records and hex dumps into the daily log file.
#if defined(__GNUC__) && !defined(__clang__)
// libstdc++'s <regex> trips a false -Wmaybe-uninitialized in sanitizer builds.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <regex>

#include <gtest/gtest.h>

#include "scoped.hpp"

namespace {

using namespace zeph_test;

std::string Today() {
  const std::time_t now = std::time(nullptr);
  char buf[16];
  std::strftime(buf, sizeof buf, "%Y%m%d", std::localtime(&now));
  return buf;
}

std::string MaskTimes(const std::string &s) {
  return std::regex_replace(s, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"), "<time>");
}

TEST(Log, RecordShape) {
  const std::string big(5000, 'm'), head = "{file:'" + std::string(253, 'f');
  const struct {
    std::string file;
    const char *message;
    int64_t status;
    std::string expected;
  } cases[] = {
      {"dev.cpp", "GM_SKF_CTX_OpenSession:", 0,
       "{file:'dev.cpp',line:42,time:'<time>',msg:'GM_SKF_CTX_OpenSession:',res:0}"},
      {"dev.cpp", "x", 0x82080000u, "{file:'dev.cpp',line:42,time:'<time>',msg:'x',res:2181562368}"},
      {"dev.cpp", nullptr, -1, "{file:'dev.cpp',line:42,time:'<time>',res:-1}"},
      {"dev.cpp", "", INT64_MIN, "{file:'dev.cpp',line:42,time:'<time>',msg:'',res:-9223372036854775808}"},
      // The head is cut at 259 characters, the message is not.
      {std::string(400, 'f'), big.c_str(), 7, head + ",msg:'" + big + "',res:7}"},
  };
  for (const auto &c : cases) {
    LogCapture capture;
    zeph_logger_debug(c.message, c.status, c.file.c_str(), 42);
    ASSERT_EQ(LogCapture::Records().size(), 1u);
    EXPECT_EQ(MaskTimes(LogCapture::Records()[0]), c.expected);
  }
}

TEST(Log, NoCallbackMeansNoOutputAndNoFile) {
  TempDir dir;
  ScopedCwd cwd(dir.path());
  zeph_log_callback *slot = setLogCallback(nullptr);
  ASSERT_NE(slot, nullptr);
  EXPECT_EQ(*slot, nullptr);
  zeph_logger_debug("nobody listens", 1, "a.cpp", 1);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST(Log, HexDumpsAppendToTheDailyFile) {
  TempDir dir;
  {
    ScopedCwd cwd(dir.path());
    const auto data = RandomBytes(17, 3);
    EXPECT_EQ(zeph_logger_debugHex(data.data(), 16, "a.cpp", 7), 0);
    EXPECT_EQ(zeph_logger_debugHex(nullptr, 0, "b.cpp", 8), 0);
    EXPECT_EQ(zeph_logger_debugHex(data.data(), 17, "c.cpp", 9), 0);
    std::string hex16;
    for (int i = 0; i < 16; ++i) hex16 += ToHex(&data[i], 1) + " ";
    const std::string expected = "$$$File: a.cpp, Line:7.[<time>]\n" + hex16 + "\n\nHexSize:10$$$\n" +
                                 "$$$File: b.cpp, Line:8.[<time>]\n\nHexSize:0$$$\n" +
                                 "$$$File: c.cpp, Line:9.[<time>]\n" + hex16 + "\n" + ToHex(&data[16], 1) +
                                 " \nHexSize:11$$$\n";
    const auto bytes = ReadBytes(dir.file("zeph_" + Today() + ".log"));
    EXPECT_EQ(MaskTimes(std::string(bytes.begin(), bytes.end())), expected);
  }
  // A file that cannot be opened makes the dump a no-op.
  const auto gone = dir.path() / "gone";
  std::filesystem::create_directory(gone);
  ScopedCwd cwd(gone);
  std::filesystem::remove(gone);
  const unsigned char byte = 1;
  EXPECT_EQ(zeph_logger_debugHex(&byte, 1, "a.cpp", 1), 0);
  EXPECT_FALSE(std::filesystem::exists(gone));
}

}  // namespace
