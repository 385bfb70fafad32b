// Maximum voiced frequency: the harmonic peak walk and its 15 dB rules on
// hand-made log spectra, the cut likelihood and its 1 kHz floor, the
// sinusoidal likeness of windowed sinusoids and of noise, the median filter's
// untouched ends, the weighted smoother by hand, and whole tracks.
#include "fvanalysis.h"
#include "fvtrack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "dft.h"
#include "matvect.h"
#include "support/synthref.h"
#include "windowing.h"

namespace {

using namespace kestreltest;
namespace fvt = kestrel::fvtrack;
constexpr double kStep = 3.4538776394910693;  // 15 dB of power, natural log
constexpr double kLikExp = 8.31295041412083;

// Log power spectra of nfft 1024 at 16 kHz (15.625 Hz bins): a symmetric peak, neighbours 1 lower.
void peak(std::vector<double> &P, uint32_t b, double h) { P[b] = h, P[b - 1] = P[b + 1] = h - 1; }

// Harmonic peaks of 250 Hz (every 16th bin) at 0 over -30, some heights replaced {harmonic, height}.
std::vector<double> harmonics(const std::vector<std::pair<uint32_t, double>> &heights) {
  std::vector<double> P(513, -30);
  for (uint32_t m = 1; m <= 31; ++m) peak(P, 16 * m, 0);
  for (const auto &h : heights) peak(P, 16 * h.first, h.second);
  return P;
}

// Frequencies of the walk over P, -1 past it.
std::vector<double> walk(double f0, const std::vector<double> &P, uint32_t *count = nullptr) {
  std::vector<double> freq(512, -1.0), lik(512), X(2048, 0.0);  // slm is not examined here
  const uint32_t n = fvt::walkharmonics(P.data(), X.data(), 1024, 16000, f0, 241, 8, freq.data(), lik.data());
  if (count) *count = n;
  return freq;
}

TEST(FvPeakWalk, FifteenDecibelRules) {
  const double below = std::nextafter(-kStep, -1e9), rise = -4 + kStep;  // exactly 15 dB above -4
  // Heights {harmonic, height} and the harmonics dropped (frequency 0).
  const struct { std::vector<std::pair<uint32_t, double>> heights; std::vector<uint32_t> dropped; } cases[] = {
      {{{2, -kStep}}, {}}, {{{2, below}}, {2}},  // exactly 15 dB below the previous: kept; more: dropped
      {{{2, below}, {3, below - kStep}}, {2, 3}},  // the fall is measured from the previous, dropped or not
      {{{1, -4}, {2, rise}, {3, rise}}, {}},  // exactly 15 dB above: the previous kept
      {{{1, -4}, {2, rise + 1e-15}, {3, rise + 1e-15}}, {1}},  // more: the previous dropped
      {{{5, -20}}, {5}},  // a deep notch, dropped again by the rise after it
      {{{4, -3}, {5, -6.5}, {6, -10}}, {5, 6}},  // two falls in a row
  };
  for (const auto &c : cases) {
    uint32_t count = 0;
    const std::vector<double> freq = walk(250, harmonics(c.heights), &count);
    ASSERT_EQ(count, 31u);  // (m + 0.5) * 250 < 8000
    for (uint32_t m = 1; m <= 32; ++m) {
      const bool drop = std::find(c.dropped.begin(), c.dropped.end(), m) != c.dropped.end();
      EXPECT_EQ(freq[m - 1], m == 32 ? -1.0 : drop ? 0.0 : 250.0 * m) << "harmonic " << m;
    }
  }
}

TEST(FvPeakWalk, PeakChoiceInABandAndMissingPeaks) {
  // Band of harmonic 2 is bins 24 .. 39: of two equal peaks the first wins, a higher later one wins.
  std::vector<double> P = harmonics({{2, -30}});
  peak(P, 28, 0), peak(P, 36, 0);
  EXPECT_EQ(walk(250, P)[1], 28 * 15.625);
  peak(P, 36, 0.5);
  EXPECT_EQ(walk(250, P)[1], 36 * 15.625);
  // No strict peak in band 3 (a plateau): the nearest bin to 3 f0 as it is; harmonic 4's
  // parabola through -1, 0, -0.5 puts its vertex 0.25/1.5 = 1/6 bin right of bin 64.
  P = harmonics({});
  std::fill(P.begin() + 40, P.begin() + 56, -1.0);
  P[65] = -0.5;
  const std::vector<double> freq = walk(250, P);
  EXPECT_TRUE(freq[2] == 750.0 && std::fabs(freq[3] - (64 + 1.0 / 6) * 15.625) < 1e-9) << freq[3];
  // f0 = 200 Hz on a spectrum without any peak: 39 harmonics at their nearest bins.
  uint32_t count = 0;
  const std::vector<double> flat = walk(200, std::vector<double>(513, -5), &count);
  EXPECT_EQ(count, 39u);
  for (uint32_t m = 1; m <= 39; ++m) EXPECT_EQ(flat[m - 1], std::floor(m * 200 / 15.625 + 0.5) * 15.625) << m;
  walk(5400, P, &count);  // above fs/3 not one band fits
  EXPECT_EQ(count, 0u);
}

TEST(FvCut, LikelihoodFloorAndExponent) {
  const struct { std::vector<double> freq, lik; double fv; } cases[] = {
      {{1500, 2500, 3500, 4500}, {1, 1, 0, 0}, 3500},
      {{500, 0, 1500, 0, 2500}, {1, 0.3, 1, 0.3, 0}, 2500},  // dropped harmonics are skipped
      {{1500, 2500}, {1, 1}, 1000},                          // all voiced: L all 0
      {{1500, 2500}, {0, 0}, 1500},                          // all noise: cut at the first
      {{500, 800, 1200}, {1, 0, 0}, 1000},                   // best cut below 1 kHz not allowed
      // q = 0.9^8.31 = 0.417, 0.2^8.31 = 1.5e-6: L = (0.583, 0.417); with q = lik it would be (0.08, 0.72).
      {{1500, 2500}, {0.9, 0.2}, 1500},
  };
  for (const auto &c : cases) {
    std::vector<double> freq = c.freq, lik = c.lik, L(c.freq.size(), -1.0);
    EXPECT_EQ(fvt::choosecut(freq.data(), lik.data(), static_cast<uint32_t>(freq.size()), L.data()), c.fv);
    if (&c != &cases[5]) continue;  // the likelihoods by hand
    const double q0 = std::pow(0.9, kLikExp), q1 = std::pow(0.2, kLikExp);
    EXPECT_TRUE(std::fabs(L[0] - (1 - q0) * (1 - q1)) < 1e-15 && std::fabs(L[1] - q0 * (1 - q1)) < 1e-15 &&
                std::fabs(lik[0] - q0) < 1e-15) << L[0] << " " << L[1] << " " << lik[0];
  }
}

// Spectrum of the zero-phase Hann frame of x centred on 2000, as the estimator builds it.
std::vector<double> framespectrum(const std::vector<double> &x, uint32_t N, uint32_t nfft) {
  std::vector<double> X(2 * nfft, 0.0);
  X[0] = 2 * x[2000];
  for (uint32_t i = 1; i <= N / 2; ++i) {
    const double w = 1 + std::cos(kPi * i / (N / 2));
    X[2 * i] = x[2000 + i] * w, X[2 * (nfft - i)] = x[2000 - i] * w;
  }
  fftc(static_cast<int32_t>(nfft), X.data());
  return X;
}

TEST(Slm, WindowedSinusoidIsOneAndSilenceIsZero) {
  const double fs = 16000, f0 = 200;
  const uint32_t N = getwinlengthnperiodsodd(3.0, f0, fs), nfft = getwinlengthceilpot2(4 * N);  // 241, 1024
  const uint32_t h = static_cast<uint32_t>(std::floor(0.5 * f0 / (fs / nfft)));
  auto bin = [&](double f) { return static_cast<uint32_t>(std::floor(f / (fs / nfft) + 0.5)); };
  std::vector<double> x(4000);
  // Near 0 and fs/2 the image through 0 or fs overlaps the band; a cosine in phase with the
  // frame centre has a real spectrum, the sum of both kernels, and still matches. A quarter
  // harmonic away, the match drops.
  for (double f : {1003.7, 3999.0, 4000.0, 7300.0, 60.0, 7950.0}) {
    const double phase = f < 200 || f > 7800 ? -2 * kPi * f * 2000 / fs : 1.1;
    for (uint32_t i = 0; i < x.size(); ++i) x[i] = 0.3 * std::cos(2 * kPi * f * i / fs + phase);
    const std::vector<double> X = framespectrum(x, N, nfft);
    const double s = slm(X.data(), nfft, fs, f, N, bin(f), h);
    EXPECT_TRUE(s > 0.995 && s <= 1.0 + 1e-12) << f << " " << s;
    EXPECT_TRUE(f < 1000 || f > 7800 || slm(X.data(), nfft, fs, f + 0.25 * f0, N, bin(f), h) < 0.9) << f;
  }
  // A band without energy has no likeness. (That noise looks less sinusoidal shows in the
  // known voiced bands below: otherwise the estimate would run to the top of the band.)
  EXPECT_EQ(slm(std::vector<double>(2 * nfft, 0.0).data(), nfft, fs, 1000, N, 64, h), 0.0);
}

TEST(FvSmoothing, MedianWithUntouchedEndsAndWeightedAverageOfOriginalValues) {
  // The median exactly (the outputs are finite). The weighted average weighs by value: 2000 -> 1, 3000 -> 1, 4000 -> 1,
  // 6000 -> 0.5, 8000 -> 0, 1000 -> 0.5, -1000 -> -0.5.
  using Filter = int (*)(double *, uint32_t, uint32_t);
  const Filter M = medianfilt, W = wsmooth;
  const struct { Filter filter; std::vector<double> in; uint32_t w; std::vector<double> out; } cases[] = {
      {M, {5, 1, 4, 2, 3, 9, 0}, 5, {5, 1, 3, 3, 3, 9, 0}}, {M, {7, 3, 5}, 3, {7, 5, 5}},
      {M, {1, 9, 9, 1, 1, 1, 9}, 3, {1, 9, 9, 1, 1, 1, 9}},  // every window sees unfiltered values
      {M, {1, 8, 2, 9, 3}, 4, {1, 8, 3, 9, 3}},  // even width: 2*(4/2)+1 = 5 wide
      {M, {4, 2, 6, 1}, 5, {4, 2, 6, 1}},        // shorter than the window: unchanged
      {W, {0, 3000, 1000, 0}, 3, {0, 3500 / 1.5, 3500 / 1.5, 0}}, {W, {6000, 2000}, 3, {5000 / 1.5, 5000 / 1.5}},
      {W, {8000, 9000}, 3, {8000, 9000}},                  // no weight at all: unchanged
      {W, {0, 0, 5000}, 3, {0, 0, 5000}},                  // unvoiced frames stay 0 and weigh nothing
      {W, {1000, 3000, 3000}, 2, {1000, 3500 / 1.5, 3000}},  // even width: frames i-1 and i
      // The frame leaving the window is taken out with its original value.
      {W, {3000, 1000, 1000, 3000, 1000}, 3, {3500 / 1.5, 2000, 2000, 2000, 3500 / 1.5}},
      {W, {-1000, 3000}, 3, {3500 / 0.5, 3500 / 0.5}},
      {W, {3000, kInf, 3000, 0, 0, 3000}, 3, {3000, 3000, 3000, 0, 0, 3000}},  // non-finite: no weight, no spread
  };
  for (const auto &c : cases) {
    std::vector<double> v = c.in;
    EXPECT_EQ(c.filter(v.data(), static_cast<uint32_t>(v.size()), c.w), 0);
    for (size_t i = 0; i < v.size(); ++i)
      EXPECT_NEAR(v[i], c.out[i], c.filter == M ? 0.0 : 1e-9) << "case " << &c - cases << " " << i;
  }
  EXPECT_EQ(medianfilt(nullptr, 0, 5), 0);
}

// Harmonics of f0 up to fmaxh plus white noise of rms `noise`.
std::vector<double> voicedsignal(double f0, double fmaxh, double noise, uint32_t n) {
  std::vector<double> x = gaussvec(n, noise, 1);
  for (uint32_t k = 1; k * f0 <= fmaxh && k * f0 < 8000; ++k)
    for (uint32_t i = 0; i < n; ++i) x[i] += 0.05 * std::cos(2 * kPi * k * f0 * i / 16000 + 0.7 * k * k);
  return x;
}

TEST(GetFvoicing, KnownVoicedBands) {
  // The first harmonic above a strong voiced band is usually more than 15 dB down and
  // dropped, while noise peaks look fairly sinusoidal: the estimate lands one to a few
  // harmonics above the true edge, and never below 1 kHz.
  const double cases[][5] = {{200, 4000, 0.002, 4000, 5400}, {120, 6000, 0.01, 6000, 7400},
                             {200, 800, 0.002, 1000, 2200}};  // f0, top harmonic, noise, range of the median
  for (const auto &c : cases) {
    const std::vector<double> x = voicedsignal(c[0], c[1], c[2], 16000);
    std::vector<double> f0(190, c[0]), fv(190, -1);
    ASSERT_EQ(getfvoicing(x.data(), 16000, 16000, 80, 80, 190, f0.data(), fv.data()), 0);
    const double lowest = *std::min_element(fv.begin(), fv.end()), median = medianelem(fv.data() + 5, 180);
    EXPECT_TRUE(lowest >= 1000.0 && median >= c[3] && median <= c[4]) << c[1] << " " << lowest << " " << median;
  }
}

TEST(GetFvoicing, UnvoicedFramesAndDegenerateInput) {
  // Unvoiced frames (NaN and infinite f0 too) get 0; frames past the end, of an empty signal
  // or with f0 beyond the band are silent (1000); fewer frames than the median width (5) stay
  // unfiltered. A voiced f0 needing a gigantic transform, or a bad rate, is refused with fv all 0.
  const std::vector<double> x = voicedsignal(200, 4000, 0.002, 8000);
  const struct { const double *x; uint32_t n; double fs; uint32_t first; std::vector<double> f0, fv; int result; }
  cases[] = {{x.data(), 8000, 16000, 80, std::vector<double>(9, 0.0), std::vector<double>(9, 0.0), 0},
             {x.data(), 8000, 16000, 8200, {kNaN, 200, kInf, 200}, {0, 1000, 0, 1000}, 0},
             {nullptr, 0, 16000, 0, {200, 9000, 20000}, {1000, 1000, 1000}, 0},
             {x.data(), 8000, 16000, 80, {200, 1e-6, 200}, {0, 0, 0}, -1},
             {x.data(), 8000, 0, 80, {200, 200, 200}, {0, 0, 0}, -1}};
  for (const auto &c : cases) {
    std::vector<double> fv(c.f0.size(), -1);
    EXPECT_EQ(getfvoicing(c.x, c.n, c.fs, 80, c.first, static_cast<uint32_t>(fv.size()), c.f0.data(), fv.data()),
              c.result) << &c - cases;
    EXPECT_EQ(fv, c.fv) << &c - cases;
  }
  double untouched = 5;
  EXPECT_TRUE(getfvoicing(x.data(), 8000, 16000, 80, 80, 0, nullptr, &untouched) == 0 && untouched == 5);
}

}  // namespace
