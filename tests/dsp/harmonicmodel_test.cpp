// Harmonic and quasi-harmonic analysis: recovery of synthetic harmonic series
// (amplitudes, phases at the frame centre, frequencies), the plain evaluation
// that pins getharmonics' bits, convergence of the frequency correction from a
// wrong f0, exact fits of amplitude ramps, pitch refinement of a track, the
// interpolated log spectrum, area sizing and refusals; harmonic counting,
// generation and envelope resampling.
#include "harmonicanalysis.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "pitchanalysis.h"
#include "support/synthref.h"
#include "windowing.h"

namespace {

using namespace kestreltest;

struct Series {
  std::vector<double> amp, phase, freq, x;  // per harmonic (phase at sample `centre`); the signal
};
// Sum of amp_k (1 + slope_k (i - centre)) cos(2 pi freq_k (i - centre) / fs + phase_k) with
// freq_k = k f0, plus a random offset of up to +-jitter Hz above harmonic 10 (partials that each
// need their own correction, while the strong low ones fix f0); slopes of up to +-ramp per second.
Series makeseries(double f0, uint32_t H, uint32_t n, uint64_t seed, double jitter = 0.0, double ramp = 0.0,
                  uint32_t centre = 0) {
  Series s;
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> u(0.0, 2 * kPi), v(-1.0, 1.0);
  s.x.assign(n, 0.0);
  for (uint32_t k = 1; k <= H; ++k) {
    s.amp.push_back(0.1 / std::sqrt(k) * (1.0 + 0.5 * std::sin(0.3 * k)));
    s.phase.push_back(u(gen));
    const double offset = jitter * v(gen), slope = ramp * v(gen) / kFs;
    s.freq.push_back(k * f0 + (k > 10 ? offset : 0.0));
    for (uint32_t i = 0; i < n; ++i) {
      const double m = static_cast<double>(i) - centre;
      s.x[i] += s.amp[k - 1] * (1.0 + slope * m) * std::cos(2 * kPi * s.freq[k - 1] * m / kFs + s.phase[k - 1]);
    }
  }
  return s;
}

// The full-band areas (fmin 60 Hz) most tests analyse with.
struct Areas {
  HAMEM *h = hameminitialize(kFs, kFs, 60.0);
  QHAMEM *q = qhameminitialize(kFs, kFs, 60.0);
  ~Areas() { hamemdestroy(h), qhamemdestroy(q); }
};

TEST(HarmonicModel, RefusesUnusableFrames) {
  const Areas areas;
  HAMEM *area = areas.h;
  EXPECT_TRUE(area->maxharms == hanoharms(kFs, kFs, 60.0) && area->fmin == 60.0);
  // Refused: a silent window (past the end, wrapped, empty), f0 below the area's fmin or
  // unusable, no or too many harmonics, NaN samples, no area. Half the window outside the
  // signal is analysed (the outside reads as silence).
  const Series s = makeseries(150.0, 53, 4000, 3);
  std::vector<double> amp(200, -1.0), bad = s.x;
  const double *x = s.x.data();
  bad[2000] = NAN;
  const struct { const double *x; uint32_t n, centre; double f0; uint32_t H; HAMEM *a; int result; } cases[] = {
      {x, 4000, 9000, 150.0, 53, area, -1}, {x, 4000, 0xFFFFFFF0u, 150.0, 53, area, -1},
      {nullptr, 0, 0, 150.0, 53, area, -1}, {x, 4000, 2000, 59.0, 10, area, -1}, {x, 4000, 2000, NAN, 10, area, -1},
      {x, 4000, 2000, INFINITY, 10, area, -1}, {x, 4000, 2000, 8000.0, 1, area, -1},
      {x, 4000, 2000, 150.0, 0, area, -1}, {x, 4000, 2000, 150.0, 134, area, -1},
      {bad.data(), 4000, 2000, 150.0, 53, area, -1}, {x, 4000, 2000, 150.0, 53, nullptr, -1},
      {x, 4000, 3999, 150.0, 53, area, 0}, {x, 4000, 0, 150.0, 53, area, 0}};
  for (const auto &c : cases) {
    EXPECT_EQ(getharmonics(c.x, c.n, kFs, c.centre, c.f0, c.H, amp.data(), nullptr, c.a), c.result) << &c - cases;
    for (uint32_t k = 0; c.result == 0 && k < 53; ++k) EXPECT_TRUE(std::isfinite(amp[k]) && amp[k] < s.amp[k] * 2.0);
  }
  EXPECT_EQ(hamemdestroy(nullptr), 0);
  // fmin is raised to 20 Hz; an unusable fs gives no area.
  HAMEM *low = hameminitialize(kFs, 4000.0, 1.0);
  ASSERT_NE(low, nullptr);
  EXPECT_TRUE(low->fmin == 20.0 && low->maxharms == hanoharms(kFs, 4000.0, 20.0));
  hamemdestroy(low);
  EXPECT_TRUE(!hameminitialize(NAN, kFs, 60.0) && !hameminitialize(-1.0, kFs, 60.0) &&
              !qhameminitialize(kFs, NAN, 60.0));
}

// getharmonics evaluated sample by sample: weights, sums, normal matrices,
// right-looking Cholesky and both substitutions row by row, in the documented
// order of operations (2.5 periods, ridge 1e-9 W0). Returns false if refused.
bool plainharmonics(const std::vector<double> &x, int64_t centre, double f0, uint32_t H, double *amps, double *phases) {
  const uint32_t h = getwinlengthnperiodsodd(2.5, f0, kFs) / 2;
  const double step = kPi / h, c1 = std::cos(step), s1 = std::sin(step), w0 = 2 * kPi * f0 / kFs;
  auto at = [&](int64_t i) { return (i >= 0 && i < static_cast<int64_t>(x.size())) ? x[i] : 0.0; };
  std::vector<double> W(2 * H + 1, 0.0), r[2] = {std::vector<double>(H + 1, 0.0), std::vector<double>(H + 1, 0.0)};
  double wc = 1.0, ws = 0.0;
  for (uint32_t n = 0; n <= h; ++n) {
    const double wn = 0.54 + 0.46 * wc, g = wn * wn;
    refrotate(wc, ws, c1, s1);
    const double xp = at(centre + n), xm = at(centre - static_cast<int64_t>(n));
    const double gw = n == 0 ? g : 2.0 * g, xe = g * (n == 0 ? xp : xp + xm), xo = g * (xp - xm);
    const double th = w0 * n, ct = std::cos(th), st = std::sin(th);
    double c = 1.0, s = 0.0;
    for (uint32_t m = 0; m <= 2 * H; ++m) {
      W[m] += gw * c;
      if (m <= H) r[0][m] += xe * c, r[1][m] += xo * s;
      refrotate(c, s, ct, st);
    }
  }
  for (int sine = 0; sine < 2; ++sine) {
    const uint32_t N = H + 1 - sine;  // cosines k = 0..H, sines k = 1..H
    std::vector<double> G(N * N), b(r[sine].begin() + sine, r[sine].end());
    for (uint32_t k = 0; k < N; ++k)
      for (uint32_t l = 0; l <= k; ++l)
        G[l * N + k] = 0.5 * (sine ? W[k - l] - W[k + l + 2] : W[k - l] + W[k + l]);
    for (uint32_t i = 0; i < N; ++i) G[i * N + i] += 1e-9 * W[0];
    for (uint32_t j = 0; j < N; ++j) {
      if (!(G[j * N + j] > 0.0)) return false;
      const double d = std::sqrt(G[j * N + j]);
      G[j * N + j] = d;
      for (uint32_t i = j + 1; i < N; ++i) G[j * N + i] /= d;
      for (uint32_t i = j + 1; i < N; ++i)
        for (uint32_t l = i; l < N; ++l) G[i * N + l] -= G[j * N + i] * G[j * N + l];
    }
    for (uint32_t i = 0; i < N; ++i) {
      double t = b[i];
      for (uint32_t k = 0; k < i; ++k) t -= G[k * N + i] * b[k];
      b[i] = t / G[i * N + i];
    }
    for (uint32_t i = N; i-- > 0;) {
      double t = b[i];
      for (uint32_t k = i + 1; k < N; ++k) t -= G[i * N + k] * b[k];
      b[i] = t / G[i * N + i];
    }
    std::copy(b.begin(), b.end(), r[sine].begin() + sine);
  }
  for (uint32_t k = 1; k <= H; ++k) {
    amps[k - 1] = std::sqrt(r[0][k] * r[0][k] + r[1][k] * r[1][k]);
    phases[k - 1] = std::atan2(-r[1][k], r[0][k]);
  }
  return true;
}

TEST(HarmonicModel, GivesThePlainEvaluationsBitsAndRecoversAmplitudesAndCentrePhases) {
  // Window half-lengths of every residue modulo 4, harmonic counts from 1 to the most, frames
  // inside the signal and hanging over either end; series of f0 itself (own) are recovered,
  // with their phases at the frame centre.
  const Areas areas;
  const Series s = makeseries(140.0, 50, 4000, 9);
  const struct { double f0; uint32_t H, centre; bool own; } cases[] = {
      {60.0, 133, 2000, false},  {61.7, 5, 2000, false},   {99.0, 1, 1500, false},   {140.0, 57, 40, false},
      {140.3, 20, 3990, false},  {211.0, 37, 2500, false}, {333.3, 23, 0, false},    {480.0, 16, 3333, false},
      {60.0, 133, 3000, true},   {217.3, 36, 3000, true},  {480.0, 16, 3000, true}};
  for (const auto &c : cases) {
    const Series x = c.own ? makeseries(c.f0, c.H, 6000, 7, 0.0, 0.0, 3000) : s;
    const uint32_t n = static_cast<uint32_t>(x.x.size());
    std::vector<double> a(c.H), p(c.H), ea(c.H), ep(c.H);
    ASSERT_TRUE(plainharmonics(x.x, c.centre, c.f0, c.H, ea.data(), ep.data())) << c.f0;
    ASSERT_EQ(getharmonics(x.x.data(), n, kFs, c.centre, c.f0, c.H, a.data(), p.data(), areas.h), 0) << c.f0;
    EXPECT_TRUE(samebits(a, ea) && samebits(p, ep)) << c.f0 << " " << c.H << " " << c.centre;
    for (uint32_t k = 0; c.own && k < c.H; ++k)
      EXPECT_TRUE(std::fabs(a[k] - x.amp[k]) <= 1e-9 && std::fabs(std::remainder(p[k] - x.phase[k], 2 * kPi)) <= 1e-7)
          << c.f0 << " harmonic " << k + 1;
  }
}

TEST(QuasiHarmonicModel, CorrectsEachHarmonicAndFitsAmplitudeRamps) {
  // Analysis from a wrong start, partials off their harmonic by up to `jitter` Hz, and series
  // whose partials ramp linearly in amplitude (ramp per second, in phase): those lie exactly in
  // the model, so the fit must return them (phase tolerance ptol, 0: not checked). The normal
  // matrices come from window sums at sum and difference frequencies; `edge` puts the top
  // harmonic at pi - pi/(2h), so that twice it plus the window's first shift pi/h lands on
  // 2 pi, where the kernel's closed form would divide by (nearly) zero.
  double edge = 200.0;
  for (int it = 0; it < 4; ++it) {
    const double h = getwinlengthnperiodsodd(3.5, edge, kFs) / 2;
    edge = kFs / 2 * (1.0 - 1.0 / (2.0 * h)) / 40.0;
  }
  ASSERT_EQ(hanoharms(kFs, kFs, edge), 40u);
  const Areas areas;
  const struct { double f0, start, jitter, ramp, fmax, ftol, atol, ptol; } cases[] = {
      {123.4, 123.4 * 1.01, 0, 0, 7000, 0.5, 0.01, 0}, {123.4, 123.4 * 0.99, 0, 0, 7000, 0.5, 0.01, 0},
      {210.0, 210.0, 4.0, 0, 7000, 0.5, 0.01, 0},      {95.0, 95.0 * 1.005, 2.0, 0, 7000, 0.5, 0.01, 0},
      {160.0, 160.0, 0, 0, kFs, 1e-6, 5e-8, 1e-7},     {61.0, 61.0, 0, 2.0, kFs, 1e-5, 1e-6, 1e-7},
      {310.0, 310.0, 0, 2.0, kFs, 1e-5, 1e-6, 1e-7},   {edge, edge, 0, 2.0, kFs, 1e-5, 1e-6, 1e-7}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "f0 " << c.f0 << " start " << c.start << " jitter " << c.jitter);
    const uint32_t H = hanoharms(kFs, c.fmax, c.f0);
    const Series s = makeseries(c.f0, H, 12000, 11, c.jitter, c.ramp, 6000);
    std::vector<double> amp(H), ph(H), fr(H);
    ASSERT_EQ(getsqharmonics(s.x.data(), 12000, kFs, 6000, c.start, H, amp.data(), ph.data(), fr.data(), areas.q), 0);
    for (uint32_t k = 0; k < H; ++k)
      EXPECT_TRUE(std::fabs(fr[k] - s.freq[k]) <= c.ftol && std::fabs(amp[k] / s.amp[k] - 1.0) <= c.atol &&
                  (c.ptol == 0 || std::fabs(std::remainder(ph[k] - s.phase[k], 2 * kPi)) <= c.ptol))
          << "harmonic " << k + 1 << ": " << fr[k] << " Hz, " << amp[k] << ", " << ph[k];
  }
  // A harmonic area is not a quasi-harmonic one.
  std::vector<double> amp(40);
  EXPECT_EQ(getsqharmonics(makeseries(160.0, 40, 8000, 12).x.data(), 8000, kFs, 4000, 160.0, 40, amp.data(), nullptr,
                           nullptr, reinterpret_cast<QHAMEM *>(areas.h)), -1);
}

