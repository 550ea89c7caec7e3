// zeph pin verify|change|unlock: the user PIN of one key area.
#include <cstdio>
#include <string>

#include <cjson/cJSON.h>

#include "ci_client.hpp"

namespace {

int RunPin(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(pin, "verify, change or unlock the user PIN of a key",
               "pin verify [--key SN] --pin PIN [--area sm2|rsa|seal]\n"
               "       zeph pin change [--key SN] --pin OLD --new NEW [--area sm2|rsa|seal]\n"
               "       zeph pin unlock [--key SN] --admin-pin PIN --new NEW [--area sm2|rsa|seal]\n"
               "       (--key defaults to the only key plugged in; --config PATH as for ci)",
               RunPin, {"--config", "--key", "--pin", "--new", "--admin-pin", "--area"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("pin"); }

// "{\"retryCnt\":n}" -> n, or -1.
int RetryCount(const zeph_cli::CiReply &reply) {
  cJSON *doc = cJSON_Parse(reply.data.c_str());
  const cJSON *n = cJSON_GetObjectItemCaseSensitive(doc, "retryCnt");
  const int count = cJSON_IsNumber(n) ? n->valueint : -1;
  cJSON_Delete(doc);
  return count;
}

int RunPin(const zeph_cli::Args &args) {
  if (args.words.size() != 1) return zeph_cli::UsageError(Self(), "say verify, change or unlock");
  const std::string &action = args.words[0];
  int type = 0;
  std::string error, key_sn, pin, admin_pin, new_pin;
  bool have = false;
  if (action == "verify") {
    type = 101;
    have = zeph_cli::GetPin(args, "--pin", &pin, &error);
  } else if (action == "change") {
    type = 500;
    have = zeph_cli::GetPin(args, "--pin", &pin, &error) && zeph_cli::GetPin(args, "--new", &new_pin, &error);
  } else if (action == "unlock") {
    type = 502;
    have =
        zeph_cli::GetPin(args, "--admin-pin", &admin_pin, &error) && zeph_cli::GetPin(args, "--new", &new_pin, &error);
  } else {
    return zeph_cli::UsageError(Self(), "unknown action '" + action + "'");
  }
  if (!have) return zeph_cli::UsageError(Self(), error);
  int area = 0;
  if (!zeph_cli::AreaSelector(args, &area, &error)) return zeph_cli::UsageError(Self(), error);
  if (!zeph_cli::ApplyConfig(args, &error)) return zeph_cli::Fail(Self(), error);
  if (!zeph_cli::ResolveKey(args, &key_sn, &error)) return zeph_cli::Fail(Self(), error);

  zeph_cli::CiRequest request(type);
  request.Set("keySN", key_sn).Set("asymid", area);
  if (!pin.empty()) request.Set("pin", pin);
  if (!admin_pin.empty()) request.Set("adminPin", admin_pin);
  if (!new_pin.empty()) request.Set("newPin", new_pin);
  zeph_cli::CiReply reply;
  if (!zeph_cli::SendCi(request.Text(), &reply, &error)) return zeph_cli::Fail(Self(), error);

  if (type == 101) {
    const int left = RetryCount(reply);
    if (reply.code != 0) {
      return zeph_cli::FailReply(Self(), "PIN not accepted (" + std::to_string(left) + " tries left)", reply);
    }
    std::printf("PIN verified on %s (%d tries left)\n", key_sn.c_str(), left);
    return zeph_cli::kOk;
  }
  if (reply.code != 0) return zeph_cli::FailReply(Self(), "PIN " + action + " failed", reply);
  std::printf(type == 500 ? "PIN changed on %s\n" : "PIN unlocked and reset on %s\n", key_sn.c_str());
  return zeph_cli::kOk;
}

}  // namespace
