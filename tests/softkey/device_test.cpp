// Devices, device authentication, applications, PINs and files.
#include <sys/stat.h>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using DeviceTest = SoftkeyTest;

TEST_F(DeviceTest, ListsAndConnectsOnlyPresentDevices) {
  auto devices = [&](BOOL present) { return List([&](char *b, ULONG *n) { return skf.SKF_EnumDev(present, b, n); }); };
  EXPECT_TRUE(devices(TRUE).empty()) << "no root folder yet";
  for (const char *sn : {"B22", "A1", "C333"}) MustTool(std::string("create-device --serial ") + sn);
  MustTool("unplug --serial B22");
  mkdir(root.file("stray").c_str(), 0700);  // a folder without a device file is no device
  EXPECT_EQ(devices(TRUE), (std::vector<std::string>{"A1", "C333"}));
  EXPECT_EQ(devices(FALSE), (std::vector<std::string>{"A1", "B22", "C333"}));
  char list[8];  // "A1\0C333\0\0" is 9 bytes
  ULONG size = 8;
  EXPECT_EQ(skf.SKF_EnumDev(TRUE, list, &size), SAR_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 9u);
  EXPECT_EQ(skf.SKF_EnumDev(TRUE, list, nullptr), SAR_INVALIDPARAMERR);

  DEVHANDLE h = Connect("A1"), h2 = nullptr;
  MustTool("unplug --serial A1");
  DEVINFO info;
  EXPECT_EQ(skf.SKF_ConnectDev(S("A1"), &h2), SAR_DEVICE_REMOVED);
  EXPECT_EQ(skf.SKF_GetDevInfo(h, &info), SAR_DEVICE_REMOVED);
  MustTool("plug --serial A1");
  EXPECT_EQ(skf.SKF_GetDevInfo(h, &info), SAR_OK);
  EXPECT_EQ(skf.SKF_ConnectDev(S("B2"), &h2), SAR_DEVICE_REMOVED);
  const char *too_long = "0123456789012345678901234567890123";
  for (const char *bad : {static_cast<const char *>(nullptr), "", "../A1", ".A1", "A1/x", too_long})
    EXPECT_EQ(skf.SKF_ConnectDev(S(bad), &h2), SAR_INVALIDPARAMERR) << (bad ? bad : "null");
  EXPECT_EQ(skf.SKF_ConnectDev(S("A1"), nullptr), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_DisConnectDev(h), SAR_OK);
}

TEST_F(DeviceTest, DeviceInfoComesFromTheRecordAtTheStandardOffsets) {
  MustTool("create-device --serial 0123ABCD --label Label-1 --manufacturer Maker --space 4096");
  MustTool(std::string("create-app --serial 0123ABCD --app A --admin-pin ") + kAdminPin + " --user-pin " + kUserPin);
  MustTool("write-file --serial 0123ABCD --app A --file F --text 0123456789");
  uint8_t raw[sizeof(DEVINFO) + 8];
  std::memset(raw, 0xEE, sizeof raw);
  ASSERT_EQ(skf.SKF_GetDevInfo(Connect(), reinterpret_cast<DEVINFO *>(raw)), SAR_OK);
  EXPECT_EQ(raw[sizeof(DEVINFO)], 0xEE) << "wrote past the 294-byte structure";
  auto u32 = [&](size_t off) {
    uint32_t v;
    std::memcpy(&v, raw + off, 4);
    return v;
  };
  EXPECT_STREQ(reinterpret_cast<char *>(raw + 2), "Maker");
  EXPECT_STREQ(reinterpret_cast<char *>(raw + 130), "Label-1");
  EXPECT_STREQ(reinterpret_cast<char *>(raw + 162), "0123ABCD");
  EXPECT_EQ(u32(198) & SGD_SM4_ECB, SGD_SM4_ECB);  // AlgSymCap
  EXPECT_EQ(u32(210), SGD_SM4_ECB);                // DevAuthAlgId
  EXPECT_EQ(u32(214), 4096u);                      // TotalSpace
  EXPECT_EQ(u32(218), 4086u);                      // FreeSpace
}

