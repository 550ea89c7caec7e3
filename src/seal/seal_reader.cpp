// The tolerant reader: walks seals and seal signatures in place.
#include "seal/seal_reader.hpp"

#include <cstdio>
#include <string_view>

#include <openssl/bn.h>
#include <openssl/ecdsa.h>

#include "foundation/owned.hpp"
#include "foundation/sm2_params.hpp"

namespace zeph::seal::reader {

namespace {

using der::Reader;

// UTF8String, PrintableString, T61String, IA5String, VisibleString.
const std::initializer_list<uint8_t> kText = {der::kUtf8String, der::kPrintableString, 0x14, der::kIa5String, 0x1A};
const std::initializer_list<uint8_t> kTime = {der::kUtcTime, der::kGeneralizedTime};

std::optional<int64_t> IntegerOf(const std::optional<Tlv> &t) {
  if (!t || t->content.empty() || t->content.size() > 8) return std::nullopt;
  uint64_t v = (t->content[0] & 0x80) ? ~uint64_t{0} : 0;
  for (const uint8_t b : t->content) v = (v << 8) | b;
  return static_cast<int64_t>(v);
}

// The octets of a BIT STRING, past its unused-bits count.
Bytes BitsOf(const Tlv &t) { return t.content.empty() ? t.content : t.content.subspan(1); }

Bytes ContentOf(const std::optional<Tlv> &t) { return t ? t->content : Bytes{}; }

// A certificate is a SEQUENCE whose first member is a SEQUENCE; digest
// entries and anything else are skipped.
std::optional<Bytes> CertificateIn(const Tlv &element) {
  std::optional<Tlv> cert = element;
  if (element.tag == der::kOctetString) cert = der::ReadWhole(element.content);
  if (!cert || cert->tag != der::kSequence) return std::nullopt;
  if (Reader(cert->content).PeekTag() != der::kSequence) return std::nullopt;
  return cert->whole;
}

bool ReadInfo(const Tlv &info, SealView *v) {
  Reader r(info.content);
  const auto header = r.Take(der::kSequence);
  const auto es_id = r.TakeAny(kText);
  const auto prop = r.Take(der::kSequence);
  const auto pic = r.Take(der::kSequence);
  if (const auto t = r.PeekTag(); t == der::kSequence || t == der::kContext0) r.Next();  // extensions
  if (r.failed() || !r.AtEnd()) return false;

  Reader h(header->content);
  const auto id = h.TakeAny(kText);
  const auto version = h.Take(der::kInteger);
  const auto vid = h.TakeAny(kText);

  Reader p(prop->content);
  const auto type = p.Take(der::kInteger);
  const auto name = p.TakeAny(kText);
  p.TakeIf(der::kInteger);  // GB: which form the list takes
  const auto list = p.Take(der::kSequence);
  const auto created = p.TakeAny(kTime);
  const auto start = p.TakeAny(kTime);
  const auto end = p.TakeAny(kTime);

  Reader q(pic->content);
  const auto pic_type = q.TakeAny(kText);
  const auto pic_data = q.Take(der::kOctetString);
  const auto width = q.Take(der::kInteger);
  const auto height = q.Take(der::kInteger);
  if (h.failed() || !h.AtEnd() || p.failed() || !p.AtEnd() || q.failed() || !q.AtEnd()) return false;

  Reader certs(list->content);
  while (const auto element = certs.Next()) {
    if (const auto cert = CertificateIn(*element)) v->certs.push_back(*cert);
  }
  if (certs.failed()) return false;
  v->info = info;
  v->id = id->content;
  v->version = IntegerOf(version);
  v->vid = vid->content;
  v->es_id = es_id->content;
  v->type = IntegerOf(type);
  v->name = name->content;
  v->create_date = *created;
  v->valid_start = *start;
  v->valid_end = *end;
  v->pic_type = pic_type->content;
  v->pic_data = pic_data->content;
  v->width = IntegerOf(width);
  v->height = IntegerOf(height);
  return true;
}

// ---- times ------------------------------------------------------------------

int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

unsigned DaysIn(int y, int m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return m == 2 && leap ? 29 : kDays[m - 1];
}

class Cursor {
 public:
  explicit Cursor(std::string_view s) : s_(s) {}
  bool Digits(int n, int *out) {
    int v = 0;
    for (int k = 0; k < n; ++k) {
      if (!Digit()) return false;
      v = v * 10 + (s_[i_++] - '0');
    }
    *out = v;
    return true;
  }
  bool Digit() const { return i_ < s_.size() && s_[i_] >= '0' && s_[i_] <= '9'; }
  bool Eat(char c) {
    if (i_ >= s_.size() || s_[i_] != c) return false;
    ++i_;
    return true;
  }
  bool AtEnd() const { return i_ == s_.size(); }

