// The co-signing client: the context, the service exchange, and the SM2 key
// creation, signature and decryption run with the service.
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include <openssl/evp.h>

#include "bivo/bivo_client.hpp"
#include "bivo/bivo_math.hpp"
#include "foundation/helpers.hpp"
#include "foundation/log.hpp"
#include "foundation/output.hpp"
#include "gm/gm_internal.hpp"
#include "pki/http_client.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

namespace zeph::bivo {
namespace {

namespace sm2 = gm::sm2;

constexpr char kDefaultId[] = "1234567812345678";
// URLs of 10 characters or fewer name no service.
constexpr size_t kMinServiceUrl = 11;
constexpr int kSignType = 2;

// The whole context is key material or derived from it: wiped before release.
void WipeKey(ZEPH_BIVO_CTX *ctx) {
  OPENSSL_cleanse(ctx->d1, sizeof ctx->d1);
  OPENSSL_cleanse(ctx->d1_inv, sizeof ctx->d1_inv);
  ctx->has_key = false;
}

// One JSON POST to <path><method>, the reply bounded by max_reply bytes.
uint32_t Post(const ZEPH_BIVO_CTX &ctx, const char *method, std::string_view body, size_t max_reply,
              std::string *reply_text) {
  const http::Target target{ctx.host, ctx.port, ctx.path + method, ctx.tls != 0};
  http::Request request;
  request.content_type = "application/json";
  request.body = {reinterpret_cast<const uint8_t *>(body.data()), body.size()};
  http::Reply reply;
  const uint32_t rv = http::Exchange(target, request, max_reply, &reply);
  // A reply that does not fit the reply buffer is no reply of the service.
  ZEPH_TRY(rv == ERR_BUFFER_TOO_SMALL ? ERR_HTTP_FAILED : rv);
  reply_text->assign(reply.body.begin(), reply.body.end());
  return 0;
}

// "BIVOInit" must answer {"status":200}.
uint32_t Greet(const ZEPH_BIVO_CTX &ctx) {
  std::string text;
  ZEPH_TRY(Post(ctx, "BIVOInit", "{}", kReplyBuffer, &text));
  const JsonPtr root(cJSON_ParseWithLength(text.data(), text.size()));
  const cJSON *status = cJSON_GetObjectItemCaseSensitive(root.get(), "status");
  ZEPH_ENSURE(cJSON_IsNumber(status), ERR_JSON_INVALID);
  ZEPH_ENSURE(status->valueint == 200, ERR_HTTP_FAILED);
  return 0;
}

}  // namespace

std::string HexUpper(std::span<const uint8_t> bytes) {
  std::string out(2 * bytes.size() + 1, '\0');
  auto n = static_cast<uint32_t>(out.size());
  zeph_c_utils_hex2ascii(bytes.data(), static_cast<uint32_t>(bytes.size()), out.data(), &n);
  out.resize(2 * bytes.size());
  return out;
}

uint32_t ReadReply(std::string_view body, std::string *result) {
  JsonPtr root(cJSON_ParseWithLength(body.data(), body.size()));
  ZEPH_ENSURE(root != nullptr && cJSON_IsObject(root.get()), ERR_JSON_INVALID);
  const cJSON *status = cJSON_GetObjectItemCaseSensitive(root.get(), "status");
  ZEPH_ENSURE(status == nullptr || (cJSON_IsNumber(status) && status->valueint == 200), ERR_HTTP_FAILED);
  const cJSON *res = cJSON_GetObjectItemCaseSensitive(root.get(), "result");
  if (cJSON_IsString(res)) {
    *result = res->valuestring;
    return 0;
  }
  ZEPH_ENSURE(cJSON_IsObject(res), ERR_JSON_INVALID);
  const JsonTextPtr printed(cJSON_PrintUnformatted(res));
  ZEPH_ENSURE(printed != nullptr, ERR_OUT_OF_MEMORY);
  *result = printed.get();
  return 0;
}

uint32_t CallService(const ZEPH_BIVO_CTX &ctx, const char *method, std::string_view body, std::string *result,
                     size_t max_reply) {
  ZEPH_ENSURE(ctx.has_service, ERR_COSIGN_FAILED);
  std::string text;
  ZEPH_TRY(Post(ctx, method, body, max_reply, &text));
  const uint32_t rv = ReadReply(text, result);
  if (rv != 0) ZEPH_LOG(method, rv);
  return rv;
}

uint32_t ResultBytes(const std::string &result, const char *key, size_t max, std::vector<uint8_t> *out) {
  std::string buf(result.size() + 1, '\0');
  ZEPH_TRY(l_GetCStringFromJsonByKey(result.c_str(), key, buf.data(), static_cast<uint32_t>(buf.size())) == 0
               ? 0u
               : ERR_JSON_INVALID);
  const char *text = buf.c_str();
  const size_t len = std::strlen(text);
  // EVP_DecodeBlock counts padding as zero bytes; the text's '=' say how many.
  ZEPH_ENSURE(len % 4 == 0 && len / 4 * 3 <= max + 2, ERR_COSIGN_FAILED);
  std::vector<uint8_t> bytes(len / 4 * 3 + 1);
  const int n = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char *>(text), static_cast<int>(len));
  ZEPH_ENSURE(n >= 0, ERR_COSIGN_FAILED);
  size_t pad = 0;
  while (pad < 2 && len > pad && text[len - 1 - pad] == '=') ++pad;
  bytes.resize(static_cast<size_t>(n) - pad);
  ZEPH_ENSURE(bytes.size() <= max, ERR_COSIGN_FAILED);
  *out = std::move(bytes);
  return 0;
}

