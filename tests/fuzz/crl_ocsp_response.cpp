// Arbitrary bytes as a CRL and as an OCSP response for a fixed leaf and
// issuer: a revocation status, never a crash.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <openssl/ocsp.h>
#include <openssl/x509.h>

#include "pki/cert_verify.hpp"
#include "zeph_c_status.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

zeph::X509Ptr MakeCert(const char *cn, EVP_PKEY *subject_key, X509 *issuer, EVP_PKEY *issuer_key, long serial) {
  zeph::X509Ptr x(X509_new());
  Check(x != nullptr);
  X509_set_version(x.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x.get()), serial);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char *>(cn), -1, -1, 0);
  X509_set_issuer_name(x.get(), issuer != nullptr ? X509_get_subject_name(issuer) : X509_get_subject_name(x.get()));
  X509_gmtime_adj(X509_getm_notBefore(x.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x.get()), 86400L * 365);
  X509_set_pubkey(x.get(), subject_key);
  Check(X509_sign(x.get(), issuer_key, EVP_sha256()) > 0);
  return x;
}

struct Fixture {
  zeph::EvpPkeyPtr key{EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")};
  zeph::X509Ptr issuer = MakeCert("fuzz ca", key.get(), nullptr, key.get(), 1);
  zeph::X509Ptr leaf = MakeCert("fuzz leaf", key.get(), issuer.get(), key.get(), 2);
  zeph::OcspCertIdPtr id{OCSP_cert_to_id(EVP_sha1(), leaf.get(), issuer.get())};
  zeph::OcspRequestPtr request{OCSP_REQUEST_new()};
  Fixture() {
    OCSP_CERTID *copy = OCSP_CERTID_dup(id.get());
    Check(copy != nullptr && OCSP_request_add0_id(request.get(), copy) != nullptr);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Fixture *f = new Fixture;  // lives for the run
  const uint32_t crl = zeph::pki::CheckCrlBytes({data, size}, f->leaf.get(), f->issuer.get());
  Check(crl == 0 || crl == ERR_CERT_REVOKED || crl == ERR_CRL_FAILED);

  const std::vector<zeph::X509Ptr> none;
  const uint32_t ocsp =
      zeph::pki::CheckOcspResponse({data, size}, f->request.get(), f->id.get(), f->issuer.get(), none);
  Check(ocsp == 0 || ocsp == ERR_CERT_REVOKED || ocsp == ERR_CERT_STATUS_UNKNOWN || ocsp == ERR_CERT_STATUS_OTHER ||
        ocsp == ERR_OCSP_RESPONSE_FAILED || ocsp == ERR_OCSP_FAILED || ocsp == ERR_OUT_OF_MEMORY);
  return 0;
}
