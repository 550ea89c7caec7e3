// Devices, device authentication, applications and PINs.
#include <sys/stat.h>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using DeviceTest = SoftkeyTest;

std::vector<std::string> Enum(const Skf &skf, BOOL present) {
  ULONG size = 0;
  EXPECT_EQ(skf.SKF_EnumDev(present, nullptr, &size), SAR_OK);
  std::vector<char> list(size);
  EXPECT_EQ(skf.SKF_EnumDev(present, list.data(), &size), SAR_OK);
  EXPECT_EQ(size, list.size());
  return Names(list);
}

TEST_F(DeviceTest, ListsPresentDevicesAndAllOnRequest) {
  ULONG size = 0;
  EXPECT_EQ(skf.SKF_EnumDev(TRUE, nullptr, &size), SAR_OK);  // no root folder yet
  EXPECT_EQ(size, 2u);                                        // "\0\0"
  for (const char *sn : {"B22", "A1", "C333"}) MustTool(std::string("create-device --serial ") + sn);
  MustTool("unplug --serial B22");
  mkdir(root.file("stray").c_str(), 0700);  // a folder without a device file is no device
  EXPECT_EQ(Enum(skf, TRUE), (std::vector<std::string>{"A1", "C333"}));
  EXPECT_EQ(Enum(skf, FALSE), (std::vector<std::string>{"A1", "B22", "C333"}));

  // The buffer protocol: exact fits, one byte short does not.
  std::vector<char> list(8);  // "A1\0C333\0\0" is 9 bytes
  size = 8;
  EXPECT_EQ(skf.SKF_EnumDev(TRUE, list.data(), &size), SAR_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 9u);
  EXPECT_EQ(skf.SKF_EnumDev(TRUE, list.data(), nullptr), SAR_INVALIDPARAMERR);
}

TEST_F(DeviceTest, ConnectsOnlyToPresentDevices) {
  MustTool("create-device --serial A1");
  DEVHANDLE h = Connect("A1");
  MustTool("unplug --serial A1");
  DEVHANDLE h2 = nullptr;
  DEVINFO info;
  EXPECT_EQ(skf.SKF_ConnectDev(const_cast<char *>("A1"), &h2), SAR_DEVICE_REMOVED);
  EXPECT_EQ(skf.SKF_GetDevInfo(h, &info), SAR_DEVICE_REMOVED);
  MustTool("plug --serial A1");
  EXPECT_EQ(skf.SKF_GetDevInfo(h, &info), SAR_OK);
  EXPECT_EQ(skf.SKF_ConnectDev(const_cast<char *>("B2"), &h2), SAR_DEVICE_REMOVED);
  for (const char *bad : {"", "../A1", ".A1", "A1/x", "0123456789012345678901234567890123"})
    EXPECT_EQ(skf.SKF_ConnectDev(const_cast<char *>(bad), &h2), SAR_INVALIDPARAMERR) << bad;
  EXPECT_EQ(skf.SKF_ConnectDev(nullptr, &h2), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_ConnectDev(const_cast<char *>("A1"), nullptr), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_DisConnectDev(h), SAR_OK);
  EXPECT_EQ(skf.SKF_DisConnectDev(h), SAR_INVALIDHANDLEERR);
}

TEST_F(DeviceTest, DeviceInfoComesFromTheRecordAtTheStandardOffsets) {
  MustTool("create-device --serial 0123ABCD --label Label-1 --manufacturer Maker --space 4096");
  MustTool(std::string("create-app --serial 0123ABCD --app A --admin-pin ") + kAdminPin + " --user-pin " + kUserPin);
  MustTool("write-file --serial 0123ABCD --app A --file F --text 0123456789");
  DEVHANDLE h = Connect();
  uint8_t raw[sizeof(DEVINFO) + 8];
  std::memset(raw, 0xEE, sizeof raw);
  ASSERT_EQ(skf.SKF_GetDevInfo(h, reinterpret_cast<DEVINFO *>(raw)), SAR_OK);
  EXPECT_EQ(raw[sizeof(DEVINFO)], 0xEE) << "wrote past the 294-byte structure";
  auto u32 = [&](size_t off) { uint32_t v; std::memcpy(&v, raw + off, 4); return v; };
  EXPECT_STREQ(reinterpret_cast<char *>(raw + 2), "Maker");         // Manufacturer
  EXPECT_STREQ(reinterpret_cast<char *>(raw + 130), "Label-1");      // Label
  EXPECT_STREQ(reinterpret_cast<char *>(raw + 162), "0123ABCD");     // SerialNumber
  EXPECT_EQ(u32(198) & SGD_SM4_ECB, SGD_SM4_ECB);                    // AlgSymCap
  EXPECT_EQ(u32(210), SGD_SM4_ECB);                                  // DevAuthAlgId
  EXPECT_EQ(u32(214), 4096u);                                        // TotalSpace
  EXPECT_EQ(u32(218), 4086u);                                        // FreeSpace
}

