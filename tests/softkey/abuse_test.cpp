// Abuse: handles that are not what they claim, damaged device files, several
// processes at once, a writer killed mid-way.
#include <algorithm>
#include <fstream>
#include <type_traits>

#include <signal.h>
#include <unistd.h>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using AbuseTest = SoftkeyTest;

enum HKind { kNone = -1, kDev, kApp, kCon, kKey, kHash };

// The kind of handle an entry point takes, from its declared parameters.
HKind KindOf(const std::string &params) {
  for (auto [prefix, kind] : {std::pair{"(DEVHANDLE", kDev},
                              {"(HAPPLICATION", kApp},
                              {"(HCONTAINER", kCon},
                              {"(HANDLE hKey", kKey},
                              {"(HANDLE", kHash}})
    if (params.rfind(prefix, 0) == 0) return kind;
  return kNone;
}

alignas(16) BYTE g_buf[8192];

// Calls an entry point with handle h and harmless arguments for the rest:
// pointers into a scratch buffer, 16 for numbers.
template <typename First, typename... A>
ULONG CallWith(ULONG (*f)(First, A...), HANDLE h) {
  auto arg = [](auto tag) {
    using T = typename decltype(tag)::type;
    if constexpr (std::is_pointer_v<T>)
      return reinterpret_cast<T>(g_buf);
    else if constexpr (std::is_integral_v<T>)
      return T(16);
    else
      return T{};
  };
  if constexpr (std::is_same_v<First, HANDLE>) return f(h, arg(std::type_identity<A>{})...);
  return SAR_FAIL;
}

TEST_F(AbuseTest, EveryHandleIsCheckedBeforeUse) {
  MakeStandardKey();
  // A live handle of each kind, a closed one of each kind, and a live handle
  // of another kind for each.
  auto open_all = [&](HANDLE out[5]) {
    out[kDev] = Connect();
    out[kApp] = OpenApp(out[kDev], "VorliEcc", kUserPin);
    out[kCon] = OpenCon(out[kApp], "ECC");
    EXPECT_EQ(skf.SKF_SetSymmKey(out[kDev], g_buf, SGD_SM4_ECB, &out[kKey]), SAR_OK);
    EXPECT_EQ(skf.SKF_DigestInit(out[kDev], SGD_SM3, nullptr, nullptr, 0, &out[kHash]), SAR_OK);
  };
  HANDLE live[5], stale[5];
  open_all(live);
  open_all(stale);
  ASSERT_EQ(skf.SKF_DisConnectDev(stale[kDev]), SAR_OK);  // closes everything opened through it
  const HANDLE foreign[5] = {live[kApp], live[kCon], live[kApp], live[kHash], live[kCon]};
  int local = 0, checked = 0;
#define SK_CHECK(name, params)                                                                    \
  if (const HKind kind = KindOf(#params); kind != kNone) {                                        \
    ++checked;                                                                                    \
    for (HANDLE h : {HANDLE{}, stale[kind], foreign[kind], HANDLE(&local), HANDLE(uintptr_t{1})}) \
      EXPECT_EQ(CallWith(skf.name, h), SAR_INVALIDHANDLEERR) << #name << " with " << h;           \
  }
  ZEPH_SKF_FUNCTIONS(SK_CHECK)
#undef SK_CHECK
  EXPECT_EQ(checked, 55) << "every entry point but EnumDev and ConnectDev takes a handle";
  ULONG type = 0;
  EXPECT_EQ(skf.SKF_GetConProperty(live[kCon], &type), SAR_OK) << "the live handles still work";

  // A deleted application's handles stay stale even when a namesake appears.
  MustTool(std::string("delete-app --serial ") + kSerial + " --app VorliEcc");
  MustTool(std::string("create-app --serial ") + kSerial + " --app VorliEcc --admin-pin " + kAdminPin + " --user-pin " +
           kUserPin);
  ULONG size = 0;
  EXPECT_EQ(skf.SKF_EnumContainer(live[kApp], nullptr, &size), SAR_INVALIDHANDLEERR);
  EXPECT_EQ(skf.SKF_CloseApplication(live[kApp]), SAR_OK);
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
      "[]",
      good.substr(0, good.size() / 2),
      swap(good, "\"format\":\t2", "\"format\":\t3"),
      swap(good, "\"authKey\":\t\"", "\"authKey\":\t\"00"),
      swap(good, "\"apps\":\t[", "\"apps\":\t{\"x\":["),
      swap(good, "\"remain\":\t3", "\"remain\":\t4"),
      swap(good, "\"max\":\t3", "\"max\":\t-1"),
      swap(good, "\"signCert\":\t\"", "\"signCert\":\t\"*"),
      swap(good, "\"alg\":\t131328", "\"alg\":\t7"),
      swap(good, "\"pub\":\t\"04", "\"pub\":\t\"0400\",\"x\":\""),  // a short point
  };
  for (const auto &text : damaged) {
    zeph_test::WriteBytes(path, Bytes(text.begin(), text.end()));
    DEVHANDLE h = nullptr;
    EXPECT_EQ(skf.SKF_ConnectDev(S(kSerial), &h), SAR_FILEERR) << text.substr(0, 200);
  }
  ULONG size = 0;
  EXPECT_EQ(skf.SKF_EnumDev(TRUE, nullptr, &size), SAR_OK);
  EXPECT_EQ(size, 10u) << "still listed: its folder is there";
}

