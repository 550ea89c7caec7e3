// zeph p7: signed messages (SM2 GM layouts and PKCS#7) made with the key and
// verified, envelopes made for a certificate and opened with the key. Works
// on files of any size, so it calls the library directly rather than through
// a JSON request.
#include <cstdio>
#include <string>
#include <vector>

#include "ci_client.hpp"
#include "zeph_c_api.h"
#include "zeph_c_p7.h"
#include "zeph_c_status.h"

namespace {

int RunP7(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(p7, "signed messages and envelopes: SM2 GM layouts and PKCS#7",
               "p7 sign --pin PIN [--key SN] [--gm301 | --gm501 | --pkcs7] [--area sm2|rsa]\n"
               "          [--digest sha256|sha384|sha512] [--detached] [--chain FILE] [--out FILE] FILE\n"
               "       zeph p7 verify [--content FILE] [--out FILE] MESSAGE\n"
               "       zeph p7 envelope --cert FILE [--gm] [--out FILE] FILE\n"
               "       zeph p7 open --pin PIN [--key SN] [--area sm2|rsa] [--out FILE] ENVELOPE\n"
               "   sign: --pkcs7 (the default) is PKCS#7 signed-data with signed attributes, by the SM2 key\n"
               "   (--area sm2, the default) or the RSA key; --gm301 and --gm501 are the GM SM2 layouts, always\n"
               "   attached. --chain adds a PKCS#7 certificate bundle (or one certificate, DER) before the\n"
               "   signer's. verify takes either family and writes the content to --out; --content gives the\n"
               "   detached content. envelope: GM layout for an SM2 certificate, PKCS#7 for RSA (--gm: GM\n"
               "   layout). Certificates PEM or DER; FILE - is standard input; results go to --out or\n"
               "   standard output.",
               RunP7, {"--config", "--key", "--pin", "--area", "--digest", "--chain", "--out", "--content", "--cert"},
               {"--gm301", "--gm501", "--pkcs7", "--detached", "--gm"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("p7"); }

int Emit(const zeph_cli::Args &args, const std::vector<uint8_t> &bytes) {
  if (!args.Has("--out")) {
    return zeph_cli::WriteStdout(bytes.data(), bytes.size()) ? zeph_cli::kOk
                                                             : zeph_cli::Fail(Self(), "cannot write output");
  }
  FILE *f = std::fopen(args.Get("--out").c_str(), "wb");
  const bool written = f != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  const bool closed = f != nullptr && std::fclose(f) == 0;
  return written && closed ? zeph_cli::kOk : zeph_cli::Fail(Self(), "cannot write " + args.Get("--out"));
}

// An operation of the output protocol, asked for its length first.
template <class Op>
uint32_t Collect(Op &&op, std::vector<uint8_t> *out) {
  uint32_t len = 0;
  uint32_t rv = op(nullptr, &len);
  if (rv != 0) return rv;
  out->resize(len);
  rv = op(out->data(), &len);
  if (rv == 0) out->resize(len);
  return rv;
}

bool ReadOne(const zeph_cli::Args &args, std::vector<uint8_t> *data, std::string *error) {
  if (args.words.size() != 2) {
    *error = "expected exactly one FILE";
    return false;
  }
  return zeph_cli::ReadInput(args.words[1], data, error);
}

// A certificate file (PEM or DER) as DER.
bool ReadCert(const std::string &path, std::vector<uint8_t> *der, std::string *error) {
  std::string b64;
  return zeph_cli::CertificateBase64(path, &b64, error) && zeph_cli::FromBase64(b64, der);
}

// An API handle on the key of --key (or the only key), released however
// the command ends.
class Key {
 public:
  ~Key() {
    if (handle_ != nullptr) ZEPH_C_Finalize(handle_);
    ZEPH_C_MALLOC_FREE(handle_);
  }
  bool Open(const zeph_cli::Args &args, std::string *error) {
    std::string key_sn;
    if (!zeph_cli::ApplyConfig(args, error) || !zeph_cli::ResolveKey(args, &key_sn, error)) return false;
    const uint32_t rv = ZEPH_C_Initialize(&handle_, 0, key_sn.c_str(), 0);
    if (rv != 0) *error = "cannot open key " + key_sn + ": " + zeph_cli::StatusText(rv);
    return rv == 0;
  }
  void *get() const { return handle_; }

 private:
  void *handle_ = nullptr;
};

int Sign(const zeph_cli::Args &args) {
  const int layouts = args.Has("--gm301") + args.Has("--gm501") + args.Has("--pkcs7");
  if (layouts > 1) return zeph_cli::UsageError(Self(), "give at most one of --gm301, --gm501 and --pkcs7");
  if (!args.Has("--pin")) return zeph_cli::UsageError(Self(), "--pin is required");
  const bool gm = args.Has("--gm301") || args.Has("--gm501");
  std::string error;
  int area = 0;
  if (!zeph_cli::AreaSelector(args, &area, &error)) return zeph_cli::UsageError(Self(), error);
  if (area == ZEPH_AREA_SEAL) return zeph_cli::UsageError(Self(), "the seal area holds no signing key");
  if (gm && (area != ZEPH_AREA_SM2 || args.Has("--detached"))) {
    return zeph_cli::UsageError(Self(), "the GM layouts are SM2 and attached");
  }
  const std::string digest = args.Get("--digest", "sha256");
  const uint32_t digest_id = digest == "sha256" ? 4 : digest == "sha384" ? 8 : digest == "sha512" ? 16 : 0;
  if (digest_id == 0) return zeph_cli::UsageError(Self(), "unknown digest '" + digest + "'");
  std::vector<uint8_t> data, chain, out;
  if (!ReadOne(args, &data, &error)) return zeph_cli::UsageError(Self(), error);
  if (args.Has("--chain") && !zeph_cli::ReadInput(args.Get("--chain"), &chain, &error)) {
    return zeph_cli::Fail(Self(), error);
  }
  Key key;
  if (!key.Open(args, &error)) return zeph_cli::Fail(Self(), error);
  const std::string pin = args.Get("--pin");
  const auto data_len = static_cast<uint32_t>(data.size());
  const auto chain_len = static_cast<uint32_t>(chain.size());
  const uint32_t rv = Collect(
      [&](unsigned char *o, uint32_t *len) {
        if (args.Has("--gm301")) {
          return ZEPH_C_DoSm2SignToPKCS7_301(key.get(), pin.c_str(), data.data(), data_len, chain.data(), chain_len, o,
                                             len);
        }
        if (args.Has("--gm501")) {
          return ZEPH_C_DoSm2SignToPKCS7_501(key.get(), pin.c_str(), data.data(), data_len, chain.data(), chain_len, o,
                                             len);
        }
        return ZEPH_C_DoSignToPKCS7(key.get(), pin.c_str(), static_cast<uint32_t>(area),
                                    area == ZEPH_AREA_RSA ? digest_id : 0,
                                    args.Has("--detached") ? ZEPH_P7_DETACHED : ZEPH_P7_ATTACHED, data.data(), data_len,
                                    chain.data(), chain_len, o, len);
      },
      &out);
  if (rv != 0) return zeph_cli::Fail(Self(), "signing failed: " + zeph_cli::StatusText(rv));
  return Emit(args, out);
}

int Verify(const zeph_cli::Args &args) {
  std::vector<uint8_t> msg, content, out;
  std::string error;
  if (!ReadOne(args, &msg, &error)) return zeph_cli::UsageError(Self(), error);
  if (args.Has("--content") && !zeph_cli::ReadInput(args.Get("--content"), &content, &error)) {
    return zeph_cli::Fail(Self(), error);
  }
  const auto msg_len = static_cast<uint32_t>(msg.size());
  const auto content_len = static_cast<uint32_t>(content.size());
  uint32_t rv = Collect(
      [&](unsigned char *o, uint32_t *len) {
        return ZEPH_C_VerifySm2SignPKCS7(msg.data(), msg_len, content.data(), content_len, o, len);
      },
      &out);
  if (rv == ERR_SIGNATURE_INVALID) {
    rv = Collect(
        [&](unsigned char *o, uint32_t *len) {
          return ZEPH_C_VerifyPKCS7(msg.data(), msg_len, content.data(), content_len, o, len);
        },
        &out);
  }
  if (rv == ERR_SIGNATURE_INVALID) return zeph_cli::Fail(Self(), "the signature does not verify");
  if (rv != 0) return zeph_cli::Fail(Self(), "cannot verify: " + zeph_cli::StatusText(rv));
  std::fprintf(stderr, "signature verified\n");
  return args.Has("--out") ? Emit(args, out) : zeph_cli::kOk;
}

int Envelope(const zeph_cli::Args &args) {
  if (!args.Has("--cert")) return zeph_cli::UsageError(Self(), "--cert FILE is required");
  std::vector<uint8_t> cert, data, out;
  std::string error;
  if (!ReadOne(args, &data, &error)) return zeph_cli::UsageError(Self(), error);
  if (!ReadCert(args.Get("--cert"), &cert, &error)) return zeph_cli::Fail(Self(), error);
  const uint32_t rv = Collect(
      [&](unsigned char *o, uint32_t *len) {
        return ZEPH_C_EncodeEnveloperWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(),
                                              static_cast<uint32_t>(data.size()),
                                              args.Has("--gm") ? ZEPH_ENVELOPE_GM : ZEPH_ENVELOPE_DEFAULT, o, len);
      },
      &out);
  if (rv != 0) return zeph_cli::Fail(Self(), "cannot make the envelope: " + zeph_cli::StatusText(rv));
  return Emit(args, out);
}

int Open(const zeph_cli::Args &args) {
  if (!args.Has("--pin")) return zeph_cli::UsageError(Self(), "--pin is required");
  std::string error;
  int area = 0;
  if (args.Has("--area") && !zeph_cli::AreaSelector(args, &area, &error)) return zeph_cli::UsageError(Self(), error);
  std::vector<uint8_t> env;
  if (!ReadOne(args, &env, &error)) return zeph_cli::UsageError(Self(), error);
  Key key;
  if (!key.Open(args, &error)) return zeph_cli::Fail(Self(), error);
  // The content is shorter than its envelope: one pass, one PIN check.
  std::vector<uint8_t> out(env.size());
  auto len = static_cast<uint32_t>(out.size());
  const std::string pin = args.Get("--pin");
  const uint32_t rv = ZEPH_C_DecodeEnveloper(key.get(), pin.c_str(), static_cast<uint32_t>(area), env.data(),
                                             static_cast<uint32_t>(env.size()), out.data(), &len);
  if (rv != 0) return zeph_cli::Fail(Self(), "cannot open the envelope: " + zeph_cli::StatusText(rv));
  out.resize(len);
  return Emit(args, out);
}

int RunP7(const zeph_cli::Args &args) {
  if (args.words.empty()) return zeph_cli::UsageError(Self(), "expected sign, verify, envelope or open");
  const std::string &mode = args.words[0];
  if (mode == "sign") return Sign(args);
  if (mode == "verify") return Verify(args);
  if (mode == "envelope") return Envelope(args);
  if (mode == "open") return Open(args);
  return zeph_cli::UsageError(Self(), "unknown mode '" + mode + "'");
}

}  // namespace
