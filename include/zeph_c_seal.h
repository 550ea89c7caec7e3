/* Electronic seals: the SES (GM/T 0031) and GB (GB/T 38540) seal and
 * seal-signature structures, seal type detection, pictures and details,
 * building the to-be-signed content and the seal signature, verification,
 * and a tolerant reader for the seals and signatures found in real files.
 *
 * The structures are OpenSSL ASN.1 templates: each type T has the item
 * T_it() and d2i_T, i2d_T, T_new and T_free with OpenSSL's usual contracts
 * (d2i returns null on any mismatch and advances the input; i2d with a null
 * *out allocates, freed with OPENSSL_free; T_free is a deep free and takes
 * null). Member names, including the spelling "Pictrue" and "aignAlgID",
 * are those the formats carry and other parties compile against.
 *
 * Outputs are a buffer and a pointer to its capacity: a null buffer asks for
 * the length (status 0); a capacity at least the length receives the bytes
 * and the length is written back; a smaller one gives ERR_BUFFER_TOO_SMALL.
 * Where a function departs from this, its comment says so. */
#ifndef ZEPH_C_SEAL_H
#define ZEPH_C_SEAL_H

#include <openssl/asn1.h>
#include <openssl/safestack.h>
#include <openssl/x509.h>
#include <stdint.h>

#include "zeph_c_export.h"
#include "zeph_c_status.h"

ZEPH_BEGIN_DECLS

/* Stacks of strings that OpenSSL does not declare itself. */
#ifndef ZEPH_SK_ASN1_OCTET_STRING_DEFINED
#define ZEPH_SK_ASN1_OCTET_STRING_DEFINED
DEFINE_STACK_OF(ASN1_OCTET_STRING)
#endif
#ifndef ZEPH_SK_ASN1_BIT_STRING_DEFINED
#define ZEPH_SK_ASN1_BIT_STRING_DEFINED
DEFINE_STACK_OF(ASN1_BIT_STRING)
#endif

/* ==== SES family ======================================================= */

typedef struct SES_Header_structure_st {
  ASN1_IA5STRING *_ID; /* format identifier */
  ASN1_INTEGER *version;
  ASN1_IA5STRING *Vid; /* vendor identifier */
} SES_Header_structure;

typedef struct SES_ESPropertyInfo_structure_st {
  ASN1_INTEGER *type; /* seal type */
  ASN1_UTF8STRING *name;
  STACK_OF(X509) * certList; /* the first one is the holder's */
  ASN1_UTCTIME *createDate;
  ASN1_UTCTIME *validStart;
  ASN1_UTCTIME *validEnd;
} SES_ESPropertyInfo_structure;

typedef struct SES_ESPictrueInfo_structure_st {
  ASN1_IA5STRING *type; /* picture format text, e.g. "PNG" */
  ASN1_OCTET_STRING *data;
  ASN1_INTEGER *width;
  ASN1_INTEGER *height;
} SES_ESPictrueInfo_structure;

/* _critical is OpenSSL's embedded boolean: -1 is "not set" and is then not
 * encoded; 0 and 1 are encoded, so a FALSE written out by a seal maker
 * survives decoding and encoding again. */
typedef struct VORLI_ExtData_structure_st {
  ASN1_OBJECT *extnID;
  ASN1_BOOLEAN _critical;
  ASN1_OCTET_STRING *extnValue;
} VORLI_ExtData_structure;
DEFINE_STACK_OF(VORLI_ExtData_structure)

typedef struct SES_SignInfo_structure_st {
  ASN1_OCTET_STRING *cert; /* DER of the seal maker's certificate */
  ASN1_OBJECT *signatureAlgorithm;
  ASN1_BIT_STRING *signData;
} SES_SignInfo_structure;

typedef struct SES_SealInfo_structure_st {
  SES_Header_structure *_header;
  ASN1_IA5STRING *esID;
  SES_ESPropertyInfo_structure *_prop;
  SES_ESPictrueInfo_structure *pic;
  STACK_OF(VORLI_ExtData_structure) * extDatas; /* optional: null when absent */
} SES_SealInfo_structure;

typedef struct SESeal_st {
  SES_SealInfo_structure *SES_SealInfo;
  SES_SignInfo_structure *SES_SignInfo;
} SESeal;

