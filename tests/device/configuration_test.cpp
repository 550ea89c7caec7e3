// Device configuration: parsing, keySN rules, the library table and the
// detection list, with system libraries standing in for vendor libraries
// that load but offer no SKF entry point. The configuration text and the
// library table are process-wide and built once, so every scenario that
// builds a table runs in a fresh process.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "test_support.hpp"
#include "zeph_c_device.h"
#include "zeph_c_utils.h"

namespace {

// Runs `body` in a re-executed copy of this test binary; its failures are
// printed there and fail the test here.
template <class F>
[[noreturn]] void RunAndExit(F body) {
  ::testing::TestPartResultArray results;
  {
    ::testing::ScopedFakeTestPartResultReporter intercept(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &results);
    body();
  }
  int failures = 0;
  for (int i = 0; i < results.size(); ++i) {
    const ::testing::TestPartResult &r = results.GetTestPartResult(i);
    if (!r.failed()) continue;
    ++failures;
    std::fprintf(stderr, "%s:%d: %s\n", r.file_name() != nullptr ? r.file_name() : "?", r.line_number(), r.message());
  }
  std::exit(failures == 0 ? 0 : 1);
}

template <class F>
void InFreshProcess(F body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(RunAndExit(body), ::testing::ExitedWithCode(0), "");
}

std::string Entry(int type, const std::string &vid, const std::string &lib) {
  return "{\"type\":" + std::to_string(type) + ",\"vid\":\"" + vid + "\",\"skfLib\":\"" + lib + "\"}";
}

std::string List() {
  uint32_t len = 0;
  if (ZEPH_C_ukey_detection_getList(nullptr, &len) != 0) return "<error>";
  std::string text(len, '\0');
  if (ZEPH_C_ukey_detection_getList(text.data(), &len) != 0) return "<error>";
  text.resize(len - 1);
  return text;
}

struct Parsed {
  uint32_t status;
  uint32_t type;
  std::string lib, device;
};

Parsed Parse(const char *key_sn) {
  Parsed p{0, 777, "", ""};
  char lib[ZEPH_DEVICE_SKFLIB_MAX] = "untouched", dev[ZEPH_DEVICE_NAME_MAX] = "untouched";
  p.status = ZEPH_C_ukey_detection_parseInfoWithKSN(key_sn, &p.type, lib, dev);
  p.lib = lib;
  p.device = dev;
  return p;
}

// None of these build the library table: a malformed text fails before it,
// and parsing a keySN never loads a library.
TEST(Configuration, MalformedTextsAreRefused) {
  const std::string too_long = "[" + std::string(2998, ' ') + "]";  // 3,000 bytes
  ASSERT_EQ(ZEPH_C_SetConfigInfo(too_long.c_str()), ERR_DEVICE_CONFIG_INVALID);
  EXPECT_EQ(ZEPH_C_SetConfigInfo(nullptr), ERR_INVALID_PARAMETER);
  const std::string longest = "[" + std::string(2045, ' ') + "]";  // 2,047 bytes fit
  ASSERT_EQ(ZEPH_C_SetConfigInfo(longest.c_str()), 0u);
  EXPECT_EQ(List(), "[]");

  const char *bad[] = {"not json", "{\"type\":1,\"vid\":\"A\",\"skfLib\":\"x\"}", "42", "\"[]\"", "[{\"type\":1,"};
  for (const char *text : bad) {
    SCOPED_TRACE(text);
    ASSERT_EQ(ZEPH_C_SetConfigInfo(text), 0u);
    uint32_t len = 0;
    EXPECT_EQ(ZEPH_C_ukey_detection_getList(nullptr, &len), ERR_DEVICE_CONFIG_INVALID);
    uint32_t type = 0;
    char lib[ZEPH_DEVICE_SKFLIB_MAX], dev[ZEPH_DEVICE_NAME_MAX];
    EXPECT_EQ(ZEPH_C_ukey_detection_parseInfoWithKSN("A_1", &type, lib, dev), ERR_DEVICE_CONFIG_INVALID);
  }
}

TEST(Configuration, ShorterTextKeepsTheOldTailWhichTheParserIgnores) {
  ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(5, "LONGVID", "/x/liblong.so") + "]").c_str()), 0u);
  ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(6, "S", "/x/s.so") + "]").c_str()), 0u);
  const Parsed p = Parse("S_dev");
  EXPECT_EQ(p.type, 6u);
  EXPECT_EQ(p.lib, "/x/s.so");
  // "[]" is complete by itself: the tail after it is not read.
  ASSERT_EQ(ZEPH_C_SetConfigInfo("[]"), 0u);
  EXPECT_EQ(Parse("S_dev").lib, "untouched");
}

