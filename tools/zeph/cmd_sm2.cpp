// zeph sm2: SM2 encryption to a key or certificate, conversion between the
// ciphertext forms, and signature verification.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "cli.hpp"
#include "zeph_c_sm2.h"
#include "zeph_c_utils.h"

namespace {

int RunSm2(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(sm2, "SM2 encryption, ciphertext forms, signature verification",
               "sm2 encrypt (--pubkey HEX | --cert FILE) [--form der|c1c3c2|c1c2c3] [FILE]\n"
               "       zeph sm2 convert --from FORM --to FORM [FILE]\n"
               "       zeph sm2 verify (--pubkey HEX | --cert FILE) [--id ID] --sig FILE [FILE]\n"
               "   HEX: the 65-byte point 04||x||y (or x||y); certificates DER or PEM; FILE: the message or\n"
               "   ciphertext (standard input when absent or -); results go to standard output. DER is GM/T 0009\n"
               "   C1C3C2; c1c3c2 and c1c2c3 are raw 04||x||y followed by C3 and C2 in that order. verify takes\n"
               "   a DER signature on SM3(Z || message), the identity 1234567812345678 unless --id is given.",
               RunSm2, {"--pubkey", "--cert", "--form", "--from", "--to", "--id", "--sig"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("sm2"); }

// "der" is -1; the raw orders are the library's order numbers.
bool ParseForm(const std::string &text, int *form) {
  if (text == "der")
    *form = -1;
  else if (text == "c1c3c2")
    *form = BIVO_SM2_ORDER_C1C3C2;
  else if (text == "c1c2c3")
    *form = BIVO_SM2_ORDER_C1C2C3;
  else
    return false;
  return true;
}

// A certificate file as DER: PEM text is unwrapped first.
bool LoadCert(const std::string &path, std::vector<uint8_t> *der, std::string *error) {
  std::vector<uint8_t> data;
  if (!zeph_cli::ReadInput(path, &data, error)) return false;
  const std::string text(data.begin(), data.end());
  const size_t begin = text.find("-----BEGIN CERTIFICATE-----");
  if (begin == std::string::npos) {
    *der = std::move(data);
    return true;
  }
  const size_t body = text.find('\n', begin), end = text.find("-----END CERTIFICATE-----", begin);
  std::string b64;
  for (size_t i = body; body != std::string::npos && end != std::string::npos && i < end; ++i) {
    if (std::isspace(static_cast<unsigned char>(text[i])) == 0) b64.push_back(text[i]);
  }
  uint32_t len = 0;
  if (b64.empty() || zeph_c_utils_b64tohex2(b64.c_str(), nullptr, &len) != 0) {
    *error = path + ": not a certificate";
    return false;
  }
  der->resize(len);
  if (zeph_c_utils_b64tohex2(b64.c_str(), der->data(), &len) != 0) return false;
  der->resize(len);
  return true;
}

// The public key from --pubkey or --cert, as 65 bytes.
bool LoadKey(const zeph_cli::Args &args, std::vector<uint8_t> *key, std::string *error) {
  if (args.Has("--pubkey") == args.Has("--cert")) {
    *error = "give exactly one of --pubkey and --cert";
    return false;
  }
  if (args.Has("--pubkey")) {
    if (!zeph_cli::ParseHex(args.Get("--pubkey"), key) || (key->size() != 64 && key->size() != 65)) {
      *error = "--pubkey must be 130 hex digits (04||x||y) or 128 (x||y)";
      return false;
    }
    if (key->size() == 64) key->insert(key->begin(), 0x04);
    return true;
  }
  std::vector<uint8_t> cert;
  if (!LoadCert(args.Get("--cert"), &cert, error)) return false;
  uint32_t len = 65;
  key->resize(len);
  const uint32_t rv = GetSm2PubKey(cert.data(), static_cast<uint32_t>(cert.size()), key->data(), &len);
  if (rv != 0 || len != 65) {
    *error = args.Get("--cert") + ": no SM2 public key in the certificate";
    return false;
  }
  return true;
}

bool ReadWords(const zeph_cli::Args &args, size_t first, std::vector<uint8_t> *data, std::string *error) {
  return zeph_cli::ReadInput(args.words.size() > first ? args.words[first] : "-", data, error);
}

int Write(const std::vector<uint8_t> &out) {
  return zeph_cli::WriteStdout(out.data(), out.size()) ? zeph_cli::kOk : zeph_cli::Fail(Self(), "cannot write output");
}

// DER to the requested form (DER itself passes through).
int Emit(const std::vector<uint8_t> &der, int form) {
  if (form < 0) return Write(der);
  uint32_t len = 0;
  uint32_t rv = BIVO_Sm2CiphertextDerToRaw(der.data(), static_cast<uint32_t>(der.size()), form, nullptr, &len);
  std::vector<uint8_t> raw(len);
  if (rv == 0) rv = BIVO_Sm2CiphertextDerToRaw(der.data(), static_cast<uint32_t>(der.size()), form, raw.data(), &len);
  if (rv != 0) return zeph_cli::Fail(Self(), "not an SM2 ciphertext: " + zeph_cli::StatusText(rv));
  return Write(raw);
}

int Encrypt(const zeph_cli::Args &args) {
  int form = -1;
  if (args.Has("--form") && !ParseForm(args.Get("--form"), &form)) {
    return zeph_cli::UsageError(Self(), "--form is der, c1c3c2 or c1c2c3");
  }
  std::vector<uint8_t> key, msg;
  std::string error;
  if (!LoadKey(args, &key, &error)) return zeph_cli::UsageError(Self(), error);
  if (!ReadWords(args, 1, &msg, &error)) return zeph_cli::Fail(Self(), error);
  if (msg.empty()) return zeph_cli::Fail(Self(), "nothing to encrypt: the message is empty");
  if (msg.size() > (1u << 30)) return zeph_cli::Fail(Self(), "the message is longer than 1 GiB");
  const auto msg_len = static_cast<uint32_t>(msg.size());
  std::vector<uint8_t> der(BIVO_ComputeSm2CiphertextEncodeLength(msg_len));
  auto len = static_cast<uint32_t>(der.size());
  uint32_t rv = BIVO_Sm2EncryptWithPubKey(msg.data(), msg_len, key.data(), 65, der.data(), &len);
  if (rv == BIVO_ERR_ENCRYPT && len > der.size()) {  // long messages: the length fields grew
    der.resize(len);
    rv = BIVO_Sm2EncryptWithPubKey(msg.data(), msg_len, key.data(), 65, der.data(), &len);
  }
  if (rv == BIVO_ERR_ENCRYPT) return zeph_cli::Fail(Self(), "encryption failed: is the key a point of the SM2 curve?");
  if (rv != 0) return zeph_cli::Fail(Self(), "encryption failed: " + zeph_cli::StatusText(rv));
  der.resize(len);
  return Emit(der, form);
}

int Convert(const zeph_cli::Args &args) {
  int from = 0, to = 0;
  if (!ParseForm(args.Get("--from"), &from) || !ParseForm(args.Get("--to"), &to)) {
    return zeph_cli::UsageError(Self(), "--from and --to are der, c1c3c2 or c1c2c3");
  }
  std::vector<uint8_t> in;
  std::string error;
  if (!ReadWords(args, 1, &in, &error)) return zeph_cli::Fail(Self(), error);
  if (from < 0) return Emit(in, to);
  uint32_t len = 0;
  const auto in_len = static_cast<uint32_t>(in.size());
  uint32_t rv = BIVO_Sm2CiphertextRawToDer(in.data(), in_len, from, nullptr, &len);
  std::vector<uint8_t> der(len);
  if (rv == 0) rv = BIVO_Sm2CiphertextRawToDer(in.data(), in_len, from, der.data(), &len);
  if (rv != 0) return zeph_cli::Fail(Self(), "not a raw SM2 ciphertext: " + zeph_cli::StatusText(rv));
  return Emit(der, to);
}

int Verify(const zeph_cli::Args &args) {
  if (!args.Has("--sig")) return zeph_cli::UsageError(Self(), "--sig FILE is required");
  std::vector<uint8_t> key, sig, msg;
  std::string error;
  if (!LoadKey(args, &key, &error)) return zeph_cli::UsageError(Self(), error);
  if (!zeph_cli::ReadInput(args.Get("--sig"), &sig, &error) || !ReadWords(args, 1, &msg, &error)) {
    return zeph_cli::Fail(Self(), error);
  }
  const std::string id = args.Get("--id", "1234567812345678");
  const uint32_t rv = BIVO_VerifySm2SignatureWithPubKey(msg.data(), static_cast<uint32_t>(msg.size()), id.c_str(),
                                                        key.data(), 65, sig.data(), static_cast<uint32_t>(sig.size()));
  if (rv == BIVO_ERR_SIGNATURE_FORMAT) return zeph_cli::Fail(Self(), "the signature is not DER SEQUENCE { r, s }");
  if (rv == BIVO_ERR_VERIFY) return zeph_cli::Fail(Self(), "the signature does not verify");
  if (rv != 0) return zeph_cli::Fail(Self(), "cannot verify: status " + std::to_string(rv));
  std::printf("signature verified\n");
  return zeph_cli::kOk;
}

int RunSm2(const zeph_cli::Args &args) {
  if (args.words.empty() || args.words.size() > 2) {
    return zeph_cli::UsageError(Self(), "expected encrypt, convert or verify and at most one FILE");
  }
  const std::string &mode = args.words[0];
  if (mode == "encrypt") return Encrypt(args);
  if (mode == "convert") return Convert(args);
  if (mode == "verify") return Verify(args);
  return zeph_cli::UsageError(Self(), "unknown mode '" + mode + "'");
}

}  // namespace
