// Device configuration: parsing, keySN splitting and the once-built library
// table (system libraries stand in for vendor libraries). The text and the
// table are process-wide, so scenarios that build a table run in a fresh process.
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.hpp"
#include "zeph_c_device.h"
#include "zeph_c_utils.h"

namespace {

template <class F>
void InFreshProcess(F body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((body(), std::exit(::testing::Test::HasFailure() ? 1 : 0)), ::testing::ExitedWithCode(0), "");
}

std::string Entry(int type, const std::string &vid, const std::string &lib) {
  return "{\"type\":" + std::to_string(type) + ",\"vid\":\"" + vid + "\",\"skfLib\":\"" + lib + "\"}";
}

// "type lib device" as parsed, "-" for what was left alone, or the status.
std::string Parse(const char *key_sn) {
  uint32_t type = 777;
  char lib[ZEPH_DEVICE_SKFLIB_MAX] = "-", dev[ZEPH_DEVICE_NAME_MAX] = "-";
  const uint32_t rv = ZEPH_C_ukey_detection_parseInfoWithKSN(key_sn, &type, lib, dev);
  if (rv != 0) return "status " + std::to_string(rv);
  return (type == 777 ? "-" : std::to_string(type)) + " " + lib + " " + dev;
}

const std::string kInvalid = "status " + std::to_string(ERR_DEVICE_CONFIG_INVALID);

// None of these build the library table: a malformed text fails before it,
// and parsing a keySN never loads a library.
TEST(Configuration, MalformedTextsAreRefused) {
  EXPECT_EQ(ZEPH_C_SetConfigInfo(("[" + std::string(2998, ' ') + "]").c_str()), ERR_DEVICE_CONFIG_INVALID);  // 3,000
  EXPECT_EQ(ZEPH_C_SetConfigInfo(nullptr), ERR_INVALID_PARAMETER);
  ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + std::string(2045, ' ') + "]").c_str()), 0u);  // 2,047 bytes fit
  uint32_t len = 0;
  EXPECT_EQ(ZEPH_C_ukey_detection_getList(nullptr, &len), 0u);
  EXPECT_EQ(len, 3u);
  for (const char *text :
       {"not json", "{\"type\":1,\"vid\":\"A\",\"skfLib\":\"x\"}", "42", "\"[]\"", "[{\"type\":1,"}) {
    SCOPED_TRACE(text);
    ASSERT_EQ(ZEPH_C_SetConfigInfo(text), 0u);
    EXPECT_EQ(ZEPH_C_ukey_detection_getList(nullptr, &len), ERR_DEVICE_CONFIG_INVALID);
    EXPECT_EQ(Parse("A_1"), kInvalid);
  }
}

TEST(Configuration, KeySnSplittingAndMembersOfTheWrongType) {
  // A longer text first: "[]"-terminated parsing must not read the old tail.
  ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(5, "OLD", std::string(600, 'x')) + "]").c_str()), 0u);
  ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(1, "ES", "/a/es.so") + "," + Entry(2, "XK", "/a/xk.so") +
                                  ",{\"type\":\"10\",\"vid\":\"Q9\",\"skfLib\":7}"
                                  ",{\"type\":2.9,\"vid\":\"LONGER_THAN_FIFTEEN\",\"skfLib\":\"/c.so\"},"
                                  "{\"vid\":3,\"type\":9,\"skfLib\":\"/b.so\"},17]")
                                     .c_str()),
            0u);
  const std::pair<const char *, std::string> rows[] = {
      {"ES_0123ABCD", "1 /a/es.so 0123ABCD"},
      {"XK_A_B", "2 /a/xk.so A_B"},
      {"zzXK-dev", "2 /a/xk.so dev"},  // the vid may stand anywhere; the character after it goes
      {"XK_ES_9", "1 /a/es.so 9"},     // the first entry whose vid occurs wins
      {"ES_", "- - -"},                // one character or none after the vid: nothing copied
      {"ES", "- - -"},
      {"", "- - -"},
      {"OLD_1", "9 /b.so LD_1"},               // only the entry without a vid, found at the start
      {"Q9_dev", "0  dev"},                    // members of the wrong type take their defaults
      {"LONGER_THAN_FIF_dev", "2 /c.so dev"},  // the vid is kept to 15 characters
      {nullptr, "status " + std::to_string(ERR_INVALID_PARAMETER)},
  };
  for (const auto &[key_sn, want] : rows) EXPECT_EQ(Parse(key_sn), want) << (key_sn != nullptr ? key_sn : "null");
  EXPECT_EQ(Parse(("ES_" + std::string(300, 'D')).c_str()), "status " + std::to_string(ERR_INVALID_PARAMETER));
}

TEST(LibraryTable, FirstBuildRacesSafelyAndHappensOnce) {
  InFreshProcess([] {
    // An empty configuration builds nothing: the vendors of a later one are still loaded.
    ASSERT_EQ(ZEPH_C_SetConfigInfo("[]"), 0u);
    EXPECT_EQ(loadAllOfCryptoDeviceHandle(), 0u);
    ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(7, "LC", "libc.so.6") + "," + Entry(1, "NOPE", "/no/libnope.so") + "," +
                                    Entry(8, "ES", "libm.so.6") + "]")
                                       .c_str()),
              0u);
    std::vector<void *> seen(8, nullptr);
    std::vector<uint32_t> status(8, 1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
      threads.emplace_back([&, i] {
        status[i] = loadAllOfCryptoDeviceHandle();
        seen[i] = getCryptoDeviceHandleWithKeySN("LC_1");
      });
    }
    for (auto &t : threads) t.join();
    for (size_t i = 0; i < seen.size(); ++i) {
      EXPECT_EQ(status[i], 0u);
      EXPECT_NE(seen[i], nullptr);
      EXPECT_EQ(seen[i], seen[0]);
    }
    char text[64] = {0};
    uint32_t len = sizeof text;
    ASSERT_EQ(ZEPH_C_ukey_detection_getDevErrStatus(text, &len), 0u);
    // Each vendor loaded once; libc and libm load but list no keys.
    EXPECT_EQ(std::string(text, len), "[\"LC\", \"NOPE\", \"ES\"]");
    // Later configurations change only the texts; the table keeps its vids.
    ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(7, "LM", "libm.so.6") + "]").c_str()), 0u);
    EXPECT_EQ(loadAllOfCryptoDeviceHandle(), 0u);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("LC_1"), seen[0]);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("LM_1"), nullptr);
  });
}

TEST(ConfigurationFile, ReadOnceFromTheConfigurationDirectoryAndNeverCut) {
  InFreshProcess([] {
    zeph_test::TempDir dir;
    ASSERT_EQ(ZEPH_C_SetConfig(dir.path().c_str()), 0u);
    const std::string path = dir.file("vorli_ukey_cfg.json");
    EXPECT_EQ(Parse("FV_key"), kInvalid);  // no file yet
    std::ofstream(path) << "[" << Entry(4, "FV", "/f/lib.so") << std::string(3000, ' ') << "]";
    EXPECT_EQ(Parse("FV_key"), kInvalid);
    std::ofstream(path) << "[" << Entry(4, "FV", "/f/lib.so") << "]";
    EXPECT_EQ(Parse("FV_key"), "4 /f/lib.so key");
    std::ofstream(path) << "[" << Entry(5, "FV", "/g/lib.so") << "]";
    EXPECT_EQ(Parse("FV_key"), "4 /f/lib.so key");
  });
}

}  // namespace
