// The test hooks (fault injection, call trace), what the libraries export, and
// the zeph-softkey utility's failures.
#include <cstdio>
#include <fstream>
#include <set>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using HookTest = SoftkeyTest;

TEST(SoftkeyExports, ExactlyTheSkfEntryPointsAndNoExtensionsInTheNoextBuild) {
  const std::set<std::string> ext = {"SKF_RSADecrypt",      "SKF_ECCDecrypt",     "SKF_Ex_GenRSAKeyPair",
                                     "SKF_Ex_RSASignData",  "SKF_Eu_RSASignData", "SKF_Eu_ECCSignData",
                                     "SKF_ImportSessionKey"};
  std::set<std::string> all, standard;
#define SK_NAME(name, args) \
  all.insert(#name);        \
  if (ext.count(#name) == 0) standard.insert(#name);
  ZEPH_SKF_FUNCTIONS(SK_NAME)
#undef SK_NAME
  EXPECT_EQ(zeph_test::DynamicSymbols(ZEPH_SOFTKEY_LIB), all);
  EXPECT_EQ(zeph_test::DynamicSymbols(ZEPH_SOFTKEY_NOEXT_LIB), standard);
  // Resolved by name, as the device layer does: the extensions are simply absent.
  void *noext = dlopen(ZEPH_SOFTKEY_NOEXT_LIB, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(noext, nullptr) << dlerror();
  for (const auto &n : ext) EXPECT_EQ(dlsym(noext, n.c_str()), nullptr) << n;
}

TEST_F(HookTest, FaultHookFailsTheNamedCallOnlyAndDoesNothingElse) {
  MakeStandardKey();
  HAPPLICATION app = OpenApp(Connect(), "VorliEcc", kUserPin);
  auto open = [&] {
    HCONTAINER c = nullptr;
    const ULONG rv = skf.SKF_OpenContainer(app, S("ECC"), &c);
    if (rv == SAR_OK) skf.SKF_CloseContainer(c);
    return rv;
  };
  struct Case {
    const char *text;
    std::vector<ULONG> expected;  // statuses of four calls of SKF_OpenContainer
  } const cases[] = {
      {"SKF_OpenContainer:2:0x0A000005", {SAR_OK, SAR_INVALIDHANDLEERR, SAR_OK, SAR_OK}},
      {"SKF_OpenContainer:*:0xE0000001", {0xE0000001, 0xE0000001, 0xE0000001, 0xE0000001}},
      {"SKF_VerifyPIN:1:5;SKF_OpenContainer:1:7, SKF_OpenContainer:3:8", {7, SAR_OK, 8, SAR_OK}},
      {"garbage,SKF_OpenContainer,SKF_OpenContainer:0:1,SKF_OpenContainer:x:1,:1:1", {0, 0, 0, 0}},
      {"SKF_OpenContainer:1:0x1FFFFFFFF", {0, 0, 0, 0}},
      {"SKF_OpenContainer:2:0x0A000005", {SAR_OK, SAR_INVALIDHANDLEERR, SAR_OK, SAR_OK}},
      {"SKF_OpenContainer:2:0x0A000005", {SAR_OK, SAR_OK, SAR_OK, SAR_OK}},  // the same value counts on
      {"again,SKF_OpenContainer:2:0x0A000005", {SAR_OK, SAR_INVALIDHANDLEERR, SAR_OK, SAR_OK}},
  };
  for (const auto &c : cases) {
    setenv("ZEPH_SOFTKEY_FAULT", c.text, 1);  // counting starts over with each new value
    std::vector<ULONG> got;
    for (int i = 0; i < 4; ++i) got.push_back(open());
    EXPECT_EQ(got, c.expected) << c.text;
  }
  // A failed call has no effect: the file is not created.
  setenv("ZEPH_SOFTKEY_FAULT", "SKF_CreateFile:1:0x0A000030", 1);
  EXPECT_EQ(skf.SKF_CreateFile(app, S("F"), 4, 0xFF, 0x10), SAR_NO_ROOM);
  unsetenv("ZEPH_SOFTKEY_FAULT");
  FILEATTRIBUTE info;
  EXPECT_EQ(skf.SKF_GetFileInfo(app, S("F"), &info), SAR_FILE_NOT_EXIST);
}

TEST_F(HookTest, TraceShowsEveryOpenWithItsClose) {
  MakeStandardKey();
  const std::string trace = root.file("trace.txt");
  setenv("ZEPH_SOFTKEY_TRACE", trace.c_str(), 1);
  setenv("ZEPH_SOFTKEY_FAULT", "SKF_VerifyPIN:1:0x0A000024", 1);
  // A device-layer style operation: open, verify (fails), close on every path.
  DEVHANDLE dev = Connect();
  HAPPLICATION app = OpenApp(dev, "VorliEcc");
  HCONTAINER con = OpenCon(app, "ECC");
  ULONG retry = 0;
  EXPECT_EQ(skf.SKF_VerifyPIN(app, USER_TYPE, S(kUserPin), &retry), SAR_PIN_INCORRECT);
  skf.SKF_CloseContainer(con);
  skf.SKF_CloseApplication(app);
  skf.SKF_CloseApplication(nullptr);
  skf.SKF_DisConnectDev(dev);
  unsetenv("ZEPH_SOFTKEY_TRACE");
  skf.SKF_DisConnectDev(dev);  // not traced any more

  std::ifstream in(trace);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  // Every handle opened is closed exactly once; the failure and the stray close show.
  auto x = [](const void *p) {
    char b[24];
    std::snprintf(b, sizeof b, "0x%lx", reinterpret_cast<unsigned long>(p));
    return std::string(b);
  };
  const std::vector<std::string> expected = {
      "SKF_ConnectDev out=" + x(dev) + " rv=0x00000000",
      "SKF_OpenApplication in=" + x(dev) + " out=" + x(app) + " rv=0x00000000",
      "SKF_OpenContainer in=" + x(app) + " out=" + x(con) + " rv=0x00000000",
      "SKF_VerifyPIN in=" + x(app) + " rv=0x0A000024",
      "SKF_CloseContainer in=" + x(con) + " rv=0x00000000",
      "SKF_CloseApplication in=" + x(app) + " rv=0x00000000",
      "SKF_CloseApplication in=0x0 rv=0x0A000005",
      "SKF_DisConnectDev in=" + x(dev) + " rv=0x00000000",
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(HookTest, UtilityFailuresExplainThemselvesAndExitNonZero) {
  MakeStandardKey();
  const std::string dev = std::string(" --serial ") + kSerial;
  struct Case {
    std::string args;
    const char *says;
  } const cases[] = {
      {"", "no command"},
      {"frobnicate", "unknown command"},
      {"create-device", "missing --serial"},
      {"create-device --serial ../x", "serial number"},
      {"create-device" + dev, "already exists"},
      {"create-device --serial N1 --auth-key 0011", "--auth-key"},
      {"show --serial NOPE", "no device NOPE"},
      {"create-app" + dev + " --app VorliEcc --admin-pin 12345678 --user-pin 87654321", "already has"},
      {"create-app" + dev + " --app A --admin-pin 123 --user-pin 87654321", "6 to 16"},
      {"create-app" + dev + " --app A --admin-pin 12345678 --user-pin 87654321 --user-retry 0", "--user-retry"},
      {"gen-key" + dev + " --app VorliEcc --container C --alg sm2 --user-pin 00000000", "wrong user PIN"},
      {"gen-key" + dev + " --app VorliEcc --container C --alg dsa --user-pin 87654321", "--alg"},
      {"gen-key" + dev + " --app VorliEcc --container ECC --alg rsa1024 --user-pin 87654321", "other algorithm"},
      {"gen-key" + dev + " --app Nope --container C --alg sm2 --user-pin 87654321", "no application Nope"},
      {"gen-key" + dev + " --app VorliEcc --container C --alg sm2 --user-pin 87654321 --subject junk", "subject"},
      {"import-cert" + dev + " --app VorliEcc --container ECC --cert /nonexistent", "cannot read"},
      {"read-file" + dev + " --app VorliEcc --file Nope", "no file Nope"},
      {"write-file" + dev + " --app VorliEcc --file F", "exactly one of"},
      {"list --app VorliEcc", "does not apply"},
      {"list --root", "needs a value"},
  };
  for (const auto &c : cases) {
    std::string out;
    EXPECT_NE(Tool(c.args, &out), 0) << c.args;
    EXPECT_NE(out.find(c.says), std::string::npos) << c.args << " said: " << out;
    EXPECT_EQ(out.rfind("zeph-softkey: ", 0), 0u) << out;
  }
}

}  // namespace
}  // namespace sk_test
