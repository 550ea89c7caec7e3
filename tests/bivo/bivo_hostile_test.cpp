// Hostile and broken inputs to every step, one row each: the status, and no
// output written (the plaintext share's early parts aside).
#include <cstring>
#include <functional>

#include <openssl/asn1.h>

#include <gtest/gtest.h>

#include "bivo_reference.hpp"

using namespace bivo_test;

namespace {

// A valid key, signature round and ciphertext to break one piece at a time.
struct Material {
  Ref ref;
  Bytes d1 = Bytes(32), d1_inv = Bytes(32), P1 = Bytes(65), d2 = Bytes(32), d2_inv = Bytes(32), P = Bytes(65),
        cred = Bytes(65), e = RandomBytes(32, 1), k1 = Bytes(32), Q1 = Bytes(65), r = Bytes(32), s2 = Bytes(32),
        s3 = Bytes(32), cipher;
  Material() {
    BIVO_Client_CreateKeyShare(d1.data(), d1_inv.data(), P1.data());
    BIVO_Server_CreateKeyShare(P1.data(), d2.data(), d2_inv.data(), P.data());
    BIVO_Server_CreateKeyShareCredential(d2_inv.data(), cred.data());
    BIVO_Client_CreateSigShareOnDigest(e.data(), k1.data(), Q1.data());
    BIVO_Server_CreateSigShare(e.data(), Q1.data(), d2.data(), r.data(), s2.data(), s3.data());
    cipher = Der(x(), y(), RandomBytes(32, 2), RandomBytes(20, 3));
  }
  // The coordinates of a curve point, for ciphertexts whose C1 is sound.
  const Bytes c1 = ref.Point(ref.Scalar(4));
  Bytes x() const { return Bytes(c1.begin() + 1, c1.begin() + 33); }
  Bytes y() const { return Bytes(c1.begin() + 33, c1.end()); }
  // DER of the four fields; x and y are INTEGER magnitudes (negative: a
  // negative INTEGER).
  static Bytes Der(const Bytes &x, const Bytes &y, const Bytes &c3, const Bytes &c2, bool negative = false) {
    SM2_Ciphertext_Structure *s = SM2_Ciphertext_Structure_new();
    ASN1_STRING_set(s->C1x, x.data(), Len(x));
    ASN1_STRING_set(s->C1y, y.data(), Len(y));
    if (negative) s->C1x->type = V_ASN1_NEG_INTEGER;
    ASN1_OCTET_STRING_set(s->C3, c3.data(), Len(c3));
    ASN1_OCTET_STRING_set(s->C2, c2.data(), Len(c2));
    unsigned char *der = nullptr;
    const int n = i2d_SM2_Ciphertext_Structure(s, &der);
    Bytes out(der, der + n);
    OPENSSL_free(der);
    SM2_Ciphertext_Structure_free(s);
    return out;
  }
};

Bytes With(Bytes b, size_t at, uint8_t v) {
  b[at] ^= v;
  return b;
}

const Bytes kP = FromHex("FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF00000000FFFFFFFFFFFFFFFF");
const Bytes kZero(32), kZeroPoint(65);

// Output buffers that must stay as they were.
struct Outputs {
  uint8_t a[65], b[65], c[65], sig[72];
  uint32_t len;
  Outputs() { std::memset(this, 0xEE, sizeof *this); }
  bool Untouched() const {
    const Outputs fresh;
    return std::memcmp(this, &fresh, sizeof fresh) == 0;
  }
};

}  // namespace

