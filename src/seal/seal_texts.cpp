// What a stored seal says: its kind, the text form's information record, and
// the JSON texts of the seal commands (summary, detail, structure).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include <errno.h>
#include <iconv.h>
#include <openssl/objects.h>

#include "foundation/helpers.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "seal/seal_internal.hpp"
#include "seal/seal_reader.hpp"
#include "seal/seal_store.hpp"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace zeph::seal {

namespace {

// The information record of a text-form seal: little-endian, fixed offsets.
constexpr size_t kRecordLen = 968;
constexpr size_t kAlgAt = 72;      // signed 16-bit algorithm code
constexpr size_t kWidthAt = 616;   // picture size in hundredths
constexpr size_t kHeightAt = 620;  //
constexpr size_t kNameAt = 624;    // zero-terminated GBK, up to the creation time
constexpr size_t kCreatedAt = 720;
constexpr size_t kStartAt = 736;
constexpr size_t kEndAt = 752;
constexpr size_t kNameMax = 256;  // bytes of the name after conversion

using Asn1TimePtr = std::unique_ptr<ASN1_TIME, Free<ASN1_TIME_free>>;
using IconvPtr = std::unique_ptr<void, Free<iconv_close>>;

uint32_t Le16(std::span<const uint8_t> b, size_t at) { return b[at] | b[at + 1] << 8; }
uint32_t Le32(std::span<const uint8_t> b, size_t at) { return Le16(b, at) | Le16(b, at + 2) << 16; }

// Eight 16-bit words: year, month, day of week, day, hour, minute, second,
// milliseconds; the day of week and the milliseconds are not shown.
std::string RecordTime(std::span<const uint8_t> rec, size_t at) {
  char text[48];
  std::snprintf(text, sizeof text, "%04u%02u%02u%02u%02u%02u", Le16(rec, at), Le16(rec, at + 2), Le16(rec, at + 6),
                Le16(rec, at + 8), Le16(rec, at + 10), Le16(rec, at + 12));
  return text;
}

// What the summary and the detail show, whichever form the seal has.
struct Facts {
  std::string alg, name, created, not_before, not_after;
  uint32_t width = 0, height = 0;
  std::string pic, maker_cert, holder_cert;  // base64
};

uint32_t RecordFacts(const SlotSeal &seal, Facts *f) {
  std::vector<uint8_t> rec;
  ZEPH_TRY(FromBase64(seal.info, &rec));
  // Shorter is no record; bytes past it are carried unread.
  ZEPH_ENSURE(rec.size() >= kRecordLen, ERR_DEVICE_FILE_READ_FAILED);
  char alg[32] = {0};
  const auto code = static_cast<int16_t>(Le16(rec, kAlgAt));
  ZEPH_TRY(zeph_getVorliAlgName(static_cast<uint32_t>(code), alg));
  f->alg = alg;
  f->width = Le32(rec, kWidthAt) / 100;
  f->height = Le32(rec, kHeightAt) / 100;
  const std::span<const uint8_t> field(rec.data() + kNameAt, kCreatedAt - kNameAt);
  const size_t name_len = std::find(field.begin(), field.end(), 0) - field.begin();
  ZEPH_TRY(GbkToUtf8(field.first(name_len), kNameMax, &f->name));
  f->created = RecordTime(rec, kCreatedAt);
  f->not_before = RecordTime(rec, kStartAt);
  f->not_after = RecordTime(rec, kEndAt);
  f->pic = seal.pic;
  f->maker_cert = seal.cert;
  f->holder_cert = seal.cert;
  return 0;
}

// "YYYYMMDDhhmmss" in local time; empty when the time does not convert.
std::string StandardTime(const ASN1_TIME *t) {
  char text[32] = {0};
  uint32_t len = sizeof text;
  if (t == nullptr || zeph_c_utils_getStandardTime(t, text, &len) != 0) return "";
  return std::string(text, len);
}

std::string StandardTime(const der::Tlv &t) {
  const unsigned char *p = t.whole.data();
  const Asn1TimePtr time(d2i_ASN1_TIME(nullptr, &p, static_cast<long>(t.whole.size())));
  return StandardTime(time.get());
}

// The long name where OpenSSL knows the OID, else its dotted form.
uint32_t OidText(const ASN1_OBJECT *oid, std::string *out) {
  const int n = oid != nullptr ? OBJ_obj2txt(nullptr, 0, oid, 0) : 0;
  ZEPH_ENSURE(n > 0, ERR_SEAL_PARSE_FAILED);
  out->assign(static_cast<size_t>(n) + 1, '\0');
  ZEPH_ENSURE(OBJ_obj2txt(out->data(), n + 1, oid, 0) == n, ERR_SEAL_PARSE_FAILED);
  out->resize(static_cast<size_t>(n));
  return 0;
}

std::string Text(std::span<const uint8_t> b) { return {reinterpret_cast<const char *>(b.data()), b.size()}; }

// From the seal structures where they decode the seal, else from the
// tolerant reader.
uint32_t DerFacts(const SlotSeal &seal, Facts *f) {
  const auto d = DecodeAs(seal.type == ZEPH_SEAL_TYPE_SES ? Input::kSesSeal : Input::kGbSeal, seal.der.data(),
                          static_cast<uint32_t>(seal.der.size()));
  if (d) {
    const SealFields &s = d->fields;
    ZEPH_TRY(OidText(s.maker_alg, &f->alg));
    f->name = Text(Bytes(s.name));
    f->created = StandardTime(s.create_date);
    f->not_before = StandardTime(s.valid_start);
    f->not_after = StandardTime(s.valid_end);
    f->width = ToU32(s.pic_width);
    f->height = ToU32(s.pic_height);
    f->pic = ToBase64(Bytes(s.pic_data));
    f->maker_cert = ToBase64(Bytes(s.maker_cert));
    f->holder_cert = ToBase64(FirstCert(*d).value_or(std::vector<uint8_t>{}));
    return 0;
  }
  const auto first = der::ReadTlv(seal.der);
  const auto view = first ? reader::ReadSeal(first->whole) : std::nullopt;
  ZEPH_ENSURE(view, ERR_DEVICE_FILE_READ_FAILED);
  const unsigned char *p = view->maker_alg.data();
  const Asn1ObjectPtr alg(d2i_ASN1_OBJECT(nullptr, &p, static_cast<long>(view->maker_alg.size())));
  ZEPH_TRY(OidText(alg.get(), &f->alg));
  f->name = Text(view->name);
  f->created = StandardTime(view->create_date);
  f->not_before = StandardTime(view->valid_start);
  f->not_after = StandardTime(view->valid_end);
  f->width = static_cast<uint32_t>(view->width.value_or(0));
  f->height = static_cast<uint32_t>(view->height.value_or(0));
  f->pic = ToBase64(view->pic_data);
  f->maker_cert = ToBase64(view->maker_cert);
  f->holder_cert = view->certs.empty() ? "" : ToBase64(view->certs.front());
  return 0;
}

uint32_t FactsOf(const SlotSeal &seal, Facts *f) {
  switch (seal.type) {
    case ZEPH_SEAL_TYPE_TEXT:
      return RecordFacts(seal, f);
    case ZEPH_SEAL_TYPE_SES:
    case ZEPH_SEAL_TYPE_GB:
      return DerFacts(seal, f);
    default:
      return ERR_DEVICE_FILE_READ_FAILED;
  }
}

// One flat JSON object, members in the order written. Texts are escaped
// where JSON needs it; base64, digits and algorithm names pass unchanged.
class Flat {
 public:
  // The structure texts have always had a space after each comma.
  explicit Flat(const char *separator = ",") : separator_(separator) {}
  Flat &Text(const char *key, std::string_view value) {
    Key(key);
    s_ += '"';
    // Runs of plain characters go in whole: base64 is one run.
    while (!value.empty()) {
      const size_t run = PlainJsonRun(value);
      s_.append(value.substr(0, run));
      if (run == value.size()) break;
      const auto u = static_cast<unsigned char>(value[run]);
      char esc[8];
      std::snprintf(esc, sizeof esc, u < 0x20 ? "\\u%04x" : "\\%c", u);
      s_ += esc;
      value.remove_prefix(run + 1);
    }
    s_ += '"';
    return *this;
  }
  Flat &Number(const char *key, uint32_t value) {
    Key(key);
    s_ += std::to_string(value);
    return *this;
  }
  std::string Done() {
    s_ += '}';
    return std::move(s_);
  }

