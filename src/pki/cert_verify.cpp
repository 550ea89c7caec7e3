// Chain verification with OpenSSL's builder, and revocation checked here:
// CRL and OCSP signatures by SM2 keys must use the default identity, which
// OpenSSL's own CRL and OCSP checks do not set.
#include "pki/cert_verify.hpp"

#include <ctime>
#include <string>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "foundation/log.hpp"
#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "pki/http_client.hpp"
#include "zeph_c_status.h"

namespace zeph::pki {
namespace {

using DistPointsPtr = std::unique_ptr<CRL_DIST_POINTS, Free<CRL_DIST_POINTS_free>>;
inline void FreeStrings(STACK_OF(OPENSSL_STRING) * s) noexcept { X509_email_free(s); }
using StringStackPtr = std::unique_ptr<STACK_OF(OPENSSL_STRING), Free<FreeStrings>>;

uint32_t ChainStatus(int error) {
  switch (error) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
      return ERR_CERT_EXPIRED;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
      return ERR_ISSUER_NOT_FOUND;
    default:
      return ERR_CERT_UNTRUSTED;
  }
}

// True when t lies before now + leeway (a time from a server's clock).
bool NotInFuture(const ASN1_TIME *t) {
  time_t limit = std::time(nullptr) + kTimeLeewaySeconds;
  return t != nullptr && X509_cmp_time(t, &limit) < 0;
}

uint32_t DecodeCrl(std::span<const uint8_t> bytes, X509CrlPtr *out) {
  if (bytes.empty() || bytes.size() > kMaxCrlBytes) return ERR_CRL_FAILED;
  const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  if (text.find("-----BEGIN") != std::string_view::npos) {
    BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    if (bio) out->reset(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
  } else {
    const unsigned char *p = bytes.data();
    out->reset(d2i_X509_CRL(nullptr, &p, static_cast<long>(bytes.size())));
    if (p != bytes.data() + bytes.size()) out->reset();
  }
  ERR_clear_error();
  return *out ? 0 : ERR_CRL_FAILED;
}

bool CrlSignedBy(X509_CRL *crl, X509 *issuer) {
  EVP_PKEY *key = X509_get0_pubkey(issuer);
  const ASN1_BIT_STRING *sig = nullptr;
  const X509_ALGOR *alg = nullptr;
  X509_CRL_get0_signature(crl, &sig, &alg);
  if (key == nullptr || sig == nullptr) return false;
  if (!SignedWithSm2(alg)) return X509_CRL_verify(crl, key) == 1;
  unsigned char *tbs = nullptr;
  const int len = i2d_re_X509_CRL_tbs(crl, &tbs);
  if (len <= 0) return false;
  const OpenSslPtr<unsigned char> owner(tbs);
  return VerifySm2Signature(key, {tbs, static_cast<size_t>(len)}, sig);
}

std::vector<std::string> CrlUrls(X509 *leaf) {
  std::vector<std::string> urls;
  DistPointsPtr points(
      static_cast<CRL_DIST_POINTS *>(X509_get_ext_d2i(leaf, NID_crl_distribution_points, nullptr, nullptr)));
  for (int i = 0; i < sk_DIST_POINT_num(points.get()); ++i) {
    const DIST_POINT *dp = sk_DIST_POINT_value(points.get(), i);
    if (dp->distpoint == nullptr || dp->distpoint->type != 0) continue;
    const GENERAL_NAMES *names = dp->distpoint->name.fullname;
    for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
      const GENERAL_NAME *gn = sk_GENERAL_NAME_value(names, j);
      if (gn->type != GEN_URI) continue;
      const std::string url(reinterpret_cast<const char *>(ASN1_STRING_get0_data(gn->d.uniformResourceIdentifier)),
                            static_cast<size_t>(ASN1_STRING_length(gn->d.uniformResourceIdentifier)));
      if (url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0) urls.push_back(url);
    }
  }
  ERR_clear_error();
  return urls;
}

// The responder may be the issuer itself, or a certificate the issuer gave
// the OCSP-signing purpose.
bool AuthorizedResponder(X509 *signer, X509 *issuer) {
  if (X509_cmp(signer, issuer) == 0) return true;
  if (X509_check_issued(issuer, signer) != X509_V_OK) return false;
  if ((X509_get_extension_flags(signer) & EXFLAG_XKUSAGE) == 0 ||
      (X509_get_extended_key_usage(signer) & XKU_OCSP_SIGN) == 0) {
    return false;
  }
  time_t now = std::time(nullptr);
  if (X509_cmp_time(X509_get0_notBefore(signer), &now) > 0 || X509_cmp_time(X509_get0_notAfter(signer), &now) < 0) {
    return false;
  }
  if (UseDefaultSm2Id(signer) != 0) return false;
  return X509_verify(signer, X509_get0_pubkey(issuer)) == 1;
}

bool ResponseSignedBy(OCSP_BASICRESP *bs, X509 *signer) {
  EVP_PKEY *key = X509_get0_pubkey(signer);
  if (key == nullptr) return false;
  const X509_ALGOR *alg = OCSP_resp_get0_tbs_sigalg(bs);
  if (!SignedWithSm2(alg)) {
    return ASN1_item_verify(ASN1_ITEM_rptr(OCSP_RESPDATA), alg, OCSP_resp_get0_signature(bs),
                            OCSP_resp_get0_respdata(bs), key) == 1;
  }
  unsigned char *tbs = nullptr;
  const int len = i2d_OCSP_RESPDATA(OCSP_resp_get0_respdata(bs), &tbs);
  if (len <= 0) return false;
  const OpenSslPtr<unsigned char> owner(tbs);
  return VerifySm2Signature(key, {tbs, static_cast<size_t>(len)}, OCSP_resp_get0_signature(bs));
}

uint32_t OcspStatus(int status) {
  switch (status) {
    case V_OCSP_CERTSTATUS_GOOD:
      return 0;
    case V_OCSP_CERTSTATUS_REVOKED:
      return ERR_CERT_REVOKED;
    case V_OCSP_CERTSTATUS_UNKNOWN:
      return ERR_CERT_STATUS_UNKNOWN;
    default:
      return ERR_CERT_STATUS_OTHER;
  }
}

}  // namespace

