// zeph: a command-line host of the library. Command groups register
// themselves (cli.hpp); this file only dispatches.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.hpp"

namespace {

void PrintOverview(FILE *to) {
  std::fprintf(to, "usage: zeph GROUP ...\n       zeph help [GROUP]\n\ngroups:\n");
  for (const auto &g : zeph_cli::Groups()) std::fprintf(to, "  %-10s %s\n", g.name, g.summary);
}

void PrintGroupUsage(const zeph_cli::Group &g, FILE *to) {
  std::fprintf(to, "usage: zeph %s\n", g.usage);
  const auto &v = g.value_options;
  if (std::find(v.begin(), v.end(), "--pin") != v.end() || std::find(v.begin(), v.end(), "--admin-pin") != v.end())
    std::fprintf(to, "\n%s", zeph_tools::kPinHelp);
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    PrintOverview(stderr);
    return zeph_cli::kUsage;
  }
  const std::string &first = args[0];
  if (first == "help" || first == "--help" || first == "-h") {
    if (args.size() > 1) {
      const zeph_cli::Group *g = zeph_cli::FindGroup(args[1]);
      if (g == nullptr) {
        std::fprintf(stderr, "zeph: unknown group '%s'\n", args[1].c_str());
        return zeph_cli::kUsage;
      }
      PrintGroupUsage(*g, stdout);
      return zeph_cli::kOk;
    }
    PrintOverview(stdout);
    return zeph_cli::kOk;
  }
  const zeph_cli::Group *g = zeph_cli::FindGroup(first);
  if (g == nullptr) {
    std::fprintf(stderr, "zeph: unknown group '%s'\n\n", first.c_str());
    PrintOverview(stderr);
    return zeph_cli::kUsage;
  }
  zeph_cli::Args parsed;
  std::string error;
  if (!zeph_cli::ParseArgs(*g, {args.begin() + 1, args.end()}, &parsed, &error)) {
    return zeph_cli::UsageError(*g, error);
  }
  if (parsed.help) {
    PrintGroupUsage(*g, stdout);
    return zeph_cli::kOk;
  }
  const int rc = g->run(parsed);
  if (std::fflush(stdout) != 0) {
    std::fprintf(stderr, "zeph %s: cannot write standard output\n", g->name);
    return zeph_cli::kFailed;
  }
  return rc;
}
