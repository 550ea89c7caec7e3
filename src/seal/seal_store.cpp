// Seals on a key: the seal-area functions of the handle API, the seal PIN,
// and the operations behind the seal commands. Each opens its own session
// on the seal application and closes it on every path; a read that needs
// several files does them all in one session.
#include "seal/seal_store.hpp"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "api/handle.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/log.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_api.h"
#include "zeph_c_device.h"
#include "zeph_c_status.h"
#include "zeph_skf.h"

namespace zeph::seal {

namespace {

using api::SessionGuard;

// The row whose application is the seal application, and its seal areas.
constexpr uint32_t kSealRow = ZEPH_OBJ_STAMP_CERTCHAIN;
constexpr uint32_t kAreaCert = 1;
constexpr uint32_t kAreaPicture = 2;
constexpr uint32_t kAreaCertChain = 3;
// "Cert" of a slot 1 whose seal is DER: the seal itself is in "Picture".
constexpr unsigned char kDerMarker[] = {'0'};

bool IsDerKind(uint32_t kind) { return kind == ZEPH_SEAL_TYPE_SES || kind == ZEPH_SEAL_TYPE_GB; }

uint32_t TextLen(const char *s, size_t max = SIZE_MAX) {
  return s != nullptr ? static_cast<uint32_t>(strnlen(s, std::min<size_t>(max, UINT32_MAX))) : 0;
}

uint32_t OpenAndVerify(GM_SKF_CTX *ctx, uint32_t row, const char *pin, uint32_t pin_len) {
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, row));
  return GM_SKF_CTX_VerifyPin(ctx, pin, pin_len);
}

// The seal PIN as the writers use it: its first characters only.
uint32_t OpenSealApp(GM_SKF_CTX *ctx, const char *seal_pin) {
  return OpenAndVerify(ctx, kSealRow, seal_pin, TextLen(seal_pin, ZEPH_SEAL_PIN_MAX));
}

uint32_t CopySealPin(const char *key_sn, char *out_pin, uint32_t *out_len) {
  if (key_sn == nullptr || key_sn[0] == '\0') return ZEPH_ERR_MISSING_HANDLE;
  ZEPH_ENSURE(out_pin != nullptr && out_len != nullptr, ERR_INVALID_PARAMETER);
  const uint32_t n = TextLen(key_sn, ZEPH_SEAL_PIN_MAX);
  std::memcpy(out_pin, key_sn, n);
  out_pin[n] = '\0';
  *out_len = n;
  return 0;
}

uint32_t WriteFirstDer(GM_SKF_CTX *ctx, const unsigned char *der, uint32_t len) {
  // "Picture" is written only once "Cert" was: when the marker cannot be
  // written, the seal that "Picture" holds stays as it was.
  ZEPH_TRY(GM_SKF_CTX_SetSealInfo(ctx, kAreaCert, kDerMarker, sizeof kDerMarker));
  return GM_SKF_CTX_SetSealInfo(ctx, kAreaPicture, der, len);
}

// A part of a seal handed to the writers.
struct Part {
  const unsigned char *data;
  uint32_t len;
  std::string_view text() const { return {reinterpret_cast<const char *>(data), len}; }
};

uint32_t WriteSlot(GM_SKF_CTX *ctx, uint32_t slot, uint32_t kind, Part data, Part pic, Part cert) {
  ZEPH_ENSURE(slot != 0, ERR_DEVICE_FILE_WRITE_FAILED);
  if (!IsDerKind(kind) && kind != ZEPH_SEAL_TYPE_TEXT) return 0;  // no kind the key knows: nothing written
  if (slot == 1) {
    if (IsDerKind(kind)) return WriteFirstDer(ctx, data.data, data.len);
    ZEPH_TRY(GM_SKF_CTX_SetSealInfo(ctx, kAreaCert, data.data, data.len));
    ZEPH_TRY(GM_SKF_CTX_SetSealInfo(ctx, kAreaPicture, pic.data, pic.len));
    return GM_SKF_CTX_SetSealInfo(ctx, kAreaCertChain, cert.data, cert.len);
  }
  if (IsDerKind(kind)) return GM_SKF_CTX_SetSealInfoEx(ctx, slot, data.data, data.len);
  std::string text;
  text.reserve(size_t{data.len} + pic.len + cert.len + 21);
  text.append("<I>").append(data.text()).append("</I><P>").append(pic.text()).append("</P><C>");
  text.append(cert.text()).append("</C>");
  ZEPH_ENSURE(text.size() <= UINT32_MAX, ERR_INVALID_PARAMETER);
  return GM_SKF_CTX_SetSealInfoEx(ctx, slot, reinterpret_cast<const unsigned char *>(text.data()),
                                  static_cast<uint32_t>(text.size()));
}

