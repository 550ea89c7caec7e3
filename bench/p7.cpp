// Signed messages and envelopes against their OpenSSL (or device) baseline,
// in the same run:
//   - d2i + i2d of an SM2_Sign carrying three certificates against d2i + i2d
//     of a PKCS#7 signed-data of the same shape;
//   - an RSA PKCS#7 with attributes made on the software key against the
//     key's bare signature (both open a session and verify the PIN);
//   - a 1 MiB GM envelope against SM4-ECB of 1 MiB plus one SM2 encryption.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>

#include <benchmark/benchmark.h>

#include "loopback.hpp"
#include "zeph_c.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr const char *kPin = "87654321";
std::string g_root;
Bytes g_sm2_sign, g_pkcs7, g_sm2_cert;
EVP_PKEY *g_sm2_key = nullptr;

X509 *Load(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "r");
  X509 *x = f != nullptr ? PEM_read_X509(f, nullptr, nullptr, nullptr) : nullptr;
  if (f != nullptr) std::fclose(f);
  return x;
}

template <class T>
Bytes Der(T *obj, int (*i2d)(const T *, unsigned char **)) {
  unsigned char *p = nullptr;
  const int n = i2d(obj, &p);
  Bytes out(p, p + std::max(n, 0));
  OPENSSL_free(p);
  return out;
}

// One SM2_Sign and one PKCS#7 with the same three certificates, content and
// a 72-byte signature value.
bool MakeMessages() {
  const auto &pki = zeph_test::TestPki::Get();
  X509 *certs[] = {Load(pki.other_cert), Load(pki.server_cert), Load(pki.ca)};
  for (X509 *c : certs)
    if (c == nullptr) return false;
  const Bytes content(512, 0x42), sig(72, 0x30);

  PKCS7 *p7 = PKCS7_new();
  PKCS7_set_type(p7, NID_pkcs7_signed);
  PKCS7_content_new(p7, NID_pkcs7_data);
  ASN1_OCTET_STRING_set(p7->d.sign->contents->d.data, content.data(), static_cast<int>(content.size()));
  for (X509 *c : certs) PKCS7_add_certificate(p7, c);
  PKCS7_SIGNER_INFO *si = PKCS7_SIGNER_INFO_new();
  ASN1_INTEGER_set(si->version, 1);
  X509_NAME_set(&si->issuer_and_serial->issuer, X509_get_issuer_name(certs[2]));
  ASN1_INTEGER_free(si->issuer_and_serial->serial);
  si->issuer_and_serial->serial = ASN1_INTEGER_dup(X509_get_serialNumber(certs[2]));
  X509_ALGOR_set0(si->digest_alg, OBJ_nid2obj(NID_sm3), V_ASN1_NULL, nullptr);
  X509_ALGOR_set0(si->digest_enc_alg, OBJ_txt2obj(ZEPH_OID_SM2_SIGN_501, 1), V_ASN1_NULL, nullptr);
  ASN1_OCTET_STRING_set(si->enc_digest, sig.data(), static_cast<int>(sig.size()));
  PKCS7_add_signer(p7, si);
  g_pkcs7 = Der(p7, i2d_PKCS7);

  // The same pieces in the GM layout.
  SM2_Sign *msg = SM2_Sign_new();
  msg->ID = OBJ_txt2obj(ZEPH_OID_SM2_SIGNED_DATA, 1);
  msg->SM2_Sign_Infos = sk_SM2_SIGN_INFO_new_null();
  SM2_SIGN_INFO *info = SM2_SIGN_INFO_new();
  sk_SM2_SIGN_INFO_push(msg->SM2_Sign_Infos, info);
  ASN1_INTEGER_set(info->version, 1);
  X509_ALGOR *md = X509_ALGOR_new();
  X509_ALGOR_set0(md, OBJ_nid2obj(NID_sm3), V_ASN1_NULL, nullptr);
  sk_X509_ALGOR_push(info->md_algs, md);
  ASN1_OBJECT_free(info->contents->ID);
  info->contents->ID = OBJ_txt2obj(ZEPH_OID_SM2_DATA, 1);
  info->contents->Data = sk_ASN1_OCTET_STRING_new_null();
  ASN1_OCTET_STRING *data = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(data, content.data(), static_cast<int>(content.size()));
  sk_ASN1_OCTET_STRING_push(info->contents->Data, data);
  info->cert = sk_X509_new_null();
  for (X509 *c : certs) {
    X509_up_ref(c);
    sk_X509_push(info->cert, c);
  }
  sk_PKCS7_SIGNER_INFO_push(info->signer_info,
                            static_cast<PKCS7_SIGNER_INFO *>(ASN1_item_dup(ASN1_ITEM_rptr(PKCS7_SIGNER_INFO), si)));
  g_sm2_sign = Der(msg, i2d_SM2_Sign);
  SM2_Sign_free(msg);
  PKCS7_free(p7);
  for (X509 *c : certs) X509_free(c);
  return !g_pkcs7.empty() && !g_sm2_sign.empty();
}

