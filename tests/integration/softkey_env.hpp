// Software keys for the end-to-end tests: each test gets its own root folder
// of keys, made with the software key's utility, which the library reaches
// through the device configuration exactly as it reaches a vendor's library.
#pragma once

// The build names both libraries; without them these suites cannot run.
#if !defined(ZEPH_SOFTKEY_LIB) || !defined(ZEPH_SOFTKEY_NOEXT_LIB)
#error "ZEPH_SOFTKEY_LIB and ZEPH_SOFTKEY_NOEXT_LIB are not defined: the software key must be built with the tests"
#endif

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "softkey_fixture.hpp"
#include "zeph_c.h"
#include "zeph_skf.h"

namespace zeph_it {

using zeph_test::Bytes;
inline constexpr const char *kAdminPin = "12345678";
inline constexpr const char *kUserPin = "123456";
inline const Bytes kAuthKey = {'1', '2', '3', '4', '5', '6', '7', '8', '1', '2', '3', '4', '5', '6', '7', '8'};

// One vendor call as the software key's trace records it.
struct TraceLine {
  std::string fn, in, out;
  uint32_t rv = 0;
};

inline std::string Names(const std::vector<TraceLine> &trace) {
  std::string s;
  for (const TraceLine &t : trace)
    s.append(t.fn).append(t.rv != 0 ? std::to_string(t.rv).insert(0, 1, '=') : "") += ' ';
  return s;
}

inline bool Called(const std::vector<TraceLine> &trace, const std::string &fn) {
  return std::any_of(trace.begin(), trace.end(), [&](const TraceLine &t) { return t.fn == fn; });
}

// Every application, container, key and device the trace shows opened was closed.
inline ::testing::AssertionResult AllClosed(const std::vector<TraceLine> &trace) {
  const std::string opens =
      " SKF_OpenApplication SKF_CreateApplication SKF_OpenContainer SKF_CreateContainer"
      " SKF_SetSymmKey SKF_ConnectDev ";
  const std::string closes = " SKF_CloseApplication SKF_CloseContainer SKF_CloseHandle SKF_DisConnectDev ";
  std::map<std::string, std::string> open;  // handle -> what opened it
  for (const TraceLine &t : trace) {
    if (opens.find(" " + t.fn + " ") != std::string::npos && t.rv == 0 && !t.out.empty()) open[t.out] = t.fn;
    if (closes.find(" " + t.fn + " ") != std::string::npos) open.erase(t.in);
  }
  if (open.empty()) return ::testing::AssertionSuccess();
  auto failure = ::testing::AssertionFailure() << "left open:";
  for (const auto &[handle, fn] : open) failure << " " << fn << "(" << handle << ")";
  return failure << "\ntrace: " << Names(trace);
}

// Runs under vendors ZA (software key, type 1), ZT (the same library as device
// type 10), ZN (the software key without vendor extensions), a library that
// does not load, and ZL after it.
class SoftkeyTest : public zeph_test::SoftkeyFixture {
 protected:
  void SetUp() override {
    SoftkeyFixture::SetUp();
    const std::string config = std::string("[{\"type\":1,\"vid\":\"ZA\",\"skfLib\":\"") + ZEPH_SOFTKEY_LIB +
                               "\"},{\"type\":10,\"vid\":\"ZT\",\"skfLib\":\"" + ZEPH_SOFTKEY_LIB +
                               "\"},{\"type\":2,\"vid\":\"ZN\",\"skfLib\":\"" + ZEPH_SOFTKEY_NOEXT_LIB +
                               "\"},{\"type\":3,\"vid\":\"BAD\",\"skfLib\":\"/nonexistent/libskf-missing.so\"}"
                               ",{\"type\":4,\"vid\":\"ZL\",\"skfLib\":\"" +
                               ZEPH_SOFTKEY_LIB + "\"}]";
    ASSERT_EQ(ZEPH_C_SetConfigInfo(config.c_str()), 0u);
  }

