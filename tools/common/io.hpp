// Whole inputs and outputs of the command-line tools, and hex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zeph_tools {

// The whole content of a file, or of standard input for "-".
bool ReadInput(const std::string &path, std::vector<uint8_t> *data, std::string *error);
// Bytes to a file (created or truncated), or to standard output for "-" or "".
bool WriteOutput(const std::string &path, const void *data, size_t n, std::string *error);
bool WriteStdout(const void *data, size_t n);

// Hex text (either case, even length) to bytes.
bool ParseHex(const std::string &text, std::vector<uint8_t> *bytes);
std::string ToLowerHex(const uint8_t *data, size_t n);

}  // namespace zeph_tools
