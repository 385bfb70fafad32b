// Cepstral analysis: the warping recursion against an independent evaluation
// of the spectra it must preserve, the common cepstrum tail through a
// spectrum known bin by bin, the frame-size rules of waveform2cc, levels of
// analysed signals of known spectrum, and robustness at the signal edges.
#include "ccanalysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "harmonicanalysis.h"
#include "spectralanalysis.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kFs = 16000.0;

// All-pass warping written out independently of the library.
double warpfreq(double w, double a) {
  return std::atan2((1.0 - a * a) * std::sin(w), (1.0 + a * a) * std::cos(w) - 2.0 * a);
}

// sum_k c[k] cos(k w) and sum_k c[k] sin(k w), in long double.
long double cossum(const std::vector<double> &c, double w) {
  long double s = 0;
  for (size_t k = 0; k < c.size(); ++k) s += c[k] * std::cos(static_cast<long double>(k) * w);
  return s;
}
long double sinsum(const std::vector<double> &c, double w) {
  long double s = 0;
  for (size_t k = 0; k < c.size(); ++k) s += c[k] * std::sin(static_cast<long double>(k) * w);
  return s;
}

TEST(CcWarp, PreservesTheSpectrumAtWarpedFrequencies) {
  // The recursion maps sum c_k z^-k onto sum out_k z~^-k with z~^-1 the
  // first-order all-pass: at every w, sum c_k e^{-jkw} = sum out_k e^{-jk w~}.
  // A long enough output makes truncation negligible.
  std::mt19937_64 gen(11);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (double alpha : {0.42, -0.3, 0.1, 0.77}) {
    for (uint32_t m : {0u, 1u, 11u, 12u}) {
      SCOPED_TRACE(testing::Message() << "alpha " << alpha << " m " << m);
      std::vector<double> c(m + 1);
      for (uint32_t k = 0; k <= m; ++k) c[k] = u(gen) * std::pow(0.8, k);
      const uint32_t p = 400;
      std::vector<double> out(p + 1, 99.0), work(p + 1, -5.0);
      ASSERT_EQ(ccwarp(c.data(), m, out.data(), p, alpha, work.data()), 0);
      for (int j = 1; j < 64; ++j) {
        const double w = kPi * j / 64.0;
        const double wt = warpfreq(w, alpha);
        EXPECT_NEAR(static_cast<double>(cossum(out, wt)), static_cast<double>(cossum(c, w)), 1e-11) << w;
        EXPECT_NEAR(static_cast<double>(sinsum(out, wt)), static_cast<double>(sinsum(c, w)), 1e-11) << w;
      }
    }
  }
}

TEST(CcWarp, ClosedFormsAndTheUnwarpedShortcut) {
  // p = 0: out0 = sum_i alpha^i c_i, the polynomial accumulated from the
  // highest coefficient down.
  {
    const std::vector<double> c = {1.0, 2.0, -3.0, 0.5};
    double out = 7.0, work = 0.0;
    const double a = 0.5;
    ASSERT_EQ(ccwarp(c.data(), 3, &out, 0, a, &work), 0);
    EXPECT_DOUBLE_EQ(out, 1.0 + a * 2.0 + a * a * -3.0 + a * a * a * 0.5);
  }
  // m = 0: a constant stays a constant whatever the warping.
  {
    const double c = 2.5;
    std::vector<double> out(6, 9.0), work(6);
    ASSERT_EQ(ccwarp(&c, 0, out.data(), 5, 0.42, work.data()), 0);
    EXPECT_EQ(out[0], 2.5);
    for (int k = 1; k <= 5; ++k) EXPECT_EQ(out[k], 0.0) << k;
  }
  // alpha = 0: out[i] = c[i] for i < min(m, p), 0 up to p-1; out[p] keeps its
  // value and c[m] is never read.
  struct Case {
    uint32_t m, p;
    std::vector<double> expected;  // out[0..p]
  };
  const double keep = -77.0;
  const std::vector<Case> cases = {
      {3, 5, {1, 2, 3, 0, 0, keep}},
      {5, 3, {1, 2, 3, keep}},
      {4, 4, {1, 2, 3, 4, keep}},
      {0, 2, {0, 0, keep}},
      {2, 0, {keep}},
  };
  for (const Case &cs : cases) {
    SCOPED_TRACE(testing::Message() << "m " << cs.m << " p " << cs.p);
    std::vector<double> c = {1, 2, 3, 4, 5, 6};
    c[cs.m] = NAN;  // would show up if c[m] were used
    std::vector<double> out(cs.p + 1, keep), work(cs.p + 1, 0.0);
    ASSERT_EQ(ccwarp(c.data(), cs.m, out.data(), cs.p, 0.0, work.data()), 0);
    EXPECT_EQ(out, cs.expected);
  }
  // |alpha| >= 1: -1 and nothing written.
  for (double a : {1.0, -1.0, 1.5, -3.0}) {
    const std::vector<double> c = {1, 2, 3};
    std::vector<double> out(4, 5.0), work(4, 6.0);
    EXPECT_EQ(ccwarp(c.data(), 2, out.data(), 3, a, work.data()), -1) << a;
    EXPECT_EQ(out, std::vector<double>(4, 5.0));
  }
}

