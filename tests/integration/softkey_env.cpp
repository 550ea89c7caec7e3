#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_NOEXT_LIB) && defined(ZEPH_SOFTKEY_TOOL)

#include "softkey_env.hpp"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace zeph_it {

namespace {

std::string Quote(const std::string &s) {
  std::string q = "'";
  for (char c : s) {
    if (c == '\'') {
      q += "'\\''";
    } else {
      q += c;
    }
  }
  return q + "'";
}

std::string Entry(int type, const std::string &vid, const std::string &lib) {
  return "{\"type\":" + std::to_string(type) + ",\"vid\":\"" + vid + "\",\"skfLib\":\"" + lib + "\"}";
}

}  // namespace

std::string Configuration() {
  std::string text = "[";
  text += Entry(1, "ZA", ZEPH_SOFTKEY_LIB) + ",";
  text += Entry(10, "ZT", ZEPH_SOFTKEY_LIB) + ",";
  text += Entry(2, "ZN", ZEPH_SOFTKEY_NOEXT_LIB) + ",";
  text += Entry(3, "BAD", "/nonexistent/libskf-missing.so") + ",";
  text += Entry(4, "ZL", ZEPH_SOFTKEY_LIB);
  return text + "]";
}

void SoftkeyTest::SetUp() {
  setenv("ZEPH_SOFTKEY_ROOT", root().c_str(), 1);
  unsetenv("ZEPH_SOFTKEY_FAULT");
  unsetenv("ZEPH_SOFTKEY_TRACE");
  ASSERT_EQ(ZEPH_C_SetConfigInfo(Configuration().c_str()), 0u);
}

void SoftkeyTest::TearDown() {
  unsetenv("ZEPH_SOFTKEY_FAULT");
  unsetenv("ZEPH_SOFTKEY_TRACE");
}

int SoftkeyTest::Tool(const std::string &args, std::string *out) {
  const std::string cmd = std::string(Quote(ZEPH_SOFTKEY_TOOL)) + " --root " + Quote(root()) + " " + args;
  FILE *p = popen((cmd + " 2>&1").c_str(), "r");
  if (p == nullptr) return -1;
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) text.append(buf, n);
  const int status = pclose(p);
  if (out != nullptr) *out = text;
  return status;
}

void SoftkeyTest::Must(const std::string &args) {
  std::string out;
  const int rv = Tool(args, &out);
  ASSERT_EQ(rv, 0) << "zeph-softkey " << args << "\n" << out;
}

void SoftkeyTest::CreateDevice(const std::string &serial) {
  Must("create-device --serial " + Quote(serial) + " --auth-key " + kAuthKeyHex);
}

void SoftkeyTest::CreateApp(const std::string &serial, const std::string &app, uint32_t retry) {
  Must("create-app --serial " + Quote(serial) + " --app " + Quote(app) + " --admin-pin " + kAdminPin +
       " --user-pin " + kUserPin + " --admin-retry " + std::to_string(retry) + " --user-retry " +
       std::to_string(retry));
}

void SoftkeyTest::GenKey(const std::string &serial, const std::string &app, const std::string &container,
                         const std::string &alg, const std::string &usage) {
  Must("gen-key --serial " + Quote(serial) + " --app " + Quote(app) + " --container " + Quote(container) +
       " --user-pin " + kUserPin + " --alg " + alg + " --usage " + usage);
}

Bytes SoftkeyTest::ExportCert(const std::string &serial, const std::string &app, const std::string &container,
                              const std::string &usage) {
  const std::string path = scratch_.file("cert-" + std::to_string(++trace_seq_) + ".der");
  Must("export-cert --serial " + Quote(serial) + " --app " + Quote(app) + " --container " + Quote(container) +
       " --usage " + usage + " --der --out " + Quote(path));
  return zeph_test::ReadBytes(path);
}

void SoftkeyTest::CreateStandardKey(const std::string &serial, bool with_rsa) {
  CreateDevice(serial);
  CreateApp(serial, "VorliEcc");
  GenKey(serial, "VorliEcc", "ECC", "sm2", "both");
  if (with_rsa) {
    CreateApp(serial, "VorliRsa");
    GenKey(serial, "VorliRsa", "RSA1", "rsa1024", "sign");
    GenKey(serial, "VorliRsa", "RSA2", "rsa1024", "both");
  }
}

std::string SoftkeyTest::NextTracePath() { return scratch_.file("trace-" + std::to_string(++trace_seq_) + ".txt"); }

std::vector<TraceLine> SoftkeyTest::ReadTrace(const std::string &path) {
  std::vector<TraceLine> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    TraceLine t;
    words >> t.fn;
    std::string word;
    while (words >> word) {
      if (word.rfind("in=", 0) == 0) t.in = word.substr(3);
      if (word.rfind("out=", 0) == 0) t.out = word.substr(4);
      if (word.rfind("rv=", 0) == 0) t.rv = static_cast<uint32_t>(std::stoul(word.substr(3), nullptr, 16));
    }
    lines.push_back(t);
  }
  return lines;
}

Handle::Handle(const std::string &key_sn, uint32_t *status) {
  const uint32_t rv = ZEPH_C_Initialize(&h_, 0, key_sn.c_str(), 0);
  if (status != nullptr) {
    *status = rv;
  } else {
    EXPECT_EQ(rv, 0u) << "ZEPH_C_Initialize(" << key_sn << ")";
  }
}

Handle::~Handle() {
  if (h_ == nullptr) return;
  EXPECT_EQ(ZEPH_C_Finalize(h_), 0u);
  ZEPH_C_MALLOC_FREE(h_);
}

::testing::AssertionResult AllClosed(const std::vector<TraceLine> &trace) {
  std::map<std::string, std::string> open;  // handle -> what opened it
  for (const TraceLine &t : trace) {
    const bool opens = t.fn == "SKF_OpenApplication" || t.fn == "SKF_CreateApplication" ||
                       t.fn == "SKF_OpenContainer" || t.fn == "SKF_CreateContainer" || t.fn == "SKF_SetSymmKey" ||
                       t.fn == "SKF_ConnectDev";
    if (opens && t.rv == 0 && !t.out.empty()) open[t.out] = t.fn;
    const bool closes = t.fn == "SKF_CloseApplication" || t.fn == "SKF_CloseContainer" ||
                        t.fn == "SKF_CloseHandle" || t.fn == "SKF_DisConnectDev";
    if (closes) open.erase(t.in);
  }
  if (open.empty()) return ::testing::AssertionSuccess();
  auto failure = ::testing::AssertionFailure() << "left open:";
  for (const auto &[handle, fn] : open) failure << " " << fn << "(" << handle << ")";
  return failure << "\ntrace: " << Names(trace);
}

std::string Names(const std::vector<TraceLine> &trace) {
  std::string s;
  for (const TraceLine &t : trace) {
    char rv[16];
    std::snprintf(rv, sizeof rv, "%X", t.rv);
    s += t.fn + (t.rv != 0 ? std::string("=") + rv : "") + " ";
  }
  return s;
}

}  // namespace zeph_it

#endif
