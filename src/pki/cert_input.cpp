// Readers for certificates, certificate lists, names and private keys that
// come from outside, and the writers for bundles and keys.
#include "pki/cert_input.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>

#include "api/p7_internal.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace zeph::pki {
namespace {

constexpr std::string_view kPemMarker = "-----BEGIN";
constexpr int kPbeIterations = 10000;
constexpr int kPbeSaltLen = 16;

using PbeParamPtr = std::unique_ptr<PBEPARAM, Free<PBEPARAM_free>>;
using Pbe2ParamPtr = std::unique_ptr<PBE2PARAM, Free<PBE2PARAM_free>>;
using Pbkdf2ParamPtr = std::unique_ptr<PBKDF2PARAM, Free<PBKDF2PARAM_free>>;

bool LooksPem(std::span<const uint8_t> bytes) {
  const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  return text.find(kPemMarker) != std::string_view::npos;
}

BioPtr MemBio(std::span<const uint8_t> bytes) {
  if (bytes.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return nullptr;
  return BioPtr(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

// One PEM block: its type and its decoded bytes (wiped: it may be a key).
struct PemBlock {
  char *name = nullptr;
  char *header = nullptr;
  unsigned char *data = nullptr;
  long len = 0;
  PemBlock() = default;
  PemBlock(const PemBlock &) = delete;
  PemBlock &operator=(const PemBlock &) = delete;
  ~PemBlock() {
    OPENSSL_free(name);
    OPENSSL_free(header);
    OPENSSL_clear_free(data, static_cast<size_t>(len));
  }
  bool Read(BIO *bio) { return PEM_read_bio(bio, &name, &header, &data, &len) == 1; }
};

void ReadPemList(std::span<const uint8_t> bytes, std::vector<X509Ptr> *out) {
  BioPtr bio = MemBio(bytes);
  if (!bio) return;
  for (;;) {
    PemBlock block;
    if (!block.Read(bio.get())) break;
    const std::string_view type = block.name;
    const unsigned char *p = block.data;
    if (type == PEM_STRING_X509 || type == PEM_STRING_X509_OLD || type == PEM_STRING_X509_TRUSTED) {
      X509Ptr x(type == PEM_STRING_X509_TRUSTED ? d2i_X509_AUX(nullptr, &p, block.len)
                                                : d2i_X509(nullptr, &p, block.len));
      if (x) out->push_back(std::move(x));
    } else if (type == PEM_STRING_PKCS7) {
      std::vector<X509Ptr> bundle;
      if (p7::ReadBundle({block.data, static_cast<size_t>(block.len)}, &bundle) == 0) {
        for (X509Ptr &x : bundle) out->push_back(std::move(x));
      }
    }
  }
  ERR_clear_error();
}

void ReadDerList(std::span<const uint8_t> bytes, std::vector<X509Ptr> *out) {
  // Certificates one after another (one is the common case). Decoding a
  // certificate is most of the cost here, so each is decoded once.
  std::vector<X509Ptr> certs;
  const unsigned char *p = bytes.data();
  const unsigned char *end = bytes.data() + bytes.size();
  while (p < end) {
    X509Ptr x(d2i_X509(nullptr, &p, end - p));
    if (!x) break;
    certs.push_back(std::move(x));
  }
  if (p == end) {
    *out = std::move(certs);
  } else if (certs.empty()) {
    // Else a bundle, read as the signing code reads them; a list that
    // breaks off after a certificate gives nothing.
    p7::ReadBundle(bytes, out);
  }
}

// Trims ASCII blanks.
std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// Splits at unescaped separators; escapes stay in the pieces.
std::vector<std::string_view> SplitEscaped(std::string_view text, char sep) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == sep) {
      parts.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  parts.push_back(text.substr(start));
  return parts;
}

// Drops the escaping backslashes; false for a backslash at the very end.
bool Unescape(std::string_view s, std::string *out) {
  out->clear();
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\') {
      if (++i == s.size()) return false;
    }
    out->push_back(s[i]);
  }
  return true;
}

// The iteration count of a password-based scheme, or -1 when the scheme is
// not one this library opens.
long PbeIterations(const X509_ALGOR *alg) {
  const ASN1_OBJECT *oid = nullptr;
  int ptype = 0;
  const void *pval = nullptr;
  X509_ALGOR_get0(&oid, &ptype, &pval, alg);
  if (ptype != V_ASN1_SEQUENCE || pval == nullptr) return -1;
  const auto *seq = static_cast<const ASN1_STRING *>(pval);
  const unsigned char *p = ASN1_STRING_get0_data(seq);
  const long len = ASN1_STRING_length(seq);
  const int nid = OBJ_obj2nid(oid);
  const ASN1_INTEGER *iter = nullptr;
  PbeParamPtr pbe;
  Pbe2ParamPtr pbe2;
  Pbkdf2ParamPtr kdf;
  if (nid == NID_pbes2) {
    pbe2.reset(d2i_PBE2PARAM(nullptr, &p, len));
    if (!pbe2 || pbe2->keyfunc == nullptr || OBJ_obj2nid(pbe2->keyfunc->algorithm) != NID_id_pbkdf2) return -1;
    const ASN1_TYPE *kp = pbe2->keyfunc->parameter;
    if (kp == nullptr || kp->type != V_ASN1_SEQUENCE) return -1;
    const unsigned char *q = ASN1_STRING_get0_data(kp->value.sequence);
    kdf.reset(d2i_PBKDF2PARAM(nullptr, &q, ASN1_STRING_length(kp->value.sequence)));
    if (!kdf) return -1;
    iter = kdf->iter;
  } else if (EVP_PBE_find(EVP_PBE_TYPE_OUTER, nid, nullptr, nullptr, nullptr) == 1) {
    pbe.reset(d2i_PBEPARAM(nullptr, &p, len));
    if (!pbe) return -1;
    iter = pbe->iter;
  } else {
    return -1;
  }
  long n = 0;
  if (iter == nullptr || ASN1_INTEGER_get_int64(reinterpret_cast<int64_t *>(&n), iter) != 1 || n < 1) return -1;
  return n;
}

uint32_t Sm2FromScalar(std::span<const uint8_t> d, EvpPkeyPtr *out) {
  EcGroupPtr group(EC_GROUP_new_by_curve_name(NID_sm2));
  BnPtr scalar(BN_bin2bn(d.data(), static_cast<int>(d.size()), nullptr));
  BnPtr limit(BN_new());
  if (!group || !scalar || !limit) return ERR_OUT_OF_MEMORY;
  // d in [1, n-2]: 1 + d must be invertible for signing.
  if (BN_sub(limit.get(), EC_GROUP_get0_order(group.get()), BN_value_one()) != 1) return ERR_OUT_OF_MEMORY;
  if (BN_is_zero(scalar.get()) || BN_cmp(scalar.get(), limit.get()) >= 0) return ERR_INVALID_PARAMETER;
  EcPointPtr point(EC_POINT_new(group.get()));
  uint8_t pub[1 + 2 * kSm2CoordLen];
  if (!point || EC_POINT_mul(group.get(), point.get(), scalar.get(), nullptr, nullptr, nullptr) != 1 ||
      EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, pub, sizeof pub, nullptr) !=
          sizeof pub) {
    return ERR_INVALID_PARAMETER;
  }
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!bld || OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, "SM2", 0) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar.get()) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, pub, sizeof pub) != 1) {
    return ERR_OUT_OF_MEMORY;
  }
  ParamPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr));
  EVP_PKEY *key = nullptr;
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_KEYPAIR, params.get()) != 1) {
    ERR_clear_error();
    return ERR_INVALID_PARAMETER;
  }
  out->reset(key);
  return 0;
}

