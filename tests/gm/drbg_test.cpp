// The SM3 hash DRBG against an independent model built on OpenSSL's SM3, and
// every limit and status of the generator.
#include <gtest/gtest.h>

#include "gm/sm3_hash_drbg.hpp"
#include "gm_test_util.hpp"

using namespace gm_test;

namespace {

constexpr uint64_t k2To48 = uint64_t{1} << 48;

// Hash_df written out from its definition, one buffer per block.
Bytes ReferenceDf(const Bytes &input, size_t out_len) {
  Bytes out;
  const auto bits = static_cast<uint32_t>(out_len * 8);
  for (uint8_t i = 1; out.size() < out_len; ++i) {
    const Bytes block = Sm3({{i, uint8_t(bits >> 24), uint8_t(bits >> 16), uint8_t(bits >> 8), uint8_t(bits)}, input});
    out.insert(out.end(), block.begin(), block.end());
  }
  out.resize(out_len);
  return out;
}

// a + b mod 2^440, big-endian, b right-aligned.
Bytes Add(Bytes a, const Bytes &b) {
  unsigned carry = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    carry += a[a.size() - 1 - i] + (i < b.size() ? b[b.size() - 1 - i] : 0u);
    a[a.size() - 1 - i] = static_cast<uint8_t>(carry);
    carry >>= 8;
  }
  return a;
}

// Hash_DRBG with SM3 and a 440-bit seed.
struct Model {
  Bytes v, c;
  uint64_t counter = 1;
  void Seed(const Bytes &material) {
    v = ReferenceDf(material, 55);
    c = ReferenceDf(Cat({{0}, v}), 55);
    counter = 1;
  }
  Bytes Generate(size_t n) {
    Bytes out, data = v, count(8);
    for (; out.size() < n; data = Add(data, {1})) {
      const Bytes w = Sm3({data});
      out.insert(out.end(), w.begin(), w.end());
    }
    out.resize(n);
    for (int i = 0; i < 8; ++i) count[i] = static_cast<uint8_t>(counter >> (56 - 8 * i));
    v = Add(Add(Add(v, Sm3({{3}, v})), c), count);
    ++counter;
    return out;
  }
};

// An owned generator, instantiated when given entropy.
struct Drbg {
  BIVO_SM3_HASH_DRBG *s = nullptr;
  explicit Drbg(const Bytes &entropy = {}) {
    EXPECT_EQ(BIVO_sm3_hash_drbg_new(&s), 0u);
    if (!entropy.empty()) {
      EXPECT_EQ(BIVO_sm3_hash_drbg_instantiate(s, entropy.data(), Len(entropy), nullptr, 0, nullptr, 0), 0u);
    }
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
      {input.data(), 300, 8161, out.data(), BIVO_ERR_LENGTH}, {input.data(), 300, 0, out.data(), BIVO_ERR_LENGTH},
      {input.data(), 0, 32, out.data(), BIVO_ERR_LENGTH},     {input.data(), 300, ~0u, out.data(), BIVO_ERR_LENGTH},
      {nullptr, 300, 32, out.data(), BIVO_ERR_NULL_POINTER},  {input.data(), 300, 32, nullptr, BIVO_ERR_NULL_POINTER},
  };
  for (const auto &r : refused) EXPECT_EQ(ComputeSm3HashDerivationFunction(r.in, r.in_len, r.out_len, r.out), r.status);
}