uint32_t ResultBytes(const std::string &result, const char *key, std::span<uint8_t> out) {
  std::vector<uint8_t> bytes;
  ZEPH_TRY(ResultBytes(result, key, out.size(), &bytes));
  ZEPH_ENSURE(bytes.size() == out.size(), ERR_COSIGN_FAILED);
  std::memcpy(out.data(), bytes.data(), bytes.size());
  return 0;
}

// A point of the result: 65 bytes, on the curve.
uint32_t ResultPoint(const std::string &result, const char *key, Point *out) {
  uint8_t raw[sm2::kPointLen];
  ZEPH_TRY(ResultBytes(result, key, raw));
  ZEPH_ENSURE(raw[0] == 0x04 && ReadPoint(raw, out), ERR_COSIGN_FAILED);
  return 0;
}

// A scalar of the result: 32 bytes, in [1, n-1].
uint32_t ResultScalar(const std::string &result, const char *key, Scalar *out) {
  uint8_t raw[sm2::kScalarLen];
  ZEPH_TRY(ResultBytes(result, key, raw));
  ReadScalar(raw, out);
  ZEPH_ENSURE(sm2::InRange(*out), ERR_COSIGN_FAILED);
  return 0;
}

namespace {

uint32_t Sm3Hex(const Scalar &d1, char out[65]) {
  uint8_t digest[32];
  gm::Sm3(d1.b, sizeof d1.b, digest);
  const std::string hex = HexUpper(digest);
  std::memcpy(out, hex.c_str(), hex.size() + 1);
  return 0;
}

}  // namespace

}  // namespace zeph::bivo

using namespace zeph::bivo;  // NOLINT: the exported functions below use the client's pieces throughout
namespace sm2 = zeph::gm::sm2;

extern "C" {

uint32_t l_GetCStringFromJsonByKey(const char *json_text, const char *key, char *out, uint32_t out_size) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(json_text != nullptr && key != nullptr && out != nullptr, ERR_INVALID_PARAMETER);
    zeph::JsonPtr root(cJSON_Parse(json_text));
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(root.get(), key);
    ZEPH_ENSURE(cJSON_IsString(item), ERR_JSON_INVALID);
    const size_t n = std::strlen(item->valuestring);
    ZEPH_ENSURE(n < out_size, ERR_BUFFER_TOO_SMALL);
    std::memcpy(out, item->valuestring, n + 1);
    return 0;
  });
}

ZEPH_API uint32_t ZEPH_C_BIVO_GetVersion(uint32_t *out_version) {
  ZEPH_ENSURE(out_version != nullptr, ERR_INVALID_PARAMETER);
  *out_version = ZEPH_BIVO_CLIENT_VERSION;
  return 0;
}

