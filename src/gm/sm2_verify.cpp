// SM2 signature verification with a key, a certificate or a certificate
// file; the strict DER reading of the signature.
#include "gm/sm2_verify.hpp"

#include <cstring>

#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "gm/sm2_keys.hpp"
#include "zeph_c_sm2.h"

namespace zeph::gm::sm2 {
namespace {

using Bytes = std::span<const uint8_t>;

// One element with the given tag and a definite length in its shortest
// form (at most 65535 bytes, far beyond any signature).
bool ReadElement(Bytes &in, uint8_t tag, Bytes *content) {
  if (in.size() < 2 || in[0] != tag) return false;
  size_t len = in[1], header = 2;
  if (len == 0x81) {
    if (in.size() < 3 || in[2] < 0x80) return false;
    len = in[2];
    header = 3;
  } else if (len == 0x82) {
    if (in.size() < 4 || in[2] == 0) return false;
    len = size_t{in[2]} << 8 | in[3];
    header = 4;
  } else if (len >= 0x80) {
    return false;
  }
  if (in.size() - header < len) return false;
  *content = in.subspan(header, len);
  in = in.subspan(header + len);
  return true;
}

// False when the INTEGER is malformed; *in_range false when it is negative
// or longer than 32 bytes.
bool ReadInteger(Bytes &in, Scalar *out, bool *in_range) {
  Bytes c;
  if (!ReadElement(in, 0x02, &c) || c.empty()) return false;
  if (c.size() > 1 && ((c[0] == 0x00 && c[1] < 0x80) || (c[0] == 0xFF && c[1] >= 0x80))) return false;
  if (c[0] & 0x80) {
    *in_range = false;
    return true;
  }
  if (c[0] == 0x00) c = c.subspan(1);
  if (c.size() > kScalarLen) {
    *in_range = false;
    return true;
  }
  std::memset(out->b, 0, kScalarLen - c.size());
  if (!c.empty()) std::memcpy(out->b + kScalarLen - c.size(), c.data(), c.size());
  *in_range = true;
  return true;
}

}  // namespace

uint32_t ParseSignature(std::span<const uint8_t> der, Scalar *r, Scalar *s) {
  Bytes seq;
  bool r_ok = false, s_ok = false;
  if (!ReadElement(der, 0x30, &seq) || !der.empty() || !ReadInteger(seq, r, &r_ok) || !ReadInteger(seq, s, &s_ok) ||
      !seq.empty()) {
    return BIVO_ERR_SIGNATURE_FORMAT;
  }
  return r_ok && s_ok ? 0 : BIVO_ERR_VERIFY;
}

uint32_t VerifyDigest(const uint8_t e[32], const Point &key, const Scalar &r, const Scalar &s) {
  if (!InRange(r) || !InRange(s)) return BIVO_ERR_VERIFY;
  Scalar t;
  ModAdd(r, s, &t);
  if (IsZero(t)) return BIVO_ERR_VERIFY;
  // R = (e + x1) mod n equals r exactly when x1 ≡ r − e (mod n); the check
  // runs on the projective point and saves the affine conversion.
  Scalar e_mod_n, x1_expected;
  Reduce(e, &e_mod_n);
  ModSub(r, e_mod_n, &x1_expected);
  return MulBaseAddXModN(s, t, key, x1_expected) ? 0 : BIVO_ERR_VERIFY;
}

}  // namespace zeph::gm::sm2

namespace sm2 = zeph::gm::sm2;

extern "C" {

ZEPH_API uint32_t BIVO_VerifySm2SignatureOnDigestWithPubKey(const unsigned char *e32, const unsigned char *pubkey65,
                                                            uint32_t pubkey_len, const unsigned char *sig_der,
                                                            uint32_t sig_len) {
  if (e32 == nullptr || pubkey65 == nullptr || (sig_der == nullptr && sig_len != 0)) return BIVO_ERR_NULL_POINTER;
  sm2::Scalar r, s;
  ZEPH_TRY(sm2::ParseSignature({sig_der, sig_len}, &r, &s));
  sm2::Point key;
  if (!sm2::KeyFromArgument(pubkey65, pubkey_len, &key)) return BIVO_ERR_VERIFY;
  return sm2::VerifyDigest(e32, key, r, s);
}

ZEPH_API uint32_t BIVO_VerifySm2SignatureWithPubKey(const unsigned char *msg, uint32_t msg_len, const char *id,
                                                    const unsigned char *pubkey65, uint32_t pubkey_len,
                                                    const unsigned char *sig_der, uint32_t sig_len) {
  if ((msg == nullptr && msg_len != 0) || id == nullptr || pubkey65 == nullptr) return BIVO_ERR_NULL_POINTER;
  // Z reads the whole key.
  if (pubkey_len < sm2::kPointLen) return BIVO_ERR_VERIFY;
  uint8_t e[32];
  ZEPH_TRY(BIVO_ComputePreprocessSm3Digest(id, pubkey65, pubkey_len, msg, msg_len, e));
  return BIVO_VerifySm2SignatureOnDigestWithPubKey(e, pubkey65, pubkey_len, sig_der, sig_len);
}

ZEPH_API uint32_t BIVO_VerifySm2Signature(const unsigned char *msg, uint32_t msg_len, const unsigned char *cert_der,
                                          uint32_t cert_len, const unsigned char *sig_der, uint32_t sig_len) {
  uint8_t key[sm2::kPointLen];
  ZEPH_TRY(sm2::CertKey(cert_der, cert_len, key));
  return BIVO_VerifySm2SignatureWithPubKey(msg, msg_len, zeph::kDefaultSm2Id, key, sizeof key, sig_der, sig_len);
}

ZEPH_API uint32_t BIVO_VerifySm2SignatureWithCertFile(const unsigned char *msg, uint32_t msg_len, const char *path,
                                                      const unsigned char *sig_der, uint32_t sig_len) {
  if (path == nullptr) return BIVO_ERR_NULL_POINTER;
  uint8_t key[sm2::kPointLen];
  ZEPH_TRY(sm2::CertFileKey(path, key));
  return BIVO_VerifySm2SignatureWithPubKey(msg, msg_len, zeph::kDefaultSm2Id, key, sizeof key, sig_der, sig_len);
}

}  // extern "C"
