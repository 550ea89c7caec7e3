#include "crypto.hpp"

#include <cstring>

#include <openssl/core_names.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace softkey {

namespace {

using zeph::BnPtr;
using zeph::EcGroupPtr;
using zeph::EcPointPtr;
using zeph::EvpCipherCtxPtr;
using zeph::EvpMdCtxPtr;
using zeph::EvpPkeyCtxPtr;
using zeph::ParamBldPtr;
using zeph::ParamPtr;
using zeph::X509Ptr;

constexpr size_t kIv = 16, kTag = 32;

void RandomOrThrow(uint8_t *p, size_t n) {
  if (RAND_bytes(p, static_cast<int>(n)) != 1) throw std::bad_alloc();
}

bool Mac(ByteSpan key, ByteSpan data, uint8_t tag[kTag]) {
  size_t n = 0;
  return EVP_Q_mac(nullptr, "HMAC", nullptr, "SM3", nullptr, key.data(), key.size(), data.data(), data.size(), tag,
                   kTag, &n) != nullptr &&
         n == kTag;
}

bool Sm4Cbc(bool encrypt, ByteSpan key16, const uint8_t iv[16], ByteSpan in, Bytes &out) {
  EvpCipherCtxPtr c(EVP_CIPHER_CTX_new());
  out.assign(in.size() + 16, 0);
  int n1 = 0, n2 = 0;
  if (!c || EVP_CipherInit_ex(c.get(), EVP_sm4_cbc(), nullptr, key16.data(), iv, encrypt ? 1 : 0) != 1 ||
      EVP_CipherUpdate(c.get(), out.data(), &n1, in.data(), static_cast<int>(in.size())) != 1 ||
      EVP_CipherFinal_ex(c.get(), out.data() + n1, &n2) != 1) {
    OPENSSL_cleanse(out.data(), out.size());
    return false;
  }
  out.resize(static_cast<size_t>(n1 + n2));
  return true;
}

EcGroupPtr Sm2Group() { return EcGroupPtr(EC_GROUP_new_by_curve_name(NID_sm2)); }

// a || b || xG || yG of OpenSSL's SM2 group, big-endian: the middle of every Z.
// Empty when OpenSSL cannot say.
struct CurveParams {
  uint8_t bytes[4 * zeph::kSm2CoordLen];
  bool ok = false;
};

CurveParams ReadCurveParams() {
  CurveParams out{};
  EcGroupPtr g = Sm2Group();
  BnPtr p(BN_new()), a(BN_new()), b(BN_new()), x(BN_new()), y(BN_new());
  const EC_POINT *gen = g ? EC_GROUP_get0_generator(g.get()) : nullptr;
  if (gen == nullptr || !p || !a || !b || !x || !y ||
      EC_GROUP_get_curve(g.get(), p.get(), a.get(), b.get(), nullptr) != 1 ||
      EC_POINT_get_affine_coordinates(g.get(), gen, x.get(), y.get(), nullptr) != 1)
    return out;
  constexpr int n = zeph::kSm2CoordLen;
  out.ok = BN_bn2binpad(a.get(), out.bytes, n) == n && BN_bn2binpad(b.get(), out.bytes + n, n) == n &&
           BN_bn2binpad(x.get(), out.bytes + 2 * n, n) == n && BN_bn2binpad(y.get(), out.bytes + 3 * n, n) == n;
  return out;
}

const CurveParams &Sm2CurveParams() {
  static const CurveParams params = ReadCurveParams();
  return params;
}

// SM2 ciphertext as OpenSSL reads it: SEQUENCE { INTEGER x, INTEGER y,
// OCTET STRING C3, OCTET STRING C2 }.
void DerLength(Bytes &out, size_t n) {
  if (n < 0x80) {
    out.push_back(static_cast<uint8_t>(n));
    return;
  }
  uint8_t tmp[8];
  int k = 0;
  for (; n != 0; n >>= 8) tmp[k++] = static_cast<uint8_t>(n);
  out.push_back(static_cast<uint8_t>(0x80 | k));
  while (k > 0) out.push_back(tmp[--k]);
}

void DerInteger(Bytes &out, ByteSpan be) {
  size_t i = 0;
  while (i + 1 < be.size() && be[i] == 0) ++i;
  const bool pad = (be[i] & 0x80) != 0;
  out.push_back(0x02);
  DerLength(out, be.size() - i + (pad ? 1 : 0));
  if (pad) out.push_back(0);
  out.insert(out.end(), be.begin() + static_cast<std::ptrdiff_t>(i), be.end());
}

void DerOctets(Bytes &out, ByteSpan b) {
  out.push_back(0x04);
  DerLength(out, b.size());
  out.insert(out.end(), b.begin(), b.end());
}

bool BnParam(EVP_PKEY *k, const char *name, uint8_t *out, size_t n) {
  BIGNUM *raw = nullptr;
  if (EVP_PKEY_get_bn_param(k, name, &raw) != 1) return false;
  BnPtr bn(raw);
  return BN_bn2binpad(bn.get(), out, static_cast<int>(n)) == static_cast<int>(n);
}

EvpPkeyPtr FromData(const char *type, int selection, OSSL_PARAM_BLD *bld) {
  ParamPtr params(OSSL_PARAM_BLD_to_param(bld));
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY *k = nullptr;
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &k, selection, params.get()) != 1)
    return nullptr;
  return EvpPkeyPtr(k);
}

