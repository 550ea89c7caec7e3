#include "service.hpp"

#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

#include <cjson/cJSON.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <sys/random.h>

#include "foundation/json_owned.hpp"
#include "rsa_split.hpp"
#include "zeph_c_bivo_math.h"

namespace zeph::cosign {

namespace {

constexpr size_t kPointLen = 65, kScalarLen = 32, kIdLen = 64;
// The client keeps the device number in a 130-byte buffer.
constexpr size_t kMaxDeviceNumber = 129;

Answer Error(int status, const std::string &message) {
  JsonPtr root(cJSON_CreateObject());
  cJSON_AddNumberToObject(root.get(), "status", status);
  cJSON_AddStringToObject(root.get(), "message", message.c_str());
  JsonTextPtr text(cJSON_PrintUnformatted(root.get()));
  return {status, text ? text.get() : "{}"};
}

Answer Invalid(const char *key) { return Error(400, std::string("missing or invalid \"") + key + "\""); }

// {"status":200,"result":"<the result object as JSON text>"}
Answer Result(const JsonPtr &result) {
  JsonTextPtr inner(cJSON_PrintUnformatted(result.get()));
  JsonPtr root(cJSON_CreateObject());
  cJSON_AddNumberToObject(root.get(), "status", 200);
  if (inner) cJSON_AddStringToObject(root.get(), "result", inner.get());
  JsonTextPtr text(cJSON_PrintUnformatted(root.get()));
  if (!inner || !text) return Error(500, "internal error");
  return {200, text.get()};
}

std::string Base64(std::span<const uint8_t> bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int n =
      EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()), bytes.data(), static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

// Strict standard base64: whole quanta, the alphabet only, '=' only at the end.
bool FromBase64(std::string_view text, std::vector<uint8_t> *out) {
  if (text.empty() || text.size() % 4 != 0) return false;
  size_t pad = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '=') {
      if (i + 2 < text.size()) return false;
      ++pad;
    } else if (pad != 0 || !(std::isalnum(c) || c == '+' || c == '/')) {
      return false;
    }
  }
  out->assign(text.size() / 4 * 3, 0);
  if (EVP_DecodeBlock(out->data(), reinterpret_cast<const unsigned char *>(text.data()),
                      static_cast<int>(text.size())) < 0) {
    return false;
  }
  out->resize(out->size() - pad);
  return true;
}

// The members of one request object.
class Fields {
 public:
  explicit Fields(const cJSON *object) : object_(object) {}

  bool Text(const char *key, size_t max_len, std::string *out) const {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object_, key);
    if (!cJSON_IsString(item) || item->valuestring == nullptr) return false;
    *out = item->valuestring;
    return out->size() <= max_len;
  }

  // 64 hexadecimal digits, kept in upper case whatever the sender used.
  bool ContainerId(std::string *out) const {
    if (!Text("containerID", kIdLen, out) || out->size() != kIdLen) return false;
    for (char &c : *out) {
      if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return true;
  }

  bool Bytes(const char *key, size_t len, std::vector<uint8_t> *out) const {
    std::string text;
    return Text(key, 4 * ((len + 2) / 3), &text) && FromBase64(text, out) && out->size() == len;
  }

  // A 65-byte uncompressed point encoding (the curve check is the math's).
  bool Point(const char *key, std::vector<uint8_t> *out) const {
    return Bytes(key, kPointLen, out) && (*out)[0] == 0x04;
  }

  // An integer member; `fallback` when it is absent.
  bool Integer(const char *key, int fallback, int *out) const {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object_, key);
    if (item == nullptr) {
      *out = fallback;
      return true;
    }
    // Whole numbers within int only (NaN fails the range test): the cast of
    // anything else is undefined.
    const double value = cJSON_IsNumber(item) ? item->valuedouble : 0.5;
    if (!(value >= INT_MIN && value <= INT_MAX) || value != std::floor(value)) return false;
    *out = static_cast<int>(value);
    return true;
  }

 private:
  const cJSON *object_;
};

// One DRBG per serving thread, seeded from the operating system: the
// handle's generator has no lock of its own.
class ThreadDrbg {
 public:
  ThreadDrbg() {
    SecureBytes entropy(384);
    size_t got = 0;
    while (got < entropy.size()) {
      const ssize_t n = getrandom(entropy.data() + got, entropy.size() - got, 0);
      if (n <= 0) return;
      got += static_cast<size_t>(n);
    }
    if (InitializeBivoHandle(&handle_, entropy.data(), static_cast<uint32_t>(entropy.size())) != 0) handle_ = nullptr;
  }
  ~ThreadDrbg() {
    if (handle_ != nullptr) UninitializeBivoHandle(handle_);
  }
  BIVO_HANDLE get() const { return handle_; }