TEST(QuasiHarmonicModel, RefinesPitchTracks) {
  const double f0 = 131.7;
  const uint32_t n = 16000;
  const Series s = makeseries(f0, hanoharms(kFs, kFs, f0), n, 21);
  QHAMEM *area = qhameminitialize(kFs, 4500.0, 60.0);
  ASSERT_NE(area, nullptr);
  double f = f0 * 1.03;
  for (int it = 0; it < 3; ++it) f = qharefinepitch(s.x.data(), n, kFs, 8000, f, 4500.0, area);
  EXPECT_NEAR(f / f0, 1.0, 1e-5);
  // Below fmin, an unusable maximum, no harmonic below the maximum: 0.
  const double fails[][2] = {{30.0, 4500.0}, {f0, NAN}, {f0, 0.0}};
  for (const auto &fx : fails) EXPECT_EQ(qharefinepitch(s.x.data(), n, kFs, 8000, fx[0], fx[1], area), 0.0) << fx[0];
  qhamemdestroy(area);

  // Voiced frames start off by up to 2 %: 'r' refined to f0, 'k' kept as it
  // was (unvoiced, refinement outside [f0min, f0max], no harmonic below the
  // frame's maximum, niter = 0).
  const std::vector<double> start = {0.0, f0 * 1.02, f0 * 0.985, 0.0, f0 * 1.01, f0 * 1.02};
  std::vector<double> fmax = {4000.0, 4000.0, 100.0, 4000.0, NAN, 4000.0};
  const struct { double f0max; uint32_t niter; const double *fmax; const char *expect; } runs[] = {
      {500.0, 5, nullptr, "krrkrr"}, {f0 * 0.995, 5, nullptr, "kkkkkk"}, {500.0, 0, nullptr, "kkkkkk"},
      {500.0, 5, fmax.data(), "krkkkr"}};
  for (const auto &r : runs) {
    std::vector<double> track = start;
    ASSERT_EQ(refinepitch(s.x.data(), n, kFs, 2000, 3000, 6, 60.0, r.f0max, r.niter, track.data(), r.fmax), 0);
    for (uint32_t k = 0; k < 6; ++k)
      if (r.expect[k] == 'k') EXPECT_EQ(track[k], start[k]) << r.expect << " frame " << k;
      else EXPECT_NEAR(track[k] / f0, 1.0, 1e-4) << r.expect << " frame " << k;
  }
}

