// zeph tsa: RFC 3161 time stamps of PKCS#7 (and SM2) signatures.
#include <cstdio>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/pkcs7.h>
#include <openssl/ts.h>

#include "cli.hpp"
#include "zeph_c_pki.h"

namespace {

int RunTsa(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(tsa, "RFC 3161 time stamps: query a server, embed, check, show",
               "tsa query URL SIG [--alg ALG] [--out FILE]     ask URL to stamp SIG's first signer\n"
               "       zeph tsa post URL QUERY [--out FILE]             post a DER query (openssl ts -query)\n"
               "       zeph tsa embed REPLY SIG [--out FILE]            put the reply's token into SIG\n"
               "       zeph tsa stamp URL SIG --ca FILE [--alg ALG] [--out FILE]\n"
               "                                                        query, check against the TSA's CA, embed\n"
               "       zeph tsa show FILE [--out TOKEN]                 a reply, or the token in a stamped SIG;\n"
               "                                                        --out writes the token (DER)\n"
               "  SIG is PKCS#7 signed-data (DER); with --alg sm3, query takes an SM2 signed message.\n"
               "  ALG: sm3 | sha1 | sha256 | sha384 | sha512 (default sha256). Output goes to standard output\n"
               "  without --out.",
               RunTsa, {"--alg", "--out", "--ca"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("tsa"); }

using Bytes = std::vector<uint8_t>;

struct Algorithm {
  const char *name;
  uint32_t code;
};

constexpr Algorithm kAlgorithms[] = {
    {"sm3", 1}, {"sha1", 2}, {"sha256", 0x10004}, {"sha384", 0x10008}, {"sha512", 0x10010},
};

bool Load(const std::string &path, Bytes *data, int *rc) {
  std::string error;
  if (zeph_cli::ReadInput(path, data, &error)) return true;
  *rc = zeph_cli::Fail(Self(), error);
  return false;
}

int Emit(const zeph_cli::Args &args, const uint8_t *data, size_t n) {
  const std::string out = args.Get("--out");
  if (out.empty()) return zeph_cli::WriteStdout(data, n) ? zeph_cli::kOk : zeph_cli::Fail(Self(), "cannot write");
  FILE *f = std::fopen(out.c_str(), "wb");
  const bool ok = f != nullptr && std::fwrite(data, 1, n, f) == n;
  if (f != nullptr && std::fclose(f) != 0) return zeph_cli::Fail(Self(), "cannot write " + out);
  return ok ? zeph_cli::kOk : zeph_cli::Fail(Self(), "cannot write " + out);
}

int Status(uint32_t rv) { return zeph_cli::Fail(Self(), zeph_cli::StatusText(rv)); }

std::string Hex(const ASN1_STRING *s) {
  return s != nullptr ? zeph_cli::ToLowerHex(ASN1_STRING_get0_data(s), static_cast<size_t>(ASN1_STRING_length(s)))
                      : "-";
}

std::string Text(const ASN1_OBJECT *o) {
  char buf[128] = "-";
  if (o != nullptr) OBJ_obj2txt(buf, sizeof buf, o, 0);
  return buf;
}

std::string Time(const ASN1_GENERALIZEDTIME *t) {
  BIO *mem = BIO_new(BIO_s_mem());
  ASN1_GENERALIZEDTIME_print(mem, t);
  char *p = nullptr;
  const long n = BIO_get_mem_data(mem, &p);
  std::string s(p, static_cast<size_t>(n));
  BIO_free(mem);
  return s;
}

void PrintToken(TS_TST_INFO *info) {
  const TS_MSG_IMPRINT *imprint = TS_TST_INFO_get_msg_imprint(info);
  std::printf("time: %s\n", Time(TS_TST_INFO_get_time(info)).c_str());
  std::printf("serial: %s\n", Hex(TS_TST_INFO_get_serial(info)).c_str());
  std::printf("policy: %s\n", Text(TS_TST_INFO_get_policy_id(info)).c_str());
  std::printf("imprint: %s %s\n",
              Text(TS_MSG_IMPRINT_get_algo(const_cast<TS_MSG_IMPRINT *>(imprint))->algorithm).c_str(),
              Hex(TS_MSG_IMPRINT_get_msg(const_cast<TS_MSG_IMPRINT *>(imprint))).c_str());
  std::printf("nonce: %s\n", Hex(TS_TST_INFO_get_nonce(info)).c_str());
}

// A reply, or a PKCS#7 carrying a token in its first signer; the token
// goes to --out when asked.
int Show(const zeph_cli::Args &args, const Bytes &data) {
  static const char *const kStatus[] = {"granted", "grantedWithMods",   "rejection",
                                        "waiting", "revocationWarning", "revocationNotification"};
  const unsigned char *p = data.data();
  if (TS_RESP *resp = d2i_TS_RESP(nullptr, &p, static_cast<long>(data.size()))) {
    const long status = ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(TS_RESP_get_status_info(resp)));
    std::printf("status: %s (%ld)\n", status >= 0 && status <= 5 ? kStatus[status] : "unknown", status);
    TS_TST_INFO *info = TS_RESP_get_tst_info(resp);
    if (info != nullptr) PrintToken(info);
    unsigned char *token = nullptr;
    const int n = info != nullptr ? i2d_PKCS7(TS_RESP_get_token(resp), &token) : 0;
    const int rc = !args.Has("--out") ? zeph_cli::kOk
                   : n > 0            ? Emit(args, token, static_cast<size_t>(n))
                                      : zeph_cli::Fail(Self(), "the reply carries no token");
    OPENSSL_free(token);
    TS_RESP_free(resp);
    return rc;
  }
  p = data.data();
  PKCS7 *p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(data.size()));
  PKCS7_SIGNER_INFO *si = p7 != nullptr ? sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), 0) : nullptr;
  const ASN1_TYPE *attr = si != nullptr ? PKCS7_get_attribute(si, NID_id_smime_aa_timeStampToken) : nullptr;
  int rc = zeph_cli::kFailed;
  bool shown = false;
  if (attr != nullptr && attr->type == V_ASN1_SEQUENCE) {
    const unsigned char *q = attr->value.sequence->data;
    PKCS7 *token = d2i_PKCS7(nullptr, &q, attr->value.sequence->length);
    TS_TST_INFO *info = token != nullptr ? PKCS7_to_TS_TST_INFO(token) : nullptr;
    if (info != nullptr) {
      std::printf("status: embedded token\n");
      PrintToken(info);
      shown = true;
      rc = args.Has("--out") ? Emit(args, attr->value.sequence->data, static_cast<size_t>(attr->value.sequence->length))
                             : zeph_cli::kOk;
    }
    TS_TST_INFO_free(info);
    PKCS7_free(token);
  }
  PKCS7_free(p7);
  return shown ? rc : zeph_cli::Fail(Self(), "neither a time-stamp reply nor a PKCS#7 with a time-stamp token");
}

