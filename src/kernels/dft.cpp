// One radix-2 decimation-in-time FFT over two memory layouts.  The twiddle
// factor is advanced by complex rotation once per butterfly index k (outer
// loop) so that each stage needs a single cos/sin pair and no table; every
// product is rounded to double exactly as written, which fixes the result bits.
#include "dft.h"

#include <cmath>
#include <cstdint>
#include <utility>

namespace {

constexpr double kTwoPi = 6.283185307179586;

// Element k of an interleaved complex array: re at 2k, im at 2k+1.
struct Interleaved {
  double *x;
  double &re(int64_t k) const { return x[2 * k]; }
  double &im(int64_t k) const { return x[2 * k + 1]; }
};

// Element k of a split complex array: re[k], im[k].
struct Split {
  double *r;
  double *i;
  double &re(int64_t k) const { return r[k]; }
  double &im(int64_t k) const { return i[k]; }
};

template <class Layout>
void transform(int32_t n, const Layout &x, int8_t direction) {
  // Bit count: floor(log2 n), 0 for n <= 1.
  int bits = 0;
  {
    int c = 1;
    while ((static_cast<int64_t>(n) >> c) > 0) ++c;
    bits = c - 1;
  }

  // Bit-reversal permutation; each pair is swapped once, from its smaller index.
  for (int64_t i = 0; i < n; ++i) {
    int64_t r = i;
    int64_t j = 0;
    for (int b = bits - 1; b >= 0; --b) {
      if ((r >> b) == 1) {
        j += int64_t{1} << (bits - 1 - b);
        r -= int64_t{1} << b;
      }
    }
    if (j > i) {
      std::swap(x.re(i), x.re(j));
      std::swap(x.im(i), x.im(j));
    }
  }

  const double sign = (direction == -1) ? 1.0 : -1.0;
  for (int64_t m = 2; m <= n; m *= 2) {
    const int64_t half = m / 2;
    const double theta = (sign * kTwoPi) / static_cast<double>(m);
    const double ct = std::cos(theta);
    const double st = std::sin(theta);
    double wre = 1.0;
    double wim = 0.0;
    for (int64_t k = 0; k < half; ++k) {
      for (int64_t s = 0; s < n; s += m) {
        const int64_t p = s + k;
        const int64_t q = p + half;
        const double qre = x.re(q);
        const double qim = x.im(q);
        const double tre = qre * wre - qim * wim;
        const double tim = qre * wim + qim * wre;
        const double pre = x.re(p);
        const double pim = x.im(p);
        x.re(p) = pre + tre;
        x.im(p) = pim + tim;
        x.re(q) = pre - tre;
        x.im(q) = pim - tim;
      }
      const double nre = wre * ct - wim * st;
      const double nim = wre * st + wim * ct;
      wre = nre;
      wim = nim;
    }
  }
}

}  // namespace

extern "C" {

uint32_t dofftc(int32_t n, double *x, int8_t direction) {
  transform(n, Interleaved{x}, direction);
  return 0;
}

uint32_t dofftr(int32_t n, double *re, double *im, int8_t direction) {
  transform(n, Split{re, im}, direction);
  return 0;
}

uint32_t fftc(int32_t n, double *x) { return dofftc(n, x, 1); }
uint32_t ifftc(int32_t n, double *x) { return dofftc(n, x, -1); }
uint32_t fftr(int32_t n, double *re, double *im) { return dofftr(n, re, im, 1); }
uint32_t ifftr(int32_t n, double *re, double *im) { return dofftr(n, re, im, -1); }

}  // extern "C"