ZEPH_API uint32_t ZEPH_C_BIVO_Initialize(ZEPH_BIVO_CTX **out_ctx, const char *device_json, uint32_t device_json_len,
                                         const char *url, uint32_t url_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(out_ctx != nullptr && device_json != nullptr, ERR_INVALID_PARAMETER);
    auto ctx = std::make_unique<ZEPH_BIVO_CTX>();
    const size_t n = url != nullptr ? strnlen(url, url_len) : 0;
    if (n >= kMinServiceUrl) {
      ZEPH_ENSURE(n < kBivoTextBuffer, ERR_INVALID_PARAMETER);
      std::memcpy(ctx->url, url, n);
      zeph::http::Target target;
      // Compat: a URL that does not parse is 0xFFFFFFFF, not a library status.
      ZEPH_ENSURE(zeph::http::ParseUrl(ctx->url, &target) == 0, 0xFFFFFFFFu);
      ctx->host = target.host;
      ctx->port = target.port;
      // The method name is appended to the path as it stands.
      ctx->path = target.path;
      ctx->tls = target.tls ? 1 : 0;
      ctx->has_service = true;
      ZEPH_TRY(Greet(*ctx));
    }
    const std::string json(device_json, strnlen(device_json, device_json_len));
    ZEPH_TRY(l_GetCStringFromJsonByKey(json.c_str(), "DeviceNumber", ctx->device_number, kBivoTextBuffer) == 0
                 ? 0u
                 : ERR_JSON_INVALID);
    *out_ctx = ctx.release();
    return 0;
  });
}

ZEPH_API uint32_t ZEPH_C_BIVO_Finalize(ZEPH_BIVO_CTX *ctx) {
  if (ctx == nullptr) return 0;
  WipeKey(ctx);
  OPENSSL_cleanse(ctx->device_number, sizeof ctx->device_number);
  delete ctx;
  return 0;
}

ZEPH_API uint32_t ZEPH_C_BIVO_CreateKeyPair(ZEPH_BIVO_CTX *ctx, const unsigned char *secret, uint32_t secret_len,
                                            unsigned char *pubkey_out, uint32_t *pubkey_len, char *container_id_out,
                                            unsigned char *share_out, uint32_t *share_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(secret != nullptr && share_len != nullptr && pubkey_len != nullptr, ERR_INVALID_PARAMETER);
    // Every output is checked before the service is asked for anything.
    const size_t share_need = ShareLength();
    if (share_out == nullptr) {
      *share_len = static_cast<uint32_t>(share_need);
      return 0;
    }
    // Compat: a short share buffer is 0x82080001, as other clients expect.
    if (*share_len < share_need) {
      *share_len = static_cast<uint32_t>(share_need);
      return ERR_OUT_OF_MEMORY;
    }
    ZEPH_ENSURE(pubkey_out != nullptr && *pubkey_len > 64, 0xFFFFFFFFu);
    ZEPH_ENSURE(container_id_out != nullptr, ERR_INVALID_PARAMETER);
    ZEPH_ENSURE(ctx->has_service, ERR_COSIGN_FAILED);

    Wiped<ClientKeyShare> share;
    ZEPH_TRY(CreateClientKeyShare(PlainSource(BIVO_ERR_KEY_SHARE), &share));
    char container_id[65];
    Sm3Hex(share.d1, container_id);
    uint8_t p1[65];
    sm2::PointTo65(share.p1, p1);
    char request[kKeyPairRequest];
    const int n = std::snprintf(request, sizeof request, R"({"containerID":"%s", "p1":"%s", "deviceNumber":"%s"})",
                                container_id, zeph::Base64Text(p1).c_str(), ctx->device_number);
    ZEPH_ENSURE(n > 0 && static_cast<size_t>(n) < sizeof request, ERR_INVALID_PARAMETER);
    std::string result;
    ZEPH_TRY(CallService(*ctx, "BIVOGenKeyPair", request, &result));
    Point p, credential;
    uint32_t status = ResultPoint(result, "pubKey", &p);
    if (status == 0) status = ResultPoint(result, "credential", &credential);
    if (status == 0) status = VerifyKeyShares(share.d1, p, credential);
    std::vector<uint8_t> der;
    if (status == 0) status = EncodeShare({secret, secret_len}, ctx->device_number, share.d1, share.d1_inv, p, &der);
    if (status == 0) {
      sm2::PointTo65(p, pubkey_out);
      *pubkey_len = 65;
      std::memcpy(container_id_out, container_id, sizeof container_id);
      std::memcpy(share_out, der.data(), der.size());
      *share_len = static_cast<uint32_t>(der.size());
      WipeKey(ctx);
      WriteScalar(share.d1, ctx->d1);
      WriteScalar(share.d1_inv, ctx->d1_inv);
      sm2::PointTo65(p, ctx->pubkey);
      ctx->pubkey_len = 65;
      std::memcpy(ctx->container_id, container_id, sizeof container_id);
      ctx->has_key = true;
    }
    return status;
  });
}

