// SM2 ciphertext forms: OpenSSL's ciphertexts through the flat record and
// both raw orders and back unchanged, the record's layout, malformed input
// of every form, the output protocol and the length rules.
#include "gm/sm2_ciphertext.hpp"

#include <cstring>

#include <gtest/gtest.h>

#include "gm_test_util.hpp"
#include "zeph_c_api.h"

using namespace gm_test;
namespace sm2 = zeph::gm::sm2;

namespace {

Bytes ToRecord(const Bytes &der) {
  const unsigned char *p = der.data();
  zeph::Sm2CiphertextPtr ct(d2i_SM2_Ciphertext_Structure(nullptr, &p, static_cast<long>(der.size())));
  unsigned char *record = nullptr;
  uint32_t n = 0;
  if (!ct || i2a_SM2Cipher2ECCEncryptData(ct.get(), &record, &n) != 0) return {};
  Bytes out(record, record + n);
  ZEPH_C_MALLOC_FREE(record);
  return out;
}

Bytes FromRecord(const Bytes &record) {
  unsigned char *der = nullptr;
  uint32_t n = 0;
  if (a2d_SM2Cipher(record.data(), Len(record), &der, &n) != 0) return {};
  Bytes out(der, der + n);
  ZEPH_C_MALLOC_FREE(der);
  return out;
}

}  // namespace

TEST(Sm2Ciphertext, OpenSslCiphertextsSurviveEveryForm) {
  const zeph::EvpPkeyPtr key = NewSm2Key();
  for (uint32_t len : {1u, 100u, 5000u}) {
    SCOPED_TRACE(len);
    const Bytes msg = RandomBytes(len, len);
    const Bytes der = Encrypt(key.get(), msg);
    ASSERT_FALSE(der.empty());
    sm2::Ciphertext c;
    ASSERT_TRUE(sm2::FromDer(der, &c));

    const Bytes record = ToRecord(der);
    ASSERT_EQ(record.size(), 100u + len);
    uint32_t cipher_len = 0;
    std::memcpy(&cipher_len, record.data() + 96, 4);
    EXPECT_EQ(cipher_len, len);
    EXPECT_EQ(Bytes(record.begin(), record.begin() + 96),
              Cat({Bytes(c.x, c.x + 32), Bytes(c.y, c.y + 32), Bytes(c.c3, c.c3 + 32)}));
    EXPECT_EQ(FromRecord(record), der);

    for (int order : {BIVO_SM2_ORDER_C1C3C2, BIVO_SM2_ORDER_C1C2C3}) {
      uint32_t n = 0;
      ASSERT_EQ(BIVO_Sm2CiphertextDerToRaw(der.data(), Len(der), order, nullptr, &n), 0u);
      ASSERT_EQ(n, 97u + len);
      Bytes raw(n);
      n = 10;
      EXPECT_EQ(BIVO_Sm2CiphertextDerToRaw(der.data(), Len(der), order, raw.data(), &n), ERR_BUFFER_TOO_SMALL);
      EXPECT_EQ(n, 97u + len);
      ASSERT_EQ(BIVO_Sm2CiphertextDerToRaw(der.data(), Len(der), order, raw.data(), &n), 0u);
      const Bytes c1 = Cat({{0x04}, Bytes(c.x, c.x + 32), Bytes(c.y, c.y + 32)}), c3(c.c3, c.c3 + 32);
      EXPECT_EQ(raw, order == 0 ? Cat({c1, c3, c.c2}) : Cat({c1, c.c2, c3}));
      Bytes back(der.size());
      n = Len(back);
      ASSERT_EQ(BIVO_Sm2CiphertextRawToDer(raw.data(), Len(raw), order, back.data(), &n), 0u);
      EXPECT_EQ(back, der);
    }
  }
}

TEST(Sm2Ciphertext, ShortCoordinatesKeepTheirLeadingZerosAndLengthRules) {
  sm2::Ciphertext c;
  c.x[2] = 0x7F;  // x = 00 00 7F 00 ..., a 30-byte INTEGER
  c.x[31] = 1;
  c.y[0] = 0x80;  // y needs a 0x00 in front: a 33-byte INTEGER
  c.c3[0] = 3;
  c.c2 = {1, 2, 3};
  const Bytes der = sm2::ToDer(c);
  ASSERT_EQ(der.size(), 2u + 32u + 35u + 34u + 5u);
  const Bytes record = ToRecord(der);
  ASSERT_EQ(record.size(), 103u);
  EXPECT_EQ(ToHex(record.data(), 4), "00007F00");
  EXPECT_EQ(FromRecord(record), der);
  EXPECT_EQ(BIVO_ComputeSm2CiphertextEncodeLength(100), 212u);
  EXPECT_EQ(BIVO_ComputeSm2PlaintextLength(106), 0u);
  EXPECT_EQ(BIVO_ComputeSm2PlaintextLength(107), 1u);
  EXPECT_EQ(BIVO_ComputeSm2PlaintextLength(0), 0u);
}

