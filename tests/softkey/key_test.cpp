// Every private-key operation, SM4 and the digests, each checked against
// OpenSSL.
#include <cctype>

#include <openssl/core_names.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

using zeph_test::Verifies;

// The oracle's SM2 signature check of a blob's r and s (right-aligned halves)
// on the message itself, with the default identity.
bool Sm2Verifies(const Bytes &cert, const std::string &msg, const ECCSIGNATUREBLOB &sig) {
  return Verifies(cert, EVP_sm3(), Bytes(msg.begin(), msg.end()), zeph_test::SignatureDer(sig.r + 32, sig.s + 32));
}

// An SM2 ciphertext of the oracle (DER: x, y, C3, C2) as an ECCCIPHERBLOB.
Bytes BlobOf(const Bytes &der) {
  const unsigned char *p = der.data();
  ASN1_SEQUENCE_ANY *seq = d2i_ASN1_SEQUENCE_ANY(nullptr, &p, static_cast<long>(der.size()));
  const ASN1_OCTET_STRING *c3 = sk_ASN1_TYPE_value(seq, 2)->value.octet_string;
  const ASN1_OCTET_STRING *c2 = sk_ASN1_TYPE_value(seq, 3)->value.octet_string;
  Bytes blob(sizeof(ECCCIPHERBLOB) - 1 + ASN1_STRING_length(c2), 0);
  auto *b = reinterpret_cast<ECCCIPHERBLOB *>(blob.data());
  for (int i = 0; i < 2; ++i) {
    BIGNUM *v = ASN1_INTEGER_to_BN(sk_ASN1_TYPE_value(seq, i)->value.integer, nullptr);
    BN_bn2binpad(v, (i == 0 ? b->XCoordinate : b->YCoordinate) + 32, 32);
    BN_free(v);
  }
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
    rsa = OpenCon(OpenApp(dev, "VorliRsa", kUserPin), "RSA1");
  }
  void TearDown() override {
    EXPECT_EQ(skf.SKF_DisConnectDev(dev), SAR_OK);
    SoftkeyTest::TearDown();
  }
  Bytes Cert(HCONTAINER c, BOOL sign) {
    ULONG len = 0;
    EXPECT_EQ(skf.SKF_ExportCertificate(c, sign, nullptr, &len), SAR_OK);
    Bytes der(len);
    EXPECT_EQ(skf.SKF_ExportCertificate(c, sign, der.data(), &len), SAR_OK);
    return der;
  }

  DEVHANDLE dev = nullptr;
  HAPPLICATION ecc_app = nullptr;
  HCONTAINER ecc = nullptr, rsa = nullptr;
};