TEST(HarmonicLogSpectrum, PassesThroughTheHarmonicDensities) {
  // f0 = 125 Hz with nfft 1024 at 16 kHz puts harmonic k on bin 8k.
  const double f0 = 125.0;
  const uint32_t nfft = 1024, H = hanoharms(kFs, kFs, f0);
  const Series s = makeseries(f0, H, 6000, 5);
  const Areas areas;
  HAMEM *area = areas.h, *q = reinterpret_cast<HAMEM *>(areas.q);  // a quasi-harmonic area serves as well
  std::vector<double> buf(2 * nfft);
  for (HAMEM *a : {area, q}) {
    ASSERT_EQ(getlogspectrumfromharms(s.x.data(), 6000, kFs, 3000, f0, nfft, buf.data(), a), 0);
    for (uint32_t k = 1; k <= H; ++k) {
      EXPECT_NEAR(buf[8 * k], std::log(s.amp[k - 1] / (2 * std::sqrt(f0))), a == area ? 1e-8 : 1e-6) << k;
      // Between two harmonics the level stays between theirs (no overshoot).
      const double lo = std::fmin(buf[8 * k], buf[8 * k + 8]), hi = std::fmax(buf[8 * k], buf[8 * k + 8]);
      for (uint32_t b = 8 * k + 1; k < H && b < 8 * k + 8; ++b)
        EXPECT_TRUE(buf[b] >= lo - 1e-12 && buf[b] <= hi + 1e-12) << b;
    }
  }
  // Flat below f0 and above the last harmonic, symmetric.
  for (uint32_t b = 0; b <= nfft / 2; ++b)
    EXPECT_TRUE(buf[b] == buf[b < 8 ? 8 : b > 8 * H ? 8 * H : b] && (b == 0 || buf[nfft - b] == buf[b])) << b;
  // Failures: unvoiced, silent, FFT length not a power of two or too short.
  const std::vector<double> z(6000, 0.0);
  const struct { const double *x; double f0; uint32_t nfft; } bad[] = {
      {s.x.data(), 0.0, nfft}, {z.data(), f0, nfft}, {s.x.data(), f0, 1000}, {s.x.data(), f0, 64}};
  for (const auto &b : bad)
    EXPECT_EQ(getlogspectrumfromharms(b.x, 6000, kFs, 3000, b.f0, b.nfft, buf.data(), area), -1) << b.f0 << b.nfft;
}

