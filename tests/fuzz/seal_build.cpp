// The builders on arbitrary seals and to-be-signed contents: whatever they
// build decodes again as the structure it claims to be.
#include "check.hpp"
#include "seal/seal_internal.hpp"
#include "zeph_c_seal.h"

namespace {

namespace seal = zeph::seal;
constexpr char kOid[] = "1.2.156.10197.1.501";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto len = static_cast<uint32_t>(size);
  const uint32_t cut = size == 0 ? 0 : data[0] % (len + 1);  // time text/bytes, then the rest
  std::vector<unsigned char> out(size + 4096);
  const std::string time(reinterpret_cast<const char *>(data), cut);

  auto n = static_cast<uint32_t>(out.size());
  if (getGBTBSSignData(4, data, len, time.c_str(), 0, data, cut, "p", 1, out.data(), &n) == 0) {
    std::vector<unsigned char> sig(n + 4096);
    auto m = static_cast<uint32_t>(sig.size());
    fuzz::Check(getGBSESSignature(out.data(), n, data, cut, data, cut, kOid, sig.data(), &m) == 0 &&
                seal::DecodeAs(seal::Input::kGbSignature, sig.data(), m).has_value());
  }
  n = static_cast<uint32_t>(out.size());
  if (getTBSSignData(1, data, len, data, cut, data, cut, "p", 1, data, cut, kOid, out.data(), &n) == 0) {
    std::vector<unsigned char> sig(n + 4096);
    auto m = static_cast<uint32_t>(sig.size());
    fuzz::Check(getSESSignature(out.data(), n, data, cut, sig.data(), &m) == 0 &&
                seal::DecodeAs(seal::Input::kSesSignature, sig.data(), m).has_value());
  }
  // The input as a to-be-signed content of either family.
  n = static_cast<uint32_t>(out.size());
  getSESSignature(data, len, data, cut, out.data(), &n);
  n = static_cast<uint32_t>(out.size());
  getGBSESSignature(data, len, data, cut, nullptr, 0, kOid, out.data(), &n);
  return 0;
}
