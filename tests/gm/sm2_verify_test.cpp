// SM2 signature verification: the GM/T 0003.5 example, OpenSSL's signatures
// under several identities, one row per bad signature, key and argument; the
// curve group. Certificates: tests/integration/sm2_openssl_test.cpp.
#include <openssl/core_names.h>
#include <openssl/obj_mac.h>

#include <gtest/gtest.h>

#include "gm_test_util.hpp"

using namespace gm_test;

namespace {

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

uint32_t Verify(const Bytes &msg, const std::string &id, const Bytes &key, const Bytes &sig, uint32_t key_len = 65) {
  return BIVO_VerifySm2SignatureWithPubKey(msg.data(), Len(msg), id.c_str(), key.data(), key_len, sig.data(), Len(sig));
}

}  // namespace

TEST(Sm2Verify, StandardExampleAndOpenSslSignatures) {
  const Bytes example = SigDer("00" + kR, "00" + kS);
  EXPECT_EQ(Verify(kExampleMessage, kDefaultId, kExampleKey, example), 0u);
  const Bytes e = FromHex("F0B43E94BA45ACCAACE692ED534382EB17E6AB5A19CE7B31F4486FDFC0D28640");
  EXPECT_EQ(BIVO_VerifySm2SignatureOnDigestWithPubKey(e.data(), kExampleKey.data(), 65, example.data(), Len(example)),
            0u);

  const zeph::EvpPkeyPtr key = NewSm2Key();
  Bytes pub(65);
  size_t pub_len = 0;
  ASSERT_EQ(EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, pub.data(), 65, &pub_len), 1);
  for (const std::string &id :
       {std::string(kDefaultId), std::string(), std::string("ALICE123@YAHOO.COM"), std::string(300, 'i')}) {
    Bytes msg = RandomBytes(id.size() + 1, Len(Text(id)));
    const Bytes sig = Sm2Sign(key.get(), msg, id);
    ASSERT_FALSE(sig.empty());
    EXPECT_EQ(Verify(msg, id, pub, sig), 0u) << id;
    msg[0] ^= 1;
    EXPECT_EQ(Verify(msg, id, pub, sig), 8u) << id;
  }
}

TEST(Sm2Verify, BadSignaturesKeysAndArguments) {
  const Bytes good = SigDer("00" + kR, "00" + kS), after_tag(good.begin() + 1, good.end());
  Bytes off_curve = kExampleKey, beyond_p = kExampleKey;
  off_curve[40] ^= 1;
  std::fill(beyond_p.begin() + 1, beyond_p.begin() + 33, 0xFF);
  const struct {
    const char *what;
    Bytes sig;
    const Bytes &key;
    uint32_t key_len, status;
  } cases[] = {
      {"truncated", Bytes(good.begin(), good.end() - 1), kExampleKey, 65, 7},
      {"trailing byte", Cat({good, {0}}), kExampleKey, 65, 7},
      {"long-form length", Cat({{0x30, 0x81}, after_tag}), kExampleKey, 65, 7},
      {"padded INTEGER", SigDer("0000" + kR, "00" + kS), kExampleKey, 65, 7},
      {"not a SEQUENCE", Cat({{0x31}, after_tag}), kExampleKey, 65, 7},
      {"r = 0", SigDer("00", "00" + kS), kExampleKey, 65, 8},
      {"s = n", SigDer("00" + kR, "00" + kN), kExampleKey, 65, 8},
      {"r + s = n", SigDer("01", "00" + kNMinus1), kExampleKey, 65, 8},
      {"negative r", SigDer(kR, "00" + kS), kExampleKey, 65, 8},
      {"r of 33 bytes", SigDer("01" + kR, "00" + kS), kExampleKey, 65, 8},
      {"key off the curve", good, off_curve, 65, 8},
      {"coordinate beyond p", good, beyond_p, 65, 8},
      {"short key", good, kExampleKey, 64, 8},
  };
  for (const auto &c : cases)
    EXPECT_EQ(Verify(kExampleMessage, kDefaultId, c.key, c.sig, c.key_len), c.status) << c.what;
  const Bytes junk = Text("junk");
  const uint8_t *m = kExampleMessage.data();
  EXPECT_EQ(Verify(kExampleMessage, std::string(8192, 'a'), kExampleKey, good), 6u);  // identity too long
  EXPECT_EQ(BIVO_VerifySm2Signature(m, 14, junk.data(), Len(junk), good.data(), Len(good)), 5u);
  EXPECT_EQ(BIVO_VerifySm2SignatureWithCertFile(m, 14, "/nonexistent", good.data(), Len(good)), 0xFFFFFFFFu);
  EXPECT_EQ(BIVO_VerifySm2SignatureWithPubKey(m, 14, "", nullptr, 65, good.data(), Len(good)), 1u);
}

TEST(Sm2Verify, CurveGroupEqualsOpenSsls) {
  const zeph::EcGroupPtr group(CreateSm2EllipticCurveGroup()), reference(EC_GROUP_new_by_curve_name(NID_sm2));
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(EC_GROUP_cmp(group.get(), reference.get(), nullptr), 0);
}
