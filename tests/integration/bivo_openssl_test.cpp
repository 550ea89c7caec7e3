// Two-party SM2 through the built library against the OpenSSL 3 command
// line: the joint key as a PEM public key and in a certificate from a test CA
// (`openssl x509 -req -force_pubkey`); every signing variant verified by
// `openssl pkeyutl -verify` with distid; `openssl pkeyutl -encrypt`
// ciphertexts decrypted in two parties; and `zeph cosign`, one process per
// step. Three shell runs in all.
#include <cstdlib>
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

const std::vector<uint32_t> kLengths = {1, 33, 4096, 6000};
const std::string kId = "ALICE123@YAHOO.COM";

using zeph_it::Len;
using zeph_it::Name;

class BivoOpenSsl : public testing::Test {
 protected:
  // One two-party key; a certificate for it; openssl's ciphertexts to it.
  static void SetUpTestSuite() {
    dir_ = new zeph_test::TempDir();
    uint8_t P1[65], credential[65];
    ready_ = BIVO_Client_CreateKeyShare(d1_, d1_inv_, P1) == 0 &&
             BIVO_Server_CreateKeyShare(P1, d2_, d2_inv_, P_) == 0 &&
             BIVO_Server_CreateKeyShareCredential(d2_inv_, credential) == 0 &&
             BIVO_Client_VerifyKeyShares(d1_, P_, credential) == 0;
    WriteBytes(File("joint.der"), zeph_it::Sm2Spki({P_, P_ + 65}));  // openssl turns it into PEM
    std::string script =
        "openssl pkey -pubin -inform DER -in joint.der -out joint.pem && "
        "openssl ecparam -name SM2 -genkey -noout -out ca.key && "
        "openssl req -x509 -new -sm3 -key ca.key -subj /CN=zeph-ca -days 2 -out ca.pem && "
        "openssl req -new -sm3 -key ca.key -subj /CN=cosigner -out user.csr && "
        "openssl x509 -req -in user.csr -CA ca.pem -CAkey ca.key -CAcreateserial -force_pubkey joint.pem -sm3 "
        "-days 2 -outform DER -out user.der";
    for (size_t i = 0; i < kLengths.size(); ++i) {
      WriteBytes(File(Name("m", i)), Message(i));
      script +=
          " && openssl pkeyutl -encrypt -pubin -inkey joint.pem -in " + Name("m", i) + " -out " + Name("m", i, ".enc");
    }
    ready_ = ready_ && zeph_it::RunIn(dir_->path().string(), script);
  }
  static void TearDownTestSuite() { delete dir_; }
  void SetUp() override { ASSERT_TRUE(ready_) << "setup failed, see " << File("run.log"); }

  static Bytes Message(size_t i) { return zeph_test::RandomBytes(kLengths[i], static_cast<uint32_t>(i + 40)); }
  static std::string File(const std::string &name) { return dir_->file(name); }

  // Client share, server share, combine.
  static Bytes Decrypt(const Bytes &cipher) {
    uint8_t T1[65], T2[65], C1[65], C3[32];
    Bytes C2(cipher.size());
    uint32_t c2_len = Len(C2);
    if (BIVO_Client_CreatePlaintextShare(cipher.data(), Len(cipher), d1_inv_, T1, C1, C2.data(), &c2_len, C3) != 0 ||
        BIVO_Server_CreatePlaintextShare(T1, d2_inv_, T2) != 0) {
      return {};
    }
    Bytes plain(c2_len);
    if (BIVO_Client_CombinePlaintextShares(C1, C2.data(), c2_len, C3, T2, plain.data()) != 0) return {};
    return plain;
  }

  static inline zeph_test::TempDir *dir_ = nullptr;
  static inline bool ready_ = false;
  static inline uint8_t d1_[32], d1_inv_[32], d2_[32], d2_inv_[32], P_[65];
};

}  // namespace

