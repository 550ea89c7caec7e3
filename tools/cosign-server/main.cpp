// zeph-cosign-server: the reference co-signing service.
//
//   zeph-cosign-server --db FILE [--host ADDR] [--port N] [--base-path PATH]
//                      [--cert PEM --key PEM] [--threads N] [--connection-seconds N]
//                      [--fault METHOD:KIND]...
//
// Serves the co-signing methods as POST BASE-PATH<method> on 127.0.0.1 by
// default and prints the port it listens on (useful with --port 0) on
// standard output. SIGTERM or SIGINT ends it cleanly. docs/cosign.md has the
// protocol and the store.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include "connections.hpp"
#include "service.hpp"
#include "store.hpp"

namespace {

namespace cosign = zeph::cosign;

constexpr const char *kUsage =
    "usage: zeph-cosign-server --db FILE [--host ADDR] [--port N] [--base-path PATH]\n"
    "                          [--cert PEM --key PEM] [--threads N] [--connection-seconds N]\n"
    "                          [--fault METHOD:drop|garbage|delay=MS|bad_credential|r_zero]...\n";

struct Options {
  std::string db, host = "127.0.0.1", base_path = "/", cert, key;
  int port = 0, threads = 16, connection_seconds = 30;
  std::vector<std::string> faults;
};

bool Number(const std::string &text, int lo, int hi, int *out) {
  char *end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < lo || value > hi) return false;
  *out = static_cast<int>(value);
  return true;
}

bool ParseOptions(int argc, char **argv, Options *opt, std::string *why) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "-h" || name == "--help") {
      *why = "";
      return false;
    }
    if (i + 1 >= argc) {
      *why = name + " needs a value";
      return false;
    }
    const std::string value = argv[++i];
    bool ok = true;
    if (name == "--db") {
      opt->db = value;
    } else if (name == "--host") {
      opt->host = value;
    } else if (name == "--port") {
      ok = Number(value, 0, 65535, &opt->port);
    } else if (name == "--base-path") {
      opt->base_path = value;
      ok = value.starts_with("/");
    } else if (name == "--cert") {
      opt->cert = value;
    } else if (name == "--key") {
      opt->key = value;
    } else if (name == "--threads") {
      ok = Number(value, 1, 256, &opt->threads);
    } else if (name == "--connection-seconds") {
      ok = Number(value, 1, 3600, &opt->connection_seconds);
    } else if (name == "--fault") {
      opt->faults.push_back(value);
    } else {
      *why = "unknown option " + name;
      return false;
    }
    if (!ok) {
      *why = "bad value for " + name + ": " + value;
      return false;
    }
  }
  if (opt->db.empty()) *why = "--db is required";
  if (opt->cert.empty() != opt->key.empty()) *why = "--cert and --key go together";
  return why->empty();
}

// Stop requests from the signal thread to sleeping delays and the reaper.
struct Stopping {
  std::mutex mutex;
  std::condition_variable cv;
  bool stop = false;

  // Sleeps up to `ms`; false when the service is stopping.
  bool Sleep(std::chrono::milliseconds ms) {
    std::unique_lock lock(mutex);
    return !cv.wait_for(lock, ms, [this] { return stop; });
  }
  void Set() {
    {
      std::lock_guard lock(mutex);
      stop = true;
    }
    cv.notify_all();
  }
};

const char *Reason(int status) {
  switch (status) {
    case 400:
      return "bad request";
    case 404:
      return "unknown method";
    case 413:
      return "request too large";
    case 414:
      return "request line too long";
    default:
      return status >= 500 ? "internal error" : "bad request";
  }
}

void SetJson(httplib::Response &res, int status, const std::string &body) {
  res.status = status;
  res.set_content(body, "application/json");
}

}  // namespace

