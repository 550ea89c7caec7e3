// The in-process co-signing service of the client tests.
#include "cosign_service.hpp"

#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <netinet/in.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "oracle.hpp"
#include "zeph_c_bivo_math.h"

namespace zeph_test {
namespace {

std::string Str(const Bytes &b) { return {b.begin(), b.end()}; }
Bytes Raw(const std::string &s) { return {s.begin(), s.end()}; }

std::string Field(cJSON *req, const char *key) {
  const cJSON *item = cJSON_GetObjectItemCaseSensitive(req, key);
  return cJSON_IsString(item) ? item->valuestring : "";
}

// Reads one request: the path's last segment and the body.
bool ReadRequest(int fd, std::string *method, std::string *body) {
  std::string data;
  char buf[4096];
  size_t head_end = std::string::npos;
  size_t want = 0;
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 5000) <= 0) return false;
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    data.append(buf, static_cast<size_t>(n));
    if (head_end == std::string::npos && (head_end = data.find("\r\n\r\n")) != std::string::npos) {
      const size_t cl = data.find("Content-Length:");
      want = cl == std::string::npos ? 0 : std::stoul(data.substr(cl + 15));
    }
    if (head_end != std::string::npos && data.size() >= head_end + 4 + want) break;
  }
  const std::string line = data.substr(0, data.find("\r\n"));
  const size_t sp1 = line.find(' '), sp2 = line.rfind(' ');
  const std::string path = line.substr(sp1 + 1, sp2 - sp1 - 1);
  *method = path.substr(path.rfind('/') + 1);
  *body = data.substr(head_end + 4, want);
  return true;
}

void WriteAll(int fd, const std::string &s) {
  size_t at = 0;
  while (at < s.size()) {
    const ssize_t n = write(fd, s.data() + at, s.size() - at);
    if (n <= 0) return;
    at += static_cast<size_t>(n);
  }
}

using BnPtr = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
BnPtr Bn(const std::string &s) {
  return {BN_bin2bn(reinterpret_cast<const uint8_t *>(s.data()), static_cast<int>(s.size()), nullptr), BN_free};
}
std::string Bin(const BIGNUM *b, int len) {
  std::string s(static_cast<size_t>(len), '\0');
  BN_bn2binpad(b, reinterpret_cast<uint8_t *>(s.data()), len);
  return s;
}

}  // namespace

EVP_PKEY *Sm2PointKey(const Bytes &point) {
  char group[] = "SM2";
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, group, 0),
      OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, const_cast<uint8_t *>(point.data()), point.size()),
      OSSL_PARAM_construct_end()};
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr);
  EVP_PKEY *key = nullptr;
  if (ctx == nullptr || EVP_PKEY_fromdata_init(ctx) != 1 ||
      EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_PUBLIC_KEY, params) != 1) {
    key = nullptr;
  }
  EVP_PKEY_CTX_free(ctx);
  return key;
}

CosignService::CosignService() {
  listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(listen_fd_, 8) != 0 ||
      getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&addr), &len) != 0 || pipe(stop_) != 0) {
    throw std::runtime_error("cosign service: no socket");
  }
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

CosignService::~CosignService() {
  (void)!write(stop_[1], "x", 1);
  thread_.join();
  close(listen_fd_);
  close(stop_[0]);
  close(stop_[1]);
}

void CosignService::set_tamper(Tamper t) {
  std::lock_guard<std::mutex> lock(mu_);
  tamper_ = std::move(t);
}

int CosignService::Count(const std::string &method) const {
  std::lock_guard<std::mutex> lock(mu_);
  const auto it = counts_.find(method);
  return it == counts_.end() ? 0 : it->second;
}

std::string CosignService::LastRequest(const std::string &method) const {
  std::lock_guard<std::mutex> lock(mu_);
  const auto it = last_.find(method);
  return it == last_.end() ? "" : it->second;
}

size_t CosignService::Containers() const {
  std::lock_guard<std::mutex> lock(mu_);
  return sm2_.size() + rsa_.size();
}

void CosignService::Serve() {
  for (;;) {
    pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) <= 0) continue;
    if (fds[1].revents != 0) return;
    const int fd = accept(listen_fd_, nullptr, nullptr);
    if (fd < 0) continue;
    std::string method, body;
    if (ReadRequest(fd, &method, &body)) {
      if (silent_) {
        // Hold the connection until the client gives up or the test ends.
        pollfd p[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
        poll(p, 2, 10000);
      } else {
        int status = 200;
        const std::string reply = Answer(method, body, &status);
        WriteAll(fd, "HTTP/1.0 " + std::to_string(status) + " X\r\nContent-Type: application/json\r\nContent-Length: " +
                         std::to_string(reply.size()) + "\r\n\r\n" + reply);
      }
    }
    close(fd);
  }
}

