// The foundation helpers against calling OpenSSL's EVP directly, measured
// alternately in the same loop. "ratio" is zeph's throughput over EVP's
// (1.0 = as fast; the target is at least 0.95).
#include <cstdint>
#include <vector>

#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "zeph_c_utils.h"

namespace {

constexpr size_t kSize = 1u << 20;

std::vector<uint8_t> Input() {
  std::vector<uint8_t> v(kSize);
  uint32_t x = 0x2545F491u;
  for (auto &b : v) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<uint8_t>(x);
  }
  return v;
}

// zeph against EVP, interleaved; "ratio" is zeph's throughput over EVP's.
template <class Zeph, class Evp>
void Compare(benchmark::State &state, Zeph zeph, Evp evp) {
  const zeph_bench::SideSeconds s = zeph_bench::Interleaved(state, zeph, evp);
  const double bytes = static_cast<double>(kSize) * static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.counters["zeph_MiB/s"] = bytes / s.ours / (1 << 20);
  state.counters["evp_MiB/s"] = bytes / s.reference / (1 << 20);
  state.counters["ratio"] = s.reference / s.ours;
}

void BM_Digest(benchmark::State &state, uint32_t id, const EVP_MD *md) {
  const auto data = Input();
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned char ref[EVP_MAX_MD_SIZE];
  Compare(
      state,
      [&] {
        uint32_t len = sizeof out;
        int nid = 0;
        if (zeph_c_utils_digest(id, data.data(), kSize, out, &len, &nid) != 0) state.SkipWithError("digest failed");
        benchmark::DoNotOptimize(out);
      },
      [&] {
        unsigned int len = 0;
        if (EVP_Digest(data.data(), kSize, ref, &len, md, nullptr) != 1) state.SkipWithError("EVP failed");
        benchmark::DoNotOptimize(ref);
      });
}

void BM_Sm4EcbEncrypt(benchmark::State &state) {
  const auto data = Input();
  static const unsigned char key[16] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                                        0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
  std::vector<uint8_t> out(kSize + 16);
  std::vector<uint8_t> ref(kSize + 16);
  Compare(
      state,
      [&] {
        uint32_t len = static_cast<uint32_t>(out.size());
        if (zeph_c_utils_encrypt(0, data.data(), kSize, key, 16, out.data(), &len) != 0) {
          state.SkipWithError("encrypt failed");
        }
        benchmark::DoNotOptimize(out.data());
      },
      [&] {
        EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
        int n = 0;
        int tail = 0;
        EVP_EncryptInit_ex(ctx, EVP_sm4_ecb(), nullptr, key, nullptr);
        EVP_EncryptUpdate(ctx, ref.data(), &n, data.data(), static_cast<int>(kSize));
        EVP_EncryptFinal_ex(ctx, ref.data() + n, &tail);
        EVP_CIPHER_CTX_free(ctx);
        benchmark::DoNotOptimize(ref.data());
      });
}

BENCHMARK_CAPTURE(BM_Digest, sm3_1MiB, 1, EVP_sm3())->UseManualTime();
BENCHMARK_CAPTURE(BM_Digest, sha256_1MiB, 4, EVP_sha256())->UseManualTime();
BENCHMARK(BM_Sm4EcbEncrypt)->Name("BM_Sm4EcbEncrypt/1MiB")->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