typedef struct TBS_Sign_st {
  ASN1_INTEGER *version;
  SESeal *eseal;
  ASN1_BIT_STRING *timeInfo;
  ASN1_BIT_STRING *dataHash;
  ASN1_IA5STRING *propertyInfo;
  ASN1_OCTET_STRING *cert; /* DER of the signer's certificate */
  ASN1_OBJECT *signatureAlgorithm;
} TBS_Sign;

typedef struct SES_Signature_st {
  TBS_Sign *toSign;
  ASN1_BIT_STRING *signature;
} SES_Signature;

/* ==== GB family ======================================================== */

typedef struct GBSES_Header_structure_st {
  ASN1_IA5STRING *_ID;
  ASN1_INTEGER *version;
  ASN1_IA5STRING *Vid;
} GBSES_Header_structure;

typedef struct GB_CertDigestList_structure_st {
  ASN1_PRINTABLESTRING *_type; /* digest algorithm text */
  ASN1_OCTET_STRING *_value;
} GB_CertDigestList_structure;
DEFINE_STACK_OF(GB_CertDigestList_structure)

/* A CHOICE with its selector and one member per alternative (not a union).
 * Both alternatives encode as a universal SEQUENCE; a decoder tries certs
 * first. Only the selected member is encoded and freed. */
#define GBSES_CERLIST_CERTS          0
#define GBSES_CERLIST_CERTDIGESTLIST 1
typedef struct GBSES_CerList_structure_st {
  int type;                            /* -1 none, or one of the two values above */
  STACK_OF(ASN1_OCTET_STRING) * certs; /* DER certificates; the first is the holder's */
  STACK_OF(GB_CertDigestList_structure) * certDigestList;
} GBSES_CerList_structure;

typedef struct GBSES_ESPropertyInfo_structure_st {
  ASN1_INTEGER *type;
  ASN1_UTF8STRING *name;
  ASN1_INTEGER *cerListType; /* which form of certList the issuer meant */
  GBSES_CerList_structure *certList;
  ASN1_GENERALIZEDTIME *createDate;
  ASN1_GENERALIZEDTIME *validStart;
  ASN1_GENERALIZEDTIME *validEnd;
} GBSES_ESPropertyInfo_structure;

typedef struct GBSES_ESPictrueInfo_structure_st {
  ASN1_IA5STRING *type;
  ASN1_OCTET_STRING *data;
  ASN1_INTEGER *width;
  ASN1_INTEGER *height;
} GBSES_ESPictrueInfo_structure;

typedef struct GBVORLI_ExtData_structure_st {
  ASN1_OBJECT *extnID;
  ASN1_BOOLEAN _critical; /* as in VORLI_ExtData_structure */
  ASN1_OCTET_STRING *extnValue;
} GBVORLI_ExtData_structure;
DEFINE_STACK_OF(GBVORLI_ExtData_structure)

typedef struct GBSES_SealInfo_structure_st {
  GBSES_Header_structure *_header;
  ASN1_IA5STRING *esID;
  GBSES_ESPropertyInfo_structure *_prop;
  GBSES_ESPictrueInfo_structure *pic;
  STACK_OF(GBVORLI_ExtData_structure) * extDatas; /* optional */
} GBSES_SealInfo_structure;

typedef struct GBSESeal_st {
  GBSES_SealInfo_structure *eSealInfo;
  ASN1_OCTET_STRING *cert; /* DER of the seal maker's certificate */
  ASN1_OBJECT *aignAlgID;
  ASN1_BIT_STRING *signedValue;
} GBSESeal;

typedef struct GBTBS_Sign_st {
  ASN1_INTEGER *version;
  GBSESeal *eseal;
  ASN1_BIT_STRING *timeInfo; /* content: GeneralizedTime text */
  ASN1_BIT_STRING *dataHash;
  ASN1_IA5STRING *propertyInfo;
  STACK_OF(GBVORLI_ExtData_structure) * extDatas; /* optional, [0] IMPLICIT */
} GBTBS_Sign;

typedef struct GBSES_Signature_st {
  GBTBS_Sign *toSign;
  ASN1_OCTET_STRING *cert; /* DER of the signer's certificate */
  ASN1_OBJECT *signatureAlgID;
  ASN1_BIT_STRING *signature;
  STACK_OF(ASN1_BIT_STRING) * timeStamp; /* optional, [0] IMPLICIT */
} GBSES_Signature;

DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SES_Header_structure) DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API,
                                                                                        SES_ESPropertyInfo_structure)
    DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SES_ESPictrueInfo_structure)
        DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, VORLI_ExtData_structure)
            DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SES_SignInfo_structure)
                DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SES_SealInfo_structure)
                    DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SESeal) DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, TBS_Sign)
                        DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, SES_Signature)

                            DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBSES_Header_structure)
                                DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GB_CertDigestList_structure)
                                    DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBSES_CerList_structure)
                                        DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBSES_ESPropertyInfo_structure)
                                            DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBSES_ESPictrueInfo_structure)
                                                DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBVORLI_ExtData_structure)
                                                    DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBSES_SealInfo_structure)
                                                        DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBSESeal)
                                                            DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBTBS_Sign)
                                                                DECLARE_ASN1_FUNCTIONS_attr(ZEPH_API, GBSES_Signature)

    /* Decode one SES record and print "<type name> is OK." or "... is NG." on
     * standard output; the result is printf's. */
    ZEPH_API int test_parse_pic_struc(const unsigned char *data, uint32_t len);
ZEPH_API int test_parse_header_struc(const unsigned char *data, uint32_t len);
ZEPH_API int test_parse_prop_struc(const unsigned char *data, uint32_t len);
ZEPH_API int test_parse_sealInfo_struc(const unsigned char *data, uint32_t len);
ZEPH_API int test_parse_signInfo_struc(const unsigned char *data, uint32_t len);

/* ==== Seal type detection ============================================== */

#define ZEPH_SEAL_TYPE_TEXT    0    /* the key's text form of seal information */
#define ZEPH_SEAL_TYPE_SES     1    /* an SESeal */
#define ZEPH_SEAL_TYPE_GB      2    /* a GBSESeal */
#define ZEPH_SEAL_TYPE_PICTURE 3    /* a picture-only seal (five-byte record) */
#define ZEPH_SEAL_TYPE_UNKNOWN (-1) /* not recognised, or no input */

/* By length first: 968 bytes (the text form's record) is TEXT and 5 bytes is
 * PICTURE whatever the bytes, even with data null; then SES, then GB. */
ZEPH_API int32_t chkSealType(const unsigned char *data, uint32_t len);
/* By content: "<I" at the start is TEXT, then SES, then GB; no length rules. */
ZEPH_API int32_t chkSealTypeEx(const unsigned char *data, uint32_t len);
/* Always 0; *out_type receives chkSealType's result. */
ZEPH_API uint32_t ZEPH_C_CheckSealType(const unsigned char *data, uint32_t len, int32_t *out_type);

/* ==== Pictures ========================================================= */
/* The picture bytes of a seal, or of the seal inside a seal signature. Input
 * that does not decode as the named structure: ERR_INVALID_PARAMETER with
 * nothing written. The Detail variants store the width and height whenever
 * the input decoded, a short buffer included. */

ZEPH_API uint32_t getSealPicFromSMSealStructure(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                uint32_t *pic_len);
ZEPH_API uint32_t getSealPicFromGBSealStructure(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                uint32_t *pic_len);
ZEPH_API uint32_t getSealPicDetailFromSMSealStructure(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                      uint32_t *pic_len, uint32_t *out_width, uint32_t *out_height);
ZEPH_API uint32_t getSealPicDetailFromGBSealStructure(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                      uint32_t *pic_len, uint32_t *out_width, uint32_t *out_height);
ZEPH_API uint32_t getSealPicDetailFromSMSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                     unsigned char *pic, uint32_t *pic_len, uint32_t *out_width,
                                                     uint32_t *out_height);
ZEPH_API uint32_t getSealPicDetailFromGBSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                     unsigned char *pic, uint32_t *pic_len, uint32_t *out_width,
                                                     uint32_t *out_height);

ZEPH_API uint32_t ZEPH_C_GetPicFromSMSeal(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                          uint32_t *pic_len);
ZEPH_API uint32_t ZEPH_C_GetPicFromGBSeal(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                          uint32_t *pic_len);
ZEPH_API uint32_t ZEPH_C_GetPicDetailFromSMSeal(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                uint32_t *pic_len, uint32_t *out_width, uint32_t *out_height);
ZEPH_API uint32_t ZEPH_C_GetPicDetailFromGBSeal(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                uint32_t *pic_len, uint32_t *out_width, uint32_t *out_height);
ZEPH_API uint32_t ZEPH_C_GetPicDetailFromSMSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                        unsigned char *pic, uint32_t *pic_len, uint32_t *out_width,
                                                        uint32_t *out_height);
