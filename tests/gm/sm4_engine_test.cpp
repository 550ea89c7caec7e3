// The SM4 engines and the choice of path: every engine this CPU runs against
// the portable engine; the generic vector code on an emulated 512-bit register
// whose operations follow the instruction set's definitions, so the GFNI and
// AVX-512 logic is checked on any CPU; which path features and ZEPH_CPU give;
// and, under valgrind's memcheck (the ctest gm.Sm4ConstantTimeUnderValgrind),
// that no vector engine branches on or indexes by the key or the data, while
// the portable engine's table lookups are caught, which shows the check sees.
// The emulated register is passed by value in plain x86-64 code; these are
// test-local functions, so the ABI note does not matter.
#pragma GCC diagnostic ignored "-Wpsabi"

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "gm/sm4_lanes.hpp"
#include "gm_test_util.hpp"

#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define GM_HAVE_MEMCHECK 1
#else
#define GM_HAVE_MEMCHECK 0
#endif

using namespace gm_test;
using namespace zeph::gm;

namespace {

// Four 128-bit lanes, like a ZMM register, as a compiler vector type: the
// lane-free operations are its own; shuffles and S-boxes follow the
// instructions' definitions byte by byte. 32-bit words are little-endian.
struct VEmu {
  using R = uint8_t __attribute__((vector_size(64)));
  using W = uint32_t __attribute__((vector_size(64)));
  using H = uint16_t __attribute__((vector_size(64)));
  static constexpr size_t kBlocks = 4;

