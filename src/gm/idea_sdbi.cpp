// IDEA (Lai and Massey: eight rounds and an output transformation, 128-bit
// key) and the SDBI message cipher over it: ECB, a 0x01-and-zeros padding,
// segments of 4096 bytes.
#include "gm/idea_sdbi.hpp"

#include <cstring>

#include <openssl/crypto.h>

#include "foundation/status_flow.hpp"
#include "zeph_c_sdbi.h"

namespace zeph::gm::idea {
namespace {

constexpr int kRounds = 8;

// The subkeys of one call, wiped afterwards.
struct Subkeys {
  uint16_t k[kSubkeys];
  ~Subkeys() { OPENSSL_cleanse(k, sizeof k); }
};

uint16_t Neg(uint16_t x) { return static_cast<uint16_t>(0x10000 - x); }

bool Padded(int mode) { return mode == SDBI_MODE_LAST || mode == SDBI_MODE_WHOLE; }

// The length rule of each mode: 0 or its status.
uint32_t CheckSegment(int mode, uint32_t len) {
  if (mode == SDBI_MODE_FIRST || mode == SDBI_MODE_MIDDLE) return len == kSegment ? 0 : SDBI_ERR_SEGMENT_LENGTH;
  if (Padded(mode)) return len <= kSegment ? 0 : SDBI_ERR_LAST_TOO_LONG;
  return SDBI_ERR_MODE;
}

// Cuts a message (or a ciphertext) of len bytes the way the sender does:
// one whole segment, or a first one, middle ones while more than a segment
// remains, and the rest as the last one.
template <class Segment>
uint32_t ForEachSegment(uint32_t len, Segment &&segment) {
  if (len <= kSegment) return segment(SDBI_MODE_WHOLE, 0, len);
  ZEPH_TRY(segment(SDBI_MODE_FIRST, 0, kSegment));
  uint32_t off = kSegment;
  for (; len - off > kSegment; off += kSegment) ZEPH_TRY(segment(SDBI_MODE_MIDDLE, off, kSegment));
  return segment(SDBI_MODE_LAST, off, len - off);
}

void Ecb(const uint8_t *in, uint8_t *out, size_t nblocks, const uint16_t k[kSubkeys]) {
  uint16_t block[4];
  for (size_t i = 0; i < nblocks; ++i) {
    idea_uchar_to_ushort(in + i * kBlock, block);
    cip(block, block, k);
    idea_ushort_to_uchar(block, out + i * kBlock);
  }
  OPENSSL_cleanse(block, sizeof block);
}

}  // namespace

uint16_t mul(uint16_t a, uint16_t b) {
  // 0 stands for 2^16; 2^16 = -1 modulo 65537, so hi * 2^16 + lo = lo - hi.
  const uint64_t x = a + ((static_cast<uint64_t>(a) - 1) >> 63 << 16);
  const uint64_t y = b + ((static_cast<uint64_t>(b) - 1) >> 63 << 16);
  const uint64_t p = x * y;
  int64_t r = static_cast<int64_t>(p & 0xFFFF) - static_cast<int64_t>(p >> 16);
  r += 65537 & (r >> 63);
  return static_cast<uint16_t>(r);
}

uint16_t inv(uint16_t x) {
  // x^(65537 - 2) = x^0xFFFF: the product of x^(2^i) for i = 0..15.
  uint16_t r = 1, power = x;
  for (int i = 0; i < 16; ++i) {
    r = mul(r, power);
    power = mul(power, power);
  }
  return r;
}

void gen_i_enkey(const uint8_t key[16], uint16_t ek[kSubkeys]) {
  uint64_t hi = 0, lo = 0;
  for (int i = 0; i < 8; ++i) hi = hi << 8 | key[i], lo = lo << 8 | key[8 + i];
  for (size_t i = 0; i < kSubkeys; i += 8) {
    for (size_t j = 0; j < 8 && i + j < kSubkeys; ++j) {
      ek[i + j] = static_cast<uint16_t>((j < 4 ? hi : lo) >> (48 - 16 * (j % 4)));
    }
    const uint64_t rotated_hi = hi << 25 | lo >> 39;
    lo = lo << 25 | hi >> 39;
    hi = rotated_hi;
  }
  hi = lo = 0;
}

void gen_i_dekey(const uint16_t ek[kSubkeys], uint16_t dk[kSubkeys]) {
  // Decryption runs the rounds backwards; the additive subkeys of the inner
  // rounds trade places because of the swap inside each round.
  for (int r = 0; r <= kRounds; ++r) {
    const int from = 6 * (kRounds - r);
    const bool inner = r != 0 && r != kRounds;
    dk[6 * r] = inv(ek[from]);
    dk[6 * r + 1] = Neg(ek[from + (inner ? 2 : 1)]);
    dk[6 * r + 2] = Neg(ek[from + (inner ? 1 : 2)]);
    dk[6 * r + 3] = inv(ek[from + 3]);
    if (r < kRounds) {
      dk[6 * r + 4] = ek[from - 2];
      dk[6 * r + 5] = ek[from - 1];
    }
  }
}

void idea_uchar_to_ushort(const uint8_t in[kBlock], uint16_t out[4]) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint16_t>(in[2 * i] << 8 | in[2 * i + 1]);
}

