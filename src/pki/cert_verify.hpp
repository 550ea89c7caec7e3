// Certificate verification against CAs the caller trusts, and revocation by
// CRL (given, or fetched from the distribution points) or OCSP.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "pki/cert_input.hpp"

namespace zeph::pki {

// Bounds of what a revocation server may send.
inline constexpr size_t kMaxCrlBytes = 16u << 20;
inline constexpr size_t kMaxOcspBytes = 1u << 20;
// Clock skew allowed on CRL and OCSP times.
inline constexpr long kTimeLeewaySeconds = 300;

// Builds a chain from leaf to one of the CAs (all of them trusted, in any
// order) at the current time.
//   0                      verified; *out_issuer is the leaf's issuer (the
//                          leaf itself when it is one of the CAs)
//   ERR_CERT_EXPIRED       verification errors 10, 13, 14
//   ERR_ISSUER_NOT_FOUND   no CA given, or no issuer among them (2, 20)
//   ERR_CERT_UNTRUSTED     any other verification error
uint32_t VerifyChain(X509 *leaf, std::span<const X509Ptr> cas, X509Ptr *out_issuer);

// A CRL (DER or PEM) for the leaf: 0 when it does not list the leaf,
// ERR_CERT_REVOKED when it does, ERR_CRL_FAILED when it does not decode, is
// not the issuer's, is not signed by it, or is not current.
uint32_t CheckCrlBytes(std::span<const uint8_t> crl, X509 *leaf, X509 *issuer);

// The CRL from the leaf's http(s) distribution points, tried in order:
// ERR_CRL_FAILED when none gives a CRL; else as CheckCrlBytes.
uint32_t CheckCrlFromDistributionPoints(X509 *leaf, X509 *issuer);

// Asks the responder at `url` (NULL or empty: the leaf's AIA OCSP URL).
//   0 good, ERR_CERT_REVOKED, ERR_CERT_STATUS_UNKNOWN, ERR_CERT_STATUS_OTHER
//   ERR_OCSP_CONNECT_FAILED   no URL, the request could not be built or sent
//   ERR_OCSP_RESPONSE_FAILED  no reply, or a response status other than
//                             successful
//   ERR_OCSP_FAILED           anything else: undecodable response, nonce,
//                             signer, signature, times, no status for the leaf
uint32_t CheckOcsp(X509 *leaf, X509 *issuer, std::span<const X509Ptr> cas, const char *url);

// The response half of CheckOcsp, for a request already sent.
uint32_t CheckOcspResponse(std::span<const uint8_t> der, OCSP_REQUEST *request, const OCSP_CERTID *id, X509 *issuer,
                           std::span<const X509Ptr> cas);

// SM2-with-SM3 signature over tbs with the default identity.
bool VerifySm2Signature(EVP_PKEY *key, std::span<const uint8_t> tbs, const ASN1_BIT_STRING *sig);

}  // namespace zeph::pki
