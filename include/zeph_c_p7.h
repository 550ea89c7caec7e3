/* GM/T SM2 signed-data and envelope messages: the PKCS#7 layout with the GM
 * content-type arc 1.2.156.10197.6.1.4.2 and SM2, SM3 and SM4 algorithms.
 *
 * Every type T is an OpenSSL ASN.1 template type: T_new, T_free, d2i_T,
 * i2d_T and the item T_it, all exported. Objects from T_new / d2i_T are
 * released with T_free, which frees every member. Members are the OpenSSL
 * PKCS#7 and X.509 types.
 *
 * Encoding notes:
 * - SM2_Sign and SM2_Envelope carry their body as [0] IMPLICIT SEQUENCE OF;
 *   builders put exactly one element there, which makes the bytes those of
 *   a PKCS#7-style [0] EXPLICIT wrapper. Readers take the first element.
 * - SM2_SIGN_INFO.cert is a SEQUENCE OF: certificates keep the order in
 *   which they were pushed. crl is a SET OF.
 * - Builders write every AlgorithmIdentifier with an explicit NULL
 *   parameter. */
#ifndef ZEPH_C_P7_H
#define ZEPH_C_P7_H

#include <openssl/asn1.h>
#include <openssl/pkcs7.h>
#include <openssl/safestack.h>
#include <openssl/x509.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

/* Identifiers the messages carry. */
#define ZEPH_OID_SM2_DATA           "1.2.156.10197.6.1.4.2.1" /* data; content of an SM2 envelope */
#define ZEPH_OID_SM2_SIGNED_DATA    "1.2.156.10197.6.1.4.2.2" /* SM2_Sign ID */
#define ZEPH_OID_SM2_ENVELOPED_DATA "1.2.156.10197.6.1.4.2.3" /* SM2_Envelope ID */
#define ZEPH_OID_SM2_SIGN_301       "1.2.156.10197.1.301.1"   /* signature algorithm, "301" variant */
#define ZEPH_OID_SM2_SIGN_501       "1.2.156.10197.1.501"     /* "501" and "EX" variants; SM2 with SM3 */
#define ZEPH_OID_SM2_KEY_ENCRYPTION "1.2.156.10197.1.301.3"   /* SM2 recipient */
#define ZEPH_OID_RSA_ENCRYPTION     "1.2.840.113549.1.1.1"    /* RSA recipient; RSA PKCS#7 signatures */
#define ZEPH_OID_PKCS7_DATA         "1.2.840.113549.1.7.1"    /* content of an RSA envelope */
#define ZEPH_OID_SM4                "1.2.156.10197.1.104"     /* content encryption of every envelope */

/* The structures follow the ASN.1 layouts field by field. */
/* clang-format off */

/* The signed content: ID is ZEPH_OID_SM2_DATA, Data holds the signed bytes
 * as one OCTET STRING ([0] IMPLICIT SEQUENCE OF OCTET STRING, OPTIONAL). */
typedef struct RAW_DATA_SM2_st {
  ASN1_OBJECT *ID;
  STACK_OF(ASN1_OCTET_STRING) *Data;
} RAW_DATA_SM2;

/* The signed-data body. version is written as 1; md_algs and signer_info
 * are SETs; cert is [0] IMPLICIT SEQUENCE OF Certificate, crl [1] IMPLICIT
 * SET OF CertificateList, both OPTIONAL. */
typedef struct SM2_SIGN_INFO_st {
  ASN1_INTEGER *version;
  STACK_OF(X509_ALGOR) *md_algs;
  RAW_DATA_SM2 *contents;
  STACK_OF(X509) *cert;
  STACK_OF(X509_CRL) *crl;
  STACK_OF(PKCS7_SIGNER_INFO) *signer_info;
} SM2_SIGN_INFO;

/* One recipient set and the encrypted content; version is left at 0. */
typedef struct SM2_Envelope_Item_st {
  ASN1_INTEGER *version;
  STACK_OF(PKCS7_RECIP_INFO) *recipientinfo;
  PKCS7_ENC_CONTENT *enc_data;
} SM2_Envelope_Item;

/* OpenSSL 3.0 has no stack functions for OCTET STRINGs. */
#ifndef ZEPH_SK_ASN1_OCTET_STRING_DEFINED
#define ZEPH_SK_ASN1_OCTET_STRING_DEFINED
DEFINE_STACK_OF(ASN1_OCTET_STRING)
#endif
SKM_DEFINE_STACK_OF(SM2_SIGN_INFO, SM2_SIGN_INFO, SM2_SIGN_INFO)
SKM_DEFINE_STACK_OF(SM2_Envelope_Item, SM2_Envelope_Item, SM2_Envelope_Item)

/* The outer signed message: ID is ZEPH_OID_SM2_SIGNED_DATA. */
typedef struct SM2_Sign_st {
  ASN1_OBJECT *ID;
  STACK_OF(SM2_SIGN_INFO) *SM2_Sign_Infos;
} SM2_Sign;

/* The outer enveloped message: ID is ZEPH_OID_SM2_ENVELOPED_DATA. */
typedef struct SM2_Envelope_st {
  ASN1_OBJECT *ID;
  STACK_OF(SM2_Envelope_Item) *SM2_Envelope_Items;
} SM2_Envelope;

/* clang-format on */

DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, RAW_DATA_SM2) DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_SIGN_INFO)
    DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_Sign) DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_Envelope_Item)
        DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SM2_Envelope)

            ZEPH_END_DECLS

#endif
