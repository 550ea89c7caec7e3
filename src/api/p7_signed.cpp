// Building signed messages: the certificate bundle, the SM2 signed message
// of the GM layout and the PKCS#7 signed-data with signed attributes, both
// made with OpenSSL's types but signed by whoever the caller hands in (the
// key, a length query's placeholder, a test).
#include <climits>
#include <cstring>

#include <openssl/ess.h>
#include <openssl/pkcs7.h>

#include "api/cert.hpp"
#include "api/p7_internal.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"

namespace zeph::p7 {
namespace {

// Compat: an ASN.1 structure that cannot be made while building an SM2
// signed message reports ERR_BUFFER_TOO_SMALL, as it always has.
constexpr uint32_t kNoStructure = ERR_BUFFER_TOO_SMALL;
constexpr size_t kSm2SignatureMax = 72;  // SEQUENCE of two 33-byte INTEGERs

bool SetAlgorithm(X509_ALGOR *alg, const char *oid) {
  ASN1_OBJECT *obj = OBJ_txt2obj(oid, 1);
  if (obj == nullptr) return false;
  if (X509_ALGOR_set0(alg, obj, V_ASN1_NULL, nullptr) != 1) {
    ASN1_OBJECT_free(obj);
    return false;
  }
  return true;
}

bool SetObject(ASN1_OBJECT **field, const char *oid) {
  ASN1_OBJECT *obj = OBJ_txt2obj(oid, 1);
  if (obj == nullptr) return false;
  ASN1_OBJECT_free(*field);
  *field = obj;
  return true;
}

bool SetIssuerAndSerial(PKCS7_ISSUER_AND_SERIAL *ias, const X509 *cert) {
  ASN1_INTEGER *serial = ASN1_INTEGER_dup(X509_get0_serialNumber(cert));
  if (serial == nullptr) return false;
  ASN1_INTEGER_free(ias->serial);
  ias->serial = serial;
  return X509_NAME_set(&ias->issuer, X509_get_issuer_name(cert)) == 1;
}

// The signer info both layouts share: version 1, the signer's issuer and
// serial number, the two algorithms with NULL parameters.
bool FillSignerInfo(PKCS7_SIGNER_INFO *si, const X509 *signer, const char *md_oid, const char *sig_oid) {
  return ASN1_INTEGER_set(si->version, 1) == 1 && SetIssuerAndSerial(si->issuer_and_serial, signer) &&
         SetAlgorithm(si->digest_alg, md_oid) && SetAlgorithm(si->digest_enc_alg, sig_oid);
}

// Pushes an up-referenced certificate.
bool PushCert(STACK_OF(X509) * certs, X509 *cert) {
  if (X509_up_ref(cert) != 1) return false;
  if (sk_X509_push(certs, cert) > 0) return true;
  X509_free(cert);
  return false;
}

template <class T>
uint32_t Encode(const T *obj, int (*i2d)(const T *, unsigned char **), Bytes *der) {
  unsigned char *p = nullptr;
  const int n = i2d(obj, &p);
  if (n <= 0) return ERR_ENCODE_FAILED;
  der->assign(p, p + n);
  OPENSSL_free(p);
  return 0;
}

const EVP_MD *DigestOf(uint32_t hash_id) {
  const char *oid = getHashAlgOID(hash_id);
  if (oid == nullptr) return nullptr;
  Asn1ObjectPtr obj(OBJ_txt2obj(oid, 1));
  return obj ? EVP_get_digestbyobj(obj.get()) : nullptr;
}

// The digest ID a PKCS#7 signer may use with its key kind.
bool DigestAllowed(KeyKind kind, uint32_t id) {
  if (kind == KeyKind::kSm2) return id == 1;
  return id == 2 || id == 4 || id == 8 || id == 16;
}

// The signed attributes: content type, signing time, message digest and the
// ESS signing-certificate-v2 of the signer.
bool AddSignedAttributes(PKCS7_SIGNER_INFO *si, const EVP_MD *md, Span content, X509 *signer) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_len = 0;
  if (EVP_Digest(content.data(), content.size(), digest, &digest_len, md, nullptr) != 1) return false;
  if (PKCS7_add_attrib_content_type(si, OBJ_nid2obj(NID_pkcs7_data)) != 1) return false;
  ASN1_TIME *now = X509_gmtime_adj(nullptr, 0);
  if (now == nullptr || PKCS7_add0_attrib_signing_time(si, now) != 1) {
    ASN1_TIME_free(now);
    return false;
  }
  if (PKCS7_add1_attrib_digest(si, digest, static_cast<int>(digest_len)) != 1) return false;

  std::unique_ptr<ESS_SIGNING_CERT_V2, Free<ESS_SIGNING_CERT_V2_free>> ess(
      OSSL_ESS_signing_cert_v2_new_init(EVP_sha256(), signer, nullptr, 1));
  Bytes ess_der;
  if (!ess || Encode(ess.get(), i2d_ESS_SIGNING_CERT_V2, &ess_der) != 0) return false;
  Asn1StringPtr seq(ASN1_STRING_type_new(V_ASN1_SEQUENCE));
  if (!seq || ASN1_STRING_set(seq.get(), ess_der.data(), static_cast<int>(ess_der.size())) != 1) return false;
  if (PKCS7_add_signed_attribute(si, NID_id_smime_aa_signingCertificateV2, V_ASN1_SEQUENCE, seq.get()) != 1) {
    return false;
  }
  seq.release();
  return true;
}

}  // namespace

