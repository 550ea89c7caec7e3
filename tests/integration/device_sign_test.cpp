// Signing, decryption and public keys with the key's private keys, checked
// by OpenSSL against the certificates stored on the key.
#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_NOEXT_LIB) && defined(ZEPH_SOFTKEY_TOOL)

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstring>

#include "softkey_env.hpp"

namespace zeph_it {
namespace {

using SignTest = SoftkeyTest;

struct Cert {
  X509 *x = nullptr;
  explicit Cert(const Bytes &der) {
    const unsigned char *p = der.data();
    x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
  }
  ~Cert() { X509_free(x); }
  EVP_PKEY *key() const { return X509_get0_pubkey(x); }
};

bool OpenSslVerifies(const Bytes &cert_der, const EVP_MD *md, const Bytes &data, const Bytes &sig, bool sm2) {
  Cert cert(cert_der);
  EVP_MD_CTX *mctx = EVP_MD_CTX_new();
  EVP_PKEY_CTX *pctx = nullptr;
  bool ok = EVP_DigestVerifyInit(mctx, &pctx, md, nullptr, cert.key()) == 1;
  if (ok && sm2) ok = EVP_PKEY_CTX_set1_id(pctx, "1234567812345678", 16) > 0;
  ok = ok && EVP_DigestVerify(mctx, sig.data(), sig.size(), data.data(), data.size()) == 1;
  EVP_MD_CTX_free(mctx);
  return ok;
}

Bytes Sm2Sign(void *h, const Bytes &data, uint32_t *status = nullptr) {
  Bytes sig(72, 0);
  uint32_t len = 0;
  const uint32_t rv = ZEPH_C_DoSm2Sign(h, kUserPin, data.data(), static_cast<uint32_t>(data.size()), sig.data(), &len);
  if (status != nullptr) *status = rv;
  else EXPECT_EQ(rv, 0u);
  sig.resize(rv == 0 ? len : 0);
  return sig;
}

bool Called(const std::vector<TraceLine> &trace, const std::string &fn) {
  for (const auto &t : trace) {
    if (t.fn == fn) return true;
  }
  return false;
}

TEST_F(SignTest, Sm2SignaturesVerifyWithTheKeysCertificate) {
  CreateStandardKey("G1", false);
  const Bytes cert = ExportCert("G1", "VorliEcc", "ECC");
  const Bytes data = zeph_test::RandomBytes(1000, 5);
  // ZA prepares SM3(Z || M) itself; ZT (device type 10) lets the key hash.
  for (const char *key_sn : {"ZA_G1", "ZT_G1"}) {
    SCOPED_TRACE(key_sn);
    Handle h(key_sn);
    Bytes first, second;
    const auto trace = Traced([&] {
      first = Sm2Sign(h.get(), data);
      second = Sm2Sign(h.get(), data);
    });
    EXPECT_TRUE(AllClosed(trace));
    const bool device_hashes = std::string(key_sn) == "ZT_G1";
    EXPECT_EQ(Called(trace, "SKF_Eu_ECCSignData"), device_hashes) << Names(trace);
    EXPECT_EQ(Called(trace, "SKF_ECCSignData"), !device_hashes) << Names(trace);
    EXPECT_NE(first, second);
    for (const Bytes &sig : {first, second}) {
      EXPECT_GE(sig.size(), 70u);
      EXPECT_LE(sig.size(), 72u);
      EXPECT_TRUE(OpenSslVerifies(cert, EVP_sm3(), data, sig, true));
      EXPECT_EQ(ZEPH_C_VerifySignWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(), 1000,
                                          sig.data(), static_cast<uint32_t>(sig.size()), 0),
                0u);
    }
    Bytes tampered = first;
    tampered[tampered.size() / 2] ^= 0x01;
    EXPECT_EQ(ZEPH_C_VerifySm2SignWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(), 1000,
                                           tampered.data(), static_cast<uint32_t>(tampered.size())),
              ERR_SIGNATURE_INVALID);
  }
}

TEST_F(SignTest, WrongPinSignsNothingAndClosesTheSession) {
  CreateStandardKey("G2");
  Handle h("ZA_G2");
  unsigned char sig[300];
  uint32_t len = 77;
  const unsigned char data[] = "x";
  const auto trace = Traced([&] {
    EXPECT_EQ(ZEPH_C_DoSm2Sign(h.get(), "000000", data, 1, sig, &len), SAR_PIN_INCORRECT);
    EXPECT_EQ(ZEPH_C_DoRsaSign(h.get(), "000000", data, 1, sig, &len, 4), SAR_PIN_INCORRECT);
  });
  EXPECT_EQ(len, 77u);
  EXPECT_FALSE(Called(trace, "SKF_ECCSignData"));
  EXPECT_TRUE(AllClosed(trace));
}

