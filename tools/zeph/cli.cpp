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

bool TakesPins(const Group &group) {
  return Lists(group.value_options, "--pin") || Lists(group.value_options, "--admin-pin");
}

bool ParseArgs(const Group &group, const std::vector<std::string> &argv, Args *args, std::string *error) {
  const zeph_tools::OptionRules rules{[&](const std::string &option) { return Lists(group.value_options, option); },
                                      [&](const std::string &option) {
                                        return Lists(group.flag_options, option) ||
                                               (option == "--pin-stdin" && TakesPins(group));
                                      }};
  return zeph_tools::ParseCommandLine(argv, rules, args, error);
}

bool GetPin(const Args &args, const std::string &option, std::string *pin, std::string *error) {
  if (args.Has(option)) {
    *pin = args.Get(option);
    return true;
  }
  const char *prompt = option == "--new" ? "new PIN" : option == "--admin-pin" ? "administrator PIN" : "PIN";
  return zeph_tools::ReadPin(option, prompt, args.Has("--pin-stdin"), pin, error);
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
