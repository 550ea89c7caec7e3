// zeph seal: what a seal or seal signature file holds, its picture, and the
// verification of a seal signature, through the library's tolerant reader;
// and the seals stored on a key (ten slots), through ZEPH_C_CI.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <cjson/cJSON.h>
#include <sys/stat.h>

#include "ci_client.hpp"
#include "cli.hpp"
#include "zeph_c_seal.h"
#include "zeph_c_status.h"

namespace {

int RunSeal(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(seal, "describe, verify, store and read seals: in files and in the ten seal slots of a key",
               "seal info FILE [--json]\n"
               "       zeph seal picture FILE --out PATH   (PATH gets the picture type's extension;\n"
               "                                           a directory receives seal.<ext>)\n"
               "       zeph seal verify SIG [--doc FILE] [--json]   (exit status 0 only when valid)\n"
               "       zeph seal store [--key SN] --slot N --pin PIN (--file SEAL | --info F --pic F --cert F)\n"
               "       zeph seal read [--key SN] --slot N [--out FILE]\n"
               "       zeph seal type [--key SN] --slot N\n"
               "       zeph seal list [--key SN]\n"
               "       zeph seal picture [--key SN] --slot N --out PATH\n"
               "       (slots 1 to 10; --key defaults to the only key plugged in; --config PATH as for ci)",
               RunSeal,
               {"--out", "--doc", "--config", "--key", "--slot", "--pin", "--file", "--info", "--pic", "--cert"},
               {"--json"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("seal"); }

using JsonPtr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// A text output of the library: a first buffer that fits most answers,
// then one of the size the library asked for.
template <class Call>
uint32_t TextOf(Call call, std::string *text) {
  std::vector<char> buf(4096);
  auto len = static_cast<uint32_t>(buf.size());
  uint32_t rv = call(buf.data(), &len);
  if (rv == ERR_BUFFER_TOO_SMALL) {
    buf.resize(len + 1);
    len = static_cast<uint32_t>(buf.size());
    rv = call(buf.data(), &len);
  }
  if (rv == 0 || rv == ERR_SIGNATURE_INVALID) text->assign(buf.data(), len);
  return rv;
}

std::string Str(const cJSON *obj, const char *key) {
  const cJSON *item = cJSON_GetObjectItemCaseSensitive(obj, key);
  if (cJSON_IsString(item)) return item->valuestring;
  if (cJSON_IsNumber(item)) return std::to_string(static_cast<long long>(item->valuedouble));
  if (cJSON_IsBool(item)) return cJSON_IsTrue(item) ? "yes" : "no";
  return "-";
}

void PrintSeal(const cJSON *seal, const char *indent) {
  const cJSON *pic = cJSON_GetObjectItemCaseSensitive(seal, "picture");
  const cJSON *certs = cJSON_GetObjectItemCaseSensitive(seal, "certs");
  std::printf("%sseal         %s, header version %s, vendor %s\n", indent, Str(seal, "family").c_str(),
              Str(seal, "version").c_str(), Str(seal, "vid").c_str());
  std::printf("%sname         %s\n", indent, Str(seal, "name").c_str());
  std::printf("%sesID         %s\n", indent, Str(seal, "esID").c_str());
  std::printf("%sseal type    %s\n", indent, Str(seal, "sealType").c_str());
  std::printf("%spicture      %s, %s x %s, %s bytes\n", indent, Str(pic, "type").c_str(), Str(pic, "width").c_str(),
              Str(pic, "height").c_str(), Str(pic, "size").c_str());
  std::printf("%scertificates %d\n", indent, cJSON_GetArraySize(certs));
  std::printf("%screated      %s\n", indent, Str(seal, "createDate").c_str());
  std::printf("%svalid        %s to %s\n", indent, Str(seal, "validStart").c_str(), Str(seal, "validEnd").c_str());
  std::printf("%stime stamp   %s\n", indent, Str(seal, "timeStamp").c_str());
}

std::vector<uint8_t> Load(const std::string &path, std::string *error) {
  std::vector<uint8_t> data;
  if (!zeph_cli::ReadInput(path, &data, error)) return {};
  if (data.size() > UINT32_MAX) *error = path + " is too large";
  return data;
}

int Info(const zeph_cli::Args &args) {
  std::string error;
  const auto data = Load(args.words[1], &error);
  if (!error.empty()) return zeph_cli::Fail(Self(), error);
  std::string text;
  const uint32_t rv = TextOf(
      [&](char *out, uint32_t *len) {
        return ZEPH_C_SealDescribe(data.data(), static_cast<uint32_t>(data.size()), out, len);
      },
      &text);
  if (rv == ERR_SEAL_PARSE_FAILED) return zeph_cli::Fail(Self(), args.words[1] + " is not a seal or seal signature");
  if (rv != 0) return zeph_cli::Fail(Self(), zeph_cli::StatusText(rv));
  if (args.Has("--json")) {
    std::printf("%s\n", text.c_str());
    return zeph_cli::kOk;
  }
  const JsonPtr doc(cJSON_Parse(text.c_str()), cJSON_Delete);
  if (Str(doc.get(), "kind") == "seal") {
    PrintSeal(doc.get(), "");
    return zeph_cli::kOk;
  }
  std::printf("signature    %s, version %s\n", Str(doc.get(), "family").c_str(), Str(doc.get(), "version").c_str());
  std::printf("signed at    %s\n", Str(doc.get(), "timeInfo").c_str());
  std::printf("property     %s\n", Str(doc.get(), "propertyInfo").c_str());
  std::printf("data hash    %s\n", Str(doc.get(), "dataHash").c_str());
  std::printf("value        %s\n", Str(doc.get(), "signatureForm") == "raw" ? "raw r||s" : "DER");
  std::printf("time stamp   %s\n", Str(doc.get(), "timeStamp").c_str());
  PrintSeal(cJSON_GetObjectItemCaseSensitive(doc.get(), "seal"), "");
  return zeph_cli::kOk;
}

// The extension a viewer expects: the picture type in lower case ("PNG" ->
// png, "JPEG" -> jpg); a type that is no file extension falls back to the
// picture's first bytes.
std::string Extension(const std::string &type, const std::vector<uint8_t> &pic) {
  std::string ext;
  for (const char c : type) {
    if (!std::isalnum(static_cast<unsigned char>(c))) return Extension("", pic);
    ext.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  }
  if (ext == "jpeg") ext = "jpg";
  if (!ext.empty() && ext.size() <= 8) return ext;
  const auto starts = [&](const char *magic) {
    const std::string m(magic);
    return pic.size() >= m.size() &&
           std::equal(m.begin(), m.end(), pic.begin(), [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; });
  };
  if (starts("\x89PNG")) return "png";
  if (starts("GIF8")) return "gif";
  if (starts("\xFF\xD8\xFF")) return "jpg";
  if (starts("BM")) return "bmp";
  if (starts("PK")) return "ofd";
  return "bin";
}

std::string TargetPath(std::string path, const std::string &ext) {
  struct stat st {};
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return path + "/seal." + ext;
  const std::string suffix = "." + ext;
  if (path.size() > suffix.size()) {
    std::string tail = path.substr(path.size() - suffix.size());
    for (char &c : tail) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (tail == suffix) return path;
  }
  return path + suffix;
}

bool WriteFile(const std::string &path, const std::vector<uint8_t> &data) {
  FILE *f = std::fopen(path.c_str(), "wb");
  const bool written = f != nullptr && std::fwrite(data.data(), 1, data.size(), f) == data.size();
  return (f == nullptr || std::fclose(f) == 0) && written;
}

// The picture where a viewer finds it: PATH with the extension of its type.
int WritePicture(const std::vector<uint8_t> &pic, const std::string &type, const std::string &out) {
  const std::string path = TargetPath(out, Extension(type, pic));
  if (!WriteFile(path, pic)) return zeph_cli::Fail(Self(), "cannot write " + path);
  std::printf("%s (%s, %zu bytes)\n", path.c_str(), type.empty() ? "-" : type.c_str(), pic.size());
  return zeph_cli::kOk;
}

int Picture(const zeph_cli::Args &args) {
  if (!args.Has("--out")) return zeph_cli::UsageError(Self(), "--out is required");
  std::string error;
  const auto data = Load(args.words[1], &error);
  if (!error.empty()) return zeph_cli::Fail(Self(), error);
  const auto len = static_cast<uint32_t>(data.size());
  std::string text;
  uint32_t rv = TextOf([&](char *out, uint32_t *n) { return ZEPH_C_SealDescribe(data.data(), len, out, n); }, &text);
  uint32_t pic_len = 0;
  if (rv == 0) rv = ZEPH_C_SealPicture(data.data(), len, nullptr, &pic_len);
  std::vector<uint8_t> pic(pic_len);
  if (rv == 0) rv = ZEPH_C_SealPicture(data.data(), len, pic.data(), &pic_len);
  if (rv == ERR_SEAL_PARSE_FAILED) return zeph_cli::Fail(Self(), args.words[1] + " is not a seal or seal signature");
  if (rv != 0) return zeph_cli::Fail(Self(), zeph_cli::StatusText(rv));

  const JsonPtr doc(cJSON_Parse(text.c_str()), cJSON_Delete);
  const cJSON *seal =
      Str(doc.get(), "kind") == "seal" ? doc.get() : cJSON_GetObjectItemCaseSensitive(doc.get(), "seal");
  return WritePicture(pic, Str(cJSON_GetObjectItemCaseSensitive(seal, "picture"), "type"), args.Get("--out"));
}

int Verify(const zeph_cli::Args &args) {
  std::string error;
  const auto sig = Load(args.words[1], &error);
  std::vector<uint8_t> doc;
  if (error.empty() && args.Has("--doc")) doc = Load(args.Get("--doc"), &error);
  if (!error.empty()) return zeph_cli::Fail(Self(), error);
  const unsigned char empty = 0;
  const unsigned char *doc_ptr = args.Has("--doc") ? (doc.empty() ? &empty : doc.data()) : nullptr;
  std::string text;
  const uint32_t rv = TextOf(
      [&](char *out, uint32_t *len) {
        return ZEPH_C_SealVerify(sig.data(), static_cast<uint32_t>(sig.size()), doc_ptr,
                                 static_cast<uint32_t>(doc.size()), out, len);
      },
      &text);
  if (rv == ERR_SEAL_PARSE_FAILED) return zeph_cli::Fail(Self(), args.words[1] + " is not a seal signature");
  if (rv != 0 && rv != ERR_SIGNATURE_INVALID) return zeph_cli::Fail(Self(), zeph_cli::StatusText(rv));
  if (args.Has("--json")) {
    std::printf("%s\n", text.c_str());
  } else {
    const JsonPtr report(cJSON_Parse(text.c_str()), cJSON_Delete);
    const auto line = [&](const char *label, const char *key, const char *if_null) {
      const cJSON *item = cJSON_GetObjectItemCaseSensitive(report.get(), key);
      std::printf("%-22s %s\n", label, cJSON_IsNull(item) ? if_null : cJSON_IsTrue(item) ? "ok" : "FAILED");
    };
    line("maker signature", "makerSignature", "");
    line("signer signature", "signature", "");
    line("within seal validity", "sealValidAtSigning", "");
    line("signer in cert list", "signerInCertList", "");
    line("document hash", "documentHash", "not checked (no --doc)");
    std::printf("%-22s %s\n", "time stamp",
                cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(report.get(), "timeStamp")) ? "present" : "none");
    std::printf("%s\n", rv == 0 ? "valid" : "INVALID");
  }
  return rv == 0 ? zeph_cli::kOk : zeph_cli::kFailed;
}

// ---- Seals on a key ------------------------------------------------------

const char *KindName(const std::string &type) {
  if (type == "TYPE1") return "text-form seal";
  if (type == "TYPE2") return "SES seal";
  if (type == "TYPE3") return "GB seal";
  return "seal";
}

// One request to the key the options name; the reply when its code is 0.
bool AskKey(const zeph_cli::Args &args, zeph_cli::CiRequest &request, const std::string &what, zeph_cli::CiReply *reply,
            int *status) {
  std::string error, key_sn;
  if (!zeph_cli::ApplyConfig(args, &error) || !zeph_cli::ResolveKey(args, &key_sn, &error)) {
    *status = zeph_cli::Fail(Self(), error);
    return false;
  }
  request.Set("keySN", key_sn);
  if (!zeph_cli::SendCi(request.Text(), reply, &error)) {
    *status = zeph_cli::Fail(Self(), error);
    return false;
  }
  if (reply->code != 0) {
    *status = zeph_cli::FailReply(Self(), what, *reply);
    return false;
  }
  return true;
}

bool SlotOption(const zeph_cli::Args &args, int *slot, std::string *error) {
  const std::string text = args.Get("--slot");
  char *end = nullptr;
  const long n = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || n < 1 || n > 10) {
    *error = "--slot must be a slot number from 1 to 10";
    return false;
  }
  *slot = static_cast<int>(n);
  return true;
}

int Store(const zeph_cli::Args &args, int slot) {
  if (!args.Has("--pin")) return zeph_cli::UsageError(Self(), "--pin is required");
  const bool parts = args.Has("--info") || args.Has("--pic") || args.Has("--cert");
  if (args.Has("--file") == parts || (parts && !(args.Has("--info") && args.Has("--pic") && args.Has("--cert")))) {
    return zeph_cli::UsageError(Self(), "give --file SEAL, or all of --info, --pic and --cert");
  }
  std::string error, data;
  std::vector<uint8_t> bytes;
  if (!parts) {
    if (!zeph_cli::ReadInput(args.Get("--file"), &bytes, &error)) return zeph_cli::Fail(Self(), error);
    data = zeph_cli::ToBase64(bytes);
  } else {
    // The text form: the record, the picture and the certificate, each base64.
    const JsonPtr form(cJSON_CreateObject(), cJSON_Delete);
    for (const char *part : {"info", "pic", "cert"}) {
      if (!zeph_cli::ReadInput(args.Get(std::string("--") + part), &bytes, &error)) {
        return zeph_cli::Fail(Self(), error);
      }
      cJSON_AddStringToObject(form.get(), part, zeph_cli::ToBase64(bytes).c_str());
    }
    char *text = cJSON_PrintUnformatted(form.get());
    data = text != nullptr ? text : "";
    cJSON_free(text);
  }
  zeph_cli::CiRequest request(800);
  request.Set("idx", slot).Set("pin", args.Get("--pin")).Set("sealData", data);
  zeph_cli::CiReply reply;
  int status = 0;
  if (!AskKey(args, request, "storing the seal failed", &reply, &status)) return status;
  std::printf("stored the seal in slot %d\n", slot);
  return zeph_cli::kOk;
}

// The seal of a slot: DER bytes, or for the text form its JSON object.
bool ReadSeal(const zeph_cli::Args &args, int slot, std::vector<uint8_t> *seal, bool *text_form, int *status) {
  zeph_cli::CiRequest request(801);
  request.Set("idx", slot);
  zeph_cli::CiReply reply;
  if (!AskKey(args, request, "reading slot " + std::to_string(slot) + " failed", &reply, status)) return false;
  *text_form = !reply.data.empty() && reply.data.front() == '{';
  if (*text_form) {
    seal->assign(reply.data.begin(), reply.data.end());
  } else if (!zeph_cli::FromBase64(reply.data, seal)) {
    *status = zeph_cli::Fail(Self(), "unreadable reply");
    return false;
  }
  return true;
}

int Read(const zeph_cli::Args &args, int slot) {
  std::vector<uint8_t> seal;
  bool text_form = false;
  int status = 0;
  if (!ReadSeal(args, slot, &seal, &text_form, &status)) return status;
  if (text_form) seal.push_back('\n');
  if (!args.Has("--out")) return zeph_cli::WriteStdout(seal.data(), seal.size()) ? zeph_cli::kOk : zeph_cli::kFailed;
  if (!WriteFile(args.Get("--out"), seal)) return zeph_cli::Fail(Self(), "cannot write " + args.Get("--out"));
  std::printf("%s: %s, %zu bytes\n", args.Get("--out").c_str(), text_form ? "text-form seal (JSON)" : "DER seal",
              seal.size());
  return zeph_cli::kOk;
}

int KeyPicture(const zeph_cli::Args &args, int slot) {
  std::vector<uint8_t> seal, pic;
  bool text_form = false;
  int status = 0;
  if (!ReadSeal(args, slot, &seal, &text_form, &status)) return status;
  std::string type;
  if (text_form) {
    const JsonPtr doc(cJSON_Parse(std::string(seal.begin(), seal.end()).c_str()), cJSON_Delete);
    if (!zeph_cli::FromBase64(Str(doc.get(), "pic"), &pic)) return zeph_cli::Fail(Self(), "unreadable picture");
  } else {
    std::string text;
    const auto len = static_cast<uint32_t>(seal.size());
    uint32_t rv = TextOf([&](char *out, uint32_t *n) { return ZEPH_C_SealDescribe(seal.data(), len, out, n); }, &text);
    uint32_t pic_len = 0;
    if (rv == 0) rv = ZEPH_C_SealPicture(seal.data(), len, nullptr, &pic_len);
    pic.resize(pic_len);
    if (rv == 0) rv = ZEPH_C_SealPicture(seal.data(), len, pic.data(), &pic_len);
    if (rv != 0) return zeph_cli::Fail(Self(), "the stored seal gives no picture: " + zeph_cli::StatusText(rv));
    const JsonPtr doc(cJSON_Parse(text.c_str()), cJSON_Delete);
    type = Str(cJSON_GetObjectItemCaseSensitive(doc.get(), "picture"), "type");
  }
  return WritePicture(pic, type, args.Get("--out"));
}

int Type(const zeph_cli::Args &args, int slot) {
  zeph_cli::CiRequest request(802);
  request.Set("idx", slot);
  zeph_cli::CiReply reply;
  int status = 0;
  if (!AskKey(args, request, "slot " + std::to_string(slot) + " holds no seal", &reply, &status)) return status;
  std::printf("%s (%s)\n", reply.data.c_str(), KindName(reply.data));
  return zeph_cli::kOk;
}

int List(const zeph_cli::Args &args) {
  zeph_cli::CiRequest request(803);
  zeph_cli::CiReply reply;
  int status = 0;
  if (!AskKey(args, request, "listing the seals failed", &reply, &status)) return status;
  const JsonPtr doc(cJSON_Parse(reply.data.c_str()), cJSON_Delete);
  const cJSON *item = nullptr;
  cJSON_ArrayForEach(item, cJSON_GetObjectItemCaseSensitive(doc.get(), "keyList")) {
    const cJSON *s = cJSON_GetObjectItemCaseSensitive(item, "data");
    std::printf("slot %-2s %-14s %s, valid %s to %s, picture %s x %s, %s\n", Str(item, "idx").c_str(),
                KindName(Str(s, "sealType")), Str(s, "stampName").c_str(), Str(s, "notBefore").c_str(),
                Str(s, "notAfter").c_str(), Str(s, "picWidth").c_str(), Str(s, "picHight").c_str(),
                Str(s, "signAlgoName").c_str());
  }
  std::printf("%s seal(s)\n", Str(doc.get(), "quantity").c_str());
  return zeph_cli::kOk;
}

int RunKeySeal(const zeph_cli::Args &args) {
  const std::string &sub = args.words[0];
  if (args.words.size() != 1) return zeph_cli::UsageError(Self(), sub + " takes options only");
  if (sub == "list") return List(args);
  if (!args.Has("--slot")) return zeph_cli::UsageError(Self(), "--slot is required");
  std::string error;
  int slot = 0;
  if (!SlotOption(args, &slot, &error)) return zeph_cli::UsageError(Self(), error);
  if (sub == "store") return Store(args, slot);
  if (sub == "read") return Read(args, slot);
  if (sub == "type") return Type(args, slot);
  if (!args.Has("--out")) return zeph_cli::UsageError(Self(), "--out is required");
  return KeyPicture(args, slot);
}

int RunSeal(const zeph_cli::Args &args) {
  if (args.words.empty()) return zeph_cli::UsageError(Self(), "give a subcommand");
  const std::string &sub = args.words[0];
  if (sub == "store" || sub == "read" || sub == "type" || sub == "list" || (sub == "picture" && args.Has("--slot"))) {
    return RunKeySeal(args);
  }
  if (args.words.size() != 2) return zeph_cli::UsageError(Self(), "give a subcommand and one file");
  if (sub == "info") return Info(args);
  if (sub == "picture") return Picture(args);
  if (sub == "verify") return Verify(args);
  return zeph_cli::UsageError(Self(), "unknown subcommand '" + sub + "'");
}

}  // namespace
