// Command handlers: co-signing (6xx). The client share lives on the key, in
// a file of the area's application sealed under the user PIN, which the
// handler verifies on the key before anything else; a row that stores a
// share writes it last, after every check, and puts the old one back when
// the write fails.
#include <cstring>
#include <string>
#include <vector>

#include "ci/ci_device.hpp"
#include "foundation/json_owned.hpp"
#include "zeph_c_api.h"
#include "zeph_c_bivo.h"
#include "zeph_c_corvex.h"
#include "zeph_c_device.h"
#include "zeph_c_status.h"

namespace zeph::ci {
namespace {

using BivoCtxPtr = std::unique_ptr<ZEPH_BIVO_CTX, Free<ZEPH_C_BIVO_Finalize>>;

// Where the shares live: a file in the application of the area.
struct ShareFile {
  uint32_t area;
  uint32_t row;  // an object index whose application is the area's
  const char *name;
};
constexpr ShareFile kSm2Share{ZEPH_AREA_SM2, ZEPH_OBJ_SM2_CERTCHAIN, "BivoShare"};
constexpr ShareFile kRsaShare{ZEPH_AREA_RSA, ZEPH_OBJ_RSA_CERTCHAIN, "BivoRsaShare"};

// Room for an RSA share, public key, signature or request (4096 bits).
constexpr size_t kRsaOutput = 4096;

const uint8_t *Bytes(const char *s) { return reinterpret_cast<const uint8_t *>(s); }
uint32_t Len(const char *s) { return static_cast<uint32_t>(std::strlen(s)); }

// The key of the request with its area's PIN verified.
uint32_t OpenKey(const ZEPH_REQ_PARAM &req, uint32_t area, KeyHandle *key) {
  ZEPH_TRY(key->Open(req));
  return ZEPH_C_VerifyUserPin(key->get(), area, req.pin.s, nullptr);
}

// A client context: the device number is "deviceID", else the key's serial
// number; the service is "url" (none for a short or missing one).
uint32_t OpenClient(const ZEPH_REQ_PARAM &req, BivoCtxPtr *ctx) {
  JsonPtr device(cJSON_CreateObject());
  ZEPH_ENSURE(device != nullptr, ERR_OUT_OF_MEMORY);
  const char *number = req.deviceID.s[0] != '\0' ? req.deviceID.s : req.keySN.s;
  ZEPH_ENSURE(cJSON_AddStringToObject(device.get(), "DeviceNumber", number) != nullptr, ERR_OUT_OF_MEMORY);
  const JsonTextPtr text(cJSON_PrintUnformatted(device.get()));
  ZEPH_ENSURE(text != nullptr, ERR_OUT_OF_MEMORY);
  ZEPH_BIVO_CTX *raw = nullptr;
  ZEPH_TRY(ZEPH_C_BIVO_Initialize(&raw, text.get(), Len(text.get()), req.url.s, Len(req.url.s)));
  ctx->reset(raw);
  return 0;
}

uint32_t ReadShare(const KeyHandle &key, const ZEPH_REQ_PARAM &req, const ShareFile &file, SecureBytes *share) {
  return CollectOutput(
      kRsaOutput,
      [&](uint8_t *out, uint32_t *out_len) {
        return ZEPH_C_ReadUkeyFile(key.get(), req.pin.s, file.row, file.name, out, out_len);
      },
      share);
}

// The share written last; a failed write puts the previous one back.
uint32_t WriteShare(const KeyHandle &key, const char *pin, const ShareFile &file, std::span<const uint8_t> share,
                    const SecureBytes &previous) {
  const uint32_t rv =
      ZEPH_C_WriteUkeyFile(key.get(), pin, file.row, file.name, share.data(), static_cast<uint32_t>(share.size()));
  if (rv != 0 && !previous.empty()) {
    ZEPH_C_WriteUkeyFile(key.get(), pin, file.row, file.name, previous.data(), static_cast<uint32_t>(previous.size()));
  }
  return rv;
}

// The previous share, if the key holds one.
SecureBytes PreviousShare(const KeyHandle &key, const ZEPH_REQ_PARAM &req, const ShareFile &file) {
  SecureBytes previous;
  if (ReadShare(key, req, file, &previous) != 0) previous = SecureBytes();
  return previous;
}

uint32_t SetJson(ZEPH_RES_PARAM *res, std::initializer_list<std::pair<const char *, std::string>> members) {
  JsonPtr obj(cJSON_CreateObject());
  ZEPH_ENSURE(obj != nullptr, ERR_OUT_OF_MEMORY);
  for (const auto &[name, value] : members) {
    ZEPH_ENSURE(cJSON_AddStringToObject(obj.get(), name, value.c_str()) != nullptr, ERR_OUT_OF_MEMORY);
  }
  const JsonTextPtr text(cJSON_PrintUnformatted(obj.get()));
  ZEPH_ENSURE(text != nullptr, ERR_OUT_OF_MEMORY);
  return SetData(res, text.get());
}

std::string Base64Text(std::span<const uint8_t> bytes);

// An operation of the output protocol run into `capacity` bytes, its result
// answered as {"<name>":"<base64>"}.
template <class Op>
uint32_t SetJsonOutput(ZEPH_RES_PARAM *res, const char *name, size_t capacity, Op &&op) {
  SecureBytes out;
  ZEPH_TRY(CollectOutput(capacity, op, &out));
  return SetJson(res, {{name, Base64Text(out.span())}});
}

std::string Base64Text(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return "";
  char *text = nullptr;
  if (ZEPH_C_Dohex2b64(bytes.data(), static_cast<uint32_t>(bytes.size()), &text) != 0) return "";
  std::string out(text);
  ZEPH_C_MALLOC_FREE(text);
  return out;
}

// The key, its PIN, the client with the share of the SM2 area loaded.
struct Session {
  KeyHandle key;
  BivoCtxPtr ctx;
};
uint32_t OpenSm2Session(const ZEPH_REQ_PARAM &req, Session *s) {
  ZEPH_TRY(OpenKey(req, ZEPH_AREA_SM2, &s->key));
  SecureBytes share;
  ZEPH_TRY(ReadShare(s->key, req, kSm2Share, &share));
  ZEPH_TRY(OpenClient(req, &s->ctx));
  return ZEPH_C_BIVO_VerifyUserPin(s->ctx.get(), Bytes(req.pin.s), Len(req.pin.s), share.data(),
                                   static_cast<uint32_t>(share.size()));
}

uint32_t CreateKeyShare(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  KeyHandle key;
  ZEPH_TRY(OpenKey(req, ZEPH_AREA_SM2, &key));
  BivoCtxPtr ctx;
  ZEPH_TRY(OpenClient(req, &ctx));
  uint8_t pubkey[65];
  uint32_t pubkey_len = sizeof pubkey;
  char container_id[65];
  uint32_t share_len = 0;
  ZEPH_TRY(ZEPH_C_BIVO_CreateKeyPair(ctx.get(), Bytes(req.pin.s), Len(req.pin.s), pubkey, &pubkey_len, container_id,
                                     nullptr, &share_len));
  std::vector<uint8_t> share(share_len);
  const SecureBytes previous = PreviousShare(key, req, kSm2Share);
  ZEPH_TRY(ZEPH_C_BIVO_CreateKeyPair(ctx.get(), Bytes(req.pin.s), Len(req.pin.s), pubkey, &pubkey_len, container_id,
                                     share.data(), &share_len));
  ZEPH_TRY(WriteShare(key, req.pin.s, kSm2Share, {share.data(), share_len}, previous));
  return SetJson(res, {{"containerID", container_id}, {"pubKey", Base64Text({pubkey, pubkey_len})}});
}

// The co-signed SM2 signature of "signData" (base64).
uint32_t Sm2Signature(const ZEPH_REQ_PARAM &req, std::vector<uint8_t> *data, std::vector<uint8_t> *sig) {
  SecureBytes bytes;
  ZEPH_TRY(DecodeBase64(req.signData.s, &bytes));
  data->assign(bytes.data(), bytes.data() + bytes.size());
  Session s;
  ZEPH_TRY(OpenSm2Session(req, &s));
  uint32_t sig_len = 72;
  sig->resize(sig_len);
  ZEPH_TRY(
      ZEPH_C_BIVO_DoSignature(s.ctx.get(), data->data(), static_cast<uint32_t>(data->size()), sig->data(), &sig_len));
  sig->resize(sig_len);
  return 0;
}

uint32_t DoSignature(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  std::vector<uint8_t> data, sig;
  ZEPH_TRY(Sm2Signature(req, &data, &sig));
  return SetJson(res, {{"signature", Base64Text(sig)}});
}

// Corvex_DoSignature answers 1 (or 0) for success.
uint32_t CorvexStatus(uint32_t rv) { return rv == 1 ? 0 : rv; }

// 601, then the message, "cert" (base64 DER) and the signature packed as a
// Corvex signature. The certificate is checked before anything is signed.
uint32_t CorvexSignature(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  SecureBytes cert;
  ZEPH_TRY(DecodeBase64(req.cert, &cert));
  const auto cert_len = static_cast<uint32_t>(cert.size());
  ZEPH_ENSURE(cert_len != 0, ERR_INVALID_PARAMETER);
  const uint8_t placeholder[72] = {};
  uint32_t len = 0;
  ZEPH_TRY(CorvexStatus(
      Corvex_DoSignature(placeholder, 1, cert.data(), cert_len, placeholder, sizeof placeholder, nullptr, &len)));
  std::vector<uint8_t> data, sig;
  ZEPH_TRY(Sm2Signature(req, &data, &sig));
  const auto data_len = static_cast<uint32_t>(data.size()), sig_len = static_cast<uint32_t>(sig.size());
  ZEPH_TRY(CorvexStatus(
      Corvex_DoSignature(data.data(), data_len, cert.data(), cert_len, sig.data(), sig_len, nullptr, &len)));
  // Compat: the packer fills only a buffer of exactly the length it asked for.
  std::vector<uint8_t> out(len);
  ZEPH_TRY(CorvexStatus(
      Corvex_DoSignature(data.data(), data_len, cert.data(), cert_len, sig.data(), sig_len, out.data(), &len)));
  return SetJson(res, {{"signature", Base64Text(out)}});
}

uint32_t GenCsr(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  Session s;
  ZEPH_TRY(OpenSm2Session(req, &s));
  return SetJsonOutput(res, "csr", 1024, [&](uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_BIVO_GenCSR(s.ctx.get(), req.value, out, out_len);
  });
}

uint32_t DecodeEnveloper(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes env;
  ZEPH_TRY(DecodeBase64(req.value, &env));
  KeyHandle key;
  ZEPH_TRY(OpenKey(req, ZEPH_AREA_SM2, &key));
  return SetJsonOutput(res, "plain", env.size(), [&](uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_BIVO_DecodeEnveloper(env.data(), static_cast<uint32_t>(env.size()), out, out_len);
  });
}

uint32_t Sm2Decrypt(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes cipher;
  ZEPH_TRY(DecodeBase64(req.value, &cipher));
  Session s;
  ZEPH_TRY(OpenSm2Session(req, &s));
  return SetJsonOutput(res, "plain", cipher.size(), [&](uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_BIVO_SM2Decrypt(s.ctx.get(), cipher.data(), static_cast<uint32_t>(cipher.size()), out, out_len);
  });
}

uint32_t VerifyPin(const ZEPH_REQ_PARAM &req) {
  Session s;
  return OpenSm2Session(req, &s);
}

uint32_t RsaCreateKeyShare(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  KeyHandle key;
  ZEPH_TRY(OpenKey(req, ZEPH_AREA_RSA, &key));
  BivoCtxPtr ctx;
  ZEPH_TRY(OpenClient(req, &ctx));
  std::vector<uint8_t> pubkey(kRsaOutput), share(kRsaOutput);
  auto pubkey_len = static_cast<uint32_t>(pubkey.size()), share_len = static_cast<uint32_t>(share.size());
  char container_id[65];
  const SecureBytes previous = PreviousShare(key, req, kRsaShare);
  ZEPH_TRY(ZEPH_C_BIVO_RSACreateKeyPair(ctx.get(), Bytes(req.pin.s), Len(req.pin.s), req.algID, pubkey.data(),
                                        &pubkey_len, container_id, share.data(), &share_len));
  ZEPH_TRY(WriteShare(key, req.pin.s, kRsaShare, {share.data(), share_len}, previous));
  return SetJson(res, {{"containerID", container_id}, {"pubKey", Base64Text({pubkey.data(), pubkey_len})}});
}

// Runs op(ctx, share) with the RSA share of the key and a client.
template <class Op>
uint32_t WithRsaShare(const ZEPH_REQ_PARAM &req, Op &&op) {
  KeyHandle key;
  ZEPH_TRY(OpenKey(req, ZEPH_AREA_RSA, &key));
  SecureBytes share;
  ZEPH_TRY(ReadShare(key, req, kRsaShare, &share));
  BivoCtxPtr ctx;
  ZEPH_TRY(OpenClient(req, &ctx));
  return op(ctx.get(), share);
}

uint32_t RsaSignature(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  SecureBytes data;
  ZEPH_TRY(DecodeBase64(req.signData.s, &data));
  return WithRsaShare(req, [&](ZEPH_BIVO_CTX *ctx, const SecureBytes &share) {
    return SetJsonOutput(res, "signature", kRsaOutput, [&](uint8_t *out, uint32_t *out_len) {
      return ZEPH_C_BIVO_RSADoSignature(ctx, Bytes(req.pin.s), Len(req.pin.s), share.data(),
                                        static_cast<uint32_t>(share.size()), req.algID, data.data(),
                                        static_cast<uint32_t>(data.size()), out, out_len);
    });
  });
}

uint32_t RsaGenCsr(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  return WithRsaShare(req, [&](ZEPH_BIVO_CTX *ctx, const SecureBytes &share) {
    return SetJsonOutput(res, "csr", kRsaOutput, [&](uint8_t *out, uint32_t *out_len) {
      return ZEPH_C_BIVO_RSAGenCSR(ctx, Bytes(req.pin.s), Len(req.pin.s), share.data(),
                                   static_cast<uint32_t>(share.size()), req.value, out, out_len);
    });
  });
}

// The share is re-sealed first (which proves the old PIN opens it), then the
// key's PIN changes, then the new share is written; a failed write puts the
// old share and the old PIN back.
uint32_t ChangePin(const ZEPH_REQ_PARAM &req) {
  ZEPH_ENSURE(req.value != nullptr && req.value[0] != '\0', ERR_INVALID_PARAMETER);
  KeyHandle key;
  ZEPH_TRY(OpenKey(req, ZEPH_AREA_SM2, &key));
  SecureBytes share;
  ZEPH_TRY(ReadShare(key, req, kSm2Share, &share));
  BivoCtxPtr ctx;
  ZEPH_TRY(OpenClient(req, &ctx));
  SecureBytes resealed;
  ZEPH_TRY(CollectOutput(
      share.size(),
      [&](uint8_t *out, uint32_t *out_len) {
        return ZEPH_C_BIVO_ChangeUserPin(ctx.get(), Bytes(req.pin.s), Len(req.pin.s), Bytes(req.value), Len(req.value),
                                         share.data(), static_cast<uint32_t>(share.size()), out, out_len);
      },
      &resealed));
  ZEPH_TRY(ZEPH_C_ChangeUserPin(key.get(), ZEPH_AREA_SM2, req.pin.s, req.value));
  const uint32_t rv = WriteShare(key, req.value, kSm2Share, resealed.span(), share);
  if (rv != 0) ZEPH_C_ChangeUserPin(key.get(), ZEPH_AREA_SM2, req.value, req.pin.s);
  return rv;
}

}  // namespace

uint32_t l_ci4doBIVO_CreateKeyShare(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, CreateKeyShare(*req, res));
}
uint32_t l_ci4doBIVO_doSignature(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, DoSignature(*req, res));
}
uint32_t l_ci4doBIVO_genCSR(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, GenCsr(*req, res)); }
uint32_t l_ci4doBIVO_DecodeEnveloper(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, DecodeEnveloper(*req, res));
}
uint32_t l_ci4doBIVO_SM2Decrypt(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, Sm2Decrypt(*req, res)); }
uint32_t l_ci4doBIVO_VerifyUserPin(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, VerifyPin(*req)); }
uint32_t l_ci4doBIVO_RSACreateKeyShare(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, RsaCreateKeyShare(*req, res));
}
uint32_t l_ci4doBIVO_RSAdoSignature(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, RsaSignature(*req, res));
}
uint32_t l_ci4doBIVO_RSAgenCSR(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, RsaGenCsr(*req, res)); }
uint32_t l_ci4doBIVO_ChangeUserPin(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) { return Answer(res, ChangePin(*req)); }
uint32_t l_ci4doBIVO_doSignatureforCorvex(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) {
  return Answer(res, CorvexSignature(*req, res));
}

}  // namespace zeph::ci
