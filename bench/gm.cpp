// Own SM3, SM4 and the SM3 hash DRBG against OpenSSL in the same run, on every
// instruction-set path this CPU runs (each chosen through ZEPH_CPU, as a host
// would choose it). Own and OpenSSL benchmarks alternate over several
// repetitions; the summary compares the best throughput of each side, which
// is the least disturbed by other load.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "gm/cpu_path.hpp"
#include "gm/sm4_engine.hpp"
#include "zeph_c_gm.h"

namespace {

using zeph::gm::CpuPath;

constexpr size_t kSmall = 16 * 1024, kLarge = 1024 * 1024;
constexpr uint32_t kDrbgRequest = 65536;

std::vector<uint8_t> Pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 131 + 7);
  return v;
}

const std::vector<uint8_t> kData = Pattern(kLarge);
const std::vector<uint8_t> kKey = Pattern(16);
const std::vector<uint8_t> kIv = Pattern(32);

enum class Op { kEcbEncrypt, kCbcEncrypt, kCbcDecrypt };

void UsePath(CpuPath path) {
  setenv("ZEPH_CPU", zeph::gm::CpuPathName(path), 1);
  zeph::gm::ReselectGmForTesting();
}

void Sm3Own(benchmark::State &state, CpuPath path) {
  UsePath(path);
  uint8_t out[32];
  for (auto _ : state) {
    BIVO_sm3_digest(kData.data(), kSmall, out);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSmall));
  state.SetLabel(zeph::gm::ActiveGm().sm3_name);
}

void Sm3OpenSsl(benchmark::State &state) {
  EVP_MD *md = EVP_MD_fetch(nullptr, "SM3", nullptr);
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  uint8_t out[32];
  unsigned int n = 0;
  for (auto _ : state) {
    EVP_DigestInit_ex(ctx, md, nullptr);
    EVP_DigestUpdate(ctx, kData.data(), kSmall);
    EVP_DigestFinal_ex(ctx, out, &n);
    benchmark::DoNotOptimize(out);
  }
  EVP_MD_CTX_free(ctx);
  EVP_MD_free(md);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSmall));
}