// A software key with an RSA 2048 signing pair, and an SM2 recipient.
bool MakeKeyAndRecipient() {
  char tmpl[] = "/tmp/zeph-bench-p7-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return false;
  g_root = tmpl;
  setenv("ZEPH_SOFTKEY_ROOT", tmpl, 1);
  const std::string tool = std::string(ZEPH_SOFTKEY_TOOL) + " --root " + g_root + " ";
  const std::string pin = std::string(" --user-pin ") + kPin;
  if (std::system((tool + "create-device --serial P7BENCH >/dev/null && " + tool +
                   "create-app --serial P7BENCH --app VorliRsa --admin-pin 12345678" + pin + " >/dev/null && " + tool +
                   "gen-key --serial P7BENCH --app VorliRsa --container RSA1 --alg rsa2048" + pin + " >/dev/null")
                      .c_str()) != 0) {
    return false;
  }
  const std::string cfg = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB + R"("}])";
  if (ZEPH_C_SetConfigInfo(cfg.c_str()) != 0) return false;

  g_sm2_key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  X509 *cert = X509_new();
  X509_set_version(cert, 2);
  X509_set_pubkey(cert, g_sm2_key);
  X509_gmtime_adj(X509_getm_notBefore(cert), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
  X509_sign(cert, g_sm2_key, EVP_sm3());
  g_sm2_cert = Der(cert, i2d_X509);
  X509_free(cert);
  return g_sm2_key != nullptr && !g_sm2_cert.empty();
}

template <class T>
void RoundTrip(benchmark::State &state, const Bytes &der, T *(*d2i)(T **, const unsigned char **, long),
               int (*i2d)(const T *, unsigned char **), void (*free_fn)(T *)) {
  for (auto _ : state) {
    const unsigned char *p = der.data();
    T *obj = d2i(nullptr, &p, static_cast<long>(der.size()));
    unsigned char *out = nullptr;
    benchmark::DoNotOptimize(i2d(obj, &out));
    OPENSSL_free(out);
    free_fn(obj);
  }
}

void BM_SM2_Sign_RoundTrip(benchmark::State &state) {
  RoundTrip(state, g_sm2_sign, d2i_SM2_Sign, i2d_SM2_Sign, SM2_Sign_free);
}
void BM_PKCS7_RoundTrip(benchmark::State &state) { RoundTrip(state, g_pkcs7, d2i_PKCS7, i2d_PKCS7, PKCS7_free); }

void *OpenKey() {
  void *h = nullptr;
  return ZEPH_C_Initialize(&h, 0, "ZS_P7BENCH", 0) == 0 ? h : nullptr;
}

void CloseKey(void *h) {
  ZEPH_C_Finalize(h);
  ZEPH_C_MALLOC_FREE(h);
}

void BM_RsaPkcs7WithAttributes(benchmark::State &state) {
  void *h = OpenKey();
  const Bytes data(1024, 0x61);
  Bytes out(8192);
  for (auto _ : state) {
    uint32_t n = static_cast<uint32_t>(out.size());
    if (ZEPH_C_DoSignToPKCS7(h, kPin, ZEPH_AREA_RSA, 4, 0, data.data(), 1024, nullptr, 0, out.data(), &n) != 0) {
      state.SkipWithError("signing failed");
      break;
    }
  }
  CloseKey(h);
}

