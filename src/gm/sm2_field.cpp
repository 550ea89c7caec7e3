// Picks the field build once per process.
#include "gm/sm2_field.hpp"

#include <atomic>

#if defined(ZEPH_SM2_HAVE_ADX)
#include <cpuid.h>
#endif

namespace zeph::gm::sm2::fp {
namespace {

std::atomic<Build> &Active() {
  static std::atomic<Build> active{AdxAvailable() ? Build::kAdx : Build::kPortable};
  return active;
}

}  // namespace

bool AdxAvailable() {
#if defined(ZEPH_SM2_HAVE_ADX)
  static const bool available = [] {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid_count(7, 0, &a, &b, &c, &d) == 0) return false;
    __builtin_cpu_init();  // AVX2 also needs the OS to save the ymm registers
    return (b & (1u << 8)) != 0 && (b & (1u << 19)) != 0 && __builtin_cpu_supports("avx2");  // BMI2, ADX
  }();
  return available;
#else
  return false;
#endif
}

Build ActiveBuild() { return Active().load(std::memory_order_relaxed); }

void PinBuild(Build b) {
#if defined(ZEPH_SM2_HAVE_ADX)
  Active().store(b);
#else
  Active().store(Build::kPortable);
#endif
}

}  // namespace zeph::gm::sm2::fp