TEST(Configuration, MembersOfTheWrongTypeTakeTheirDefaults) {
  const std::string text = "[{\"type\":\"10\",\"vid\":\"Q9\",\"skfLib\":7},"
                           "{\"type\":2.9,\"vid\":\"LONGER_THAN_FIFTEEN\",\"skfLib\":\"/c.so\"},"
                           "{\"vid\":3,\"type\":9,\"skfLib\":\"/b.so\"},17]";
  ASSERT_EQ(ZEPH_C_SetConfigInfo(text.c_str()), 0u);
  Parsed p = Parse("Q9_dev");
  EXPECT_EQ(p.status, 0u);
  EXPECT_EQ(p.type, 0u);
  EXPECT_EQ(p.lib, "");
  EXPECT_EQ(p.device, "dev");
  // The vid is kept to 15 characters.
  p = Parse("LONGER_THAN_FIF_dev");
  EXPECT_EQ(p.type, 2u);
  EXPECT_EQ(p.lib, "/c.so");
  EXPECT_EQ(p.device, "dev");
  // An entry without a vid occurs in every keySN, at its start.
  p = Parse("ZZZ");
  EXPECT_EQ(p.type, 9u);
  EXPECT_EQ(p.lib, "/b.so");
  EXPECT_EQ(p.device, "ZZ");
}

TEST(Configuration, KeySnSplitting) {
  const std::string text = "[" + Entry(1, "ES", "/a/es.so") + "," + Entry(2, "XK", "/a/xk.so") + "]";
  ASSERT_EQ(ZEPH_C_SetConfigInfo(text.c_str()), 0u);
  const struct {
    const char *key_sn;
    uint32_t type;
    const char *lib, *device;
  } rows[] = {
      {"ES_0123ABCD", 1, "/a/es.so", "0123ABCD"},
      {"XK_A_B", 2, "/a/xk.so", "A_B"},
      // The vid may stand anywhere; the character after it is dropped whatever it is.
      {"zzXK-dev", 2, "/a/xk.so", "dev"},
      // The first entry whose vid occurs wins, even when a later one is a prefix.
      {"XK_ES_9", 1, "/a/es.so", "9"},
      // One character or none after the vid: nothing is copied.
      {"ES_", 777, "untouched", "untouched"},
      {"ES", 777, "untouched", "untouched"},
      {"QQ_1", 777, "untouched", "untouched"},
      {"", 777, "untouched", "untouched"},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.key_sn);
    const Parsed p = Parse(r.key_sn);
    EXPECT_EQ(p.status, 0u);
    EXPECT_EQ(p.type, r.type);
    EXPECT_EQ(p.lib, r.lib);
    EXPECT_EQ(p.device, r.device);
  }
  const std::string oversized = "ES_" + std::string(300, 'D');
  EXPECT_EQ(Parse(oversized.c_str()).status, ERR_INVALID_PARAMETER);
  EXPECT_EQ(Parse(nullptr).status, ERR_INVALID_PARAMETER);
}

