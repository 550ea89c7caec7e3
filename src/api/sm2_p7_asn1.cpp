// ASN.1 templates of the GM/T SM2 signed-data and envelope messages.
#include <openssl/asn1t.h>

#include "zeph_c_p7.h"

// clang-format off
ASN1_SEQUENCE(RAW_DATA_SM2) = {
    ASN1_SIMPLE(RAW_DATA_SM2, ID, ASN1_OBJECT),
    ASN1_IMP_SEQUENCE_OF_OPT(RAW_DATA_SM2, Data, ASN1_OCTET_STRING, 0),
} ASN1_SEQUENCE_END(RAW_DATA_SM2)

ASN1_SEQUENCE(SM2_SIGN_INFO) = {
    ASN1_SIMPLE(SM2_SIGN_INFO, version, ASN1_INTEGER),
    ASN1_SET_OF(SM2_SIGN_INFO, md_algs, X509_ALGOR),
    ASN1_SIMPLE(SM2_SIGN_INFO, contents, RAW_DATA_SM2),
    ASN1_IMP_SEQUENCE_OF_OPT(SM2_SIGN_INFO, cert, X509, 0),
    ASN1_IMP_SET_OF_OPT(SM2_SIGN_INFO, crl, X509_CRL, 1),
    ASN1_SET_OF(SM2_SIGN_INFO, signer_info, PKCS7_SIGNER_INFO),
} ASN1_SEQUENCE_END(SM2_SIGN_INFO)

ASN1_SEQUENCE(SM2_Sign) = {
    ASN1_SIMPLE(SM2_Sign, ID, ASN1_OBJECT),
    ASN1_IMP_SEQUENCE_OF_OPT(SM2_Sign, SM2_Sign_Infos, SM2_SIGN_INFO, 0),
} ASN1_SEQUENCE_END(SM2_Sign)

ASN1_SEQUENCE(SM2_Envelope_Item) = {
    ASN1_SIMPLE(SM2_Envelope_Item, version, ASN1_INTEGER),
    ASN1_SET_OF(SM2_Envelope_Item, recipientinfo, PKCS7_RECIP_INFO),
    ASN1_SIMPLE(SM2_Envelope_Item, enc_data, PKCS7_ENC_CONTENT),
} ASN1_SEQUENCE_END(SM2_Envelope_Item)

ASN1_SEQUENCE(SM2_Envelope) = {
    ASN1_SIMPLE(SM2_Envelope, ID, ASN1_OBJECT),
    ASN1_IMP_SEQUENCE_OF_OPT(SM2_Envelope, SM2_Envelope_Items, SM2_Envelope_Item, 0),
} ASN1_SEQUENCE_END(SM2_Envelope)

IMPLEMENT_ASN1_FUNCTIONS(RAW_DATA_SM2)
IMPLEMENT_ASN1_FUNCTIONS(SM2_SIGN_INFO)
IMPLEMENT_ASN1_FUNCTIONS(SM2_Sign)
IMPLEMENT_ASN1_FUNCTIONS(SM2_Envelope_Item)
IMPLEMENT_ASN1_FUNCTIONS(SM2_Envelope)
    // clang-format on

    extern "C" {
  ZEPH_API const char *getHashAlgOID(uint32_t hash_id) {
    switch (hash_id) {
      case 1:
        return "1.2.156.10197.1.401";  // SM3
      case 2:
        return "1.3.14.3.2.26";  // SHA-1
      case 4:
        return "2.16.840.1.101.3.4.2.1";  // SHA-256
      case 8:
        return "2.16.840.1.101.3.4.2.2";  // SHA-384
      case 16:
        return "2.16.840.1.101.3.4.2.3";  // SHA-512
      case 32:
        return "2.16.840.1.101.3.4.2.4";  // SHA-224
      case 128:
        return "1.2.840.113549.2.5";  // MD5
      default:
        return nullptr;
    }
  }

}  // extern "C"
