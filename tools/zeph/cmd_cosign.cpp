// zeph cosign: the steps of two-party SM2 one at a time, each in its own
// process, with base64 values in (options) and out ("name=base64" lines),
// the same values a co-signing service exchanges. Handy to replay or debug a
// service by hand.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "cli.hpp"
#include "zeph_c_bivo_math.h"
#include "zeph_c_sm2.h"
#include "zeph_c_utils.h"

namespace {

int RunCosign(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(cosign, "two-party SM2 steps: key generation, signing, decryption",
               "cosign keygen --side client\n"
               "       zeph cosign keygen --side server --p1 B64\n"
               "       zeph cosign keygen --side client --d1 B64 --pubkey B64 --credential B64 [--pem FILE]\n"
               "       zeph cosign sign --side client --pubkey B64 [--id ID] [FILE]\n"
               "       zeph cosign sign --side server --d2 B64 --digest B64 --q1 B64\n"
               "       zeph cosign sign --side client --d1 B64 --k1 B64 --digest B64 --pubkey B64 --r B64 --s2 B64 "
               "--s3 B64\n"
               "       zeph cosign decrypt --side client --d1inv B64 [FILE]\n"
               "       zeph cosign decrypt --side server --d2inv B64 --t1 B64\n"
               "       zeph cosign decrypt --side client --t2 B64 [FILE]\n"
               "   Each step prints its results as name=base64 lines (the final decryption prints the\n"
               "   plaintext). d1, d1inv, d2, d2inv and k1 are secrets: the side that made them keeps them.\n"
               "   The client accepts pubKey only when the third keygen step succeeds; --pem writes it as a\n"
               "   PEM public key for openssl. FILE: the message or the DER ciphertext (standard input when\n"
               "   absent or -); --id defaults to 1234567812345678. The signature is verified before it\n"
               "   is printed.",
               RunCosign,
               {"--side", "--p1", "--d1", "--d1inv", "--d2", "--d2inv", "--pubkey", "--credential", "--pem", "--id",
                "--digest", "--q1", "--k1", "--r", "--s2", "--s3", "--t1", "--t2"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("cosign"); }

using Bytes = std::vector<uint8_t>;

// One input value: base64 of exactly `len` bytes.
bool Value(const zeph_cli::Args &args, const char *option, size_t len, Bytes *out, std::string *error) {
  if (!args.Has(option)) {
    *error = std::string(option) + " is missing";
    return false;
  }
  const std::string text = args.Get(option);
  uint32_t n = 0;
  if (!text.empty() && zeph_c_utils_b64tohex2(text.c_str(), nullptr, &n) == 0) {
    out->resize(n);
    if (zeph_c_utils_b64tohex2(text.c_str(), out->data(), &n) == 0 && n == len) {
      out->resize(n);
      return true;
    }
  }
  *error = std::string(option) + " must be the base64 of " + std::to_string(len) + " bytes";
  return false;
}

// All the values a step needs, or a usage error naming the first one wrong.
struct Need {
  const char *option;
  size_t len;
  Bytes *out;
};
bool Values(const zeph_cli::Args &args, std::initializer_list<Need> needs, std::string *error) {
  for (const Need &n : needs) {
    if (!Value(args, n.option, n.len, n.out, error)) return false;
  }
  return true;
}

bool Print(const char *name, const uint8_t *data, size_t len) {
  char *text = nullptr;
  if (zeph_c_utils_hex2b64(data, static_cast<uint32_t>(len), &text) != 0) return false;
  const int n = std::printf("%s=%s\n", name, text);
  std::free(text);
  return n > 0;
}

// name=base64 for each pair, in order.
int Emit(std::initializer_list<std::pair<const char *, const Bytes *>> values) {
  for (const auto &[name, bytes] : values) {
    if (!Print(name, bytes->data(), bytes->size())) return zeph_cli::Fail(Self(), "cannot write output");
  }
  return std::fflush(stdout) == 0 ? zeph_cli::kOk : zeph_cli::Fail(Self(), "cannot write output");
}

int StepFailed(const char *step, uint32_t status) {
  const char *why = "";
  switch (status) {
    case BIVO_ERR_KEY_SHARE:
    case BIVO_ERR_SIG_SHARE:
    case BIVO_ERR_PLAINTEXT_SHARE:
      why = ": a point is not on the curve or a share is out of range";
      break;
    case BIVO_ERR_KEY_SHARES:
      why = ": the server's key does not match this client's share";
      break;
    case BIVO_ERR_ASSEMBLY:
      why = ": a value is outside [1, n-1]";
      break;
    case BIVO_ERR_VERIFY:
      why = ": the signature does not verify (wrong shares, digest or key)";
      break;
    case BIVO_ERR_CIPHER_DER:
    case BIVO_ERR_CIPHER_HASH:
      why = ": not a DER SM2 ciphertext";
      break;
    case BIVO_ERR_COMBINE:
      why = ": the shares do not decrypt this ciphertext";
      break;
    default:
      break;
  }
  return zeph_cli::Fail(Self(), std::string(step) + " failed with status " + std::to_string(status) + why);
}

// SubjectPublicKeyInfo of an SM2 point: id-ecPublicKey with the SM2 curve.
bool WritePem(const std::string &path, const Bytes &point) {
  static const uint8_t kPrefix[] = {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01,
                                    0x06, 0x08, 0x2A, 0x81, 0x1C, 0xCF, 0x55, 0x01, 0x82, 0x2D, 0x03, 0x42, 0x00};
  Bytes der(kPrefix, kPrefix + sizeof kPrefix);
  der.insert(der.end(), point.begin(), point.end());
  char *text = nullptr;
  if (zeph_c_utils_hex2b64(der.data(), static_cast<uint32_t>(der.size()), &text) != 0) return false;
  std::string pem = "-----BEGIN PUBLIC KEY-----\n";
  for (size_t i = 0, n = std::strlen(text); i < n; i += 64) pem.append(text + i, std::min<size_t>(64, n - i)) += '\n';
  pem += "-----END PUBLIC KEY-----\n";
  std::free(text);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  return static_cast<bool>(out << pem) && static_cast<bool>(out.flush());
}

int Keygen(const zeph_cli::Args &args, bool client) {
  std::string error;
  Bytes d(32), d_inv(32), p(65), credential(65), p1;
  if (client && !args.Has("--credential")) {
    const uint32_t rv = BIVO_Client_CreateKeyShare(d.data(), d_inv.data(), p.data());
    return rv == 0 ? Emit({{"d1", &d}, {"d1inv", &d_inv}, {"p1", &p}}) : StepFailed("the client share", rv);
  }
  if (client) {
    if (!Values(args, {{"--d1", 32, &d}, {"--pubkey", 65, &p}, {"--credential", 65, &credential}}, &error)) {
      return zeph_cli::UsageError(Self(), error);
    }
    const uint32_t rv = BIVO_Client_VerifyKeyShares(d.data(), p.data(), credential.data());
    if (rv != 0) return StepFailed("the key check", rv);
    if (args.Has("--pem") && !WritePem(args.Get("--pem"), p)) {
      return zeph_cli::Fail(Self(), "cannot write " + args.Get("--pem"));
    }
    return Emit({{"pubKey", &p}});
  }
  if (!Values(args, {{"--p1", 65, &p1}}, &error)) return zeph_cli::UsageError(Self(), error);
  uint32_t rv = BIVO_Server_CreateKeyShare(p1.data(), d.data(), d_inv.data(), p.data());
  if (rv == 0) rv = BIVO_Server_CreateKeyShareCredential(d_inv.data(), credential.data());
  if (rv != 0) return StepFailed("the server share", rv);
  return Emit({{"d2", &d}, {"d2inv", &d_inv}, {"pubKey", &p}, {"credential", &credential}});
}

bool ReadFileWord(const zeph_cli::Args &args, Bytes *data, std::string *error) {
  return zeph_cli::ReadInput(args.words.size() > 1 ? args.words[1] : "-", data, error);
}

int Sign(const zeph_cli::Args &args, bool client) {
  std::string error;
  Bytes key, e(32), k(32), d, q1(65), r(32), s2(32), s3(32);
  if (!client) {
    if (!Values(args, {{"--d2", 32, &d}, {"--digest", 32, &e}, {"--q1", 65, &q1}}, &error)) {
      return zeph_cli::UsageError(Self(), error);
    }
    const uint32_t rv = BIVO_Server_CreateSigShare(e.data(), q1.data(), d.data(), r.data(), s2.data(), s3.data());
    return rv == 0 ? Emit({{"r", &r}, {"s2", &s2}, {"s3", &s3}}) : StepFailed("the server share", rv);
  }
  if (!args.Has("--r")) {
    Bytes msg;
    if (!Values(args, {{"--pubkey", 65, &key}}, &error)) return zeph_cli::UsageError(Self(), error);
    if (!ReadFileWord(args, &msg, &error)) return zeph_cli::Fail(Self(), error);
    if (msg.size() > UINT32_MAX) return zeph_cli::Fail(Self(), "the message is too long");
    const std::string id = args.Get("--id", "1234567812345678");
    const uint32_t rv = BIVO_Client_CreateSigShareWithPubKey(
        id.c_str(), key.data(), 65, msg.data(), static_cast<uint32_t>(msg.size()), k.data(), e.data(), q1.data());
    return rv == 0 ? Emit({{"k1", &k}, {"digest", &e}, {"q1", &q1}}) : StepFailed("the client share", rv);
  }
  if (!Values(args,
              {{"--d1", 32, &d},
               {"--k1", 32, &k},
               {"--digest", 32, &e},
               {"--pubkey", 65, &key},
               {"--r", 32, &r},
               {"--s2", 32, &s2},
               {"--s3", 32, &s3}},
              &error)) {
    return zeph_cli::UsageError(Self(), error);
  }
  Bytes sig(72);
  uint32_t len = 0;
  const uint32_t rv = BIVO_Client_AssemblySigEncodeWithPubKey(d.data(), k.data(), r.data(), s2.data(), s3.data(),
                                                              e.data(), key.data(), 65, sig.data(), &len);
  if (rv != 0) return StepFailed("the assembly", rv);
  sig.resize(len);
  return Emit({{"signature", &sig}});
}

int Decrypt(const zeph_cli::Args &args, bool client) {
  std::string error;
  Bytes d, t1(65), t2(65);
  if (!client) {
    if (!Values(args, {{"--d2inv", 32, &d}, {"--t1", 65, &t1}}, &error)) return zeph_cli::UsageError(Self(), error);
    const uint32_t rv = BIVO_Server_CreatePlaintextShare(t1.data(), d.data(), t2.data());
    return rv == 0 ? Emit({{"t2", &t2}}) : StepFailed("the server share", rv);
  }
  const bool combine = args.Has("--t2");
  if (!Values(args, {combine ? Need{"--t2", 65, &t2} : Need{"--d1inv", 32, &d}}, &error)) {
    return zeph_cli::UsageError(Self(), error);
  }
  Bytes cipher;
  if (!ReadFileWord(args, &cipher, &error)) return zeph_cli::Fail(Self(), error);
  if (cipher.size() > UINT32_MAX) return zeph_cli::Fail(Self(), "the ciphertext is too long");
  const auto cipher_len = static_cast<uint32_t>(cipher.size());
  if (!combine) {
    Bytes c1(65), c2(cipher.size()), c3(32);
    uint32_t c2_len = cipher_len;
    const uint32_t rv = BIVO_Client_CreatePlaintextShare(cipher.data(), cipher_len, d.data(), t1.data(), c1.data(),
                                                         c2.data(), &c2_len, c3.data());
    return rv == 0 ? Emit({{"t1", &t1}}) : StepFailed("the client share", rv);
  }
  // The client kept the ciphertext: C1, C3 and C2 come from it again.
  uint32_t raw_len = 0;
  uint32_t rv = BIVO_Sm2CiphertextDerToRaw(cipher.data(), cipher_len, BIVO_SM2_ORDER_C1C3C2, nullptr, &raw_len);
  Bytes raw(raw_len);
  if (rv == 0) rv = BIVO_Sm2CiphertextDerToRaw(cipher.data(), cipher_len, BIVO_SM2_ORDER_C1C3C2, raw.data(), &raw_len);
  if (rv != 0 || raw_len < 97) return StepFailed("reading the ciphertext", BIVO_ERR_CIPHER_DER);
  const uint32_t c2_len = raw_len - 97;
  Bytes plain(c2_len);
  rv =
      BIVO_Client_CombinePlaintextShares(raw.data(), raw.data() + 97, c2_len, raw.data() + 65, t2.data(), plain.data());
  if (rv != 0) return StepFailed("the combine", rv);
  return zeph_cli::WriteStdout(plain.data(), plain.size()) ? zeph_cli::kOk
                                                           : zeph_cli::Fail(Self(), "cannot write output");
}

int RunCosign(const zeph_cli::Args &args) {
  if (args.words.empty() || args.words.size() > 2) {
    return zeph_cli::UsageError(Self(), "expected keygen, sign or decrypt and at most one FILE");
  }
  const std::string &step = args.words[0], side = args.Get("--side");
  if (side != "client" && side != "server") return zeph_cli::UsageError(Self(), "--side is client or server");
  const bool client = side == "client";
  if (step == "keygen") return Keygen(args, client);
  if (step == "sign") return Sign(args, client);
  if (step == "decrypt") return Decrypt(args, client);
  return zeph_cli::UsageError(Self(), "unknown step '" + step + "'");
}

}  // namespace