// A whole file: its size, then its bytes.
using ReadFn = uint32_t (*)(GM_SKF_CTX *, uint32_t, unsigned char *, uint32_t *);
uint32_t ReadWhole(GM_SKF_CTX *ctx, ReadFn read, uint32_t which, std::vector<uint8_t> *out) {
  uint32_t size = 0;
  ZEPH_TRY(read(ctx, which, nullptr, &size));
  try {
    out->assign(std::max<uint32_t>(size, 1), 0);
  } catch (const std::bad_alloc &) {
    return ERR_BUFFER_TOO_SMALL;  // the status readers of seal slots have always given
  }
  uint32_t len = static_cast<uint32_t>(out->size());
  ZEPH_TRY(read(ctx, which, out->data(), &len));
  out->resize(std::min<size_t>(len, size));
  return 0;
}

uint32_t ReadArea64(GM_SKF_CTX *ctx, uint32_t area, std::string *out) {
  std::vector<uint8_t> bytes;
  ZEPH_TRY(ReadWhole(ctx, GM_SKF_CTX_GetSealInfo, area, &bytes));
  *out = ToBase64(bytes);
  return 0;
}

// Slot 1 is told by the length of "Cert": the text form's record, the
// picture-only marker, or anything else, and then "Picture" holds the seal.
uint32_t ReadFirstSlot(GM_SKF_CTX *ctx, SlotSeal *out) {
  uint32_t cert_len = 0;
  const uint32_t rv = GM_SKF_CTX_GetSealInfo(ctx, kAreaCert, nullptr, &cert_len);
  // A rewrite of slot 1 that failed may have removed "Cert" (files are
  // deleted before they are created again): the seal in "Picture" still counts.
  if (rv != 0 && rv != SAR_FILE_NOT_EXIST) return rv;
  const int32_t by_length = rv == 0 ? chkSealType(nullptr, cert_len) : ZEPH_SEAL_TYPE_UNKNOWN;
  if (by_length == ZEPH_SEAL_TYPE_TEXT) {
    ZEPH_TRY(ReadArea64(ctx, kAreaCert, &out->info));
    ZEPH_TRY(ReadArea64(ctx, kAreaPicture, &out->pic));
    ZEPH_TRY(ReadArea64(ctx, kAreaCertChain, &out->cert));
    out->type = ZEPH_SEAL_TYPE_TEXT;
    return 0;
  }
  ZEPH_TRY(ReadWhole(ctx, GM_SKF_CTX_GetSealInfo, kAreaPicture, &out->der));
  out->type = by_length == ZEPH_SEAL_TYPE_PICTURE ? by_length : DerSealType(out->der);
  ZEPH_ENSURE(out->type != ZEPH_SEAL_TYPE_UNKNOWN, ERR_DEVICE_FILE_READ_FAILED);
  return 0;
}

uint32_t ReadSlot(GM_SKF_CTX *ctx, uint32_t slot, SlotSeal *out) {
  *out = SlotSeal{};
  if (slot == 1) return ReadFirstSlot(ctx, out);
  std::vector<uint8_t> text;
  ZEPH_TRY(ReadWhole(ctx, GM_SKF_CTX_GetSealInfoEx, slot, &text));
  return ReadSlotText({reinterpret_cast<const char *>(text.data()), text.size()}, out);
}

