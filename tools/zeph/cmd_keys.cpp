// zeph keys: the keys plugged in now, one per line.
#include <cstdio>
#include <string>

#include <cjson/cJSON.h>

#include "ci_client.hpp"

namespace {

int RunKeys(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(keys, "list the keys plugged in (keySN, vendor, type, library)", "keys [--config PATH]", RunKeys,
               {"--config"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("keys"); }

int RunKeys(const zeph_cli::Args &args) {
  if (!args.words.empty()) return zeph_cli::UsageError(Self(), "no arguments expected");
  std::string error;
  if (!zeph_cli::ApplyConfig(args, &error)) return zeph_cli::Fail(Self(), error);
  zeph_cli::CiReply reply;
  if (!zeph_cli::SendCi(zeph_cli::CiRequest(100).Text(), &reply, &error)) return zeph_cli::Fail(Self(), error);
  if (reply.code != 0) return zeph_cli::FailReply(Self(), "cannot list keys", reply);
  cJSON *list = cJSON_Parse(reply.data.c_str());
  if (!cJSON_IsArray(list)) {
    cJSON_Delete(list);
    return zeph_cli::Fail(Self(), "unreadable key list: " + reply.data);
  }
  if (cJSON_GetArraySize(list) == 0) {
    std::printf("no keys plugged in\n");
  } else {
    std::printf("%-32s %-8s %-5s %s\n", "KEYSN", "VENDOR", "TYPE", "LIBRARY");
  }
  const cJSON *key = nullptr;
  cJSON_ArrayForEach(key, list) {
    auto text = [key](const char *name) {
      const char *s = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(key, name));
      return s != nullptr ? s : "";
    };
    const cJSON *type = cJSON_GetObjectItemCaseSensitive(key, "type");
    std::printf("%-32s %-8s %-5d %s\n", text("keySN"), text("vid"), cJSON_IsNumber(type) ? type->valueint : 0,
                text("skfLib"));
  }
  cJSON_Delete(list);
  return zeph_cli::kOk;
}

}  // namespace