TEST(Sm2Ciphertext, MalformedInputIsRefused) {
  const zeph::EvpPkeyPtr key = NewSm2Key();
  const Bytes der = Encrypt(key.get(), RandomBytes(20, 1));
  uint32_t raw_len = 200;
  Bytes raw(raw_len);
  ASSERT_EQ(BIVO_Sm2CiphertextDerToRaw(der.data(), Len(der), 0, raw.data(), &raw_len), 0u);
  raw.resize(raw_len);
  const Bytes record = ToRecord(der);

  sm2::Ciphertext c;
  ASSERT_TRUE(sm2::FromDer(der, &c));
  auto reencoded = [&](auto edit) {
    zeph::Sm2CiphertextPtr s = sm2::ToStructure(c);
    edit(s.get());
    unsigned char *p = nullptr;
    const int n = i2d_SM2_Ciphertext_Structure(s.get(), &p);
    Bytes out(p, p + n);
    OPENSSL_free(p);
    return out;
  };
  const Bytes short_c3 = reencoded([](SM2_Ciphertext_Structure *s) { ASN1_STRING_set(s->C3, "abc", 3); });
  const Bytes negative_x = reencoded([](SM2_Ciphertext_Structure *s) { ASN1_INTEGER_set(s->C1x, -5); });
  const Bytes long_x = reencoded([](SM2_Ciphertext_Structure *s) {
    const Bytes big(33, 0x11);
    ASN1_STRING_set(s->C1x, big.data(), 33);
  });
  Bytes bad_record = record;
  bad_record[96] ^= 1;  // CipherLen
  Bytes no_prefix = raw;
  no_prefix[0] = 0x02;

  uint8_t out[400];
  uint32_t n = sizeof out;
  const struct {
    const char *what;
    Bytes der;
    int order;
    uint32_t status;
  } to_raw[] = {
      {"truncated DER", Bytes(der.begin(), der.end() - 1), 0, ERR_SM2_CIPHER_FORMAT},
      {"trailing byte", Cat({der, {0}}), 0, ERR_SM2_CIPHER_FORMAT},
      {"C3 of 3 bytes", short_c3, 1, ERR_SM2_CIPHER_FORMAT},
      {"negative x", negative_x, 0, ERR_SM2_CIPHER_FORMAT},
      {"x of 33 bytes", long_x, 0, ERR_SM2_CIPHER_FORMAT},
      {"unknown order", der, 2, ERR_INVALID_PARAMETER},
  };
  for (const auto &row : to_raw) {
    n = sizeof out;
    EXPECT_EQ(BIVO_Sm2CiphertextDerToRaw(row.der.data(), Len(row.der), row.order, out, &n), row.status) << row.what;
  }
  n = sizeof out;
  EXPECT_EQ(BIVO_Sm2CiphertextRawToDer(no_prefix.data(), Len(no_prefix), 0, out, &n), ERR_SM2_CIPHER_FORMAT);
  EXPECT_EQ(BIVO_Sm2CiphertextRawToDer(raw.data(), 96, 0, out, &n), ERR_SM2_CIPHER_FORMAT);
  unsigned char *block = nullptr;
  EXPECT_EQ(a2d_SM2Cipher(record.data(), 99, &block, &n), ERR_SM2_CIPHER_FORMAT);
  EXPECT_EQ(a2d_SM2Cipher(bad_record.data(), Len(bad_record), &block, &n), ERR_SM2_CIPHER_FORMAT);
  EXPECT_EQ(i2a_SM2Cipher2ECCEncryptData(nullptr, &block, &n), ERR_SM2_CIPHER_FORMAT);
  const unsigned char *p = short_c3.data();
  zeph::Sm2CiphertextPtr s(d2i_SM2_Ciphertext_Structure(nullptr, &p, Len(short_c3)));
  EXPECT_EQ(i2a_SM2Cipher2ECCEncryptData(s.get(), &block, &n), ERR_SM2_CIPHER_FORMAT);
  EXPECT_EQ(block, nullptr);
}