 private:
  std::string_view s_;
  size_t i_ = 0;
};

// YYYYMMDDHH[MM[SS]] or YYYY-MM-DD(T| )HH:MM[:SS] (two-digit years for
// UTCTime), then [.fraction] and [Z | +hh[:]mm | -hh[:]mm | +hh].
std::optional<int64_t> ParseTime(std::string_view text, bool two_digit_year) {
  Cursor c(text);
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  if (two_digit_year) {
    if (!c.Digits(2, &y)) return std::nullopt;
    y += y < 50 ? 2000 : 1900;
  } else if (!c.Digits(4, &y)) {
    return std::nullopt;
  }
  const bool extended = c.Eat('-');
  if (!c.Digits(2, &mo) || (extended && !c.Eat('-')) || !c.Digits(2, &d)) return std::nullopt;
  if (extended && !c.Eat('T') && !c.Eat(' ')) return std::nullopt;
  if (!c.Digits(2, &h)) return std::nullopt;
  if (extended ? c.Eat(':') : c.Digit()) {
    if (!c.Digits(2, &mi)) return std::nullopt;
    if ((extended ? c.Eat(':') : c.Digit()) && !c.Digits(2, &s)) return std::nullopt;
  }
  if (c.Eat('.') || c.Eat(',')) {
    if (!c.Digit()) return std::nullopt;
    int ignored = 0;
    while (c.Digit()) c.Digits(1, &ignored);
  }
  int64_t offset = 0;
  const bool east = c.Eat('+');
  if (east || c.Eat('-')) {
    int oh = 0, om = 0;
    if (!c.Digits(2, &oh)) return std::nullopt;
    const bool colon = c.Eat(':');
    if ((colon || c.Digit()) && !c.Digits(2, &om)) return std::nullopt;
    if (oh > 23 || om > 59) return std::nullopt;
    offset = (east ? 1 : -1) * (oh * 3600 + om * 60);
  } else {
    c.Eat('Z');
  }
  if (!c.AtEnd() || mo < 1 || mo > 12 || d < 1 || static_cast<unsigned>(d) > DaysIn(y, mo) || h > 23 || mi > 59 ||
      s > 59) {
    return std::nullopt;
  }
  return DaysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d)) * 86400 + h * 3600 + mi * 60 + s -
         offset;
}

std::string_view TextOf(Bytes b) { return {reinterpret_cast<const char *>(b.data()), b.size()}; }

bool IsDerSignature(const std::vector<uint8_t> &v) {
  const auto seq = der::ReadWhole(v);
  if (!seq || seq->tag != der::kSequence) return false;
  Reader r(seq->content);
  return r.Take(der::kInteger) && r.Take(der::kInteger) && r.AtEnd();
}

}  // namespace

std::optional<SealView> ReadSeal(Bytes in) {
  const auto whole = der::ReadWhole(in);
  if (!whole || whole->tag != der::kSequence) return std::nullopt;
  Reader r(whole->content);
  const auto info = r.Take(der::kSequence);
  // The information opens with its header; a to-be-signed content opens
  // with a version number.
  if (!info || Reader(info->content).PeekTag() != der::kSequence) return std::nullopt;
  SealView v;
  std::optional<Tlv> cert, alg, sig;
  if (r.PeekTag() == der::kSequence) {
    v.family = Family::kSes;
    const auto sign_info = r.Next();
    if (!sign_info) return std::nullopt;
    Reader s(sign_info->content);
    cert = s.Take(der::kOctetString);
    alg = s.Take(der::kOid);
    sig = s.Take(der::kBitString);
    if (s.failed() || !s.AtEnd()) return std::nullopt;
    v.maker_cert_and_alg = Bytes(cert->whole.data(), alg->whole.data() + alg->whole.size());
  } else {
    v.family = Family::kGb;
    cert = r.Take(der::kOctetString);
    alg = r.Take(der::kOid);
    sig = r.Take(der::kBitString);
  }
  v.time_stamp = r.TakeIf(der::kContext0).has_value();
  if (r.failed() || !r.AtEnd() || !ReadInfo(*info, &v)) return std::nullopt;
  v.maker_cert = cert->content;
  v.maker_alg = alg->whole;
  v.maker_signature = BitsOf(*sig);
  return v;
}

