// Cepstrum-to-envelope helpers and the harmonic-plus-noise synthesis.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "ccanalysis.h"
#include "harmonicanalysis.h"
#include "matvect.h"
#include "spectralanalysis.h"
#include "dft.h"
#include "support/synthutt.h"
#include "windowing.h"

namespace {

using kestreltest::SynthUtterance;

constexpr double kPi = 3.141592653589793;
constexpr double kLn10 = 2.302585092994046;
constexpr double kNoiseGain = 0.19332249068594076;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

::testing::AssertionResult bitIdentical(const std::vector<double> &a, const std::vector<double> &b, size_t from = 0,
                                        size_t to = SIZE_MAX) {
  if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes " << a.size() << " vs " << b.size();
  for (size_t i = from; i < a.size() && i < to; ++i)
    if (!sameBits(a[i], b[i])) return ::testing::AssertionFailure() << "index " << i << ": " << a[i] << " vs " << b[i];
  return ::testing::AssertionSuccess();
}

// ---------------------------------------------------------------------------
// Plain evaluation of the synthesis, step by step as documented, each helper
// written out literally (only the FFT, prodmat and olatriang are the
// library's): the reference that the faster code must match bit for bit.

double plainFwarp(double w, double a) {
  return std::atan2((1 - a * a) * std::sin(w), (1 + a * a) * std::cos(w) - 2 * a);
}

void plainCcmatrix(uint32_t p, uint32_t n, double f0, double fs, double alpha, double *C, double *S) {
  const double w = f0 * 6.283185307179586 / fs;
  for (uint32_t r = 0; r < n; ++r) {
    const double wt = plainFwarp((r + 1) * w, alpha);
    const double c1 = std::cos(wt), s1 = std::sin(wt);
    double c = 1.0, s = 0.0;
    C[r * (p + 1)] = 1.0;
    if (S) S[r * (p + 1)] = -0.0;
    for (uint32_t k = 1; k <= p; ++k) {
      const double nc = c * c1 - s * s1, ns = s * c1 + c * s1;
      c = nc;
      s = ns;
      C[r * (p + 1) + k] = 2 * c;
      if (S) S[r * (p + 1) + k] = -2.0 * s;
    }
  }
}

double plainHpGain(double f, double fc) {
  const double flo = 0.8 * fc, A = -2.302585092994046, B = -3.684136148790474;
  return f < flo ? (A - B) * f / flo + B : (1 - (f - flo) / (fc - flo)) * A;
}

void plainHp(uint32_t n, double df, double *x, double fc) {
  double f = df;
  for (uint32_t i = 0; i < n && f < fc; ++i, f += df) x[i] += plainHpGain(f, fc);
}

void plainAntiHp(uint32_t n, double df, double *x, double fc) {
  double f = df;
  for (uint32_t i = 0; i < n && f < fc; ++i, f += df) {
    const double G = std::exp(plainHpGain(f, fc));
    x[i] *= std::sqrt(1 - G * G);
  }
}

void plainExcphase(uint32_t nh, double f0, double fs, double *ph) {
  const double w = f0 * 6.283185307179586 / fs, c1 = std::cos(w), s1 = std::sin(w);
  double c = 1.0, s = 0.0;
  for (uint32_t i = 0; i < nh; ++i) {
    const double nc = c * c1 - s * s1, ns = s * c1 + c * s1;
    c = nc;
    s = ns;
    ph[i] = 3.141592653589793 - 2 * std::atan2((1 - 0.95 * 0.95) * s, 2 * 0.95 - (1 + 0.95 * 0.95) * c) + ph[i];
  }
}

void plainResample(double df, const double *env, uint32_t n, double dfout, double *out, uint32_t m) {
  uint32_t j = 0;
  double fl = 0.0, vl = env[0], fh = df, vh = env[0];
  for (uint32_t i = 0; i < m; ++i) {
    const double f = (i + 1) * dfout;
    while (j <= n && fh < f) {
      ++j;
      fl = fh;
      fh = fh + df;
      vl = vh;
      if (j != n) vh = env[j];
    }
    out[i] = (f - fl) * (vh - vl) / df + vl;
  }
}

void plainNoise(double *buf, uint32_t nfft, double fs) {
  double *re = buf, *im = buf + nfft;
  const double A = std::sqrt(fs / nfft);
  re[0] = im[0] = re[nfft / 2] = im[nfft / 2] = 0.0;
  for (uint32_t k = 1; k < nfft / 2; ++k) {
    const double m = std::exp(re[k]) * A;
    const double psi = std::rand() * 2.925836159896768e-09;
    im[k] = std::sin(psi) * m;
    re[k] = std::cos(psi) * m;
    re[nfft - k] = re[k];
    im[nfft - k] = -im[k];
  }
  ifftr(static_cast<int32_t>(nfft), re, im);
}

void plainGenharmonics(double *buf, uint32_t before, uint32_t after, double fs, double f0, uint32_t nh,
                       const double *amp, const double *ph, double phi) {
  const uint32_t L = before + after;
  if (nh == 0 || L == 0) return;
  const double w = f0 * 6.283185307179586 / fs;
  const double c1 = std::cos(w), s1 = std::sin(w);
  const double theta0 = phi - before * w;
  double c = std::cos(theta0), s = std::sin(theta0);
  for (uint32_t n = 0; n < L; ++n) {
    buf[n] = (2.0 - c) * 0.47140452079103173 * buf[n];
    const double nc = c * c1 - s * s1, ns = s * c1 + c * s1;
    c = nc;
    s = ns;
  }
  double ck = c1, sk = s1;
  for (uint32_t j = 0; j < nh; ++j) {
    if (amp[j] == 0.0) continue;
    const double theta = ph[j] + theta0 * (j + 1);
    c = std::cos(theta);
    s = std::sin(theta);
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

uint32_t plainHarmonicCount(double fs, double fmax, double f0) {
  if (fmax <= f0 || 0.5 * fs <= f0) return 0;
  return static_cast<uint32_t>(std::ceil((fmax <= 0.5 * fs ? fmax : 0.5 * fs) / f0)) - 1;
}

void plainCc2waveform(double *out, uint32_t length, double fs, uint32_t shift, uint32_t nframes, const double *f0,
                      const double *fv, uint32_t p, double *cc, double alpha) {
  for (uint32_t n = 0; n < length; ++n) out[n] = 0.0;
  double f0min = 500.0;
  for (uint32_t i = 0; i < nframes; ++i)
    if (f0[i] >= 10.0 && f0[i] < f0min) f0min = f0[i];
  double c0max = 0.0, c0min = 0.0;
  if (!fv) {
    c0max = -1.7976931348623157e308;
    c0min = 1.7976931348623157e308;
    for (uint32_t i = 0; i < nframes; ++i) {
      if (f0[i] > 0 && cc[i * (p + 1)] > c0max) c0max = cc[i * (p + 1)];
      if (cc[i * (p + 1)] < c0min) c0min = cc[i * (p + 1)];
    }
  }
  const uint32_t nhmax = plainHarmonicCount(fs, fs, f0min), nenv = plainHarmonicCount(fs, fs, 100.0);
  const uint32_t nfft = getwinlengthceilpot2(2 * shift);
  std::vector<double> mat((p + 1) * (2 * nhmax + nenv)), vec(nenv + 2 * nhmax), frame(2 * nfft);
  double *hcos = mat.data(), *hsin = hcos + (p + 1) * nhmax, *envm = hsin + (p + 1) * nhmax;
  double *amps = vec.data(), *phases = amps + nhmax, *grid = phases + nhmax;
  plainCcmatrix(p, nenv, 100.0, fs, alpha, envm, nullptr);
  std::srand(0);
  double phi = 0.0, f0prev = 0.0;
  for (uint32_t i = 0; i < nframes; ++i) {
    double *c = cc + i * (p + 1);
    const uint32_t centre = (i + 1) * shift;
    double f = f0[i];
    if (f > 0 && (f < 10.0 || f > 1500.0)) f = 0;
    c[0] += 0.19332249068594076;
    prodmat(envm, c, grid, nenv, p + 1, 1);
    c[0] -= 0.19332249068594076;
    double v = 0.0;
    if (f > 0) {
      if (!fv)
        v = (c0max == c0min) ? 4500.0 : (c[0] - c0min) * 4500.0 / (c0max - c0min);
      else
        v = fv[i];
      if (v < 1000.0) v = 1000.0;
      if (f >= v)
        f = 0;
      else
        plainHp(nenv, 100.0, grid, v);
    }
    plainResample(100.0, grid, nenv, fs / nfft, frame.data() + 1, nfft / 2 - 1);
    plainNoise(frame.data(), nfft, fs);
    if (f > 0) {
      const uint32_t nh = plainHarmonicCount(fs, v, f);
      plainCcmatrix(p, nh, f, fs, alpha, hcos, hsin);
      prodmat(hcos, c, amps, nh, p + 1, 1);
      const double sq = std::sqrt(f);
      for (uint32_t k = 0; k < nh; ++k) amps[k] = std::exp(amps[k]) * (2 * sq);
      plainAntiHp(nh, f, amps, v);
      prodmat(hsin, c, phases, nh, p + 1, 1);
      phi = (f0prev > 0) ? phi + 3.141592653589793 * (f + f0prev) * shift / fs : 0.0;
      plainExcphase(nh, f, fs, phases);
      plainGenharmonics(frame.data(), shift, shift, fs, f, nh, amps, phases, phi);
    }
    olatriang(out, frame.data(), centre - shift, centre, centre + shift);
    f0prev = f;
  }
}

// Runs cc2waveform on a copy of the utterance's cepstra; the copy is returned in *ccout.
std::vector<double> synth(const SynthUtterance &u, bool withfv, std::vector<double> *ccout = nullptr,
                          int *rc = nullptr) {
  std::vector<double> cc = u.cc;
  std::vector<double> out(getwaveformlength(u.shift, u.nframes), kNaN);
  const int r = cc2waveform(out.data(), static_cast<uint32_t>(out.size()), u.fs, u.shift, u.nframes, u.f0.data(),
                            withfv ? u.fv.data() : nullptr, u.order, cc.data(), u.alpha);
  if (rc) *rc = r;
  if (ccout) *ccout = cc;
  return out;
}

std::vector<double> plainSynth(const SynthUtterance &u, bool withfv) {
  std::vector<double> cc = u.cc;
  std::vector<double> out(getwaveformlength(u.shift, u.nframes));
  plainCc2waveform(out.data(), static_cast<uint32_t>(out.size()), u.fs, u.shift, u.nframes, u.f0.data(),
                   withfv ? u.fv.data() : nullptr, u.order, cc.data(), u.alpha);
  return out;
}

// A steady utterance: every frame the same f0 and fv, flat envelope at log level c0.
SynthUtterance steady(uint32_t nframes, double f0, double fv, double c0, uint32_t order = 8) {
  SynthUtterance u;
  u.order = order;
  u.nframes = nframes;
  u.f0.assign(nframes, f0);
  u.fv.assign(nframes, fv);
  u.cc.assign(static_cast<size_t>(nframes) * (order + 1), 0.0);
  for (uint32_t i = 0; i < nframes; ++i) u.frame(i)[0] = c0;
  return u;
}

// Amplitude of the sinusoid at f Hz in x[start .. start + n - 1] (single DFT bin).
double lineAmplitude(const std::vector<double> &x, size_t start, size_t n, double f, double fs) {
  double re = 0.0, im = 0.0;
  for (size_t k = 0; k < n; ++k) {
    const double a = 2 * kPi * f * k / fs;
    re += x[start + k] * std::cos(a);
    im -= x[start + k] * std::sin(a);
  }
  return 2.0 * std::hypot(re, im) / n;
}

const SynthUtterance &realistic() {
  static const SynthUtterance u = [] {
    kestreltest::SynthUttOptions o;
    o.seconds = 1.2;
    o.seed = 7;
    return kestreltest::makesynthutterance(o);
  }();
  return u;
}

// ---------------------------------------------------------------------------

TEST(Fwarp, Identities) {
  for (double w : {0.0, 0.1, 0.5, 1.0, 2.0, 3.0, kPi}) {
    EXPECT_NEAR(fwarp(w, 0.0), w, 1e-15) << w;
    for (double a : {-0.6, 0.42, 0.9}) {
      // Closed form of the first-order all-pass phase: w + 2 atan(a sin w / (1 - a cos w)).
      EXPECT_NEAR(fwarp(w, a), w + 2 * std::atan(a * std::sin(w) / (1 - a * std::cos(w))), 1e-13) << w << " " << a;
      EXPECT_NEAR(fwarp(fwarp(w, a), -a), w, 1e-13) << w << " " << a;  // -a undoes a
    }
  }
  for (double a : {-0.99, -0.42, 0.0, 0.42, 0.99}) {
    EXPECT_EQ(fwarp(0.0, a), 0.0) << a;
    EXPECT_NEAR(fwarp(kPi, a), kPi, 1e-12) << a;
  }
  // Positive alpha stretches low frequencies.
  EXPECT_GT(fwarp(0.3, 0.42), 0.3);
  EXPECT_LT(fwarp(0.3, -0.42), 0.3);
}

TEST(Ccmatrixcreate, RowsHoldWarpedCosinesAndSines) {
  const uint32_t p = 12, n = 7;
  const double fs = 16000.0, alpha = 0.42, f0 = 230.0;
  std::vector<double> C(n * (p + 1)), S(n * (p + 1));
  ASSERT_EQ(ccmatrixcreate(p, n, f0, nullptr, fs, alpha, C.data(), S.data()), 0);
  const double freqs[] = {100.0, 250.0, 1000.0, 3999.0, 7900.0, 0.0, 8000.0};
  std::vector<double> Cl(n * (p + 1)), Sl(n * (p + 1));
  ASSERT_EQ(ccmatrixcreate(p, n, 0.0, freqs, fs, alpha, Cl.data(), Sl.data()), 0);
  for (uint32_t r = 0; r < n; ++r) {
    const double wh = fwarp(2 * kPi * f0 * (r + 1) / fs, alpha);
    const double wl = fwarp(2 * kPi * freqs[r] / fs, alpha);
    EXPECT_EQ(C[r * (p + 1)], 1.0);
    EXPECT_TRUE(sameBits(S[r * (p + 1)], -0.0));
    EXPECT_TRUE(sameBits(Sl[r * (p + 1)], -0.0));
    for (uint32_t k = 1; k <= p; ++k) {
      EXPECT_NEAR(C[r * (p + 1) + k], 2 * std::cos(k * wh), 1e-12) << r << " " << k;
      EXPECT_NEAR(S[r * (p + 1) + k], -2 * std::sin(k * wh), 1e-12) << r << " " << k;
      EXPECT_NEAR(Cl[r * (p + 1) + k], 2 * std::cos(k * wl), 1e-12) << r << " " << k;
      EXPECT_NEAR(Sl[r * (p + 1) + k], -2 * std::sin(k * wl), 1e-12) << r << " " << k;
    }
  }
  // Row times cepstrum: log amplitude c0 + 2 sum ck cos(k w~), phase -2 sum ck sin(k w~).
  std::vector<double> c(p + 1);
  for (uint32_t k = 0; k <= p; ++k) c[k] = 0.3 / (k + 1) - 0.05 * k;
  std::vector<double> la(n), ph(n);
  prodmat(C.data(), c.data(), la.data(), n, p + 1, 1);
  prodmat(S.data(), c.data(), ph.data(), n, p + 1, 1);
  for (uint32_t r = 0; r < n; ++r) {
    const double f = f0 * (r + 1);
    EXPECT_NEAR(la[r], kestreltest::cepstralenvelope(c.data(), p, alpha, fs, f), 1e-12);
    const double wt = fwarp(2 * kPi * f / fs, alpha);
    double phase = 0.0;
    for (uint32_t k = 1; k <= p; ++k) phase -= 2 * c[k] * std::sin(k * wt);
    EXPECT_NEAR(ph[r], phase, 1e-12);
  }
}

TEST(Ccmatrixcreate, OrderZeroAndPointerRules) {
  // p = 0: single-column rows, 1.0 and -0.0.
  std::vector<double> C(5, 9.0), S(5, 9.0);
  ASSERT_EQ(ccmatrixcreate(0, 4, 100.0, nullptr, 16000.0, 0.42, C.data(), S.data()), 0);
  for (int r = 0; r < 4; ++r) {
    EXPECT_EQ(C[r], 1.0);
    EXPECT_TRUE(sameBits(S[r], -0.0));
  }
  EXPECT_EQ(C[4], 9.0);  // exactly n rows of p + 1
  EXPECT_EQ(S[4], 9.0);

  // Cosine matrix alone: fine (the sine pointer is never used).
  std::vector<double> C2(3 * 4, 9.0);
  EXPECT_EQ(ccmatrixcreate(3, 3, 100.0, nullptr, 16000.0, 0.42, C2.data(), nullptr), 0);
  EXPECT_EQ(C2[4], 1.0);

  // No cosine matrix: refused, nothing written.
  std::vector<double> S2(8, 9.0);
  EXPECT_EQ(ccmatrixcreate(3, 2, 100.0, nullptr, 16000.0, 0.42, nullptr, nullptr), -1);
  EXPECT_EQ(ccmatrixcreate(3, 2, 100.0, nullptr, 16000.0, 0.42, nullptr, S2.data()), -1);
  for (double v : S2) EXPECT_EQ(v, 9.0);

  // n = 0 writes nothing.
  std::vector<double> C3(4, 9.0);
  EXPECT_EQ(ccmatrixcreate(3, 0, 100.0, nullptr, 16000.0, 0.42, C3.data(), nullptr), 0);
  for (double v : C3) EXPECT_EQ(v, 9.0);
}

// High-pass gain in dB, from the design's knees: -32 dB at 0 Hz, -20 dB at 0.8 fc, 0 dB at fc.
double hpGainDb(double f, double fc) {
  const double flo = 0.8 * fc;
  if (f >= fc) return 0.0;
  if (f < flo) return -32.0 + 12.0 * f / flo;
  return -20.0 * (fc - f) / (fc - flo);
}

TEST(Applyhpfilterlog, GainsBetweenTheKnees) {
  std::vector<double> g(79, 0.0);
  ASSERT_EQ(applyhpfilterlog(79, 100.0, g.data(), 1000.0), 0);
  EXPECT_EQ(g[7], -kLn10);      // 800 Hz = 0.8 fc: -20 dB exactly
  EXPECT_EQ(g[8], -kLn10 / 2);  // 900 Hz: -10 dB
  for (int i = 0; i < 9; ++i) EXPECT_NEAR(g[i], hpGainDb(100.0 * (i + 1), 1000.0) * kLn10 / 20, 1e-12) << i;
  for (int i = 9; i < 79; ++i) EXPECT_EQ(g[i], 0.0) << i;  // fc and above untouched

  // Just above a grid point, that point is changed (f < fc, not <=).
  std::vector<double> h(12, 0.0);
  applyhpfilterlog(12, 100.0, h.data(), 1000.0001);
  EXPECT_LT(h[9], 0.0);
  EXPECT_EQ(h[10], 0.0);

  // Adds to what is there; fc <= df or a NaN fc change nothing; n bounds the walk.
  std::vector<double> a(5, 1.0);
  applyhpfilterlog(5, 100.0, a.data(), 100.0);
  applyhpfilterlog(5, 100.0, a.data(), kNaN);
  for (double v : a) EXPECT_EQ(v, 1.0);
  applyhpfilterlog(2, 100.0, a.data(), 1e6);
  EXPECT_LT(a[0], 1.0);
  EXPECT_LT(a[1], 1.0);
  EXPECT_EQ(a[2], 1.0);
}

TEST(Applyantihpfilter, ComplementsTheNoiseHighPass) {
  std::vector<double> a(20, 1.0);
  ASSERT_EQ(applyantihpfilter(20, 100.0, a.data(), 1000.0), 0);
  EXPECT_NEAR(a[7], 0.99498743710662, 1e-14);         // sqrt(1 - 0.01) at 0.8 fc
  EXPECT_NEAR(a[8], std::sqrt(1 - 0.1), 1e-14);       // -10 dB at 900 Hz
  for (int i = 0; i < 9; ++i) {
    const double G = std::pow(10.0, hpGainDb(100.0 * (i + 1), 1000.0) / 20);
    EXPECT_NEAR(a[i], std::sqrt(1 - G * G), 1e-13) << i;
    // Harmonic power (1 - G^2) plus noise power G^2 restores the envelope's power.
    EXPECT_NEAR(a[i] * a[i] + G * G, 1.0, 1e-13);
  }
  for (int i = 9; i < 20; ++i) EXPECT_EQ(a[i], 1.0) << i;
  // Multiplies what is there.
  std::vector<double> b = {3.0};
  applyantihpfilter(1, 800.0, b.data(), 1000.0);
  EXPECT_NEAR(b[0], 3.0 * 0.99498743710662, 1e-13);
}

TEST(Applyexcphase, AddsTheAllPassExcitationPhase) {
  // f0 = fs/4: harmonic 1 at pi/2, harmonic 2 at pi.
  std::vector<double> ph = {0.5, -0.25};
  ASSERT_EQ(applyexcphase(2, 4000.0, 16000.0, ph.data()), 0);
  EXPECT_NEAR(ph[0], 0.5 + kPi - 2 * std::atan2(0.0975, 1.9), 1e-14);
  EXPECT_NEAR(ph[1], -0.25 + kPi, 1e-14);

  // Where sin(kw) > 0 the added phase is 2 fwarp(kw, 0.95) - pi.
  const uint32_t nh = 30;
  std::vector<double> z(nh, 0.0);
  applyexcphase(nh, 210.0, 16000.0, z.data());
  for (uint32_t k = 1; k <= nh; ++k) {
    const double kw = 2 * kPi * 210.0 * k / 16000.0;
    EXPECT_NEAR(z[k - 1], 2 * fwarp(kw, 0.95) - kPi, 1e-10) << k;
  }
  std::vector<double> none = {7.0};
  applyexcphase(0, 210.0, 16000.0, none.data());
  EXPECT_EQ(none[0], 7.0);
}

TEST(Getwaveformlength, FramesPlusOneShiftsPlusOne) {
  struct Case {
    uint32_t shift, nframes, expected;
  } cases[] = {{80, 100, 8081}, {80, 0, 81}, {1, 1, 3}, {0, 5, 1}, {104, 3, 417}};
  for (const Case &c : cases) EXPECT_EQ(getwaveformlength(c.shift, c.nframes), c.expected);
}

TEST(Cc2waveform, MatchesPlainEvaluationBitForBit) {
  SynthUtterance u = realistic();
  EXPECT_TRUE(bitIdentical(synth(u, true), plainSynth(u, true)));
  EXPECT_TRUE(bitIdentical(synth(u, false), plainSynth(u, false)));
  // Levels whose c0 comes back one rounding off: the fv estimate sees that value.
  SynthUtterance loud = u;
  for (uint32_t i = 0; i < loud.nframes; ++i) loud.frame(i)[0] += 10.9;
  EXPECT_TRUE(bitIdentical(synth(loud, false), plainSynth(loud, false)));
  // Other frame shifts (FFT sizes), lower order, a harmonic with zero amplitude
  // (minus infinity in the log domain) and unvoiced-only stretches.
  kestreltest::SynthUttOptions o;
  o.seconds = 0.5;
  o.order = 24;
  o.shift = 23;
  o.seed = 3;
  SynthUtterance v = kestreltest::makesynthutterance(o);
  EXPECT_TRUE(bitIdentical(synth(v, true), plainSynth(v, true)));
  EXPECT_TRUE(bitIdentical(synth(v, false), plainSynth(v, false)));
  o.shift = 104;
  o.order = 0;
  SynthUtterance w = kestreltest::makesynthutterance(o);
  EXPECT_TRUE(bitIdentical(synth(w, true), plainSynth(w, true)));
}

TEST(Cc2waveform, BoundarySamplesLengthAndDeterminism) {
  const SynthUtterance &u = realistic();
  std::vector<double> a = synth(u, true);
  ASSERT_EQ(a.size(), (u.nframes + 1) * static_cast<size_t>(u.shift) + 1);
  EXPECT_TRUE(sameBits(a.front(), 0.0));
  EXPECT_TRUE(sameBits(a.back(), 0.0));
  double peak = 0.0;
  for (double x : a) peak = std::max(peak, std::fabs(x));
  EXPECT_GT(peak, 0.05);  // it is speech-like, not silence
  EXPECT_LT(peak, 1.0);

  // Reseeded per call: the generator's state beforehand does not matter.
  std::srand(12345);
  for (int i = 0; i < 17; ++i) std::rand();
  EXPECT_TRUE(bitIdentical(synth(u, true), a));
  std::vector<double> b = synth(u, false);
  EXPECT_TRUE(sameBits(b.front(), 0.0));
  EXPECT_TRUE(sameBits(b.back(), 0.0));
  EXPECT_TRUE(bitIdentical(synth(u, false), b));
}

TEST(Cc2waveform, CepstraComeBackExceptC0Rounding) {
  // Natural-log levels of about -10 always make the round trip exactly; levels
  // just below a power of two (0.9, 1.9, ...) often come back one rounding off.
  SynthUtterance u = realistic();
  for (uint32_t i = 0; i < u.nframes; ++i) u.frame(i)[0] += 10.9;
  for (bool withfv : {true, false}) {
    std::vector<double> cc;
    synth(u, withfv, &cc);
    const uint32_t p1 = u.order + 1;
    size_t moved = 0;
    for (size_t i = 0; i < cc.size(); ++i) {
      if (i % p1 == 0) {
        const double expected = (u.cc[i] + kNoiseGain) - kNoiseGain;
        ASSERT_TRUE(sameBits(cc[i], expected)) << i;
        moved += (cc[i] != u.cc[i]);
      } else {
        ASSERT_TRUE(sameBits(cc[i], u.cc[i])) << i;
      }
    }
    EXPECT_GT(moved, 0u);
  }
}

TEST(Cc2waveform, NoFramesGivesZeros) {
  std::vector<double> out(81, kNaN);
  EXPECT_EQ(cc2waveform(out.data(), 81, 16000.0, 80, 0, nullptr, nullptr, 39, nullptr, 0.42), 0);
  for (double x : out) EXPECT_TRUE(sameBits(x, 0.0));
}

TEST(Cc2waveform, EnvelopeFarBelowHearingIsSilence) {
  // A huge negative c0 (finite) silences noise and harmonics exactly.
  SynthUtterance u = realistic();
  for (uint32_t i = 0; i < u.nframes; ++i) u.frame(i)[0] = -1e300;
  for (bool withfv : {true, false}) {
    std::vector<double> out = synth(u, withfv);
    for (size_t n = 0; n < out.size(); ++n) ASSERT_EQ(out[n], 0.0) << n;
  }
}

TEST(Cc2waveform, MinusInfinityEnvelopeGivesNotANumber) {
  // c0 = -inf: the envelope grid is -inf everywhere, and interpolating between
  // two -inf grid values gives (f - fl)*(-inf - -inf) = NaN on every FFT bin, so
  // every touched sample is NaN (the zero-weight first sample too: NaN * 0).
  // Only the final sample, which no frame touches, stays 0.0.
  SynthUtterance u = steady(6, 200.0, 4000.0, -kInf);
  for (bool withfv : {true, false}) {
    std::vector<double> out = synth(u, withfv);
    for (size_t n = 0; n + 1 < out.size(); ++n) ASSERT_TRUE(std::isnan(out[n])) << n;
    EXPECT_TRUE(sameBits(out.back(), 0.0));
  }
}

TEST(Cc2waveform, VoicingThresholds) {
  // A frame counts as unvoiced exactly when its output equals that of f0 = 0;
  // voiced frames also show a spectral line at f0 (1 s steady, 1 Hz bins).
  struct Case {
    double f0, fv;
    bool voiced;
  } cases[] = {
      {9.99, 3000.0, false}, {10.0, 3000.0, true},      // lowest accepted f0, inclusive
      {1500.0, 4000.0, true}, {1500.01, 4000.0, false},  // highest accepted f0, inclusive
      {1200.0, 800.0, false},                           // fv raised to 1000 first, then f0 >= fv
      {1000.0, 800.0, false},                           // f0 == fv: unvoiced
      {950.0, 800.0, true},
      {2000.0, 2000.0, false},
      {1400.0, 1500.0, true},
  };
  for (const Case &c : cases) {
    const SynthUtterance v = steady(220, c.f0, c.fv, -5.0);
    SynthUtterance z = v;
    std::fill(z.f0.begin(), z.f0.end(), 0.0);
    const std::vector<double> out = synth(v, true), ref = synth(z, true);
    EXPECT_EQ(!bitIdentical(out, ref), c.voiced) << c.f0 << " " << c.fv;
    // The line at f0 (harmonic 100 for 10 Hz) against a point between harmonics.
    const double line = c.f0 < 100 ? 100 * c.f0 : c.f0;
    const double at = lineAmplitude(out, 1600, 16000, line, 16000.0);
    const double off = lineAmplitude(out, 1600, 16000, line + 0.5 * std::min(c.f0, 100.0), 16000.0);
    if (c.voiced) {
      EXPECT_GT(at, 10 * off) << c.f0 << " " << c.fv;
    }
  }
}

TEST(Cc2waveform, HarmonicLevelsOfASteadyVoicedSound) {
  // Flat envelope exp(-5): harmonic k of 200 Hz has amplitude exp(-5) * 2 sqrt(200),
  // cross-faded by sqrt(1 - G^2) below fv = 4000 Hz; harmonics at or above fv are absent.
  const SynthUtterance u = steady(220, 200.0, 4000.0, -5.0);
  const std::vector<double> out = synth(u, true);
  const double base = std::exp(-5.0) * 2 * std::sqrt(200.0);
  for (int k : {1, 2, 5, 10, 15, 16, 17, 19}) {
    const double f = 200.0 * k;
    const double G = std::pow(10.0, hpGainDb(f, 4000.0) / 20);
    EXPECT_NEAR(lineAmplitude(out, 1600, 16000, f, 16000.0) / (base * std::sqrt(1 - G * G)), 1.0, 0.02) << k;
  }
  for (int k : {20, 21, 30}) EXPECT_LT(lineAmplitude(out, 1600, 16000, 200.0 * k, 16000.0), 0.25 * base) << k;
}

TEST(Cc2waveform, FvFromC0WithoutTrack) {
  // c0min over all frames (-7, unvoiced), c0max over frames whose raw f0 > 0
  // (-4, from a frame whose f0 of 5 Hz is too low to sound): fv = (c0 + 7) * 1500.
  // The result must equal a run with that fv track.
  const double c0[] = {-7.0, -6.0, -5.0, -4.0, -5.5, -3.0, -6.0};
  const double f0[] = {0.0, 200.0, 210.0, 5.0, 220.0, 0.0, 230.0};
  const double fv[] = {0.0, 1500.0, 3000.0, 0.0, 2250.0, 0.0, 1500.0};
  SynthUtterance u = steady(7, 0.0, 0.0, 0.0, 6);
  for (uint32_t i = 0; i < 7; ++i) {
    u.f0[i] = f0[i];
    u.fv[i] = fv[i];
    u.frame(i)[0] = c0[i];
    u.frame(i)[1] = 0.3;
    u.frame(i)[2] = -0.1;
    ASSERT_EQ((c0[i] + kNoiseGain) - kNoiseGain, c0[i]);  // c0 comes back exactly
  }
  EXPECT_TRUE(bitIdentical(synth(u, false), synth(u, true)));
  // And fv really matters here: a flat 4500 Hz track differs.
  SynthUtterance f = u;
  std::fill(f.fv.begin(), f.fv.end(), 4500.0);
  EXPECT_FALSE(bitIdentical(synth(u, false), synth(f, true)));
}

TEST(Cc2waveform, VoicedFramesAtTheLowestC0UseTheLoudestFrameFv) {
  // Every voiced frame holds the utterance's lowest c0: fv is 4500 Hz throughout.
  SynthUtterance u = steady(12, 180.0, 4500.0, -5.0);
  u.f0[3] = u.f0[4] = 0.0;
  u.frame(3)[0] = -2.0;  // a louder unvoiced frame does not count
  EXPECT_TRUE(bitIdentical(synth(u, false), synth(u, true)));
  // Harmonics up to 4400 Hz sound, so 4500 Hz really is the limit in use.
  SynthUtterance w = steady(220, 200.0, 4500.0, -5.0);
  const std::vector<double> out = synth(w, false);
  EXPECT_GT(lineAmplitude(out, 1600, 16000, 4200.0, 16000.0), 0.3 * std::exp(-5.0) * 2 * std::sqrt(200.0));
  EXPECT_TRUE(bitIdentical(out, synth(w, true)));
}

TEST(Cc2waveform, PhaseRestartsAfterAnUnvoicedFrame) {
  // Frames 6.. sound the same whether or not frames 0..4 were voiced: the
  // stretch after the unvoiced frame 5 starts again at phase 0.
  SynthUtterance a = steady(14, 0.0, 4000.0, -5.0);
  for (uint32_t i = 0; i < 14; ++i) a.f0[i] = (i == 5) ? 0.0 : 150.0 + 7.0 * i;
  SynthUtterance b = a;
  for (uint32_t i = 0; i < 5; ++i) b.f0[i] = 0.0;
  const std::vector<double> x = synth(a, true), y = synth(b, true);
  EXPECT_TRUE(bitIdentical(x, y, 6 * a.shift));
  EXPECT_FALSE(bitIdentical(x, y, 0, 6 * a.shift));
  // Without the unvoiced frame the phase carries on and frame 6 differs.
  SynthUtterance c = a;
  c.f0[5] = 185.0;
  SynthUtterance d = c;
  for (uint32_t i = 0; i < 5; ++i) d.f0[i] = 0.0;
  EXPECT_FALSE(bitIdentical(synth(c, true), synth(d, true), 7 * a.shift, 8 * a.shift));
}

TEST(Cc2waveform, ShortOutputIsAPrefixAndNothingIsWrittenBeyond) {
  kestreltest::SynthUttOptions o;
  o.seconds = 0.3;
  const SynthUtterance u = kestreltest::makesynthutterance(o);
  std::vector<double> fullcc;
  const std::vector<double> full = synth(u, true, &fullcc);
  const uint32_t L = static_cast<uint32_t>(full.size());
  for (uint32_t len : {0u, 1u, 79u, 80u, 81u, 1234u, L - 81, L - 80, L - 1, L, L + 50}) {
    std::vector<double> out(len + 16, 7.0);
    std::vector<double> cc = u.cc;
    ASSERT_EQ(cc2waveform(out.data(), len, u.fs, u.shift, u.nframes, u.f0.data(), u.fv.data(), u.order, cc.data(),
                          u.alpha),
              0);
    for (uint32_t n = 0; n < len; ++n) ASSERT_TRUE(sameBits(out[n], n < L ? full[n] : 0.0)) << len << " " << n;
    for (uint32_t n = len; n < len + 16; ++n) ASSERT_EQ(out[n], 7.0) << len << " " << n;
    EXPECT_TRUE(bitIdentical(cc, fullcc)) << len;  // every c0 makes its round trip
  }
}

TEST(Cc2waveform, DegenerateInputsAreSafe) {
  const SynthUtterance u = steady(10, 150.0, 4000.0, -5.0);
  std::vector<double> cc = u.cc;
  std::vector<double> out(900, kNaN);

  // No frame span: zeros, no crash.
  EXPECT_EQ(cc2waveform(out.data(), 5, 16000.0, 0, 10, u.f0.data(), u.fv.data(), u.order, cc.data(), 0.42), 0);
  for (int n = 0; n < 5; ++n) EXPECT_TRUE(sameBits(out[n], 0.0));
  // One-sample shift: two-point FFT without bins.
  EXPECT_EQ(cc2waveform(out.data(), 12, 16000.0, 1, 10, u.f0.data(), u.fv.data(), u.order, cc.data(), 0.42), 0);

  // Missing arrays.
  EXPECT_EQ(cc2waveform(nullptr, 10, 16000.0, 80, 10, u.f0.data(), nullptr, u.order, cc.data(), 0.42), -1);
  EXPECT_EQ(cc2waveform(out.data(), 881, 16000.0, 80, 10, nullptr, nullptr, u.order, cc.data(), 0.42), -1);
  EXPECT_EQ(cc2waveform(out.data(), 881, 16000.0, 80, 10, u.f0.data(), nullptr, u.order, nullptr, 0.42), -1);

  // Work areas beyond reason are refused (output zeroed, cepstra untouched).
  std::vector<double> cc2 = u.cc;
  EXPECT_EQ(cc2waveform(out.data(), 881, 1e12, 80, 10, u.f0.data(), nullptr, u.order, cc2.data(), 0.42), -1);
  EXPECT_EQ(cc2waveform(out.data(), 881, 16000.0, 1u << 30, 10, u.f0.data(), nullptr, u.order, cc2.data(), 0.42), -1);
  EXPECT_TRUE(bitIdentical(cc2, u.cc));
  for (int n = 0; n < 881; ++n) ASSERT_TRUE(sameBits(out[n], 0.0));

  // NaN and infinite f0 behave as unvoiced frames.
  SynthUtterance v = u, z = u;
  v.f0[2] = kNaN;
  v.f0[3] = kInf;
  v.f0[4] = -kInf;
  z.f0[2] = z.f0[3] = z.f0[4] = 0.0;
  EXPECT_TRUE(bitIdentical(synth(v, true), synth(z, true)));

  // Non-finite fv, cepstra, fs or alpha: no crash, sane status, untouched final sample.
  SynthUtterance w = u;
  w.fv[1] = kNaN;
  w.fv[2] = kInf;
  w.fv[3] = -kInf;
  int rc = -2;
  std::vector<double> o1 = synth(w, true, nullptr, &rc);
  EXPECT_EQ(rc, 0);
  for (double x : o1) EXPECT_TRUE(std::isfinite(x));
  w.frame(5)[3] = kNaN;
  w.frame(6)[0] = kInf;
  EXPECT_TRUE(sameBits(synth(w, false, nullptr, &rc).back(), 0.0));
  EXPECT_EQ(rc, 0);
  for (double fs : {kNaN, 0.0, -16000.0, 100.0, kInf}) {
    std::vector<double> c = u.cc;
    const int r = cc2waveform(out.data(), 881, fs, 80, 10, u.f0.data(), nullptr, u.order, c.data(), 0.42);
    EXPECT_TRUE(r == 0 || r == -1) << fs;
  }
  for (double alpha : {kNaN, 1.0, -3.0}) {
    std::vector<double> c = u.cc;
    EXPECT_EQ(cc2waveform(out.data(), 881, 16000.0, 80, 10, u.f0.data(), u.fv.data(), u.order, c.data(), alpha), 0);
  }
}

}  // namespace
