// zeph cert get|save|verify|chain|info and zeph csr: certificates on a key,
// their verification with CRL or OCSP, and enrolment requests, through the
// JSON rows a host would send.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ci_client.hpp"

namespace {

int RunCert(const zeph_cli::Args &args);
int RunCsr(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(cert, "certificates on a key; verification with CRL or OCSP; certificate fields",
               "cert get [--key SN] [--area sm2|rsa] [--enc] [--out FILE]\n"
               "       zeph cert save [--key SN] --pin PIN [--area sm2|rsa] [--enc-key KEY] CERT\n"
               "       zeph cert chain [--key SN] [--area sm2|rsa] [--out FILE]\n"
               "       zeph cert chain [--key SN] --pin PIN [--area sm2|rsa] --store CAS\n"
               "       zeph cert verify --ca CAS [--nocrl | --ocsp URL] CERT\n"
               "       zeph cert info [--item N | --oid OID] CERT\n"
               "   get writes the signing certificate (--enc: the encryption one) as DER; save stores a\n"
               "   signing certificate, or with --enc-key (PKCS#8, PEM or DER) an encryption pair and its\n"
               "   certificate. chain reads the key's CA bundle (PKCS#7, DER) or stores CAS. verify checks\n"
               "   CERT against the CAs of CAS (PEM, DER or a PKCS#7 bundle), then the CRL of its\n"
               "   distribution points, or the OCSP responder at --ocsp URL.\n"
               "   info prints one field (--item; 7 subject by default) or an extension or policy.\n"
               "   Certificates PEM or DER; --config PATH as for ci.",
               RunCert,
               {"--config", "--key", "--pin", "--area", "--out", "--enc-key", "--store", "--ca", "--ocsp", "--item",
                "--oid"},
               {"--enc", "--nocrl"});

ZEPH_CLI_GROUP(csr, "a PKCS#10 request signed by the key, optionally for a new key pair",
               "csr [--key SN] --pin PIN --dn DN [--area sm2|rsa] [--new-key BITS] [--out FILE]\n"
               "   DN is \"CN=a,O=b\" or \"/CN=a/O=b\" (UTF-8). --new-key makes a new signing pair first\n"
               "   (RSA 1024 or 2048; any number for SM2). The request is DER: openssl req -inform DER\n"
               "   -verify reads it (-vfyopt distid:1234567812345678 for SM2).",
               RunCsr, {"--config", "--key", "--pin", "--area", "--dn", "--new-key", "--out"});

const zeph_cli::Group &Cert() { return *zeph_cli::FindGroup("cert"); }
const zeph_cli::Group &Csr() { return *zeph_cli::FindGroup("csr"); }

// Any file a row reads as certificate text: PEM as it is, else base64.
bool FileText(const std::string &path, std::string *text, std::string *error) {
  std::vector<uint8_t> bytes;
  if (!zeph_cli::ReadInput(path, &bytes, error)) return false;
  const std::string raw(bytes.begin(), bytes.end());
  *text = raw.find("-----BEGIN") != std::string::npos ? raw : zeph_cli::ToBase64(bytes);
  return true;
}

// Base64 data of a reply to the file of --out (or standard output).
int WriteData(const zeph_cli::Group &group, const zeph_cli::Args &args, const zeph_cli::CiReply &reply) {
  std::vector<uint8_t> der;
  std::string error;
  if (!zeph_cli::FromBase64(reply.data, &der)) return zeph_cli::Fail(group, "the reply holds no base64 data");
  if (!zeph_cli::WriteOutput(args.Get("--out"), der.data(), der.size(), &error)) return zeph_cli::Fail(group, error);
  return zeph_cli::kOk;
}

// The key of --key and --area, set on the request.
bool OnKey(const zeph_cli::Args &args, zeph_cli::CiRequest *request, std::string *error) {
  std::string key_sn;
  int area = 0;
  if (!zeph_cli::AreaSelector(args, &area, error) || !zeph_cli::ApplyConfig(args, error) ||
      !zeph_cli::ResolveKey(args, &key_sn, error)) {
    return false;
  }
  request->Set("keySN", key_sn).Set("asymid", area);
  if (args.Has("--pin")) request->Set("pin", args.Get("--pin"));
  return true;
}

int Send(const zeph_cli::Group &group, const zeph_cli::CiRequest &request, const std::string &what,
         zeph_cli::CiReply *reply) {
  std::string error;
  if (!zeph_cli::SendCi(request.Text(), reply, &error)) return zeph_cli::Fail(group, error);
  if (reply->code != 0) return zeph_cli::FailReply(group, what, *reply);
  return zeph_cli::kOk;
}

int Get(const zeph_cli::Args &args) {
  zeph_cli::CiRequest request(200);
  std::string error;
  if (!OnKey(args, &request, &error)) return zeph_cli::Fail(Cert(), error);
  request.Set("usage", args.Has("--enc") ? 0 : 1);
  zeph_cli::CiReply reply;
  if (const int rv = Send(Cert(), request, "cannot read the certificate", &reply)) return rv;
  return WriteData(Cert(), args, reply);
}

int Save(const zeph_cli::Args &args) {
  if (args.words.size() != 2 || !args.Has("--pin")) return zeph_cli::UsageError(Cert(), "--pin and one CERT");
  const bool enc = args.Has("--enc-key");
  zeph_cli::CiRequest request(enc ? 403 : 401);
  std::string error, cert, key;
  if (!FileText(args.words[1], &cert, &error)) return zeph_cli::Fail(Cert(), error);
  if (enc && !FileText(args.Get("--enc-key"), &key, &error)) return zeph_cli::Fail(Cert(), error);
  if (!OnKey(args, &request, &error)) return zeph_cli::Fail(Cert(), error);
  request.Set("cert", cert);
  if (enc) request.Set("encKey", key);
  zeph_cli::CiReply reply;
  if (const int rv = Send(Cert(), request, "cannot store the certificate", &reply)) return rv;
  std::printf(enc ? "encryption pair and certificate stored\n" : "signing certificate stored\n");
  return zeph_cli::kOk;
}

int Chain(const zeph_cli::Args &args) {
  const bool store = args.Has("--store");
  if (store && !args.Has("--pin")) return zeph_cli::UsageError(Cert(), "--store needs --pin");
  zeph_cli::CiRequest request(store ? 402 : 202);
  std::string error, cas;
  if (store && !FileText(args.Get("--store"), &cas, &error)) return zeph_cli::Fail(Cert(), error);
  if (!OnKey(args, &request, &error)) return zeph_cli::Fail(Cert(), error);
  if (store) request.Set("certChain", cas);
  zeph_cli::CiReply reply;
  if (const int rv = Send(Cert(), request, store ? "cannot store the chain" : "cannot read the chain", &reply)) {
    return rv;
  }
  if (!store) return WriteData(Cert(), args, reply);
  std::printf("certificate chain stored\n");
  return zeph_cli::kOk;
}

int Verify(const zeph_cli::Args &args) {
  if (args.words.size() != 2 || !args.Has("--ca")) return zeph_cli::UsageError(Cert(), "--ca CAS and one CERT");
  if (args.Has("--nocrl") && args.Has("--ocsp")) return zeph_cli::UsageError(Cert(), "--nocrl or --ocsp, not both");
  std::string error, cert, cas;
  if (!FileText(args.words[1], &cert, &error) || !FileText(args.Get("--ca"), &cas, &error)) {
    return zeph_cli::Fail(Cert(), error);
  }
  zeph_cli::CiRequest request(201);
  request.Set("cert", cert).Set("certChain", cas).Set("nocrl", args.Has("--nocrl") ? 1 : 0);
  if (args.Has("--ocsp")) request.Set("url", args.Get("--ocsp"));
  zeph_cli::CiReply reply;
  if (const int rv = Send(Cert(), request, "certificate not accepted", &reply)) return rv;
  std::printf("certificate verified (%s)\n", args.Has("--nocrl")  ? "no revocation check"
                                             : args.Has("--ocsp") ? "OCSP: good"
                                                                  : "CRL: not listed");
  return zeph_cli::kOk;
}

int Info(const zeph_cli::Args &args) {
  if (args.words.size() != 2) return zeph_cli::UsageError(Cert(), "one CERT");
  if (args.Has("--item") && args.Has("--oid")) return zeph_cli::UsageError(Cert(), "--item or --oid, not both");
  std::string error, cert;
  if (!FileText(args.words[1], &cert, &error)) return zeph_cli::Fail(Cert(), error);
  zeph_cli::CiRequest request(206);
  request.Set("cert", cert);
  if (args.Has("--oid")) {
    request.Set("oid", args.Get("--oid"));
  } else {
    const std::string item = args.Get("--item", "7");
    char *end = nullptr;
    const unsigned long n = std::strtoul(item.c_str(), &end, 0);
    if (item.empty() || *end != '\0' || n > 0xFFFF) return zeph_cli::UsageError(Cert(), "--item takes a number");
    request.Set("itemNo", static_cast<int64_t>(n));
  }
  zeph_cli::CiReply reply;
  if (const int rv = Send(Cert(), request, "no such field", &reply)) return rv;
  std::printf("%s\n", reply.data.c_str());
  return zeph_cli::kOk;
}

int RunCert(const zeph_cli::Args &args) {
  const std::string action = args.words.empty() ? "" : args.words[0];
  if (action == "get") return Get(args);
  if (action == "save") return Save(args);
  if (action == "chain") return Chain(args);
  if (action == "verify") return Verify(args);
  if (action == "info") return Info(args);
  return zeph_cli::UsageError(Cert(), "say get, save, chain, verify or info");
}

int RunCsr(const zeph_cli::Args &args) {
  if (!args.words.empty() || !args.Has("--pin") || !args.Has("--dn")) {
    return zeph_cli::UsageError(Csr(), "--pin and --dn are required");
  }
  zeph_cli::CiRequest request(400);
  std::string error;
  if (!OnKey(args, &request, &error)) return zeph_cli::Fail(Csr(), error);
  request.Set("dn", args.Get("--dn"));
  if (args.Has("--new-key")) {
    const std::string bits = args.Get("--new-key");
    if (bits.empty() || bits.size() > 6 || bits.find_first_not_of("0123456789") != std::string::npos) {
      return zeph_cli::UsageError(Csr(), "--new-key takes a number of bits");
    }
    request.Set("modLen", std::stoll(bits));
  }
  zeph_cli::CiReply reply;
  if (const int rv = Send(Csr(), request, "cannot make the request", &reply)) return rv;
  return WriteData(Csr(), args, reply);
}

}  // namespace