  static R Load(const uint8_t *p) {
    R r;
    std::memcpy(&r, p, 64);
    return r;
  }
  static void Store(uint8_t *p, const R &r) { std::memcpy(p, &r, 64); }
  static R Splat16(const uint8_t (&x)[16]) {
    return Bytewise(R{}, [&](uint8_t, int i) { return x[i & 15]; });
  }
  static R Splat32(uint32_t w) { return (R)(W{} + w); }
  static uint32_t Low32(const R &r) { return ((W)r)[0]; }
  static R Opaque(const R &a) { return a; }
  static R Xor(const R &a, const R &b) { return a ^ b; }
  static R And(const R &a, const R &b) { return a & b; }
  static R Shr4(const R &a) { return (R)((H)a >> 4); }  // PSRLW: 16-bit lanes
  template <int N>
  static R Rotl(const R &a) {
    return (R)((W)a << N | (W)a >> (32 - N));
  }
  template <class F>
  static R Bytewise(const R &a, F f) {
    R r;
    for (int i = 0; i < 64; ++i) r[i] = f(a[i], i);
    return r;
  }
  static R Shuffle(const R &table, const R &idx) {  // PSHUFB
    return Bytewise(idx, [&](uint8_t x, int i) { return (x & 0x80) != 0 ? uint8_t{0} : table[(i & ~15) | (x & 15)]; });
  }
  static R SubBytes(const R &a) {  // AESENCLAST with a zero key: ShiftRows, then SubBytes
    return Bytewise(a, [&](uint8_t, int i) {
      const int lane = i & ~15, col = (i & 15) >> 2, row = i & 3;
      return sm4iso::AesSbox(a[lane + 4 * ((col + row) & 3) + row]);
    });
  }
  static R Sbox(const R &a) {  // GF2P8AFFINEQB, then GF2P8AFFINEINVQB
    return Bytewise(a, [](uint8_t x, int) {
      const uint8_t y = sm4iso::GfAffine(x, sm4iso::kGfPre, sm4iso::kPreC);
      return sm4iso::GfAffine(sm4iso::AesInverse(y), sm4iso::kGfPost, sm4iso::kSm4C);
    });
  }
  static void Transpose(R &a, R &b, R &c, R &d) {  // word k of register j <-> word j of register k, per lane
    const W in[4] = {(W)a, (W)b, (W)c, (W)d};
    W out[4];
    for (int l = 0; l < 4; ++l) {
      for (int j = 0; j < 4; ++j) {
        for (int k = 0; k < 4; ++k) out[k][4 * l + j] = in[j][4 * l + k];
      }
    }
    a = (R)out[0];
    b = (R)out[1];
    c = (R)out[2];
    d = (R)out[3];
  }
};

const Sm4Engine kEmulatedAes = MakeSm4Engine<VEmu, AesRound<VEmu>, 4>("emulated aes");
const Sm4Engine kEmulatedGfni = MakeSm4Engine<VEmu, GfniRound<VEmu>, 4>("emulated gfni");

struct EngineCase {
  const Sm4Engine *engine;
  bool runs, emulated;
};

std::vector<EngineCase> Engines() {
  std::vector<EngineCase> engines = {{&kEmulatedAes, true, true}, {&kEmulatedGfni, true, true}};
#if ZEPH_GM_X86
  const CpuFeatures cpu = DetectCpuFeatures();
  engines.push_back({&kSm4Aesni, cpu.ssse3 && cpu.aesni, false});
  engines.push_back({&kSm4Avx2, cpu.avx2 && cpu.aesni, false});
  engines.push_back({&kSm4Avx2Vaes, cpu.avx2 && cpu.vaes, false});
  engines.push_back({&kSm4Avx2Gfni, cpu.avx2 && cpu.gfni, false});
  engines.push_back({&kSm4Avx512Gfni, cpu.avx512 && cpu.gfni, false});
#endif
  return engines;
}

// ECB both ways and CBC both ways (decryption in place) on one engine.
Bytes AllModes(const Sm4Engine &engine, const Bytes &key, const Bytes &iv, const Bytes &plain) {
  const size_t n = plain.size() / 16;
  Bytes ecb(plain.size()), ecb_back(plain.size()), cbc(plain.size());
  const Sm4Key enc(key.data(), true, engine), dec(key.data(), false, engine);
  enc.Ecb(plain.data(), ecb.data(), n);
  dec.Ecb(ecb.data(), ecb_back.data(), n);
  enc.CbcEncrypt(iv.data(), plain.data(), cbc.data(), n);
  Bytes cbc_back = cbc;
  dec.CbcDecrypt(iv.data(), cbc_back.data(), cbc_back.data(), n);
  return Cat({ecb, ecb_back, cbc, cbc_back});
}

#if GM_HAVE_MEMCHECK
// Memcheck errors raised while every mode runs on one engine with secrets it
// cannot see.
unsigned ErrorsWithSecretInputs(const Sm4Engine &engine) {
  Bytes key = RandomBytes(16, 1), iv = RandomBytes(16, 2), data = RandomBytes(16 * 37, 3), out(data.size());
  VALGRIND_MAKE_MEM_UNDEFINED(key.data(), key.size());
  VALGRIND_MAKE_MEM_UNDEFINED(data.data(), data.size());
  const unsigned before = VALGRIND_COUNT_ERRORS;
  {
    const Sm4Key enc(key.data(), true, engine), dec(key.data(), false, engine);
    enc.Ecb(data.data(), out.data(), 37);
    dec.Ecb(data.data(), out.data(), 37);
    enc.CbcEncrypt(iv.data(), data.data(), out.data(), 37);
    dec.CbcDecrypt(iv.data(), data.data(), out.data(), 37);
  }
  const unsigned errors = VALGRIND_COUNT_ERRORS - before;
  VALGRIND_MAKE_MEM_DEFINED(out.data(), out.size());
  return errors;
}
#endif

}  // namespace

TEST(Sm4Engines, EveryEngineAgreesWithThePortableOne) {
  std::string not_run;
  for (const EngineCase &c : Engines()) {
    if (!c.runs) {
      not_run += std::string(" ") + c.engine->name;
      continue;
    }
    std::mt19937 gen(21);
    std::vector<uint32_t> counts;  // partial, one and two steps of 4, 8, 16 and 32 blocks, and beyond
    for (uint32_t blocks = 0; blocks <= 100; blocks += blocks < 72 ? 1 : 7) counts.push_back(blocks);
    if (c.emulated) counts = {0, 1, 15, 16, 17, 33, 63, 64, 65, 100};  // slow: one byte at a time
    for (uint32_t blocks : counts) {
      const Bytes key = RandomBytes(16, gen()), iv = RandomBytes(16, gen()), plain = RandomBytes(16 * blocks, gen());
      const Bytes expected = AllModes(kSm4Portable, key, iv, plain);
      ASSERT_EQ(Bytes(expected.end() - static_cast<long>(plain.size()), expected.end()), plain);
      ASSERT_EQ(AllModes(*c.engine, key, iv, plain), expected) << c.engine->name << ", " << blocks << " blocks";
    }
  }
  if (!not_run.empty()) std::printf("engines this CPU does not run:%s\n", not_run.c_str());
}

