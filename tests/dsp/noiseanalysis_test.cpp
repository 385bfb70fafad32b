// Noise spectrum and the other envelopes: the level of signals of known
// density (white noise, sinusoids, harmonic series), the silence floor, the
// segment rule at the signal edges checked against a direct DFT, and the
// symmetry and bin-copy rules.
#include "spectralanalysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "windowing.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kFs = 16000.0;
constexpr uint32_t kN = 401, kNfft = 1024;

struct Area {
  NAMEM *a;
  explicit Area(uint32_t N = kN, uint32_t nfft = kNfft) : a(nameminitializefft(N, nfft)) {}
  ~Area() { namemdestroy(a); }
};

TEST(NoiseArea, SizesAndWindow) {
  EXPECT_EQ(naframesize(16000.0), 401u);
  EXPECT_EQ(naframesize(8000.0), 201u);
  Area area;
  ASSERT_NE(area.a, nullptr);
  EXPECT_EQ(area.a->N, 401u);
  EXPECT_EQ(area.a->scratch, area.a->window + 401);  // one block, window first
  std::vector<double> w(401);
  winhamming(w.data(), 401, 1);
  for (uint32_t i = 0; i < 401; ++i) EXPECT_EQ(area.a->window[i], w[i]) << i;
  NAMEM *lpc = nameminitializelpc(401, 20);
  ASSERT_NE(lpc, nullptr);
  EXPECT_EQ(lpc->scratch, lpc->window + 401);
  EXPECT_EQ(namemdestroy(lpc), 0);
  EXPECT_EQ(namemdestroy(nullptr), 0);
  EXPECT_EQ(nameminitialize(0xFFFFFFFFu, 0xFFFFFFFFu), nullptr);  // refused, not attempted
}

TEST(NoiseLogSpectrum, SilenceGivesTheFloorInEveryBin) {
  Area area;
  std::vector<double> x(2000, 0.0), out(kNfft, 1.0);
  const double floor = std::log(std::sqrt(kN * 1.0000000000000002e-10 / (kN * kFs)));
  for (uint32_t c : {0u, 1000u, 1999u, 5000u}) {
    ASSERT_EQ(getnoiselogspectrum(x.data(), 2000, kFs, c, kNfft, out.data(), area.a), 0);
    for (uint32_t k = 0; k < kNfft; ++k) ASSERT_NEAR(out[k], floor, 1e-13) << "centre " << c << " bin " << k;
  }
}

TEST(NoiseLogSpectrum, WhiteNoiseReadsItsDensity) {
  // Unit-mean-square window and 1/(N fs): E[P scale] = s^2/fs in every bin.
  std::mt19937_64 gen(1);
  for (double sigma : {0.01, 0.3}) {
    std::normal_distribution<double> g(0.0, sigma);
    std::vector<double> x(200000);
    for (double &v : x) v = g(gen);
    Area area;
    std::vector<double> out(kNfft);
    double density = 0, logmean = 0;
    uint32_t count = 0;
    for (uint32_t c = 1000; c < 199000; c += 400) {
      ASSERT_EQ(getnoiselogspectrum(x.data(), 200000, kFs, c, kNfft, out.data(), area.a), 0);
      for (uint32_t k = 1; k < kNfft / 2; ++k) {
        density += std::exp(2 * out[k]);
        logmean += out[k];
        ++count;
      }
    }
    EXPECT_NEAR(density / count / (sigma * sigma / kFs), 1.0, 0.02) << sigma;
    // The log of an exponential variable averages gamma below the log of its mean.
    EXPECT_NEAR(logmean / count, 0.5 * (std::log(sigma * sigma / kFs) - 0.5772156649015329), 0.01) << sigma;
  }
}

TEST(NoiseLogSpectrum, SinusoidPeakHasTheWindowedAmplitude) {
  // A cosine of amplitude a at bin frequency b fs/nfft: |X_b| = a/2 sum(w)
  // (the mean removal and the image leak a little), so the bin reads
  // log(a/2 sum(w) / sqrt(N fs)).
  Area area;
  double wsum = 0;
  for (uint32_t i = 0; i < kN; ++i) wsum += area.a->window[i];
  std::vector<double> x(4000), out(kNfft);
  for (uint32_t b : {40u, 123u, 400u}) {
    const double a = 0.25;
    for (uint32_t i = 0; i < 4000; ++i) x[i] = a * std::cos(2 * kPi * b * i / kNfft);
    ASSERT_EQ(getnoiselogspectrum(x.data(), 4000, kFs, 2000, kNfft, out.data(), area.a), 0);
    EXPECT_NEAR(out[b], std::log(a / 2 * wsum / std::sqrt(kN * kFs)), 2e-3) << b;
  }
}

