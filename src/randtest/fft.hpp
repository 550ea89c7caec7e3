// A real forward FFT in FFTPACK's layout: stages for the factors 4, 2, 3 and
// 5 with precomputed twiddles, and Bluestein's chirp transform for larger
// prime factors, so every length costs O(n log n).
//
// Output ("halfcomplex"): r[0] = F(0), then r[2k-1], r[2k] = Re, Im of F(k)
// for k = 1 .. (n-1)/2, and r[n-1] = F(n/2) for even n, where
// F(k) = sum_j r(j) exp(-2 pi i j k / n).
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace zeph::randtest {

// The factors of n in FFTPACK's order: 4s, 2s, 3s, 5s, then larger primes,
// with a single 2 moved to the front. Empty for n below 2.
std::vector<size_t> FftFactors(size_t n);

// The twiddles of every stage in FFTPACK's wsave layout: per factor (first
// to last), per j = 1 .. ip-1, ido doubles holding cos, sin of
// 2 pi j q / (ip ido) for q = 1 .. (ido-1)/2. At most n - 1 doubles.
void FftTwiddles(size_t n, std::span<const size_t> factors, double *wa);

// Transforms r[0..n) in place, ch[0..n) as work space. Throws std::bad_alloc
// when a stage of a prime factor above 5 cannot get its small tables.
void FftForward(size_t n, std::span<const size_t> factors, const double *wa, double *r, double *ch);

class Roots;

// One length's plan and arrays, kept for the next transform of that length:
// the values and a work array of n doubles each, and the twiddles of every
// stage but the largest (about n / 4 doubles), whose twiddles come from two
// small root tables instead.
class RealFft {
 public:
  RealFft();
  ~RealFft();
  RealFft(const RealFft &) = delete;
  RealFft &operator=(const RealFft &) = delete;

  // Sizes the arrays for n points (throws std::bad_alloc, also when they
  // would not fit in physical memory).
  void Prepare(size_t n);
  double *data() { return r_.get(); }
  void Transform();

 private:
  size_t n_ = 0;
  std::vector<size_t> factors_;
  std::unique_ptr<Roots> roots_;
  std::vector<double> twiddles_;
  std::vector<const double *> tables_;
  // Mapped afresh per length and left as the kernel gives them (every use
  // writes before it reads); large ones ask for huge pages, so a one-off
  // transform does not spend as long in page faults as in arithmetic.
  struct Unmap {
    size_t bytes;  // 0: from new[]
    void operator()(double *p) const;
  };
  using Array = std::unique_ptr<double[], Unmap>;
  static Array Map(size_t n);
  Array r_{nullptr, Unmap{0}}, ch_{nullptr, Unmap{0}};
};

}  // namespace zeph::randtest
