// SM4 through SetSymmKey and the Encrypt/Decrypt family, and digests, against
// OpenSSL.
#include "softkey_test.hpp"

namespace sk_test {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes OpenSslSm4(ULONG alg, bool encrypt, bool padding, const Bytes &key, const Bytes &iv, const Bytes &in) {
  const EVP_CIPHER *c = alg == SGD_SM4_ECB   ? EVP_sm4_ecb()
                        : alg == SGD_SM4_CBC ? EVP_sm4_cbc()
                        : alg == SGD_SM4_CFB ? EVP_sm4_cfb128()
                                             : EVP_sm4_ofb();
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex(ctx, c, nullptr, key.data(), iv.data(), encrypt ? 1 : 0);
  EVP_CIPHER_CTX_set_padding(ctx, padding ? 1 : 0);
  Bytes out(in.size() + 16);
  int n1 = 0, n2 = 0;
  EVP_CipherUpdate(ctx, out.data(), &n1, in.data(), static_cast<int>(in.size()));
  EVP_CipherFinal_ex(ctx, out.data() + n1, &n2);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<size_t>(n1 + n2));
  return out;
}

class CryptTest : public SoftkeyTest {
 protected:
  void SetUp() override {
    SoftkeyTest::SetUp();
    MustTool("create-device --serial 0123ABCD");
    dev = Connect();
  }
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
  Bytes Run(HANDLE k, bool encrypt, const Bytes &in, long split) {
    Bytes out(in.size() + 32);
    ULONG total = 0, len = 0;
    auto rest = [&] { return static_cast<ULONG>(out.size() - total); };
    if (split < 0) {
      len = rest();
      EXPECT_EQ((encrypt ? skf.SKF_Encrypt : skf.SKF_Decrypt)(k, const_cast<uint8_t *>(in.data()),
                                                              static_cast<ULONG>(in.size()), out.data(), &len),
                SAR_OK);
      out.resize(len);
      return out;
    }
    auto update = encrypt ? skf.SKF_EncryptUpdate : skf.SKF_DecryptUpdate;
    const auto s = static_cast<size_t>(split);
    for (auto [from, n] : {std::pair<size_t, size_t>{0, s}, {s, in.size() - s}}) {
      len = rest();
      EXPECT_EQ(update(k, const_cast<uint8_t *>(in.data()) + from, static_cast<ULONG>(n), out.data() + total, &len),
                SAR_OK);
      total += len;
    }
    len = rest();
    EXPECT_EQ((encrypt ? skf.SKF_EncryptFinal : skf.SKF_DecryptFinal)(k, out.data() + total, &len), SAR_OK);
    out.resize(total + len);
    return out;
  }

  DEVHANDLE dev = nullptr;
  const Bytes key = zeph_test::RandomBytes(16, 1), iv = zeph_test::RandomBytes(16, 2);
};

