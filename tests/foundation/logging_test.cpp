// Debug records, hex dumps and the daily log file name.
#include <gtest/gtest.h>

#include <ctime>
#include <cstring>
#include <regex>
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

const std::string kTime = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})";

TEST(LogRecord, ExactShape) {
  struct Case {
    const char *message;
    int64_t status;
    std::string expected;  // a regular expression
  } cases[] = {
      {"GM_SKF_CTX_OpenSession:", 0, "\\{file:'dev.cpp',line:42,time:'" + kTime + "',msg:'GM_SKF_CTX_OpenSession:',res:0\\}"},
      // An unsigned 32-bit status stays positive in the signed 64-bit print.
      {"x", 0x82080000u, "\\{file:'dev.cpp',line:42,time:'" + kTime + "',msg:'x',res:2181562368\\}"},
      {nullptr, -1, "\\{file:'dev.cpp',line:42,time:'" + kTime + "',res:-1\\}"},
      {"", INT64_MIN, "\\{file:'dev.cpp',line:42,time:'" + kTime + "',msg:'',res:-9223372036854775808\\}"},
  };
  for (const auto &c : cases) {
    LogCapture capture;
    zeph_logger_debug(c.message, c.status, "dev.cpp", 42);
    ASSERT_EQ(LogCapture::Records().size(), 1u);
    EXPECT_TRUE(std::regex_match(LogCapture::Records()[0], std::regex(c.expected))) << LogCapture::Records()[0];
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
  const std::string when = R"(\.\[)" + kTime + R"(\]\n)";
  const std::regex expected(
      R"(\$\$\$File: a\.cpp, Line:7)" + when + hex16 + "\n\nHexSize:10\\$\\$\\$\n" +  //
      R"(\$\$\$File: b\.cpp, Line:8)" + when + "\nHexSize:0\\$\\$\\$\n" +            //
      R"(\$\$\$File: c\.cpp, Line:9)" + when + hex16 + "\n" + last + "\nHexSize:11\\$\\$\\$\n");
  const auto bytes = zeph_test::ReadBytes((dir.path() / ("zeph_" + Today() + ".log")).string());
  const std::string text(bytes.begin(), bytes.end());
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST(LogFile, UnwritableDirectoryMakesTheDumpANoOp) {
  if (geteuid() == 0) GTEST_SKIP() << "root writes anywhere";
  zeph_test::TempDir dir;
  std::filesystem::permissions(dir.path(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
  zeph_test::ScopedCwd cwd(dir.path());
  const unsigned char byte = 1;
  EXPECT_EQ(zeph_logger_debugHex(&byte, 1, "a.cpp", 1), 0);
  std::filesystem::permissions(dir.path(), std::filesystem::perms::owner_all);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