TEST(CpuPath, FeaturesAndZephCpuChooseThePath) {
  CpuFeatures all;
  all.ssse3 = all.aesni = all.avx = all.avx2 = all.bmi = all.avx512 = all.vaes = all.gfni = true;
  CpuFeatures zen3 = all;  // AVX2, VAES, no AVX-512 or GFNI
  zen3.avx512 = zen3.gfni = false;
  CpuFeatures skylake_x = all;  // AVX-512 without GFNI or VAES
  skylake_x.gfni = skylake_x.vaes = false;
  CpuFeatures aes_only;
  aes_only.ssse3 = aes_only.aesni = true;
  CpuFeatures avx2_no_sbox = zen3;  // no AES-NI, no GFNI: no vector S-box
  avx2_no_sbox.aesni = avx2_no_sbox.vaes = false;
  struct Case {
    const CpuFeatures &cpu;
    const char *request;
    CpuPath path;
    const char *sm4;
  };
  const Case cases[] = {
      {all, nullptr, CpuPath::kAvx512, "avx512+gfni"},
      {all, "", CpuPath::kAvx512, "avx512+gfni"},
      {all, "avx-512", CpuPath::kAvx512, "avx512+gfni"},  // unknown names set no cap
      {all, "avx2", CpuPath::kAvx2, "avx2+gfni"},
      {all, "aesni", CpuPath::kAesni, "aesni"},
      {all, "portable", CpuPath::kPortable, "portable"},
      {zen3, nullptr, CpuPath::kAvx2, "avx2+vaes"},
      {zen3, "avx512", CpuPath::kAvx2, "avx2+vaes"},
      {skylake_x, nullptr, CpuPath::kAvx2, "avx2"},
      {aes_only, "avx2", CpuPath::kAesni, "aesni"},
      {avx2_no_sbox, nullptr, CpuPath::kPortable, "portable"},
      {CpuFeatures{}, "avx512", CpuPath::kPortable, "portable"},
  };
  for (const Case &c : cases) {
    const CpuPath path = ChooseCpuPath(c.cpu, c.request);
    EXPECT_EQ(CpuPathName(path), std::string(CpuPathName(c.path))) << (c.request ? c.request : "(unset)");
    if (ZEPH_GM_X86) {
      EXPECT_STREQ(DispatchFor(path, c.cpu).sm4->name, c.sm4);
    }
  }
}

TEST(Sm4ConstantTime, SecretsReachNoBranchOrAddress) {
#if GM_HAVE_MEMCHECK
  if (RUNNING_ON_VALGRIND == 0) GTEST_SKIP() << "runs under valgrind: ctest gm.Sm4ConstantTimeUnderValgrind";
  EXPECT_GT(ErrorsWithSecretInputs(kSm4Portable), 0u) << "memcheck did not see the portable engine's table lookups";
  std::string checked;
  const CpuFeatures cpu = DetectCpuFeatures();  // as valgrind's virtual CPU reports them
  for (CpuPath path : {CpuPath::kAesni, CpuPath::kAvx2, CpuPath::kAvx512}) {
    if (ChooseCpuPath(cpu, CpuPathName(path)) != path) continue;
    const Sm4Engine &engine = *DispatchFor(path, cpu).sm4;
    EXPECT_EQ(ErrorsWithSecretInputs(engine), 0u) << engine.name;
    checked += std::string(" ") + engine.name;
  }
  ASSERT_FALSE(checked.empty()) << "valgrind's CPU runs no vector path";
  std::printf("vector engines checked:%s\n", checked.c_str());
#else
  GTEST_SKIP() << "built without valgrind's client requests";
#endif
}
