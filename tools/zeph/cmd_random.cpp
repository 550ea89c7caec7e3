// zeph random: random bytes from a key, or from the host without one.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ci_client.hpp"

namespace {

int RunRandom(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(random, "draw random bytes from a key (--key) or from the host",
               "random [--key SN] [--format base64|hex] COUNT   (COUNT from 1 to 65536)", RunRandom,
               {"--config", "--key", "--format"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("random"); }

int RunRandom(const zeph_cli::Args &args) {
  if (args.words.size() != 1) return zeph_cli::UsageError(Self(), "say how many bytes");
  char *end = nullptr;
  const long count = std::strtol(args.words[0].c_str(), &end, 10);
  if (end == args.words[0].c_str() || *end != '\0' || count < 1 || count > 65536) {
    return zeph_cli::UsageError(Self(), "COUNT must be a number from 1 to 65536");
  }
  const std::string format = args.Get("--format", "base64");
  if (format != "base64" && format != "hex") return zeph_cli::UsageError(Self(), "unknown format '" + format + "'");
  std::string error;
  if (!zeph_cli::ApplyConfig(args, &error)) return zeph_cli::Fail(Self(), error);

  zeph_cli::CiRequest request(106);
  request.Set("randLen", count);
  if (args.Has("--key")) request.Set("keySN", args.Get("--key"));
  zeph_cli::CiReply reply;
  if (!zeph_cli::SendCi(request.Text(), &reply, &error)) return zeph_cli::Fail(Self(), error);
  if (reply.code != 0) return zeph_cli::FailReply(Self(), "no random bytes", reply);
  if (format == "base64") {
    std::printf("%s\n", reply.data.c_str());
    return zeph_cli::kOk;
  }
  std::vector<uint8_t> bytes;
  if (!zeph_cli::FromBase64(reply.data, &bytes)) return zeph_cli::Fail(Self(), "unreadable reply " + reply.data);
  std::printf("%s\n", zeph_cli::ToLowerHex(bytes.data(), bytes.size()).c_str());
  return zeph_cli::kOk;
}

}  // namespace
