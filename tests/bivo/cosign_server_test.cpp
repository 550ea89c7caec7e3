// The reference co-signing service through real HTTP on 127.0.0.1: concurrent
// co-signing clients whose signatures OpenSSL verifies, a store that survives
// kill -9, the RSA split and bad requests. Signing, decryption, HTTPS and the test faults through
// the co-signing client: CosignClient here, and the cosign rows of
// tests/integration.
#include "cosign_server.hpp"

#include <string>
#include <thread>
#include <vector>

#include <cjson/cJSON.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "bivo_reference.hpp"
#include "client_context.hpp"
#include "oracle.hpp"
#include "zeph_c_pki.h"
#include "zeph_c_status.h"

using namespace bivo_test;

namespace {

using zeph_test::CosignServer;

// The HTTP status (0: none) and body of the server's answer.
struct Posted {
  int status = 0;
  std::string body;
};

Posted Post(const std::string &url, const std::string &body) {
  Posted out;
  std::vector<unsigned char> reply(1 << 16);
  uint32_t len = Len(reply);
  ZEPH_C_HttpPostEx(url.c_str(), "application/json", reinterpret_cast<const unsigned char *>(body.data()),
                    static_cast<uint32_t>(body.size()), reply.data(), &len, &out.status);
  out.body.assign(reply.begin(), reply.begin() + len);
  return out;
}
Posted Post(const CosignServer &server, const std::string &method, const std::string &body) {
  return Post(server.Url(method), body);
}

// The base64 value of `key` in the "result" text of a 200 answer.
Bytes ResultValue(const Posted &posted, const char *key) {
  cJSON *root = cJSON_Parse(posted.body.c_str());
  const cJSON *text = cJSON_GetObjectItem(root, "result");
  cJSON *result = cJSON_IsString(text) ? cJSON_Parse(text->valuestring) : nullptr;
  const cJSON *item = cJSON_GetObjectItem(result, key);
  Bytes value = cJSON_IsString(item) ? zeph_test::FromBase64(item->valuestring) : Bytes();
  cJSON_Delete(result);
  cJSON_Delete(root);
  return value;
}

std::string Hex(const Bytes &b) { return zeph_test::ToHex(b); }
std::string B64(const Bytes &b) { return zeph_test::Base64(b); }

// A key the server holds, made through the co-signing client.
Key CreateKey(const CosignServer &server) {
  Ctx ctx;
  Key key;
  EXPECT_EQ(Open(server.Url(), &ctx), 0u);
  EXPECT_EQ(Create(ctx.get(), &key), 0u);
  return key;
}

TEST(CosignServer, ConcurrentClientsShareOneServer) {
  CosignServer server;
  const Key key = CreateKey(server);
  std::vector<int> good(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const Ctx ctx = OpenWithKey(server.Url(), key.share);
      for (int i = 0; i < 5; ++i) {
        const Bytes msg = RandomBytes(64, static_cast<uint32_t>(100 * t + i));
        uint32_t rv = 0;
        good[t] += OpenSslVerifies(key.pub, msg, Sign(ctx.get(), msg, &rv)) ? 1 : 0;
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(good, std::vector<int>(4, 5));
}

TEST(CosignServer, StoreSurvivesKillNine) {
  CosignServer server;
  const Key key = CreateKey(server);
  server.Kill();  // right after the answer: no clean shutdown, no checkpoint
  server.Start();
  const Bytes msg = {'a', 'f', 't', 'e', 'r'};
  uint32_t rv = 0;
  EXPECT_TRUE(OpenSslVerifies(key.pub, msg, Sign(OpenWithKey(server.Url(), key.share).get(), msg, &rv)));
  struct stat st;
  ASSERT_EQ(stat(server.db().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

// EMSA-PKCS1-v1_5 of SHA-256(msg) for a k-byte modulus.
Bytes EncodedMessage(const Bytes &msg, size_t k) {
  const Bytes info = Cat({FromHex("3031300d060960864801650304020105000420"), zeph_test::Digest(EVP_sha256(), {msg})});
  Bytes m = {0x00, 0x01};
  m.resize(k - info.size() - 1, 0xFF);
  m.push_back(0x00);
  m.insert(m.end(), info.begin(), info.end());
  return m;
}

TEST(CosignServer, RsaSplitSignsForThePublicKey) {
  CosignServer server;
  const std::string id = Hex(RandomBytes(32, 7));
  const Posted made =
      Post(server, "BIVORSAGenKeyPair", R"({"containerID":")" + id + R"(","bits":2048,"deviceNumber":"dev"})");
  const Bytes n = ResultValue(made, "n"), e = ResultValue(made, "e"), d1 = ResultValue(made, "d1");
  ASSERT_EQ(n.size(), 256u);
  ASSERT_EQ(d1.size(), 256u);
  const Bytes msg = {'r', 's', 'a'};
  const Bytes m = EncodedMessage(msg, n.size());
  const Posted partial = Post(server, "BIVORSASignature", R"({"containerID":")" + id + R"(","m":")" + B64(m) + R"("})");
  const Bytes s2 = ResultValue(partial, "s2");
  ASSERT_EQ(s2.size(), 256u);

  // s = m^d1 · s2 mod n is the signature of the public key: s^e = m.
  BN_CTX *ctx = BN_CTX_new();
  Bn bn_n(BN_bin2bn(n.data(), 256, nullptr)), bn_m(BN_bin2bn(m.data(), 256, nullptr)),
      bn_d1(BN_bin2bn(d1.data(), 256, nullptr)), bn_s2(BN_bin2bn(s2.data(), 256, nullptr)),
      bn_e(BN_bin2bn(e.data(), Len(e), nullptr)), s(BN_new());
  BN_mod_exp(s.get(), bn_m.get(), bn_d1.get(), bn_n.get(), ctx);
  BN_mod_mul(s.get(), s.get(), bn_s2.get(), bn_n.get(), ctx);
  BN_mod_exp(s.get(), s.get(), bn_e.get(), bn_n.get(), ctx);
  EXPECT_EQ(BN_cmp(s.get(), bn_m.get()), 0);
  BN_CTX_free(ctx);

  // Only whole PKCS#1 v1.5 signature blocks are exponentiated.
  Bytes raw = m;
  raw[1] = 0x02;
  const Posted refused =
      Post(server, "BIVORSASignature", R"({"containerID":")" + id + R"(","m":")" + B64(raw) + R"("})");
  EXPECT_EQ(refused.status, 400);
}

// One row per refusal: what was posted, the status and the exact message.
TEST(CosignServer, BadRequestsGetStatusAndMessage) {
  CosignServer server({}, "/cosign/v1/");
  const Key key = CreateKey(server);
  const std::string id = std::string(R"("containerID":")") + key.id + R"(")", cut_id = key.id + 1;
  const std::string other_id = R"("containerID":")" + Hex(RandomBytes(32, 9)) + R"(")";
  const std::string point = B64(key.pub), digest = B64(RandomBytes(32, 3));
  Bytes off_curve = key.pub;
  off_curve[64] ^= 1;
  Bytes compressed = key.pub;
  compressed[0] = 0x02;
  const std::string sig_tail = R"(,"q1":")" + point + R"(","digest":")" + digest + R"("})";
  struct Row {
    std::string method, body;
    int status;
    std::string message;
  };
  // clang-format off
  const Row rows[] = {
    {"BIVOInit", "not json", 400, "request is not a JSON object"},
    {"BIVOInit", "[1]", 400, "request is not a JSON object"},
    {"BIVOSign", "{}", 404, "unknown method"},
    {"", "{}", 404, "unknown method"},
    {"BIVOSignature", "{" + other_id + sig_tail, 404, "unknown container"},
    {"BIVOSignature", "{" + id + R"(,"q1":")" + B64(off_curve) + R"(","digest":")" + digest + R"("})", 400,
     R"(missing or invalid "q1")"},
    {"BIVOSignature", "{" + id + R"(,"q1":")" + B64(compressed) + R"(","digest":")" + digest + R"("})", 400,
     R"(missing or invalid "q1")"},
    {"BIVOSignature", "{" + id + R"(,"q1":")" + point + R"(","digest":")" + B64(RandomBytes(31, 1)) + R"("})", 400,
     R"(missing or invalid "digest")"},
    {"BIVOSignature", "{" + id + R"(,"q1":")" + point + R"(","digest":")" + digest + R"(","signType":1})", 400,
     R"(missing or invalid "signType")"},
    {"BIVOSignature", "{" + id + R"(,"q1":")" + point.substr(1) + R"(","digest":")" + digest + R"("})", 400,
     R"(missing or invalid "q1")"},
    {"BIVOGenKeyPair", R"({"containerID":")" + cut_id + R"(","p1":")" + point + R"(","deviceNumber":"d"})",
     400, R"(missing or invalid "containerID")"},
    {"BIVOGenKeyPair", R"({"containerID":"G)" + cut_id + R"(","p1":")" + point + R"(","deviceNumber":"d"})",
     400, R"(missing or invalid "containerID")"},
    {"BIVOGenKeyPair", "{" + id + R"(,"p1":")" + point + R"(","deviceNumber":"d"})", 409, "container exists"},
    {"BIVOGenKeyPair", "{" + other_id + R"(,"p1":")" + point + R"(","deviceNumber":")" + std::string(130, 'x') +
     R"("})", 400, R"(missing or invalid "deviceNumber")"},
    {"BIVODecrypt", "{" + id + R"(,"t1":")" + B64(off_curve) + R"("})", 400, R"(missing or invalid "t1")"},
    {"BIVORSASignature", "{" + id + R"(,"m":"AAAA"})", 400, "container holds an SM2 key"},
    {"BIVORSAGenKeyPair", "{" + other_id + R"(,"bits":1024,"deviceNumber":"d"})", 400, R"(missing or invalid "bits")"},
    {"BIVOInit", "{\"pad\":\"" + std::string(20000, 'a') + "\"}", 413, "request too large"},
  };
  // clang-format on
  for (const Row &row : rows) {
    SCOPED_TRACE(row.method + " " + row.body.substr(0, 120));
    const Posted posted = Post(server, row.method, row.body);
    EXPECT_EQ(posted.status, row.status);
    cJSON *root = cJSON_Parse(posted.body.c_str());
    const cJSON *status = cJSON_GetObjectItem(root, "status"), *message = cJSON_GetObjectItem(root, "message");
    EXPECT_TRUE(cJSON_IsNumber(status) && status->valueint == row.status);
    EXPECT_TRUE(cJSON_IsString(message) && row.message == message->valuestring) << posted.body;
    cJSON_Delete(root);
  }
  // Outside the base path nothing is served.
  EXPECT_EQ(Post("http://127.0.0.1:" + std::to_string(server.port()) + "/BIVOInit", "{}").status, 404);
}

}  // namespace
