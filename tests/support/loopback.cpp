#include "loopback.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef ZEPH_TEST_PEER
#define ZEPH_TEST_PEER "zeph-test-peer"
#endif

extern char **environ;

namespace zeph_test {

Child::Child(const std::vector<std::string> &argv, bool quiet_stderr) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  if (pipe2(out, O_CLOEXEC) != 0) {
    close(in[0]);
    close(in[1]);
    throw std::runtime_error("pipe");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  if (quiet_stderr) posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<char *> args;
  for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  const int rc = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  in_ = in[1];
  out_ = out[0];
  if (rc != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + argv[0]);
  }
}

Child::~Child() {
  CloseInput();
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
}

bool Child::Write(const std::string &data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(in_, data.data() + done, data.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

void Child::CloseInput() {
  if (in_ >= 0) close(in_);
  in_ = -1;
}

std::string Child::ReadLine() {
  return ReadUntil([](const std::string &s) { return !s.empty() && s.back() == '\n'; });
}

std::string Child::ReadUntil(const std::function<bool(const std::string &)> &done) {
  std::string s;
  char ch[1];
  while (!done(s)) {
    // A byte at a time: nothing past what `done` asked for is swallowed.
    const ssize_t n = read(out_, ch, 1);
    if (n <= 0) break;
    s.append(ch, static_cast<size_t>(n));
  }
  return s;
}

int ListeningPort(pid_t pid) {
  for (;;) {
    std::vector<std::string> inodes;
    const std::string fd_dir = "/proc/" + std::to_string(pid) + "/fd/";
    for (int fd = 0; fd < 64; ++fd) {
      char link[128];
      const ssize_t n = readlink((fd_dir + std::to_string(fd)).c_str(), link, sizeof link - 1);
      if (n <= 0) continue;
      link[n] = '\0';
      unsigned long ino = 0;
      if (std::sscanf(link, "socket:[%lu]", &ino) == 1) inodes.push_back(std::to_string(ino));
    }
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
      std::ifstream in(table);
      std::string line;
      while (std::getline(in, line)) {
        char local[128], remote[128], state[8];
        unsigned long ino = 0;
        if (std::sscanf(line.c_str(), "%*s %127s %127s %7s %*s %*s %*s %*s %*s %lu", local, remote, state, &ino) != 4)
          continue;
        if (std::string(state) != "0A") continue;
        for (const auto &i : inodes) {
          if (i == std::to_string(ino)) return static_cast<int>(std::strtol(std::strchr(local, ':') + 1, nullptr, 16));
        }
      }
    }
    if (waitpid(pid, nullptr, WNOHANG) != 0) throw std::runtime_error("the server exited before listening");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

namespace {

const char kExtensions[] = R"([ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
[server]
subjectAltName = IP:127.0.0.1, DNS:localhost
extendedKeyUsage = serverAuth
[other]
subjectAltName = DNS:other.example
extendedKeyUsage = serverAuth
[tsa]
extendedKeyUsage = critical, timeStamping
keyUsage = critical, digitalSignature
)";

std::string TsaSection(const std::string &name, const std::string &dir, const std::string &signer,
                       const std::string &digests) {
  return "[ " + name + " ]\ndir = " + dir +
         "\nserial = $ENV::ZEPH_TSA_SERIAL\ncrypto_device = builtin\nsigner_cert = $dir/" + signer +
         ".pem\ncerts = $dir/ca.pem\nsigner_key = $dir/" + signer +
         ".key\nsigner_digest = sha256\ndefault_policy = 1.2.3.4.1\nother_policies = 1.2.3.4.5.6\ndigests = " +
         digests +
         "\naccuracy = secs:1, millisecs:500, microsecs:100\nclock_precision_digits = 0\nordering = yes\ntsa_name = "
         "yes\ness_cert_id_chain = no\ness_cert_id_alg = sha256\n";
}

// Makes the PKI in `work`; its files name `d`, where it will stand.
void MakePki(const std::string &work, const std::string &d) {
  WriteText(work + "/ext.cnf", kExtensions);
  const std::string key = "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ";
  const auto ca = [&](const std::string &name, const std::string &cn) {
    RunIn(work, key + name + ".key");
    RunIn(work, "openssl req -x509 -new -key " + name + ".key -subj '/CN=" + cn + "' -days 3650 -out " + name +
                    ".pem -config ext.cnf -extensions ca");
  };
  const auto leaf = [&](const std::string &name, const std::string &issuer, const std::string &ext) {
    RunIn(work, key + name + ".key");
    RunIn(work, "openssl req -new -key " + name + ".key -subj '/CN=zeph " + name + "' -out " + name + ".csr");
    static int serial = 100;
    RunIn(work, "openssl x509 -req -in " + name + ".csr -CA " + issuer + ".pem -CAkey " + issuer + ".key -set_serial " +
                    std::to_string(++serial) + " -days 3650 -out " + name + ".pem -extfile ext.cnf -extensions " + ext);
  };
  ca("ca", "zeph test CA");
  ca("stray-ca", "zeph stray CA");
  leaf("server", "ca", "server");
  leaf("other", "ca", "other");
  leaf("tsa", "ca", "tsa");
  leaf("stray-tsa", "stray-ca", "tsa");
  RunIn(work,
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout self.key -out self.pem "
        "-subj '/CN=127.0.0.1' -days 3650 -addext subjectAltName=IP:127.0.0.1");
  WriteText(work + "/tsa.cnf", "[ tsa ]\ndefault_tsa = tsa_ok\n" +
                                   TsaSection("tsa_ok", d, "tsa", "sha1, sha256, sha384, sha512, sm3") +
                                   TsaSection("tsa_sha256", d, "tsa", "sha256") +
                                   TsaSection("tsa_stray", d, "stray-tsa", "sha1, sha256, sha384, sha512, sm3"));
}

// The PKI of this build's tests, shared by every test process, with a
// serial-number file of each process's own for the TSA.
std::unique_ptr<TestPki> LoadPki() {
  static TempDir own;
  const std::string d = MadeOnce("test-pki-1", MakePki);
  WriteText(own.file("tsa.serial"), "01\n");
  setenv("ZEPH_TSA_SERIAL", own.file("tsa.serial").c_str(), 1);
  auto pki = std::make_unique<TestPki>();
  pki->ca = d + "/ca.pem";
  pki->server_cert = d + "/server.pem";
  pki->server_key = d + "/server.key";
  pki->other_cert = d + "/other.pem";
  pki->other_key = d + "/other.key";
  pki->self_cert = d + "/self.pem";
  pki->self_key = d + "/self.key";
  pki->stray_ca = d + "/stray-ca.pem";
  pki->tsa_config = d + "/tsa.cnf";
  return pki;
}

}  // namespace

const TestPki &TestPki::Get() {
  static const std::unique_ptr<TestPki> pki = LoadPki();
  return *pki;
}

Peer::Peer(bool tls)
    : child_([&] {
        std::vector<std::string> argv = {ZEPH_TEST_PEER, "--dir", dir_.path().string(), "--tsa-config",
                                         TestPki::Get().tsa_config};
        if (tls) argv.insert(argv.end(), {"--tls", TestPki::Get().server_cert, TestPki::Get().server_key});
        return argv;
      }()) {
  port_ = std::atoi(child_.ReadLine().c_str());
  if (port_ <= 0) throw std::runtime_error("the peer did not report its port");
}

std::string Peer::Recorded(const std::string &name) const {
  const auto bytes = ReadBytes(dir_.file(name + ".req"));
  return {bytes.begin(), bytes.end()};
}

void Peer::Can(const std::string &file, const std::string &bytes) const { WriteText(dir_.file(file), bytes); }

OneShotTlsServer::OneShotTlsServer(const std::string &cert, const std::string &key, std::string reply)
    : child_({"openssl", "s_server", "-accept", "127.0.0.1:0", "-naccept", "1", "-quiet", "-cert", cert, "-key", key},
             true),
      reply_(std::move(reply)) {
  signal(SIGPIPE, SIG_IGN);  // the server may be gone when the reply is written
  port_ = ListeningPort(child_.pid());
  thread_ = std::thread([this] {
    // A whole request: the header and Content-Length bytes of body.
    request_ = child_.ReadUntil([](const std::string &s) {
      const size_t end = s.find("\r\n\r\n");
      if (end == std::string::npos) return false;
      const size_t cl = s.find("Content-Length: ");
      return cl == std::string::npos || s.size() >= end + 4 + std::strtoul(s.c_str() + cl + 16, nullptr, 10);
    });
    if (!request_.empty()) child_.Write(reply_);
    child_.CloseInput();
    child_.ReadUntil([](const std::string &) { return false; });  // until s_server exits
  });
}

OneShotTlsServer::~OneShotTlsServer() {
  if (thread_.joinable()) {
    kill(child_.pid(), SIGTERM);
    thread_.join();
  }
}

std::string OneShotTlsServer::Request() {
  if (thread_.joinable()) thread_.join();
  return request_;
}

}  // namespace zeph_test
