// SM2 signature verification: the GM/T 0003.5 example, OpenSSL's signatures
// under several identities, one row per bad signature, key and argument; the
// curve group. Certificates: tests/integration/sm2_openssl_test.cpp.
#include <functional>

#include <openssl/obj_mac.h>

#include <gtest/gtest.h>

#include "sm2_test_util.hpp"

using namespace gm_test;

namespace {

const Bytes kExampleKey = FromHex(
    "04 09F9DF311E5421A150DD7D161E4BC5C672179FAD1833FC076BB08FF356F35020"
    "CCEA490CE26775A52DC6EA718CC1AA600AED05FBF35E084A6632F6072DA9AD13");
const Bytes kExampleMessage = Text("message digest");
const std::string kR = "F5A03B0648D2C4630EEAC513E1BB81A15944DA3827D5B74143AC7EACEEE720B3";
const std::string kS = "B1B6AA29DF212FD8763182BC0D421CA1BB9038FD1F7F42D4840B69C485BBC1AA";
const std::string kN = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123";
const std::string kNMinus1 = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54122";

// DER of two INTEGERs given as their content octets (hex).
Bytes SigDer(const std::string &r_hex, const std::string &s_hex) {
  const Bytes r = FromHex(r_hex), s = FromHex(s_hex);
  return Cat({{0x30, uint8_t(4 + r.size() + s.size()), 0x02, uint8_t(r.size())}, r, {0x02, uint8_t(s.size())}, s});
}

uint32_t VerifyExample(const Bytes &sig, const Bytes &key = kExampleKey, uint32_t key_len = 65) {
  return BIVO_VerifySm2SignatureWithPubKey(kExampleMessage.data(), Len(kExampleMessage), "1234567812345678", key.data(),
                                           key_len, sig.data(), Len(sig));
}

}  // namespace

TEST(Sm2Verify, StandardExampleAndOpenSslSignatures) {
  const Bytes example = SigDer("00" + kR, "00" + kS);
  EXPECT_EQ(VerifyExample(example), 0u);
  const Bytes e = FromHex("F0B43E94BA45ACCAACE692ED534382EB17E6AB5A19CE7B31F4486FDFC0D28640");
  EXPECT_EQ(BIVO_VerifySm2SignatureOnDigestWithPubKey(e.data(), kExampleKey.data(), 65, example.data(), Len(example)),
            0u);

  const Key key = NewSm2Key();
  const Bytes pub = PublicPoint(key.get());
  for (const std::string &id :
       std::vector<std::string>{"1234567812345678", "", "ALICE123@YAHOO.COM", std::string(300, 'i')}) {
    Bytes msg = RandomBytes(id.size() + 1, Len(Text(id)));
    const Bytes sig = EvpSign(key.get(), msg, id);
    ASSERT_FALSE(sig.empty());
    EXPECT_EQ(BIVO_VerifySm2SignatureWithPubKey(msg.data(), Len(msg), id.c_str(), pub.data(), 65, sig.data(), Len(sig)),
              0u)
        << id;
    msg[0] ^= 1;
    EXPECT_EQ(BIVO_VerifySm2SignatureWithPubKey(msg.data(), Len(msg), id.c_str(), pub.data(), 65, sig.data(), Len(sig)),
              8u);
  }
}

TEST(Sm2Verify, BadSignaturesKeysAndArguments) {
  const Bytes good = SigDer("00" + kR, "00" + kS);
  Bytes off_curve = kExampleKey, beyond_p = kExampleKey;
  off_curve[40] ^= 1;
  std::fill(beyond_p.begin() + 1, beyond_p.begin() + 33, 0xFF);
  const Bytes junk = Text("junk"), long_id(8193, 'a');
  const std::string id(8192, 'a');
  const struct {
    const char *what;
    std::function<uint32_t()> call;
    uint32_t status;
  } cases[] = {
      {"truncated", [&] { return VerifyExample(Bytes(good.begin(), good.end() - 1)); }, 7},
      {"trailing byte",
       [&] {
         return VerifyExample(Cat({good, {0}}));
       },
       7},
      {"long-form length",
       [&] {
         return VerifyExample(Cat({{0x30, 0x81, 0x46}, Bytes(good.begin() + 2, good.end())}));
       },
       7},
      {"padded INTEGER", [&] { return VerifyExample(SigDer("0000" + kR, "00" + kS)); }, 7},
      {"not a SEQUENCE",
       [&] {
         return VerifyExample(Cat({{0x31}, Bytes(good.begin() + 1, good.end())}));
       },
       7},
      {"r = 0", [&] { return VerifyExample(SigDer("00", "00" + kS)); }, 8},
      {"s = n", [&] { return VerifyExample(SigDer("00" + kR, "00" + kN)); }, 8},
      {"r + s = n", [&] { return VerifyExample(SigDer("01", "00" + kNMinus1)); }, 8},
      {"negative r", [&] { return VerifyExample(SigDer(kR, "00" + kS)); }, 8},
      {"r of 33 bytes", [&] { return VerifyExample(SigDer("01" + kR, "00" + kS)); }, 8},
      {"key off the curve", [&] { return VerifyExample(good, off_curve); }, 8},
      {"coordinate beyond p", [&] { return VerifyExample(good, beyond_p); }, 8},
      {"short key", [&] { return VerifyExample(good, kExampleKey, 64); }, 8},
      {"identity of 8192 bytes",
       [&] {
         return BIVO_VerifySm2SignatureWithPubKey(kExampleMessage.data(), 14, id.c_str(), kExampleKey.data(), 65,
                                                  good.data(), Len(good));
       },
       6},
      {"no certificate",
       [&] {
         return BIVO_VerifySm2Signature(kExampleMessage.data(), 14, junk.data(), Len(junk), good.data(), Len(good));
       },
       5},
      {"no file",
       [&] {
         return BIVO_VerifySm2SignatureWithCertFile(kExampleMessage.data(), 14, "/nonexistent", good.data(), Len(good));
       },
       0xFFFFFFFFu},
      {"null key",
       [&] {
         return BIVO_VerifySm2SignatureWithPubKey(kExampleMessage.data(), 14, "", nullptr, 65, good.data(), Len(good));
       },
       1},
  };
  for (const auto &c : cases) EXPECT_EQ(c.call(), c.status) << c.what;
}

TEST(Sm2Verify, CurveGroupEqualsOpenSsls) {
  EC_GROUP *group = CreateSm2EllipticCurveGroup(), *reference = EC_GROUP_new_by_curve_name(NID_sm2);
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(EC_GROUP_cmp(group, reference, nullptr), 0);
  EC_GROUP_free(group);
  EC_GROUP_free(reference);
}
