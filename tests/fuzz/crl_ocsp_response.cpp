// Arbitrary bytes as a CRL and as an OCSP response for a fixed leaf and
// issuer: a revocation status, never a crash.
#include <openssl/ocsp.h>

#include "fixed_cert.hpp"
#include "pki/cert_verify.hpp"

namespace {

struct Fixture {
  zeph::EvpPkeyPtr key{EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")};
  zeph::X509Ptr issuer = fuzz::MakeCert("fuzz ca", key.get(), nullptr, key.get(), 1);
  zeph::X509Ptr leaf = fuzz::MakeCert("fuzz leaf", key.get(), issuer.get(), key.get(), 2);
  zeph::OcspCertIdPtr id{OCSP_cert_to_id(EVP_sha1(), leaf.get(), issuer.get())};
  zeph::OcspRequestPtr request{OCSP_REQUEST_new()};
  Fixture() {
    OCSP_CERTID *copy = OCSP_CERTID_dup(id.get());
    fuzz::Check(copy != nullptr && OCSP_request_add0_id(request.get(), copy) != nullptr);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Fixture *f = new Fixture;  // lives for the run
  const uint32_t crl = zeph::pki::CheckCrlBytes({data, size}, f->leaf.get(), f->issuer.get());
  fuzz::Check(fuzz::OneOf(crl, {0, ERR_CERT_REVOKED, ERR_CRL_FAILED}));
  const std::vector<zeph::X509Ptr> none;
  const uint32_t ocsp =
      zeph::pki::CheckOcspResponse({data, size}, f->request.get(), f->id.get(), f->issuer.get(), none);
  fuzz::Check(fuzz::OneOf(ocsp, {0, ERR_CERT_REVOKED, ERR_CERT_STATUS_UNKNOWN, ERR_CERT_STATUS_OTHER,
                                 ERR_OCSP_RESPONSE_FAILED, ERR_OCSP_FAILED, ERR_OUT_OF_MEMORY}));
  return 0;
}