std::string CosignService::Answer(const std::string &method, const std::string &body, int *http_status) {
  std::lock_guard<std::mutex> lock(mu_);
  ++counts_[method];
  last_[method] = body;
  std::map<std::string, std::string> result;
  cJSON *req = cJSON_Parse(body.c_str());
  const std::string id = Field(req, "containerID");
  bool ok = req != nullptr;
  if (method == "BIVOInit") {
  } else if (method == "BIVOGenKeyPair") {
    const Bytes p1 = FromBase64(Field(req, "p1"));
    uint8_t d2[32], d2_inv[32], p[65], cred[65];
    ok = ok && p1.size() == 65 && BIVO_Server_CreateKeyShare(p1.data(), d2, d2_inv, p) == 0 &&
         BIVO_Server_CreateKeyShareCredential(d2_inv, cred) == 0;
    if (ok) {
      sm2_[id] = Str(Bytes(d2, d2 + 32)) + Str(Bytes(d2_inv, d2_inv + 32));
      result = {{"pubKey", Base64({p, p + 65})}, {"credential", Base64({cred, cred + 65})}};
    }
  } else if (method == "BIVOSignature") {
    const Bytes q1 = FromBase64(Field(req, "q1")), e = FromBase64(Field(req, "digest"));
    uint8_t r[32], s2[32], s3[32];
    ok = ok && sm2_.count(id) != 0 && q1.size() == 65 && e.size() == 32 &&
         BIVO_Server_CreateSigShare(e.data(), q1.data(), reinterpret_cast<const uint8_t *>(sm2_[id].data()), r, s2,
                                    s3) == 0;
    if (ok) result = {{"r", Base64({r, r + 32})}, {"s2", Base64({s2, s2 + 32})}, {"s3", Base64({s3, s3 + 32})}};
  } else if (method == "BIVODecrypt") {
    const Bytes t1 = FromBase64(Field(req, "t1"));
    uint8_t t2[65];
    ok = ok && sm2_.count(id) != 0 && t1.size() == 65 &&
         BIVO_Server_CreatePlaintextShare(t1.data(), reinterpret_cast<const uint8_t *>(sm2_[id].data()) + 32, t2) == 0;
    if (ok) result = {{"t2", Base64({t2, t2 + 65})}};
  } else if (method == "BIVORSAGenKeyPair") {
    const cJSON *bits = cJSON_GetObjectItemCaseSensitive(req, "bits");
    EVP_PKEY *key = EVP_RSA_gen(cJSON_IsNumber(bits) ? static_cast<unsigned>(bits->valueint) : 2048);
    BIGNUM *n = nullptr, *e = nullptr, *d = nullptr, *p = nullptr, *q = nullptr;
    ok = ok && key != nullptr && EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n) == 1 &&
         EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &e) == 1 &&
         EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_D, &d) == 1 &&
         EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_FACTOR1, &p) == 1 &&
         EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_FACTOR2, &q) == 1;
    if (ok) {
      // lambda(n) = lcm(p-1, q-1); d1 uniform below it, d2 = d - d1 mod lambda.
      BN_CTX *ctx = BN_CTX_new();
      BnPtr p1(BN_dup(p), BN_free), q1(BN_dup(q), BN_free), g(BN_new(), BN_free), lambda(BN_new(), BN_free),
          d1(BN_new(), BN_free), d2(BN_new(), BN_free);
      BN_sub_word(p1.get(), 1);
      BN_sub_word(q1.get(), 1);
      BN_gcd(g.get(), p1.get(), q1.get(), ctx);
      BN_mul(lambda.get(), p1.get(), q1.get(), ctx);
      BN_div(lambda.get(), nullptr, lambda.get(), g.get(), ctx);
      BN_rand_range(d1.get(), lambda.get());
      BN_mod_sub(d2.get(), d, d1.get(), lambda.get(), ctx);
      const int k = BN_num_bytes(n);
      rsa_[id] = {Bin(n, k), Bin(d2.get(), k)};
      result = {{"n", Base64(Raw(Bin(n, k)))},
                {"e", Base64(Raw(Bin(e, BN_num_bytes(e))))},
                {"d1", Base64(Raw(Bin(d1.get(), k)))}};
      BN_CTX_free(ctx);
    }
    for (BIGNUM *b : {n, e, d, p, q}) BN_clear_free(b);
    EVP_PKEY_free(key);
  } else if (method == "BIVORSASignature") {
    const Bytes m = FromBase64(Field(req, "m"));
    ok = ok && rsa_.count(id) != 0 && m.size() == rsa_[id].n.size();
    if (ok) {
      BN_CTX *ctx = BN_CTX_new();
      BnPtr bm = Bn(Str(m)), n = Bn(rsa_[id].n), d2 = Bn(rsa_[id].d2), s2(BN_new(), BN_free);
      BN_mod_exp(s2.get(), bm.get(), d2.get(), n.get(), ctx);
      result = {{"s2", Base64(Raw(Bin(s2.get(), static_cast<int>(m.size()))))}};
      BN_CTX_free(ctx);
    }
  } else {
    ok = false;
  }
  cJSON_Delete(req);
  std::string raw;
  *http_status = 200;
  if (tamper_) tamper_(method, &result, &raw, http_status);
  if (!raw.empty()) return raw;
  if (!ok) return R"({"status":400,"message":"bad request"})";
  if (method == "BIVOInit") return R"({"status":200})";
  cJSON *res = cJSON_CreateObject();
  for (const auto &[k, v] : result) cJSON_AddStringToObject(res, k.c_str(), v.c_str());
  cJSON *doc = cJSON_CreateObject();
  cJSON_AddNumberToObject(doc, "status", 200);
  if (result_object_) {
    cJSON_AddItemToObject(doc, "result", res);
  } else {
    char *text = cJSON_PrintUnformatted(res);
    cJSON_AddStringToObject(doc, "result", text);
    cJSON_free(text);
    cJSON_Delete(res);
  }
  char *out = cJSON_PrintUnformatted(doc);
  std::string reply(out);
  cJSON_free(out);
  cJSON_Delete(doc);
  return reply;
}

}  // namespace zeph_test
