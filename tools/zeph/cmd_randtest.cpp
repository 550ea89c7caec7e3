// zeph randtest: the randomness test suite over a file or standard input, as
// a table, as the library's JSON report, and as an SVG picture.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <cjson/cJSON.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli.hpp"
#include "zeph_c_randtest.h"

namespace {

int RunRandtest(const zeph_cli::Args &args);

ZEPH_CLI_GROUP(randtest, "test a random source (GM/T 0005 suite): table, JSON or SVG",
               "randtest [--quick] [--seq-bytes N] [--json] [--plot FILE.svg] FILE|-\n"
               "  --quick        frequency and poker only (default: the complete suite)\n"
               "  --seq-bytes N  test the input as sequences of N bytes (the tail is ignored)\n"
               "  --json         print the report as JSON instead of a table\n"
               "  --plot FILE    write an SVG of the P-values (histograms in sequence mode)\n"
               "exit status 0 only when every test passed",
               RunRandtest, {"--seq-bytes", "--plot"}, {"--quick", "--json"});

const zeph_cli::Group &Self() { return *zeph_cli::FindGroup("randtest"); }

struct JsonDeleter {
  void operator()(cJSON *j) const { cJSON_Delete(j); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;
struct CtxDeleter {
  void operator()(ZEPH_RANDTEST_CTX *c) const { ZEPH_C_RandTest_Free(c); }
};
struct FileDeleter {
  void operator()(FILE *f) const { std::fclose(f); }
};

double Num(const cJSON *o, const char *key) {
  const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, key);
  return cJSON_IsNumber(v) ? v->valuedouble : 0;
}
std::vector<double> Numbers(const cJSON *o, const char *key) {
  std::vector<double> out;
  const cJSON *a = cJSON_GetObjectItemCaseSensitive(o, key);
  for (const cJSON *v = a != nullptr ? a->child : nullptr; v != nullptr; v = v->next) {
    out.push_back(cJSON_IsNumber(v) ? v->valuedouble : NAN);
  }
  return out;
}
const char *Text(const cJSON *o, const char *key) {
  const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, key);
  return cJSON_IsString(v) ? v->valuestring : "";
}

// One report row as the table and the picture show it.
struct Row {
  std::string label;  // "Poker 4"
  uint32_t status;
  std::vector<double> p;
  std::vector<double> passed;                  // sequence mode
  std::vector<std::vector<double>> histogram;  // sequence mode
};

std::vector<Row> Rows(const cJSON *report) {
  std::vector<Row> rows;
  const cJSON *tests = cJSON_GetObjectItemCaseSensitive(report, "tests");
  for (const cJSON *t = tests != nullptr ? tests->child : nullptr; t != nullptr; t = t->next) {
    Row r{Text(t, "name"), static_cast<uint32_t>(Num(t, "status")), Numbers(t, "p"), Numbers(t, "passed"), {}};
    if (const double param = Num(t, "param"); param != 0)
      r.label.append(" ").append(std::to_string(static_cast<long>(param)));
    const cJSON *h = cJSON_GetObjectItemCaseSensitive(t, "histogram");
    for (const cJSON *bins = h != nullptr ? h->child : nullptr; bins != nullptr; bins = bins->next) {
      std::vector<double> v;
      for (const cJSON *b = bins->child; b != nullptr; b = b->next) v.push_back(b->valuedouble);
      r.histogram.push_back(v);
    }
    rows.push_back(std::move(r));
  }
  return rows;
}

std::string Format(const char *fmt, double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, fmt, v);
  return buf;
}

// Six decimals, or three significant digits for the very small ones.
std::string PValue(double p) { return Format(p > 0 && p < 1e-4 ? "%.3e" : "%.6f", p); }

const char *Verdict(uint32_t status) {
  return status == 0 ? "PASS" : status == ZEPH_RANDTEST_ERR_TOO_SHORT ? "SHORT" : "FAIL";
}

std::string Describe(uint32_t status) {
  switch (status) {
    case 0:
      return "every test passed";
    case ZEPH_RANDTEST_ERR_FILE:
      return "the input is missing, empty, not a regular file or could not be read whole";
    case ZEPH_RANDTEST_ERR_NO_MEMORY:
    case ZEPH_RANDTEST_ERR_DERIVATIVE_COPY:
      return "out of memory";
    case ZEPH_RANDTEST_ERR_TOO_SHORT:
      return "the input is too short for a test of the suite";
    default:
      return "a test failed";
  }
}

