/* Corvex signatures: a signed-message container (close in spirit to a
 * signed-data structure, with GM/T object identifiers) that carries a
 * message, the signer's certificate and an SM2 signature made by the
 * co-signing client.
 *
 *   Corvex_Signature ::= SEQUENCE {
 *     ID       OBJECT IDENTIFIER,                 -- 1.2.156.10197.6.1.4.2.2
 *     signers  [0] IMPLICIT SEQUENCE OF SignerInfo OPTIONAL }
 *   SignerInfo ::= SEQUENCE {
 *     version   INTEGER,                          -- 0
 *     hashAlg   SET OF HASHALG,                   -- SM3 1.2.156.10197.1.401
 *     raw_Data  RAW_DATA,
 *     certList  [0] IMPLICIT SEQUENCE OF Certificate OPTIONAL,
 *     info      SET OF SIGNATURE_INFO }
 *   RAW_DATA ::= SEQUENCE {
 *     ID    OBJECT IDENTIFIER,                    -- 1.2.156.10197.6.1.4.2.1
 *     Raws  [0] IMPLICIT SEQUENCE OF OCTET STRING OPTIONAL }
 *   HASHALG ::= SEQUENCE { OID OBJECT IDENTIFIER }
 *   ASYMALG ::= SEQUENCE { OID OBJECT IDENTIFIER }   -- SM2 signature 1.2.156.10197.1.301.1
 *   CertName ::= SEQUENCE { issuer Name }
 *   CERTINFO ::= SEQUENCE { name CertName, serialNumber INTEGER }
 *   SIGNATURE_INFO ::= SEQUENCE {
 *     version INTEGER, certInfo CERTINFO, hashAlg HASHALG, asymAlg ASYMALG,
 *     signature OCTET STRING }                    -- DER SEQUENCE { r, s }
 *
 * Each type T is an OpenSSL ASN.1 template with T_it(), d2i_T, i2d_T, T_new
 * and T_free (OpenSSL's usual contracts: d2i returns null on any mismatch;
 * i2d with a null *out allocates, freed with OPENSSL_free; T_free is deep
 * and takes null). The stacks of SignerInfo, HASHALG and SIGNATURE_INFO
 * have OpenSSL's inline stack operations (sk_SignerInfo_new_null,
 * sk_SignerInfo_push, ...). */
#ifndef ZEPH_C_CORVEX_H
#define ZEPH_C_CORVEX_H

#include <openssl/asn1.h>
#include <openssl/safestack.h>
#include <openssl/x509.h>
#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_status.h"

ZEPH_BEGIN_DECLS

#ifndef ZEPH_SK_ASN1_OCTET_STRING_DEFINED
#define ZEPH_SK_ASN1_OCTET_STRING_DEFINED
DEFINE_STACK_OF(ASN1_OCTET_STRING)
#endif

typedef struct RAW_DATA_st {
  ASN1_OBJECT *ID;
  STACK_OF(ASN1_OCTET_STRING) * Raws; /* optional: null when absent */
} RAW_DATA;

typedef struct HASHALG_st {
  ASN1_OBJECT *OID;
} HASHALG;
DEFINE_STACK_OF(HASHALG)

typedef struct ASYMALG_st {
  ASN1_OBJECT *OID;
} ASYMALG;

typedef struct CertName_st {
  X509_NAME *issuer;
} CertName;

typedef struct CERTINFO_st {
  CertName *name;
  ASN1_INTEGER *serialNumber;
} CERTINFO;

typedef struct SIGNATURE_INFO_st {
  ASN1_INTEGER *version;
  CERTINFO *certInfo;
  HASHALG *hashAlg;
  ASYMALG *asymAlg;
  ASN1_OCTET_STRING *signature;
} SIGNATURE_INFO;
DEFINE_STACK_OF(SIGNATURE_INFO)

typedef struct SignerInfo_st {
  ASN1_INTEGER *version;
  STACK_OF(HASHALG) * hashAlg;
  RAW_DATA *raw_Data;
  STACK_OF(X509) * certList; /* optional: null when absent */
  STACK_OF(SIGNATURE_INFO) * info;
} SignerInfo;
DEFINE_STACK_OF(SignerInfo)

typedef struct Corvex_Signature_st {
  ASN1_OBJECT *ID;
  STACK_OF(SignerInfo) * signers; /* optional: null when absent */
} Corvex_Signature;

/* clang-format off */
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, RAW_DATA)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, HASHALG)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, ASYMALG)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, CertName)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, CERTINFO)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SIGNATURE_INFO)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SignerInfo)
DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, Corvex_Signature)
    /* clang-format on */

    /* Packs data, the signer's DER certificate and sig (the DER SM2 signature
     * over data) into one DER Corvex_Signature with one signer.
     *
     * Returns 1 on success (callers also accept 0 as success) and
     * ERR_INVALID_PARAMETER when an argument is null or the certificate is not
     * one whole DER certificate. Output: a null out stores the length; a
     * capacity *out_len equal to the length receives the bytes; a smaller one
     * gives ERR_BUFFER_TOO_SMALL with the length stored and nothing written; a
     * larger one receives nothing and is not told the length (status 1): ask
     * for the length first, then pass exactly that. */
    ZEPH_API uint32_t
    Corvex_DoSignature(const unsigned char *data, uint32_t data_len, const unsigned char *cert_der, uint32_t cert_len,
                       const unsigned char *sig, uint32_t sig_len, unsigned char *out, uint32_t *out_len);

ZEPH_END_DECLS

#endif
