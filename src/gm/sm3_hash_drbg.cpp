// Hash_DRBG with SM3 and a 440-bit seed: Hash_df, instantiate, reseed,
// generate (Hashgen and the state update), long and file outputs.
#include "gm/sm3_hash_drbg.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "foundation/owned.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "gm/gm_internal.hpp"
#include "zeph_c_status.h"

namespace zeph::gm {
namespace {

using Bytes = std::span<const uint8_t>;

// Hash_df over the concatenation of parts: each output block is
// SM3(counter || bits(out_len) || parts), counter from 1.
void HashDf(std::initializer_list<Bytes> parts, uint32_t out_len, uint8_t *out) {
  uint8_t prefix[5];
  store_u32_be(prefix + 1, out_len * 8);
  uint8_t block[32];
  BIVO_SM3_CTX ctx;
  for (uint8_t counter = 1; out_len != 0; ++counter) {
    prefix[0] = counter;
    Sm3Init(&ctx);
    Sm3Update(&ctx, prefix, sizeof prefix);
    for (const Bytes &part : parts) Sm3Update(&ctx, part.data(), part.size());
    const uint32_t take = out_len < 32 ? out_len : 32;
    if (take == 32) {
      Sm3Final(out, &ctx);
    } else {
      Sm3Final(block, &ctx);
      std::memcpy(out, block, take);
    }
    out += take;
    out_len -= take;
  }
  OPENSSL_cleanse(&ctx, sizeof ctx);
  OPENSSL_cleanse(block, sizeof block);
}

// V and C from fresh seed material (instantiate and reseed alike). The seed
// material may include the old V: it is read before V is replaced.
void Reseed(bivo_sm3_hash_drbg_st *s, std::initializer_list<Bytes> seed_material) {
  uint8_t v[kSeedLength];
  HashDf(seed_material, kSeedLength, v);
  const uint8_t zero = 0x00;
  HashDf({Bytes(&zero, 1), Bytes(v, sizeof v)}, kSeedLength, s->C);
  std::memcpy(s->V, v, sizeof v);
  OPENSSL_cleanse(v, sizeof v);
  s->reseed_counter = 1;
}

// Hashgen: SM3(V), SM3(V + 1), ... V fits one block with its padding
// (55 + 1 + 8 bytes), so each 32 output bytes cost one compression.
void HashGen(const uint8_t v[kSeedLength], uint32_t out_len, uint8_t *out) {
  static_assert(kSeedLength + 1 + 8 == 64);
  alignas(16) uint8_t block[64] = {};
  std::memcpy(block, v, kSeedLength);
  block[kSeedLength] = 0x80;
  store_u32_be(block + 60, kSeedLength * 8);
  uint32_t st[8];
  for (;;) {
    std::memcpy(st, kSm3Iv, sizeof st);
    Sm3Compress(st, block, 1);
    if (out_len >= 32) {
      for (int i = 0; i < 8; ++i) store_u32_be(out + 4 * i, st[i]);
      out += 32;
      out_len -= 32;
    } else {
      uint8_t last[32];
      for (int i = 0; i < 8; ++i) store_u32_be(last + 4 * i, st[i]);
      std::memcpy(out, last, out_len);
      OPENSSL_cleanse(last, sizeof last);
      out_len = 0;
    }
    if (out_len == 0) break;
    for (size_t i = kSeedLength; i-- != 0;) {  // data = data + 1 mod 2^440
      if (++block[i] != 0) break;
    }
  }
  OPENSSL_cleanse(st, sizeof st);
  OPENSSL_cleanse(block, sizeof block);
}

// acc = acc + the addends (each right-aligned big-endian) mod 2^440.
void AddMod440(uint8_t acc[kSeedLength], std::initializer_list<Bytes> addends) {
  uint32_t carry = 0;
  for (size_t k = 0; k < kSeedLength; ++k) {
    const size_t i = kSeedLength - 1 - k;
    uint32_t sum = acc[i] + carry;
    for (const Bytes &a : addends) {
      if (k < a.size()) sum += a[a.size() - 1 - k];
    }
    acc[i] = static_cast<uint8_t>(sum);
    carry = sum >> 8;
  }
}

uint32_t CheckEntropy(const void *state, const uint8_t *entropy, uint32_t entropy_len) {
  if (state == nullptr || entropy == nullptr) return BIVO_ERR_NULL_POINTER;
  if (entropy_len == 0) return BIVO_ERR_ZERO;
  if (entropy_len < kMinEntropy) return BIVO_ERR_SHORT_ENTROPY;
  return 0;
}

Bytes Optional(const uint8_t *p, uint32_t n) { return n == 0 ? Bytes() : Bytes(p, n); }

}  // namespace
}  // namespace zeph::gm

