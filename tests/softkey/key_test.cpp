// Containers and every private-key operation, each checked against OpenSSL.
#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <fstream>
#include <iterator>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using Bytes = std::vector<uint8_t>;

EVP_PKEY *Sm2Public(const ECCPUBLICKEYBLOB &blob) {
  uint8_t point[65] = {0x04};
  std::memcpy(point + 1, blob.XCoordinate + 32, 32);
  std::memcpy(point + 33, blob.YCoordinate + 32, 32);
  OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
  OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, "SM2", 0);
  OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point);
  OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr);
  EVP_PKEY *k = nullptr;
  EVP_PKEY_fromdata_init(ctx);
  EVP_PKEY_fromdata(ctx, &k, EVP_PKEY_PUBLIC_KEY, params);
  EVP_PKEY_CTX_free(ctx);
  OSSL_PARAM_free(params);
  OSSL_PARAM_BLD_free(bld);
  return k;
}

EVP_PKEY *RsaPublic(const RSAPUBLICKEYBLOB &blob) {
  BIGNUM *n = BN_bin2bn(blob.Modulus, sizeof blob.Modulus, nullptr);
  BIGNUM *e = BN_bin2bn(blob.PublicExponent, sizeof blob.PublicExponent, nullptr);
  OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, n);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, e);
  OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
  EVP_PKEY *k = nullptr;
  EVP_PKEY_fromdata_init(ctx);
  EVP_PKEY_fromdata(ctx, &k, EVP_PKEY_PUBLIC_KEY, params);
  EVP_PKEY_CTX_free(ctx);
  OSSL_PARAM_free(params);
  OSSL_PARAM_BLD_free(bld);
  BN_free(n);
  BN_free(e);
  return k;
}

// OpenSSL's SM2 verification of a signature on the message itself, with the
// default identity; r and s come from the blob's right-aligned halves.
bool Sm2Verify(EVP_PKEY *pub, const std::string &msg, const ECCSIGNATUREBLOB &sig) {
  ECDSA_SIG *s = ECDSA_SIG_new();
  ECDSA_SIG_set0(s, BN_bin2bn(sig.r + 32, 32, nullptr), BN_bin2bn(sig.s + 32, 32, nullptr));
  unsigned char *der = nullptr;
  const int der_len = i2d_ECDSA_SIG(s, &der);
  ECDSA_SIG_free(s);
  EVP_PKEY_CTX *pctx = EVP_PKEY_CTX_new(pub, nullptr);
  EVP_PKEY_CTX_set1_id(pctx, kDefaultId, 16);
  EVP_MD_CTX *md = EVP_MD_CTX_new();
  EVP_MD_CTX_set_pkey_ctx(md, pctx);
  const bool ok = EVP_DigestVerifyInit(md, nullptr, EVP_sm3(), nullptr, pub) == 1 &&
                  EVP_DigestVerify(md, der, der_len, reinterpret_cast<const unsigned char *>(msg.data()),
                                   msg.size()) == 1;
  EVP_MD_CTX_free(md);
  EVP_PKEY_CTX_free(pctx);
  OPENSSL_free(der);
  return ok;
}

// OpenSSL's SM2 ciphertext (DER: x, y, C3, C2) as an ECCCIPHERBLOB.
std::vector<uint8_t> Sm2EncryptToBlob(EVP_PKEY *pub, const Bytes &plain) {
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(pub, nullptr);
  size_t n = 0;
  EVP_PKEY_encrypt_init(ctx);
  EVP_PKEY_encrypt(ctx, nullptr, &n, plain.data(), plain.size());
  Bytes der(n);
  EVP_PKEY_encrypt(ctx, der.data(), &n, plain.data(), plain.size());
  EVP_PKEY_CTX_free(ctx);
  const unsigned char *p = der.data();
  ASN1_SEQUENCE_ANY *seq = d2i_ASN1_SEQUENCE_ANY(nullptr, &p, static_cast<long>(n));
  Bytes blob(sizeof(ECCCIPHERBLOB) - 1 + plain.size(), 0);
  auto *b = reinterpret_cast<ECCCIPHERBLOB *>(blob.data());
  for (int i = 0; i < 2; ++i) {
    BIGNUM *v = ASN1_INTEGER_to_BN(sk_ASN1_TYPE_value(seq, i)->value.integer, nullptr);
    BN_bn2binpad(v, (i == 0 ? b->XCoordinate : b->YCoordinate) + 32, 32);
    BN_free(v);
  }
  const ASN1_OCTET_STRING *c3 = sk_ASN1_TYPE_value(seq, 2)->value.octet_string;
  const ASN1_OCTET_STRING *c2 = sk_ASN1_TYPE_value(seq, 3)->value.octet_string;
  std::memcpy(b->HASH, ASN1_STRING_get0_data(c3), 32);
  b->CipherLen = static_cast<ULONG>(ASN1_STRING_length(c2));
  std::memcpy(b->Cipher, ASN1_STRING_get0_data(c2), b->CipherLen);
  sk_ASN1_TYPE_pop_free(seq, ASN1_TYPE_free);
  return blob;
}