// A frame of a fixed random signal, and an analysis area of small size so
// that long warped cepstra stay cheap.
struct SmallSetup {
  static constexpr uint32_t kN = 31, kNfft = 64;
  std::vector<double> x;
  CCMEM *area;
  SmallSetup() : x(400) {
    std::mt19937_64 gen(5);
    std::normal_distribution<double> g(0.0, 0.3);
    double prev = 0;
    for (double &v : x) v = prev = 0.7 * prev + g(gen);  // coloured: a sloping spectrum
    area = ccmeminitialize(kFs, 60.0, kN, kNfft, 0);
  }
  ~SmallSetup() { ccmemdestroy(area); }
};

TEST(CepstrumTail, WarpedCepstrumReproducesTheLogSpectrumAtEveryBin) {
  // Unvoiced frames go through the noise spectrum S and the common tail. With
  // r the real cepstrum of S, the tail warps (r0/2, r1 .. r(h-1), rh/2) and
  // doubles c0, so c0 + 2 sum_k ck cos(k w~_j) must give back S_j at every
  // bin: a missing halving (r0 or rh) or doubling shows up at once.
  SmallSetup s;
  ASSERT_NE(s.area, nullptr);
  const uint32_t nfft = SmallSetup::kNfft, p = 600;
  for (double alpha : {0.42, -0.2}) {
    SCOPED_TRACE(alpha);
    std::vector<double> S(nfft), buf(2 * nfft), c(p + 1);
    ASSERT_EQ(getnoiselogspectrum(s.x.data(), 400, kFs, 200, nfft, S.data(), s.area->noise), 0);
    ASSERT_EQ(getharmmcep(s.x.data(), 400, kFs, 200, 0.0, nfft, buf.data(), p, c.data(), alpha, s.area), 0);
    // The spectrum must not be flat at Nyquist, or rh would not be tested.
    double rh = 0;
    for (uint32_t j = 0; j < nfft; ++j) rh += S[j] * ((j % 2) ? -1.0 : 1.0) / nfft;
    ASSERT_GT(std::fabs(rh), 0.01);
    for (uint32_t j = 0; j <= nfft / 2; ++j) {
      const double wt = (j == 0) ? 0.0 : (j == nfft / 2 ? kPi : warpfreq(2 * kPi * j / nfft, alpha));
      long double v = c[0];
      for (uint32_t k = 1; k <= p; ++k) v += 2.0L * c[k] * std::cos(static_cast<long double>(k) * wt);
      EXPECT_NEAR(static_cast<double>(v), S[j], 1e-9) << "bin " << j;
    }
  }
}

TEST(CepstrumTail, SilenceGivesTheFloorInC0Only) {
  // Every bin of silence holds log(sqrt(1e-10/fs)); its cepstrum is that
  // constant in c0 and zeros, for every method (all take the noise spectrum).
  std::vector<double> x(4000, 0.0);
  const double floorlog = std::log(std::sqrt(401 * 1.0000000000000002e-10 / (401 * kFs)));
  for (uint8_t method = 0; method <= 5; ++method) {
    SCOPED_TRACE(static_cast<int>(method));
    std::vector<double> f0 = {0.0, 120.0, 0.0};  // a voiced frame of silence fails over to noise
    std::vector<double> cc(3 * 40, 1.0);
    ASSERT_EQ(waveform2cc(x.data(), 4000, kFs, 80, 1000, 3, f0.data(), 39, cc.data(), 0.42, method), 0);
    for (uint32_t k = 0; k < 3; ++k) {
      EXPECT_NEAR(cc[k * 40], floorlog, 1e-12);
      for (uint32_t j = 1; j < 40; ++j) EXPECT_NEAR(cc[k * 40 + j], 0.0, 1e-12);
    }
  }
}

