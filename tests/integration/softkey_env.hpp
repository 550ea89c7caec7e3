// Software keys for the end-to-end tests: each test gets its own root
// folder of keys, made with the software key's utility, and the library
// reaches them through the device configuration exactly as it reaches a
// vendor's library.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "test_support.hpp"
#include "zeph_c.h"
#include "zeph_skf.h"

namespace zeph_it {

using Bytes = std::vector<uint8_t>;

// PINs and keys every test key is made with.
inline constexpr const char *kAdminPin = "12345678";
inline constexpr const char *kUserPin = "123456";
inline constexpr const char *kAuthKeyHex = "31323334353637383132333435363738";
inline const Bytes kAuthKey = {'1', '2', '3', '4', '5', '6', '7', '8', '1', '2', '3', '4', '5', '6', '7', '8'};

// The configuration every test runs under: vendors ZA (software key, type
// 1), ZT (the same library as device type 10), ZN (the software key without
// vendor extensions), a library that does not load, and ZL after it.
std::string Configuration();

// One call of the software key as its trace records it.
struct TraceLine {
  std::string fn;
  std::string in, out;
  uint32_t rv = 0;
};

class SoftkeyTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 public:

  // Runs the utility with this test's root; its standard output in *out.
  int Tool(const std::string &args, std::string *out = nullptr);
  void Must(const std::string &args);

  void CreateDevice(const std::string &serial);
  void CreateApp(const std::string &serial, const std::string &app, uint32_t retry = 10);
  void GenKey(const std::string &serial, const std::string &app, const std::string &container,
              const std::string &alg, const std::string &usage = "sign");
  Bytes ExportCert(const std::string &serial, const std::string &app, const std::string &container,
                   const std::string &usage = "sign");
  // A key with the SM2 area (VorliEcc/ECC) and the RSA area (VorliRsa/RSA1
  // signing, RSA2 encryption) as the library lays them out.
  void CreateStandardKey(const std::string &serial, bool with_rsa = true);

  // Trace of the calls made while `body` runs.
  template <class F>
  std::vector<TraceLine> Traced(F &&body);

  const std::string &root() const { return root_.path().native(); }

 private:
  zeph_test::TempDir root_;
  zeph_test::TempDir scratch_;
  int trace_seq_ = 0;
  std::vector<TraceLine> ReadTrace(const std::string &path);
  std::string NextTracePath();
};

// An API handle that is finalised and released however the test ends.
class Handle {
 public:
  explicit Handle(const std::string &key_sn, uint32_t *status = nullptr);
  ~Handle();
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;
  void *get() const { return h_; }
  GM_SKF_CTX *ctx() const { return h_ != nullptr ? static_cast<GM_SKF_CTX **>(h_)[1] : nullptr; }

 private:
  void *h_ = nullptr;
};

// Every application and container the trace shows opened was closed.
::testing::AssertionResult AllClosed(const std::vector<TraceLine> &trace);

std::string Names(const std::vector<TraceLine> &trace);

template <class F>
std::vector<TraceLine> SoftkeyTest::Traced(F &&body) {
  const std::string path = NextTracePath();
  setenv("ZEPH_SOFTKEY_TRACE", path.c_str(), 1);
  body();
  unsetenv("ZEPH_SOFTKEY_TRACE");
  return ReadTrace(path);
}

}  // namespace zeph_it