bool AddNameEntries(X509_NAME *name, const std::string &subject) {
  // "/CN=a/O=b" or "CN=a,O=b"
  const char sep = !subject.empty() && subject[0] == '/' ? '/' : ',';
  size_t pos = sep == '/' ? 1 : 0;
  int added = 0;
  while (pos <= subject.size()) {
    size_t end = subject.find(sep, pos);
    if (end == std::string::npos) end = subject.size();
    std::string part = subject.substr(pos, end - pos);
    while (!part.empty() && part.front() == ' ') part.erase(part.begin());
    if (!part.empty()) {
      const auto eq = part.find('=');
      if (eq == std::string::npos || eq == 0 || eq + 1 == part.size()) return false;
      const std::string field = part.substr(0, eq), value = part.substr(eq + 1);
      if (X509_NAME_add_entry_by_txt(name, field.c_str(), MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char *>(value.c_str()), -1, -1, 0) != 1)
        return false;
      ++added;
    }
    pos = end + 1;
  }
  return added > 0;
}

Bytes Der(X509 *x) {
  unsigned char *der = nullptr;
  const int n = i2d_X509(x, &der);
  if (n <= 0) return {};
  Bytes out(der, der + n);
  OPENSSL_free(der);
  return out;
}

bool AddExtension(X509 *x, int nid, const char *value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
  X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (ext == nullptr) return false;
  const bool ok = X509_add_ext(x, ext, -1) == 1;
  X509_EXTENSION_free(ext);
  return ok;
}

}  // namespace

// ---- wrapping --------------------------------------------------------------

Bytes Wrap(ByteSpan key, ByteSpan plain) {
  uint8_t iv[kIv];
  RandomOrThrow(iv, sizeof iv);
  Bytes ct;
  if (key.size() != 32 || !Sm4Cbc(true, key.first(16), iv, plain, ct)) throw std::bad_alloc();
  Bytes out(kIv + ct.size() + kTag);
  std::memcpy(out.data(), iv, kIv);
  std::memcpy(out.data() + kIv, ct.data(), ct.size());
  if (!Mac(key.subspan(16), ByteSpan(out.data(), kIv + ct.size()), out.data() + kIv + ct.size()))
    throw std::bad_alloc();
  return out;
}

bool Unwrap(ByteSpan key, ByteSpan wrapped, SecureBytes &out_plain) {
  if (key.size() != 32 || wrapped.size() < kIv + 16 + kTag || (wrapped.size() - kIv - kTag) % 16 != 0) return false;
  const ByteSpan body = wrapped.first(wrapped.size() - kTag);
  uint8_t tag[kTag];
  if (!Mac(key.subspan(16), body, tag) || CRYPTO_memcmp(tag, wrapped.data() + body.size(), kTag) != 0) return false;
  Bytes pt;
  if (!Sm4Cbc(false, key.first(16), body.data(), body.subspan(kIv), pt)) return false;
  out_plain = SecureBytes(pt.data(), pt.size());
  OPENSSL_cleanse(pt.data(), pt.size());
  return true;
}

