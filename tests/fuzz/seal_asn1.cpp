// Every seal structure on arbitrary DER: the first byte picks the type. What
// decodes must encode, decode again and encode to the same bytes.
#include "check.hpp"
#include "seal/seal_internal.hpp"

namespace {

using RoundTrip = bool (*)(std::span<const uint8_t>, std::vector<uint8_t> *);
#define ZEPH_SEAL_ENTRY(T) ZEPH_SEAL_REENCODE(T),
constexpr RoundTrip kTypes[] = {ZEPH_SEAL_ASN1_TYPES(ZEPH_SEAL_ENTRY)};
#undef ZEPH_SEAL_ENTRY

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const RoundTrip round_trip = kTypes[data[0] % std::size(kTypes)];
  std::vector<uint8_t> once, twice;
  if (!round_trip({data + 1, size - 1}, &once)) return 0;
  fuzz::Check(round_trip(once, &twice) && twice == once);
  return 0;
}
