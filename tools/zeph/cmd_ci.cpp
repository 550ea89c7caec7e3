// zeph ci: one JSON request to ZEPH_C_CI, the response as the library prints it.
#include <cstdio>
#include <string>
#include <vector>

#include "ci_client.hpp"

namespace {

int RunCi(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(ci, "send one JSON request to ZEPH_C_CI and print the response",
               "ci [--config PATH] [REQUEST | -]   (no REQUEST or - reads standard input;\n"
               "       exit status 0 only when the response's code is 0)",
               RunCi, {"--config"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("ci"); }

int RunCi(const zeph_cli::Args &args) {
  if (args.words.size() > 1) return zeph_cli::UsageError(Self(), "one request at a time");
  std::string error;
  if (!zeph_cli::ApplyConfig(args, &error)) return zeph_cli::Fail(Self(), error);
  std::string request;
  if (args.words.empty() || args.words[0] == "-") {
    std::vector<uint8_t> text;
    if (!zeph_cli::ReadInput("-", &text, &error)) return zeph_cli::Fail(Self(), error);
    request.assign(text.begin(), text.end());
  } else {
    request = args.words[0];
  }
  zeph_cli::CiReply reply;
  const bool ok = zeph_cli::SendCi(request, &reply, &error);
  if (!reply.text.empty()) std::printf("%s\n", reply.text.c_str());
  if (!ok) return zeph_cli::Fail(Self(), error);
  return reply.code == 0 ? zeph_cli::kOk : zeph_cli::kFailed;
}

}  // namespace
