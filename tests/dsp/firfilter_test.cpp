// FIR filtering for the analysis front end: the template filter's gain at and
// between its breakpoints (measured on its impulse response with a direct
// DTFT), its zero delay, the overlap-add against direct convolution, the
// windowed-sinc low-pass, zero-delay FIR filtering by hand, and upsampling and
// the pitch pre-filter on sinusoids.
#include "pitchanalysis.h"
#include "spectralanalysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

constexpr double kPi = 3.141592653589793;

// |sum_m h[m] e^{-j 2 pi f m / fs}| in dB, with m counted from `centre`.
double gaindb(const std::vector<double> &h, double f, double fs) {
  double re = 0, im = 0;
  for (size_t m = 0; m < h.size(); ++m) {
    re += h[m] * std::cos(2 * kPi * f * m / fs);
    im -= h[m] * std::sin(2 * kPi * f * m / fs);
  }
  return 10 * std::log10(re * re + im * im);
}

// The filter's impulse response: filter a unit impulse at the middle of a
// signal long enough to hold all of it.
std::vector<double> impulseresponse(double fs, uint32_t nfft, const std::vector<double> &tf,
                                    const std::vector<double> &tdb, uint32_t n, uint32_t at) {
  std::vector<double> x(n, 0.0), y(n, 1e9);
  x[at] = 1;
  EXPECT_EQ(fftfilter(x.data(), n, y.data(), fs, nfft, tf.data(), tdb.data(), static_cast<uint32_t>(tf.size())), 0);
  return y;
}

const std::vector<double> kPitchTf = {0, 45, 55, 3000, 5000, 1e6};
const std::vector<double> kPitchDb = {-30, -30, 0, 0, -30, -30};

TEST(FftFilter, ZeroDelayAndFiniteSupport) {
  const uint32_t nfft = 2048, n = 6000, at = 2500;
  const std::vector<double> y = impulseresponse(16000, nfft, kPitchTf, kPitchDb, n, at);
  const uint32_t D = nfft / 4;
  // Symmetric about the impulse (linear phase with the delay removed).
  for (uint32_t m = 1; m <= D; ++m) EXPECT_NEAR(y[at + m], y[at - m], 1e-12) << m;
  // Nothing beyond the nfft/2+1 taps.
  for (uint32_t i = 0; i < n; ++i)
    if (i + D < at || i > at + D) {
      ASSERT_NEAR(y[i], 0.0, 1e-13) << i;
    }
  // Centre tap: the mean of the template's amplitude over the band is well
  // below 1 and clearly positive.
  EXPECT_GT(y[at], 0.2);
  EXPECT_LT(y[at], 0.6);
}

TEST(FftFilter, GainAtAndBetweenTemplateBreakpoints) {
  const double fs = 16000;
  struct Setup {
    uint32_t nfft;
    std::vector<double> tf, tdb;
    struct Point {
      double f, db, tol;
    };
    std::vector<Point> points;
  } setups[] = {
      // The pitch pre-filter at 16 kHz: transitions are smeared over about
      // +-2 fs/K = +-31 Hz by the Hann taper, so the 45/55 Hz pair is checked
      // with a longer transform below.
      {2048, kPitchTf, kPitchDb,
       {{150, 0, 0.05}, {1000, 0, 0.02}, {3000, 0, 0.1}, {3500, -7.5, 0.05}, {4000, -15, 0.05},
        {5000, -30, 0.5}, {6000, -30, 0.3}, {7900, -30, 0.3}, {0, -30, 1.0}}},
      // With 16385 taps the smearing is +-2 Hz: the steep 45/55 Hz ramp (3 dB
      // per Hz) is exact in its middle, rounded off by about 1 dB at its corners.
      {32768, kPitchTf, kPitchDb,
       {{20, -30, 0.5}, {45, -30, 1.5}, {50, -15, 0.5}, {55, 0, 1.0}, {100, 0, 0.05}}},
      // Rising template with an interior step (coincident breakpoints).
      {4096, {500, 2000, 2000, 6000}, {-20, 0, -10, -10},
       {{200, -20, 0.1}, {1250, -10, 0.05}, {3000, -10, 0.1}, {7000, -10, 0.05}}},
  };
  for (const Setup &s : setups) {
    const uint32_t n = 2 * s.nfft, at = s.nfft;
    const std::vector<double> y = impulseresponse(fs, s.nfft, s.tf, s.tdb, n, at);
    for (const auto &p : s.points) {
      SCOPED_TRACE(testing::Message() << "nfft " << s.nfft << " f " << p.f);
      EXPECT_NEAR(gaindb(y, p.f, fs), p.db, p.tol);
    }
  }
}

