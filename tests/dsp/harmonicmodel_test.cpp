// Harmonic and quasi-harmonic analysis: exact recovery of synthetic harmonic
// series (amplitudes, phases at the frame centre, frequencies), convergence
// of the frequency correction from a wrong f0, pitch refinement of a track,
// the interpolated log spectrum, area sizing and refusals.
#include "harmonicanalysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "pitchanalysis.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kFs = 16000.0;

struct Series {
  std::vector<double> amp, phase, freq;  // per harmonic; phase at sample 0
  std::vector<double> x;
};

// Sum of cosines amp_k cos(2 pi freq_k i / fs + phase_k); freq_k = k f0, plus
// a random offset of up to +-jitter Hz above harmonic 10 (partials that each
// need their own correction, while the strong low ones fix f0).
Series makeseries(double f0, uint32_t H, uint32_t n, uint64_t seed, double jitter = 0.0) {
  Series s;
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> u(0.0, 2 * kPi), v(-1.0, 1.0);
  s.x.assign(n, 0.0);
  for (uint32_t k = 1; k <= H; ++k) {
    s.amp.push_back(0.1 / std::sqrt(k) * (1.0 + 0.5 * std::sin(0.3 * k)));
    s.phase.push_back(u(gen));
    const double offset = jitter * v(gen);
    s.freq.push_back(k * f0 + (k > 10 ? offset : 0.0));
    for (uint32_t i = 0; i < n; ++i)
      s.x[i] += s.amp.back() * std::cos(2 * kPi * s.freq.back() * i / kFs + s.phase.back());
  }
  return s;
}

double wrap(double a) { return std::remainder(a, 2 * kPi); }

TEST(HarmonicModel, RecoversAmplitudesAndCentrePhasesExactly) {
  HAMEM *area = hameminitialize(kFs, kFs, 60.0);
  ASSERT_NE(area, nullptr);
  for (double f0 : {60.0, 100.0, 123.4, 217.3, 480.0}) {
    SCOPED_TRACE(f0);
    const uint32_t H = hanoharms(kFs, kFs, f0);
    const uint32_t n = 6000, centre = 3000;
    const Series s = makeseries(f0, H, n, 7);
    std::vector<double> amp(H), ph(H);
    ASSERT_EQ(getharmonics(s.x.data(), n, kFs, centre, f0, H, amp.data(), ph.data(), area), 0);
    for (uint32_t k = 0; k < H; ++k) {
      EXPECT_NEAR(amp[k], s.amp[k], 1e-9) << "harmonic " << k + 1;
      const double expected = s.phase[k] + 2 * kPi * s.freq[k] * centre / kFs;
      EXPECT_NEAR(wrap(ph[k] - expected), 0.0, 1e-7) << "harmonic " << k + 1;
    }
    // Amplitudes only: the phase array is optional.
    std::vector<double> amp2(H);
    ASSERT_EQ(getharmonics(s.x.data(), n, kFs, centre, f0, H, amp2.data(), nullptr, area), 0);
    EXPECT_EQ(amp2, amp);
  }
  hamemdestroy(area);
}

TEST(HarmonicModel, EdgesSilenceAndRefusals) {
  HAMEM *area = hameminitialize(kFs, kFs, 60.0);
  ASSERT_NE(area, nullptr);
  EXPECT_EQ(area->maxharms, hanoharms(kFs, kFs, 60.0));
  EXPECT_EQ(area->fmin, 60.0);
  const Series s = makeseries(150.0, 53, 4000, 3);
  std::vector<double> amp(200, -1.0);
  // Half the window outside the signal: analysed (the outside reads as
  // silence), amplitudes finite and of the right order.
  ASSERT_EQ(getharmonics(s.x.data(), 4000, kFs, 0, 150.0, 53, amp.data(), nullptr, area), 0);
  for (uint32_t k = 0; k < 53; ++k) {
    EXPECT_TRUE(std::isfinite(amp[k]));
    EXPECT_LT(amp[k], s.amp[k] * 2.0);
  }
  ASSERT_EQ(getharmonics(s.x.data(), 4000, kFs, 3999, 150.0, 53, amp.data(), nullptr, area), 0);
  // Refused: past the end (silent window), empty signal, f0 below the area's
  // fmin or not usable, more harmonics than the area holds, NaN samples.
  struct Case {
    const char *name;
    uint32_t n, centre;
    double f0;
    uint32_t H;
  };
  for (const Case &c : std::vector<Case>{{"past the end", 4000, 9000, 150.0, 53},
                                         {"wrapped centre", 4000, 0xFFFFFFF0u, 150.0, 53},
                                         {"empty", 0, 0, 150.0, 53},
                                         {"f0 below fmin", 4000, 2000, 59.0, 10},
                                         {"NaN f0", 4000, 2000, NAN, 10},
                                         {"infinite f0", 4000, 2000, INFINITY, 10},
                                         {"f0 at Nyquist", 4000, 2000, 8000.0, 1},
                                         {"no harmonics", 4000, 2000, 150.0, 0},
                                         {"too many harmonics", 4000, 2000, 150.0, 134}}) {
    EXPECT_EQ(getharmonics(c.n ? s.x.data() : nullptr, c.n, kFs, c.centre, c.f0, c.H, amp.data(), nullptr, area),
              -1)
        << c.name;
  }
  std::vector<double> bad = s.x;
  bad[2000] = NAN;
  EXPECT_EQ(getharmonics(bad.data(), 4000, kFs, 2000, 150.0, 53, amp.data(), nullptr, area), -1);
  EXPECT_EQ(getharmonics(s.x.data(), 4000, kFs, 2000, 150.0, 53, amp.data(), nullptr, nullptr), -1);
  hamemdestroy(area);
  EXPECT_EQ(hamemdestroy(nullptr), 0);
  // fmin is raised to 20 Hz; an unusable fs gives no area.
  HAMEM *low = hameminitialize(kFs, 4000.0, 1.0);
  ASSERT_NE(low, nullptr);
  EXPECT_EQ(low->fmin, 20.0);
  EXPECT_EQ(low->maxharms, hanoharms(kFs, 4000.0, 20.0));
  hamemdestroy(low);
  EXPECT_EQ(hameminitialize(NAN, kFs, 60.0), nullptr);
  EXPECT_EQ(hameminitialize(-1.0, kFs, 60.0), nullptr);
  EXPECT_EQ(qhameminitialize(kFs, NAN, 60.0), nullptr);
}

