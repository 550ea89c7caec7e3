// Configuration file paths.
#include <cstring>

#include <gtest/gtest.h>

#include "scoped.hpp"

namespace {

using namespace zeph_test;

std::string CfgPath() {
  char out[260];
  std::memset(out, 'X', sizeof out);
  EXPECT_EQ(get_vorli_cfg_path(out), 0);
  EXPECT_NE(std::memchr(out, '\0', sizeof out), nullptr);
  return out;
}

TEST(ConfigPath, DirectoryThenWorkingDirectoryThenBareNameAndTheSetConfigBound) {
  TempDir config, work;
  ScopedCwd cwd(work.path());
  const std::string in_config = config.file("vorli_ukey_cfg.json");
  const std::string in_work = (std::filesystem::current_path() / "vorli_ukey_cfg.json").string();
  ASSERT_EQ(ZEPH_C_SetConfig(config.path().c_str()), 0u);
  EXPECT_EQ(CfgPath(), "vorli_ukey_cfg.json");
  WriteBytes(in_work, {'[', ']'});
  EXPECT_EQ(CfgPath(), in_work);
  WriteBytes(in_config, {'[', ']'});
  {
    LogCapture capture;
    EXPECT_EQ(CfgPath(), in_config);
    ASSERT_EQ(LogCapture::Records().size(), 1u);
    EXPECT_NE(LogCapture::Records()[0].find(",msg:'" + in_config + "',res:0}"), std::string::npos);
  }
  EXPECT_EQ(ZEPH_C_SetConfig(std::string(1025, 'd').c_str()), 0xFFFFFFFFu);
  EXPECT_EQ(ZEPH_C_SetConfig(nullptr), 0xFFFFFFFFu);
  EXPECT_EQ(CfgPath(), in_config);  // unchanged by refusals
  // Accepted, but too long for a 260-byte path: skipped, never cut short.
  EXPECT_EQ(ZEPH_C_SetConfig(std::string(1024, 'd').c_str()), 0u);
  EXPECT_EQ(CfgPath(), in_work);
  EXPECT_EQ(ZEPH_C_SetConfig(""), 0u);
  EXPECT_EQ(static_cast<uint32_t>(get_vorli_cfg_path(nullptr)), ERR_INVALID_PARAMETER);
}

TEST(ConfigPath, IniPathFromEnvironment) {
  const std::string fits(259 - std::strlen("//KandelorOstConfig.ini"), 'p'), longer = fits + "p";
  const struct {
    const char *env;
    std::string expected;
    uint32_t status;
  } cases[] = {{nullptr, "//etc//KandelorOstConfig.ini", 0},
               {"/opt/kandelor", "/opt/kandelor//KandelorOstConfig.ini", 0},
               {fits.c_str(), fits + "//KandelorOstConfig.ini", 0},
               {longer.c_str(), "", ERR_INVALID_PARAMETER}};
  for (const auto &c : cases) {
    ScopedEnv env("KANDELOR_CONFIG_FILE_PATH", c.env);
    char out[260];
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(static_cast<uint32_t>(GetKandelorOstConfigPath(out)), c.status);
    EXPECT_EQ(std::string(out), c.expected);
    EXPECT_TRUE(c.status == 0 || out[259] == '\0');  // cleared on refusal, not left with old bytes
  }
  EXPECT_EQ(static_cast<uint32_t>(GetKandelorOstConfigPath(nullptr)), ERR_INVALID_PARAMETER);
}

}  // namespace