 private:
  BIVO_HANDLE handle_ = nullptr;
};

BIVO_HANDLE Drbg() {
  thread_local ThreadDrbg drbg;
  return drbg.get();
}

EvpPkeyPtr MakeRsaKey(int bits) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY *key = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) != 1 ||
      EVP_PKEY_keygen(ctx.get(), &key) != 1) {
    return nullptr;
  }
  return EvpPkeyPtr(key);
}

struct Request {
  const Fields &fields;
  FaultKind fault;
};

Answer StoreFailure(StoreResult result) {
  switch (result) {
    case StoreResult::kExists:
      return Error(409, "container exists");
    case StoreResult::kMissing:
      return Error(404, "unknown container");
    default:
      return Error(500, "internal error");
  }
}

// Reads a stored share of the expected algorithm.
Answer Load(ShareStore *store, const std::string &id, Algorithm algorithm, ShareRecord *record, bool *ok) {
  *ok = false;
  const StoreResult got = store->Get(id, record);
  if (got != StoreResult::kOk) return StoreFailure(got);
  if (record->algorithm != algorithm) {
    return Error(400, algorithm == Algorithm::kSm2 ? "container holds an RSA key" : "container holds an SM2 key");
  }
  *ok = true;
  return {};
}

Answer GenKeyPair(ShareStore *store, const Request &rq) {
  std::string id, device;
  std::vector<uint8_t> p1;
  if (!rq.fields.ContainerId(&id)) return Invalid("containerID");
  if (!rq.fields.Point("p1", &p1)) return Invalid("p1");
  if (!rq.fields.Text("deviceNumber", kMaxDeviceNumber, &device)) return Invalid("deviceNumber");
  ShareRecord record;
  record.device_number = device;
  record.share = SecureBytes(kScalarLen);
  record.share_inverse = SecureBytes(kScalarLen);
  record.public_key.assign(kPointLen, 0);
  uint8_t credential[kPointLen];
  const uint32_t rv = BIVO_Server_CreateKeyShareWithDrbg(Drbg(), p1.data(), record.share.data(),
                                                         record.share_inverse.data(), record.public_key.data());
  if (rv == BIVO_ERR_KEY_SHARE) return Invalid("p1");
  if (rv != 0) return Error(500, "internal error");
  // A wrong credential is still a curve point: d2·G instead of d2^-1·G.
  const SecureBytes &credential_scalar = rq.fault == FaultKind::kBadCredential ? record.share : record.share_inverse;
  if (BIVO_Server_CreateKeyShareCredential(credential_scalar.data(), credential) != 0) {
    return Error(500, "internal error");
  }
  const StoreResult put = store->Put(id, record);
  if (put != StoreResult::kOk) return StoreFailure(put);
  std::vector<uint8_t> pubkey = record.public_key;
  if (rq.fault == FaultKind::kRZero) std::fill(pubkey.begin() + 1, pubkey.end(), 0);
  JsonPtr result(cJSON_CreateObject());
  cJSON_AddStringToObject(result.get(), "pubKey", Base64(pubkey).c_str());
  cJSON_AddStringToObject(result.get(), "credential", Base64(credential).c_str());
  return Result(result);
}

Answer Signature(ShareStore *store, const Request &rq) {
  std::string id;
  std::vector<uint8_t> q1, e;
  int sign_type = 0;
  if (!rq.fields.ContainerId(&id)) return Invalid("containerID");
  if (!rq.fields.Point("q1", &q1)) return Invalid("q1");
  if (!rq.fields.Bytes("digest", kScalarLen, &e)) return Invalid("digest");
  if (!rq.fields.Integer("signType", 2, &sign_type) || sign_type != 2) return Invalid("signType");
  ShareRecord record;
  bool ok = false;
  Answer failed = Load(store, id, Algorithm::kSm2, &record, &ok);
  if (!ok) return failed;
  uint8_t r[kScalarLen], s2[kScalarLen], s3[kScalarLen];
  const uint32_t rv = BIVO_Server_CreateSigShareWithDrbg(Drbg(), e.data(), q1.data(), record.share.data(), r, s2, s3);
  if (rv == BIVO_ERR_SIG_SHARE) return Invalid("q1");
  if (rv != 0) return Error(500, "internal error");
  if (rq.fault == FaultKind::kRZero) std::memset(r, 0, sizeof r);
  if (rq.fault == FaultKind::kBadCredential) std::swap(s2, s3);  // both in range, neither right
  JsonPtr result(cJSON_CreateObject());
  cJSON_AddStringToObject(result.get(), "r", Base64(r).c_str());
  cJSON_AddStringToObject(result.get(), "s2", Base64(s2).c_str());
  cJSON_AddStringToObject(result.get(), "s3", Base64(s3).c_str());
  return Result(result);
}

