// Abuse: handles that are not what they claim, damaged device files, several
// threads and processes at once, a writer killed mid-way.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using AbuseTest = SoftkeyTest;

enum HKind { kDev, kApp, kCon, kKey, kHash };

struct Entry {
  const char *name;
  HKind kind;
  ULONG (*call)(const Skf &, HANDLE);
};

BYTE g_buf[4096];
ULONG g_len;
ECCPUBLICKEYBLOB g_ecc_pub;
RSAPUBLICKEYBLOB g_rsa_pub;
ECCSIGNATUREBLOB g_sig;
char g_name[] = "X", g_pin[] = "87654321";

ULONG *Len() { return &(g_len = sizeof g_buf); }

// Every entry point that takes a handle, with otherwise sensible arguments.
const Entry kEntries[] = {
    {"DisConnectDev", kDev, [](const Skf &s, HANDLE h) { return s.SKF_DisConnectDev(h); }},
    {"GetDevInfo", kDev, [](const Skf &s, HANDLE h) { DEVINFO i; return s.SKF_GetDevInfo(h, &i); }},
    {"DevAuth", kDev, [](const Skf &s, HANDLE h) { return s.SKF_DevAuth(h, g_buf, 16); }},
    {"ChangeDevAuthKey", kDev, [](const Skf &s, HANDLE h) { return s.SKF_ChangeDevAuthKey(h, g_buf, 16); }},
    {"GenRandom", kDev, [](const Skf &s, HANDLE h) { return s.SKF_GenRandom(h, g_buf, 8); }},
    {"CreateApplication", kDev, [](const Skf &s, HANDLE h) { HAPPLICATION a; return s.SKF_CreateApplication(h, g_name, g_pin, 3, g_pin, 3, 0xFF, &a); }},
    {"EnumApplication", kDev, [](const Skf &s, HANDLE h) { return s.SKF_EnumApplication(h, reinterpret_cast<LPSTR>(g_buf), Len()); }},
    {"DeleteApplication", kDev, [](const Skf &s, HANDLE h) { return s.SKF_DeleteApplication(h, g_name); }},
    {"OpenApplication", kDev, [](const Skf &s, HANDLE h) { HAPPLICATION a; return s.SKF_OpenApplication(h, g_name, &a); }},
    {"SetSymmKey", kDev, [](const Skf &s, HANDLE h) { HANDLE k; return s.SKF_SetSymmKey(h, g_buf, SGD_SM4_ECB, &k); }},
    {"DigestInit", kDev, [](const Skf &s, HANDLE h) { HANDLE k; return s.SKF_DigestInit(h, SGD_SM3, nullptr, nullptr, 0, &k); }},
    {"CloseApplication", kApp, [](const Skf &s, HANDLE h) { return s.SKF_CloseApplication(h); }},
    {"VerifyPIN", kApp, [](const Skf &s, HANDLE h) { return s.SKF_VerifyPIN(h, USER_TYPE, g_pin, Len()); }},
    {"ChangePIN", kApp, [](const Skf &s, HANDLE h) { return s.SKF_ChangePIN(h, USER_TYPE, g_pin, g_pin, Len()); }},
    {"GetPINInfo", kApp, [](const Skf &s, HANDLE h) { ULONG a, b; BOOL c; return s.SKF_GetPINInfo(h, USER_TYPE, &a, &b, &c); }},
    {"UnblockPIN", kApp, [](const Skf &s, HANDLE h) { return s.SKF_UnblockPIN(h, g_pin, g_pin, Len()); }},
    {"CreateFile", kApp, [](const Skf &s, HANDLE h) { return s.SKF_CreateFile(h, g_name, 4, 0xFF, 0xFF); }},
    {"DeleteFile", kApp, [](const Skf &s, HANDLE h) { return s.SKF_DeleteFile(h, g_name); }},
    {"EnumFiles", kApp, [](const Skf &s, HANDLE h) { return s.SKF_EnumFiles(h, reinterpret_cast<LPSTR>(g_buf), Len()); }},
    {"GetFileInfo", kApp, [](const Skf &s, HANDLE h) { FILEATTRIBUTE f; return s.SKF_GetFileInfo(h, g_name, &f); }},
    {"ReadFile", kApp, [](const Skf &s, HANDLE h) { return s.SKF_ReadFile(h, g_name, 0, 4, g_buf, Len()); }},
    {"WriteFile", kApp, [](const Skf &s, HANDLE h) { return s.SKF_WriteFile(h, g_name, 0, g_buf, 4); }},
    {"CreateContainer", kApp, [](const Skf &s, HANDLE h) { HCONTAINER c; return s.SKF_CreateContainer(h, g_name, &c); }},
    {"DeleteContainer", kApp, [](const Skf &s, HANDLE h) { return s.SKF_DeleteContainer(h, g_name); }},
    {"OpenContainer", kApp, [](const Skf &s, HANDLE h) { HCONTAINER c; return s.SKF_OpenContainer(h, g_name, &c); }},
    {"EnumContainer", kApp, [](const Skf &s, HANDLE h) { return s.SKF_EnumContainer(h, reinterpret_cast<LPSTR>(g_buf), Len()); }},
    {"CloseContainer", kCon, [](const Skf &s, HANDLE h) { return s.SKF_CloseContainer(h); }},
    {"GetConProperty", kCon, [](const Skf &s, HANDLE h) { return s.SKF_GetConProperty(h, Len()); }},
    {"ImportCertificate", kCon, [](const Skf &s, HANDLE h) { return s.SKF_ImportCertificate(h, TRUE, g_buf, 100); }},
    {"ExportCertificate", kCon, [](const Skf &s, HANDLE h) { return s.SKF_ExportCertificate(h, TRUE, g_buf, Len()); }},
    {"GenRSAKeyPair", kCon, [](const Skf &s, HANDLE h) { return s.SKF_GenRSAKeyPair(h, 1024, &g_rsa_pub); }},
    {"Ex_GenRSAKeyPair", kCon, [](const Skf &s, HANDLE h) { return s.SKF_Ex_GenRSAKeyPair(h, 1024, &g_rsa_pub); }},
    {"ImportRSAKeyPair", kCon, [](const Skf &s, HANDLE h) { return s.SKF_ImportRSAKeyPair(h, SGD_SM4_ECB, g_buf, 128, g_buf, 64); }},
    {"RSASignData", kCon, [](const Skf &s, HANDLE h) { return s.SKF_RSASignData(h, g_buf, 32, g_buf, Len()); }},
    {"Ex_RSASignData", kCon, [](const Skf &s, HANDLE h) { return s.SKF_Ex_RSASignData(h, 1, g_buf, 32, g_buf, Len()); }},
    {"Eu_RSASignData", kCon, [](const Skf &s, HANDLE h) { return s.SKF_Eu_RSASignData(h, g_buf, 32, g_buf, Len(), Len()); }},
    {"GenECCKeyPair", kCon, [](const Skf &s, HANDLE h) { return s.SKF_GenECCKeyPair(h, SGD_SM2_1, &g_ecc_pub); }},
    {"ImportECCKeyPair", kCon, [](const Skf &s, HANDLE h) { return s.SKF_ImportECCKeyPair(h, reinterpret_cast<ENVELOPEDKEYBLOB *>(g_buf)); }},
    {"ECCSignData", kCon, [](const Skf &s, HANDLE h) { return s.SKF_ECCSignData(h, g_buf, 32, &g_sig); }},
    {"Eu_ECCSignData", kCon, [](const Skf &s, HANDLE h) { return s.SKF_Eu_ECCSignData(h, g_buf, 32, &g_sig); }},
    {"ExportPublicKey", kCon, [](const Skf &s, HANDLE h) { return s.SKF_ExportPublicKey(h, TRUE, g_buf, Len()); }},
    {"ImportSessionKey", kCon, [](const Skf &s, HANDLE h) { HANDLE k; return s.SKF_ImportSessionKey(h, SGD_SM4_ECB, g_buf, 200, &k); }},
    {"RSADecrypt", kCon, [](const Skf &s, HANDLE h) { return s.SKF_RSADecrypt(h, g_buf, 128, g_buf, Len(), 1); }},
    {"ECCDecrypt", kCon, [](const Skf &s, HANDLE h) { return s.SKF_ECCDecrypt(h, FALSE, reinterpret_cast<ECCCIPHERBLOB *>(g_buf), g_buf, Len()); }},
    {"EncryptInit", kKey, [](const Skf &s, HANDLE h) { return s.SKF_EncryptInit(h, BLOCKCIPHERPARAM{}); }},
    {"Encrypt", kKey, [](const Skf &s, HANDLE h) { return s.SKF_Encrypt(h, g_buf, 16, g_buf, Len()); }},
    {"EncryptUpdate", kKey, [](const Skf &s, HANDLE h) { return s.SKF_EncryptUpdate(h, g_buf, 16, g_buf, Len()); }},
    {"EncryptFinal", kKey, [](const Skf &s, HANDLE h) { return s.SKF_EncryptFinal(h, g_buf, Len()); }},
    {"DecryptInit", kKey, [](const Skf &s, HANDLE h) { return s.SKF_DecryptInit(h, BLOCKCIPHERPARAM{}); }},
    {"Decrypt", kKey, [](const Skf &s, HANDLE h) { return s.SKF_Decrypt(h, g_buf, 16, g_buf, Len()); }},
    {"DecryptUpdate", kKey, [](const Skf &s, HANDLE h) { return s.SKF_DecryptUpdate(h, g_buf, 16, g_buf, Len()); }},
    {"DecryptFinal", kKey, [](const Skf &s, HANDLE h) { return s.SKF_DecryptFinal(h, g_buf, Len()); }},
    {"CloseHandle", kHash, [](const Skf &s, HANDLE h) { return s.SKF_CloseHandle(h); }},
    {"DigestUpdate", kHash, [](const Skf &s, HANDLE h) { return s.SKF_DigestUpdate(h, g_buf, 16); }},
    {"DigestFinal", kHash, [](const Skf &s, HANDLE h) { return s.SKF_DigestFinal(h, g_buf, Len()); }},
};

