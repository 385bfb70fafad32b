// Harmonic counting, harmonic generation and envelope resampling.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "harmonicanalysis.h"

namespace {

constexpr double kPi = 3.141592653589793;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Harmonic generation evaluated literally, one harmonic after another.
void referenceGenharmonics(double *buf, uint32_t before, uint32_t after, double fs, double f0, uint32_t nh,
                           const double *amp, const double *ph, double phi, uint8_t modulate) {
  const uint32_t L = before + after;
  if (nh == 0 || L == 0) return;
  const double w = f0 * 6.283185307179586 / fs;
  const double c1 = std::cos(w), s1 = std::sin(w);
  const double theta0 = phi - before * w;
  if (modulate == 1) {
    double c = std::cos(theta0), s = std::sin(theta0);
    for (uint32_t n = 0; n < L; ++n) {
      buf[n] = (2.0 - c) * 0.47140452079103173 * buf[n];
      const double nc = c * c1 - s * s1, ns = s * c1 + c * s1;
      c = nc;
      s = ns;
    }
  }
  double ck = c1, sk = s1;
  for (uint32_t j = 0; j < nh; ++j) {
    if (amp[j] == 0.0) continue;
    const double theta = ph[j] + theta0 * (j + 1);
    double c = std::cos(theta), s = std::sin(theta);
    for (uint32_t n = 0; n < L; ++n) {
      buf[n] = amp[j] * c + buf[n];
      const double nc = c * ck - s * sk, ns = s * ck + c * sk;
      c = nc;
      s = ns;
    }
    const double nck = ck * c1 - sk * s1, nsk = sk * c1 + ck * s1;
    ck = nck;
    sk = nsk;
  }
}

TEST(Hanoharms, CountsHarmonicsStrictlyBelowTheLimit) {
  struct Case {
    double fs, fmax, f0;
    uint32_t expected;
  } cases[] = {
      {16000, 16000, 100, 79},     // limit fs/2 = 8000 is itself excluded
      {16000, 1000, 100, 9},       // 1000 excluded
      {16000, 1050, 100, 10},      // 1000 included
      {16000, 8000, 100, 79},      // fmax == fs/2
      {16000, 8000.5, 100, 79},    // fmax above fs/2 is cut to fs/2
      {16000, 100, 100, 0},        // fmax <= f0
      {16000, 99, 100, 0},
      {16000, 16000, 8000, 0},     // f0 >= fs/2
      {16000, 16000, 7999.5, 1},
      {16000, 16000, 10, 799},
      {16000, 16000, 500, 15},
      {16000, 1500.01, 1500, 1},
      {16000, kNaN, 100, 79},      // a NaN fmax passes neither test: limit fs/2
      {16000, 16000, kNaN, 0},
      {16000, 16000, 0.0, 0},
      {16000, 16000, -100, 0},
      {kNaN, 16000, 100, 0},
      {-16000, 16000, 100, 0},
      {16000, 16000, 1e-300, UINT32_MAX},  // too many to count: saturates
  };
  for (const Case &c : cases)
    EXPECT_EQ(hanoharms(c.fs, c.fmax, c.f0), c.expected) << c.fs << " " << c.fmax << " " << c.f0;
}

TEST(Genharmonics, MatchesLiteralEvaluationBitForBit) {
  // Every group size remainder, zero amplitudes at group edges, all modulation flags.
  const double amps[] = {0.3, 0.0, 0.25, 0.2, 0.0, 0.0, 0.15, 0.1, 0.05, 0.04, 0.0,
                         0.03, 0.02, 0.02, 0.01, 0.01, 0.01, 0.01, 0.01, 0.005, 0.004, 0.0};
  const double phases[] = {0.1, 2.0, -1.0, 0.5, 3.0, -2.5, 1.2, 0.7, -0.3, 2.2, 1.0,
                           0.4, 0.3, -0.2, 1.1, 2.1, -1.4, 0.0, 0.6, -0.7, 1.9, 0.2};
  for (uint32_t nh = 0; nh <= 22; ++nh) {
    for (uint8_t modulate : {0, 1, 2}) {
      for (uint32_t before : {0u, 1u, 80u}) {
        const uint32_t after = 80;
        std::vector<double> a(before + after), b(before + after);
        for (size_t n = 0; n < a.size(); ++n) a[n] = b[n] = std::sin(0.37 * n) * 0.01;
        genharmonics(a.data(), before, after, 16000.0, 173.3, nh, amps, phases, 1.234, modulate);
        referenceGenharmonics(b.data(), before, after, 16000.0, 173.3, nh, amps, phases, 1.234, modulate);
        for (size_t n = 0; n < a.size(); ++n)
          ASSERT_TRUE(sameBits(a[n], b[n])) << "nh " << nh << " mod " << int(modulate) << " n " << n;
      }
    }
  }
}

TEST(Genharmonics, EdgeCases) {
  const double one = 1.0, zero = 0.0;
  // nh = 0 leaves the noise unmodulated; L = 0 touches nothing.
  std::vector<double> buf(10, 0.5);
  genharmonics(buf.data(), 5, 5, 16000, 100, 0, &one, &zero, 0.0, 1);
  for (double v : buf) EXPECT_EQ(v, 0.5);
  genharmonics(buf.data(), 0, 0, 16000, 100, 1, &one, &zero, 0.0, 1);
  for (double v : buf) EXPECT_EQ(v, 0.5);

  // phi = 0, before = 0, one harmonic of amplitude 1 and phase 0: sample 0 gains exactly 1.
  std::vector<double> z(8, 0.0);
  genharmonics(z.data(), 0, 8, 16000, 100, 1, &one, &zero, 0.0, 0);
  EXPECT_EQ(z[0], 1.0);

  // Sample n lies n - before from the centre: harmonic value cos(phi + (n - before) w).
  const double w = 2 * kPi * 250.0 / 16000.0;
  std::vector<double> c(40, 0.0);
  genharmonics(c.data(), 10, 30, 16000, 250, 1, &one, &zero, 0.4, 0);
  for (int n = 0; n < 40; ++n) EXPECT_NEAR(c[n], std::cos(0.4 + (n - 10) * w), 1e-12) << n;
}

TEST(Genharmonics, ZeroAmplitudeSkipsTheRotor) {
  // Harmonic 3 after a skipped harmonic 2 runs at twice the fundamental's step,
  // while its start phase still uses its own number: cos(3 phi + ph + 2 n w).
  const double amps[] = {1.0, 0.0, 0.5};
  const double phases[] = {0.0, 0.0, 0.2};
  const double f0 = 300.0, fs = 16000.0, phi = 0.3;
  const double w = 2 * kPi * f0 / fs;
  std::vector<double> buf(160, 0.0);
  genharmonics(buf.data(), 0, 160, fs, f0, 3, amps, phases, phi, 0);
  double misfit = 0.0;
  for (int n = 0; n < 160; ++n) {
    const double expected = std::cos(phi + n * w) + 0.5 * std::cos(3 * phi + 0.2 + 2 * n * w);
    EXPECT_NEAR(buf[n], expected, 1e-11) << n;
    misfit = std::max(misfit, std::fabs(buf[n] - (std::cos(phi + n * w) + 0.5 * std::cos(3 * phi + 0.2 + 3 * n * w))));
  }
  EXPECT_GT(misfit, 0.1);  // the unskipped frequency would be clearly different
}

TEST(Genharmonics, PureHarmonicEnergyAndModulationEnvelope) {
  // 200 Hz at 16 kHz: 80 samples per period; 160 samples are two whole periods.
  const double amp = 0.7, ph = 0.9;
  std::vector<double> buf(160, 0.0);
  genharmonics(buf.data(), 80, 80, 16000, 200, 1, &amp, &ph, 0.0, 1);
  double e = 0.0;
  for (double v : buf) e += v * v;
  EXPECT_NEAR(e, amp * amp * 160 / 2, 1e-9);

  // Modulated constant noise with no audible harmonic: (2 - cos(fundamental phase)) * sqrt(2)/3.
  const double zero = 0.0;
  std::vector<double> noise(160, 1.0);
  const double phi = 1.1, w = 2 * kPi * 200 / 16000.0;
  genharmonics(noise.data(), 80, 80, 16000, 200, 1, &zero, &zero, phi, 1);
  for (int n = 0; n < 160; ++n)
    EXPECT_NEAR(noise[n], (2.0 - std::cos(phi + (n - 80) * w)) * std::sqrt(2.0) / 3.0, 1e-12) << n;
  // Power of the modulation is 1 on average over whole periods.
  double p = 0.0;
  for (double v : noise) p += v * v;
  EXPECT_NEAR(p / 160, 1.0, 1e-9);
}

TEST(Resamplelogampenv, InterpolatesBetweenGridPointsAndHoldsBeyond) {
  const std::vector<double> env = {1.0, 2.0, 4.0, 8.0};  // at 100, 200, 300, 400 Hz
  // Outputs every 50 Hz from 50 to 900 Hz: flat below 100, linear between
  // points, env[3] from 400 Hz on (also past 500 Hz, beyond the usual range).
  const double expected[] = {1, 1, 1.5, 2, 3, 4, 6, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8};
  std::vector<double> out(18, kNaN);
  ASSERT_EQ(resamplelogampenv(100.0, env.data(), 4, 50.0, out.data(), 18), 0);
  for (int i = 0; i < 18; ++i) EXPECT_EQ(out[i], expected[i]) << "f = " << 50 * (i + 1);

  // Off-grid output spacing against independent linear interpolation.
  std::vector<double> out2(13);
  resamplelogampenv(100.0, env.data(), 4, 37.0, out2.data(), 13);
  for (int i = 0; i < 13; ++i) {
    const double f = 37.0 * (i + 1);
    double v;
    if (f <= 100)
      v = 1.0;
    else if (f >= 400)
      v = 8.0;
    else {
      const int j = static_cast<int>(std::ceil(f / 100.0)) - 1;  // segment ending at (j + 1) * 100 Hz
      v = env[j - 1] + (env[j] - env[j - 1]) * (f - 100.0 * j) / 100.0;
    }
    EXPECT_NEAR(out2[i], v, 1e-12) << f;
  }

  // One grid point: its value everywhere.
  const double single = -3.5;
  std::vector<double> out3(10, 0.0);
  resamplelogampenv(100.0, &single, 1, 30.0, out3.data(), 10);
  for (double v : out3) EXPECT_EQ(v, -3.5);

  // Empty grid or no output points: -1, nothing written.
  std::vector<double> out4(3, 7.0);
  EXPECT_EQ(resamplelogampenv(100.0, env.data(), 0, 50.0, out4.data(), 3), -1);
  EXPECT_EQ(resamplelogampenv(100.0, env.data(), 4, 50.0, out4.data(), 0), -1);
  for (double v : out4) EXPECT_EQ(v, 7.0);
}

TEST(Resamplelogampenv, NonFiniteSpacingsStayInBounds) {
  // A zero or negative grid spacing never lets the walk pass the last point;
  // the sanitizer build checks that env is not read beyond its two values.
  const std::vector<double> env = {1.0, 2.0};
  std::vector<double> out(5);
  for (double df : {0.0, -100.0, kNaN, kInf}) {
    for (double dfout : {50.0, kInf, kNaN}) {
      EXPECT_EQ(resamplelogampenv(df, env.data(), 2, dfout, out.data(), 5), 0);
    }
  }
}

}  // namespace
