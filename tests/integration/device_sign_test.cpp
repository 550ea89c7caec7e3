// Signing and decryption with the key's private keys, checked by OpenSSL and
// by the library's own verification against the certificates on the key.
#include "oracle.hpp"
#include "softkey_env.hpp"

namespace zeph_it {
namespace {

using SignTest = SoftkeyTest;

using zeph_test::Verifies;

uint32_t Verify(const Bytes &cert, const Bytes &data, const Bytes &sig, uint32_t id) {
  return ZEPH_C_VerifySignWithCert(cert.data(), Len(cert), data.data(), Len(data), sig.data(), Len(sig), id);
}

TEST_F(SignTest, Sm2AndRsaSignaturesVerifyWithTheKeysCertificates) {
  CreateStandardKey("G1");
  const Bytes sm2_cert = ExportCert("G1", "VorliEcc", "ECC"), rsa_cert = ExportCert("G1", "VorliRsa", "RSA1");
  const Bytes data = zeph_test::RandomBytes(1000, 5);
  // ZA prepares SM3(Z || M) itself, ZT (device type 10) lets the key hash; ZA signs RSA
  // through the vendor extension, ZN (no extensions) through the standard call.
  const struct {
    const char *key_sn;
    uint32_t id;
    const EVP_MD *md;
    const char *call;
  } rows[] = {{"ZA_G1", 0, EVP_sm3(), "SKF_ECCSignData"},
              {"ZT_G1", 0, EVP_sm3(), "SKF_Eu_ECCSignData"},
              {"ZA_G1", 0x10004, EVP_sha256(), "SKF_Ex_RSASignData"},
              {"ZN_G1", 4, EVP_sha256(), "SKF_RSASignData"},
              {"ZA_G1", 8, EVP_sha384(), "SKF_Ex_RSASignData"},
              {"ZN_G1", 16, EVP_sha512(), "SKF_RSASignData"},
              {"ZA_G1", 2, EVP_sha1(), "SKF_Ex_RSASignData"}};
  for (const auto &r : rows) {
    SCOPED_TRACE(std::string(r.key_sn) + " " + std::to_string(r.id));
    Handle h(r.key_sn);
    const bool sm2 = r.md == EVP_sm3();
    const Bytes &cert = sm2 ? sm2_cert : rsa_cert;
    Bytes sig(256), again(256);
    uint32_t len = sm2 ? 0 : 256, len2 = len;
    const auto trace = Traced([&] {
      if (sm2) {
        ASSERT_EQ(ZEPH_C_DoSm2Sign(h.get(), kUserPin, data.data(), 1000, sig.data(), &len), 0u);
        ASSERT_EQ(ZEPH_C_DoSm2Sign(h.get(), kUserPin, data.data(), 1000, again.data(), &len2), 0u);
      } else {
        ASSERT_EQ(ZEPH_C_DoRsaSign(h.get(), kUserPin, data.data(), 1000, sig.data(), &len, r.id), 0u);
      }
    });
    sig.resize(len);
    EXPECT_TRUE(AllClosed(trace));
    EXPECT_TRUE(Called(trace, r.call)) << Names(trace);
    // A DER SM2 signature is 70 to 72 bytes unless r or s has leading zero bytes (1 in 128).
    EXPECT_TRUE(sm2 ? len >= 60 && len <= 72 && sig != Bytes(again.begin(), again.begin() + len2) : len == 128) << len;
    EXPECT_TRUE(Verifies(cert, r.md, data, sig));
    EXPECT_EQ(Verify(cert, data, sig, r.id | 0x70000), 0u);
    EXPECT_EQ(Verify(sm2 ? rsa_cert : sm2_cert, data, sig, r.id), ERR_SIGNATURE_INVALID);
    for (size_t at : {size_t{5}, sig.size() / 2, sig.size() - 1}) {
      Bytes tampered = sig;
      tampered[at] ^= 0x40;
      EXPECT_EQ(Verify(cert, data, tampered, r.id), ERR_SIGNATURE_INVALID) << at;
    }
    EXPECT_EQ(Verify(Bytes(cert.begin(), cert.end() - 1), data, sig, r.id), ERR_SIGNATURE_INVALID);
    EXPECT_EQ(Verify(cert, Bytes(), sig, r.id), ERR_SIGNATURE_INVALID);
  }
  // The SM2 verifier with an RSA certificate, and an RSA digest other than the one signed.
  Handle h("ZA_G1");
  Bytes sig(256);
  uint32_t len = 256;
  ASSERT_EQ(ZEPH_C_DoRsaSign(h.get(), kUserPin, data.data(), 1000, sig.data(), &len, 4), 0u);
  EXPECT_EQ(Verify(rsa_cert, data, Bytes(sig.begin(), sig.begin() + len), 2), ERR_SIGNATURE_INVALID);
  EXPECT_EQ(ZEPH_C_VerifySm2SignWithCert(rsa_cert.data(), Len(rsa_cert), data.data(), 1000, sig.data(), 72),
            ERR_SIGNATURE_INVALID);
  EXPECT_EQ(ZEPH_C_DoRsaSign(h.get(), kUserPin, data.data(), 1000, sig.data(), &len, 3), ERR_PRETREATMENT_FAILED);
  // A wrong PIN signs nothing and closes the session.
  len = 77;
  const auto trace = Traced([&] {
    EXPECT_EQ(ZEPH_C_DoSm2Sign(h.get(), "000000", data.data(), 1, sig.data(), &len), SAR_PIN_INCORRECT);
    EXPECT_EQ(ZEPH_C_DoRsaSign(h.get(), "000000", data.data(), 1, sig.data(), &len, 4), SAR_PIN_INCORRECT);
  });
  EXPECT_EQ(len, 77u);
  EXPECT_FALSE(Called(trace, "SKF_ECCSignData") || Called(trace, "SKF_Ex_RSASignData")) << Names(trace);
  EXPECT_TRUE(AllClosed(trace));
}

TEST_F(SignTest, RsaDecryptionOfAnOpenSslCiphertext) {
  CreateStandardKey("R2");
  const Bytes cert = ExportCert("R2", "VorliRsa", "RSA2", "enc");
  const Bytes secret = zeph_test::RandomBytes(24, 11), cipher = zeph_test::Encrypt(cert, secret);
  Bytes raw(128, 0x5A);  // a block without type-2 padding
  raw[0] = 0x00;
  raw[1] = 0x01;
  const struct {
    const char *key_sn;
    Bytes cipher;
    uint32_t status;
    size_t len;
  } rows[] = {{"ZA_R2", cipher, 0, 24},
              {"ZT_R2", cipher, 0, 128},  // device type 10 hands back the block, padding and all
              {"ZA_R2", zeph_test::Encrypt(cert, raw, RSA_NO_PADDING), ERR_PADDING_INVALID, 0},
              {"ZN_R2", cipher, ERR_UNSUPPORTED_VALUE, 0}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.key_sn);
    Handle h(r.key_sn);
    GM_SKF_CTX *ctx = h.ctx();
    ASSERT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_RSA_ENC), 0u);
    ASSERT_EQ(GM_SKF_CTX_VerifyPin(ctx, kUserPin, 6), 0u);
    Bytes out(256);
    uint32_t len = 256;
    EXPECT_EQ(GM_SKF_CTX_DoAsymDec(ctx, r.cipher.data(), 128, 1, out.data(), &len), r.status);
    if (r.status != 0) continue;
    ASSERT_EQ(len, r.len);
    EXPECT_EQ(Bytes(out.begin() + len - 24, out.begin() + len), secret);
    EXPECT_TRUE(len < 128 || out[0] * 256 + out[1] == 2);
  }
}

}  // namespace
}  // namespace zeph_it
