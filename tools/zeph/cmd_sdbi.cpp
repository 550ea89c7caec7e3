// zeph sdbi: the SDBI message cipher (IDEA-ECB with 0x01 padding).
#include <cstring>

#include "cli.hpp"
#include "zeph_c_sdbi.h"

namespace {

int RunSdbi(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(sdbi, "SDBI message cipher (IDEA-ECB, 0x01 padding)",
               "sdbi encrypt|decrypt --key HEX [FILE]   (HEX: 32 hex digits; FILE or standard input to standard "
               "output)",
               RunSdbi, {"--key"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("sdbi"); }

int RunSdbi(const zeph_cli::Args &args) {
  if (args.words.empty() || args.words.size() > 2) {
    return zeph_cli::UsageError(Self(), "expected encrypt or decrypt and at most one FILE");
  }
  const bool encrypt = args.words[0] == "encrypt";
  if (!encrypt && args.words[0] != "decrypt")
    return zeph_cli::UsageError(Self(), "unknown mode '" + args.words[0] + "'");
  std::vector<uint8_t> key, in;
  if (!zeph_cli::ParseHex(args.Get("--key"), &key) || key.size() != 16) {
    return zeph_cli::UsageError(Self(), "--key must be 32 hex digits (16 bytes)");
  }
  std::string error;
  if (!zeph_cli::ReadInput(args.words.size() == 2 ? args.words[1] : "-", &in, &error)) {
    return zeph_cli::Fail(Self(), error);
  }
  if (in.size() > UINT32_MAX - 8) return zeph_cli::Fail(Self(), "input too large");
  const auto in_len = static_cast<uint32_t>(in.size());
  std::vector<uint8_t> out(in.size() + 8);
  uint32_t out_len = 0;
  const uint32_t rv = encrypt ? CSP_SDBIEncrypt(out.data(), &out_len, in.data(), in_len, key.data(), 16)
                              : CSP_SDBIDecrypt(out.data(), &out_len, in.data(), in_len, key.data(), 16);
  std::memset(key.data(), 0, key.size());
  if (rv != 0) {
    return zeph_cli::Fail(Self(),
                          encrypt ? "encryption failed" : "cannot decrypt: wrong key or not an SDBI ciphertext");
  }
  return zeph_cli::WriteStdout(out.data(), out_len) ? zeph_cli::kOk : zeph_cli::Fail(Self(), "cannot write output");
}

}  // namespace
