// zeph base64: one-line base64 encoding and decoding, standard input to
// standard output or from a file.
#include <cctype>
#include <cstdio>

#include "cli.hpp"
#include "zeph_c_utils.h"

namespace {

int RunBase64(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(base64, "base64 encode (one line) and decode",
               "base64 encode|decode [FILE]   (standard input when FILE is absent or -)", RunBase64, {});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("base64"); }

int Encode(const std::vector<uint8_t> &data) {
  if (data.empty()) return zeph_cli::kOk;
  if (data.size() > UINT32_MAX / 2) return zeph_cli::Fail(Self(), "input too large");
  const auto n = static_cast<uint32_t>(data.size());
  uint32_t len = 0;
  uint32_t rv = File_PEMEncode(data.data(), n, nullptr, &len);
  std::string text(len, '\0');
  if (rv == 0) rv = File_PEMEncode(data.data(), n, text.data(), &len);
  if (rv != 0) return zeph_cli::Fail(Self(), "cannot encode: " + zeph_cli::StatusText(rv));
  text.resize(len);
  text.push_back('\n');
  if (!zeph_cli::WriteStdout(text.data(), text.size())) return zeph_cli::Fail(Self(), "cannot write output");
  return zeph_cli::kOk;
}

int Decode(const std::vector<uint8_t> &data) {
  // Line breaks and blanks (as in wrapped base64) are not part of the text.
  std::string text;
  for (const uint8_t c : data) {
    if (c == '\0') return zeph_cli::Fail(Self(), "input is not base64 text");
    if (std::isspace(c) == 0) text.push_back(static_cast<char>(c));
  }
  if (text.empty()) return zeph_cli::kOk;
  uint32_t len = 0;
  uint32_t rv = zeph_c_utils_b64tohex2(text.c_str(), nullptr, &len);
  std::vector<uint8_t> out(len);
  if (rv == 0) rv = zeph_c_utils_b64tohex2(text.c_str(), out.data(), &len);
  if (rv == ERR_BASE64_INVALID) return zeph_cli::Fail(Self(), "input is not valid base64");
  if (rv != 0) return zeph_cli::Fail(Self(), "cannot decode: " + zeph_cli::StatusText(rv));
  if (!zeph_cli::WriteStdout(out.data(), len)) return zeph_cli::Fail(Self(), "cannot write output");
  return zeph_cli::kOk;
}

int RunBase64(const zeph_cli::Args &args) {
  if (args.words.empty() || args.words.size() > 2) {
    return zeph_cli::UsageError(Self(), "expected encode or decode and at most one FILE");
  }
  const std::string &mode = args.words[0];
  if (mode != "encode" && mode != "decode") return zeph_cli::UsageError(Self(), "unknown mode '" + mode + "'");
  std::vector<uint8_t> data;
  std::string error;
  if (!zeph_cli::ReadInput(args.words.size() == 2 ? args.words[1] : "-", &data, &error)) {
    return zeph_cli::Fail(Self(), error);
  }
  return mode == "encode" ? Encode(data) : Decode(data);
}

}  // namespace