TEST_F(DeviceTest, DeviceAuthenticationAnswersOneChallenge) {
  MustTool("create-device --serial 0123ABCD");
  DEVHANDLE h = Connect();
  uint8_t challenge[16] = {}, key[16];
  std::memcpy(key, kAuthKey, 16);
  ASSERT_EQ(skf.SKF_GenRandom(h, challenge, 8), SAR_OK);
  auto answer = Sm4Block(key, challenge);
  EXPECT_EQ(skf.SKF_DevAuth(h, answer.data(), 15), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_DevAuth(h, answer.data(), 16), SAR_OK);
  EXPECT_EQ(skf.SKF_DevAuth(h, answer.data(), 16), SAR_FAIL) << "a challenge must not be reusable";

  ASSERT_EQ(skf.SKF_GenRandom(h, challenge, 8), SAR_OK);
  answer = Sm4Block(key, challenge);
  answer[15] ^= 1;
  EXPECT_EQ(skf.SKF_DevAuth(h, answer.data(), 16), SAR_FAIL);
  HAPPLICATION app = nullptr;
  EXPECT_EQ(skf.SKF_CreateApplication(h, const_cast<char *>("A"), const_cast<char *>(kAdminPin), 3,
                                      const_cast<char *>(kUserPin), 3, SECURE_USER_ACCOUNT, &app),
            SAR_USER_NOT_LOGGED_IN)
      << "a failed attempt must end the authentication";

  // A new key takes effect for every later connection.
  uint8_t new_key[16];
  std::memcpy(new_key, "ABCDEFGHIJKLMNOP", 16);
  EXPECT_EQ(skf.SKF_ChangeDevAuthKey(h, new_key, 16), SAR_USER_NOT_LOGGED_IN);
  ASSERT_EQ(DevAuth(h), SAR_OK);
  EXPECT_EQ(skf.SKF_ChangeDevAuthKey(h, new_key, 16), SAR_OK);
  DEVHANDLE h2 = Connect();
  EXPECT_EQ(DevAuth(h2), SAR_FAIL);
  EXPECT_EQ(DevAuth(h2, "ABCDEFGHIJKLMNOP"), SAR_OK);
}

