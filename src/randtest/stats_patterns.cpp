// The tests over m-bit patterns: poker (non-overlapping blocks), serial and
// approximate entropy (overlapping cyclic windows). Cyclic counts of m bits
// give those of m - 1 bits by adding pairs, so one count of the widest
// pattern a sequence needs serves every narrower one.
#include <cmath>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

// Counts of m - 1 bits from counts of m bits (windows of the same starts).
std::vector<uint64_t> Narrower(const std::vector<uint64_t> &counts) {
  std::vector<uint64_t> out(counts.size() / 2);
  for (size_t p = 0; p < out.size(); ++p) out[p] = counts[2 * p] + counts[2 * p + 1];
  return out;
}

// The window at i when it runs past the end (wrapping as often as needed).
uint64_t WrappedWindow(const Sequence &b, uint64_t i, unsigned m) {
  uint64_t v = 0;
  for (unsigned j = 0; j < m; ++j) v = (v << 1) | (b.Bit((i + j) % b.size()) ? 1 : 0);
  return v;
}

void CountCyclic(const Sequence &b, unsigned m, std::vector<uint64_t> *counts) {
  const uint64_t n = b.size();
  counts->assign(uint64_t{1} << m, 0);
  uint64_t *c = counts->data();
  const uint64_t straight = n >= m ? n - m + 1 : 0;
  for (uint64_t i = 0; i < straight; ++i) ++c[b.Window(i, m)];
  for (uint64_t i = straight; i < n; ++i) ++c[WrappedWindow(b, i, m)];
}

double Phi(const std::vector<uint64_t> &counts, uint64_t n) {
  const double total = static_cast<double>(n);
  double sum = 0.0;
  for (const uint64_t c : counts) {
    if (c > 0) sum += static_cast<double>(c) * std::log(static_cast<double>(c) / total);
  }
  return sum / total;
}

}  // namespace

std::vector<uint64_t> CyclicCounts(const Sequence &b, unsigned m, Workspace &ws) {
  if (ws.counts_generation != b.generation() || ws.counts_m < m || ws.counts.empty()) {
    CountCyclic(b, m, &ws.counts);
    ws.counts_generation = b.generation();
    ws.counts_m = m;
  }
  std::vector<uint64_t> counts = ws.counts;
  for (unsigned width = ws.counts_m; width > m; --width) counts = Narrower(counts);
  return counts;
}

double Psi2(const std::vector<uint64_t> &counts, unsigned m, uint64_t n) {
  if (m == 0) return 0.0;
  double sum = 0.0;
  for (const uint64_t c : counts) sum += static_cast<double>(c) * static_cast<double>(c);
  return sum * std::ldexp(1.0, static_cast<int>(m)) / static_cast<double>(n) - static_cast<double>(n);
}

Outcome PokerStat(const Sequence &b, unsigned m) {
  const uint64_t blocks = b.size() / m;
  std::vector<uint64_t> counts(uint64_t{1} << m);
  for (uint64_t i = 0; i < blocks; ++i) ++counts[b.Window(i * m, m)];
  unsigned __int128 squares = 0;
  for (const uint64_t c : counts) squares += static_cast<unsigned __int128>(c) * c;
  const double v = std::ldexp(1.0, static_cast<int>(m)) / static_cast<double>(blocks) * static_cast<double>(squares) -
                   static_cast<double>(blocks);
  return Outcome{0, 1, {Igamc((std::ldexp(1.0, static_cast<int>(m)) - 1.0) / 2.0, v / 2.0), 0}};
}

Outcome SerialStat(const Sequence &b, unsigned m, Workspace &ws) {
  const uint64_t n = b.size();
  const std::vector<uint64_t> c0 = CyclicCounts(b, m, ws);
  const std::vector<uint64_t> c1 = Narrower(c0);
  const double psi0 = Psi2(c0, m, n), psi1 = Psi2(c1, m - 1, n);
  const double psi2 = m >= 3 ? Psi2(Narrower(c1), m - 2, n) : 0.0;
  const double del1 = psi0 - psi1, del2 = psi0 - 2.0 * psi1 + psi2;
  return Outcome{0,
                 2,
                 {Igamc(std::ldexp(1.0, static_cast<int>(m) - 2), del1 / 2.0),
                  Igamc(std::ldexp(1.0, static_cast<int>(m) - 3), del2 / 2.0)}};
}

Outcome ApproximateEntropyStat(const Sequence &b, unsigned m, Workspace &ws) {
  const uint64_t n = b.size();
  const std::vector<uint64_t> wide = CyclicCounts(b, m + 1, ws);
  const double apen = Phi(Narrower(wide), n) - Phi(wide, n);
  const double chi2 = 2.0 * static_cast<double>(n) * (std::log(2.0) - apen);
  return Outcome{0, 1, {Igamc(std::ldexp(1.0, static_cast<int>(m) - 1), chi2 / 2.0), 0}};
}

}  // namespace zeph::randtest