ZEPH_API uint32_t ZEPH_C_GetPicDetailFromGBSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                        unsigned char *pic, uint32_t *pic_len, uint32_t *out_width,
                                                        uint32_t *out_height);

/* ==== Seal details ===================================================== */
/* Output pairs in this order: header _ID, header version (the INTEGER's
 * content octets), header Vid, seal type (content octets), name, the first
 * certificate of the list (DER), validStart, validEnd, createDate (times as
 * stored), the DER subject Name of the seal maker's certificate, and for GB
 * the full DER of aignAlgID. Input that does not decode, an empty
 * certificate list or an unreadable maker certificate: ERR_INVALID_PARAMETER.
 * The first short buffer among pairs 1 to 10 ends the call with
 * ERR_BUFFER_TOO_SMALL (its length stored, later pairs untouched); a short
 * buffer for the algorithm only stores its length. */
ZEPH_API uint32_t getSMSealDetail(const unsigned char *seal, uint32_t seal_len, unsigned char *id, uint32_t *id_len,
                                  unsigned char *version, uint32_t *version_len, unsigned char *vid, uint32_t *vid_len,
                                  unsigned char *type, uint32_t *type_len, unsigned char *name, uint32_t *name_len,
                                  unsigned char *cert, uint32_t *cert_len, unsigned char *valid_start,
                                  uint32_t *valid_start_len, unsigned char *valid_end, uint32_t *valid_end_len,
                                  unsigned char *create_date, uint32_t *create_date_len, unsigned char *maker_subject,
                                  uint32_t *maker_subject_len);
ZEPH_API uint32_t getGBSealDetail(const unsigned char *seal, uint32_t seal_len, unsigned char *id, uint32_t *id_len,
                                  unsigned char *version, uint32_t *version_len, unsigned char *vid, uint32_t *vid_len,
                                  unsigned char *type, uint32_t *type_len, unsigned char *name, uint32_t *name_len,
                                  unsigned char *cert, uint32_t *cert_len, unsigned char *valid_start,
                                  uint32_t *valid_start_len, unsigned char *valid_end, uint32_t *valid_end_len,
                                  unsigned char *create_date, uint32_t *create_date_len, unsigned char *maker_subject,
                                  uint32_t *maker_subject_len, unsigned char *alg_oid, uint32_t *alg_oid_len);
ZEPH_API uint32_t ZEPH_C_GetSMSealDetail(const unsigned char *seal, uint32_t seal_len, unsigned char *id,
                                         uint32_t *id_len, unsigned char *version, uint32_t *version_len,
                                         unsigned char *vid, uint32_t *vid_len, unsigned char *type, uint32_t *type_len,
                                         unsigned char *name, uint32_t *name_len, unsigned char *cert,
                                         uint32_t *cert_len, unsigned char *valid_start, uint32_t *valid_start_len,
                                         unsigned char *valid_end, uint32_t *valid_end_len, unsigned char *create_date,
                                         uint32_t *create_date_len, unsigned char *maker_subject,
                                         uint32_t *maker_subject_len);
ZEPH_API uint32_t ZEPH_C_GetGBSealDetail(const unsigned char *seal, uint32_t seal_len, unsigned char *id,
                                         uint32_t *id_len, unsigned char *version, uint32_t *version_len,
                                         unsigned char *vid, uint32_t *vid_len, unsigned char *type, uint32_t *type_len,
                                         unsigned char *name, uint32_t *name_len, unsigned char *cert,
                                         uint32_t *cert_len, unsigned char *valid_start, uint32_t *valid_start_len,
                                         unsigned char *valid_end, uint32_t *valid_end_len, unsigned char *create_date,
                                         uint32_t *create_date_len, unsigned char *maker_subject,
                                         uint32_t *maker_subject_len, unsigned char *alg_oid, uint32_t *alg_oid_len);

/* ==== Building seal signatures ========================================= */
/* Step 1: the to-be-signed DER. Step 2: the caller signs it with the seal
 * holder's key. Step 3: the seal signature from the to-be-signed DER and the
 * signature value. BIT STRINGs are filled from whole octet strings: trailing
 * zero octets are dropped and the unused-bit count comes from the last
 * non-zero octet. Algorithm OIDs are dotted text ("1.2.156.10197.1.501");
 * names are refused. Missing input or input that does not decode:
 * ERR_INVALID_PARAMETER. A short buffer gives ERR_BUFFER_TOO_SMALL without
 * storing the length. */

