// zeph seal: what a seal or seal signature file holds, its picture, and the
// verification of a seal signature, through the library's tolerant reader.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <cjson/cJSON.h>
#include <sys/stat.h>

#include "cli.hpp"
#include "zeph_c_seal.h"
#include "zeph_c_status.h"

namespace {

int RunSeal(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(seal, "describe a seal or seal signature, take out its picture, verify a seal signature",
               "seal info FILE [--json]\n"
               "       zeph seal picture FILE --out PATH   (PATH gets the picture type's extension;\n"
               "                                           a directory receives seal.<ext>)\n"
               "       zeph seal verify SIG [--doc FILE] [--json]   (exit status 0 only when valid)",
               RunSeal, {"--out", "--doc"}, {"--json"});

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
    return pic.size() >= m.size() && std::equal(m.begin(), m.end(), pic.begin());
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
  const std::string type = Str(cJSON_GetObjectItemCaseSensitive(seal, "picture"), "type");
  const std::string path = TargetPath(args.Get("--out"), Extension(type, pic));
  FILE *f = std::fopen(path.c_str(), "wb");
  const bool written = f != nullptr && std::fwrite(pic.data(), 1, pic.size(), f) == pic.size();
  if ((f != nullptr && std::fclose(f) != 0) || !written) return zeph_cli::Fail(Self(), "cannot write " + path);
  std::printf("%s (%s, %zu bytes)\n", path.c_str(), type.c_str(), pic.size());
  return zeph_cli::kOk;
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

int RunSeal(const zeph_cli::Args &args) {
  if (args.words.size() != 2) return zeph_cli::UsageError(Self(), "give a subcommand and one file");
  const std::string &sub = args.words[0];
  if (sub == "info") return Info(args);
  if (sub == "picture") return Picture(args);
  if (sub == "verify") return Verify(args);
  return zeph_cli::UsageError(Self(), "unknown subcommand '" + sub + "'");
}

}  // namespace
