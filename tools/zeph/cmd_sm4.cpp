// zeph sm4: SM4-ECB file encryption to FILE.enc and decryption to FILE.dec.
#include <cstring>

#include <unistd.h>

#include "cli.hpp"
#include "zeph_c_utils.h"

namespace {

int RunSm4(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(sm4, "SM4-ECB file encryption (FILE.enc) and decryption (FILE.dec)",
               "sm4 encrypt|decrypt --key HEX FILE   (HEX: 32 hex digits, the 16-byte key)", RunSm4, {"--key"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("sm4"); }

int RunSm4(const zeph_cli::Args &args) {
  if (args.words.size() != 2) return zeph_cli::UsageError(Self(), "expected encrypt or decrypt and one FILE");
  const std::string &mode = args.words[0];
  const std::string &path = args.words[1];
  const bool encrypt = mode == "encrypt";
  if (!encrypt && mode != "decrypt") return zeph_cli::UsageError(Self(), "unknown mode '" + mode + "'");
  if (!args.Has("--key")) return zeph_cli::UsageError(Self(), "--key is required");
  std::vector<uint8_t> key;
  if (!zeph_cli::ParseHex(args.Get("--key"), &key) || key.size() != 16) {
    return zeph_cli::UsageError(Self(), "--key must be 32 hex digits (16 bytes)");
  }
  const std::string output = path + (encrypt ? ".enc" : ".dec");
  if (access(output.c_str(), F_OK) == 0) return zeph_cli::Fail(Self(), output + " already exists; not overwriting it");

  const uint32_t rv = encrypt ? zeph_c_utils_encryptWithFilePath(path.c_str(), nullptr, 0, key.data(), 16)
                              : zeph_c_utils_decryptWithFilePath(path.c_str(), nullptr, 0, key.data(), 16);
  std::memset(key.data(), 0, key.size());
  if (rv == ERR_FILE_OPEN_FAILED) return zeph_cli::Fail(Self(), "cannot read " + path + " or create " + output);
  if (rv == ERR_ALG_UNSUPPORTED && !encrypt) {
    return zeph_cli::Fail(
        Self(), "cannot decrypt " + path + ": wrong key or not an SM4-ECB file (" + zeph_cli::StatusText(rv) + ")");
  }
  if (rv != 0) return zeph_cli::Fail(Self(), path + ": " + zeph_cli::StatusText(rv));
  std::printf("%s\n", output.c_str());
  return zeph_cli::kOk;
}

}  // namespace