int RunTsa(const zeph_cli::Args &args) {
  const std::vector<std::string> &w = args.words;
  if (w.empty()) return zeph_cli::UsageError(Self(), "no command given");
  const std::string &cmd = w[0];
  const size_t want = cmd == "show" ? 2 : 3;
  if ((cmd != "query" && cmd != "post" && cmd != "embed" && cmd != "stamp" && cmd != "show") || w.size() != want) {
    return zeph_cli::UsageError(Self(), "unknown command or wrong number of arguments");
  }
  const std::string alg_name = args.Get("--alg", "sha256");
  const Algorithm *alg = nullptr;
  for (const auto &a : kAlgorithms) {
    if (alg_name == a.name) alg = &a;
  }
  if (alg == nullptr) return zeph_cli::UsageError(Self(), "unknown algorithm '" + alg_name + "'");
  if (cmd == "stamp" && !args.Has("--ca")) return zeph_cli::UsageError(Self(), "stamp needs --ca FILE");

  int rc = zeph_cli::kFailed;
  Bytes data, reply;  // the last argument; embed's reply
  if (!Load(w.back(), &data, &rc)) return rc;
  if (cmd == "show") return Show(args, data);
  if (cmd == "embed" && !Load(w[1], &reply, &rc)) return rc;
  const auto n = static_cast<uint32_t>(data.size());
  // Every stamp differs a little in length: room to spare.
  Bytes out(data.size() + reply.size() + 64 * 1024);
  auto len = static_cast<uint32_t>(out.size());
  uint32_t rv = 0;
  if (cmd == "query") {
    rv = ZEPH_C_GetTimeStamp(w[1].c_str(), alg->code, n, data.data(), out.data(), &len);
    if (rv == 0 && len == 0) return zeph_cli::Fail(Self(), "the query could not be built");
  } else if (cmd == "post") {
    int http = 0;
    rv = ZEPH_C_HttpPostEx(w[1].c_str(), "application/timestamp-query", data.data(), n, out.data(), &len, &http);
  } else if (cmd == "embed") {
    rv = ZEPH_C_GetTimeStampPKCS7(reply.data(), static_cast<uint32_t>(reply.size()), data.data(), n, out.data(), &len);
  } else {
    rv = ZEPH_C_StampPKCS7(w[1].c_str(), alg->code, data.data(), n, args.Get("--ca").c_str(), out.data(), &len);
  }
  if (rv != 0) return Status(rv);
  return Emit(args, out.data(), len);
}

}  // namespace
