// Debug records, hex dumps and the daily log file name.
#include <gtest/gtest.h>

#include <ctime>
#include <cstring>
#include <string>

#include "scoped.hpp"
#include "test_support.hpp"
#include "zeph_c_utils.h"

namespace {

using zeph_test::LogCapture;

std::string Today() {
  const std::time_t now = std::time(nullptr);
  std::tm t{};
  localtime_r(&now, &t);
  char buf[16];
  std::strftime(buf, sizeof buf, "%Y%m%d", &t);
  return buf;
}

// Replaces every well-formed "YYYY-MM-DD hh:mm:ss" with "<time>", so records
// compare exactly apart from the clock.
std::string MaskTimes(std::string s) {
  static const char kShape[] = "dddd-dd-dd dd:dd:dd";
  const size_t n = sizeof kShape - 1;
  for (size_t i = 0; i + n <= s.size(); ++i) {
    bool match = true;
    for (size_t j = 0; j < n && match; ++j) {
      const char c = s[i + j];
      match = kShape[j] == 'd' ? (c >= '0' && c <= '9') : c == kShape[j];
    }
    if (match) s.replace(i, n, "<time>");
  }
  return s;
}

TEST(LogRecord, ExactShape) {
  struct Case {
    const char *message;
    int64_t status;
    const char *expected;
  } cases[] = {
      {"GM_SKF_CTX_OpenSession:", 0, "{file:'dev.cpp',line:42,time:'<time>',msg:'GM_SKF_CTX_OpenSession:',res:0}"},
      // An unsigned 32-bit status stays positive in the signed 64-bit print.
      {"x", 0x82080000u, "{file:'dev.cpp',line:42,time:'<time>',msg:'x',res:2181562368}"},
      {nullptr, -1, "{file:'dev.cpp',line:42,time:'<time>',res:-1}"},
      {"", INT64_MIN, "{file:'dev.cpp',line:42,time:'<time>',msg:'',res:-9223372036854775808}"},
  };
  for (const auto &c : cases) {
    LogCapture capture;
    zeph_logger_debug(c.message, c.status, "dev.cpp", 42);
    ASSERT_EQ(LogCapture::Records().size(), 1u);
    EXPECT_EQ(MaskTimes(LogCapture::Records()[0]), c.expected);
  }
}

TEST(LogRecord, HeadIsCutAt259CharactersButMessageIsNot) {
  LogCapture capture;
  const std::string file(400, 'f');
  const std::string message(5000, 'm');
  zeph_logger_debug(message.c_str(), 7, file.c_str(), 1);
  ASSERT_EQ(LogCapture::Records().size(), 1u);
  const std::string &r = LogCapture::Records()[0];
  const std::string head = "{file:'" + std::string(259 - 6, 'f');
  EXPECT_EQ(r.substr(0, head.size()), head);
  EXPECT_EQ(r.substr(head.size()), ",msg:'" + message + "',res:7}");
}

TEST(LogRecord, NoCallbackMeansNoOutputAndNoFile) {
  zeph_test::TempDir dir;
  zeph_test::ScopedCwd cwd(dir.path());
  zeph_log_callback *slot = setLogCallback(nullptr);
  ASSERT_NE(slot, nullptr);
  EXPECT_EQ(*slot, nullptr);
  zeph_logger_debug("nobody listens", 1, "a.cpp", 1);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  {
    LogCapture capture;
    EXPECT_NE(*slot, nullptr);  // the slot holds the installed callback
    EXPECT_EQ(setLogCallback(*slot), slot);
  }
  EXPECT_EQ(*slot, nullptr);
}

TEST(LogFile, NameAndDate) {
  char date[16];
  std::memset(date, 'X', sizeof date);
  EXPECT_EQ(se_getTimeString(date), 0);
  EXPECT_EQ(std::string(date), Today());

  char path[260];
  std::memset(path, 'X', sizeof path);
  EXPECT_EQ(se_getLogPath(path), 1);
  const std::string name = "zeph_" + Today() + ".log";
  EXPECT_EQ(std::string(path, name.size()), name);
  EXPECT_EQ(path[name.size()], 'X');  // characters only, the caller's zeroes terminate
}

TEST(LogFile, HexDumpsAppendToTheDailyFile) {
  zeph_test::TempDir dir;
  zeph_test::ScopedCwd cwd(dir.path());
  const auto data = zeph_test::RandomBytes(17, 3);
  EXPECT_EQ(zeph_logger_debugHex(data.data(), 16, "a.cpp", 7), 0);
  EXPECT_EQ(zeph_logger_debugHex(nullptr, 0, "b.cpp", 8), 0);
  EXPECT_EQ(zeph_logger_debugHex(data.data(), 17, "c.cpp", 9), 0);

  std::string hex16;
  for (int i = 0; i < 16; ++i) {
    char b[4];
    std::snprintf(b, sizeof b, "%02X ", data[i]);
    hex16 += b;
  }
  char last[4];
  std::snprintf(last, sizeof last, "%02X ", data[16]);
  const std::string expected =
      "$$$File: a.cpp, Line:7.[<time>]\n" + hex16 + "\n\nHexSize:10$$$\n" +  //
      "$$$File: b.cpp, Line:8.[<time>]\n\nHexSize:0$$$\n" +                  //
      "$$$File: c.cpp, Line:9.[<time>]\n" + hex16 + "\n" + last + "\nHexSize:11$$$\n";
  const auto bytes = zeph_test::ReadBytes((dir.path() / ("zeph_" + Today() + ".log")).string());
  const std::string text(bytes.begin(), bytes.end());
  EXPECT_EQ(MaskTimes(text), expected);
}

TEST(LogFile, UnopenableFileMakesTheDumpANoOp) {
  zeph_test::TempDir dir;
  const auto gone = dir.path() / "gone";
  std::filesystem::create_directory(gone);
  zeph_test::ScopedCwd cwd(gone);
  std::filesystem::remove(gone);  // the working directory no longer exists, even for root
  const unsigned char byte = 1;
  EXPECT_EQ(zeph_logger_debugHex(&byte, 1, "a.cpp", 1), 0);
  EXPECT_FALSE(std::filesystem::exists(gone));
}

}  // namespace