// ---- PINs ------------------------------------------------------------------

SecureBytes NewMasterKey() {
  SecureBytes k(32);
  RandomOrThrow(k.data(), k.size());
  return k;
}

static bool PinKey(const Pin &rec, std::string_view pin, SecureBytes &kek) {
  kek = SecureBytes(32);
  return rec.iterations != 0 && rec.iterations <= 10'000'000 &&
         PKCS5_PBKDF2_HMAC(pin.data(), static_cast<int>(pin.size()), rec.salt.data(), static_cast<int>(rec.salt.size()),
                           static_cast<int>(rec.iterations), EVP_sm3(), static_cast<int>(kek.size()), kek.data()) == 1;
}

void RewrapPin(Pin &rec, std::string_view pin, ByteSpan master) {
  rec.iterations = kPinIterations;
  rec.salt.assign(16, 0);
  RandomOrThrow(rec.salt.data(), rec.salt.size());
  SecureBytes kek;
  if (!PinKey(rec, pin, kek)) throw std::bad_alloc();
  rec.wrapped = Wrap(kek.span(), master);
  rec.remain = rec.max_retry;
}

Pin MakePin(std::string_view pin, ByteSpan master, uint32_t max_retry) {
  Pin rec;
  rec.max_retry = max_retry;
  rec.is_default = true;
  RewrapPin(rec, pin, master);
  return rec;
}

bool UnwrapMaster(const Pin &rec, std::string_view pin, SecureBytes &out_master) {
  SecureBytes kek;
  return PinKey(rec, pin, kek) && Unwrap(kek.span(), rec.wrapped, out_master) && out_master.size() == 32;
}

// ---- SM4 -------------------------------------------------------------------

bool Sm4EcbUnpadded(bool encrypt, ByteSpan key16, ByteSpan in, uint8_t *out) {
  if (key16.size() != 16 || in.size() % 16 != 0 || in.size() > INT32_MAX) return false;
  EvpCipherCtxPtr c(EVP_CIPHER_CTX_new());
  int outl = 0;
  return c && EVP_CipherInit_ex(c.get(), EVP_sm4_ecb(), nullptr, key16.data(), nullptr, encrypt ? 1 : 0) == 1 &&
         EVP_CIPHER_CTX_set_padding(c.get(), 0) == 1 &&
         (in.empty() || EVP_CipherUpdate(c.get(), out, &outl, in.data(), static_cast<int>(in.size())) == 1);
}

// ---- SM2 -------------------------------------------------------------------

EvpPkeyPtr Sm2Generate() { return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2")); }

EvpPkeyPtr Sm2FromScalar(ByteSpan d32) {
  if (d32.size() != 32) return nullptr;
  EcGroupPtr g = Sm2Group();
  BnPtr d(BN_bin2bn(d32.data(), 32, nullptr));
  zeph::BnCtxPtr bctx(BN_CTX_new());
  if (!g || !d || !bctx) return nullptr;
  // 1 <= d <= n - 2
  BnPtr limit(BN_dup(EC_GROUP_get0_order(g.get())));
  if (!limit || BN_sub_word(limit.get(), 2) != 1 || BN_is_zero(d.get()) || BN_cmp(d.get(), limit.get()) > 0)
    return nullptr;
  EcPointPtr q(EC_POINT_new(g.get()));
  uint8_t pt[65];
  if (!q || EC_POINT_mul(g.get(), q.get(), d.get(), nullptr, nullptr, bctx.get()) != 1 ||
      EC_POINT_point2oct(g.get(), q.get(), POINT_CONVERSION_UNCOMPRESSED, pt, sizeof pt, bctx.get()) != sizeof pt)
    return nullptr;
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!bld || OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, SN_sm2, 0) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PRIV_KEY, d.get()) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, pt, sizeof pt) != 1)
    return nullptr;
  return FromData("SM2", EVP_PKEY_KEYPAIR, bld.get());
}

EvpPkeyPtr Sm2FromPoint(ByteSpan point65) {
  if (point65.size() != 65 || point65[0] != 0x04 || !Sm2OnCurve(point65.subspan(1, 32), point65.subspan(33, 32)))
    return nullptr;
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!bld || OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, SN_sm2, 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, point65.data(), point65.size()) != 1)
    return nullptr;
  return FromData("SM2", EVP_PKEY_PUBLIC_KEY, bld.get());
}

