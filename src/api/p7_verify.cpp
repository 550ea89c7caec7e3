// Verifying signed messages of both families with one signer check: the
// signer's certificate found by issuer and serial number among those the
// message carries, message-digest and ESS attributes against the content,
// and the signature with our own SM2 verification or OpenSSL's RSA.
#include <climits>
#include <cstring>

#include <openssl/err.h>
#include <openssl/ess.h>

#include "api/p7_internal.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_sm2.h"
#include "zeph_c_status.h"

namespace zeph::p7 {
namespace {

constexpr uint32_t kInvalid = ERR_SIGNATURE_INVALID;

Span Octets(const ASN1_OCTET_STRING *s) {
  if (s == nullptr) return {};
  return {ASN1_STRING_get0_data(s), static_cast<size_t>(ASN1_STRING_length(s))};
}

bool Equal(Span a, Span b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
}

X509 *FindSigner(const STACK_OF(X509) * certs, const PKCS7_ISSUER_AND_SERIAL *id) {
  if (id == nullptr || id->issuer == nullptr || id->serial == nullptr) return nullptr;
  for (int i = 0; i < sk_X509_num(certs); ++i) {
    X509 *c = sk_X509_value(certs, i);
    if (X509_NAME_cmp(X509_get_issuer_name(c), id->issuer) == 0 &&
        ASN1_INTEGER_cmp(X509_get0_serialNumber(c), id->serial) == 0) {
      return c;
    }
  }
  return nullptr;
}

// The ESS signing-certificate attributes, when present, must name the signer.
bool EssNamesSigner(const PKCS7_SIGNER_INFO *si, X509 *signer) {
  const ASN1_TYPE *v1 = PKCS7_get_signed_attribute(si, NID_id_smime_aa_signingCertificate);
  const ASN1_TYPE *v2 = PKCS7_get_signed_attribute(si, NID_id_smime_aa_signingCertificateV2);
  if (v1 == nullptr && v2 == nullptr) return true;
  if ((v1 != nullptr && v1->type != V_ASN1_SEQUENCE) || (v2 != nullptr && v2->type != V_ASN1_SEQUENCE)) return false;
  std::unique_ptr<ESS_SIGNING_CERT, Free<ESS_SIGNING_CERT_free>> ss;
  std::unique_ptr<ESS_SIGNING_CERT_V2, Free<ESS_SIGNING_CERT_V2_free>> ss2;
  if (v1 != nullptr) {
    const unsigned char *p = v1->value.sequence->data;
    ss.reset(d2i_ESS_SIGNING_CERT(nullptr, &p, v1->value.sequence->length));
    if (!ss) return false;
  }
  if (v2 != nullptr) {
    const unsigned char *p = v2->value.sequence->data;
    ss2.reset(d2i_ESS_SIGNING_CERT_V2(nullptr, &p, v2->value.sequence->length));
    if (!ss2) return false;
  }
  X509ListPtr chain(sk_X509_new_null());
  if (!chain || sk_X509_push(chain.get(), signer) <= 0) return false;
  const bool ok = OSSL_ESS_check_signing_certs(ss.get(), ss2.get(), chain.get(), 1) == 1;
  ERR_clear_error();
  return ok;
}

bool VerifyRsa(X509 *signer, const EVP_MD *md, Span tbs, Span sig) {
  EVP_PKEY *key = X509_get0_pubkey(signer);
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  const bool ok = ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, md, nullptr, key) == 1 &&
                  EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), tbs.data(), tbs.size()) == 1;
  ERR_clear_error();
  return ok;
}

bool VerifySm2(X509 *signer, Span tbs, Span sig) {
  unsigned char *der = nullptr;
  const int der_len = i2d_X509(signer, &der);
  if (der_len <= 0) return false;
  const unsigned char empty = 0;
  const uint32_t rv =
      BIVO_VerifySm2Signature(tbs.empty() ? &empty : tbs.data(), static_cast<uint32_t>(tbs.size()), der,
                              static_cast<uint32_t>(der_len), sig.data(), static_cast<uint32_t>(sig.size()));
  OPENSSL_free(der);
  return rv == 0;
}