TEST_F(AbuseTest, EveryHandleIsCheckedBeforeUse) {
  EXPECT_EQ(std::size(kEntries), 55u) << "every entry point but EnumDev and ConnectDev takes a handle";
  MakeStandardKey();
  // A live handle of each kind, a closed one of each kind, and a live handle
  // of another kind for each.
  auto open_all = [&](HANDLE out[5]) {
    out[kDev] = Connect();
    out[kApp] = OpenApp(out[kDev], "VorliEcc", kUserPin);
    out[kCon] = OpenCon(out[kApp], "ECC");
    skf.SKF_SetSymmKey(out[kDev], g_buf, SGD_SM4_ECB, &out[kKey]);
    skf.SKF_DigestInit(out[kDev], SGD_SM3, nullptr, nullptr, 0, &out[kHash]);
  };
  HANDLE live[5], stale[5];
  open_all(live);
  open_all(stale);
  ASSERT_EQ(skf.SKF_DisConnectDev(stale[kDev]), SAR_OK);  // closes everything opened through it
  const HANDLE foreign[5] = {live[kApp], live[kCon], live[kApp], live[kHash], live[kCon]};
  int local = 0;
  for (const auto &e : kEntries) {
    const HANDLE bad[] = {nullptr, stale[e.kind], foreign[e.kind], &local, reinterpret_cast<HANDLE>(1)};
    for (HANDLE h : bad) EXPECT_EQ(e.call(skf, h), SAR_INVALIDHANDLEERR) << e.name << " with " << h;
  }
  EXPECT_EQ(skf.SKF_GetConProperty(live[kCon], Len()), SAR_OK) << "the live handles still work";
}