void PrintTable(const cJSON *report, const std::vector<Row> &rows) {
  const bool sequences = cJSON_GetObjectItemCaseSensitive(report, "sequences") != nullptr;
  if (sequences) {
    std::printf("%s suite, %.0f sequences of %.0f bits (%.0f bytes ignored), alpha 0.01, pass proportion at least %s\n",
                Text(report, "suite"), Num(report, "sequences"), Num(report, "sequence_bits"),
                Num(report, "ignored_bytes"), Format("%.4f", Num(report, "proportion_bound")).c_str());
    std::printf("%-30s %-24s %-22s %s\n", "test", "passed", "uniformity", "result");
  } else {
    std::printf("%s suite, %.0f bits, alpha 0.01\n", Text(report, "suite"), Num(report, "bits"));
    std::printf("%-30s %-24s %s\n", "test", "P-value", "result");
  }
  const double s = Num(report, "sequences");
  for (const Row &r : rows) {
    std::string p, passed;
    for (double v : r.p) p.append(p.empty() ? "" : " ").append(PValue(v));
    for (double v : r.passed)
      passed.append(passed.empty() ? "" : " ").append(Format("%.0f/", v)).append(Format("%.0f", s));
    if (sequences) {
      std::printf("%-30s %-24s %-22s %s\n", r.label.c_str(), passed.c_str(), p.c_str(), Verdict(r.status));
    } else {
      std::printf("%-30s %-24s %s\n", r.label.c_str(), p.c_str(), Verdict(r.status));
    }
  }
  const auto status = static_cast<uint32_t>(Num(report, "status"));
  std::string first;
  for (const Row &r : rows) {
    if (r.status == status && status >= ZEPH_RANDTEST_FAIL_FREQUENCY) {
      first = " (first failure: " + r.label + ")";
      break;
    }
  }
  std::printf("status %u: %s%s\n", status, Describe(status).c_str(), first.c_str());
}

// ---- SVG -------------------------------------------------------------------------

constexpr const char *kPass = "#2e7d32", *kFail = "#c62828";

// P-values per test on a log scale from 1e-6 to 1, with the alpha line.
std::string PlotSingle(const cJSON *report, const std::vector<Row> &rows) {
  const int slot = 38, left = 70, top = 50, plot_h = 300, width = left + slot * static_cast<int>(rows.size()) + 30;
  auto y = [&](double p) {
    const double l = std::log10(std::fmax(std::fmin(p, 1.0), 1e-6));
    return top + static_cast<int>(-l / 6.0 * plot_h);
  };
  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(width) +
                    "\" height=\"520\" font-family=\"sans-serif\" font-size=\"11\">\n";
  svg += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  svg += "<text x=\"" + std::to_string(left) + "\" y=\"24\" font-size=\"15\">zeph randtest: " + Text(report, "suite") +
         " suite, " + Format("%.0f", Num(report, "bits")) + " bits, status " + Format("%.0f", Num(report, "status")) +
         "</text>\n";
  for (int e = 0; e <= 6; ++e) {
    const int yy = top + e * plot_h / 6;
    svg += "<line x1=\"" + std::to_string(left) + "\" x2=\"" + std::to_string(width - 20) + "\" y1=\"" +
           std::to_string(yy) + "\" y2=\"" + std::to_string(yy) + "\" stroke=\"#ddd\"/>\n";
    svg += "<text x=\"" + std::to_string(left - 8) + "\" y=\"" + std::to_string(yy + 4) + "\" text-anchor=\"end\">" +
           (e == 0   ? "1"
            : e == 1 ? "0.1"
            : e == 2 ? "0.01"
                     : "1e-" + std::to_string(e)) +
           "</text>\n";
  }
  const int alpha = y(0.01);
  svg += "<line x1=\"" + std::to_string(left) + "\" x2=\"" + std::to_string(width - 20) + "\" y1=\"" +
         std::to_string(alpha) + "\" y2=\"" + std::to_string(alpha) + "\" stroke=\"" + kFail +
         "\" stroke-dasharray=\"6 4\"/>\n";
  svg += "<text x=\"" + std::to_string(width - 22) + "\" y=\"" + std::to_string(alpha - 4) +
         "\" text-anchor=\"end\" fill=\"" + kFail + "\">alpha = 0.01</text>\n";
  for (size_t i = 0; i < rows.size(); ++i) {
    const int x = left + slot * static_cast<int>(i) + slot / 2;
    const char *color = rows[i].status == 0 ? kPass : kFail;
    for (size_t k = 0; k < rows[i].p.size(); ++k) {
      const int dx = rows[i].p.size() == 2 ? (k == 0 ? -5 : 5) : 0;
      svg += "<circle cx=\"" + std::to_string(x + dx) + "\" cy=\"" + std::to_string(y(rows[i].p[k])) +
             "\" r=\"5\" fill=\"" + color + "\"><title>" + rows[i].label + ": P = " + Format("%.6g", rows[i].p[k]) +
             "</title></circle>\n";
    }
    svg += "<text transform=\"translate(" + std::to_string(x + 4) + "," + std::to_string(top + plot_h + 12) +
           ") rotate(-60)\" text-anchor=\"end\" fill=\"" + color + "\">" + rows[i].label + "</text>\n";
  }
  return svg + "</svg>\n";
}

