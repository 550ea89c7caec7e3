// The SM3 hash DRBG against an independent model built on OpenSSL's SM3 and
// big numbers, and every limit and status of the generator.
#include <gtest/gtest.h>

#include <openssl/bn.h>

#include <cstring>
#include <memory>

#include "gm/sm3_hash_drbg.hpp"
#include "gm_test_util.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

using gm_test::Bytes;
using gm_test::EvpSm3;
using zeph_test::RandomBytes;
using zeph_test::ReadBytes;
using zeph_test::TempDir;

namespace {

constexpr uint64_t k2To48 = uint64_t{1} << 48;

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// Hash_df written out from its definition, one buffer per block.
Bytes ReferenceDf(const Bytes &input, size_t out_len) {
  Bytes out;
  const uint32_t bits = static_cast<uint32_t>(out_len * 8);
  for (uint8_t counter = 1; out.size() < out_len; ++counter) {
    const Bytes head = {counter, static_cast<uint8_t>(bits >> 24), static_cast<uint8_t>(bits >> 16),
                        static_cast<uint8_t>(bits >> 8), static_cast<uint8_t>(bits)};
    const Bytes block = EvpSm3({Cat({head, input})});
    out.insert(out.end(), block.begin(), block.end());
  }
  out.resize(out_len);
  return out;
}

using Bn = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

// Hash_DRBG (SM3, 440-bit seed) with BIGNUM arithmetic.
class ReferenceDrbg {
 public:
  void Instantiate(const Bytes &seed_material) {
    const Bytes v = ReferenceDf(seed_material, 55);
    BN_bin2bn(v.data(), 55, v_.get());
    const Bytes c = ReferenceDf(Cat({{0x00}, v}), 55);
    BN_bin2bn(c.data(), 55, c_.get());
    counter_ = 1;
  }
  void Reseed(const Bytes &entropy, const Bytes &additional) { Instantiate(Cat({{0x01}, V(), entropy, additional})); }

  Bytes Generate(size_t n) {
    Bytes out;
    Bn data(BN_dup(v_.get()), BN_free), h(BN_new(), BN_free);
    while (out.size() < n) {  // Hashgen
      const Bytes w = EvpSm3({Bin(data.get())});
      out.insert(out.end(), w.begin(), w.end());
      BN_add_word(data.get(), 1);
      BN_mask_bits(data.get(), 440);
    }
    out.resize(n);
    const Bytes hash = EvpSm3({Cat({{0x03}, V()})});
    BN_bin2bn(hash.data(), 32, h.get());
    BN_add(v_.get(), v_.get(), h.get());
    BN_add(v_.get(), v_.get(), c_.get());
    BN_add_word(v_.get(), static_cast<BN_ULONG>(counter_));
    BN_mask_bits(v_.get(), 440);
    ++counter_;
    return out;
  }

  Bytes V() const { return Bin(v_.get()); }
  Bytes C() const { return Bin(c_.get()); }
  int64_t counter() const { return counter_; }
  void set_counter(int64_t c) { counter_ = c; }

 private:
  static Bytes Bin(const BIGNUM *b) {
    Bytes out(55);
    BN_bn2binpad(b, out.data(), 55);
    return out;
  }
  Bn v_{BN_new(), BN_free}, c_{BN_new(), BN_free};
  int64_t counter_ = 0;
};

// An owned, instantiated generator.
struct Drbg {
  BIVO_SM3_HASH_DRBG *s = nullptr;
  Drbg() { EXPECT_EQ(BIVO_sm3_hash_drbg_new(&s), 0u); }
  explicit Drbg(const Bytes &entropy) : Drbg() {
    EXPECT_EQ(BIVO_sm3_hash_drbg_instantiate(s, entropy.data(), static_cast<uint32_t>(entropy.size()), nullptr, 0,
                                             nullptr, 0),
              0u);
  }
  ~Drbg() { BIVO_sm3_hash_drbg_free(s); }
  Bytes V() const { return Bytes(s->V, s->V + 55); }
  Bytes C() const { return Bytes(s->C, s->C + 55); }
  int64_t Counter() const {
    int64_t c = -1;
    EXPECT_EQ(BIVO_sm3_hash_drbg_get_reseed_counter(s, &c), 0u);
    return c;
  }
  uint32_t Generate(Bytes &out, size_t n) {
    out.assign(n, 0);
    return BIVO_sm3_hash_drbg_generate(s, nullptr, 0, static_cast<uint32_t>(n), out.data());
  }
};

}  // namespace