TEST_F(DeviceTest, DeviceAuthenticationGuardsApplications) {
  MustTool("create-device --serial 0123ABCD");
  DEVHANDLE h = Connect(), other = Connect();  // only h authenticates
  Bytes challenge(16);
  ASSERT_EQ(skf.SKF_GenRandom(h, challenge.data(), 8), SAR_OK);
  Bytes answer = Sm4(SGD_SM4_ECB, false, kAuthKey, {}, challenge);
  EXPECT_EQ(skf.SKF_DevAuth(h, answer.data(), 15), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_DevAuth(h, answer.data(), 16), SAR_OK);
  EXPECT_EQ(skf.SKF_DevAuth(h, answer.data(), 16), SAR_FAIL) << "a challenge must not be reusable";
  auto create = [&](DEVHANDLE d, const char *name, const char *admin, const char *user, DWORD retry) {
    HAPPLICATION app = nullptr;
    const ULONG rv = skf.SKF_CreateApplication(d, S(name), S(admin), retry, S(user), retry, SECURE_USER_ACCOUNT, &app);
    if (rv == SAR_OK) skf.SKF_CloseApplication(app);
    return rv;
  };
  EXPECT_EQ(DevAuth(h, "ABCDEFGHIJKLMNOP"), SAR_FAIL) << "wrong key";
  EXPECT_EQ(create(h, "C", kAdminPin, kUserPin, 3), SAR_USER_NOT_LOGGED_IN) << "a failed attempt ends it";
  ASSERT_EQ(DevAuth(h), SAR_OK);
  struct Case {
    DEVHANDLE dev;
    const char *name, *admin, *user;
    DWORD retry;
    ULONG rv;
  } const cases[] = {
      {h, "VorliRsa", kAdminPin, kUserPin, 3, SAR_OK},
      {h, "SM-Application", kAdminPin, kUserPin, 3, SAR_OK},
      {h, "VorliRsa", kAdminPin, kUserPin, 3, SAR_APPLICATION_EXISTS},
      {h, "", kAdminPin, kUserPin, 3, SAR_APPLICATION_NAME_INVALID},
      {h, "0123456789ABCDEFG", kAdminPin, kUserPin, 3, SAR_NAMELENERR},
      {h, "B", "12345", kUserPin, 3, SAR_PIN_LEN_RANGE},
      {h, "B", kAdminPin, "12345678901234567", 3, SAR_PIN_LEN_RANGE},
      {h, "B", kAdminPin, kUserPin, 0, SAR_INVALIDPARAMERR},
      {other, "B", kAdminPin, kUserPin, 3, SAR_USER_NOT_LOGGED_IN},
  };
  for (const auto &c : cases) EXPECT_EQ(create(c.dev, c.name, c.admin, c.user, c.retry), c.rv) << c.name;
  EXPECT_EQ(List([&](char *b, ULONG *n) { return skf.SKF_EnumApplication(other, b, n); }),
            (std::vector<std::string>{"VorliRsa", "SM-Application"}))
      << "creation order";
  EXPECT_EQ(skf.SKF_DeleteApplication(other, S("VorliRsa")), SAR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(skf.SKF_DeleteApplication(h, S("VorliRsa")), SAR_OK);
  EXPECT_EQ(skf.SKF_DeleteApplication(h, S("VorliRsa")), SAR_APPLICATION_NOT_EXISTS);
  HAPPLICATION app = nullptr;
  EXPECT_EQ(skf.SKF_OpenApplication(other, S("VorliRsa"), &app), SAR_APPLICATION_NOT_EXISTS);
}

TEST_F(DeviceTest, PinCountsDownLocksAndIsUnblockedByTheAdministrator) {
  MakeStandardKey();
  HAPPLICATION app = OpenApp(Connect(), "VorliEcc");
  ULONG retry = 0, max = 0, rem = 0;
  BOOL is_default = FALSE;
  auto verify = [&](ULONG type, const char *pin) { return skf.SKF_VerifyPIN(app, type, S(pin), &retry); };
  struct Step {
    const char *pin;
    ULONG status, retry;
  } const steps[] = {
      {"00000000", SAR_PIN_INCORRECT, 2}, {"00000000", SAR_PIN_INCORRECT, 1}, {kUserPin, SAR_OK, 3},
      {"00000000", SAR_PIN_INCORRECT, 2}, {"00000000", SAR_PIN_INCORRECT, 1}, {"00000000", SAR_PIN_LOCKED, 0},
      {kUserPin, SAR_PIN_LOCKED, 0},
  };
  for (const auto &s : steps) {
    retry = 99;
    EXPECT_EQ(verify(USER_TYPE, s.pin), s.status) << s.pin;
    EXPECT_EQ(retry, s.retry);
    EXPECT_EQ(skf.SKF_GetPINInfo(app, USER_TYPE, &max, &rem, &is_default), SAR_OK);
    EXPECT_EQ(max, 3u);
    EXPECT_EQ(rem, s.retry);
  }
  EXPECT_EQ(verify(USER_TYPE, "123"), SAR_PIN_LEN_RANGE);
  EXPECT_EQ(verify(2, kUserPin), SAR_USER_TYPE_INVALID);
  // The count is on the device: a new connection sees it.
  EXPECT_EQ(skf.SKF_GetPINInfo(OpenApp(Connect(), "VorliEcc"), USER_TYPE, &max, &rem, &is_default), SAR_OK);
  EXPECT_EQ(rem, 0u);
  EXPECT_EQ(is_default, TRUE);

  EXPECT_EQ(skf.SKF_UnblockPIN(app, S("99999999"), S("11112222"), &retry), SAR_PIN_INCORRECT);
  EXPECT_EQ(retry, 2u);
  EXPECT_EQ(skf.SKF_UnblockPIN(app, S(kAdminPin), S("11112222"), &retry), SAR_OK);
  EXPECT_EQ(skf.SKF_GetPINInfo(app, ADMIN_TYPE, &max, &rem, &is_default), SAR_OK);
  EXPECT_EQ(rem, 3u);
  EXPECT_EQ(verify(USER_TYPE, kUserPin), SAR_PIN_INCORRECT);
  EXPECT_EQ(skf.SKF_ChangePIN(app, USER_TYPE, S("00000000"), S("22223333"), &retry), SAR_PIN_INCORRECT);
  EXPECT_EQ(retry, 1u);
  ASSERT_EQ(skf.SKF_ChangePIN(app, USER_TYPE, S("11112222"), S("22223333"), &retry), SAR_OK);
  EXPECT_EQ(skf.SKF_GetPINInfo(app, USER_TYPE, &max, &rem, &is_default), SAR_OK);
  EXPECT_EQ(is_default, FALSE);
  // The sealed keys follow the unblocked, then changed PIN.
  EXPECT_EQ(Sign("22223333"), SAR_OK);

  // A locked administrator PIN is final.
  for (int i = 0; i < 3; ++i) verify(ADMIN_TYPE, "99999999");
  EXPECT_EQ(verify(ADMIN_TYPE, kAdminPin), SAR_PIN_LOCKED);
  EXPECT_EQ(skf.SKF_UnblockPIN(app, S(kAdminPin), S(kUserPin), &retry), SAR_PIN_LOCKED);
}

class FileTest : public SoftkeyTest {
 protected:
  void SetUp() override {
    SoftkeyTest::SetUp();
    MustTool("create-device --serial 0123ABCD --space 2048");
    for (const char *rights : {"0x10", "0xFF", "0x01", "0x00"})
      MustTool(std::string("create-app --serial 0123ABCD --app R") + rights + " --file-rights " + rights +
               " --admin-pin " + kAdminPin + " --user-pin " + kUserPin);
  }
  HAPPLICATION As(const char *app, ULONG role) {
    HAPPLICATION h = OpenApp(Connect(), app, role == SECURE_USER_ACCOUNT ? kUserPin : nullptr);
    ULONG retry = 0;
    if (role == SECURE_ADM_ACCOUNT) {
      EXPECT_EQ(skf.SKF_VerifyPIN(h, ADMIN_TYPE, S(kAdminPin), &retry), SAR_OK);
    }
    return h;
  }
};

TEST_F(FileTest, RightsAdmitTheRoleLoggedInOnTheHandle) {
  constexpr ULONG kNone = 0, kUser = SECURE_USER_ACCOUNT, kAdmin = SECURE_ADM_ACCOUNT;
  constexpr ULONG kDenied = SAR_USER_NOT_LOGGED_IN;
  struct Case {
    const char *app;  // its create-file rights
    ULONG role, read, write;
    ULONG create_rv, read_rv, write_rv;
  } const cases[] = {
      {"R0x10", kUser, 0xFF, 0x10, SAR_OK, SAR_OK, SAR_OK},
      {"R0x10", kNone, 0xFF, 0x10, kDenied, 0, 0},
      {"R0x10", kAdmin, 0xFF, 0x10, kDenied, 0, 0},
      {"R0xFF", kNone, 0xFF, 0x10, SAR_OK, SAR_OK, kDenied},
      {"R0xFF", kNone, 0x10, 0xFF, SAR_OK, kDenied, SAR_OK},
      {"R0xFF", kAdmin, 0x01, 0x11, SAR_OK, SAR_OK, SAR_OK},
      {"R0xFF", kUser, 0x01, 0x00, SAR_OK, kDenied, kDenied},
      {"R0x01", kAdmin, 0xFF, 0x01, SAR_OK, SAR_OK, SAR_OK},
      {"R0x01", kUser, 0xFF, 0x10, kDenied, 0, 0},
      {"R0x00", kAdmin, 0xFF, 0xFF, kDenied, 0, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.app) + " role " + std::to_string(c.role));
    HAPPLICATION h = As(c.app, c.role);
    ASSERT_EQ(skf.SKF_CreateFile(h, S("F"), 8, c.read, c.write), c.create_rv);
    if (c.create_rv != SAR_OK) continue;
    BYTE buf[8];
    ULONG len = sizeof buf;
    EXPECT_EQ(skf.SKF_ReadFile(h, S("F"), 0, 8, buf, &len), c.read_rv);
    EXPECT_EQ(skf.SKF_WriteFile(h, S("F"), 0, buf, 4), c.write_rv);
    EXPECT_EQ(skf.SKF_DeleteFile(h, S("F")), c.write_rv) << "deleting needs the write right";
    if (c.write_rv != SAR_OK) MustTool(std::string("delete-file --serial 0123ABCD --app ") + c.app + " --file F");
  }
}