// One signer over `content` of type `content_type`.
uint32_t VerifySigner(const PKCS7_SIGNER_INFO *si, const STACK_OF(X509) * certs, const ASN1_OBJECT *content_type,
                      Span content) {
  X509 *signer = FindSigner(certs, si->issuer_and_serial);
  ZEPH_ENSURE(signer != nullptr && si->digest_alg != nullptr, kInvalid);
  const KeyKind kind = KindOf(signer);
  const EVP_MD *md = EVP_get_digestbyobj(si->digest_alg->algorithm);
  ZEPH_ENSURE(md != nullptr && kind != KeyKind::kNone, kInvalid);
  Span sig = Octets(si->enc_digest);
  ZEPH_ENSURE(!sig.empty(), kInvalid);

  Bytes tbs;
  if (sk_X509_ATTRIBUTE_num(si->auth_attr) > 0) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digest_len = 0;
    ZEPH_ENSURE(EVP_Digest(content.data(), content.size(), digest, &digest_len, md, nullptr) == 1, kInvalid);
    const ASN1_OCTET_STRING *stated = PKCS7_digest_from_attributes(si->auth_attr);
    ZEPH_ENSURE(Equal(Octets(stated), {digest, digest_len}), kInvalid);
    const ASN1_TYPE *type = PKCS7_get_signed_attribute(si, NID_pkcs9_contentType);
    ZEPH_ENSURE(type == nullptr || (type->type == V_ASN1_OBJECT && OBJ_cmp(type->value.object, content_type) == 0),
                kInvalid);
    ZEPH_ENSURE(EssNamesSigner(si, signer), kInvalid);
    // The attributes as they arrived, in their order, tagged as a SET.
    unsigned char *der = nullptr;
    const int n = ASN1_item_i2d(reinterpret_cast<ASN1_VALUE *>(si->auth_attr), &der, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
    ZEPH_ENSURE(n > 0, kInvalid);
    tbs.assign(der, der + n);
    OPENSSL_free(der);
  } else {
    tbs.assign(content.begin(), content.end());
  }
  const bool ok = kind == KeyKind::kSm2 ? VerifySm2(signer, tbs, sig) : VerifyRsa(signer, md, tbs, sig);
  return ok ? 0 : kInvalid;
}

uint32_t VerifyAll(const STACK_OF(PKCS7_SIGNER_INFO) * signers, const STACK_OF(X509) * certs,
                   const ASN1_OBJECT *content_type, Span content) {
  ZEPH_ENSURE(sk_PKCS7_SIGNER_INFO_num(signers) > 0, kInvalid);
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(signers); ++i) {
    ZEPH_TRY(VerifySigner(sk_PKCS7_SIGNER_INFO_value(signers, i), certs, content_type, content));
  }
  return 0;
}

// The attached content, or the detached one; both given must agree.
uint32_t PickContent(const ASN1_OCTET_STRING *attached, Span detached, Bytes *content) {
  if (attached == nullptr) {
    content->assign(detached.begin(), detached.end());
    return 0;
  }
  ZEPH_ENSURE(detached.empty() || Equal(Octets(attached), detached), kInvalid);
  const Span a = Octets(attached);
  content->assign(a.begin(), a.end());
  return 0;
}

bool OidIs(const ASN1_OBJECT *obj, const char *oid) {
  Asn1ObjectPtr want(OBJ_txt2obj(oid, 1));
  return obj != nullptr && want && OBJ_cmp(obj, want.get()) == 0;
}

}  // namespace

uint32_t VerifySm2Sign(Span msg, Span detached, Bytes *content) {
  ZEPH_ENSURE(!msg.empty() && msg.size() <= LONG_MAX, kInvalid);
  const unsigned char *p = msg.data();
  Sm2SignPtr sm2(d2i_SM2_Sign(nullptr, &p, static_cast<long>(msg.size())));
  ZEPH_ENSURE(sm2 && p == msg.data() + msg.size() && OidIs(sm2->ID, ZEPH_OID_SM2_SIGNED_DATA), kInvalid);
  const SM2_SIGN_INFO *info = sk_SM2_SIGN_INFO_value(sm2->SM2_Sign_Infos, 0);
  ZEPH_ENSURE(info != nullptr && info->contents != nullptr, kInvalid);
  const ASN1_OBJECT *type = info->contents->ID;
  ZEPH_ENSURE(OidIs(type, ZEPH_OID_SM2_DATA) || OidIs(type, ZEPH_OID_PKCS7_DATA), kInvalid);
  ZEPH_TRY(PickContent(sk_ASN1_OCTET_STRING_value(info->contents->Data, 0), detached, content));
  return VerifyAll(info->signer_info, info->cert, type, *content);
}

uint32_t VerifyPkcs7Signed(Span der, Span detached, Bytes *content) {
  ZEPH_ENSURE(!der.empty() && der.size() <= LONG_MAX, kInvalid);
  const unsigned char *p = der.data();
  Pkcs7Ptr p7(d2i_PKCS7(nullptr, &p, static_cast<long>(der.size())));
  ZEPH_ENSURE(p7 && p == der.data() + der.size() && PKCS7_type_is_signed(p7.get()), kInvalid);
  const PKCS7_SIGNED *sd = p7->d.sign;
  ZEPH_ENSURE(sd != nullptr && sd->contents != nullptr && PKCS7_type_is_data(sd->contents), kInvalid);
  ZEPH_TRY(PickContent(sd->contents->d.data, detached, content));
  return VerifyAll(sd->signer_info, sd->cert, sd->contents->type, *content);
}

}  // namespace zeph::p7