TEST(Drbg, DerivationFunctionMatchesDefinition) {
  const Bytes input = RandomBytes(300, 1);
  Bytes out(8161);
  for (uint32_t n : {1u, 31u, 32u, 33u, 55u, 8160u}) {
    ASSERT_EQ(ComputeSm3HashDerivationFunction(input.data(), 300, n, out.data()), 0u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + n), ReferenceDf(input, n)) << n;
  }
  const struct {
    const uint8_t *in;
    uint32_t in_len, out_len;
    uint8_t *out;
    uint32_t status;
  } refused[] = {
      {input.data(), 300, 8161, out.data(), BIVO_ERR_LENGTH},      {input.data(), 300, 0, out.data(), BIVO_ERR_LENGTH},
      {input.data(), 0, 32, out.data(), BIVO_ERR_LENGTH},          {input.data(), 300, ~0u, out.data(), BIVO_ERR_LENGTH},
      {nullptr, 300, 32, out.data(), BIVO_ERR_NULL_POINTER},       {input.data(), 300, 32, nullptr, BIVO_ERR_NULL_POINTER},
  };
  for (const auto &r : refused) EXPECT_EQ(ComputeSm3HashDerivationFunction(r.in, r.in_len, r.out_len, r.out), r.status);
}

TEST(Drbg, FollowsTheReferenceModel) {
  const Bytes entropy = RandomBytes(300, 2), nonce = RandomBytes(16, 3), pers = RandomBytes(40, 4);
  Drbg d;
  ASSERT_EQ(BIVO_sm3_hash_drbg_instantiate(d.s, entropy.data(), 300, nonce.data(), 16, pers.data(), 40), 0u);
  ReferenceDrbg ref;
  ref.Instantiate(Cat({entropy, nonce, pers}));
  ASSERT_EQ(d.V(), ref.V());
  ASSERT_EQ(d.C(), ref.C());

  auto run = [&](std::initializer_list<size_t> sizes) {
    for (size_t n : sizes) {
      Bytes out, hashgen(n);
      ASSERT_EQ(IterationSm3HashGen(d.s, static_cast<uint32_t>(n), hashgen.data()), 0u);
      ASSERT_EQ(d.Generate(out, n), 0u) << n;
      ASSERT_EQ(out, ref.Generate(n)) << n;
      ASSERT_EQ(hashgen, out);  // the request's bytes are Hashgen of the old V
      ASSERT_EQ(d.V(), ref.V()) << n;
      ASSERT_EQ(d.Counter(), ref.counter());
    }
  };
  run({1, 32, 33, 55, 1000, 65536});
  const Bytes more = RandomBytes(256, 5), additional = RandomBytes(20, 6);
  ASSERT_EQ(BIVO_sm3_hash_drbg_reseed(d.s, more.data(), 256, additional.data(), 20), 0u);
  ref.Reseed(more, additional);
  ASSERT_EQ(d.C(), ref.C());
  run({64, 7});
  ASSERT_EQ(BIVO_sm3_hash_drbg_reseed(d.s, entropy.data(), 300, nullptr, 0), 0u);
  ref.Reseed(entropy, {});
  run({100});
  // A counter above 32 bits enters the state update as eight bytes.
  ASSERT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(d.s, 0x123456789ABull), 0u);
  ref.set_counter(0x123456789ABll);
  run({16, 16});

  // Hashgen's V + 1 carries across all 55 bytes: all-ones wraps to zero.
  std::memset(d.s->V, 0xFF, 55);
  Bytes out(64);
  ASSERT_EQ(IterationSm3HashGen(d.s, 64, out.data()), 0u);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 32), EvpSm3({Bytes(55, 0xFF)}));
  EXPECT_EQ(Bytes(out.begin() + 32, out.end()), EvpSm3({Bytes(55, 0x00)}));
  EXPECT_EQ(IterationSm3HashGen(d.s, 0, out.data()), BIVO_ERR_LENGTH);
  EXPECT_EQ(IterationSm3HashGen(nullptr, 10, out.data()), BIVO_ERR_NULL_POINTER);
}

