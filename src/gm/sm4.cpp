// The library's own SM4 (GM/T 0002): tables, key schedule, the block
// function, and ECB and CBC over whole blocks.
#include <algorithm>
#include <cstring>

#include <openssl/crypto.h>

#include "gm/gm_internal.hpp"
#include "gm/sm4_internal.hpp"
#include "zeph_c_status.h"

namespace zeph::gm {
namespace {

// clang-format off
constexpr uint8_t SM4_S[256] = {
    0xD6, 0x90, 0xE9, 0xFE, 0xCC, 0xE1, 0x3D, 0xB7, 0x16, 0xB6, 0x14, 0xC2, 0x28, 0xFB, 0x2C, 0x05,
    0x2B, 0x67, 0x9A, 0x76, 0x2A, 0xBE, 0x04, 0xC3, 0xAA, 0x44, 0x13, 0x26, 0x49, 0x86, 0x06, 0x99,
    0x9C, 0x42, 0x50, 0xF4, 0x91, 0xEF, 0x98, 0x7A, 0x33, 0x54, 0x0B, 0x43, 0xED, 0xCF, 0xAC, 0x62,
    0xE4, 0xB3, 0x1C, 0xA9, 0xC9, 0x08, 0xE8, 0x95, 0x80, 0xDF, 0x94, 0xFA, 0x75, 0x8F, 0x3F, 0xA6,
    0x47, 0x07, 0xA7, 0xFC, 0xF3, 0x73, 0x17, 0xBA, 0x83, 0x59, 0x3C, 0x19, 0xE6, 0x85, 0x4F, 0xA8,
    0x68, 0x6B, 0x81, 0xB2, 0x71, 0x64, 0xDA, 0x8B, 0xF8, 0xEB, 0x0F, 0x4B, 0x70, 0x56, 0x9D, 0x35,
    0x1E, 0x24, 0x0E, 0x5E, 0x63, 0x58, 0xD1, 0xA2, 0x25, 0x22, 0x7C, 0x3B, 0x01, 0x21, 0x78, 0x87,
    0xD4, 0x00, 0x46, 0x57, 0x9F, 0xD3, 0x27, 0x52, 0x4C, 0x36, 0x02, 0xE7, 0xA0, 0xC4, 0xC8, 0x9E,
    0xEA, 0xBF, 0x8A, 0xD2, 0x40, 0xC7, 0x38, 0xB5, 0xA3, 0xF7, 0xF2, 0xCE, 0xF9, 0x61, 0x15, 0xA1,
    0xE0, 0xAE, 0x5D, 0xA4, 0x9B, 0x34, 0x1A, 0x55, 0xAD, 0x93, 0x32, 0x30, 0xF5, 0x8C, 0xB1, 0xE3,
    0x1D, 0xF6, 0xE2, 0x2E, 0x82, 0x66, 0xCA, 0x60, 0xC0, 0x29, 0x23, 0xAB, 0x0D, 0x53, 0x4E, 0x6F,
    0xD5, 0xDB, 0x37, 0x45, 0xDE, 0xFD, 0x8E, 0x2F, 0x03, 0xFF, 0x6A, 0x72, 0x6D, 0x6C, 0x5B, 0x51,
    0x8D, 0x1B, 0xAF, 0x92, 0xBB, 0xDD, 0xBC, 0x7F, 0x11, 0xD9, 0x5C, 0x41, 0x1F, 0x10, 0x5A, 0xD8,
    0x0A, 0xC1, 0x31, 0x88, 0xA5, 0xCD, 0x7B, 0xBD, 0x2D, 0x74, 0xD0, 0x12, 0xB8, 0xE5, 0xB4, 0xB0,
    0x89, 0x69, 0x97, 0x4A, 0x0C, 0x96, 0x77, 0x7E, 0x65, 0xB9, 0xF1, 0x09, 0xC5, 0x6E, 0xC6, 0x84,
    0x18, 0xF0, 0x7D, 0xEC, 0x3A, 0xDC, 0x4D, 0x20, 0x79, 0xEE, 0x5F, 0x3E, 0xD7, 0xCB, 0x39, 0x48,
};
// clang-format on

constexpr uint32_t L(uint32_t b) { return b ^ rotl(b, 2) ^ rotl(b, 10) ^ rotl(b, 18) ^ rotl(b, 24); }
constexpr uint32_t LKey(uint32_t b) { return b ^ rotl(b, 13) ^ rotl(b, 23); }

constexpr uint32_t Tau(uint32_t x) {
  return static_cast<uint32_t>(SM4_S[x >> 24]) << 24 | static_cast<uint32_t>(SM4_S[(x >> 16) & 0xFF]) << 16 |
         static_cast<uint32_t>(SM4_S[(x >> 8) & 0xFF]) << 8 | SM4_S[x & 0xFF];
}

// SM4_SBOX_T[x] = L(S(x) << 24); the other byte positions are rotations of it.
struct SboxTable {
  uint32_t t[256];
};
constexpr SboxTable MakeSboxTable() {
  SboxTable table{};
  for (int x = 0; x < 256; ++x) table.t[x] = L(static_cast<uint32_t>(SM4_S[x]) << 24);
  return table;
}
alignas(64) constexpr SboxTable kSboxTable = MakeSboxTable();
constexpr const uint32_t *SM4_SBOX_T = kSboxTable.t;

constexpr uint32_t FK[4] = {0xA3B1BAC6, 0x56AA3350, 0x677D9197, 0xB27022DC};

// CK[i] byte j is (4i + j) * 7 mod 256.
constexpr uint32_t MakeCk(uint32_t i) {
  uint32_t v = 0;
  for (uint32_t j = 0; j < 4; ++j) v = v << 8 | (((4 * i + j) * 7) & 0xFF);
  return v;
}

inline uint32_t T_slow(uint32_t x) { return L(Tau(x)); }

inline uint32_t T_table(uint32_t x) {
  return SM4_SBOX_T[x >> 24] ^ rotl(SM4_SBOX_T[(x >> 16) & 0xFF], 24) ^ rotl(SM4_SBOX_T[(x >> 8) & 0xFF], 16) ^
         rotl(SM4_SBOX_T[x & 0xFF], 8);
}

void KeySchedule(const uint8_t key[16], uint32_t rk[32]) {
  uint32_t k0 = load_u32_be(key) ^ FK[0], k1 = load_u32_be(key + 4) ^ FK[1], k2 = load_u32_be(key + 8) ^ FK[2],
           k3 = load_u32_be(key + 12) ^ FK[3];
  for (uint32_t i = 0; i < 32; i += 4) {
    k0 ^= LKey(Tau(k1 ^ k2 ^ k3 ^ MakeCk(i)));
    k1 ^= LKey(Tau(k2 ^ k3 ^ k0 ^ MakeCk(i + 1)));
    k2 ^= LKey(Tau(k3 ^ k0 ^ k1 ^ MakeCk(i + 2)));
    k3 ^= LKey(Tau(k0 ^ k1 ^ k2 ^ MakeCk(i + 3)));
    rk[i] = k0;
    rk[i + 1] = k1;
    rk[i + 2] = k2;
    rk[i + 3] = k3;
  }
}

// Four rounds on renamed words: X(i+4) = X(i) ^ T(X(i+1) ^ X(i+2) ^ X(i+3) ^ rk[i]).
#define SM4_ROUNDS4(T, k)              \
  b0 ^= T(b1 ^ b2 ^ b3 ^ rk[(k)]);     \
  b1 ^= T(b2 ^ b3 ^ b0 ^ rk[(k) + 1]); \
  b2 ^= T(b3 ^ b0 ^ b1 ^ rk[(k) + 2]); \
  b3 ^= T(b0 ^ b1 ^ b2 ^ rk[(k) + 3])

// The first and last four rounds, where the state is closest to known
// plaintext or ciphertext, stay off the large table.
[[gnu::always_inline]] inline void CryptBlock(const uint8_t *in, uint8_t *out, const uint32_t rk[32]) {
  uint32_t b0 = load_u32_be(in), b1 = load_u32_be(in + 4), b2 = load_u32_be(in + 8), b3 = load_u32_be(in + 12);
  SM4_ROUNDS4(T_slow, 0);
  SM4_ROUNDS4(T_table, 4);
  SM4_ROUNDS4(T_table, 8);
  SM4_ROUNDS4(T_table, 12);
  SM4_ROUNDS4(T_table, 16);
  SM4_ROUNDS4(T_table, 20);
  SM4_ROUNDS4(T_table, 24);
  SM4_ROUNDS4(T_slow, 28);
  store_u32_be(out, b3);
  store_u32_be(out + 4, b2);
  store_u32_be(out + 8, b1);
  store_u32_be(out + 12, b0);
}

#undef SM4_ROUNDS4

// Round keys for one direction: decryption runs them in reverse.
struct RoundKeys {
  uint32_t rk[32];
  RoundKeys(const uint8_t key[16], bool encrypt) {
    KeySchedule(key, rk);
    if (!encrypt) std::reverse(rk, rk + 32);
  }
  ~RoundKeys() { OPENSSL_cleanse(rk, sizeof rk); }
  RoundKeys(const RoundKeys &) = delete;
  RoundKeys &operator=(const RoundKeys &) = delete;
};

inline void Xor16(uint8_t *dst, const uint8_t *a, const uint8_t *b) {
  uint64_t x[2], y[2];
  std::memcpy(x, a, 16);
  std::memcpy(y, b, 16);
  x[0] ^= y[0];
  x[1] ^= y[1];
  std::memcpy(dst, x, 16);
}

}  // namespace

void Sm4EcbBlocks(const uint8_t *in, uint8_t *out, uint32_t nblocks, const uint8_t key[16], bool encrypt) {
  if (nblocks == 0) return;
  const RoundKeys keys(key, encrypt);
  for (uint32_t i = 0; i < nblocks; ++i, in += kSm4Block, out += kSm4Block) CryptBlock(in, out, keys.rk);
}

void Sm4CbcBlocks(const uint8_t *in, uint8_t *out, uint32_t nblocks, const uint8_t iv[16], const uint8_t key[16],
                  bool encrypt) {
  if (nblocks == 0) return;
  const RoundKeys keys(key, encrypt);
  uint8_t chain[16], block[16];
  std::memcpy(chain, iv, 16);
  for (uint32_t i = 0; i < nblocks; ++i, in += kSm4Block, out += kSm4Block) {
    if (encrypt) {
      Xor16(block, in, chain);
      CryptBlock(block, out, keys.rk);
      std::memcpy(chain, out, 16);
    } else {
      std::memcpy(block, in, 16);  // kept aside: out may overwrite in
      CryptBlock(in, out, keys.rk);
      Xor16(out, out, chain);
      std::memcpy(chain, block, 16);
    }
  }
  OPENSSL_cleanse(block, sizeof block);
  OPENSSL_cleanse(chain, sizeof chain);
}

namespace {

// The exported whole-block modes: ECB without an IV, CBC with one.
uint32_t WholeBlocks(const uint8_t *in, uint32_t len, const uint8_t *iv, const uint8_t *key, uint8_t *out,
                     bool encrypt) {
  if (key == nullptr || (len != 0 && (in == nullptr || out == nullptr))) return ERR_INVALID_PARAMETER;
  if (len % kSm4Block != 0) return BIVO_ERR_LENGTH;
  if (iv == nullptr) {
    Sm4EcbBlocks(in, out, len / kSm4Block, key, encrypt);
  } else {
    Sm4CbcBlocks(in, out, len / kSm4Block, iv, key, encrypt);
  }
  return 0;
}

}  // namespace
}  // namespace zeph::gm

