// Byte helpers, OpenSSL's SM2 keys and the per-path fixture of the GM tests;
// oracle.hpp is their independent reference.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/owned.hpp"
#include "gm/cpu_path.hpp"
#include "oracle.hpp"
#include "test_support.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_sm2.h"
#include "zeph_c_status.h"

namespace gm_test {

using namespace zeph_test;

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

inline zeph::EvpPkeyPtr NewSm2Key() { return zeph::EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2")); }

// The GM/T 0003 example key, and its identity.
inline const Bytes kExampleKey = FromHex(
    "04 09F9DF311E5421A150DD7D161E4BC5C672179FAD1833FC076BB08FF356F35020"
    "CCEA490CE26775A52DC6EA718CC1AA600AED05FBF35E084A6632F6072DA9AD13");
inline constexpr char kDefaultId[] = "1234567812345678";

// A module handle seeded from a fixed entropy; equal seeds give equal streams.
struct Handle {
  BIVO_HANDLE h = nullptr;
  explicit Handle(uint32_t seed) {
    const Bytes entropy = RandomBytes(256, seed);
    EXPECT_EQ(InitializeBivoHandle(&h, entropy.data(), Len(entropy)), 0u);
  }
  ~Handle() { EXPECT_EQ(UninitializeBivoHandle(h), 0u); }
  Bytes Draw(uint32_t n) {
    Bytes out(n);
    EXPECT_EQ(BIVO_generate_random_bytes(h, n, out.data()), 0u);
    return out;
  }
};

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
    saved_.empty() ? unsetenv("ZEPH_CPU") : setenv("ZEPH_CPU", saved_.c_str(), 1);
    zeph::gm::ReselectGmForTesting();
  }

 private:
  std::string saved_;
};

#define GM_ON_EVERY_PATH(Suite)                                                                       \
  INSTANTIATE_TEST_SUITE_P(Paths, Suite,                                                              \
                           ::testing::Values(zeph::gm::CpuPath::kPortable, zeph::gm::CpuPath::kAesni, \
                                             zeph::gm::CpuPath::kAvx2, zeph::gm::CpuPath::kAvx512),   \
                           [](const auto &path) { return std::string(zeph::gm::CpuPathName(path.param)); })

}  // namespace gm_test
