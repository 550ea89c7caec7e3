// SM2 signatures through the software key against OpenSSL's own SM2 signing,
// in the same run. The key is set up with zeph-softkey in a temporary root;
// the library is loaded with dlopen, as the device layer loads it.
#include <cstdio>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "zeph_skf.h"

namespace {

constexpr const char *kUserPin = "87654321";

struct Skf {
  PFN_SKF_ConnectDev connect;
  PFN_SKF_DisConnectDev disconnect;
  PFN_SKF_OpenApplication open_app;
  PFN_SKF_VerifyPIN verify;
  PFN_SKF_OpenContainer open_con;
  PFN_SKF_ECCSignData sign;
};

Skf g_skf;

bool Setup(const zeph_bench::BenchSoftkey &key) {
  if (!key.MakeSm2Key("BENCH01", "VorliEcc", kUserPin)) return false;
  void *lib = dlopen(ZEPH_SOFTKEY_LIB, RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) return false;
  g_skf.connect = reinterpret_cast<PFN_SKF_ConnectDev>(dlsym(lib, "SKF_ConnectDev"));
  g_skf.disconnect = reinterpret_cast<PFN_SKF_DisConnectDev>(dlsym(lib, "SKF_DisConnectDev"));
  g_skf.open_app = reinterpret_cast<PFN_SKF_OpenApplication>(dlsym(lib, "SKF_OpenApplication"));
  g_skf.verify = reinterpret_cast<PFN_SKF_VerifyPIN>(dlsym(lib, "SKF_VerifyPIN"));
  g_skf.open_con = reinterpret_cast<PFN_SKF_OpenContainer>(dlsym(lib, "SKF_OpenContainer"));
  g_skf.sign = reinterpret_cast<PFN_SKF_ECCSignData>(dlsym(lib, "SKF_ECCSignData"));
  return g_skf.sign != nullptr;
}

// One session as the device layer opens it: connect, application, PIN once,
// container. Returns the container, or null.
HCONTAINER OpenSession(DEVHANDLE &dev) {
  HAPPLICATION app = nullptr;
  HCONTAINER con = nullptr;
  ULONG retry = 0;
  if (g_skf.connect(const_cast<char *>("BENCH01"), &dev) != SAR_OK ||
      g_skf.open_app(dev, const_cast<char *>("VorliEcc"), &app) != SAR_OK ||
      g_skf.verify(app, USER_TYPE, const_cast<char *>(kUserPin), &retry) != SAR_OK ||
      g_skf.open_con(app, const_cast<char *>("ECC"), &con) != SAR_OK)
    return nullptr;
  return con;
}

void BM_Softkey_ECCSignData(benchmark::State &state) {
  DEVHANDLE dev = nullptr;
  HCONTAINER con = OpenSession(dev);  // opening and the PIN are paid once
  if (con == nullptr) return state.SkipWithError("cannot open the software key");
  uint8_t digest[32];
  std::memset(digest, 0x5A, sizeof digest);
  ECCSIGNATUREBLOB sig;
  for (auto _ : state) {
    if (g_skf.sign(con, digest, 32, &sig) != SAR_OK) return state.SkipWithError("SKF_ECCSignData failed");
    benchmark::DoNotOptimize(sig);
    ++digest[0];
  }
  g_skf.disconnect(dev);
  state.SetItemsProcessed(state.iterations());
}

// The whole session per signature: what one device-layer operation costs.
void BM_Softkey_SessionAndSign(benchmark::State &state) {
  uint8_t digest[32] = {1};
  ECCSIGNATUREBLOB sig;
  for (auto _ : state) {
    DEVHANDLE dev = nullptr;
    HCONTAINER con = OpenSession(dev);
    if (con == nullptr || g_skf.sign(con, digest, 32, &sig) != SAR_OK) return state.SkipWithError("session failed");
    g_skf.disconnect(dev);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_OpenSSL_SM2Sign(benchmark::State &state) {
  EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  uint8_t digest[32];
  std::memset(digest, 0x5A, sizeof digest);
  uint8_t sig[80];
  for (auto _ : state) {
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key, nullptr);
    size_t n = sizeof sig;
    if (EVP_PKEY_sign_init(ctx) != 1 || EVP_PKEY_sign(ctx, sig, &n, digest, 32) != 1) {
      EVP_PKEY_CTX_free(ctx);
      return state.SkipWithError("EVP_PKEY_sign failed");
    }
    EVP_PKEY_CTX_free(ctx);
    benchmark::DoNotOptimize(sig);
    ++digest[0];
  }
  EVP_PKEY_free(key);
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Softkey_ECCSignData);
BENCHMARK(BM_Softkey_SessionAndSign);
BENCHMARK(BM_OpenSSL_SM2Sign);

void PrintRatios(const zeph_bench::RatioReporter &r) {
  const double ours = r.Seconds("BM_Softkey_ECCSignData");
  const double session = r.Seconds("BM_Softkey_SessionAndSign");
  const double openssl = r.Seconds("BM_OpenSSL_SM2Sign");
  if (ours > 0 && openssl > 0) {
    std::printf("softkey SKF_ECCSignData: %.0f signatures/s, OpenSSL SM2: %.0f signatures/s, ratio %.2f\n", 1 / ours,
                1 / openssl, openssl / ours);
  }
  if (session > 0 && openssl > 0)
    std::printf("softkey whole session (connect, PIN, container, sign): %.0f/s, %.3f of OpenSSL's rate\n", 1 / session,
                openssl / session);
}

}  // namespace

int main(int argc, char **argv) {
  const zeph_bench::BenchSoftkey key;
  if (!Setup(key)) {
    std::fprintf(stderr, "bench_softkey: cannot set up the software key\n");
    return 1;
  }
  return zeph_bench::RunWithRatios(argc, argv, PrintRatios);
}
