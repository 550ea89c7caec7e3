// Arbitrary text as a subject name: a status, never a crash; a name that
// parses is not empty and prints as a text that is not empty either.
#include "check.hpp"
#include "pki/cert_fields.hpp"
#include "pki/cert_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zeph::X509NamePtr name;
  const uint32_t rv = zeph::pki::ParseDn({reinterpret_cast<const char *>(data), size}, &name);
  fuzz::Check(fuzz::OneOf(rv, {0, ERR_INVALID_PARAMETER, ERR_OUT_OF_MEMORY}));
  if (rv != 0) return 0;
  fuzz::Check(name != nullptr && X509_NAME_entry_count(name.get()) > 0);
  // Printing is total, whatever the entries hold.
  fuzz::Check(!zeph::pki::NameText(name.get()).empty());
  return 0;
}
