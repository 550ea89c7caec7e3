// The PKI services against OpenSSL doing the same work directly, measured
// alternately in the same loop: a loopback POST round trip (http_post and
// https_post against a bare BIO / SSL client, each connecting, sending the
// same request and reading until the server closes), and the embedding of
// a time-stamp token (ZEPH_C_GetTimeStampPKCS7 against d2i, PKCS7_add_attribute
// and i2d_PKCS7). "ratio" is zeph's speed over OpenSSL's (1.0 = as fast).
#include <memory>
#include <string>

#include <openssl/bio.h>
#include <openssl/pkcs7.h>
#include <openssl/ssl.h>
#include <openssl/ts.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "loopback.hpp"
#include "zeph_c_pki.h"

namespace {

using Bytes = std::vector<uint8_t>;

// zeph against OpenSSL, interleaved; "ratio" is zeph's rate over OpenSSL's.
template <class Zeph, class Ssl>
void Compare(benchmark::State &state, Zeph zeph, Ssl openssl) {
  const zeph_bench::SideSeconds s = zeph_bench::Interleaved(state, zeph, openssl);
  const auto n = static_cast<double>(state.iterations());
  state.counters["zeph_per_s"] = n / s.ours;
  state.counters["openssl_per_s"] = n / s.reference;
  state.counters["ratio"] = s.reference / s.ours;
}

const std::string kBody = R"({"type":"sign","data":")" + std::string(200, 'A') + R"("})";

zeph_test::Peer &Server(bool tls) {
  static auto *plain = new zeph_test::Peer(false);
  static auto *secure = new zeph_test::Peer(true);
  return tls ? *secure : *plain;
}

std::string Request(int port) {
  return "POST /echo/bench HTTP/1.0\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n" + HttpsPostHeaders +
         "Content-Length: " + std::to_string(kBody.size()) + "\r\n\r\n" + kBody;
}

// Writes the request, reads until the server closes; the body's length.
size_t Exchange(BIO *b, const std::string &request) {
  if (BIO_write(b, request.data(), static_cast<int>(request.size())) != static_cast<int>(request.size())) return 0;
  std::string reply;
  char buf[16384];
  for (int n; (n = BIO_read(b, buf, sizeof buf)) > 0;) reply.append(buf, static_cast<size_t>(n));
  const size_t end = reply.find("\r\n\r\n");
  return end == std::string::npos ? 0 : reply.size() - end - 4;
}

void BM_Post(benchmark::State &state, bool tls) {
  const int port = Server(tls).port();
  const std::string target = "127.0.0.1:" + std::to_string(port);
  const std::string request = Request(port);
  // One client context for the run, as the library keeps one for the process.
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  char out[1024];
  Compare(
      state,
      [&] {
        uint32_t len = sizeof out;
        const uint32_t rv = (tls ? https_post : http_post)("127.0.0.1", port, "/echo/bench", kBody.c_str(),
                                                           static_cast<uint32_t>(kBody.size()), out, &len);
        if (rv != 0 || len != kBody.size()) state.SkipWithError("zeph post failed");
      },
      [&] {
        BIO *b = tls ? BIO_new_ssl_connect(ctx.get()) : BIO_new_connect(target.c_str());
        if (tls) BIO_set_conn_hostname(b, target.c_str());
        if (BIO_do_connect(b) != 1 || Exchange(b, request) != kBody.size()) state.SkipWithError("OpenSSL post failed");
        BIO_free_all(b);
      });
}

// A stamped signature's ingredients, made once with the openssl tool.
struct StampInputs {
  Bytes reply, p7;
};

const StampInputs &Inputs() {
  static const StampInputs inputs = [] {
    static zeph_test::TempDir dir;
    const auto &pki = zeph_test::TestPki::Get();
    const std::string d = dir.path().string();
    zeph_test::WriteBytes(d + "/data", {'b', 'e', 'n', 'c', 'h'});
    zeph_test::Shell("cd " + d + " && openssl smime -sign -binary -in data -signer " + pki.server_cert + " -inkey " +
                     pki.server_key + " -outform DER -out sig.p7s && openssl ts -query -data data -sha256 -cert " +
                     "-out q.tsq && openssl ts -reply -config " + pki.tsa_config + " -queryfile q.tsq -out r.tsr");
    return StampInputs{zeph_test::ReadBytes(d + "/r.tsr"), zeph_test::ReadBytes(d + "/sig.p7s")};
  }();
  return inputs;
}

void BM_GetTimeStampPKCS7(benchmark::State &state) {
  const StampInputs &in = Inputs();
  Bytes out(in.p7.size() + in.reply.size() + 256);
  Compare(
      state,
      [&] {
        uint32_t len = static_cast<uint32_t>(out.size());
        if (ZEPH_C_GetTimeStampPKCS7(in.reply.data(), static_cast<uint32_t>(in.reply.size()), in.p7.data(),
                                     static_cast<uint32_t>(in.p7.size()), out.data(), &len) != 0)
          state.SkipWithError("embedding failed");
        benchmark::DoNotOptimize(out.data());
      },
      [&] {
        const unsigned char *p = in.reply.data();
        TS_RESP *resp = d2i_TS_RESP(nullptr, &p, static_cast<long>(in.reply.size()));
        p = in.p7.data();
        PKCS7 *p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(in.p7.size()));
        unsigned char *token = nullptr;
        const int token_len = i2d_PKCS7(TS_RESP_get_token(resp), &token);
        ASN1_STRING *value = ASN1_STRING_type_new(V_ASN1_SEQUENCE);
        ASN1_STRING_set0(value, token, token_len);
        PKCS7_add_attribute(sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), 0), NID_id_smime_aa_timeStampToken,
                            V_ASN1_SEQUENCE, value);
        unsigned char *der = nullptr;
        const int n = i2d_PKCS7(p7, &der);
        if (n <= 0) state.SkipWithError("OpenSSL embedding failed");
        benchmark::DoNotOptimize(der);
        OPENSSL_free(der);
        PKCS7_free(p7);
        TS_RESP_free(resp);
      });
}

BENCHMARK_CAPTURE(BM_Post, http_post, false)->UseManualTime()->MinTime(1.0);
BENCHMARK_CAPTURE(BM_Post, https_post, true)->UseManualTime()->MinTime(1.0);
BENCHMARK(BM_GetTimeStampPKCS7)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