std::string StandIns() {
  return "[" + Entry(7, "LC", "libc.so.6") + "," + Entry(8, "ES", "libm.so.6") + "," + Entry(9, "ESX", "libdl.so.2") +
         "," + Entry(1, "NOPE", "/nonexistent/libnope.so") + "," + Entry(2, "LATE", "libpthread.so.0") + "," +
         Entry(3, "", "") + "]";
}

TEST(LibraryTable, PrefixRulesAndAFailedLibraryHidingLaterVendors) {
  InFreshProcess([] {
    ASSERT_EQ(ZEPH_C_SetConfigInfo(StandIns().c_str()), 0u);
    ASSERT_EQ(loadAllOfCryptoDeviceHandle(), 0u);
    void *libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
    void *libm = dlopen("libm.so.6", RTLD_LAZY | RTLD_NOLOAD);
    void *libdl = dlopen("libdl.so.2", RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(libc, nullptr);
    ASSERT_NE(libm, nullptr);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("LC_1"), libc);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("LC"), libc);  // no "_": the whole keySN is the prefix
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("L_1"), libc);  // the stored vid only has to begin with it
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("ES_1"), libm);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("ESX_1"), libdl);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("E_1"), libm);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("LATE_1"), nullptr);  // listed after the failed one
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("NOPE_1"), nullptr);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("_1"), nullptr);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN(""), nullptr);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN(nullptr), nullptr);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("LCX_1"), nullptr);
    for (void *h : {libc, libm, libdl}) dlclose(h);

    // The vendors whose library did not load: the failed path and the empty one.
    char text[64] = {0};
    uint32_t len = sizeof text;
    ASSERT_EQ(ZEPH_C_ukey_detection_getDevErrStatus(text, &len), 0u);
    EXPECT_EQ(std::string(text, len), "[\"NOPE\", \"\"]");
    uint32_t need = 0;
    EXPECT_EQ(ZEPH_C_ukey_detection_getDevErrStatus(nullptr, &need), 0u);
    EXPECT_EQ(need, len);
    need = 3;
    EXPECT_EQ(ZEPH_C_ukey_detection_getDevErrStatus(text, &need), ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(need, len);

    // Libraries without SKF entry points list no keys and serve no context.
    EXPECT_EQ(List(), "[]");
    GM_SKF_CTX *ctx = nullptr;
    EXPECT_EQ(GM_SKF_CTX_Initialize(&ctx, 0, "LC_dev", 0), ERR_NO_DEVICE_LIBRARY);
    ASSERT_NE(ctx, nullptr);
    uint32_t flag = 9;
    EXPECT_EQ(GM_SKF_CTX_IsExt4SKF(ctx, &flag), 0u);
    EXPECT_EQ(flag, 0u);
    EXPECT_EQ(GM_SKF_CTX_OpenSession(ctx, 3), ERR_OPEN_SESSION_FAILED);
    GM_SKF_CTX_Finalize(ctx);
    ctx = nullptr;
    EXPECT_EQ(GM_SKF_CTX_Initialize(&ctx, 0, "LATE_dev", 0), ERR_NO_DEVICE_LIBRARY);
    GM_SKF_CTX_Finalize(ctx);
  });
}

TEST(LibraryTable, BuiltOnceAndLaterConfigurationsChangeOnlyTexts) {
  InFreshProcess([] {
    ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(7, "LC", "libc.so.6") + "]").c_str()), 0u);
    ASSERT_EQ(loadAllOfCryptoDeviceHandle(), 0u);
    void *first = getCryptoDeviceHandleWithKeySN("LC_1");
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(7, "LM", "libm.so.6") + "]").c_str()), 0u);
    EXPECT_EQ(loadAllOfCryptoDeviceHandle(), 0u);
    // The table keeps the vid it was built with.
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("LC_1"), first);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("LM_1"), nullptr);
  });
}