// Both sides derive the round keys on every call.
void Sm4Own(benchmark::State &state, CpuPath path, Op op, size_t len) {
  UsePath(path);
  std::vector<uint8_t> out(len);
  const auto n = static_cast<uint32_t>(len);
  for (auto _ : state) {
    switch (op) {
      case Op::kEcbEncrypt:
        BIVO_sm4_encrypt(kData.data(), n, kKey.data(), out.data());
        break;
      case Op::kCbcEncrypt:
        BIVO_sm4_cbc_encrypt(kData.data(), n, kIv.data(), kKey.data(), out.data());
        break;
      case Op::kCbcDecrypt:
        BIVO_sm4_cbc_decrypt(kData.data(), n, kIv.data(), kKey.data(), out.data());
        break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
  state.SetLabel(zeph::gm::ActiveSm4().name);
}

// One engine directly, for the variants a path does not pick on this CPU
// (AVX2 with AES-NI on each half where VAES is present).
void Sm4Engine(benchmark::State &state, const zeph::gm::Sm4Engine *engine, size_t len) {
  std::vector<uint8_t> out(len);
  for (auto _ : state) {
    zeph::gm::Sm4Key(kKey.data(), true, *engine).Ecb(kData.data(), out.data(), len / 16);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
  state.SetLabel(engine->name);
}

void Sm4OpenSsl(benchmark::State &state, Op op, size_t len) {
  EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, op == Op::kEcbEncrypt ? "SM4-ECB" : "SM4-CBC", nullptr);
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  std::vector<uint8_t> out(len);
  int n = 0;
  const int enc = op == Op::kCbcDecrypt ? 0 : 1;
  for (auto _ : state) {
    EVP_CipherInit_ex(ctx, cipher, nullptr, kKey.data(), op == Op::kEcbEncrypt ? nullptr : kIv.data(), enc);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_CipherUpdate(ctx, out.data(), &n, kData.data(), static_cast<int>(len));
    benchmark::DoNotOptimize(out.data());
  }
  EVP_CIPHER_CTX_free(ctx);
  EVP_CIPHER_free(cipher);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

void DrbgOwn(benchmark::State &state) {
  UsePath(CpuPath::kAvx512);  // the best this CPU runs
  const std::vector<uint8_t> entropy = Pattern(256);
  BIVO_SM3_HASH_DRBG *drbg = nullptr;
  BIVO_sm3_hash_drbg_new(&drbg);
  BIVO_sm3_hash_drbg_instantiate(drbg, entropy.data(), 256, nullptr, 0, nullptr, 0);
  std::vector<uint8_t> out(kDrbgRequest);
  for (auto _ : state) {
    if (BIVO_sm3_hash_drbg_generate(drbg, nullptr, 0, kDrbgRequest, out.data()) != 0) {
      state.SkipWithError("generate failed");
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  BIVO_sm3_hash_drbg_free(drbg);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kDrbgRequest));
}

// One row of the summary; the names are built per path, so they are kept here.
struct Comparison {
  std::string what, ours, theirs;
  double target;  // 0: no target
};

void Summary(const zeph_bench::RatioReporter &reporter, const std::vector<Comparison> &comparisons) {
  std::vector<zeph_bench::RatioRow> rows;
  for (const Comparison &c : comparisons) {
    rows.push_back({c.what.c_str(), c.ours.c_str(), c.theirs.c_str(), c.target, "MB/s", 1e-6});
  }
  zeph_bench::PrintRatios(reporter, rows);
}

}  // namespace

int main(int argc, char **argv) {
  const zeph::gm::CpuFeatures cpu = zeph::gm::DetectCpuFeatures();
  std::vector<CpuPath> paths;
  for (CpuPath p : {CpuPath::kPortable, CpuPath::kAesni, CpuPath::kAvx2, CpuPath::kAvx512}) {
    if (zeph::gm::ChooseCpuPath(cpu, zeph::gm::CpuPathName(p)) == p) paths.push_back(p);
  }
  // Targets: 3x with AVX2 and AES-NI, 6x with AVX-512 and GFNI for ECB; 5x
  // for CBC decryption and 1.3x for CBC encryption on a vector path; SM3
  // 1.2x. The portable and 128-bit rows are there for comparison.
  struct Sm4Row {
    const char *name;
    Op op;
    size_t len;
    double avx2_target, avx512_target;
  };
  const Sm4Row sm4_rows[] = {
      {"SM4-ECB-enc-16K", Op::kEcbEncrypt, kSmall, 3.0, 6.0},
      {"SM4-ECB-enc-1M", Op::kEcbEncrypt, kLarge, 3.0, 6.0},
      {"SM4-CBC-dec-16K", Op::kCbcDecrypt, kSmall, 5.0, 5.0},
      {"SM4-CBC-enc-16K", Op::kCbcEncrypt, kSmall, 1.3, 1.3},
  };
  const auto label = [](CpuPath p, const char *engine) {
    return std::string(zeph::gm::CpuPathName(p)) + " (" + engine + ")";
  };
  std::vector<Comparison> pairs;
  for (const Sm4Row &row : sm4_rows) {
    for (CpuPath p : paths) {
      const double target = p == CpuPath::kAvx512 ? row.avx512_target : p == CpuPath::kAvx2 ? row.avx2_target : 0;
      pairs.push_back({std::string(row.name) + " " + label(p, zeph::gm::DispatchFor(p, cpu).sm4->name),
                       std::string(row.name) + "/" + zeph::gm::CpuPathName(p), std::string(row.name) + "/openssl",
                       target});
    }
  }
#if ZEPH_GM_X86
  const bool halves = cpu.avx2 && cpu.aesni && cpu.vaes;  // else the avx2 row above already is this engine
  if (halves) {
    pairs.push_back(
        {"SM4-ECB-enc-1M avx2 (avx2, AES-NI halves)", "SM4-ECB-enc-1M/avx2-halves", "SM4-ECB-enc-1M/openssl", 3.0});
  }
#endif
  for (CpuPath p : paths) {
    pairs.push_back({"SM3-16K " + label(p, zeph::gm::DispatchFor(p, cpu).sm3_name),
                     std::string("SM3-16K/") + zeph::gm::CpuPathName(p), "SM3-16K/openssl",
                     p == CpuPath::kPortable ? 0 : 1.2});
  }
  pairs.push_back({"DRBG 64K requests vs own SM3", "DRBG-64K/own",
                   "SM3-16K/" + std::string(zeph::gm::CpuPathName(paths.back())), 0.45});

  // Interleaved: own and OpenSSL alternate, so a burst of outside load
  // touches both sides alike.
  for (int rep = 0; rep < 3; ++rep) {
    for (const Sm4Row &row : sm4_rows) {
      benchmark::RegisterBenchmark((std::string(row.name) + "/openssl").c_str(), Sm4OpenSsl, row.op, row.len);
      for (CpuPath p : paths) {
        benchmark::RegisterBenchmark((std::string(row.name) + "/" + zeph::gm::CpuPathName(p)).c_str(), Sm4Own, p,
                                     row.op, row.len);
      }
    }
#if ZEPH_GM_X86
    if (halves) {
      benchmark::RegisterBenchmark("SM4-ECB-enc-1M/avx2-halves", Sm4Engine, &zeph::gm::kSm4Avx2, kLarge);
    }
#endif
    benchmark::RegisterBenchmark("SM3-16K/openssl", Sm3OpenSsl);
    for (CpuPath p : paths) {
      benchmark::RegisterBenchmark((std::string("SM3-16K/") + zeph::gm::CpuPathName(p)).c_str(), Sm3Own, p);
    }
    benchmark::RegisterBenchmark("DRBG-64K/own", DrbgOwn);
  }
  return zeph_bench::RunWithRatios(argc, argv,
                                   [&](const zeph_bench::RatioReporter &reporter) { Summary(reporter, pairs); });
}
