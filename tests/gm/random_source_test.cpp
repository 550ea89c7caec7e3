// The module handle and its random sources: lifecycle, agreement with the
// bare generator, mixed sources, and sampling in [2, range - 1].
#include <openssl/bn.h>

#include <gtest/gtest.h>

#include "gm_test_util.hpp"

using namespace gm_test;

namespace {

struct Bn {
  BIGNUM *b = BN_new();
  explicit Bn(const char *hex = "0") { BN_hex2bn(&b, hex); }
  ~Bn() { BN_free(b); }
  Bytes Bin() const {
    Bytes out(BN_num_bytes(b));
    BN_bn2bin(b, out.data());
    return out;
  }
};

}  // namespace

TEST(BivoHandle, LifecycleAndBytesFromTheGenerator) {
  // The generator's entropy statuses pass through (Drbg.EntropyLimits has them all).
  const Bytes entropy = RandomBytes(256, 1);
  BIVO_HANDLE_CELL stale{};
  BIVO_HANDLE h = &stale;  // must be overwritten
  EXPECT_EQ(InitializeBivoHandle(&h, entropy.data(), 255), BIVO_ERR_SHORT_ENTROPY);
  EXPECT_EQ(h, nullptr);
  EXPECT_EQ(InitializeBivoHandle(nullptr, entropy.data(), 256), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(UninitializeBivoHandle(nullptr), BIVO_ERR_NULL_POINTER);

  Handle handle(42);
  const Bytes seed = RandomBytes(256, 42);  // the handle's entropy
  BIVO_SM3_HASH_DRBG *twin = nullptr;
  ASSERT_EQ(BIVO_sm3_hash_drbg_new(&twin), 0u);
  ASSERT_EQ(BIVO_sm3_hash_drbg_instantiate(twin, seed.data(), 256, nullptr, 0, nullptr, 0), 0u);
  const Bytes fresh = RandomBytes(256, 2);
  for (uint32_t n : {1u, 70000u, 64u}) {
    if (n == 64) {
      ASSERT_EQ(BIVO_reseed_generator(handle.h, fresh.data(), 256), 0u);
      ASSERT_EQ(BIVO_sm3_hash_drbg_reseed(twin, fresh.data(), 256, nullptr, 0), 0u);
    }
    Bytes expected(n);
    ASSERT_EQ(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(twin, n, expected.data()), 0u);
    EXPECT_EQ(handle.Draw(n), expected);
  }
  BIVO_sm3_hash_drbg_free(twin);
  Bytes out(8);
  EXPECT_EQ(BIVO_reseed_generator(handle.h, fresh.data(), 255), BIVO_ERR_SHORT_ENTROPY);
  EXPECT_EQ(BIVO_reseed_generator(nullptr, fresh.data(), 256), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes(nullptr, 8, out.data()), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes(handle.h, 8, nullptr), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes(handle.h, 0, out.data()), BIVO_ERR_HASHGEN);
}

TEST(BivoHandle, MixedSourcesXorTheExternalBytes) {
  TempDir dir;
  Handle mixed(1), plain(1);
  const Bytes external = RandomBytes(5000, 3);
  Bytes out(5000), in_place = external;
  ASSERT_EQ(BIVO_generate_random_bytes_with_mixed_source(mixed.h, 5000, external.data(), out.data()), 0u);
  EXPECT_EQ(out, Xor(plain.Draw(5000), external));
  ASSERT_EQ(BIVO_generate_random_bytes_with_mixed_source(mixed.h, 5000, in_place.data(), in_place.data()), 0u);
  EXPECT_EQ(in_place, Xor(plain.Draw(5000), external));  // the external buffer may be the output
  const std::string path = dir.file("mixed.bin"), plain_path = dir.file("plain.bin"), bad = dir.file("no/file");
  ASSERT_EQ(BIVO_generate_random_bytes_file_with_mixed_source(mixed.h, 5000, external.data(), path.c_str()), 0u);
  EXPECT_EQ(ReadBytes(path), Xor(plain.Draw(5000), external));
  ASSERT_EQ(BIVO_generate_random_bytes_file(mixed.h, 300, plain_path.c_str()), 0u);
  EXPECT_EQ(ReadBytes(plain_path), plain.Draw(300));
  EXPECT_EQ(BIVO_generate_random_bytes_file_with_mixed_source(mixed.h, 10, external.data(), bad.c_str()),
            BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_generate_random_bytes_file(mixed.h, 10, bad.c_str()), BIVO_ERR_FILE);
  EXPECT_EQ(BIVO_generate_random_bytes_with_mixed_source(mixed.h, 10, nullptr, out.data()), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes_with_mixed_source(nullptr, 10, external.data(), out.data()),
            BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_generate_random_bytes_file_with_mixed_source(mixed.h, 10, external.data(), nullptr),
            BIVO_ERR_NULL_POINTER);
}

TEST(RangeSampling, RefusalsReductionAndExhaustion) {
  Handle handle(1);
  Bn out, three("3"), order("FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123");
  for (const char *hex : {"0", "1", "2", "-5"}) {
    Bn range(hex);
    EXPECT_EQ(generate_rand_in_range_with_drbg(handle.h, out.b, range.b), BIVO_ERR_ZERO) << hex;
    EXPECT_EQ(generate_rand_in_range_with_mixed_source(handle.h, nullptr, 0, out.b, range.b), BIVO_ERR_ZERO) << hex;
  }
  EXPECT_EQ(generate_rand_in_range_with_drbg(nullptr, out.b, three.b), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(generate_rand_in_range_with_drbg(handle.h, nullptr, three.b), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(generate_rand_in_range_with_drbg(handle.h, out.b, nullptr), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(generate_rand_in_range_with_mixed_source(handle.h, nullptr, 4, out.b, three.b), BIVO_ERR_NULL_POINTER);
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(generate_rand_in_range_with_drbg(handle.h, out.b, three.b), 0u);
    ASSERT_TRUE(BN_is_word(out.b, 2));
  }
  // The draw is the generator's 32 bytes, XORed with up to 32 external bytes, reduced by the range.
  const Bytes external = RandomBytes(40, 4);
  for (uint32_t ext_len : {0u, 5u, 40u}) {
    Handle sampler(2), twin(2);
    ASSERT_EQ(generate_rand_in_range_with_mixed_source(sampler.h, external.data(), ext_len, out.b, order.b), 0u);
    const Bytes draw = Xor(twin.Draw(32), Bytes(external.begin(), external.begin() + ext_len));
    Bn value, expected;
    BN_CTX *ctx = BN_CTX_new();
    BN_bin2bn(draw.data(), 32, value.b);
    BN_nnmod(expected.b, value.b, order.b, ctx);
    BN_CTX_free(ctx);
    EXPECT_EQ(out.Bin(), expected.Bin()) << ext_len;
  }
  ASSERT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(handle.h->drbg, (uint64_t{1} << 48) + 1), 0u);
  EXPECT_EQ(generate_rand_in_range_with_drbg(handle.h, out.b, order.b), BIVO_ERR_RESEED_REQUIRED);
  EXPECT_EQ(generate_rand_in_range_with_mixed_source(handle.h, external.data(), 32, out.b, order.b),
            BIVO_ERR_RESEED_REQUIRED);
}
