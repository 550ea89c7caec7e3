// The real forward FFT. Each stage combines ip interleaved transforms of
// length ido (halfcomplex, from the previous stage) into transforms of length
// ip * ido: twiddle, a small complex DFT over the ip inputs, and conjugate
// symmetry to place the results. Stages run from the last factor to the
// first, as FFTPACK's rfftf does, so the twiddle layout is FFTPACK's.
#include "randtest/fft.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

#include "zeph_c_randtest.h"

namespace zeph::randtest {
namespace {

constexpr double kTwoPi = 6.283185307179586476925286766559;
// Above this a prime factor's small DFTs go through Bluestein's transform.
constexpr size_t kDirectDftLimit = 50;

struct Cx {
  double re, im;
};
inline Cx Add(Cx a, Cx b) { return {a.re + b.re, a.im + b.im}; }
inline Cx Sub(Cx a, Cx b) { return {a.re - b.re, a.im - b.im}; }
inline Cx Mul(Cx a, Cx b) { return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re}; }
inline Cx Scale(Cx a, double s) { return {a.re * s, a.im * s}; }
// -i * a
inline Cx MinusI(Cx a) { return {a.im, -a.re}; }

Cx Turn(double fraction) {  // exp(2 pi i fraction)
  const double a = kTwoPi * fraction;
  return {std::cos(a), std::sin(a)};
}

}  // namespace

// exp(2 pi i t / n) for t < n from two tables of about sqrt(n) entries:
// one complex product per value, within a few ulps.
class Roots {
 public:
  explicit Roots(size_t n) : n_(n), step_(static_cast<size_t>(std::ceil(std::sqrt(static_cast<double>(n))))) {
    lo_.resize(step_);
    hi_.resize(n / step_ + 1);
    for (size_t u = 0; u < lo_.size(); ++u) lo_[u] = Turn(static_cast<double>(u) / static_cast<double>(n_));
    for (size_t v = 0; v < hi_.size(); ++v) hi_[v] = Turn(static_cast<double>(v * step_) / static_cast<double>(n_));
  }
  Cx operator()(size_t t) const { return Mul(hi_[t / step_], lo_[t % step_]); }

  // The exponents inc, 2 inc, 3 inc, ... without a division per value.
  struct Walk {
    size_t hi, lo, inc_hi, inc_lo, step;
    void Next() {
      hi += inc_hi;
      lo += inc_lo;
      if (lo >= step) {
        lo -= step;
        ++hi;
      }
    }
  };
  Walk Start(size_t inc) const { return {inc / step_, inc % step_, inc / step_, inc % step_, step_}; }
  Cx operator()(const Walk &at) const { return Mul(hi_[at.hi], lo_[at.lo]); }

 private:
  size_t n_, step_;
  std::vector<Cx> lo_, hi_;
};

