// SM2 through the built library against the OpenSSL 3 command line: keys and
// certificates from `openssl ecparam` and `openssl req -x509 -sm3`, every
// encryption variant decrypted by `openssl pkeyutl -decrypt`, its signatures
// verified through the certificate. Two openssl runs in all, each a shell
// loop over files.
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli_support.hpp"
#include "softkey_env.hpp"
#include "zeph_c.h"

namespace {

using zeph_test::Bytes;
using zeph_test::ReadBytes;
using zeph_test::WriteBytes;

const std::vector<uint32_t> kLengths = {1, 33, 4096, 5000};
constexpr size_t kSignatures = 3;

using zeph_it::Len;
using zeph_it::Name;

class Sm2OpenSsl : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new zeph_test::TempDir();
    const std::string d = dir_->path().string();
    for (size_t i = 0; i < kLengths.size(); ++i) WriteBytes(File(Name("m", i)), Message(i));
    std::string script =
        "openssl ecparam -name SM2 -genkey -noout -out key.pem && "
        "openssl req -x509 -new -sm3 -key key.pem -subj /CN=zeph-sm2 -days 2 -out cert.pem && "
        "openssl x509 -in cert.pem -outform DER -out cert.der";
    for (size_t i = 0; i < kSignatures; ++i) {
      const std::string m = Name("m", i);
      script += " && openssl pkeyutl -sign -rawin -digest sm3 -pkeyopt distid:1234567812345678 -inkey key.pem -in " +
                m + " -out " + m + ".sig";
    }
    ready_ = zeph_it::RunIn(d, script);
  }
  static void TearDownTestSuite() { delete dir_; }

  void SetUp() override { ASSERT_TRUE(ready_) << "openssl failed, see " << File("run.log"); }

  static Bytes Message(size_t i) { return zeph_test::RandomBytes(kLengths[i], static_cast<uint32_t>(i + 1)); }
  static std::string File(const std::string &name) { return dir_->file(name); }

  static inline zeph_test::TempDir *dir_ = nullptr;
  static inline bool ready_ = false;
};

}  // namespace

TEST_F(Sm2OpenSsl, EveryVariantDecryptsWithOpenSsl) {
  const Bytes cert = ReadBytes(File("cert.der"));
  const std::string path = File("cert.der");
  uint8_t key[65];
  uint32_t key_len = sizeof key;
  ASSERT_EQ(GetSm2PubKeyFromCertFile(path.c_str(), key, &key_len), 0u);
  const Bytes entropy = zeph_test::RandomBytes(256, 4), external = zeph_test::RandomBytes(32, 5);
  BIVO_HANDLE h = nullptr;
  ASSERT_EQ(InitializeBivoHandle(&h, entropy.data(), Len(entropy)), 0u);
  const uint8_t *x = external.data();
  using Encrypt = std::function<uint32_t(const Bytes &, uint8_t *, uint32_t *)>;
  // clang-format off
  const Encrypt variants[] = {
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2EncryptWithPubKey(m.data(), Len(m), key, 65, o, n); },
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2Encrypt(m.data(), Len(m), cert.data(), Len(cert), o, n); },
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2EncryptWithCertFile(m.data(), Len(m), path.c_str(), o, n); },
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2EncryptWithPubKeyAndDrbg(h, m.data(), Len(m), key, 65, o, n); },
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2EncryptWithDrbg(h, m.data(), Len(m), cert.data(), Len(cert), o, n); },
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2EncryptWithCertFileAndDrbg(h, m.data(), Len(m), path.c_str(), o, n); },
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2EncryptWithPubKeyAndMixedSource(h, x, m.data(), Len(m), key, 65, o, n); },
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2EncryptWithMixedSource(h, x, m.data(), Len(m), cert.data(), Len(cert), o, n); },
      [&](const Bytes &m, uint8_t *o, uint32_t *n) { return BIVO_Sm2EncryptWithCertFileAndMixedSource(h, x, m.data(), Len(m), path.c_str(), o, n); },
  };
  // clang-format on
  std::string script = "true";
  std::vector<std::pair<std::string, size_t>> made;
  for (size_t v = 0; v < std::size(variants); ++v) {
    for (size_t i = 0; i < kLengths.size(); ++i) {
      const Bytes msg = Message(i);
      uint32_t n = BIVO_ComputeSm2CiphertextEncodeLength(Len(msg));
      Bytes der(n);
      ASSERT_EQ(variants[v](msg, der.data(), &n), 0u) << "variant " << v << ", " << msg.size() << " bytes";
      EXPECT_LE(n, Len(msg) + 112u);
      der.resize(n);
      const std::string name = Name(Name("z", v, "_").c_str(), i);
      WriteBytes(File(name), der);
      script += " && openssl pkeyutl -decrypt -inkey key.pem -in " + name + " -out " + name + ".out";
      made.emplace_back(name, i);
    }
  }
  UninitializeBivoHandle(h);
  ASSERT_TRUE(zeph_it::RunIn(dir_->path().string(), script)) << "openssl could not decrypt, see " << File("run.log");
  for (const auto &[name, i] : made) EXPECT_EQ(ReadBytes(File(name + ".out")), Message(i)) << name;
}

TEST_F(Sm2OpenSsl, OpenSslSignaturesVerifyThroughTheCertificate) {
  const std::string cert = File("cert.der");
  const Bytes der = ReadBytes(cert);
  for (size_t i = 0; i < kSignatures; ++i) {
    Bytes msg = Message(i);
    const Bytes sig = ReadBytes(File(Name("m", i, ".sig")));
    EXPECT_EQ(BIVO_VerifySm2SignatureWithCertFile(msg.data(), Len(msg), cert.c_str(), sig.data(), Len(sig)), 0u);
    EXPECT_EQ(BIVO_VerifySm2Signature(msg.data(), Len(msg), der.data(), Len(der), sig.data(), Len(sig)), 0u);
    msg.back() ^= 0x80;
    EXPECT_EQ(BIVO_VerifySm2SignatureWithCertFile(msg.data(), Len(msg), cert.c_str(), sig.data(), Len(sig)), 8u);
  }
  uint32_t n = 0;
  uint8_t key[65];
  ASSERT_EQ(GetSm2PubKey(der.data(), Len(der), nullptr, &n), 0u);
  EXPECT_EQ(n, 65u);
  n = 64;
  EXPECT_EQ(GetSm2PubKey(der.data(), Len(der), key, &n), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(n, 65u);
  EXPECT_EQ(GetSm2PubKey(der.data(), Len(der) - 1, key, &n), 5u);
  EXPECT_EQ(BIVO_test_crypto_algorithm(), 0u);
}