// `read` runs on a session of the seal application of key_sn.
template <class Read>
uint32_t WithSealApp(const char *key_sn, Read &&read) {
  api::OwnedHandle key;
  ZEPH_TRY(key.Open(0, key_sn));
  ZEPH_ENSURE(key.ctx() != nullptr, ZEPH_ERR_MISSING_HANDLE);
  SessionGuard session{key.ctx()};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(key.ctx(), kSealRow));
  return read(key.ctx());
}

bool IsSlot(uint32_t slot) { return slot >= ZEPH_SEAL_SLOT_FIRST && slot <= ZEPH_SEAL_SLOT_LAST; }

// A seal as the commands hand it over, checked and made ready for
// ZEPH_C_SetSealInfoEx: slot 1 takes bytes, slots 2 to 10 base64 texts.
struct Prepared {
  uint32_t kind = 0;
  std::vector<uint8_t> bytes[3];  // slot 1: the decoded parts
  std::string texts[3];           // other slots: the base64 as given
  Part part(int i, uint32_t slot) const {
    if (slot == 1) return {bytes[i].data(), static_cast<uint32_t>(bytes[i].size())};
    return {reinterpret_cast<const unsigned char *>(texts[i].data()), static_cast<uint32_t>(texts[i].size())};
  }
};

uint32_t Prepare(const char *data, Prepared *p) {
  ZEPH_ENSURE(data != nullptr && data[0] != '\0', ERR_INVALID_PARAMETER);
  const JsonPtr doc(cJSON_Parse(data));
  if (cJSON_IsObject(doc.get())) {
    p->kind = ZEPH_SEAL_TYPE_TEXT;
    const char *keys[] = {"info", "pic", "cert"};
    for (int i = 0; i < 3; ++i) {
      const char *text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(doc.get(), keys[i]));
      ZEPH_ENSURE(text != nullptr && text[0] != '\0', ERR_JSON_INVALID);
      p->texts[i] = text;
      ZEPH_TRY(FromBase64(p->texts[i], &p->bytes[i]));
    }
    return 0;
  }
  // Anything else is the base64 of a DER seal, and it must be one: a slot
  // is never overwritten with what no reader would take back.
  p->kind = ZEPH_SEAL_TYPE_SES;
  p->texts[0] = data;
  ZEPH_TRY(FromBase64(p->texts[0], &p->bytes[0]));
  ZEPH_ENSURE(DerSealType(p->bytes[0]) != ZEPH_SEAL_TYPE_UNKNOWN, ERR_DEVICE_FILE_READ_FAILED);
  return 0;
}

using PinFn = uint32_t (*)(void *handle, const char *key_sn, const char *user_pin, char *out_pin, uint32_t *out_len);

uint32_t SetSeal(const char *key_sn, const char *user_pin, uint32_t slot, const char *data, PinFn seal_pin) {
  ZEPH_ENSURE(slot <= ZEPH_SEAL_SLOT_LAST, ERR_INVALID_PARAMETER);
  Prepared seal;
  ZEPH_TRY(Prepare(data, &seal));
  api::OwnedHandle key;
  ZEPH_TRY(key.Open(0, key_sn));
  SecureBytes pin(ZEPH_SEAL_PIN_MAX + 1);
  uint32_t pin_len = 0;
  ZEPH_TRY(seal_pin(key.get(), key_sn, user_pin, reinterpret_cast<char *>(pin.data()), &pin_len));
  const Part d = seal.part(0, slot), pic = seal.part(1, slot), cert = seal.part(2, slot);
  return ZEPH_C_SetSealInfoEx(key.get(), reinterpret_cast<const char *>(pin.data()), key_sn, slot, seal.kind, d.data,
                              d.len, pic.data, pic.len, cert.data, cert.len);
}

uint32_t SpecPin(void *handle, const char *key_sn, const char *, char *out_pin, uint32_t *out_len) {
  return ZEPH_C_GetSealSessionPinSpec(handle, key_sn, out_pin, out_len);
}