class KeyTest : public SoftkeyTest {
 protected:
  void SetUp() override {
    SoftkeyTest::SetUp();
    MakeStandardKey(true);
    dev = Connect();
    ecc_app = OpenApp(dev, "VorliEcc", kUserPin);
    ecc = OpenCon(ecc_app, "ECC");
    rsa_app = OpenApp(dev, "VorliRsa", kUserPin);
    rsa = OpenCon(rsa_app, "RSA1");
  }
  void TearDown() override {
    EXPECT_EQ(skf.SKF_DisConnectDev(dev), SAR_OK);
    SoftkeyTest::TearDown();
  }
  ECCPUBLICKEYBLOB EccBlob(HCONTAINER c, BOOL sign) {
    ECCPUBLICKEYBLOB blob;
    ULONG len = sizeof blob;
    EXPECT_EQ(skf.SKF_ExportPublicKey(c, sign, reinterpret_cast<BYTE *>(&blob), &len), SAR_OK);
    EXPECT_EQ(len, sizeof blob);
    return blob;
  }
  RSAPUBLICKEYBLOB RsaBlob(HCONTAINER c, BOOL sign) {
    RSAPUBLICKEYBLOB blob;
    ULONG len = sizeof blob;
    EXPECT_EQ(skf.SKF_ExportPublicKey(c, sign, reinterpret_cast<BYTE *>(&blob), &len), SAR_OK);
    EXPECT_EQ(len, sizeof blob);
    return blob;
  }
  X509 *Cert(HCONTAINER c, BOOL sign) {
    ULONG len = 0;
    EXPECT_EQ(skf.SKF_ExportCertificate(c, sign, nullptr, &len), SAR_OK);
    Bytes der(len);
    EXPECT_EQ(skf.SKF_ExportCertificate(c, sign, der.data(), &len), SAR_OK);
    const unsigned char *p = der.data();
    return d2i_X509(nullptr, &p, len);
  }
  // e = SM3(Z || M) through the device's own digest with the signing key.
  Bytes DigestWithZ(const std::string &msg) {
    ECCPUBLICKEYBLOB pub = EccBlob(ecc, TRUE);
    HANDLE h = nullptr;
    EXPECT_EQ(skf.SKF_DigestInit(dev, SGD_SM3, &pub, nullptr, 0, &h), SAR_OK);
    EXPECT_EQ(skf.SKF_DigestUpdate(h, reinterpret_cast<BYTE *>(const_cast<char *>(msg.data())),
                                   static_cast<ULONG>(msg.size())),
              SAR_OK);
    Bytes e(32);
    ULONG len = 32;
    EXPECT_EQ(skf.SKF_DigestFinal(h, e.data(), &len), SAR_OK);
    EXPECT_EQ(skf.SKF_CloseHandle(h), SAR_OK);
    return e;
  }

  DEVHANDLE dev = nullptr;
  HAPPLICATION ecc_app = nullptr, rsa_app = nullptr;
  HCONTAINER ecc = nullptr, rsa = nullptr;
};