namespace {

// ---- Small DFTs: Z(r) = sum_j T(j) exp(-2 pi i j r / p) ------------------------

struct Dft2 {
  static constexpr size_t size() { return 2; }
  void operator()(const Cx *t, Cx *z) const {
    z[0] = Add(t[0], t[1]);
    z[1] = Sub(t[0], t[1]);
  }
};

struct Dft3 {
  static constexpr size_t size() { return 3; }
  void operator()(const Cx *t, Cx *z) const {
    constexpr double kSin = 0.86602540378443864676;  // sin(2 pi / 3)
    const Cx sum = Add(t[1], t[2]);
    const Cx mid = Sub(t[0], Scale(sum, 0.5));
    const Cx rot = Scale(MinusI(Sub(t[1], t[2])), kSin);
    z[0] = Add(t[0], sum);
    z[1] = Add(mid, rot);
    z[2] = Sub(mid, rot);
  }
};

struct Dft4 {
  static constexpr size_t size() { return 4; }
  void operator()(const Cx *t, Cx *z) const {
    const Cx a = Add(t[0], t[2]), b = Sub(t[0], t[2]);
    const Cx c = Add(t[1], t[3]), d = MinusI(Sub(t[1], t[3]));
    z[0] = Add(a, c);
    z[1] = Add(b, d);
    z[2] = Sub(a, c);
    z[3] = Sub(b, d);
  }
};

struct Dft5 {
  static constexpr size_t size() { return 5; }
  void operator()(const Cx *t, Cx *z) const {
    constexpr double kC1 = 0.30901699437494742410, kC2 = -0.80901699437494742410;  // cos(2 pi/5), cos(4 pi/5)
    constexpr double kS1 = 0.95105651629515357212, kS2 = 0.58778525229247312917;   // sin(2 pi/5), sin(4 pi/5)
    const Cx a1 = Add(t[1], t[4]), b1 = Sub(t[1], t[4]);
    const Cx a2 = Add(t[2], t[3]), b2 = Sub(t[2], t[3]);
    const Cx m1 = Add(t[0], Add(Scale(a1, kC1), Scale(a2, kC2)));
    const Cx m2 = Add(t[0], Add(Scale(a1, kC2), Scale(a2, kC1)));
    const Cx r1 = MinusI(Add(Scale(b1, kS1), Scale(b2, kS2)));
    const Cx r2 = MinusI(Sub(Scale(b1, kS2), Scale(b2, kS1)));
    z[0] = Add(t[0], Add(a1, a2));
    z[1] = Add(m1, r1);
    z[4] = Sub(m1, r1);
    z[2] = Add(m2, r2);
    z[3] = Sub(m2, r2);
  }
};

// Any length by the definition, O(p^2).
class DirectDft {
 public:
  explicit DirectDft(size_t p) : p_(p), roots_(p) {
    for (size_t k = 0; k < p; ++k) roots_[k] = Turn(-static_cast<double>(k) / static_cast<double>(p));
  }
  size_t size() const { return p_; }
  void operator()(const Cx *t, Cx *z) const {
    for (size_t r = 0; r < p_; ++r) {
      Cx acc = t[0];
      for (size_t j = 1, idx = r; j < p_; ++j, idx = idx + r >= p_ ? idx + r - p_ : idx + r) {
        acc = Add(acc, Mul(t[j], roots_[idx]));
      }
      z[r] = acc;
    }
  }

 private:
  size_t p_;
  std::vector<Cx> roots_;
};

// Complex FFT of a power-of-two length (in place, forward); the roots of
// each level are stored contiguously.
class Pow2Fft {
 public:
  explicit Pow2Fft(size_t m) : m_(m), roots_(m > 1 ? m - 1 : 1) {
    // Level with half-length h uses roots_[h - 1 .. 2h - 2] = exp(-pi i k / h).
    for (size_t h = 1; h < m; h <<= 1) {
      for (size_t k = 0; k < h; ++k) roots_[h - 1 + k] = Turn(-0.5 * static_cast<double>(k) / static_cast<double>(h));
    }
  }
  void operator()(Cx *a) const {
    for (size_t i = 1, j = 0; i < m_; ++i) {
      size_t bit = m_ >> 1;
      for (; j & bit; bit >>= 1) j ^= bit;
      j |= bit;
      if (i < j) std::swap(a[i], a[j]);
    }
    // Two levels per pass (h and 2h), a last single level when their
    // number is odd: half the passes over an array that outgrows the caches.
    size_t h = 1;
    for (; 4 * h <= m_; h *= 4) {
      const Cx *w1 = roots_.data() + h - 1, *w2 = roots_.data() + 2 * h - 1;
      for (size_t s = 0; s < m_; s += 4 * h) {
        Cx *x0 = a + s, *x1 = x0 + h, *x2 = x1 + h, *x3 = x2 + h;
        for (size_t k = 0; k < h; ++k) {
          const Cx t1 = Mul(x1[k], w1[k]), t3 = Mul(x3[k], w1[k]);
          const Cx b0 = Add(x0[k], t1), b1 = Sub(x0[k], t1), b2 = Add(x2[k], t3), b3 = Sub(x2[k], t3);
          const Cx u2 = Mul(b2, w2[k]), u3 = MinusI(Mul(b3, w2[k]));  // exp(-pi i (k + h) / 2h) = -i w2
          x0[k] = Add(b0, u2);
          x2[k] = Sub(b0, u2);
          x1[k] = Add(b1, u3);
          x3[k] = Sub(b1, u3);
        }
      }
    }
    if (h < m_) {
      const Cx *w = roots_.data() + h - 1;
      for (size_t k = 0; k < h; ++k) {
        const Cx u = a[k], v = Mul(a[k + h], w[k]);
        a[k] = Add(u, v);
        a[k + h] = Sub(u, v);
      }
    }
  }

