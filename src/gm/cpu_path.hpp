// Which instruction set the GM algorithms run on. Found once per process from
// CPUID (with XCR0: the operating system must save the wider registers), and
// capped by the environment variable ZEPH_CPU=portable|aesni|avx2|avx512 so
// that every path can be run and compared on one machine.
#pragma once

#include <cstddef>
#include <cstdint>

#if !defined(ZEPH_GM_X86)  // -DZEPH_GM_X86=0 builds the portable path alone
#if defined(__x86_64__) && defined(__GNUC__)
#define ZEPH_GM_X86 1
#else
#define ZEPH_GM_X86 0
#endif
#endif

// Functions defined between these two are built for the named instruction
// sets; the rest of the library stays plain x86-64. Only the units that run
// after a CPUID check use them.
#define ZEPH_PRAGMA_TEXT(x) #x
#if defined(__clang__)
#define ZEPH_TARGET_BEGIN(isa) \
  _Pragma(ZEPH_PRAGMA_TEXT(clang attribute push(__attribute__((target(isa))), apply_to = function)))
#define ZEPH_TARGET_END _Pragma("clang attribute pop")
#else
#define ZEPH_TARGET_BEGIN(isa) _Pragma("GCC push_options") _Pragma(ZEPH_PRAGMA_TEXT(GCC target(isa)))
#define ZEPH_TARGET_END        _Pragma("GCC pop_options")
#endif

namespace zeph::gm {

enum class CpuPath : uint8_t { kPortable, kAesni, kAvx2, kAvx512 };
inline constexpr int kCpuPathCount = 4;

struct CpuFeatures {
  bool ssse3 = false, aesni = false, avx = false, avx2 = false, bmi = false, avx512 = false, vaes = false, gfni = false;
};

// What CPUID and XCR0 report (all false off x86-64). avx covers the YMM
// state, avx512 means F, BW and VL with the ZMM and mask state.
CpuFeatures DetectCpuFeatures();

const char *CpuPathName(CpuPath path);

// The highest path these features run, no higher than the one `request`
// names. Null, empty or an unknown name sets no cap.
CpuPath ChooseCpuPath(const CpuFeatures &cpu, const char *request);

struct Sm4Engine;
using Sm3CompressFn = void (*)(uint32_t state[8], const uint8_t *blocks, size_t n);

struct GmDispatch {
  CpuPath path;
  const Sm4Engine *sm4;
  Sm3CompressFn sm3;
  const char *sm3_name;
};

// The implementations for a path on a CPU with these features.
GmDispatch DispatchFor(CpuPath path, const CpuFeatures &cpu);

// The process's choice, made on first use.
const GmDispatch &ActiveGm();

// Reads ZEPH_CPU again, so that one test or benchmark binary can run every
// path. Not for use while other threads hash or encrypt.
void ReselectGmForTesting();

}  // namespace zeph::gm