bool Sm2Point(EVP_PKEY *k, Bytes &out_point65) {
  uint8_t buf[133];
  size_t n = 0;
  if (EVP_PKEY_get_octet_string_param(k, OSSL_PKEY_PARAM_PUB_KEY, buf, sizeof buf, &n) != 1 || n != 65 ||
      buf[0] != 0x04)
    return false;
  out_point65.assign(buf, buf + 65);
  return true;
}

bool Sm2Scalar(EVP_PKEY *k, SecureBytes &out_d32) {
  out_d32 = SecureBytes(32);
  return BnParam(k, OSSL_PKEY_PARAM_PRIV_KEY, out_d32.data(), 32);
}

bool Sm2OnCurve(ByteSpan x32, ByteSpan y32) {
  EcGroupPtr g = Sm2Group();
  if (!g || x32.size() != 32 || y32.size() != 32) return false;
  uint8_t oct[65];
  oct[0] = 0x04;
  std::memcpy(oct + 1, x32.data(), 32);
  std::memcpy(oct + 33, y32.data(), 32);
  EcPointPtr p(EC_POINT_new(g.get()));
  return p && EC_POINT_oct2point(g.get(), p.get(), oct, sizeof oct, nullptr) == 1 &&
         EC_POINT_is_on_curve(g.get(), p.get(), nullptr) == 1;
}

bool Sm2SignDigest(EVP_PKEY *k, ByteSpan e32, uint8_t out_r[32], uint8_t out_s[32]) {
  if (e32.size() != 32) return false;
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(k, nullptr));
  uint8_t der[80];
  size_t n = sizeof der;
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 || EVP_PKEY_sign(ctx.get(), der, &n, e32.data(), 32) != 1)
    return false;
  const unsigned char *p = der;
  zeph::EcdsaSigPtr sig(d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(n)));
  return sig && BN_bn2binpad(ECDSA_SIG_get0_r(sig.get()), out_r, 32) == 32 &&
         BN_bn2binpad(ECDSA_SIG_get0_s(sig.get()), out_s, 32) == 32;
}

bool Sm2Decrypt(EVP_PKEY *k, ByteSpan x32, ByteSpan y32, ByteSpan hash32, ByteSpan c2, SecureBytes &out_plain) {
  Bytes body;
  DerInteger(body, x32);
  DerInteger(body, y32);
  DerOctets(body, hash32);
  DerOctets(body, c2);
  Bytes der{0x30};
  DerLength(der, body.size());
  der.insert(der.end(), body.begin(), body.end());
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(k, nullptr));
  size_t n = 0;
  if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
      EVP_PKEY_decrypt(ctx.get(), nullptr, &n, der.data(), der.size()) != 1)
    return false;
  SecureBytes out(n);
  if (EVP_PKEY_decrypt(ctx.get(), out.data(), &n, der.data(), der.size()) != 1) return false;
  out.resize(n);
  out_plain = std::move(out);
  return true;
}

bool Sm2Z(ByteSpan point65, ByteSpan id, uint8_t out_z[32]) {
  const CurveParams &curve = Sm2CurveParams();
  if (!curve.ok || point65.size() != 65 || id.size() > 8191) return false;
  const uint16_t entl = static_cast<uint16_t>(id.size() * 8);
  const uint8_t entl_be[2] = {static_cast<uint8_t>(entl >> 8), static_cast<uint8_t>(entl)};
  EvpMdCtxPtr md(EVP_MD_CTX_new());
  unsigned int n = 0;
  return md && EVP_DigestInit_ex(md.get(), EVP_sm3(), nullptr) == 1 && EVP_DigestUpdate(md.get(), entl_be, 2) == 1 &&
         EVP_DigestUpdate(md.get(), id.data(), id.size()) == 1 &&
         EVP_DigestUpdate(md.get(), curve.bytes, sizeof curve.bytes) == 1 &&
         EVP_DigestUpdate(md.get(), point65.data() + 1, 64) == 1 && EVP_DigestFinal_ex(md.get(), out_z, &n) == 1 &&
         n == 32;
}