 private:
  size_t m_;
  std::vector<Cx> roots_;
};

// Bluestein: jr = (j^2 + r^2 - (r - j)^2) / 2 turns the DFT into a
// convolution with the chirp c(k) = exp(-pi i k^2 / p), done by power-of-two
// FFTs of at least 2p - 1 points. O(p log p) for any p.
class BluesteinDft {
 public:
  explicit BluesteinDft(size_t p)
      : p_(p), m_(PowerOfTwoAtLeast(2 * p - 1)), fft_(m_), chirp_(p), kernel_(m_), work_(m_) {
    for (size_t k = 0; k < p; ++k) {
      // k^2 mod 2p keeps the angle exact for large k.
      const auto sq = static_cast<size_t>((static_cast<unsigned __int128>(k) * k) % (2 * p));
      chirp_[k] = Turn(-0.5 * static_cast<double>(sq) / static_cast<double>(p));
    }
    kernel_.assign(m_, Cx{0, 0});
    kernel_[0] = Conj(chirp_[0]);
    for (size_t k = 1; k < p; ++k) kernel_[k] = kernel_[m_ - k] = Conj(chirp_[k]);
    fft_(kernel_.data());
    const double inv = 1.0 / static_cast<double>(m_);
    for (auto &v : kernel_) v = Scale(v, inv);
  }
  size_t size() const { return p_; }
  void operator()(const Cx *t, Cx *z) const {
    Cx *a = work_.data();
    for (size_t j = 0; j < p_; ++j) a[j] = Mul(t[j], chirp_[j]);
    for (size_t j = p_; j < m_; ++j) a[j] = Cx{0, 0};
    fft_(a);
    // Inverse transform as conj(FFT(conj(x))).
    for (size_t i = 0; i < m_; ++i) a[i] = Conj(Mul(a[i], kernel_[i]));
    fft_(a);
    for (size_t r = 0; r < p_; ++r) z[r] = Mul(chirp_[r], Conj(a[r]));
  }

 private:
  static Cx Conj(Cx a) { return {a.re, -a.im}; }
  static size_t PowerOfTwoAtLeast(size_t v) {
    size_t m = 1;
    while (m < v) m <<= 1;
    return m;
  }
  size_t p_, m_;
  Pow2Fft fft_;
  std::vector<Cx> chirp_, kernel_;
  mutable std::vector<Cx> work_;
};

// Stores Z(q) of a halfcomplex column of length n, through Z(n - q) =
// conj Z(q) for q above n / 2.
inline void Put(double *h, size_t n, size_t q, Cx z) {
  if (q == 0) {
    h[0] = z.re;
  } else if (2 * q == n) {
    h[n - 1] = z.re;
  } else if (2 * q < n) {
    h[2 * q - 1] = z.re;
    h[2 * q] = z.im;
  } else {
    h[2 * (n - q) - 1] = z.re;
    h[2 * (n - q)] = -z.im;
  }
}

// A stage's twiddles exp(2 pi i j q / (ip ido)), j = 1 .. ip-1, for
// q = 1, 2, ... in turn: from FFTPACK's table...
class TableTwiddles {
 public:
  TableTwiddles(const double *tw, size_t ido) : tw_(tw), ido_(ido) {}
  void Begin() { at_ = 0; }
  void Next(size_t ip, Cx *w) {
    for (size_t j = 1; j < ip; ++j) w[j] = {tw_[(j - 1) * ido_ + at_], tw_[(j - 1) * ido_ + at_ + 1]};
    at_ += 2;
  }