ZEPH_API uint32_t ZEPH_C_BIVO_DoSignature(ZEPH_BIVO_CTX *ctx, const unsigned char *msg, uint32_t msg_len,
                                          unsigned char *sig_out, uint32_t *sig_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(ctx->has_key, ERR_COSIGN_FAILED);
    ZEPH_ENSURE((msg != nullptr || msg_len == 0) && sig_len != nullptr, ERR_INVALID_PARAMETER);
    if (auto done = zeph::ReserveOutput(kSignatureMax, sig_out, sig_len)) return *done;
    uint8_t e[32];
    Wiped<Scalar> k1;
    Point q1, key;
    ZEPH_ENSURE(ReadPoint(ctx->pubkey, &key), ERR_COSIGN_FAILED);
    static const uint8_t kEmpty = 0;
    ZEPH_TRY(BIVO_ComputePreprocessSm3Digest(kDefaultId, ctx->pubkey, ctx->pubkey_len, msg != nullptr ? msg : &kEmpty,
                                             msg_len, e));
    ZEPH_TRY(CreateClientSigShare(PlainSource(BIVO_ERR_SIG_SHARE), &k1, &q1));
    uint8_t q1_raw[65];
    sm2::PointTo65(q1, q1_raw);
    char request[kShareRequest];
    const int n =
        std::snprintf(request, sizeof request, R"({"containerID":"%s", "q1":"%s", "digest":"%s", "signType":%d})",
                      ctx->container_id, zeph::Base64Text(q1_raw).c_str(), zeph::Base64Text(e).c_str(), kSignType);
    ZEPH_ENSURE(n > 0 && static_cast<size_t>(n) < sizeof request, ERR_INVALID_PARAMETER);
    std::string result;
    ZEPH_TRY(CallService(*ctx, "BIVOSignature", request, &result));
    SignatureShare sig_share;
    ZEPH_TRY(ResultScalar(result, "r", &sig_share.r));
    ZEPH_TRY(ResultScalar(result, "s2", &sig_share.s2));
    ZEPH_TRY(ResultScalar(result, "s3", &sig_share.s3));
    Wiped<Scalar> d1;
    ReadScalar(ctx->d1, &d1);
    Scalar s;
    // A share that does not make a signature under the key is the service's
    // fault, whatever step finds it.
    ZEPH_ENSURE(AssembleVerifiedSignature(d1, k1, sig_share, e, key, &s) == 0, ERR_COSIGN_FAILED);
    uint8_t der[kSignatureMax];
    const size_t len = EncodeSignature(sig_share.r, s, der);
    ZEPH_ENSURE(len != 0, BIVO_ERR_SIG_ENCODE);
    return zeph::PutOutput({der, len}, sig_out, sig_len);
  });
}

ZEPH_API uint32_t ZEPH_C_BIVO_SM2Decrypt(ZEPH_BIVO_CTX *ctx, const unsigned char *cipher, uint32_t cipher_len,
                                         unsigned char *plain_out, uint32_t *plain_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(ctx->has_key, ERR_COSIGN_FAILED);
    ZEPH_ENSURE(cipher != nullptr && plain_len != nullptr, ERR_INVALID_PARAMETER);
    Ciphertext c;
    ZEPH_TRY(SplitCiphertext({cipher, cipher_len}, &c));
    Point c1;
    ZEPH_TRY(CiphertextC1(c, &c1));
    if (auto done = zeph::ReserveOutput(c.c2.size(), plain_out, plain_len)) return *done;
    Wiped<Scalar> d1_inv;
    ReadScalar(ctx->d1_inv, &d1_inv);
    Point t1;
    ZEPH_TRY(CreateClientPlaintextShare(c1, d1_inv, &t1));
    uint8_t t1_raw[65];
    sm2::PointTo65(t1, t1_raw);
    char request[kShareRequest];
    const int n = std::snprintf(request, sizeof request, R"({"containerID":"%s", "t1":"%s"})", ctx->container_id,
                                zeph::Base64Text(t1_raw).c_str());
    ZEPH_ENSURE(n > 0 && static_cast<size_t>(n) < sizeof request, ERR_INVALID_PARAMETER);
    std::string result;
    ZEPH_TRY(CallService(*ctx, "BIVODecrypt", request, &result));
    Point t2;
    ZEPH_TRY(ResultPoint(result, "t2", &t2));
    zeph::SecureBytes plain(std::max<size_t>(c.c2.size(), 1));
    ZEPH_TRY(CombinePlaintextShares(c1, c.c2, c.c3, t2, plain.data()));
    return zeph::PutOutput({plain.data(), c.c2.size()}, plain_out, plain_len);
  });
}

}  // extern "C"
