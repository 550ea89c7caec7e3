// The seal operations as the handle API exports them: thin wrappers that
// pass their arguments through unchanged.
#include "zeph_c_seal.h"

extern "C" {

ZEPH_API uint32_t ZEPH_C_CheckSealType(const unsigned char *data, uint32_t len, int32_t *out_type) {
  const int32_t type = chkSealType(data, len);
  if (out_type != nullptr) *out_type = type;
  return 0;
}

ZEPH_API uint32_t ZEPH_C_GetPicFromSMSeal(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                          uint32_t *pic_len) {
  return getSealPicFromSMSealStructure(seal, seal_len, pic, pic_len);
}

ZEPH_API uint32_t ZEPH_C_GetPicFromGBSeal(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                          uint32_t *pic_len) {
  return getSealPicFromGBSealStructure(seal, seal_len, pic, pic_len);
}

ZEPH_API uint32_t ZEPH_C_GetPicDetailFromSMSeal(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                uint32_t *pic_len, uint32_t *out_width, uint32_t *out_height) {
  return getSealPicDetailFromSMSealStructure(seal, seal_len, pic, pic_len, out_width, out_height);
}

ZEPH_API uint32_t ZEPH_C_GetPicDetailFromGBSeal(const unsigned char *seal, uint32_t seal_len, unsigned char *pic,
                                                uint32_t *pic_len, uint32_t *out_width, uint32_t *out_height) {
  return getSealPicDetailFromGBSealStructure(seal, seal_len, pic, pic_len, out_width, out_height);
}

ZEPH_API uint32_t ZEPH_C_GetPicDetailFromSMSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                        unsigned char *pic, uint32_t *pic_len, uint32_t *out_width,
                                                        uint32_t *out_height) {
  return getSealPicDetailFromSMSESSignature(signature, signature_len, pic, pic_len, out_width, out_height);
}

ZEPH_API uint32_t ZEPH_C_GetPicDetailFromGBSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                        unsigned char *pic, uint32_t *pic_len, uint32_t *out_width,
                                                        uint32_t *out_height) {
  return getSealPicDetailFromGBSESSignature(signature, signature_len, pic, pic_len, out_width, out_height);
}

ZEPH_API uint32_t ZEPH_C_GetSMSealDetail(const unsigned char *seal, uint32_t seal_len, unsigned char *id,
                                         uint32_t *id_len, unsigned char *version, uint32_t *version_len,
                                         unsigned char *vid, uint32_t *vid_len, unsigned char *type, uint32_t *type_len,
                                         unsigned char *name, uint32_t *name_len, unsigned char *cert,
                                         uint32_t *cert_len, unsigned char *valid_start, uint32_t *valid_start_len,
                                         unsigned char *valid_end, uint32_t *valid_end_len, unsigned char *create_date,
                                         uint32_t *create_date_len, unsigned char *maker_subject,
                                         uint32_t *maker_subject_len) {
  return getSMSealDetail(seal, seal_len, id, id_len, version, version_len, vid, vid_len, type, type_len, name, name_len,
                         cert, cert_len, valid_start, valid_start_len, valid_end, valid_end_len, create_date,
                         create_date_len, maker_subject, maker_subject_len);
}

ZEPH_API uint32_t ZEPH_C_GetGBSealDetail(const unsigned char *seal, uint32_t seal_len, unsigned char *id,
                                         uint32_t *id_len, unsigned char *version, uint32_t *version_len,
                                         unsigned char *vid, uint32_t *vid_len, unsigned char *type, uint32_t *type_len,
                                         unsigned char *name, uint32_t *name_len, unsigned char *cert,
                                         uint32_t *cert_len, unsigned char *valid_start, uint32_t *valid_start_len,
                                         unsigned char *valid_end, uint32_t *valid_end_len, unsigned char *create_date,
                                         uint32_t *create_date_len, unsigned char *maker_subject,
                                         uint32_t *maker_subject_len, unsigned char *alg_oid, uint32_t *alg_oid_len) {
  return getGBSealDetail(seal, seal_len, id, id_len, version, version_len, vid, vid_len, type, type_len, name, name_len,
                         cert, cert_len, valid_start, valid_start_len, valid_end, valid_end_len, create_date,
                         create_date_len, maker_subject, maker_subject_len, alg_oid, alg_oid_len);
}

