// The own SM2 curve arithmetic against OpenSSL's EC_POINT_mul and
// BN_mod_inverse in the same run. Both sides go from scalars to affine
// coordinates (OpenSSL's result is converted with
// EC_POINT_get_affine_coordinates, as a caller must); OpenSSL gets its
// BIGNUMs and points ready-made. Repetitions interleave, and the summary
// compares the best rate of each side, the least disturbed by other load.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/rand.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "foundation/owned.hpp"
#include "gm/sm2_curve.hpp"
#include "gm/sm2_field.hpp"

namespace sm2 = zeph::gm::sm2;
namespace fp = zeph::gm::sm2::fp;

namespace {

constexpr int kInputs = 64;

struct Inputs {
  sm2::Scalar s[kInputs], t[kInputs];
  sm2::Point p[kInputs];
  zeph::EcGroupPtr group{EC_GROUP_new_by_curve_name(NID_sm2)};
  std::vector<zeph::BnPtr> bs, bt;
  std::vector<zeph::EcPointPtr> ep;

  Inputs() {
    zeph::BnPtr x(BN_new()), y(BN_new());
    for (int i = 0; i < kInputs; ++i) {
      do {
        RAND_bytes(s[i].b, 32);
        RAND_bytes(t[i].b, 32);
      } while (!sm2::InRange(s[i]) || !sm2::InRange(t[i]));
      sm2::Scalar d;
      RAND_bytes(d.b, 32);
      sm2::MulBase(d, &p[i]);
      bs.emplace_back(BN_bin2bn(s[i].b, 32, nullptr));
      bt.emplace_back(BN_bin2bn(t[i].b, 32, nullptr));
      ep.emplace_back(EC_POINT_new(group.get()));
      BN_bin2bn(p[i].x, 32, x.get());
      BN_bin2bn(p[i].y, 32, y.get());
      EC_POINT_set_affine_coordinates(group.get(), ep.back().get(), x.get(), y.get(), nullptr);
    }
  }
};

const Inputs &In() {
  static const Inputs in;
  return in;
}

enum class Op { kBase, kVar, kCombined, kCombinedX };

// The portable build on the same CPU, to show what the assembly buys.
void Own(benchmark::State &state, Op op, bool portable) {
  const Inputs &in = In();
  const fp::Build before = fp::ActiveBuild();
  if (portable) fp::PinBuild(fp::Build::kPortable);
  sm2::Point out;
  int i = 0;
  for (auto _ : state) {
    const int j = i++ % kInputs;
    switch (op) {
      case Op::kBase:
        benchmark::DoNotOptimize(sm2::MulBase(in.s[j], &out));
        break;
      case Op::kVar:
        benchmark::DoNotOptimize(sm2::Mul(in.s[j], in.p[j], &out));
        break;
      case Op::kCombined:
        benchmark::DoNotOptimize(sm2::MulBaseAdd(in.s[j], in.t[j], in.p[j], &out));
        break;
      case Op::kCombinedX:
        benchmark::DoNotOptimize(sm2::MulBaseAddXModN(in.s[j], in.t[j], in.p[j], in.t[j]));
        break;
    }
    benchmark::DoNotOptimize(out);
  }
  fp::PinBuild(before);
  state.SetItemsProcessed(state.iterations());
}

void OpenSsl(benchmark::State &state, Op op) {
  const Inputs &in = In();
  const EC_GROUP *g = in.group.get();
  zeph::EcPointPtr r(EC_POINT_new(g));
  zeph::BnCtxPtr ctx(BN_CTX_new());
  zeph::BnPtr x(BN_new()), y(BN_new());
  int i = 0;
  for (auto _ : state) {
    const int j = i++ % kInputs;
    const BIGNUM *gs = op == Op::kVar ? nullptr : in.bs[j].get();
    const EC_POINT *p = op == Op::kBase ? nullptr : in.ep[j].get();
    const BIGNUM *ps = op == Op::kBase ? nullptr : op == Op::kVar ? in.bs[j].get() : in.bt[j].get();
    EC_POINT_mul(g, r.get(), gs, p, ps, ctx.get());
    EC_POINT_get_affine_coordinates(g, r.get(), x.get(), y.get(), ctx.get());
    benchmark::DoNotOptimize(x.get());
  }
  state.SetItemsProcessed(state.iterations());
}

void InvOwn(benchmark::State &state) {
  const Inputs &in = In();
  sm2::Scalar out;
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(sm2::ModInv(in.s[i++ % kInputs], &out));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}

void InvOpenSsl(benchmark::State &state) {
  const Inputs &in = In();
  const BIGNUM *n = EC_GROUP_get0_order(in.group.get());
  zeph::BnCtxPtr ctx(BN_CTX_new());
  zeph::BnPtr r(BN_new());
  int i = 0;
  for (auto _ : state) {
    BN_mod_inverse(r.get(), in.bs[i++ % kInputs].get(), n, ctx.get());
    benchmark::DoNotOptimize(r.get());
  }
  state.SetItemsProcessed(state.iterations());
}

void Summary(const zeph_bench::RatioReporter &reporter) {
  zeph_bench::PrintRatios(reporter, {
                                        {"k·G (MulBase vs EC_POINT_mul)", "kG/own", "kG/openssl", 6.0},
                                        {"k·P (Mul vs EC_POINT_mul)", "kP/own", "kP/openssl"},
                                        {"s·G + t·P (MulBaseAdd vs EC_POINT_mul)", "sG+tP/own", "sG+tP/openssl"},
                                        {"s·G + t·P, x check (MulBaseAddXModN)", "sG+tP-x/own", "sG+tP/openssl"},
                                        {"n inverse (ModInv vs BN_mod_inverse)", "inv/own", "inv/openssl"},
                                        {"k·G, portable build", "kG/portable", "kG/openssl"},
                                        {"k·P, portable build", "kP/portable", "kP/openssl"},
                                        {"s·G + t·P, portable build", "sG+tP/portable", "sG+tP/openssl"},
                                    });
}

}  // namespace

int main(int argc, char **argv) {
  for (int rep = 0; rep < 5; ++rep) {
    benchmark::RegisterBenchmark("kG/own", Own, Op::kBase, false);
    benchmark::RegisterBenchmark("kG/portable", Own, Op::kBase, true);
    benchmark::RegisterBenchmark("kG/openssl", OpenSsl, Op::kBase);
    benchmark::RegisterBenchmark("kP/own", Own, Op::kVar, false);
    benchmark::RegisterBenchmark("kP/portable", Own, Op::kVar, true);
    benchmark::RegisterBenchmark("kP/openssl", OpenSsl, Op::kVar);
    benchmark::RegisterBenchmark("sG+tP/own", Own, Op::kCombined, false);
    benchmark::RegisterBenchmark("sG+tP-x/own", Own, Op::kCombinedX, false);
    benchmark::RegisterBenchmark("sG+tP/portable", Own, Op::kCombined, true);
    benchmark::RegisterBenchmark("sG+tP/openssl", OpenSsl, Op::kCombined);
    benchmark::RegisterBenchmark("inv/own", InvOwn);
    benchmark::RegisterBenchmark("inv/openssl", InvOpenSsl);
  }
  return zeph_bench::RunWithRatios(argc, argv, Summary);
}
