// Where each object index lives on a key, in both key layouts.
#include <cstdio>

#include "zeph_c_device.h"
#include "zeph_c_status.h"

namespace {

// Object locations. Rows 1..13 are the standard layout; the
// "SM-Application" layout keeps its rows at index + 14.
struct Row {
  const char *application;
  const char *container;
  const char *file;
};
constexpr uint32_t kSmRowOffset = 14;
constexpr Row device_cfg_table[] = {
    {"", "", ""},
    {"VorliRsa", "RSA1", ""},
    {"VorliRsa", "RSA2", ""},
    {"VorliEcc", "ECC", ""},
    {"VorliEcc", "ECC", ""},
    {"VorliRsa", "", "CertChain"},
    {"VorliRsa", "", "Version"},
    {"VorliEcc", "", "CertChain"},
    {"VorliEcc", "", "Version"},
    {"VorliStamp", "", "CertChain"},
    {"VorliStamp", "", "Version"},
    {"VorliStamp", "", "Picture"},
    {"VorliStamp", "", "Cert"},
    {"VorliRsa", "RSA", ""},
    {"", "", ""},
    {"", "", ""},
    {"", "", ""},
    {"SM-Application", "SM-Application", ""},
    {"SM-Application", "SM-Application", ""},
    {"", "", ""},
    {"", "", ""},
    {"SM-Application", "", "CertChain"},
    {"SM-Application", "", "Version"},
    {"", "", ""},
    {"", "", ""},
    {"", "", ""},
    {"", "", ""},
    {"", "", ""},
};
constexpr uint32_t kLastIndex = 13;

void PutName(char *out, const char *text) {
  if (out != nullptr) std::snprintf(out, ZEPH_DEVICE_NAME_MAX, "%s", text);
}

bool IsContainerIndex(uint32_t index) { return (index >= 1 && index <= 4) || index == kLastIndex; }

}  // namespace

extern "C" {

ZEPH_API uint32_t getDeviceInfoWithDeviceTypeFromConfig(uint32_t reserved, uint32_t layout, uint32_t index,
                                                        uint32_t reserved2, char *out_application, char *out_container,
                                                        char *out_file, uint32_t *out_file_size) {
  uint32_t row = 0;
  if (layout == ZEPH_LAYOUT_STANDARD) {
    if (index < 1 || index > kLastIndex) return 0;
    row = index;
  } else if (layout == ZEPH_LAYOUT_SM_APPLICATION) {
    if (index < 1 || index > kLastIndex || device_cfg_table[index + kSmRowOffset].application[0] == '\0') {
      return ERR_UNSUPPORTED_VALUE;
    }
    row = index + kSmRowOffset;
  } else {
    return ERR_UNSUPPORTED_VALUE;
  }
  const Row &r = device_cfg_table[row];
  PutName(out_application, r.application);
  if (IsContainerIndex(index)) {
    PutName(out_container, r.container);
  } else {
    PutName(out_file, r.file);
    if (out_file_size != nullptr) *out_file_size = ZEPH_DEVICE_FILE_SIZE;
  }
  return 0;
}

}  // extern "C"
