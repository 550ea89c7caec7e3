// zeph file read|write|delete: files in a key's application.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ci_client.hpp"

namespace {

int RunFile(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(
    file, "read, write or delete a file on the key",
    "file read [--key SN] [--pin PIN] --name NAME [--area sm2|rsa|seal | --idx N] [--out FILE]\n"
    "       zeph file write [--key SN] --pin PIN --name NAME [--area ...|--idx N] (--data TEXT | --in FILE)\n"
    "       zeph file delete [--key SN] --pin PIN --name NAME [--area ...|--idx N]\n"
    "       (--area picks the application: sm2 VorliEcc, rsa VorliRsa, seal VorliStamp; default sm2)",
    RunFile, {"--config", "--key", "--pin", "--name", "--area", "--idx", "--data", "--in", "--out"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("file"); }

// A file row of each area's application.
int RowForArea(int area) { return area == 1 ? 5 : area == 4 ? 9 : 7; }

int RunFile(const zeph_cli::Args &args) {
  if (args.words.size() != 1) return zeph_cli::UsageError(Self(), "say read, write or delete");
  const std::string &action = args.words[0];
  const int type = action == "write" ? 107 : action == "read" ? 108 : action == "delete" ? 109 : 0;
  if (type == 0) return zeph_cli::UsageError(Self(), "unknown action '" + action + "'");
  if (!args.Has("--name")) return zeph_cli::UsageError(Self(), "--name is required");
  if (type != 108 && !args.Has("--pin")) return zeph_cli::UsageError(Self(), "--pin is required");
  std::string error, key_sn;
  int area = 0;
  if (!zeph_cli::AreaSelector(args, &area, &error)) return zeph_cli::UsageError(Self(), error);
  int row = RowForArea(area);
  if (args.Has("--idx")) {
    row = std::atoi(args.Get("--idx").c_str());
    if (row <= 0) return zeph_cli::UsageError(Self(), "--idx must be a positive row number");
  }

  zeph_cli::CiRequest request(type);
  request.Set("idx", row).Set("filepath", args.Get("--name"));
  if (args.Has("--pin")) request.Set("pin", args.Get("--pin"));
  if (type == 107) {
    if (args.Has("--data") == args.Has("--in")) {
      return zeph_cli::UsageError(Self(), "give the content with exactly one of --data and --in");
    }
    std::vector<uint8_t> content;
    if (args.Has("--data")) {
      const std::string text = args.Get("--data");
      content.assign(text.begin(), text.end());
    } else if (!zeph_cli::ReadInput(args.Get("--in"), &content, &error)) {
      return zeph_cli::Fail(Self(), error);
    }
    request.Set("raw", zeph_cli::ToBase64(content));
  }
  if (!zeph_cli::ApplyConfig(args, &error)) return zeph_cli::Fail(Self(), error);
  if (!zeph_cli::ResolveKey(args, &key_sn, &error)) return zeph_cli::Fail(Self(), error);
  request.Set("keySN", key_sn);

  zeph_cli::CiReply reply;
  if (!zeph_cli::SendCi(request.Text(), &reply, &error)) return zeph_cli::Fail(Self(), error);
  if (reply.code != 0) return zeph_cli::FailReply(Self(), action + " " + args.Get("--name") + " failed", reply);
  if (type != 108) {
    std::printf("%s %s\n", type == 107 ? "wrote" : "deleted", args.Get("--name").c_str());
    return zeph_cli::kOk;
  }
  std::vector<uint8_t> content;
  if (!zeph_cli::FromBase64(reply.data, &content)) return zeph_cli::Fail(Self(), "unreadable reply " + reply.data);
  if (!zeph_cli::WriteOutput(args.Get("--out", "-"), content.data(), content.size(), &error)) {
    return zeph_cli::Fail(Self(), error);
  }
  return zeph_cli::kOk;
}

}  // namespace
