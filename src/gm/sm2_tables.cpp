// Builds the base point tables: all multiples in Jacobian form, then one
// shared inversion (Montgomery's trick) brings them to affine form.
#include "gm/sm2_tables.hpp"

#include <mutex>
#include <vector>

namespace zeph::gm::sm2::ec {
namespace {

// G in Montgomery form.
constexpr Fe kGx = {{0x61328990F418029E, 0x3E7981EDDCA6C050, 0xD6A1ED99AC24C3C3, 0x91167A5EE1C13B05}};
constexpr Fe kGy = {{0xC1354E593C2D0DDD, 0xC1F5E5788D3295FA, 0x8D4CFB066E2A48F8, 0x63CD65D481D735BD}};

BaseTables g_tables;
std::once_flag g_once;

template <class F>
void Normalize(const std::vector<Jac> &in, Aff *out) {
  const size_t n = in.size();
  std::vector<Fe> prefix(n);
  prefix[0] = in[0].z;
  for (size_t i = 1; i < n; ++i) F::Mul(prefix[i], prefix[i - 1], in[i].z);
  Fe inv, zi, zi2;
  fp::Invert<F>(inv, prefix[n - 1]);
  for (size_t i = n; i-- > 0;) {
    if (i != 0) {
      F::Mul(zi, inv, prefix[i - 1]);
      F::Mul(inv, inv, in[i].z);
    } else {
      zi = inv;
    }
    F::Sqr(zi2, zi);
    F::Mul(out[i].x, in[i].x, zi2);
    F::Mul(zi2, zi2, zi);
    F::Mul(out[i].y, in[i].y, zi2);
  }
}

template <class F>
void Build(BaseTables *t) {
  using C = Curve<F>;
  std::vector<Jac> all(kCombRows * kCombEntries + kOddEntries);
  const Jac g{kGx, kGy, fp::kOne};
  Jac base = g;
  for (int i = 0; i < kCombRows; ++i) {
    Jac *row = &all[i * kCombEntries];
    row[0] = base;
    C::Dbl(row[1], base);
    for (int j = 2; j < kCombEntries; ++j) C::AddVar(row[j], row[j - 1], base);
    C::Dbl(base, row[kCombEntries - 1]);  // 2·64 = 2^7
  }
  Jac *odd = &all[kCombRows * kCombEntries];
  Jac g2;
  C::Dbl(g2, g);
  odd[0] = g;
  for (int j = 1; j < kOddEntries; ++j) C::AddVar(odd[j], odd[j - 1], g2);
  std::vector<Aff> flat(all.size());
  Normalize<F>(all, flat.data());
  for (int i = 0; i < kCombRows; ++i) {
    for (int j = 0; j < kCombEntries; ++j) t->comb[i][j] = flat[i * kCombEntries + j];
  }
  for (int j = 0; j < kOddEntries; ++j) t->odd[j] = flat[kCombRows * kCombEntries + j];
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
