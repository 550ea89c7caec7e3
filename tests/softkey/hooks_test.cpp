// The test hooks (fault injection, call trace) and what the libraries export.
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using HookTest = SoftkeyTest;

std::set<std::string> Exported(const char *lib) {
  std::set<std::string> names;
  FILE *p = popen((std::string("nm -D --defined-only '") + lib + "'").c_str(), "r");
  char line[1024];
  while (p != nullptr && std::fgets(line, sizeof line, p) != nullptr) {
    std::istringstream in(line);
    std::string addr, type, name;
    if (in >> addr >> type >> name && type != "A") names.insert(name.substr(0, name.find('@')));
  }
  if (p != nullptr) pclose(p);
  return names;
}

const std::set<std::string> kExtensions = {"SKF_RSADecrypt",     "SKF_ECCDecrypt",     "SKF_Ex_GenRSAKeyPair",
                                           "SKF_Ex_RSASignData", "SKF_Eu_RSASignData", "SKF_Eu_ECCSignData",
                                           "SKF_ImportSessionKey"};

TEST(SoftkeyExports, ExactlyTheSkfEntryPoints) {
  std::set<std::string> all;
#define SK_NAME(name, args) all.insert(#name);
  ZEPH_SKF_FUNCTIONS(SK_NAME)
#undef SK_NAME
  ASSERT_EQ(all.size(), 57u);
  EXPECT_EQ(Exported(ZEPH_SOFTKEY_LIB), all);
  std::set<std::string> standard;
  for (const auto &n : all)
    if (kExtensions.count(n) == 0) standard.insert(n);
  EXPECT_EQ(Exported(ZEPH_SOFTKEY_NOEXT_LIB), standard);
  // Resolved by name, as the device layer does: the extensions are simply absent.
  void *noext = dlopen(ZEPH_SOFTKEY_NOEXT_LIB, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(noext, nullptr) << dlerror();
  for (const auto &n : kExtensions) EXPECT_EQ(dlsym(noext, n.c_str()), nullptr) << n;
  EXPECT_NE(dlsym(noext, "SKF_ECCSignData"), nullptr);
}

TEST_F(HookTest, FaultHookFailsTheNamedCallOnlyAndDoesNothingElse) {
  MakeStandardKey();
  HAPPLICATION app = OpenApp(Connect(), "VorliEcc", kUserPin);
  auto open = [&] {
    HCONTAINER c = nullptr;
    const ULONG rv = skf.SKF_OpenContainer(app, const_cast<char *>("ECC"), &c);
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
  char name[] = "F";
  EXPECT_EQ(skf.SKF_CreateFile(app, name, 4, 0xFF, 0x10), SAR_NO_ROOM);
  unsetenv("ZEPH_SOFTKEY_FAULT");
  FILEATTRIBUTE info;
  EXPECT_EQ(skf.SKF_GetFileInfo(app, name, &info), SAR_FILE_NOT_EXIST);
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
  EXPECT_EQ(skf.SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>(kUserPin), &retry), SAR_PIN_INCORRECT);
  skf.SKF_CloseContainer(con);
  skf.SKF_CloseApplication(app);
  skf.SKF_CloseApplication(nullptr);
  skf.SKF_DisConnectDev(dev);
  unsetenv("ZEPH_SOFTKEY_TRACE");
  skf.SKF_DisConnectDev(dev);  // not traced any more

  std::ifstream in(trace);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  char expect_open[64];
  std::snprintf(expect_open, sizeof expect_open, " out=%p rv=0x00000000", dev);
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[0], std::string("SKF_ConnectDev") + expect_open);
  EXPECT_EQ(lines[3].rfind("SKF_VerifyPIN in=", 0), 0u);
  EXPECT_NE(lines[3].find("rv=0x0A000024"), std::string::npos);
  EXPECT_EQ(lines[6], "SKF_CloseApplication in=0x0 rv=0x0A000005");

  // Every handle opened is closed exactly once.
  std::map<std::string, int> open;
  for (const auto &line : lines) {
    const auto out = line.find(" out="), in_at = line.find(" in=");
    if (out != std::string::npos) ++open[line.substr(out + 5, line.find(' ', out + 1) - out - 5)];
    if (line.find("Close") != std::string::npos || line.find("DisConnect") != std::string::npos) {
      if (line.find("rv=0x00000000") != std::string::npos)
        --open[line.substr(in_at + 4, line.find(' ', in_at + 1) - in_at - 4)];
    }
  }
  for (const auto &[h, n] : open) EXPECT_EQ(n, 0) << h;
  EXPECT_EQ(open.size(), 3u);
}

}  // namespace
}  // namespace sk_test