TEST(FftFilter, OverlapAddEqualsDirectConvolution) {
  const double fs = 16000;
  const uint32_t nfft = 256, D = nfft / 4;
  // Taps from the impulse response (centre at tap D).
  const std::vector<double> ir = impulseresponse(fs, nfft, kPitchTf, kPitchDb, 1024, 512);
  std::vector<double> h(2 * D + 1);
  for (uint32_t j = 0; j <= 2 * D; ++j) h[j] = ir[512 - D + j];

  std::mt19937 gen(7);
  std::normal_distribution<double> g;
  // Lengths around the block size (nfft/2) and its pairs, and a short one.
  for (uint32_t n : {1u, 5u, 127u, 128u, 129u, 255u, 256u, 257u, 1000u}) {
    std::vector<double> x(n), y(n);
    for (double &v : x) v = g(gen);
    ASSERT_EQ(fftfilter(x.data(), n, y.data(), fs, nfft, kPitchTf.data(), kPitchDb.data(), 6), 0);
    for (uint32_t i = 0; i < n; ++i) {
      double acc = 0;
      for (uint32_t j = 0; j <= 2 * D; ++j) {
        const int64_t src = static_cast<int64_t>(i) + D - j;
        if (src >= 0 && src < n) acc += h[j] * x[src];
      }
      ASSERT_NEAR(y[i], acc, 1e-12) << "n " << n << " i " << i;
    }
  }
}

TEST(FftFilter, RefusesInvalidArguments) {
  std::vector<double> x(64, 1.0), y(64, 7.0);
  const double tf[] = {0, 100}, tdb[] = {0, -10};
  const double badtf[] = {100, 0};
  const double nantf[] = {0, std::nan("")};
  struct Case {
    uint32_t nfft;
    double fs;
    const double *tf;
    uint32_t nt;
  } cases[] = {
      {1000, 16000, tf, 2},     // not a power of two
      {2, 16000, tf, 2},        // too short for a centred filter
      {1u << 23, 16000, tf, 2}, // too long
      {64, 0, tf, 2},           {64, -1, tf, 2}, {64, std::nan(""), tf, 2},
      {64, 16000, badtf, 2},    // descending breakpoints
      {64, 16000, nantf, 2},    {64, 16000, tf, 0},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(fftfilter(x.data(), 64, y.data(), c.fs, c.nfft, c.tf, tdb, c.nt), -1);
    for (double v : y) ASSERT_EQ(v, 7.0);
  }
  EXPECT_EQ(fftfilter(x.data(), 0, y.data(), 16000, 64, tf, tdb, 2), 0);
  // A single breakpoint is a constant gain: -6.0206 dB halves a sinusoid.
  const double one[] = {1000}, half[] = {-6.020599913279624};
  std::vector<double> s(4096), out(4096);
  for (uint32_t i = 0; i < s.size(); ++i) s[i] = std::sin(2 * kPi * 440 * i / 16000);
  ASSERT_EQ(fftfilter(s.data(), 4096, out.data(), 16000, 512, one, half, 1), 0);
  for (uint32_t i = 300; i < 3800; ++i) ASSERT_NEAR(out[i], 0.5 * s[i], 1e-6) << i;
}

TEST(LowPassDesign, UnitDcGainSymmetryAndResponse) {
  const uint32_t order = 100;
  const double fs = 32000, fc = 6400;
  std::vector<double> h(order + 1);
  ASSERT_EQ(getlpwinfilter(h.data(), order, fc, fs), 0);
  double sum = 0;
  for (double v : h) sum += v;
  EXPECT_NEAR(sum, 1.0, 1e-14);
  for (uint32_t k = 0; k <= order; ++k) EXPECT_NEAR(h[k], h[order - k], 1e-15);
  EXPECT_NEAR(h[order / 2], 2 * fc / fs, 0.01);  // sinc peak ~ 2 fc / fs
  struct Point {
    double f, lo, hi;
  } points[] = {
      {0, -0.001, 0.001},  {2000, -0.03, 0.03}, {5000, -0.1, 0.1},
      {fc, -6.5, -5.5},    // half amplitude at the cut-off
      {8000, -200, -45},   {12000, -200, -45},  {16000, -200, -45},
  };
  for (const Point &p : points) {
    const double g = gaindb(h, p.f, fs);
    EXPECT_GE(g, p.lo) << p.f;
    EXPECT_LE(g, p.hi) << p.f;
  }
  EXPECT_EQ(getlpwinfilter(h.data(), 0, fc, fs), 0);
  EXPECT_EQ(h[0], 1.0);
  h.assign(order + 1, 3.0);
  EXPECT_EQ(getlpwinfilter(h.data(), order, 0, fs), -1);
  EXPECT_EQ(getlpwinfilter(h.data(), order, fc, std::nan("")), -1);
  EXPECT_EQ(h[0], 3.0);
}