TEST(Hanoharms, CountsHarmonicsStrictlyBelowTheLimit) {
  const struct { double fs, fmax, f0; uint32_t expected; } cases[] = {
      {16000, 16000, 100, 79}, {16000, 1000, 100, 9},    {16000, 1050, 100, 10},    {16000, 8000.5, 100, 79},
      {16000, 100, 100, 0},    {16000, 16000, 8000, 0},  {16000, 16000, 7999.5, 1}, {16000, 1500.01, 1500, 1},
      {16000, kNaN, 100, 79},  {16000, 16000, kNaN, 0},  {16000, 16000, -100, 0},   {kNaN, 16000, 100, 0},
      {16000, 16000, 1e-300, UINT32_MAX},  // saturates
  };
  for (const auto &c : cases) EXPECT_EQ(hanoharms(c.fs, c.fmax, c.f0), c.expected) << c.fmax << " " << c.f0;
}

TEST(Genharmonics, MatchesLiteralEvaluationBitForBit) {
  // Every group-size remainder, zero amplitudes at group edges, every modulation flag.
  const double amps[] = {0.3,  0.0,  0.25, 0.2,  0.0,  0.0,  0.15, 0.1,  0.05,  0.04,  0.0,
                         0.03, 0.02, 0.02, 0.01, 0.01, 0.01, 0.01, 0.01, 0.005, 0.004, 0.0};
  const double phases[] = {0.1, 2.0, -1.0, 0.5, 3.0,  -2.5, 1.2, 0.7, -0.3, 2.2, 1.0,
                           0.4, 0.3, -0.2, 1.1, 2.1, -1.4, 0.0, 0.6, -0.7, 1.9, 0.2};
  for (uint32_t nh = 0; nh <= 22; ++nh)
    for (uint8_t modulate : {0, 1, 2})
      for (uint32_t before : {0u, 1u, 80u}) {
        std::vector<double> a(before + 80);
        for (size_t n = 0; n < a.size(); ++n) a[n] = std::sin(0.37 * n) * 0.01;
        std::vector<double> b = a;
        genharmonics(a.data(), before, 80, 16000.0, 173.3, nh, amps, phases, 1.234, modulate);
        refgenharmonics(b.data(), before, 80, 16000.0, 173.3, nh, amps, phases, 1.234, modulate);
        ASSERT_TRUE(samebits(a, b)) << "nh " << nh << " mod " << int(modulate) << " before " << before;
      }
}

