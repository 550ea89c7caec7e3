// GetPrivateProfileString / GetPrivateProfileInt over INI-style files.
//
// The rules are deliberately simple: a section is entered by a line that
// begins with "[section]" and ends at the next line that begins with "[";
// a key line begins with the key, optional blanks and "="; a line in the
// section that begins with a longer key ends the search with the default;
// "#" starts a trailing comment in a value.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "foundation/owned.hpp"
#include "zeph_c_utils.h"

namespace {

constexpr size_t kTextLine = 4095;  // characters of a line, text reader
constexpr size_t kIntLine = 511;    // characters of a line, integer reader
constexpr size_t kIntDigits = 255;  // characters of a value read as a number
constexpr size_t kSectionName = 254;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

const char *SkipBlanks(const char *p) {
  while (IsBlank(*p)) ++p;
  return p;
}

// Reads one line of at most `limit` characters into `line` (without the line
// feed); the rest of a longer line is read and dropped. False at end of file.
bool ReadLine(FILE *f, size_t limit, std::string &line) {
  line.clear();
  int c = getc_unlocked(f);
  if (c == EOF) return false;
  for (; c != EOF && c != '\n'; c = getc_unlocked(f)) {
    if (line.size() < limit) line.push_back(static_cast<char>(c));
  }
  return true;
}

// The raw text after "=" of `key` in `section`, or nothing when the default
// applies.
std::optional<std::string> FindRawValue(const char *section, const char *key, const char *file_name,
                                        size_t line_limit) {
  if (section == nullptr || key == nullptr || file_name == nullptr) return std::nullopt;
  std::string header(1, '[');
  header.append(section, strnlen(section, kSectionName));
  header.push_back(']');
  const size_t key_len = std::strlen(key);

  zeph::FilePtr f(std::fopen(file_name, "r"));
  if (!f) return std::nullopt;
  std::string line;
  bool entered = false;
  while (ReadLine(f.get(), line_limit, line)) {
    // The line is handled as C text: an embedded NUL ends it.
    const char *body = SkipBlanks(line.c_str());
    if (body[0] == '[' && entered) return std::nullopt;  // the section has ended
    if (std::strncmp(body, header.c_str(), header.size()) == 0) {
      entered = true;
      continue;
    }
    if (!entered || std::strncmp(body, key, key_len) != 0) continue;
    const char *after = SkipBlanks(body + key_len);
    if (*after != '=') return std::nullopt;  // a longer key: the search ends here
    return std::string(after + 1);
  }
  return std::nullopt;
}

// Cuts at a trailing comment or line end and trims blanks on both sides.
std::string CleanValue(const std::string &raw) {
  const size_t cut = raw.find_first_of("#\r\n");
  std::string v = raw.substr(0, cut);
  size_t first = 0;
  while (first < v.size() && IsBlank(v[first])) ++first;
  size_t last = v.size();
  while (last > first && IsBlank(v[last - 1])) --last;
  return v.substr(first, last - first);
}

// Copies a text into the caller's buffer of out_size bytes, cut to fit with
// its terminator; returns the characters copied.
uint32_t CopyOut(const char *text, size_t n, char *out, uint32_t out_size) {
  if (out == nullptr || out_size == 0) return 0;
  n = std::min(n, static_cast<size_t>(out_size) - 1);
  std::memmove(out, text, n);  // the default may live in the caller's output buffer
  out[n] = '\0';
  return static_cast<uint32_t>(n);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t GetPrivateProfileString(const char *section, const char *key, const char *default_text, char *out,
                                          uint32_t out_size, const char *file_name) {
  if (default_text == nullptr) default_text = "";
  try {
    const auto raw = FindRawValue(section, key, file_name, kTextLine);
    if (!raw) {
      CopyOut(default_text, std::strlen(default_text), out, out_size);
      return 0;
    }
    const std::string value = CleanValue(*raw);
    return CopyOut(value.data(), value.size(), out, out_size);
  } catch (...) {
    CopyOut(default_text, std::strlen(default_text), out, out_size);
    return 0;
  }
}

ZEPH_API int32_t GetPrivateProfileInt(const char *section, const char *key, int32_t default_value,
                                      const char *file_name) {
  try {
    const auto raw = FindRawValue(section, key, file_name, kIntLine);
    if (!raw) return default_value;
    const std::string digits = CleanValue(*raw).substr(0, kIntDigits);
    // Sign and digits as "%d" reads them; what follows is ignored. A value
    // that is not a number keeps the default; one out of range saturates.
    const char *p = digits.c_str();
    char *end = nullptr;
    const long long v = std::strtoll(p, &end, 10);
    if (end == p) return default_value;
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(v);
  } catch (...) {
    return default_value;
  }
}

}  // extern "C"
