// Shared pieces of the command-line host: group registry, argument parsing,
// messages.
#include "cli.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zeph_cli {

namespace {

std::vector<Group> &Registry() {
  static std::vector<Group> groups;
  return groups;
}

bool Lists(const std::vector<std::string> &options, const std::string &option) {
  return std::find(options.begin(), options.end(), option) != options.end();
}

}  // namespace

bool RegisterGroup(Group group) {
  auto &groups = Registry();
  const auto at = std::lower_bound(groups.begin(), groups.end(), group,
                                   [](const Group &a, const Group &b) { return std::strcmp(a.name, b.name) < 0; });
  groups.insert(at, std::move(group));
  return true;
}

const std::vector<Group> &Groups() { return Registry(); }

const Group *FindGroup(const std::string &name) {
  for (const auto &g : Registry()) {
    if (name == g.name) return &g;
  }
  return nullptr;
}

bool ParseArgs(const Group &group, const std::vector<std::string> &argv, Args *args, std::string *error) {
  const zeph_tools::OptionRules rules{[&](const std::string &option) { return Lists(group.value_options, option); },
                                      [&](const std::string &option) { return Lists(group.flag_options, option); }};
  return zeph_tools::ParseCommandLine(argv, rules, args, error);
}

int UsageError(const Group &group, const std::string &message) {
  std::fprintf(stderr, "zeph %s: %s\nusage: zeph %s\n", group.name, message.c_str(), group.usage);
  return kUsage;
}

int Fail(const Group &group, const std::string &message) {
  std::fprintf(stderr, "zeph %s: %s\n", group.name, message.c_str());
  return kFailed;
}

}  // namespace zeph_cli