TEST(Drbg, IdenticalInstantiationsGiveIdenticalStreams) {
  const Bytes entropy = RandomBytes(256, 7);
  Drbg a(entropy), b(entropy), c(RandomBytes(256, 8));
  for (size_t n : {10u, 65536u, 3u}) {
    Bytes x, y, z;
    ASSERT_EQ(a.Generate(x, n), 0u);
    ASSERT_EQ(b.Generate(y, n), 0u);
    ASSERT_EQ(c.Generate(z, n), 0u);
    EXPECT_EQ(x, y);
    EXPECT_NE(x, z);
  }
}

TEST(Drbg, EntropyLimits) {
  const Bytes entropy = RandomBytes(512, 9);
  const struct {
    const unsigned char *entropy;
    uint32_t len, status;
  } cases[] = {
      {entropy.data(), 0, BIVO_ERR_ZERO},   {entropy.data(), 255, BIVO_ERR_SHORT_ENTROPY},
      {entropy.data(), 256, 0},             {entropy.data(), 512, 0},
      {nullptr, 256, BIVO_ERR_NULL_POINTER}, {nullptr, 0, BIVO_ERR_NULL_POINTER},
  };
  for (const auto &c : cases) {
    Drbg d, r(entropy);
    EXPECT_EQ(BIVO_sm3_hash_drbg_instantiate(d.s, c.entropy, c.len, nullptr, 0, nullptr, 0), c.status) << c.len;
    EXPECT_EQ(d.Counter(), c.status == 0 ? 1 : 0);
    const Bytes v = r.V();
    EXPECT_EQ(BIVO_sm3_hash_drbg_reseed(r.s, c.entropy, c.len, nullptr, 0), c.status) << c.len;
    EXPECT_EQ(r.V() == v, c.status != 0);
  }
  Drbg d;
  EXPECT_EQ(BIVO_sm3_hash_drbg_instantiate(d.s, entropy.data(), 256, nullptr, 4, nullptr, 0), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_sm3_hash_drbg_reseed(d.s, entropy.data(), 256, nullptr, 4), BIVO_ERR_NULL_POINTER);
}

TEST(Drbg, RequestAndCounterLimits) {
  Drbg d(RandomBytes(256, 10)), twin(RandomBytes(256, 10));
  Bytes out, first, second;
  EXPECT_EQ(d.Generate(out, 65537), BIVO_ERR_REQUEST_TOO_LONG);
  EXPECT_EQ(d.Generate(out, 0), BIVO_ERR_HASHGEN);
  EXPECT_EQ(d.Counter(), 1);

  // 65537 bytes through the arbitrary-length path: two requests.
  twin.Generate(first, 65536);
  twin.Generate(second, 1);
  Bytes long_out(65537);
  ASSERT_EQ(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(d.s, 65537, long_out.data()), 0u);
  EXPECT_EQ(d.Counter(), 3);
  EXPECT_EQ(long_out, Cat({first, second}));

  ASSERT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(d.s, k2To48), 0u);
  EXPECT_EQ(d.Generate(out, 32), 0u);  // exactly 2^48 still serves
  const Bytes v = d.V();
  EXPECT_EQ(d.Generate(out, 32), BIVO_ERR_RESEED_REQUIRED);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(d.s, 100, out.data()), BIVO_ERR_RESEED_REQUIRED);
  EXPECT_EQ(d.V(), v);
  // Long outputs do not report the refusal; the refused share is zeroed.
  long_out.assign(70000, 0xEE);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(d.s, 70000, long_out.data()), 0u);
  EXPECT_EQ(long_out, Bytes(70000, 0));

  const Bytes fresh = RandomBytes(256, 12);
  ASSERT_EQ(BIVO_sm3_hash_drbg_reseed(d.s, fresh.data(), 256, nullptr, 0), 0u);
  EXPECT_EQ(d.Counter(), 1);
  EXPECT_EQ(d.Generate(out, 32), 0u);
  EXPECT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(d.s, uint64_t{1} << 63), ERR_INVALID_PARAMETER);
}

