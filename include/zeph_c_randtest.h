/* Randomness tests after GM/T 0005 over byte buffers and files: fifteen kinds
 * of test at significance level 0.01, a quick and a complete runner, and a
 * context API that reports every P-value and streams many-sequence files.
 *
 * Bits are taken most significant bit of each byte first; a buffer of len
 * bytes is a sequence of n = 8 * len bits. Bit counts are 64-bit.
 *
 * Statuses (0 is a pass):
 *   1   a required pointer is null
 *   2   a file is missing, empty, not a regular file or cannot be read whole
 *   4   the bit array or a work array cannot be allocated
 *   32  the sequence is too short for the test, has length 0, or a
 *       parameter is 0 or outside its range (listed at each test)
 *   33..47  the named test failed (ZEPH_RANDTEST_FAIL_*)
 *   0xFFFFFFFF  the binary-derivative copy cannot be allocated
 * A test passes when its P-value is at least 0.01; a NaN P-value never
 * passes. The runners stop at the first non-zero status and return it.
 *
 * The process-wide functions (the runners' building blocks, BIVO_epsilon and
 * the functions that read it) share one bit array: serialise calls into
 * them. The four runners and the context API never touch BIVO_epsilon and
 * may run on several threads at once (one context per thread). */
#ifndef ZEPH_C_RANDTEST_H
#define ZEPH_C_RANDTEST_H

#include <stdint.h>

#include "zeph_c_export.h"

ZEPH_BEGIN_DECLS

#define ZEPH_RANDTEST_ERR_NULL_POINTER       1u
#define ZEPH_RANDTEST_ERR_FILE               2u
#define ZEPH_RANDTEST_ERR_NO_MEMORY          4u
#define ZEPH_RANDTEST_ERR_TOO_SHORT          32u
#define ZEPH_RANDTEST_FAIL_FREQUENCY         33u
#define ZEPH_RANDTEST_FAIL_POKER             34u
#define ZEPH_RANDTEST_FAIL_APPROX_ENTROPY    35u
#define ZEPH_RANDTEST_FAIL_AUTOCORRELATION   36u
#define ZEPH_RANDTEST_FAIL_BINARY_DERIVATIVE 37u
#define ZEPH_RANDTEST_FAIL_BLOCK_FREQUENCY   38u
#define ZEPH_RANDTEST_FAIL_CUMULATIVE_SUMS   39u
#define ZEPH_RANDTEST_FAIL_DFT               40u
#define ZEPH_RANDTEST_FAIL_LINEAR_COMPLEXITY 41u
#define ZEPH_RANDTEST_FAIL_LONGEST_RUN       42u
#define ZEPH_RANDTEST_FAIL_RANK              43u
#define ZEPH_RANDTEST_FAIL_RUNS_DISTRIBUTION 44u
#define ZEPH_RANDTEST_FAIL_RUNS              45u
#define ZEPH_RANDTEST_FAIL_SERIAL            46u
#define ZEPH_RANDTEST_FAIL_UNIVERSAL         47u
#define ZEPH_RANDTEST_ERR_DERIVATIVE_COPY    0xFFFFFFFFu

/* ==== Runners ============================================================ */
/* Quick: Frequency; Poker m = 2.
 * Complete: Frequency; Poker m = 4, 8; ApproximateEntropy m = 2, 5;
 * AutoCorrelation d = 1, 2, 8, 16; BinaryDerivative k = 3, 7; BlockFrequency
 * M = 100; CumulativeSums; DiscreteFourierTransform; LinearComplexity M = 500;
 * LongestRunOfOnes; Rank; Runs; RunsDistribution; Serial m = 2, 5; Universal.
 * The file forms read the whole file first (file statuses 1, 2, 4). */
ZEPH_API uint32_t QuickRandomnessTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t CompleteRandomnessTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t QuickRandomnessTestOnBinFile(const char *path);
ZEPH_API uint32_t CompleteRandomnessTestOnBinFile(const char *path);

/* ==== One test over a buffer ============================================== */
/* Each expands buf into BIVO_epsilon, runs the test function below and frees
 * the array again. Parameter ranges (else 32):
 *   BlockFrequency M >= 1 with at least one block; Poker m 1..20 with at least
 *   one block; Serial m 2..20; ApproximateEntropy m 1..20; BinaryDerivative
 *   and AutoCorrelation 1 <= k, d < n; LinearComplexity uses M = 500. */