TEST_F(KeyTest, Sm2SignatureVerifiesWithTheCertificate) {
  const std::string msg = "message signed by the software key";
  Bytes e = DigestWithZ(msg);
  ECCSIGNATUREBLOB sig;
  std::memset(&sig, 0xEE, sizeof sig);
  ASSERT_EQ(skf.SKF_ECCSignData(ecc, e.data(), 32, &sig), SAR_OK);
  for (int i = 0; i < 32; ++i) ASSERT_EQ(sig.r[i] | sig.s[i], 0) << "upper halves of r and s must be zero";

  X509 *cert = Cert(ecc, TRUE);
  ASSERT_NE(cert, nullptr);
  EVP_PKEY *cert_key = X509_get0_pubkey(cert);
  EXPECT_TRUE(Sm2Verify(cert_key, msg, sig));
  EXPECT_FALSE(Sm2Verify(cert_key, msg + ".", sig));
  // The exported blob is the certificate's key, right-aligned.
  const ECCPUBLICKEYBLOB blob = EccBlob(ecc, TRUE);
  EXPECT_EQ(blob.BitLen, 256u);
  EVP_PKEY *from_blob = Sm2Public(blob);
  EXPECT_EQ(EVP_PKEY_eq(from_blob, cert_key), 1);
  // The certificate is self-signed with SM2-with-SM3 and the default identity.
  ASN1_OCTET_STRING *id = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(id, reinterpret_cast<const unsigned char *>(kDefaultId), 16);
  X509_set0_distinguishing_id(cert, id);
  EXPECT_EQ(X509_verify(cert, cert_key), 1);
  EVP_PKEY_free(from_blob);
  X509_free(cert);

  // The device hashes Z || M itself on request.
  ASSERT_EQ(skf.SKF_Eu_ECCSignData(ecc, reinterpret_cast<BYTE *>(const_cast<char *>(msg.data())),
                                   static_cast<ULONG>(msg.size()), &sig),
            SAR_OK);
  EVP_PKEY *pub = Sm2Public(blob);
  EXPECT_TRUE(Sm2Verify(pub, msg, sig));
  EVP_PKEY_free(pub);
}

TEST_F(KeyTest, SigningRefusals) {
  uint8_t e[33] = {};
  ECCSIGNATUREBLOB sig;
  EXPECT_EQ(skf.SKF_ECCSignData(ecc, e, 31, &sig), SAR_INDATALENERR);
  EXPECT_EQ(skf.SKF_ECCSignData(ecc, e, 33, &sig), SAR_INDATALENERR);
  EXPECT_EQ(skf.SKF_ECCSignData(ecc, nullptr, 32, &sig), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_ECCSignData(rsa, e, 32, &sig), SAR_KEYINFOTYPEERR);
  HCONTAINER anon = OpenCon(OpenApp(dev, "VorliEcc"), "ECC");
  EXPECT_EQ(skf.SKF_ECCSignData(anon, e, 32, &sig), SAR_USER_NOT_LOGGED_IN);
  HCONTAINER empty = nullptr;
  ASSERT_EQ(skf.SKF_CreateContainer(ecc_app, const_cast<char *>("Empty"), &empty), SAR_OK);
  EXPECT_EQ(skf.SKF_ECCSignData(empty, e, 32, &sig), SAR_KEYNOTFOUNTERR);
  BYTE rsa_sig[128];
  ULONG len = sizeof rsa_sig;
  EXPECT_EQ(skf.SKF_RSASignData(ecc, e, 32, rsa_sig, &len), SAR_KEYINFOTYPEERR);
}

