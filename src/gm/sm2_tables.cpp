// Builds the base point tables 64 multiples at a time: Jacobian sums, then
// one shared inversion (Montgomery's trick) brings a block to affine form.
// Nothing is allocated, so building cannot fail.
#include "gm/sm2_tables.hpp"

#include <mutex>

namespace zeph::gm::sm2::ec {
namespace {

// G in Montgomery form.
constexpr Fe kGx = {{0x61328990F418029E, 0x3E7981EDDCA6C050, 0xD6A1ED99AC24C3C3, 0x91167A5EE1C13B05}};
constexpr Fe kGy = {{0xC1354E593C2D0DDD, 0xC1F5E5788D3295FA, 0x8D4CFB066E2A48F8, 0x63CD65D481D735BD}};

constexpr int kBlock = 64;
static_assert(kCombEntries == kBlock && kOddEntries % kBlock == 0);

BaseTables g_tables;
std::once_flag g_once;

// out[i] = first + i·step for i < kBlock, affine.
template <class F>
void Multiples(const Jac &first, const Aff &step, Aff out[kBlock]) {
  Jac sums[kBlock];
  Fe prefix[kBlock];
  sums[0] = first;
  for (int i = 1; i < kBlock; ++i) Curve<F>::AddVar(sums[i], sums[i - 1], step);
  prefix[0] = sums[0].z;
  for (int i = 1; i < kBlock; ++i) F::Mul(prefix[i], prefix[i - 1], sums[i].z);
  Fe inv, zi, zi2;
  fp::Invert<F>(inv, prefix[kBlock - 1]);
  for (int i = kBlock - 1; i >= 0; --i) {
    if (i != 0) {
      F::Mul(zi, inv, prefix[i - 1]);
      F::Mul(inv, inv, sums[i].z);
    } else {
      zi = inv;
    }
    F::Sqr(zi2, zi);
    F::Mul(out[i].x, sums[i].x, zi2);
    F::Mul(zi2, zi2, zi);
    F::Mul(out[i].y, sums[i].y, zi2);
  }
}

template <class F>
void Build(BaseTables *t) {
  const Aff g{kGx, kGy};
  Aff base = g;
  for (int i = 0; i < kCombRows; ++i) {
    Multiples<F>(Jac{base.x, base.y, fp::kOne}, base, t->comb[i]);
    // The next row starts at 2·64·base = 2^7·base.
    Jac next;
    const Aff &last = t->comb[i][kCombEntries - 1];
    Curve<F>::Dbl(next, Jac{last.x, last.y, fp::kOne});
    Curve<F>::ToAffine(base, next);
  }
  Jac g2;
  Curve<F>::Dbl(g2, Jac{g.x, g.y, fp::kOne});
  Aff step;
  Curve<F>::ToAffine(step, g2);
  Jac first{g.x, g.y, fp::kOne};
  for (int b = 0; b < kOddEntries; b += kBlock) {
    Multiples<F>(first, step, &t->odd[b]);
    const Aff &last = t->odd[b + kBlock - 1];
    Curve<F>::AddVar(first, Jac{last.x, last.y, fp::kOne}, step);
  }
}

}  // namespace

const BaseTables &Tables() {
  std::call_once(g_once, [] {
#if defined(ZEPH_SM2_HAVE_ADX)
    if (fp::AdxAvailable()) {
      Build<fp::Adx>(&g_tables);
      return;
    }
#endif
    Build<fp::Portable>(&g_tables);
  });
  return g_tables;
}

}  // namespace zeph::gm::sm2::ec