TEST(QuasiHarmonicModel, CorrectsEachHarmonicFromAWrongStart) {
  QHAMEM *area = qhameminitialize(kFs, kFs, 60.0);
  ASSERT_NE(area, nullptr);
  struct Case {
    double f0, start, jitter;  // true f0, analysis start, largest offset of a partial (Hz)
  };
  for (const Case &c : std::vector<Case>{{123.4, 123.4 * 1.01, 0.0},
                                         {123.4, 123.4 * 0.99, 0.0},
                                         {210.0, 210.0, 4.0},
                                         {95.0, 95.0 * 1.005, 2.0}}) {
    SCOPED_TRACE(testing::Message() << "f0 " << c.f0 << " start " << c.start << " jitter " << c.jitter);
    const uint32_t H = hanoharms(kFs, 7000.0, c.f0);
    const Series s = makeseries(c.f0, H, 8000, 11, c.jitter);
    std::vector<double> amp(H), ph(H), fr(H);
    ASSERT_EQ(getsqharmonics(s.x.data(), 8000, kFs, 4000, c.start, H, amp.data(), ph.data(), fr.data(), area), 0);
    for (uint32_t k = 0; k < H; ++k) {
      EXPECT_NEAR(fr[k], s.freq[k], 0.5) << "harmonic " << k + 1;
      EXPECT_NEAR(amp[k] / s.amp[k], 1.0, 0.01) << "harmonic " << k + 1;
    }
  }
  // Without a wrong start and with exact harmonics, the fit is exact.
  const uint32_t H = hanoharms(kFs, kFs, 160.0);
  const Series s = makeseries(160.0, H, 8000, 12);
  std::vector<double> amp(H), fr(H);
  ASSERT_EQ(getsqharmonics(s.x.data(), 8000, kFs, 4000, 160.0, H, amp.data(), nullptr, fr.data(), area), 0);
  for (uint32_t k = 0; k < H; ++k) {
    EXPECT_NEAR(amp[k], s.amp[k], 1e-8) << k;
    EXPECT_NEAR(fr[k], s.freq[k], 1e-6) << k;
  }
  // A harmonic area is not a quasi-harmonic one.
  HAMEM *ham = hameminitialize(kFs, kFs, 60.0);
  EXPECT_EQ(getsqharmonics(s.x.data(), 8000, kFs, 4000, 160.0, H, amp.data(), nullptr, nullptr,
                           reinterpret_cast<QHAMEM *>(ham)),
            -1);
  hamemdestroy(ham);
  qhamemdestroy(area);
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
  EXPECT_EQ(qharefinepitch(s.x.data(), n, kFs, 8000, 30.0, 4500.0, area), 0.0);  // below fmin
  EXPECT_EQ(qharefinepitch(s.x.data(), n, kFs, 8000, f0, NAN, area), 0.0);
  EXPECT_EQ(qharefinepitch(s.x.data(), n, kFs, 8000, f0, 0.0, area), 0.0);  // no harmonic below fmax
  qhamemdestroy(area);

  // Track: voiced frames start off by up to 2 %; unvoiced frames stay 0; a
  // frame whose refinement leaves [f0min, f0max] keeps its value; niter = 0
  // changes nothing.
  const uint32_t nf = 6;
  const std::vector<double> start = {0.0, f0 * 1.02, f0 * 0.985, 0.0, f0 * 1.01, f0 * 1.02};
  std::vector<double> track = start;
  ASSERT_EQ(refinepitch(s.x.data(), n, kFs, 2000, 3000, nf, 60.0, 500.0, 5, track.data(), nullptr), 0);
  for (uint32_t k = 0; k < nf; ++k) {
    if (start[k] == 0.0)
      EXPECT_EQ(track[k], 0.0);
    else
      EXPECT_NEAR(track[k] / f0, 1.0, 1e-4) << k;
  }
  track = start;
  ASSERT_EQ(refinepitch(s.x.data(), n, kFs, 2000, 3000, nf, 60.0, f0 * 0.995, 5, track.data(), nullptr), 0);
  EXPECT_EQ(track[1], start[1]);  // the refined value f0 lies above f0max: kept
  EXPECT_EQ(track[2], start[2]);
  track = start;
  ASSERT_EQ(refinepitch(s.x.data(), n, kFs, 2000, 3000, nf, 60.0, 500.0, 0, track.data(), nullptr), 0);
  EXPECT_EQ(track, start);
  // Per-frame maxima: a frame with no harmonic below its maximum is kept.
  std::vector<double> fmax = {4000.0, 4000.0, 100.0, 4000.0, NAN, 4000.0};
  track = start;
  ASSERT_EQ(refinepitch(s.x.data(), n, kFs, 2000, 3000, nf, 60.0, 500.0, 5, track.data(), fmax.data()), 0);
  EXPECT_NEAR(track[1] / f0, 1.0, 1e-4);
  EXPECT_EQ(track[2], start[2]);
  EXPECT_EQ(track[4], start[4]);
  EXPECT_NEAR(track[5] / f0, 1.0, 1e-4);
}

