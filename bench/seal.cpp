// Seal operations against the OpenSSL work they cannot avoid, measured
// alternately in one loop; "ratio" is the reference's time over zeph's
// (1.0 = as fast).
//   CheckSealType on a 17 KB GB seal    vs one template decode of it (>= 0.8)
//   VerifyGBSESSignature                vs one SM2 verification of its
//                                          to-be-signed bytes (>= 0.8)
//   SealVerify on a real signature       vs the same for that signature
//                                          (>= 0.4: it checks two signatures)
// The reference verification starts from a ready key; zeph starts from the
// certificate inside the signature.
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "foundation/owned.hpp"
#include "seal/seal_internal.hpp"
#include "seal/seal_reader.hpp"
#include "zeph_c_seal.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr char kId[] = "1234567812345678";

Bytes Sample(const char *name) {
  std::ifstream in(std::string(ZEPH_SOURCE_DIR) + "/tests/data/seals/" + name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// zeph and the reference interleaved, in this thread's CPU time; "ratio" is
// zeph's rate over the reference's.
template <class Zeph, class Ref>
void Interleave(benchmark::State &state, Zeph zeph, Ref ref) {
  const zeph_bench::SideSeconds s = zeph_bench::Interleaved(state, zeph, ref, zeph_bench::Timer::kThreadCpu);
  state.counters["ratio"] = s.reference / s.ours;
}

// One EVP SM2 verification with SM3 and the default identity.
bool EvpVerify(EVP_PKEY *key, const Bytes &data, const Bytes &sig) {
  zeph::EvpMdCtxPtr md(EVP_MD_CTX_new());
  EVP_PKEY_CTX *pctx = nullptr;
  return EVP_DigestVerifyInit(md.get(), &pctx, EVP_sm3(), nullptr, key) == 1 &&
         EVP_PKEY_CTX_set1_id(pctx, kId, 16) == 1 &&
         EVP_DigestVerify(md.get(), sig.data(), sig.size(), data.data(), data.size()) == 1;
}

zeph::EvpPkeyPtr KeyOf(zeph::seal::der::Bytes cert) {
  const unsigned char *p = cert.data();
  zeph::X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(cert.size())));
  return zeph::EvpPkeyPtr(x ? X509_get_pubkey(x.get()) : nullptr);
}

void BM_CheckSealType(benchmark::State &state) {
  const Bytes seal = Sample("gb-v4-user.esl");
  Interleave(
      state,
      [&] {
        int32_t type = 0;
        ZEPH_C_CheckSealType(seal.data(), seal.size(), &type);
        if (type != ZEPH_SEAL_TYPE_GB) state.SkipWithError("not detected");
      },
      [&] {
        const unsigned char *p = seal.data();
        GBSESeal_free(d2i_GBSESeal(nullptr, &p, static_cast<long>(seal.size())));
      });
}

// A GB signature of the GB sample that the specified structures decode,
// signed by a fresh key whose self-signed certificate it carries.
struct Built {
  Bytes seal = Sample("gb-v4-user.esl");
  zeph::EvpPkeyPtr key{EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2")};
  Bytes tbs, value, signature;

  Built() {
    zeph::X509Ptr x(X509_new());
    ASN1_INTEGER_set(X509_get_serialNumber(x.get()), 1);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("bench"), -1, -1, 0);
    X509_set_issuer_name(x.get(), X509_get_subject_name(x.get()));
    X509_gmtime_adj(X509_getm_notBefore(x.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(x.get()), 86400);
    X509_set_pubkey(x.get(), key.get());
    zeph::EvpMdCtxPtr md(EVP_MD_CTX_new());
    EVP_PKEY_CTX *pctx = nullptr;
    EVP_DigestSignInit(md.get(), &pctx, EVP_sm3(), nullptr, key.get());
    EVP_PKEY_CTX_set1_id(pctx, kId, 16);
    X509_sign_ctx(x.get(), md.get());
    unsigned char *der = nullptr;
    const int cert_len = i2d_X509(x.get(), &der);
    const Bytes cert(der, der + cert_len);
    OPENSSL_free(der);

    const Bytes hash(32, 0x33);
    tbs.resize(seal.size() + 512);
    auto len = static_cast<uint32_t>(tbs.size());
    getGBTBSSignData(1, seal.data(), seal.size(), "20210601000000Z", 0, hash.data(), 32, "p", 1, tbs.data(), &len);
    tbs.resize(len);
    size_t n = 0;
    EVP_DigestSign(md.get(), nullptr, &n, tbs.data(), tbs.size());
    value.resize(n);
    EVP_DigestSignInit(md.get(), &pctx, EVP_sm3(), nullptr, key.get());
    EVP_PKEY_CTX_set1_id(pctx, kId, 16);
    EVP_DigestSign(md.get(), value.data(), &n, tbs.data(), tbs.size());
    value.resize(n);
    signature.resize(tbs.size() + 1024);
    len = static_cast<uint32_t>(signature.size());
    getGBSESSignature(tbs.data(), tbs.size(), value.data(), value.size(), cert.data(), cert.size(),
                      "1.2.156.10197.1.501", signature.data(), &len);
    signature.resize(len);
  }
};

void BM_VerifyGBSESSignature(benchmark::State &state) {
  const Built b;
  const unsigned char any = 1;
  Interleave(
      state,
      [&] {
        if (ZEPH_C_VerifyGBSESSignature(b.seal.data(), b.seal.size(), &any, 1, &any, 1, &any, 1, &any, 1,
                                        b.signature.data(), b.signature.size(), 0) != 0) {
          state.SkipWithError("zeph verification failed");
        }
      },
      [&] {
        if (!EvpVerify(b.key.get(), b.tbs, b.value)) state.SkipWithError("EVP verification failed");
      });
}

void BM_SealVerify(benchmark::State &state) {
  const Bytes sig = Sample("gb-v4-signature.dat");
  const auto view = zeph::seal::reader::ReadSignature(sig);
  const zeph::EvpPkeyPtr key = KeyOf(view->signer_cert);
  const Bytes tbs(view->to_sign.whole.begin(), view->to_sign.whole.end());
  const Bytes value(view->signature.begin(), view->signature.end());
  char report[512];
  Interleave(
      state,
      [&] {
        uint32_t len = sizeof report;
        if (ZEPH_C_SealVerify(sig.data(), sig.size(), nullptr, 0, report, &len) != 0) {
          state.SkipWithError("zeph verification failed");
        }
      },
      [&] {
        if (!EvpVerify(key.get(), tbs, value)) state.SkipWithError("EVP verification failed");
      });
}

BENCHMARK(BM_CheckSealType)->Name("BM_CheckSealType/gb_17KB")->UseManualTime();
BENCHMARK(BM_VerifyGBSESSignature)->UseManualTime();
BENCHMARK(BM_SealVerify)->Name("BM_SealVerify/gb_sample")->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
