// Two-party SM2 against the standard one-party SM2 computed with OpenSSL
// BN/EC: chosen shares and nonces (through the mixed source) give exactly
// the standard key, signature and decryption, the GM/T 0003.5 examples
// included; determinism of the generator variants; one row per hostile input.
// The OpenSSL command line and every variant: tests/integration.
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "bivo_reference.hpp"

using namespace bivo_test;

namespace {

const Bytes kExampleKey = FromHex(
    "04 09F9DF311E5421A150DD7D161E4BC5C672179FAD1833FC076BB08FF356F35020"
    "CCEA490CE26775A52DC6EA718CC1AA600AED05FBF35E084A6632F6072DA9AD13");
const Bytes kExampleSignature = FromHex(
    "3046 022100F5A03B0648D2C4630EEAC513E1BB81A15944DA3827D5B74143AC7EACEEE720B3"
    "022100B1B6AA29DF212FD8763182BC0D421CA1BB9038FD1F7F42D4840B69C485BBC1AA");
const Bytes kExampleCipher = FromHex(
    "307C 0220 04EBFC718E8D1798620432268E77FEB6415E2EDE0E073C0F4F640ECD2E149A73"
    "0221 00E858F9D81E5430A57B36DAAB8F950A3C64E6EE6A63094D99283AFF767E124DF0"
    "0420 59983C18F809E262923C53AEC295D30383B54E39D609D160AFCB1908D0BD8766"
    "0413 21886CA989CA9C7D58087307CA93092D651EFA");
const char kId[] = "1234567812345678";

Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }
Bytes Digest(const Bytes &key, const Bytes &msg, const char *id = kId) {
  Bytes e(32);
  BIVO_ComputePreprocessSm3Digest(id, key.data(), 65, msg.data(), Len(msg), e.data());
  return e;
}

// One key generation, signature and decryption with every share and nonce
// chosen: d = (d1·d2)^-1 - 1 and k = k1·k3 + k2.
struct Row {
  const char *what;
  Bytes d, k;              // the standard key and nonce
  Bytes key, sig, cipher;  // published values, when there are any
  std::string msg, id;
};

}  // namespace

