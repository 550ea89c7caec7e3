// The zeph command-line host: shared pieces for command groups.
//
// A group lives in its own cmd_<group>.cpp and registers itself:
//
//   static int RunHash(const zeph_cli::Args &args) { ... }
//   ZEPH_CLI_GROUP(hash, "hash a file", "hash [--alg ALG] FILE...", RunHash, {"--alg"});
//
// The last argument lists the options that take a value ({} for none); a
// further list may name flags that take none: ..., {"--out"}, {"--json"});
//
// main.cpp finds the group by the first argument and hands it the rest,
// parsed. Exit status: 0 done, 1 the operation failed, 2 a usage error.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/command_line.hpp"
#include "common/io.hpp"
#include "common/status.hpp"

namespace zeph_cli {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Arguments after the group name: options that take a value ("--key HEX" or
// "--key=HEX"), and the words in order ("--" ends the options).
using Args = zeph_tools::CommandLine;

struct Group {
  const char *name;
  const char *summary;  // one line for "zeph help"
  const char *usage;    // the lines after "usage: zeph "
  int (*run)(const Args &args);
  std::vector<std::string> value_options;
  std::vector<std::string> flag_options = {};  // options without a value ("--json"); Has() tells
};

bool RegisterGroup(Group group);
const std::vector<Group> &Groups();  // sorted by name
const Group *FindGroup(const std::string &name);

// Splits argv after the group name; false with a message on an unknown or
// incomplete option.
bool ParseArgs(const Group &group, const std::vector<std::string> &argv, Args *args, std::string *error);

// Messages on standard error, prefixed "zeph <group>: "; they return the exit status.
int UsageError(const Group &group, const std::string &message);
int Fail(const Group &group, const std::string &message);
// The shared plumbing (tools/common), under the names the groups use.
using zeph_tools::ParseHex;
using zeph_tools::ReadInput;
using zeph_tools::StatusText;  // "0x8208000E ERR_DIGEST_FAILED"
using zeph_tools::ToLowerHex;
using zeph_tools::WriteOutput;
using zeph_tools::WriteStdout;

}  // namespace zeph_cli

#define ZEPH_CLI_CONCAT2(a, b) a##b
#define ZEPH_CLI_CONCAT(a, b)  ZEPH_CLI_CONCAT2(a, b)
#define ZEPH_CLI_GROUP(name, summary, usage, run, ...)            \
  static const bool ZEPH_CLI_CONCAT(zeph_cli_registered_, name) = \
      ::zeph_cli::RegisterGroup(::zeph_cli::Group{#name, summary, usage, run, __VA_ARGS__})
