// The binary matrix rank test, and the byte-per-entry matrix helpers that
// hosts use over the process-wide bit array.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "randtest/randtest.hpp"

namespace zeph::randtest {
namespace {

// Probability that a random 32 x 32 matrix over GF(2) has rank r, as the
// reference code computes it.
double RankProbability(int r) {
  double product = 1.0;
  for (int i = 0; i <= r - 1; ++i) {
    const double a = 1.0 - std::ldexp(1.0, i - 32);
    product *= a * a / (1.0 - std::ldexp(1.0, i - r));
  }
  return std::ldexp(1.0, r * (32 + 32 - r) - 32 * 32) * product;
}

}  // namespace

int Rank32(uint32_t rows[32]) {
  int rank = 0;
  for (uint32_t column = uint32_t{1} << 31; column != 0 && rank < 32; column >>= 1) {
    int pivot = rank;
    while (pivot < 32 && (rows[pivot] & column) == 0) ++pivot;
    if (pivot == 32) continue;
    std::swap(rows[rank], rows[pivot]);
    // Branch-free: the bit is a coin toss for random rows.
    for (int i = rank + 1; i < 32; ++i) rows[i] ^= rows[rank] & (0u - ((rows[i] & column) != 0));
    ++rank;
  }
  return rank;
}

Outcome RankStat(const Sequence &b) {
  const uint64_t matrices = b.size() / 1024;
  // No whole matrix: the test fails without a P-value.
  if (matrices == 0) return Outcome{ZEPH_RANDTEST_FAIL_RANK, 0, {0, 0}};
  uint64_t full = 0, less_one = 0;
  for (uint64_t k = 0; k < matrices; ++k) {
    uint32_t rows[32];
    for (int i = 0; i < 32; ++i) rows[i] = static_cast<uint32_t>(b.Window(k * 1024 + 32 * i, 32));
    const int r = Rank32(rows);
    full += r == 32;
    less_one += r == 31;
  }
  const double p32 = RankProbability(32), p31 = RankProbability(31), p30 = 1.0 - (p32 + p31);
  const double n = static_cast<double>(matrices);
  const double f32 = static_cast<double>(full), f31 = static_cast<double>(less_one), f30 = n - (f32 + f31);
  const double chi2 = (f32 - n * p32) * (f32 - n * p32) / (n * p32) + (f31 - n * p31) * (f31 - n * p31) / (n * p31) +
                      (f30 - n * p30) * (f30 - n * p30) / (n * p30);
  return Outcome{0, 1, {std::exp(-chi2 / 2.0), 0}};
}

}  // namespace zeph::randtest

extern "C" {

ZEPH_API unsigned char **create_matrix(int M, int Q) {
  if (M < 1 || Q < 1) return nullptr;
  const size_t rows = static_cast<size_t>(M), cols = static_cast<size_t>(Q);
  // The row pointers and the entries in one block.
  auto **m = static_cast<unsigned char **>(std::calloc(1, rows * sizeof(unsigned char *) + rows * cols));
  if (m == nullptr) return nullptr;
  auto *entries = reinterpret_cast<unsigned char *>(m + rows);
  for (size_t i = 0; i < rows; ++i) m[i] = entries + i * cols;
  return m;
}

ZEPH_API void def_matrix(int M, int Q, unsigned char **m, uint64_t k) {
  if (m == nullptr || BIVO_epsilon == nullptr || M < 1 || Q < 1) return;
  const uint64_t start = k * static_cast<uint64_t>(M) * static_cast<uint64_t>(Q);
  for (int i = 0; i < M; ++i) {
    for (int j = 0; j < Q; ++j) m[i][j] = BIVO_epsilon[start + static_cast<uint64_t>(i) * Q + j] != 0;
  }
}

ZEPH_API void delete_matrix(int M, unsigned char **matrix) {
  (void)M;
  std::free(matrix);
}

ZEPH_API int swap_rows(int i, int index, int Q, unsigned char **A) {
  if (A == nullptr) return 0;
  for (int p = 0; p < Q; ++p) std::swap(A[i][p], A[index][p]);
  return 1;
}

ZEPH_API void perform_elementary_row_operations(int flag, int i, int M, int Q, unsigned char **A) {
  if (A == nullptr) return;
  if (flag == MATRIX_FORWARD_ELIMINATION) {
    for (int j = i + 1; j < M; ++j) {
      if (A[j][i] == 1) {
        for (int k = i; k < Q; ++k) A[j][k] ^= A[i][k];
      }
    }
  } else {
    for (int j = i - 1; j >= 0; --j) {
      if (A[j][i] == 1) {
        for (int k = 0; k < Q; ++k) A[j][k] ^= A[i][k];
      }
    }
  }
}

ZEPH_API int find_unit_element_and_swap(int flag, int i, int M, int Q, unsigned char **A) {
  if (A == nullptr) return 0;
  if (flag == MATRIX_FORWARD_ELIMINATION) {
    int index = i + 1;
    while (index < M && A[index][i] == 0) ++index;
    return index < M ? swap_rows(i, index, Q, A) : 0;
  }
  int index = i - 1;
  while (index >= 0 && A[index][i] == 0) --index;
  return index >= 0 ? swap_rows(i, index, Q, A) : 0;
}

ZEPH_API int determine_rank(int m, int M, int Q, unsigned char **A) {
  if (A == nullptr) return 0;
  int rank = m;
  for (int i = 0; i < M; ++i) {
    bool zero = true;
    for (int j = 0; j < Q && zero; ++j) zero = A[i][j] == 0;
    if (zero) --rank;
  }
  return rank;
}

ZEPH_API int computeRank(int M, int Q, unsigned char **matrix) {
  if (matrix == nullptr || M < 1 || Q < 1) return 0;
  const int m = M < Q ? M : Q;
  for (int i = 0; i < m - 1; ++i) {
    if (matrix[i][i] == 1 || find_unit_element_and_swap(MATRIX_FORWARD_ELIMINATION, i, M, Q, matrix) == 1) {
      perform_elementary_row_operations(MATRIX_FORWARD_ELIMINATION, i, M, Q, matrix);
    }
  }
  for (int i = m - 1; i > 0; --i) {
    if (matrix[i][i] == 1 || find_unit_element_and_swap(MATRIX_BACKWARD_ELIMINATION, i, M, Q, matrix) == 1) {
      perform_elementary_row_operations(MATRIX_BACKWARD_ELIMINATION, i, M, Q, matrix);
    }
  }
  return determine_rank(m, M, Q, matrix);
}

}  // extern "C"