// Two processes write the same device while a third rewrites files until it
// is killed: no update is lost, nothing is torn.
TEST_F(AbuseTest, ConcurrentAndKilledWritersLeaveAWorkingDevice) {
  MakeStandardKey();
  auto writer = [&](const std::string &tag, int count) {  // count < 0: until killed
    HAPPLICATION app = OpenApp(Connect(), "VorliEcc", kUserPin);
    bool ok = app != nullptr;
    Bytes data(64);
    for (int i = 0; ok && i != count; ++i) {
      std::string name = tag + std::to_string(i % 12);
      std::fill(data.begin(), data.end(), static_cast<uint8_t>(i));
      skf.SKF_DeleteFile(app, name.data());
      ok = (skf.SKF_CreateFile(app, name.data(), 64, 0xFF, 0x10) == SAR_OK &&
            skf.SKF_WriteFile(app, name.data(), 0, data.data(), 64) == SAR_OK) ||
           count < 0;
    }
    return ok;
  };
  pid_t children[3];
  for (int i = 0; i < 3; ++i)
    if ((children[i] = fork()) == 0) _exit(writer(std::string(1, "kpq"[i]), i == 0 ? -1 : 12) ? 0 : 1);
  for (int i = 1; i < 3; ++i) {
    int status = -1;
    waitpid(children[i], &status, 0);
    EXPECT_EQ(status, 0);
  }
  kill(children[0], SIGKILL);
  waitpid(children[0], nullptr, 0);

  HAPPLICATION app = OpenApp(Connect(), "VorliEcc", kUserPin);
  const auto names = List([&](char *b, ULONG *n) { return skf.SKF_EnumFiles(app, b, n); });
  EXPECT_EQ(std::count_if(names.begin(), names.end(), [](const std::string &n) { return n[0] != 'k'; }), 24);
  for (const auto &name : names) {
    Bytes data(64);
    ULONG len = 64;
    ASSERT_EQ(skf.SKF_ReadFile(app, S(name.c_str()), 0, 64, data.data(), &len), SAR_OK) << name;
    EXPECT_EQ(std::count(data.begin(), data.begin() + len, data[0]), static_cast<long>(len)) << name;
  }
  EXPECT_EQ(Sign(kUserPin), SAR_OK) << "the keys are intact too";
}

}  // namespace
}  // namespace sk_test
