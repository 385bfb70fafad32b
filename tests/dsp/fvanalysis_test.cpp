// Maximum voiced frequency: the harmonic peak walk and its 15 dB rules on
// hand-made log spectra, the cut likelihood and its 1 kHz floor, the
// sinusoidal likeness of windowed sinusoids and of noise, the median filter's
// untouched ends, the weighted smoother by hand, and whole tracks of harmonic
// signals with a known voiced band.
#include "fvanalysis.h"
#include "fvtrack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "dft.h"
#include "windowing.h"

namespace {

namespace fvt = kestrel::fvtrack;
constexpr double kPi = 3.141592653589793;
constexpr double kStep = 3.4538776394910693;  // 15 dB of power, natural log

// Log power spectrum of nfft/2+1 bins: `floor` everywhere, with symmetric
// peaks (neighbours 1 lower) at the given bins.
struct Spectrum {
  std::vector<double> P;
  explicit Spectrum(uint32_t nfft, double floor = -30) : P(nfft / 2 + 1, floor) {}
  Spectrum &peak(uint32_t b, double A) {
    P[b] = A;
    P[b - 1] = A - 1;
    P[b + 1] = A - 1;
    return *this;
  }
};

struct Walk {
  std::vector<double> freq, lik;
  uint32_t count;
};

Walk walk(const Spectrum &s, uint32_t nfft, double f0) {
  const std::vector<double> X(2 * nfft, 0.0);  // slm is not examined here
  Walk w{std::vector<double>(nfft / 2, -1.0), std::vector<double>(nfft / 2, -1.0), 0};
  w.count = fvt::walkharmonics(s.P.data(), X.data(), nfft, 16000, f0, 241, 8, w.freq.data(), w.lik.data());
  return w;
}

TEST(FvPeakWalk, FifteenDecibelRules) {
  // nfft 1024 at 16 kHz: df = 15.625 Hz, f0 = 250 Hz puts harmonic m on bin 16m.
  const uint32_t nfft = 1024;
  const double f0 = 250;
  const double below = std::nextafter(-kStep, -1e9);
  const double riseexact = -4 + kStep;  // exactly 15 dB above -4 (no rounding)
  // One ulp above would round back to -4 after subtracting the step; a few do not.
  const double riseabove = riseexact + 1e-15;
  struct Case {
    const char *what;
    std::vector<std::pair<uint32_t, double>> peaks;  // harmonic, height (others 0)
    std::vector<uint32_t> dropped;                    // harmonics whose frequency is 0
  } cases[] = {
      {"flat harmonics all kept", {}, {}},
      {"exactly 15 dB below the previous: kept", {{2, -kStep}}, {}},
      {"more than 15 dB below: dropped", {{2, below}}, {2}},
      // Harmonic 3 passes (measured from the dropped harmonic 2), then the
      // rise to harmonic 4 removes it.
      {"fall is measured from the previous, dropped or not", {{2, below}, {3, below - kStep}}, {2, 3}},
      {"exactly 15 dB above the previous: previous kept", {{1, -4}, {2, riseexact}, {3, riseexact}}, {}},
      {"more than 15 dB above: previous dropped", {{1, -4}, {2, riseabove}, {3, riseabove}}, {1}},
      {"deep notch: dropped, and the rise after it removes it again", {{5, -20}}, {5}},
      {"two falls in a row", {{4, -3}, {5, -3 - 3.5}, {6, -3 - 3.5 - 3.5}}, {5, 6}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Spectrum s(nfft);
    for (uint32_t m = 1; m <= 31; ++m) s.peak(16 * m, 0);
    for (const auto &p : c.peaks) s.peak(16 * p.first, p.second);
    const Walk w = walk(s, nfft, f0);
    ASSERT_EQ(w.count, 31u);  // (m + 0.5) * 250 < 8000
    for (uint32_t m = 1; m <= 31; ++m) {
      const bool drop = std::find(c.dropped.begin(), c.dropped.end(), m) != c.dropped.end();
      EXPECT_EQ(w.freq[m - 1], drop ? 0.0 : 250.0 * m) << "harmonic " << m;
    }
    EXPECT_EQ(w.freq[31], -1.0);  // nothing written past the walked harmonics
  }
}

TEST(FvPeakWalk, PeakChoiceInABandAndMissingPeaks) {
  const uint32_t nfft = 1024;
  {
    // Band of harmonic 2 is bins 24 .. 39: two equal peaks, the first wins;
    // a higher one later wins.
    Spectrum s(nfft);
    for (uint32_t m = 1; m <= 31; ++m) s.peak(16 * m, 0);
    s.P[32] = -30, s.P[31] = -30, s.P[33] = -30;
    s.peak(28, 0).peak(36, 0);
    EXPECT_EQ(walk(s, nfft, 250).freq[1], 28 * 15.625);
    s.peak(36, 0.5);
    EXPECT_EQ(walk(s, nfft, 250).freq[1], 36 * 15.625);
  }
  {
    // No strict peak in band 3 (a plateau at -1): the nearest bin to 3 f0 is
    // used as it is (bin 48, 750 Hz); interpolation moves an asymmetric peak.
    Spectrum s(nfft);
    for (uint32_t m = 1; m <= 31; ++m) s.peak(16 * m, 0);
    for (uint32_t j = 40; j < 56; ++j) s.P[j] = -1;
    s.P[64] = 0, s.P[63] = -1, s.P[65] = -0.5;  // harmonic 4: vertex right of bin 64
    const Walk w = walk(s, nfft, 250);
    EXPECT_EQ(w.freq[2], 750.0);
    // Parabola through -1, 0, -0.5: offset -b/(2a) = 0.25/1.5 = 1/6 of a bin.
    EXPECT_NEAR(w.freq[3], (64 + 1.0 / 6) * 15.625, 1e-9);
  }
  {
    // f0 = 200 Hz: harmonics 1 .. 39 are walked, on a spectrum without any peak.
    Spectrum s(nfft, -5);
    const Walk w = walk(s, nfft, 200);
    EXPECT_EQ(w.count, 39u);
    for (uint32_t m = 1; m <= 39; ++m)
      EXPECT_EQ(w.freq[m - 1], std::floor(m * 200 / 15.625 + 0.5) * 15.625) << m;
  }
  {
    // f0 above fs/3: not one harmonic band fits.
    Spectrum s(nfft);
    EXPECT_EQ(walk(s, nfft, 5400).count, 0u);
  }
}

TEST(FvCut, LikelihoodFloorAndExponent) {
  struct Case {
    const char *what;
    std::vector<double> freq, lik;
    double fv;
  } cases[] = {
      {"voiced up to the third of four", {1500, 2500, 3500, 4500}, {1, 1, 0, 0}, 3500},
      {"dropped harmonics are skipped", {500, 0, 1500, 0, 2500}, {1, 0.3, 1, 0.3, 0}, 2500},
      {"all voiced: cut at none of them (L all 0)", {1500, 2500}, {1, 1}, 1000},
      {"all noise: cut at the first", {1500, 2500}, {0, 0}, 1500},
      {"best cut below 1 kHz is not allowed", {500, 800, 1200}, {1, 0, 0}, 1000},
      {"all harmonics below 1 kHz", {300, 600, 900}, {0.9, 0.5, 0.1}, 1000},
      {"nothing kept", {0, 0}, {0.5, 0.5}, 1000},
      // With the exponent, q = 0.9^8.31 = 0.417 and 0.2^8.31 = 1.5e-6:
      // L = (0.583, 0.417) picks 1500; with q = lik it would be (0.08, 0.72).
      {"likeness is sharpened by the exponent", {1500, 2500}, {0.9, 0.2}, 1500},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<double> freq = c.freq, lik = c.lik, L(c.freq.size(), -1.0);
    EXPECT_EQ(fvt::choosecut(freq.data(), lik.data(), static_cast<uint32_t>(freq.size()), L.data()), c.fv);
  }
  // The likelihoods themselves for the last case, computed by hand.
  std::vector<double> freq = {1500, 2500}, lik = {0.9, 0.2}, L(2);
  fvt::choosecut(freq.data(), lik.data(), 2, L.data());
  const double q0 = std::pow(0.9, 8.31295041412083), q1 = std::pow(0.2, 8.31295041412083);
  EXPECT_NEAR(L[0], (1 - q0) * (1 - q1), 1e-15);
  EXPECT_NEAR(L[1], q0 * (1 - q1), 1e-15);
  EXPECT_NEAR(lik[0], q0, 1e-15);
}

// Zero-phase frame of x centred on c, as the estimator builds it, and its spectrum.
std::vector<double> zerophasespectrum(const std::vector<double> &x, uint32_t c, uint32_t N, uint32_t nfft) {
  std::vector<double> X(2 * nfft, 0.0);
  const uint32_t half = N / 2;
  X[0] = 2 * x[c];
  for (uint32_t i = 1; i <= half; ++i) {
    const double w = 1 + std::cos(kPi * i / half);
    X[2 * i] = x[c + i] * w;
    X[2 * (nfft - i)] = x[c - i] * w;
  }
  fftc(static_cast<int32_t>(nfft), X.data());
  return X;
}

TEST(Slm, WindowedSinusoidIsOneAndNoiseIsLow) {
  const double fs = 16000, f0 = 200;
  const uint32_t N = getwinlengthnperiodsodd(3.0, f0, fs);  // 241
  const uint32_t nfft = getwinlengthceilpot2(4 * N);        // 1024
  const double df = fs / nfft;
  const uint32_t h = static_cast<uint32_t>(std::floor(0.5 * f0 / df));
  std::vector<double> x(4000);
  for (double f : {1000.0, 1003.7, 2222.2, 3999.0, 4000.0, 5000.0, 7300.0}) {
    for (uint32_t i = 0; i < x.size(); ++i) x[i] = 0.3 * std::cos(2 * kPi * f * i / fs + 1.1);
    const std::vector<double> X = zerophasespectrum(x, 2000, N, nfft);
    const uint32_t b = static_cast<uint32_t>(std::floor(f / df + 0.5));
    const double s = slm(X.data(), nfft, fs, f, N, b, h);
    EXPECT_GT(s, 0.995) << f;
    EXPECT_LE(s, 1.0 + 1e-12) << f;
    // Evaluated for a frequency a quarter of a harmonic away, the match drops.
    EXPECT_LT(slm(X.data(), nfft, fs, f + 0.25 * f0, N, b, h), 0.9) << f;
  }
  // Near 0 and fs/2 the image through 0 (below fs/4) or through fs (from fs/4
  // up) overlaps the band; a cosine in phase with the frame centre has a real
  // spectrum equal to the sum of both kernels, so it still matches fully.
  for (double f : {60.0, 130.0, 7870.0, 7950.0}) {
    for (uint32_t i = 0; i < x.size(); ++i) x[i] = 0.3 * std::cos(2 * kPi * f * (i - 2000.0) / fs);
    const std::vector<double> X = zerophasespectrum(x, 2000, N, nfft);
    const uint32_t b = static_cast<uint32_t>(std::floor(f / df + 0.5));
    EXPECT_GT(slm(X.data(), nfft, fs, f, N, b, h), 0.995) << f;
  }
  std::mt19937 gen(5);
  std::normal_distribution<double> g;
  // White noise still looks fairly sinusoidal at this resolution (mean about
  // 0.72); the exponent of the cut likelihood is what pushes it down (about 0.2).
  double sum = 0, sumq = 0;
  const int trials = 400;
  for (int t = 0; t < trials; ++t) {
    for (double &v : x) v = g(gen);
    const std::vector<double> X = zerophasespectrum(x, 2000, N, nfft);
    const double f = 1000 + 20 * (t % 200);
    const double s = slm(X.data(), nfft, fs, f, N, static_cast<uint32_t>(std::floor(f / df + 0.5)), h);
    EXPECT_GE(s, 0.0);
    EXPECT_LE(s, 1.0 + 1e-12);
    sum += s;
    sumq += std::pow(s, 8.31295041412083);
  }
  EXPECT_LT(sum / trials, 0.8);
  EXPECT_LT(sumq / trials, 0.3);
  // A band without energy has no likeness; a band reaching past bin 0 is clipped.
  const std::vector<double> zero(2 * nfft, 0.0);
  EXPECT_EQ(slm(zero.data(), nfft, fs, 1000, N, 64, h), 0.0);
  for (double &v : x) v = g(gen);
  const std::vector<double> X = zerophasespectrum(x, 2000, N, nfft);
  const double s = slm(X.data(), nfft, fs, 30, N, 2, h);
  EXPECT_GE(s, 0.0);
  EXPECT_LE(s, 1.0);
}

TEST(MedianFilt, HandComputedWithUntouchedEnds) {
  struct Case {
    std::vector<double> in;
    uint32_t w;
    std::vector<double> out;
  } cases[] = {
      {{5, 1, 4, 2, 3, 9, 0}, 5, {5, 1, 3, 3, 3, 9, 0}},
      // Every window sees unfiltered values.
      {{1, 9, 9, 1, 1, 1, 9}, 3, {1, 9, 9, 1, 1, 1, 9}},
      {{0, 10, 0, 10, 0, 10}, 3, {0, 0, 10, 0, 10, 10}},
      {{7, 3, 5}, 3, {7, 5, 5}},
      {{1, 8, 2, 9, 3}, 4, {1, 8, 3, 9, 3}},  // even width: 2*(4/2)+1 = 5 wide
      {{4, 2, 6}, 1, {4, 2, 6}},
      {{4, 2, 6, 1}, 5, {4, 2, 6, 1}},  // shorter than the window: unchanged
  };
  for (const Case &c : cases) {
    std::vector<double> v = c.in;
    EXPECT_EQ(medianfilt(v.data(), static_cast<uint32_t>(v.size()), c.w), 0);
    EXPECT_EQ(v, c.out);
  }
  EXPECT_EQ(medianfilt(nullptr, 0, 5), 0);
}

TEST(WSmooth, WeightedAverageOfOriginalValues) {
  struct Case {
    const char *what;
    std::vector<double> in;
    uint32_t w;
    std::vector<double> out;
  } cases[] = {
      // Weights: 3000 -> 1, 1000 -> 0.5; both frames average to 3500/1.5.
      {"window of three", {0, 3000, 1000, 0}, 3, {0, 3500 / 1.5, 3500 / 1.5, 0}},
      // Knees: 2000 -> 1, 4000 -> 1, 6000 -> 0.5, 8000 -> 0.
      {"weights at the knees", {2000, 4000}, 3, {6000 / 2.0, 6000 / 2.0}},
      {"falling weight", {6000, 2000}, 3, {(3000 + 2000) / 1.5, (3000 + 2000) / 1.5}},
      {"zero weight above 8 kHz", {8000, 9000}, 3, {8000, 9000}},
      {"8 kHz next to a weighted frame", {8000, 3000}, 3, {3000, 3000}},
      {"unvoiced frames stay 0 and weigh nothing", {0, 0, 5000}, 3, {0, 0, 5000}},
      {"width 1 leaves the track", {1234, 0, 5678}, 1, {1234, 0, 5678}},
      // Even width 2: frames i-1 and i.
      {"even width", {1000, 3000, 3000}, 2, {1000, 3500 / 1.5, 3000}},
      // The frame leaving the window is taken out with its original value,
      // not the one already smoothed.
      {"running sums of original values", {3000, 1000, 1000, 3000, 1000}, 3,
       {3500 / 1.5, 2000, 2000, 2000, 3500 / 1.5}},
      // Negative values give a negative weight (-0.5 for -1000).
      {"negative value", {-1000, 3000}, 3, {(500 + 3000) / 0.5, (500 + 3000) / 0.5}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<double> v = c.in;
    EXPECT_EQ(wsmooth(v.data(), static_cast<uint32_t>(v.size()), c.w), 0);
    ASSERT_EQ(v.size(), c.out.size());
    for (size_t i = 0; i < v.size(); ++i) EXPECT_NEAR(v[i], c.out[i], 1e-9) << i;
  }
  // Non-finite values weigh nothing and do not spread.
  std::vector<double> v = {3000, std::numeric_limits<double>::infinity(), 3000, 0, 0, 3000};
  wsmooth(v.data(), 6, 3);
  EXPECT_EQ(v[0], 3000);
  EXPECT_EQ(v[1], 3000);
  EXPECT_EQ(v[5], 3000);
}

// f0-harmonic signal with harmonics up to fmaxh, plus white noise of rms `noise`.
std::vector<double> voicedsignal(double f0, double fmaxh, double noise, uint32_t n, uint32_t seed = 1) {
  std::vector<double> x(n, 0.0);
  for (uint32_t k = 1; k * f0 <= fmaxh && k * f0 < 8000; ++k)
    for (uint32_t i = 0; i < n; ++i) x[i] += 0.05 * std::cos(2 * kPi * k * f0 * i / 16000 + 0.7 * k * k);
  std::mt19937 gen(seed);
  std::normal_distribution<double> g(0, noise);
  for (double &v : x) v += g(gen);
  return x;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

TEST(GetFvoicing, KnownVoicedBands) {
  // The estimate is the first harmonic counted as noise, and the first one
  // above a strong voiced band is usually more than 15 dB down and dropped,
  // while noise peaks (the largest bin of each band) look fairly sinusoidal:
  // so it lands one to a few harmonics above the true edge.
  const uint32_t n = 16000, shift = 80, nframes = 190;
  struct Case {
    const char *what;
    double f0, fmaxh, noise, lo, hi;
  } cases[] = {
      {"harmonics to 4 kHz over noise", 200, 4000, 0.002, 4000, 5400},
      {"harmonics to 2.5 kHz over noise", 150, 2500, 0.002, 2500, 3900},
      {"harmonics to 6 kHz over noise", 120, 6000, 0.01, 6000, 7400},
      {"harmonics to Nyquist", 200, 8000, 0.0, 7000, 8000},
      {"harmonics below 1 kHz only", 200, 800, 0.002, 1000, 2200},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const std::vector<double> x = voicedsignal(c.f0, c.fmaxh, c.noise, n);
    std::vector<double> f0(nframes, c.f0), fv(nframes, -1);
    ASSERT_EQ(getfvoicing(x.data(), n, 16000, shift, shift, nframes, f0.data(), fv.data()), 0);
    const double m = median(std::vector<double>(fv.begin() + 5, fv.end() - 5));
    EXPECT_GE(m, c.lo);
    EXPECT_LE(m, c.hi);
    for (double v : fv) EXPECT_GE(v, 1000.0);
  }
}

TEST(GetFvoicing, UnvoicedFramesAndDegenerateInput) {
  const std::vector<double> x = voicedsignal(200, 4000, 0.002, 8000);
  {
    std::vector<double> f0(90, 0.0), fv(90, -1);
    ASSERT_EQ(getfvoicing(x.data(), 8000, 16000, 80, 80, 90, f0.data(), fv.data()), 0);
    for (double v : fv) EXPECT_EQ(v, 0.0);
  }
  {
    // NaN, infinite and negative f0 are unvoiced; frames past the end are
    // silent (fv 1000); fewer frames than the median width are left unfiltered.
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<double> f0 = {std::nan(""), inf, -100, 200};
    std::vector<double> fv(4, -1);
    ASSERT_EQ(getfvoicing(x.data(), 8000, 16000, 80, 7900, 4, f0.data(), fv.data()), 0);
    EXPECT_EQ(fv[0], 0.0);
    EXPECT_EQ(fv[1], 0.0);
    EXPECT_EQ(fv[2], 0.0);
    EXPECT_EQ(fv[3], 1000.0);  // centre 8140: all samples beyond the end
  }
  {
    // A voiced f0 that would need a gigantic transform is refused.
    std::vector<double> f0 = {200, 1e-6, 200}, fv(3, -1);
    EXPECT_EQ(getfvoicing(x.data(), 8000, 16000, 80, 80, 3, f0.data(), fv.data()), -1);
    for (double v : fv) EXPECT_EQ(v, 0.0);
    std::vector<double> ok = {200, 200, 200};
    EXPECT_EQ(getfvoicing(x.data(), 8000, 0, 80, 80, 3, ok.data(), fv.data()), -1);
  }
  {
    double untouched = 5;
    EXPECT_EQ(getfvoicing(x.data(), 8000, 16000, 80, 80, 0, nullptr, &untouched), 0);
    EXPECT_EQ(untouched, 5);
    // Empty signal, very high f0.
    std::vector<double> f0 = {200, 9000, 20000}, fv(3, -1);
    EXPECT_EQ(getfvoicing(nullptr, 0, 16000, 80, 0, 3, f0.data(), fv.data()), 0);
    for (double v : fv) EXPECT_EQ(v, 1000.0);
  }
}

}  // namespace
