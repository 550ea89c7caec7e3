// The module handle and its random sources: lifecycle, agreement with the
// bare generator, mixed sources, and sampling in [2, range - 1].
#include <gtest/gtest.h>

#include <openssl/bn.h>

#include "gm_test_util.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

using gm_test::Bytes;
using zeph_test::FromHex;
using zeph_test::RandomBytes;
using zeph_test::ReadBytes;
using zeph_test::TempDir;

namespace {

const Bytes kEntropy = RandomBytes(256, 42);

struct Handle {
  BIVO_HANDLE h = nullptr;
  explicit Handle(const Bytes &entropy = kEntropy) {
    EXPECT_EQ(InitializeBivoHandle(&h, entropy.data(), static_cast<uint32_t>(entropy.size())), 0u);
  }
  ~Handle() {
    if (h != nullptr) {
      EXPECT_EQ(UninitializeBivoHandle(h), 0u);
    }
  }
  Bytes Draw(uint32_t n) {
    Bytes out(n);
    EXPECT_EQ(BIVO_generate_random_bytes(h, n, out.data()), 0u);
    return out;
  }
};

struct Bn {
  BIGNUM *b = BN_new();
  Bn() = default;
  explicit Bn(const char *hex) { BN_hex2bn(&b, hex); }
  ~Bn() { BN_free(b); }
};

const char kSm2Order[] = "FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123";

Bytes Xor(Bytes a, const Bytes &b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) a[i] ^= b[i];
  return a;
}

// What range sampling must return when the first draw qualifies.
Bytes ReduceDraw(const Bytes &draw, const BIGNUM *range) {
  Bn v, r;
  BN_CTX *ctx = BN_CTX_new();
  BN_bin2bn(draw.data(), static_cast<int>(draw.size()), v.b);
  BN_nnmod(r.b, v.b, range, ctx);
  BN_CTX_free(ctx);
  Bytes out(BN_num_bytes(r.b));
  BN_bn2bin(r.b, out.data());
  return out;
}

Bytes BnBytes(const BIGNUM *b) {
  Bytes out(BN_num_bytes(b));
  BN_bn2bin(b, out.data());
  return out;
}

}  // namespace