// Per test and P-value: the histogram of the sequences' P-values in ten
// bins and the pass proportion against its bound.
std::string PlotSequences(const cJSON *report, const std::vector<Row> &rows) {
  struct Panel {
    const Row *row;
    size_t k;
  };
  std::vector<Panel> panels;
  for (const Row &r : rows)
    for (size_t k = 0; k < r.histogram.size(); ++k) panels.push_back({&r, k});
  const int cols = 5, pw = 210, ph = 156, top = 50;
  const int rows_n = (static_cast<int>(panels.size()) + cols - 1) / cols;
  const double s = Num(report, "sequences"), bound = Num(report, "proportion_bound");
  std::string svg =
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(cols * pw + 20) + "\" height=\"" +
      std::to_string(top + rows_n * ph + 10) +
      "\" font-family=\"sans-serif\" font-size=\"11\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  svg += "<text x=\"10\" y=\"24\" font-size=\"15\">zeph randtest: " + std::string(Text(report, "suite")) + " suite, " +
         Format("%.0f", s) + " sequences of " + Format("%.0f", Num(report, "sequence_bits")) +
         " bits, pass proportion at least " + Format("%.4f", bound) + ", status " +
         Format("%.0f", Num(report, "status")) + "</text>\n";
  for (size_t i = 0; i < panels.size(); ++i) {
    const Row &r = *panels[i].row;
    const size_t k = panels[i].k;
    const int x0 = 10 + static_cast<int>(i % cols) * pw, y0 = top + static_cast<int>(i / cols) * ph;
    const char *color = r.status == 0 ? kPass : kFail;
    const std::string title = r.label + (r.histogram.size() > 1 ? " (P" + std::to_string(k + 1) + ")" : "");
    svg += "<text x=\"" + std::to_string(x0) + "\" y=\"" + std::to_string(y0 + 12) + "\" fill=\"" + color +
           "\" font-weight=\"bold\">" + title + "</text>\n";
    double most = 1;
    for (double v : r.histogram[k]) most = std::fmax(most, v);
    const int base = y0 + 95, bar_h = 70;
    for (size_t b = 0; b < r.histogram[k].size(); ++b) {
      const int h = static_cast<int>(r.histogram[k][b] / most * bar_h);
      svg += "<rect x=\"" + std::to_string(x0 + static_cast<int>(b) * 18) + "\" y=\"" + std::to_string(base - h) +
             "\" width=\"16\" height=\"" + std::to_string(h) + "\" fill=\"#90a4ae\"><title>P in [" +
             Format("%.1f", b / 10.0) + ", " + Format("%.1f", (b + 1) / 10.0) +
             "): " + Format("%.0f", r.histogram[k][b]) + "</title></rect>\n";
    }
    svg += "<text x=\"" + std::to_string(x0) + "\" y=\"" + std::to_string(base + 10) +
           "\" font-size=\"8\" fill=\"#777\">P = 0</text><text x=\"" + std::to_string(x0 + 178) + "\" y=\"" +
           std::to_string(base + 10) + "\" font-size=\"8\" fill=\"#777\" text-anchor=\"end\">1</text>\n";
    // s/10 sequences per bin is what uniform P-values give.
    const int expected = base - static_cast<int>(s / 10 / most * bar_h);
    svg += "<line x1=\"" + std::to_string(x0) + "\" x2=\"" + std::to_string(x0 + 178) + "\" y1=\"" +
           std::to_string(expected) + "\" y2=\"" + std::to_string(expected) +
           "\" stroke=\"#455a64\" stroke-dasharray=\"3 3\"/>\n";
    const double proportion = k < r.passed.size() && s > 0 ? r.passed[k] / s : 0;
    svg += "<text x=\"" + std::to_string(x0) + "\" y=\"" + std::to_string(base + 22) + "\" fill=\"" +
           (proportion >= bound ? kPass : kFail) + "\">passed " + Format("%.4f", proportion) + "</text>\n";
    svg += "<text x=\"" + std::to_string(x0) + "\" y=\"" + std::to_string(base + 36) + "\">uniformity " +
           Format("%.4g", k < r.p.size() ? r.p[k] : NAN) + "</text>\n";
  }
  return svg + "</svg>\n";
}