TEST_F(AbuseTest, DeletedApplicationLeavesItsHandlesStale) {
  MakeStandardKey();
  HAPPLICATION app = OpenApp(Connect(), "VorliEcc", kUserPin);
  MustTool(std::string("delete-app --serial ") + kSerial + " --app VorliEcc");
  MustTool(std::string("create-app --serial ") + kSerial + " --app VorliEcc --admin-pin " + kAdminPin +
           " --user-pin " + kUserPin);
  ULONG size = 0;
  EXPECT_EQ(skf.SKF_EnumContainer(app, nullptr, &size), SAR_INVALIDHANDLEERR) << "a namesake is another application";
  EXPECT_EQ(skf.SKF_CloseApplication(app), SAR_OK);
}

TEST_F(AbuseTest, DamagedDeviceFilesAreReportedNotTrusted) {
  MakeStandardKey();
  const std::string path = root.file(std::string(kSerial) + "/device.json");
  std::ifstream in(path);
  const std::string good((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto swap = [](std::string s, const std::string &from, const std::string &to) {
    return s.replace(s.find(from), from.size(), to);
  };
  const std::string damaged[] = {
      "",
      "{",
      "[]",
      good.substr(0, good.size() / 2),
      swap(good, "\"format\":\t1", "\"format\":\t2"),
      swap(good, "\"authKey\":\t\"", "\"authKey\":\t\"00"),
      swap(good, "\"apps\":\t[", "\"apps\":\t{\"x\":["),
      swap(good, "\"remain\":\t3", "\"remain\":\t4"),
      swap(good, "\"max\":\t3", "\"max\":\t-1"),
      swap(good, "\"signCert\":\t\"", "\"signCert\":\t\"*"),
      swap(good, "\"alg\":\t131328", "\"alg\":\t7"),
      swap(good, "\"pub\":\t\"04", "\"pub\":\t\"0400\",\"x\":\""),  // a short point
  };
  for (const auto &text : damaged) {
    zeph_test::WriteBytes(path, std::vector<uint8_t>(text.begin(), text.end()));
    DEVHANDLE h = nullptr;
    EXPECT_EQ(skf.SKF_ConnectDev(const_cast<char *>(kSerial), &h), SAR_FILEERR) << text.substr(0, 200);
    ULONG size = 0;
    EXPECT_EQ(skf.SKF_EnumDev(TRUE, nullptr, &size), SAR_OK);
    EXPECT_EQ(size, 10u) << "still listed: its folder is there";
  }
}

// Two threads and two processes writing the same device lose no update.
TEST_F(AbuseTest, ConcurrentWritersLoseNothing) {
  MakeStandardKey();
  auto writer = [&](const std::string &tag, int count) {
    HAPPLICATION app = nullptr;
    DEVHANDLE dev = nullptr;
    ULONG retry = 0;
    bool ok = skf.SKF_ConnectDev(const_cast<char *>(kSerial), &dev) == SAR_OK &&
              skf.SKF_OpenApplication(dev, const_cast<char *>("VorliEcc"), &app) == SAR_OK &&
              skf.SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>(kUserPin), &retry) == SAR_OK;
    for (int i = 0; ok && i < count; ++i) {
      std::string name = tag + std::to_string(i);
      ok = skf.SKF_CreateFile(app, name.data(), static_cast<ULONG>(name.size()), 0xFF, 0x10) == SAR_OK &&
           skf.SKF_WriteFile(app, name.data(), 0, reinterpret_cast<BYTE *>(name.data()),
                             static_cast<ULONG>(name.size())) == SAR_OK;
    }
    skf.SKF_DisConnectDev(dev);
    return ok;
  };
  std::atomic<int> failures{0};
  std::vector<pid_t> children;
  for (const char *tag : {"p", "q"}) {
    const pid_t pid = fork();
    if (pid == 0) _exit(writer(tag, 12) ? 0 : 1);
    children.push_back(pid);
  }
  std::thread t1([&] { failures += writer("s", 12) ? 0 : 1; });
  std::thread t2([&] { failures += writer("t", 12) ? 0 : 1; });
  t1.join();
  t2.join();
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(failures, 0);
  HAPPLICATION app = OpenApp(Connect(), "VorliEcc");
  ULONG size = 0;
  ASSERT_EQ(skf.SKF_EnumFiles(app, nullptr, &size), SAR_OK);
  std::vector<char> list(size);
  ASSERT_EQ(skf.SKF_EnumFiles(app, list.data(), &size), SAR_OK);
  EXPECT_EQ(Names(list).size(), 48u);
}

TEST_F(AbuseTest, KilledWriterLeavesAWorkingDevice) {
  MakeStandardKey();
  const pid_t pid = fork();
  if (pid == 0) {
    DEVHANDLE dev = nullptr;
    HAPPLICATION app = nullptr;
    ULONG retry = 0;
    skf.SKF_ConnectDev(const_cast<char *>(kSerial), &dev);
    skf.SKF_OpenApplication(dev, const_cast<char *>("VorliEcc"), &app);
    skf.SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>(kUserPin), &retry);
    std::vector<uint8_t> data(512);
    for (uint32_t i = 0;; ++i) {
      std::string name = std::string("F").append(std::to_string(i % 50));
      std::fill(data.begin(), data.end(), static_cast<uint8_t>(i));
      skf.SKF_DeleteFile(app, name.data());
      skf.SKF_CreateFile(app, name.data(), 512, 0xFF, 0x10);
      skf.SKF_WriteFile(app, name.data(), 0, data.data(), 512);
    }
  }
  usleep(300 * 1000);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  HAPPLICATION app = OpenApp(Connect(), "VorliEcc", kUserPin);
  ULONG size = 0;
  ASSERT_EQ(skf.SKF_EnumFiles(app, nullptr, &size), SAR_OK);
  std::vector<char> list(size);
  ASSERT_EQ(skf.SKF_EnumFiles(app, list.data(), &size), SAR_OK);
  EXPECT_FALSE(Names(list).empty());
  for (auto &name : Names(list)) {
    std::vector<uint8_t> data(512);
    ULONG len = 512;
    ASSERT_EQ(skf.SKF_ReadFile(app, name.data(), 0, 512, data.data(), &len), SAR_OK);
    EXPECT_EQ(std::count(data.begin(), data.begin() + len, data[0]), static_cast<long>(len)) << name;
  }
  // The keys are intact too.
  uint8_t digest[32] = {};
  EXPECT_EQ(skf.SKF_ECCSignData(OpenCon(app, "ECC"), digest, 32, &g_sig), SAR_OK);
}

}  // namespace
}  // namespace sk_test