 public:
  void CreateDevice(const std::string &sn) {
    MustTool("create-device --auth-key 31323334353637383132333435363738 --serial " + sn);
  }
  void CreateApp(const std::string &sn, const std::string &app, uint32_t retry = 10, const char *pin = kUserPin) {
    const std::string r = std::to_string(retry);
    MustTool("create-app --serial " + sn + " --app " + app + " --admin-pin " + kAdminPin + " --user-pin " + pin +
             " --admin-retry " + r + " --user-retry " + r);
  }
  void GenKey(const std::string &sn, const std::string &app, const std::string &con, const std::string &alg,
              const std::string &usage = "sign") {
    MustTool("gen-key --serial " + sn + " --app " + app + " --container " + con + " --user-pin " + kUserPin +
             " --alg " + alg + " --usage " + usage);
  }
  Bytes ExportCert(const std::string &sn, const std::string &app, const std::string &con,
                   const std::string &usage = "sign") {
    const std::string path = scratch_.file("cert-" + std::to_string(++seq_) + ".der");
    MustTool("export-cert --der --serial " + sn + " --app " + app + " --container " + con + " --usage " + usage +
             " --out '" + path + "'");
    return zeph_test::ReadBytes(path);
  }
  // VorliEcc/ECC (SM2) and, with_rsa, VorliRsa/RSA1 (signing) and RSA2 (encryption).
  void CreateStandardKey(const std::string &sn, bool with_rsa = true) {
    CreateDevice(sn);
    CreateApp(sn, "VorliEcc");
    GenKey(sn, "VorliEcc", "ECC", "sm2", "both");
    if (!with_rsa) return;
    CreateApp(sn, "VorliRsa");
    GenKey(sn, "VorliRsa", "RSA1", "rsa1024", "sign");
    GenKey(sn, "VorliRsa", "RSA2", "rsa1024", "both");
  }
  // The vendor calls made while `body` runs.
  std::vector<TraceLine> Traced(const std::function<void()> &body) {
    const std::string path = scratch_.file("trace-" + std::to_string(++seq_) + ".txt");
    setenv("ZEPH_SOFTKEY_TRACE", path.c_str(), 1);
    body();
    unsetenv("ZEPH_SOFTKEY_TRACE");
    std::vector<TraceLine> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
      std::istringstream words(line);
      TraceLine &t = lines.emplace_back();
      words >> t.fn;
      for (std::string w; words >> w;) {
        if (w.rfind("in=", 0) == 0) t.in = w.substr(3);
        if (w.rfind("out=", 0) == 0) t.out = w.substr(4);
        if (w.rfind("rv=", 0) == 0) t.rv = static_cast<uint32_t>(std::stoul(w.substr(3), nullptr, 16));
      }
    }
    return lines;
  }

 private:
  zeph_test::TempDir scratch_;
  int seq_ = 0;
};

inline uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

// A call of the output protocol made as hosts make it: null asks for the
// length, then the buffer is filled. Its status; the bytes in *out.
template <class Fn, class... Args>
uint32_t Out(Bytes *out, Fn fn, Args... args) {
  uint32_t len = 0;
  uint32_t rv = fn(args..., nullptr, &len);
  out->assign(len, 0);
  if (rv == 0) rv = fn(args..., out->data(), &len);
  out->resize(rv == 0 ? len : 0);
  return rv;
}

// The same for a text output that must succeed and counts its terminator: the text.
template <class Fn, class... Args>
std::string OutText(Fn fn, Args... args) {
  uint32_t len = 0;
  EXPECT_EQ(fn(args..., nullptr, &len), 0u);
  std::string text(len, '\0');
  EXPECT_EQ(fn(args..., text.data(), &len), 0u);
  text.resize(len > 0 ? len - 1 : 0);
  return text;
}

// A 65-byte SM2 point as a DER SubjectPublicKeyInfo (id-ecPublicKey, the SM2 curve).
inline Bytes Sm2Spki(const Bytes &point) {
  EXPECT_EQ(point.size(), 65u);
  Bytes der = zeph_test::FromHex("3059301306072A8648CE3D020106082A811CCF5501822D034200");
  der.insert(der.end(), point.begin(), point.end());
  return der;
}

// An API handle that is finalised and released however the test ends.
struct Handle {
  explicit Handle(const std::string &key_sn, uint32_t *status = nullptr) {
    const uint32_t rv = ZEPH_C_Initialize(&h, 0, key_sn.c_str(), 0);
    EXPECT_TRUE(status != nullptr || rv == 0) << key_sn << ": " << rv;
    if (status != nullptr) *status = rv;
  }
  ~Handle() {
    EXPECT_EQ(h != nullptr ? ZEPH_C_Finalize(h) : 0u, 0u);
    ZEPH_C_MALLOC_FREE(h);
  }
  Handle(const Handle &) = delete;
  void *get() const { return h; }
  GM_SKF_CTX *ctx() const { return h != nullptr ? static_cast<GM_SKF_CTX **>(h)[1] : nullptr; }
  void *h = nullptr;
};

}  // namespace zeph_it