 private:
  void Key(const char *key) {
    s_ += s_.size() == 1 ? "" : separator_;
    s_ += '"';
    s_ += key;
    s_ += "\":";
  }
  const char *separator_;
  std::string s_ = "{";
};

const char *KindName(int32_t type) {
  switch (type) {
    case ZEPH_SEAL_TYPE_TEXT:
      return "TYPE1";
    case ZEPH_SEAL_TYPE_SES:
      return "TYPE2";
    default:
      return "TYPE3";
  }
}

std::string Member(const cJSON *obj, const char *key) {
  const char *s = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(obj, key));
  return s != nullptr ? s : "";
}

}  // namespace

std::string ToBase64(std::span<const uint8_t> bytes) { return Base64Text(bytes); }

uint32_t FromBase64(std::string_view text, std::vector<uint8_t> *out) {
  out->clear();
  if (text.empty()) return 0;
  // The decoder reads to the terminator: a NUL inside would cut the text.
  ZEPH_ENSURE(text.find('\0') == std::string_view::npos, ERR_BASE64_INVALID);
  const std::string terminated(text);
  unsigned char *raw = nullptr;
  uint32_t n = 0;
  ZEPH_ENSURE(zeph_c_utils_b64tohex(terminated.c_str(), &raw, &n) == 0, ERR_BASE64_INVALID);
  const MallocPtr<unsigned char> bytes(raw);
  out->assign(bytes.get(), bytes.get() + n);
  return 0;
}

