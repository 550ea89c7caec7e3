// Two-party SM2 against one-party OpenSSL in the same run: a full signing
// round (client share with the key, server share, checked assembly) against
// one EVP_DigestSign with distid, a two-party decryption against OpenSSL's
// decryption of the same ciphertext, and the two-party key generation
// (reported, with OpenSSL's key generation for scale). Own and OpenSSL
// benchmarks alternate over several repetitions; the summary compares the
// best rate of each side.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <benchmark/benchmark.h>

#include "zeph_c_bivo_math.h"
#include "zeph_c_sm2.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr char kId[] = "1234567812345678";

// One two-party key, the same key whole for OpenSSL, a message and a
// ciphertext of it.
struct Fixture {
  uint8_t d1[32], d1_inv[32], d2[32], d2_inv[32], P[65];
  Bytes msg = Bytes(32, 0x5A), cipher;
  EVP_PKEY *key = nullptr;
  bool ok = false;

  Fixture() {
    uint8_t p1[65], credential[65];
    ok = BIVO_Client_CreateKeyShare(d1, d1_inv, p1) == 0 && BIVO_Server_CreateKeyShare(p1, d2, d2_inv, P) == 0 &&
         BIVO_Server_CreateKeyShareCredential(d2_inv, credential) == 0 &&
         BIVO_Client_VerifyKeyShares(d1, P, credential) == 0 && MakeOpenSslKey();
    cipher.resize(BIVO_ComputeSm2CiphertextEncodeLength(static_cast<uint32_t>(msg.size())));
    auto n = static_cast<uint32_t>(cipher.size());
    ok = ok && BIVO_Sm2EncryptWithPubKey(msg.data(), 32, P, 65, cipher.data(), &n) == 0;
    cipher.resize(n);
  }

  // d = (d1·d2)^-1 - 1, for OpenSSL only.
  bool MakeOpenSslKey() {
    BN_CTX *ctx = BN_CTX_new();
    BIGNUM *a = BN_bin2bn(d1, 32, nullptr), *b = BN_bin2bn(d2, 32, nullptr), *n = nullptr;
    BN_hex2bn(&n, "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123");
    BN_mod_mul(a, a, b, n, ctx);
    BN_mod_inverse(a, a, n, ctx);
    BN_sub_word(a, 1);
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, "SM2", 0);
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_PRIV_KEY, a);
    OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, P, 65);
    OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr);
    const bool made = pctx != nullptr && EVP_PKEY_fromdata_init(pctx) == 1 &&
                      EVP_PKEY_fromdata(pctx, &key, EVP_PKEY_KEYPAIR, params) == 1;
    EVP_PKEY_CTX_free(pctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    BN_clear_free(a);
    BN_free(b);
    BN_free(n);
    BN_CTX_free(ctx);
    return made;
  }
};

const Fixture &F() {
  static const Fixture f;
  return f;
}

void SignOwn(benchmark::State &state) {
  const Fixture &f = F();
  uint8_t k1[32], e[32], q1[65], r[32], s2[32], s3[32], sig[72];
  uint32_t len = 0;
  for (auto _ : state) {
    if (BIVO_Client_CreateSigShareWithPubKey(kId, f.P, 65, f.msg.data(), 32, k1, e, q1) != 0 ||
        BIVO_Server_CreateSigShare(e, q1, f.d2, r, s2, s3) != 0 ||
        BIVO_Client_AssemblySigEncodeWithPubKey(f.d1, k1, r, s2, s3, e, f.P, 65, sig, &len) != 0) {
      return state.SkipWithError("two-party signing failed");
    }
    benchmark::DoNotOptimize(sig);
  }
  state.SetItemsProcessed(state.iterations());
}

void SignOpenSsl(benchmark::State &state) {
  const Fixture &f = F();
  uint8_t sig[80];
  for (auto _ : state) {
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_PKEY_CTX *pctx = nullptr;
    size_t n = sizeof sig;
    const bool ok = md != nullptr && EVP_DigestSignInit(md, &pctx, EVP_sm3(), nullptr, f.key) == 1 &&
                    EVP_PKEY_CTX_set1_id(pctx, kId, sizeof kId - 1) == 1 &&
                    EVP_DigestSign(md, sig, &n, f.msg.data(), f.msg.size()) == 1;
    EVP_MD_CTX_free(md);
    if (!ok) return state.SkipWithError("OpenSSL signing failed");
    benchmark::DoNotOptimize(sig);
  }
  state.SetItemsProcessed(state.iterations());
}

