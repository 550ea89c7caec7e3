// Command lines the end-to-end tests run: the zeph host as a user runs it,
// and shell scripts (mostly the openssl tool) run in a folder of files.
#pragma once

#include <cstdint>
#include <string>

#include "test_support.hpp"

namespace zeph_it {

struct ToolRun {
  int code = -1;
  std::string out;  // standard error folded in
};

// "zeph <args>" through the shell.
inline ToolRun Zeph(const std::string &args) {
  ToolRun r;
  r.code = zeph_test::Shell("'" ZEPH_TOOL "' " + args, &r.out);
  return r;
}

// Runs script in dir, its output into dir/run.log; true when it succeeds.
inline bool RunIn(const std::string &dir, const std::string &script) {
  return zeph_test::Shell("cd '" + dir + "' && { " + script + " ; } >run.log 2>&1") == 0;
}

// "m3.der" and the like (appended piece by piece: GCC 12 warns falsely on
// chained operator+).
inline std::string Name(const char *prefix, size_t i, const char *suffix = "") {
  std::string s(prefix);
  s.append(std::to_string(i)).append(suffix);
  return s;
}

}  // namespace zeph_it