int32_t DerSealType(std::span<const uint8_t> der) {
  if (der.empty() || der.size() > UINT32_MAX) return ZEPH_SEAL_TYPE_UNKNOWN;
  // The tolerant reader first: it reads in place, where the structures'
  // decoder builds (and frees) the whole seal, the picture copied, which is
  // most of the time a seal read from a key takes. The answer is the same:
  // what it reads counts as a seal in any case, and its family is told by
  // the tag of the seal's second member, a SEQUENCE for SES and an OCTET
  // STRING for GB, which the two structures demand there as well. Like the
  // structures, it ignores bytes after the seal.
  const auto first = der::ReadTlv(der);
  if (const auto view = first ? reader::ReadSeal(first->whole) : std::nullopt) {
    return view->family == reader::Family::kSes ? ZEPH_SEAL_TYPE_SES : ZEPH_SEAL_TYPE_GB;
  }
  // What the reader refuses the structures may still decode (BER lengths, say).
  const int32_t type = chkSealTypeEx(der.data(), static_cast<uint32_t>(der.size()));
  return type == ZEPH_SEAL_TYPE_SES || type == ZEPH_SEAL_TYPE_GB ? type : ZEPH_SEAL_TYPE_UNKNOWN;
}

uint32_t ReadSlotText(std::string_view text, SlotSeal *out) {
  *out = SlotSeal{};
  if (text.starts_with("<I")) {
    ZEPH_ENSURE(text.find('\0') == std::string_view::npos, ERR_DEVICE_FILE_READ_FAILED);
    const std::string terminated(text);
    char *raw = nullptr;
    const uint32_t rv = parseVorliSealInfo(terminated.c_str(), static_cast<uint32_t>(terminated.size()), &raw);
    const MallocPtr<char> json(raw);
    // Markers missing or out of place: no form the key knows.
    ZEPH_ENSURE(rv != ERR_INVALID_PARAMETER, ERR_DEVICE_FILE_READ_FAILED);
    ZEPH_TRY(rv);
    // The parts are copied unescaped: a quote among them leaves no JSON.
    const JsonPtr doc(cJSON_Parse(json.get()));
    ZEPH_ENSURE(cJSON_IsObject(doc.get()), ERR_DEVICE_FILE_READ_FAILED);
    out->type = ZEPH_SEAL_TYPE_TEXT;
    out->info = Member(doc.get(), "info");
    out->pic = Member(doc.get(), "pic");
    out->cert = Member(doc.get(), "cert");
    return 0;
  }
  ZEPH_TRY(FromBase64(text, &out->der));
  out->type = DerSealType(out->der);
  ZEPH_ENSURE(out->type != ZEPH_SEAL_TYPE_UNKNOWN, ERR_DEVICE_FILE_READ_FAILED);
  return 0;
}

std::string SealText(const SlotSeal &seal) {
  if (seal.type != ZEPH_SEAL_TYPE_TEXT) return ToBase64(seal.der);
  return Flat().Text("info", seal.info).Text("pic", seal.pic).Text("cert", seal.cert).Done();
}