TEST(NoiseLogSpectrum, SegmentAtTheEdgesMatchesADirectTransform) {
  // A constant signal: at centre c the valid window indices are those whose
  // sample lies in the signal; the mean divides their sum by the full N; the
  // segment starts at FFT index 0. Checked bin by bin against a direct DFT.
  Area area;
  const uint32_t n = 1000, half = kN / 2;
  std::vector<double> x(n);
  for (uint32_t i = 0; i < n; ++i) x[i] = 0.5 + 0.001 * i;
  struct Case {
    uint32_t c;
    const char *name;
  };
  for (const Case &cs : std::vector<Case>{{0, "centre on sample 0"}, {120, "near the start"}, {500, "inside"},
                                           {900, "near the end"}, {999, "last sample"}, {1150, "past the end"}}) {
    SCOPED_TRACE(cs.name);
    std::vector<long double> seg(kN, 0.0L);
    long double sum = 0;
    for (uint32_t i = 0; i < kN; ++i) {
      const int64_t s = static_cast<int64_t>(cs.c) - half + i;
      if (s >= 0 && s < n) sum += x[s];
    }
    const long double mean = sum / kN;
    for (uint32_t i = 0; i < kN; ++i) {
      const int64_t s = static_cast<int64_t>(cs.c) - half + i;
      if (s >= 0 && s < n) seg[i] = (x[s] - mean) * area.a->window[i];
    }
    std::vector<double> out(kNfft);
    ASSERT_EQ(getnoiselogspectrum(x.data(), n, kFs, cs.c, kNfft, out.data(), area.a), 0);
    for (uint32_t k : {1u, 2u, 7u, 100u, 511u}) {
      long double re = 0, im = 0;
      for (uint32_t i = 0; i < kN; ++i) {
        const long double ang = -2.0L * kPi * static_cast<long double>((static_cast<uint64_t>(i) * k) % kNfft) / kNfft;
        re += seg[i] * std::cos(ang);
        im += seg[i] * std::sin(ang);
      }
      long double P = re * re + im * im;
      if (P < kN * 1.0000000000000002e-10L) P = kN * 1.0000000000000002e-10L;
      const double expected = static_cast<double>(0.5L * std::log(P / (kN * kFs)));
      EXPECT_NEAR(out[k], expected, 1e-9) << "bin " << k;
    }
  }
}

TEST(NoiseLogSpectrum, SymmetryBinCopiesAndRefusals) {
  std::mt19937_64 gen(8);
  std::normal_distribution<double> g(0.0, 0.2);
  std::vector<double> x(3000);
  for (double &v : x) v = g(gen);
  Area area;
  std::vector<double> out(kNfft);
  ASSERT_EQ(getnoiselogspectrum(x.data(), 3000, kFs, 1500, kNfft, out.data(), area.a), 0);
  EXPECT_EQ(out[0], out[1]);
  EXPECT_EQ(out[kNfft / 2], out[kNfft / 2 - 1]);
  for (uint32_t k = 1; k < kNfft / 2; ++k) EXPECT_EQ(out[kNfft - k], out[k]) << k;
  // Centres far past the end (and wrapping 32 bits) see only the floor.
  for (uint32_t c : {4000u, 0xFFFFFF00u, 0xFFFFFFFFu}) {
    ASSERT_EQ(getnoiselogspectrum(x.data(), 3000, kFs, c, kNfft, out.data(), area.a), 0);
    EXPECT_NEAR(out[5], std::log(std::sqrt(1e-10 / kFs)), 1e-12);
  }
  // An empty signal.
  ASSERT_EQ(getnoiselogspectrum(nullptr, 0, kFs, 0, kNfft, out.data(), area.a), 0);
  // FFT lengths the area cannot use are refused with the output untouched.
  std::vector<double> keep(kNfft, 3.0);
  for (uint32_t nfft : {0u, 256u, 1000u}) {
    std::vector<double> o = keep;
    EXPECT_EQ(getnoiselogspectrum(x.data(), 3000, kFs, 1500, nfft, o.data(), area.a), -1) << nfft;
    EXPECT_EQ(o, keep);
  }
  EXPECT_EQ(getnoiselogspectrum(x.data(), 3000, kFs, 1500, kNfft, out.data(), nullptr), -1);
}