// ---- RSA -------------------------------------------------------------------

EvpPkeyPtr RsaGenerate(uint32_t bits) {
  return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(bits)));
}

EvpPkeyPtr RsaFromPublicDer(ByteSpan der) {
  const unsigned char *p = der.data();
  EvpPkeyPtr k(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size())));
  return k;
}

EvpPkeyPtr RsaFromPrivateDer(ByteSpan der) {
  const unsigned char *p = der.data();
  EvpPkeyPtr k(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size())));
  return k;
}

uint32_t RsaBits(EVP_PKEY *k) { return k != nullptr ? static_cast<uint32_t>(EVP_PKEY_get_bits(k)) : 0; }

bool RsaSignPkcs1(EVP_PKEY *k, ByteSpan data, Bytes &out_sig) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(k, nullptr));
  size_t n = 0;
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_sign(ctx.get(), nullptr, &n, data.data(), data.size()) != 1)
    return false;
  out_sig.assign(n, 0);
  if (EVP_PKEY_sign(ctx.get(), out_sig.data(), &n, data.data(), data.size()) != 1) return false;
  out_sig.resize(n);
  return true;
}

bool RsaDecrypt(EVP_PKEY *k, int padding, ByteSpan in, SecureBytes &out_plain) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(k, nullptr));
  size_t n = 0;
  if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) != 1 ||
      EVP_PKEY_decrypt(ctx.get(), nullptr, &n, in.data(), in.size()) != 1)
    return false;
  SecureBytes buf(n);
  if (EVP_PKEY_decrypt(ctx.get(), buf.data(), &n, in.data(), in.size()) != 1) return false;
  buf.resize(n);
  out_plain = std::move(buf);
  return true;
}

// ---- stored key pairs ------------------------------------------------------

bool WrapKeyPair(EVP_PKEY *k, ByteSpan master, KeyPair &out_pair) {
  KeyPair kp;
  if (EVP_PKEY_is_a(k, "SM2")) {
    SecureBytes d;
    if (!Sm2Point(k, kp.pub) || !Sm2Scalar(k, d)) return false;
    kp.alg = SGD_SM2_1;
    kp.bits = 256;
    kp.wrapped = Wrap(master, d.span());
  } else if (EVP_PKEY_is_a(k, "RSA")) {
    unsigned char *pub = nullptr, *priv = nullptr;
    const int pn = i2d_PublicKey(k, &pub);
    if (pn > 0) kp.pub.assign(pub, pub + pn);
    OPENSSL_free(pub);
    const int qn = i2d_PrivateKey(k, &priv);
    if (qn <= 0 || pn <= 0) {
      OPENSSL_clear_free(priv, qn > 0 ? static_cast<size_t>(qn) : 0);
      return false;
    }
    const SecureBytes plain(priv, static_cast<size_t>(qn));
    OPENSSL_clear_free(priv, static_cast<size_t>(qn));
    kp.alg = SGD_RSA;
    kp.bits = RsaBits(k);
    kp.wrapped = Wrap(master, plain.span());
  } else {
    return false;
  }
  out_pair = std::move(kp);
  return true;
}

EvpPkeyPtr UnwrapKeyPair(const KeyPair &kp, ByteSpan master) {
  SecureBytes priv;
  if (!Unwrap(master, kp.wrapped, priv)) return nullptr;
  if (kp.alg == SGD_SM2_1) return Sm2FromScalar(priv.span());
  if (kp.alg == SGD_RSA) return RsaFromPrivateDer(priv.span());
  return nullptr;
}

EvpPkeyPtr PublicKeyOf(const KeyPair &kp) {
  if (kp.alg == SGD_SM2_1) return Sm2FromPoint(kp.pub);
  if (kp.alg == SGD_RSA) return RsaFromPublicDer(kp.pub);
  return nullptr;
}

// ---- blobs -------------------------------------------------------------------

void ToEccBlob(ByteSpan point65, ECCPUBLICKEYBLOB &out_blob) {
  std::memset(&out_blob, 0, sizeof out_blob);
  out_blob.BitLen = 256;
  std::memcpy(out_blob.XCoordinate + 32, point65.data() + 1, 32);
  std::memcpy(out_blob.YCoordinate + 32, point65.data() + 33, 32);
}