TEST_F(KeyTest, Sm2SignatureVerifiesWithTheCertificate) {
  const std::string msg = "message signed by the software key";
  // e = SM3(Z || M) through the device's own digest with the exported signing key.
  ECCPUBLICKEYBLOB blob;
  ULONG len = sizeof blob;
  ASSERT_EQ(skf.SKF_ExportPublicKey(ecc, TRUE, reinterpret_cast<BYTE *>(&blob), &len), SAR_OK);
  EXPECT_EQ(blob.BitLen, 256u);
  HANDLE h = nullptr;
  uint8_t e[32];
  ASSERT_EQ(skf.SKF_DigestInit(dev, SGD_SM3, &blob, nullptr, 0, &h), SAR_OK);
  ASSERT_EQ(skf.SKF_DigestUpdate(h, B(msg), ULONG(msg.size())), SAR_OK);
  ASSERT_EQ(skf.SKF_DigestFinal(h, e, &len), SAR_OK);
  ECCSIGNATUREBLOB sig;
  std::memset(&sig, 0xEE, sizeof sig);
  ASSERT_EQ(skf.SKF_ECCSignData(ecc, e, 32, &sig), SAR_OK);
  for (int i = 0; i < 32; ++i) ASSERT_EQ(sig.r[i] | sig.s[i], 0) << "upper halves of r and s must be zero";
  const Bytes cert_der = Cert(ecc, TRUE);
  EXPECT_TRUE(Sm2Verifies(cert_der, msg, sig)) << "the blob, Z and the signature agree with the certificate";
  EXPECT_FALSE(Sm2Verifies(cert_der, msg + ".", sig));
  ASSERT_EQ(skf.SKF_Eu_ECCSignData(ecc, B(msg), ULONG(msg.size()), &sig), SAR_OK);
  EXPECT_TRUE(Sm2Verifies(cert_der, msg, sig)) << "the device hashes Z || M itself on request";
  // The certificate is self-signed with SM2-with-SM3 and the default identity.
  const unsigned char *p = cert_der.data();
  X509 *cert = d2i_X509(nullptr, &p, static_cast<long>(cert_der.size()));
  ASSERT_NE(cert, nullptr);
  ASN1_OCTET_STRING *id = ASN1_OCTET_STRING_new();
  ASN1_OCTET_STRING_set(id, reinterpret_cast<const unsigned char *>(kAuthKey), 16);
  X509_set0_distinguishing_id(cert, id);
  EXPECT_EQ(X509_verify(cert, X509_get0_pubkey(cert)), 1);
  X509_free(cert);

  HCONTAINER anon = OpenCon(OpenApp(dev, "VorliEcc"), "ECC"), empty = nullptr;
  ASSERT_EQ(skf.SKF_CreateContainer(ecc_app, S("Empty"), &empty), SAR_OK);
  EXPECT_EQ(skf.SKF_ECCSignData(ecc, e, 31, &sig), SAR_INDATALENERR);
  EXPECT_EQ(skf.SKF_ECCSignData(ecc, nullptr, 32, &sig), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_ECCSignData(rsa, e, 32, &sig), SAR_KEYINFOTYPEERR);
  EXPECT_EQ(skf.SKF_ECCSignData(anon, e, 32, &sig), SAR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(skf.SKF_ECCSignData(empty, e, 32, &sig), SAR_KEYNOTFOUNTERR);
  EXPECT_EQ(skf.SKF_RSASignData(ecc, e, 32, e, &len), SAR_KEYINFOTYPEERR);
}

// An SM2 encryption pair arrives enveloped for the signing key: the SM4 key
// SM2-encrypted, the 64-byte private key field SM4-ECB-encrypted. Once
// imported it decrypts, and at rest its bytes appear nowhere on disk.
TEST_F(KeyTest, ImportsAnEnvelopedSm2PairAndKeepsItSealed) {
  EVP_PKEY *pair = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  BIGNUM *d = nullptr;
  EVP_PKEY_get_bn_param(pair, OSSL_PKEY_PARAM_PRIV_KEY, &d);
  uint8_t field[64] = {}, point[65];
  BN_bn2binpad(d, field + 32, 32);
  BN_free(d);
  size_t plen = 0;
  EVP_PKEY_get_octet_string_param(pair, OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point, &plen);
  const Bytes symm = zeph_test::RandomBytes(16, 4);
  const Bytes wrapped = BlobOf(zeph_test::Encrypt(Cert(ecc, TRUE), symm));

  Bytes env_bytes(sizeof(ENVELOPEDKEYBLOB) + 15, 0);
  auto *env = reinterpret_cast<ENVELOPEDKEYBLOB *>(env_bytes.data());
  env->Version = 1;
  env->ulSymmAlgID = SGD_SM4_ECB;
  env->ulBits = 256;
  const Bytes enc_field = Sm4(SGD_SM4_ECB, false, symm.data(), {}, Bytes(field, field + 64));
  std::memcpy(env->cbEncryptedPriKey, enc_field.data(), 64);
  env->PubKey.BitLen = 256;
  std::memcpy(env->PubKey.XCoordinate + 32, point + 1, 32);
  std::memcpy(env->PubKey.YCoordinate + 32, point + 33, 32);
  std::memcpy(&env->ECCCipherBlob, wrapped.data(), wrapped.size());

  Bytes spoiled = env_bytes;
  reinterpret_cast<ENVELOPEDKEYBLOB *>(spoiled.data())->PubKey.YCoordinate[40] ^= 1;
  EXPECT_EQ(skf.SKF_ImportECCKeyPair(ecc, reinterpret_cast<ENVELOPEDKEYBLOB *>(spoiled.data())), SAR_INDATAERR);
  ASSERT_EQ(skf.SKF_ImportECCKeyPair(ecc, env), SAR_OK);

  Bytes blob = BlobOf(zeph_test::Encrypt(pair, {1, 2, 3}));
  uint8_t out[3];
  ULONG len = 3;
  ASSERT_EQ(skf.SKF_ECCDecrypt(ecc, FALSE, reinterpret_cast<ECCCIPHERBLOB *>(blob.data()), out, &len), SAR_OK);
  EXPECT_EQ(Bytes(out, out + 3), (Bytes{1, 2, 3}));
  const Bytes disk = zeph_test::ReadBytes(root.file(std::string(kSerial) + "/device.json"));
  std::string text(disk.begin(), disk.end());
  ASSERT_FALSE(text.empty());
  for (char &ch : text) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  EXPECT_EQ(text.find(zeph_test::ToHex(field + 32, 32)), std::string::npos) << "the scalar in clear, in hex";
  EVP_PKEY_free(pair);
}

TEST_F(KeyTest, Sm2DecryptsOpenSslCiphertexts) {
  const Bytes enc_cert = Cert(ecc, FALSE);
  for (size_t n : {1, 16, 32, 1000}) {
    const Bytes plain = zeph_test::RandomBytes(n, static_cast<uint32_t>(n));
    Bytes blob = BlobOf(zeph_test::Encrypt(enc_cert, plain)), out(n + 1, 0xEE);
    auto *b = reinterpret_cast<ECCCIPHERBLOB *>(blob.data());
    ULONG len = 0;
    ASSERT_EQ(skf.SKF_ECCDecrypt(ecc, FALSE, b, nullptr, &len), SAR_OK);
    ASSERT_EQ(len, n);
    len = static_cast<ULONG>(n - 1);
    EXPECT_EQ(skf.SKF_ECCDecrypt(ecc, FALSE, b, out.data(), &len), SAR_BUFFER_TOO_SMALL);
    EXPECT_EQ(len, n);
    ASSERT_EQ(skf.SKF_ECCDecrypt(ecc, FALSE, b, out.data(), &len), SAR_OK);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + static_cast<long>(n)), plain);
    EXPECT_EQ(out[n], 0xEE);
  }
  // Faults a blob conversion can make, and the wrong key.
  const Bytes good = BlobOf(zeph_test::Encrypt(enc_cert, Bytes(20, 0x5A)));
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
      {"x read from offset 0", [](ECCCIPHERBLOB *b) { std::memmove(b->XCoordinate, b->XCoordinate + 32, 32); }, FALSE,
       SAR_INDATAERR},
      {"not on the curve", [](ECCCIPHERBLOB *b) { b->YCoordinate[63] ^= 1; }, FALSE, SAR_INDATAERR},
      {"no cipher", [](ECCCIPHERBLOB *b) { b->CipherLen = 0; }, FALSE, SAR_INDATALENERR},
      {"absurd length", [](ECCCIPHERBLOB *b) { b->CipherLen = 0xFFFFFFF0; }, FALSE, SAR_INDATALENERR},
  };
  for (const auto &c : cases) {
    Bytes blob = good, out(64);
    ULONG len = 64;
    c.spoil(reinterpret_cast<ECCCIPHERBLOB *>(blob.data()));
    EXPECT_EQ(skf.SKF_ECCDecrypt(ecc, c.sign, reinterpret_cast<ECCCIPHERBLOB *>(blob.data()), out.data(), &len), c.rv)
        << c.what;
  }
}

