// FFT kernels: a plain radix-2 transform pins the bits of every path (both
// layouts, plans, any direction value); degenerate lengths leave the data
// alone. That the transform is a DFT shows against direct sums where it is
// used: the autocorrelation, the noise spectrum and the noise generator.
#include "dft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "support/synthref.h"

namespace {

using namespace kestreltest;

// The straightforward transform the kernels replace: k outer, groups inner,
// twiddles advanced per k, bit reversal bit by bit. Direction -1 is the
// inverse (positive exponent), any other value the forward transform.
void referencefft(int32_t n, double *re, double *im, int8_t direction) {
  int bits = 0;
  while ((int64_t{1} << (bits + 1)) <= n) ++bits;
  for (int64_t i = 0; i < n; ++i) {
    int64_t j = 0;
    for (int b = 0; b < bits; ++b)
      if ((i >> b) & 1) j |= int64_t{1} << (bits - 1 - b);
    if (j > i) std::swap(re[i], re[j]), std::swap(im[i], im[j]);
  }
  const double sign = (direction == -1) ? 1.0 : -1.0;
  for (int64_t m = 2; m <= n; m *= 2) {
    const double theta = (sign * 6.283185307179586) / static_cast<double>(m);
    const double ct = std::cos(theta), st = std::sin(theta);
    double wre = 1.0, wim = 0.0;
    for (int64_t k = 0; k < m / 2; ++k) {
      for (int64_t p = k; p < n; p += m) {
        const int64_t q = p + m / 2;
        const double tre = re[q] * wre - im[q] * wim;
        const double tim = re[q] * wim + im[q] * wre;
        const double pre = re[p], pim = im[p];
        re[p] = pre + tre, im[p] = pim + tim, re[q] = pre - tre, im[q] = pim - tim;
      }
      refrotate(wre, wim, ct, st);
    }
  }
}

TEST(Dft, EveryPathAndDirectionGivesTheReferenceBits) {
  // Plain and planned transforms in both layouts, the named wrappers for 1 and -1: on random
  // data with huge and subnormal values, and on sparse data of signed zeros, where any change
  // of operation shows in the signs of zero results. (A NaN or infinity would spread over the
  // whole output and hide the rest.)
  for (int32_t n = 1; n <= 16384; n *= 2)  // n = 1: no stage runs, the data comes back as it was
    for (int sparse = 0; sparse < 2; ++sparse) {
      std::vector<double> in = uniformvec(2 * n, 77 + n);
      const double specials[] = {1e300, -1e-310, 5e-324, -0.0, 0.0, -1e300};
      for (int t = 0; t < 6; ++t) in[(37 * t + 5) % (2 * n)] = specials[t];
      if (sparse)
        for (int32_t k = 0; k < 2 * n; ++k)
          if (k % 7 != 3) in[k] = (in[k] < 0) ? -0.0 : 0.0;
      for (int8_t dir : {int8_t{1}, int8_t{-1}, int8_t{0}, int8_t{-2}, int8_t{127}}) {
        std::vector<double> ref = in, split = in, planned = in, x(2 * n), xp(2 * n);
        for (int32_t k = 0; k < n; ++k) x[2 * k] = xp[2 * k] = in[k], x[2 * k + 1] = xp[2 * k + 1] = in[n + k];
        referencefft(n, ref.data(), ref.data() + n, dir);
        double *re = split.data(), *im = re + n;
        EXPECT_EQ(dir == 1 ? fftr(n, re, im) : dir == -1 ? ifftr(n, re, im) : dofftr(n, re, im, dir), 0u);
        EXPECT_EQ(dir == 1 ? fftc(n, x.data()) : dir == -1 ? ifftc(n, x.data()) : dofftc(n, x.data(), dir), 0u);
        FFTPLAN *plan = fftplancreate(n, dir);
        ASSERT_NE(plan, nullptr);
        EXPECT_TRUE(fftplanlength(plan) == n && fftplanr(plan, planned.data(), planned.data() + n) == 0u &&
                    fftplanc(plan, xp.data()) == 0u);
        fftplanfree(plan);
        std::vector<double> xs(2 * n), xps(2 * n);  // interleaved results in split order
        for (int32_t k = 0; k < n; ++k)
          xs[k] = x[2 * k], xs[n + k] = x[2 * k + 1], xps[k] = xp[2 * k], xps[n + k] = xp[2 * k + 1];
        ASSERT_TRUE(samebits(split, ref) && samebits(planned, ref) && samebits(xs, ref) && samebits(xps, ref))
            << "n=" << n << " sparse=" << sparse << " direction=" << int(dir);
      }
    }
}

TEST(Dft, DegenerateLengthsLeaveDataAlone) {
  // n = 0: nothing is read or written.
  double guard[4] = {1.0, 2.0, 3.0, 4.0};
  EXPECT_EQ(fftc(0, guard) + ifftr(0, guard, guard + 2) + fftc(0, nullptr) + ifftr(0, nullptr, nullptr), 0u);
  EXPECT_TRUE(guard[0] == 1.0 && guard[3] == 4.0);
  // Other lengths are not powers of two: refused, data untouched, no plan.
  for (int32_t n : {3, 6, 12, 1000}) {
    std::vector<double> v(2 * n, 0.5);
    EXPECT_TRUE(dofftc(n, v.data(), 1) + dofftr(n, v.data(), v.data() + n, -1) == 2u &&
                v == std::vector<double>(2 * n, 0.5) && !fftplancreate(n, 1)) << n;
  }
  EXPECT_EQ(fftplanc(nullptr, guard) + fftplanr(nullptr, guard, guard), 2u);
}

}  // namespace
