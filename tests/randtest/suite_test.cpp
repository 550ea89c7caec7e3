// The public functions: runner order and statuses, the process-wide bit
// array's life, file forms and bad files, contexts, the report and its
// output protocol, sequence mode, and threads.
#include <atomic>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>

#include <cjson/cJSON.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "randtest/file_input.hpp"
#include "test_support.hpp"
#include "zeph_c_randtest.h"
#include "zeph_c_status.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Seeded bytes that pass every test of the complete suite (and of the
// quick one); seed 10 fails only later rows, first the autocorrelation.
const Bytes &Good() {
  static const Bytes b = zeph_test::RandomBytes(50000, 3);
  return b;
}

struct Ctx {
  Ctx() : p(ZEPH_C_RandTest_New()) {}
  ~Ctx() { ZEPH_C_RandTest_Free(p); }
  std::string Report() const {
    uint64_t n = 0;
    if (ZEPH_C_RandTest_Report(p, nullptr, &n) != 0) return "";
    std::string s(n, '\0');
    if (ZEPH_C_RandTest_Report(p, s.data(), &n) != 0) return "";
    s.resize(n);
    return s;
  }
  ZEPH_RANDTEST_CTX *p;
};

struct Json {
  explicit Json(const std::string &text) : root(cJSON_Parse(text.c_str())) {}
  ~Json() { cJSON_Delete(root); }
  double Num(const char *key) const { return cJSON_GetObjectItem(root, key)->valuedouble; }
  cJSON *Tests() const { return cJSON_GetObjectItem(root, "tests"); }
  cJSON *root;
};

TEST(Runners, OrderAndStatusesFromCraftedSequencesInBuffersAndFiles) {
  const Bytes zeros(32, 0), nibbles(1000, 0x0F), late = zeph_test::RandomBytes(50000, 10);
  struct Case {
    const char *what;
    const Bytes &bytes;
    uint32_t quick, complete;
  };
  const Case cases[] = {
      {"32 zero bytes", zeros, 33, 33},
      {"0x0F repeated: balanced, two patterns", nibbles, 34, 34},
      {"seeded random", Good(), 0, 0},
      {"fails the autocorrelation first", late, 0, 36},
  };
  zeph_test::TempDir dir;
  const std::string path = dir.file("sequence");
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const uint8_t *b = c.bytes.data();
    zeph_test::WriteBytes(path, c.bytes);  // the file forms give what the buffer forms give
    EXPECT_EQ(QuickRandomnessTest(b, c.bytes.size()), c.quick);
    EXPECT_EQ(QuickRandomnessTestOnBinFile(path.c_str()), c.quick);
    EXPECT_EQ(CompleteRandomnessTest(b, c.bytes.size()), c.complete);
    EXPECT_EQ(CompleteRandomnessTestOnBinFile(path.c_str()), c.complete);
    EXPECT_EQ(FrequencyTestOnFile(path.c_str()), FrequencyTest(b, c.bytes.size()));
    EXPECT_EQ(PokerTestOnFile(path.c_str(), 4), PokerTest(b, c.bytes.size(), 4));
    Ctx ctx, from_file;
    EXPECT_EQ(ZEPH_C_RandTest_Run(ctx.p, 1, b, c.bytes.size()), c.complete);
    EXPECT_EQ(ZEPH_C_RandTest_RunFile(from_file.p, 1, path.c_str(), 0), c.complete);
    EXPECT_EQ(from_file.Report(), ctx.Report());
    EXPECT_EQ(ZEPH_C_RandTest_Run(ctx.p, 0, b, c.bytes.size()), c.quick);
  }
  // The context ran every row: the nibble sequence fails far more than the
  // poker row the runner stopped at.
  Ctx ctx;
  ZEPH_C_RandTest_Run(ctx.p, 1, nibbles.data(), nibbles.size());
  const Json report(ctx.Report());
  int failed = 0;
  for (cJSON *t = report.Tests()->child; t != nullptr; t = t->next)
    failed += cJSON_GetObjectItem(t, "status")->valueint != 0;
  EXPECT_GT(failed, 10);
}