TEST_F(BivoOpenSsl, OpenSslAndOwnCiphertextsDecryptInTwoParties) {
  for (size_t i = 0; i < kLengths.size(); ++i) {
    EXPECT_EQ(Decrypt(ReadBytes(File(Name("m", i, ".enc")))), Message(i)) << kLengths[i] << " bytes from openssl";
  }
  const Bytes cert = ReadBytes(File("user.der")), msg = Message(2);
  Bytes own(BIVO_ComputeSm2CiphertextEncodeLength(Len(msg)));
  uint32_t n = Len(own);
  ASSERT_EQ(BIVO_Sm2Encrypt(msg.data(), Len(msg), cert.data(), Len(cert), own.data(), &n), 0u);
  own.resize(n);
  EXPECT_EQ(Decrypt(own), msg);
}

TEST_F(BivoOpenSsl, EverySigningVariantVerifiesWithOpenSsl) {
  const Bytes cert = ReadBytes(File("user.der"));
  const std::string path = File("user.der");
  const Bytes entropy = zeph_test::RandomBytes(256, 7), x = zeph_test::RandomBytes(64, 8);
  BIVO_HANDLE h = nullptr;
  ASSERT_EQ(InitializeBivoHandle(&h, entropy.data(), Len(entropy)), 0u);
  const char *id = kId.c_str();
  const std::string def = "1234567812345678";
  using Client = std::function<uint32_t(const Bytes &m, uint8_t *k1, uint8_t *e, uint8_t *q1)>;
  // On-digest variants get e from the identity kId.
  auto on_digest = [&](std::function<uint32_t(const uint8_t *e, uint8_t *k1, uint8_t *q1)> step) -> Client {
    return [=](const Bytes &m, uint8_t *k1, uint8_t *e, uint8_t *q1) {
      const uint32_t rv = BIVO_ComputePreprocessSm3Digest(id, P_, 65, m.data(), Len(m), e);
      return rv != 0 ? rv : step(e, k1, q1);
    };
  };
  // clang-format off
  const struct { Client client; std::string id; } variants[] = {
      {on_digest([&](const uint8_t *e, uint8_t *k, uint8_t *q) { return BIVO_Client_CreateSigShareOnDigest(e, k, q); }), kId},
      {on_digest([&](const uint8_t *e, uint8_t *k, uint8_t *q) { return BIVO_Client_CreateSigShareOnDigestWithDrbg(h, e, k, q); }), kId},
      {on_digest([&](const uint8_t *e, uint8_t *k, uint8_t *q) { return BIVO_Client_CreateSigShareOnDigestWithMixedSource(h, e, x.data(), k, q); }), kId},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithPubKey(id, P_, 65, m.data(), Len(m), k, e, q); }, kId},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithCert(cert.data(), Len(cert), m.data(), Len(m), k, e, q); }, def},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithCertFile(path.c_str(), m.data(), Len(m), k, e, q); }, def},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithPubKeyAndDrbg(h, id, P_, 65, m.data(), Len(m), k, e, q); }, kId},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithCertAndDrbg(h, cert.data(), Len(cert), m.data(), Len(m), k, e, q); }, def},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithCertFileAndDrbg(h, path.c_str(), m.data(), Len(m), k, e, q); }, def},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithPubKeyAndMixedSource(h, x.data(), id, P_, 65, m.data(), Len(m), k, e, q); }, kId},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithCertAndMixedSource(h, x.data(), cert.data(), Len(cert), m.data(), Len(m), k, e, q); }, def},
      {[&](const Bytes &m, uint8_t *k, uint8_t *e, uint8_t *q) { return BIVO_Client_CreateSigShareWithCertFileAndMixedSource(h, x.data(), path.c_str(), m.data(), Len(m), k, e, q); }, def},
  };
  using Server = std::function<uint32_t(const uint8_t *e, const uint8_t *q1, uint8_t *r, uint8_t *s2, uint8_t *s3)>;
  const Server servers[] = {
      [&](const uint8_t *e, const uint8_t *q, uint8_t *r, uint8_t *s2, uint8_t *s3) { return BIVO_Server_CreateSigShare(e, q, d2_, r, s2, s3); },
      [&](const uint8_t *e, const uint8_t *q, uint8_t *r, uint8_t *s2, uint8_t *s3) { return BIVO_Server_CreateSigShareWithDrbg(h, e, q, d2_, r, s2, s3); },
      [&](const uint8_t *e, const uint8_t *q, uint8_t *r, uint8_t *s2, uint8_t *s3) { return BIVO_Server_CreateSigShareWithMixedSource(h, e, q, x.data(), d2_, r, s2, s3); },
  };
  // clang-format on
  std::string script = "true";
  for (size_t v = 0; v < std::size(variants); ++v) {
    SCOPED_TRACE(v);
    const Bytes msg = Message(v % kLengths.size());
    uint8_t k1[32], e[32], Q1[65], r[32], s2[32], s3[32];
    Bytes sig(72);
    uint32_t n = 0;
    ASSERT_EQ(variants[v].client(msg, k1, e, Q1), 0u);
    ASSERT_EQ(servers[v % 3](e, Q1, r, s2, s3), 0u);
    ASSERT_EQ(v % 2 == 0 ? BIVO_Client_AssemblySigEncode(d1_, k1, r, s2, s3, sig.data(), &n)
                         : BIVO_Client_AssemblySigEncodeWithPubKey(d1_, k1, r, s2, s3, e, P_, 65, sig.data(), &n),
              0u);
    sig.resize(n);
    EXPECT_EQ(BIVO_VerifySm2SignatureWithPubKey(msg.data(), Len(msg), variants[v].id.c_str(), P_, 65, sig.data(), n),
              0u);
    WriteBytes(File(Name("s", v)), sig);
    WriteBytes(File(Name("s", v, ".msg")), msg);
    script +=
        " && openssl pkeyutl -verify -pubin -inkey joint.pem -rawin -digest sm3 -pkeyopt distid:" + variants[v].id +
        " -in " + Name("s", v, ".msg") + " -sigfile " + Name("s", v);
  }
  UninitializeBivoHandle(h);
  EXPECT_TRUE(zeph_it::RunIn(dir_->path().string(), script)) << "openssl refused a signature, see " << File("run.log");
}

