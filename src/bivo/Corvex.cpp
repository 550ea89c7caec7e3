// Corvex signatures: the templates, and packing one co-signed SM2 signature
// with its message and certificate.
#include <cstring>
#include <memory>

#include <openssl/asn1t.h>
#include <openssl/objects.h>

#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_corvex.h"

// clang-format off
extern "C" {

ASN1_SEQUENCE(RAW_DATA) = {
  ASN1_SIMPLE(RAW_DATA, ID, ASN1_OBJECT),
  ASN1_IMP_SEQUENCE_OF_OPT(RAW_DATA, Raws, ASN1_OCTET_STRING, 0),
} ASN1_SEQUENCE_END(RAW_DATA)
IMPLEMENT_ASN1_FUNCTIONS(RAW_DATA)

ASN1_SEQUENCE(HASHALG) = {
  ASN1_SIMPLE(HASHALG, OID, ASN1_OBJECT),
} ASN1_SEQUENCE_END(HASHALG)
IMPLEMENT_ASN1_FUNCTIONS(HASHALG)

ASN1_SEQUENCE(ASYMALG) = {
  ASN1_SIMPLE(ASYMALG, OID, ASN1_OBJECT),
} ASN1_SEQUENCE_END(ASYMALG)
IMPLEMENT_ASN1_FUNCTIONS(ASYMALG)

ASN1_SEQUENCE(CertName) = {
  ASN1_SIMPLE(CertName, issuer, X509_NAME),
} ASN1_SEQUENCE_END(CertName)
IMPLEMENT_ASN1_FUNCTIONS(CertName)

ASN1_SEQUENCE(CERTINFO) = {
  ASN1_SIMPLE(CERTINFO, name, CertName),
  ASN1_SIMPLE(CERTINFO, serialNumber, ASN1_INTEGER),
} ASN1_SEQUENCE_END(CERTINFO)
IMPLEMENT_ASN1_FUNCTIONS(CERTINFO)

ASN1_SEQUENCE(SIGNATURE_INFO) = {
  ASN1_SIMPLE(SIGNATURE_INFO, version, ASN1_INTEGER),
  ASN1_SIMPLE(SIGNATURE_INFO, certInfo, CERTINFO),
  ASN1_SIMPLE(SIGNATURE_INFO, hashAlg, HASHALG),
  ASN1_SIMPLE(SIGNATURE_INFO, asymAlg, ASYMALG),
  ASN1_SIMPLE(SIGNATURE_INFO, signature, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(SIGNATURE_INFO)
IMPLEMENT_ASN1_FUNCTIONS(SIGNATURE_INFO)

ASN1_SEQUENCE(SignerInfo) = {
  ASN1_SIMPLE(SignerInfo, version, ASN1_INTEGER),
  ASN1_SET_OF(SignerInfo, hashAlg, HASHALG),
  ASN1_SIMPLE(SignerInfo, raw_Data, RAW_DATA),
  ASN1_IMP_SEQUENCE_OF_OPT(SignerInfo, certList, X509, 0),
  ASN1_SET_OF(SignerInfo, info, SIGNATURE_INFO),
} ASN1_SEQUENCE_END(SignerInfo)
IMPLEMENT_ASN1_FUNCTIONS(SignerInfo)

ASN1_SEQUENCE(Corvex_Signature) = {
  ASN1_SIMPLE(Corvex_Signature, ID, ASN1_OBJECT),
  ASN1_IMP_SEQUENCE_OF_OPT(Corvex_Signature, signers, SignerInfo, 0),
} ASN1_SEQUENCE_END(Corvex_Signature)
IMPLEMENT_ASN1_FUNCTIONS(Corvex_Signature)

}  // extern "C"
// clang-format on

namespace {

using CorvexPtr = std::unique_ptr<Corvex_Signature, zeph::Free<Corvex_Signature_free>>;
using SignerInfoPtr = std::unique_ptr<SignerInfo, zeph::Free<SignerInfo_free>>;
using HashAlgPtr = std::unique_ptr<HASHALG, zeph::Free<HASHALG_free>>;
using SignatureInfoPtr = std::unique_ptr<SIGNATURE_INFO, zeph::Free<SIGNATURE_INFO_free>>;
using OctetPtr = std::unique_ptr<ASN1_OCTET_STRING, zeph::Free<ASN1_OCTET_STRING_free>>;

void FreeDer(unsigned char *p) noexcept { OPENSSL_free(p); }
using DerPtr = std::unique_ptr<unsigned char, zeph::Free<FreeDer>>;

constexpr const char *kCorvexSignatureOid = "1.2.156.10197.6.1.4.2.2";
constexpr const char *kCorvexDataOid = "1.2.156.10197.6.1.4.2.1";
constexpr const char *kSm3Oid = "1.2.156.10197.1.401";
constexpr const char *kSm2SignOid = "1.2.156.10197.1.301.1";

// Replaces *slot (a template-allocated member) with the object for `oid`.
bool SetOid(ASN1_OBJECT **slot, const char *oid) {
  ASN1_OBJECT *obj = OBJ_txt2obj(oid, 1);
  if (obj == nullptr) return false;
  ASN1_OBJECT_free(*slot);
  *slot = obj;
  return true;
}

HashAlgPtr Sm3Alg() {
  HashAlgPtr alg(HASHALG_new());
  return alg && SetOid(&alg->OID, kSm3Oid) ? std::move(alg) : nullptr;
}

SignatureInfoPtr SignatureInfo(X509 *cert, const unsigned char *sig, uint32_t sig_len) {
  SignatureInfoPtr info(SIGNATURE_INFO_new());
  if (!info || !ASN1_INTEGER_set(info->version, 0) || !SetOid(&info->hashAlg->OID, kSm3Oid) ||
      !SetOid(&info->asymAlg->OID, kSm2SignOid) ||
      !X509_NAME_set(&info->certInfo->name->issuer, X509_get_issuer_name(cert))) {
    return nullptr;
  }
  ASN1_INTEGER *serial = ASN1_INTEGER_dup(X509_get0_serialNumber(cert));
  if (serial == nullptr) return nullptr;
  ASN1_INTEGER_free(info->certInfo->serialNumber);
  info->certInfo->serialNumber = serial;
  if (!ASN1_OCTET_STRING_set(info->signature, sig, static_cast<int>(sig_len))) return nullptr;
  return info;
}

// The whole structure for one signer, or null.
CorvexPtr Build(const unsigned char *data, uint32_t data_len, X509 *cert, const unsigned char *sig, uint32_t sig_len) {
  CorvexPtr corvex(Corvex_Signature_new());
  SignerInfoPtr signer(SignerInfo_new());
  if (!corvex || !signer || !SetOid(&corvex->ID, kCorvexSignatureOid) ||
      (corvex->signers = sk_SignerInfo_new_null()) == nullptr || !ASN1_INTEGER_set(signer->version, 0)) {
    return nullptr;
  }
  HashAlgPtr alg = Sm3Alg();
  if (!alg || !sk_HASHALG_push(signer->hashAlg, alg.get())) return nullptr;
  alg.release();

  OctetPtr raw(ASN1_OCTET_STRING_new());
  if (!SetOid(&signer->raw_Data->ID, kCorvexDataOid) ||
      (signer->raw_Data->Raws = sk_ASN1_OCTET_STRING_new_null()) == nullptr || !raw ||
      !ASN1_OCTET_STRING_set(raw.get(), data, static_cast<int>(data_len)) ||
      !sk_ASN1_OCTET_STRING_push(signer->raw_Data->Raws, raw.get())) {
    return nullptr;
  }
  raw.release();

  if ((signer->certList = sk_X509_new_null()) == nullptr || !X509_up_ref(cert)) return nullptr;
  if (!sk_X509_push(signer->certList, cert)) {
    X509_free(cert);
    return nullptr;
  }

  SignatureInfoPtr info = SignatureInfo(cert, sig, sig_len);
  if (!info || !sk_SIGNATURE_INFO_push(signer->info, info.get())) return nullptr;
  info.release();

  if (!sk_SignerInfo_push(corvex->signers, signer.get())) return nullptr;
  signer.release();
  return corvex;
}

uint32_t DoSignature(const unsigned char *data, uint32_t data_len, const unsigned char *cert_der, uint32_t cert_len,
                     const unsigned char *sig, uint32_t sig_len, unsigned char *out, uint32_t *out_len) {
  ZEPH_ENSURE((data != nullptr || data_len == 0) && cert_der != nullptr && sig != nullptr && sig_len != 0 &&
                  out_len != nullptr && data_len <= INT32_MAX && sig_len <= INT32_MAX,
              ERR_INVALID_PARAMETER);
  const unsigned char *p = cert_der;
  zeph::X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(cert_len)));
  ZEPH_ENSURE(cert && p == cert_der + cert_len, ERR_INVALID_PARAMETER);
  CorvexPtr corvex = Build(data, data_len, cert.get(), sig, sig_len);
  ZEPH_ENSURE(corvex != nullptr, ERR_INVALID_PARAMETER);
  unsigned char *der = nullptr;
  const int len = i2d_Corvex_Signature(corvex.get(), &der);
  ZEPH_ENSURE(len > 0, ERR_INVALID_PARAMETER);
  const DerPtr owned(der);
  const auto n = static_cast<uint32_t>(len);
  if (out == nullptr) {
    *out_len = n;
    return 1;
  }
  if (*out_len < n) {
    *out_len = n;
    return ERR_BUFFER_TOO_SMALL;
  }
  // Compat: a buffer larger than the encoding receives nothing and is not
  // told the length; hosts ask for the length, then pass exactly that.
  if (*out_len > n) return 1;
  std::memcpy(out, der, n);
  *out_len = n;
  return 1;
}

}  // namespace

extern "C" ZEPH_API uint32_t Corvex_DoSignature(const unsigned char *data, uint32_t data_len,
                                                const unsigned char *cert_der, uint32_t cert_len,
                                                const unsigned char *sig, uint32_t sig_len, unsigned char *out,
                                                uint32_t *out_len) {
  return zeph::Guarded([&] { return DoSignature(data, data_len, cert_der, cert_len, sig, sig_len, out, out_len); });
}
