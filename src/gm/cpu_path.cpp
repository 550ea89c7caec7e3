// CPU feature detection and the process's choice of SM3 and SM4 code.
#include "gm/cpu_path.hpp"

#include <atomic>
#include <cstdlib>
#include <cstring>

#if ZEPH_GM_X86
#include <cpuid.h>
#endif

#include "gm/gm_internal.hpp"
#include "gm/sm4_engine.hpp"

namespace zeph::gm {
namespace {

constexpr const char *kPathNames[kCpuPathCount] = {"portable", "aesni", "avx2", "avx512"};

bool Runs(CpuPath path, const CpuFeatures &cpu) {
  switch (path) {
    case CpuPath::kAesni:
      return cpu.ssse3 && cpu.aesni;
    case CpuPath::kAvx2:
      return cpu.avx2 && (cpu.aesni || cpu.gfni);
    case CpuPath::kAvx512:
      return cpu.avx512 && cpu.gfni;
    case CpuPath::kPortable:
      break;
  }
  return true;
}

#if ZEPH_GM_X86
uint64_t Xcr0() {
  uint32_t lo = 0, hi = 0;
  __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return uint64_t{hi} << 32 | lo;
}
#endif

struct Choices {
  CpuFeatures cpu;
  GmDispatch by_path[kCpuPathCount];
};

const Choices &AllChoices() {
  static const Choices choices = [] {
    Choices c{DetectCpuFeatures(), {}};
    for (int i = 0; i < kCpuPathCount; ++i) c.by_path[i] = DispatchFor(static_cast<CpuPath>(i), c.cpu);
    return c;
  }();
  return choices;
}

const GmDispatch *Select() {
  const Choices &c = AllChoices();
  return &c.by_path[static_cast<int>(ChooseCpuPath(c.cpu, std::getenv("ZEPH_CPU")))];
}

// Two threads racing on first use both store the same entry.
std::atomic<const GmDispatch *> g_active{nullptr};

}  // namespace

CpuFeatures DetectCpuFeatures() {
  CpuFeatures f;
#if ZEPH_GM_X86
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0) return f;
  f.ssse3 = (c >> 9 & 1) != 0;
  f.aesni = (c >> 25 & 1) != 0;
  const bool osxsave = (c >> 27 & 1) != 0, avx = (c >> 28 & 1) != 0;
  const uint64_t xcr0 = osxsave ? Xcr0() : 0;
  f.avx = avx && (xcr0 & 0x06) == 0x06;                   // XMM and YMM state saved
  const bool zmm_state = f.avx && (xcr0 & 0xE0) == 0xE0;  // opmask, ZMM_Hi256, Hi16_ZMM
  unsigned b7 = 0, c7 = 0;
  if (__get_cpuid_max(0, nullptr) >= 7) __cpuid_count(7, 0, a, b7, c7, d);
  f.avx2 = f.avx && (b7 >> 5 & 1) != 0;
  f.bmi = (b7 >> 3 & 1) != 0 && (b7 >> 8 & 1) != 0;
  f.avx512 = f.avx2 && zmm_state && (b7 >> 16 & 1) != 0 && (b7 >> 30 & 1) != 0 && (b7 >> 31 & 1) != 0;
  f.vaes = f.avx && (c7 >> 9 & 1) != 0;
  f.gfni = (c7 >> 8 & 1) != 0;
#endif
  return f;
}

const char *CpuPathName(CpuPath path) { return kPathNames[static_cast<int>(path)]; }

CpuPath ChooseCpuPath(const CpuFeatures &cpu, const char *request) {
  int cap = kCpuPathCount - 1;
  for (int i = 0; request != nullptr && i < kCpuPathCount; ++i) {
    if (std::strcmp(request, kPathNames[i]) == 0) cap = i;
  }
  for (int i = cap; i > 0; --i) {
    if (Runs(static_cast<CpuPath>(i), cpu)) return static_cast<CpuPath>(i);
  }
  return CpuPath::kPortable;
}

GmDispatch DispatchFor(CpuPath path, const CpuFeatures &cpu) {
  GmDispatch d{path, &kSm4Portable, Sm3CompressPortable, "portable"};
#if ZEPH_GM_X86
  switch (path) {
    case CpuPath::kAvx512:
      d.sm4 = &kSm4Avx512Gfni;
      break;
    case CpuPath::kAvx2:
      d.sm4 = cpu.gfni ? &kSm4Avx2Gfni : cpu.vaes ? &kSm4Avx2Vaes : &kSm4Avx2;
      break;
    case CpuPath::kAesni:
      d.sm4 = &kSm4Aesni;
      break;
    case CpuPath::kPortable:
      break;
  }
  if (path != CpuPath::kPortable && cpu.bmi) {
    d.sm3 = Sm3CompressBmi2;
    d.sm3_name = "bmi2";
    if (path == CpuPath::kAvx512) {
      d.sm3 = Sm3CompressAvx512;
      d.sm3_name = "avx512+bmi2";
    } else if (path == CpuPath::kAvx2 && cpu.avx) {
      d.sm3 = Sm3CompressAvx;
      d.sm3_name = "avx+bmi2";
    }
  }
#endif
  return d;
}

const GmDispatch &ActiveGm() {
  const GmDispatch *d = g_active.load(std::memory_order_acquire);
  if (d == nullptr) {
    d = Select();
    g_active.store(d, std::memory_order_release);
  }
  return *d;
}

void ReselectGmForTesting() { g_active.store(Select(), std::memory_order_release); }

}  // namespace zeph::gm