TEST_F(KeyTest, ContainersKindsAndLifetimes) {
  ULONG type = 9;
  EXPECT_EQ(skf.SKF_GetConProperty(ecc, &type), SAR_OK);
  EXPECT_EQ(type, CONTAINER_TYPE_ECC);
  EXPECT_EQ(skf.SKF_GetConProperty(rsa, &type), SAR_OK);
  EXPECT_EQ(type, CONTAINER_TYPE_RSA);
  HCONTAINER fresh = nullptr;
  ASSERT_EQ(skf.SKF_CreateContainer(ecc_app, const_cast<char *>("Fresh"), &fresh), SAR_OK);
  EXPECT_EQ(skf.SKF_GetConProperty(fresh, &type), SAR_OK);
  EXPECT_EQ(type, CONTAINER_TYPE_EMPTY);
  RSAPUBLICKEYBLOB rblob;
  EXPECT_EQ(skf.SKF_GenRSAKeyPair(ecc, 1024, &rblob), SAR_KEYINFOTYPEERR) << "one kind of key per container";
  EXPECT_EQ(skf.SKF_GenRSAKeyPair(fresh, 1536, &rblob), SAR_RSAMODULUSLENERR);
  ECCPUBLICKEYBLOB eblob;
  EXPECT_EQ(skf.SKF_GenECCKeyPair(fresh, SGD_SM2_3, &eblob), SAR_INVALIDPARAMERR);
  ASSERT_EQ(skf.SKF_GenECCKeyPair(fresh, SGD_SM2_1, &eblob), SAR_OK);
  const ECCPUBLICKEYBLOB exported = EccBlob(fresh, TRUE);
  EXPECT_EQ(std::memcmp(&exported, &eblob, sizeof eblob), 0);
  ULONG len = 0;
  EXPECT_EQ(skf.SKF_ExportPublicKey(fresh, FALSE, nullptr, &len), SAR_KEYNOTFOUNTERR);
  EXPECT_EQ(skf.SKF_ExportCertificate(fresh, TRUE, nullptr, &len), SAR_CERTNOTFOUNTERR);
  BYTE junk[] = {0x30, 0x03, 0x02, 0x01, 0x01};
  EXPECT_EQ(skf.SKF_ImportCertificate(fresh, TRUE, junk, sizeof junk), SAR_INVALIDPARAMERR);

  ULONG size = 0;
  ASSERT_EQ(skf.SKF_EnumContainer(ecc_app, nullptr, &size), SAR_OK);
  std::vector<char> list(size);
  ASSERT_EQ(skf.SKF_EnumContainer(ecc_app, list.data(), &size), SAR_OK);
  EXPECT_EQ(Names(list), (std::vector<std::string>{"ECC", "Fresh"}));
  HCONTAINER missing = nullptr;
  EXPECT_EQ(skf.SKF_OpenContainer(ecc_app, const_cast<char *>("Nope"), &missing), SAR_FILE_NOT_EXIST);
  ASSERT_EQ(skf.SKF_DeleteContainer(ecc_app, const_cast<char *>("Fresh")), SAR_OK);
  EXPECT_EQ(skf.SKF_GetConProperty(fresh, &type), SAR_INVALIDHANDLEERR) << "its container is gone";
  EXPECT_EQ(skf.SKF_CloseContainer(fresh), SAR_OK);
  EXPECT_EQ(skf.SKF_DeleteContainer(ecc_app, const_cast<char *>("Fresh")), SAR_FILE_NOT_EXIST);
}

TEST_F(KeyTest, Sm2DecryptsOpenSslCiphertexts) {
  EVP_PKEY *enc_pub = Sm2Public(EccBlob(ecc, FALSE));
  for (size_t n : {1, 16, 32, 1000}) {
    const Bytes plain = zeph_test::RandomBytes(n, static_cast<uint32_t>(n));
    Bytes blob = Sm2EncryptToBlob(enc_pub, plain);
    auto *b = reinterpret_cast<ECCCIPHERBLOB *>(blob.data());
    ULONG len = 0;
    ASSERT_EQ(skf.SKF_ECCDecrypt(ecc, FALSE, b, nullptr, &len), SAR_OK);
    ASSERT_EQ(len, n);
    Bytes out(n + 1, 0xEE);
    len = static_cast<ULONG>(n - 1);
    EXPECT_EQ(skf.SKF_ECCDecrypt(ecc, FALSE, b, out.data(), &len), SAR_BUFFER_TOO_SMALL);
    EXPECT_EQ(len, n);
    ASSERT_EQ(skf.SKF_ECCDecrypt(ecc, FALSE, b, out.data(), &len), SAR_OK);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + static_cast<long>(n)), plain);
    EXPECT_EQ(out[n], 0xEE);
  }
  // Faults a blob conversion can make, and the wrong key.
  const Bytes plain(20, 0x5A);
  const Bytes good = Sm2EncryptToBlob(enc_pub, plain);
  struct Case {
    const char *what;
    void (*spoil)(ECCCIPHERBLOB *);
    BOOL sign;
    ULONG rv;
  } const cases[] = {
      {"intact, signing key", [](ECCCIPHERBLOB *) {}, TRUE, SAR_HASHNOTEQUALERR},
      {"C3 altered", [](ECCCIPHERBLOB *b) { b->HASH[0] ^= 1; }, FALSE, SAR_HASHNOTEQUALERR},
      {"C2 altered", [](ECCCIPHERBLOB *b) { b->Cipher[0] ^= 1; }, FALSE, SAR_HASHNOTEQUALERR},
      {"x upper half set", [](ECCCIPHERBLOB *b) { b->XCoordinate[0] = 1; }, FALSE, SAR_INDATAERR},
      {"x read from offset 0", [](ECCCIPHERBLOB *b) { std::memmove(b->XCoordinate, b->XCoordinate + 32, 32); },
       FALSE, SAR_INDATAERR},
      {"not on the curve", [](ECCCIPHERBLOB *b) { b->YCoordinate[63] ^= 1; }, FALSE, SAR_INDATAERR},
      {"no cipher", [](ECCCIPHERBLOB *b) { b->CipherLen = 0; }, FALSE, SAR_INDATALENERR},
      {"absurd length", [](ECCCIPHERBLOB *b) { b->CipherLen = 0xFFFFFFF0; }, FALSE, SAR_INDATALENERR},
  };
  for (const auto &c : cases) {
    Bytes blob = good;
    c.spoil(reinterpret_cast<ECCCIPHERBLOB *>(blob.data()));
    Bytes out(64);
    ULONG len = 64;
    EXPECT_EQ(skf.SKF_ECCDecrypt(ecc, c.sign, reinterpret_cast<ECCCIPHERBLOB *>(blob.data()), out.data(), &len), c.rv)
        << c.what;
  }
  EVP_PKEY_free(enc_pub);
}

