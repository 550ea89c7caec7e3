// Signature verification with certificates, cross-checked against
// signatures that OpenSSL makes with keys of its own.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_support.hpp"
#include "zeph_c_api.h"
#include "zeph_c_device.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr char kSm2Id[] = "1234567812345678";

struct KeyAndCert {
  EVP_PKEY *key = nullptr;
  Bytes cert;
  ~KeyAndCert() { EVP_PKEY_free(key); }
};

// A self-issued certificate for the key; only its public key matters here.
Bytes CertFor(EVP_PKEY *key) {
  X509 *x = X509_new();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
  X509_gmtime_adj(X509_getm_notBefore(x), 0);
  X509_gmtime_adj(X509_getm_notAfter(x), 3600);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char *>("zeph test"), -1, -1, 0);
  X509_set_issuer_name(x, X509_get_subject_name(x));
  X509_set_pubkey(x, key);
  // The certificate's own signature comes from a throwaway RSA key.
  EVP_PKEY *issuer = EVP_RSA_gen(1024);
  X509_sign(x, issuer, EVP_sha256());
  EVP_PKEY_free(issuer);
  unsigned char *der = nullptr;
  const int n = i2d_X509(x, &der);
  Bytes out(der, der + n);
  OPENSSL_free(der);
  X509_free(x);
  return out;
}

void MakeSm2(KeyAndCert *k) {
  k->key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  ASSERT_NE(k->key, nullptr);
  k->cert = CertFor(k->key);
}

Bytes SignSm2(EVP_PKEY *key, const Bytes &data, const char *id) {
  EVP_MD_CTX *md = EVP_MD_CTX_new();
  EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new(key, nullptr);
  EVP_PKEY_CTX_set1_id(pctx, id, std::strlen(id));
  EVP_MD_CTX_set_pkey_ctx(md, pctx);
  EXPECT_EQ(EVP_DigestSignInit(md, nullptr, EVP_sm3(), nullptr, key), 1);
  size_t n = 0;
  EVP_DigestSign(md, nullptr, &n, data.data(), data.size());
  Bytes sig(n);
  EXPECT_EQ(EVP_DigestSign(md, sig.data(), &n, data.data(), data.size()), 1);
  sig.resize(n);
  EVP_MD_CTX_free(md);
  EVP_PKEY_CTX_free(pctx);
  return sig;
}

Bytes SignRsa(EVP_PKEY *key, const EVP_MD *digest, const Bytes &data) {
  EVP_MD_CTX *md = EVP_MD_CTX_new();
  EXPECT_EQ(EVP_DigestSignInit(md, nullptr, digest, nullptr, key), 1);
  size_t n = 0;
  EVP_DigestSign(md, nullptr, &n, data.data(), data.size());
  Bytes sig(n);
  EXPECT_EQ(EVP_DigestSign(md, sig.data(), &n, data.data(), data.size()), 1);
  sig.resize(n);
  EVP_MD_CTX_free(md);
  return sig;
}

uint32_t VerifySm2(const Bytes &cert, const Bytes &data, const Bytes &sig) {
  return ZEPH_C_VerifySm2SignWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(),
                                      static_cast<uint32_t>(data.size()), sig.data(), static_cast<uint32_t>(sig.size()));
}

uint32_t VerifyAny(const Bytes &cert, const Bytes &data, const Bytes &sig, uint32_t digest_id) {
  return ZEPH_C_VerifySignWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(),
                                   static_cast<uint32_t>(data.size()), sig.data(), static_cast<uint32_t>(sig.size()),
                                   digest_id);
}

