// Request text -> ZEPH_REQ_PARAM. One fixed record; the only allocations are
// the two owned texts (value and certificate).
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "ci/ci_internal.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace zeph::ci {
namespace {

constexpr uint32_t kKeySnTooLong = 0xFFFFFFFFu;

// The request's members in document order, looked up by name as cJSON does
// (the first member of that name). Some fifty names are asked for and a
// request holds a handful of members: a name whose length and first
// character no member shares is answered at once.
class Members {
 public:
  explicit Members(const cJSON *object) {
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, object) {
      if (item->string == nullptr) break;  // where cJSON's lookup stops too
      const std::string_view name(item->string);
      seen_ |= Bit(name);
      if (count_ < kInline) {
        inline_[count_] = {name, item};
      } else {
        more_.push_back({name, item});
      }
      ++count_;
    }
  }
  const cJSON *Find(std::string_view key) const {
    if ((seen_ & Bit(key)) == 0) return nullptr;
    for (size_t i = 0; i < count_; ++i) {
      const Member &m = i < kInline ? inline_[i] : more_[i - kInline];
      if (m.name == key) return m.item;
    }
    return nullptr;
  }

 private:
  struct Member {
    std::string_view name;
    const cJSON *item;
  };
  static constexpr size_t kInline = 16;
  static uint64_t Bit(std::string_view name) {
    const unsigned first = name.empty() ? 0 : static_cast<unsigned char>(name[0]);
    return uint64_t{1} << ((name.size() * 7 + first) % 64);
  }
  uint64_t seen_ = 0;
  size_t count_ = 0;
  Member inline_[kInline];
  std::vector<Member> more_;
};

// Several names for one field: the first key present wins, whatever its type.
const cJSON *First(const Members &root, std::initializer_list<std::string_view> keys) {
  for (const std::string_view key : keys) {
    if (const cJSON *item = root.Find(key); item != nullptr) return item;
  }
  return nullptr;
}

// Numbers by their integer value; true/false as 1/0 so "isRaw":true reads
// naturally. Anything else leaves the field zero. True when a value was read.
bool ReadNumber(const Members &root, std::initializer_list<std::string_view> keys, uint32_t *field) {
  const cJSON *item = First(root, keys);
  if (cJSON_IsNumber(item)) {
    *field = static_cast<uint32_t>(item->valueint);
  } else if (cJSON_IsBool(item)) {
    *field = cJSON_IsTrue(item) ? 1u : 0u;
  } else {
    return false;
  }
  return true;
}

template <size_t N>
uint32_t ReadText(const Members &root, std::initializer_list<std::string_view> keys, Text<N> *field,
                  uint32_t too_long = ERR_INVALID_PARAMETER) {
  const char *s = cJSON_GetStringValue(First(root, keys));
  if (s == nullptr) return 0;
  const size_t n = std::strlen(s);
  if (n > N) return too_long;
  std::memcpy(field->s, s, n);
  field->s[n] = '\0';
  return 0;
}

// Base64 decoded into at most cap bytes; an empty text decodes to nothing.
uint32_t DecodeBase64Into(const char *text, uint8_t *out, uint32_t cap, uint32_t *out_len) {
  *out_len = 0;
  if (text[0] == '\0') return 0;
  uint32_t n = cap;
  const uint32_t rv = zeph_c_utils_b64tohex2(text, out, &n);
  if (rv == ERR_BUFFER_TOO_SMALL) return ERR_INVALID_PARAMETER;
  ZEPH_TRY(rv);
  *out_len = n;
  return 0;
}

template <size_t N>
uint32_t ReadBlob(const Members &root, std::string_view key, Blob<N> *field) {
  const char *s = cJSON_GetStringValue(root.Find(key));
  if (s == nullptr) return 0;
  // A second key may decode into the same field: it holds only the last value.
  OPENSSL_cleanse(field->bytes, N);
  field->len = 0;
  return DecodeBase64Into(s, field->bytes, N, &field->len);
}

// Owned text, allocated at its length plus one and zero-filled. Strings are
// copied; objects (where allowed) are kept as their unformatted JSON text;
// any other type leaves the field empty.
uint32_t ReadOwned(const Members &root, std::initializer_list<std::string_view> keys, bool objects, char **field,
                   uint32_t *field_len) {
  const cJSON *item = First(root, keys);
  JsonTextPtr printed;
  const char *s = nullptr;
  if (cJSON_IsString(item)) {
    s = item->valuestring;
  } else if (objects && cJSON_IsObject(item)) {
    printed.reset(cJSON_PrintUnformatted(item));
    if (!printed) return ERR_OUT_OF_MEMORY;
    s = printed.get();
  }
  if (s == nullptr) return 0;
  const size_t n = std::strlen(s);
  if (n >= UINT32_MAX) return ERR_INVALID_PARAMETER;
  auto *copy = static_cast<char *>(std::calloc(n + 1, 1));
  if (copy == nullptr) return ERR_OUT_OF_MEMORY;
  std::memcpy(copy, s, n);
  *field = copy;
  *field_len = static_cast<uint32_t>(n);
  return 0;
}

