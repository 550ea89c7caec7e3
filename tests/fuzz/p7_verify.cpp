// Arbitrary bytes as a PKCS#7 signed-data to verify and as a certificate
// bundle: a status, never a crash; a bundle that reads yields certificates.
#include "api/p7_internal.hpp"
#include "check.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zeph::p7::Bytes content;
  fuzz::Check(fuzz::OneOf(zeph::p7::VerifyPkcs7Signed({data, size}, {}, &content), {0, ERR_SIGNATURE_INVALID}));
  std::vector<zeph::X509Ptr> certs;
  fuzz::Check(fuzz::OneOf(zeph::p7::ReadBundle({data, size}, &certs), {0, ERR_CERT_CHAIN_FAILED, ERR_OUT_OF_MEMORY}));
  for (const auto &c : certs) fuzz::Check(c != nullptr);
  return 0;
}
