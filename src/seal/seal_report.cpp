// The tolerant reader's exported entries: a description of a seal or seal
// signature, its picture, and a full verification report.
#include <cstring>
#include <string>

#include "foundation/helpers.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "gm/gm_internal.hpp"
#include "seal/seal_internal.hpp"
#include "seal/seal_reader.hpp"
#include "zeph_c_seal.h"
#include "zeph_c_status.h"

namespace zeph::seal::reader {

namespace {

// Texts as JSON strings: invalid UTF-8 and NUL become U+FFFD.
std::string Utf8(Bytes b) {
  std::string out;
  out.reserve(b.size());
  for (size_t i = 0; i < b.size();) {
    const uint8_t c = b[i];
    size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    bool ok = n != 0 && c != 0 && i + n <= b.size() && !(n == 2 && c < 0xC2);
    for (size_t k = 1; ok && k < n; ++k) ok = (b[i + k] & 0xC0) == 0x80;
    if (ok && n == 3) {
      const uint32_t cp = ((c & 0x0Fu) << 12) | ((b[i + 1] & 0x3Fu) << 6);
      ok = cp >= 0x800 && (cp < 0xD800 || cp > 0xDFFF);
    }
    if (ok && n == 4) {
      const uint32_t cp = ((c & 0x07u) << 18) | ((b[i + 1] & 0x3Fu) << 12);
      ok = cp >= 0x10000 && cp <= 0x10FFFF;
    }
    if (ok) {
      out.append(reinterpret_cast<const char *>(b.data() + i), n);
      i += n;
    } else {
      out.append("\xEF\xBF\xBD");
      ++i;
    }
  }
  return out;
}

std::string Hex(Bytes b) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * b.size());
  for (const uint8_t c : b) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 15]);
  }
  return out;
}

// Builds one JSON object; the first failed allocation makes the whole text
// fail instead of leaving a member out.
class Json {
 public:
  Json() : obj_(cJSON_CreateObject()), ok_(obj_ != nullptr) {}
  Json &Add(const char *key, cJSON *value) {
    if (ok_ && value != nullptr && cJSON_AddItemToObject(obj_.get(), key, value)) return *this;
    cJSON_Delete(value);
    ok_ = false;
    return *this;
  }
  Json &Text(const char *key, const std::string &s) { return Add(key, cJSON_CreateString(s.c_str())); }
  Json &Bool(const char *key, bool b) { return Add(key, cJSON_CreateBool(b)); }
  Json &Number(const char *key, const std::optional<int64_t> &v) {
    return Add(key, v ? cJSON_CreateNumber(static_cast<double>(*v)) : cJSON_CreateNull());
  }
  Json &Time(const char *key, const Tlv &t) {
    const auto seconds = TimeOf(t);
    return Add(key, seconds ? cJSON_CreateString(FormatTime(*seconds).c_str()) : cJSON_CreateNull());
  }
  Json &Object(const char *key, Json &&child) {
    if (!child.ok_) ok_ = false;
    return Add(key, child.obj_.release());
  }
  // The printed text; nothing when an allocation failed.
  std::optional<std::string> Print() const {
    if (!ok_) return std::nullopt;
    const JsonTextPtr text(cJSON_PrintUnformatted(obj_.get()));
    if (!text) return std::nullopt;
    return std::string(text.get());
  }
  cJSON *get() { return obj_.get(); }

 private:
  JsonPtr obj_;
  bool ok_;
};

Json DescribeSeal(const SealView &s) {
  Json picture;
  picture.Text("type", Utf8(s.pic_type))
      .Number("width", s.width)
      .Number("height", s.height)
      .Number("size", static_cast<int64_t>(s.pic_data.size()));
  JsonPtr certs(cJSON_CreateArray());
  bool certs_ok = certs != nullptr;
  for (const Bytes &cert : s.certs) {
    cJSON *item = certs_ok ? cJSON_CreateString(zeph::Base64Text(cert).c_str()) : nullptr;
    certs_ok = item != nullptr && cJSON_AddItemToArray(certs.get(), item);
    if (!certs_ok) cJSON_Delete(item);
  }
  Json j;
  j.Text("kind", "seal")
      .Text("family", s.family == Family::kSes ? "SES" : "GB")
      .Number("version", s.version)
      .Text("vid", Utf8(s.vid))
      .Text("esID", Utf8(s.es_id))
      .Text("name", Utf8(s.name))
      .Number("sealType", s.type)
      .Object("picture", std::move(picture))
      .Add("certs", certs_ok ? certs.release() : nullptr)
      .Time("createDate", s.create_date)
      .Time("validStart", s.valid_start)
      .Time("validEnd", s.valid_end)
      .Text("makerCert", zeph::Base64Text(s.maker_cert))
      .Bool("timeStamp", s.time_stamp);
  return j;
}

Json DescribeSignature(const SignatureView &v) {
  Json j;
  j.Text("kind", "signature")
      .Text("family", v.family == Family::kSes ? "SES" : "GB")
      .Number("version", v.version)
      .Text("signerCert", zeph::Base64Text(v.signer_cert))
      .Text("signatureForm", SignatureDer(v.signature).raw ? "raw" : "der");
  // The signing time normalised when it can be read, else as stored.
  if (TimeOf(v.time_info)) {
    j.Time("timeInfo", v.time_info);
  } else {
    j.Text("timeInfo",
           Utf8(v.time_info.tag == der::kBitString && !v.time_info.content.empty() ? v.time_info.content.subspan(1)
                                                                                   : v.time_info.content));
  }
  j.Text("dataHash", Hex(v.data_hash))
      .Text("propertyInfo", Utf8(v.property))
      .Bool("timeStamp", v.time_stamp)
      .Object("seal", DescribeSeal(v.seal));
  return j;
}