Answer Decrypt(ShareStore *store, const Request &rq) {
  std::string id;
  std::vector<uint8_t> t1;
  if (!rq.fields.ContainerId(&id)) return Invalid("containerID");
  if (!rq.fields.Point("t1", &t1)) return Invalid("t1");
  ShareRecord record;
  bool ok = false;
  Answer failed = Load(store, id, Algorithm::kSm2, &record, &ok);
  if (!ok) return failed;
  uint8_t t2[kPointLen];
  // A wrong T2 is still a curve point: d2·T1 instead of d2^-1·T1.
  const SecureBytes &scalar = rq.fault == FaultKind::kBadCredential ? record.share : record.share_inverse;
  const uint32_t rv = BIVO_Server_CreatePlaintextShare(t1.data(), scalar.data(), t2);
  if (rv == BIVO_ERR_PLAINTEXT_SHARE) return Invalid("t1");
  if (rv != 0) return Error(500, "internal error");
  if (rq.fault == FaultKind::kRZero) std::memset(t2 + 1, 0, sizeof t2 - 1);
  JsonPtr result(cJSON_CreateObject());
  cJSON_AddStringToObject(result.get(), "t2", Base64(t2).c_str());
  return Result(result);
}

Answer RsaGenKeyPair(ShareStore *store, const RsaKeyMaker &make_key, const Request &rq) {
  std::string id, device;
  int bits = 0;
  if (!rq.fields.ContainerId(&id)) return Invalid("containerID");
  if (!rq.fields.Integer("bits", 2048, &bits) || (bits != 2048 && bits != 3072 && bits != 4096)) {
    return Invalid("bits");
  }
  if (!rq.fields.Text("deviceNumber", kMaxDeviceNumber, &device)) return Invalid("deviceNumber");
  RsaSplitKey split;
  {
    // d and d1 exist only in this scope: the key is freed (and cleared)
    // before the answer leaves.
    EvpPkeyPtr key = make_key(bits);
    if (!key || !SplitRsaKey(key.get(), &split)) return Error(500, "internal error");
  }
  ShareRecord record;
  record.algorithm = Algorithm::kRsa;
  record.device_number = device;
  record.public_key = split.n;
  record.public_exponent = split.e;
  record.share = std::move(split.d2);
  const StoreResult put = store->Put(id, record);
  if (put != StoreResult::kOk) return StoreFailure(put);
  std::vector<uint8_t> n = split.n;
  if (rq.fault == FaultKind::kRZero) std::fill(n.begin(), n.end(), 0);
  if (rq.fault == FaultKind::kBadCredential) split.d1[split.d1.size() - 1] ^= 1;
  JsonPtr result(cJSON_CreateObject());
  cJSON_AddStringToObject(result.get(), "n", Base64(n).c_str());
  cJSON_AddStringToObject(result.get(), "e", Base64(split.e).c_str());
  SecureBytes d1_text(4 * ((split.d1.size() + 2) / 3) + 1);
  EVP_EncodeBlock(d1_text.data(), split.d1.data(), static_cast<int>(split.d1.size()));
  cJSON_AddStringToObject(result.get(), "d1", reinterpret_cast<const char *>(d1_text.data()));
  Answer answer = Result(result);
  // cJSON keeps its own copy of the d1 text: clear it before the tree goes.
  cJSON *d1_item = cJSON_GetObjectItemCaseSensitive(result.get(), "d1");
  if (d1_item != nullptr && d1_item->valuestring != nullptr) {
    OPENSSL_cleanse(d1_item->valuestring, std::strlen(d1_item->valuestring));
  }
  return answer;
}