TEST_F(DeviceTest, ApplicationsNeedDeviceAuthenticationAndValidNames) {
  MustTool("create-device --serial 0123ABCD");
  DEVHANDLE h = Connect();
  ASSERT_EQ(DevAuth(h), SAR_OK);
  auto create = [&](const char *name, const char *admin = kAdminPin, const char *user = kUserPin, DWORD retry = 3) {
    HAPPLICATION app = nullptr;
    const ULONG rv = skf.SKF_CreateApplication(h, const_cast<char *>(name), const_cast<char *>(admin), retry,
                                               const_cast<char *>(user), retry, SECURE_USER_ACCOUNT, &app);
    if (rv == SAR_OK) skf.SKF_CloseApplication(app);
    return rv;
  };
  EXPECT_EQ(create("VorliRsa"), SAR_OK);
  EXPECT_EQ(create("SM-Application"), SAR_OK);
  EXPECT_EQ(create("VorliRsa"), SAR_APPLICATION_EXISTS);
  EXPECT_EQ(create(""), SAR_APPLICATION_NAME_INVALID);
  EXPECT_EQ(create("0123456789ABCDEFG"), SAR_NAMELENERR);
  EXPECT_EQ(create("B", "12345"), SAR_PIN_LEN_RANGE);
  EXPECT_EQ(create("B", kAdminPin, "12345678901234567"), SAR_PIN_LEN_RANGE);
  EXPECT_EQ(create("B", kAdminPin, kUserPin, 0), SAR_INVALIDPARAMERR);

  ULONG size = 0;
  ASSERT_EQ(skf.SKF_EnumApplication(h, nullptr, &size), SAR_OK);
  std::vector<char> list(size);
  ASSERT_EQ(skf.SKF_EnumApplication(h, list.data(), &size), SAR_OK);
  EXPECT_EQ(Names(list), (std::vector<std::string>{"VorliRsa", "SM-Application"})) << "creation order";

  DEVHANDLE other = Connect();  // not authenticated
  EXPECT_EQ(skf.SKF_DeleteApplication(other, const_cast<char *>("VorliRsa")), SAR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(skf.SKF_DeleteApplication(h, const_cast<char *>("VorliRsa")), SAR_OK);
  EXPECT_EQ(skf.SKF_DeleteApplication(h, const_cast<char *>("VorliRsa")), SAR_APPLICATION_NOT_EXISTS);
  HAPPLICATION app = nullptr;
  EXPECT_EQ(skf.SKF_OpenApplication(other, const_cast<char *>("VorliRsa"), &app), SAR_APPLICATION_NOT_EXISTS);
}

// What the device layer does to prepare an area, twice: the second run wipes
// the first one's containers.
TEST_F(DeviceTest, NewSessionSequenceRecreatesTheApplication) {
  MustTool("create-device --serial 0123ABCD");
  for (int round = 0; round < 2; ++round) {
    DEVHANDLE h = Connect();
    ASSERT_EQ(DevAuth(h), SAR_OK);
    const ULONG del = skf.SKF_DeleteApplication(h, const_cast<char *>("VorliEcc"));
    EXPECT_EQ(del, round == 0 ? SAR_APPLICATION_NOT_EXISTS : SAR_OK);
    HAPPLICATION app = nullptr;
    ASSERT_EQ(skf.SKF_CreateApplication(h, const_cast<char *>("VorliEcc"), const_cast<char *>(kAdminPin), 10,
                                        const_cast<char *>(kUserPin), 10, SECURE_USER_ACCOUNT, &app),
              SAR_OK);
    ULONG size = 0;
    ASSERT_EQ(skf.SKF_EnumContainer(app, nullptr, &size), SAR_OK);
    EXPECT_EQ(size, 2u) << "round " << round << ": the new application must be empty";
    ULONG retry = 0;
    HCONTAINER con = nullptr;
    EXPECT_EQ(skf.SKF_CreateContainer(app, const_cast<char *>("ECC"), &con), SAR_USER_NOT_LOGGED_IN);
    ASSERT_EQ(skf.SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>(kUserPin), &retry), SAR_OK);
    ASSERT_EQ(skf.SKF_CreateContainer(app, const_cast<char *>("ECC"), &con), SAR_OK);
    EXPECT_EQ(skf.SKF_CreateContainer(app, const_cast<char *>("ECC"), &con), SAR_FILE_ALREADY_EXIST);
    EXPECT_EQ(skf.SKF_DisConnectDev(h), SAR_OK);
  }
}