bool VerifySm2Signature(EVP_PKEY *key, std::span<const uint8_t> tbs, const ASN1_BIT_STRING *sig) {
  if (key == nullptr || sig == nullptr) return false;
  EvpMdCtxPtr md(EVP_MD_CTX_new());
  EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  if (!md || !pctx || EVP_PKEY_CTX_set1_id(pctx.get(), kDefaultSm2Id, kDefaultSm2IdLen) != 1) {
    ERR_clear_error();
    return false;
  }
  EVP_MD_CTX_set_pkey_ctx(md.get(), pctx.get());  // md borrows pctx
  const bool ok = EVP_DigestVerifyInit(md.get(), nullptr, EVP_sm3(), nullptr, key) == 1 &&
                  EVP_DigestVerify(md.get(), ASN1_STRING_get0_data(sig), static_cast<size_t>(ASN1_STRING_length(sig)),
                                   tbs.data(), tbs.size()) == 1;
  ERR_clear_error();
  return ok;
}

uint32_t VerifyChain(X509 *leaf, std::span<const X509Ptr> cas, X509Ptr *out_issuer) {
  if (cas.empty()) return ERR_ISSUER_NOT_FOUND;
  X509StorePtr store(X509_STORE_new());
  X509StoreCtxPtr ctx(X509_STORE_CTX_new());
  if (!store || !ctx) return ERR_OUT_OF_MEMORY;
  for (const X509Ptr &ca : cas) {
    if (X509_STORE_add_cert(store.get(), ca.get()) != 1) return ERR_CERT_VERIFY_FAILED;
  }
  // Every CA given is trusted: a chain may end at an intermediate.
  X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
  if (X509_STORE_CTX_init(ctx.get(), store.get(), leaf, nullptr) != 1) return ERR_CERT_VERIFY_FAILED;
  const int ok = X509_verify_cert(ctx.get());
  ERR_clear_error();
  if (ok != 1) {
    const int error = X509_STORE_CTX_get_error(ctx.get());
    const uint32_t status = ok < 0 ? ERR_CERT_VERIFY_FAILED : ChainStatus(error);
    ZEPH_LOG(X509_verify_cert_error_string(error), status);
    return status;
  }
  STACK_OF(X509) *chain = X509_STORE_CTX_get0_chain(ctx.get());
  X509 *issuer = sk_X509_value(chain, sk_X509_num(chain) > 1 ? 1 : 0);
  if (issuer == nullptr || X509_up_ref(issuer) != 1) return ERR_CERT_VERIFY_FAILED;
  out_issuer->reset(issuer);
  return 0;
}

uint32_t CheckCrlBytes(std::span<const uint8_t> bytes, X509 *leaf, X509 *issuer) {
  X509CrlPtr crl;
  ZEPH_TRY(DecodeCrl(bytes, &crl));
  if (X509_NAME_cmp(X509_CRL_get_issuer(crl.get()), X509_get_issuer_name(leaf)) != 0) return ERR_CRL_FAILED;
  if (!CrlSignedBy(crl.get(), issuer)) return ERR_CRL_FAILED;
  // A CRL that is not yet or no longer current confirms nothing.
  const ASN1_TIME *next = X509_CRL_get0_nextUpdate(crl.get());
  time_t now = std::time(nullptr);
  if (!NotInFuture(X509_CRL_get0_lastUpdate(crl.get())) || (next != nullptr && X509_cmp_time(next, &now) < 0)) {
    return ERR_CRL_FAILED;
  }
  X509_REVOKED *entry = nullptr;
  // 2 is an entry that takes the certificate off hold (removeFromCRL).
  const int listed = X509_CRL_get0_by_cert(crl.get(), &entry, leaf);
  ERR_clear_error();
  return listed == 1 ? ERR_CERT_REVOKED : 0;
}