void BM_RsaDeviceSignature(benchmark::State &state) {
  void *h = OpenKey();
  const Bytes data(1024, 0x61);
  Bytes out(512);
  for (auto _ : state) {
    uint32_t n = static_cast<uint32_t>(out.size());
    if (ZEPH_C_DoRsaSign(h, kPin, data.data(), 1024, out.data(), &n, 4) != 0) {
      state.SkipWithError("signing failed");
      break;
    }
  }
  CloseKey(h);
}

constexpr size_t kEnvelopeBytes = 1 << 20;

void BM_GmEnvelope1MiB(benchmark::State &state) {
  const Bytes data(kEnvelopeBytes, 0x5a);
  Bytes out(kEnvelopeBytes + 4096);
  for (auto _ : state) {
    uint32_t n = static_cast<uint32_t>(out.size());
    if (ZEPH_C_EncodeEnveloperWithCert(g_sm2_cert.data(), static_cast<uint32_t>(g_sm2_cert.size()), data.data(),
                                       kEnvelopeBytes, ZEPH_ENVELOPE_GM, out.data(), &n) != 0) {
      state.SkipWithError("envelope failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kEnvelopeBytes));
}

// What `openssl enc -sm4-ecb` and one `openssl pkeyutl -encrypt` do, in process.
void BM_OpenSSL_Sm4EcbAndSm2(benchmark::State &state) {
  const Bytes data(kEnvelopeBytes, 0x5a);
  const unsigned char key[16] = {1, 2, 3};
  Bytes out(kEnvelopeBytes + 32), wrapped(256);
  for (auto _ : state) {
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    int n = 0, tail = 0;
    EVP_EncryptInit_ex(ctx, EVP_sm4_ecb(), nullptr, key, nullptr);
    EVP_EncryptUpdate(ctx, out.data(), &n, data.data(), static_cast<int>(data.size()));
    EVP_EncryptFinal_ex(ctx, out.data() + n, &tail);
    EVP_CIPHER_CTX_free(ctx);
    EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new(g_sm2_key, nullptr);
    size_t w = wrapped.size();
    EVP_PKEY_encrypt_init(pctx);
    EVP_PKEY_encrypt(pctx, wrapped.data(), &w, key, sizeof key);
    EVP_PKEY_CTX_free(pctx);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kEnvelopeBytes));
}

BENCHMARK(BM_SM2_Sign_RoundTrip);
BENCHMARK(BM_PKCS7_RoundTrip);
BENCHMARK(BM_RsaPkcs7WithAttributes);
BENCHMARK(BM_RsaDeviceSignature);
BENCHMARK(BM_GmEnvelope1MiB);
BENCHMARK(BM_OpenSSL_Sm4EcbAndSm2);

// CPU time per iteration of every run: the machine is shared, and CPU time
// is what the two sides spend.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const auto &r : runs)
      if (r.run_type == Run::RT_Iteration && r.iterations > 0)
        seconds_[r.benchmark_name()] = r.cpu_accumulated_time / static_cast<double>(r.iterations);
    ConsoleReporter::ReportRuns(runs);
  }
  double Seconds(const std::string &name) const {
    auto it = seconds_.find(name);
    return it == seconds_.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> seconds_;
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (!MakeMessages() || !MakeKeyAndRecipient()) {
    std::fprintf(stderr, "bench_p7: cannot set up the messages or the software key\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto ratio = [&](const char *ours, const char *ref) {
    const double a = reporter.Seconds(ours), b = reporter.Seconds(ref);
    return a > 0 && b > 0 ? b / a : 0.0;
  };
  std::printf("d2i+i2d SM2_Sign (3 certificates) vs PKCS7 of the same shape: %.2f of OpenSSL's rate\n",
              ratio("BM_SM2_Sign_RoundTrip", "BM_PKCS7_RoundTrip"));
  const double overhead = ratio("BM_RsaDeviceSignature", "BM_RsaPkcs7WithAttributes") - 1;
  std::printf("RSA PKCS#7 with attributes vs the bare device signature: %+.1f%% time\n", overhead * 100);
  std::printf("1 MiB GM envelope vs SM4-ECB + one SM2 encryption in OpenSSL: %.2f of OpenSSL's rate\n",
              ratio("BM_GmEnvelope1MiB", "BM_OpenSSL_Sm4EcbAndSm2"));
  EVP_PKEY_free(g_sm2_key);
  std::system(("rm -rf '" + g_root + "'").c_str());
  benchmark::Shutdown();
  return 0;
}