std::optional<SignatureView> ReadSignature(Bytes in) {
  const auto whole = der::ReadWhole(in);
  if (!whole || whole->tag != der::kSequence) return std::nullopt;
  Reader r(whole->content);
  const auto tbs = r.Take(der::kSequence);
  SignatureView v;
  std::optional<Tlv> cert, sig;
  if (r.PeekTag() == der::kBitString) {
    v.family = Family::kSes;
    sig = r.Next();
  } else {
    v.family = Family::kGb;
    cert = r.Take(der::kOctetString);
    r.Take(der::kOid);
    sig = r.Take(der::kBitString);
  }
  v.time_stamp = r.TakeIf(der::kContext0).has_value();
  if (r.failed() || !r.AtEnd()) return std::nullopt;

  Reader t(tbs->content);
  const auto version = t.Take(der::kInteger);
  const auto seal = t.Take(der::kSequence);
  const auto when = t.TakeAny({der::kGeneralizedTime, der::kUtcTime, der::kBitString, der::kOctetString,
                               der::kUtf8String, der::kPrintableString, der::kIa5String});
  const auto hash = t.TakeAny({der::kBitString, der::kOctetString});
  const auto property = t.TakeAny(kText);
  if (v.family == Family::kSes) {
    cert = t.Take(der::kOctetString);
    t.Take(der::kOid);
  } else if (const auto tag = t.PeekTag(); tag == der::kContext0 || tag == der::kSequence) {
    t.Next();  // extensions
  }
  if (t.failed() || !t.AtEnd()) return std::nullopt;
  auto seal_view = ReadSeal(seal->whole);
  if (!seal_view) return std::nullopt;
  v.to_sign = *tbs;
  v.version = IntegerOf(version);
  v.seal = std::move(*seal_view);
  v.time_info = *when;
  v.data_hash = hash->tag == der::kBitString ? BitsOf(*hash) : hash->content;
  v.property = property->content;
  v.signer_cert = ContentOf(cert);
  v.signature = BitsOf(*sig);
  return v;
}

std::optional<int64_t> TimeOf(const Tlv &t) {
  switch (t.tag) {
    case der::kUtcTime:
      return ParseTime(TextOf(t.content), true);
    case der::kBitString:
      return ParseTime(TextOf(BitsOf(t)), false);
    default:
      return ParseTime(TextOf(t.content), false);
  }
}

std::string FormatTime(int64_t seconds) {
  int64_t days = seconds / 86400;
  int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  // Civil date from days since 1970-01-01.
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  const int64_t y = static_cast<int64_t>(yoe) + era * 400 + (m <= 2);
  char out[32];
  std::snprintf(out, sizeof out, "%04lld%02u%02u%02lld%02lld%02lldZ", static_cast<long long>(y), m, d,
                static_cast<long long>(rest / 3600), static_cast<long long>(rest / 60 % 60),
                static_cast<long long>(rest % 60));
  return out;
}

SignatureValue SignatureDer(Bytes value) {
  std::vector<uint8_t> v(value.begin(), value.end());
  if (IsDerSignature(v)) return {std::move(v), false};
  // Built from whole octets, a signature that ended in zero octets lost them.
  if (v.size() >= 2 && v[0] == der::kSequence && v[1] < 0x80 && v[1] + 2u > v.size() && v[1] + 2u - v.size() <= 4) {
    std::vector<uint8_t> padded = v;
    padded.resize(v[1] + 2u, 0);
    if (IsDerSignature(padded)) return {std::move(padded), false};
  }
  if (v.size() != kSm2RawSignatureLen) return {std::move(v), false};
  EcdsaSigPtr sig(ECDSA_SIG_new());
  BnPtr r(BN_bin2bn(v.data(), kSm2CoordLen, nullptr));
  BnPtr s(BN_bin2bn(v.data() + kSm2CoordLen, kSm2CoordLen, nullptr));
  if (!sig || !r || !s || ECDSA_SIG_set0(sig.get(), r.get(), s.get()) != 1) return {std::move(v), true};
  r.release();
  s.release();
  unsigned char *der = nullptr;
  const int n = i2d_ECDSA_SIG(sig.get(), &der);
  if (n <= 0) return {std::move(v), true};
  std::vector<uint8_t> out(der, der + n);
  OPENSSL_free(der);
  return {std::move(out), true};
}

}  // namespace zeph::seal::reader
