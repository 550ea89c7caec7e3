// Packed bit sequences: loading from bytes or from one bit per byte, counting
// ones over ranges and differences at a distance.
#include <atomic>
#include <cstring>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

uint64_t LoadBigEndian(const uint8_t *p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return __builtin_bswap64(v);
}

// Ones of a word's first `bits` bits (from the most significant end).
uint64_t Head(uint64_t w, unsigned bits) { return bits == 0 ? 0 : w >> (64 - bits) << (64 - bits); }

}  // namespace

void Sequence::Resize(uint64_t n) {
  // Unique across all sequences, so a work space shared between sequences
  // never serves one sequence's cached counts for another.
  static std::atomic<uint64_t> next_generation{1};
  n_ = n;
  w_.assign(n / 64 + 3, 0);
  generation_ = next_generation.fetch_add(1, std::memory_order_relaxed);
}

void Sequence::AssignBytes(const uint8_t *bytes, size_t len) {
  Resize(static_cast<uint64_t>(len) * 8);
  const size_t whole = len / 8;
  for (size_t i = 0; i < whole; ++i) w_[i] = LoadBigEndian(bytes + 8 * i);
  for (size_t i = whole * 8; i < len; ++i) w_[whole] |= static_cast<uint64_t>(bytes[i]) << (56 - 8 * (i % 8));
}

void Sequence::AssignEpsilon(const uint8_t *epsilon, uint64_t n) {
  Resize(n);
  // Eight bytes at a time: fold each byte's bits into its lowest bit, then
  // gather the eight lowest bits into one byte, the first byte on top.
  constexpr uint64_t kLow = 0x0101010101010101u, kGather = 0x8040201008040201u;
  const uint64_t groups = n / 8;
  for (uint64_t g = 0; g < groups; ++g) {
    uint64_t x;
    std::memcpy(&x, epsilon + 8 * g, 8);
    x |= x >> 4;
    x |= x >> 2;
    x |= x >> 1;
    const uint64_t byte = ((x & kLow) * kGather) >> 56;
    w_[g / 8] |= byte << (56 - 8 * (g % 8));
  }
  for (uint64_t i = groups * 8; i < n; ++i) {
    if (epsilon[i] != 0) w_[i >> 6] |= uint64_t{1} << (63 - (i & 63));
  }
}

uint64_t Sequence::Ones(uint64_t from, uint64_t to) const {
  if (from >= to) return 0;
  uint64_t first = from >> 6, last = (to - 1) >> 6;
  const uint64_t head_mask = ~uint64_t{0} >> (from & 63);
  const uint64_t tail_mask = ~uint64_t{0} << (63 - ((to - 1) & 63));
  if (first == last) return Popcount(w_[first] & head_mask & tail_mask);
  uint64_t ones = Popcount(w_[first] & head_mask) + Popcount(w_[last] & tail_mask);
  for (uint64_t i = first + 1; i < last; ++i) ones += Popcount(w_[i]);
  return ones;
}

uint64_t Sequence::Differences(uint64_t d) const {
  const uint64_t len = n_ - d;  // positions compared
  uint64_t ones = 0;
  uint64_t i = 0;
  for (; i + 64 <= len; i += 64) ones += Popcount(w_[i >> 6] ^ Window(i + d, 64));
  if (i < len) ones += Popcount(Head(w_[i >> 6] ^ Window(i + d, 64), static_cast<unsigned>(len - i)));
  return ones;
}

}  // namespace zeph::randtest
