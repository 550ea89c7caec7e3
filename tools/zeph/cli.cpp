// Shared pieces of the command-line host: group registry, argument parsing,
// messages, input and output.
#include "cli.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zeph_c_status.h"

namespace zeph_cli {

namespace {

std::vector<Group> &Registry() {
  static std::vector<Group> groups;
  return groups;
}

struct StatusName {
  uint32_t value;
  const char *name;
};

constexpr StatusName kStatusNames[] = {
    {ERR_NO_DEVICE_LIBRARY, "ERR_NO_DEVICE_LIBRARY"},
    {ERR_OUT_OF_MEMORY, "ERR_OUT_OF_MEMORY"},
    {ERR_PIN_VERIFY_FAILED, "ERR_PIN_VERIFY_FAILED"},
    {ERR_PIN_MISMATCH, "ERR_PIN_MISMATCH"},
    {ERR_GET_CERT_FAILED, "ERR_GET_CERT_FAILED"},
    {ERR_BUFFER_TOO_SMALL, "ERR_BUFFER_TOO_SMALL"},
    {ERR_SIGN_FAILED, "ERR_SIGN_FAILED"},
    {ERR_SIGNATURE_INVALID, "ERR_SIGNATURE_INVALID"},
    {ERR_DIGEST_FAILED, "ERR_DIGEST_FAILED"},
    {ERR_CERT_VERIFY_FAILED, "ERR_CERT_VERIFY_FAILED"},
    {ERR_ENVELOPE_FAILED, "ERR_ENVELOPE_FAILED"},
    {ERR_CERT_EXPIRED, "ERR_CERT_EXPIRED"},
    {ERR_CERT_CHAIN_FAILED, "ERR_CERT_CHAIN_FAILED"},
    {ERR_ISSUER_NOT_FOUND, "ERR_ISSUER_NOT_FOUND"},
    {ERR_CERT_UNTRUSTED, "ERR_CERT_UNTRUSTED"},
    {ERR_CERT_REVOKED, "ERR_CERT_REVOKED"},
    {ERR_CRL_FAILED, "ERR_CRL_FAILED"},
    {ERR_OCSP_CONNECT_FAILED, "ERR_OCSP_CONNECT_FAILED"},
    {ERR_OCSP_RESPONSE_FAILED, "ERR_OCSP_RESPONSE_FAILED"},
    {ERR_OCSP_FAILED, "ERR_OCSP_FAILED"},
    {ERR_CERT_STATUS_UNKNOWN, "ERR_CERT_STATUS_UNKNOWN"},
    {ERR_ALG_UNSUPPORTED, "ERR_ALG_UNSUPPORTED"},
    {ERR_CERT_DECODE_FAILED, "ERR_CERT_DECODE_FAILED"},
    {ERR_CERT_ITEM_NOT_FOUND, "ERR_CERT_ITEM_NOT_FOUND"},
    {ERR_CERT_EXT_NOT_FOUND, "ERR_CERT_EXT_NOT_FOUND"},
    {ERR_ENCODE_FAILED, "ERR_ENCODE_FAILED"},
    {ERR_BASE64_INVALID, "ERR_BASE64_INVALID"},
    {ERR_ASYM_CRYPT_FAILED, "ERR_ASYM_CRYPT_FAILED"},
    {ERR_SEAL_PARSE_FAILED, "ERR_SEAL_PARSE_FAILED"},
    {ERR_DEVICE_CONFIG_INVALID, "ERR_DEVICE_CONFIG_INVALID"},
    {ERR_PRETREATMENT_FAILED, "ERR_PRETREATMENT_FAILED"},
    {ERR_OPEN_SESSION_FAILED, "ERR_OPEN_SESSION_FAILED"},
    {ERR_SM2_CIPHER_FORMAT, "ERR_SM2_CIPHER_FORMAT"},
    {ERR_CERT_STATUS_OTHER, "ERR_CERT_STATUS_OTHER"},
    {ERR_HTTP_FAILED, "ERR_HTTP_FAILED"},
    {ERR_GEN_KEYPAIR_FAILED, "ERR_GEN_KEYPAIR_FAILED"},
    {ERR_EXPORT_PUBKEY_FAILED, "ERR_EXPORT_PUBKEY_FAILED"},
    {ERR_CSR_FAILED, "ERR_CSR_FAILED"},
    {ERR_PUBKEY_CONVERT_FAILED, "ERR_PUBKEY_CONVERT_FAILED"},
    {ERR_CHANGE_PIN_FAILED, "ERR_CHANGE_PIN_FAILED"},
    {ERR_UNLOCK_PIN_FAILED, "ERR_UNLOCK_PIN_FAILED"},
    {ERR_NO_KEY_FOUND, "ERR_NO_KEY_FOUND"},
    {ERR_DEVICE_AUTH_FAILED, "ERR_DEVICE_AUTH_FAILED"},
    {ERR_UNSUPPORTED_VALUE, "ERR_UNSUPPORTED_VALUE"},
    {ERR_INVALID_PARAMETER, "ERR_INVALID_PARAMETER"},
    {ERR_PADDING_INVALID, "ERR_PADDING_INVALID"},
    {ERR_DEVICE_FILE_WRITE_FAILED, "ERR_DEVICE_FILE_WRITE_FAILED"},
    {ERR_DEVICE_FILE_READ_FAILED, "ERR_DEVICE_FILE_READ_FAILED"},
    {ERR_FILE_OPEN_FAILED, "ERR_FILE_OPEN_FAILED"},
    {ERR_FILE_WRITE_FAILED, "ERR_FILE_WRITE_FAILED"},
    {ERR_JSON_INVALID, "ERR_JSON_INVALID"},
    {ERR_COSIGN_FAILED, "ERR_COSIGN_FAILED"},
    {ERR_EXT_INTERFACE_MISSING, "ERR_EXT_INTERFACE_MISSING"},
};

bool TakesValue(const Group &group, const std::string &option) {
  return std::find(group.value_options.begin(), group.value_options.end(), option) != group.value_options.end();
}

}  // namespace

std::string Args::Get(const std::string &option, const std::string &fallback) const {
  const auto it = options.find(option);
  return it != options.end() ? it->second : fallback;
}

bool RegisterGroup(Group group) {
  auto &groups = Registry();
  const auto at = std::lower_bound(groups.begin(), groups.end(), group,
                                   [](const Group &a, const Group &b) { return std::strcmp(a.name, b.name) < 0; });
  groups.insert(at, std::move(group));
  return true;
}

const std::vector<Group> &Groups() { return Registry(); }

const Group *FindGroup(const std::string &name) {
  for (const auto &g : Registry()) {
    if (name == g.name) return &g;
  }
  return nullptr;
}

bool ParseArgs(const Group &group, const std::vector<std::string> &argv, Args *args, std::string *error) {
  bool options_done = false;
  for (size_t i = 0; i < argv.size(); ++i) {
    const std::string &a = argv[i];
    if (options_done || a.size() < 2 || a[0] != '-') {
      args->words.push_back(a);  // "-" alone is a word: standard input
      continue;
    }
    if (a == "--") {
      options_done = true;
    } else if (a == "--help" || a == "-h") {
      args->help = true;
    } else if (const size_t eq = a.find('='); eq != std::string::npos && TakesValue(group, a.substr(0, eq))) {
      args->options[a.substr(0, eq)] = a.substr(eq + 1);
    } else if (std::find(group.flag_options.begin(), group.flag_options.end(), a) != group.flag_options.end()) {
      args->options[a] = "";
    } else if (TakesValue(group, a)) {
      if (i + 1 == argv.size()) {
        *error = "option " + a + " needs a value";
        return false;
      }
      args->options[a] = argv[++i];
    } else {
      *error = "unknown option " + a;
      return false;
    }
  }
  return true;
}

int UsageError(const Group &group, const std::string &message) {
  std::fprintf(stderr, "zeph %s: %s\nusage: zeph %s\n", group.name, message.c_str(), group.usage);
  return kUsage;
}

int Fail(const Group &group, const std::string &message) {
  std::fprintf(stderr, "zeph %s: %s\n", group.name, message.c_str());
  return kFailed;
}

std::string StatusText(uint32_t status) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08X", status);
  std::string text = hex;
  for (const auto &s : kStatusNames) {
    if (s.value == status) return text + " " + s.name;
  }
  return text;
}

bool ReadInput(const std::string &path, std::vector<uint8_t> *data, std::string *error) {
  const bool from_stdin = path == "-";
  FILE *f = from_stdin ? stdin : std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    *error = "cannot open " + path + ": " + std::strerror(errno);
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

bool ParseHex(const std::string &text, std::vector<uint8_t> *bytes) {
  if (text.size() % 2 != 0) return false;
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  bytes->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    const int hi = nibble(text[i]);
    const int lo = nibble(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes->push_back(static_cast<uint8_t>(hi << 4 | lo));
  }
  return true;
}

std::string ToLowerHex(const uint8_t *data, size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string s;
  s.reserve(2 * n);
  for (size_t i = 0; i < n; ++i) {
    s.push_back(kDigits[data[i] >> 4]);
    s.push_back(kDigits[data[i] & 0x0F]);
  }
  return s;
}

}  // namespace zeph_cli