uint32_t GetSeal(const char *key_sn, uint32_t slot, int32_t *out_type, std::string *out_text) {
  ZEPH_ENSURE(out_type != nullptr && out_text != nullptr, ERR_INVALID_PARAMETER);
  SlotSeal seal;
  ZEPH_TRY(ReadSealSlot(key_sn, slot, &seal));
  *out_type = seal.type;
  ZEPH_ENSURE(seal.type != ZEPH_SEAL_TYPE_PICTURE, ERR_DEVICE_FILE_READ_FAILED);
  *out_text = SealText(seal);
  return 0;
}

}  // namespace

uint32_t l_setSealInfo(const char *key_sn, const char *user_pin, uint32_t slot, const char *data) {
  return SetSeal(key_sn, user_pin, slot, data, ZEPH_C_GetSealSessionPin);
}

uint32_t l_setSealInfoSpec(const char *key_sn, uint32_t slot, const char *data) {
  return SetSeal(key_sn, nullptr, slot, data, SpecPin);
}

uint32_t l_getFirstSealInfo(const char *key_sn, int32_t *out_type, std::string *out_text) {
  return GetSeal(key_sn, 1, out_type, out_text);
}

uint32_t l_getSealInfo_NotFirst(const char *key_sn, uint32_t slot, int32_t *out_type, std::string *out_text) {
  ZEPH_ENSURE(slot != 1, ERR_INVALID_PARAMETER);
  return GetSeal(key_sn, slot, out_type, out_text);
}

uint32_t StoreSealArea(const char *key_sn, const char *user_pin, uint32_t area, std::span<const uint8_t> data) {
  ZEPH_ENSURE(!data.empty() && data.size() <= UINT32_MAX, ERR_INVALID_PARAMETER);
  api::OwnedHandle key;
  ZEPH_TRY(key.Open(0, key_sn));
  SecureBytes pin(ZEPH_SEAL_PIN_MAX + 1);
  uint32_t pin_len = 0;
  ZEPH_TRY(ZEPH_C_GetSealSessionPin(key.get(), key_sn, user_pin, reinterpret_cast<char *>(pin.data()), &pin_len));
  return ZEPH_C_SetSealInfo(key.get(), reinterpret_cast<const char *>(pin.data()), key_sn, area, data.data(),
                            static_cast<uint32_t>(data.size()));
}

uint32_t ReadSealSlot(const char *key_sn, uint32_t slot, SlotSeal *out) {
  ZEPH_ENSURE(IsSlot(slot), ERR_INVALID_PARAMETER);
  return WithSealApp(key_sn, [&](GM_SKF_CTX *ctx) { return ReadSlot(ctx, slot, out); });
}

uint32_t ListSeals(const char *key_sn, std::string *out) {
  // The summaries are JSON objects as they are made: the list is written
  // around them rather than parsed and printed again.
  std::string list;
  uint32_t quantity = 0;
  ZEPH_TRY(WithSealApp(key_sn, [&](GM_SKF_CTX *ctx) -> uint32_t {
    for (uint32_t slot = ZEPH_SEAL_SLOT_FIRST; slot <= ZEPH_SEAL_SLOT_LAST; ++slot) {
      SlotSeal seal;
      std::string summary;
      uint32_t rv = ReadSlot(ctx, slot, &seal);
      if (rv == 0) rv = SealSummary(seal, &summary);
      // The first seal must be there; the others are listed when they can be read.
      if (rv != 0 && slot == 1) return rv;
      if (rv != 0) continue;
      list.append(quantity++ == 0 ? "" : ",").append("{\"idx\":").append(std::to_string(slot));
      list.append(",\"data\":").append(summary).append("}");
    }
    return 0;
  }));
  *out = "{\"quantity\":" + std::to_string(quantity);
  if (quantity != 0) out->append(",\"keyList\":[").append(list).append("]");
  out->append("}");
  return 0;
}

}  // namespace zeph::seal

using zeph::api::SessionGuard;
using zeph::seal::Part;

