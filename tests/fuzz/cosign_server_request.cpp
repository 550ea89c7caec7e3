// The co-signing service's request handling on arbitrary bodies, without
// sockets: the first byte picks the method, the rest is the body. The store
// holds one SM2 and one RSA key beforehand (container identifiers 64 'A' and
// 64 'B'), so the seeds reach signing and decryption. Every answer is one
// JSON object whose "status" is the HTTP status: 200 with a "result" text
// holding a JSON object, or a refusal with a "message". 500 never comes.

#include <openssl/rsa.h>

#include "json_object.hpp"
#include "service.hpp"

namespace {

namespace cosign = zeph::cosign;

// One RSA key made at start and handed out for every creation: key
// generation would otherwise be the whole run.
zeph::EvpPkeyPtr SharedRsaKey(int) {
  static EVP_PKEY *const key = EVP_RSA_gen(2048);
  fuzz::Check(key != nullptr && EVP_PKEY_up_ref(key) == 1);
  return zeph::EvpPkeyPtr(key);
}

cosign::Service &TheService() {
  static std::string why;
  static const std::unique_ptr<cosign::ShareStore> store = cosign::ShareStore::Open(":memory:", &why);
  static cosign::Service service = [] {
    fuzz::Check(store != nullptr);
    cosign::Service made(store.get(), SharedRsaKey);
    // P1 = G.
    const std::string g = "BDLEriwfGYEZX5kERmo5yZSP4wu/8mYL4XFaRYkzTHTHvDc2ovT2d5xZvc7ja2khU9Cph3zGKkdAAt8y5SE58KA=";
    fuzz::Check(made.Handle("BIVOGenKeyPair", "{\"containerID\":\"" + std::string(64, 'A') + "\",\"p1\":\"" + g +
                                                  "\",\"deviceNumber\":\"fuzz\"}")
                    .status == 200);
    fuzz::Check(
        made.Handle("BIVORSAGenKeyPair", "{\"containerID\":\"" + std::string(64, 'B') + "\",\"deviceNumber\":\"f\"}")
            .status == 200);
    return made;
  }();
  return service;
}

constexpr const char *kMethods[] = {"BIVOInit",          "BIVOGenKeyPair",   "BIVOSignature", "BIVODecrypt",
                                    "BIVORSAGenKeyPair", "BIVORSASignature", "BIVOUnknown"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const char *method = kMethods[data[0] % std::size(kMethods)];
  const cosign::Answer answer =
      TheService().Handle(method, std::string_view(reinterpret_cast<const char *>(data + 1), size - 1));
  fuzz::Check(!answer.drop && answer.delay_ms == 0 && fuzz::OneOf(answer.status, {200, 400, 404, 409, 413}));
  const zeph::JsonPtr root = fuzz::MustBeJsonObject(answer.body);
  const cJSON *status = cJSON_GetObjectItemCaseSensitive(root.get(), "status");
  fuzz::Check(cJSON_IsNumber(status) && status->valueint == answer.status);
  if (answer.status != 200) {
    fuzz::Check(cJSON_IsString(cJSON_GetObjectItemCaseSensitive(root.get(), "message")));
  } else if (std::strcmp(method, "BIVOInit") != 0) {
    const cJSON *text = cJSON_GetObjectItemCaseSensitive(root.get(), "result");
    fuzz::Check(cJSON_IsString(text));
    fuzz::MustBeJsonObject(text->valuestring);
  }
  return 0;
}