KeyKind KindOf(const X509 *cert) {
  switch (api::CertKeyAlgo(cert)) {
    case ZEPH_CERT_ALG_RSA:
      return KeyKind::kRsa;
    case ZEPH_CERT_ALG_SM2:
      return KeyKind::kSm2;
    default:
      return KeyKind::kNone;
  }
}

X509Ptr DecodeCert(Span der) {
  if (der.empty() || der.size() > LONG_MAX) return nullptr;
  const unsigned char *p = der.data();
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  if (cert && p != der.data() + der.size()) cert.reset();
  return cert;
}

uint32_t ReadBundle(Span der, std::vector<X509Ptr> *certs) {
  certs->clear();
  if (der.empty()) return 0;
  if (der.size() > LONG_MAX) return ERR_CERT_CHAIN_FAILED;
  const unsigned char *p = der.data();
  Pkcs7Ptr bundle(d2i_PKCS7(nullptr, &p, static_cast<long>(der.size())));
  if (!bundle || p != der.data() + der.size()) {
    X509Ptr single = DecodeCert(der);
    if (!single) return ERR_CERT_CHAIN_FAILED;
    certs->push_back(std::move(single));
    return 0;
  }
  if (!PKCS7_type_is_signed(bundle.get()) || bundle->d.sign == nullptr) return ERR_CERT_CHAIN_FAILED;
  STACK_OF(X509) *list = bundle->d.sign->cert;
  for (int i = 0; i < sk_X509_num(list); ++i) {
    X509 *cert = sk_X509_value(list, i);
    if (X509_up_ref(cert) != 1) return ERR_OUT_OF_MEMORY;
    certs->emplace_back(cert);
  }
  return 0;
}

Bytes PlaceholderSignature(const X509 *signer) {
  if (KindOf(signer) == KeyKind::kRsa) {
    const EVP_PKEY *key = X509_get0_pubkey(signer);
    return Bytes(static_cast<size_t>(EVP_PKEY_get_size(key)), 0);
  }
  return Bytes(kSm2SignatureMax, 0);
}

uint32_t BuildSm2Sign(const Sm2SignRequest &req, const Signer &sign, Bytes *der) {
  const char *md_oid = getHashAlgOID(req.hash_id);
  ZEPH_ENSURE(md_oid != nullptr, ERR_ALG_UNSUPPORTED);
  ZEPH_ENSURE(req.signer != nullptr && req.content.size() <= INT_MAX, ERR_INVALID_PARAMETER);

  // 1. The outer message with one body, version 1.
  Sm2SignPtr msg(SM2_Sign_new());
  ZEPH_ENSURE(msg && SetObject(&msg->ID, ZEPH_OID_SM2_SIGNED_DATA), kNoStructure);
  msg->SM2_Sign_Infos = sk_SM2_SIGN_INFO_new_null();
  SM2_SIGN_INFO *info = SM2_SIGN_INFO_new();
  if (msg->SM2_Sign_Infos == nullptr || info == nullptr || sk_SM2_SIGN_INFO_push(msg->SM2_Sign_Infos, info) <= 0) {
    SM2_SIGN_INFO_free(info);
    return kNoStructure;
  }
  ZEPH_ENSURE(ASN1_INTEGER_set(info->version, 1) == 1, kNoStructure);

  // 2. The content, attached as one OCTET STRING.
  ZEPH_ENSURE(SetObject(&info->contents->ID, ZEPH_OID_SM2_DATA), kNoStructure);
  info->contents->Data = sk_ASN1_OCTET_STRING_new_null();
  ASN1_OCTET_STRING *data = ASN1_OCTET_STRING_new();
  if (info->contents->Data == nullptr || data == nullptr ||
      sk_ASN1_OCTET_STRING_push(info->contents->Data, data) <= 0) {
    ASN1_OCTET_STRING_free(data);
    return kNoStructure;
  }
  ZEPH_ENSURE(ASN1_OCTET_STRING_set(data, req.content.data(), static_cast<int>(req.content.size())) == 1, kNoStructure);

  // 3. The bundle's certificates in their order, then the signer's.
  info->cert = sk_X509_new_null();
  ZEPH_ENSURE(info->cert != nullptr, kNoStructure);
  if (req.chain != nullptr) {
    for (const X509Ptr &c : *req.chain) ZEPH_ENSURE(PushCert(info->cert, c.get()), kNoStructure);
  }
  ZEPH_ENSURE(PushCert(info->cert, req.signer), kNoStructure);

  // 4. The CRL when there is one.
  if (req.crl != nullptr) {
    info->crl = sk_X509_CRL_new_null();
    ZEPH_ENSURE(info->crl != nullptr && X509_CRL_up_ref(req.crl) == 1, kNoStructure);
    if (sk_X509_CRL_push(info->crl, req.crl) <= 0) {
      X509_CRL_free(req.crl);
      return kNoStructure;
    }
  }

  // 5. The digest algorithm.
  X509_ALGOR *md_alg = X509_ALGOR_new();
  if (md_alg == nullptr || !SetAlgorithm(md_alg, md_oid) || sk_X509_ALGOR_push(info->md_algs, md_alg) <= 0) {
    X509_ALGOR_free(md_alg);
    return kNoStructure;
  }

  // 6. One signer info without attributes, signed over the content.
  Pkcs7SignerInfoPtr si(PKCS7_SIGNER_INFO_new());
  ZEPH_ENSURE(si && FillSignerInfo(si.get(), req.signer, md_oid, req.sig_oid), kNoStructure);
  Bytes sig;
  ZEPH_TRY(sign(req.content, &sig));
  ZEPH_ENSURE(ASN1_OCTET_STRING_set(si->enc_digest, sig.data(), static_cast<int>(sig.size())) == 1, kNoStructure);
  ZEPH_ENSURE(sk_PKCS7_SIGNER_INFO_push(info->signer_info, si.get()) > 0, kNoStructure);
  si.release();

  // 7. DER.
  return Encode(msg.get(), i2d_SM2_Sign, der);
}