TEST(Runners, EdgeStatuses) {
  const Bytes b = zeph_test::RandomBytes(200, 1);
  const uint8_t *p = b.data();
  struct Case {
    const char *what;
    uint32_t got, want;
  };
  const Case cases[] = {
      {"null buffer", CompleteRandomnessTest(nullptr, 10), ZEPH_RANDTEST_ERR_NULL_POINTER},
      {"null wrapper buffer", PokerTest(nullptr, 10, 4), ZEPH_RANDTEST_ERR_NULL_POINTER},
      {"length 0", QuickRandomnessTest(p, 0), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"wrapper length 0", FrequencyTest(p, 0), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"block size 0", BlockFrequencyTest(p, 200, 0), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"block above the sequence", BlockFrequencyTest(p, 200, 1601), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"poker m 0", PokerTest(p, 200, 0), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"poker m 21", PokerTest(p, 200, 21), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"serial m 1", SerialTest(p, 200, 1), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"entropy m 0", ApproximateEntropyTest(p, 200, 0), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"derivative k 0", BinaryDerivativeTest(p, 200, 0), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"derivative k = n", BinaryDerivativeTest(p, 200, 1600), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"autocorrelation d 0", AutoCorrelationTest(p, 200, 0), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"a test function with no array", LinearComplexity(500, 1000), ZEPH_RANDTEST_ERR_NULL_POINTER},
      {"under 16 bytes: longest run", LongestRunOfOnesRunsTest(p, 15), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"16 bytes: longest run runs", LongestRunOfOnesRunsTest(p, 16), 0},
      {"under 128 bytes: no matrix", MatrixRankTest(p, 127), ZEPH_RANDTEST_FAIL_RANK},
      {"under 38 bits: runs distribution", RunsDistributionTest(p, 4), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"under 387840 bits: universal", UniversalTest(p, 200), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"complexity under one block", LinearComplexityTest(p, 62), ZEPH_RANDTEST_ERR_TOO_SHORT},
      {"unknown suite", ZEPH_C_RandTest_Run(nullptr, 0, p, 200), ZEPH_RANDTEST_ERR_NULL_POINTER},
  };
  for (const Case &c : cases) EXPECT_EQ(c.got, c.want) << c.what;
  Ctx ctx;
  EXPECT_EQ(ZEPH_C_RandTest_Run(ctx.p, 2, p, 200), ZEPH_RANDTEST_ERR_TOO_SHORT);
  EXPECT_EQ(ZEPH_C_RandTest_RunFile(ctx.p, 1, nullptr, 0), ZEPH_RANDTEST_ERR_NULL_POINTER);
  EXPECT_EQ(ComputePower(2, 20), 1u << 20);
  EXPECT_EQ(ComputePower(3, 0), 1u);
}

TEST(ProcessWideArray, FilledMostSignificantBitFirstAndFreedAfterEachWrapper) {
  const uint8_t a5[2] = {0xA5, 0x01};
  ASSERT_EQ(ReadBitsFromInput(a5, 2), 0u);
  EXPECT_EQ(Bytes(BIVO_epsilon, BIVO_epsilon + 16), (Bytes{1, 0, 1, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}));
  // Test functions read the array the host left there; a second fill
  // replaces the first without leaking it.
  const Bytes &g = Good();
  ASSERT_EQ(ReadBitsFromInput(g.data(), g.size()), 0u);
  const uint64_t n = g.size() * 8;
  const uint32_t direct = Serial(5, n);
  EXPECT_EQ(direct, SerialTest(g.data(), g.size(), 5));
  EXPECT_EQ(BIVO_epsilon, nullptr);  // the wrapper freed it
  // A host's own array is read, never freed (ASan would see that).
  unsigned char host[300];
  for (int i = 0; i < 300; ++i) host[i] = i % 3 == 0;
  BIVO_epsilon = host;
  EXPECT_EQ(Frequency(300), ZEPH_RANDTEST_FAIL_FREQUENCY);
  EXPECT_EQ(psi2(0, 300), 0.0);
  EXPECT_DOUBLE_EQ(psi2(2, 300), 100.0);  // 00, 01, 10 100 times each: 4/300 * 30000 - 300
  EXPECT_EQ(FrequencyTest(g.data(), g.size()), 0u);
  EXPECT_EQ(BIVO_epsilon, nullptr);
  EXPECT_EQ(host[0], 1);
  EXPECT_EQ(Frequency(300), ZEPH_RANDTEST_ERR_NULL_POINTER);
}

