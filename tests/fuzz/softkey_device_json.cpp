// A software key's device file from outside (a file anyone with access to the
// folder may have written): parsed, and whatever parses must write back as
// the same text after a second round.
#include "check.hpp"
#include "device_json.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  softkey::Device device;
  if (!softkey::Parse({reinterpret_cast<const char *>(data), size}, device)) return 0;
  const std::string once = softkey::Serialize(device);
  softkey::Device again;
  fuzz::Check(softkey::Parse(once, again) && softkey::Serialize(again) == once);
  return 0;
}
