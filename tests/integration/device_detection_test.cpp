// Detection end to end: two vendors, three keys, a library that does not
// load hiding the vendor after it, the list buffers, and keySN matching.
#include <algorithm>

#include <cjson/cJSON.h>
#include <dlfcn.h>

#include "softkey_env.hpp"

namespace zeph_it {
namespace {

using DetectionTest = SoftkeyTest;

std::string ListText() { return OutText(ZEPH_C_ListPluginDevice); }

// The entries, each as printed with its members in order, sorted.
std::vector<std::string> Entries(const std::string &text) {
  std::vector<std::string> out;
  cJSON *root = cJSON_Parse(text.c_str());
  EXPECT_TRUE(cJSON_IsArray(root)) << text;
  for (cJSON *item = root != nullptr ? root->child : nullptr; item != nullptr; item = item->next) {
    char *printed = cJSON_PrintUnformatted(item);
    out.push_back(printed);
    cJSON_free(printed);
  }
  cJSON_Delete(root);
  std::sort(out.begin(), out.end());
  return out;
}

TEST_F(DetectionTest, TwoVendorsThreeKeysAndAFailedLibraryHidingTheLastVendor) {
  for (const char *sn : {"K1", "K2", "K3"}) CreateDevice(sn);
  CreateDevice("GONE");
  MustTool("unplug --serial GONE");
  std::vector<std::string> want;
  for (const char *sn : {"K1", "K2", "K3"}) {
    for (const auto &[vid, lib, type] :
         {std::tuple{"ZA", ZEPH_SOFTKEY_LIB, 1}, {"ZT", ZEPH_SOFTKEY_LIB, 10}, {"ZN", ZEPH_SOFTKEY_NOEXT_LIB, 2}}) {
      want.push_back(std::string("{\"keySN\":\"") + vid + "_" + sn + "\",\"vid\":\"" + vid + "\",\"skfLib\":\"" + lib +
                     "\",\"type\":" + std::to_string(type) + "}");
    }
  }
  std::sort(want.begin(), want.end());
  EXPECT_EQ(Entries(ListText()), want);  // no ZL_ entry, no unplugged key

  char err[256] = {0};
  uint32_t len = sizeof err;
  ASSERT_EQ(ZEPH_C_GetDeviceErrStatus(err, &len), 0u);
  EXPECT_EQ(std::string(err, len), "[\"BAD\"]");
  uint32_t short_len = 3;
  EXPECT_EQ(ZEPH_C_GetDeviceErrStatus(err, &short_len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(short_len, len);

  // The library behind a keySN: its prefix before "_" (or all of it) begins a vid.
  void *ext = dlopen(ZEPH_SOFTKEY_LIB, RTLD_LAZY | RTLD_NOLOAD);
  void *noext = dlopen(ZEPH_SOFTKEY_NOEXT_LIB, RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(ext, nullptr);
  ASSERT_NE(noext, ext);
  const struct {
    const char *key_sn;
    void *lib;
  } rows[] = {{"ZA_K1", ext},     {"ZT_K1", ext},      {"ZN_K2", noext}, {"Z_K2", ext}, {"ZN", noext},
              {"ZL_K1", nullptr}, {"ZAX_K1", nullptr}, {"_K1", nullptr}, {"", nullptr}, {nullptr, nullptr}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.key_sn != nullptr ? r.key_sn : "null");
    EXPECT_EQ(getCryptoDeviceHandleWithKeySN(r.key_sn), r.lib);
  }
  dlclose(ext);
  dlclose(noext);

  uint32_t flag = 7;
  Handle with_ext("ZA_K2"), without_ext("ZN_K2");
  ASSERT_EQ(GM_SKF_CTX_IsExt4SKF(with_ext.ctx(), &flag), 0u);
  EXPECT_EQ(flag, 1u);
  ASSERT_EQ(GM_SKF_CTX_IsExt4SKF(without_ext.ctx(), &flag), 0u);
  EXPECT_EQ(flag, 0u);
}

TEST_F(DetectionTest, ListsAndTheirBuffers) {
  char small[16];
  uint32_t len = sizeof small;
  EXPECT_EQ(ListText(), "[]");
  EXPECT_EQ(ZEPH_C_ListKeySNDevice(small, &len), ERR_NO_KEY_FOUND);
  EXPECT_STREQ(small, "[]");

  CreateDevice("A1");
  CreateDevice("B22");
  // The keySNs as a multi-string: names, each terminated, then an empty one.
  len = 0;
  ASSERT_EQ(ZEPH_C_ListKeySNDevice(nullptr, &len), 0u);
  std::vector<char> names(len, '\x7f');
  ASSERT_EQ(ZEPH_C_ListKeySNDevice(names.data(), &len), 0u);
  std::vector<std::string> got;
  for (size_t pos = 0; names[pos] != '\0'; pos += got.back().size() + 1) got.emplace_back(&names[pos]);
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::string>{"ZA_A1", "ZA_B22", "ZN_A1", "ZN_B22", "ZT_A1", "ZT_B22"}));
  EXPECT_EQ(len, 40u);

  // The text's length exactly leaves no room for the terminator; nothing is written.
  const std::string text = ListText();
  const uint32_t need = static_cast<uint32_t>(text.size() + 1);
  std::vector<char> buf(need + 8, '#');
  len = need - 1;
  EXPECT_EQ(ZEPH_C_ListPluginDevice(buf.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, need);
  EXPECT_EQ(buf[0], '#');
  ASSERT_EQ(ZEPH_C_ListPluginDevice(buf.data(), &len), 0u);
  EXPECT_EQ(std::string(buf.data()), text);
  EXPECT_EQ(buf[need], '#');
  EXPECT_EQ(ZEPH_C_ListPluginDevice(buf.data(), nullptr), ERR_INVALID_PARAMETER);
  // The keySN list is built in the caller's buffer, so it needs the text's room.
  len = need - 1;
  EXPECT_EQ(ZEPH_C_ListKeySNDevice(buf.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, need);
}

TEST_F(DetectionTest, KeySnsThatReachNoKey) {
  CreateDevice("K1");
  // 0: whatever the vendor answers, passed on unchanged.
  const struct {
    const char *key_sn;
    uint32_t status;
  } rows[] = {{"ZA_NOSUCH", 0}, {"ZA_", 0}, {"QQ_K1", ERR_NO_DEVICE_LIBRARY}, {"ZL_K1", ERR_NO_DEVICE_LIBRARY}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.key_sn);
    uint32_t status = 0, retry = 0;
    Handle h(r.key_sn, &status);  // handed out all the same, and finalised
    ASSERT_NE(h.get(), nullptr);
    EXPECT_EQ(r.status == 0 ? status & 0xFFFFFF00u : status, r.status == 0 ? 0x0A000000u : r.status)
        << std::hex << status;
    EXPECT_NE(ZEPH_C_VerifyUserPin(h.get(), 2, kUserPin, &retry), 0u);
  }
}

// Entry points are looked up once per library: over Initialize/Finalize
// cycles each key still gets the library that serves its vendor, while what
// the configuration says of a vendor follows the text set last.
TEST_F(DetectionTest, EntryPointsPerLibraryAndEntriesPerConfigurationAcrossCycles) {
  CreateDevice("K1");
  const auto parsed = [](const char *key_sn) {
    uint32_t type = 0;
    char lib[ZEPH_DEVICE_SKFLIB_MAX] = {0}, dev[ZEPH_DEVICE_NAME_MAX] = {0};
    EXPECT_EQ(ZEPH_C_ukey_detection_parseInfoWithKSN(key_sn, &type, lib, dev), 0u);
    return std::to_string(type) + " " + lib;
  };
  const std::string other = std::string("[{\"type\":5,\"vid\":\"ZA\",\"skfLib\":\"") + ZEPH_SOFTKEY_NOEXT_LIB + "\"}]";
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    for (const auto &[key_sn, ext] : {std::pair{"ZA_K1", 1u}, {"ZN_K1", 0u}, {"ZA_K1", 1u}}) {
      Handle h(key_sn);  // connects through the kept entry points
      uint32_t flag = 7;
      ASSERT_EQ(GM_SKF_CTX_IsExt4SKF(h.ctx(), &flag), 0u);
      EXPECT_EQ(flag, ext) << key_sn;
    }
    EXPECT_EQ(parsed("ZA_K1"), std::string("1 ") + ZEPH_SOFTKEY_LIB);
    ASSERT_EQ(ZEPH_C_SetConfigInfo(other.c_str()), 0u);
    EXPECT_EQ(parsed("ZA_K1"), std::string("5 ") + ZEPH_SOFTKEY_NOEXT_LIB);
    SetUp();  // the suite's configuration again
  }
}

}  // namespace
}  // namespace zeph_it