void idea_ushort_to_uchar(const uint16_t in[4], uint8_t out[kBlock]) {
  for (int i = 0; i < 4; ++i) {
    out[2 * i] = static_cast<uint8_t>(in[i] >> 8);
    out[2 * i + 1] = static_cast<uint8_t>(in[i]);
  }
}

void cip(const uint16_t in[4], uint16_t out[4], const uint16_t k[kSubkeys]) {
  uint16_t x1 = in[0], x2 = in[1], x3 = in[2], x4 = in[3];
  for (int r = 0; r < kRounds; ++r, k += 6) {
    x1 = mul(x1, k[0]);
    x2 = static_cast<uint16_t>(x2 + k[1]);
    x3 = static_cast<uint16_t>(x3 + k[2]);
    x4 = mul(x4, k[3]);
    uint16_t t0 = mul(k[4], x1 ^ x3);
    const uint16_t t1 = mul(k[5], static_cast<uint16_t>((x2 ^ x4) + t0));
    t0 = static_cast<uint16_t>(t0 + t1);
    x1 ^= t1;
    x4 ^= t0;
    const uint16_t swapped = x2 ^ t0;
    x2 = x3 ^ t1;
    x3 = swapped;
  }
  out[0] = mul(x1, k[0]);
  out[1] = static_cast<uint16_t>(x3 + k[1]);
  out[2] = static_cast<uint16_t>(x2 + k[2]);
  out[3] = mul(x4, k[3]);
}

void ecb_encry_proc(const uint8_t *in, uint8_t *out, size_t nblocks, const uint16_t ek[kSubkeys]) {
  Ecb(in, out, nblocks, ek);
}

void ecb_decry_proc(const uint8_t *in, uint8_t *out, size_t nblocks, const uint16_t dk[kSubkeys]) {
  Ecb(in, out, nblocks, dk);
}

uint32_t enc_message_sdbi(int mode, const uint8_t *in, uint32_t len, uint8_t *out, uint32_t *out_len,
                          const uint16_t ek[kSubkeys]) {
  if ((in == nullptr && len != 0) || out == nullptr || out_len == nullptr) return SDBI_ERR_FAILED;
  ZEPH_TRY(CheckSegment(mode, len));
  const uint32_t whole = len / kBlock, rest = len % kBlock;
  // The tail is read before anything is written over it (in may be out).
  uint8_t last[kBlock] = {};
  if (rest != 0) std::memcpy(last, in + whole * kBlock, rest);
  last[rest] = 0x01;
  ecb_encry_proc(in, out, whole, ek);
  *out_len = whole * kBlock;
  if (Padded(mode)) {
    ecb_encry_proc(last, out + *out_len, 1, ek);
    *out_len += kBlock;
  }
  OPENSSL_cleanse(last, sizeof last);
  return 0;
}