uint32_t BuildPkcs7Signed(const Pkcs7SignRequest &req, const Signer &sign, Bytes *der) {
  ZEPH_ENSURE(req.signer != nullptr && req.content.size() <= INT_MAX, ERR_INVALID_PARAMETER);
  ZEPH_ENSURE(req.kind == KeyKind::kRsa || req.kind == KeyKind::kSm2, ERR_UNSUPPORTED_VALUE);
  ZEPH_ENSURE(DigestAllowed(req.kind, req.digest_id), ERR_UNSUPPORTED_VALUE);
  const EVP_MD *md = DigestOf(req.digest_id);
  ZEPH_ENSURE(md != nullptr, ERR_ALG_UNSUPPORTED);

  Pkcs7Ptr p7(PKCS7_new());
  ZEPH_ENSURE(p7 && PKCS7_set_type(p7.get(), NID_pkcs7_signed) == 1, ERR_OUT_OF_MEMORY);
  ZEPH_ENSURE(PKCS7_content_new(p7.get(), NID_pkcs7_data) == 1, ERR_OUT_OF_MEMORY);
  if (req.detached) {
    PKCS7_set_detached(p7.get(), 1);
  } else {
    ASN1_OCTET_STRING *data = p7->d.sign->contents->d.data;
    ZEPH_ENSURE(ASN1_OCTET_STRING_set(data, req.content.data(), static_cast<int>(req.content.size())) == 1,
                ERR_OUT_OF_MEMORY);
  }
  if (req.chain != nullptr) {
    for (const X509Ptr &c : *req.chain) ZEPH_ENSURE(PKCS7_add_certificate(p7.get(), c.get()) == 1, ERR_OUT_OF_MEMORY);
  }
  ZEPH_ENSURE(PKCS7_add_certificate(p7.get(), req.signer) == 1, ERR_OUT_OF_MEMORY);

  Pkcs7SignerInfoPtr owned(PKCS7_SIGNER_INFO_new());
  const char *sig_oid = req.kind == KeyKind::kSm2 ? ZEPH_OID_SM2_SIGN_501 : ZEPH_OID_RSA_ENCRYPTION;
  ZEPH_ENSURE(owned && FillSignerInfo(owned.get(), req.signer, getHashAlgOID(req.digest_id), sig_oid),
              ERR_OUT_OF_MEMORY);
  ZEPH_ENSURE(PKCS7_add_signer(p7.get(), owned.get()) == 1, ERR_OUT_OF_MEMORY);
  PKCS7_SIGNER_INFO *si = owned.release();
  ZEPH_ENSURE(AddSignedAttributes(si, md, req.content, req.signer), ERR_OUT_OF_MEMORY);

  // The signature covers the DER of the attributes as a SET, sorted as DER
  // wants: the order i2d_PKCS7 writes them in again below.
  unsigned char *attrs = nullptr;
  const int attrs_len =
      ASN1_item_i2d(reinterpret_cast<ASN1_VALUE *>(si->auth_attr), &attrs, ASN1_ITEM_rptr(PKCS7_ATTR_SIGN));
  ZEPH_ENSURE(attrs_len > 0, ERR_ENCODE_FAILED);
  Bytes tbs(attrs, attrs + attrs_len);
  OPENSSL_free(attrs);
  Bytes sig;
  ZEPH_TRY(sign(tbs, &sig));
  ZEPH_ENSURE(ASN1_OCTET_STRING_set(si->enc_digest, sig.data(), static_cast<int>(sig.size())) == 1, ERR_OUT_OF_MEMORY);
  return Encode(p7.get(), i2d_PKCS7, der);
}

}  // namespace zeph::p7
