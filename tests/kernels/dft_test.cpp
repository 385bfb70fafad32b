// FFT kernels: checked against a direct DFT evaluated in long double, against
// closed-form transforms, and for bit-identical results in the two layouts.
#include "dft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

using cld = std::complex<long double>;
const long double kPiL = 3.141592653589793238462643383279502884L;

// X[k] = sum_j x[j] exp(sign * 2 pi i j k / n), angles reduced exactly with (j*k) mod n.
std::vector<cld> directdft(const std::vector<double> &re, const std::vector<double> &im, int sign) {
  const size_t n = re.size();
  std::vector<cld> root(n), X(n);
  for (size_t m = 0; m < n; ++m) root[m] = std::polar(1.0L, sign * 2.0L * kPiL * static_cast<long double>(m) / n);
  for (size_t k = 0; k < n; ++k)
    for (size_t j = 0; j < n; ++j) X[k] += cld(re[j], im[j]) * root[(j * k) % n];
  return X;
}

std::vector<double> randomvalues(size_t count, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> v(count);
  for (double &d : v) d = dist(gen);
  return v;
}

TEST(Dft, BothLayoutsMatchTheDirectDftBitForBitAcrossDirections) {
  // Direction -1 is the inverse (positive exponent); every other value is the
  // forward transform, bit for bit.
  const int8_t directions[] = {1, -1, 0, 5, -2, 127, -128};
  for (int32_t n : {1, 2, 4, 8, 16, 32, 128, 512, 2048, 8192}) {
    const std::vector<double> in = randomvalues(2 * n, 1000 + n);
    const std::vector<double> re0(in.begin(), in.begin() + n), im0(in.begin() + n, in.end());
    std::vector<double> forward;
    for (int8_t dir : directions) {
      SCOPED_TRACE(testing::Message() << "n=" << n << " direction=" << int(dir));
      // Split arrays carved out of one buffer, as the synthesis does; the
      // named wrappers for directions 1 and -1.
      std::vector<double> split = in, x(2 * n);
      for (int32_t k = 0; k < n; ++k) x[2 * k] = re0[k], x[2 * k + 1] = im0[k];
      double *re = split.data(), *im = split.data() + n;
      EXPECT_EQ(dir == 1 ? fftr(n, re, im) : dir == -1 ? ifftr(n, re, im) : dofftr(n, re, im, dir), 0u);
      EXPECT_EQ(dir == 1 ? fftc(n, x.data()) : dir == -1 ? ifftc(n, x.data()) : dofftc(n, x.data(), dir), 0u);
      for (int32_t k = 0; k < n; ++k) {
        ASSERT_EQ(0, std::memcmp(&x[2 * k], &re[k], sizeof(double))) << "k=" << k;
        ASSERT_EQ(0, std::memcmp(&x[2 * k + 1], &im[k], sizeof(double))) << "k=" << k;
      }
      if (dir == 1) forward = split;
      if (dir != 1 && dir != -1) {
        EXPECT_EQ(0, std::memcmp(split.data(), forward.data(), 2 * n * sizeof(double)));
        continue;
      }
      if (n > 2048) continue;  // the quadratic reference gets slow
      const std::vector<cld> X = directdft(re0, im0, dir == -1 ? +1 : -1);
      long double peak = 0, worst = 0;
      for (int32_t k = 0; k < n; ++k) {
        peak = std::max(peak, std::abs(X[k]));
        worst = std::max(worst, std::abs(cld(re[k], im[k]) - X[k]));
      }
      // Rounding plus the drift of the twiddle recurrence stays far below
      // this; a wrong sign, twiddle or permutation gives errors of order peak.
      EXPECT_LT(static_cast<double>(worst), 1e-13 * static_cast<double>(peak) + 1e-15);
    }
  }
}

TEST(Dft, ClosedFormTransforms) {
  for (int32_t n : {2, 4, 8, 64, 1024}) {
    SCOPED_TRACE(n);
    // A unit impulse gives all ones exactly: every butterfly adds a product with an exact zero.
    for (int8_t dir : {int8_t{1}, int8_t{-1}}) {
      std::vector<double> re(n, 0.0), im(n, 0.0);
      re[0] = 1.0;
      dofftr(n, re.data(), im.data(), dir);
      EXPECT_EQ(re, std::vector<double>(n, 1.0));
      EXPECT_EQ(im, std::vector<double>(n, 0.0));
    }
    // A constant 1 gives exactly n at index 0 (only the exact twiddle (1,0) reaches it).
    std::vector<double> x(2 * n, 0.0);
    for (int32_t k = 0; k < n; ++k) x[2 * k] = 1.0;
    fftc(n, x.data());
    EXPECT_EQ(x[0], static_cast<double>(n));
    EXPECT_EQ(x[1], 0.0);
    for (int32_t k = 2; k < 2 * n; ++k) EXPECT_NEAR(x[k], 0.0, 1e-12 * n) << k;
  }
}

