// Plumbing shared by the command-line tools (zeph, zeph-softkey): command
// lines, whole inputs and outputs, hex, status texts. Each tool keeps its
// own messages and exit codes; these pieces only report what went wrong.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace zeph_tools {

// A command line split into words, options that take a value ("--key HEX" or
// "--key=HEX") and flags. "--" ends the options; "-" alone is a word
// (standard input).
struct CommandLine {
  std::vector<std::string> words;
  std::map<std::string, std::string> options;  // by name as written: "--key"
  std::set<std::string> flags;
  bool help = false;  // -h or --help

  bool Has(const std::string &option) const { return options.count(option) != 0 || flags.count(option) != 0; }
  std::string Get(const std::string &option, const std::string &fallback = "") const;
};

struct OptionRules {
  std::function<bool(const std::string &)> takes_value;
  std::function<bool(const std::string &)> is_flag;  // none when empty
  bool repeat_replaces = true;                       // false: an option given twice is a mistake
};

// False with a message on an unknown, incomplete or repeated option; what was
// read up to there (help included) stays in *out.
bool ParseCommandLine(const std::vector<std::string> &argv, const OptionRules &rules, CommandLine *out,
                      std::string *error);

// A whole number from lo to hi, decimal or 0x hex.
bool ParseNumber(const std::string &text, uint64_t lo, uint64_t hi, uint64_t *value);

}  // namespace zeph_tools