int main(int argc, char **argv) {
  Options opt;
  std::string why;
  if (!ParseOptions(argc, argv, &opt, &why)) {
    if (!why.empty()) std::fprintf(stderr, "zeph-cosign-server: %s\n", why.c_str());
    std::fputs(kUsage, stderr);
    return why.empty() ? 0 : 2;
  }
  std::vector<std::pair<std::string, cosign::Fault>> faults;
  for (const auto &text : opt.faults) {
    std::string method;
    cosign::Fault fault;
    if (!cosign::ParseFault(text, &method, &fault, &why)) {
      std::fprintf(stderr, "zeph-cosign-server: %s\n", why.c_str());
      return 2;
    }
    faults.emplace_back(method, fault);
  }

  // Every thread started from here on leaves SIGTERM and SIGINT to sigwait.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  std::unique_ptr<cosign::ShareStore> store = cosign::ShareStore::Open(opt.db, &why);
  if (!store) {
    std::fprintf(stderr, "zeph-cosign-server: %s\n", why.c_str());
    return 1;
  }
  cosign::Service service(store.get());
  for (const auto &[method, fault] : faults) service.SetFault(method, fault);

  std::unique_ptr<httplib::Server> server;
  if (!opt.cert.empty()) {
    server = std::make_unique<httplib::SSLServer>(opt.cert.c_str(), opt.key.c_str());
  } else {
    server = std::make_unique<httplib::Server>();
  }
  if (!server->is_valid()) {
    std::fprintf(stderr, "zeph-cosign-server: cannot use %s and %s\n", opt.cert.c_str(), opt.key.c_str());
    return 1;
  }

  Stopping stopping;
  const int threads = opt.threads;
  server->new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
  server->set_payload_max_length(cosign::kMaxRequestBytes);
  server->set_read_timeout(5);
  server->set_write_timeout(5);
  server->set_keep_alive_timeout(5);
  server->set_tcp_nodelay(true);
  server->set_error_handler([](const httplib::Request &, httplib::Response &res) {
    if (res.body.empty()) {
      SetJson(res, res.status,
              "{\"status\":" + std::to_string(res.status) + ",\"message\":\"" + Reason(res.status) + "\"}");
    }
  });
  server->set_logger([](const httplib::Request &req, const httplib::Response &res) {
    std::fprintf(stderr, "%s %s %d\n", req.method.c_str(), req.path.c_str(), res.status);
  });
  int port = 0;
  const std::string base = opt.base_path;
  server->Post(".*", [&](const httplib::Request &req, httplib::Response &res) {
    if (!req.path.starts_with(base)) {
      SetJson(res, 404, "{\"status\":404,\"message\":\"unknown method\"}");
      return;
    }
    const cosign::Answer answer = service.Handle(std::string_view(req.path).substr(base.size()), req.body);
    if (answer.drop) {
      cosign::CutConnection(port, req.remote_port);
      res.status = 500;
      return;
    }
    if (answer.delay_ms != 0) stopping.Sleep(std::chrono::milliseconds(answer.delay_ms));
    SetJson(res, answer.status, answer.body);
  });

  port =
      opt.port == 0 ? server->bind_to_any_port(opt.host) : (server->bind_to_port(opt.host, opt.port) ? opt.port : -1);
  if (port <= 0) {
    std::fprintf(stderr, "zeph-cosign-server: cannot listen on %s:%d\n", opt.host.c_str(), opt.port);
    return 1;
  }
  std::printf("%d\n", port);
  std::fflush(stdout);

  // A stop that comes before the server has started listening is repeated
  // until listening ends.
  std::atomic<bool> listening_over{false};
  std::thread signals([&] {
    int signal_number = 0;
    sigwait(&stop_signals, &signal_number);
    stopping.Set();
    while (!listening_over) {
      server->stop();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  std::thread reaper([&] {
    cosign::ConnectionReaper sweeper(port, std::chrono::seconds(opt.connection_seconds));
    while (stopping.Sleep(std::chrono::milliseconds(500))) sweeper.Sweep();
  });

  const bool served = server->listen_after_bind();
  listening_over = true;
  // Wake the signal thread when listening ended on its own.
  kill(getpid(), SIGTERM);
  signals.join();
  reaper.join();
  return served ? 0 : 1;
}