TEST(Dft, DegenerateLengthsLeaveDataAlone) {
  // n = 1: no stage runs, whatever the data (even a NaN) comes back bit for bit.
  for (int8_t dir : {int8_t{1}, int8_t{-1}}) {
    double re[1] = {-3.25}, im[1] = {std::nan("")}, x[2] = {7.5, -0.0};
    dofftr(1, re, im, dir);
    dofftc(1, x, dir);
    EXPECT_TRUE(re[0] == -3.25 && std::isnan(im[0]) && x[0] == 7.5 && std::signbit(x[1]));
  }
  // n = 0: nothing is read or written.
  double guard[4] = {1.0, 2.0, 3.0, 4.0};
  EXPECT_EQ(fftc(0, guard) + ifftr(0, guard, guard + 2) + fftc(0, nullptr) + ifftr(0, nullptr, nullptr), 0u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(guard[i], i + 1.0);
  // Other lengths are not powers of two: refused, data untouched, no plan.
  for (int32_t n : {3, 6, 12, 1000}) {
    std::vector<double> v(2 * n, 0.5);
    EXPECT_EQ(dofftc(n, v.data(), 1) + dofftr(n, v.data(), v.data() + n, -1), 2u) << n;
    EXPECT_EQ(v, std::vector<double>(2 * n, 0.5));
    EXPECT_EQ(fftplancreate(n, 1), nullptr);
  }
  EXPECT_EQ(fftplanc(nullptr, guard) + fftplanr(nullptr, guard, guard), 2u);
}

// The straightforward transform the kernels replace: k outer, groups inner,
// twiddles advanced per k, bit reversal bit by bit. Kept to pin the bits.
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
      const double nre = wre * ct - wim * st;
      const double nim = wre * st + wim * ct;
      wre = nre, wim = nim;
    }
  }
}

bool samebits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(Dft, EveryPathGivesTheReferenceBits) {
  // Plain and planned transforms, both layouts, against the reference: on
  // random data with huge and subnormal values, and on sparse data of signed
  // zeros, where any change of operation shows in the signs of zero results.
  // (A NaN or infinity would spread over the whole output and hide the rest.)
  for (int32_t n = 2; n <= 16384; n *= 2)
  for (int sparse = 0; sparse < 2; ++sparse) {
    std::vector<double> in = randomvalues(2 * n, 77 + n);
    const double specials[] = {1e300, -1e-310, 5e-324, -0.0, 0.0, -1e300};
    for (int t = 0; t < 6; ++t) in[(37 * t + 5) % (2 * n)] = specials[t];
    if (sparse)
      for (int32_t k = 0; k < 2 * n; ++k)
        if (k % 7 != 3) in[k] = (in[k] < 0) ? -0.0 : 0.0;
    for (int8_t dir : {int8_t{1}, int8_t{-1}}) {
      SCOPED_TRACE(testing::Message() << "n=" << n << " sparse=" << sparse << " direction=" << int(dir));
      std::vector<double> ref = in, split = in, planned = in, x(2 * n), xp(2 * n);
      for (int32_t k = 0; k < n; ++k) x[2 * k] = xp[2 * k] = in[k], x[2 * k + 1] = xp[2 * k + 1] = in[n + k];
      referencefft(n, ref.data(), ref.data() + n, dir);
      dofftr(n, split.data(), split.data() + n, dir);
      dofftc(n, x.data(), dir);
      FFTPLAN *plan = fftplancreate(n, dir);
      ASSERT_NE(plan, nullptr);
      EXPECT_EQ(fftplanlength(plan), n);
      EXPECT_EQ(fftplanr(plan, planned.data(), planned.data() + n) + fftplanc(plan, xp.data()), 0u);
      fftplanfree(plan);
      for (int32_t k = 0; k < n; ++k) {
        ASSERT_TRUE(samebits(split[k], ref[k]) && samebits(split[n + k], ref[n + k])) << k;
        ASSERT_TRUE(samebits(planned[k], ref[k]) && samebits(planned[n + k], ref[n + k])) << k;
        ASSERT_TRUE(samebits(x[2 * k], ref[k]) && samebits(x[2 * k + 1], ref[n + k])) << k;
        ASSERT_TRUE(samebits(xp[2 * k], ref[k]) && samebits(xp[2 * k + 1], ref[n + k])) << k;
      }
    }
  }
}

}  // namespace
