// FFT kernels: checked against a direct DFT evaluated in long double, against
// closed-form transforms, and for agreement between the two memory layouts.
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

// X[k] = sum_j x[j] exp(sign * 2 pi i j k / n) in long double, angles reduced
// exactly with (j*k) mod n so the reference is accurate to long double rounding.
std::vector<cld> directdft(const std::vector<cld> &x, int sign) {
  const size_t n = x.size();
  std::vector<cld> root(n);
  for (size_t m = 0; m < n; ++m) {
    const long double ang = sign * 2.0L * kPiL * static_cast<long double>(m) / n;
    root[m] = cld(std::cos(ang), std::sin(ang));
  }
  std::vector<cld> X(n);
  for (size_t k = 0; k < n; ++k) {
    cld acc = 0;
    for (size_t j = 0; j < n; ++j) acc += x[j] * root[(j * k) % n];
    X[k] = acc;
  }
  return X;
}

std::vector<double> randomvalues(size_t count, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> v(count);
  for (double &d : v) d = dist(gen);
  return v;
}

// Runs the transform in the given layout on complex data held as (re, im) arrays.
void runsplit(int32_t n, std::vector<double> &re, std::vector<double> &im, int8_t dir) {
  dofftr(n, re.data(), im.data(), dir);
}
void runinterleaved(int32_t n, std::vector<double> &re, std::vector<double> &im, int8_t dir) {
  std::vector<double> x(2 * static_cast<size_t>(n));
  for (int32_t k = 0; k < n; ++k) {
    x[2 * k] = re[k];
    x[2 * k + 1] = im[k];
  }
  dofftc(n, x.data(), dir);
  for (int32_t k = 0; k < n; ++k) {
    re[k] = x[2 * k];
    im[k] = x[2 * k + 1];
  }
}

using Runner = void (*)(int32_t, std::vector<double> &, std::vector<double> &, int8_t);

TEST(Dft, MatchesDirectDftForEverySizeLayoutAndDirection) {
  struct Layout {
    const char *name;
    Runner run;
  };
  const Layout layouts[] = {{"split", runsplit}, {"interleaved", runinterleaved}};
  // Direction -1 is the inverse (positive exponent); every other value is forward.
  const struct {
    int8_t dir;
    int sign;
  } directions[] = {{-1, +1}, {1, -1}, {0, -1}, {5, -1}, {-2, -1}, {127, -1}, {-128, -1}};
  for (int32_t n : {1, 2, 4, 8, 16, 32, 128, 512, 2048}) {
    const std::vector<double> re0 = randomvalues(n, 1000 + n), im0 = randomvalues(n, 2000 + n);
    std::vector<cld> x(n);
    for (int32_t j = 0; j < n; ++j) x[j] = cld(re0[j], im0[j]);
    const std::vector<cld> inverse = directdft(x, +1), forward = directdft(x, -1);
    for (const auto &d : directions) {
      const std::vector<cld> &X = d.sign > 0 ? inverse : forward;
      long double peak = 0;
      for (const cld &v : X) peak = std::max(peak, std::abs(v));
      for (const Layout &layout : layouts) {
        std::vector<double> re = re0, im = im0;
        layout.run(n, re, im, d.dir);
        long double worst = 0;
        for (int32_t k = 0; k < n; ++k) worst = std::max(worst, std::abs(cld(re[k], im[k]) - X[k]));
        // Rounding plus the drift of the twiddle recurrence stays far below
        // this; a wrong sign, twiddle or permutation gives errors of order peak.
        EXPECT_LT(static_cast<double>(worst), 1e-13 * static_cast<double>(peak) + 1e-15)
            << layout.name << " n=" << n << " direction=" << int(d.dir);
      }
    }
  }
}

TEST(Dft, ClosedFormTransforms) {
  for (int32_t n : {2, 4, 8, 64, 1024}) {
    // A unit impulse at 0 transforms to all ones in both directions, exactly:
    // every butterfly adds a product with an exact zero.
    for (int8_t dir : {int8_t{1}, int8_t{-1}}) {
      std::vector<double> re(n, 0.0), im(n, 0.0);
      re[0] = 1.0;
      dofftr(n, re.data(), im.data(), dir);
      for (int32_t k = 0; k < n; ++k) {
        EXPECT_EQ(re[k], 1.0) << "n=" << n << " k=" << k;
        EXPECT_EQ(im[k], 0.0) << "n=" << n << " k=" << k;
      }
    }
    // A constant 1 gives n at index 0 (only the exact twiddle (1,0) reaches it)
    // and zeros elsewhere.
    {
      std::vector<double> x(2 * n, 0.0);
      for (int32_t k = 0; k < n; ++k) x[2 * k] = 1.0;
      fftc(n, x.data());
      EXPECT_EQ(x[0], static_cast<double>(n));
      EXPECT_EQ(x[1], 0.0);
      for (int32_t k = 1; k < n; ++k) {
        EXPECT_NEAR(x[2 * k], 0.0, 1e-12 * n) << "n=" << n << " k=" << k;
        EXPECT_NEAR(x[2 * k + 1], 0.0, 1e-12 * n) << "n=" << n << " k=" << k;
      }
    }
    // exp(+2 pi i j/n) puts n at index 1 under the forward transform (negative
    // exponent), and exp(-2 pi i j/n) puts n at index 1 under the inverse.
    for (int sign : {+1, -1}) {
      std::vector<double> re(n), im(n);
      for (int32_t j = 0; j < n; ++j) {
        const long double ang = sign * 2.0L * kPiL * j / n;
        re[j] = static_cast<double>(std::cos(ang));
        im[j] = static_cast<double>(std::sin(ang));
      }
      if (sign > 0)
        fftr(n, re.data(), im.data());
      else
        ifftr(n, re.data(), im.data());
      for (int32_t k = 0; k < n; ++k) {
        EXPECT_NEAR(re[k], k == 1 ? n : 0.0, 1e-12 * n) << "sign=" << sign << " n=" << n << " k=" << k;
        EXPECT_NEAR(im[k], 0.0, 1e-12 * n) << "sign=" << sign << " n=" << n << " k=" << k;
      }
    }
  }
}

