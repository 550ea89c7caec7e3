// Contexts: every row of a suite with its P-values, the sequence mode that
// streams a file in fixed-size sequences and judges each test by its pass
// proportion and the uniformity of its P-values, and the JSON report.
#include <cmath>
#include <cstring>
#include <memory>
#include <new>

#include "foundation/json_owned.hpp"
#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "randtest/file_input.hpp"
#include "randtest/randtest.hpp"
#include "zeph_c_status.h"

using namespace zeph::randtest;

namespace {

constexpr int kBins = 10;
// From this many sequences the P-values' uniformity is judged too.
constexpr uint64_t kUniformityFrom = 55;
constexpr double kUniformityAlpha = 0.0001;

// One row of the last run. A single sequence keeps its outcome; sequence
// mode keeps, per P-value, the sequences that passed and the histogram.
struct RowReport {
  Outcome single;
  uint32_t status = 0;
  uint8_t p_count = 0;
  uint64_t passed[2] = {};
  uint64_t histogram[2][kBins] = {};
  double uniformity[2] = {};
};

struct RunReport {
  uint32_t suite = 0;
  uint32_t status = 0;
  uint64_t bits = 0;
  bool sequence_mode = false;
  uint64_t sequences = 0, sequence_bits = 0, ignored_bytes = 0;
  std::vector<RowReport> rows;
};

bool PassesP(TestId test, double p) { return p >= kAlpha && !(test == TestId::kLongestRunOfOnes && p > 1.0); }

int Bin(double p) {
  if (!(p > 0)) return 0;  // NaN and stopped tests count as P = 0
  return p >= 1 ? kBins - 1 : static_cast<int>(p * kBins);
}

// (1 - a) - 3 sqrt(a (1 - a) / s)
double ProportionBound(uint64_t s) {
  return (1 - kAlpha) - 3 * std::sqrt(kAlpha * (1 - kAlpha) / static_cast<double>(s));
}

}  // namespace

struct zeph_randtest_ctx_st {
  Workspace ws;
  Sequence bits;
  RunReport last;
  bool has_run = false;
};