TEST_F(KeyTest, RsaSignsDigestInfoAndDecryptsToThePaddedBlock) {
  const Bytes cert = Cert(rsa, TRUE);

  // DigestInfo of SHA-256("abc"): the device pads and signs it as given.
  const Bytes abc = {'a', 'b', 'c'}, digest = zeph_test::Digest(EVP_sha256(), {abc});
  Bytes info = zeph_test::FromHex("3031300d060960864801650304020105000420"), sig(128), sig_ex(128), sig_eu(128);
  info.insert(info.end(), digest.begin(), digest.end());
  const auto size = static_cast<ULONG>(info.size());
  ULONG len = 0, extra = 7;
  ASSERT_EQ(skf.SKF_RSASignData(rsa, info.data(), size, nullptr, &len), SAR_OK);
  ASSERT_EQ(len, 128u);
  ASSERT_EQ(skf.SKF_RSASignData(rsa, info.data(), size, sig.data(), &len), SAR_OK);
  EXPECT_TRUE(Verifies(cert, EVP_sha256(), abc, sig));
  ASSERT_EQ(skf.SKF_Ex_RSASignData(rsa, 1, info.data(), size, sig_ex.data(), &len), SAR_OK);
  ASSERT_EQ(skf.SKF_Eu_RSASignData(rsa, info.data(), size, sig_eu.data(), &len, &extra), SAR_OK);
  EXPECT_EQ(sig_ex, sig);
  EXPECT_EQ(sig_eu, sig);
  Bytes too_long(118, 1), above_modulus(128, 0xFF), block(128);
  EXPECT_EQ(skf.SKF_RSASignData(rsa, too_long.data(), 118, sig.data(), &len), SAR_INDATALENERR);

  Bytes cipher = zeph_test::Encrypt(cert, {'s', 'e', 'c', 'r', 'e', 't'});
  ASSERT_EQ(cipher.size(), 128u);
  for (ULONG mode : {1u, 2u, 50u}) {
    len = 128;
    ASSERT_EQ(skf.SKF_RSADecrypt(rsa, cipher.data(), 128, block.data(), &len, mode), SAR_OK);
    ASSERT_EQ(len, 128u);
    EXPECT_EQ(zeph_test::ToHex(block.data(), 2), "0002");
    EXPECT_EQ(zeph_test::ToHex(block.data() + 121, 7), "00736563726574");
  }
  EXPECT_EQ(skf.SKF_RSADecrypt(rsa, cipher.data(), 128, block.data(), &len, 3), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_RSADecrypt(rsa, cipher.data(), 127, block.data(), &len, 1), SAR_INDATALENERR);
  EXPECT_EQ(skf.SKF_RSADecrypt(rsa, above_modulus.data(), 128, block.data(), &len, 1), SAR_RSADECERR);
}

