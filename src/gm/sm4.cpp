// The library's own SM4 (GM/T 0002): tables, key schedule, the block
// function, and ECB and CBC over whole blocks.
#include <algorithm>
#include <cstring>

#include <openssl/crypto.h>

#include "gm/gm_internal.hpp"
#include "gm/sm4_engine.hpp"
#include "gm/sm4_internal.hpp"
#include "zeph_c_status.h"

namespace zeph::gm {
namespace {

constexpr uint32_t L(uint32_t b) { return b ^ rotl(b, 2) ^ rotl(b, 10) ^ rotl(b, 18) ^ rotl(b, 24); }

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

inline uint32_t T_slow(uint32_t x) { return L(Tau(x)); }

inline uint32_t T_table(uint32_t x) {
  return SM4_SBOX_T[x >> 24] ^ rotl(SM4_SBOX_T[(x >> 16) & 0xFF], 24) ^ rotl(SM4_SBOX_T[(x >> 8) & 0xFF], 16) ^
         rotl(SM4_SBOX_T[x & 0xFF], 8);
}

void KeySchedule(const uint8_t key[16], uint32_t rk[32]) { ExpandSm4Key(key, rk, Tau); }

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

inline void Xor16(uint8_t *dst, const uint8_t *a, const uint8_t *b) {
  uint64_t x[2], y[2];
  std::memcpy(x, a, 16);
  std::memcpy(y, b, 16);
  x[0] ^= y[0];
  x[1] ^= y[1];
  std::memcpy(dst, x, 16);
}

// The portable engine: the block function above, one block at a time.
void PortableSchedule(const uint8_t key[16], bool encrypt, uint32_t rk[32]) {
  KeySchedule(key, rk);
  if (!encrypt) std::reverse(rk, rk + 32);  // decryption runs the round keys in reverse
}

void PortableEcb(const uint32_t rk[32], const uint8_t *in, uint8_t *out, size_t nblocks) {
  for (; nblocks != 0; --nblocks, in += kSm4Block, out += kSm4Block) CryptBlock(in, out, rk);
}

void PortableCbcEncrypt(const uint32_t rk[32], const uint8_t iv[16], const uint8_t *in, uint8_t *out, size_t nblocks) {
  uint8_t block[16];
  for (const uint8_t *chain = iv; nblocks != 0; --nblocks, chain = out, in += kSm4Block, out += kSm4Block) {
    Xor16(block, in, chain);
    CryptBlock(block, out, rk);
  }
  OPENSSL_cleanse(block, sizeof block);
}

void PortableCbcDecrypt(const uint32_t rk[32], const uint8_t iv[16], const uint8_t *in, uint8_t *out, size_t nblocks) {
  uint8_t chain[16], block[16];
  std::memcpy(chain, iv, 16);
  for (; nblocks != 0; --nblocks, in += kSm4Block, out += kSm4Block) {
    std::memcpy(block, in, 16);  // kept aside: out may overwrite in
    CryptBlock(in, out, rk);
    Xor16(out, out, chain);
    std::memcpy(chain, block, 16);
  }
  OPENSSL_cleanse(block, sizeof block);
  OPENSSL_cleanse(chain, sizeof chain);
}

}  // namespace

const Sm4Engine kSm4Portable = {"portable", PortableSchedule, PortableEcb, PortableCbcEncrypt, PortableCbcDecrypt};

// The engine chosen for this CPU does the blocks. The single-block function
// above keeps the large table off the four rounds at each end; the vector
// engines read no table in any round, so no round of theirs, not only the
// ones nearest the known text, leaves a key-dependent trace in the cache.
void Sm4EcbBlocks(const uint8_t *in, uint8_t *out, uint32_t nblocks, const uint8_t key[16], bool encrypt) {
  if (nblocks == 0) return;
  Sm4Key(key, encrypt).Ecb(in, out, nblocks);
}

void Sm4CbcBlocks(const uint8_t *in, uint8_t *out, uint32_t nblocks, const uint8_t iv[16], const uint8_t key[16],
                  bool encrypt) {
  if (nblocks == 0) return;
  const Sm4Key keys(key, encrypt);
  if (encrypt) {
    keys.CbcEncrypt(iv, in, out, nblocks);
  } else {
    keys.CbcDecrypt(iv, in, out, nblocks);
  }
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