// ---- Input -------------------------------------------------------------------------

// Sequence mode reads a file: standard input that is not one is copied to an
// unlinked temporary file first, so memory stays bounded.
bool StdinAsFile(std::unique_ptr<FILE, FileDeleter> *spool, std::string *path, std::string *error) {
  struct stat st {};
  if (fstat(0, &st) == 0 && S_ISREG(st.st_mode)) {
    *path = "/proc/self/fd/0";
    return true;
  }
  spool->reset(std::tmpfile());
  if (!*spool) {
    *error = std::string("cannot create a temporary file: ") + std::strerror(errno);
    return false;
  }
  std::vector<char> chunk(1 << 20);
  for (size_t got; (got = std::fread(chunk.data(), 1, chunk.size(), stdin)) != 0;) {
    if (std::fwrite(chunk.data(), 1, got, spool->get()) != got) {
      *error = "cannot spool standard input";
      return false;
    }
  }
  if (std::ferror(stdin) != 0 || std::fflush(spool->get()) != 0) {
    *error = "cannot read standard input";
    return false;
  }
  *path = "/proc/self/fd/" + std::to_string(fileno(spool->get()));
  return true;
}

int RunRandtest(const zeph_cli::Args &args) {
  if (args.words.size() != 1) return zeph_cli::UsageError(Self(), "name one FILE, or - for standard input");
  const std::string &input = args.words[0];
  uint64_t seq_bytes = 0;
  if (args.Has("--seq-bytes")) {
    const std::string v = args.Get("--seq-bytes");
    char *end = nullptr;
    errno = 0;
    seq_bytes = std::strtoull(v.c_str(), &end, 10);
    if (v.empty() || v[0] == '-' || *end != '\0' || errno != 0 || seq_bytes == 0) {
      return zeph_cli::UsageError(Self(), "--seq-bytes needs a positive number of bytes");
    }
  }
  const uint32_t suite = args.Has("--quick") ? 0 : 1;
  std::unique_ptr<ZEPH_RANDTEST_CTX, CtxDeleter> ctx(ZEPH_C_RandTest_New());
  if (!ctx) return zeph_cli::Fail(Self(), "out of memory");

  std::string error;
  if (input == "-" && seq_bytes == 0) {
    std::vector<uint8_t> data;
    if (!zeph_cli::ReadInput(input, &data, &error)) return zeph_cli::Fail(Self(), error);
    if (data.empty()) return zeph_cli::Fail(Self(), "standard input is empty; there is nothing to test");
    ZEPH_C_RandTest_Run(ctx.get(), suite, data.data(), data.size());
  } else {
    std::unique_ptr<FILE, FileDeleter> spool;
    std::string path = input;
    if (input == "-" && !StdinAsFile(&spool, &path, &error)) return zeph_cli::Fail(Self(), error);
    ZEPH_C_RandTest_RunFile(ctx.get(), suite, path.c_str(), seq_bytes);
  }

  uint64_t n = 0;
  std::string text;
  if (ZEPH_C_RandTest_Report(ctx.get(), nullptr, &n) == 0) {
    text.assign(n, '\0');
    if (ZEPH_C_RandTest_Report(ctx.get(), text.data(), &n) != 0) n = 0;
    text.resize(n);
  }
  const JsonPtr report(cJSON_Parse(text.c_str()));
  if (!report) return zeph_cli::Fail(Self(), "no report");
  const auto status = static_cast<uint32_t>(Num(report.get(), "status"));
  if (status == ZEPH_RANDTEST_ERR_FILE) return zeph_cli::Fail(Self(), "cannot test " + input + ": " + Describe(status));
  const std::vector<Row> rows = Rows(report.get());

  if (args.Has("--json")) {
    std::printf("%s\n", text.c_str());
  } else {
    PrintTable(report.get(), rows);
  }
  if (args.Has("--plot")) {
    const std::string plot = args.Get("--plot");
    const bool sequences = cJSON_GetObjectItemCaseSensitive(report.get(), "sequences") != nullptr;
    const std::string svg = sequences ? PlotSequences(report.get(), rows) : PlotSingle(report.get(), rows);
    std::unique_ptr<FILE, FileDeleter> out(std::fopen(plot.c_str(), "wb"));
    if (!out || std::fwrite(svg.data(), 1, svg.size(), out.get()) != svg.size() || std::fflush(out.get()) != 0) {
      return zeph_cli::Fail(Self(), "cannot write " + plot);
    }
  }
  return status == 0 ? zeph_cli::kOk : zeph_cli::kFailed;
}

}  // namespace
