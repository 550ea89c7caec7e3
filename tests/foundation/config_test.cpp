// Configuration directory, configuration file paths and the loader calls.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "scoped.hpp"
#include "test_support.hpp"
#include "zeph_c_utils.h"

namespace {

using zeph_test::ScopedCwd;
using zeph_test::ScopedEnv;
using zeph_test::TempDir;

std::string CfgPath() {
  char out[260];
  std::memset(out, 'X', sizeof out);
  EXPECT_EQ(get_vorli_cfg_path(out), 0);
  EXPECT_NE(std::memchr(out, '\0', sizeof out), nullptr);
  return out;
}

void Touch(const std::string &path) { zeph_test::WriteBytes(path, {'[', ']'}); }

TEST(ConfigPath, SearchOrderDirectoryThenWorkingDirectoryThenBareName) {
  TempDir config;
  TempDir work;
  ScopedCwd cwd(work.path());
  const std::string in_config = config.file("vorli_ukey_cfg.json");
  const std::string in_work = (std::filesystem::current_path() / "vorli_ukey_cfg.json").string();

  ASSERT_EQ(ZEPH_C_SetConfig(config.path().c_str()), 0u);
  EXPECT_EQ(CfgPath(), "vorli_ukey_cfg.json");
  Touch(in_work);
  EXPECT_EQ(CfgPath(), in_work);
  Touch(in_config);
  EXPECT_EQ(CfgPath(), in_config);

  zeph_test::LogCapture capture;
  CfgPath();
  ASSERT_EQ(zeph_test::LogCapture::Records().size(), 1u);
  const std::string &record = zeph_test::LogCapture::Records()[0];
  EXPECT_NE(record.find(",msg:'" + in_config + "',res:0}"), std::string::npos) << record;
}

TEST(ConfigPath, SetConfigBoundIs1024Characters) {
  TempDir config;
  Touch(config.file("vorli_ukey_cfg.json"));
  ASSERT_EQ(ZEPH_C_SetConfig(config.path().c_str()), 0u);
  const std::string longest(1024, 'd');
  const std::string too_long(1025, 'd');
  EXPECT_EQ(ZEPH_C_SetConfig(too_long.c_str()), 0xFFFFFFFFu);
  EXPECT_EQ(ZEPH_C_SetConfig(nullptr), 0xFFFFFFFFu);
  EXPECT_EQ(CfgPath(), config.file("vorli_ukey_cfg.json"));  // unchanged by refusals

  // Accepted, but too long for a 260-byte path: skipped, never cut short.
  EXPECT_EQ(ZEPH_C_SetConfig(longest.c_str()), 0u);
  TempDir work;
  ScopedCwd cwd(work.path());
  EXPECT_EQ(CfgPath(), "vorli_ukey_cfg.json");
  EXPECT_EQ(ZEPH_C_SetConfig(""), 0u);
}

TEST(ConfigPath, IniPathFromEnvironment) {
  char out[260];
  {
    ScopedEnv env("KANDELOR_CONFIG_FILE_PATH", nullptr);
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(GetKandelorOstConfigPath(out), 0);
    EXPECT_STREQ(out, "//etc//KandelorOstConfig.ini");
  }
  {
    ScopedEnv env("KANDELOR_CONFIG_FILE_PATH", "/opt/kandelor");
    EXPECT_EQ(GetKandelorOstConfigPath(out), 0);
    EXPECT_STREQ(out, "/opt/kandelor//KandelorOstConfig.ini");
  }
  // The longest directory that fits 259 characters with the file name, and one more.
  const std::string fits(259 - std::strlen("//KandelorOstConfig.ini"), 'p');
  {
    ScopedEnv env("KANDELOR_CONFIG_FILE_PATH", fits.c_str());
    EXPECT_EQ(GetKandelorOstConfigPath(out), 0);
    EXPECT_EQ(std::string(out), fits + "//KandelorOstConfig.ini");
  }
  {
    const std::string longer = fits + "p";
    ScopedEnv env("KANDELOR_CONFIG_FILE_PATH", longer.c_str());
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(static_cast<uint32_t>(GetKandelorOstConfigPath(out)), ERR_INVALID_PARAMETER);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(out[259], '\0');  // cleared, not left with old bytes
  }
  EXPECT_EQ(static_cast<uint32_t>(GetKandelorOstConfigPath(nullptr)), ERR_INVALID_PARAMETER);
  EXPECT_EQ(static_cast<uint32_t>(get_vorli_cfg_path(nullptr)), ERR_INVALID_PARAMETER);
}

TEST(Loader, OpenLookUpCloseAndReportFailures) {
  void *libc = LoadLibraryA("libc.so.6");
  ASSERT_NE(libc, nullptr);
  EXPECT_NE(GetProcAddress(libc, "strlen"), nullptr);
  EXPECT_EQ(GetProcAddress(libc, "no_such_entry_point"), nullptr);
  EXPECT_EQ(GetProcAddress(nullptr, "strlen"), nullptr);
  EXPECT_EQ(FreeLibrary(libc), 0);
  EXPECT_EQ(FreeLibrary(nullptr), 0);

  testing::internal::CaptureStdout();
  EXPECT_EQ(LoadLibraryA("/nonexistent/libvendor.so"), nullptr);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed, "Dll /nonexistent/libvendor.so open error:/nonexistent/libvendor.so: cannot open shared object "
                     "file: No such file or directory.\n");
}

}  // namespace
