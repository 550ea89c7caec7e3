// Arbitrary bytes as a PKCS#7 signed-data to verify and as a certificate
// bundle: a status, never a crash; a bundle that reads yields certificates.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "api/p7_internal.hpp"
#include "zeph_c_status.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zeph::p7::Bytes content;
  const uint32_t rv = zeph::p7::VerifyPkcs7Signed({data, size}, {}, &content);
  Check(rv == 0 || rv == ERR_SIGNATURE_INVALID);
  std::vector<zeph::X509Ptr> certs;
  const uint32_t read = zeph::p7::ReadBundle({data, size}, &certs);
  Check(read == 0 || read == ERR_CERT_CHAIN_FAILED || read == ERR_OUT_OF_MEMORY);
  for (const auto &c : certs) Check(c != nullptr);
  return 0;
}
