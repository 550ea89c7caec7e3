// Device detection end to end: two vendors, three keys, a library that
// does not load, the list buffers, and the path from a keySN to a context.
#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_NOEXT_LIB) && defined(ZEPH_SOFTKEY_TOOL)

#include <cjson/cJSON.h>
#include <dlfcn.h>

#include <set>

#include "softkey_env.hpp"

namespace zeph_it {
namespace {

struct Listed {
  std::string key_sn, vid, lib;
  int type;
  bool operator<(const Listed &o) const { return key_sn < o.key_sn; }
  bool operator==(const Listed &o) const {
    return key_sn == o.key_sn && vid == o.vid && lib == o.lib && type == o.type;
  }
};

std::string ListText() {
  uint32_t len = 0;
  EXPECT_EQ(ZEPH_C_ListPluginDevice(nullptr, &len), 0u);
  std::string text(len, '\0');
  EXPECT_EQ(ZEPH_C_ListPluginDevice(text.data(), &len), 0u);
  EXPECT_EQ(len, text.size());
  text.resize(len - 1);
  return text;
}

std::vector<Listed> Parse(const std::string &text) {
  std::vector<Listed> out;
  cJSON *root = cJSON_Parse(text.c_str());
  EXPECT_TRUE(cJSON_IsArray(root)) << text;
  const cJSON *item = nullptr;
  cJSON_ArrayForEach(item, root) {
    // Member order is part of the format.
    const cJSON *m = item->child;
    EXPECT_STREQ(m->string, "keySN");
    EXPECT_STREQ(m->next->string, "vid");
    EXPECT_STREQ(m->next->next->string, "skfLib");
    EXPECT_STREQ(m->next->next->next->string, "type");
    out.push_back({cJSON_GetObjectItem(item, "keySN")->valuestring, cJSON_GetObjectItem(item, "vid")->valuestring,
                   cJSON_GetObjectItem(item, "skfLib")->valuestring,
                   cJSON_GetObjectItem(item, "type")->valueint});
  }
  cJSON_Delete(root);
  return out;
}

using DetectionTest = SoftkeyTest;

TEST_F(DetectionTest, TwoVendorsThreeKeysAndAFailedLibraryHidingTheLastVendor) {
  for (const char *sn : {"K1", "K2", "K3"}) CreateDevice(sn);
  CreateDevice("GONE");
  Must("unplug --serial GONE");

  std::vector<Listed> got = Parse(ListText());
  std::sort(got.begin(), got.end());
  std::vector<Listed> want;
  for (const char *sn : {"K1", "K2", "K3"}) {
    want.push_back({std::string("ZA_") + sn, "ZA", ZEPH_SOFTKEY_LIB, 1});
    want.push_back({std::string("ZT_") + sn, "ZT", ZEPH_SOFTKEY_LIB, 10});
    want.push_back({std::string("ZN_") + sn, "ZN", ZEPH_SOFTKEY_NOEXT_LIB, 2});
  }
  std::sort(want.begin(), want.end());
  EXPECT_EQ(got, want);  // no ZL_ entry, no unplugged key

  // The failed vendor is reported; ZL loaded but stays unreachable.
  char err[256] = {0};
  uint32_t len = sizeof err;
  ASSERT_EQ(ZEPH_C_GetDeviceErrStatus(err, &len), 0u);
  EXPECT_EQ(std::string(err, len), "[\"BAD\"]");
  EXPECT_EQ(getCryptoDeviceHandleWithKeySN("ZL_K1"), nullptr);
  uint32_t status = 0;
  {
    Handle hidden("ZL_K1", &status);
    EXPECT_EQ(status, ERR_NO_DEVICE_LIBRARY);
    EXPECT_NE(hidden.get(), nullptr);  // handed out all the same, and finalised
  }

  // The libraries behind the keySNs.
  void *ext = dlopen(ZEPH_SOFTKEY_LIB, RTLD_LAZY | RTLD_NOLOAD);
  void *noext = dlopen(ZEPH_SOFTKEY_NOEXT_LIB, RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(ext, nullptr);
  ASSERT_NE(noext, nullptr);
  EXPECT_NE(ext, noext);
  EXPECT_EQ(getCryptoDeviceHandleWithKeySN("ZA_K1"), ext);
  EXPECT_EQ(getCryptoDeviceHandleWithKeySN("ZT_K1"), ext);
  EXPECT_EQ(getCryptoDeviceHandleWithKeySN("ZN_K2"), noext);
  EXPECT_EQ(getCryptoDeviceHandleWithKeySN("Z_K2"), ext);  // first vid that begins with "Z"
  EXPECT_EQ(getCryptoDeviceHandleWithKeySN("ZN"), noext);
  dlclose(ext);
  dlclose(noext);

  uint32_t flag = 7;
  Handle with_ext("ZA_K2"), without_ext("ZN_K2");
  ASSERT_EQ(GM_SKF_CTX_IsExt4SKF(with_ext.ctx(), &flag), 0u);
  EXPECT_EQ(flag, 1u);
  ASSERT_EQ(GM_SKF_CTX_IsExt4SKF(without_ext.ctx(), &flag), 0u);
  EXPECT_EQ(flag, 0u);
}

TEST_F(DetectionTest, KeySnListIsAMultiStringOfTheListedKeys) {
  CreateDevice("A1");
  CreateDevice("B22");
  uint32_t len = 0;
  ASSERT_EQ(ZEPH_C_ListKeySNDevice(nullptr, &len), 0u);
  std::vector<char> buf(len, '\x7f');
  ASSERT_EQ(ZEPH_C_ListKeySNDevice(buf.data(), &len), 0u);
  std::set<std::string> names;
  size_t pos = 0, total = 0;
  while (buf[pos] != '\0') {
    const std::string name(&buf[pos]);
    names.insert(name);
    total += name.size() + 1;
    pos += name.size() + 1;
  }
  EXPECT_EQ(len, total + 1);
  EXPECT_EQ(names, (std::set<std::string>{"ZA_A1", "ZA_B22", "ZT_A1", "ZT_B22", "ZN_A1", "ZN_B22"}));
}

TEST_F(DetectionTest, ListBufferRules) {
  CreateDevice("L1");
  const std::string text = ListText();
  const uint32_t need = static_cast<uint32_t>(text.size() + 1);
  std::vector<char> buf(need + 8, '#');
  // Exactly the text's length leaves no room for the terminator.
  uint32_t len = need - 1;
  EXPECT_EQ(ZEPH_C_ListPluginDevice(buf.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, need);
  EXPECT_EQ(buf[0], '#');
  len = need;
  ASSERT_EQ(ZEPH_C_ListPluginDevice(buf.data(), &len), 0u);
  EXPECT_EQ(std::string(buf.data()), text);
  EXPECT_EQ(buf[need], '#');
  len = 0;
  EXPECT_EQ(ZEPH_C_ListKeySNDevice(buf.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, need);
  EXPECT_EQ(ZEPH_C_ListPluginDevice(buf.data(), nullptr), ERR_INVALID_PARAMETER);
}

TEST_F(DetectionTest, NoKeysGiveAnEmptyListAndNoKeySn) {
  EXPECT_EQ(ListText(), "[]");
  char buf[16];
  uint32_t len = sizeof buf;
  EXPECT_EQ(ZEPH_C_ListKeySNDevice(buf, &len), ERR_NO_KEY_FOUND);
  EXPECT_STREQ(buf, "[]");
}

TEST_F(DetectionTest, KeySnsThatReachNoKey) {
  CreateDevice("K1");
  // 0: some vendor status, passed on unchanged.
  const struct {
    const char *key_sn;
    uint32_t status;
  } rows[] = {
      {"ZA_NOSUCH", 0}, {"ZA_", 0}, {"QQ_K1", ERR_NO_DEVICE_LIBRARY}, {"ZL_K1", ERR_NO_DEVICE_LIBRARY},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.key_sn);
    uint32_t status = 0;
    Handle h(r.key_sn, &status);
    if (r.status == 0) {
      EXPECT_EQ(status & 0xFFFFFF00u, 0x0A000000u) << std::hex << status;
    } else {
      EXPECT_EQ(status, r.status);
    }
    uint32_t retry = 0;
    EXPECT_NE(ZEPH_C_VerifyUserPin(h.get(), 2, kUserPin, &retry), 0u);
  }
}

}  // namespace
}  // namespace zeph_it

#endif