TEST(Resamplelogampenv, InterpolatesBetweenGridPointsAndHoldsBeyond) {
  // {spacing, grid, output spacing, expected output}. Every 25 Hz from 25 to 450 Hz over a grid at
  // 100 .. 400 Hz: flat below 100, linear between, the last value from 400 Hz on. Multiplied by the
  // difference before dividing by the spacing: 1 * 7 / 3, not (1 / 3) * 7. One grid point: its value
  // everywhere.
  const struct { double df; std::vector<double> env; double dfout; std::vector<double> want; } cases[] = {
      {100.0, {1, 2, 4, 8}, 25.0, {1, 1, 1, 1, 1.25, 1.5, 1.75, 2, 2.5, 3, 3.5, 4, 5, 6, 7, 8, 8, 8}},
      {3.0, {0, 7}, 4.0, {7.0 / 3.0}},
      {100.0, {-3.5}, 30.0, std::vector<double>(10, -3.5)}};
  for (const auto &c : cases) {
    std::vector<double> out(c.want.size(), kNaN);
    EXPECT_TRUE(resamplelogampenv(c.df, c.env.data(), static_cast<uint32_t>(c.env.size()), c.dfout, out.data(),
                                  static_cast<uint32_t>(out.size())) == 0 && out == c.want) << c.df;
  }
  // Empty grid or no output points: -1, nothing written. Zero, negative or non-finite spacings
  // never walk past the last point (the sanitizer build checks).
  const std::vector<double> env = cases[0].env;
  std::vector<double> out(5, 7.0);
  EXPECT_EQ(resamplelogampenv(100.0, env.data(), 0, 50.0, out.data(), 5) +
                resamplelogampenv(100.0, env.data(), 4, 50.0, out.data(), 0), -2);
  EXPECT_EQ(out, std::vector<double>(5, 7.0));
  for (double df : {0.0, -100.0, kNaN})
    for (double dfout : {50.0, kInf}) EXPECT_EQ(resamplelogampenv(df, env.data(), 2, dfout, out.data(), 5), 0);
}

}  // namespace