namespace {

uint32_t Finish(ZEPH_RANDTEST_CTX *ctx, uint32_t status) {
  ctx->last.status = status;
  ctx->has_run = true;
  return status;
}

// Starts a report; false (with the status recorded) for an unknown suite.
bool Begin(ZEPH_RANDTEST_CTX *ctx, uint32_t suite) {
  ctx->last = RunReport{};
  ctx->last.suite = suite;
  ctx->has_run = true;
  return !SuiteRows(suite).empty();
}

uint32_t RunBuffer(ZEPH_RANDTEST_CTX *ctx, uint32_t suite, const unsigned char *buf, uint64_t len) {
  if (!Begin(ctx, suite)) return Finish(ctx, ZEPH_RANDTEST_ERR_TOO_SHORT);
  if (buf == nullptr) return Finish(ctx, ZEPH_RANDTEST_ERR_NULL_POINTER);
  if (len == 0 || len > (uint64_t{1} << 61)) return Finish(ctx, ZEPH_RANDTEST_ERR_TOO_SHORT);
  const auto rows = SuiteRows(suite);
  ctx->bits.AssignBytes(buf, len);
  std::vector<Outcome> out(rows.size());
  const uint32_t status = RunSuite(rows, ctx->bits, ctx->ws, out.data(), false);
  ctx->last.bits = len * 8;
  ctx->last.rows.resize(rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    ctx->last.rows[i].single = out[i];
    ctx->last.rows[i].status = out[i].status;
    ctx->last.rows[i].p_count = out[i].p_count;
  }
  return Finish(ctx, status);
}

uint32_t RunSequences(ZEPH_RANDTEST_CTX *ctx, uint32_t suite, const char *path, uint64_t seq_bytes) {
  if (!Begin(ctx, suite)) return Finish(ctx, ZEPH_RANDTEST_ERR_TOO_SHORT);
  RunReport &r = ctx->last;
  r.sequence_mode = true;
  InputFile file;
  if (const uint32_t rv = file.Open(path); rv != 0) return Finish(ctx, rv);
  const auto rows = SuiteRows(suite);
  r.rows.resize(rows.size());
  r.sequences = file.size() / seq_bytes;
  r.ignored_bytes = file.size() % seq_bytes;
  if (r.sequences == 0) return Finish(ctx, ZEPH_RANDTEST_ERR_TOO_SHORT);
  if (seq_bytes > (uint64_t{1} << 61)) return Finish(ctx, ZEPH_RANDTEST_ERR_TOO_SHORT);
  r.sequence_bits = seq_bytes * 8;
  std::vector<uint8_t> buffer(seq_bytes);
  for (uint64_t s = 0; s < r.sequences; ++s) {
    if (const uint32_t rv = file.Read(buffer.data(), buffer.size()); rv != 0) return Finish(ctx, rv);
    ctx->bits.AssignBytes(buffer.data(), buffer.size());
    for (size_t i = 0; i < rows.size(); ++i) {
      RowReport &row = r.rows[i];
      const TestId test = rows[i].test;
      const Outcome o = Evaluate(test, rows[i].param, ctx->bits, ctx->ws);
      if (o.status == ZEPH_RANDTEST_ERR_NO_MEMORY || o.status == ZEPH_RANDTEST_ERR_DERIVATIVE_COPY) {
        return Finish(ctx, o.status);
      }
      // Too short is a property of the length, the same in every sequence.
      if (o.status == ZEPH_RANDTEST_ERR_TOO_SHORT) {
        row.status = o.status;
        continue;
      }
      row.p_count = Info(test).p_values;
      for (int k = 0; k < row.p_count; ++k) {
        const double p = k < o.p_count ? o.p[k] : 0.0;  // a test that stopped early failed
        row.passed[k] += k < o.p_count && PassesP(test, p);
        ++row.histogram[k][Bin(p)];
      }
    }
  }
  r.bits = r.sequences * r.sequence_bits;
  const double bound = ProportionBound(r.sequences);
  const double expected = static_cast<double>(r.sequences) / kBins;
  uint32_t status = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    RowReport &row = r.rows[i];
    for (int k = 0; k < row.p_count; ++k) {
      double chi2 = 0;
      for (const uint64_t f : row.histogram[k])
        chi2 += (static_cast<double>(f) - expected) * (static_cast<double>(f) - expected) / expected;
      row.uniformity[k] = Igamc(9.0 / 2.0, chi2 / 2.0);
      const bool proportion_low = static_cast<double>(row.passed[k]) / static_cast<double>(r.sequences) < bound;
      const bool not_uniform = r.sequences >= kUniformityFrom && !(row.uniformity[k] >= kUniformityAlpha);
      if (proportion_low || not_uniform) row.status = Info(rows[i].test).fail_status;
    }
    if (status == 0) status = row.status;
  }
  return Finish(ctx, status);
}

// ---- JSON -------------------------------------------------------------------------

cJSON *Numbers(const double *v, int n) {
  cJSON *a = cJSON_CreateArray();
  for (int i = 0; a != nullptr && i < n; ++i) cJSON_AddItemToArray(a, cJSON_CreateNumber(v[i]));
  return a;
}

