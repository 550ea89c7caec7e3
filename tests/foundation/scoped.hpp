// Process state the foundation tests change and put back: working directory,
// environment variables (TZ re-read), the log callback.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "zeph_c_utils.h"

namespace zeph_test {

class ScopedCwd {
 public:
  explicit ScopedCwd(const std::filesystem::path &dir) : saved_(std::filesystem::current_path()) {
    std::filesystem::current_path(dir);
  }
  ~ScopedCwd() { std::filesystem::current_path(saved_); }

 private:
  std::filesystem::path saved_;
};

class ScopedEnv {
 public:
  ScopedEnv(const char *name, const char *value) : name_(name) {
    if (const char *old = std::getenv(name)) saved_ = old;
    if (value != nullptr) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
    tzset();
  }
  ~ScopedEnv() {
    if (saved_) {
      setenv(name_.c_str(), saved_->c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
    tzset();
  }

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

// Collects the records handed to the log callback while it lives.
class LogCapture {
 public:
  LogCapture() {
    Records().clear();
    setLogCallback(&Collect);
  }
  ~LogCapture() { setLogCallback(nullptr); }
  static std::vector<std::string> &Records() {
    static std::vector<std::string> records;
    return records;
  }

 private:
  static void Collect(const char *record) { Records().emplace_back(record); }
};

}  // namespace zeph_test