uint32_t Verify(const SignatureView &v, const unsigned char *doc, uint32_t doc_len, std::string *report) {
  const SealView &seal = v.seal;
  const auto maker_sig = SignatureDer(seal.maker_signature);
  bool maker = false;
  if (seal.family == Family::kGb) {
    maker = VerifySm2WithCert(seal.maker_cert, {seal.info.whole}, maker_sig.der) == 0;
  } else {
    // SES: the maker signed SEQUENCE { information, certificate, algorithm }.
    const size_t len = seal.info.whole.size() + seal.maker_cert_and_alg.size();
    uint8_t header[6] = {der::kSequence};
    size_t header_len = 2;
    if (len < 0x80) {
      header[1] = static_cast<uint8_t>(len);
    } else {
      size_t n = 0;
      for (size_t rest = len; rest != 0; rest >>= 8) ++n;
      header[1] = static_cast<uint8_t>(0x80 | n);
      for (size_t k = 0; k < n; ++k) header[2 + k] = static_cast<uint8_t>(len >> (8 * (n - 1 - k)));
      header_len += n;
    }
    maker = VerifySm2WithCert(seal.maker_cert, {Bytes(header, header_len), seal.info.whole, seal.maker_cert_and_alg},
                              maker_sig.der) == 0;
  }
  const bool signature = VerifySm2WithCert(v.signer_cert, {v.to_sign.whole}, SignatureDer(v.signature).der) == 0;

  const auto when = TimeOf(v.time_info);
  const auto start = TimeOf(seal.valid_start);
  const auto end = TimeOf(seal.valid_end);
  const bool in_validity = when && start && end && *start <= *when && *when <= *end;

  bool listed = false;
  for (const Bytes &cert : seal.certs) {
    listed = listed ||
             (cert.size() == v.signer_cert.size() && std::memcmp(cert.data(), v.signer_cert.data(), cert.size()) == 0);
  }

  // A hash built from whole octets may have lost trailing zero octets.
  std::optional<bool> document;
  if (doc != nullptr) {
    uint8_t digest[32];
    gm::Sm3(doc, doc_len, digest);
    const Bytes hash = v.data_hash;
    bool same = !hash.empty() && hash.size() <= sizeof digest && std::memcmp(hash.data(), digest, hash.size()) == 0;
    for (size_t k = hash.size(); same && k < sizeof digest; ++k) same = digest[k] == 0;
    document = same;
  }

  const bool valid = maker && signature && in_validity && listed && document.value_or(true);
  Json j;
  j.Bool("makerSignature", maker)
      .Bool("signature", signature)
      .Bool("sealValidAtSigning", in_validity)
      .Bool("signerInCertList", listed)
      .Add("documentHash", document ? cJSON_CreateBool(*document) : cJSON_CreateNull())
      .Bool("timeStamp", v.time_stamp)
      .Bool("valid", valid);
  const auto text = j.Print();
  ZEPH_ENSURE(text, ERR_OUT_OF_MEMORY);
  *report = *text;
  return valid ? 0u : ERR_SIGNATURE_INVALID;
}

}  // namespace

}  // namespace zeph::seal::reader

using zeph::seal::reader::Bytes;

extern "C" {

ZEPH_API uint32_t ZEPH_C_SealDescribe(const unsigned char *data, uint32_t len, char *out, uint32_t *out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(out_len != nullptr, ERR_INVALID_PARAMETER);
    ZEPH_ENSURE(data != nullptr, ERR_SEAL_PARSE_FAILED);
    const Bytes in(data, len);
    std::optional<std::string> text;
    if (const auto seal = zeph::seal::reader::ReadSeal(in)) {
      text = zeph::seal::reader::DescribeSeal(*seal).Print();
    } else if (const auto sig = zeph::seal::reader::ReadSignature(in)) {
      text = zeph::seal::reader::DescribeSignature(*sig).Print();
    } else {
      return ERR_SEAL_PARSE_FAILED;
    }
    ZEPH_ENSURE(text, ERR_OUT_OF_MEMORY);
    return zeph::PutText(text->c_str(), text->size(), out, out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_SealPicture(const unsigned char *data, uint32_t len, unsigned char *out, uint32_t *out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(out_len != nullptr, ERR_INVALID_PARAMETER);
    ZEPH_ENSURE(data != nullptr, ERR_SEAL_PARSE_FAILED);
    const Bytes in(data, len);
    if (const auto seal = zeph::seal::reader::ReadSeal(in)) return zeph::PutOutput(seal->pic_data, out, out_len);
    if (const auto sig = zeph::seal::reader::ReadSignature(in)) {
      return zeph::PutOutput(sig->seal.pic_data, out, out_len);
    }
    return ERR_SEAL_PARSE_FAILED;
  });
}

ZEPH_API uint32_t ZEPH_C_SealVerify(const unsigned char *sig, uint32_t sig_len, const unsigned char *doc,
                                    uint32_t doc_len, char *out, uint32_t *out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(out_len != nullptr, ERR_INVALID_PARAMETER);
    ZEPH_ENSURE(sig != nullptr, ERR_SEAL_PARSE_FAILED);
    const auto view = zeph::seal::reader::ReadSignature(Bytes(sig, sig_len));
    ZEPH_ENSURE(view, ERR_SEAL_PARSE_FAILED);
    std::string report;
    const uint32_t verdict = zeph::seal::reader::Verify(*view, doc, doc_len, &report);
    if (verdict != 0 && verdict != ERR_SIGNATURE_INVALID) return verdict;
    ZEPH_TRY(zeph::PutText(report.c_str(), report.size(), out, out_len));
    return out != nullptr ? verdict : 0u;
  });
}

}  // extern "C"
