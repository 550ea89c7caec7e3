// zeph sign / zeph verify: raw RSA or SM2 signatures with a key, and their
// verification with a certificate.
#include <cstdio>
#include <string>
#include <vector>

#include "ci_client.hpp"
#include "zeph_c_status.h"

namespace {

int RunSign(const zeph_cli::Args &args);
int RunVerify(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(sign, "sign data with the key (SM2, or RSA with --area rsa)",
               "sign [--key SN] --pin PIN [--area sm2|rsa] [--digest sha256|sha384|sha512]\n"
               "       (--data TEXT | --in FILE) [--out FILE]\n"
               "       (prints the signature in base64, or writes its DER bytes to --out)",
               RunSign, {"--config", "--key", "--pin", "--area", "--digest", "--data", "--in", "--out"});
ZEPH_CLI_GROUP(verify, "verify a signature with a certificate (PEM or DER)",
               "verify --cert FILE (--data TEXT | --in FILE) (--sig BASE64 | --sig-file FILE)\n"
               "       [--digest sha256|sha384|sha512]   (exit status 0 only for a valid signature)",
               RunVerify, {"--config", "--cert", "--data", "--in", "--sig", "--sig-file", "--digest"});

// signData holds at most 1,024 characters: text as it is, file bytes in base64.
constexpr size_t kSignDataMax = 1024;

const zeph_cli::Group &SignGroup() { return *zeph_cli::FindGroup("sign"); }
const zeph_cli::Group &VerifyGroup() { return *zeph_cli::FindGroup("verify"); }

// The library's RSA digest identifiers.
bool DigestId(const zeph_cli::Args &args, int *id, std::string *error) {
  const std::string name = args.Get("--digest", "sha256");
  if (name == "sha256") {
    *id = 4;
  } else if (name == "sha384") {
    *id = 8;
  } else if (name == "sha512") {
    *id = 16;
  } else {
    *error = "unknown digest '" + name + "'";
    return false;
  }
  return true;
}

// --data TEXT (sent as text) or --in FILE (sent in base64).
bool PutSignedData(const zeph_cli::Args &args, zeph_cli::CiRequest *request, std::string *error) {
  if (args.Has("--data") == args.Has("--in")) {
    *error = "give the data with exactly one of --data and --in";
    return false;
  }
  std::string text;
  int kind = 0;
  if (args.Has("--data")) {
    text = args.Get("--data");
  } else {
    std::vector<uint8_t> bytes;
    if (!zeph_cli::ReadInput(args.Get("--in"), &bytes, error)) return false;
    text = zeph_cli::ToBase64(bytes);
    kind = 1;
  }
  if (text.size() > kSignDataMax) {
    *error = "data too long for one request (at most 1024 characters of text, or 768 bytes from a file)";
    return false;
  }
  request->Set("signData", text).Set("signDataType", kind);
  return true;
}

int RunSign(const zeph_cli::Args &args) {
  const auto &self = SignGroup();
  if (!args.words.empty()) return zeph_cli::UsageError(self, "unexpected argument " + args.words[0]);
  if (!args.Has("--pin")) return zeph_cli::UsageError(self, "--pin is required");
  std::string error, key_sn;
  int area = 0, digest = 0;
  if (!zeph_cli::AreaSelector(args, &area, &error) || !DigestId(args, &digest, &error)) {
    return zeph_cli::UsageError(self, error);
  }
  if (area == 4) return zeph_cli::UsageError(self, "the seal area holds no signing key");
  zeph_cli::CiRequest request(300);
  if (!PutSignedData(args, &request, &error)) return zeph_cli::UsageError(self, error);
  if (!zeph_cli::ApplyConfig(args, &error)) return zeph_cli::Fail(self, error);
  if (!zeph_cli::ResolveKey(args, &key_sn, &error)) return zeph_cli::Fail(self, error);
  request.Set("keySN", key_sn).Set("pin", args.Get("--pin")).Set("asymid", area);
  if (area == 1) request.Set("algID", digest);

  zeph_cli::CiReply reply;
  if (!zeph_cli::SendCi(request.Text(), &reply, &error)) return zeph_cli::Fail(self, error);
  if (reply.code != 0) return zeph_cli::FailReply(self, "signing failed", reply);
  if (!args.Has("--out")) {
    std::printf("%s\n", reply.data.c_str());
    return zeph_cli::kOk;
  }
  std::vector<uint8_t> der;
  if (!zeph_cli::FromBase64(reply.data, &der)) return zeph_cli::Fail(self, "unreadable signature " + reply.data);
  if (!zeph_cli::WriteOutput(args.Get("--out"), der.data(), der.size(), &error)) return zeph_cli::Fail(self, error);
  return zeph_cli::kOk;
}

int RunVerify(const zeph_cli::Args &args) {
  const auto &self = VerifyGroup();
  if (!args.words.empty()) return zeph_cli::UsageError(self, "unexpected argument " + args.words[0]);
  if (!args.Has("--cert")) return zeph_cli::UsageError(self, "--cert is required");
  if (args.Has("--sig") == args.Has("--sig-file")) {
    return zeph_cli::UsageError(self, "give the signature with exactly one of --sig and --sig-file");
  }
  std::string error, cert;
  int digest = 0;
  if (!DigestId(args, &digest, &error)) return zeph_cli::UsageError(self, error);
  zeph_cli::CiRequest request(301);
  if (!PutSignedData(args, &request, &error)) return zeph_cli::UsageError(self, error);
  if (!zeph_cli::CertificateBase64(args.Get("--cert"), &cert, &error)) return zeph_cli::Fail(self, error);
  std::string sig = args.Get("--sig");
  if (args.Has("--sig-file")) {
    std::vector<uint8_t> der;
    if (!zeph_cli::ReadInput(args.Get("--sig-file"), &der, &error)) return zeph_cli::Fail(self, error);
    sig = zeph_cli::ToBase64(der);
  }
  if (!zeph_cli::ApplyConfig(args, &error)) return zeph_cli::Fail(self, error);
  request.Set("cert", cert).Set("raw", sig).Set("algID", digest);

  zeph_cli::CiReply reply;
  if (!zeph_cli::SendCi(request.Text(), &reply, &error)) return zeph_cli::Fail(self, error);
  if (reply.Status() == ERR_SIGNATURE_INVALID) {
    std::printf("signature invalid\n");
    return zeph_cli::kFailed;
  }
  if (reply.code != 0) return zeph_cli::FailReply(self, "verification failed", reply);
  std::printf("signature valid\n");
  return zeph_cli::kOk;
}

}  // namespace