TEST_F(CryptTest, EveryModeAndSplitMatchesOpenSsl) {
  struct Mode {
    ULONG alg;
    bool padding;
    size_t len;
  } const modes[] = {
      {SGD_SM4_ECB, false, 48}, {SGD_SM4_ECB, true, 37}, {SGD_SM4_ECB, true, 32}, {SGD_SM4_CBC, false, 64},
      {SGD_SM4_CBC, true, 45},  {SGD_SM4_CBC, true, 0},  {SGD_SM4_CFB, false, 29}, {SGD_SM4_OFB, false, 33},
  };
  for (const auto &m : modes) {
    SCOPED_TRACE("alg " + std::to_string(m.alg) + " padding " + std::to_string(m.padding) + " len " +
                 std::to_string(m.len));
    const Bytes plain = zeph_test::RandomBytes(m.len, static_cast<uint32_t>(m.len));
    const Bytes expected = OpenSslSm4(m.alg, true, m.padding, key, iv, plain);
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

TEST_F(CryptTest, SizeQueriesKeepTheOperationAndErrorsEndIt) {
  HANDLE k = Key(SGD_SM4_CBC);
  const Bytes plain(20, 7);
  ASSERT_EQ(skf.SKF_EncryptInit(k, Param(true)), SAR_OK);
  ULONG len = 0;
  ASSERT_EQ(skf.SKF_EncryptUpdate(k, const_cast<uint8_t *>(plain.data()), 20, nullptr, &len), SAR_OK);
  EXPECT_EQ(len, 16u);
  Bytes out(48);
  len = 15;
  EXPECT_EQ(skf.SKF_EncryptUpdate(k, const_cast<uint8_t *>(plain.data()), 20, out.data(), &len), SAR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 16u);
  ASSERT_EQ(skf.SKF_EncryptUpdate(k, const_cast<uint8_t *>(plain.data()), 20, out.data(), &len), SAR_OK);
  ULONG fin = 0;
  ASSERT_EQ(skf.SKF_EncryptFinal(k, nullptr, &fin), SAR_OK);
  ASSERT_EQ(fin, 16u);
  ASSERT_EQ(skf.SKF_EncryptFinal(k, out.data() + 16, &fin), SAR_OK);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 32), OpenSslSm4(SGD_SM4_CBC, true, true, key, iv, plain));
  EXPECT_EQ(skf.SKF_EncryptFinal(k, out.data(), &fin), SAR_NOTINITIALIZEERR) << "Final ends the operation";

  // The decrypted size is exact even before delivery.
  Bytes cipher(out.begin(), out.begin() + 32);
  ASSERT_EQ(skf.SKF_DecryptInit(k, Param(true)), SAR_OK);
  len = 0;
  ASSERT_EQ(skf.SKF_Decrypt(k, cipher.data(), 32, nullptr, &len), SAR_OK);
  EXPECT_EQ(len, 20u);
  cipher[31] ^= 0x55;  // ruins the padding
  EXPECT_EQ(skf.SKF_Decrypt(k, cipher.data(), 32, out.data(), &len), SAR_DECRYPTPADERR);
  EXPECT_EQ(skf.SKF_Decrypt(k, cipher.data(), 32, out.data(), &len), SAR_NOTINITIALIZEERR);

  ASSERT_EQ(skf.SKF_EncryptInit(k, Param(false)), SAR_OK);
  len = 48;
  EXPECT_EQ(skf.SKF_Encrypt(k, const_cast<uint8_t *>(plain.data()), 20, out.data(), &len), SAR_INDATALENERR);
  EXPECT_EQ(skf.SKF_DecryptUpdate(k, cipher.data(), 16, out.data(), &len), SAR_NOTINITIALIZEERR);

  BLOCKCIPHERPARAM bad = Param(false);
  bad.IVLen = 8;
  EXPECT_EQ(skf.SKF_EncryptInit(k, bad), SAR_INVALIDPARAMERR);
  bad.IVLen = 33;
  EXPECT_EQ(skf.SKF_EncryptInit(Key(SGD_SM4_ECB), bad), SAR_INVALIDPARAMERR);
  EXPECT_EQ(skf.SKF_EncryptInit(Key(SGD_SM4_OFB), Param(true)), SAR_INVALIDPARAMERR);
  HANDLE none = nullptr;
  EXPECT_EQ(skf.SKF_SetSymmKey(dev, const_cast<uint8_t *>(key.data()), SGD_SM1_ECB, &none), SAR_NOTSUPPORTYETERR);
}

