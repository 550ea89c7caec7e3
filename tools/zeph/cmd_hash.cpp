// zeph hash: software digests of files (or standard input) by name.
#include <cstdio>
#include <cstring>

#include <sys/stat.h>

#include "cli.hpp"
#include "zeph_c_utils.h"

namespace {

struct Algorithm {
  const char *name;
  uint32_t id;
};

constexpr Algorithm kAlgorithms[] = {
    {"sm3", 1}, {"sha1", 2}, {"sha256", 4}, {"sha384", 8}, {"sha512", 16}, {"md5", 128},
};

int RunHash(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(hash, "digest files: sm3, sha1, sha256, sha384, sha512, md5",
               "hash [--alg sm3|sha1|sha256|sha384|sha512|md5] FILE...   (default sm3; - reads standard input)",
               RunHash, {"--alg"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("hash"); }

bool IsEmptyFile(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0;
}

// One line as sha256sum prints it: "<hex>  <name>".
int HashOne(uint32_t alg, const std::string &path) {
  unsigned char digest[64];
  uint32_t len = sizeof digest;
  int nid = 0;
  uint32_t rv = 0;
  if (path == "-") {
    std::vector<uint8_t> data;
    std::string error;
    if (!zeph_cli::ReadInput(path, &data, &error)) return zeph_cli::Fail(Self(), error);
    if (data.empty()) return zeph_cli::Fail(Self(), "standard input is empty; there is nothing to hash");
    if (data.size() > UINT32_MAX) return zeph_cli::Fail(Self(), "standard input is too large");
    rv = zeph_c_utils_digest(alg, data.data(), static_cast<uint32_t>(data.size()), digest, &len, &nid);
  } else {
    rv = zeph_c_utils_digestWithFilePath(path.c_str(), alg, digest, &len, &nid);
  }
  if (rv == ERR_FILE_OPEN_FAILED) return zeph_cli::Fail(Self(), "cannot read " + path);
  if (rv == ERR_DIGEST_FAILED && IsEmptyFile(path)) {
    return zeph_cli::Fail(Self(), path + " is empty; there is nothing to hash");
  }
  if (rv != 0) return zeph_cli::Fail(Self(), path + ": " + zeph_cli::StatusText(rv));
  std::printf("%s  %s\n", zeph_cli::ToLowerHex(digest, len).c_str(), path.c_str());
  return zeph_cli::kOk;
}

int RunHash(const zeph_cli::Args &args) {
  const std::string name = args.Get("--alg", "sm3");
  const Algorithm *alg = nullptr;
  for (const auto &a : kAlgorithms) {
    if (name == a.name) alg = &a;
  }
  if (alg == nullptr) return zeph_cli::UsageError(Self(), "unknown algorithm '" + name + "'");
  if (args.words.empty()) return zeph_cli::UsageError(Self(), "no file given");
  int rc = zeph_cli::kOk;
  for (const auto &path : args.words) {
    if (HashOne(alg->id, path) != zeph_cli::kOk) rc = zeph_cli::kFailed;
  }
  return rc;
}

}  // namespace
