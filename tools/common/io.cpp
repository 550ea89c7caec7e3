#include "io.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zeph_tools {

bool ReadInput(const std::string &path, std::vector<uint8_t> *data, std::string *error) {
  const bool from_stdin = path == "-";
  FILE *f = from_stdin ? stdin : std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    *error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  data->clear();
  uint8_t chunk[1 << 16];
  size_t got = 0;
  while ((got = std::fread(chunk, 1, sizeof chunk, f)) != 0) data->insert(data->end(), chunk, chunk + got);
  const bool failed = std::ferror(f) != 0;
  if (!from_stdin) std::fclose(f);
  if (failed) *error = "cannot read " + (from_stdin ? std::string("standard input") : path);
  return !failed;
}

bool WriteStdout(const void *data, size_t n) { return n == 0 || std::fwrite(data, 1, n, stdout) == n; }

bool WriteOutput(const std::string &path, const void *data, size_t n, std::string *error) {
  if (path.empty() || path == "-") {
    if (WriteStdout(data, n) && std::fflush(stdout) == 0) return true;
    *error = "cannot write standard output";
    return false;
  }
  FILE *f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  const bool written = n == 0 || std::fwrite(data, 1, n, f) == n;
  if (std::fclose(f) != 0 || !written) {
    *error = "cannot write " + path;
    return false;
  }
  return true;
}

bool ParseHex(const std::string &text, std::vector<uint8_t> *bytes) {
  if (text.size() % 2 != 0) return false;
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::vector<uint8_t> out(text.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) {
    const int hi = nibble(text[2 * i]), lo = nibble(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    out[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  *bytes = std::move(out);
  return true;
}

std::string ToLowerHex(const uint8_t *data, size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string s(2 * n, '0');
  for (size_t i = 0; i < n; ++i) {
    s[2 * i] = kDigits[data[i] >> 4];
    s[2 * i + 1] = kDigits[data[i] & 0x0F];
  }
  return s;
}

}  // namespace zeph_tools