// RSA and SM2 keys only; an EC key on the SM2 curve becomes an SM2 key, so
// that signing with it is SM2 and not ECDSA.
uint32_t AcceptKey(EVP_PKEY *raw, EvpPkeyPtr *out) {
  EvpPkeyPtr key(raw);
  ERR_clear_error();
  if (!key) return ERR_INVALID_PARAMETER;
  if (IsRsaKey(key.get()) || EVP_PKEY_is_a(key.get(), "SM2")) {
    *out = std::move(key);
    return 0;
  }
  if (!IsSm2Key(key.get())) return ERR_UNSUPPORTED_VALUE;
  BIGNUM *d = nullptr;
  if (EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_PRIV_KEY, &d) != 1) return ERR_INVALID_PARAMETER;
  const BnPtr scalar(d);
  SecureBytes bytes(kSm2CoordLen);
  if (BN_bn2binpad(scalar.get(), bytes.data(), static_cast<int>(bytes.size())) < 0) return ERR_INVALID_PARAMETER;
  return Sm2FromScalar(bytes.span(), out);
}

uint32_t KeyFromP8(const PKCS8_PRIV_KEY_INFO *p8, EvpPkeyPtr *out) { return AcceptKey(EVP_PKCS82PKEY(p8), out); }

int NoPassword(char *, int, int, void *) { return -1; }

}  // namespace

bool IsSm2Key(const EVP_PKEY *key) {
  if (key == nullptr) return false;
  if (EVP_PKEY_is_a(key, "SM2")) return true;
  if (!EVP_PKEY_is_a(key, "EC")) return false;
  char group[32] = {0};
  size_t n = 0;
  return EVP_PKEY_get_group_name(key, group, sizeof group, &n) == 1 && std::strcmp(group, "SM2") == 0;
}