// The value signed is SM3(Z || M): OpenSSL's verification above computes Z
// on its own, so here only the exported key and the raw signature's size.
TEST_F(SignTest, Sm2PublicKeyMatchesTheCertificate) {
  CreateStandardKey("G3", false);
  Cert cert(ExportCert("G3", "VorliEcc", "ECC"));
  unsigned char point[65];
  size_t point_len = sizeof point;
  ASSERT_EQ(EVP_PKEY_get_octet_string_param(cert.key(), "encoded-pub-key", point, sizeof point, &point_len), 1);

  Handle h("ZA_G3");
  GM_SKF_CTX *ctx = h.ctx();
  ASSERT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_SM2_SIGN), 0u);
  unsigned char out[300];
  uint32_t len = sizeof out;
  ASSERT_EQ(GM_SKF_CTX_ExportPublicKey(ctx, out, &len), 0u);
  EXPECT_EQ(Bytes(out, out + len), Bytes(point, point + point_len));
  // The raw signature is 64 bytes whatever capacity was announced.
  ASSERT_EQ(GM_SKF_CTX_VerifyPin(ctx, kUserPin, 6), 0u);
  const unsigned char e[32] = {1};
  len = 1;
  ASSERT_EQ(GM_SKF_CTX_SignHash(ctx, e, 32, out, &len), 0u);
  EXPECT_EQ(len, 64u);
}

TEST_F(SignTest, RsaSignaturesForEachDigest) {
  CreateStandardKey("R1");
  const Bytes cert = ExportCert("R1", "VorliRsa", "RSA1");
  Cert parsed(cert);
  unsigned char *spki = nullptr;
  const int spki_len = i2d_PUBKEY(parsed.key(), &spki);
  const Bytes want_spki(spki, spki + spki_len);
  OPENSSL_free(spki);
  const Bytes data = zeph_test::RandomBytes(200, 3);
  const struct {
    uint32_t id;
    const EVP_MD *md;
  } rows[] = {{4, EVP_sha256()}, {8, EVP_sha384()}, {16, EVP_sha512()}, {2, EVP_sha1()}};
  // ZA signs through the vendor extension, ZN (no extensions) through the standard call.
  for (const char *key_sn : {"ZA_R1", "ZN_R1"}) {
    SCOPED_TRACE(key_sn);
    Handle h(key_sn);
    for (const auto &r : rows) {
      SCOPED_TRACE(r.id);
      Bytes sig(256);
      uint32_t len = static_cast<uint32_t>(sig.size());
      const auto trace = Traced([&] {
        ASSERT_EQ(ZEPH_C_DoRsaSign(h.get(), kUserPin, data.data(), 200, sig.data(), &len, r.id), 0u);
      });
      sig.resize(len);
      EXPECT_EQ(len, 128u);
      EXPECT_TRUE(AllClosed(trace));
      EXPECT_EQ(Called(trace, "SKF_Ex_RSASignData"), std::string(key_sn) == "ZA_R1") << Names(trace);
      EXPECT_TRUE(OpenSslVerifies(cert, r.md, data, sig, false));
      EXPECT_EQ(ZEPH_C_VerifySignWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(), 200,
                                          sig.data(), len, r.id),
                0u);
      sig[5] ^= 0x40;
      EXPECT_EQ(ZEPH_C_VerifyRsaSignWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(), 200,
                                             sig.data(), len, r.id),
                ERR_SIGNATURE_INVALID);
    }
    GM_SKF_CTX *ctx = h.ctx();
    ASSERT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_RSA_SIGN), 0u);
    unsigned char out[400];
    uint32_t out_len = sizeof out;
    ASSERT_EQ(GM_SKF_CTX_ExportPublicKey(ctx, out, &out_len), 0u);
    EXPECT_EQ(Bytes(out, out + out_len), want_spki);
    EXPECT_EQ(GM_SKF_CTX_CloseSession(ctx), 0u);
  }
  // An unknown digest identifier stops before the key is asked.
  Handle h("ZA_R1");
  unsigned char sig[256];
  uint32_t len = sizeof sig;
  EXPECT_EQ(ZEPH_C_DoRsaSign(h.get(), kUserPin, data.data(), 200, sig, &len, 3), ERR_PRETREATMENT_FAILED);
}

Bytes RsaEncrypt(const Bytes &cert_der, const Bytes &plain, int padding) {
  Cert cert(cert_der);
  EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new(cert.key(), nullptr);
  EVP_PKEY_encrypt_init(pctx);
  EVP_PKEY_CTX_set_rsa_padding(pctx, padding);
  size_t n = 0;
  EVP_PKEY_encrypt(pctx, nullptr, &n, plain.data(), plain.size());
  Bytes out(n);
  EXPECT_EQ(EVP_PKEY_encrypt(pctx, out.data(), &n, plain.data(), plain.size()), 1);
  EVP_PKEY_CTX_free(pctx);
  out.resize(n);
  return out;
}

