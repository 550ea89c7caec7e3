// Arbitrary bytes as a certificate, a certificate list in any of its forms
// and a host's text: a status, never a crash; a list that reads is not
// empty and goes back into a bundle that reads to the same certificates.
#include "check.hpp"
#include "pki/cert_input.hpp"
#include "zeph_c_cert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zeph::X509Ptr one;
  const uint32_t single = zeph::pki::ReadCert({data, size}, &one);
  fuzz::Check(single == 0 ? one != nullptr : fuzz::OneOf(single, {ERR_CERT_DECODE_FAILED, ERR_OUT_OF_MEMORY}));

  std::vector<zeph::X509Ptr> certs;
  const uint32_t read = zeph::pki::ReadCertList({data, size}, &certs);
  fuzz::Check(fuzz::OneOf(read, {0, ERR_CERT_CHAIN_FAILED, ERR_OUT_OF_MEMORY}));
  if (read == 0) {
    fuzz::Check(!certs.empty());
    std::vector<X509 *> raw;
    for (const auto &c : certs) raw.push_back(c.get());
    zeph::pki::Bytes bundle;
    std::vector<zeph::X509Ptr> again;
    fuzz::Check(zeph::pki::BuildCertBundle(raw, &bundle) == 0 && zeph::pki::ReadCertList(bundle, &again) == 0 &&
                again.size() == certs.size());
    for (size_t i = 0; i < certs.size(); ++i) fuzz::Check(X509_cmp(certs[i].get(), again[i].get()) == 0);
  }

  zeph::pki::Bytes bytes;
  const uint32_t text = zeph::pki::TextBytes({reinterpret_cast<const char *>(data), size}, &bytes);
  fuzz::Check(fuzz::OneOf(text, {0, ERR_BASE64_INVALID, ERR_INVALID_PARAMETER}));

  char json[1 << 14];
  uint32_t json_len = sizeof json;
  fuzz::Check(fuzz::OneOf(
      ZEPH_C_SplitCertChain(data, static_cast<uint32_t>(size), json, &json_len),
      {0, ERR_CERT_CHAIN_FAILED, ERR_BUFFER_TOO_SMALL, ERR_INVALID_PARAMETER, ERR_ENCODE_FAILED, ERR_OUT_OF_MEMORY}));
  return 0;
}