TEST_F(KeyTest, RsaSignsDigestInfoAndDecryptsToThePaddedBlock) {
  const RSAPUBLICKEYBLOB blob = RsaBlob(rsa, TRUE);
  EXPECT_EQ(blob.BitLen, 1024u);
  for (int i = 0; i < 128; ++i) ASSERT_EQ(blob.Modulus[i], 0) << "the 1024-bit modulus is right-aligned";
  EVP_PKEY *pub = RsaPublic(blob);
  ASSERT_NE(pub, nullptr);

  // DigestInfo of SHA-256("abc"): the device pads and signs it as given.
  const std::string msg = "abc";
  Bytes info = zeph_test::FromHex("3031300d060960864801650304020105000420");
  uint8_t h[32];
  EVP_Digest(msg.data(), msg.size(), h, nullptr, EVP_sha256(), nullptr);
  info.insert(info.end(), h, h + 32);
  ULONG len = 0;
  ASSERT_EQ(skf.SKF_RSASignData(rsa, info.data(), static_cast<ULONG>(info.size()), nullptr, &len), SAR_OK);
  ASSERT_EQ(len, 128u);
  Bytes sig(128), sig_ex(128), sig_eu(128);
  ASSERT_EQ(skf.SKF_RSASignData(rsa, info.data(), static_cast<ULONG>(info.size()), sig.data(), &len), SAR_OK);
  EVP_MD_CTX *md = EVP_MD_CTX_new();
  EVP_DigestVerifyInit(md, nullptr, EVP_sha256(), nullptr, pub);
  EXPECT_EQ(EVP_DigestVerify(md, sig.data(), sig.size(), reinterpret_cast<const uint8_t *>(msg.data()), 3), 1);
  EVP_MD_CTX_free(md);
  ULONG extra = 7;
  ASSERT_EQ(skf.SKF_Ex_RSASignData(rsa, 1, info.data(), static_cast<ULONG>(info.size()), sig_ex.data(), &len), SAR_OK);
  ASSERT_EQ(skf.SKF_Eu_RSASignData(rsa, info.data(), static_cast<ULONG>(info.size()), sig_eu.data(), &len, &extra),
            SAR_OK);
  EXPECT_EQ(sig_ex, sig);
  EXPECT_EQ(sig_eu, sig);
  Bytes too_long(118, 1);
  EXPECT_EQ(skf.SKF_RSASignData(rsa, too_long.data(), 118, sig.data(), &len), SAR_INDATALENERR);

  const Bytes plain = {'s', 'e', 'c', 'r', 'e', 't'};
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(pub, nullptr);
  EVP_PKEY_encrypt_init(ctx);
  EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING);
  Bytes cipher(128);
  size_t clen = cipher.size();
  ASSERT_EQ(EVP_PKEY_encrypt(ctx, cipher.data(), &clen, plain.data(), plain.size()), 1);
  EVP_PKEY_CTX_free(ctx);
  for (ULONG mode : {1u, 2u, 50u}) {
    Bytes block(128);
    len = 128;
    ASSERT_EQ(skf.SKF_RSADecrypt(rsa, cipher.data(), 128, block.data(), &len, mode), SAR_OK);
    ASSERT_EQ(len, 128u);
    EXPECT_EQ(block[0], 0x00);
    EXPECT_EQ(block[1], 0x02);
    EXPECT_EQ(block[128 - 7], 0x00);
    EXPECT_EQ(Bytes(block.end() - 6, block.end()), plain);
  }
  Bytes block(128);
  len = 128;
  EXPECT_EQ(skf.SKF_RSADecrypt(rsa, cipher.data(), 128, block.data(), &len, 3), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_RSADecrypt(rsa, cipher.data(), 127, block.data(), &len, 1), SAR_INDATALENERR);
  Bytes above_modulus(128, 0xFF);
  EXPECT_EQ(skf.SKF_RSADecrypt(rsa, above_modulus.data(), 128, block.data(), &len, 1), SAR_RSADECERR);
  EVP_PKEY_free(pub);
}

