#include "device_json.hpp"

#include <cstdint>
#include <memory>
#include <new>

#include <cjson/cJSON.h>
#include <openssl/evp.h>

#include "foundation/owned.hpp"

namespace softkey {

namespace {

// Owners of the cJSON trees and texts of this file (the software key takes
// no JSON header from the library).
using JsonPtr = std::unique_ptr<cJSON, zeph::Free<cJSON_Delete>>;
void FreeText(char *p) noexcept { cJSON_free(p); }
using JsonTextPtr = std::unique_ptr<char, zeph::Free<FreeText>>;

constexpr int kFormat = 1;

std::string Hex(const Bytes &b) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s(2 * b.size(), '0');
  for (size_t i = 0; i < b.size(); ++i) {
    s[2 * i] = kDigits[b[i] >> 4];
    s[2 * i + 1] = kDigits[b[i] & 15];
  }
  return s;
}

bool Unhex(std::string_view text, Bytes &out) {
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (text.size() % 2 != 0) return false;
  Bytes b(text.size() / 2);
  for (size_t i = 0; i < b.size(); ++i) {
    const int hi = nibble(text[2 * i]), lo = nibble(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    b[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  out = std::move(b);
  return true;
}

std::string Base64(const Bytes &b) {
  if (b.empty()) return {};
  std::string out(4 * ((b.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()), b.data(), static_cast<int>(b.size()));
  out.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return out;
}

bool Unbase64(std::string_view text, Bytes &out) {
  out.clear();
  if (text.empty()) return true;
  if (text.size() % 4 != 0 || text.size() > INT32_MAX) return false;
  Bytes buf(text.size() / 4 * 3);
  const int n =
      EVP_DecodeBlock(buf.data(), reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
  if (n < 0) return false;
  size_t pad = 0;
  if (text.back() == '=') ++pad;
  if (text.size() >= 2 && text[text.size() - 2] == '=') ++pad;
  buf.resize(static_cast<size_t>(n) - pad);
  out = std::move(buf);
  return true;
}

// ---- writing ---------------------------------------------------------------
// A failed allocation throws: a device is never saved with members missing.

cJSON *Checked(cJSON *item) {
  if (item == nullptr) throw std::bad_alloc();
  return item;
}

void Put(cJSON *o, const char *k, cJSON *item) {
  JsonPtr owned(Checked(item));
  if (!cJSON_AddItemToObject(o, k, owned.get())) throw std::bad_alloc();
  owned.release();
}

void PutU32(cJSON *o, const char *k, uint32_t v) { Put(o, k, cJSON_CreateNumber(v)); }
void PutText(cJSON *o, const char *k, const std::string &s) { Put(o, k, cJSON_CreateString(s.c_str())); }

// An array of one object per element, each filled by `fill`.
template <class T, class F>
void PutArray(cJSON *o, const char *k, const std::vector<T> &items, F &&fill) {
  cJSON *array = Checked(cJSON_CreateArray());
  Put(o, k, array);
  for (const T &item : items) {
    JsonPtr element(Checked(cJSON_CreateObject()));
    fill(element.get(), item);
    if (!cJSON_AddItemToArray(array, element.get())) throw std::bad_alloc();
    element.release();
  }
}

cJSON *PinJson(const Pin &p) {
  JsonPtr o(Checked(cJSON_CreateObject()));
  PutU32(o.get(), "max", p.max_retry);
  PutU32(o.get(), "remain", p.remain);
  Put(o.get(), "default", cJSON_CreateBool(p.is_default));
  PutU32(o.get(), "iterations", p.iterations);
  PutText(o.get(), "salt", Hex(p.salt));
  PutText(o.get(), "wrapped", Hex(p.wrapped));
  return o.release();
}

// Compat: device files written so far call the wrapped private key "sealed".
constexpr const char *kWrappedKey = "sealed";

cJSON *KeyJson(const std::optional<KeyPair> &k) {
  if (!k) return cJSON_CreateNull();
  JsonPtr o(Checked(cJSON_CreateObject()));
  PutU32(o.get(), "alg", k->alg);
  PutU32(o.get(), "bits", k->bits);
  PutText(o.get(), "pub", Hex(k->pub));
  PutText(o.get(), kWrappedKey, Hex(k->wrapped));
  return o.release();
}

void FileJson(cJSON *o, const File &f) {
  PutText(o, "name", f.name);
  PutU32(o, "read", f.read_rights);
  PutU32(o, "write", f.write_rights);
  PutText(o, "data", Base64(f.data));
}

void ContainerJson(cJSON *o, const Container &c) {
  PutText(o, "name", c.name);
  PutText(o, "id", c.id);
  Put(o, "sign", KeyJson(c.sign));
  Put(o, "enc", KeyJson(c.enc));
  PutText(o, "signCert", Base64(c.sign_cert));
  PutText(o, "encCert", Base64(c.enc_cert));
}

void AppJson(cJSON *o, const Application &a) {
  PutText(o, "name", a.name);
  PutText(o, "id", a.id);
  PutU32(o, "createFileRights", a.create_file_rights);
  Put(o, "admin", PinJson(a.admin));
  Put(o, "user", PinJson(a.user));
  PutArray(o, "files", a.files, FileJson);
  PutArray(o, "containers", a.containers, ContainerJson);
}

// ---- reading ---------------------------------------------------------------

bool GetString(const cJSON *o, const char *k, std::string &out) {
  const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, k);
  if (!cJSON_IsString(v) || v->valuestring == nullptr) return false;
  out = v->valuestring;
  return true;
}

bool GetU32(const cJSON *o, const char *k, uint32_t &out) {
  const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, k);
  if (!cJSON_IsNumber(v)) return false;
  const double d = v->valuedouble;
  if (!(d >= 0 && d <= 4294967295.0) || d != static_cast<double>(static_cast<uint32_t>(d))) return false;
  out = static_cast<uint32_t>(d);
  return true;
}

bool GetBool(const cJSON *o, const char *k, bool &out) {
  const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, k);
  if (!cJSON_IsBool(v)) return false;
  out = cJSON_IsTrue(v);
  return true;
}

bool GetHex(const cJSON *o, const char *k, Bytes &out) {
  std::string s;
  return GetString(o, k, s) && Unhex(s, out);
}

bool GetB64(const cJSON *o, const char *k, Bytes &out) {
  std::string s;
  return GetString(o, k, s) && Unbase64(s, out);
}

bool ParsePin(const cJSON *o, Pin &p) {
  return cJSON_IsObject(o) && GetU32(o, "max", p.max_retry) && GetU32(o, "remain", p.remain) &&
         p.remain <= p.max_retry && GetBool(o, "default", p.is_default) && GetU32(o, "iterations", p.iterations) &&
         p.iterations != 0 && GetHex(o, "salt", p.salt) && GetHex(o, "wrapped", p.wrapped);
}

bool ParseKey(const cJSON *o, std::optional<KeyPair> &out) {
  if (o == nullptr || cJSON_IsNull(o)) return true;
  KeyPair k;
  if (!cJSON_IsObject(o) || !GetU32(o, "alg", k.alg) || !GetU32(o, "bits", k.bits) || !GetHex(o, "pub", k.pub) ||
      !GetHex(o, kWrappedKey, k.wrapped))
    return false;
  // Callers rely on the shapes: a 65-byte uncompressed point, an RSA size the
  // blobs can hold.
  const bool sm2 = k.alg == SGD_SM2_1 && k.bits == 256 && k.pub.size() == 65 && k.pub[0] == 0x04;
  const bool rsa = k.alg == SGD_RSA && (k.bits == 1024 || k.bits == 2048) && !k.pub.empty();
  if (!sm2 && !rsa) return false;
  out = std::move(k);
  return true;
}

template <class T, class F>
bool ParseArray(const cJSON *parent, const char *k, std::vector<T> &out, F &&one) {
  const cJSON *a = cJSON_GetObjectItemCaseSensitive(parent, k);
  if (!cJSON_IsArray(a)) return false;
  const cJSON *it = nullptr;
  cJSON_ArrayForEach(it, a) {
    T t;
    if (!cJSON_IsObject(it) || !one(it, t)) return false;
    out.push_back(std::move(t));
  }
  return true;
}

bool ParseContainer(const cJSON *o, Container &c) {
  return GetString(o, "name", c.name) && GetString(o, "id", c.id) &&
         ParseKey(cJSON_GetObjectItemCaseSensitive(o, "sign"), c.sign) &&
         ParseKey(cJSON_GetObjectItemCaseSensitive(o, "enc"), c.enc) && GetB64(o, "signCert", c.sign_cert) &&
         GetB64(o, "encCert", c.enc_cert);
}

bool ParseFile(const cJSON *o, File &f) {
  return GetString(o, "name", f.name) && GetU32(o, "read", f.read_rights) && GetU32(o, "write", f.write_rights) &&
         GetB64(o, "data", f.data);
}

bool ParseApp(const cJSON *o, Application &a) {
  return GetString(o, "name", a.name) && GetString(o, "id", a.id) &&
         GetU32(o, "createFileRights", a.create_file_rights) &&
         ParsePin(cJSON_GetObjectItemCaseSensitive(o, "admin"), a.admin) &&
         ParsePin(cJSON_GetObjectItemCaseSensitive(o, "user"), a.user) && ParseArray(o, "files", a.files, ParseFile) &&
         ParseArray(o, "containers", a.containers, ParseContainer);
}

}  // namespace

std::string Serialize(const Device &d) {
  JsonPtr root(Checked(cJSON_CreateObject()));
  cJSON *o = root.get();
  PutU32(o, "format", kFormat);
  PutText(o, "serial", d.serial);
  PutText(o, "label", d.label);
  PutText(o, "manufacturer", d.manufacturer);
  PutText(o, "issuer", d.issuer);
  PutText(o, "authKey", Hex(d.auth_key));
  PutU32(o, "totalSpace", d.total_space);
  PutArray(o, "apps", d.apps, AppJson);
  JsonTextPtr text(cJSON_Print(o));
  if (!text) throw std::bad_alloc();
  return std::string(text.get()) + "\n";
}

bool Parse(std::string_view text, Device &out_device) {
  JsonPtr root(cJSON_ParseWithLength(text.data(), text.size()));
  const cJSON *o = root.get();
  uint32_t format = 0;
  Device d;
  if (!cJSON_IsObject(o) || !GetU32(o, "format", format) || format != kFormat || !GetString(o, "serial", d.serial) ||
      !GetString(o, "label", d.label) || !GetString(o, "manufacturer", d.manufacturer) ||
      !GetString(o, "issuer", d.issuer) || !GetHex(o, "authKey", d.auth_key) || d.auth_key.size() != 16 ||
      !GetU32(o, "totalSpace", d.total_space) || !ParseArray(o, "apps", d.apps, ParseApp))
    return false;
  out_device = std::move(d);
  return true;
}

}  // namespace softkey