 private:
  const double *tw_;
  size_t ido_, at_ = 0;
};

// ...or, for the first factor's stage (l1 = 1, the largest table),
// exp(2 pi i q / n) from the roots and its powers, so that table need not
// be stored.
class RootTwiddles {
 public:
  explicit RootTwiddles(const Roots &roots) : roots_(roots), walk_(roots.Start(1)) {}
  void Begin() { walk_ = roots_.Start(1); }
  void Next(size_t ip, Cx *w) {
    w[1] = roots_(walk_);
    for (size_t j = 2; j < ip; ++j) w[j] = Mul(w[j - 1], w[1]);
    walk_.Next();
  }

 private:
  const Roots &roots_;
  Roots::Walk walk_;
};

// One stage: cc holds l1 * ip halfcomplex columns of length ido (column
// k + l1 j at ido (k + l1 j)); ch receives l1 columns of length ip * ido.
template <class Dft, class Twiddles>
void Stage(const Dft &dft, size_t ido, size_t l1, const double *cc, double *ch, Twiddles tws) {
  const size_t ip = dft.size();
  const size_t n = ip * ido, col = ido * l1;
  std::vector<Cx> buf(4 * ip);
  Cx *t = buf.data(), *z = t + ip, *half = z + ip, *w = half + ip;
  for (size_t j = 0; j < ip; ++j) half[j] = Turn(-0.5 * static_cast<double>(j) / static_cast<double>(ip));
  for (size_t k = 0; k < l1; ++k) {
    const double *in = cc + ido * k;
    double *out = ch + n * k;
    for (size_t j = 0; j < ip; ++j) t[j] = {in[col * j], 0.0};
    dft(t, z);
    for (size_t r = 0; r < ip; ++r) Put(out, n, r * ido, z[r]);
    tws.Begin();
    for (size_t q = 1; 2 * q < ido; ++q) {
      tws.Next(ip, w);
      t[0] = {in[2 * q - 1], in[2 * q]};
      for (size_t j = 1; j < ip; ++j) {
        const double a = in[col * j + 2 * q - 1], b = in[col * j + 2 * q];
        t[j] = {a * w[j].re + b * w[j].im, b * w[j].re - a * w[j].im};
      }
      dft(t, z);
      // 0 < q + r ido < n / 2 exactly for r <= (ip - 1) / 2.
      for (size_t r = 0; r < ip; ++r) {
        if (2 * r < ip) {
          const size_t at = q + r * ido;
          out[2 * at - 1] = z[r].re;
          out[2 * at] = z[r].im;
        } else {
          const size_t at = n - q - r * ido;
          out[2 * at - 1] = z[r].re;
          out[2 * at] = -z[r].im;
        }
      }
    }
    if (ido % 2 == 0) {
      // Y_j(ido/2) is real; its twiddle is exp(-pi i j / ip).
      for (size_t j = 0; j < ip; ++j) t[j] = Scale(half[j], in[col * j + ido - 1]);
      dft(t, z);
      for (size_t r = 0; r < ip; ++r) Put(out, n, ido / 2 + r * ido, z[r]);
    }
  }
}

template <class Twiddles>
void AnyStage(size_t ip, size_t ido, size_t l1, const double *cc, double *ch, Twiddles tws) {
  switch (ip) {
    case 2:
      return Stage(Dft2{}, ido, l1, cc, ch, tws);
    case 3:
      return Stage(Dft3{}, ido, l1, cc, ch, tws);
    case 4:
      return Stage(Dft4{}, ido, l1, cc, ch, tws);
    case 5:
      return Stage(Dft5{}, ido, l1, cc, ch, tws);
    default:
      if (ip <= kDirectDftLimit) return Stage(DirectDft(ip), ido, l1, cc, ch, tws);
      return Stage(BluesteinDft(ip), ido, l1, cc, ch, tws);
  }
}

// The FFTPACK layout of one stage's twiddles.
void StageTwiddles(const Roots &w, size_t n, size_t l1, size_t ip, double *out) {
  const size_t ido = n / (l1 * ip);
  for (size_t j = 1; j < ip; ++j) {
    double *block = out + (j - 1) * ido;
    Roots::Walk walk = w.Start(j * l1);
    for (size_t q = 1; 2 * q < ido; ++q, walk.Next()) {
      const Cx c = w(walk);
      block[2 * q - 2] = c.re;
      block[2 * q - 1] = c.im;
    }
  }
}

// Runs the stages from the last factor to the first; tables[k] is factor
// k's twiddle table, or null for the first factor to take them from roots.
void Forward(size_t n, std::span<const size_t> factors, const double *const *tables, const Roots *roots, double *r,
             double *ch) {
  std::vector<size_t> before(factors.size());
  for (size_t k = 0, l1 = 1; k < factors.size(); l1 *= factors[k], ++k) before[k] = l1;
  double *src = r, *dst = ch;
  for (size_t k = factors.size(); k-- > 0;) {
    const size_t ip = factors[k], l1 = before[k], ido = n / (l1 * ip);
    if (tables[k] != nullptr) {
      AnyStage(ip, ido, l1, src, dst, TableTwiddles(tables[k], ido));
    } else {
      AnyStage(ip, ido, l1, src, dst, RootTwiddles(*roots));
    }
    std::swap(src, dst);
  }
  if (src != r) std::copy(src, src + n, r);
}

}  // namespace

