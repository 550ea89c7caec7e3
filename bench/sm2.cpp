// SM2 verification, encryption and k·G, and the SDBI cipher, against OpenSSL
// in the same run. Own and OpenSSL benchmarks alternate over several
// repetitions; the summary compares the best rate of each side, the one
// least disturbed by other load on the machine.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/rand.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "gm/sm2_curve.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_sdbi.h"
#include "zeph_c_sm2.h"

namespace {

namespace sm2 = zeph::gm::sm2;
constexpr size_t kSdbiBuffer = 16 * 1024;

// One SM2 key, a digest and OpenSSL's signature on it, shared by both sides.
struct Fixture {
  EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  std::vector<uint8_t> pub = std::vector<uint8_t>(65), digest = std::vector<uint8_t>(32),
                       msg = std::vector<uint8_t>(32, 0x5A), sig = std::vector<uint8_t>(80);
  Fixture() {
    size_t n = 0;
    EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, pub.data(), pub.size(), &n);
    RAND_bytes(digest.data(), 32);
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key, nullptr);
    n = sig.size();
    EVP_PKEY_sign_init(ctx);
    EVP_PKEY_sign(ctx, sig.data(), &n, digest.data(), digest.size());
    sig.resize(n);
    EVP_PKEY_CTX_free(ctx);
  }
};

const Fixture &F() {
  static const Fixture f;
  return f;
}

void Fail(benchmark::State &state, const char *what) { state.SkipWithError(what); }

void VerifyOwn(benchmark::State &state) {
  const Fixture &f = F();
  for (auto _ : state) {
    if (BIVO_VerifySm2SignatureOnDigestWithPubKey(f.digest.data(), f.pub.data(), 65, f.sig.data(),
                                                  static_cast<uint32_t>(f.sig.size())) != 0) {
      return Fail(state, "verification failed");
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void VerifyOpenSsl(benchmark::State &state) {
  const Fixture &f = F();
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(f.key, nullptr);
  EVP_PKEY_verify_init(ctx);
  for (auto _ : state) {
    if (EVP_PKEY_verify(ctx, f.sig.data(), f.sig.size(), f.digest.data(), 32) != 1) {
      return Fail(state, "verification failed");
    }
  }
  EVP_PKEY_CTX_free(ctx);
  state.SetItemsProcessed(state.iterations());
}

void EncryptOwn(benchmark::State &state) {
  const Fixture &f = F();
  uint8_t out[256];
  for (auto _ : state) {
    uint32_t n = sizeof out;
    if (BIVO_Sm2EncryptWithPubKey(f.msg.data(), 32, f.pub.data(), 65, out, &n) != 0) {
      return Fail(state, "encryption failed");
    }
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}

void EncryptOpenSsl(benchmark::State &state) {
  const Fixture &f = F();
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(f.key, nullptr);
  EVP_PKEY_encrypt_init(ctx);
  uint8_t out[256];
  for (auto _ : state) {
    size_t n = sizeof out;
    if (EVP_PKEY_encrypt(ctx, out, &n, f.msg.data(), 32) != 1) return Fail(state, "encryption failed");
    benchmark::DoNotOptimize(out);
  }
  EVP_PKEY_CTX_free(ctx);
  state.SetItemsProcessed(state.iterations());
}

void BaseMulOwn(benchmark::State &state) {
  sm2::Scalar k;
  RAND_bytes(k.b, 32);
  k.b[0] &= 0x7F;
  sm2::Point p;
  for (auto _ : state) {
    if (!sm2::MulBase(k, &p)) return Fail(state, "k·G failed");
    k.b[31] ^= p.x[31];  // a new scalar each time, as for a nonce
  }
  state.SetItemsProcessed(state.iterations());
}

void BaseMulOpenSsl(benchmark::State &state) {
  EC_GROUP *group = EC_GROUP_new_by_curve_name(NID_sm2);
  EC_POINT *p = EC_POINT_new(group);
  BIGNUM *k = BN_new();
  BN_CTX *ctx = BN_CTX_new();
  BN_rand_range(k, EC_GROUP_get0_order(group));
  for (auto _ : state) {
    if (EC_POINT_mul(group, p, k, nullptr, nullptr, ctx) != 1) return Fail(state, "k·G failed");
    BN_add_word(k, 1);
  }
  BN_CTX_free(ctx);
  BN_free(k);
  EC_POINT_free(p);
  EC_GROUP_free(group);
  state.SetItemsProcessed(state.iterations());
}

void SdbiOwn(benchmark::State &state) {
  const std::vector<uint8_t> in(kSdbiBuffer, 0xA5), key(16, 0x3C);
  std::vector<uint8_t> out(kSdbiBuffer + 8);
  for (auto _ : state) {
    uint32_t n = 0;
    if (CSP_SDBIEncrypt(out.data(), &n, in.data(), kSdbiBuffer, key.data(), 16) != 0) {
      return Fail(state, "SDBI failed");
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSdbiBuffer));
}

// OpenSSL has no IDEA here; its SM4-ECB gives the scale.
void Sm4EcbOpenSsl(benchmark::State &state) {
  const std::vector<uint8_t> in(kSdbiBuffer, 0xA5), key(16, 0x3C);
  std::vector<uint8_t> out(kSdbiBuffer + 16);
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  int n = 0;
  for (auto _ : state) {
    EVP_EncryptInit_ex(ctx, EVP_sm4_ecb(), nullptr, key.data(), nullptr);
    EVP_EncryptUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(kSdbiBuffer));
    benchmark::DoNotOptimize(out.data());
  }
  EVP_CIPHER_CTX_free(ctx);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSdbiBuffer));
}

void Summary(const zeph_bench::RatioReporter &reporter) {
  zeph_bench::PrintRatios(
      reporter, {
                    {"verify a digest (BIVO_..OnDigestWithPubKey)", "verify/own", "verify/openssl", 6.0},
                    {"encrypt 32 bytes (BIVO_Sm2EncryptWithPubKey)", "encrypt/own", "encrypt/openssl", 4.0},
                    {"k*G", "k*G/own", "k*G/openssl", 6.0},
                    {"SDBI 16 KiB vs OpenSSL SM4-ECB (scale only)", "sdbi/own", "sm4-ecb/openssl", 0, "MB/s", 1e-6},
                });
}

}  // namespace

int main(int argc, char **argv) {
  F();
  for (int rep = 0; rep < 3; ++rep) {
    benchmark::RegisterBenchmark("verify/own", VerifyOwn);
    benchmark::RegisterBenchmark("verify/openssl", VerifyOpenSsl);
    benchmark::RegisterBenchmark("encrypt/own", EncryptOwn);
    benchmark::RegisterBenchmark("encrypt/openssl", EncryptOpenSsl);
    benchmark::RegisterBenchmark("k*G/own", BaseMulOwn);
    benchmark::RegisterBenchmark("k*G/openssl", BaseMulOpenSsl);
    benchmark::RegisterBenchmark("sdbi/own", SdbiOwn);
    benchmark::RegisterBenchmark("sm4-ecb/openssl", Sm4EcbOpenSsl);
  }
  return zeph_bench::RunWithRatios(argc, argv, Summary);
}
