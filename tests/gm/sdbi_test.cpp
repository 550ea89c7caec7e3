// IDEA SDBI: the published IDEA vector through the SDBI layout at the
// segment boundaries, round trips, and the statuses of every level.
#include <gtest/gtest.h>

#include "gm/idea_sdbi.hpp"
#include "gm_test_util.hpp"
#include "zeph_c_sdbi.h"

using namespace gm_test;

namespace {

// Lai and Massey's example: key 0001 0002 ... 0008, plaintext 0000 0001 0002 0003.
const Bytes kKey = FromHex("00010002000300040005000600070008");
const Bytes kPlain = FromHex("0000000100020003");
const Bytes kCipher = FromHex("11FBED2B01986DE5");
// The same key on 01 00 00 00 00 00 00 00 and on 00 01 00 00 00 00 00 00,
// checked against libgcrypt's IDEA.
const Bytes kPadBlock = FromHex("BA983E69B79A6AA9");
const Bytes kOneZeroPadded = FromHex("9F5531AAF82B2CE3");

Bytes Repeat(const Bytes &block, size_t times) {
  Bytes out;
  for (size_t i = 0; i < times; ++i) out.insert(out.end(), block.begin(), block.end());
  return out;
}

}  // namespace

TEST(Sdbi, PublishedVectorThroughTheLayout) {
  const struct {
    size_t len;
    Bytes cipher;
  } cases[] = {
      {0, kPadBlock},
      {8, Cat({kCipher, kPadBlock})},
      {4096, Cat({Repeat(kCipher, 512), kPadBlock})},
      {4097, Cat({Repeat(kCipher, 512), kOneZeroPadded})},
      {8192, Cat({Repeat(kCipher, 1024), kPadBlock})},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.len);
    Bytes msg = Repeat(kPlain, c.len / 8);
    msg.resize(c.len, 0x00);
    Bytes out(c.len + 8), back(c.len + 8);
    uint32_t n = 0, m = 0;
    ASSERT_EQ(Crypt_Enc_Data_S(msg.data(), Len(msg), out.data(), &n, kKey.data()), 0u);
    out.resize(n);
    EXPECT_EQ(out, c.cipher);
    ASSERT_EQ(CSP_SDBIDecrypt(back.data(), &m, out.data(), n, kKey.data(), 16), 0u);
    back.resize(m);
    EXPECT_EQ(back, msg);
  }
}

TEST(Sdbi, RoundTripsAndInPlace) {
  const Bytes key = RandomBytes(16, 1);
  for (uint32_t len : {1u, 7u, 9u, 4095u, 4103u, 8193u, 12288u, 20000u}) {
    const Bytes msg = RandomBytes(len, len);
    Bytes buf(len + 8);
    std::copy(msg.begin(), msg.end(), buf.begin());
    uint32_t n = 0, m = 0;
    ASSERT_EQ(CSP_SDBIEncrypt(buf.data(), &n, buf.data(), len, key.data(), 16), 0u);
    EXPECT_EQ(n, len + 8 - len % 8);
    ASSERT_EQ(Crypt_Dec_Data_S(buf.data(), n, buf.data(), &m, key.data()), 0u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + m), msg) << len;
  }
}

TEST(Sdbi, Statuses) {
  const Bytes key = RandomBytes(16, 2), seg = RandomBytes(4096, 3), big = RandomBytes(4097, 4);
  Bytes out(8200);
  uint32_t n = 0;
  // A block whose decryption has no 0x01 in it: encrypt eight 0x02 bytes
  // as a whole segment of its own.
  Bytes no_marker(8);
  uint16_t ek[52];
  zeph::gm::idea::gen_i_enkey(key.data(), ek);
  const Bytes twos(8, 0x02);
  zeph::gm::idea::ecb_encry_proc(twos.data(), no_marker.data(), 1, ek);
  const struct {
    const char *what;
    decltype(&Enc_Message_SDBI) fn;
    int mode;
    const Bytes &in;
    uint32_t len, status;
  } segments[] = {
      {"first segment of 4095", Enc_Message_SDBI, 1, seg, 4095, 195},
      {"middle segment of 4097", Dec_Message_SDBI, 2, big, 4097, 195},
      {"last segment of 4097", Enc_Message_SDBI, 3, big, 4097, 196},
      {"whole segment of 4097", Dec_Message_SDBI, 4, big, 4097, 196},
      {"mode 5", Enc_Message_SDBI, 5, seg, 8, 255},
      {"no marker", Dec_Message_SDBI, 4, no_marker, 8, 197},
      {"first segment", Enc_Message_SDBI, 1, seg, 4096, 0},
  };
  for (const auto &c : segments)
    EXPECT_EQ(c.fn(c.mode, c.in.data(), c.len, out.data(), &n, key.data()), c.status) << c.what;
  // Whole messages: every failure is 1.
  EXPECT_EQ(Crypt_Dec_Data_S(no_marker.data(), 8, out.data(), &n, key.data()), 1u);
  EXPECT_EQ(CSP_SDBIDecrypt(out.data(), &n, seg.data(), 4100, key.data(), 16), 1u);  // ragged
  EXPECT_EQ(CSP_SDBIDecrypt(out.data(), &n, seg.data(), 0, key.data(), 16), 1u);
  EXPECT_EQ(CSP_SDBIEncrypt(out.data(), &n, seg.data(), 8, key.data(), 15), 1u);
  EXPECT_EQ(Crypt_Enc_Data_S(seg.data(), 8, out.data(), &n, nullptr), 1u);
}