TEST(Waveform2cc, MatchesPerFrameCallsWithTheDesignedFrameSizes) {
  // fs 16000: nfft = 1024 while every f0 is >= 60 Hz (three periods at 60 Hz
  // is 801 samples); a 40 Hz frame makes fmin 40 Hz and three periods 1201
  // samples, so nfft = 2048. Frames are centred on first + k*shift.
  std::mt19937_64 gen(3);
  std::normal_distribution<double> g(0.0, 0.1);
  const uint32_t n = 6000;
  std::vector<double> x(n);
  for (uint32_t i = 0; i < n; ++i) x[i] = 0.3 * std::sin(2 * kPi * 150.0 * i / kFs) + g(gen);
  struct Case {
    std::vector<double> f0;
    double fmin;
    uint32_t nfft;
  };
  const std::vector<Case> cases = {
      {{0.0, 150.0, 60.0, 0.0, 300.0}, 60.0, 1024},
      {{0.0, 150.0, 59.0, 0.0, 300.0}, 59.0, 1024},
      {{0.0, 150.0, 40.0, 0.0, 300.0}, 40.0, 2048},
  };
  const uint32_t p = 24, shift = 100, first = 1500;
  for (uint8_t method = 0; method <= 4; ++method) {
    for (const Case &cs : cases) {
      SCOPED_TRACE(testing::Message() << "method " << int(method) << " fmin " << cs.fmin);
      const uint32_t nf = static_cast<uint32_t>(cs.f0.size());
      std::vector<double> cc(getccsize(nf, p));
      ASSERT_EQ(waveform2cc(x.data(), n, kFs, shift, first, nf, cs.f0.data(), p, cc.data(), 0.42, method), 0);
      CCMEM *area = ccmeminitialize(kFs, cs.fmin, naframesize(kFs), cs.nfft, method);
      ASSERT_NE(area, nullptr);
      std::vector<double> buf(2 * cs.nfft), c(p + 1);
      for (uint32_t k = 0; k < nf; ++k) {
        const uint32_t centre = first + k * shift;
        switch (method) {
          case 0: getharmmcep(x.data(), n, kFs, centre, cs.f0[k], cs.nfft, buf.data(), p, c.data(), 0.42, area); break;
          case 1: getharmrdc(x.data(), n, kFs, centre, cs.f0[k], cs.nfft, buf.data(), p, c.data(), 0.42, area); break;
          case 2: getqharmrdc(x.data(), n, kFs, centre, cs.f0[k], cs.nfft, buf.data(), p, c.data(), 0.42, area); break;
          case 3: getwwcmcep(x.data(), n, kFs, centre, cs.f0[k], cs.nfft, buf.data(), p, c.data(), 0.42, area); break;
          default: getseemcep(x.data(), n, kFs, centre, cs.f0[k], cs.nfft, buf.data(), p, c.data(), 0.42, area); break;
        }
        for (uint32_t j = 0; j <= p; ++j) EXPECT_EQ(cc[k * (p + 1) + j], c[j]) << "frame " << k << " coef " << j;
      }
      ccmemdestroy(area);
    }
  }
}

// Natural-log amplitude of a warped cepstrum at f Hz.
double logamp(const double *c, uint32_t p, double f, double alpha) {
  const double wt = warpfreq(2 * kPi * f / kFs, alpha);
  double v = c[0];
  for (uint32_t k = 1; k <= p; ++k) v += 2 * c[k] * std::cos(k * wt);
  return v;
}

