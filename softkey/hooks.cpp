#include "hooks.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace softkey {

namespace {

struct Rule {
  std::string fn;
  uint64_t nth = 0;  // 0: every call
  ULONG status = 0;
};

// One rule of ZEPH_SOFTKEY_FAULT, or nothing when it is malformed.
std::optional<Rule> ParseRule(const std::string &entry) {
  const size_t c1 = entry.find(':');
  const size_t c2 = c1 == std::string::npos ? c1 : entry.find(':', c1 + 1);
  if (c2 == std::string::npos || c1 == 0) return std::nullopt;
  Rule r;
  r.fn = entry.substr(0, c1);
  const std::string nth = entry.substr(c1 + 1, c2 - c1 - 1), status = entry.substr(c2 + 1);
  char *stop = nullptr;
  if (nth != "*") {
    r.nth = std::strtoull(nth.c_str(), &stop, 10);
    if (nth.empty() || *stop != '\0' || r.nth == 0) return std::nullopt;
  }
  errno = 0;
  const unsigned long long st = std::strtoull(status.c_str(), &stop, 0);
  if (status.empty() || *stop != '\0' || errno != 0 || st > 0xFFFFFFFFull) return std::nullopt;
  r.status = static_cast<ULONG>(st);
  return r;
}

struct FaultState {
  std::string text;  // the value the rules were parsed from
  std::vector<Rule> rules;
  std::map<std::string, uint64_t> counts;

  void Reset(const std::string &value) {
    text = value;
    rules.clear();
    counts.clear();
    size_t pos = 0;
    while (pos < text.size()) {
      const size_t end = text.find_first_of(",; \t\n", pos);
      if (auto r = ParseRule(text.substr(pos, end == std::string::npos ? std::string::npos : end - pos)))
        rules.push_back(std::move(*r));
      pos = end == std::string::npos ? text.size() : end + 1;
    }
  }
};

FaultState &Faults() {
  // Never destroyed: entry points may run during process exit.
  static FaultState *state = new FaultState;
  return *state;
}

}  // namespace

std::optional<ULONG> InjectedFault(const char *fn) {
  FaultState &f = Faults();
  const char *env = std::getenv("ZEPH_SOFTKEY_FAULT");
  if (const std::string value = env != nullptr ? env : ""; value != f.text) f.Reset(value);
  std::optional<ULONG> hit;
  bool counted = false;
  for (const auto &r : f.rules) {
    if (r.fn != fn) continue;
    if (!counted) {
      ++f.counts[r.fn];
      counted = true;
    }
    if (!hit && (r.nth == 0 || r.nth == f.counts[r.fn])) hit = r.status;
  }
  return hit;
}

void TraceCall(const char *fn, In in, const void *out, ULONG rv) {
  const char *path = std::getenv("ZEPH_SOFTKEY_TRACE");
  if (path == nullptr || *path == '\0') return;
  char line[256];
  int n = std::snprintf(line, sizeof line, "%s", fn);
  if (in.present) n += std::snprintf(line + n, sizeof line - n, " in=0x%lx", reinterpret_cast<unsigned long>(in.h));
  if (out != nullptr) n += std::snprintf(line + n, sizeof line - n, " out=0x%lx", reinterpret_cast<unsigned long>(out));
  n += std::snprintf(line + n, sizeof line - n, " rv=0x%08X\n", rv);
  // One write per line with O_APPEND: lines of several processes never mix.
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const ssize_t written = ::write(fd, line, static_cast<size_t>(n));
  (void)written;  // a trace is best effort
  ::close(fd);
}

}  // namespace softkey