TEST(BivoHostile, EveryStepRefusesBadValuesWithoutWriting) {
  const Material m;
  const Bytes n = Ref::N(), off = With(m.P, 64, 1), beyond = Cat({{0x04}, kP, Bytes(m.P.begin() + 33, m.P.end())});
  const Bytes minus_g = m.ref.Point(m.ref.Sub(n, Ref::One())), other_cred = m.ref.Point(m.ref.Scalar(9));
  const Bytes msg = {1, 2, 3};
  // s3 that makes s = d1·k1·s2 + d1·s3 - r vanish.
  const Bytes s3_zero_s = m.ref.Mul(m.ref.Sub(m.r, m.ref.Mul(m.ref.Mul(m.d1, m.k1), m.s2)), m.ref.Inv(m.d1));
  using Call = std::function<uint32_t(Outputs &)>;
  // One factory per step: the row gives the values, the step writes into o.
  auto server_key = [&](Bytes p1) -> Call {
    return [=](Outputs &o) { return BIVO_Server_CreateKeyShare(p1.data(), o.a, o.b, o.c); };
  };
  auto credential = [&](Bytes k) -> Call {
    return [=](Outputs &o) { return BIVO_Server_CreateKeyShareCredential(k.data(), o.a); };
  };
  auto verify = [&](Bytes d1, Bytes p, Bytes cred) -> Call {
    return [=](Outputs &) { return BIVO_Client_VerifyKeyShares(d1.data(), p.data(), cred.data()); };
  };
  auto client_sig = [&](std::string id, Bytes key, uint32_t key_len) -> Call {
    return [=](Outputs &o) {
      return BIVO_Client_CreateSigShareWithPubKey(id.c_str(), key.data(), key_len, msg.data(), 3, o.a, o.b, o.c);
    };
  };
  auto server_sig = [&](Bytes q1, Bytes d2) -> Call {
    return [=, &m](Outputs &o) { return BIVO_Server_CreateSigShare(m.e.data(), q1.data(), d2.data(), o.a, o.b, o.c); };
  };
  // Both assembly forms must refuse alike.
  auto assemble = [&](Bytes d1, Bytes k1, Bytes r, Bytes s2, Bytes s3) -> Call {
    return [=, &m](Outputs &o) {
      const uint32_t plain =
          BIVO_Client_AssemblySigEncode(d1.data(), k1.data(), r.data(), s2.data(), s3.data(), o.sig, &o.len);
      const uint32_t checked = BIVO_Client_AssemblySigEncodeWithPubKey(
          d1.data(), k1.data(), r.data(), s2.data(), s3.data(), m.e.data(), m.P.data(), 65, o.sig, &o.len);
      return plain == checked ? plain : 0xBAD;
    };
  };
  auto checked = [&](Bytes r, Bytes s3, Bytes e, Bytes key) -> Call {
    return [=, &m](Outputs &o) {
      return BIVO_Client_AssemblySigEncodeWithPubKey(m.d1.data(), m.k1.data(), r.data(), m.s2.data(), s3.data(),
                                                     e.data(), key.data(), 65, o.sig, &o.len);
    };
  };
  auto server_pt = [&](Bytes t1, Bytes k) -> Call {
    return [=](Outputs &o) { return BIVO_Server_CreatePlaintextShare(t1.data(), k.data(), o.a); };
  };
  Twins t(1);
  const struct {
    const char *what;
    Call call;
    uint32_t status;
  } rows[] = {
      {"P1 off the curve", server_key(off), 10},
      {"P1 with x = p", server_key(beyond), 10},
      {"P1 = (0, 0)", server_key(kZeroPoint), 10},
      {"credential of 0", credential(kZero), 11},
      {"credential of n", credential(n), 11},
      {"P off the curve", verify(m.d1, off, m.cred), 12},
      {"P = -G", verify(m.d1, minus_g, m.cred), 12},
      {"foreign credential", verify(m.d1, m.P, other_cred), 12},
      {"d1 = n", verify(n, m.P, m.cred), 12},
      {"signing key off the curve", client_sig("id", off, 65), 13},
      {"signing key of 64 bytes", client_sig("id", m.P, 64), 13},
      {"identity of 8192 bytes", client_sig(std::string(8192, 'i'), m.P, 65), 6},
      {"certificate without a key",
       [&](Outputs &o) { return BIVO_Client_CreateSigShareWithCert(msg.data(), 3, msg.data(), 3, o.a, o.b, o.c); }, 5},
      {"no external bytes",
       [&](Outputs &o) {
         return BIVO_Client_CreateSigShareOnDigestWithMixedSource(t.h, m.e.data(), nullptr, o.a, o.b);
       },
       1},
      {"no handle", [&](Outputs &o) { return BIVO_Client_CreateKeyShareWithDrbg(nullptr, o.a, o.b, o.c); }, 1},
      {"Q1 off the curve", server_sig(off, m.d2), 13},
      {"Q1 = (0, 0)", server_sig(kZeroPoint, m.d2), 13},
      {"d2 = 0", server_sig(m.Q1, kZero), 13},
      {"d2 = n", server_sig(m.Q1, n), 13},
      {"no 64 external bytes",
       [&](Outputs &o) {
         return BIVO_Server_CreateSigShareWithMixedSource(t.h, m.e.data(), m.Q1.data(), nullptr, m.d2.data(), o.a, o.b,
                                                          o.c);
       },
       1},
      {"r = 0", assemble(m.d1, m.k1, kZero, m.s2, m.s3), 14},
      {"r = n", assemble(m.d1, m.k1, n, m.s2, m.s3), 14},
      {"s2 = n", assemble(m.d1, m.k1, m.r, n, m.s3), 14},
      {"s3 = 0", assemble(m.d1, m.k1, m.r, m.s2, kZero), 14},
      {"d1 = 0", assemble(kZero, m.k1, m.r, m.s2, m.s3), 14},
      {"k1 = n", assemble(m.d1, n, m.r, m.s2, m.s3), 14},
      {"s3 giving s = 0", assemble(m.d1, m.k1, m.r, m.s2, s3_zero_s), 15},
      {"s3 + 1", checked(m.r, m.ref.Add(m.s3, Ref::One()), m.e, m.P), 8},
      {"r + 1", checked(m.ref.Add(m.r, Ref::One()), m.s3, m.e, m.P), 8},
      {"another digest", checked(m.r, m.s3, With(m.e, 0, 1), m.P), 8},
      {"another key", checked(m.r, m.s3, m.e, m.P1), 8},
      {"key off the curve", checked(m.r, m.s3, m.e, off), 8},
      {"T1 off the curve", server_pt(off, m.d2_inv), 17},
      {"d2^-1 = n", server_pt(m.P, n), 17},
  };
  for (const auto &row : rows) {
    Outputs o;
    EXPECT_EQ(row.call(o), row.status) << row.what;
    EXPECT_TRUE(o.Untouched()) << row.what;
  }
  // The honest round still signs.
  Outputs o;
  EXPECT_EQ(checked(m.r, m.s3, m.e, m.P)(o), 0u);
}