template <size_t N>
void Wipe(Text<N> *t) {
  OPENSSL_cleanse(t->s, strnlen(t->s, N + 1));
}

template <size_t N>
void Wipe(Blob<N> *b) {
  OPENSSL_cleanse(b->bytes, b->len);
  b->len = 0;
}

void WipeAndFree(char *p, uint32_t n) {
  if (p == nullptr) return;
  OPENSSL_cleanse(p, n);
  std::free(p);
}

}  // namespace

uint32_t ParseRequest(const char *text, ZEPH_REQ_PARAM *req) {
  if (text == nullptr) return ERR_JSON_INVALID;
  WipedJsonPtr doc(cJSON_Parse(text));
  if (!doc || !cJSON_IsObject(doc.get())) return ERR_JSON_INVALID;
  const Members root(doc.get());

  ReadNumber(root, {"type"}, &req->command);
  ReadNumber(root, {"devType"}, &req->devType);
  ReadNumber(root, {"asymid"}, &req->asymid);

  ZEPH_TRY(ReadBlob(root, "bivo_d1", &req->bivo_d1));
  ZEPH_TRY(ReadBlob(root, "bivo_d1_inv", &req->bivo_d1_inv));
  ZEPH_TRY(ReadBlob(root, "bivo_pubkey", &req->bivo_pubkey));
  ZEPH_TRY(ReadBlob(root, "bivo_credential", &req->bivo_credential));
  ZEPH_TRY(ReadBlob(root, "bivo_k1", &req->bivo_k1));
  ZEPH_TRY(ReadBlob(root, "bivo_r", &req->bivo_r));
  ZEPH_TRY(ReadBlob(root, "bivo_s2", &req->bivo_s2));
  ZEPH_TRY(ReadBlob(root, "bivo_s3", &req->bivo_s3));
  ZEPH_TRY(ReadBlob(root, "bivo_c1", &req->bivo_c));
  ZEPH_TRY(ReadBlob(root, "bivo_c2", &req->bivo_c));
  ZEPH_TRY(ReadBlob(root, "bivo_c3", &req->bivo_c3));
  ZEPH_TRY(ReadBlob(root, "bivo_t2", &req->bivo_t2));
  ReadNumber(root, {"bivo_c2_len"}, &req->bivo_c2_len);

  req->usageGiven = ReadNumber(root, {"usage", "appID", "isRaw"}, &req->usage);
  ReadNumber(root, {"signDataType", "wrapperType", "retryCnt", "chkMode", "idx", "itemNo"}, &req->selector);
  ReadNumber(root, {"algID", "modLen", "signMethodID", "randLen"}, &req->algID);

  ZEPH_TRY(ReadText(root, {"keySN"}, &req->keySN, kKeySnTooLong));
  ZEPH_TRY(ReadText(root, {"pin"}, &req->pin));
  ZEPH_TRY(ReadText(root, {"oid", "adminPin"}, &req->oid));
  ZEPH_TRY(ReadText(root, {"signData"}, &req->signData));
  ZEPH_TRY(ReadText(root, {"prikey"}, &req->prikey));
  ZEPH_TRY(ReadText(root, {"symKey"}, &req->symKey));
  ZEPH_TRY(ReadText(root, {"deviceID"}, &req->deviceID));
  ZEPH_TRY(ReadText(root, {"url"}, &req->url));
  ReadNumber(root, {"nocrl"}, &req->nocrl);

  ZEPH_TRY(ReadOwned(root, {"cert", "pubkey", "prikeyinfo", "filepath"}, false, &req->cert, &req->certLen));
  ZEPH_TRY(ReadOwned(root, {"raw", "certChain", "dn", "newPin", "encKey", "authCode", "seal", "sealData"}, true,
                     &req->value, &req->valueLen));
  return 0;
}

void ReleaseRequest(ZEPH_REQ_PARAM *req) {
  WipeAndFree(req->value, req->valueLen);
  WipeAndFree(req->cert, req->certLen);
  req->value = req->cert = nullptr;
  // PINs, keys and key shares: wipe what the parser wrote, not the whole
  // 12 KB block, which mostly stays zero.
  for (Text<260> *t : {&req->keySN, &req->oid, &req->pin, &req->deviceID, &req->url}) Wipe(t);
  Wipe(&req->signData);
  Wipe(&req->prikey);
  Wipe(&req->symKey);
  for (auto *b : {&req->bivo_d1, &req->bivo_r, &req->bivo_s2, &req->bivo_s3, &req->bivo_pubkey, &req->bivo_c3,
                  &req->bivo_t2, &req->bivo_k1}) {
    Wipe(b);
  }
  Wipe(&req->bivo_d1_inv);
  Wipe(&req->bivo_credential);
  Wipe(&req->bivo_c);
}

}  // namespace zeph::ci
