// The tolerant reader on arbitrary bytes: describe, picture and verify agree
// on what is a seal, and every description and report is valid JSON.
#include "json_object.hpp"
#include "zeph_c_seal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto len = static_cast<uint32_t>(size);
  uint32_t need = 0;
  const uint32_t described = ZEPH_C_SealDescribe(data, len, nullptr, &need);
  if (described == ERR_SEAL_PARSE_FAILED) {
    fuzz::Check(ZEPH_C_SealPicture(data, len, nullptr, &need) == ERR_SEAL_PARSE_FAILED);
    return 0;
  }
  fuzz::Check(described == 0 && need != 0);
  std::string text(need, '\0');
  fuzz::Check(ZEPH_C_SealDescribe(data, len, text.data(), &need) == 0);
  text.resize(need);
  fuzz::MustBeJsonObject(text);
  uint32_t pic = 0;
  fuzz::Check(ZEPH_C_SealPicture(data, len, nullptr, &pic) == 0);

  std::string report(512, '\0');
  auto report_len = static_cast<uint32_t>(report.size());
  const uint32_t rv = ZEPH_C_SealVerify(data, len, data, len / 2, report.data(), &report_len);
  fuzz::Check(fuzz::OneOf(rv, {0, ERR_SIGNATURE_INVALID, ERR_SEAL_PARSE_FAILED}));
  if (rv != ERR_SEAL_PARSE_FAILED) fuzz::MustBeJsonObject(report.substr(0, report_len));
  return 0;
}
