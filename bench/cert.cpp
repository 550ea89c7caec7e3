// Certificate services against their baselines, in the same run:
//   - verification of an SM2 leaf under a root and an intermediate with a
//     local CRL (ZEPH_C_VerifyCertWithCRL, from DER) against OpenSSL's
//     X509_verify_cert with the CRL check on the same certificates, already
//     decoded; target: at least 0.9 of OpenSSL's rate;
//   - a PKCS#10 request made on the software key (ZEPH_C_GenCSR) against the
//     key's bare SM2 signature (ZEPH_C_DoSm2Sign); both open a session and
//     verify the PIN. Target: at most 10% slower.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include "bench_support.hpp"
#include "test_ca.hpp"
#include "zeph_c.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr const char *kPin = "87654321";
constexpr const char *kKeySn = "ZS_CERTBENCH";

Bytes g_leaf, g_cas, g_crl;
X509 *g_leaf_x = nullptr, *g_root_x = nullptr, *g_inter_x = nullptr;
X509_CRL *g_crl_x = nullptr;

X509 *Decoded(const Bytes &der) {
  const unsigned char *p = der.data();
  X509 *x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
  // SM2 signatures carry the default identity.
  ASN1_OCTET_STRING *id = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(id, reinterpret_cast<const unsigned char *>("1234567812345678"), 16);
  X509_set0_distinguishing_id(x, id);
  return x;
}

bool MakeChain(zeph_test::TestCa *ca) {
  g_leaf = zeph_test::TestCa::Der(ca->Issue("bench"));
  const Bytes root = zeph_test::TestCa::Der(ca->root()), inter = zeph_test::TestCa::Der(ca->intermediate());
  g_cas = inter;
  g_cas.insert(g_cas.end(), root.begin(), root.end());
  const std::string pem = ca->Crl();
  BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  g_crl_x = PEM_read_bio_X509_CRL(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  unsigned char *der = nullptr;
  const int n = g_crl_x != nullptr ? i2d_X509_CRL(g_crl_x, &der) : 0;
  g_crl.assign(der, der + std::max(n, 0));
  OPENSSL_free(der);
  g_leaf_x = Decoded(g_leaf);
  g_root_x = Decoded(root);
  g_inter_x = Decoded(inter);
  return n > 0 && g_leaf_x != nullptr && g_root_x != nullptr && g_inter_x != nullptr &&
         ZEPH_C_VerifyCertWithCRL(g_leaf.data(), static_cast<uint32_t>(g_leaf.size()), g_cas.data(),
                                  static_cast<uint32_t>(g_cas.size()), g_crl.data(),
                                  static_cast<uint32_t>(g_crl.size())) == 0;
}

void VerifyOurs(benchmark::State &state) {
  for (auto _ : state) {
    if (ZEPH_C_VerifyCertWithCRL(g_leaf.data(), static_cast<uint32_t>(g_leaf.size()), g_cas.data(),
                                 static_cast<uint32_t>(g_cas.size()), g_crl.data(),
                                 static_cast<uint32_t>(g_crl.size())) != 0) {
      state.SkipWithError("verification failed");
      break;
    }
  }
}

void VerifyOpenSsl(benchmark::State &state) {
  for (auto _ : state) {
    X509_STORE *store = X509_STORE_new();
    X509_STORE_add_cert(store, g_root_x);
    X509_STORE_add_cert(store, g_inter_x);
    X509_STORE_add_crl(store, g_crl_x);
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_PARTIAL_CHAIN);
    X509_STORE_CTX *ctx = X509_STORE_CTX_new();
    X509_STORE_CTX_init(ctx, store, g_leaf_x, nullptr);
    if (X509_verify_cert(ctx) != 1) state.SkipWithError("X509_verify_cert failed");
    X509_STORE_CTX_free(ctx);
    X509_STORE_free(store);
  }
}

void *OpenKey() {
  void *h = nullptr;
  return ZEPH_C_Initialize(&h, 0, kKeySn, 0) == 0 ? h : nullptr;
}

void CloseKey(void *h) {
  ZEPH_C_Finalize(h);
  ZEPH_C_MALLOC_FREE(h);
}

void CsrOnKey(benchmark::State &state) {
  void *h = OpenKey();
  Bytes out(4096);
  for (auto _ : state) {
    auto n = static_cast<uint32_t>(out.size());
    if (ZEPH_C_GenCSR(h, kPin, ZEPH_AREA_SM2, "CN=bench holder,O=zeph", 0, out.data(), &n) != 0) {
      state.SkipWithError("request failed");
      break;
    }
  }
  CloseKey(h);
}

void SignOnKey(benchmark::State &state) {
  void *h = OpenKey();
  // About the size of the request info signed above.
  const Bytes data(200, 0x61);
  Bytes out(128);
  for (auto _ : state) {
    auto n = static_cast<uint32_t>(out.size());
    if (ZEPH_C_DoSm2Sign(h, kPin, data.data(), static_cast<uint32_t>(data.size()), out.data(), &n) != 0) {
      state.SkipWithError("signing failed");
      break;
    }
  }
  CloseKey(h);
}

void Summary(const zeph_bench::RatioReporter &reporter) {
  zeph_bench::PrintRatios(reporter,
                          {
                              {"3-level SM2 chain + CRL vs X509_verify_cert", "verify/zeph", "verify/openssl", 0.9},
                              {"request on the key vs its bare signature", "csr/zeph", "sign/device", 0.91},
                          });
}

}  // namespace

int main(int argc, char **argv) {
  const zeph_bench::BenchSoftkey key;
  zeph_test::TestCa ca(zeph_test::TestCa::Alg::kSm2);
  const std::string cfg = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB + R"("}])";
  if (!key.ok() || !key.MakeSm2Key("CERTBENCH", "VorliEcc", kPin) || ZEPH_C_SetConfigInfo(cfg.c_str()) != 0 ||
      !MakeChain(&ca)) {
    std::fprintf(stderr, "bench_cert: cannot set up the key or the chain\n");
    return 1;
  }
  for (int rep = 0; rep < 3; ++rep) {
    benchmark::RegisterBenchmark("verify/zeph", VerifyOurs);
    benchmark::RegisterBenchmark("verify/openssl", VerifyOpenSsl);
    benchmark::RegisterBenchmark("csr/zeph", CsrOnKey);
    benchmark::RegisterBenchmark("sign/device", SignOnKey);
  }
  return zeph_bench::RunWithRatios(argc, argv, Summary);
}