bool IsRsaKey(const EVP_PKEY *key) { return key != nullptr && EVP_PKEY_is_a(key, "RSA"); }

uint32_t ReadCert(std::span<const uint8_t> bytes, X509Ptr *out) {
  if (bytes.empty() || bytes.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    return ERR_CERT_DECODE_FAILED;
  }
  X509Ptr x;
  if (LooksPem(bytes)) {
    BioPtr bio = MemBio(bytes);
    if (bio) x.reset(PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr));
  } else {
    x = p7::DecodeCert(bytes);
  }
  ERR_clear_error();
  if (!x) return ERR_CERT_DECODE_FAILED;
  ZEPH_TRY(UseDefaultSm2Id(x.get()));
  *out = std::move(x);
  return 0;
}

uint32_t ReadCertList(std::span<const uint8_t> bytes, std::vector<X509Ptr> *out) {
  out->clear();
  if (bytes.empty() || bytes.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    return ERR_CERT_CHAIN_FAILED;
  }
  if (LooksPem(bytes)) {
    ReadPemList(bytes, out);
  } else {
    ReadDerList(bytes, out);
  }
  ERR_clear_error();
  if (out->empty()) return ERR_CERT_CHAIN_FAILED;
  for (const X509Ptr &x : *out) ZEPH_TRY(UseDefaultSm2Id(x.get()));
  return 0;
}

uint32_t BuildCertBundle(std::span<X509 *const> certs, Bytes *out_der) {
  Pkcs7Ptr p7(PKCS7_new());
  if (!p7 || PKCS7_set_type(p7.get(), NID_pkcs7_signed) != 1 || ASN1_INTEGER_set(p7->d.sign->version, 1) != 1 ||
      PKCS7_content_new(p7.get(), NID_pkcs7_data) != 1) {
    return ERR_OUT_OF_MEMORY;
  }
  for (X509 *x : certs) {
    if (PKCS7_add_certificate(p7.get(), x) != 1) return ERR_OUT_OF_MEMORY;
  }
  const int len = i2d_PKCS7(p7.get(), nullptr);
  if (len <= 0) return ERR_ENCODE_FAILED;
  out_der->resize(static_cast<size_t>(len));
  unsigned char *p = out_der->data();
  return i2d_PKCS7(p7.get(), &p) == len ? 0 : ERR_ENCODE_FAILED;
}

uint32_t TextBytes(std::string_view text, Bytes *out) {
  const std::span<const uint8_t> raw(reinterpret_cast<const uint8_t *>(text.data()), text.size());
  if (LooksPem(raw)) {
    out->assign(raw.begin(), raw.end());
    return 0;
  }
  const std::string copy(text);
  uint32_t n = 0;
  if (copy.empty() || zeph_c_utils_b64tohex2(copy.c_str(), nullptr, &n) != 0) return ERR_BASE64_INVALID;
  out->resize(n);
  ZEPH_TRY(zeph_c_utils_b64tohex2(copy.c_str(), out->data(), &n));
  out->resize(n);
  return 0;
}

uint32_t ParseDn(std::string_view text, X509NamePtr *out) {
  text = Trim(text);
  const bool slashes = !text.empty() && text.front() == '/';
  if (slashes) text.remove_prefix(1);
  if (text.empty()) return ERR_INVALID_PARAMETER;
  X509NamePtr name(X509_NAME_new());
  if (!name) return ERR_OUT_OF_MEMORY;
  std::string type, value;
  for (std::string_view part : SplitEscaped(text, slashes ? '/' : ',')) {
    const std::vector<std::string_view> kv = SplitEscaped(part, '=');
    if (kv.size() < 2) return ERR_INVALID_PARAMETER;
    // Everything after the first "=" is the value, "=" included.
    const std::string_view raw_value = part.substr(kv[0].size() + 1);
    if (!Unescape(Trim(kv[0]), &type) || !Unescape(Trim(raw_value), &value) || type.empty() || value.empty()) {
      return ERR_INVALID_PARAMETER;
    }
    Asn1ObjectPtr oid(OBJ_txt2obj(type.c_str(), 0));
    if (!oid || X509_NAME_add_entry_by_OBJ(name.get(), oid.get(), MBSTRING_UTF8,
                                           reinterpret_cast<const unsigned char *>(value.data()),
                                           static_cast<int>(value.size()), -1, 0) != 1) {
      ERR_clear_error();
      return ERR_INVALID_PARAMETER;
    }
  }
  *out = std::move(name);
  return 0;
}

