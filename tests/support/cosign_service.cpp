// The in-process co-signing service of the client tests, in front of the
// reference service.
#include "cosign_service.hpp"

#include <cstdlib>

#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <netinet/in.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zeph_test {
namespace {

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

// Posts the request to the reference service on port and reads its reply
// to the end: the body, with the HTTP status in *http_status (0: no reply).
std::string Forward(int port, const std::string &method, const std::string &body, int *http_status) {
  *http_status = 0;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  std::string reply;
  if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
    WriteAll(fd, "POST /" + method +
                     " HTTP/1.0\r\nConnection: close\r\nContent-Type: application/json\r\n"
                     "Content-Length: " +
                     std::to_string(body.size()) + "\r\n\r\n" + body);
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) reply.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  const size_t head_end = reply.find("\r\n\r\n");
  if (reply.compare(0, 7, "HTTP/1.") != 0 || head_end == std::string::npos) return "";
  *http_status = std::atoi(reply.c_str() + 9);
  return reply.substr(head_end + 4);
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
  return containers_.size();
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
  const std::string reply = Forward(server_.port(), method, body, http_status);
  // The members of "result", a text holding a JSON object.
  std::map<std::string, std::string> result;
  cJSON *doc = cJSON_Parse(reply.c_str());
  const cJSON *text = cJSON_GetObjectItemCaseSensitive(doc, "result");
  cJSON *res = cJSON_IsString(text) ? cJSON_Parse(text->valuestring) : nullptr;
  for (const cJSON *m = res != nullptr ? res->child : nullptr; m != nullptr; m = m->next) {
    if (cJSON_IsString(m)) result[m->string] = m->valuestring;
  }
  const bool answered = res != nullptr;
  cJSON_Delete(res);
  cJSON_Delete(doc);
  if (answered && method.find("GenKeyPair") != std::string::npos) {
    cJSON *req = cJSON_Parse(body.c_str());
    const cJSON *id = cJSON_GetObjectItemCaseSensitive(req, "containerID");
    if (cJSON_IsString(id)) containers_.insert(id->valuestring);
    cJSON_Delete(req);
  }
  std::string raw;
  if (tamper_) tamper_(method, &result, &raw, http_status);
  if (!raw.empty()) return raw;
  // Refusals and the greeting go out as the service sent them.
  if (!answered) return reply;
  cJSON *out = cJSON_CreateObject();
  for (const auto &[k, v] : result) cJSON_AddStringToObject(out, k.c_str(), v.c_str());
  doc = cJSON_CreateObject();
  cJSON_AddNumberToObject(doc, "status", 200);
  if (result_object_) {
    cJSON_AddItemToObject(doc, "result", out);
  } else {
    char *printed = cJSON_PrintUnformatted(out);
    cJSON_AddStringToObject(doc, "result", printed);
    cJSON_free(printed);
    cJSON_Delete(out);
  }
  char *printed = cJSON_PrintUnformatted(doc);
  std::string answer(printed);
  cJSON_free(printed);
  cJSON_Delete(doc);
  return answer;
}

}  // namespace zeph_test
