// SM2 signing through the whole device path against the software key's own
// signing call and against OpenSSL's SM2 signing, in one run. The ratios
// printed at the end show what the library adds to one signature.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "zeph_c.h"
#include "zeph_skf.h"

namespace {

constexpr const char *kPin = "123456";
const std::vector<unsigned char> kMessage(256, 0x5A);

bool SetUpKey(const zeph_bench::BenchSoftkey &key) {
  const std::string cfg = std::string("[{\"type\":1,\"vid\":\"BK\",\"skfLib\":\"") + ZEPH_SOFTKEY_LIB + "\"}]";
  return key.MakeSm2Key("B1", "VorliEcc", kPin) && ZEPH_C_SetConfigInfo(cfg.c_str()) == 0;
}

void BM_Zeph_DoSm2Sign(benchmark::State &state) {
  void *h = nullptr;
  if (ZEPH_C_Initialize(&h, 0, "BK_B1", 0) != 0) state.SkipWithError("no key");
  unsigned char sig[72];
  uint32_t len = 0;
  for (auto _ : state) {
    if (ZEPH_C_DoSm2Sign(h, kPin, kMessage.data(), 256, sig, &len) != 0) state.SkipWithError("sign failed");
    benchmark::DoNotOptimize(sig);
  }
  ZEPH_C_Finalize(h);
  ZEPH_C_MALLOC_FREE(h);
}
BENCHMARK(BM_Zeph_DoSm2Sign)->Unit(benchmark::kMicrosecond);

void BM_Zeph_NewHandleAndDoSm2Sign(benchmark::State &state) {
  unsigned char sig[72];
  uint32_t len = 0;
  for (auto _ : state) {
    void *h = nullptr;
    if (ZEPH_C_Initialize(&h, 0, "BK_B1", 0) != 0 || ZEPH_C_DoSm2Sign(h, kPin, kMessage.data(), 256, sig, &len) != 0) {
      state.SkipWithError("sign failed");
    }
    ZEPH_C_Finalize(h);
    ZEPH_C_MALLOC_FREE(h);
    benchmark::DoNotOptimize(sig);
  }
}
BENCHMARK(BM_Zeph_NewHandleAndDoSm2Sign)->Unit(benchmark::kMicrosecond);

// The software key's own call on an open container with the PIN verified once.
void BM_Softkey_ECCSignData(benchmark::State &state) {
  void *lib = dlopen(ZEPH_SOFTKEY_LIB, RTLD_NOW);
  auto connect = reinterpret_cast<PFN_SKF_ConnectDev>(dlsym(lib, "SKF_ConnectDev"));
  auto open_app = reinterpret_cast<PFN_SKF_OpenApplication>(dlsym(lib, "SKF_OpenApplication"));
  auto open_con = reinterpret_cast<PFN_SKF_OpenContainer>(dlsym(lib, "SKF_OpenContainer"));
  auto verify = reinterpret_cast<PFN_SKF_VerifyPIN>(dlsym(lib, "SKF_VerifyPIN"));
  auto sign = reinterpret_cast<PFN_SKF_ECCSignData>(dlsym(lib, "SKF_ECCSignData"));
  auto close_con = reinterpret_cast<PFN_SKF_CloseContainer>(dlsym(lib, "SKF_CloseContainer"));
  auto close_app = reinterpret_cast<PFN_SKF_CloseApplication>(dlsym(lib, "SKF_CloseApplication"));
  auto disconnect = reinterpret_cast<PFN_SKF_DisConnectDev>(dlsym(lib, "SKF_DisConnectDev"));
  DEVHANDLE dev = nullptr;
  HAPPLICATION app = nullptr;
  HCONTAINER con = nullptr;
  ULONG retry = 0;
  char name[] = "B1", app_name[] = "VorliEcc", con_name[] = "ECC", pin[] = "123456";
  if (connect(name, &dev) != 0 || open_app(dev, app_name, &app) != 0 || open_con(app, con_name, &con) != 0 ||
      verify(app, USER_TYPE, pin, &retry) != 0) {
    state.SkipWithError("no key");
  }
  BYTE digest[32];
  std::memset(digest, 0x33, sizeof digest);
  ECCSIGNATUREBLOB blob;
  for (auto _ : state) {
    if (sign(con, digest, 32, &blob) != 0) state.SkipWithError("sign failed");
    benchmark::DoNotOptimize(blob);
  }
  close_con(con);
  close_app(app);
  disconnect(dev);
  dlclose(lib);
}
BENCHMARK(BM_Softkey_ECCSignData)->Unit(benchmark::kMicrosecond);

// The vendor calls DoSm2Sign makes, made directly: what the key itself costs
// per signature (its PIN check dominates), so that the difference to
// BM_Zeph_DoSm2Sign is the library's own share.
void BM_Softkey_SameCallsDirect(benchmark::State &state) {
  void *lib = dlopen(ZEPH_SOFTKEY_LIB, RTLD_NOW);
#define SKF(name) auto name = reinterpret_cast<PFN_##name>(dlsym(lib, #name))
  SKF(SKF_ConnectDev);
  SKF(SKF_DisConnectDev);
  SKF(SKF_OpenApplication);
  SKF(SKF_CloseApplication);
  SKF(SKF_OpenContainer);
  SKF(SKF_CloseContainer);
  SKF(SKF_VerifyPIN);
  SKF(SKF_GetPINInfo);
  SKF(SKF_ExportPublicKey);
  SKF(SKF_ECCSignData);
#undef SKF
  DEVHANDLE dev = nullptr;
  char name[] = "B1", app_name[] = "VorliEcc", con_name[] = "ECC", pin[] = "123456";
  if (SKF_ConnectDev(name, &dev) != 0) state.SkipWithError("no key");
  for (auto _ : state) {
    HAPPLICATION app = nullptr;
    HCONTAINER con = nullptr;
    ULONG retry = 0, max_retry = 0, len = sizeof(ECCPUBLICKEYBLOB);
    BOOL is_default = FALSE;
    ECCPUBLICKEYBLOB pub;
    ECCSIGNATUREBLOB blob;
    unsigned char point[65] = {0x04}, e[32];
    if (SKF_OpenApplication(dev, app_name, &app) != 0 || SKF_OpenContainer(app, con_name, &con) != 0 ||
        SKF_VerifyPIN(app, USER_TYPE, pin, &retry) != 0 ||
        SKF_GetPINInfo(app, USER_TYPE, &max_retry, &retry, &is_default) != 0 ||
        SKF_ExportPublicKey(con, TRUE, reinterpret_cast<BYTE *>(&pub), &len) != 0) {
      state.SkipWithError("key refused");
    }
    std::memcpy(point + 1, pub.XCoordinate + 32, 32);
    std::memcpy(point + 33, pub.YCoordinate + 32, 32);
    BIVO_ComputePreprocessSm3Digest_EVP("1234567812345678", point, 65, kMessage.data(), 256, e);
    if (SKF_ECCSignData(con, e, 32, &blob) != 0) state.SkipWithError("sign failed");
    SKF_CloseContainer(con);
    SKF_CloseApplication(app);
    benchmark::DoNotOptimize(blob);
  }
  SKF_DisConnectDev(dev);
  dlclose(lib);
}
BENCHMARK(BM_Softkey_SameCallsDirect)->Unit(benchmark::kMicrosecond);

void BM_OpenSSL_SM2Sign(benchmark::State &state) {
  EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  unsigned char sig[80];
  for (auto _ : state) {
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_PKEY_CTX *pctx = nullptr;
    size_t len = sizeof sig;
    if (EVP_DigestSignInit(md, &pctx, EVP_sm3(), nullptr, key) != 1 ||
        EVP_PKEY_CTX_set1_id(pctx, "1234567812345678", 16) <= 0 ||
        EVP_DigestSign(md, sig, &len, kMessage.data(), kMessage.size()) != 1) {
      state.SkipWithError("OpenSSL sign failed");
    }
    EVP_MD_CTX_free(md);
    benchmark::DoNotOptimize(sig);
  }
  EVP_PKEY_free(key);
}
BENCHMARK(BM_OpenSSL_SM2Sign)->Unit(benchmark::kMicrosecond);

void PrintRatios(const zeph_bench::RatioReporter &r) {
  const double zeph = r.Seconds("BM_Zeph_DoSm2Sign"), full = r.Seconds("BM_Zeph_NewHandleAndDoSm2Sign");
  const double direct = r.Seconds("BM_Softkey_SameCallsDirect"), key = r.Seconds("BM_Softkey_ECCSignData");
  const double ossl = r.Seconds("BM_OpenSSL_SM2Sign");
  if (zeph <= 0 || direct <= 0 || key <= 0 || ossl <= 0) return;
  std::printf("\nratios (time per signature):\n");
  std::printf("  ZEPH_C_DoSm2Sign / the same vendor calls made directly  %.3f (difference %.0f us)\n", zeph / direct,
              (zeph - direct) * 1e6);
  std::printf("  ZEPH_C_DoSm2Sign / SKF_ECCSignData alone                %.2f\n", zeph / key);
  std::printf("  ZEPH_C_DoSm2Sign / OpenSSL SM2 signing                  %.2f\n", zeph / ossl);
  std::printf("  SKF_ECCSignData / OpenSSL SM2 signing                   %.2f\n", key / ossl);
  if (full > 0) std::printf("  with Initialize and Finalize / OpenSSL                  %.2f\n", full / ossl);
}

}  // namespace

int main(int argc, char **argv) {
  const zeph_bench::BenchSoftkey key;
  if (!SetUpKey(key)) {
    std::fprintf(stderr, "cannot create the software key for the benchmark\n");
    return 1;
  }
  return zeph_bench::RunWithRatios(argc, argv, PrintRatios);
}