void DecryptOwn(benchmark::State &state) {
  const Fixture &f = F();
  uint8_t t1[65], t2[65], c1[65], c3[32], c2[64], plain[64];
  for (auto _ : state) {
    uint32_t c2_len = sizeof c2;
    if (BIVO_Client_CreatePlaintextShare(f.cipher.data(), static_cast<uint32_t>(f.cipher.size()), f.d1_inv, t1, c1, c2,
                                         &c2_len, c3) != 0 ||
        BIVO_Server_CreatePlaintextShare(t1, f.d2_inv, t2) != 0 ||
        BIVO_Client_CombinePlaintextShares(c1, c2, c2_len, c3, t2, plain) != 0) {
      return state.SkipWithError("two-party decryption failed");
    }
    benchmark::DoNotOptimize(plain);
  }
  state.SetItemsProcessed(state.iterations());
}

void DecryptOpenSsl(benchmark::State &state) {
  const Fixture &f = F();
  uint8_t plain[64];
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(f.key, nullptr);
  EVP_PKEY_decrypt_init(ctx);
  for (auto _ : state) {
    size_t n = sizeof plain;
    if (EVP_PKEY_decrypt(ctx, plain, &n, f.cipher.data(), f.cipher.size()) != 1 || n != 32) {
      EVP_PKEY_CTX_free(ctx);
      return state.SkipWithError("OpenSSL decryption failed");
    }
    benchmark::DoNotOptimize(plain);
  }
  EVP_PKEY_CTX_free(ctx);
  state.SetItemsProcessed(state.iterations());
}

void KeygenOwn(benchmark::State &state) {
  uint8_t d1[32], d1_inv[32], p1[65], d2[32], d2_inv[32], p[65], credential[65];
  for (auto _ : state) {
    if (BIVO_Client_CreateKeyShare(d1, d1_inv, p1) != 0 || BIVO_Server_CreateKeyShare(p1, d2, d2_inv, p) != 0 ||
        BIVO_Server_CreateKeyShareCredential(d2_inv, credential) != 0 ||
        BIVO_Client_VerifyKeyShares(d1, p, credential) != 0) {
      return state.SkipWithError("two-party key generation failed");
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void KeygenOpenSsl(benchmark::State &state) {
  for (auto _ : state) {
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
    if (key == nullptr) return state.SkipWithError("OpenSSL key generation failed");
    EVP_PKEY_free(key);
  }
  state.SetItemsProcessed(state.iterations());
}

class BestRateReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      if (const auto it = run.counters.find("items_per_second"); it != run.counters.end()) {
        double &best = best_[run.run_name.function_name];
        best = std::max(best, it->second.value);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Summary() const {
    // clang-format off
    const struct { const char *what, *own, *openssl; double target; } rows[] = {
        {"sign: two-party round vs EVP_DigestSign", "sign/own", "sign/openssl", 1.0},
        {"decrypt 32 bytes: two-party vs OpenSSL", "decrypt/own", "decrypt/openssl", 1.0},
        {"key generation: two-party vs OpenSSL (info)", "keygen/own", "keygen/openssl", 0},
    };
    // clang-format on
    std::printf("\n%-46s %12s %12s %8s %7s\n", "comparison", "zeph", "openssl", "ratio", "target");
    for (const auto &r : rows) {
      const auto a = best_.find(r.own), b = best_.find(r.openssl);
      if (a == best_.end() || b == best_.end() || b->second == 0) continue;
      const double ratio = a->second / b->second;
      std::printf("%-46s %7.0f op/s %7.0f op/s %7.2fx", r.what, a->second, b->second, ratio);
      if (r.target > 0) std::printf(" %6.1fx %s", r.target, ratio >= r.target ? "ok" : "BELOW");
      std::printf("\n");
    }
  }

 private:
  std::map<std::string, double> best_;
};

}  // namespace

int main(int argc, char **argv) {
  if (!F().ok) {
    std::fprintf(stderr, "bench_bivo: the fixture could not be made\n");
    return 1;
  }
  for (int rep = 0; rep < 3; ++rep) {
    benchmark::RegisterBenchmark("sign/own", SignOwn);
    benchmark::RegisterBenchmark("sign/openssl", SignOpenSsl);
    benchmark::RegisterBenchmark("decrypt/own", DecryptOwn);
    benchmark::RegisterBenchmark("decrypt/openssl", DecryptOpenSsl);
    benchmark::RegisterBenchmark("keygen/own", KeygenOwn);
    benchmark::RegisterBenchmark("keygen/openssl", KeygenOpenSsl);
  }
  benchmark::Initialize(&argc, argv);
  BestRateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Summary();
  benchmark::Shutdown();
  return 0;
}