ZEPH_API uint32_t ZEPH_C_GetTBSSignData(uint32_t version, const unsigned char *seal, uint32_t seal_len,
                                        const unsigned char *time, uint32_t time_len, const unsigned char *hash,
                                        uint32_t hash_len, const char *property, uint32_t property_len,
                                        const unsigned char *cert, uint32_t cert_len, const char *alg_oid,
                                        unsigned char *out, uint32_t *out_len) {
  return getTBSSignData(version, seal, seal_len, time, time_len, hash, hash_len, property, property_len, cert, cert_len,
                        alg_oid, out, out_len);
}

ZEPH_API uint32_t ZEPH_C_GetGBTBSSignData(uint32_t version, const unsigned char *seal, uint32_t seal_len,
                                          const char *time, uint32_t time_len, const unsigned char *hash,
                                          uint32_t hash_len, const char *property, uint32_t property_len,
                                          unsigned char *out, uint32_t *out_len) {
  return getGBTBSSignData(version, seal, seal_len, time, time_len, hash, hash_len, property, property_len, out,
                          out_len);
}

ZEPH_API uint32_t ZEPH_C_GetSESSignature(const unsigned char *tbs, uint32_t tbs_len, const unsigned char *sig,
                                         uint32_t sig_len, unsigned char *out, uint32_t *out_len) {
  return getSESSignature(tbs, tbs_len, sig, sig_len, out, out_len);
}

ZEPH_API uint32_t ZEPH_C_GetGBSESSignature(const unsigned char *tbs, uint32_t tbs_len, const unsigned char *sig,
                                           uint32_t sig_len, const unsigned char *cert, uint32_t cert_len,
                                           const char *alg_oid, unsigned char *out, uint32_t *out_len) {
  return getGBSESSignature(tbs, tbs_len, sig, sig_len, cert, cert_len, alg_oid, out, out_len);
}

ZEPH_API uint32_t ZEPH_C_VerifySESSignature(const unsigned char *seal, uint32_t seal_len, const unsigned char *in1,
                                            uint32_t in1_len, const unsigned char *in2, uint32_t in2_len,
                                            const unsigned char *in3, uint32_t in3_len, const unsigned char *in4,
                                            uint32_t in4_len, const unsigned char *signature, uint32_t signature_len,
                                            uint32_t reserved) {
  return verifySESSignature(seal, seal_len, in1, in1_len, in2, in2_len, in3, in3_len, in4, in4_len, signature,
                            signature_len, reserved);
}

ZEPH_API uint32_t ZEPH_C_VerifyGBSESSignature(const unsigned char *seal, uint32_t seal_len, const unsigned char *in1,
                                              uint32_t in1_len, const unsigned char *in2, uint32_t in2_len,
                                              const unsigned char *in3, uint32_t in3_len, const unsigned char *in4,
                                              uint32_t in4_len, const unsigned char *signature, uint32_t signature_len,
                                              uint32_t reserved) {
  return verifyGBSESSignature(seal, seal_len, in1, in1_len, in2, in2_len, in3, in3_len, in4, in4_len, signature,
                              signature_len, reserved);
}

ZEPH_API uint32_t ZEPH_C_GetCertWithGBSESSignature(const unsigned char *signature, uint32_t signature_len,
                                                   unsigned char *cert, uint32_t *cert_len) {
  return getCertWithGBSESSignature(signature, signature_len, cert, cert_len);
}

}  // extern "C"