TEST(Waveform2cc, HarmonicSignalOfFlatSpectrumReadsItsDensity) {
  // Harmonics of equal amplitude a have density a/(2 sqrt f0) in the unit the
  // synthesis reads; every method must find that level across the band.
  const double f0 = 140.0, a = 0.02;
  const uint32_t n = 8000;
  std::vector<double> x(n, 0.0);
  const uint32_t H = hanoharms(kFs, kFs, f0);
  for (uint32_t k = 1; k <= H; ++k)
    for (uint32_t i = 0; i < n; ++i) x[i] += a * std::cos(2 * kPi * k * f0 * i / kFs + 0.7 * k * k);
  const double expected = std::log(a / (2 * std::sqrt(f0)));
  const std::vector<double> tol = {0.05, 0.05, 0.05, 0.15, 0.15};  // nepers
  for (uint8_t method = 0; method <= 4; ++method) {
    SCOPED_TRACE(static_cast<int>(method));
    std::vector<double> f0s(3, f0), cc(3 * 40);
    ASSERT_EQ(waveform2cc(x.data(), n, kFs, 80, 3800, 3, f0s.data(), 39, cc.data(), 0.42, method), 0);
    for (double f : {300.0, 1000.0, 2500.0, 5000.0, 7000.0})
      EXPECT_NEAR(logamp(cc.data() + 40, 39, f, 0.42), expected, tol[method]) << f << " Hz";
  }
}

TEST(Waveform2cc, WhiteNoiseReadsItsDensityMinusTheLogBias) {
  // The noise envelope is a log periodogram: for white noise of variance s^2
  // its mean is log(sqrt(s^2/fs)) - gamma/2 (the mean log of an exponential
  // variable), and c0 is that mean.
  std::mt19937_64 gen(9);
  const double sigma = 0.05;
  std::normal_distribution<double> g(0.0, sigma);
  const uint32_t n = 80000;
  std::vector<double> x(n);
  for (double &v : x) v = g(gen);
  const uint32_t nf = 900;
  std::vector<double> f0(nf, 0.0), cc(nf * 40);
  ASSERT_EQ(waveform2cc(x.data(), n, kFs, 80, 4000, nf, f0.data(), 39, cc.data(), 0.42, 0), 0);
  double mean = 0;
  for (uint32_t k = 0; k < nf; ++k) mean += cc[k * 40] / nf;
  const double gamma = 0.5772156649015329;
  EXPECT_NEAR(mean, std::log(std::sqrt(sigma * sigma / kFs)) - gamma / 2, 0.02);
}

TEST(Waveform2cc, RobustAtEdgesAndOnBadInput) {
  std::mt19937_64 gen(2);
  std::normal_distribution<double> g(0.0, 0.1);
  std::vector<double> x(3000);
  for (double &v : x) v = g(gen);
  const double inf = INFINITY;
  // Centres at 0, near the end, past the end and wrapped past 2^32; f0 values
  // that are NaN, infinite, negative, tiny, above Nyquist.
  std::vector<double> f0 = {100.0, NAN, inf, -5.0, 1e-300, 9000.0, 15.0, 250.0};
  const uint32_t nf = static_cast<uint32_t>(f0.size());
  for (uint8_t method = 0; method <= 6; ++method) {
    SCOPED_TRACE(static_cast<int>(method));
    for (uint32_t first : {0u, 2900u, 4294967000u}) {
      std::vector<double> cc(nf * 13, 0.0);
      ASSERT_EQ(waveform2cc(x.data(), 3000, kFs, 700, first, nf, f0.data(), 12, cc.data(), 0.42, method), 0);
      for (double v : cc) EXPECT_TRUE(std::isfinite(v));
    }
    // An empty signal gives the silence floor.
    std::vector<double> cc(nf * 13, 0.0);
    ASSERT_EQ(waveform2cc(nullptr, 0, kFs, 80, 0, nf, f0.data(), 12, cc.data(), 0.42, method), 0);
    EXPECT_NEAR(cc[0], std::log(std::sqrt(1e-10 / kFs)), 1e-9);
  }
  // Orders beyond the FFT length (the warping needs its own scratch) and
  // beyond any sensible fit (codes 1 and 2 fall back on the noise envelope).
  for (uint8_t method = 0; method <= 4; ++method) {
    std::vector<double> f2 = {0.0, 150.0};
    const uint32_t p = 1500;
    std::vector<double> cc(2 * (p + 1), 0.0);
    ASSERT_EQ(waveform2cc(x.data(), 3000, kFs, 1000, 1000, 2, f2.data(), p, cc.data(), 0.42, method), 0);
    for (double v : cc) ASSERT_TRUE(std::isfinite(v)) << int(method);
  }
  // NaN samples poison only the frames that see them.
  std::vector<double> y = x;
  y[100] = NAN;
  std::vector<double> f1 = {0.0, 120.0, 0.0};
  std::vector<double> cc(3 * 13);
  ASSERT_EQ(waveform2cc(y.data(), 3000, kFs, 1000, 100, 3, f1.data(), 12, cc.data(), 0.42, 0), 0);
  EXPECT_TRUE(std::isnan(cc[0]));
  for (uint32_t j = 13; j < 39; ++j) EXPECT_TRUE(std::isfinite(cc[j])) << j;
  // Refusals: no output array, invalid fs, a size beyond 32 bits.
  EXPECT_EQ(waveform2cc(x.data(), 3000, kFs, 80, 0, 3, f1.data(), 12, nullptr, 0.42, 0), -1);
  EXPECT_EQ(waveform2cc(x.data(), 3000, NAN, 80, 0, 3, f1.data(), 12, cc.data(), 0.42, 0), -1);
  EXPECT_EQ(waveform2cc(x.data(), 3000, 0.0, 80, 0, 3, f1.data(), 12, cc.data(), 0.42, 0), -1);
  EXPECT_EQ(waveform2cc(x.data(), 3000, kFs, 80, 0, 3, f1.data(), 0xFFFFFFFFu, cc.data(), 0.42, 0), -1);
  for (double alpha : {1.0, -1.0, static_cast<double>(NAN)}) {
    std::vector<double> keep(cc.size(), 4.0), out = keep;
    EXPECT_EQ(waveform2cc(x.data(), 3000, kFs, 80, 0, 3, f1.data(), 12, out.data(), alpha, 0), -1) << alpha;
    EXPECT_EQ(out, keep);
  }
  EXPECT_EQ(waveform2cc(x.data(), 3000, kFs, 80, 0, 0, f1.data(), 12, cc.data(), 0.42, 0), 0);
}