TEST(LibraryTable, FirstBuildRacesSafely) {
  InFreshProcess([] {
    ASSERT_EQ(ZEPH_C_SetConfigInfo(StandIns().c_str()), 0u);
    std::vector<void *> seen(8, nullptr);
    std::vector<uint32_t> status(8, 1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
      threads.emplace_back([&, i] {
        status[i] = loadAllOfCryptoDeviceHandle();
        seen[i] = getCryptoDeviceHandleWithKeySN("ES_1");
      });
    }
    for (auto &t : threads) t.join();
    for (size_t i = 0; i < seen.size(); ++i) {
      EXPECT_EQ(status[i], 0u);
      EXPECT_NE(seen[i], nullptr);
      EXPECT_EQ(seen[i], seen[0]);
    }
    uint32_t len = 0;
    ASSERT_EQ(ZEPH_C_ukey_detection_getDevErrStatus(nullptr, &len), 0u);
    std::string text(len + 1, '\0');
    ASSERT_EQ(ZEPH_C_ukey_detection_getDevErrStatus(text.data(), &len), 0u);
    EXPECT_EQ(text.substr(0, len), "[\"NOPE\", \"\"]");  // each vendor loaded once
  });
}

TEST(LibraryTable, EmptyConfigurationServesNothing) {
  InFreshProcess([] {
    ASSERT_EQ(ZEPH_C_SetConfigInfo("[]"), 0u);
    EXPECT_EQ(loadAllOfCryptoDeviceHandle(), 0u);
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN("ES_1"), nullptr);
    // "[]" with the terminator needs three bytes.
    char text[8];
    uint32_t len = 2;
    EXPECT_EQ(ZEPH_C_ukey_detection_getList(text, &len), ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(len, 3u);
    len = 3;
    ASSERT_EQ(ZEPH_C_ukey_detection_getList(text, &len), 0u);
    EXPECT_STREQ(text, "[]");
    EXPECT_EQ(len, 3u);
    // Nothing was built: a later configuration with vendors is still loaded.
    ASSERT_EQ(ZEPH_C_SetConfigInfo(("[" + Entry(7, "LC", "libc.so.6") + "]").c_str()), 0u);
    EXPECT_NE(getCryptoDeviceHandleWithKeySN("LC_1"), nullptr);
  });
}

TEST(ConfigurationFile, ReadOnceFromTheConfigurationDirectory) {
  InFreshProcess([] {
    zeph_test::TempDir dir;
    ASSERT_EQ(ZEPH_C_SetConfig(dir.path().c_str()), 0u);
    uint32_t len = 0;
    // No file anywhere yet.
    EXPECT_EQ(ZEPH_C_ukey_detection_getList(nullptr, &len), ERR_DEVICE_CONFIG_INVALID);
    std::ofstream(dir.file("vorli_ukey_cfg.json")) << "[" << Entry(4, "FV", "/f/lib.so") << "]";
    Parsed p = Parse("FV_key");
    EXPECT_EQ(p.type, 4u);
    EXPECT_EQ(p.lib, "/f/lib.so");
    // Once read, the text stays: the file is not read again.
    std::ofstream(dir.file("vorli_ukey_cfg.json")) << "[" << Entry(5, "FV", "/g/lib.so") << "]";
    EXPECT_EQ(Parse("FV_key").lib, "/f/lib.so");
  });
}

TEST(ConfigurationFile, OversizedFileIsRefusedNotCut) {
  InFreshProcess([] {
    zeph_test::TempDir dir;
    ASSERT_EQ(ZEPH_C_SetConfig(dir.path().c_str()), 0u);
    std::ofstream(dir.file("vorli_ukey_cfg.json")) << "[" << Entry(4, "FV", "/f/lib.so") << std::string(3000, ' ')
                                                    << "]";
    uint32_t len = 0;
    EXPECT_EQ(ZEPH_C_ukey_detection_getList(nullptr, &len), ERR_DEVICE_CONFIG_INVALID);
    EXPECT_EQ(Parse("FV_key").status, ERR_DEVICE_CONFIG_INVALID);
  });
}

}  // namespace