std::vector<size_t> FftFactors(size_t n) {
  std::vector<size_t> f;
  if (n < 2) return f;
  size_t rest = n;
  while (rest % 4 == 0) {
    f.push_back(4);
    rest /= 4;
  }
  if (rest % 2 == 0) {
    f.insert(f.begin(), 2);
    rest /= 2;
  }
  for (size_t p : {3, 5}) {
    while (rest % p == 0) {
      f.push_back(p);
      rest /= p;
    }
  }
  // Trial division stops at sqrt(rest): what is left is a prime.
  for (size_t p = 7; p <= rest / p; p += 2) {
    while (rest % p == 0) {
      f.push_back(p);
      rest /= p;
    }
  }
  if (rest > 1) f.push_back(rest);
  return f;
}

void FftTwiddles(size_t n, std::span<const size_t> factors, double *wa) {
  if (n < 2) return;
  const Roots w(n);
  size_t l1 = 1, off = 0;
  for (const size_t ip : factors) {
    StageTwiddles(w, n, l1, ip, wa + off);
    off += (ip - 1) * (n / (l1 * ip));
    l1 *= ip;
  }
}

void FftForward(size_t n, std::span<const size_t> factors, const double *wa, double *r, double *ch) {
  if (n < 2) return;
  std::vector<const double *> tables(factors.size());
  for (size_t k = 0, off = 0, l1 = 1; k < factors.size(); ++k) {
    tables[k] = wa + off;
    off += (factors[k] - 1) * (n / (l1 * factors[k]));
    l1 *= factors[k];
  }
  Forward(n, factors, tables.data(), nullptr, r, ch);
}

void RealFft::Unmap::operator()(double *p) const {
  if (p == nullptr) return;
  if (bytes == 0) {
    delete[] p;
  } else {
    munmap(p, bytes);
  }
}

RealFft::Array RealFft::Map(size_t n) {
  constexpr size_t kHuge = size_t{2} << 20;
  if (n * sizeof(double) < 2 * kHuge) return Array(new double[n], Unmap{0});
  const size_t bytes = (n * sizeof(double) + kHuge - 1) / kHuge * kHuge;
  void *p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) throw std::bad_alloc();
  madvise(p, bytes, MADV_HUGEPAGE);
  return Array(static_cast<double *>(p), Unmap{bytes});
}

RealFft::RealFft() = default;
RealFft::~RealFft() = default;