zeph::JsonPtr BuildReport(const RunReport &r) {
  zeph::JsonPtr root(cJSON_CreateObject());
  if (!root) return root;
  cJSON *o = root.get();
  if (r.suite == kQuickSuite || r.suite == kCompleteSuite) {
    cJSON_AddStringToObject(o, "suite", SuiteName(r.suite));
  } else {
    cJSON_AddNumberToObject(o, "suite", r.suite);
  }
  cJSON_AddNumberToObject(o, "bits", static_cast<double>(r.bits));
  cJSON_AddNumberToObject(o, "alpha", kAlpha);
  cJSON_AddNumberToObject(o, "status", r.status);
  if (r.sequence_mode) {
    cJSON_AddNumberToObject(o, "sequences", static_cast<double>(r.sequences));
    cJSON_AddNumberToObject(o, "sequence_bits", static_cast<double>(r.sequence_bits));
    cJSON_AddNumberToObject(o, "ignored_bytes", static_cast<double>(r.ignored_bytes));
    if (r.sequences > 0) cJSON_AddNumberToObject(o, "proportion_bound", ProportionBound(r.sequences));
  }
  cJSON *tests = cJSON_AddArrayToObject(o, "tests");
  const auto rows = SuiteRows(r.suite);
  for (size_t i = 0; tests != nullptr && i < r.rows.size(); ++i) {
    const RowReport &row = r.rows[i];
    cJSON *t = cJSON_CreateObject();
    if (t == nullptr) return zeph::JsonPtr();
    cJSON_AddItemToArray(tests, t);
    cJSON_AddStringToObject(t, "name", Info(rows[i].test).name);
    cJSON_AddNumberToObject(t, "param", rows[i].param);
    if (!r.sequence_mode) {
      cJSON_AddItemToObject(t, "p", Numbers(row.single.p, row.single.p_count));
      cJSON_AddNumberToObject(t, "status", row.status);
      continue;
    }
    // "p" holds the uniformity P-values, so every report has one.
    cJSON_AddItemToObject(t, "p", Numbers(row.uniformity, row.p_count));
    cJSON_AddNumberToObject(t, "status", row.status);
    cJSON *passed = cJSON_AddArrayToObject(t, "passed");
    cJSON *histogram = cJSON_AddArrayToObject(t, "histogram");
    for (int k = 0; passed != nullptr && histogram != nullptr && k < row.p_count; ++k) {
      cJSON_AddItemToArray(passed, cJSON_CreateNumber(static_cast<double>(row.passed[k])));
      double bins[kBins];
      for (int j = 0; j < kBins; ++j) bins[j] = static_cast<double>(row.histogram[k][j]);
      cJSON_AddItemToArray(histogram, Numbers(bins, kBins));
    }
    cJSON_AddItemToObject(t, "uniformity", Numbers(row.uniformity, row.p_count));
  }
  return root;
}

}  // namespace

extern "C" {

ZEPH_API ZEPH_RANDTEST_CTX *ZEPH_C_RandTest_New(void) { return new (std::nothrow) ZEPH_RANDTEST_CTX(); }

ZEPH_API void ZEPH_C_RandTest_Free(ZEPH_RANDTEST_CTX *ctx) { delete ctx; }

ZEPH_API uint32_t ZEPH_C_RandTest_Run(ZEPH_RANDTEST_CTX *ctx, uint32_t suite, const unsigned char *buf, uint64_t len) {
  if (ctx == nullptr) return ZEPH_RANDTEST_ERR_NULL_POINTER;
  const uint32_t rv = zeph::Guarded([&] { return RunBuffer(ctx, suite, buf, len); }, ZEPH_RANDTEST_ERR_NO_MEMORY);
  return rv == ZEPH_RANDTEST_ERR_NO_MEMORY ? Finish(ctx, rv) : rv;
}

ZEPH_API uint32_t ZEPH_C_RandTest_RunFile(ZEPH_RANDTEST_CTX *ctx, uint32_t suite, const char *path,
                                          uint64_t seq_bytes) {
  if (ctx == nullptr) return ZEPH_RANDTEST_ERR_NULL_POINTER;
  const uint32_t rv = zeph::Guarded(
      [&]() -> uint32_t {
        if (seq_bytes != 0) return RunSequences(ctx, suite, path, seq_bytes);
        if (!Begin(ctx, suite)) return Finish(ctx, ZEPH_RANDTEST_ERR_TOO_SHORT);
        std::vector<uint8_t> bytes;
        if (const uint32_t read = ReadWholeFile(path, &bytes); read != 0) return Finish(ctx, read);
        return RunBuffer(ctx, suite, bytes.data(), bytes.size());
      },
      ZEPH_RANDTEST_ERR_NO_MEMORY);
  return rv == ZEPH_RANDTEST_ERR_NO_MEMORY ? Finish(ctx, rv) : rv;
}

ZEPH_API uint32_t ZEPH_C_RandTest_Report(const ZEPH_RANDTEST_CTX *ctx, char *out, uint64_t *io_len) {
  if (ctx == nullptr || io_len == nullptr || !ctx->has_run) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    const zeph::JsonPtr report = BuildReport(ctx->last);
    const zeph::JsonTextPtr text(report ? cJSON_PrintUnformatted(report.get()) : nullptr);
    if (!text) return ERR_OUT_OF_MEMORY;
    // The protocol helper counts in 32 bits; reports are a few kilobytes.
    uint32_t capacity = *io_len > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(*io_len);
    const uint32_t rv = zeph::PutText(text.get(), std::strlen(text.get()), out, &capacity);
    *io_len = capacity;
    return rv;
  });
}

}  // extern "C"