class Files : public testing::Test {
 protected:
  std::string Put(const std::string &name, const Bytes &b) {
    zeph_test::WriteBytes(dir_.file(name), b);
    return dir_.file(name);
  }
  zeph_test::TempDir dir_;
};

TEST_F(Files, BadFilesGiveTheFileStatusNeverAHang) {
  const std::string empty = Put("empty", {}), fifo = dir_.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string &path : {dir_.file("missing"), empty, dir_.path().string(), fifo}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(CompleteRandomnessTestOnBinFile(path.c_str()), ZEPH_RANDTEST_ERR_FILE);
    EXPECT_EQ(FrequencyTestOnFile(path.c_str()), ZEPH_RANDTEST_ERR_FILE);
    Ctx ctx;
    EXPECT_EQ(ZEPH_C_RandTest_RunFile(ctx.p, 0, path.c_str(), 0), ZEPH_RANDTEST_ERR_FILE);
    EXPECT_EQ(ZEPH_C_RandTest_RunFile(ctx.p, 0, path.c_str(), 100), ZEPH_RANDTEST_ERR_FILE);
    EXPECT_EQ(Json(ctx.Report()).Num("status"), ZEPH_RANDTEST_ERR_FILE);
  }
  EXPECT_EQ(QuickRandomnessTestOnBinFile(nullptr), ZEPH_RANDTEST_ERR_NULL_POINTER);
  // A file that shrinks after it was measured ends the read with the file
  // status.
  const std::string shrinking = Put("shrinking", Bytes(4096, 1));
  zeph::randtest::InputFile f;
  ASSERT_EQ(f.Open(shrinking.c_str()), 0u);
  ASSERT_EQ(truncate(shrinking.c_str(), 1000), 0);
  Bytes buf(f.size());
  EXPECT_EQ(f.Read(buf.data(), buf.size()), ZEPH_RANDTEST_ERR_FILE);
}