bool FromEccBlob(const ECCPUBLICKEYBLOB &blob, Bytes &out_point65) {
  static const uint8_t kZero[32] = {};
  if (blob.BitLen != 256 || std::memcmp(blob.XCoordinate, kZero, 32) != 0 ||
      std::memcmp(blob.YCoordinate, kZero, 32) != 0)
    return false;
  const ByteSpan x(blob.XCoordinate + 32, 32), y(blob.YCoordinate + 32, 32);
  if (!Sm2OnCurve(x, y)) return false;
  out_point65.assign(1, 0x04);
  out_point65.insert(out_point65.end(), x.begin(), x.end());
  out_point65.insert(out_point65.end(), y.begin(), y.end());
  return true;
}

bool ToRsaBlob(EVP_PKEY *k, RSAPUBLICKEYBLOB &out_blob) {
  std::memset(&out_blob, 0, sizeof out_blob);
  const uint32_t bits = RsaBits(k);
  if (bits == 0 || bits > 2048) return false;
  out_blob.AlgID = SGD_RSA;
  out_blob.BitLen = bits;
  return BnParam(k, OSSL_PKEY_PARAM_RSA_N, out_blob.Modulus, sizeof out_blob.Modulus) &&
         BnParam(k, OSSL_PKEY_PARAM_RSA_E, out_blob.PublicExponent, sizeof out_blob.PublicExponent);
}

// ---- certificates --------------------------------------------------------------

Bytes SelfSignedCert(EVP_PKEY *k, const std::string &subject, int days, bool encryption) {
  X509Ptr x(X509_new());
  if (!x || X509_set_version(x.get(), 2) != 1) return {};
  uint8_t serial[16];
  RandomOrThrow(serial, sizeof serial);
  serial[0] &= 0x7F;
  serial[0] |= 0x40;
  BnPtr sn(BN_bin2bn(serial, sizeof serial, nullptr));
  if (!sn || BN_to_ASN1_INTEGER(sn.get(), X509_get_serialNumber(x.get())) == nullptr) return {};
  X509_NAME *name = X509_get_subject_name(x.get());
  if (!AddNameEntries(name, subject) || X509_set_issuer_name(x.get(), name) != 1 ||
      X509_gmtime_adj(X509_getm_notBefore(x.get()), -3600) == nullptr ||
      X509_time_adj_ex(X509_getm_notAfter(x.get()), days, 0, nullptr) == nullptr || X509_set_pubkey(x.get(), k) != 1 ||
      !AddExtension(x.get(), NID_basic_constraints, "critical,CA:FALSE") ||
      !AddExtension(x.get(), NID_key_usage,
                    encryption ? "critical,keyEncipherment,dataEncipherment,keyAgreement"
                               : "critical,digitalSignature,nonRepudiation") ||
      !AddExtension(x.get(), NID_subject_key_identifier, "hash"))
    return {};
  const bool sm2 = EVP_PKEY_is_a(k, "SM2");
  // The digest context borrows pctx, so pctx is declared first and outlives it.
  EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new(k, nullptr));
  EvpMdCtxPtr md(EVP_MD_CTX_new());
  if (!md || !pctx) return {};
  if (sm2) {
    if (EVP_PKEY_CTX_set1_id(pctx.get(), kDefaultId.data(), kDefaultId.size()) != 1) return {};
    EVP_MD_CTX_set_pkey_ctx(md.get(), pctx.get());
  }
  if (EVP_DigestSignInit(md.get(), nullptr, sm2 ? EVP_sm3() : EVP_sha256(), nullptr, k) != 1 ||
      X509_sign_ctx(x.get(), md.get()) <= 0)
    return {};
  return Der(x.get());
}

Bytes CertificateDer(ByteSpan file) {
  zeph::BioPtr bio(BIO_new_mem_buf(file.data(), static_cast<int>(file.size())));
  zeph::X509Ptr x(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  if (x) return Der(x.get());
  return IsCertificate(file) ? Bytes(file.begin(), file.end()) : Bytes{};
}

bool IsCertificate(ByteSpan der) {
  const unsigned char *p = der.data();
  X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  return x != nullptr && p == der.data() + der.size();
}

}  // namespace softkey