TEST(HarmonicLogSpectrum, PassesThroughTheHarmonicDensities) {
  // f0 = 125 Hz with nfft 1024 at 16 kHz puts harmonic k on bin 8k.
  const double f0 = 125.0;
  const uint32_t nfft = 1024, H = hanoharms(kFs, kFs, f0);
  const Series s = makeseries(f0, H, 6000, 5);
  HAMEM *area = hameminitialize(kFs, kFs, 60.0);
  std::vector<double> buf(2 * nfft);
  ASSERT_EQ(getlogspectrumfromharms(s.x.data(), 6000, kFs, 3000, f0, nfft, buf.data(), area), 0);
  for (uint32_t k = 1; k <= H; ++k) {
    const double expected = std::log(s.amp[k - 1] / (2 * std::sqrt(f0)));
    EXPECT_NEAR(buf[8 * k], expected, 1e-8) << "harmonic " << k;
    // Between two harmonics the power stays between theirs (no overshoot).
    if (k < H) {
      const double lo = std::fmin(buf[8 * k], buf[8 * k + 8]), hi = std::fmax(buf[8 * k], buf[8 * k + 8]);
      for (uint32_t b = 8 * k + 1; b < 8 * k + 8; ++b) {
        EXPECT_GE(buf[b], lo - 1e-12) << b;
        EXPECT_LE(buf[b], hi + 1e-12) << b;
      }
    }
  }
  for (uint32_t b = 0; b < 8; ++b) EXPECT_EQ(buf[b], buf[8]) << "flat below f0";
  for (uint32_t b = 8 * H; b <= nfft / 2; ++b) EXPECT_EQ(buf[b], buf[8 * H]) << "flat above the last harmonic";
  for (uint32_t b = 1; b < nfft / 2; ++b) EXPECT_EQ(buf[nfft - b], buf[b]);
  // A flat series reads one level everywhere: interpolating power keeps it.
  std::vector<double> flat(6000, 0.0);
  for (uint32_t k = 1; k <= H; ++k)
    for (uint32_t i = 0; i < 6000; ++i) flat[i] += 0.03 * std::cos(2 * kPi * k * f0 * i / kFs + k);
  ASSERT_EQ(getlogspectrumfromharms(flat.data(), 6000, kFs, 3000, f0, nfft, buf.data(), area), 0);
  for (uint32_t b = 0; b < nfft; ++b) EXPECT_NEAR(buf[b], std::log(0.03 / (2 * std::sqrt(f0))), 1e-8) << b;
  // Failures: unvoiced, silent, FFT length not a power of two or too short.
  std::vector<double> z(6000, 0.0);
  EXPECT_EQ(getlogspectrumfromharms(s.x.data(), 6000, kFs, 3000, 0.0, nfft, buf.data(), area), -1);
  EXPECT_EQ(getlogspectrumfromharms(z.data(), 6000, kFs, 3000, f0, nfft, buf.data(), area), -1);
  EXPECT_EQ(getlogspectrumfromharms(s.x.data(), 6000, kFs, 3000, f0, 1000, buf.data(), area), -1);
  EXPECT_EQ(getlogspectrumfromharms(s.x.data(), 6000, kFs, 3000, f0, 64, buf.data(), area), -1);
  hamemdestroy(area);
  // A quasi-harmonic area serves as well.
  QHAMEM *q = qhameminitialize(kFs, kFs, 60.0);
  ASSERT_EQ(getlogspectrumfromharms(s.x.data(), 6000, kFs, 3000, f0, nfft, buf.data(), reinterpret_cast<HAMEM *>(q)),
            0);
  for (uint32_t k = 1; k <= H; ++k)
    EXPECT_NEAR(buf[8 * k], std::log(s.amp[k - 1] / (2 * std::sqrt(f0))), 1e-6) << "harmonic " << k;
  qhamemdestroy(q);
}

}  // namespace