// An SM2 encryption pair arrives enveloped for the signing key: the SM4 key
// SM2-encrypted, the 64-byte private key field SM4-ECB-encrypted.
TEST_F(KeyTest, ImportsAnEnvelopedSm2PairAndKeepsItSealed) {
  EVP_PKEY *pair = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  BIGNUM *d = nullptr;
  EVP_PKEY_get_bn_param(pair, OSSL_PKEY_PARAM_PRIV_KEY, &d);
  uint8_t field[64] = {}, point[65];
  BN_bn2binpad(d, field + 32, 32);
  size_t plen = 0;
  EVP_PKEY_get_octet_string_param(pair, OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point, &plen);
  const Bytes symm = zeph_test::RandomBytes(16, 4);
  EVP_PKEY *sign_pub = Sm2Public(EccBlob(ecc, TRUE));
  const Bytes wrapped = Sm2EncryptToBlob(sign_pub, symm);

  Bytes env_bytes(sizeof(ENVELOPEDKEYBLOB) + 15, 0);
  auto *env = reinterpret_cast<ENVELOPEDKEYBLOB *>(env_bytes.data());
  env->Version = 1;
  env->ulSymmAlgID = SGD_SM4_ECB;
  env->ulBits = 256;
  for (int i = 0; i < 64; i += 16) {
    const auto c = Sm4Block(symm.data(), field + i);
    std::memcpy(env->cbEncryptedPriKey + i, c.data(), 16);
  }
  env->PubKey.BitLen = 256;
  std::memcpy(env->PubKey.XCoordinate + 32, point + 1, 32);
  std::memcpy(env->PubKey.YCoordinate + 32, point + 33, 32);
  std::memcpy(&env->ECCCipherBlob, wrapped.data(), wrapped.size());

  Bytes spoiled = env_bytes;
  reinterpret_cast<ENVELOPEDKEYBLOB *>(spoiled.data())->PubKey.YCoordinate[40] ^= 1;
  EXPECT_EQ(skf.SKF_ImportECCKeyPair(ecc, reinterpret_cast<ENVELOPEDKEYBLOB *>(spoiled.data())), SAR_INDATAERR);
  spoiled = env_bytes;
  reinterpret_cast<ENVELOPEDKEYBLOB *>(spoiled.data())->ulSymmAlgID = SGD_SSF33_ECB;
  EXPECT_EQ(skf.SKF_ImportECCKeyPair(ecc, reinterpret_cast<ENVELOPEDKEYBLOB *>(spoiled.data())), SAR_NOTSUPPORTYETERR);
  ASSERT_EQ(skf.SKF_ImportECCKeyPair(ecc, env), SAR_OK);

  const ECCPUBLICKEYBLOB now = EccBlob(ecc, FALSE);
  EXPECT_EQ(std::memcmp(now.XCoordinate + 32, point + 1, 32), 0);
  Bytes blob = Sm2EncryptToBlob(pair, {1, 2, 3});
  uint8_t out[3];
  ULONG len = 3;
  ASSERT_EQ(skf.SKF_ECCDecrypt(ecc, FALSE, reinterpret_cast<ECCCIPHERBLOB *>(blob.data()), out, &len), SAR_OK);
  EXPECT_EQ(Bytes(out, out + 3), (Bytes{1, 2, 3}));

  // At rest the private key is sealed: its bytes appear nowhere on disk.
  std::ifstream in(root.file(std::string(kSerial) + "/device.json"));
  const std::string disk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(disk.find(zeph_test::ToHex(field + 32, 32)), std::string::npos);
  BN_free(d);
  EVP_PKEY_free(sign_pub);
  EVP_PKEY_free(pair);
}