extern "C" {

ZEPH_API uint32_t ZEPH_C_SetSealInfo(void *handle, const char *pin, const char *key_sn, uint32_t area,
                                     const unsigned char *data, uint32_t data_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  ZEPH_ENSURE(data != nullptr || data_len == 0, ERR_INVALID_PARAMETER);
  return zeph::Guarded([&]() -> uint32_t {
    SessionGuard session{ctx};
    ZEPH_TRY(zeph::seal::OpenSealApp(ctx, pin));
    int32_t type = chkSealType(data, data_len);
    if (type == ZEPH_SEAL_TYPE_UNKNOWN && data != nullptr) type = zeph::seal::DerSealType({data, data_len});
    ZEPH_LOG("ZEPH_C_SetSealInfo:", 0);
    const uint32_t rv = type == ZEPH_SEAL_TYPE_SES || type == ZEPH_SEAL_TYPE_GB
                            ? zeph::seal::WriteFirstDer(ctx, data, data_len)
                            : GM_SKF_CTX_SetSealInfo(ctx, area, data, data_len);
    ZEPH_LOG("ZEPH_C_SetSealInfo end:", rv);
    return rv;
  });
}

ZEPH_API uint32_t ZEPH_C_SetSealInfoEx(void *handle, const char *pin, const char *key_sn, uint32_t slot, uint32_t kind,
                                       const unsigned char *data, uint32_t data_len, const unsigned char *pic,
                                       uint32_t pic_len, const unsigned char *cert, uint32_t cert_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  ZEPH_ENSURE(
      (data != nullptr || data_len == 0) && (pic != nullptr || pic_len == 0) && (cert != nullptr || cert_len == 0),
      ERR_INVALID_PARAMETER);
  return zeph::Guarded([&]() -> uint32_t {
    SessionGuard session{ctx};
    ZEPH_TRY(zeph::seal::OpenSealApp(ctx, pin));
    return zeph::seal::WriteSlot(ctx, slot, kind, Part{data, data_len}, Part{pic, pic_len}, Part{cert, cert_len});
  });
}

ZEPH_API uint32_t ZEPH_C_GetSealInfo(void *handle, uint32_t area, unsigned char *out, uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, zeph::seal::kSealRow));
  return GM_SKF_CTX_GetSealInfo(ctx, area, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_GetSealInfoEx(void *handle, uint32_t slot, unsigned char *out, uint32_t *in_out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  SessionGuard session{ctx};
  ZEPH_TRY(GM_SKF_CTX_OpenSession(ctx, zeph::seal::kSealRow));
  return GM_SKF_CTX_GetSealInfoEx(ctx, slot, out, in_out_len);
}

ZEPH_API uint32_t ZEPH_C_GetSealSessionPin(void *handle, const char *key_sn, const char *user_pin, char *out_pin,
                                           uint32_t *out_len) {
  ZEPH_API_CONTEXT(handle, ctx);
  if (key_sn == nullptr || key_sn[0] == '\0') return ZEPH_ERR_MISSING_HANDLE;
  ZEPH_ENSURE(out_pin != nullptr && out_len != nullptr, ERR_INVALID_PARAMETER);
  {
    SessionGuard session{ctx};
    const uint32_t pin_len = zeph::seal::TextLen(user_pin);
    // The RSA area first; a key without one proves the PIN on its SM2 area.
    if (zeph::seal::OpenAndVerify(ctx, ZEPH_OBJ_RSA_SIGN, user_pin, pin_len) != 0) {
      ZEPH_TRY(zeph::seal::OpenAndVerify(ctx, ZEPH_OBJ_SM2_SIGN, user_pin, pin_len));
    }
  }
  return zeph::seal::CopySealPin(key_sn, out_pin, out_len);
}

ZEPH_API uint32_t ZEPH_C_GetSealSessionPinSpec(void *handle, const char *key_sn, char *out_pin, uint32_t *out_len) {
  if (zeph::api::ContextOf(handle) == nullptr) return ZEPH_ERR_MISSING_HANDLE;
  return zeph::seal::CopySealPin(key_sn, out_pin, out_len);
}

}  // extern "C"
