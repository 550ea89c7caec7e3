// The own SM2 arithmetic against OpenSSL's BN/EC on arbitrary scalars and
// points, in each field build. Input: a control byte, scalars s and t
// (32 bytes each), then x || y (64 bytes); short input is zero-padded.

#include "../gm/sm2_oracle.hpp"
#include "check.hpp"
#include "gm/sm2_curve.hpp"
#include "gm/sm2_field.hpp"

namespace sm2 = zeph::gm::sm2;
namespace fp = zeph::gm::sm2::fp;
using sm2_oracle::Ref;
using sm2_oracle::Same;

namespace {

void CheckPoint(bool ok, const sm2::Point &got, const std::optional<sm2::Point> &want) {
  fuzz::Check(ok == want.has_value() && (!ok || Same(got, *want)));
}

void CheckScalars(const sm2::Scalar &s, const sm2::Scalar &t) {
  sm2::Scalar got;
  sm2::Reduce(s.b, &got);
  const sm2::Scalar reduced = *Ref().Mod('r', s, s);
  fuzz::Check(Same(got, reduced));
  fuzz::Check(sm2::IsZero(s) == Same(s, sm2::Scalar{}));
  fuzz::Check(sm2::InRange(s) == (Same(reduced, s) && !Same(s, sm2::Scalar{})));
  using Op = void (*)(const sm2::Scalar &, const sm2::Scalar &, sm2::Scalar *);
  for (const auto &[op, fn] : {std::pair<char, Op>{'+', sm2::ModAdd}, {'-', sm2::ModSub}, {'*', sm2::ModMul}}) {
    fn(s, t, &got);
    fuzz::Check(Same(got, *Ref().Mod(op, s, t)));
  }
  const std::optional<sm2::Scalar> inv = Ref().Mod('i', s, s);
  fuzz::Check(sm2::ModInv(s, &got) == inv.has_value() && (!inv || Same(got, *inv)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  uint8_t in[129] = {};
  std::memcpy(in, data, size < sizeof in ? size : sizeof in);
  const uint8_t control = in[0];
  sm2::Scalar s, t;
  std::memcpy(s.b, in + 1, 32);
  std::memcpy(t.b, in + 33, 32);
  const uint8_t *xy = in + 65;

  const fp::Build before = fp::ActiveBuild();
  fp::PinBuild((control & 1) != 0 && fp::AdxAvailable() ? fp::Build::kAdx : fp::Build::kPortable);

  CheckScalars(s, t);

  // The point from outside if valid, else one derived from its bytes.
  sm2::Point p;
  const bool valid = sm2::PointFromXY(xy, &p);
  fuzz::Check(valid == Ref().Valid(xy) && (!valid || std::memcmp(&p, xy, 64) == 0));
  if (!valid) {
    sm2::Scalar k;
    std::memcpy(k.b, xy, 32);
    if (!sm2::MulBase(k, &p)) p = sm2::BaseG();
  }

  sm2::Point got;
  CheckPoint(sm2::MulBase(s, &got), got, Ref().Mul(&s, nullptr, nullptr));
  CheckPoint(sm2::Mul(s, p, &got), got, Ref().Mul(nullptr, &p, &s));
  const std::optional<sm2::Point> combo = Ref().Mul(&s, &p, &t);
  CheckPoint(sm2::MulBaseAdd(s, t, p, &got), got, combo);
  if (combo) {
    sm2::Scalar x_mod_n;
    sm2::Reduce(combo->x, &x_mod_n);
    fuzz::Check(sm2::MulBaseAddXModN(s, t, p, x_mod_n));
  }

  // A second point: P itself, t·P or −P, so sums also double and cancel.
  sm2::Scalar one{}, minus_one;
  one.b[31] = 1;
  sm2::ModSub(sm2::Scalar{}, one, &minus_one);
  const sm2::Scalar *factor = (control & 6) == 2 ? &t : (control & 6) == 4 ? &minus_one : nullptr;
  sm2::Point q = p;
  if (factor != nullptr) {
    if (const std::optional<sm2::Point> r = Ref().Mul(nullptr, &p, factor)) q = *r;
  }
  CheckPoint(sm2::Add(p, q, &got), got, Ref().Add(p, q, false));
  CheckPoint(sm2::Sub(p, q, &got), got, Ref().Add(p, q, true));

  fp::PinBuild(before);
  return 0;
}