TEST(Bivo, ChosenSharesGiveTheStandardKeySignatureAndDecryption) {
  const Ref ref;
  const Row rows[] = {
      {"GM/T 0003.5", FromHex("3945208F7B2144B13F36E38AC6D39F95889393692860B51A42FB81EF4DF7C5B8"),
       FromHex("59276E27D506861A16680F3AD9C02DCCEF3CC1FA3CDBE4CE6D54B80DEAC1BC21"), kExampleKey, kExampleSignature,
       kExampleCipher, "message digest", kId},
      {"random", ref.Scalar(1), ref.Scalar(2), {}, {}, {}, "a message", ""},
      {"random", ref.Scalar(3), ref.Scalar(4), {}, {}, {}, std::string(1000, 'm'), "ALICE123@YAHOO.COM"},
  };
  uint32_t seed = 10;
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    const Bytes d1 = ref.Scalar(++seed), k1 = ref.Scalar(++seed), k3 = ref.Scalar(++seed);
    const Bytes d2 = ref.Inv(ref.Mul(ref.Add(row.d, Ref::One()), d1)), k2 = ref.Sub(row.k, ref.Mul(k1, k3));
    Twins t(++seed);
    Bytes o1(32), o2(32), P1(65), P(65), cred(65);

    ASSERT_EQ(BIVO_Client_CreateKeyShareWithMixedSource(t.h, t.Steer(d1).data(), o1.data(), o2.data(), P1.data()), 0u);
    EXPECT_EQ(o1, d1);
    EXPECT_EQ(o2, ref.Inv(d1));
    EXPECT_EQ(P1, ref.Point(ref.Inv(d1)));
    P1[0] = 0x05;  // only the coordinates of a point argument count
    ASSERT_EQ(
        BIVO_Server_CreateKeyShareWithMixedSource(t.h, t.Steer(d2).data(), P1.data(), o1.data(), o2.data(), P.data()),
        0u);
    EXPECT_EQ(o1, d2);
    const Bytes d2_inv = o2;
    EXPECT_EQ(P, ref.Point(row.d));
    if (!row.key.empty()) {
      EXPECT_EQ(P, row.key);
    }
    ASSERT_EQ(BIVO_Server_CreateKeyShareCredential(d2_inv.data(), cred.data()), 0u);
    EXPECT_EQ(cred, ref.Point(ref.Inv(d2)));
    EXPECT_EQ(BIVO_Client_VerifyKeyShares(d1.data(), P.data(), cred.data()), 0u);
    EXPECT_EQ(BIVO_Client_VerifyKeyShares(k1.data(), P.data(), cred.data()), BIVO_ERR_KEY_SHARES);

    const Bytes msg = Text(row.msg);
    Bytes e(32), Q1(65), r(32), s2(32), s3(32), sig(72);
    ASSERT_EQ(BIVO_Client_CreateSigShareWithPubKeyAndMixedSource(t.h, t.Steer(k1).data(), row.id.c_str(), P.data(), 65,
                                                                 msg.data(), Len(msg), o1.data(), e.data(), Q1.data()),
              0u);
    EXPECT_EQ(o1, k1);
    EXPECT_EQ(e, Digest(P, msg, row.id.c_str()));
    EXPECT_EQ(Q1, ref.Point(k1));
    const Bytes external = Cat({t.Steer(k2), t.Steer(k3)});
    ASSERT_EQ(BIVO_Server_CreateSigShareWithMixedSource(t.h, e.data(), Q1.data(), external.data(), d2.data(), r.data(),
                                                        s2.data(), s3.data()),
              0u);
    EXPECT_EQ(s2, ref.Mul(d2, k3));
    uint32_t n = 0;
    ASSERT_EQ(BIVO_Client_AssemblySigEncodeWithPubKey(d1.data(), k1.data(), r.data(), s2.data(), s3.data(), e.data(),
                                                      P.data(), 65, sig.data(), &n),
              0u);
    sig.resize(n);
    EXPECT_EQ(sig, ref.Sign(row.d, row.k, e));
    if (!row.sig.empty()) {
      EXPECT_EQ(sig, row.sig);
    }

    // Decryption: a ciphertext with the same nonce under the joint key.
    const Bytes plain = Text("encryption standard");
    Bytes cipher(BIVO_ComputeSm2CiphertextEncodeLength(Len(plain)));
    n = Len(cipher);
    ASSERT_EQ(start_fake_rand(zeph_test::ToHex(row.k).c_str()), 1);
    EXPECT_EQ(BIVO_Sm2EncryptWithPubKey(plain.data(), Len(plain), P.data(), 65, cipher.data(), &n), 0u);
    ASSERT_EQ(restore_rand(), 1);
    cipher.resize(n);
    if (!row.cipher.empty()) {
      EXPECT_EQ(cipher, row.cipher);
    }
    Bytes T1(65), T2(65), C1(65), C2(cipher.size()), C3(32), back(plain.size());
    n = Len(C2);
    ASSERT_EQ(BIVO_Client_CreatePlaintextShare(cipher.data(), Len(cipher), ref.Inv(d1).data(), T1.data(), C1.data(),
                                               C2.data(), &n, C3.data()),
              0u);
    ASSERT_EQ(n, plain.size());
    EXPECT_EQ(C1, ref.Point(row.k));
    EXPECT_EQ(T1, ref.Point(Bytes(32), C1, ref.Inv(d1)));
    ASSERT_EQ(BIVO_Server_CreatePlaintextShare(T1.data(), d2_inv.data(), T2.data()), 0u);
    EXPECT_EQ(T2, ref.Point(Bytes(32), T1, d2_inv));
    ASSERT_EQ(BIVO_Client_CombinePlaintextShares(C1.data(), C2.data(), n, C3.data(), T2.data(), back.data()), 0u);
    EXPECT_EQ(back, plain);
  }
}

TEST(Bivo, GeneratorVariantsAreDeterministicInTheirState) {
  const Ref ref;
  const Bytes d2 = ref.Scalar(5), e = RandomBytes(32, 6), Q1 = ref.Point(ref.Scalar(7)), ext = RandomBytes(64, 8);
  auto shares = [&](BIVO_HANDLE h, bool mixed) {
    Bytes out(96);
    const uint32_t rv = mixed ? BIVO_Server_CreateSigShareWithMixedSource(h, e.data(), Q1.data(), ext.data(), d2.data(),
                                                                          out.data(), out.data() + 32, out.data() + 64)
                              : BIVO_Server_CreateSigShareWithDrbg(h, e.data(), Q1.data(), d2.data(), out.data(),
                                                                   out.data() + 32, out.data() + 64);
    EXPECT_EQ(rv, 0u);
    return out;
  };
  for (const bool mixed : {false, true}) {
    Twins t(20);
    const Bytes first = shares(t.h, mixed);
    EXPECT_EQ(shares(t.twin, mixed), first) << "same state, same external bytes";
    EXPECT_NE(shares(t.h, mixed), first) << "the state moved on";
  }
}

TEST(Bivo, VersionAndStatus) {
  EXPECT_EQ(BIVO_get_version(nullptr), 0x10000u);
  Twins t(30);
  EXPECT_EQ(BIVO_get_status(&t.h), 0u);
  ASSERT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(t.h->drbg, uint64_t{1} << 48), 0u);
  EXPECT_EQ(BIVO_get_status(&t.h), BIVO_ERR_RESEED_REQUIRED);
  EXPECT_EQ(BIVO_get_status(nullptr), BIVO_ERR_NULL_POINTER);
}