// An RSA pair: the SM4 key under the signing key's PKCS#1, the DER private
// key SM4-ECB with PKCS#5 padding. Decryption then uses the new pair, and
// session keys wrapped for it become SM4 keys of the device.
TEST_F(KeyTest, ImportsAnRsaPairAndSessionKeysForIt) {
  EVP_PKEY *pair = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1024});
  unsigned char *der = nullptr;
  const int der_len = i2d_PrivateKey(pair, &der);
  const Bytes symm = zeph_test::RandomBytes(16, 5);
  Bytes padded(der, der + der_len);
  OPENSSL_free(der);
  const size_t pad = 16 - padded.size() % 16;
  padded.insert(padded.end(), pad, static_cast<uint8_t>(pad));
  Bytes encrypted(padded.size());
  for (size_t i = 0; i < padded.size(); i += 16) {
    const auto c = Sm4Block(symm.data(), padded.data() + i);
    std::memcpy(encrypted.data() + i, c.data(), 16);
  }
  auto rsa_encrypt = [](EVP_PKEY *k, const Bytes &in) {
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(k, nullptr);
    EVP_PKEY_encrypt_init(ctx);
    EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING);
    Bytes out(256);
    size_t n = out.size();
    EVP_PKEY_encrypt(ctx, out.data(), &n, in.data(), in.size());
    EVP_PKEY_CTX_free(ctx);
    out.resize(n);
    return out;
  };
  EVP_PKEY *sign_pub = RsaPublic(RsaBlob(rsa, TRUE));
  Bytes wrapped = rsa_encrypt(sign_pub, symm);
  ASSERT_EQ(skf.SKF_ImportRSAKeyPair(rsa, SGD_SM4_ECB, wrapped.data(), static_cast<ULONG>(wrapped.size()),
                                     encrypted.data(), static_cast<ULONG>(encrypted.size())),
            SAR_OK);
  EVP_PKEY *enc_pub = RsaPublic(RsaBlob(rsa, FALSE));
  EXPECT_EQ(EVP_PKEY_eq(enc_pub, pair), 1);

  const Bytes session = zeph_test::RandomBytes(16, 6);
  Bytes wrapped_session = rsa_encrypt(pair, session);
  HANDLE key = nullptr;
  ASSERT_EQ(skf.SKF_ImportSessionKey(rsa, SGD_SM4_ECB, wrapped_session.data(),
                                     static_cast<ULONG>(wrapped_session.size()), &key),
            SAR_OK);
  uint8_t block[16] = {9}, out[16];
  ULONG len = 16;
  ASSERT_EQ(skf.SKF_EncryptInit(key, BLOCKCIPHERPARAM{}), SAR_OK);
  ASSERT_EQ(skf.SKF_Encrypt(key, block, 16, out, &len), SAR_OK);
  EXPECT_EQ(Bytes(out, out + 16), Sm4Block(session.data(), block));
  Bytes for_sign_key = rsa_encrypt(sign_pub, session);
  EXPECT_EQ(skf.SKF_ImportSessionKey(rsa, SGD_SM4_ECB, for_sign_key.data(), 128, &key), SAR_RSADECERR)
      << "with an encryption pair present, the signing pair does not decrypt";

  // The SM2 container's session keys come as ECCCIPHERBLOBs.
  EVP_PKEY *ecc_enc = Sm2Public(EccBlob(ecc, FALSE));
  Bytes ecc_wrapped = Sm2EncryptToBlob(ecc_enc, session);
  ASSERT_EQ(skf.SKF_ImportSessionKey(ecc, SGD_SM4_CBC, ecc_wrapped.data(), static_cast<ULONG>(ecc_wrapped.size()),
                                     &key),
            SAR_OK);
  EXPECT_EQ(skf.SKF_ImportSessionKey(ecc, SGD_SM4_CBC, ecc_wrapped.data(), 170, &key), SAR_INDATALENERR);
  EXPECT_EQ(skf.SKF_ImportSessionKey(ecc, SGD_SM1_ECB, ecc_wrapped.data(), 180, &key), SAR_NOTSUPPORTYETERR);
  EXPECT_EQ(skf.SKF_CloseContainer(ecc), SAR_OK);
  EXPECT_EQ(skf.SKF_CloseHandle(key), SAR_INVALIDHANDLEERR) << "closing the container closes its session keys";
  EVP_PKEY_free(ecc_enc);
  EVP_PKEY_free(enc_pub);
  EVP_PKEY_free(sign_pub);
  EVP_PKEY_free(pair);
}

}  // namespace
}  // namespace sk_test