/* SES: TBS_Sign { version, the seal, time bytes, hash, property text, signer
 * certificate, algorithm }. */
ZEPH_API uint32_t getTBSSignData(uint32_t version, const unsigned char *seal, uint32_t seal_len,
                                 const unsigned char *time, uint32_t time_len, const unsigned char *hash,
                                 uint32_t hash_len, const char *property, uint32_t property_len,
                                 const unsigned char *cert, uint32_t cert_len, const char *alg_oid, unsigned char *out,
                                 uint32_t *out_len);
/* GB: GBTBS_Sign { version, the seal, the time, hash, property text }. The
 * time is zero-terminated GeneralizedTime text ("20240101120000Z"; time_len is
 * not used) carried as the content of a BIT STRING; text OpenSSL does not
 * accept as GeneralizedTime leaves that BIT STRING empty. */
ZEPH_API uint32_t getGBTBSSignData(uint32_t version, const unsigned char *seal, uint32_t seal_len, const char *time,
                                   uint32_t time_len, const unsigned char *hash, uint32_t hash_len,
                                   const char *property, uint32_t property_len, unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t getSESSignature(const unsigned char *tbs, uint32_t tbs_len, const unsigned char *sig,
                                  uint32_t sig_len, unsigned char *out, uint32_t *out_len);
/* The certificate is copied as given (null counts as empty); no time stamp. */
ZEPH_API uint32_t getGBSESSignature(const unsigned char *tbs, uint32_t tbs_len, const unsigned char *sig,
                                    uint32_t sig_len, const unsigned char *cert, uint32_t cert_len, const char *alg_oid,
                                    unsigned char *out, uint32_t *out_len);

ZEPH_API uint32_t ZEPH_C_GetTBSSignData(uint32_t version, const unsigned char *seal, uint32_t seal_len,
                                        const unsigned char *time, uint32_t time_len, const unsigned char *hash,
                                        uint32_t hash_len, const char *property, uint32_t property_len,
                                        const unsigned char *cert, uint32_t cert_len, const char *alg_oid,
                                        unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t ZEPH_C_GetGBTBSSignData(uint32_t version, const unsigned char *seal, uint32_t seal_len,
                                          const char *time, uint32_t time_len, const unsigned char *hash,
                                          uint32_t hash_len, const char *property, uint32_t property_len,
                                          unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t ZEPH_C_GetSESSignature(const unsigned char *tbs, uint32_t tbs_len, const unsigned char *sig,
                                         uint32_t sig_len, unsigned char *out, uint32_t *out_len);
ZEPH_API uint32_t ZEPH_C_GetGBSESSignature(const unsigned char *tbs, uint32_t tbs_len, const unsigned char *sig,
                                           uint32_t sig_len, const unsigned char *cert, uint32_t cert_len,
                                           const char *alg_oid, unsigned char *out, uint32_t *out_len);

/* ==== Verifying seal signatures with the specified structures ========== */
/* The four buffer/length pairs after the seal must be non-null and are not
 * read otherwise; the trailing argument is not used. The signature's
 * to-be-signed content is encoded again and checked with SM2/SM3 (identity
 * "1234567812345678") against the signer certificate inside it; the seal
 * argument only has to decode.
 *
 * SES: ERR_INVALID_PARAMETER for missing or undecodable input and, kept for
 * compatibility, for every signature whose algorithm OID renders as more than
 * one character (that is, every ordinary one); else 0 or
 * ERR_SIGNATURE_INVALID. */
ZEPH_API uint32_t verifySESSignature(const unsigned char *seal, uint32_t seal_len, const unsigned char *in1,
                                     uint32_t in1_len, const unsigned char *in2, uint32_t in2_len,
                                     const unsigned char *in3, uint32_t in3_len, const unsigned char *in4,
                                     uint32_t in4_len, const unsigned char *signature, uint32_t signature_len,
                                     uint32_t reserved);
/* GB: 0 or ERR_SIGNATURE_INVALID, or one of its own statuses: */
#define ZEPH_GBVERIFY_BAD_SIGNATURE    0xFFFFFFFFu /* the signature does not decode */
#define ZEPH_GBVERIFY_BAD_SEAL         0xFFFFFFFEu /* the seal does not decode */
#define ZEPH_GBVERIFY_ENCODE_FAILED    0xFFFFFFFDu /* the to-be-signed content does not encode */
#define ZEPH_GBVERIFY_NO_MEMORY        0xFFFFFFFCu /* no memory for the certificate copy */
#define ZEPH_GBVERIFY_MISSING_ARGUMENT 0xFFFFFFFBu /* a null seal, signature or further buffer */
ZEPH_API uint32_t verifyGBSESSignature(const unsigned char *seal, uint32_t seal_len, const unsigned char *in1,
                                       uint32_t in1_len, const unsigned char *in2, uint32_t in2_len,
                                       const unsigned char *in3, uint32_t in3_len, const unsigned char *in4,
                                       uint32_t in4_len, const unsigned char *signature, uint32_t signature_len,
                                       uint32_t reserved);
ZEPH_API uint32_t ZEPH_C_VerifySESSignature(const unsigned char *seal, uint32_t seal_len, const unsigned char *in1,
                                            uint32_t in1_len, const unsigned char *in2, uint32_t in2_len,
                                            const unsigned char *in3, uint32_t in3_len, const unsigned char *in4,
                                            uint32_t in4_len, const unsigned char *signature, uint32_t signature_len,
                                            uint32_t reserved);
ZEPH_API uint32_t ZEPH_C_VerifyGBSESSignature(const unsigned char *seal, uint32_t seal_len, const unsigned char *in1,
                                              uint32_t in1_len, const unsigned char *in2, uint32_t in2_len,
                                              const unsigned char *in3, uint32_t in3_len, const unsigned char *in4,
                                              uint32_t in4_len, const unsigned char *signature, uint32_t signature_len,
                                              uint32_t reserved);

/* The signer certificate of a GB seal signature. Kept for compatibility: a
 * null buffer stores the length but answers ERR_INVALID_PARAMETER, and a
 * short buffer gives ERR_BUFFER_TOO_SMALL without storing the length. */
ZEPH_API uint32_t getCertWithGBSESSignature(const unsigned char *signature, uint32_t signature_len, unsigned char *cert,
                                            uint32_t *cert_len);
ZEPH_API uint32_t ZEPH_C_GetCertWithGBSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                   unsigned char *cert, uint32_t *cert_len);

/* ==== The key's text form ============================================== */
/* "<I>info</I><P>picture</P><C>cert</C>" (zero-terminated; len is not used)
 * to {"info":"..","pic":"..","cert":".."}, the parts copied as they stand
 * (base64 or hex needs no escaping). Each part runs to the next '<', so an
 * info part holding '<' cuts the parts in the wrong places. *out_json is
 * released with free(). Text that does not start with "<I>" or runs out
 * before its markers: ERR_INVALID_PARAMETER. */
ZEPH_API uint32_t parseVorliSealInfo(const char *text, uint32_t len, char **out_json);
/* Placeholder: does nothing and returns 0. */
ZEPH_API uint32_t getJSONStringOfSealInfo(const unsigned char *data, uint32_t len, char **out_json);

/* ==== Tolerant reader ================================================== */
/* Real seals and signatures differ from the structures above (certificates
 * wrapped in OCTET STRINGs in SES lists, GeneralizedTime signing times,
 * [0] EXPLICIT extensions, a trailing [0] time stamp, raw r||s signature
 * values). These functions read them in place, without re-encoding, from
 * either family. Input that is not a seal or a seal signature:
 * ERR_SEAL_PARSE_FAILED. Text outputs count their terminator toward the
 * capacity; the length written back after a write is the text length. */

/* A JSON object describing a seal ("kind":"seal") or a seal signature
 * ("kind":"signature"); docs/seals.md lists the members. */
ZEPH_API uint32_t ZEPH_C_SealDescribe(const unsigned char *data, uint32_t len, char *out, uint32_t *out_len);
/* The picture bytes of a seal or of the seal inside a signature. */
ZEPH_API uint32_t ZEPH_C_SealPicture(const unsigned char *data, uint32_t len, unsigned char *out, uint32_t *out_len);
/* Verifies a seal signature: the maker's signature over the seal, the
 * signer's over the to-be-signed content, the signing time against the
 * seal's validity, the signer among the seal's certificates, and, when doc is
 * not null, SM3 of doc against the signed hash. The JSON report is written
 * either way; the status is 0 when everything holds and ERR_SIGNATURE_INVALID
 * when something does not. */
ZEPH_API uint32_t ZEPH_C_SealVerify(const unsigned char *sig, uint32_t sig_len, const unsigned char *doc,
                                    uint32_t doc_len, char *out, uint32_t *out_len);

/* ==== Seals on a key ==================================================== */
/* A key keeps up to ten seals in its seal application (VorliStamp). Slot 1
 * spans three files: "Cert" holds "0" for a DER seal (whose bytes are in
 * "Picture"), or the 968-byte information record of a text-form seal, whose
 * picture is in "Picture" and certificate in "CertChain". Slot n of 2 to 10
 * is the file "Picture<n>" holding text: a DER seal as base64, a text-form
 * seal as "<I>info</I><P>picture</P><C>certificate</C>" of base64 parts.
 *
 * The seal application's PIN is the key serial number text (the keySN),
 * proven by the user PIN and never stored; the writers use at most its first
 * 16 characters. Each call opens its own session and closes it on every
 * path. A null handle or one without a device context gives 0xFFFFFFFF;
 * vendor statuses pass through unchanged. */

#define ZEPH_SEAL_SLOT_FIRST 1u
#define ZEPH_SEAL_SLOT_LAST  10u
#define ZEPH_SEAL_PIN_MAX    16u /* characters of the seal PIN the writers use */

/* Writes seal bytes to the seal application after verifying the seal PIN.
 * A seal of either family (SES or GB) goes to slot 1: "0" into "Cert", then,
 * only when that succeeded, the seal into "Picture". Anything else is
 * written as it is to `area` (2 "Picture", 3 "CertChain", any other "Cert").
 * key_sn is not used. */
ZEPH_API uint32_t ZEPH_C_SetSealInfo(void *handle, const char *pin, const char *key_sn, uint32_t area,
                                     const unsigned char *data, uint32_t data_len);
/* Writes slot `slot` after verifying the seal PIN, by the kind of seal:
 *   slot 0: ERR_DEVICE_FILE_WRITE_FAILED (nothing written);
 *   slot 1, kind 1 (SES) or 2 (GB): "0" into "Cert", then `data` into
 *     "Picture";
 *   slot 1, kind 0 (text form): `data` (the information record) into "Cert",
 *     `pic` into "Picture", `cert` into "CertChain";
 *   slot 2 and up, kind 1 or 2: `data` (base64 text) into "Picture<n>";
 *   slot 2 and up, kind 0: "<I>data</I><P>pic</P><C>cert</C>" (texts of the
 *     given lengths) into "Picture<n>";
 *   any other kind: nothing is written; the result is the PIN check's.
 * Each write happens only when the previous one succeeded. */
ZEPH_API uint32_t ZEPH_C_SetSealInfoEx(void *handle, const char *pin, const char *key_sn, uint32_t slot, uint32_t kind,
                                       const unsigned char *data, uint32_t data_len, const unsigned char *pic,
                                       uint32_t pic_len, const unsigned char *cert, uint32_t cert_len);
/* Reads the file of a seal area (as ZEPH_C_SetSealInfo names them) or of an
 * extended slot ("Picture<n>"); no PIN. A null buffer asks for the file
 * size; otherwise *in_out_len is the capacity and receives the bytes read
 * (a short buffer gets the vendor's status). */
ZEPH_API uint32_t ZEPH_C_GetSealInfo(void *handle, uint32_t area, unsigned char *out, uint32_t *in_out_len);
ZEPH_API uint32_t ZEPH_C_GetSealInfoEx(void *handle, uint32_t slot, unsigned char *out, uint32_t *in_out_len);
/* The seal PIN: verifies user_pin on the RSA area, and when that fails on
 * the SM2 area (whose failure is returned), then copies the first
 * ZEPH_SEAL_PIN_MAX characters of key_sn and a terminator to out_pin (17
 * bytes) and their count to *out_len. An empty or null key_sn gives
 * 0xFFFFFFFF before any PIN is tried. ZEPH_C_GetSealSessionPinSpec skips the user PIN. */
ZEPH_API uint32_t ZEPH_C_GetSealSessionPin(void *handle, const char *key_sn, const char *user_pin, char *out_pin,
                                           uint32_t *out_len);
ZEPH_API uint32_t ZEPH_C_GetSealSessionPinSpec(void *handle, const char *key_sn, char *out_pin, uint32_t *out_len);

ZEPH_END_DECLS

#endif