ZEPH_API uint32_t FrequencyTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t BlockFrequencyTest(const unsigned char *buf, uint64_t len, uint32_t M);
ZEPH_API uint32_t PokerTest(const unsigned char *buf, uint64_t len, uint32_t m);
ZEPH_API uint32_t SerialTest(const unsigned char *buf, uint64_t len, uint32_t m);
ZEPH_API uint32_t RunsTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t RunsDistributionTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t LongestRunOfOnesRunsTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t BinaryDerivativeTest(const unsigned char *buf, uint64_t len, uint32_t k);
ZEPH_API uint32_t AutoCorrelationTest(const unsigned char *buf, uint64_t len, uint32_t d);
ZEPH_API uint32_t MatrixRankTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t CumulativeSumsTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t ApproximateEntropyTest(const unsigned char *buf, uint64_t len, uint32_t m);
ZEPH_API uint32_t LinearComplexityTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t UniversalTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t DiscreteFourierTransformTest(const unsigned char *buf, uint64_t len);
ZEPH_API uint32_t FrequencyTestOnFile(const char *path);
ZEPH_API uint32_t PokerTestOnFile(const char *path, uint32_t m);

/* ==== The process-wide bit array and the tests over it =================== */
/* n bytes, one bit each (0 or 1; any non-zero byte reads as a one).
 * ReadBitsFromInput allocates it (malloc) and expands buf into it, releasing
 * an array it allocated before; the wrappers release it after their test.
 * Returns 0, 1 (null buf), 4 or 32 (len 0 or above 2^61). */
ZEPH_API extern unsigned char *BIVO_epsilon;
ZEPH_API uint32_t ReadBitsFromInput(const unsigned char *buf, uint64_t len);

/* The tests proper over the first n bits of BIVO_epsilon: 0, a failure
 * status, 32, 4, or 1 when BIVO_epsilon is null. */
ZEPH_API uint32_t Frequency(uint64_t n);
ZEPH_API uint32_t BlockFrequency(uint32_t M, uint64_t n);
ZEPH_API uint32_t Poker(uint32_t m, uint64_t n);
ZEPH_API uint32_t Serial(uint32_t m, uint64_t n);
ZEPH_API uint32_t Runs(uint64_t n);
ZEPH_API uint32_t RunsDistribution(uint64_t n);
ZEPH_API uint32_t LongestRunOfOnes(uint64_t n);
ZEPH_API uint32_t BinaryDerivative(uint32_t k, uint64_t n);
ZEPH_API uint32_t AutoCorrelation(uint32_t d, uint64_t n);
ZEPH_API uint32_t Rank(uint64_t n);
ZEPH_API uint32_t CumulativeSums(uint64_t n);
ZEPH_API uint32_t ApproximateEntropy(uint32_t m, uint64_t n);
/* Block size M from 1 to 5000 (the runners use 500). */
ZEPH_API uint32_t LinearComplexity(uint32_t M, uint64_t n);
ZEPH_API uint32_t Universal(uint64_t n);
ZEPH_API uint32_t DiscreteFourierTransform(uint64_t n);
/* The serial statistic psi^2_m over the n cyclic m-bit windows of
 * BIVO_epsilon; 0 for m of 0 or -1, for m outside -1..20, n 0 or a null
 * array; NaN when memory is short. */
ZEPH_API double psi2(int m, uint64_t n);
/* base^exponent modulo 2^64 (2^m pattern counts for the poker test). */
ZEPH_API uint64_t ComputePower(uint64_t base, uint32_t exponent);

/* ==== Numeric support ===================================================== */
/* Regularised incomplete gamma functions Q(a, x) and P(a, x); for a <= 0 or
 * x <= 0, igamc gives 1 and igam 0. Thread-safe (no sign global). */
ZEPH_API double cephes_igamc(double a, double x);
ZEPH_API double cephes_igam(double a, double x);
/* ln |Gamma(x)|; +inf at the poles 0, -1, -2, ... */
ZEPH_API double cephes_lgam(double x);
ZEPH_API double cephes_erf(double x);
ZEPH_API double cephes_erfc(double x);
/* Standard normal distribution function. */
ZEPH_API double cephes_normal(double x);
/* coef[0] x^N + ... + coef[N]; p1evl: x^N + coef[0] x^(N-1) + ... + coef[N-1]. */
ZEPH_API double cephes_polevl(double x, const double *coef, int N);
ZEPH_API double cephes_p1evl(double x, const double *coef, int N);

