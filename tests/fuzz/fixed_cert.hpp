// Certificates for the fixed objects of the PKI targets: valid from an hour
// ago for ten years, SHA-256 signed, self-signed when no issuer is given.
#pragma once

#include <openssl/x509v3.h>

#include "der_stable.hpp"
#include "pki/pki_owned.hpp"

namespace fuzz {

inline zeph::X509Ptr MakeCert(const char *cn, EVP_PKEY *key, X509 *issuer, EVP_PKEY *issuer_key, long serial,
                              const char *eku = nullptr) {
  zeph::X509Ptr x(X509_new());
  Check(x != nullptr);
  X509_set_version(x.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x.get()), serial);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char *>(cn), -1, -1, 0);
  X509_set_issuer_name(x.get(), X509_get_subject_name(issuer != nullptr ? issuer : x.get()));
  X509_gmtime_adj(X509_getm_notBefore(x.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x.get()), 86400L * 3650);
  X509_set_pubkey(x.get(), key);
  if (eku != nullptr) {
    const zeph::X509ExtensionPtr ext(X509V3_EXT_conf_nid(nullptr, nullptr, NID_ext_key_usage, eku));
    Check(X509_add_ext(x.get(), ext.get(), -1) == 1);
  }
  Check(X509_sign(x.get(), issuer_key, EVP_sha256()) > 0);
  return x;
}

}  // namespace fuzz