TEST(VerifySm2, AcceptsOpenSslSignaturesAndRejectsEveryChange) {
  KeyAndCert k;
  MakeSm2(&k);
  const Bytes data = zeph_test::RandomBytes(100, 1);
  const Bytes sig = SignSm2(k.key, data, kSm2Id);
  EXPECT_EQ(VerifySm2(k.cert, data, sig), 0u);
  EXPECT_EQ(VerifyAny(k.cert, data, sig, 0), 0u);
  EXPECT_EQ(zeph_c_cert_VerifySm2SignWithCert(k.cert.data(), static_cast<uint32_t>(k.cert.size()), data.data(),
                                              static_cast<uint32_t>(data.size()), sig.data(),
                                              static_cast<uint32_t>(sig.size())),
            0u);

  Bytes other = data;
  other[50] ^= 1;
  EXPECT_EQ(VerifySm2(k.cert, other, sig), ERR_SIGNATURE_INVALID);
  Bytes bad = sig;
  bad[bad.size() - 1] ^= 1;
  EXPECT_EQ(VerifySm2(k.cert, data, bad), ERR_SIGNATURE_INVALID);
  // The identity is part of the signed value.
  EXPECT_EQ(VerifySm2(k.cert, data, SignSm2(k.key, data, "another identity")), ERR_SIGNATURE_INVALID);
  KeyAndCert stranger;
  MakeSm2(&stranger);
  EXPECT_EQ(VerifySm2(stranger.cert, data, sig), ERR_SIGNATURE_INVALID);
  // Empty data is data like any other.
  const Bytes of_nothing = SignSm2(k.key, Bytes(), kSm2Id);
  EXPECT_EQ(ZEPH_C_VerifySm2SignWithCert(k.cert.data(), static_cast<uint32_t>(k.cert.size()), nullptr, 0,
                                         of_nothing.data(), static_cast<uint32_t>(of_nothing.size())),
            0u);
}

TEST(VerifyRsa, DigestChosenByIdentifierLowBits) {
  KeyAndCert k;
  k.key = EVP_RSA_gen(2048);
  ASSERT_NE(k.key, nullptr);
  k.cert = CertFor(k.key);
  const Bytes data = zeph_test::RandomBytes(77, 2);
  const struct {
    uint32_t id;
    const EVP_MD *md;
  } rows[] = {{16, EVP_sha512()}, {32, EVP_sha1()}, {1, EVP_sha1()}, {0, EVP_sha1()}, {0x70004, EVP_sha256()}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.id);
    const Bytes sig = SignRsa(k.key, r.md, data);
    EXPECT_EQ(ZEPH_C_VerifyRsaSignWithCert(k.cert.data(), static_cast<uint32_t>(k.cert.size()), data.data(),
                                           static_cast<uint32_t>(data.size()), sig.data(),
                                           static_cast<uint32_t>(sig.size()), r.id),
              0u);
    EXPECT_EQ(VerifyAny(k.cert, data, sig, r.id), 0u);
  }
  const Bytes sha256_sig = SignRsa(k.key, EVP_sha256(), data);
  EXPECT_EQ(VerifyAny(k.cert, data, sha256_sig, 2), ERR_SIGNATURE_INVALID);
  Bytes other = data;
  other[0] ^= 0x80;
  EXPECT_EQ(VerifyAny(k.cert, other, sha256_sig, 4), ERR_SIGNATURE_INVALID);
}