using namespace zeph::gm;

extern "C" {

ZEPH_API uint32_t SM4_T_slow(uint32_t x) { return T_slow(x); }

ZEPH_API uint32_t SM4_T(uint32_t x) { return T_table(x); }

ZEPH_API int SM4_set_key(const unsigned char *key16, uint32_t *rk32) {
  if (key16 == nullptr || rk32 == nullptr) return 0;
  KeySchedule(key16, rk32);
  return 1;
}

ZEPH_API void SM4_encrypt(const unsigned char *in16, unsigned char *out16, const uint32_t *rk32) {
  if (in16 == nullptr || out16 == nullptr || rk32 == nullptr) return;
  CryptBlock(in16, out16, rk32);
}

ZEPH_API void SM4_decrypt(const unsigned char *in16, unsigned char *out16, const uint32_t *rk32) {
  if (in16 == nullptr || out16 == nullptr || rk32 == nullptr) return;
  uint32_t reversed[32];
  std::reverse_copy(rk32, rk32 + 32, reversed);
  CryptBlock(in16, out16, reversed);
  OPENSSL_cleanse(reversed, sizeof reversed);
}

ZEPH_API uint32_t BIVO_sm4_encrypt(const unsigned char *in, uint32_t len, const unsigned char *key16,
                                   unsigned char *out) {
  return WholeBlocks(in, len, nullptr, key16, out, true);
}

ZEPH_API uint32_t BIVO_sm4_decrypt(const unsigned char *in, uint32_t len, const unsigned char *key16,
                                   unsigned char *out) {
  return WholeBlocks(in, len, nullptr, key16, out, false);
}

ZEPH_API uint32_t BIVO_sm4_cbc_encrypt(const unsigned char *in, uint32_t len, const unsigned char *iv16,
                                       const unsigned char *key16, unsigned char *out) {
  if (iv16 == nullptr) return ERR_INVALID_PARAMETER;
  return WholeBlocks(in, len, iv16, key16, out, true);
}

ZEPH_API uint32_t BIVO_sm4_cbc_decrypt(const unsigned char *in, uint32_t len, const unsigned char *iv16,
                                       const unsigned char *key16, unsigned char *out) {
  if (iv16 == nullptr) return ERR_INVALID_PARAMETER;
  return WholeBlocks(in, len, iv16, key16, out, false);
}

}  // extern "C"