uint32_t dec_message_sdbi(int mode, const uint8_t *in, uint32_t len, uint8_t *out, uint32_t *out_len,
                          const uint16_t dk[kSubkeys]) {
  if ((in == nullptr && len != 0) || out == nullptr || out_len == nullptr) return SDBI_ERR_FAILED;
  ZEPH_TRY(CheckSegment(mode, len));
  if (len == 0 || len % kBlock != 0) return SDBI_ERR_FAILED;
  ecb_decry_proc(in, out, len / kBlock, dk);
  if (!Padded(mode)) {
    *out_len = len;
    return 0;
  }
  // The marker is the last 0x01 among the final eight bytes; the bytes after
  // it are not looked at.
  for (uint32_t i = len; i-- > len - kBlock;) {
    if (out[i] == 0x01) {
      *out_len = i;
      return 0;
    }
  }
  OPENSSL_cleanse(out, len);
  return SDBI_ERR_NO_PADDING;
}

}  // namespace zeph::gm::idea

namespace idea = zeph::gm::idea;

extern "C" {

ZEPH_API uint32_t Enc_Message_SDBI(int mode, const unsigned char *in, uint32_t len, unsigned char *out,
                                   uint32_t *out_len, const unsigned char *key16) {
  if (key16 == nullptr) return SDBI_ERR_FAILED;
  idea::Subkeys ek;
  idea::gen_i_enkey(key16, ek.k);
  return idea::enc_message_sdbi(mode, in, len, out, out_len, ek.k);
}

ZEPH_API uint32_t Dec_Message_SDBI(int mode, const unsigned char *in, uint32_t len, unsigned char *out,
                                   uint32_t *out_len, const unsigned char *key16) {
  if (key16 == nullptr) return SDBI_ERR_FAILED;
  idea::Subkeys ek, dk;
  idea::gen_i_enkey(key16, ek.k);
  idea::gen_i_dekey(ek.k, dk.k);
  return idea::dec_message_sdbi(mode, in, len, out, out_len, dk.k);
}

ZEPH_API uint32_t CSP_SDBIEncrypt(unsigned char *out, uint32_t *out_len, const unsigned char *in, uint32_t in_len,
                                  const unsigned char *key, uint32_t key_len) {
  if (out == nullptr || out_len == nullptr || (in == nullptr && in_len != 0) || key == nullptr || key_len != 16 ||
      in_len > UINT32_MAX - idea::kBlock) {
    return SDBI_ERR_FAILED;
  }
  idea::Subkeys ek;
  idea::gen_i_enkey(key, ek.k);
  uint32_t total = 0;
  const uint32_t rv = idea::ForEachSegment(in_len, [&](int mode, uint32_t off, uint32_t n) {
    uint32_t written = 0;
    const uint32_t status = idea::enc_message_sdbi(mode, in + off, n, out + total, &written, ek.k);
    total += written;
    return status;
  });
  if (rv != 0) return SDBI_ERR_FAILED;
  *out_len = total;
  return 0;
}

ZEPH_API uint32_t CSP_SDBIDecrypt(unsigned char *out, uint32_t *out_len, const unsigned char *in, uint32_t in_len,
                                  const unsigned char *key, uint32_t key_len) {
  if (out == nullptr || out_len == nullptr || in == nullptr || key == nullptr || key_len != 16) {
    return SDBI_ERR_FAILED;
  }
  idea::Subkeys ek, dk;
  idea::gen_i_enkey(key, ek.k);
  idea::gen_i_dekey(ek.k, dk.k);
  uint32_t total = 0;
  const uint32_t rv = idea::ForEachSegment(in_len, [&](int mode, uint32_t off, uint32_t n) {
    uint32_t written = 0;
    const uint32_t status = idea::dec_message_sdbi(mode, in + off, n, out + off, &written, dk.k);
    total = off + written;
    return status;
  });
  if (rv != 0) {
    OPENSSL_cleanse(out, in_len);
    return SDBI_ERR_FAILED;
  }
  *out_len = total;
  return 0;
}

ZEPH_API uint32_t Crypt_Enc_Data_S(const unsigned char *in, uint32_t in_len, unsigned char *out, uint32_t *out_len,
                                   const unsigned char *key16) {
  return CSP_SDBIEncrypt(out, out_len, in, in_len, key16, 16);
}

ZEPH_API uint32_t Crypt_Dec_Data_S(const unsigned char *in, uint32_t in_len, unsigned char *out, uint32_t *out_len,
                                   const unsigned char *key16) {
  return CSP_SDBIDecrypt(out, out_len, in, in_len, key16, 16);
}

}  // extern "C"