/* Real forward FFT in FFTPACK's layout. __ogg_fdrffti prepares wsave (2n
 * doubles: n of work space, then the twiddles) and ifac (15 ints: n, the
 * number of factors, the factors). __ogg_fdrfftf transforms r[0..n) in place
 * into r[0] = sum, then Re and Im of terms 1, 2, ... (for even n, the last
 * value is the real term n/2): F(k) = sum r(j) exp(-2 pi i j k / n).
 * n below 2: nothing happens. A wsave/ifac pair prepared for another length,
 * or work memory missing for a prime factor above 50, fills r with NaN. */
ZEPH_API void __ogg_fdrffti(int n, double *wsave, int *ifac);
ZEPH_API void __ogg_fdrfftf(int n, double *r, double *wsave, int *ifac);

/* ==== GF(2) matrices for the rank test ==================================== */
#define MATRIX_FORWARD_ELIMINATION  0
#define MATRIX_BACKWARD_ELIMINATION 1
/* M rows of Q entries (0 or 1), zeroed; one allocation; NULL on failure or
 * for M or Q below 1. Release with delete_matrix. */
ZEPH_API unsigned char **create_matrix(int M, int Q);
/* Fills m with matrix k of BIVO_epsilon: row i is bits k*M*Q + i*Q onward. */
ZEPH_API void def_matrix(int M, int Q, unsigned char **m, uint64_t k);
ZEPH_API void delete_matrix(int M, unsigned char **matrix);
/* Rank by elimination on the diagonal, forward then backward; the matrix is
 * overwritten. */
ZEPH_API int computeRank(int M, int Q, unsigned char **matrix);
ZEPH_API void perform_elementary_row_operations(int flag, int i, int M, int Q, unsigned char **A);
/* Swaps row i with the next row (forward: below, backward: above) that has a
 * one in column i; 1 when it swapped. */
ZEPH_API int find_unit_element_and_swap(int flag, int i, int M, int Q, unsigned char **A);
ZEPH_API int swap_rows(int i, int index, int Q, unsigned char **A);
/* m minus the number of all-zero rows. */
ZEPH_API int determine_rank(int m, int M, int Q, unsigned char **A);

/* ==== Contexts: every P-value, sequence mode, threads ===================== */
typedef struct zeph_randtest_ctx_st ZEPH_RANDTEST_CTX;

/* NULL when memory is short. */
ZEPH_API ZEPH_RANDTEST_CTX *ZEPH_C_RandTest_New(void);
/* NULL: no-op. */
ZEPH_API void ZEPH_C_RandTest_Free(ZEPH_RANDTEST_CTX *ctx);
/* Runs every test of the suite (0 quick, 1 complete; else 32) without
 * stopping and returns what the matching runner returns for the same bytes. */
ZEPH_API uint32_t ZEPH_C_RandTest_Run(ZEPH_RANDTEST_CTX *ctx, uint32_t suite, const unsigned char *buf, uint64_t len);
/* seq_bytes 0: the whole file is one sequence (as Run). Otherwise the file is
 * streamed in sequences of seq_bytes bytes, memory bounded by one sequence;
 * a tail shorter than a sequence is ignored and reported. A test fails when
 * its pass proportion is below (1 - a) - 3 sqrt(a (1 - a) / s) for s
 * sequences, or, from 55 sequences, its uniformity P-value is below 0.0001;
 * the status is the first failing test's (32 when no whole sequence fits). */
ZEPH_API uint32_t ZEPH_C_RandTest_RunFile(ZEPH_RANDTEST_CTX *ctx, uint32_t suite, const char *path, uint64_t seq_bytes);
/* The last run as JSON (docs/randtest.md) under the library's output-buffer
 * protocol: out NULL asks for the length, *io_len counts the terminating NUL
 * and receives the text length after a write; ERR_BUFFER_TOO_SMALL with the
 * length written back when the capacity is short (nothing written);
 * ERR_INVALID_PARAMETER for a null ctx or io_len, or before any run. */
ZEPH_API uint32_t ZEPH_C_RandTest_Report(const ZEPH_RANDTEST_CTX *ctx, char *out, uint64_t *io_len);

ZEPH_END_DECLS

#endif
