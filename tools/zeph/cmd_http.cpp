// zeph http: one POST to a URL, the body from standard input.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli.hpp"
#include "zeph_c_pki.h"

namespace {

int RunHttp(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(http, "POST standard input to an http:// or https:// URL, print the reply body",
               "http post URL [--ca FILE] [--type CONTENT-TYPE] [--timeout MS] < BODY\n"
               "  --ca verifies the HTTPS server against the certificates of FILE (PEM); without it the\n"
               "  server is not verified. --type defaults to application/json, --timeout (the whole\n"
               "  exchange) to 30000.",
               RunHttp, {"--ca", "--type", "--timeout"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("http"); }

constexpr uint32_t kMaxReply = 16u << 20;

int RunHttp(const zeph_cli::Args &args) {
  if (args.words.size() != 2 || args.words[0] != "post") return zeph_cli::UsageError(Self(), "expected: post URL");
  const std::string timeout = args.Get("--timeout", "0");
  char *end = nullptr;
  const unsigned long ms = std::strtoul(timeout.c_str(), &end, 10);
  if (timeout.empty() || *end != '\0' || ms > UINT32_MAX) return zeph_cli::UsageError(Self(), "bad --timeout");
  ZEPH_C_HttpSetTimeouts(0, static_cast<uint32_t>(ms));
  if (args.Has("--ca")) {
    if (const uint32_t rv = ZEPH_C_HttpsSetCAFile(args.Get("--ca").c_str()); rv != 0) {
      return zeph_cli::Fail(Self(), "cannot load " + args.Get("--ca") + ": " + zeph_cli::StatusText(rv));
    }
  }
  std::vector<uint8_t> body;
  std::string error;
  if (!zeph_cli::ReadInput("-", &body, &error)) return zeph_cli::Fail(Self(), error);
  if (body.size() > UINT32_MAX) return zeph_cli::Fail(Self(), "the body is too large");
  std::vector<uint8_t> reply(kMaxReply);
  uint32_t len = kMaxReply;
  int http_status = 0;
  const uint32_t rv =
      ZEPH_C_HttpPostEx(args.words[1].c_str(), args.Get("--type", "application/json").c_str(), body.data(),
                        static_cast<uint32_t>(body.size()), reply.data(), &len, &http_status);
  // A reply with an error status still shows its body.
  if (rv != ERR_BUFFER_TOO_SMALL) zeph_cli::WriteStdout(reply.data(), len);
  if (rv == 0) return zeph_cli::kOk;
  if (http_status != 0) return zeph_cli::Fail(Self(), "HTTP status " + std::to_string(http_status));
  return zeph_cli::Fail(Self(), zeph_cli::StatusText(rv));
}

}  // namespace