TEST_F(SignTest, RsaDecryptionOfAnOpenSslCiphertext) {
  CreateStandardKey("R2");
  const Bytes cert = ExportCert("R2", "VorliRsa", "RSA2", "enc");
  const Bytes secret = zeph_test::RandomBytes(24, 11);
  const Bytes cipher = RsaEncrypt(cert, secret, RSA_PKCS1_PADDING);
  auto decrypt = [&](const char *key_sn, const Bytes &c, Bytes *out) {
    Handle h(key_sn);
    GM_SKF_CTX *ctx = h.ctx();
    EXPECT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_RSA_ENC), 0u);
    EXPECT_EQ(GM_SKF_CTX_VerifyPin(ctx, kUserPin, 6), 0u);
    out->assign(256, 0);
    uint32_t len = 256;
    const uint32_t rv = GM_SKF_CTX_DoAsymDec(ctx, c.data(), static_cast<uint32_t>(c.size()), 1, out->data(), &len);
    out->resize(rv == 0 ? len : 0);
    return rv;
  };
  Bytes plain;
  ASSERT_EQ(decrypt("ZA_R2", cipher, &plain), 0u);
  EXPECT_EQ(plain, secret);
  // Device type 10 hands back what its key returned, padding and all.
  ASSERT_EQ(decrypt("ZT_R2", cipher, &plain), 0u);
  ASSERT_EQ(plain.size(), 128u);
  EXPECT_EQ(plain[0], 0x00);
  EXPECT_EQ(plain[1], 0x02);
  EXPECT_EQ(Bytes(plain.end() - 24, plain.end()), secret);
  // A block without type-2 padding, and a library without the call.
  Bytes raw(128, 0x5A);
  raw[0] = 0x00;
  raw[1] = 0x01;
  EXPECT_EQ(decrypt("ZA_R2", RsaEncrypt(cert, raw, RSA_NO_PADDING), &plain), ERR_PADDING_INVALID);
  EXPECT_EQ(decrypt("ZN_R2", cipher, &plain), ERR_UNSUPPORTED_VALUE);
}

TEST_F(SignTest, Sm2DecryptionAndDeviceRandom) {
  CreateStandardKey("E1", false);
  const Bytes cert = ExportCert("E1", "VorliEcc", "ECC", "enc");
  const Bytes secret = zeph_test::RandomBytes(40, 12);
  // OpenSSL's SM2 ciphertext, SEQUENCE { x, y, hash, cipher }, as the key's blob.
  Cert parsed(cert);
  EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new(parsed.key(), nullptr);
  EVP_PKEY_encrypt_init(pctx);
  size_t n = 0;
  EVP_PKEY_encrypt(pctx, nullptr, &n, secret.data(), secret.size());
  Bytes der(n);
  ASSERT_EQ(EVP_PKEY_encrypt(pctx, der.data(), &n, secret.data(), secret.size()), 1);
  EVP_PKEY_CTX_free(pctx);
  der.resize(n);
  const unsigned char *p = der.data();
  ASN1_SEQUENCE_ANY *seq = d2i_ASN1_SEQUENCE_ANY(nullptr, &p, static_cast<long>(der.size()));
  ASSERT_NE(seq, nullptr);
  Bytes blob(164 + secret.size(), 0);
  BIGNUM *x = ASN1_INTEGER_to_BN(sk_ASN1_TYPE_value(seq, 0)->value.integer, nullptr);
  BIGNUM *y = ASN1_INTEGER_to_BN(sk_ASN1_TYPE_value(seq, 1)->value.integer, nullptr);
  BN_bn2binpad(x, blob.data() + 32, 32);
  BN_bn2binpad(y, blob.data() + 96, 32);
  const ASN1_OCTET_STRING *hash = sk_ASN1_TYPE_value(seq, 2)->value.octet_string;
  const ASN1_OCTET_STRING *body = sk_ASN1_TYPE_value(seq, 3)->value.octet_string;
  std::memcpy(blob.data() + 128, ASN1_STRING_get0_data(hash), 32);
  const uint32_t body_len = static_cast<uint32_t>(ASN1_STRING_length(body));
  std::memcpy(blob.data() + 160, &body_len, 4);
  std::memcpy(blob.data() + 164, ASN1_STRING_get0_data(body), body_len);
  BN_free(x);
  BN_free(y);
  sk_ASN1_TYPE_pop_free(seq, ASN1_TYPE_free);

  Handle h("ZA_E1");
  GM_SKF_CTX *ctx = h.ctx();
  ASSERT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_SM2_ENC), 0u);
  ASSERT_EQ(GM_SKF_CTX_VerifyPin(ctx, kUserPin, 6), 0u);
  Bytes plain(64);
  uint32_t len = 64;
  ASSERT_EQ(GM_SKF_CTX_SM2Decrypt(ctx, blob.data(), static_cast<uint32_t>(blob.size()), plain.data(), &len, 0), 0u);
  plain.resize(len);
  EXPECT_EQ(plain, secret);
  EXPECT_EQ(GM_SKF_CTX_CloseSession(ctx), 0u);

  Bytes r1(32, 0), r2(32, 0);
  ASSERT_EQ(ZEPH_C_GenRandomBytes(h.get(), 32, r1.data()), 0u);
  ASSERT_EQ(ZEPH_C_GenRandomBytes(h.get(), 32, r2.data()), 0u);
  EXPECT_NE(r1, r2);
  EXPECT_NE(r1, Bytes(32, 0));
}

}  // namespace
}  // namespace zeph_it

#endif