TEST_F(DeviceTest, PinCountsDownLocksAndIsUnblockedByTheAdministrator) {
  MakeStandardKey();
  DEVHANDLE h = Connect();
  HAPPLICATION app = OpenApp(h, "VorliEcc");
  auto verify = [&](ULONG type, const char *pin, ULONG *retry) {
    return skf.SKF_VerifyPIN(app, type, const_cast<char *>(pin), retry);
  };
  auto remain = [&](ULONG type) {
    ULONG max = 0, rem = 0;
    BOOL def = -1;
    EXPECT_EQ(skf.SKF_GetPINInfo(app, type, &max, &rem, &def), SAR_OK);
    EXPECT_EQ(max, 3u);
    return rem;
  };
  struct Step {
    const char *pin;
    ULONG status, retry;
  };
  const Step steps[] = {
      {"00000000", SAR_PIN_INCORRECT, 2}, {"00000000", SAR_PIN_INCORRECT, 1}, {kUserPin, SAR_OK, 3},
      {"00000000", SAR_PIN_INCORRECT, 2}, {"00000000", SAR_PIN_INCORRECT, 1}, {"00000000", SAR_PIN_LOCKED, 0},
      {kUserPin, SAR_PIN_LOCKED, 0},
  };
  for (const auto &s : steps) {
    ULONG retry = 99;
    EXPECT_EQ(verify(USER_TYPE, s.pin, &retry), s.status) << s.pin;
    EXPECT_EQ(retry, s.retry);
    EXPECT_EQ(remain(USER_TYPE), s.retry);
  }
  ULONG retry = 0;
  EXPECT_EQ(verify(USER_TYPE, "123", &retry), SAR_PIN_LEN_RANGE);
  EXPECT_EQ(verify(2, kUserPin, &retry), SAR_USER_TYPE_INVALID);

  // The count is on the device: a new connection sees it.
  HAPPLICATION again = OpenApp(Connect(), "VorliEcc");
  ULONG max = 0, rem = 9;
  BOOL is_default = FALSE;
  EXPECT_EQ(skf.SKF_GetPINInfo(again, USER_TYPE, &max, &rem, &is_default), SAR_OK);
  EXPECT_EQ(rem, 0u);
  EXPECT_EQ(is_default, TRUE);

  EXPECT_EQ(skf.SKF_UnblockPIN(app, const_cast<char *>("99999999"), const_cast<char *>("11112222"), &retry),
            SAR_PIN_INCORRECT);
  EXPECT_EQ(retry, 2u);
  EXPECT_EQ(skf.SKF_UnblockPIN(app, const_cast<char *>(kAdminPin), const_cast<char *>("11112222"), &retry), SAR_OK);
  EXPECT_EQ(remain(ADMIN_TYPE), 3u);
  EXPECT_EQ(verify(USER_TYPE, kUserPin, &retry), SAR_PIN_INCORRECT);
  EXPECT_EQ(verify(USER_TYPE, "11112222", &retry), SAR_OK);
  EXPECT_EQ(skf.SKF_GetPINInfo(app, USER_TYPE, &max, &rem, &is_default), SAR_OK);
  EXPECT_EQ(is_default, FALSE);

  // A locked administrator PIN is final.
  for (int i = 0; i < 3; ++i) verify(ADMIN_TYPE, "99999999", &retry);
  EXPECT_EQ(verify(ADMIN_TYPE, kAdminPin, &retry), SAR_PIN_LOCKED);
  EXPECT_EQ(skf.SKF_UnblockPIN(app, const_cast<char *>(kAdminPin), const_cast<char *>(kUserPin), &retry),
            SAR_PIN_LOCKED);
}

TEST_F(DeviceTest, ChangedAndUnblockedPinsStillOpenTheKeys) {
  MakeStandardKey();
  HAPPLICATION app = OpenApp(Connect(), "VorliEcc");
  ULONG retry = 0;
  EXPECT_EQ(skf.SKF_ChangePIN(app, USER_TYPE, const_cast<char *>("00000000"), const_cast<char *>("22223333"), &retry),
            SAR_PIN_INCORRECT);
  EXPECT_EQ(retry, 2u);
  ASSERT_EQ(skf.SKF_ChangePIN(app, USER_TYPE, const_cast<char *>(kUserPin), const_cast<char *>("22223333"), &retry),
            SAR_OK);
  auto can_sign = [&](const char *pin) {
    HAPPLICATION a = OpenApp(Connect(), "VorliEcc", pin);
    HCONTAINER con = OpenCon(a, "ECC");
    uint8_t digest[32] = {1};
    ECCSIGNATUREBLOB sig;
    return skf.SKF_ECCSignData(con, digest, 32, &sig) == SAR_OK;
  };
  EXPECT_TRUE(can_sign("22223333"));
  ASSERT_EQ(skf.SKF_UnblockPIN(app, const_cast<char *>(kAdminPin), const_cast<char *>("33334444"), &retry), SAR_OK);
  EXPECT_TRUE(can_sign("33334444"));
}

TEST_F(DeviceTest, LoginBelongsToTheApplicationHandle) {
  MakeStandardKey();
  DEVHANDLE h = Connect();
  HAPPLICATION a1 = OpenApp(h, "VorliEcc", kUserPin), a2 = OpenApp(h, "VorliEcc");
  char name[] = "F";
  EXPECT_EQ(skf.SKF_CreateFile(a2, name, 4, SECURE_EVERYONE_ACCOUNT, SECURE_USER_ACCOUNT), SAR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(skf.SKF_CreateFile(a1, name, 4, SECURE_EVERYONE_ACCOUNT, SECURE_USER_ACCOUNT), SAR_OK);
  ULONG retry = 0;
  EXPECT_EQ(skf.SKF_VerifyPIN(a1, USER_TYPE, const_cast<char *>("00000000"), &retry), SAR_PIN_INCORRECT);
  char other[] = "G";
  EXPECT_EQ(skf.SKF_CreateFile(a1, other, 4, SECURE_EVERYONE_ACCOUNT, SECURE_USER_ACCOUNT), SAR_USER_NOT_LOGGED_IN)
      << "a failed verification ends the login";
}

}  // namespace
}  // namespace sk_test
