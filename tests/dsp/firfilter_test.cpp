// FIR filtering for the analysis front end: the template filter's gain at and
// between its breakpoints (a direct DTFT of its impulse response), its zero
// delay and finite support, signals ending inside a block, the windowed-sinc
// low-pass, zero-delay FIR filtering by hand, upsampling and the pitch pre-filter.
#include "pitchanalysis.h"
#include "spectralanalysis.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "support/synthref.h"

namespace {

using namespace kestreltest;

// |sum_m h[m] e^{-j 2 pi f m / fs}| in dB.
double gaindb(const std::vector<double> &h, double f, double fs) {
  std::complex<double> s = 0;
  for (size_t m = 0; m < h.size(); ++m) s += h[m] * std::polar(1.0, -2 * kPi * f * m / fs);
  return 20 * std::log10(std::abs(s));
}
const std::vector<double> kPitchTf = {0, 45, 55, 3000, 5000, 1e6}, kPitchDb = {-30, -30, 0, 0, -30, -30};

TEST(FftFilter, ZeroDelayFiniteSupportAndGainAtAndBetweenBreakpoints) {
  const struct { uint32_t nfft; std::vector<double> tf, tdb; std::vector<std::array<double, 3>> points; } setups[] = {
      // The pitch pre-filter: transitions are smeared over about +-2 fs/K =
      // +-31 Hz by the Hann taper, so the 45/55 Hz pair is checked with 16385
      // taps (+-2 Hz): exact in the middle of the 3 dB/Hz ramp, about 1 dB off at its corners.
      {2048, kPitchTf, kPitchDb, {{1000, 0, 0.02}, {3500, -7.5, 0.05}, {4000, -15, 0.05}, {6000, -30, 0.3}, {0, -30, 1}}},
      {32768, kPitchTf, kPitchDb, {{20, -30, 0.5}, {45, -30, 1.5}, {50, -15, 0.5}, {55, 0, 1.0}, {100, 0, 0.05}}},
      // Rising template with an interior step (coincident breakpoints).
      {4096, {500, 2000, 2000, 6000}, {-20, 0, -10, -10}, {{200, -20, 0.1}, {1250, -10, 0.05}, {3000, -10, 0.1},
                                                           {7000, -10, 0.05}}}};
  for (const auto &s : setups) {
    const uint32_t n = 2 * s.nfft, at = s.nfft, D = s.nfft / 4;
    std::vector<double> x(n, 0.0), y(n, 1e9);  // the response to a unit impulse at `at`
    x[at] = 1;
    ASSERT_EQ(fftfilter(x.data(), n, y.data(), 16000, s.nfft, s.tf.data(), s.tdb.data(), uint32_t(s.tf.size())), 0);
    // Symmetric about the impulse (the delay removed), nothing beyond the nfft/2+1 taps.
    for (uint32_t m = 1; m <= D; ++m) ASSERT_NEAR(y[at + m], y[at - m], 1e-12) << s.nfft << " " << m;
    for (uint32_t i = 0; i < n; ++i)
      if (i + D < at || i > at + D) { ASSERT_NEAR(y[i], 0.0, 1e-13) << s.nfft << " " << i; }
    for (const auto &p : s.points) EXPECT_NEAR(gaindb(y, p[0], 16000), p[1], p[2]) << s.nfft << " " << p[0] << " Hz";
  }
}

TEST(FftFilter, ASignalEndingAnywhereInABlockIsFilteredAsIfSilenceFollowed) {
  // Blocks of nfft/2 = 128 samples, two to a transform: lengths around one and two blocks and
  // short ones give the start of the same signal's output with zeros appended.
  for (uint32_t n : {1u, 127u, 128u, 129u, 257u, 1000u}) {
    std::vector<double> x = gaussvec(n, 1.0, 7 + n), y(n), padded = x, z(1024);
    padded.resize(1024, 0.0);
    ASSERT_TRUE(fftfilter(x.data(), n, y.data(), 16000, 256, kPitchTf.data(), kPitchDb.data(), 6) == 0 &&
                fftfilter(padded.data(), 1024, z.data(), 16000, 256, kPitchTf.data(), kPitchDb.data(), 6) == 0);
    EXPECT_TRUE(samebits(y, std::vector<double>(z.begin(), z.begin() + n))) << n;
  }
}

TEST(FftFilter, RefusalsAndConstantGain) {
  std::vector<double> x(64, 1.0), y(64, 7.0);
  const double tf[] = {0, 100}, tdb[] = {0, -10}, badtf[] = {100, 0}, nantf[] = {0, NAN};
  // Not a power of two, too short for a centred filter, too long, bad fs,
  // descending or NaN breakpoints, no template.
  const struct { uint32_t nfft; double fs; const double *tf; uint32_t nt; } cases[] = {
      {1000, 16000, tf, 2}, {2, 16000, tf, 2}, {1u << 23, 16000, tf, 2}, {64, NAN, tf, 2}, {64, 16000, badtf, 2},
      {64, 16000, nantf, 2}, {64, 16000, tf, 0}};
  for (const auto &c : cases)
    EXPECT_TRUE(fftfilter(x.data(), 64, y.data(), c.fs, c.nfft, c.tf, tdb, c.nt) == -1 &&
                y == std::vector<double>(64, 7.0)) << c.nfft << " " << c.fs;
  EXPECT_EQ(fftfilter(x.data(), 0, y.data(), 16000, 64, tf, tdb, 2), 0);
  // A single breakpoint is a constant gain: -6.0206 dB halves a sinusoid.
  const double one[] = {1000}, half[] = {-6.020599913279624};
  std::vector<double> s(4096), out(4096);
  for (uint32_t i = 0; i < s.size(); ++i) s[i] = std::sin(2 * kPi * 440 * i / 16000);
  ASSERT_EQ(fftfilter(s.data(), 4096, out.data(), 16000, 512, one, half, 1), 0);
  for (uint32_t i = 300; i < 3800; ++i) ASSERT_NEAR(out[i], 0.5 * s[i], 1e-6) << i;
}

TEST(LowPassAndZeroDelayFir, DesignAndHandComputedFiltering) {
  const uint32_t order = 100;
  const double fs = 32000, fc = 6400;
  std::vector<double> h(order + 1);
  ASSERT_EQ(getlpwinfilter(h.data(), order, fc, fs), 0);
  for (uint32_t k = 0; k <= order; ++k) EXPECT_NEAR(h[k], h[order - k], 1e-15) << k;
  EXPECT_NEAR(std::accumulate(h.begin(), h.end(), 0.0), 1.0, 1e-14);  // unit gain at 0 Hz
  // Half amplitude at the cut-off, flat below, at least 45 dB down from 8 kHz.
  const double points[][3] = {{2000, -0.03, 0.03}, {fc, -6.5, -5.5}, {8000, -200, -45}, {16000, -200, -45}};
  for (const auto &p : points) EXPECT_TRUE(gaindb(h, p[0], fs) >= p[1] && gaindb(h, p[0], fs) <= p[2]) << p[0];
  EXPECT_TRUE(getlpwinfilter(h.data(), 0, fc, fs) == 0 && h[0] == 1.0);
  h.assign(order + 1, 3.0);
  EXPECT_TRUE(getlpwinfilter(h.data(), order, 0, fs) + getlpwinfilter(h.data(), order, fc, NAN) == -2 && h[0] == 3.0);

  // Tap 0 looks (ncoef-1)/2 samples ahead; even lengths centre on tap 0.
  const struct { std::vector<double> h, expect; } cases[] = {
      {{0.25, 0.5, 0.25}, {1.0, 2.0, 3.0, 2.75}}, {{1, 0, 0}, {2, 3, 4, 0}}, {{0.5, 0.5}, {0.5, 1.5, 2.5, 3.5}},
      {{0, 0, 0, 0, 0, 0, 0, 0, 1}, {0, 0, 0, 0}}};
  for (const auto &c : cases) {
    std::vector<double> x = {1, 2, 3, 4};
    EXPECT_TRUE(winfilternodelay(x.data(), 4, c.h.data(), static_cast<uint32_t>(c.h.size())) == 0 && x == c.expect)
        << c.h.size();
  }
  EXPECT_TRUE(winfilternodelay(h.data(), 2, nullptr, 0) == -1 && h[0] == 3.0);
}

TEST(PitchFrontEnd, UpsamplingAndPreFilterOnSinusoids) {
  // {factor, tone, its gain, tolerance}: the interpolation filter cuts at 0.4 fs, so a 7 kHz
  // tone is taken well down. Checked half the filter (50 L samples) away from either end.
  const struct { uint32_t L; double f, gain, tol; } tones[] = {{1, 1000, 1, 2e-3}, {3, 1000, 1, 2e-3}, {2, 7000, 0, 0.1}};
  const uint32_t n = 1600;
  std::vector<double> x(n);
  for (const auto &t : tones) {
    for (uint32_t i = 0; i < n; ++i) x[i] = std::sin(2 * kPi * t.f * i / 16000 + 0.3);
    double *y = upsampling(x.data(), n, 16000, t.L);
    ASSERT_NE(y, nullptr);
    for (uint32_t i = 50 * t.L; i + 50 * t.L < n * t.L; ++i)
      ASSERT_NEAR(y[i], t.gain * std::sin(2 * kPi * t.f * i / (t.L * 16000.0) + 0.3), t.tol) << t.L << " " << i;
    std::free(y);
  }
  EXPECT_TRUE(!upsampling(x.data(), n, 16000, 0) && !upsampling(x.data(), n, 0, 2) &&
              !upsampling(x.data(), 0x80000000u, 16000, 2));  // 2^32 samples

  // The pre-filter passes the voice band and takes DC and the high band 30 dB down.
  const double cases[][3] = {{16000, 200, 1.0}, {16000, 0, 0.0316227766}, {16000, 7000, 0.0316227766},
                             {22050, 6000, 0.0316227766}};
  for (const auto &c : cases) {
    const uint32_t m = static_cast<uint32_t>(c[0]);  // one second
    std::vector<double> s(m);
    for (uint32_t i = 0; i < m; ++i) s[i] = std::cos(2 * kPi * c[1] * i / c[0]);
    double *y = applyfftfilter(s.data(), m, c[0]);
    ASSERT_NE(y, nullptr);
    double peak = 0;
    for (uint32_t i = m / 4; i < 3 * m / 4; ++i) peak = std::max(peak, std::fabs(y[i]));
    EXPECT_NEAR(peak, c[2], 0.1 * c[2]) << c[0] << " " << c[1];
    std::free(y);
  }
  EXPECT_EQ(applyfftfilter(nullptr, 10, 0), nullptr);
  std::free(applyfftfilter(nullptr, 0, 16000));  // an empty signal gives an empty (freeable) result
}

}  // namespace