class CryptTest : public KeyTest {
 protected:
  HANDLE Key(ULONG alg) {
    HANDLE k = nullptr;
    EXPECT_EQ(skf.SKF_SetSymmKey(dev, const_cast<uint8_t *>(key.data()), alg, &k), SAR_OK);
    return k;
  }
  BLOCKCIPHERPARAM Param(bool padding) const {
    BLOCKCIPHERPARAM p{};
    std::memcpy(p.IV, iv.data(), 16);
    p.IVLen = 16;
    p.PaddingType = padding ? 1 : 0;
    return p;
  }
  // Update at one split point, then Final; or one-shot when split < 0.
  Bytes Run(HANDLE k, bool enc, Bytes in, long split) {
    Bytes out(in.size() + 32);
    ULONG len = ULONG(out.size()), n = ULONG(in.size()), s = ULONG(split), total = 0;
    if (split < 0) {
      EXPECT_EQ((enc ? skf.SKF_Encrypt : skf.SKF_Decrypt)(k, in.data(), n, out.data(), &len), SAR_OK);
      return Bytes(out.begin(), out.begin() + len);
    }
    auto update = enc ? skf.SKF_EncryptUpdate : skf.SKF_DecryptUpdate;
    EXPECT_EQ(update(k, in.data(), s, out.data(), &len), SAR_OK);
    total = len, len = ULONG(out.size()) - total;
    EXPECT_EQ(update(k, in.data() + s, n - s, &out[total], &len), SAR_OK);
    total += len, len = ULONG(out.size()) - total;
    EXPECT_EQ((enc ? skf.SKF_EncryptFinal : skf.SKF_DecryptFinal)(k, &out[total], &len), SAR_OK);
    return Bytes(out.begin(), out.begin() + total + len);
  }

