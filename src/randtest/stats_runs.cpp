// The tests over runs: the longest run of ones per block, and the
// distribution of run lengths.
#include <algorithm>
#include <bit>
#include <cmath>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

// The reference code's class tables: M = 8 exact, M = 128 to ten digits,
// M = 10000 to four (those differ from the exact values in the third digit,
// and the published results use them).
struct LongestRunTable {
  uint64_t block;
  unsigned first;  // longest run of the first class ("this or less")
  unsigned classes;
  double pi[7];
};
constexpr LongestRunTable kShort = {8, 1, 4, {0.21484375, 0.3671875, 0.23046875, 0.1875}};
constexpr LongestRunTable kMedium = {
    128, 4, 6, {0.1174035788, 0.242955959, 0.249363483, 0.17517706, 0.102701071, 0.112398847}};
constexpr LongestRunTable kLong = {10000, 10, 7, {0.0882, 0.2092, 0.2483, 0.1933, 0.1208, 0.0675, 0.0727}};

unsigned LongestOnes(const Sequence &b, uint64_t from, uint64_t len) {
  unsigned best = 0, current = 0;
  for (uint64_t off = 0; off < len; off += 64) {
    uint64_t x = b.Window(from + off, 64);
    if (len - off < 64) x &= ~uint64_t{0} << (64 - (len - off));
    if (x == ~uint64_t{0}) {
      current += 64;
      continue;
    }
    current += std::countl_one(x);
    best = std::max(best, current);
    unsigned inner = 0;
    for (uint64_t y = x; y != 0; y &= y << 1) ++inner;
    best = std::max(best, inner);
    current = std::countr_one(x);
  }
  return std::max(best, current);
}

// Runs of set bits of s (words as in Sequence, two zero words after n bits)
// by length: at[L] = runs of length L or more, for L = 1 .. k.
void RunsAtLeast(const uint64_t *s, uint64_t n, unsigned k, std::vector<uint64_t> *z, uint64_t *at) {
  const uint64_t words = (n + 63) / 64;
  auto window = [s](uint64_t pos) {
    const uint64_t *p = s + (pos >> 6);
    const unsigned sh = pos & 63;
    return (p[0] << sh) | ((p[1] >> 1) >> (63 - sh));
  };
  z->resize(words);
  uint64_t *zw = z->data();
  // Run starts: a set bit whose predecessor is clear.
  uint64_t count = 0;
  for (uint64_t j = 0; j < words; ++j) {
    zw[j] = s[j] & ~((s[j] >> 1) | (j > 0 ? s[j - 1] << 63 : 0));
    count += Popcount(zw[j]);
  }
  at[1] = count;
  // Keep the starts whose run reaches one bit further.
  for (unsigned len = 1; len < k; ++len) {
    count = 0;
    for (uint64_t j = 0; j < words; ++j) {
      zw[j] &= window(j * 64 + len);
      count += Popcount(zw[j]);
    }
    at[len + 1] = count;
    if (count == 0) {
      std::fill(at + len + 2, at + k + 1, 0);
      return;
    }
  }
}

}  // namespace

Outcome LongestRunOfOnesStat(const Sequence &b) {
  const uint64_t n = b.size();
  if (n < 128) return Outcome{ZEPH_RANDTEST_ERR_TOO_SHORT, 0, {0, 0}};
  const LongestRunTable &t = n < 6272 ? kShort : n < 750000 ? kMedium : kLong;
  const uint64_t blocks = n / t.block;
  uint64_t nu[7] = {};
  for (uint64_t i = 0; i < blocks; ++i) {
    const unsigned v = LongestOnes(b, i * t.block, t.block);
    const unsigned cls = v <= t.first ? 0 : std::min(v - t.first, t.classes - 1);
    ++nu[cls];
  }
  double chi2 = 0.0;
  const double total = static_cast<double>(blocks);
  for (unsigned i = 0; i < t.classes; ++i) {
    const double diff = static_cast<double>(nu[i]) - total * t.pi[i];
    chi2 += diff * diff / (total * t.pi[i]);
  }
  return Outcome{0, 1, {Igamc((t.classes - 1) / 2.0, chi2 / 2.0), 0}};
}

Outcome RunsDistributionStat(const Sequence &b, Workspace &ws) {
  const uint64_t n = b.size();
  // k: the longest length whose expected count (n - i + 3) / 2^(i+2) is at
  // least 5.
  unsigned k = 0;
  for (unsigned i = 1; i + 2 < 62 && n + 3 >= i && n - i + 3 >= (uint64_t{5} << (i + 2)); ++i) k = i;
  if (k < 1) return Outcome{ZEPH_RANDTEST_ERR_TOO_SHORT, 0, {0, 0}};

  uint64_t ones[64] = {}, zeros[64] = {};
  std::vector<uint64_t> z;
  RunsAtLeast(b.words(), n, k, &z, ones);
  const uint64_t words = n / 64 + 3;
  ws.bits.assign(words, 0);
  for (uint64_t j = 0; j < (n + 63) / 64; ++j) ws.bits[j] = ~b.words()[j];
  if (n % 64 != 0) ws.bits[(n - 1) / 64] &= ~uint64_t{0} << (64 - n % 64);
  RunsAtLeast(ws.bits.data(), n, k, &z, zeros);

  const double runs = static_cast<double>(ones[1] + zeros[1]);
  double chi2 = 0.0;
  for (unsigned i = 1; i <= k; ++i) {
    const double expected =
        i < k ? runs / std::ldexp(1.0, static_cast<int>(i) + 1) : runs / std::ldexp(1.0, static_cast<int>(k));
    const uint64_t b_i = i < k ? ones[i] - ones[i + 1] : ones[k];
    const uint64_t g_i = i < k ? zeros[i] - zeros[i + 1] : zeros[k];
    const double db = static_cast<double>(b_i) - expected, dg = static_cast<double>(g_i) - expected;
    chi2 += (db * db + dg * dg) / expected;
  }
  return Outcome{0, 1, {Igamc(static_cast<double>(k) - 1.0, chi2 / 2.0), 0}};
}

}  // namespace zeph::randtest