void RealFft::Prepare(size_t n) {
  if (n == n_) return;
  n_ = 0;
  const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGE_SIZE);
  const double physical = pages > 0 && page > 0 ? static_cast<double>(pages) * static_cast<double>(page)
                                                : std::numeric_limits<double>::infinity();
  // Two arrays of n doubles; refusing here beats the kernel's OOM killer.
  if (2.5 * sizeof(double) * static_cast<double>(n) > physical) throw std::bad_alloc();
  factors_ = FftFactors(n);
  // A large prime first runs last, on ido = n / p: about n / 2p chirp
  // transforms instead of the n / p it needs as FFTPACK's last factor.
  std::stable_partition(factors_.begin(), factors_.end(), [](size_t p) { return p > kDirectDftLimit; });
  r_.reset();
  ch_.reset();
  r_ = Map(n);
  ch_ = Map(n);
  roots_ = std::make_unique<Roots>(n < 2 ? 2 : n);
  // Tables for every stage but the first factor's (three quarters of all
  // twiddles), which takes them from the roots.
  size_t size = 0;
  for (size_t k = 1, l1 = factors_.empty() ? 1 : factors_[0]; k < factors_.size(); l1 *= factors_[k], ++k) {
    size += (factors_[k] - 1) * (n / (l1 * factors_[k]));
  }
  twiddles_.assign(size, 0.0);
  tables_.assign(factors_.size(), nullptr);
  for (size_t k = 1, l1 = factors_.empty() ? 1 : factors_[0], off = 0; k < factors_.size(); l1 *= factors_[k], ++k) {
    tables_[k] = twiddles_.data() + off;
    StageTwiddles(*roots_, n, l1, factors_[k], twiddles_.data() + off);
    off += (factors_[k] - 1) * (n / (l1 * factors_[k]));
  }
  n_ = n;
}

void RealFft::Transform() {
  if (n_ >= 2) Forward(n_, factors_, tables_.data(), roots_.get(), r_.get(), ch_.get());
}

}  // namespace zeph::randtest

// ---- FFTPACK's entry points ---------------------------------------------------

namespace {

// ifac holds 15 ints: n, the factor count, at most 13 factors.
constexpr size_t kMaxFactors = 13;

}  // namespace

extern "C" {

ZEPH_API void __ogg_fdrffti(int n, double *wsave, int *ifac) {
  if (n < 1 || wsave == nullptr || ifac == nullptr) return;
  auto factors = zeph::randtest::FftFactors(static_cast<size_t>(n));
  // Only lengths near 2^31 have more factors than fit: merge the first ones.
  while (factors.size() > kMaxFactors) {
    factors[1] *= factors[0];
    factors.erase(factors.begin());
  }
  ifac[0] = n;
  ifac[1] = static_cast<int>(factors.size());
  for (size_t k = 0; k < factors.size(); ++k) ifac[2 + k] = static_cast<int>(factors[k]);
  zeph::randtest::FftTwiddles(static_cast<size_t>(n), factors, wsave + n);
}

ZEPH_API void __ogg_fdrfftf(int n, double *r, double *wsave, int *ifac) {
  if (n < 2 || r == nullptr || wsave == nullptr || ifac == nullptr) return;
  try {
    // A plan for another length would read past the arrays: refuse it.
    const int nf = ifac[1];
    if (ifac[0] != n || nf < 1 || nf > static_cast<int>(kMaxFactors)) throw std::invalid_argument("plan");
    std::vector<size_t> factors;
    size_t product = 1;
    for (int k = 0; k < nf; ++k) {
      if (ifac[2 + k] < 2 || product > static_cast<size_t>(n) / static_cast<size_t>(ifac[2 + k])) {
        throw std::invalid_argument("plan");
      }
      factors.push_back(static_cast<size_t>(ifac[2 + k]));
      product *= factors.back();
    }
    if (product != static_cast<size_t>(n)) throw std::invalid_argument("plan");
    zeph::randtest::FftForward(static_cast<size_t>(n), factors, wsave + n, r, wsave);
  } catch (...) {
    std::fill(r, r + n, std::numeric_limits<double>::quiet_NaN());
  }
}

}  // extern "C"
