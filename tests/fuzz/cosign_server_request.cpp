// The co-signing service's request handling on arbitrary bodies, without
// sockets: the first byte picks the method, the rest is the body. The store
// holds one SM2 and one RSA key beforehand (container identifiers 64 'A' and
// 64 'B'), so the seeds reach signing and decryption. Every answer is one
// JSON object whose "status" is the HTTP status: 200 with a "result" text
// holding a JSON object, or a refusal with a "message". 500 never comes.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <cjson/cJSON.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "service.hpp"

namespace {

namespace cosign = zeph::cosign;

void Check(bool ok) {
  if (!ok) std::abort();
}

// One RSA key made at start and handed out for every creation: key
// generation would otherwise be the whole run.
zeph::EvpPkeyPtr SharedRsaKey(int) {
  static EVP_PKEY *key = [] {
    EVP_PKEY *made = EVP_RSA_gen(2048);
    Check(made != nullptr);
    return made;
  }();
  EVP_PKEY_up_ref(key);
  return zeph::EvpPkeyPtr(key);
}

cosign::Service &TheService() {
  static std::unique_ptr<cosign::ShareStore> store = [] {
    std::string why;
    auto opened = cosign::ShareStore::Open(":memory:", &why);
    Check(opened != nullptr);
    return opened;
  }();
  static cosign::Service service = [] {
    cosign::Service made(store.get(), SharedRsaKey);
    // P1 = G.
    const std::string g = "BDLEriwfGYEZX5kERmo5yZSP4wu/8mYL4XFaRYkzTHTHvDc2ovT2d5xZvc7ja2khU9Cph3zGKkdAAt8y5SE58KA=";
    Check(made.Handle("BIVOGenKeyPair", "{\"containerID\":\"" + std::string(64, 'A') + "\",\"p1\":\"" + g +
                                            "\",\"deviceNumber\":\"fuzz\"}")
              .status == 200);
    Check(made.Handle("BIVORSAGenKeyPair", "{\"containerID\":\"" + std::string(64, 'B') + "\",\"deviceNumber\":\"f\"}")
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
  Check(!answer.drop && answer.delay_ms == 0);
  Check(answer.status == 200 || answer.status == 400 || answer.status == 404 || answer.status == 409 ||
        answer.status == 413);
  cJSON *root = cJSON_Parse(answer.body.c_str());
  Check(cJSON_IsObject(root));
  const cJSON *status = cJSON_GetObjectItemCaseSensitive(root, "status");
  Check(cJSON_IsNumber(status) && status->valueint == answer.status);
  if (answer.status != 200) {
    Check(cJSON_IsString(cJSON_GetObjectItemCaseSensitive(root, "message")));
  } else if (std::strcmp(method, "BIVOInit") != 0) {
    const cJSON *text = cJSON_GetObjectItemCaseSensitive(root, "result");
    Check(cJSON_IsString(text));
    cJSON *result = cJSON_Parse(text->valuestring);
    Check(cJSON_IsObject(result));
    cJSON_Delete(result);
  }
  cJSON_Delete(root);
  return 0;
}