TEST(BivoHostile, CiphertextsAndServerAnswersToTheDecryption) {
  const Material m;
  const Bytes x = m.x(), y = m.y(), c3 = RandomBytes(32, 2), c2 = RandomBytes(20, 3);
  const Bytes wide = Cat({{0x01}, x});
  enum Parts { kNone, kAll };
  const struct {
    const char *what;
    Bytes der;
    Bytes d1_inv;
    uint32_t status;
    Parts written;
  } rows[] = {
      {"not DER", {0x30, 0x03, 0x02, 0x01}, m.d1_inv, 18, kNone},
      {"a trailing byte", Cat({m.cipher, {0}}), m.d1_inv, 18, kNone},
      {"C3 of 31 bytes", Material::Der(x, y, Bytes(31, 1), c2), m.d1_inv, 19, kNone},
      {"C3 of 33 bytes", Material::Der(x, y, Bytes(33, 1), c2), m.d1_inv, 19, kNone},
      {"x of 33 bytes", Material::Der(wide, y, c3, c2), m.d1_inv, 17, kNone},
      {"negative x", Material::Der(x, y, c3, c2, true), m.d1_inv, 17, kNone},
      {"x = p", Material::Der(kP, y, c3, c2), m.d1_inv, 17, kNone},
      {"C1 off the curve", Material::Der(x, With(y, 31, 1), c3, c2), m.d1_inv, 17, kAll},
      {"C1 = (0, 0)", Material::Der({0}, {0}, c3, c2), m.d1_inv, 20, kAll},
      {"d1^-1 = 0", m.cipher, kZero, 17, kNone},
      {"d1^-1 = n", m.cipher, Ref::N(), 17, kNone},
  };
  for (const auto &row : rows) {
    Outputs o;
    Bytes c2_out(64, 0xEE);
    uint32_t c2_len = Len(c2_out);
    EXPECT_EQ(BIVO_Client_CreatePlaintextShare(row.der.data(), Len(row.der), row.d1_inv.data(), o.a, o.b, c2_out.data(),
                                               &c2_len, o.c),
              row.status)
        << row.what;
    EXPECT_EQ(o.a[0], 0xEE) << row.what << ": T1";
    EXPECT_EQ(o.b[0] == 0x04, row.written == kAll) << row.what << ": C1";
    EXPECT_EQ(c2_out[0] != 0xEE, row.written != kNone) << row.what << ": C2";
  }
  // C2_out too small: the length comes back, nothing else.
  Outputs o;
  uint8_t small[19];
  uint32_t small_len = sizeof small;
  EXPECT_EQ(BIVO_Client_CreatePlaintextShare(m.cipher.data(), Len(m.cipher), m.d1_inv.data(), o.a, o.b, small,
                                             &small_len, o.c),
            BIVO_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(small_len, 20u);
  EXPECT_EQ(o.c[0], 0xEE);

  // The combine on a real ciphertext: each broken piece gives 21, no text.
  const Bytes plain = {'t', 'w', 'o'};
  Bytes cipher(200), T1(65), T2(65), C1(65), C2(200), C3(32);
  uint32_t len = Len(cipher), c2_len = Len(C2);
  ASSERT_EQ(BIVO_Sm2EncryptWithPubKey(plain.data(), 3, m.P.data(), 65, cipher.data(), &len), 0u);
  ASSERT_EQ(BIVO_Client_CreatePlaintextShare(cipher.data(), len, m.d1_inv.data(), T1.data(), C1.data(), C2.data(),
                                             &c2_len, C3.data()),
            0u);
  ASSERT_EQ(BIVO_Server_CreatePlaintextShare(T1.data(), m.d2_inv.data(), T2.data()), 0u);
  C2.resize(c2_len);
  const struct {
    const char *what;
    Bytes c1, c2, c3, t2;
    uint32_t status;
  } combines[] = {
      {"honest", C1, C2, C3, T2, 0},
      {"C2 changed", C1, With(C2, 2, 0x10), C3, T2, 21},
      {"C3 changed", C1, C2, With(C3, 31, 1), T2, 21},
      {"C2 empty", C1, {}, C3, T2, 21},
      {"T2 = C1", C1, C2, C3, C1, 21},
      {"T2 off the curve", C1, C2, C3, With(T2, 64, 1), 21},
      {"T2 of another key", C1, C2, C3, T1, 21},
      {"C1 off the curve", With(C1, 64, 1), C2, C3, T2, 21},
  };
  for (const auto &row : combines) {
    Bytes out(3, 0xEE);
    EXPECT_EQ(BIVO_Client_CombinePlaintextShares(row.c1.data(), row.c2.data(), Len(row.c2), row.c3.data(),
                                                 row.t2.data(), out.data()),
              row.status)
        << row.what;
    EXPECT_EQ(out, row.status == 0 ? plain : Bytes(3, 0xEE)) << row.what;
  }
}