Answer RsaSignature(ShareStore *store, const Request &rq) {
  std::string id, m_text;
  std::vector<uint8_t> m, s2;
  if (!rq.fields.ContainerId(&id)) return Invalid("containerID");
  if (!rq.fields.Text("m", 4 * (4096 / 8 / 3 + 1), &m_text) || !FromBase64(m_text, &m)) return Invalid("m");
  ShareRecord record;
  bool ok = false;
  Answer failed = Load(store, id, Algorithm::kRsa, &record, &ok);
  if (!ok) return failed;
  switch (RsaPartialSign(record.public_key, record.share.span(), m, &s2)) {
    case RsaPartial::kOk:
      break;
    case RsaPartial::kBadMessage:
      return Invalid("m");
    default:
      return Error(500, "internal error");
  }
  if (rq.fault == FaultKind::kRZero) std::fill(s2.begin(), s2.end(), 0);
  if (rq.fault == FaultKind::kBadCredential) s2.back() ^= 1;
  JsonPtr result(cJSON_CreateObject());
  cJSON_AddStringToObject(result.get(), "s2", Base64(s2).c_str());
  return Result(result);
}

}  // namespace

bool ParseFault(std::string_view text, std::string *method, Fault *out, std::string *why) {
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) {
    *why = "--fault wants METHOD:KIND";
    return false;
  }
  *method = std::string(text.substr(0, colon));
  const std::string_view kind = text.substr(colon + 1);
  static constexpr std::pair<std::string_view, FaultKind> kKinds[] = {
      {"drop", FaultKind::kDrop},
      {"garbage", FaultKind::kGarbage},
      {"bad_credential", FaultKind::kBadCredential},
      {"r_zero", FaultKind::kRZero},
  };
  for (const auto &[name, value] : kKinds) {
    if (kind == name) {
      *out = {value, 0};
      return true;
    }
  }
  if (kind.starts_with("delay=")) {
    const std::string_view ms = kind.substr(6);
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(ms.data(), ms.data() + ms.size(), value);
    if (ec == std::errc() && end == ms.data() + ms.size() && !ms.empty() && value <= 600000) {
      *out = {FaultKind::kDelay, value};
      return true;
    }
  }
  *why = "unknown fault \"" + std::string(kind) + "\"";
  return false;
}

Service::Service(ShareStore *store, RsaKeyMaker rsa_key_maker)
    : store_(store), rsa_key_maker_(rsa_key_maker ? std::move(rsa_key_maker) : RsaKeyMaker(MakeRsaKey)) {}

Answer Service::Handle(std::string_view method, std::string_view body) const {
  if (body.size() > kMaxRequestBytes) return Error(413, "request too large");
  Fault fault;
  if (const auto it = faults_.find(method); it != faults_.end()) fault = it->second;
  if (fault.kind == FaultKind::kDrop) return {0, "", true};
  if (fault.kind == FaultKind::kGarbage) return {200, "\x7fnot json {{{"};

  using Method = Answer (*)(const Service &, const Request &);
  static constexpr std::pair<std::string_view, Method> kMethods[] = {
      {"BIVOInit",
       [](const Service &, const Request &) {
         return Answer{200, "{\"status\":200}"};
       }},
      {"BIVOGenKeyPair", [](const Service &s, const Request &rq) { return GenKeyPair(s.store_, rq); }},
      {"BIVOSignature", [](const Service &s, const Request &rq) { return Signature(s.store_, rq); }},
      {"BIVODecrypt", [](const Service &s, const Request &rq) { return Decrypt(s.store_, rq); }},
      {"BIVORSAGenKeyPair",
       [](const Service &s, const Request &rq) { return RsaGenKeyPair(s.store_, s.rsa_key_maker_, rq); }},
      {"BIVORSASignature", [](const Service &s, const Request &rq) { return RsaSignature(s.store_, rq); }},
  };
  Method run = nullptr;
  for (const auto &[name, fn] : kMethods) {
    if (method == name) run = fn;
  }
  if (run == nullptr) return Error(404, "unknown method");
  JsonPtr root(cJSON_ParseWithLength(body.data(), body.size()));
  if (!cJSON_IsObject(root.get())) return Error(400, "request is not a JSON object");
  const Fields fields(root.get());
  Answer answer = run(*this, Request{fields, fault.kind});
  answer.delay_ms = fault.delay_ms;
  return answer;
}

}  // namespace zeph::cosign
