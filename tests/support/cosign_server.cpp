#include "cosign_server.hpp"

#include <csignal>
#include <stdexcept>

#ifndef ZEPH_COSIGN_SERVER
#define ZEPH_COSIGN_SERVER "zeph-cosign-server"
#endif

namespace zeph_test {

CosignServer::CosignServer(std::vector<std::string> faults, std::string base_path, bool tls)
    : faults_(std::move(faults)), base_path_(std::move(base_path)), tls_(tls) {
  Start();
}

void CosignServer::Start() {
  child_.reset();
  std::vector<std::string> argv = {ZEPH_COSIGN_SERVER, "--db", db(), "--port", "0", "--base-path", base_path_};
  for (const auto &fault : faults_) argv.insert(argv.end(), {"--fault", fault});
  if (tls_) argv.insert(argv.end(), {"--cert", TestPki::Get().server_cert, "--key", TestPki::Get().server_key});
  child_ = std::make_unique<Child>(argv, true);
  port_ = std::atoi(child_->ReadLine().c_str());
  if (port_ <= 0) throw std::runtime_error("zeph-cosign-server did not report its port");
}

void CosignServer::Kill() {
  if (child_) kill(child_->pid(), SIGKILL);
  child_.reset();  // reaps it
  port_ = 0;
}

std::string CosignServer::Url(const std::string &method) const {
  return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + base_path_ + method;
}

}  // namespace zeph_test
