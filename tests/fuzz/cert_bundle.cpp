// Arbitrary bytes as a certificate, a certificate list in any of its forms
// and a host's text: a status, never a crash; a list that reads is not
// empty and goes back into a bundle that reads to the same certificates.
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "pki/cert_input.hpp"
#include "zeph_c_cert.h"
#include "zeph_c_status.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zeph::X509Ptr one;
  const uint32_t single = zeph::pki::ReadCert({data, size}, &one);
  Check(single == 0 ? one != nullptr : single == ERR_CERT_DECODE_FAILED || single == ERR_OUT_OF_MEMORY);

  std::vector<zeph::X509Ptr> certs;
  const uint32_t read = zeph::pki::ReadCertList({data, size}, &certs);
  Check(read == 0 || read == ERR_CERT_CHAIN_FAILED || read == ERR_OUT_OF_MEMORY);
  if (read == 0) {
    Check(!certs.empty());
    std::vector<X509 *> raw;
    for (const auto &c : certs) raw.push_back(c.get());
    zeph::pki::Bytes bundle;
    Check(zeph::pki::BuildCertBundle(raw, &bundle) == 0);
    std::vector<zeph::X509Ptr> again;
    Check(zeph::pki::ReadCertList(bundle, &again) == 0 && again.size() == certs.size());
    for (size_t i = 0; i < certs.size(); ++i) Check(X509_cmp(certs[i].get(), again[i].get()) == 0);
  }

  zeph::pki::Bytes bytes;
  const uint32_t text = zeph::pki::TextBytes({reinterpret_cast<const char *>(data), size}, &bytes);
  Check(text == 0 || text == ERR_BASE64_INVALID || text == ERR_INVALID_PARAMETER);

  char json[1 << 14];
  uint32_t json_len = sizeof json;
  const uint32_t split = ZEPH_C_SplitCertChain(data, static_cast<uint32_t>(size), json, &json_len);
  Check(split == 0 || split == ERR_CERT_CHAIN_FAILED || split == ERR_BUFFER_TOO_SMALL ||
        split == ERR_INVALID_PARAMETER || split == ERR_ENCODE_FAILED || split == ERR_OUT_OF_MEMORY);
  return 0;
}
