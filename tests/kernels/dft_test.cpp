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
}

}  // namespace
