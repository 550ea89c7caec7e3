// Requests are assembled by hand around a signer, so that one builder serves
// keys on a device (which sign bytes) and keys in software alike.
#include "pki/csr.hpp"

#include <openssl/core_names.h>
#include <openssl/err.h>

#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_status.h"

namespace zeph::pki {

const uint8_t kTestSm2PrivateKey[32] = {0x39, 0x45, 0x20, 0x8F, 0x7B, 0x21, 0x44, 0xB1, 0x3F, 0x36, 0xE3,
                                        0x8A, 0xC6, 0xD3, 0x9F, 0x95, 0x88, 0x93, 0x93, 0x69, 0x28, 0x60,
                                        0xB5, 0x1A, 0x42, 0xFB, 0x81, 0xEF, 0x4D, 0xF7, 0xC5, 0xB8};
const uint8_t kTestSm2PublicKey[65] = {0x04, 0x09, 0xF9, 0xDF, 0x31, 0x1E, 0x54, 0x21, 0xA1, 0x50, 0xDD, 0x7D, 0x16,
                                       0x1E, 0x4B, 0xC5, 0xC6, 0x72, 0x17, 0x9F, 0xAD, 0x18, 0x33, 0xFC, 0x07, 0x6B,
                                       0xB0, 0x8F, 0xF3, 0x56, 0xF3, 0x50, 0x20, 0xCC, 0xEA, 0x49, 0x0C, 0xE2, 0x67,
                                       0x75, 0xA5, 0x2D, 0xC6, 0xEA, 0x71, 0x8C, 0xC1, 0xAA, 0x60, 0x0A, 0xED, 0x05,
                                       0xFB, 0xF3, 0x5E, 0x08, 0x4A, 0x66, 0x32, 0xF6, 0x07, 0x2D, 0xA9, 0xAD, 0x13};

namespace {

const EVP_MD *RsaDigest(uint32_t digest_id) {
  switch (digest_id & 0xFFFFu) {
    case 0:
    case 4:
      return EVP_sha256();
    case 2:
      return EVP_sha1();
    case 8:
      return EVP_sha384();
    case 16:
      return EVP_sha512();
    default:
      return nullptr;
  }
}

}  // namespace

uint32_t BuildCsr(const X509_NAME *subject, EVP_PKEY *key, const TbsSigner &sign, Bytes *out_der) {
  const bool sm2 = IsSm2Key(key);
  X509ReqPtr req(X509_REQ_new());
  X509AlgorPtr alg(X509_ALGOR_new());
  if (!req || !alg) return ERR_OUT_OF_MEMORY;
  // SM2-with-SM3 has no parameters; RSA signature algorithms carry NULL.
  if (X509_REQ_set_version(req.get(), 0) != 1 || X509_REQ_set_subject_name(req.get(), subject) != 1 ||
      X509_REQ_set_pubkey(req.get(), key) != 1 ||
      X509_ALGOR_set0(alg.get(), OBJ_nid2obj(sm2 ? NID_SM2_with_SM3 : NID_sha256WithRSAEncryption),
                      sm2 ? V_ASN1_UNDEF : V_ASN1_NULL, nullptr) != 1 ||
      X509_REQ_set1_signature_algo(req.get(), alg.get()) != 1) {
    ERR_clear_error();
    return ERR_CSR_FAILED;
  }
  unsigned char *tbs = nullptr;
  const int tbs_len = i2d_re_X509_REQ_tbs(req.get(), &tbs);
  const OpenSslPtr<unsigned char> tbs_owner(tbs);
  if (tbs_len <= 0) return ERR_CSR_FAILED;
  Bytes sig;
  ZEPH_TRY(sign({tbs, static_cast<size_t>(tbs_len)}, &sig));

  ASN1_BIT_STRING *bits = ASN1_BIT_STRING_new();
  if (bits == nullptr || ASN1_BIT_STRING_set(bits, sig.data(), static_cast<int>(sig.size())) != 1) {
    ASN1_BIT_STRING_free(bits);
    return ERR_OUT_OF_MEMORY;
  }
  // A signature has no unused bits, whatever its last byte.
  bits->flags = (bits->flags & ~0x07L) | ASN1_STRING_FLAG_BITS_LEFT;
  X509_REQ_set0_signature(req.get(), bits);
  unsigned char *der = nullptr;
  const int len = i2d_X509_REQ(req.get(), &der);
  if (len <= 0) return ERR_CSR_FAILED;
  out_der->assign(der, der + len);
  OPENSSL_free(der);
  return 0;
}

uint32_t SignWithKey(EVP_PKEY *key, std::span<const uint8_t> data, uint32_t digest_id, Bytes *out_sig) {
  const bool sm2 = IsSm2Key(key);
  const EVP_MD *md = sm2 ? EVP_sm3() : RsaDigest(digest_id);
  if (md == nullptr) return ERR_UNSUPPORTED_VALUE;
  EvpMdCtxPtr mctx(EVP_MD_CTX_new());
  EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  if (!mctx || !pctx) return ERR_OUT_OF_MEMORY;
  if (sm2) {
    if (EVP_PKEY_CTX_set1_id(pctx.get(), kDefaultSm2Id, kDefaultSm2IdLen) != 1) return ERR_SIGN_FAILED;
    EVP_MD_CTX_set_pkey_ctx(mctx.get(), pctx.get());  // mctx borrows pctx
  }
  size_t len = 0;
  const bool ok = EVP_DigestSignInit(mctx.get(), nullptr, md, nullptr, key) == 1 &&
                  EVP_DigestSign(mctx.get(), nullptr, &len, data.data(), data.size()) == 1 &&
                  (out_sig->resize(len), true) &&
                  EVP_DigestSign(mctx.get(), out_sig->data(), &len, data.data(), data.size()) == 1;
  ERR_clear_error();
  if (!ok) return ERR_SIGN_FAILED;
  out_sig->resize(len);
  return 0;
}

uint32_t GenerateKey(uint32_t alg, EvpPkeyPtr *out) {
  EVP_PKEY *key = nullptr;
  if (alg == 2) {
    key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  } else if (alg == 1024 || alg == 2048 || alg == 3072 || alg == 4096) {
    key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(alg));
  } else {
    return ERR_UNSUPPORTED_VALUE;
  }
  ERR_clear_error();
  if (key == nullptr) return ERR_GEN_KEYPAIR_FAILED;
  out->reset(key);
  return 0;
}

uint32_t Sm2PublicKey(std::span<const uint8_t> point, EvpPkeyPtr *out) {
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!bld || OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, "SM2", 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) != 1) {
    return ERR_OUT_OF_MEMORY;
  }
  ParamPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr));
  EVP_PKEY *key = nullptr;
  const bool ok = params && ctx && EVP_PKEY_fromdata_init(ctx.get()) == 1 &&
                  EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) == 1;
  ERR_clear_error();
  if (!ok) return ERR_PUBKEY_CONVERT_FAILED;
  out->reset(key);
  return 0;
}

uint32_t TestSm2Key(EvpPkeyPtr *out) { return ReadPrivateKey(kTestSm2PrivateKey, nullptr, out); }

}  // namespace zeph::pki