TEST(Drbg, AdditionalInputIsRefusedWithoutChange) {
  Drbg d(RandomBytes(256, 13));
  const Bytes v = d.V(), c = d.C(), additional = RandomBytes(10, 14);
  Bytes out(64, 0xEE);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate(d.s, additional.data(), 10, 64, out.data()), BIVO_ERR_GENERATE);
  EXPECT_EQ(d.V(), v);
  EXPECT_EQ(d.C(), c);
  EXPECT_EQ(d.Counter(), 1);
  EXPECT_EQ(out, Bytes(64, 0xEE));
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate(d.s, nullptr, 10, 64, out.data()), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate(nullptr, nullptr, 0, 64, out.data()), BIVO_ERR_NULL_POINTER);
}

TEST(Drbg, UninstantiateWipesTheState) {
  Drbg d(RandomBytes(256, 16));
  ASSERT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(d.s, 77), 0u);
  ASSERT_EQ(BIVO_sm3_hash_drbg_uninstantiate(d.s), 0u);
  EXPECT_EQ(d.Counter(), 1);
  EXPECT_EQ(d.V(), Bytes(55, 0));
  EXPECT_EQ(d.C(), Bytes(55, 0));
  EXPECT_EQ(BIVO_sm3_hash_drbg_uninstantiate(nullptr), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_sm3_hash_drbg_free(nullptr), BIVO_ERR_NULL_POINTER);

  Bytes secret = RandomBytes(333, 17);
  EXPECT_EQ(BIVO_cleanse_memory(secret.data(), secret.size()), 0u);
  EXPECT_EQ(secret, Bytes(333, 0));
  EXPECT_EQ(BIVO_cleanse_memory(nullptr, 8), BIVO_ERR_NULL_POINTER);
}

TEST(Drbg, FileOutput) {
  TempDir dir;
  const Bytes entropy = RandomBytes(256, 18);
  Drbg d(entropy), twin(entropy);
  const std::string path = dir.file("random.bin");
  ASSERT_EQ(BIVO_sm3_hash_drbg_generate_file_of_arbitrary_bytes(d.s, 70000, path.c_str()), 0u);
  Bytes expected(70000);
  ASSERT_EQ(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(twin.s, 70000, expected.data()), 0u);
  EXPECT_EQ(ReadBytes(path), expected);

  ASSERT_EQ(BIVO_sm3_hash_drbg_generate_file_of_arbitrary_bytes(d.s, 0, path.c_str()), 0u);
  EXPECT_TRUE(ReadBytes(path).empty());
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate_file_of_arbitrary_bytes(d.s, 10, dir.file("no/dir").c_str()), BIVO_ERR_FILE);
  BIVO_sm3_hash_drbg_set_reseed_counter(d.s, k2To48 + 1);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate_file_of_arbitrary_bytes(d.s, 10, path.c_str()), BIVO_ERR_RESEED_REQUIRED);
  EXPECT_TRUE(ReadBytes(path).empty());  // not overwritten
}