TEST_F(BivoOpenSsl, CosignToolRunsEachStepInItsOwnProcess) {
  const std::string zeph = "'" ZEPH_TOOL "' cosign ";
  // v NAME FILE: the base64 value of a step's output line.
  const std::string script =
      "v() { sed -n \"s/^$1=//p\" \"$2\"; } && printf 'two parties' >msg && " + zeph + "keygen --side client >c1 && " +
      zeph + "keygen --side server --p1 $(v p1 c1) >s1 && " + zeph +
      "keygen --side client --d1 $(v d1 c1) --pubkey $(v pubKey s1) --credential $(v credential s1) --pem k.pem "
      ">c2 && " +
      zeph + "sign --side client --pubkey $(v pubKey c2) msg >c3 && " + zeph +
      "sign --side server --d2 $(v d2 s1) --digest $(v digest c3) --q1 $(v q1 c3) >s3 && " + zeph +
      "sign --side client --d1 $(v d1 c1) --k1 $(v k1 c3) --digest $(v digest c3) --pubkey $(v pubKey c2) "
      "--r $(v r s3) --s2 $(v s2 s3) --s3 $(v s3 s3) >c4 && v signature c4 | base64 -d >sig && "
      "openssl pkeyutl -verify -pubin -inkey k.pem -rawin -digest sm3 -pkeyopt distid:1234567812345678 -in msg "
      "-sigfile sig && openssl pkeyutl -encrypt -pubin -inkey k.pem -in msg -out enc && " +
      zeph + "decrypt --side client --d1inv $(v d1inv c1) enc >c5 && " + zeph +
      "decrypt --side server --d2inv $(v d2inv s1) --t1 $(v t1 c5) >s5 && " + zeph +
      "decrypt --side client --t2 $(v t2 s5) enc >back && cmp msg back && "
      "! " +
      zeph + "keygen --side client --d1 $(v d1 c1) --pubkey $(v pubKey s1) --credential $(v p1 c1)";
  zeph_test::TempDir dir;
  const bool ok = zeph_it::RunIn(dir.path().string(), script);
  const Bytes log = ReadBytes(dir.file("run.log"));
  EXPECT_TRUE(ok) << std::string(log.begin(), log.end());
}