TEST(CertificateAlgorithm, TellsSm2FromEverythingElse) {
  KeyAndCert sm2, rsa, p256;
  MakeSm2(&sm2);
  rsa.key = EVP_RSA_gen(1024);
  rsa.cert = CertFor(rsa.key);
  p256.key = EVP_EC_gen("P-256");
  p256.cert = CertFor(p256.key);
  uint32_t algo = 99;
  EXPECT_EQ(zeph_c_cert_getAlgoIDWithCert(sm2.cert.data(), static_cast<uint32_t>(sm2.cert.size()), &algo), 0u);
  EXPECT_EQ(algo, ZEPH_CERT_ALG_SM2);
  EXPECT_EQ(zeph_c_cert_getAlgoIDWithCert(rsa.cert.data(), static_cast<uint32_t>(rsa.cert.size()), &algo), 0u);
  EXPECT_EQ(algo, ZEPH_CERT_ALG_RSA);
  EXPECT_EQ(zeph_c_cert_getAlgoIDWithCert(p256.cert.data(), static_cast<uint32_t>(p256.cert.size()), &algo), 0u);
  EXPECT_EQ(algo, ZEPH_CERT_ALG_OTHER);
  const Bytes junk = {0x30, 0x03, 0x02, 0x01, 0x01};
  EXPECT_EQ(zeph_c_cert_getAlgoIDWithCert(junk.data(), 5, &algo), ERR_CERT_DECODE_FAILED);
  EXPECT_EQ(algo, ZEPH_CERT_ALG_OTHER);
  EXPECT_EQ(zeph_c_cert_getAlgoIDWithCert(nullptr, 5, &algo), ERR_CERT_DECODE_FAILED);
  EXPECT_EQ(zeph_c_cert_getAlgoIDWithCert(sm2.cert.data(), 10, nullptr), ERR_INVALID_PARAMETER);

  // A P-256 signature goes the RSA way and fails there: never a false accept.
  const Bytes data = {1, 2, 3};
  const Bytes ecdsa = SignRsa(p256.key, EVP_sha256(), data);
  EXPECT_EQ(VerifyAny(p256.cert, data, ecdsa, 4), ERR_SIGNATURE_INVALID);
  EXPECT_EQ(VerifySm2(p256.cert, data, ecdsa), ERR_SIGNATURE_INVALID);
  // An SM2 signature against the SM2 verifier with an RSA certificate.
  EXPECT_EQ(VerifySm2(rsa.cert, data, SignSm2(sm2.key, data, kSm2Id)), ERR_SIGNATURE_INVALID);
}

TEST(Verify, MalformedInputNeverVerifies) {
  KeyAndCert k;
  MakeSm2(&k);
  const Bytes data = {9, 9, 9};
  const Bytes sig = SignSm2(k.key, data, kSm2Id);
  const uint32_t cl = static_cast<uint32_t>(k.cert.size()), sl = static_cast<uint32_t>(sig.size());
  EXPECT_EQ(ZEPH_C_VerifySm2SignWithCert(k.cert.data(), cl, data.data(), 3, sig.data(), sl - 1), ERR_SIGNATURE_INVALID);
  EXPECT_EQ(ZEPH_C_VerifySm2SignWithCert(k.cert.data(), cl, nullptr, 3, sig.data(), sl), ERR_SIGNATURE_INVALID);
  EXPECT_EQ(ZEPH_C_VerifySm2SignWithCert(k.cert.data(), cl, data.data(), 3, nullptr, sl), ERR_SIGNATURE_INVALID);
  EXPECT_EQ(ZEPH_C_VerifyRsaSignWithCert(nullptr, 0, nullptr, 0, nullptr, 0, 4), ERR_SIGNATURE_INVALID);
  for (uint32_t cut = 0; cut < cl; cut += 37) {
    EXPECT_EQ(VerifyAny(Bytes(k.cert.begin(), k.cert.begin() + cut), data, sig, 0), ERR_SIGNATURE_INVALID);
  }
}

TEST(HashData, UsesTheIdentifierLowBits) {
  const unsigned char abc[] = {'a', 'b', 'c'};
  unsigned char out[64];
  uint32_t len = sizeof out;
  ASSERT_EQ(ZEPH_C_HashDataWithAlgID(0xABCD0004u, abc, 3, out, &len), 0u);
  EXPECT_EQ(zeph_test::ToHex(out, len), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
  len = sizeof out;
  ASSERT_EQ(ZEPH_C_HashDataWithAlgID(1, abc, 3, out, &len), 0u);
  EXPECT_EQ(zeph_test::ToHex(out, len), "66C7F0F462EEEDD9D1F2D46BDC10E4E24167C4875CF2F7A2297DA02B8F4BA8E0");
  len = sizeof out;
  EXPECT_EQ(ZEPH_C_HashDataWithAlgID(3, abc, 3, out, &len), ERR_DIGEST_FAILED);
}

}  // namespace
