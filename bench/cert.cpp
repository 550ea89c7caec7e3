// Certificate services against their baselines, in the same run:
//   - verification of a leaf under a root and an intermediate with a local
//     CRL (ZEPH_C_VerifyCertWithCRL, from DER) against OpenSSL decoding the
//     same DER and running X509_verify_cert: for RSA with the CRL check too
//     (target: at least 0.9 of OpenSSL's rate), for SM2 the chain alone;
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

// One 3-level chain, DER.
struct Chain {
  Bytes leaf, cas, crl;  // cas: the intermediate, then the root
  size_t root_len = 0;
  bool sm2 = false;
};
Chain g_rsa, g_sm2;

X509 *Decoded(const Bytes &der, bool sm2) {
  const unsigned char *p = der.data();
  X509 *x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
  if (x != nullptr && sm2) {
    // SM2 signatures carry the default identity.
    ASN1_OCTET_STRING *id = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(id, reinterpret_cast<const unsigned char *>("1234567812345678"), 16);
    X509_set0_distinguishing_id(x, id);
  }
  return x;
}

uint32_t VerifyWithZeph(const Chain &c) {
  return ZEPH_C_VerifyCertWithCRL(c.leaf.data(), static_cast<uint32_t>(c.leaf.size()), c.cas.data(),
                                  static_cast<uint32_t>(c.cas.size()), c.crl.data(),
                                  static_cast<uint32_t>(c.crl.size()));
}

bool MakeChain(zeph_test::TestCa *ca, Chain *c) {
  c->sm2 = ca->alg() == zeph_test::TestCa::Alg::kSm2;
  c->leaf = zeph_test::TestCa::Der(ca->Issue("bench"));
  const Bytes root = zeph_test::TestCa::Der(ca->root()), inter = zeph_test::TestCa::Der(ca->intermediate());
  c->cas = inter;
  c->cas.insert(c->cas.end(), root.begin(), root.end());
  c->root_len = root.size();
  const std::string pem = ca->Crl();
  BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509_CRL *crl = PEM_read_bio_X509_CRL(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  unsigned char *der = nullptr;
  const int n = crl != nullptr ? i2d_X509_CRL(crl, &der) : 0;
  c->crl.assign(der, der + std::max(n, 0));
  OPENSSL_free(der);
  X509_CRL_free(crl);
  return n > 0 && VerifyWithZeph(*c) == 0;
}

void VerifyOurs(benchmark::State &state, const Chain *c) {
  for (auto _ : state) {
    if (VerifyWithZeph(*c) != 0) {
      state.SkipWithError("verification failed");
      break;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

// What a caller holding the same DER does with OpenSSL: decode the
// certificates (and the CRL), then X509_verify_cert with the CRL check. For
// SM2 the chain alone: OpenSSL cannot give a CRL's SM2 signature its
// identity, so it cannot check such a CRL itself.
void VerifyOpenSsl(benchmark::State &state, const Chain *c) {
  const size_t inter_len = c->cas.size() - c->root_len;
  for (auto _ : state) {
    X509 *leaf = Decoded(c->leaf, c->sm2);
    X509 *inter = Decoded(Bytes(c->cas.begin(), c->cas.begin() + static_cast<long>(inter_len)), c->sm2);
    X509 *root = Decoded(Bytes(c->cas.begin() + static_cast<long>(inter_len), c->cas.end()), c->sm2);
    const unsigned char *p = c->crl.data();
    X509_CRL *crl = d2i_X509_CRL(nullptr, &p, static_cast<long>(c->crl.size()));
    X509_STORE *store = X509_STORE_new();
    X509_STORE_add_cert(store, root);
    X509_STORE_add_cert(store, inter);
    unsigned long flags = X509_V_FLAG_PARTIAL_CHAIN;
    if (!c->sm2) {
      X509_STORE_add_crl(store, crl);
      flags |= X509_V_FLAG_CRL_CHECK;
    }
    X509_STORE_set_flags(store, flags);
    X509_STORE_CTX *ctx = X509_STORE_CTX_new();
    X509_STORE_CTX_init(ctx, store, leaf, nullptr);
    if (X509_verify_cert(ctx) != 1) state.SkipWithError("X509_verify_cert failed");
    X509_STORE_CTX_free(ctx);
    X509_STORE_free(store);
    X509_CRL_free(crl);
    X509_free(root);
    X509_free(inter);
    X509_free(leaf);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
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
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
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
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  CloseKey(h);
}

void Summary(const zeph_bench::RatioReporter &reporter) {
  zeph_bench::PrintRatios(
      reporter, {
                    {"RSA chain + CRL vs decode + X509_verify_cert", "verify-rsa/zeph", "verify-rsa/openssl", 0.9},
                    {"SM2 chain + CRL vs decode + X509_verify_cert", "verify-sm2/zeph", "verify-sm2/openssl"},
                    {"request on the key vs its bare signature", "csr/zeph", "sign/device", 0.91},
                });
}

}  // namespace

int main(int argc, char **argv) {
  const zeph_bench::BenchSoftkey key;
  zeph_test::TestCa rsa_ca(zeph_test::TestCa::Alg::kRsa), sm2_ca(zeph_test::TestCa::Alg::kSm2);
  const std::string cfg = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB + R"("}])";
  if (!key.ok() || !key.MakeSm2Key("CERTBENCH", "VorliEcc", kPin) || ZEPH_C_SetConfigInfo(cfg.c_str()) != 0 ||
      !MakeChain(&rsa_ca, &g_rsa) || !MakeChain(&sm2_ca, &g_sm2)) {
    std::fprintf(stderr, "bench_cert: cannot set up the key or the chain\n");
    return 1;
  }
  for (int rep = 0; rep < 3; ++rep) {
    benchmark::RegisterBenchmark("verify-rsa/zeph", VerifyOurs, &g_rsa);
    benchmark::RegisterBenchmark("verify-rsa/openssl", VerifyOpenSsl, &g_rsa);
    benchmark::RegisterBenchmark("verify-sm2/zeph", VerifyOurs, &g_sm2);
    benchmark::RegisterBenchmark("verify-sm2/openssl", VerifyOpenSsl, &g_sm2);
    benchmark::RegisterBenchmark("csr/zeph", CsrOnKey);
    benchmark::RegisterBenchmark("sign/device", SignOnKey);
  }
  return zeph_bench::RunWithRatios(argc, argv, Summary);
}