TEST(BivoHandle, Lifecycle) {
  struct Case {
    uint32_t len;
    bool null_entropy;
    uint32_t status;
  };
  const Bytes entropy = RandomBytes(300, 1);
  for (const Case &c : {Case{255, false, BIVO_ERR_SHORT_ENTROPY}, Case{0, false, BIVO_ERR_ZERO},
                        Case{256, true, BIVO_ERR_NULL_POINTER}, Case{256, false, 0}, Case{300, false, 0}}) {
    BIVO_HANDLE_CELL stale{};
    BIVO_HANDLE h = &stale;  // must be overwritten
    EXPECT_EQ(InitializeBivoHandle(&h, c.null_entropy ? nullptr : entropy.data(), c.len), c.status) << c.len;
    if (c.status != 0) {
      EXPECT_EQ(h, nullptr);
      continue;
    }
    ASSERT_NE(h, nullptr);
    int64_t counter = 0;
    EXPECT_EQ(BIVO_sm3_hash_drbg_get_reseed_counter(h->drbg, &counter), 0u);
    EXPECT_EQ(counter, 1);
    EXPECT_EQ(UninitializeBivoHandle(h), 0u);
  }
  EXPECT_EQ(InitializeBivoHandle(nullptr, entropy.data(), 256), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(UninitializeBivoHandle(nullptr), BIVO_ERR_NULL_POINTER);
}

TEST(BivoHandle, BytesComeFromTheGenerator) {
  Handle handle;
  BIVO_SM3_HASH_DRBG *twin = nullptr;
  ASSERT_EQ(BIVO_sm3_hash_drbg_new(&twin), 0u);
  ASSERT_EQ(BIVO_sm3_hash_drbg_instantiate(twin, kEntropy.data(), 256, nullptr, 0, nullptr, 0), 0u);
  for (uint32_t n : {1u, 100u, 70000u}) {
    Bytes expected(n);
    ASSERT_EQ(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(twin, n, expected.data()), 0u);
    EXPECT_EQ(handle.Draw(n), expected);
  }
  const Bytes fresh = RandomBytes(256, 2);
  ASSERT_EQ(BIVO_reseed_generator(handle.h, fresh.data(), 256), 0u);
  ASSERT_EQ(BIVO_sm3_hash_drbg_reseed(twin, fresh.data(), 256, nullptr, 0), 0u);
  Bytes expected(64);
  BIVO_sm3_hash_drbg_generate(twin, nullptr, 0, 64, expected.data());
  EXPECT_EQ(handle.Draw(64), expected);
  EXPECT_EQ(BIVO_reseed_generator(handle.h, fresh.data(), 255), BIVO_ERR_SHORT_ENTROPY);
  BIVO_sm3_hash_drbg_free(twin);

  Bytes out(8);
  EXPECT_EQ(BIVO_generate_random_bytes(nullptr, 8, out.data()), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes(handle.h, 8, nullptr), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes(handle.h, 0, out.data()), BIVO_ERR_HASHGEN);
  EXPECT_EQ(BIVO_reseed_generator(nullptr, fresh.data(), 256), BIVO_ERR_NULL_POINTER);
}

TEST(BivoHandle, MixedSourcesXorTheExternalBytes) {
  TempDir dir;
  Handle mixed, plain;
  const Bytes external = RandomBytes(5000, 3);
  Bytes out(5000);
  ASSERT_EQ(BIVO_generate_random_bytes_with_mixed_source(mixed.h, 5000, external.data(), out.data()), 0u);
  EXPECT_EQ(out, Xor(plain.Draw(5000), external));

  // The external buffer may be the output buffer.
  Bytes in_place = external;
  ASSERT_EQ(BIVO_generate_random_bytes_with_mixed_source(mixed.h, 5000, in_place.data(), in_place.data()), 0u);
  EXPECT_EQ(in_place, Xor(plain.Draw(5000), external));

  const std::string path = dir.file("mixed.bin"), plain_path = dir.file("plain.bin");
  ASSERT_EQ(BIVO_generate_random_bytes_file_with_mixed_source(mixed.h, 5000, external.data(), path.c_str()), 0u);
  EXPECT_EQ(ReadBytes(path), Xor(plain.Draw(5000), external));
  ASSERT_EQ(BIVO_generate_random_bytes_file(mixed.h, 300, plain_path.c_str()), 0u);
  EXPECT_EQ(ReadBytes(plain_path), plain.Draw(300));

  const std::string bad = dir.file("no/such/file");
  EXPECT_EQ(BIVO_generate_random_bytes_file_with_mixed_source(mixed.h, 10, external.data(), bad.c_str()),
            BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_generate_random_bytes_file(mixed.h, 10, bad.c_str()), BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_generate_random_bytes_with_mixed_source(mixed.h, 10, nullptr, out.data()), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes_with_mixed_source(nullptr, 10, external.data(), out.data()),
            BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes_file_with_mixed_source(mixed.h, 10, external.data(), nullptr),
            BIVO_ERR_NULL_POINTER);
}

TEST(RangeSampling, RangesBelowThreeAreRefused) {
  Handle handle;
  Bn out;
  for (const char *hex : {"0", "1", "2", "-5"}) {
    Bn range(hex);
    EXPECT_EQ(generate_rand_in_range_with_drbg(handle.h, out.b, range.b), BIVO_ERR_ZERO) << hex;
    EXPECT_EQ(generate_rand_in_range_with_mixed_source(handle.h, nullptr, 0, out.b, range.b), BIVO_ERR_ZERO) << hex;
  }
  Bn range("7");
  EXPECT_EQ(generate_rand_in_range_with_drbg(nullptr, out.b, range.b), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(generate_rand_in_range_with_drbg(handle.h, nullptr, range.b), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(generate_rand_in_range_with_drbg(handle.h, out.b, nullptr), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(generate_rand_in_range_with_mixed_source(handle.h, nullptr, 4, out.b, range.b), BIVO_ERR_NULL_POINTER);
}

TEST(RangeSampling, RangeThreeAlwaysGivesTwo) {
  Handle handle;
  Bn range("3"), out;
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(generate_rand_in_range_with_drbg(handle.h, out.b, range.b), 0u);
    ASSERT_TRUE(BN_is_word(out.b, 2));
  }
}

TEST(RangeSampling, DrawsAreReducedGeneratorBytes) {
  Bn order(kSm2Order), out;
  const Bytes external = RandomBytes(40, 4);
  for (size_t ext_len : {0u, 5u, 32u, 40u}) {  // XOR covers min(32, ext_len) bytes
    Handle sampler, twin;
    ASSERT_EQ(generate_rand_in_range_with_mixed_source(sampler.h, external.data(), static_cast<uint32_t>(ext_len),
                                                       out.b, order.b),
              0u);
    const Bytes draw = Xor(twin.Draw(32), Bytes(external.begin(), external.begin() + static_cast<long>(ext_len)));
    EXPECT_EQ(BnBytes(out.b), ReduceDraw(draw, order.b)) << ext_len;
  }
  Handle sampler, twin;
  ASSERT_EQ(generate_rand_in_range_with_drbg(sampler.h, out.b, order.b), 0u);
  EXPECT_EQ(BnBytes(out.b), ReduceDraw(twin.Draw(32), order.b));
}

TEST(RangeSampling, ExhaustedGeneratorEndsTheLoop) {
  Handle handle;
  ASSERT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(handle.h->drbg, (uint64_t{1} << 48) + 1), 0u);
  Bn order(kSm2Order), out;
  EXPECT_EQ(generate_rand_in_range_with_drbg(handle.h, out.b, order.b), BIVO_ERR_RESEED_REQUIRED);
  const Bytes external(32, 1);
  EXPECT_EQ(generate_rand_in_range_with_mixed_source(handle.h, external.data(), 32, out.b, order.b),
            BIVO_ERR_RESEED_REQUIRED);
}
