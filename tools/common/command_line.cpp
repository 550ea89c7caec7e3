#include "command_line.hpp"

#include <cerrno>
#include <cstdlib>

namespace zeph_tools {

std::string CommandLine::Get(const std::string &option, const std::string &fallback) const {
  const auto it = options.find(option);
  return it != options.end() ? it->second : fallback;
}

bool ParseCommandLine(const std::vector<std::string> &argv, const OptionRules &rules, CommandLine *out,
                      std::string *error) {
  bool options_done = false;
  auto set = [&](const std::string &name, const std::string &value) {
    if (!out->options.emplace(name, value).second) {
      if (!rules.repeat_replaces) {
        *error = "option " + name + " given twice";
        return false;
      }
      out->options[name] = value;
    }
    return true;
  };
  for (size_t i = 0; i < argv.size(); ++i) {
    const std::string &a = argv[i];
    if (options_done || a.size() < 2 || a[0] != '-') {
      out->words.push_back(a);
    } else if (a == "--") {
      options_done = true;
    } else if (a == "--help" || a == "-h") {
      out->help = true;
    } else if (const size_t eq = a.find('='); eq != std::string::npos && rules.takes_value(a.substr(0, eq))) {
      if (!set(a.substr(0, eq), a.substr(eq + 1))) return false;
    } else if (rules.takes_value(a)) {
      if (i + 1 == argv.size()) {
        *error = "option " + a + " needs a value";
        return false;
      }
      if (!set(a, argv[++i])) return false;
    } else if (rules.is_flag && rules.is_flag(a)) {
      out->flags.insert(a);
    } else {
      *error = "unknown option " + a;
      return false;
    }
  }
  return true;
}

bool ParseNumber(const std::string &text, uint64_t lo, uint64_t hi, uint64_t *value) {
  if (text.empty()) return false;
  char *end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
  if (*end != '\0' || errno != 0 || v < lo || v > hi) return false;
  *value = v;
  return true;
}

}  // namespace zeph_tools
