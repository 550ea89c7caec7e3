// Byte helpers for the GM tests and their independent references.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "gm/cpu_path.hpp"
#include "oracle.hpp"
#include "test_support.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

namespace gm_test {

using namespace zeph_test;

// The oracle's SM3 and SM4 (tests/support/oracle.hpp) under the names these tests use.
inline Bytes EvpSm3(const std::vector<Bytes> &parts) { return Sm3(parts); }
// SM4-ECB or SM4-CBC (iv empty for ECB), with or without PKCS#7 padding, the library's padding rule.
inline Bytes EvpSm4(const Bytes &in, const Bytes &key, const Bytes &iv, bool pad = false) {
  return Sm4Encrypt(iv.empty() ? Sm4Mode::kEcb : Sm4Mode::kCbc, pad, key.data(), iv, in);
}

inline Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }
inline uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }
inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
inline Bytes Xor(Bytes a, const Bytes &b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) a[i] ^= b[i];
  return a;
}

// Sanitizer builds run fewer random trials.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// A test run once per instruction-set path, each chosen through ZEPH_CPU as
// a host would choose it; a path this CPU cannot run is skipped.
class OnEveryPath : public ::testing::TestWithParam<zeph::gm::CpuPath> {
 protected:
  void SetUp() override {
    if (const char *was = std::getenv("ZEPH_CPU")) saved_ = was;
    setenv("ZEPH_CPU", zeph::gm::CpuPathName(GetParam()), 1);
    zeph::gm::ReselectGmForTesting();
    if (zeph::gm::ActiveGm().path != GetParam()) {
      GTEST_SKIP() << "this CPU does not run the " << zeph::gm::CpuPathName(GetParam()) << " path";
    }
  }
  void TearDown() override {
    if (saved_.empty()) {
      unsetenv("ZEPH_CPU");
    } else {
      setenv("ZEPH_CPU", saved_.c_str(), 1);
    }
    zeph::gm::ReselectGmForTesting();
  }

 private:
  std::string saved_;
};

}  // namespace gm_test

namespace zeph::gm {
inline void PrintTo(CpuPath path, std::ostream *os) { *os << CpuPathName(path); }
}  // namespace zeph::gm

namespace gm_test {

inline std::string PathName(const ::testing::TestParamInfo<zeph::gm::CpuPath> &info) {
  return zeph::gm::CpuPathName(info.param);
}

#define GM_ON_EVERY_PATH(Suite)                                                                       \
  INSTANTIATE_TEST_SUITE_P(Paths, Suite,                                                              \
                           ::testing::Values(zeph::gm::CpuPath::kPortable, zeph::gm::CpuPath::kAesni, \
                                             zeph::gm::CpuPath::kAvx2, zeph::gm::CpuPath::kAvx512),   \
                           gm_test::PathName)

}  // namespace gm_test