TEST_F(CryptTest, DigestsMatchOpenSslAtEverySplit) {
  const Bytes msg = zeph_test::RandomBytes(100, 3);
  for (ULONG alg : {SGD_SM3, SGD_SHA1, SGD_SHA256}) {
    const EVP_MD *md = alg == SGD_SM3 ? EVP_sm3() : alg == SGD_SHA1 ? EVP_sha1() : EVP_sha256();
    uint8_t expected[32];
    unsigned int n = 0;
    EVP_Digest(msg.data(), msg.size(), expected, &n, md, nullptr);
    for (size_t split = 0; split <= msg.size(); split += 7) {
      HANDLE h = nullptr;
      ASSERT_EQ(skf.SKF_DigestInit(dev, alg, nullptr, nullptr, 0, &h), SAR_OK);
      ASSERT_EQ(skf.SKF_DigestUpdate(h, const_cast<uint8_t *>(msg.data()), static_cast<ULONG>(split)), SAR_OK);
      ASSERT_EQ(skf.SKF_DigestUpdate(h, const_cast<uint8_t *>(msg.data()) + split,
                                     static_cast<ULONG>(msg.size() - split)),
                SAR_OK);
      uint8_t out[32];
      ULONG len = 0;
      ASSERT_EQ(skf.SKF_DigestFinal(h, nullptr, &len), SAR_OK);
      ASSERT_EQ(len, n);
      len = n - 1;
      ASSERT_EQ(skf.SKF_DigestFinal(h, out, &len), SAR_BUFFER_TOO_SMALL);
      len = n;
      ASSERT_EQ(skf.SKF_DigestFinal(h, out, &len), SAR_OK);
      EXPECT_EQ(zeph_test::ToHex(out, len), zeph_test::ToHex(expected, n)) << alg << " split " << split;
      EXPECT_EQ(skf.SKF_DigestUpdate(h, out, 1), SAR_NOTINITIALIZEERR);
      EXPECT_EQ(skf.SKF_CloseHandle(h), SAR_OK);
    }
  }
}

// With a public key the digest is SM3(Z || M); the Z part is proven by
// OpenSSL in the key tests. Here: the ID changes it, and bad keys are refused.
TEST_F(CryptTest, DigestWithPublicKeyAndIdentity) {
  MustTool(std::string("create-app --serial 0123ABCD --app A --admin-pin ") + kAdminPin + " --user-pin " + kUserPin);
  MustTool(std::string("gen-key --serial 0123ABCD --app A --container C --alg sm2 --user-pin ") + kUserPin);
  HCONTAINER con = OpenCon(OpenApp(dev, "A"), "C");
  ECCPUBLICKEYBLOB pub;
  ULONG len = sizeof pub;
  ASSERT_EQ(skf.SKF_ExportPublicKey(con, TRUE, reinterpret_cast<BYTE *>(&pub), &len), SAR_OK);
  auto digest = [&](ECCPUBLICKEYBLOB *key, const char *id, ULONG id_len, ULONG alg = SGD_SM3) {
    HANDLE h = nullptr;
    const ULONG rv = skf.SKF_DigestInit(dev, alg, key, reinterpret_cast<BYTE *>(const_cast<char *>(id)), id_len, &h);
    if (rv != SAR_OK) return std::to_string(rv);
    uint8_t out[32];
    ULONG n = 32;
    skf.SKF_DigestFinal(h, out, &n);
    skf.SKF_CloseHandle(h);
    return zeph_test::ToHex(out, n);
  };
  const std::string by_default = digest(&pub, nullptr, 0);
  EXPECT_EQ(digest(&pub, kDefaultId, 16), by_default) << "no ID means the default ID";
  EXPECT_NE(digest(&pub, "ALICE123@YAHOO.COM", 18), by_default);
  EXPECT_NE(digest(nullptr, nullptr, 0), by_default);
  const std::string refused = std::to_string(SAR_INVALIDPARAMERR);
  EXPECT_EQ(digest(&pub, kDefaultId, 16, SGD_SHA256), refused);
  EXPECT_EQ(digest(&pub, nullptr, 16), refused);
  ECCPUBLICKEYBLOB spoiled = pub;
  spoiled.XCoordinate[0] = 1;  // a value read from offset 0 would look like this
  EXPECT_EQ(digest(&spoiled, nullptr, 0), refused);
  spoiled = pub;
  spoiled.YCoordinate[63] ^= 1;
  EXPECT_EQ(digest(&spoiled, nullptr, 0), refused);
  EXPECT_EQ(digest(nullptr, nullptr, 0, 0x80), std::to_string(SAR_NOTSUPPORTYETERR));
}

}  // namespace
}  // namespace sk_test