// Harmonic series with amplitudes a_k = a1 / k^tilt.
std::vector<double> harmonics(double f0, double a1, double tilt, uint32_t n) {
  std::vector<double> x(n, 0.0);
  for (uint32_t k = 1; k * f0 < kFs / 2; ++k) {
    const double a = a1 / std::pow(k, tilt);
    for (uint32_t i = 0; i < n; ++i) x[i] += a * std::cos(2 * kPi * k * f0 * i / kFs + 0.5 * k * k);
  }
  return x;
}

TEST(VoicedEnvelopes, HarmonicsReadTheirDensity) {
  // A harmonic of amplitude a must read log(a / (2 sqrt f0)) at its frequency.
  struct Case {
    double f0;
    double tol;
  };
  for (const Case &cs : std::vector<Case>{{230.0, 0.03}, {123.4, 0.03}, {70.0, 0.05}}) {
    SCOPED_TRACE(cs.f0);
    const std::vector<double> x = harmonics(cs.f0, 0.2, 0.7, 8000);
    Area area(kN, 2048);
    std::vector<double> sig(2048), see(2048);
    ASSERT_EQ(getsignallogspectrum(x.data(), 8000, kFs, 4000, cs.f0, 2048, sig.data(), area.a), 0);
    ASSERT_EQ(getseevoclogspectrum(x.data(), 8000, kFs, 4000, cs.f0, 2048, see.data(), area.a), 0);
    for (uint32_t k : {1u, 2u, 5u, 20u}) {
      const double f = k * cs.f0;
      const uint32_t bin = static_cast<uint32_t>(std::lround(f * 2048 / kFs));
      const double expected = std::log(0.2 / std::pow(k, 0.7) / (2 * std::sqrt(cs.f0)));
      EXPECT_NEAR(see[bin], expected, cs.tol) << "peak envelope, harmonic " << k;
      if (cs.f0 > 100) {
        EXPECT_NEAR(sig[bin], expected, 0.1) << "smoothed spectrum, harmonic " << k;
      }
    }
    for (uint32_t k = 1; k < 1024; ++k) {
      EXPECT_EQ(sig[2048 - k], sig[k]);
      EXPECT_EQ(see[2048 - k], see[k]);
    }
  }
}

TEST(VoicedEnvelopes, UnvoicedFramesTakeTheNoiseSpectrum) {
  std::mt19937_64 gen(6);
  std::normal_distribution<double> g(0.0, 0.2);
  std::vector<double> x(3000);
  for (double &v : x) v = g(gen);
  Area area;
  std::vector<double> ref(kNfft), a(kNfft), b(kNfft);
  ASSERT_EQ(getnoiselogspectrum(x.data(), 3000, kFs, 1500, kNfft, ref.data(), area.a), 0);
  for (double f0 : {0.0, -100.0, static_cast<double>(NAN), static_cast<double>(INFINITY), 8000.0}) {
    ASSERT_EQ(getsignallogspectrum(x.data(), 3000, kFs, 1500, f0, kNfft, a.data(), area.a), 0);
    ASSERT_EQ(getseevoclogspectrum(x.data(), 3000, kFs, 1500, f0, kNfft, b.data(), area.a), 0);
    EXPECT_EQ(a, ref) << f0;
    EXPECT_EQ(b, ref) << f0;
  }
  // Silence in a voiced frame gives the floor too, and tiny or huge f0 stay in bounds.
  std::vector<double> z(3000, 0.0);
  for (double f0 : {100.0, 1e-6, 7999.0}) {
    ASSERT_EQ(getseevoclogspectrum(z.data(), 3000, kFs, 1500, f0, kNfft, b.data(), area.a), 0);
    ASSERT_EQ(getsignallogspectrum(z.data(), 3000, kFs, 1500, f0, kNfft, a.data(), area.a), 0);
    for (uint32_t k = 0; k < kNfft; ++k) {
      ASSERT_NEAR(b[k], std::log(std::sqrt(1e-10 / kFs)), 1e-12) << f0 << " " << k;
      ASSERT_NEAR(a[k], std::log(std::sqrt(1e-10 / kFs)), 1e-12) << f0 << " " << k;
    }
  }
}

}  // namespace
