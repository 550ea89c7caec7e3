// Certificate fields as text, by item number or by extension/policy OID.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "foundation/json_owned.hpp"
#include "pki/pki_owned.hpp"

namespace zeph::pki {

// The item numbers of zeph_c_cert.h (ZEPH_CERT_ITEM_*): 0, or
// ERR_CERT_ITEM_NOT_FOUND for an unknown number or a field the certificate
// does not have.
uint32_t CertItemText(X509 *cert, uint32_t item, std::string *out);

// The extension with this OID (dotted or a known name), else the policy of
// that OID: 0, ERR_INVALID_PARAMETER for text that is no OID,
// ERR_CERT_EXT_NOT_FOUND when the certificate has neither.
uint32_t CertOidText(X509 *cert, const char *oid, std::string *out);

// "C=CN, O=zeph, CN=leaf": the entries in the certificate's order, UTF-8.
std::string NameText(const X509_NAME *name);
// "20240131120000Z" (UTC).
std::string TimeText(const ASN1_TIME *t);
// Upper-case hex of the serial number.
std::string SerialText(const X509 *cert);

// {"usage":..,"subject":..,"issuer":..,"serial":..,"notBefore":..,
// "notAfter":..,"cert":"<base64 DER>"}; only usage and cert when the bytes
// do not decode. Null when out of memory.
JsonPtr CertificateJson(std::span<const uint8_t> der, const char *usage);

}  // namespace zeph::pki