using namespace zeph::gm;
using zeph::gm::Bytes;

extern "C" {

ZEPH_API uint32_t BIVO_cleanse_memory(void *buf, size_t n) {
  if (n == 0) return 0;
  if (buf == nullptr) return BIVO_ERR_NULL_POINTER;
  // A running pattern keyed by the addresses, then a search for its last
  // byte, so the writes have an observable use and cannot be dropped.
  auto *p = static_cast<volatile uint8_t *>(buf);
  uint8_t x = 0;
  for (size_t i = 0; i < n; ++i) {
    p[i] = x;
    x = static_cast<uint8_t>(x + 17 + (reinterpret_cast<uintptr_t>(p + i + 1) & 0x0F));
  }
  volatile bool found = std::memchr(buf, x, n) != nullptr;
  (void)found;
  for (size_t i = 0; i < n; ++i) p[i] = 0;
  return 0;
}

ZEPH_API uint32_t ComputeSm3HashDerivationFunction(const unsigned char *input, uint32_t input_len, uint32_t out_len,
                                                   unsigned char *out) {
  if (input == nullptr || out == nullptr) return BIVO_ERR_NULL_POINTER;
  if (input_len == 0 || out_len == 0 || out_len > kMaxDfOutput) return BIVO_ERR_LENGTH;
  HashDf({Bytes(input, input_len)}, out_len, out);
  return 0;
}

ZEPH_API uint32_t IterationSm3HashGen(const BIVO_SM3_HASH_DRBG *state, uint32_t out_len, unsigned char *out) {
  if (state == nullptr || out == nullptr) return BIVO_ERR_NULL_POINTER;
  if (out_len == 0) return BIVO_ERR_LENGTH;
  HashGen(state->V, out_len, out);
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_new(BIVO_SM3_HASH_DRBG **out_state) {
  if (out_state == nullptr) return BIVO_ERR_NULL_POINTER;
  auto *s = static_cast<BIVO_SM3_HASH_DRBG *>(std::calloc(1, sizeof(BIVO_SM3_HASH_DRBG)));
  if (s == nullptr) return BIVO_ERR_NO_MEMORY;
  *out_state = s;
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_free(BIVO_SM3_HASH_DRBG *state) {
  if (state == nullptr) return BIVO_ERR_NULL_POINTER;
  OPENSSL_cleanse(state, sizeof *state);
  std::free(state);
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_instantiate(BIVO_SM3_HASH_DRBG *state, const unsigned char *entropy,
                                                 uint32_t entropy_len, const unsigned char *nonce, uint32_t nonce_len,
                                                 const unsigned char *pers, uint32_t pers_len) {
  ZEPH_TRY(CheckEntropy(state, entropy, entropy_len));
  if ((nonce == nullptr && nonce_len != 0) || (pers == nullptr && pers_len != 0)) return BIVO_ERR_NULL_POINTER;
  Reseed(state, {Bytes(entropy, entropy_len), Optional(nonce, nonce_len), Optional(pers, pers_len)});
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_reseed(BIVO_SM3_HASH_DRBG *state, const unsigned char *entropy,
                                            uint32_t entropy_len, const unsigned char *additional,
                                            uint32_t additional_len) {
  ZEPH_TRY(CheckEntropy(state, entropy, entropy_len));
  if (additional == nullptr && additional_len != 0) return BIVO_ERR_NULL_POINTER;
  const uint8_t one = 0x01;
  Reseed(state, {Bytes(&one, 1), Bytes(state->V, kSeedLength), Bytes(entropy, entropy_len),
                 Optional(additional, additional_len)});
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_generate(BIVO_SM3_HASH_DRBG *state, const unsigned char *additional,
                                              uint32_t additional_len, uint32_t out_len, unsigned char *out) {
  if (state == nullptr || out == nullptr || (additional == nullptr && additional_len != 0)) {
    return BIVO_ERR_NULL_POINTER;
  }
  if (state->reseed_counter > kReseedInterval) return BIVO_ERR_RESEED_REQUIRED;
  if (out_len > kMaxRequest) return BIVO_ERR_REQUEST_TOO_LONG;
  if (additional_len != 0) {
    // The additional-input step is computed but never committed: this
    // generator takes no additional input, and refuses any with 52.
    const uint8_t two = 0x02;
    uint8_t w[32], v[kSeedLength];
    BIVO_SM3_CTX ctx;
    Sm3Init(&ctx);
    Sm3Update(&ctx, &two, 1);
    Sm3Update(&ctx, state->V, kSeedLength);
    Sm3Update(&ctx, additional, additional_len);
    Sm3Final(w, &ctx);
    std::memcpy(v, state->V, sizeof v);
    AddMod440(v, {Bytes(w, sizeof w)});
    OPENSSL_cleanse(&ctx, sizeof ctx);
    OPENSSL_cleanse(w, sizeof w);
    OPENSSL_cleanse(v, sizeof v);
    return BIVO_ERR_GENERATE;
  }
  if (out_len == 0) return BIVO_ERR_HASHGEN;  // Hashgen refuses an empty output

  HashGen(state->V, out_len, out);

  const uint8_t three = 0x03;
  uint8_t h[32], counter[8];
  BIVO_SM3_CTX ctx;
  Sm3Init(&ctx);
  Sm3Update(&ctx, &three, 1);
  Sm3Update(&ctx, state->V, kSeedLength);
  Sm3Final(h, &ctx);
  const auto rc = static_cast<uint64_t>(state->reseed_counter);
  store_u32_be(counter, static_cast<uint32_t>(rc >> 32));
  store_u32_be(counter + 4, static_cast<uint32_t>(rc));
  AddMod440(state->V, {Bytes(h, sizeof h), Bytes(state->C, kSeedLength), Bytes(counter, sizeof counter)});
  ++state->reseed_counter;
  OPENSSL_cleanse(&ctx, sizeof ctx);
  OPENSSL_cleanse(h, sizeof h);
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_generate_arbitrary_bytes(BIVO_SM3_HASH_DRBG *state, uint32_t out_len,
                                                              unsigned char *out) {
  if (out_len <= kMaxRequest) return BIVO_sm3_hash_drbg_generate(state, nullptr, 0, out_len, out);
  if (state == nullptr || out == nullptr) return BIVO_ERR_NULL_POINTER;
  // Compat: long outputs do not report the statuses of their requests; a
  // refused request leaves zeros rather than stale memory.
  while (out_len != 0) {
    const uint32_t take = out_len < kMaxRequest ? out_len : kMaxRequest;
    if (BIVO_sm3_hash_drbg_generate(state, nullptr, 0, take, out) != 0) std::memset(out, 0, take);
    out += take;
    out_len -= take;
  }
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_generate_file_of_arbitrary_bytes(BIVO_SM3_HASH_DRBG *state, uint32_t size,
                                                                      const char *path) {
  if (state == nullptr || path == nullptr) return BIVO_ERR_NULL_POINTER;
  return zeph::Guarded(
      [&]() -> uint32_t {
        zeph::SecureBytes bytes(size);
        if (size != 0) ZEPH_TRY(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(state, size, bytes.data()));
        zeph::FilePtr f(std::fopen(path, "wb"));
        if (!f) return BIVO_ERR_FILE;
        // Compat: the write is not checked, as for every file of the module.
        if (size != 0) std::fwrite(bytes.data(), 1, size, f.get());
        return 0;
      },
      BIVO_ERR_NO_MEMORY);
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_uninstantiate(BIVO_SM3_HASH_DRBG *state) {
  if (state == nullptr) return BIVO_ERR_NULL_POINTER;
  state->reseed_counter = 1;
  BIVO_cleanse_memory(state->V, sizeof state->V);
  BIVO_cleanse_memory(state->C, sizeof state->C);
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_set_reseed_counter(BIVO_SM3_HASH_DRBG *state, uint64_t value) {
  if (state == nullptr) return BIVO_ERR_NULL_POINTER;
  if (value > static_cast<uint64_t>(INT64_MAX)) return ERR_INVALID_PARAMETER;
  state->reseed_counter = static_cast<int64_t>(value);
  return 0;
}

ZEPH_API uint32_t BIVO_sm3_hash_drbg_get_reseed_counter(const BIVO_SM3_HASH_DRBG *state, int64_t *out_value) {
  if (state == nullptr || out_value == nullptr) return BIVO_ERR_NULL_POINTER;
  *out_value = state->reseed_counter;
  return 0;
}

}  // extern "C"
