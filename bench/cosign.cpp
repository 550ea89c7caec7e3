// Co-signed SM2 signatures against one-party OpenSSL in the same run:
// through the loopback reference service (zeph-cosign-server) with the
// co-signing client, one client thread and a new connection per signature;
// the same round in process without HTTP; eight client threads against one
// service. The reference is EVP_DigestSign with SM2, SM3 and the default
// identity, one signature per fresh context as a one-party signer makes it.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "cosign_server.hpp"
#include "zeph_c_bivo.h"
#include "zeph_c_bivo_math.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr char kId[] = "1234567812345678";
const Bytes kMsg(32, 0x5A);

zeph_test::CosignServer &Server() {
  static zeph_test::CosignServer server;
  return server;
}

// A client context holding a fresh co-signed key.
struct Client {
  ZEPH_BIVO_CTX *ctx = nullptr;
  bool ok = false;
  Client() {
    const std::string device = R"({"DeviceNumber":"bench"})", url = Server().Url();
    if (ZEPH_C_BIVO_Initialize(&ctx, device.c_str(), static_cast<uint32_t>(device.size()), url.c_str(),
                               static_cast<uint32_t>(url.size())) != 0) {
      return;
    }
    uint8_t pubkey[65];
    uint32_t pubkey_len = sizeof pubkey, share_len = 0;
    char id[65];
    const unsigned char secret[] = "1234";
    ZEPH_C_BIVO_CreateKeyPair(ctx, secret, 4, pubkey, &pubkey_len, id, nullptr, &share_len);
    Bytes share(share_len);
    ok = ZEPH_C_BIVO_CreateKeyPair(ctx, secret, 4, pubkey, &pubkey_len, id, share.data(), &share_len) == 0;
  }
  ~Client() { ZEPH_C_BIVO_Finalize(ctx); }
  bool Sign() const {
    uint8_t sig[72];
    uint32_t len = sizeof sig;
    return ZEPH_C_BIVO_DoSignature(ctx, kMsg.data(), static_cast<uint32_t>(kMsg.size()), sig, &len) == 0;
  }
};

// One key and context per client thread (eight hosts signing at once, each
// with its own key, when run on eight threads).
void BM_CosignedThroughService(benchmark::State &state) {
  const Client client;
  if (!client.ok) return state.SkipWithError("no co-signed key");
  for (auto _ : state) {
    if (!client.Sign()) return state.SkipWithError("signature failed");
  }
  state.SetItemsProcessed(state.iterations());
}

// The same round with both parties in this process: client share with the
// key, server share, checked assembly.
void BM_InProcessRound(benchmark::State &state) {
  uint8_t d1[32], d1_inv[32], p1[65], d2[32], d2_inv[32], P[65];
  BIVO_HANDLE drbg = nullptr;
  const Bytes entropy(256, 0x42);
  if (InitializeBivoHandle(&drbg, entropy.data(), 256) != 0 || BIVO_Client_CreateKeyShare(d1, d1_inv, p1) != 0 ||
      BIVO_Server_CreateKeyShareWithDrbg(drbg, p1, d2, d2_inv, P) != 0) {
    return state.SkipWithError("no key");
  }
  for (auto _ : state) {
    uint8_t k1[32], e[32], q1[65], r[32], s2[32], s3[32], sig[72];
    uint32_t sig_len = 0;
    if (BIVO_Client_CreateSigShareWithPubKey(kId, P, 65, kMsg.data(), 32, k1, e, q1) != 0 ||
        BIVO_Server_CreateSigShareWithDrbg(drbg, e, q1, d2, r, s2, s3) != 0 ||
        BIVO_Client_AssemblySigEncodeWithPubKey(d1, k1, r, s2, s3, e, P, 65, sig, &sig_len) != 0) {
      return state.SkipWithError("round failed");
    }
  }
  UninitializeBivoHandle(drbg);
  state.SetItemsProcessed(state.iterations());
}

void BM_OpenSslSign(benchmark::State &state) {
  EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  if (key == nullptr) return state.SkipWithError("no key");
  for (auto _ : state) {
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new(key, nullptr);
    uint8_t sig[80];
    size_t len = sizeof sig;
    const bool ok = EVP_PKEY_CTX_set1_id(pctx, kId, sizeof kId - 1) == 1 && (EVP_MD_CTX_set_pkey_ctx(md, pctx), true) &&
                    EVP_DigestSignInit(md, nullptr, EVP_sm3(), nullptr, key) == 1 &&
                    EVP_DigestSign(md, sig, &len, kMsg.data(), kMsg.size()) == 1;
    EVP_MD_CTX_free(md);
    EVP_PKEY_CTX_free(pctx);
    if (!ok) return state.SkipWithError("openssl failed");
  }
  EVP_PKEY_free(key);
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

int main(int argc, char **argv) {
  // Two rounds, the sides alternating, on a machine whose load varies: the
  // summary compares the best rate of each.
  for (int round = 0; round < 2; ++round) {
    benchmark::RegisterBenchmark("sign/openssl", BM_OpenSslSign)->UseRealTime();
    benchmark::RegisterBenchmark("sign/cosign_service", BM_CosignedThroughService)->UseRealTime();
    benchmark::RegisterBenchmark("sign/in_process_round", BM_InProcessRound)->UseRealTime();
    benchmark::RegisterBenchmark("sign/cosign_service_8_clients", BM_CosignedThroughService)->Threads(8)->UseRealTime();
  }
  return zeph_bench::RunWithRatios(argc, argv, [](const zeph_bench::RatioReporter &reporter) {
    zeph_bench::PrintRatios(
        reporter, {
                      {"co-signed through the loopback service, 1 client / OpenSSL", "sign/cosign_service/real_time",
                       "sign/openssl/real_time", 0.5, "sig/s"},
                      {"co-signed round in process / OpenSSL", "sign/in_process_round/real_time",
                       "sign/openssl/real_time", 0, "sig/s"},
                      {"co-signed through the service, 8 clients / OpenSSL",
                       "sign/cosign_service_8_clients/real_time/threads:8", "sign/openssl/real_time", 0, "sig/s"},
                  });
  });
}
