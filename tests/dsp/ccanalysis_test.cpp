// Cepstral analysis: the warping recursion against a plain evaluation, the
// common cepstrum tail through a spectrum known bin by bin (which also shows
// the warping preserves the spectrum at warped frequencies), the
// frame-size rules of waveform2cc, levels of analysed signals of known
// spectrum, and robustness at the signal edges.
#include "ccanalysis.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "harmonicanalysis.h"
#include "spectralanalysis.h"
#include "support/synthref.h"
#include "windowing.h"

namespace {

using namespace kestreltest;

// All-pass warping written out independently of the library.
double warpfreq(double w, double a) {
  return std::atan2((1.0 - a * a) * std::sin(w), (1.0 + a * a) * std::cos(w) - 2.0 * a);
}
// Natural-log amplitude c0 + 2 sum ck cos(k w~) of a warped cepstrum at f Hz.
double logamp(const double *c, uint32_t p, double f, double alpha) {
  const double wt = warpfreq(2 * kPi * f / kFs, alpha);
  long double v = c[0];
  for (uint32_t k = 1; k <= p; ++k) v += 2.0L * c[k] * std::cos(static_cast<long double>(k) * wt);
  return static_cast<double>(v);
}

TEST(CcWarp, GivesThePlainRecursionsBitsForAnyPassCount) {
  // The recursion one pass at a time, alternating two buffers; ccwarp runs
  // several passes together, so pass counts around multiples of that matter.
  auto plain = [](const std::vector<double> &c, uint32_t p, double alpha) {
    const double beta = 1.0 - alpha * alpha;
    std::vector<double> prev(p + 1, 0.0), next(p + 1);
    for (size_t i = c.size(); i-- > 0;) {
      next[0] = alpha * prev[0] + c[i];
      if (p >= 1) next[1] = alpha * prev[1] + beta * prev[0];
      for (uint32_t j = 2; j <= p; ++j) next[j] = alpha * (prev[j] - next[j - 1]) + prev[j - 1];
      std::swap(prev, next);
    }
    return prev;
  };
  for (uint32_t m : {0u, 1u, 2u, 3u, 4u, 5u, 7u, 8u, 9u, 256u, 511u})
    for (uint32_t p : {0u, 1u, 2u, 3u, 39u, 300u})
      for (double alpha : {0.42, -0.77}) {
        const std::vector<double> c = uniformvec(m + 1, 5 + m * p, 3.0);
        std::vector<double> out(p + 1, 9.0), work(p + 1);
        ASSERT_EQ(ccwarp(c.data(), m, out.data(), p, alpha, work.data()), 0);
        ASSERT_TRUE(samebits(out, plain(c, p, alpha))) << "m " << m << " p " << p << " alpha " << alpha;
      }
}

TEST(CcWarp, TheUnwarpedShortcutAndRefusals) {
  // alpha = 0: out[i] = c[i] for i < min(m, p), 0 up to p-1; out[p] keeps its value and c[m]
  // (a NaN here) is never read. |alpha| >= 1: -1 and nothing written.
  const double keep = -77.0;
  const struct { uint32_t m, p; double alpha; std::vector<double> expected; } cases[] = {
      {3, 5, 0.0, {1, 2, 3, 0, 0, keep}}, {5, 3, 0.0, {1, 2, 3, keep}}, {4, 4, 0.0, {1, 2, 3, 4, keep}},
      {0, 2, 0.0, {0, 0, keep}},          {2, 0, 0.0, {keep}},           {2, 3, 1.0, {keep, keep, keep, keep}},
      {2, 3, -1.0, {keep, keep, keep, keep}}, {2, 3, 1.5, {keep, keep, keep, keep}}};
  for (const auto &cs : cases) {
    std::vector<double> cc = {1, 2, 3, 4, 5, 6}, o(cs.p + 1, keep), w(cs.p + 1, 0.0);
    cc[cs.m] = NAN;
    EXPECT_TRUE(ccwarp(cc.data(), cs.m, o.data(), cs.p, cs.alpha, w.data()) == (cs.alpha == 0.0 ? 0 : -1) &&
                o == cs.expected) << "m " << cs.m << " p " << cs.p << " alpha " << cs.alpha;
  }
}

TEST(CepstrumTail, WarpedCepstrumReproducesTheLogSpectrumAtEveryBin) {
  // With r the real cepstrum of the noise spectrum S, the tail warps (r0/2,
  // r1 .. r(h-1), rh/2) and doubles c0, so c0 + 2 sum ck cos(k w~_j) gives
  // back S_j at every bin: a missing halving (r0 or rh) or doubling shows at once.
  const uint32_t nfft = 64, p = 600;
  std::vector<double> x = gaussvec(400, 0.3, 5);
  double prev = 0;
  for (double &v : x) v = prev = 0.7 * prev + v;  // coloured: a sloping spectrum
  CCMEM *area = ccmeminitialize(kFs, 60.0, 31, nfft, 0);
  ASSERT_NE(area, nullptr);
  for (double alpha : {0.42, -0.2}) {
    SCOPED_TRACE(alpha);
    std::vector<double> S(nfft), buf(2 * nfft), c(p + 1);
    ASSERT_EQ(getnoiselogspectrum(x.data(), 400, kFs, 200, nfft, S.data(), area->noise), 0);
    ASSERT_EQ(getharmmcep(x.data(), 400, kFs, 200, 0.0, nfft, buf.data(), p, c.data(), alpha, area), 0);
    double rh = 0;  // not flat at Nyquist, or rh would not be tested
    for (uint32_t j = 0; j < nfft; ++j) rh += S[j] * ((j % 2) ? -1.0 : 1.0) / nfft;
    ASSERT_GT(std::fabs(rh), 0.01);
    for (uint32_t j = 0; j <= nfft / 2; ++j) EXPECT_NEAR(logamp(c.data(), p, j * kFs / nfft, alpha), S[j], 1e-9) << j;
  }
  ccmemdestroy(area);
}

TEST(Waveform2cc, MatchesPerFrameCallsWithTheDesignedFrameSizes) {
  // nfft = 1024 while every f0 is >= 60 Hz (three periods at 60 Hz is 801
  // samples); a 40 Hz frame makes fmin 40 Hz and three periods 1201 samples,
  // so nfft = 2048; a 10 Hz frame (4801 samples) gives 8192 although the
  // harmonic analysis refuses it. Frames are centred on first + k*shift.
  using Method = int (*)(const double *, uint32_t, double, uint32_t, double, uint32_t, double *, uint32_t, double *,
                         double, CCMEM *);
  const Method methods[] = {getharmmcep, getharmrdc, getqharmrdc, getwwcmcep, getseemcep};
  const uint32_t n = 6000, p = 24, shift = 100, first = 1500;
  std::vector<double> x = gaussvec(n, 0.1, 3);
  for (uint32_t i = 0; i < n; ++i) x[i] = 0.3 * std::sin(2 * kPi * 150.0 * i / kFs) + x[i];
  const struct { double fmin; uint32_t nfft; } cases[] = {{60.0, 1024}, {59.0, 1024}, {40.0, 2048}, {10.0, 8192}};
  for (uint8_t method = 0; method <= 4; ++method)
    for (const auto &cs : cases) {
      SCOPED_TRACE(testing::Message() << "method " << int(method) << " fmin " << cs.fmin);
      const std::vector<double> f0 = {0.0, 150.0, cs.fmin, 0.0, 300.0};
      std::vector<double> cc(getccsize(5, p)), buf(2 * cs.nfft), c(p + 1);
      ASSERT_EQ(waveform2cc(x.data(), n, kFs, shift, first, 5, f0.data(), p, cc.data(), 0.42, method), 0);
      CCMEM *area = ccmeminitialize(kFs, cs.fmin, naframesize(kFs), cs.nfft, method);
      ASSERT_NE(area, nullptr);
      for (uint32_t k = 0; k < 5; ++k) {
        methods[method](x.data(), n, kFs, first + k * shift, f0[k], cs.nfft, buf.data(), p, c.data(), 0.42, area);
        EXPECT_EQ(std::vector<double>(cc.begin() + k * (p + 1), cc.begin() + (k + 1) * (p + 1)), c) << "frame " << k;
      }
      ccmemdestroy(area);
    }
}

TEST(Waveform2cc, EveryThreadCountGivesTheSameBits) {
  // 45 frames, voiced and unvoiced, in chunks that do not divide evenly among the threads.
  const uint32_t n = 8000, p = 24, nframes = 45;
  std::vector<double> x = gaussvec(n, 0.1, 8), f0(nframes);
  for (uint32_t i = 0; i < n; ++i) x[i] = 0.3 * std::sin(2 * kPi * (120.0 + i / 100.0) * i / kFs) + x[i];
  for (uint32_t k = 0; k < nframes; ++k) f0[k] = (k % 7 == 3) ? 0.0 : 110.0 + 3.0 * k;
  for (uint8_t method = 0; method <= 4; ++method) {
    std::vector<double> want(getccsize(nframes, p));
    ASSERT_EQ(waveform2cc(x.data(), n, kFs, 160, 200, nframes, f0.data(), p, want.data(), 0.42, method), 0);
    for (uint32_t threads : {0u, 2u, 3u, 9u}) {
      std::vector<double> cc(want.size(), 7.0);
      EXPECT_TRUE(waveform2ccthreads(x.data(), n, kFs, 160, 200, nframes, f0.data(), p, cc.data(), 0.42, method,
                                     threads) == 0 && samebits(cc, want)) << int(method) << " " << threads;
    }
  }
}

TEST(Waveform2cc, HarmonicSignalOfFlatSpectrumReadsItsDensity) {
  // Harmonics of equal amplitude a have density a/(2 sqrt f0) in the unit the
  // synthesis reads; every method must find that level across the band. An
  // unlisted code (9) analyses like code 0.
  const double f0 = 140.0, a = 0.02;
  std::vector<double> x(8000, 0.0), f0s = {0.0, f0, 0.0};
  for (uint32_t k = 1; k <= hanoharms(kFs, kFs, f0); ++k)
    for (uint32_t i = 0; i < 8000; ++i) x[i] += a * std::cos(2 * kPi * k * f0 * i / kFs + 0.7 * k * k);
  std::vector<double> c0(3 * 40), cc(3 * 40);
  ASSERT_EQ(waveform2cc(x.data(), 8000, kFs, 80, 3800, 3, f0s.data(), 39, c0.data(), 0.42, 0), 0);
  for (uint8_t method : {0, 1, 2, 3, 4, 9}) {
    SCOPED_TRACE(static_cast<int>(method));
    ASSERT_EQ(waveform2cc(x.data(), 8000, kFs, 80, 3800, 3, f0s.data(), 39, cc.data(), 0.42, method), 0);
    for (double f : {300.0, 1000.0, 2500.0, 5000.0, 7000.0})
      EXPECT_NEAR(logamp(cc.data() + 40, 39, f, 0.42), std::log(a / (2 * std::sqrt(f0))),
                  method == 3 || method == 4 ? 0.15 : 0.05) << f << " Hz";
    for (uint32_t j = 0; j < 120; ++j)  // code 9: unvoiced frames identical, the voiced one to rounding
      EXPECT_TRUE(method != 9 || std::fabs(cc[j] - c0[j]) <= (j / 40 == 1 ? 1e-8 : 0.0)) << j;
  }
}

TEST(Waveform2cc, RobustAtEdgesAndOnBadInput) {
  const std::vector<double> x = gaussvec(3000, 0.1, 2);
  std::vector<double> big(2 * 1501);
  // Centres at 0, near the end, past the end and wrapped past 2^32; f0 values that are NaN,
  // infinite, negative, tiny, above Nyquist. Silence and an empty signal hold log(sqrt(1e-10/fs))
  // in every bin: that constant in c0, zeros elsewhere (voiced frames of silence fail over to
  // noise). Orders beyond the FFT length (the warping needs its own scratch) and beyond any
  // sensible fit (codes 1 and 2 fall back on the noise envelope).
  const std::vector<double> f0 = {100.0, NAN, INFINITY, -5.0, 1e-300, 9000.0, 15.0, 250.0}, z(3000, 0.0);
  const double floorlog = std::log(std::sqrt(401 * 1.0000000000000002e-10 / (401 * kFs))), f2[] = {0.0, 150.0};
  for (uint8_t method = 0; method <= 6; ++method) {
    SCOPED_TRACE(static_cast<int>(method));
    std::vector<double> cc(8 * 13, 0.0);
    for (uint32_t first : {0u, 2900u, 4294967000u})
      EXPECT_TRUE(waveform2cc(x.data(), 3000, kFs, 700, first, 8, f0.data(), 12, cc.data(), 0.42, method) == 0 &&
                  allfinite(cc)) << first;
    for (const double *s : {z.data(), static_cast<const double *>(nullptr)}) {
      ASSERT_EQ(waveform2cc(s, s ? 3000 : 0, kFs, 80, 1000, 8, f0.data(), 12, cc.data(), 0.42, method), 0);
      for (uint32_t j = 0; j < cc.size(); ++j) EXPECT_NEAR(cc[j], j % 13 ? 0.0 : floorlog, 1e-12) << j;
    }
    EXPECT_TRUE(waveform2cc(x.data(), 3000, kFs, 1000, 1000, 2, f2, 1500, big.data(), 0.42, method) == 0 &&
                allfinite(big));
  }
  // NaN samples poison only the frames that see them.
  std::vector<double> y = x, f1 = {0.0, 120.0, 0.0}, cc(3 * 13);
  y[100] = NAN;
  EXPECT_TRUE(waveform2cc(y.data(), 3000, kFs, 1000, 100, 3, f1.data(), 12, cc.data(), 0.42, 0) == 0 &&
              std::isnan(cc[0]) && allfinite(std::vector<double>(cc.begin() + 13, cc.end())));
  // Refusals zero cc (a size beyond 32 bits leaves it alone): no output array, invalid fs, an
  // FFT beyond 2^22 points (f0 0.01 Hz). |alpha| >= 1 is no error: the warping leaves each row
  // as it was and c0 is doubled.
  EXPECT_EQ(waveform2cc(x.data(), 3000, kFs, 80, 0, 3, f1.data(), 12, nullptr, 0.42, 0), -1);
  const std::vector<double> tiny = {0.0, 0.01, 0.0};
  const struct { double fs; uint32_t p; const double *f0; double alpha; int result; double fill, c0; } cases[] = {
      {NAN, 12, f1.data(), 0.42, -1, 0.0, 0.0},  {0.0, 12, f1.data(), 0.42, -1, 0.0, 0.0},
      {kFs, 12, tiny.data(), 0.42, -1, 0.0, 0.0}, {kFs, 0xFFFFFFFFu, f1.data(), 0.42, -1, 4.0, 4.0},
      {kFs, 12, f1.data(), 1.0, 0, 4.0, 8.0},     {kFs, 12, f1.data(), -2.5, 0, 4.0, 8.0}};
  for (const auto &b : cases)
    for (uint8_t method : {0, 3, 4}) {
      std::vector<double> out(3 * 13, 4.0);
      EXPECT_EQ(waveform2cc(x.data(), 3000, b.fs, 80, 0, 3, b.f0, b.p, out.data(), b.alpha, method), b.result);
      for (uint32_t j = 0; j < out.size(); ++j) EXPECT_EQ(out[j], j % 13 ? b.fill : b.c0) << b.fs << " " << j;
    }
  EXPECT_EQ(waveform2cc(x.data(), 3000, kFs, 80, 0, 0, f1.data(), 12, cc.data(), 0.42, 0), 0);
}

}  // namespace