uint32_t CheckCrlFromDistributionPoints(X509 *leaf, X509 *issuer) {
  const std::vector<std::string> urls = CrlUrls(leaf);
  if (urls.empty()) ZEPH_LOG("the certificate names no http distribution point", ERR_CRL_FAILED);
  for (const std::string &url : urls) {
    http::Target target;
    if (http::ParseUrl(url.c_str(), &target) != 0) continue;
    http::Reply reply;
    if (http::Exchange(target, {.method = "GET", .content_type = {}, .body = {}, .extra_headers = {}}, kMaxCrlBytes,
                       &reply) != 0)
      continue;
    const uint32_t rv = CheckCrlBytes(reply.body, leaf, issuer);
    if (rv != ERR_CRL_FAILED) return rv;
  }
  return ERR_CRL_FAILED;
}

uint32_t CheckOcsp(X509 *leaf, X509 *issuer, std::span<const X509Ptr> cas, const char *url) {
  std::string where = url != nullptr ? url : "";
  if (where.empty()) {
    StringStackPtr aia(X509_get1_ocsp(leaf));
    if (sk_OPENSSL_STRING_num(aia.get()) > 0) where = sk_OPENSSL_STRING_value(aia.get(), 0);
  }
  http::Target target;
  if (where.empty() || http::ParseUrl(where.c_str(), &target) != 0) return ERR_OCSP_CONNECT_FAILED;

  OcspRequestPtr request(OCSP_REQUEST_new());
  OcspCertIdPtr id(OCSP_cert_to_id(nullptr, leaf, issuer));
  OCSP_CERTID *sent_id = id ? OCSP_CERTID_dup(id.get()) : nullptr;
  if (!request || sent_id == nullptr || OCSP_request_add0_id(request.get(), sent_id) == nullptr) {
    OCSP_CERTID_free(sent_id);
    ERR_clear_error();
    return ERR_OCSP_CONNECT_FAILED;
  }
  unsigned char *der = nullptr;
  const int len = OCSP_request_add1_nonce(request.get(), nullptr, -1) == 1 ? i2d_OCSP_REQUEST(request.get(), &der) : 0;
  const OpenSslPtr<unsigned char> der_owner(der);
  if (len <= 0) return ERR_OCSP_CONNECT_FAILED;

  http::Reply reply;
  const http::Request post{.method = "POST",
                           .content_type = "application/ocsp-request",
                           .body = {der, static_cast<size_t>(len)},
                           .extra_headers = {}};
  if (http::Exchange(target, post, kMaxOcspBytes, &reply) != 0) {
    return reply.sent ? ERR_OCSP_RESPONSE_FAILED : ERR_OCSP_CONNECT_FAILED;
  }
  return CheckOcspResponse(reply.body, request.get(), id.get(), issuer, cas);
}

uint32_t CheckOcspResponse(std::span<const uint8_t> der, OCSP_REQUEST *request, const OCSP_CERTID *id, X509 *issuer,
                           std::span<const X509Ptr> cas) {
  if (der.empty() || der.size() > kMaxOcspBytes) return ERR_OCSP_FAILED;
  const unsigned char *p = der.data();
  OcspResponsePtr response(d2i_OCSP_RESPONSE(nullptr, &p, static_cast<long>(der.size())));
  ERR_clear_error();
  if (!response || p != der.data() + der.size()) return ERR_OCSP_FAILED;
  if (OCSP_response_status(response.get()) != OCSP_RESPONSE_STATUS_SUCCESSFUL) return ERR_OCSP_RESPONSE_FAILED;
  OcspBasicRespPtr basic(OCSP_response_get1_basic(response.get()));
  if (!basic) return ERR_OCSP_FAILED;
  // A response without a nonce is taken (many responders send none); a
  // different one is not.
  if (OCSP_check_nonce(request, basic.get()) == 0) return ERR_OCSP_FAILED;

  X509StackPtr known(sk_X509_new_null());
  if (!known) return ERR_OUT_OF_MEMORY;
  if (X509_add_cert(known.get(), issuer, X509_ADD_FLAG_UP_REF) != 1) return ERR_OUT_OF_MEMORY;
  for (const X509Ptr &x : cas) {
    if (X509_add_cert(known.get(), x.get(), X509_ADD_FLAG_UP_REF) != 1) return ERR_OUT_OF_MEMORY;
  }
  X509 *signer = nullptr;
  const bool signed_ok = OCSP_resp_get0_signer(basic.get(), &signer, known.get()) == 1 &&
                         AuthorizedResponder(signer, issuer) && ResponseSignedBy(basic.get(), signer);
  ERR_clear_error();
  if (!signed_ok) return ERR_OCSP_FAILED;

  int status = -1;
  int reason = 0;
  ASN1_GENERALIZEDTIME *revoked_at = nullptr, *this_update = nullptr, *next_update = nullptr;
  const bool found = OCSP_resp_find_status(basic.get(), const_cast<OCSP_CERTID *>(id), &status, &reason, &revoked_at,
                                           &this_update, &next_update) == 1 &&
                     OCSP_check_validity(this_update, next_update, kTimeLeewaySeconds, -1) == 1;
  ERR_clear_error();
  if (!found) return ERR_OCSP_FAILED;
  return OcspStatus(status);
}

}  // namespace zeph::pki