TEST(Waveform2cc, UnlistedCodesUseTheHarmonicEnvelope) {
  // Any unlisted code analyses like code 0 (on a quasi-harmonic area): the
  // unvoiced frames are bit-identical, the voiced one reads the harmonics'
  // density as code 0 does.
  const double f0 = 200.0, a = 0.05;
  const uint32_t n = 6000;
  std::vector<double> x(n, 0.0);
  for (uint32_t k = 1; k < 40; ++k)
    for (uint32_t i = 0; i < n; ++i) x[i] += a * std::cos(2 * kPi * k * f0 * i / kFs + 0.3 * k * k);
  std::vector<double> f0s = {0.0, f0, 0.0};
  std::vector<double> c0(3 * 20), c9(3 * 20);
  ASSERT_EQ(waveform2cc(x.data(), n, kFs, 1000, 2000, 3, f0s.data(), 19, c0.data(), 0.42, 0), 0);
  ASSERT_EQ(waveform2cc(x.data(), n, kFs, 1000, 2000, 3, f0s.data(), 19, c9.data(), 0.42, 9), 0);
  for (uint32_t j = 0; j < 20; ++j) {
    EXPECT_EQ(c9[j], c0[j]);
    EXPECT_EQ(c9[40 + j], c0[40 + j]);
  }
  const double expected = std::log(a / (2 * std::sqrt(f0)));
  for (double f : {400.0, 2000.0, 6000.0}) {
    EXPECT_NEAR(logamp(c0.data() + 20, 19, f, 0.42), expected, 0.05) << f;
    EXPECT_NEAR(logamp(c9.data() + 20, 19, f, 0.42), expected, 0.05) << f;
  }
}

TEST(CcSizes, CountsAndOverflow) {
  struct Case {
    uint32_t nsamples, shift, first, frames;
  };
  for (const Case &c : std::vector<Case>{{16000, 80, 0, 200}, {16001, 80, 0, 201}, {16000, 80, 80, 199}}) {
    EXPECT_EQ(getnumframes(c.nsamples, c.shift, c.first), c.frames) << c.nsamples << " " << c.first;
  }
  EXPECT_EQ(getccsize(100, 39), 4000u);
  EXPECT_EQ(getccsize(0, 39), 0u);
  EXPECT_EQ(getccsize(1, 0), 1u);
  EXPECT_EQ(getccsize(0x10000u, 0xFFFFu), 0u);  // 2^32 does not fit
  EXPECT_EQ(getccsize(1, 0xFFFFFFFFu), 0u);
}

}  // namespace