TEST(Dft, DegenerateLengthsLeaveDataAlone) {
  const double nan = std::nan("");
  // n = 1: no stage runs, whatever the data (even a NaN) comes back bit for bit.
  for (int8_t dir : {int8_t{1}, int8_t{-1}}) {
    double re[1] = {-3.25}, im[1] = {nan};
    dofftr(1, re, im, dir);
    EXPECT_EQ(re[0], -3.25);
    EXPECT_TRUE(std::isnan(im[0]));
    double x[2] = {7.5, -0.0};
    dofftc(1, x, dir);
    EXPECT_EQ(x[0], 7.5);
    EXPECT_TRUE(std::signbit(x[1]));
  }
  // n = 0: nothing is read or written.
  double guard[4] = {1.0, 2.0, 3.0, 4.0};
  EXPECT_EQ(fftc(0, guard), 0u);
  EXPECT_EQ(ifftr(0, guard, guard + 2), 0u);
  EXPECT_EQ(fftc(0, nullptr), 0u);
  EXPECT_EQ(ifftr(0, nullptr, nullptr), 0u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(guard[i], i + 1.0);
}

TEST(Dft, DirectionsOtherThanMinusOneAreTheForwardTransformBitForBit) {
  const int32_t n = 256;
  const std::vector<double> re0 = randomvalues(n, 7), im0 = randomvalues(n, 8);
  std::vector<double> fre = re0, fim = im0;
  EXPECT_EQ(fftr(n, fre.data(), fim.data()), 0u);
  for (int8_t dir : {int8_t{0}, int8_t{1}, int8_t{5}, int8_t{-2}, int8_t{127}, int8_t{-128}}) {
    std::vector<double> re = re0, im = im0;
    EXPECT_EQ(dofftr(n, re.data(), im.data(), dir), 0u);
    EXPECT_EQ(0, std::memcmp(re.data(), fre.data(), n * sizeof(double))) << "direction " << int(dir);
    EXPECT_EQ(0, std::memcmp(im.data(), fim.data(), n * sizeof(double))) << "direction " << int(dir);
  }
}

TEST(Dft, InverseAfterForwardReturnsNTimesTheInput) {
  for (int32_t n : {2, 8, 256, 4096}) {
    const std::vector<double> x0 = randomvalues(2 * n, 300 + n);
    std::vector<double> x = x0;
    EXPECT_EQ(fftc(n, x.data()), 0u);
    EXPECT_EQ(ifftc(n, x.data()), 0u);
    for (int32_t i = 0; i < 2 * n; ++i) EXPECT_NEAR(x[i], n * x0[i], 1e-12 * n) << "n=" << n << " i=" << i;

    std::vector<double> re(x0.begin(), x0.begin() + n), im(x0.begin() + n, x0.end());
    EXPECT_EQ(fftr(n, re.data(), im.data()), 0u);
    EXPECT_EQ(ifftr(n, re.data(), im.data()), 0u);
    for (int32_t i = 0; i < n; ++i) {
      EXPECT_NEAR(re[i], n * x0[i], 1e-12 * n) << "n=" << n << " i=" << i;
      EXPECT_NEAR(im[i], n * x0[n + i], 1e-12 * n) << "n=" << n << " i=" << i;
    }
  }
}

TEST(Dft, RealInputGivesHermitianSpectrum) {
  for (int32_t n : {4, 16, 1024}) {
    std::vector<double> re = randomvalues(n, 50 + n), im(n, 0.0);
    fftr(n, re.data(), im.data());
    EXPECT_NEAR(im[0], 0.0, 1e-13 * n);
    EXPECT_NEAR(im[n / 2], 0.0, 1e-13 * n);
    for (int32_t k = 1; k < n; ++k) {
      EXPECT_NEAR(re[n - k], re[k], 1e-13 * n) << "n=" << n << " k=" << k;
      EXPECT_NEAR(im[n - k], -im[k], 1e-13 * n) << "n=" << n << " k=" << k;
    }
  }
}

TEST(Dft, SplitAndInterleavedLayoutsGiveIdenticalBits) {
  for (int32_t n : {1, 2, 4, 32, 1024, 8192}) {
    for (int8_t dir : {int8_t{1}, int8_t{-1}}) {
      // Split arrays carved out of one buffer, as the synthesis does.
      std::vector<double> buf = randomvalues(2 * n, 900 + n);
      std::vector<double> x(2 * n);
      for (int32_t k = 0; k < n; ++k) {
        x[2 * k] = buf[k];
        x[2 * k + 1] = buf[n + k];
      }
      dofftr(n, buf.data(), buf.data() + n, dir);
      dofftc(n, x.data(), dir);
      for (int32_t k = 0; k < n; ++k) {
        ASSERT_EQ(0, std::memcmp(&x[2 * k], &buf[k], sizeof(double))) << "n=" << n << " k=" << k;
        ASSERT_EQ(0, std::memcmp(&x[2 * k + 1], &buf[n + k], sizeof(double))) << "n=" << n << " k=" << k;
      }
    }
  }
}

}  // namespace
