// zeph monitor: prints the list of plugged-in keys each time it changes,
// as the library's device monitor reports it, until interrupted or after
// --count reports.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <string>

#include <unistd.h>

#include "ci_client.hpp"
#include "zeph_c_device.h"

namespace {

int RunMonitor(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(monitor, "print the plugged-in keys whenever they change",
               "monitor [--count N]\n"
               "   One line per change: the device list (JSON) the monitor reports, first the list found\n"
               "   at start (unless empty). Ends on Ctrl-C, or after N reports; --config PATH as for ci.",
               RunMonitor, {"--config", "--count"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("monitor"); }

std::atomic<long> g_reports{0};
std::atomic<bool> g_stop{false};

// On the monitor thread.
void Print(const char *list) {
  std::printf("%s\n", list[0] != '\0' ? list : "[]");
  std::fflush(stdout);
  g_reports.fetch_add(1);
}

void OnSignal(int) { g_stop.store(true); }

int RunMonitor(const zeph_cli::Args &args) {
  if (!args.words.empty()) return zeph_cli::UsageError(Self(), "no words expected");
  long count = 0;
  if (args.Has("--count")) {
    const std::string n = args.Get("--count");
    if (n.empty() || n.size() > 9 || n.find_first_not_of("0123456789") != std::string::npos) {
      return zeph_cli::UsageError(Self(), "--count takes a number");
    }
    count = std::stol(n);
  }
  std::string error;
  if (!zeph_cli::ApplyConfig(args, &error)) return zeph_cli::Fail(Self(), error);
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  const uint32_t rv = startCryptoDeviceMonitor(Print);
  if (rv != 0) return zeph_cli::Fail(Self(), "cannot start the monitor: " + zeph_cli::StatusText(rv));
  while (!g_stop.load() && (count == 0 || g_reports.load() < count)) usleep(50 * 1000);
  stopCryptoDeviceMonitor();
  return zeph_cli::kOk;
}

}  // namespace