TEST_F(FileTest, OffsetsSizesAndTheBufferProtocol) {
  HAPPLICATION h = As("R0x10", SECURE_USER_ACCOUNT);
  char *name = S("CertChain");
  ASSERT_EQ(skf.SKF_CreateFile(h, name, 10, 0xFF, 0x10), SAR_OK);
  EXPECT_EQ(skf.SKF_CreateFile(h, name, 10, 0xFF, 0x10), SAR_FILE_ALREADY_EXIST);
  BYTE abc[] = {'a', 'b', 'c'};
  EXPECT_EQ(skf.SKF_WriteFile(h, name, 4, abc, 3), SAR_OK);
  EXPECT_EQ(skf.SKF_WriteFile(h, name, 8, abc, 3), SAR_INDATALENERR);
  EXPECT_EQ(skf.SKF_WriteFile(h, name, 0xFFFFFFFF, abc, 3), SAR_INDATALENERR);
  struct Read {
    ULONG offset, size, cap;
    ULONG rv, len;
    const char *hex;
  } const reads[] = {
      {0, 100, 100, SAR_OK, 10, "00000000616263000000"},
      {4, 3, 3, SAR_OK, 3, "616263"},
      {10, 5, 5, SAR_OK, 0, ""},
      {11, 1, 1, SAR_INDATALENERR, 1, ""},
      {0, 10, 9, SAR_BUFFER_TOO_SMALL, 10, ""},
  };
  for (const auto &r : reads) {
    SCOPED_TRACE(std::to_string(r.offset) + "/" + std::to_string(r.cap));
    Bytes buf(r.cap + 1, 0xEE);
    ULONG len = r.cap;
    EXPECT_EQ(skf.SKF_ReadFile(h, name, r.offset, r.size, buf.data(), &len), r.rv);
    EXPECT_EQ(len, r.len);
    EXPECT_EQ(zeph_test::ToHex(buf.data(), r.rv == SAR_OK ? len : 0), r.hex);
    EXPECT_EQ(buf[r.cap], 0xEE) << "wrote past the stated capacity";
  }
  ULONG len = 0;
  ASSERT_EQ(skf.SKF_ReadFile(h, name, 0, 10, nullptr, &len), SAR_OK);
  EXPECT_EQ(len, 10u);

  FILEATTRIBUTE info;
  ASSERT_EQ(skf.SKF_GetFileInfo(h, name, &info), SAR_OK);
  EXPECT_STREQ(info.FileName, "CertChain");
  EXPECT_EQ(info.FileSize, 10u);
  EXPECT_EQ(info.ReadRights, 0xFFu);
  EXPECT_EQ(info.WriteRights, 0x10u);
  EXPECT_EQ(skf.SKF_GetFileInfo(h, S("Nope"), &info), SAR_FILE_NOT_EXIST);
  EXPECT_EQ(skf.SKF_DeleteFile(h, S("Nope")), SAR_FILE_NOT_EXIST);
  EXPECT_EQ(skf.SKF_CreateFile(h, S("0123456789012345678901234567890123"), 1, 0xFF, 0x10), SAR_NAMELENERR);
  EXPECT_EQ(skf.SKF_CreateFile(h, S("Big"), 2048, 0xFF, 0x10), SAR_NO_ROOM) << "the device holds 2048 bytes";
  EXPECT_EQ(skf.SKF_CreateFile(h, S("Big"), 2038, 0xFF, 0x10), SAR_OK);
}

}  // namespace
}  // namespace sk_test
