// Process state the foundation tests change and put back: working directory,
// environment variables (TZ re-read), the log callback.
#pragma once

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "test_support.hpp"
#include "zeph_c_utils.h"

namespace zeph_test {

struct ScopedCwd {
  std::filesystem::path saved = std::filesystem::current_path();
  explicit ScopedCwd(const std::filesystem::path &dir) { std::filesystem::current_path(dir); }
  ~ScopedCwd() { std::filesystem::current_path(saved); }
};

struct ScopedEnv {
  std::string name;
  std::optional<std::string> saved;
  ScopedEnv(const char *n, const char *value) : name(n) {
    if (const char *old = std::getenv(n)) saved = old;
    value != nullptr ? setenv(n, value, 1) : unsetenv(n);
    tzset();
  }
  ~ScopedEnv() {
    saved ? setenv(name.c_str(), saved->c_str(), 1) : unsetenv(name.c_str());
    tzset();
  }
};

// Collects the records handed to the log callback while it lives.
struct LogCapture {
  static std::vector<std::string> &Records() {
    static std::vector<std::string> records;
    return records;
  }
  LogCapture() {
    Records().clear();
    setLogCallback([](const char *record) { Records().emplace_back(record); });
  }
  ~LogCapture() { setLogCallback(nullptr); }
};

}  // namespace zeph_test
