// Own SM3, SM4 and the SM3 hash DRBG against OpenSSL in the same run. Each
// pair runs interleaved repetitions; the summary compares the best
// throughput of each side, which is the least disturbed by other load.
#include <cstdio>
#include <vector>

#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "zeph_c_gm.h"

namespace {

constexpr size_t kBuffer = 16 * 1024;
constexpr uint32_t kDrbgRequest = 65536;

std::vector<uint8_t> Pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 131 + 7);
  return v;
}

const std::vector<uint8_t> kData = Pattern(kBuffer);
const std::vector<uint8_t> kKey = Pattern(16);
const std::vector<uint8_t> kIv = Pattern(32);

void Sm3Own(benchmark::State &state) {
  uint8_t out[32];
  for (auto _ : state) {
    BIVO_sm3_digest(kData.data(), kBuffer, out);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBuffer));
}

void Sm3OpenSsl(benchmark::State &state) {
  EVP_MD *md = EVP_MD_fetch(nullptr, "SM3", nullptr);
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  uint8_t out[32];
  unsigned int n = 0;
  for (auto _ : state) {
    EVP_DigestInit_ex(ctx, md, nullptr);
    EVP_DigestUpdate(ctx, kData.data(), kBuffer);
    EVP_DigestFinal_ex(ctx, out, &n);
    benchmark::DoNotOptimize(out);
  }
  EVP_MD_CTX_free(ctx);
  EVP_MD_free(md);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBuffer));
}

// Both sides derive the round keys on every call.
void Sm4Own(benchmark::State &state, bool cbc) {
  std::vector<uint8_t> out(kBuffer);
  for (auto _ : state) {
    if (cbc) {
      BIVO_sm4_cbc_encrypt(kData.data(), kBuffer, kIv.data(), kKey.data(), out.data());
    } else {
      BIVO_sm4_encrypt(kData.data(), kBuffer, kKey.data(), out.data());
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBuffer));
}

void Sm4OpenSsl(benchmark::State &state, bool cbc) {
  EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, cbc ? "SM4-CBC" : "SM4-ECB", nullptr);
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  std::vector<uint8_t> out(kBuffer);
  int n = 0;
  for (auto _ : state) {
    EVP_EncryptInit_ex(ctx, cipher, nullptr, kKey.data(), cbc ? kIv.data() : nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_EncryptUpdate(ctx, out.data(), &n, kData.data(), static_cast<int>(kBuffer));
    benchmark::DoNotOptimize(out.data());
  }
  EVP_CIPHER_CTX_free(ctx);
  EVP_CIPHER_free(cipher);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBuffer));
}

void DrbgOwn(benchmark::State &state) {
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

void Summary(const zeph_bench::RatioReporter &reporter) {
  zeph_bench::PrintRatios(
      reporter,
      {
          {"SM3 16 KiB, BIVO_sm3_digest vs EVP SM3", "SM3/own", "SM3/openssl", 1.0, "MB/s", 1e-6},
          {"SM4-ECB 16 KiB, BIVO_sm4_encrypt vs EVP", "SM4-ECB/own", "SM4-ECB/openssl", 1.0, "MB/s", 1e-6},
          {"SM4-CBC 16 KiB, BIVO_sm4_cbc_encrypt vs EVP", "SM4-CBC/own", "SM4-CBC/openssl", 1.0, "MB/s", 1e-6},
          {"DRBG 64 KiB requests vs own SM3", "DRBG/own", "SM3/own", 0.45, "MB/s", 1e-6},
      });
}

}  // namespace

int main(int argc, char **argv) {
  // Interleaved: own and OpenSSL alternate, so a burst of outside load
  // touches both sides alike.
  for (int rep = 0; rep < 5; ++rep) {
    benchmark::RegisterBenchmark("SM3/own", Sm3Own);
    benchmark::RegisterBenchmark("SM3/openssl", Sm3OpenSsl);
    benchmark::RegisterBenchmark("SM4-ECB/own", Sm4Own, false);
    benchmark::RegisterBenchmark("SM4-ECB/openssl", Sm4OpenSsl, false);
    benchmark::RegisterBenchmark("SM4-CBC/own", Sm4Own, true);
    benchmark::RegisterBenchmark("SM4-CBC/openssl", Sm4OpenSsl, true);
    benchmark::RegisterBenchmark("DRBG/own", DrbgOwn);
  }
  return zeph_bench::RunWithRatios(argc, argv, Summary);
}