TEST(Drbg, FollowsTheModel) {
  const Bytes entropy = RandomBytes(300, 2), nonce = RandomBytes(16, 3), pers = RandomBytes(40, 4);
  Drbg d;
  ASSERT_EQ(BIVO_sm3_hash_drbg_instantiate(d.s, entropy.data(), 300, nonce.data(), 16, pers.data(), 40), 0u);
  Model model;
  model.Seed(Cat({entropy, nonce, pers}));
  const auto run = [&](std::initializer_list<size_t> sizes) {
    for (size_t n : sizes) {
      Bytes out;
      ASSERT_EQ(d.Generate(out, n), 0u) << n;
      ASSERT_EQ(out, model.Generate(n)) << n;
      ASSERT_EQ(d.V(), model.v) << n;
      ASSERT_EQ(d.C(), model.c) << n;
      ASSERT_EQ(d.Counter(), static_cast<int64_t>(model.counter));
    }
  };
  run({1, 32, 33, 55, 1000, 65536});
  const Bytes more = RandomBytes(256, 6), additional = RandomBytes(20, 7);
  ASSERT_EQ(BIVO_sm3_hash_drbg_reseed(d.s, more.data(), 256, additional.data(), 20), 0u);
  model.Seed(Cat({{1}, model.v, more, additional}));
  run({64, 7});
  // A counter above 32 bits enters the state update as eight bytes.
  ASSERT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(d.s, 0x123456789ABull), 0u);
  model.counter = 0x123456789ABull;
  run({16, 16});

  // Without nonce or personalisation the seed is the entropy alone.
  Drbg bare(entropy);
  Model bare_model;
  bare_model.Seed(entropy);
  Bytes out;
  ASSERT_EQ(bare.Generate(out, 100), 0u);
  EXPECT_EQ(out, bare_model.Generate(100));
}

TEST(Drbg, EntropyLimits) {
  const Bytes entropy = RandomBytes(512, 9);
  const struct {
    const unsigned char *entropy;
    uint32_t len, status;
  } cases[] = {
      {entropy.data(), 0, BIVO_ERR_ZERO}, {entropy.data(), 255, BIVO_ERR_SHORT_ENTROPY}, {entropy.data(), 256, 0},
      {entropy.data(), 512, 0},           {nullptr, 256, BIVO_ERR_NULL_POINTER},
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

TEST(Drbg, RequestCounterAndAdditionalInputLimits) {
  Drbg d(RandomBytes(256, 10)), twin(RandomBytes(256, 10));
  const Bytes v = d.V(), c = d.C(), additional = RandomBytes(10, 14);
  Bytes out(64, 0xEE), first, second;
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate(d.s, additional.data(), 10, 64, out.data()), BIVO_ERR_GENERATE);
  EXPECT_EQ(out, Bytes(64, 0xEE));
  EXPECT_EQ(d.Generate(out, 65537), BIVO_ERR_REQUEST_TOO_LONG);
  EXPECT_EQ(d.Generate(out, 0), BIVO_ERR_HASHGEN);
  EXPECT_EQ(d.V(), v);  // refusals change nothing
  EXPECT_EQ(d.C(), c);
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
  const Bytes v48 = d.V();
  EXPECT_EQ(d.Generate(out, 32), BIVO_ERR_RESEED_REQUIRED);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(d.s, 100, out.data()), BIVO_ERR_RESEED_REQUIRED);
  EXPECT_EQ(d.V(), v48);
  // Long outputs do not report the refusal; the refused share is zeroed.
  long_out.assign(70000, 0xEE);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate_arbitrary_bytes(d.s, 70000, long_out.data()), 0u);
  EXPECT_EQ(long_out, Bytes(70000, 0));
  const Bytes fresh = RandomBytes(256, 12);
  ASSERT_EQ(BIVO_sm3_hash_drbg_reseed(d.s, fresh.data(), 256, nullptr, 0), 0u);
  EXPECT_EQ(d.Counter(), 1);
  EXPECT_EQ(d.Generate(out, 32), 0u);
  EXPECT_EQ(BIVO_sm3_hash_drbg_set_reseed_counter(d.s, uint64_t{1} << 63), ERR_INVALID_PARAMETER);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate(d.s, nullptr, 10, 64, out.data()), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_sm3_hash_drbg_generate(nullptr, nullptr, 0, 64, out.data()), BIVO_ERR_NULL_POINTER);
}

TEST(Drbg, FileOutputAndUninstantiate) {
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
  ASSERT_EQ(BIVO_sm3_hash_drbg_uninstantiate(d.s), 0u);
  EXPECT_EQ(d.Counter(), 1);
  EXPECT_EQ(Cat({d.V(), d.C()}), Bytes(110, 0));
  EXPECT_EQ(BIVO_sm3_hash_drbg_uninstantiate(nullptr), BIVO_ERR_NULL_POINTER);
  EXPECT_EQ(BIVO_sm3_hash_drbg_free(nullptr), BIVO_ERR_NULL_POINTER);
}