TEST(Report, LayoutAndOutputProtocol) {
  Ctx ctx;
  uint64_t n = 0;
  EXPECT_EQ(ZEPH_C_RandTest_Report(ctx.p, nullptr, &n), ERR_INVALID_PARAMETER);  // nothing run yet
  ASSERT_EQ(ZEPH_C_RandTest_Run(ctx.p, 1, Good().data(), Good().size()), 0u);
  const std::string text = ctx.Report();
  const Json report(text);
  ASSERT_NE(report.root, nullptr) << text;
  EXPECT_STREQ(cJSON_GetObjectItem(report.root, "suite")->valuestring, "complete");
  EXPECT_EQ(report.Num("bits"), 400000);
  EXPECT_EQ(report.Num("alpha"), 0.01);
  EXPECT_EQ(report.Num("status"), 0);
  // Each row as name, parameter and number of P-values, in the report's order.
  std::string rows;
  for (cJSON *t = report.Tests()->child; t != nullptr; t = t->next) {
    rows += std::string(cJSON_GetObjectItem(t, "name")->valuestring) + " " +
            std::to_string(cJSON_GetObjectItem(t, "param")->valueint) + "/" +
            std::to_string(cJSON_GetArraySize(cJSON_GetObjectItem(t, "p"))) + " ";
  }
  EXPECT_EQ(rows,
            "Frequency 0/1 Poker 4/1 Poker 8/1 ApproximateEntropy 2/1 ApproximateEntropy 5/1 AutoCorrelation 1/1 "
            "AutoCorrelation 2/1 AutoCorrelation 8/1 AutoCorrelation 16/1 BinaryDerivative 3/1 BinaryDerivative 7/1 "
            "BlockFrequency 100/1 CumulativeSums 0/2 DiscreteFourierTransform 0/1 LinearComplexity 500/1 "
            "LongestRunOfOnes 0/1 Rank 0/1 Runs 0/1 RunsDistribution 0/1 Serial 2/2 Serial 5/2 Universal 0/1 ");
  // Null asks (terminator counted); short capacity writes nothing; an exact
  // fit writes the text and gives back its length.
  ASSERT_EQ(ZEPH_C_RandTest_Report(ctx.p, nullptr, &n), 0u);
  EXPECT_EQ(n, text.size() + 1);
  std::string buf(n + 8, '#');
  uint64_t small = n - 1;
  EXPECT_EQ(ZEPH_C_RandTest_Report(ctx.p, buf.data(), &small), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(small, n);
  EXPECT_EQ(buf, std::string(n + 8, '#'));
  uint64_t exact = n;
  ASSERT_EQ(ZEPH_C_RandTest_Report(ctx.p, buf.data(), &exact), 0u);
  EXPECT_EQ(exact, text.size());
  EXPECT_EQ(std::string(buf.c_str()), text);
  EXPECT_EQ(buf[n], '#');
  EXPECT_EQ(ZEPH_C_RandTest_Report(nullptr, nullptr, &n), ERR_INVALID_PARAMETER);
  EXPECT_EQ(ZEPH_C_RandTest_Report(ctx.p, nullptr, nullptr), ERR_INVALID_PARAMETER);
  ZEPH_C_RandTest_Free(nullptr);
}

TEST_F(Files, SequenceModeAggregatesAndJudges) {
  // 60 sequences of 1000 bytes and a 123-byte tail, quick suite.
  Bytes good = zeph_test::RandomBytes(60 * 1000 + 123, 5);
  Bytes biased = good;
  for (size_t i = 0; i < biased.size(); i += 2) biased[i] |= 0x11;  // more ones
  struct Case {
    std::string path;
    uint32_t status;
  };
  const Case cases[] = {{Put("good", good), 0}, {Put("biased", biased), ZEPH_RANDTEST_FAIL_FREQUENCY}};
  for (const Case &c : cases) {
    Ctx ctx;
    EXPECT_EQ(ZEPH_C_RandTest_RunFile(ctx.p, 0, c.path.c_str(), 1000), c.status) << c.path;
    const Json r(ctx.Report());
    EXPECT_EQ(r.Num("sequences"), 60);
    EXPECT_EQ(r.Num("sequence_bits"), 8000);
    EXPECT_EQ(r.Num("ignored_bytes"), 123);
    EXPECT_NEAR(r.Num("proportion_bound"), 0.99 - 3 * std::sqrt(0.01 * 0.99 / 60), 1e-15);
    for (cJSON *t = r.Tests()->child; t != nullptr; t = t->next) {
      cJSON *histogram = cJSON_GetArrayItem(cJSON_GetObjectItem(t, "histogram"), 0);
      double total = 0;
      for (cJSON *bin = histogram->child; bin != nullptr; bin = bin->next) total += bin->valuedouble;
      EXPECT_EQ(total, 60);
      EXPECT_LE(cJSON_GetArrayItem(cJSON_GetObjectItem(t, "passed"), 0)->valuedouble, 60);
    }
  }
  Ctx ctx;
  EXPECT_EQ(ZEPH_C_RandTest_RunFile(ctx.p, 0, cases[0].path.c_str(), 70000), ZEPH_RANDTEST_ERR_TOO_SHORT);
  EXPECT_EQ(Json(ctx.Report()).Num("ignored_bytes"), 60123);
}

TEST(Threads, ContextsAndRunnersAtOnceGiveTheSerialResults) {
  const Bytes late = zeph_test::RandomBytes(50000, 10);
  Ctx serial;
  ZEPH_C_RandTest_Run(serial.p, 1, late.data(), late.size());
  const std::string want = serial.Report();
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2; ++i) {
        if (t % 2 == 0) {
          Ctx ctx;
          wrong += ZEPH_C_RandTest_Run(ctx.p, 1, late.data(), late.size()) != 36 || ctx.Report() != want;
        } else {
          wrong += CompleteRandomnessTest(late.data(), late.size()) != 36;
          wrong += QuickRandomnessTest(Good().data(), Good().size()) != 0;
        }
      }
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