uint32_t ReadPrivateKey(std::span<const uint8_t> bytes, const char *pin, EvpPkeyPtr *out) {
  if (bytes.empty() || bytes.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    return ERR_INVALID_PARAMETER;
  }
  const char *pass = pin != nullptr ? pin : "";
  const long total = static_cast<long>(bytes.size());
  if (LooksPem(bytes)) {
    // Decoded to DER here, so that the scheme and round checks below apply.
    BioPtr bio = MemBio(bytes);
    PemBlock block;
    if (!bio || !block.Read(bio.get())) {
      ERR_clear_error();
      return ERR_INVALID_PARAMETER;
    }
    const std::string_view type = block.name;
    const std::span<const uint8_t> der(block.data, static_cast<size_t>(block.len));
    if (type != PEM_STRING_PKCS8INF && type != PEM_STRING_PKCS8 && type != "RSA PRIVATE KEY" &&
        type != "EC PRIVATE KEY") {
      return ERR_INVALID_PARAMETER;
    }
    return ReadPrivateKey(der, pin, out);
  }
  const unsigned char *p = bytes.data();
  const unsigned char *end = bytes.data() + bytes.size();
  X509SigPtr sig(d2i_X509_SIG(nullptr, &p, total));
  if (sig && p == end) {
    const X509_ALGOR *alg = nullptr;
    X509_SIG_get0(sig.get(), &alg, nullptr);
    const long rounds = PbeIterations(alg);
    if (rounds < 0 || rounds > kMaxPbeIterations) return ERR_UNSUPPORTED_VALUE;
    Pkcs8InfoPtr info(PKCS8_decrypt(sig.get(), pass, static_cast<int>(std::strlen(pass))));
    ERR_clear_error();
    if (!info) return ERR_PIN_VERIFY_FAILED;
    return KeyFromP8(info.get(), out);
  }
  p = bytes.data();
  Pkcs8InfoPtr info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, total));
  if (info && p == end) return KeyFromP8(info.get(), out);
  if (bytes.size() == kSm2CoordLen) return Sm2FromScalar(bytes, out);
  for (const int type : {EVP_PKEY_RSA, EVP_PKEY_EC}) {
    p = bytes.data();
    EvpPkeyPtr key(d2i_PrivateKey(type, nullptr, &p, total));
    if (key && p == end) {
      ERR_clear_error();
      return AcceptKey(key.release(), out);
    }
  }
  ERR_clear_error();
  return ERR_INVALID_PARAMETER;
}

uint32_t WritePrivateKey(EVP_PKEY *key, const char *pin, SecureBytes *out_der) {
  Pkcs8InfoPtr info(EVP_PKEY2PKCS8(key));
  if (!info) return ERR_ENCODE_FAILED;
  int len = 0;
  unsigned char *der = nullptr;
  if (pin == nullptr || pin[0] == '\0') {
    len = i2d_PKCS8_PRIV_KEY_INFO(info.get(), &der);
  } else {
    const EVP_CIPHER *cipher = IsSm2Key(key) ? EVP_sm4_cbc() : EVP_aes_256_cbc();
    X509SigPtr sig(PKCS8_encrypt(-1, cipher, pin, static_cast<int>(std::strlen(pin)), nullptr, kPbeSaltLen,
                                 kPbeIterations, info.get()));
    if (!sig) {
      ERR_clear_error();
      return ERR_ENCODE_FAILED;
    }
    len = i2d_X509_SIG(sig.get(), &der);
  }
  if (len <= 0) return ERR_ENCODE_FAILED;
  *out_der = SecureBytes(der, static_cast<size_t>(len));
  OPENSSL_clear_free(der, static_cast<size_t>(len));
  return 0;
}

uint32_t WritePublicKey(EVP_PKEY *key, Bytes *out_der) {
  unsigned char *der = nullptr;
  const int len = i2d_PUBKEY(key, &der);
  const OpenSslPtr<unsigned char> owner(der);
  if (len <= 0) return ERR_ENCODE_FAILED;
  out_der->assign(der, der + len);
  return 0;
}

bool SignedWithSm2(const X509_ALGOR *alg) {
  const ASN1_OBJECT *oid = nullptr;
  X509_ALGOR_get0(&oid, nullptr, nullptr, alg);
  return OBJ_obj2nid(oid) == NID_SM2_with_SM3;
}

uint32_t UseDefaultSm2Id(X509 *cert) {
  if (!SignedWithSm2(X509_get0_tbs_sigalg(cert))) return 0;
  ASN1_OCTET_STRING *id = ASN1_OCTET_STRING_new();
  if (id == nullptr || ASN1_OCTET_STRING_set(id, reinterpret_cast<const unsigned char *>(kDefaultSm2Id),
                                             static_cast<int>(kDefaultSm2IdLen)) != 1) {
    ASN1_OCTET_STRING_free(id);
    return ERR_OUT_OF_MEMORY;
  }
  X509_set0_distinguishing_id(cert, id);
  return 0;
}

}  // namespace zeph::pki