TEST(WinFilterNoDelay, HandComputed) {
  struct Case {
    std::vector<double> h, expect;
  } cases[] = {
      {{0.25, 0.5, 0.25}, {1.0, 2.0, 3.0, 2.75}},
      {{1, 0, 0}, {2, 3, 4, 0}},  // tap 0 looks one sample ahead
      {{0, 0, 1}, {0, 1, 2, 3}},  // last tap looks one sample back
      {{1}, {1, 2, 3, 4}},
      {{0.5, 0.5}, {0.5, 1.5, 2.5, 3.5}},  // even length: centred on tap 0
      {{0, 0, 0, 0, 0, 0, 0, 0, 1}, {0, 0, 0, 0}},  // reaches past both ends
  };
  for (const Case &c : cases) {
    std::vector<double> x = {1, 2, 3, 4};
    ASSERT_EQ(winfilternodelay(x.data(), 4, c.h.data(), static_cast<uint32_t>(c.h.size())), 0);
    EXPECT_EQ(x, c.expect);
  }
  std::vector<double> x = {1, 2};
  EXPECT_EQ(winfilternodelay(x.data(), 2, nullptr, 0), -1);
  EXPECT_EQ(x, (std::vector<double>{1, 2}));
}

TEST(Upsampling, InterpolatesASinusoidWithoutDelay) {
  const double fs = 16000;
  const uint32_t n = 1600;
  std::vector<double> x(n);
  for (uint32_t i = 0; i < n; ++i) x[i] = std::sin(2 * kPi * 1000 * i / fs + 0.3);
  for (uint32_t L : {1u, 2u, 3u, 4u}) {
    double *y = upsampling(x.data(), n, fs, L);
    ASSERT_NE(y, nullptr);
    const uint32_t guard = 50 * L;  // half the filter at the higher rate
    double worst = 0;
    for (uint32_t i = guard; i + guard < n * L; ++i) {
      const double t = static_cast<double>(i) / (L * fs);
      worst = std::max(worst, std::fabs(y[i] - std::sin(2 * kPi * 1000 * t + 0.3)));
    }
    EXPECT_LT(worst, 2e-3) << "L " << L;
    std::free(y);
  }
  EXPECT_EQ(upsampling(x.data(), n, fs, 0), nullptr);
  EXPECT_EQ(upsampling(x.data(), 0x80000000u, fs, 2), nullptr);  // 2^32 samples
  EXPECT_EQ(upsampling(x.data(), n, 0, 2), nullptr);
}

TEST(PitchPreFilter, PassesVoiceBandAndRemovesDcAndHighBand) {
  struct Case {
    double fs, f, gain;
  } cases[] = {
      {16000, 200, 1.0},         {16000, 0, 0.0316227766},  {16000, 7000, 0.0316227766},
      {8000, 1000, 1.0},         {22050, 150, 1.0},         {22050, 6000, 0.0316227766},
  };
  for (const Case &c : cases) {
    const uint32_t n = static_cast<uint32_t>(c.fs);  // one second
    std::vector<double> x(n);
    for (uint32_t i = 0; i < n; ++i) x[i] = std::cos(2 * kPi * c.f * i / c.fs);
    double *y = applyfftfilter(x.data(), n, c.fs);
    ASSERT_NE(y, nullptr);
    double peak = 0;
    for (uint32_t i = n / 4; i < 3 * n / 4; ++i) peak = std::max(peak, std::fabs(y[i]));
    EXPECT_NEAR(peak, c.gain, 0.1 * c.gain) << c.fs << " " << c.f;
    std::free(y);
  }
  EXPECT_EQ(applyfftfilter(nullptr, 10, 0), nullptr);
  double *empty = applyfftfilter(nullptr, 0, 16000);
  EXPECT_NE(empty, nullptr);
  std::free(empty);
}

}  // namespace