  const Bytes key = zeph_test::RandomBytes(16, 1), iv = zeph_test::RandomBytes(16, 2);
};

TEST_F(CryptTest, EveryModeAndSplitMatchesOpenSsl) {
  struct Mode {
    ULONG alg;
    bool padding;
    size_t len;
  } const modes[] = {
      {SGD_SM4_ECB, false, 48}, {SGD_SM4_ECB, true, 37}, {SGD_SM4_ECB, true, 32},  {SGD_SM4_CBC, false, 64},
      {SGD_SM4_CBC, true, 45},  {SGD_SM4_CBC, true, 0},  {SGD_SM4_CFB, false, 29}, {SGD_SM4_OFB, false, 33},
  };
  for (const auto &m : modes) {
    SCOPED_TRACE("alg " + std::to_string(m.alg) + " padding " + std::to_string(m.padding) + " len " +
                 std::to_string(m.len));
    const Bytes plain = zeph_test::RandomBytes(m.len, static_cast<uint32_t>(m.len));
    const Bytes expected = Sm4(m.alg, m.padding, key.data(), iv, plain);
    HANDLE k = Key(m.alg);
    for (long split = -1; split <= static_cast<long>(m.len); ++split) {
      ASSERT_EQ(skf.SKF_EncryptInit(k, Param(m.padding)), SAR_OK);
      ASSERT_EQ(Run(k, true, plain, split), expected) << "encrypt split " << split;
      ASSERT_EQ(skf.SKF_DecryptInit(k, Param(m.padding)), SAR_OK);
      ASSERT_EQ(Run(k, false, expected, split < 0 ? -1 : std::min<long>(split, expected.size())), plain)
          << "decrypt split " << split;
    }
    EXPECT_EQ(skf.SKF_CloseHandle(k), SAR_OK);
  }
}

TEST_F(CryptTest, DigestsMatchOpenSslAtEverySplit) {
  Bytes msg = zeph_test::RandomBytes(100, 3);
  for (ULONG alg : {SGD_SM3, SGD_SHA1, SGD_SHA256}) {
    const Bytes expected = zeph_test::Digest(alg == SGD_SM3    ? EVP_sm3()
                                             : alg == SGD_SHA1 ? EVP_sha1()
                                                               : EVP_sha256(),
                                             {msg});
    const auto n = static_cast<ULONG>(expected.size());
    uint8_t out[32];
    for (ULONG split = 0; split <= msg.size(); split += 7) {
      HANDLE h = nullptr;
      ULONG len = 0;
      ASSERT_EQ(skf.SKF_DigestInit(dev, alg, nullptr, nullptr, 0, &h), SAR_OK);
      ASSERT_EQ(skf.SKF_DigestUpdate(h, msg.data(), split), SAR_OK);
      ASSERT_EQ(skf.SKF_DigestUpdate(h, msg.data() + split, ULONG(msg.size()) - split), SAR_OK);
      ASSERT_EQ(skf.SKF_DigestFinal(h, nullptr, &len), SAR_OK);
      ASSERT_EQ(len, n);
      len = n - 1;
      ASSERT_EQ(skf.SKF_DigestFinal(h, out, &len), SAR_BUFFER_TOO_SMALL);
      len = n;
      ASSERT_EQ(skf.SKF_DigestFinal(h, out, &len), SAR_OK);
      EXPECT_EQ(Bytes(out, out + len), expected) << alg << " split " << split;
      EXPECT_EQ(skf.SKF_DigestUpdate(h, out, 1), SAR_NOTINITIALIZEERR);
      EXPECT_EQ(skf.SKF_CloseHandle(h), SAR_OK);
    }
  }
}

}  // namespace
}  // namespace sk_test