uint32_t SealSummary(const SlotSeal &seal, std::string *out) {
  Facts f;
  ZEPH_TRY(FactsOf(seal, &f));
  // Compat: "picHight" is the member name hosts read.
  *out = Flat()
             .Text("sealType", KindName(seal.type))
             .Text("notBefore", f.not_before)
             .Text("notAfter", f.not_after)
             .Text("signAlgoName", f.alg)
             .Number("picHight", f.height)
             .Number("picWidth", f.width)
             .Text("sealPic", f.pic)
             .Text("issuerCert", f.maker_cert)
             .Text("stampName", f.name)
             .Done();
  return 0;
}

uint32_t SealDetail(const SlotSeal &seal, std::string *out) {
  if (seal.type == ZEPH_SEAL_TYPE_PICTURE) {
    *out = Flat().Text("pic", ToBase64(seal.der)).Done();
    return 0;
  }
  Facts f;
  ZEPH_TRY(FactsOf(seal, &f));
  *out = Flat()
             .Text("algorithm", f.alg)
             .Text("cert", f.holder_cert)
             .Text("createtime", f.created)
             .Text("starttime", f.not_before)
             .Text("endtime", f.not_after)
             .Text("pic", f.pic)
             .Done();
  return 0;
}

uint32_t SealStructure(const SlotSeal &seal, std::string *out) {
  switch (seal.type) {
    case ZEPH_SEAL_TYPE_TEXT:
      *out = Flat(", ")
                 .Number("type", 1)
                 .Text("SealStruct", seal.info)
                 .Text("Pic", seal.pic)
                 .Text("Cert", seal.cert)
                 .Done();
      return 0;
    case ZEPH_SEAL_TYPE_SES:
    case ZEPH_SEAL_TYPE_GB:
    case ZEPH_SEAL_TYPE_PICTURE:
      *out = Flat(", ")
                 .Number("type", static_cast<uint32_t>(seal.type == ZEPH_SEAL_TYPE_PICTURE ? 4 : seal.type + 1))
                 .Text("SealStruct", ToBase64(seal.der))
                 .Done();
      return 0;
    default:
      return ERR_DEVICE_FILE_READ_FAILED;
  }
}

uint32_t GbkToUtf8(std::span<const uint8_t> gbk, size_t max_out, std::string *out) {
  out->clear();
  if (gbk.empty()) return 0;
  const IconvPtr cd(iconv_open("UTF-8", "GBK"));
  ZEPH_ENSURE(cd.get() != reinterpret_cast<void *>(-1), ERR_ENCODE_FAILED);
  static constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD
  std::string buf(max_out, '\0');
  char *in = const_cast<char *>(reinterpret_cast<const char *>(gbk.data()));
  size_t in_left = gbk.size();
  char *to = buf.data();
  size_t to_left = buf.size();
  while (in_left > 0) {
    if (iconv(cd.get(), &in, &in_left, &to, &to_left) != static_cast<size_t>(-1) || errno == E2BIG) break;
    // A byte that starts no GBK character, or a character cut off at the end.
    if (to_left < sizeof kReplacement - 1) break;
    std::memcpy(to, kReplacement, sizeof kReplacement - 1);
    to += sizeof kReplacement - 1;
    to_left -= sizeof kReplacement - 1;
    ++in;
    --in_left;
  }
  buf.resize(buf.size() - to_left);
  *out = std::move(buf);
  return 0;
}

uint32_t l_parseSealInfo(const char *text, std::string *out_summary) {
  ZEPH_ENSURE(text != nullptr && out_summary != nullptr, ERR_INVALID_PARAMETER);
  SlotSeal seal;
  const JsonPtr doc(cJSON_Parse(text));
  if (cJSON_IsObject(doc.get())) {
    const char *parts[] = {"info", "pic", "cert"};
    for (const char *key : parts) {
      ZEPH_ENSURE(cJSON_IsString(cJSON_GetObjectItemCaseSensitive(doc.get(), key)), ERR_JSON_INVALID);
    }
    seal.type = ZEPH_SEAL_TYPE_TEXT;
    seal.info = Member(doc.get(), "info");
    seal.pic = Member(doc.get(), "pic");
    seal.cert = Member(doc.get(), "cert");
  } else {
    ZEPH_TRY(FromBase64(text, &seal.der));
    seal.type = DerSealType(seal.der);
    ZEPH_ENSURE(seal.type != ZEPH_SEAL_TYPE_UNKNOWN, ERR_DEVICE_FILE_READ_FAILED);
  }
  return SealSummary(seal, out_summary);
}

}  // namespace zeph::seal
